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
    // Each read as the system completes it, bytes and error number; when there is none, a read
    // blocks until the file is closed.
    std::deque<std::pair<Bytes, DWORD>> reads;
    std::vector<ULONG> readLengths;
    std::vector<UCHAR> writePipes;
    ULONG writeShortBy = 0;
    DWORD writeError = 0;
    int closes = 0;
    int frees = 0;
    int readsInFlight = 0;
    bool freedUnderRead = false;
    bool fileOpen = true;
};
FakeSystem* current = nullptr;

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
        current->fileOpen = false;
        current->changed.notify_all();
        return TRUE;
    };
    calls.initialize = [](HANDLE, PWINUSB_INTERFACE_HANDLE winusb) -> WINBOOL {
        SetLastError(current->initializeError);
        *winusb = reinterpret_cast<WINUSB_INTERFACE_HANDLE>(0x3B);
        return current->initializeError == 0;
    };
    calls.free = [](WINUSB_INTERFACE_HANDLE) -> WINBOOL {
        std::lock_guard<std::mutex> guard(current->lock);
        ++current->frees;
        if (current->readsInFlight) current->freedUnderRead = true;
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
    calls.readPipe = [](WINUSB_INTERFACE_HANDLE, UCHAR, PUCHAR buffer, ULONG size, PULONG count,
                        LPOVERLAPPED) -> WINBOOL {
        std::unique_lock<std::mutex> guard(current->lock);
        current->readLengths.push_back(size);
        ++current->readsInFlight;
        current->changed.notify_all();
        current->changed.wait(guard, [] { return !current->reads.empty() || !current->fileOpen; });
        --current->readsInFlight;
        if (current->reads.empty()) {
            SetLastError(ERROR_OPERATION_ABORTED);
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

TEST_F(WinUsbTest, CloseFailsABlockedReadAndFreesOnlyAfterIt) {
    UsbDevice* device = usb->OpenDevice(u"\\\\?\\usb#a");
    ASSERT_NE(device, nullptr);
    bool result = true;
    std::thread reader([&] {
        Bytes buffer(64);
        result = Read(device, buffer);
    });
    {
        std::unique_lock<std::mutex> guard(fake.lock);
        fake.changed.wait(guard, [&] { return fake.readsInFlight == 1; });
    }
    usb->CloseDevice(device);
    reader.join();
    EXPECT_FALSE(result);
    EXPECT_FALSE(fake.freedUnderRead);

    usb->CloseDevice(device);
    EXPECT_EQ(fake.closes, 1);
    EXPECT_EQ(fake.frees, 1);
    // A closed device is not handed to the system again.
    Bytes buffer(4);
    EXPECT_FALSE(Read(device, buffer));
    EXPECT_EQ(fake.readLengths.size(), 1u);
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
