// The USB transport of the Windows library, on the generic WinUSB driver.
//
// Cameras are found by the device interface class that their driver package installs; the path
// is the interface's device path. Hot-plug comes from a hidden window on a thread of the
// backend's own, subscribed to changes of every USB device: the receiver compares the whole set,
// so a change that is not a camera costs one comparison.
#include "Kernel/UsbLib_WinUsb.h"

#include <dbt.h>
#include <objbase.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "Kernel/UsbRecords.h"
#include "Logger.h"

namespace orq {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "paths cross the interface as UTF-16");

// GUID_DEVINTERFACE_USB_DEVICE, written out so that no initguid translation unit is needed.
constexpr GUID kUsbDeviceInterfaceGuid = {
    0xA5DCBF10, 0x6530, 0x11D2, {0x90, 0x1F, 0x00, 0xC0, 0x4F, 0xB9, 0x51, 0xED}};
constexpr uint8_t kProductStringIndex = 2;
constexpr ULONG kDescriptorBufferSize = 512;

struct WinUsbDevice {
    std::u16string path;
    std::u16string name;
    uint8_t pipeIn = 0;
    uint8_t pipeOut = 0;

    // Guards the two handles, the state and the count of transfers: CloseDevice comes from any
    // thread, and the WinUSB handle must outlive a transfer that is still running on it.
    enum class State { Open, Closing, Closed, Stuck };
    std::mutex lock;
    std::condition_variable changed;
    State state = State::Open;
    HANDLE file = INVALID_HANDLE_VALUE;
    WINUSB_INTERFACE_HANDLE winusb = INVALID_HANDLE_VALUE;
    int transfers = 0;
};

// How often a close aborts the pipes again, for a transfer that reached the driver just after
// the last abort, and how long it waits in all before it gives the handles up.
constexpr auto kAbortPace = std::chrono::milliseconds(100);
constexpr auto kCloseBound = std::chrono::milliseconds(kUsbPipeTimeoutMs + 1000);

WinUsbDevice* Record(UsbDevice* device) {
    return reinterpret_cast<WinUsbDevice*>(device);
}

std::u16string FromWide(const wchar_t* text, size_t length) {
    return std::u16string(reinterpret_cast<const char16_t*>(text), length);
}

// Window handle -> (target, device-notification handle), for every backend of the process.
struct NotifyTarget {
    IUsbLib_Notify* notify;
    HDEVNOTIFY registration;
};
std::mutex& TargetsLock() {
    static std::mutex lock;
    return lock;
}
std::map<HWND, NotifyTarget>& Targets() {
    static std::map<HWND, NotifyTarget> targets;
    return targets;
}
// Serialises registering the window class with creating a window of it, and unregistering it.
std::mutex& ClassLock() {
    static std::mutex lock;
    return lock;
}

LRESULT CALLBACK NotifyWindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case WM_CREATE: {
            auto* create = reinterpret_cast<CREATESTRUCTW*>(lParam);
            DEV_BROADCAST_DEVICEINTERFACE_W filter{};
            filter.dbcc_size = sizeof(filter);
            filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
            filter.dbcc_classguid = kUsbDeviceInterfaceGuid;
            HDEVNOTIFY registration = RegisterDeviceNotificationW(window, &filter, 0);
            std::lock_guard<std::mutex> guard(TargetsLock());
            Targets()[window] =
                NotifyTarget{static_cast<IUsbLib_Notify*>(create->lpCreateParams), registration};
            return 0;
        }
        case WM_DESTROY:
            PostQuitMessage(0);
            return 0;
        case WM_CLOSE: {
            {
                std::lock_guard<std::mutex> guard(TargetsLock());
                auto row = Targets().find(window);
                if (row != Targets().end()) {
                    if (row->second.registration)
                        UnregisterDeviceNotification(row->second.registration);
                    Targets().erase(row);
                }
            }
            DestroyWindow(window);
            return 0;
        }
        case WM_DEVICECHANGE: {
            IUsbLib_Notify* notify = nullptr;
            {
                std::lock_guard<std::mutex> guard(TargetsLock());
                auto row = Targets().find(window);
                if (row != Targets().end()) notify = row->second.notify;
            }
            if (notify) {
                try {
                    notify->OnDeviceChange();
                } catch (...) {
                    ORQ_LOG(ERR, "OnDeviceChange failed with an exception");
                }
            }
            return 0;
        }
        default:
            return DefWindowProcW(window, message, wParam, lParam);
    }
}

// The module this code is in (the DLL, or a program that links the backend in), under which
// the window class is registered: two copies in one process each keep a class of their own, and
// neither's window runs the other's procedure, which an unload would take away.
HINSTANCE ThisModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<LPCWSTR>(&NotifyWindowProc), &module);
    return module;
}

class UsbLib_WinUsb : public UsbLib {
public:
    UsbLib_WinUsb(IUsbLib_Notify* notify, const WinUsbCalls& calls) : notify(notify), calls(calls) {
        thread = std::thread([this] { NotificationThread(); });
        std::unique_lock<std::mutex> guard(startLock);
        started.wait(guard, [this] { return windowReady; });
    }

    ~UsbLib_WinUsb() override {
        HWND target;
        DWORD loopThread;
        {
            std::lock_guard<std::mutex> guard(startLock);
            target = window;
            loopThread = threadId;
        }
        if (target) {
            // The default procedure turns this into WM_CLOSE on the notification thread.
            SendMessageW(target, WM_SYSCOMMAND, SC_CLOSE, 0);
        } else {
            // No window, so nothing would ever end the message loop.
            PostThreadMessageW(loopThread, WM_QUIT, 0, 0);
        }
        if (thread.joinable()) thread.join();
        for (auto& record : devices.TakeAll()) {
            if (!Close(*record)) LeaveAllocated(std::move(record));
        }
    }

    std::set<std::u16string> GetAllConnectedDevicePaths() override {
        std::set<std::u16string> paths;
        HDEVINFO set = calls.getClassDevs(&kCameraInterfaceGuid, nullptr, nullptr,
                                          DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
        if (set == INVALID_HANDLE_VALUE) {
            ORQ_LOG(ERR, "Error SetupDiGetClassDevs: %d", static_cast<int>(GetLastError()));
            return paths;
        }
        bool enumerationEnded = false;
        for (DWORD index = 0;; ++index) {
            SP_DEVINFO_DATA info{};
            info.cbSize = sizeof(info);
            if (!calls.enumDeviceInfo(set, index, &info)) {
                enumerationEnded = true;
                break;
            }
            SP_DEVICE_INTERFACE_DATA interfaceData{};
            interfaceData.cbSize = sizeof(interfaceData);
            if (!calls.enumDeviceInterfaces(set, &info, &kCameraInterfaceGuid, 0, &interfaceData)) {
                DWORD error = GetLastError();
                if (error == ERROR_NO_MORE_ITEMS) {
                    enumerationEnded = true;
                } else {
                    ORQ_LOG(ERR, "Error SetupDiEnumDeviceInterfaces: %d", static_cast<int>(error));
                }
                break;
            }
            std::u16string path;
            if (!InterfacePath(set, interfaceData, info, path)) break;
            paths.insert(std::move(path));
        }
        if (enumerationEnded && paths.empty()) {
            ORQ_LOG(INF, "GetAllConnectedDevicePaths: Device not found %d",
                    static_cast<int>(GetLastError()));
        }
        calls.destroyDeviceInfoList(set);
        return paths;
    }

    UsbDevice* OpenDevice(std::u16string path) override {
        auto device = std::make_unique<WinUsbDevice>();
        device->path = std::move(path);
        std::wstring widePath(device->path.begin(), device->path.end());
        // A failed open keeps the system handles it got until the process ends; nothing else
        // uses them, and a camera that failed is not opened again while it stays attached.
        HANDLE file = calls.createFile(widePath.c_str(), GENERIC_READ | GENERIC_WRITE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_OVERLAPPED, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            ORQ_LOG(ERR, "Can't open device file. %d", static_cast<int>(GetLastError()));
            return nullptr;
        }
        WINUSB_INTERFACE_HANDLE winusb = INVALID_HANDLE_VALUE;
        if (!calls.initialize(file, &winusb)) {
            ORQ_LOG(ERR, "WinUsb_Initialize Error %d", static_cast<int>(GetLastError()));
            return nullptr;
        }
        if (!QueryEndpoints(winusb, *device)) {
            ORQ_LOG(ERR, "QueryDeviceEndpoints failed");
            return nullptr;
        }
        UCHAR descriptor[kDescriptorBufferSize] = {};
        ULONG length = 0;
        if (!calls.getDescriptor(winusb, USB_STRING_DESCRIPTOR_TYPE, kProductStringIndex,
                                 GetUserDefaultUILanguage(), descriptor, sizeof(descriptor),
                                 &length)) {
            ORQ_LOG(ERR, "WinUsb_GetDescriptor Error %d", static_cast<int>(GetLastError()));
            return nullptr;
        }
        // The text follows the two-byte header; a device that reports less gives no name.
        length = std::min(length, kDescriptorBufferSize);
        for (ULONG unit = 1; unit < length / 2; ++unit) {
            device->name.push_back(
                static_cast<char16_t>(descriptor[2 * unit] | (descriptor[2 * unit + 1] << 8)));
        }
        device->file = file;
        device->winusb = winusb;
        return devices.Add(std::move(device));
    }

    void CloseDevice(UsbDevice* device) override {
        if (device) Close(*Record(device));
    }

    void ReleaseDevice(UsbDevice* device) override {
        auto released = devices.Take(device);
        if (released && !Close(*released)) LeaveAllocated(std::move(released));
    }

    std::u16string GetDeviceName(UsbDevice* device) override {
        return device ? Record(device)->name : std::u16string();
    }

    bool UsbReadExactly(UsbBuffer buffer, UsbDevice* handle) override {
        if (buffer.size == 0) return true;
        WinUsbDevice& device = *Record(handle);
        ReadBudget budget(buffer.size);
        uint64_t received = 0;
        while (received < buffer.size) {
            ULONG wanted = static_cast<ULONG>(std::min<uint64_t>(buffer.size - received, MAXDWORD));
            ULONG count = 0;
            bool ok = Transfer(device, [&](WINUSB_INTERFACE_HANDLE winusb) {
                return calls.readPipe(winusb, device.pipeIn, buffer.data + received, wanted, &count,
                                      nullptr);
            });
            if (ok) {
                received += std::min(count, wanted);
                if (received < buffer.size && !budget.Spend(count)) {
                    ok = false;
                    SetLastError(ERROR_SEM_TIMEOUT);
                }
            }
            if (!ok) {
                ORQ_LOG(ERR, "UsbRead failed %d", static_cast<int>(GetLastError()));
                ORQ_LOG(ERR, "UsbReadExactly failed");
                return false;
            }
        }
        return true;
    }

    bool UsbWrite(UsbBuffer buffer, UsbDevice* handle) override {
        WinUsbDevice& device = *Record(handle);
        ULONG sent = 0;
        bool ok = Transfer(device, [&](WINUSB_INTERFACE_HANDLE winusb) {
            return calls.writePipe(winusb, device.pipeOut, buffer.data,
                                   static_cast<ULONG>(buffer.size), &sent, nullptr);
        });
        if (!ok) {
            ORQ_LOG(ERR, "Write failed %d", static_cast<int>(GetLastError()));
            return false;
        }
        if (sent != buffer.size) {
            ORQ_LOG(ERR, "usb write missmath bytes count: %d %d", static_cast<int>(buffer.size),
                    static_cast<int>(sent));
            return false;
        }
        return true;
    }

private:
    bool InterfacePath(HDEVINFO set, SP_DEVICE_INTERFACE_DATA& interfaceData, SP_DEVINFO_DATA& info,
                       std::u16string& path) {
        DWORD size = 0;
        if (calls.getInterfaceDetail(set, &interfaceData, nullptr, 0, &size, nullptr) ||
            GetLastError() != ERROR_INSUFFICIENT_BUFFER || size == 0) {
            ORQ_LOG(ERR, "Error SetupDiEnumDeviceInterfaces: %d", static_cast<int>(GetLastError()));
            return false;
        }
        auto* detail = static_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(LocalAlloc(LPTR, size));
        if (!detail) {
            ORQ_LOG(ERR, "Error allocating memory for the device detail buffer");
            return false;
        }
        detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
        bool ok = calls.getInterfaceDetail(set, &interfaceData, detail, size, nullptr, &info);
        if (!ok) {
            ORQ_LOG(ERR, "Error SetupDiGetDeviceInterfaceDetail: %d",
                    static_cast<int>(GetLastError()));
        } else {
            // Bounded by the buffer even if the system left the text unterminated.
            size_t room =
                (size - offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath)) / sizeof(wchar_t);
            const wchar_t* text = detail->DevicePath;
            path = FromWide(text, std::find(text, text + room, L'\0') - text);
        }
        LocalFree(detail);
        return ok;
    }

    bool QueryEndpoints(WINUSB_INTERFACE_HANDLE winusb, WinUsbDevice& device) {
        USB_INTERFACE_DESCRIPTOR settings{};
        if (!calls.queryInterfaceSettings(winusb, 0, &settings)) return false;
        bool lastQuery = true;
        for (UCHAR index = 0; index < settings.bNumEndpoints; ++index) {
            WINUSB_PIPE_INFORMATION pipe{};
            lastQuery = calls.queryPipe(winusb, 0, index, &pipe);
            if (!lastQuery || pipe.PipeType != UsbdPipeTypeBulk) continue;
            if (USB_ENDPOINT_DIRECTION_IN(pipe.PipeId))
                device.pipeIn = pipe.PipeId;
            else
                device.pipeOut = pipe.PipeId;
            ULONG timeout = kUsbPipeTimeoutMs;
            calls.setPipePolicy(winusb, pipe.PipeId, PIPE_TRANSFER_TIMEOUT, sizeof(timeout),
                                &timeout);
        }
        return lastQuery;
    }

    // Runs one transfer on the device's WinUSB handle, unless the device is being closed.
    template <typename Call>
    bool Transfer(WinUsbDevice& device, Call call) {
        WINUSB_INTERFACE_HANDLE winusb;
        {
            std::lock_guard<std::mutex> guard(device.lock);
            if (device.state != WinUsbDevice::State::Open) {
                SetLastError(ERROR_INVALID_HANDLE);
                return false;
            }
            winusb = device.winusb;
            ++device.transfers;
        }
        bool ok = call(winusb);
        DWORD error = GetLastError();
        {
            // Notified under the lock: the close that waits for this may free the record next.
            std::lock_guard<std::mutex> guard(device.lock);
            --device.transfers;
            device.changed.notify_all();
        }
        SetLastError(error);
        return ok;
    }

    // Releases the handles once, with no transfer running on them. Closing the file is not
    // documented to end a transfer, so both pipes are aborted first and the transfers awaited;
    // the abort is repeated for one that reached the driver just after it. A close that finds
    // another under way waits for it. False when a transfer outlived the bound: its handles
    // and record are then left as they are, never freed under it.
    bool Close(WinUsbDevice& device) {
        using State = WinUsbDevice::State;
        std::unique_lock<std::mutex> guard(device.lock);
        const auto deadline = std::chrono::steady_clock::now() + kCloseBound;
        if (device.state == State::Closing) {
            device.changed.wait_until(guard, deadline + kAbortPace,
                                      [&] { return device.state != State::Closing; });
            return device.state == State::Closed;
        }
        if (device.state != State::Open) return device.state == State::Closed;
        device.state = State::Closing;
        const WINUSB_INTERFACE_HANDLE winusb = device.winusb;
        bool idle = false;
        while (!idle) {
            guard.unlock();
            for (UCHAR pipe : {device.pipeIn, device.pipeOut}) {
                if (pipe) calls.abortPipe(winusb, pipe);
            }
            guard.lock();
            const auto until = std::min(std::chrono::steady_clock::now() + kAbortPace, deadline);
            idle = device.changed.wait_until(guard, until, [&] { return device.transfers == 0; });
            if (!idle && std::chrono::steady_clock::now() >= deadline) {
                ORQ_LOG(ERR, "CloseDevice: a transfer did not end; the device stays open");
                device.state = State::Stuck;
                device.changed.notify_all();
                return false;
            }
        }
        calls.closeHandle(device.file);
        device.file = INVALID_HANDLE_VALUE;
        calls.free(device.winusb);
        device.winusb = INVALID_HANDLE_VALUE;
        device.state = State::Closed;
        device.changed.notify_all();
        return true;
    }

    // A record whose transfer never came back stays allocated: that transfer still uses it.
    static void LeaveAllocated(std::unique_ptr<WinUsbDevice> record) {
        static_cast<void>(record.release());
    }

    void NotificationThread() {
        // COM belongs to this thread of the SDK's own: never to the loader lock, never to a
        // thread of the application, whose apartment is its own to choose.
        const bool com = SUCCEEDED(CoInitialize(nullptr));
        MSG message;
        // Makes the thread's queue now, so that a quit posted before the loop runs is kept.
        PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
        HWND created = nullptr;
        try {
            created = CreateNotifyWindow();
        } catch (...) {
            ORQ_LOG(ERR, "USB notification window failed with an exception");
        }
        {
            std::lock_guard<std::mutex> guard(startLock);
            window = created;
            threadId = GetCurrentThreadId();
            windowReady = true;
        }
        started.notify_all();
        while (GetMessageW(&message, nullptr, 0, 0) > 0) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
        {
            // A class left registered would keep this module's window procedure after an unload.
            std::lock_guard<std::mutex> guard(ClassLock());
            UnregisterClassW(kNotifyWindowClass, ThisModule());
        }
        if (com) CoUninitialize();
    }

    HWND CreateNotifyWindow() {
        HINSTANCE instance = ThisModule();
        WNDCLASSEXW windowClass{};
        windowClass.cbSize = sizeof(windowClass);
        windowClass.lpfnWndProc = NotifyWindowProc;
        windowClass.hInstance = instance;
        windowClass.hIcon = LoadIconW(nullptr, MAKEINTRESOURCEW(32512));
        windowClass.hCursor = LoadCursorW(nullptr, MAKEINTRESOURCEW(32512));
        windowClass.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
        windowClass.lpszClassName = kNotifyWindowClass;
        windowClass.hIconSm = LoadIconW(nullptr, MAKEINTRESOURCEW(32512));
        std::lock_guard<std::mutex> guard(ClassLock());
        // Fails when another backend of this process registered it first; that one serves.
        RegisterClassExW(&windowClass);
        HWND created = CreateWindowExW(WS_EX_CLIENTEDGE, kNotifyWindowClass, kNotifyWindowClass,
                                       WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, CW_USEDEFAULT, 240, 120,
                                       nullptr, nullptr, instance, notify);
        if (created) {
            ShowWindow(created, SW_HIDE);
            UpdateWindow(created);
        }
        return created;
    }

    IUsbLib_Notify* notify;
    WinUsbCalls calls;

    std::thread thread;
    std::mutex startLock;
    std::condition_variable started;
    bool windowReady = false;
    HWND window = nullptr;
    DWORD threadId = 0;

    UsbRecords<WinUsbDevice> devices;
};

}  // namespace

std::unique_ptr<UsbLib> CreateUsbLib_WinUsb(IUsbLib_Notify* notify, const WinUsbCalls& calls) {
    return std::make_unique<UsbLib_WinUsb>(notify, calls);
}

std::unique_ptr<UsbLib> CreateUsbLib(IUsbLib_Notify* notify) {
    return CreateUsbLib_WinUsb(notify, WinUsbCalls{});
}

}  // namespace orq
