// A DeviceLL on a virtual camera that records the shots and downloads it reports, and the
// running of a shoot chain as the main loop would run it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "tests/link/link_support.h"

namespace capturetest {

using namespace std::chrono_literals;
using linktest::Count;

class CaptureDevice : public orq::DeviceLL {
public:
    using DeviceLL::DeviceLL;

    void OnShootCompleted(OrqFileInfo file) override {
        std::lock_guard<std::mutex> guard(lock);
        shots.push_back(file);
    }
    void OnDownloadCompleted(int fileId, std::u16string path) override {
        std::lock_guard<std::mutex> guard(lock);
        downloads.emplace_back(fileId, std::move(path));
    }
    void SetPreviewSuspended(bool suspended) override { previewSuspended = suspended; }
    bool IsMemLogging() override { return memLogging; }

    void SetDirectTransfer(int32_t value) {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        propertyValues[orq::PROP_DIRECT_TRANSFER] = value;
    }
    size_t BufferedFiles() {
        std::lock_guard<std::recursive_mutex> guard(directTransferLock);
        return DirectTransferFiles.size();
    }
    std::vector<OrqFileInfo> Shots() {
        std::lock_guard<std::mutex> guard(lock);
        return shots;
    }
    std::vector<std::pair<int, std::u16string>> Downloads() {
        std::lock_guard<std::mutex> guard(lock);
        return downloads;
    }

    std::atomic<bool> previewSuspended{false};
    std::atomic<bool> memLogging{false};

private:
    std::mutex lock;
    std::vector<OrqFileInfo> shots;
    std::vector<std::pair<int, std::u16string>> downloads;
};

struct ProcOutcome {
    OrqResult result = ORQ_OK;
    int steps = 0;
    std::vector<std::chrono::milliseconds> delays;  // asked for by each step that went on
    std::chrono::milliseconds elapsed{0};
};

// Runs the chain's steps, honouring their delays, until one ends it.
inline ProcOutcome RunProc(orq::ContProc* raw, std::chrono::milliseconds limit = 10s) {
    std::unique_ptr<orq::ContProc> proc(raw);
    ProcOutcome outcome;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < limit) {
        std::chrono::milliseconds delay(0);
        bool again = false;
        OrqResult result = ORQ_OK;
        proc->step(proc.get(), &delay, &result, &again);
        ++outcome.steps;
        if (!again) {
            outcome.result = result;
            break;
        }
        outcome.delays.push_back(delay);
        std::this_thread::sleep_for(delay);
    }
    outcome.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    return outcome;
}

inline std::string Narrow(const OrqChar* text) {
    std::string out;
    for (size_t i = 0; i < 128 && text[i]; ++i) out += static_cast<char>(text[i]);
    return out;
}

// The whole main log written since `offset`, continuation lines included.
inline std::string RawLogSince(size_t offset) {
    std::string contents;
    orq::platform::ReadFile(orq::MainLogPath(), contents);
    return offset < contents.size() ? contents.substr(offset) : std::string();
}

inline std::string ReadAll(const std::u16string& path) {
    std::string contents;
    orq::platform::ReadFile(path, contents);
    return contents;
}

inline orqsim::Bytes Pattern(size_t size, uint8_t seed = 1) {
    orqsim::Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7);
    return bytes;
}

// A session on a fresh virtual camera with its properties loaded, as after start-up.
class CaptureTest : public ::testing::Test {
protected:
    virtual orqsim::CameraOptions Options() { return {}; }

    void SetUp() override {
        static std::atomic<int> serial{0};
        path = u"orqsim://capture/" + orq::platform::FromUtf8(std::to_string(++serial));
        camera = std::make_shared<orqsim::VirtualCamera>(Options());
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
        folder = orq::platform::TempFolder();
        if (folder.empty() || folder.back() != orq::platform::PathSeparator())
            folder += orq::platform::PathSeparator();
    }

    void TearDown() override {
        device.reset();
        camera->Unplug();
        usb.reset();
    }

    std::vector<std::string> Log() const { return linktest::MessagesSince(logStart); }
    std::string RawLog() const { return RawLogSince(logStart); }
    size_t Ops(uint32_t subCommand) const {
        return camera->CountOperations(orq::PTP_OC_Vendor, subCommand);
    }
    // A target path in the temporary folder, unique to this test.
    std::u16string Target(const std::string& name) const {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        return folder + orq::platform::FromUtf8(std::string(info->name()) + "_" + name);
    }

    std::u16string path;
    std::u16string folder;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    linktest::QuietNotify notify;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb;
    std::unique_ptr<CaptureDevice> device;
    size_t logStart = 0;
};

using Strings = std::vector<std::string>;

}  // namespace capturetest
