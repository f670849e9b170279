// A DeviceLL on a virtual camera that records the shots and downloads it reports, and the
// running of a shoot chain as the main loop would run it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
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

    void SetDirectTransfer(int32_t value) { propertyValues[orq::PROP_DIRECT_TRANSFER] = value; }
    size_t BufferedFiles() const { return DirectTransferFiles.size(); }

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

inline orqsim::Bytes Pattern(size_t size, uint8_t seed = 1) {
    orqsim::Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7);
    return bytes;
}

inline std::string Text(const orqsim::Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// A session on a fresh virtual camera with its properties loaded, as after start-up. A derived
// fixture changes `options` in its constructor.
class CaptureTest : public ::testing::Test {
protected:
    CaptureTest() { options.remoteChunkSize = 4000; }

    void SetUp() override {
        static int serial = 0;
        const std::u16string path =
            u"orqsim://capture/" + orq::platform::FromUtf8(std::to_string(++serial));
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
        folder = orq::platform::TempFolder();
        if (folder.empty() || folder.back() != orq::platform::PathSeparator())
            folder += orq::platform::PathSeparator();
    }

    void TearDown() override {
        device.reset();
        camera->Unplug();
        usb.reset();
    }

    // Runs a shoot chain's steps as the main loop would, honouring their delays.
    OrqResult Shoot() {
        std::unique_ptr<orq::ContProc> proc =
            device->Shoot([this](OrqFileInfo file) { device->OnShootCompleted(file); });
        OrqResult result = ORQ_OK;
        for (auto end = std::chrono::steady_clock::now() + 10s;
             std::chrono::steady_clock::now() < end;) {
            std::chrono::milliseconds delay(0);
            bool again = false;
            proc->step(proc.get(), &delay, &result, &again);
            if (!again) return result;
            std::this_thread::sleep_for(delay);
        }
        ADD_FAILURE() << "the chain never ended";
        return result;
    }
    std::vector<std::string> Log() const { return linktest::MessagesSince(logStart); }
    // The main log since the start, continuation lines included.
    std::string RawLog() const {
        const std::string all = ReadAll(orq::MainLogPath());
        return logStart < all.size() ? all.substr(logStart) : std::string();
    }
    size_t Ops(uint32_t subCommand) const {
        return camera->CountOperations(orq::PTP_OC_Vendor, subCommand);
    }
    std::u16string Target(const char* name) const {
        return folder + orq::platform::FromUtf8(std::string("capture_") + name);
    }

    orqsim::CameraOptions options;
    std::u16string folder;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    linktest::QuietNotify notify;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb;
    std::unique_ptr<CaptureDevice> device;
    size_t logStart = 0;
};

}  // namespace capturetest
