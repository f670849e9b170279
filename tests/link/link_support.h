// A DeviceLL on a virtual camera, and what the tests read back: the log's messages and the
// camera's record of operations.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "SDKConfig.h"
#include "sim/VirtualBus.h"
#include "sim/VirtualCamera.h"
#include "tests/core/test_support.h"

namespace linktest {

using orqsim::Bytes;
using orqsim::Fault;
using orqsim::Pipe;

// The message part of each main-log line written since `offset`, without padding.
inline std::vector<std::string> MessagesSince(size_t offset) {
    std::vector<std::string> messages;
    for (const std::string& line : orqtest::MainLogSince(offset)) {
        size_t first = line.find(" | ");
        size_t last = line.rfind(" | ");
        if (first == std::string::npos || last == first) continue;
        std::string text = line.substr(first + 3, last - first - 3);
        text.erase(text.find_last_not_of(' ') + 1);
        messages.push_back(text);
    }
    return messages;
}

inline size_t LogSize() {
    return orqtest::MainLogSize();
}

inline int Count(const std::vector<std::string>& messages, const std::string& text) {
    int count = 0;
    for (const auto& message : messages) count += message == text;
    return count;
}

// True when `wanted` occur in this order (other messages may stand between them).
inline ::testing::AssertionResult InOrder(const std::vector<std::string>& messages,
                                          const std::vector<std::string>& wanted) {
    size_t at = 0;
    for (const auto& message : messages) {
        if (at < wanted.size() && message == wanted[at]) ++at;
    }
    if (at == wanted.size()) return ::testing::AssertionSuccess();
    std::string seen;
    for (const auto& message : messages) seen += "\n  " + message;
    return ::testing::AssertionFailure() << "missing \"" << wanted[at] << "\" in:" << seen;
}

inline Bytes Words(std::initializer_list<uint32_t> words) {
    Bytes bytes;
    for (uint32_t w : words) {
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(w >> (8 * i)));
    }
    return bytes;
}

// A container as a camera would put it on the pipe.
inline Bytes Container(uint16_t type, uint16_t code, const Bytes& payload = {},
                       uint32_t transactionId = 0) {
    Bytes bytes = Words({static_cast<uint32_t>(12 + payload.size()),
                         type | static_cast<uint32_t>(code) << 16, transactionId});
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

// A data phase and an OK response, as the raw reply of a vendor operation.
inline Bytes DataThenOk(const Bytes& payload, uint16_t code = 0x9999) {
    Bytes bytes = Container(2, code, payload);
    Bytes ok = Container(3, 0x2001);
    bytes.insert(bytes.end(), ok.begin(), ok.end());
    return bytes;
}

inline Fault Raw(uint16_t opcode, int64_t subCommand, Bytes bytes) {
    Fault fault = Fault::Operation(Fault::RawReply, opcode, subCommand);
    fault.bytes = std::move(bytes);
    return fault;
}

struct QuietNotify : orq::IUsbLib_Notify {
    void OnDeviceChange() override {}
};

// A session on a fresh virtual camera. Waits are cut short so that stalls cost little.
class LinkTest : public ::testing::Test {
protected:
    static constexpr unsigned kStallMs = 60;

    void SetUp() override {
        static std::atomic<int> serial{0};
        path = u"orqsim://link/" + orq::platform::FromUtf8(std::to_string(++serial));
        camera = std::make_shared<orqsim::VirtualCamera>();
        ASSERT_TRUE(camera->PlugIn(path));
        camera->SetStallLimit(kStallMs);
        usb = orqsim::CreateVirtualUsbLib(&notify);
        link = std::make_unique<orq::DeviceLL>(usb.get(), &config, path);
        ASSERT_EQ(link->OpenCamera(), ORQ_OK);
        ASSERT_EQ(link->PTPOpenSession(), ORQ_OK);
        camera->ClearOperations();
        logStart = LogSize();
    }

    void TearDown() override {
        link.reset();
        camera->Unplug();
        usb.reset();
    }

    std::vector<std::string> Log() const { return MessagesSince(logStart); }

    // A vendor operation with no data phase, as a probe of the link's state.
    bool Probe() {
        return link->PtpTransactionRetry(orq::PTP_OC_Vendor, {orq::ORQM_UpdateAEAF},
                                         orq::PTP_NO_DATA, nullptr, nullptr);
    }

    std::u16string path;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    QuietNotify notify;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb;
    std::unique_ptr<orq::DeviceLL> link;
    size_t logStart = 0;
};

}  // namespace linktest
