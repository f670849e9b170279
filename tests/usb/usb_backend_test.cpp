// The libusb backend on emulated USB devices: enumeration, open, the transfer rules every
// transport keeps, closing under a blocked transfer, cable pulls and hot-plug.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "tests/usb/EmulatedUsb.h"
#include "tests/usb/ScriptedEndpoint.h"
#include "tests/usb/UsbTestSupport.h"

namespace orqtest {
namespace {

using namespace std::chrono_literals;
using orq::UsbDevice;
using Paths = std::set<std::u16string>;

class UsbBackendTest : public UsbLibTest {
protected:
    // The bus exists before the backend's libusb context and goes after it (at TearDown).
    void StartBackend(bool useHotplug = true) {
        usb = orq::CreateUsbLib_LibUsb(&notify, useHotplug);
    }

    // A camera whose pipes `endpoint` serves from then on, echoing what is written.
    std::u16string Plug(std::u16string product = u"Orq Scripted Camera",
                        EmulatedDeviceOptions options = {}) {
        endpoint = std::make_shared<ScriptedEndpoint>(std::move(product), true);
        return bus.Plug(endpoint, options);
    }
    // Opens as a desktop user does: without root's power over file modes (on this thread only).
    UsbDevice* OpenAsUser(const std::u16string& path) {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct caps[2] = {};
        syscall(SYS_capget, &header, caps);
        const __user_cap_data_struct saved = caps[0];
        caps[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        syscall(SYS_capset, &header, caps);
        UsbDevice* device = usb->OpenDevice(path);
        caps[0] = saved;
        syscall(SYS_capset, &header, caps);
        return device;
    }

    EmulatedUsbBus bus;
    std::shared_ptr<ScriptedEndpoint> endpoint;
};

TEST_F(UsbBackendTest, ListsAndOpensFreeStillImageCamerasWithBothBulkPipesOnly) {
    const std::u16string product = u"Orq Camera SX160 \u00e9\u4e2d";
    // Fields in order: interface class, bulk-out pipe, held by another program, node closed.
    std::u16string path = Plug(product);
    std::u16string vendorPath = bus.Plug(nullptr, {0xFF});
    std::u16string inOnlyPath = bus.Plug(nullptr, {6, false});
    std::u16string heldPath = Plug(u"Held", {6, true, true});
    std::u16string closedPath = Plug(u"Closed", {6, true, false, true});
    StartBackend();
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), (Paths{path, heldPath, closedPath}));
    EXPECT_EQ(path, u"usb:001:002");

    LogWatch log;
    UsbDevice* device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb->GetDeviceName(device), product);
    usb->CloseDevice(device);
    usb->CloseDevice(device);  // the second does nothing
    EXPECT_EQ(usb->GetDeviceName(device), product) << "the name outlives the handle";

    for (const auto& refused : {std::u16string(u"usb:001:077"), vendorPath, inOnlyPath, heldPath}) {
        EXPECT_EQ(usb->OpenDevice(refused), nullptr);
    }
    EXPECT_TRUE(log.Has("Can't open device file. -4"));
    EXPECT_TRUE(log.Has("QueryDeviceEndpoints failed"));
    EXPECT_TRUE(log.Has("Device usb:001:005 is busy: another program holds it"));
    // A node closed to this user is told apart from other refusals, with what to do about it.
    EXPECT_EQ(OpenAsUser(closedPath), nullptr);
    EXPECT_TRUE(usb->OpenDenied(closedPath));
    EXPECT_FALSE(usb->OpenDenied(heldPath));
    EXPECT_TRUE(log.Has("No permission to open usb:001:006: install the SDK's udev rule"));
}

class UsbTransferTest : public UsbBackendTest {
protected:
    void SetUp() override {
        path = Plug();
        StartBackend();
        device = usb->OpenDevice(path);
        ASSERT_NE(device, nullptr);
    }
    void TearDown() override {
        usb->CloseDevice(device);
        UsbBackendTest::TearDown();
    }
    // Whether a 12-byte read that waits on the device succeeds when `interrupt` runs meanwhile.
    bool BlockedReadInterruptedBy(const std::function<void()>& interrupt) {
        auto read = std::async(std::launch::async, [this] {
            Bytes buffer(12);
            return Read(device, buffer);
        });
        std::this_thread::sleep_for(300ms);
        interrupt();
        if (read.wait_for(5s) != std::future_status::ready) {
            ADD_FAILURE() << "the interrupted read never came back";
            std::abort();  // its thread still uses the fixture
        }
        return read.get();
    }

    std::u16string path;
    UsbDevice* device = nullptr;
};

TEST_F(UsbTransferTest, WritesGoOutWholeAndReadsTakePacketsAsTheyCome) {
    // Each write comes back as one reply, read here as a header of 12, a payload that spans
    // packets and the rest of the last, short packet; then a reply queued right behind it. A
    // read that asked for part of a packet would meet the whole packet and fail.
    Bytes data = Pattern(2 * 512 + 300, 4), reply = Pattern(32, 1), got;
    EXPECT_TRUE(Write(device, data));
    endpoint->QueueIn(reply);
    for (size_t size : {12, 1280, 32, 32}) {
        Bytes piece(size);
        ASSERT_TRUE(Read(device, piece));
        got.insert(got.end(), piece.begin(), piece.end());
    }
    data.insert(data.end(), reply.begin(), reply.end());
    EXPECT_EQ(got, data);

    const int submits = bus.BulkSubmits(path);
    EXPECT_TRUE(usb->UsbReadExactly(orq::UsbBuffer{nullptr, 0}, device));
    EXPECT_EQ(bus.BulkSubmits(path), submits) << "a read of nothing touches nothing";

    // Short and empty packets are read on until the buffer is full.
    data = Pattern(4 * 1024 * 1024 + 1000, 5);  // more than one transfer's worth
    size_t at = 0;
    for (size_t piece : {700, 0, 512, 0, 0, 1}) {
        endpoint->QueueIn(Bytes(data.begin() + at, data.begin() + at + piece));
        at += piece;
    }
    endpoint->QueueIn(Bytes(data.begin() + at, data.end()));
    got.assign(data.size(), 0);
    ASSERT_TRUE(Read(device, got));
    EXPECT_EQ(got, data);
}

TEST_F(UsbTransferTest, FailuresAreLoggedWithLibusbNumbers) {
    LogWatch log;
    // A device that trickles a byte at a time fails the read once it outlasts the pipe timeout,
    // long before the 20 s these 1024 bytes would take.
    std::atomic<bool> trickling{true};
    std::thread trickle([&] {
        while (trickling) {
            endpoint->QueueIn({1});
            std::this_thread::sleep_for(20ms);
        }
    });
    Bytes buffer(1024);
    EXPECT_FALSE(Read(device, buffer));
    trickling = false;
    trickle.join();
    EXPECT_TRUE(log.Has("UsbRead failed -7"));

    endpoint->QueueIn({}, orqsim::TransferResult::Error);
    EXPECT_FALSE(Read(device, buffer));
    EXPECT_TRUE(log.Has("UsbRead failed -9"));
    // A run of empty packets ends the read rather than holding it for ever.
    for (int i = 0; i < 8; ++i) endpoint->QueueIn({});
    endpoint->QueueIn(Pattern(12, 9));
    Bytes header(12);
    EXPECT_FALSE(Read(device, header));
    endpoint->SetOut(orqsim::TransferResult::Ok, 60);
    EXPECT_FALSE(Write(device, Pattern(100, 6)));
    EXPECT_TRUE(log.Has("usb write missmath bytes count: 100 60"));
    endpoint->SetOut(orqsim::TransferResult::Error);
    EXPECT_FALSE(Write(device, Pattern(12, 7)));
    EXPECT_TRUE(log.Has("Write failed -9"));
}

TEST_F(UsbTransferTest, CloseFromAnotherThreadOrACablePullFailsABlockedReadAtOnce) {
    LogWatch log;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(BlockedReadInterruptedBy([&] {
        usb->CloseDevice(device);
        // The handle went only once the cancelled transfer had come back.
        EXPECT_EQ(bus.UnreapedAtRelease(path), 0u);
    }));
    // Cancelled, not left to the 5 s pipe timeout (which reports the same code after a close).
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_TRUE(log.Has("UsbRead failed -4"));
    // Later transfers fail without touching the device.
    const int submits = bus.BulkSubmits(path);
    EXPECT_FALSE(Write(device, Pattern(12, 9)));
    EXPECT_TRUE(log.Has("Write failed -4"));
    EXPECT_EQ(bus.BulkSubmits(path), submits);

    device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    EXPECT_FALSE(BlockedReadInterruptedBy([&] { bus.Unplug(path); }));
}

TEST_F(UsbBackendTest, DevicesTransferAtTheSameTimeWithoutSharedState) {
    // The second declares no packet size: it still gets whole-packet reads.
    const std::u16string paths[] = {Plug(), Plug(u"Unsized", {6, true, false, false, 0})};
    StartBackend();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            UsbDevice* device = usb->OpenDevice(paths[i]);
            if (!device) return void(++failures);
            for (int round = 0; round < 100; ++round) {
                Bytes out = Pattern(12 + round * 7, static_cast<uint8_t>(i * 100 + round));
                Bytes in(out.size());
                if (!Write(device, out) || !Read(device, in) || in != out) ++failures;
            }
            usb->CloseDevice(device);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
}

// With hot-plug events, or the periodic enumeration that stands in for them where libusb has
// none, arrivals and removals reach the receiver on the backend's own thread.
class UsbNotificationTest : public UsbBackendTest, public ::testing::WithParamInterface<bool> {};

TEST_P(UsbNotificationTest, ChangesReachTheReceiverThatMayTalkToTheCameraFromThere) {
    std::atomic<bool> started{false}, pinged{false}, gone{false};
    // As the camera manager does on arrival: open the camera from inside the notification.
    notify.onChange = [&] {
        if (!started) return;
        const auto paths = usb->GetAllConnectedDevicePaths();
        if (pinged && paths.empty()) gone = true;
        for (const auto& path : paths) {
            UsbDevice* device = usb->OpenDevice(path);
            if (!device) continue;
            Bytes ping = Pattern(12, 10), pong(12);
            pinged = Write(device, ping) && Read(device, pong) && pong == ping;
            usb->CloseDevice(device);
        }
    };
    StartBackend(GetParam());
    started = true;
    LogWatch log;
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
    EXPECT_TRUE(log.Has("GetAllConnectedDevicePaths: Device not found 0"));

    const std::u16string path = Plug();
    ASSERT_TRUE(WaitFor([&] { return pinged.load(); }, 10000));
    EXPECT_NE(notify.lastThread.load(), std::this_thread::get_id());
    bus.Unplug(path);
    EXPECT_TRUE(WaitFor([&] { return gone.load(); }, 10000));
}

INSTANTIATE_TEST_SUITE_P(HotplugOrPolling, UsbNotificationTest, ::testing::Bool());

TEST_F(UsbBackendTest, DestructionWaitsForARunningNotificationAndEndsThemAll) {
    std::atomic<bool> inside{false}, finished{false};
    notify.onChange = [&] {
        inside = true;
        std::this_thread::sleep_for(300ms);
        finished = true;
    };
    StartBackend();
    Plug();
    ASSERT_TRUE(WaitFor([&] { return inside.load(); }, 10000));
    usb.reset();
    EXPECT_TRUE(finished);

    const int calls = notify.calls;
    Plug();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(notify.calls.load(), calls);
}

}  // namespace
}  // namespace orqtest
