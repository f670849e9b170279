// A DeviceLL on a virtual camera that records the shots and downloads it reports, and the
// running of a shoot chain as the main loop would run it.
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

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "tests/link/link_support.h"

namespace capturetest {

using namespace std::chrono_literals;
using linktest::Count;
using linktest::Fault;
using linktest::InOrder;

// Everything here runs on the test's thread: no main loop steps the chains.
class CaptureDevice : public orq::DeviceLL {
public:
    using DeviceLL::DeviceLL;

    void OnShootCompleted(OrqFileInfo file) override { shots.push_back(file); }
    void OnDownloadCompleted(int fileId, std::u16string path) override {
        downloads.emplace_back(fileId, std::move(path));
    }
    void SetPreviewSuspended(bool suspended) override { previewSuspended = suspended; }
    bool IsMemLogging() override { return memLogging; }

    void SetDirectTransfer(int32_t value) { propertyValues[ORQ_PROP_DIRECT_TRANSFER] = value; }
    size_t BufferedFiles() const { return DirectTransferFiles.size(); }
    void SetOperationLimit(std::chrono::milliseconds limit) { operationLimit = limit; }

    std::vector<OrqFileInfo> shots;
    std::vector<std::pair<int, std::u16string>> downloads;
    bool previewSuspended = false;
    bool memLogging = false;
};

inline std::string Narrow(const OrqChar* text) {
    std::string out;
    for (size_t i = 0; i < 128 && text[i]; ++i) out += static_cast<char>(text[i]);
    return out;
}

inline std::string ReadAll(const std::u16string& path) {
    std::string contents;
    orq::platform::ReadFile(path, contents);
    return contents;
}

inline std::u16string TempPath(const std::string& name) {
    std::u16string path = orq::platform::TempFolder();
    if (path.empty() || path.back() != orq::platform::PathSeparator())
        path += orq::platform::PathSeparator();
    return path + orq::platform::FromUtf8(name);
}

inline orqsim::Bytes Pattern(size_t size, uint8_t seed = 1) {
    orqsim::Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7);
    return bytes;
}

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

// A session on a fresh virtual camera with its properties loaded, as after start-up. The camera
// takes its time over a shot, as a real one does.
class CaptureTest : public ::testing::Test {
protected:
    void SetUp() override {
        static int serial = 0;
        const std::u16string path =
            u"orqsim://capture/" + orq::platform::FromUtf8(std::to_string(++serial));
        orqsim::CameraOptions options;
        options.remoteChunkSize = 4000;
        options.shootMs = 300;
        camera = std::make_shared<orqsim::VirtualCamera>(options);
        ASSERT_TRUE(camera->PlugIn(path));
        camera->SetStallLimit(60);
        usb = orqsim::CreateVirtualUsbLib(&notify);
        device = std::make_unique<CaptureDevice>(usb.get(), &config, path);
        ASSERT_EQ(device->OpenCamera(), ORQ_OK);
        ASSERT_EQ(device->PTPOpenSession(), ORQ_OK);
        ASSERT_EQ(device->LoadProperties(), ORQ_OK);
        ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
        camera->ClearOperations();
        logStart = linktest::LogSize();
    }

    void TearDown() override {
        device.reset();
        camera->Unplug();
        usb.reset();
    }

    // Runs a shoot chain's steps as the main loop would, honouring their delays. A chain that
    // never ends answers ORQ_SECOND_PROCESS, which no chain gives.
    // 'between' runs once, after the first step.
    OrqResult Shoot(const std::function<void()>& between = nullptr) {
        auto proc = device->Shoot([this](OrqFileInfo file) { device->OnShootCompleted(file); });
        OrqResult result = ORQ_SECOND_PROCESS;
        const auto end = std::chrono::steady_clock::now() + 10s;
        for (bool again = true, first = true; again && std::chrono::steady_clock::now() < end;) {
            std::chrono::milliseconds delay(0);
            again = false;
            proc->step(proc.get(), &delay, &result, &again);
            if (first && between) between();
            first = false;
            std::this_thread::sleep_for(delay);
        }
        return result;
    }
    std::vector<std::string> Log() const { return linktest::MessagesSince(logStart); }
    // The main log since the start, continuation lines included.
    std::string RawLog() const { return ReadAll(orq::MainLogPath()).substr(logStart); }
    size_t Ops(uint32_t subCommand) const {
        return camera->CountOperations(orq::PTP_OC_Vendor, subCommand);
    }

    std::shared_ptr<orqsim::VirtualCamera> camera;
    linktest::QuietNotify notify;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb;
    std::unique_ptr<CaptureDevice> device;
    size_t logStart = 0;
};

}  // namespace capturetest
