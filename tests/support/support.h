// What every suite sets up and reads back: the SDK's log, waits with a bound, replies as a
// camera puts them on the pipe, a disk that refuses writes, a session on a virtual camera at the
// DeviceLL level, and a started SDK with virtual cameras behind the C API.
#pragma once

#include <gtest/gtest.h>

#ifndef _WIN32
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "Logger.h"
#include "SDKConfig.h"
#include "orqsdk.h"
#include "orqsdk_sim.h"
#include "platform/Platform.h"
#include "sim/VirtualBus.h"
#include "sim/VirtualCamera.h"

namespace orqtest {

using namespace std::chrono_literals;
using orqsim::Bytes;
using orqsim::Fault;
using orqsim::Pipe;
using Strings = std::vector<std::string>;

// ---- The log

inline std::string ReadAll(const std::u16string& path) {
    std::string contents;
    orq::platform::ReadFile(path, contents);
    return contents;
}

inline size_t LogSize() {
    return ReadAll(orq::MainLogPath()).size();
}

// Lines the main log gained since a size taken with LogSize().
inline Strings LogLinesSince(size_t offset) {
    const std::string contents = ReadAll(orq::MainLogPath());
    Strings lines;
    for (size_t begin = offset, end; begin < contents.size(); begin = end + 1) {
        end = std::min(contents.find('\n', begin), contents.size());
        lines.push_back(contents.substr(begin, end - begin));
    }
    return lines;
}

// The message part of each line since `offset`, without padding.
inline Strings MessagesSince(size_t offset) {
    Strings messages;
    for (const std::string& line : LogLinesSince(offset)) {
        const size_t first = line.find(" | "), last = line.rfind(" | ");
        if (first == std::string::npos || last == first) continue;
        std::string text = line.substr(first + 3, last - first - 3);
        text.erase(text.find_last_not_of(' ') + 1);
        messages.push_back(text);
    }
    return messages;
}

inline int Count(const Strings& messages, const std::string& text) {
    return static_cast<int>(std::count(messages.begin(), messages.end(), text));
}

inline int CountContaining(const Strings& lines, const std::string& text) {
    int count = 0;
    for (const auto& line : lines) count += line.find(text) != std::string::npos;
    return count;
}

// True when `wanted` occur in this order (other messages may stand between them).
inline ::testing::AssertionResult InOrder(const Strings& messages, const Strings& wanted) {
    size_t at = 0;
    for (const auto& message : messages) at += at < wanted.size() && message == wanted[at];
    if (at == wanted.size()) return ::testing::AssertionSuccess();
    std::string seen;
    for (const auto& message : messages) seen += "\n  " + message;
    return ::testing::AssertionFailure() << "missing \"" << wanted[at] << "\" in:" << seen;
}

// The main log as text from the moment of construction, marked in it.
class LogWatch {
public:
    LogWatch() {
        ORQ_LOG(orq::DEB, "---- test starts ----");
        start = LogSize();
    }
    std::string Text() const {
        const std::string text = ReadAll(orq::MainLogPath());
        return text.size() > start ? text.substr(start) : std::string();
    }
    bool Has(const std::string& piece) const { return Text().find(piece) != std::string::npos; }

private:
    size_t start = 0;
};

// ---- Waits, files and text

inline bool WaitFor(const std::function<bool()>& condition, int timeoutMs = 5000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

inline std::string Narrow(const OrqChar* text) {
    std::string out;
    for (size_t i = 0; i < 128 && text[i]; ++i) out += static_cast<char>(text[i]);
    return out;
}

inline std::u16string TempPath(const std::string& name) {
    std::u16string path = orq::platform::TempFolder();
    if (path.empty() || path.back() != orq::platform::PathSeparator())
        path += orq::platform::PathSeparator();
    return path + orq::platform::FromUtf8(name);
}

// Each 512-byte run differs from the others, so that packets out of order or repeated show.
inline Bytes Pattern(size_t size, uint8_t seed = 1) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
    return bytes;
}

// ---- Replies as a camera puts them on the pipe

inline Bytes Words(std::initializer_list<uint32_t> words) {
    Bytes bytes;
    for (uint32_t w : words) {
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(w >> (8 * i)));
    }
    return bytes;
}

inline Bytes Container(uint16_t type, uint16_t code, const Bytes& payload = {},
                       uint32_t transactionId = 0) {
    Bytes bytes = Words({static_cast<uint32_t>(12 + payload.size()),
                         type | static_cast<uint32_t>(code) << 16, transactionId});
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

// A data phase followed by a response with these parameters.
inline Bytes DataThen(const Bytes& payload, uint16_t code = 0x9999,
                      std::initializer_list<uint32_t> params = {}) {
    Bytes bytes = Container(2, code, payload);
    Bytes ok = Container(3, 0x2001, Words(params));
    bytes.insert(bytes.end(), ok.begin(), ok.end());
    return bytes;
}

inline Fault Raw(uint16_t opcode, int64_t subCommand, Bytes bytes) {
    Fault fault = Fault::Operation(Fault::RawReply, opcode, subCommand);
    fault.bytes = std::move(bytes);
    return fault;
}

// ---- A disk that refuses

// For its lifetime a folder refuses writes (read-only, for root as well) or the process may grow
// no file beyond `limit` bytes, as on a full disk.
class HostileDisk {
public:
    HostileDisk(std::filesystem::path folder, bool readOnly, size_t limit)
        : folder(std::move(folder)), readOnly(readOnly), limit(limit) {
#ifndef _WIN32
        if (readOnly) {
            chmod(this->folder.c_str(), 0500);
            // Root passes every permission test: this thread drops that power meanwhile.
            syscall(SYS_capget, &header, saved);
            __user_cap_data_struct reduced[2] = {saved[0], saved[1]};
            reduced[0].effective &= ~(1u << CAP_DAC_OVERRIDE);
            syscall(SYS_capset, &header, reduced);
        }
        if (limit) {
            std::signal(SIGXFSZ, SIG_IGN);
            getrlimit(RLIMIT_FSIZE, &previous);
            rlimit reduced = previous;
            reduced.rlim_cur = limit;
            setrlimit(RLIMIT_FSIZE, &reduced);
        }
#endif
    }
    ~HostileDisk() {
#ifndef _WIN32
        if (readOnly) {
            syscall(SYS_capset, &header, saved);
            chmod(folder.c_str(), 0700);
        }
        if (limit) setrlimit(RLIMIT_FSIZE, &previous);
#endif
    }

private:
    std::filesystem::path folder;
    bool readOnly;
    size_t limit;
#ifndef _WIN32
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved[2] = {};
    rlimit previous{};
#endif
};

// ---- A session on a virtual camera, at the DeviceLL level

// A device of class D on a fresh virtual camera, driven from the test's thread alone.
template <class D = orq::DeviceLL>
struct Rig {
    // Opens a session; `prepare` sets the camera up before the properties load. Answers what
    // the loading answered.
    OrqResult Open(const orqsim::CameraOptions& options = {}, bool load = true,
                   const std::function<void(orqsim::VirtualCamera&)>& prepare = {}) {
        static std::atomic<int> serial{0};
        const std::u16string path =
            u"orqsim://rig/" + orq::platform::FromUtf8(std::to_string(++serial));
        camera = std::make_shared<orqsim::VirtualCamera>(options);
        if (!camera->PlugIn(path)) return ORQ_ERROR;
        camera->SetStallLimit(60);  // stalls cost little
        usb = orqsim::CreateVirtualUsbLib(&quiet);
        device = std::make_unique<D>(usb.get(), &config, path);
        if (device->OpenCamera() != ORQ_OK || device->PTPOpenSession() != ORQ_OK) return ORQ_ERROR;
        if (prepare) prepare(*camera);
        logStart = LogSize();
        const OrqResult loaded = load ? device->LoadProperties() : ORQ_OK;
        camera->ClearOperations();
        return loaded;
    }
    ~Rig() {
        device.reset();
        usb.reset();
        if (camera) camera->Unplug();
    }

    // Forgets the camera's operations and the log so far.
    void Mark() {
        camera->ClearOperations();
        logStart = LogSize();
    }
    Strings Log() const { return MessagesSince(logStart); }
    // Messages since the mark that contain `text`.
    int Logged(const std::string& text) const { return CountContaining(Log(), text); }
    // The main log since the mark, continuation lines included.
    std::string RawLog() const { return ReadAll(orq::MainLogPath()).substr(logStart); }
    size_t Ops(uint32_t subCommand) const {
        return camera->CountOperations(orq::PTP_OC_Vendor, subCommand);
    }
    // The first parameter after the sub-command of each such operation.
    std::vector<int32_t> Params(uint32_t subCommand) const {
        std::vector<int32_t> params;
        for (const auto& op : camera->Operations()) {
            if (op.SubCommand() == subCommand && op.params.size() > 1)
                params.push_back(static_cast<int32_t>(op.params[1]));
        }
        return params;
    }
    void InjectFailure(uint32_t subCommand, int64_t times = 1) {
        Fault fault = Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, subCommand,
                                       orq::PTP_RC_OperationNotSupported);
        fault.times = times;
        camera->InjectFault(fault);
    }

    // Plug changes are not followed; a member, so that the transport's thread never calls
    // through this object's vtable while a derived fixture is destroyed.
    struct Quiet : orq::IUsbLib_Notify {
        void OnDeviceChange() override {}
    } quiet;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb;
    std::unique_ptr<D> device;
    size_t logStart = 0;
};

// A session opened before each test, with the properties loaded as after start-up unless the
// fixture says otherwise; a fixture sets `options` in its constructor.
template <class D = orq::DeviceLL>
class DeviceTest : public ::testing::Test, public Rig<D> {
protected:
    void SetUp() override {
        ASSERT_EQ(this->Open(options, load), ORQ_OK);
        this->Mark();
    }
    orqsim::CameraOptions options;
    bool load = true;
};

// ---- A started SDK with virtual cameras

// What the SDK's events delivered, for subscriptions that pass it as their context.
struct Recorder {
    std::mutex lock;
    std::vector<std::pair<uint32_t, int>> cameraChanges;  // public id, state
    std::vector<int> initErrors, cameraErrors;
    std::vector<OrqFileInfo> shots;
    std::vector<std::pair<int, std::u16string>> downloads;  // file id, path

    static void OnCameraList(void* self, OrqCameraInfo* info, int state) {
        static_cast<Recorder*>(self)->Add(
            [&](Recorder& r) { r.cameraChanges.emplace_back(info->id, state); });
        OrqFree(info);
    }
    static void OnInitError(void* self, int result, OrqChar* path) {
        static_cast<Recorder*>(self)->Add([&](Recorder& r) { r.initErrors.push_back(result); });
        OrqFree(path);
    }
    static void OnCameraError(void* self, OrqResult result) {
        static_cast<Recorder*>(self)->Add([&](Recorder& r) { r.cameraErrors.push_back(result); });
    }
    static void OnShot(void* self, OrqFileInfo* file) {
        static_cast<Recorder*>(self)->Add([&](Recorder& r) { r.shots.push_back(*file); });
        OrqFree(file);
    }
    static void OnDownload(void* self, int fileId, OrqChar* path) {
        const std::u16string text(path, path + std::char_traits<OrqChar>::length(path));
        static_cast<Recorder*>(self)->Add(
            [&](Recorder& r) { r.downloads.emplace_back(fileId, text); });
        OrqFree(path);
    }
    // Waits until `list` holds `count` entries; false after `timeoutMs`.
    template <class T>
    bool Await(const std::vector<T>& list, size_t count, int timeoutMs = 5000) {
        return WaitFor([&] { return Size(list) == count; }, timeoutMs);
    }
    template <class T>
    size_t Size(const std::vector<T>& list) {
        return Copy(list).size();
    }
    template <class T>
    std::vector<T> Copy(const std::vector<T>& list) {
        std::lock_guard<std::mutex> guard(lock);
        return list;
    }

private:
    void Add(const std::function<void(Recorder&)>& change) {
        std::lock_guard<std::mutex> guard(lock);
        change(*this);
    }
};

class SdkTest : public ::testing::Test {
protected:
    // Termination frees what the test kept: subscriptions, sessions and the manager.
    void TearDown() override {
        OrqTerminateSDK();
        for (const auto& camera : plugged) camera->Unplug();
        OrqSimRemoveAll();
    }

    // A virtual camera on the bus; `prepare` sets it up before it is plugged in.
    std::shared_ptr<orqsim::VirtualCamera> Plug(
        const std::string& model = "SX160",
        const std::function<void(orqsim::VirtualCamera&)>& prepare = {}) {
        orqsim::CameraOptions options;
        options.model = model;
        auto camera = std::make_shared<orqsim::VirtualCamera>(options);
        if (prepare) prepare(*camera);
        EXPECT_TRUE(camera->PlugIn(u"orqsim://sdk/" +
                                   orq::platform::FromUtf8(std::to_string(plugged.size()))));
        plugged.push_back(camera);
        return camera;
    }
    void Start() {
        ASSERT_EQ(OrqInitializeSDK(), ORQ_OK);
        manager = OrqGetCameraManager();
    }
    std::vector<OrqCameraInfo> Cameras() {
        OrqCameraInfo* list = nullptr;
        int count = -1;
        EXPECT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
        if (count <= 0) return {};
        std::vector<OrqCameraInfo> cameras(list, list + count);
        OrqFree(list);
        return cameras;
    }
    OrqSessionHandle Open(uint32_t id) {
        OrqSessionHandle opened = nullptr;
        EXPECT_EQ(OrqOpenSession(manager, static_cast<int>(id), &opened), ORQ_OK);
        return opened;
    }
    // A session on the listed camera plugged as `camera`.
    OrqSessionHandle Open(const std::shared_ptr<orqsim::VirtualCamera>& camera) {
        OrqSessionHandle opened = nullptr;
        for (const OrqCameraInfo& info : Cameras()) {
            if (reinterpret_cast<const char16_t*>(info.path) != camera->Path()) continue;
            EXPECT_EQ(OrqOpenSession(manager, static_cast<int>(info.id), &opened), ORQ_OK);
        }
        EXPECT_NE(opened, nullptr);
        return opened;
    }
    // The SDK started on one camera of this model, with a session on it in `session`.
    std::shared_ptr<orqsim::VirtualCamera> StartWithSession(const std::string& model = "SX160") {
        auto camera = Plug(model);
        Start();
        session = Open(camera);
        logStart = LogSize();
        return camera;
    }
    int Logged(const std::string& line) const { return Count(MessagesSince(logStart), line); }

    std::vector<std::shared_ptr<orqsim::VirtualCamera>> plugged;
    OrqCameraManagerHandle manager = nullptr;
    OrqSessionHandle session = nullptr;
    size_t logStart = 0;
};

}  // namespace orqtest
