// The WinUSB backend: enumeration, open, transfers and closing through a stand-in for SetupAPI
// and WinUSB (wine has no WinUSB), and hot-plug through the real window machinery.
#include <gtest/gtest.h>

// clang-format off
#include <windows.h>
#include <dbt.h>
// clang-format on

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "Kernel/UsbLib_WinUsb.h"
#include "tests/usb/UsbTestSupport.h"

namespace orqtest {
namespace {

using orq::UsbDevice;

const HDEVINFO kDeviceSet = reinterpret_cast<HDEVINFO>(0x5E7);
const HANDLE kFile = reinterpret_cast<HANDLE>(0xF11E);
const WINUSB_INTERFACE_HANDLE kWinUsb = reinterpret_cast<WINUSB_INTERFACE_HANDLE>(0x3B);

// The system side of the fake calls; one at a time, reached through `current`.
struct FakeSystem {
    // Enumeration: one device per entry; a non-zero error fails its interfaceData query.
    bool classDevsFail = false;
    std::vector<std::pair<std::wstring, DWORD>> devices;
    int setsOpen = 0;

    DWORD createError = 0;
    DWORD initializeError = 0;
    bool settingsFail = false;
    // Bulk-in first, so that resize(1) leaves an interface without bulk-out.
    std::vector<WINUSB_PIPE_INFORMATION> pipes = {{UsbdPipeTypeBulk, 0x81, 512, 0},
                                                  {UsbdPipeTypeInterrupt, 0x83, 8, 9},
                                                  {UsbdPipeTypeBulk, 0x02, 512, 0}};
    int failingPipeQuery = -1;
    DWORD descriptorError = 0;
    // Sent whole whatever the buffer, as a device that claims more than it may would.
    std::u16string product = u"Orq Camera SX160 \u4e2d";
    std::vector<std::pair<UCHAR, ULONG>> timeouts;
    USHORT languageAsked = 0;

    std::mutex lock;
    std::condition_variable changed;
    // Each read as the system completes it, bytes and error number. When there is none, a read
    // blocks until its pipe is aborted, or times out as a pipe without a timeout policy never
    // would. Closing the file does not end it: WinUSB promises no such thing.
    std::deque<std::pair<Bytes, DWORD>> reads;
    std::vector<ULONG> readLengths;
    std::vector<UCHAR> writePipes;
    ULONG writeShortBy = 0;
    DWORD writeError = 0;
    int closes = 0;
    int frees = 0;
    int readsInFlight = 0;
    std::map<UCHAR, int> aborts;
    // A read that reaches the driver only once its pipe has been aborted, as one that loses the
    // race with a close does.
    bool readArrivesAfterAbort = false;
    // An abort that holds on until this many closes have been called, so that they overlap.
    int closesToOverlap = 0;
    int closesCalled = 0;
    // Aborts, the end of each blocked read, and the two releases, in the order they came.
    Strings calls;
};
FakeSystem* current = nullptr;
constexpr auto kFakePipeTimeout = std::chrono::seconds(3);

orq::WinUsbCalls FakeCalls() {
    orq::WinUsbCalls calls;
    calls.getClassDevs = [](const GUID* guid, PCWSTR, HWND, DWORD) {
        EXPECT_TRUE(IsEqualGUID(*guid, orq::kCameraInterfaceGuid));
        SetLastError(ERROR_ACCESS_DENIED);
        if (current->classDevsFail) return INVALID_HANDLE_VALUE;
        ++current->setsOpen;
        return kDeviceSet;
    };
    calls.enumDeviceInfo = [](HDEVINFO, DWORD index, PSP_DEVINFO_DATA info) -> WINBOOL {
        SetLastError(ERROR_NO_MORE_ITEMS);
        info->DevInst = index;
        return index < current->devices.size();
    };
    calls.enumDeviceInterfaces = [](HDEVINFO, PSP_DEVINFO_DATA info, const GUID*, DWORD,
                                    PSP_DEVICE_INTERFACE_DATA interfaceData) -> WINBOOL {
        const DWORD error = current->devices.at(info->DevInst).second;
        SetLastError(error);
        interfaceData->Reserved = info->DevInst;
        return error == 0;
    };
    calls.getInterfaceDetail = [](HDEVINFO, PSP_DEVICE_INTERFACE_DATA interfaceData,
                                  PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail, DWORD size,
                                  PDWORD required, PSP_DEVINFO_DATA) -> WINBOOL {
        const std::wstring& path = current->devices.at(interfaceData->Reserved).first;
        DWORD needed = offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) +
                       (path.size() + 1) * sizeof(wchar_t);
        if (!detail || size < needed) {
            if (required) *required = needed;
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        EXPECT_EQ(detail->cbSize, sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W));
        wcscpy(detail->DevicePath, path.c_str());
        return TRUE;
    };
    calls.destroyDeviceInfoList = [](HDEVINFO) -> WINBOOL { return --current->setsOpen >= 0; };
    calls.createFile = [](LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
        SetLastError(current->createError);
        return current->createError ? INVALID_HANDLE_VALUE : kFile;
    };
    calls.closeHandle = [](HANDLE file) -> WINBOOL {
        EXPECT_EQ(file, kFile);
        std::lock_guard<std::mutex> guard(current->lock);
        ++current->closes;
        current->calls.push_back("close");
        return TRUE;
    };
    calls.abortPipe = [](WINUSB_INTERFACE_HANDLE, UCHAR pipe) -> WINBOOL {
        std::unique_lock<std::mutex> guard(current->lock);
        current->changed.wait_for(guard, kFakePipeTimeout,
                                  [] { return current->closesCalled >= current->closesToOverlap; });
        ++current->aborts[pipe];
        current->calls.push_back("abort " + std::to_string(pipe));
        current->changed.notify_all();
        return TRUE;
    };
    calls.initialize = [](HANDLE, PWINUSB_INTERFACE_HANDLE winusb) -> WINBOOL {
        SetLastError(current->initializeError);
        *winusb = kWinUsb;
        return current->initializeError == 0;
    };
    calls.free = [](WINUSB_INTERFACE_HANDLE winusb) -> WINBOOL {
        EXPECT_EQ(winusb, kWinUsb);
        std::lock_guard<std::mutex> guard(current->lock);
        ++current->frees;
        current->calls.push_back(current->readsInFlight ? "free under a read" : "free");
        return TRUE;
    };
    calls.queryInterfaceSettings = [](WINUSB_INTERFACE_HANDLE, UCHAR,
                                      PUSB_INTERFACE_DESCRIPTOR d) -> WINBOOL {
        d->bNumEndpoints = static_cast<UCHAR>(current->pipes.size());
        return !current->settingsFail;
    };
    calls.queryPipe = [](WINUSB_INTERFACE_HANDLE, UCHAR, UCHAR index,
                         PWINUSB_PIPE_INFORMATION pipe) -> WINBOOL {
        if (index == current->failingPipeQuery) return FALSE;
        *pipe = current->pipes.at(index);
        return TRUE;
    };
    calls.setPipePolicy = [](WINUSB_INTERFACE_HANDLE, UCHAR pipe, ULONG policy, ULONG,
                             PVOID value) -> WINBOOL {
        EXPECT_EQ(policy, static_cast<ULONG>(PIPE_TRANSFER_TIMEOUT));
        current->timeouts.emplace_back(pipe, *static_cast<ULONG*>(value));
        return TRUE;
    };
    calls.getDescriptor = [](WINUSB_INTERFACE_HANDLE, UCHAR, UCHAR index, USHORT language,
                             PUCHAR buffer, ULONG size, PULONG length) -> WINBOOL {
        EXPECT_EQ(index, 2);
        current->languageAsked = language;
        SetLastError(current->descriptorError);
        Bytes sent = {0, USB_STRING_DESCRIPTOR_TYPE};
        for (char16_t unit : current->product)
            sent.insert(sent.end(), {uint8_t(unit), uint8_t(unit >> 8)});
        sent[0] = static_cast<uint8_t>(sent.size());
        std::copy_n(sent.begin(), std::min<size_t>(size, sent.size()), buffer);
        *length = static_cast<ULONG>(sent.size());
        return current->descriptorError == 0;
    };
    calls.readPipe = [](WINUSB_INTERFACE_HANDLE, UCHAR pipe, PUCHAR buffer, ULONG size,
                        PULONG count, LPOVERLAPPED) -> WINBOOL {
        std::unique_lock<std::mutex> guard(current->lock);
        current->readLengths.push_back(size);
        ++current->readsInFlight;
        current->changed.notify_all();
        auto deadline = std::chrono::steady_clock::now() + kFakePipeTimeout;
        if (current->readArrivesAfterAbort) {
            current->changed.wait_until(guard, deadline, [&] { return current->aborts[pipe]; });
        }
        const int abortsBefore = current->aborts[pipe];
        const bool ended = current->changed.wait_until(guard, deadline, [&] {
            return !current->reads.empty() || current->aborts[pipe] != abortsBefore;
        });
        --current->readsInFlight;
        if (current->reads.empty()) {
            const DWORD error = ended ? ERROR_OPERATION_ABORTED : ERROR_SEM_TIMEOUT;
            current->calls.push_back("read ended " + std::to_string(error));
            SetLastError(error);
            return FALSE;
        }
        auto [bytes, error] = std::move(current->reads.front());
        current->reads.pop_front();
        std::copy(bytes.begin(), bytes.end(), buffer);
        *count = static_cast<ULONG>(bytes.size());
        SetLastError(error);
        return error == 0;
    };
    calls.writePipe = [](WINUSB_INTERFACE_HANDLE, UCHAR pipe, PUCHAR, ULONG size, PULONG count,
                         LPOVERLAPPED) -> WINBOOL {
        current->writePipes.push_back(pipe);
        *count = size - current->writeShortBy;
        SetLastError(current->writeError);
        return current->writeError == 0;
    };
    return calls;
}

class WinUsbTest : public UsbLibTest {
protected:
    void SetUp() override {
        current = &fake;
        usb = orq::CreateUsbLib_WinUsb(&notify, FakeCalls());
    }
    void TearDown() override {
        UsbLibTest::TearDown();
        current = nullptr;
    }

    void Deliver(Bytes bytes, DWORD error = 0) {
        std::lock_guard<std::mutex> guard(fake.lock);
        fake.reads.emplace_back(std::move(bytes), error);
        fake.changed.notify_all();
    }

    FakeSystem fake;
};

TEST_F(WinUsbTest, EnumerationStopsAtTheFirstDeviceWithoutACameraInterfaceOrAtAFailure) {
    LogWatch log;
    fake.devices = {{L"\\\\?\\usb#b", 0},
                    {L"\\\\?\\usb#a", 0},
                    {L"\\\\?\\hub", ERROR_NO_MORE_ITEMS},
                    {L"\\\\?\\usb#c", 0}};
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(),
              (std::set<std::u16string>{u"\\\\?\\usb#a", u"\\\\?\\usb#b"}));
    EXPECT_FALSE(log.Has("Device not found"));

    fake.devices = {{L"\\\\?\\hub", ERROR_NO_MORE_ITEMS}, {L"\\\\?\\usb#a", 0}};
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
    EXPECT_TRUE(log.Has("INF") && log.Has("GetAllConnectedDevicePaths: Device not found 259"));

    fake.devices = {{L"\\\\?\\usb#a", 0}, {L"\\\\?\\usb#b", ERROR_GEN_FAILURE}};
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), std::set<std::u16string>{u"\\\\?\\usb#a"});
    EXPECT_TRUE(log.Has("Error SetupDiEnumDeviceInterfaces: 31"));

    fake.classDevsFail = true;
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
    EXPECT_TRUE(log.Has("Error SetupDiGetClassDevs: 5"));
    EXPECT_EQ(fake.setsOpen, 0) << "every device set is destroyed";
}

TEST_F(WinUsbTest, OpenUsesTheBulkPipesOnlyAndReadsTheProductString) {
    UsbDevice* device = usb->OpenDevice(u"\\\\?\\usb#a");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb->GetDeviceName(device), u"Orq Camera SX160 \u4e2d");
    EXPECT_EQ(fake.languageAsked, GetUserDefaultUILanguage());
    EXPECT_EQ(fake.timeouts, (std::vector<std::pair<UCHAR, ULONG>>{{0x81, 5000}, {0x02, 5000}}));
    ASSERT_TRUE(Write(device, {1, 2, 3}));

    // An interface with only a bulk-in pipe opens; writes go to pipe 0. A product string longer
    // than the descriptor buffer is cut to it.
    fake.pipes.resize(1);
    fake.product = std::u16string(300, u'x');
    device = usb->OpenDevice(u"\\\\?\\usb#b");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb->GetDeviceName(device), std::u16string(255, u'x'));
    Write(device, {1});
    EXPECT_EQ(fake.writePipes, (std::vector<UCHAR>{0x02, 0}));
}

TEST_F(WinUsbTest, EachOpenFailureHasItsLineAndClosesNothing) {
    struct Case {
        std::function<void(FakeSystem&)> arrange;
        const char* line;
    };
    const Case cases[] = {
        {[](FakeSystem& s) { s.createError = ERROR_FILE_NOT_FOUND; }, "Can't open device file. 2"},
        {[](FakeSystem& s) { s.initializeError = ERROR_GEN_FAILURE; },
         "WinUsb_Initialize Error 31"},
        {[](FakeSystem& s) { s.settingsFail = true; }, "QueryDeviceEndpoints failed"},
        // Only the last pipe query decides.
        {[](FakeSystem& s) { s.failingPipeQuery = 2; }, "QueryDeviceEndpoints failed"},
        {[](FakeSystem& s) { s.descriptorError = ERROR_GEN_FAILURE; },
         "WinUsb_GetDescriptor Error 31"},
    };
    for (const Case& c : cases) {
        FakeSystem fresh;
        current = &fresh;
        c.arrange(fresh);
        LogWatch log;
        EXPECT_EQ(usb->OpenDevice(u"\\\\?\\usb#a"), nullptr) << c.line;
        EXPECT_TRUE(log.Has("ERR") && log.Has(c.line)) << log.Text();
        EXPECT_EQ(fresh.closes + fresh.frees, 0) << c.line;
    }
    current = &fake;
    fake.failingPipeQuery = 1;
    EXPECT_NE(usb->OpenDevice(u"\\\\?\\usb#a"), nullptr);
}

TEST_F(WinUsbTest, TransfersFollowTheTransportRules) {
    UsbDevice* device = usb->OpenDevice(u"\\\\?\\usb#a");
    ASSERT_NE(device, nullptr);
    LogWatch log;
    Bytes nothing;
    EXPECT_TRUE(Read(device, nothing));
    EXPECT_TRUE(fake.readLengths.empty());

    // Short and empty reads are collected until the buffer is full.
    Bytes first(100, 0xA1), rest(924, 0xB2);
    Deliver(first);
    Deliver({});
    Deliver(rest);
    Bytes buffer(1024);
    ASSERT_TRUE(Read(device, buffer));
    EXPECT_EQ(fake.readLengths, (std::vector<ULONG>{1024, 924, 924}));
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 100), first);
    EXPECT_EQ(Bytes(buffer.begin() + 100, buffer.end()), rest);

    Deliver(Bytes(512, 7));
    Deliver({}, ERROR_SEM_TIMEOUT);
    EXPECT_FALSE(Read(device, buffer));
    EXPECT_TRUE(log.Has("UsbRead failed 121") && log.Has("UsbReadExactly failed"));
    // A run of empty reads ends the read rather than holding it for ever.
    for (int i = 0; i < 8; ++i) Deliver({});
    Deliver(Bytes(12, 3));
    Bytes header(12);
    EXPECT_FALSE(Read(device, header));

    fake.writeShortBy = 4;
    EXPECT_FALSE(Write(device, Bytes(20, 1)));
    EXPECT_TRUE(log.Has("usb write missmath bytes count: 20 16"));
    fake.writeShortBy = 0;
    fake.writeError = ERROR_GEN_FAILURE;
    EXPECT_FALSE(Write(device, Bytes(20, 1)));
    EXPECT_TRUE(log.Has("Write failed 31"));
}

// The handles go only once no transfer runs on them, and a transfer ends by abort whether it
// was blocked when the close came or reached the driver just after the abort.
TEST_F(WinUsbTest, CloseAbortsBothPipesWaitsForTheReadThenReleases) {
    for (bool lateRead : {false, true}) {
        SCOPED_TRACE(lateRead ? "read reaching the driver after the abort" : "blocked read");
        FakeSystem fresh;
        current = &fresh;
        fresh.readArrivesAfterAbort = lateRead;
        UsbDevice* device = usb->OpenDevice(u"\\\\?\\usb#a");
        ASSERT_NE(device, nullptr);
        LogWatch log;
        bool result = true;
        std::thread reader([&] {
            Bytes buffer(64);
            result = Read(device, buffer);
        });
        {
            std::unique_lock<std::mutex> guard(fresh.lock);
            ASSERT_TRUE(fresh.changed.wait_for(guard, 10s, [&] { return fresh.readsInFlight; }));
        }
        usb->CloseDevice(device);
        Strings calls;
        {
            std::lock_guard<std::mutex> guard(fresh.lock);
            calls = fresh.calls;
        }
        reader.join();
        EXPECT_FALSE(result);
        EXPECT_TRUE(log.Has("UsbRead failed 995")) << log.Text();

        // Both pipes aborted and the read ended before the handles go; the read may end
        // between the two aborts.
        ASSERT_GE(calls.size(), 5u) << ::testing::PrintToString(calls);
        const auto handles = calls.end() - 2;
        EXPECT_EQ(Strings(handles, calls.end()), (Strings{"close", "free"}));
        EXPECT_EQ(calls.front(), "abort 129");
        EXPECT_EQ(std::count(calls.begin(), handles, "read ended 995"), 1);
        EXPECT_NE(std::find(calls.begin(), handles, "abort 2"), handles);
        EXPECT_TRUE(std::all_of(calls.begin(), handles, [](const std::string& call) {
            return call.rfind("abort", 0) == 0 || call == "read ended 995";
        })) << ::testing::PrintToString(calls);

        // A closed device is not handed to the system again.
        Bytes buffer(4);
        EXPECT_FALSE(Read(device, buffer));
        EXPECT_FALSE(Write(device, {1}));
        usb->ReleaseDevice(device);
        EXPECT_EQ(fresh.readLengths.size(), 1u);
        EXPECT_TRUE(fresh.writePipes.empty());
        EXPECT_EQ(fresh.closes, 1);
        EXPECT_EQ(fresh.frees, 1);
    }
    current = &fake;
}

// Two threads closing one device at once: each handle is released once, and neither close
// returns before the release.
TEST_F(WinUsbTest, TwoClosesAtOnceReleaseEachHandleOnce) {
    for (int round = 1; round <= 8; ++round) {
        UsbDevice* device = usb->OpenDevice(u"\\\\?\\usb#a");
        ASSERT_NE(device, nullptr);
        std::thread reader([&] {
            Bytes buffer(64);
            Read(device, buffer);
        });
        {
            std::unique_lock<std::mutex> guard(fake.lock);
            ASSERT_TRUE(fake.changed.wait_for(guard, 10s, [&] { return fake.readsInFlight; }));
        }
        std::promise<void> go;
        std::shared_future<void> start = go.get_future().share();
        std::vector<std::pair<int, int>> seen(2);
        std::vector<std::thread> closers;
        fake.closesToOverlap += 2;
        for (auto& released : seen) {
            closers.emplace_back([&] {
                start.wait();
                {
                    std::lock_guard<std::mutex> guard(fake.lock);
                    ++fake.closesCalled;
                    fake.changed.notify_all();
                }
                usb->CloseDevice(device);
                std::lock_guard<std::mutex> guard(fake.lock);
                released = {fake.closes, fake.frees};
            });
        }
        go.set_value();
        for (auto& closer : closers) closer.join();
        reader.join();
        usb->ReleaseDevice(device);
        EXPECT_EQ(seen, (std::vector<std::pair<int, int>>(2, {round, round}))) << round;
        EXPECT_EQ(fake.closes, round);
        EXPECT_EQ(fake.frees, round);
    }
}

// Under wine: the system's own SetupAPI, window and message loop.
std::vector<HWND> NotifyWindows() {
    std::vector<HWND> windows;
    HWND window = nullptr;
    while (
        (window = FindWindowExW(nullptr, window, orq::kNotifyWindowClass, orq::kNotifyWindowClass)))
        windows.push_back(window);
    return windows;
}

TEST(WinUsbSystemTest, NoCameraIsAnEmptySetAndEveryDeviceChangeReachesTheBackendsThread) {
    ChangeRecorder first, second;
    auto usb = orq::CreateUsbLib_WinUsb(&first, orq::WinUsbCalls{});
    LogWatch log;
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
    EXPECT_TRUE(log.Has("GetAllConnectedDevicePaths: Device not found 259")) << log.Text();
    EXPECT_FALSE(log.Has("ERR"));

    auto other = orq::CreateUsbLib_WinUsb(&second, orq::WinUsbCalls{});
    ASSERT_EQ(NotifyWindows().size(), 2u);
    for (HWND window : NotifyWindows()) {
        SendMessageW(window, WM_DEVICECHANGE, DBT_DEVICEARRIVAL, 0);
        SendMessageW(window, WM_DEVICECHANGE, DBT_DEVNODES_CHANGED, 0);
    }
    EXPECT_EQ(first.calls.load(), 2);
    EXPECT_EQ(second.calls.load(), 2);
    EXPECT_NE(first.lastThread.load(), std::this_thread::get_id());

    // The class outlives the backend that registered it while another still uses it.
    usb.reset();
    ASSERT_EQ(NotifyWindows().size(), 1u);
    SendMessageW(NotifyWindows()[0], WM_DEVICECHANGE, DBT_DEVICEREMOVECOMPLETE, 0);
    EXPECT_EQ(second.calls.load(), 3);
    other.reset();
    EXPECT_TRUE(NotifyWindows().empty());

    // And is made again for the next one.
    ChangeRecorder third;
    auto again = orq::CreateUsbLib_WinUsb(&third, orq::WinUsbCalls{});
    ASSERT_EQ(NotifyWindows().size(), 1u);
    SendMessageW(NotifyWindows()[0], WM_DEVICECHANGE, DBT_DEVICEARRIVAL, 0);
    EXPECT_EQ(third.calls.load(), 1);
}

}  // namespace
}  // namespace orqtest
