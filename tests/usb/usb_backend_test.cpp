// The libusb backend on emulated USB devices: enumeration, open, the transfer rules every
// transport keeps, closing under a blocked transfer, cable pulls and hot-plug.
#include <gtest/gtest.h>

#include <chrono>
#include <numeric>
#include <thread>

#include "tests/usb/EmulatedUsb.h"
#include "tests/usb/ScriptedEndpoint.h"
#include "tests/usb/UsbTestSupport.h"

namespace orqtest {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using Holder = EmulatedDeviceOptions::Holder;
using orq::UsbBuffer;
using orq::UsbDevice;
using Status = orqsim::TransferResult::Status;

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

    std::u16string PlugCamera(std::shared_ptr<ScriptedEndpoint>& endpoint,
                              std::u16string product = u"Orq Scripted Camera",
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
};

TEST_F(UsbBackendTest, ListsStillImageDevicesWithBothBulkPipesOnly) {
    std::shared_ptr<ScriptedEndpoint> first, second;
    std::u16string camera = PlugCamera(first);
    EmulatedDeviceOptions vendor;
    vendor.interfaceClass = 0xFF;
    bus.Plug(std::make_shared<ScriptedEndpoint>(), vendor);
    EmulatedDeviceOptions inOnly;
    inOnly.bulkOut = false;
    bus.Plug(std::make_shared<ScriptedEndpoint>(), inOnly);
    EmulatedDeviceOptions hub;
    hub.hub = true;
    bus.Plug(nullptr, hub);
    EmulatedDeviceOptions noInterrupt;
    noInterrupt.interruptIn = false;
    std::u16string other = PlugCamera(second, u"Second", noInterrupt);

    StartBackend();
    LogWatch log;
    std::set<std::u16string> paths = usb->GetAllConnectedDevicePaths();
    EXPECT_EQ(paths, (std::set<std::u16string>{camera, other}));
    EXPECT_EQ(camera, u"usb:001:002");
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), paths) << "stable while attached";
    EXPECT_FALSE(log.Has("Device not found"));
}

TEST_F(UsbBackendTest, NoCameraIsAnEmptySet) {
    EmulatedDeviceOptions hub;
    hub.hub = true;
    bus.Plug(nullptr, hub);
    StartBackend();
    LogWatch log;
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
    EXPECT_TRUE(log.Has("GetAllConnectedDevicePaths: Device not found 0"));
}

TEST_F(UsbBackendTest, OpenClaimsTheInterfaceAndReadsProductString) {
    std::shared_ptr<ScriptedEndpoint> endpoint;
    std::u16string product = u"Orq Camera SX160 \u00e9\u4e2d";
    std::u16string path = PlugCamera(endpoint, product);
    StartBackend();
    UsbDevice* device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb->GetDeviceName(device), product);
    EmulatedDeviceStats stats = bus.Stats(path);
    EXPECT_EQ(stats.opens, 1);
    EXPECT_EQ(stats.claims, 1);
    EXPECT_EQ(stats.bulkSubmits, 0) << "opening moves no bulk data";

    usb->CloseDevice(device);
    usb->CloseDevice(device);  // the second does nothing
    EXPECT_EQ(usb->GetDeviceName(device), product) << "the name outlives the handle";
    EXPECT_EQ(bus.Stats(path).releases, 1);
    EXPECT_EQ(endpoint->Aborts(), 1);

    // Opened again, as after a failed start-up.
    device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    usb->CloseDevice(device);
}

TEST_F(UsbBackendTest, OpenFailsCleanlyOnPathsThatAreNoCamera) {
    EmulatedDeviceOptions vendor;
    vendor.interfaceClass = 0xFF;
    std::u16string vendorPath = bus.Plug(std::make_shared<ScriptedEndpoint>(), vendor);
    StartBackend();
    LogWatch log;
    EXPECT_EQ(usb->OpenDevice(u"usb:001:077"), nullptr);
    EXPECT_EQ(usb->OpenDevice(u"not a path"), nullptr);
    EXPECT_EQ(usb->OpenDevice(vendorPath), nullptr);
    EXPECT_TRUE(log.Has("Can't open device file. -4"));
    EXPECT_TRUE(log.Has("QueryDeviceEndpoints failed"));
    EXPECT_EQ(bus.Stats(vendorPath).opens, 0);
}

TEST_F(UsbBackendTest, DeviceHeldByAnotherProgramIsBusyUntilReleased) {
    std::shared_ptr<ScriptedEndpoint> endpoint;
    EmulatedDeviceOptions held;
    held.holder = Holder::OtherProgram;
    std::u16string path = PlugCamera(endpoint, u"Held", held);
    StartBackend();
    LogWatch log;
    EXPECT_EQ(usb->OpenDevice(path), nullptr);
    EXPECT_TRUE(log.Has("Device usb:001:002 is busy: another program holds it"));
    EXPECT_EQ(bus.Stats(path).claims, 0);

    bus.SetHolder(path, Holder::None);
    UsbDevice* device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    usb->CloseDevice(device);
}

TEST_F(UsbBackendTest, KernelDriverIsDetachedForTheSession) {
    std::shared_ptr<ScriptedEndpoint> endpoint;
    EmulatedDeviceOptions bound;
    bound.holder = Holder::KernelDriver;
    std::u16string path = PlugCamera(endpoint, u"Bound", bound);
    StartBackend();
    UsbDevice* device = usb->OpenDevice(path);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(bus.Stats(path).detaches, 1);
    usb->CloseDevice(device);
}

class UsbTransferTest : public UsbBackendTest {
protected:
    void SetUp() override {
        path = PlugCamera(endpoint);
        StartBackend();
        device = usb->OpenDevice(path);
        ASSERT_NE(device, nullptr);
    }
    void TearDown() override {
        usb->CloseDevice(device);
        UsbBackendTest::TearDown();
    }

    std::shared_ptr<ScriptedEndpoint> endpoint;
    std::u16string path;
    UsbDevice* device = nullptr;
};

TEST_F(UsbTransferTest, WritesGoOutWholeAsOneTransfer) {
    Bytes command = Pattern(12, 1), big = Pattern(3 * 512 + 100, 2);
    EXPECT_TRUE(Write(device, command));
    EXPECT_TRUE(Write(device, big));
    EXPECT_EQ(endpoint->Written(), (std::vector<Bytes>{command, big}));
}

TEST_F(UsbTransferTest, ReadsLeaveTheRestOfAPacketForTheNextRead) {
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

TEST_F(UsbTransferTest, ZeroLengthReadTouchesNothing) {
    int before = bus.Stats(path).bulkSubmits;
    EXPECT_TRUE(usb->UsbReadExactly(UsbBuffer{nullptr, 0}, device));
    EXPECT_EQ(bus.Stats(path).bulkSubmits, before);
}

TEST_F(UsbTransferTest, PipeFailuresAreLoggedWithLibusbNumbers) {
    LogWatch log;
    endpoint->QueueInFailure(orqsim::TransferResult::Error);
    Bytes buffer(12);
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

TEST_F(UsbTransferTest, TimeoutInsideAReadFailsAndKeepsWhatArrived) {
    LogWatch log;
    Bytes first = Pattern(512, 8);
    endpoint->QueueIn(first);
    Bytes buffer(1024, 0);
    auto start = Clock::now();
    EXPECT_FALSE(Read(device, buffer));
    auto waited = Clock::now() - start;
    EXPECT_GE(waited, 4900ms);
    EXPECT_LT(waited, 8000ms);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), buffer.begin()));
    EXPECT_TRUE(log.Has("UsbRead failed -7"));
}

TEST_F(UsbTransferTest, CloseFromAnotherThreadFailsABlockedTransferPromptly) {
    LogWatch log;
    std::atomic<bool> result{true};
    auto start = Clock::now();
    std::thread reader([&] {
        Bytes buffer(12);
        result = Read(device, buffer);
    });
    std::this_thread::sleep_for(300ms);
    usb->CloseDevice(device);
    reader.join();
    EXPECT_FALSE(result);
    EXPECT_LT(Clock::now() - start, 2000ms);
    EXPECT_TRUE(log.Has("UsbRead failed -4"));

    // Later transfers fail without touching the device.
    int submits = bus.Stats(path).bulkSubmits;
    EXPECT_FALSE(Write(device, Pattern(12, 9)));
    EXPECT_TRUE(log.Has("Write failed -4"));
    EXPECT_EQ(bus.Stats(path).bulkSubmits, submits);
}

TEST_F(UsbTransferTest, CablePullFailsTheTransferAndTheDeviceLeavesTheList) {
    LogWatch log;
    std::atomic<bool> result{true};
    std::thread reader([&] {
        Bytes buffer(12);
        result = Read(device, buffer);
    });
    std::this_thread::sleep_for(300ms);
    auto start = Clock::now();
    bus.Unplug(path);
    reader.join();
    EXPECT_FALSE(result);
    EXPECT_LT(Clock::now() - start, 2000ms);
    EXPECT_TRUE(log.Has("UsbRead failed -4"));
    EXPECT_TRUE(notify.WaitFor([&] { return usb->GetAllConnectedDevicePaths().empty(); }));
}

TEST_F(UsbBackendTest, DevicesTransferAtTheSameTimeWithoutSharedState) {
    constexpr int kDevices = 2, kRounds = 150;
    std::vector<std::u16string> paths;
    for (int i = 0; i < kDevices; ++i) {
        paths.push_back(bus.Plug(std::make_shared<ScriptedEndpoint>(u"Loop", true)));
    }
    StartBackend();
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int i = 0; i < kDevices; ++i) {
        threads.emplace_back([&, i] {
            UsbDevice* device = usb->OpenDevice(paths[i]);
            if (!device) return void(++failures);
            for (int round = 0; round < kRounds; ++round) {
                Bytes out = Pattern(12 + round % 700, static_cast<uint8_t>(i * 100 + round));
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
    std::shared_ptr<ScriptedEndpoint> endpoint = std::make_shared<ScriptedEndpoint>(u"Late", true);
    std::atomic<bool> openedInside{false};
    std::atomic<bool> expectCamera{false};
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
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());

    expectCamera = true;
    std::u16string path = bus.Plug(endpoint);
    ASSERT_TRUE(notify.WaitFor([&] { return openedInside.load(); }));
    EXPECT_NE(notify.LastThread(), std::this_thread::get_id());
    expectCamera = false;

    // Any device counts, a hub too; the set of cameras stays as it is.
    int calls = notify.Calls();
    EmulatedDeviceOptions hub;
    hub.hub = true;
    bus.Plug(nullptr, hub);
    ASSERT_TRUE(notify.WaitForCalls(calls + 1));
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), std::set<std::u16string>{path});

    bus.Unplug(path);
    EXPECT_TRUE(notify.WaitFor([&] { return usb->GetAllConnectedDevicePaths().empty(); }));
}

TEST_F(UsbBackendTest, PeriodicEnumerationStandsInForHotplug) {
    StartBackend(false);
    int calls = notify.Calls();
    std::u16string path = bus.Plug(std::make_shared<ScriptedEndpoint>());
    ASSERT_TRUE(notify.WaitForCalls(calls + 1, 5s));
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), std::set<std::u16string>{path});
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
    auto deadline = Clock::now() + 10s;
    while (!inside && Clock::now() < deadline) std::this_thread::sleep_for(5ms);
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
