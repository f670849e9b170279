// The WinUSB backend: enumeration, open, transfers and closing through a stand-in for SetupAPI
// and WinUSB (wine has no WinUSB), and hot-plug through the real window machinery.
#include <gtest/gtest.h>

// clang-format off
#include <windows.h>
#include <dbt.h>
// clang-format on

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

using Bytes = std::vector<uint8_t>;
using orq::UsbBuffer;
using orq::UsbDevice;

const HDEVINFO kDeviceSet = reinterpret_cast<HDEVINFO>(0x5E7);
const HANDLE kFile = reinterpret_cast<HANDLE>(0xF11E);
const WINUSB_INTERFACE_HANDLE kWinUsb = reinterpret_cast<WINUSB_INTERFACE_HANDLE>(0x3B);

// One read as the system would complete it: bytes delivered, or an error number.
struct ReadResult {
    Bytes bytes;
    DWORD error = 0;
};

// The system side of the fake calls; one at a time, reached through `current`.
struct FakeSystem {
    // Enumeration: one device per entry; a non-zero error fails its interfaceData query.
    bool classDevsFail = false;
    std::vector<std::pair<std::wstring, DWORD>> devices;

    DWORD createError = 0;
    DWORD initializeError = 0;
    bool settingsFail = false;
    std::vector<WINUSB_PIPE_INFORMATION> pipes;
    int failingPipeQuery = -1;
    DWORD descriptorError = 0;
    std::u16string product = u"Orq Camera SX160";
    std::vector<std::pair<UCHAR, ULONG>> timeouts;
    USHORT languageAsked = 0;

    std::mutex lock;
    std::condition_variable changed;
    std::deque<ReadResult> reads;  // when empty, a read blocks until the file is closed
    std::vector<ULONG> readLengths;
    std::vector<UCHAR> writePipes;
    Bytes written;
    ULONG writeShortBy = 0;
    DWORD writeError = 0;
    int closes = 0;
    int frees = 0;
    int readsInFlight = 0;
    bool freedUnderRead = false;
    bool fileOpen = true;
};
FakeSystem* current = nullptr;

HDEVINFO WINAPI GetClassDevs(const GUID* guid, PCWSTR, HWND, DWORD flags) {
    EXPECT_TRUE(IsEqualGUID(*guid, orq::kCameraInterfaceGuid));
    EXPECT_EQ(flags, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    SetLastError(ERROR_ACCESS_DENIED);
    return current->classDevsFail ? INVALID_HANDLE_VALUE : kDeviceSet;
}
WINBOOL WINAPI EnumDeviceInfo(HDEVINFO, DWORD index, PSP_DEVINFO_DATA info) {
    if (index >= current->devices.size()) {
        SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    info->DevInst = index;
    return TRUE;
}
WINBOOL WINAPI EnumDeviceInterfaces(HDEVINFO, PSP_DEVINFO_DATA info, const GUID*, DWORD member,
                                    PSP_DEVICE_INTERFACE_DATA interfaceData) {
    EXPECT_EQ(member, 0u);
    DWORD error = current->devices.at(info->DevInst).second;
    if (error) {
        SetLastError(error);
        return FALSE;
    }
    interfaceData->Reserved = info->DevInst;
    return TRUE;
}
WINBOOL WINAPI GetInterfaceDetail(HDEVINFO, PSP_DEVICE_INTERFACE_DATA interfaceData,
                                  PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail, DWORD size,
                                  PDWORD required, PSP_DEVINFO_DATA) {
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
}
WINBOOL WINAPI DestroyDeviceInfoList(HDEVINFO set) {
    EXPECT_EQ(set, kDeviceSet);
    return TRUE;
}
HANDLE WINAPI OpenFile(LPCWSTR, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD, DWORD,
                       HANDLE) {
    EXPECT_EQ(access, GENERIC_READ | GENERIC_WRITE);
    EXPECT_EQ(share, static_cast<DWORD>(FILE_SHARE_READ | FILE_SHARE_WRITE));
    SetLastError(current->createError);
    return current->createError ? INVALID_HANDLE_VALUE : kFile;
}
WINBOOL WINAPI CloseFile(HANDLE file) {
    EXPECT_EQ(file, kFile);
    std::lock_guard<std::mutex> guard(current->lock);
    ++current->closes;
    current->fileOpen = false;
    current->changed.notify_all();
    return TRUE;
}
WINBOOL WINAPI Initialize(HANDLE, PWINUSB_INTERFACE_HANDLE winusb) {
    SetLastError(current->initializeError);
    *winusb = kWinUsb;
    return current->initializeError == 0;
}
WINBOOL WINAPI Free(WINUSB_INTERFACE_HANDLE) {
    std::lock_guard<std::mutex> guard(current->lock);
    ++current->frees;
    if (current->readsInFlight) current->freedUnderRead = true;
    return TRUE;
}
WINBOOL WINAPI QueryInterfaceSettings(WINUSB_INTERFACE_HANDLE, UCHAR, PUSB_INTERFACE_DESCRIPTOR d) {
    d->bNumEndpoints = static_cast<UCHAR>(current->pipes.size());
    return !current->settingsFail;
}
WINBOOL WINAPI QueryPipe(WINUSB_INTERFACE_HANDLE, UCHAR, UCHAR index, PWINUSB_PIPE_INFORMATION p) {
    if (index == current->failingPipeQuery) return FALSE;
    *p = current->pipes.at(index);
    return TRUE;
}
WINBOOL WINAPI SetPipePolicy(WINUSB_INTERFACE_HANDLE, UCHAR pipe, ULONG policy, ULONG length,
                             PVOID value) {
    EXPECT_EQ(policy, static_cast<ULONG>(PIPE_TRANSFER_TIMEOUT));
    EXPECT_EQ(length, sizeof(ULONG));
    current->timeouts.emplace_back(pipe, *static_cast<ULONG*>(value));
    return TRUE;
}
WINBOOL WINAPI GetDescriptor(WINUSB_INTERFACE_HANDLE, UCHAR type, UCHAR index, USHORT language,
                             PUCHAR buffer, ULONG size, PULONG length) {
    EXPECT_EQ(type, USB_STRING_DESCRIPTOR_TYPE);
    EXPECT_EQ(index, 2);
    current->languageAsked = language;
    if (current->descriptorError) {
        SetLastError(current->descriptorError);
        return FALSE;
    }
    ULONG total = static_cast<ULONG>(2 + 2 * current->product.size());
    EXPECT_LE(total, size);
    buffer[0] = static_cast<UCHAR>(total);
    buffer[1] = USB_STRING_DESCRIPTOR_TYPE;
    for (size_t i = 0; i < current->product.size(); ++i) {
        buffer[2 + 2 * i] = static_cast<UCHAR>(current->product[i] & 0xFF);
        buffer[3 + 2 * i] = static_cast<UCHAR>(current->product[i] >> 8);
    }
    *length = total;
    return TRUE;
}
WINBOOL WINAPI ReadPipe(WINUSB_INTERFACE_HANDLE, UCHAR, PUCHAR buffer, ULONG size, PULONG count,
                        LPOVERLAPPED) {
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
    ReadResult result = std::move(current->reads.front());
    current->reads.pop_front();
    std::copy(result.bytes.begin(), result.bytes.end(), buffer);
    *count = static_cast<ULONG>(result.bytes.size());
    SetLastError(result.error);
    return result.error == 0;
}
WINBOOL WINAPI WritePipe(WINUSB_INTERFACE_HANDLE, UCHAR pipe, PUCHAR buffer, ULONG size,
                         PULONG count, LPOVERLAPPED) {
    current->writePipes.push_back(pipe);
    current->written.assign(buffer, buffer + size);
    *count = size - current->writeShortBy;
    SetLastError(current->writeError);
    return current->writeError == 0;
}

orq::WinUsbCalls FakeCalls() {
    orq::WinUsbCalls calls;
    calls.getClassDevs = GetClassDevs;
    calls.enumDeviceInfo = EnumDeviceInfo;
    calls.enumDeviceInterfaces = EnumDeviceInterfaces;
    calls.getInterfaceDetail = GetInterfaceDetail;
    calls.destroyDeviceInfoList = DestroyDeviceInfoList;
    calls.createFile = OpenFile;
    calls.closeHandle = CloseFile;
    calls.initialize = Initialize;
    calls.free = Free;
    calls.queryInterfaceSettings = QueryInterfaceSettings;
    calls.queryPipe = QueryPipe;
    calls.setPipePolicy = SetPipePolicy;
    calls.getDescriptor = GetDescriptor;
    calls.readPipe = ReadPipe;
    calls.writePipe = WritePipe;
    return calls;
}

WINUSB_PIPE_INFORMATION Pipe(USBD_PIPE_TYPE type, UCHAR id) {
    WINUSB_PIPE_INFORMATION pipe{};
    pipe.PipeType = type;
    pipe.PipeId = id;
    pipe.MaximumPacketSize = 512;
    return pipe;
}

class WinUsbTest : public ::testing::Test {
protected:
    void SetUp() override {
        current = &fake;
        fake.pipes = {Pipe(UsbdPipeTypeBulk, 0x81), Pipe(UsbdPipeTypeInterrupt, 0x83),
                      Pipe(UsbdPipeTypeBulk, 0x02)};
        usb = orq::CreateUsbLib_WinUsb(&notify, FakeCalls());
    }
    void TearDown() override {
        usb.reset();
        current = nullptr;
    }

    void Deliver(Bytes bytes, DWORD error = 0) {
        std::lock_guard<std::mutex> guard(fake.lock);
        fake.reads.push_back(ReadResult{std::move(bytes), error});
        fake.changed.notify_all();
    }
    bool Read(UsbDevice* device, Bytes& into) {
        return usb->UsbReadExactly(UsbBuffer{into.data(), into.size()}, device);
    }
    bool Write(UsbDevice* device, Bytes bytes) {
        return usb->UsbWrite(UsbBuffer{bytes.data(), bytes.size()}, device);
    }

    FakeSystem fake;
    ChangeRecorder notify;
    std::unique_ptr<orq::UsbLib> usb;
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
}

TEST_F(WinUsbTest, OpenUsesTheBulkPipesOnlyAndReadsTheProductString) {
    UsbDevice* device = usb->OpenDevice(u"\\\\?\\usb#a");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb->GetDeviceName(device), u"Orq Camera SX160");
    EXPECT_EQ(fake.languageAsked, GetUserDefaultUILanguage());
    EXPECT_EQ(fake.timeouts, (std::vector<std::pair<UCHAR, ULONG>>{{0x81, 5000}, {0x02, 5000}}));
    ASSERT_TRUE(Write(device, {1, 2, 3}));

    // An interface with only a bulk-in pipe opens; writes go to pipe 0.
    fake.pipes = {Pipe(UsbdPipeTypeBulk, 0x81)};
    device = usb->OpenDevice(u"\\\\?\\usb#b");
    ASSERT_NE(device, nullptr);
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
        fresh.pipes = fake.pipes;
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
class WinUsbSystemTest : public ::testing::Test {
protected:
    static std::vector<HWND> NotifyWindows() {
        std::vector<HWND> windows;
        HWND window = nullptr;
        while ((window = FindWindowExW(nullptr, window, orq::kNotifyWindowClass,
                                       orq::kNotifyWindowClass)))
            windows.push_back(window);
        return windows;
    }
};

TEST_F(WinUsbSystemTest, NoCameraIsAnOrdinaryEmptySet) {
    ChangeRecorder notify;
    auto usb = orq::CreateUsbLib_WinUsb(&notify, orq::WinUsbCalls{});
    LogWatch log;
    EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
    EXPECT_TRUE(log.Has("GetAllConnectedDevicePaths: Device not found 259")) << log.Text();
    EXPECT_FALSE(log.Has("ERR"));
}

TEST_F(WinUsbSystemTest, EveryDeviceChangeReachesTheTargetOnTheBackendsThread) {
    ChangeRecorder first, second;
    auto usb = orq::CreateUsbLib_WinUsb(&first, orq::WinUsbCalls{});
    auto other = orq::CreateUsbLib_WinUsb(&second, orq::WinUsbCalls{});
    ASSERT_EQ(NotifyWindows().size(), 2u);
    for (HWND window : NotifyWindows()) {
        SendMessageW(window, WM_DEVICECHANGE, DBT_DEVICEARRIVAL, 0);
        SendMessageW(window, WM_DEVICECHANGE, DBT_DEVNODES_CHANGED, 0);
    }
    EXPECT_EQ(first.Calls(), 2);
    EXPECT_EQ(second.Calls(), 2);
    EXPECT_NE(first.LastThread(), std::this_thread::get_id());

    // The class outlives the backend that registered it while another still uses it.
    usb.reset();
    ASSERT_EQ(NotifyWindows().size(), 1u);
    SendMessageW(NotifyWindows()[0], WM_DEVICECHANGE, DBT_DEVICEREMOVECOMPLETE, 0);
    EXPECT_EQ(second.Calls(), 3);
    other.reset();
    EXPECT_TRUE(NotifyWindows().empty());

    // And is made again for the next one.
    ChangeRecorder third;
    auto again = orq::CreateUsbLib_WinUsb(&third, orq::WinUsbCalls{});
    ASSERT_EQ(NotifyWindows().size(), 1u);
    SendMessageW(NotifyWindows()[0], WM_DEVICECHANGE, DBT_DEVICEARRIVAL, 0);
    EXPECT_EQ(third.Calls(), 1);
}

}  // namespace
}  // namespace orqtest
