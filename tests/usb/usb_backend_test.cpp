// The libusb backend on emulated USB devices: enumeration, open, the transfer rules every
// transport keeps, closing under a blocked transfer, cable pulls and hot-plug.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "tests/usb/EmulatedUsb.h"
#include "tests/usb/ScriptedEndpoint.h"
#include "tests/usb/UsbTestSupport.h"

namespace orqtest {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Holder = EmulatedDeviceOptions::Holder;
using orq::UsbBuffer;
using orq::UsbDevice;
using Paths = std::set<std::u16string>;

Bytes Pattern(size_t size, uint8_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
    return bytes;
}

class UsbBackendTest : public ::testing::Test {
protected:
    // The bus exists before the backend's libusb context and goes after it.
    void StartBackend(bool useHotplug = true) {
        usb = orq::CreateUsbLib_LibUsb(&notify, useHotplug);
    }
    void TearDown() override { usb.reset(); }

    // A camera whose pipes `endpoint` serves from then on.
    std::u16string Plug(std::u16string product = u"Orq Scripted Camera",
                        EmulatedDeviceOptions options = {}) {
        endpoint = std::make_shared<ScriptedEndpoint>(std::move(product));
        return bus.Plug(endpoint, options);
    }
    bool Read(UsbDevice* device, Bytes& into) {
        return usb->UsbReadExactly(UsbBuffer{into.data(), into.size()}, device);
    }
    bool Write(UsbDevice* device, Bytes bytes) {
        return usb->UsbWrite(UsbBuffer{bytes.data(), bytes.size()}, device);
    }

    EmulatedUsbBus bus;
    ChangeRecorder notify;
    std::unique_ptr<orq::UsbLib> usb;
    std::shared_ptr<ScriptedEndpoint> endpoint;
};

TEST_F(UsbBackendTest, ListsStillImageDevicesWithBothBulkPipesOnly) {
    EmulatedDeviceOptions vendor, inOnly, hub, noInterrupt;
    vendor.interfaceClass = 0xFF;
    inOnly.bulkOut = false;
    hub.hub = true;
    noInterrupt.interruptIn = false;
    std::u16string camera = Plug();
    bus.Plug(std::make_shared<ScriptedEndpoint>(), vendor);
    bus.Plug(std::make_shared<ScriptedEndpoint>(), inOnly);
    bus.Plug(nullptr, hub);
    std::u16string other = Plug(u"Second", noInterrupt);
    StartBackend();
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), (Paths{camera, other}));
    EXPECT_EQ(camera, u"usb:001:002");
}

TEST_F(UsbBackendTest, OpenClaimsTheInterfaceAndReadsTheProductString) {
    const std::u16string product = u"Orq Camera SX160 \u00e9\u4e2d";
    std::u16string path = Plug(product);
    StartBackend();
    UsbDevice* device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb->GetDeviceName(device), product);
    EXPECT_EQ(bus.Stats(path).claims, 1);
    usb->CloseDevice(device);
    usb->CloseDevice(device);  // the second does nothing
    EXPECT_EQ(usb->GetDeviceName(device), product) << "the name outlives the handle";
    EXPECT_EQ(bus.Stats(path).releases, 1);

    // Opened again, as after a failed start-up.
    device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    usb->CloseDevice(device);
}

TEST_F(UsbBackendTest, OpenRefusesWhatIsNoFreeCameraAndSetsAKernelDriverAside) {
    EmulatedDeviceOptions vendor, held, bound;
    vendor.interfaceClass = 0xFF;
    held.holder = Holder::OtherProgram;
    bound.holder = Holder::KernelDriver;
    std::u16string vendorPath = bus.Plug(std::make_shared<ScriptedEndpoint>(), vendor);
    std::u16string heldPath = Plug(u"Held", held);
    std::u16string boundPath = Plug(u"Bound", bound);
    StartBackend();
    LogWatch log;
    EXPECT_EQ(usb->OpenDevice(u"usb:001:077"), nullptr);
    EXPECT_EQ(usb->OpenDevice(u"not a path"), nullptr);
    EXPECT_EQ(usb->OpenDevice(vendorPath), nullptr);
    EXPECT_EQ(usb->OpenDevice(heldPath), nullptr);
    EXPECT_TRUE(log.Has("Can't open device file. -4"));
    EXPECT_TRUE(log.Has("QueryDeviceEndpoints failed"));
    EXPECT_TRUE(log.Has("Device usb:001:003 is busy: another program holds it"));
    EXPECT_EQ(bus.Stats(vendorPath).opens, 0);
    EXPECT_EQ(bus.Stats(heldPath).claims, 0);

    // Once the other program lets go, it opens; a bound kernel driver is detached.
    bus.SetHolder(heldPath, Holder::None);
    for (const auto& path : {heldPath, boundPath}) {
        UsbDevice* device = usb->OpenDevice(path);
        ASSERT_NE(device, nullptr);
        usb->CloseDevice(device);
    }
    EXPECT_EQ(bus.Stats(boundPath).detaches, 1);
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
        std::atomic<bool> result{true};
        std::thread reader([&] {
            Bytes buffer(12);
            result = Read(device, buffer);
        });
        std::this_thread::sleep_for(300ms);
        interrupt();
        reader.join();
        return result;
    }

    std::u16string path;
    UsbDevice* device = nullptr;
};

TEST_F(UsbTransferTest, WritesGoOutWholeAndReadsLeaveTheRestOfAPacketForTheNext) {
    Bytes command = Pattern(12, 1), big = Pattern(3 * 512 + 100, 2);
    EXPECT_TRUE(Write(device, command));
    EXPECT_TRUE(Write(device, big));
    EXPECT_EQ(endpoint->Written(), (std::vector<Bytes>{command, big}));

    // A container read as its length word, then the rest; a header of 12, then a payload
    // that spans packets and ends in a short one; two replies queued back to back.
    Bytes response = Pattern(32, 3), data = Pattern(2 * 512 + 300, 4);
    endpoint->QueueIn(response);
    endpoint->QueueIn(Bytes(data.begin(), data.begin() + 512));
    endpoint->QueueIn(Bytes(data.begin() + 512, data.begin() + 1024));
    endpoint->QueueIn(Bytes(data.begin() + 1024, data.end()));
    endpoint->QueueIn(response);
    Bytes length(4), rest(28), header(12), payload(data.size() - 12), whole(32);
    ASSERT_TRUE(Read(device, length));
    ASSERT_TRUE(Read(device, rest));
    length.insert(length.end(), rest.begin(), rest.end());
    EXPECT_EQ(length, response);
    ASSERT_TRUE(Read(device, header));
    ASSERT_TRUE(Read(device, payload));
    header.insert(header.end(), payload.begin(), payload.end());
    EXPECT_EQ(header, data);
    ASSERT_TRUE(Read(device, whole));
    EXPECT_EQ(whole, response);

    const int submits = bus.Stats(path).bulkSubmits;
    EXPECT_TRUE(usb->UsbReadExactly(UsbBuffer{nullptr, 0}, device));
    EXPECT_EQ(bus.Stats(path).bulkSubmits, submits) << "a read of nothing touches nothing";
}

TEST_F(UsbTransferTest, ShortAndEmptyPacketsAreReadOnUntilTheBufferIsFull) {
    Bytes data = Pattern(4 * 1024 * 1024 + 1000, 5);  // more than one transfer's worth
    size_t at = 0;
    for (size_t piece : {700, 0, 512, 0, 0, 1}) {
        endpoint->QueueIn(Bytes(data.begin() + at, data.begin() + at + piece));
        at += piece;
    }
    endpoint->QueueIn(Bytes(data.begin() + at, data.end()));
    Bytes got(data.size());
    ASSERT_TRUE(Read(device, got));
    EXPECT_EQ(got, data);
}

TEST_F(UsbTransferTest, FailuresAreLoggedWithLibusbNumbers) {
    LogWatch log;
    // A read that runs out of time keeps what arrived before.
    Bytes first = Pattern(512, 8), buffer(1024, 0);
    endpoint->QueueIn(first);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Read(device, buffer));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4900ms);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), buffer.begin()));
    EXPECT_TRUE(log.Has("UsbRead failed -7"));

    endpoint->QueueInFailure(orqsim::TransferResult::Error);
    EXPECT_FALSE(Read(device, buffer));
    EXPECT_TRUE(log.Has("UsbRead failed -9"));
    EXPECT_TRUE(log.Has("UsbReadExactly failed"));
    endpoint->SetOut(orqsim::TransferResult::Ok, 60);
    EXPECT_FALSE(Write(device, Pattern(100, 6)));
    EXPECT_TRUE(log.Has("usb write missmath bytes count: 100 60"));
    endpoint->SetOut(orqsim::TransferResult::Error);
    EXPECT_FALSE(Write(device, Pattern(12, 7)));
    EXPECT_TRUE(log.Has("Write failed -9"));
}

TEST_F(UsbTransferTest, CloseFromAnotherThreadFailsABlockedReadAtOnce) {
    LogWatch log;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(BlockedReadInterruptedBy([&] { usb->CloseDevice(device); }));
    // Cancelled, not left to the 5 s pipe timeout (which reports the same code after a close).
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_TRUE(log.Has("UsbRead failed -4"));
    // Later transfers fail without touching the device.
    const int submits = bus.Stats(path).bulkSubmits;
    EXPECT_FALSE(Write(device, Pattern(12, 9)));
    EXPECT_TRUE(log.Has("Write failed -4"));
    EXPECT_EQ(bus.Stats(path).bulkSubmits, submits);
}

TEST_F(UsbTransferTest, CablePullFailsABlockedReadAndTheDeviceLeavesTheList) {
    LogWatch log;
    EXPECT_FALSE(BlockedReadInterruptedBy([&] { bus.Unplug(path); }));
    EXPECT_TRUE(log.Has("UsbRead failed -4"));
    EXPECT_TRUE(notify.WaitFor([&] { return usb->GetAllConnectedDevicePaths().empty(); }));
}

TEST_F(UsbBackendTest, DevicesTransferAtTheSameTimeWithoutSharedState) {
    std::vector<std::u16string> paths;
    for (int i = 0; i < 2; ++i) {
        paths.push_back(bus.Plug(std::make_shared<ScriptedEndpoint>(u"Loop", true)));
    }
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

TEST_F(UsbBackendTest, HotplugReachesTheReceiverOnTheBackendsOwnThread) {
    std::atomic<bool> expectCamera{false}, openedInside{false};
    // The receiver opens the camera and talks to it from inside the notification, as the
    // camera manager does on arrival.
    notify.onChange = [&] {
        if (!expectCamera) return;
        for (const auto& path : usb->GetAllConnectedDevicePaths()) {
            UsbDevice* device = usb->OpenDevice(path);
            if (!device) continue;
            Bytes ping = Pattern(12, 10), pong(12);
            openedInside = Write(device, ping) && Read(device, pong) && pong == ping;
            usb->CloseDevice(device);
        }
    };
    StartBackend();
    LogWatch log;
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
    EXPECT_TRUE(log.Has("GetAllConnectedDevicePaths: Device not found 0"));

    expectCamera = true;
    std::u16string path = bus.Plug(std::make_shared<ScriptedEndpoint>(u"Late", true));
    ASSERT_TRUE(notify.WaitFor([&] { return openedInside.load(); }));
    EXPECT_NE(notify.LastThread(), std::this_thread::get_id());
    expectCamera = false;

    // Any device counts, a hub too; the set of cameras stays as it is.
    int calls = notify.Calls();
    EmulatedDeviceOptions hub;
    hub.hub = true;
    bus.Plug(nullptr, hub);
    ASSERT_TRUE(notify.WaitForCalls(calls + 1));
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), Paths{path});
    bus.Unplug(path);
    EXPECT_TRUE(notify.WaitFor([&] { return usb->GetAllConnectedDevicePaths().empty(); }));
}

TEST_F(UsbBackendTest, PeriodicEnumerationStandsInForHotplug) {
    StartBackend(false);
    int calls = notify.Calls();
    std::u16string path = bus.Plug(std::make_shared<ScriptedEndpoint>());
    ASSERT_TRUE(notify.WaitForCalls(calls + 1, 5s));
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), Paths{path});
    calls = notify.Calls();
    bus.Unplug(path);
    ASSERT_TRUE(notify.WaitForCalls(calls + 1, 5s));
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
}

TEST_F(UsbBackendTest, DestructionWaitsForARunningNotificationAndEndsThemAll) {
    std::atomic<bool> inside{false}, finished{false};
    notify.onChange = [&] {
        inside = true;
        std::this_thread::sleep_for(300ms);
        finished = true;
    };
    StartBackend();
    bus.Plug(std::make_shared<ScriptedEndpoint>());
    for (int i = 0; i < 2000 && !inside; ++i) std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(inside);
    usb.reset();
    EXPECT_TRUE(finished);

    int calls = notify.Calls();
    bus.Plug(std::make_shared<ScriptedEndpoint>());
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(notify.Calls(), calls);
}

}  // namespace
}  // namespace orqtest
