// The USB transport of the Linux library, on libusb-1.0.
//
// A camera is any attached device with an interface of the still-image class whose first
// alternate setting has a bulk-in and a bulk-out endpoint; vendor and product ids are not
// looked at. Its path is "usb:BBB:DDD": bus number and device address, three decimal digits
// each, as in /dev/bus/usb/BBB/DDD. The kernel gives a device a new address on every
// attachment, so the path is stable while the device stays attached, distinct per device, and a
// replugged camera comes back as a new one.
//
// Transfers are asynchronous libusb transfers that the calling thread completes by handling
// events itself. That is what lets CloseDevice, from any thread, cancel a blocked transfer and
// wait for it to come back before the handle goes.
//
// Bulk-in reads are made to behave as on the Windows generic driver, where a read shorter than
// the device's packet leaves the rest for the next read (the link reads a 12-byte header and a
// 4-byte length by themselves). usbfs would fail such a read with an overflow, so a read of less
// than one packet goes through a one-packet spill buffer; everything else lands in the caller's
// buffer directly.
#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "Kernel/UsbLib.h"
#include "Kernel/UsbRecords.h"
#include "Logger.h"

namespace orq {

namespace {

// What this backend hands out as a UsbDevice. The record is a type of its own rather than a
// definition of UsbDevice, so that the backend can share a program with the virtual transport
// (the benchmark does) without two definitions of one class.
struct LibUsbDevice {
    std::u16string path;
    std::u16string name;

    // Guards handle, transfer, closed and inFlight.
    std::mutex lock;
    std::condition_variable idle;
    libusb_device_handle* handle = nullptr;
    libusb_transfer* transfer = nullptr;
    int interfaceNumber = -1;
    bool closed = false;
    bool inFlight = false;

    uint8_t pipeIn = 0;
    uint8_t pipeOut = 0;
    int packetSize = 512;

    // Written by the completion callback on whichever thread handles events, then published by
    // the release store of done; libusb also reads done as its completion flag.
    int done = 0;
    libusb_transfer_status status = LIBUSB_TRANSFER_COMPLETED;
    int actualLength = 0;

    // Bytes of the last bulk-in packet that no read has taken yet. Used only by the thread that
    // reads from this device.
    std::vector<uint8_t> spill;
    size_t spillStart = 0;
    size_t spillLength = 0;
};

LibUsbDevice* Record(UsbDevice* device) {
    return reinterpret_cast<LibUsbDevice*>(device);
}

// Largest single transfer: a multiple of every bulk packet size, and far below the usbfs memory
// limit (16 MiB by default, shared by all devices of the system).
constexpr int kMaxTransfer = 1 << 20;
// Language of the product string. Cameras carry US English; none is asked for its list.
constexpr uint16_t kLanguageId = 0x0409;
constexpr uint8_t kProductStringIndex = 2;
constexpr int kDescriptorBuffer = 512;
// How often pending hot-plug messages are collected when no transfer is doing it already.
constexpr std::chrono::milliseconds kHotplugPumpInterval(100);
// How often the device list is compared where libusb has no hot-plug support.
constexpr std::chrono::milliseconds kEnumerationInterval(1000);

struct StillImageInterface {
    int number = -1;
    uint8_t pipeIn = 0;
    uint8_t pipeOut = 0;
    int packetSize = 0;
};

// The first still-image interface with both bulk pipes, read from the cached descriptors (no
// device I/O). Interrupt pipes are passed over: events are polled.
bool FindStillImageInterface(libusb_device* device, StillImageInterface& found) {
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_active_config_descriptor(device, &config) != 0 || !config) return false;
    bool ok = false;
    for (int i = 0; i < config->bNumInterfaces && !ok; ++i) {
        const libusb_interface& interface = config->interface[i];
        if (interface.num_altsetting < 1) continue;
        const libusb_interface_descriptor& setting = interface.altsetting[0];
        if (setting.bInterfaceClass != LIBUSB_CLASS_IMAGE) continue;
        StillImageInterface candidate;
        candidate.number = setting.bInterfaceNumber;
        for (int e = 0; e < setting.bNumEndpoints; ++e) {
            const libusb_endpoint_descriptor& endpoint = setting.endpoint[e];
            if ((endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != LIBUSB_TRANSFER_TYPE_BULK) {
                continue;
            }
            if (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) {
                if (candidate.pipeIn) continue;
                candidate.pipeIn = endpoint.bEndpointAddress;
                candidate.packetSize = endpoint.wMaxPacketSize & 0x7FF;
            } else if (!candidate.pipeOut) {
                candidate.pipeOut = endpoint.bEndpointAddress;
            }
        }
        if (candidate.pipeIn && candidate.pipeOut) {
            // A device that reports no packet size still gets whole-packet reads.
            if (candidate.packetSize == 0) candidate.packetSize = 512;
            found = candidate;
            ok = true;
        }
    }
    libusb_free_config_descriptor(config);
    return ok;
}

std::u16string PathOf(libusb_device* device) {
    char text[32];
    std::snprintf(text, sizeof text, "usb:%03u:%03u", libusb_get_bus_number(device),
                  libusb_get_device_address(device));
    return std::u16string(text, text + std::char_traits<char>::length(text));
}

// Error number of a finished transfer, as libusb's synchronous calls report it.
int ErrorOf(libusb_transfer_status status) {
    switch (status) {
        case LIBUSB_TRANSFER_COMPLETED:
            return 0;
        case LIBUSB_TRANSFER_TIMED_OUT:
            return LIBUSB_ERROR_TIMEOUT;
        case LIBUSB_TRANSFER_STALL:
            return LIBUSB_ERROR_PIPE;
        case LIBUSB_TRANSFER_OVERFLOW:
            return LIBUSB_ERROR_OVERFLOW;
        case LIBUSB_TRANSFER_NO_DEVICE:
            return LIBUSB_ERROR_NO_DEVICE;
        default:
            return LIBUSB_ERROR_IO;
    }
}

void LIBUSB_CALL OnTransferDone(libusb_transfer* transfer) {
    auto* device = static_cast<LibUsbDevice*>(transfer->user_data);
    device->status = transfer->status;
    device->actualLength = transfer->actual_length;
    __atomic_store_n(&device->done, 1, __ATOMIC_RELEASE);
}

class UsbLib_LibUsb : public UsbLib {
public:
    UsbLib_LibUsb(IUsbLib_Notify* notify, bool useHotplug) : notify(notify) {
        int result = libusb_init(&context);
        if (result != 0) {
            ORQ_LOG(ERR, "libusb_init failed %d", result);
            context = nullptr;
            return;
        }
        if (useHotplug && libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG)) {
            result = libusb_hotplug_register_callback(
                context,
                static_cast<libusb_hotplug_event>(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED |
                                                  LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT),
                static_cast<libusb_hotplug_flag>(0), LIBUSB_HOTPLUG_MATCH_ANY,
                LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, &UsbLib_LibUsb::OnHotplug, this,
                &hotplugHandle);
            if (result == 0) {
                hotplug = true;
            } else {
                ORQ_LOG(ERR, "libusb_hotplug_register_callback failed %d", result);
            }
        }
        if (!hotplug) {
            ORQ_LOG(INF, "No USB hot-plug events: the device list is compared every %d ms",
                    static_cast<int>(kEnumerationInterval.count()));
            lastDeviceSet = DeviceSet();
        }
        thread = std::thread([this] { NotificationThread(); });
    }

    ~UsbLib_LibUsb() override {
        {
            std::lock_guard<std::mutex> guard(lock);
            stopping = true;
        }
        wake.notify_all();
        if (thread.joinable()) thread.join();
        if (!context) return;
        if (hotplug) libusb_hotplug_deregister_callback(context, hotplugHandle);
        for (auto& record : devices.TakeAll()) Close(*record);
        libusb_exit(context);
    }

    std::set<std::u16string> GetAllConnectedDevicePaths() override {
        std::set<std::u16string> paths;
        if (!context) return paths;
        libusb_device** list = nullptr;
        ssize_t count = libusb_get_device_list(context, &list);
        if (count < 0) {
            ORQ_LOG(ERR, "libusb_get_device_list failed %d", static_cast<int>(count));
            return paths;
        }
        for (ssize_t i = 0; i < count; ++i) {
            StillImageInterface found;
            if (FindStillImageInterface(list[i], found)) paths.insert(PathOf(list[i]));
        }
        libusb_free_device_list(list, 1);
        if (paths.empty()) ORQ_LOG(INF, "GetAllConnectedDevicePaths: Device not found %d", 0);
        return paths;
    }

    UsbDevice* OpenDevice(std::u16string path) override {
        if (!context) {
            ORQ_LOG(ERR, "Can't open device file. %d", LIBUSB_ERROR_NOT_SUPPORTED);
            return nullptr;
        }
        StillImageInterface found;
        libusb_device* usbDevice = FindDevice(path, found);
        if (!usbDevice) return nullptr;

        libusb_device_handle* handle = nullptr;
        int result = libusb_open(usbDevice, &handle);
        libusb_unref_device(usbDevice);
        {
            std::lock_guard<std::mutex> guard(lock);
            if (result == LIBUSB_ERROR_ACCESS) {
                denied.insert(path);
            } else {
                denied.erase(path);
            }
        }
        if (result != 0) {
            ORQ_LOG(ERR, "Can't open device file. %d", result);
            if (result == LIBUSB_ERROR_ACCESS) {
                ORQ_LOG(ERR,
                        "No permission to open %S: install the SDK's udev rule 70-orqsdk.rules "
                        "in /etc/udev/rules.d, run 'udevadm control --reload' and plug the "
                        "camera in again",
                        path.c_str());
            }
            return nullptr;
        }
        // A kernel driver bound to the interface is set aside for the session and given the
        // interface back at release. A claim by another usbfs program is not taken over.
        libusb_set_auto_detach_kernel_driver(handle, 1);
        result = libusb_claim_interface(handle, found.number);
        if (result != 0) {
            if (result == LIBUSB_ERROR_BUSY) {
                ORQ_LOG(ERR, "Device %S is busy: another program holds it", path.c_str());
            } else {
                ORQ_LOG(ERR, "libusb_claim_interface Error %d", result);
            }
            libusb_close(handle);
            return nullptr;
        }

        std::u16string name;
        if (!ReadProductString(handle, name)) {
            libusb_release_interface(handle, found.number);
            libusb_close(handle);
            return nullptr;
        }
        libusb_transfer* transfer = libusb_alloc_transfer(0);
        if (!transfer) {
            ORQ_LOG(ERR, "libusb_alloc_transfer failed");
            libusb_release_interface(handle, found.number);
            libusb_close(handle);
            return nullptr;
        }

        auto device = std::make_unique<LibUsbDevice>();
        device->path = std::move(path);
        device->name = std::move(name);
        device->handle = handle;
        device->transfer = transfer;
        device->interfaceNumber = found.number;
        device->pipeIn = found.pipeIn;
        device->pipeOut = found.pipeOut;
        device->packetSize = found.packetSize;
        device->spill.resize(static_cast<size_t>(found.packetSize));
        return devices.Add(std::move(device));
    }

    void CloseDevice(UsbDevice* device) override {
        if (device) Close(*Record(device));
    }

    bool OpenDenied(const std::u16string& path) override {
        std::lock_guard<std::mutex> guard(lock);
        return denied.count(path) != 0;
    }

    void ReleaseDevice(UsbDevice* device) override {
        if (auto released = devices.Take(device)) Close(*released);
    }

    std::u16string GetDeviceName(UsbDevice* device) override {
        return device ? Record(device)->name : std::u16string();
    }

    bool UsbReadExactly(UsbBuffer buffer, UsbDevice* handle) override {
        LibUsbDevice* device = Record(handle);
        ReadBudget budget(buffer.size);
        uint64_t received = 0;
        while (received < buffer.size) {
            uint64_t wanted = buffer.size - received;
            int count = 0;
            int error = 0;
            if (!device) {
                error = LIBUSB_ERROR_NO_DEVICE;
            } else if (device->spillLength > 0) {
                count = TakeSpill(*device, buffer.data + received, wanted);
            } else if (wanted >= static_cast<uint64_t>(device->packetSize)) {
                // Whole packets only, so that no packet can overrun the request.
                uint64_t length = std::min<uint64_t>(wanted, kMaxTransfer);
                length -= length % static_cast<uint64_t>(device->packetSize);
                error = Transfer(*device, device->pipeIn, buffer.data + received,
                                 static_cast<int>(length), count);
            } else {
                error = Transfer(*device, device->pipeIn, device->spill.data(), device->packetSize,
                                 count);
                if (error == 0) {
                    device->spillStart = 0;
                    device->spillLength = static_cast<size_t>(count);
                    count = TakeSpill(*device, buffer.data + received, wanted);
                }
            }
            received += static_cast<uint64_t>(count);
            if (error == 0 && received < buffer.size && !budget.Spend(count)) {
                error = LIBUSB_ERROR_TIMEOUT;
            }
            if (error != 0) {
                ORQ_LOG(ERR, "UsbRead failed %d", error);
                ORQ_LOG(ERR, "UsbReadExactly failed");
                return false;
            }
        }
        return true;
    }

    bool UsbWrite(UsbBuffer buffer, UsbDevice* handle) override {
        LibUsbDevice* device = Record(handle);
        const uint32_t length = static_cast<uint32_t>(buffer.size);
        uint64_t sent = 0;
        int error = device ? 0 : LIBUSB_ERROR_NO_DEVICE;
        // One transfer as far as the device can tell: pieces are whole packets and no
        // zero-length packet goes between them.
        while (device) {
            int piece = static_cast<int>(std::min<uint64_t>(length - sent, kMaxTransfer));
            int count = 0;
            error = Transfer(*device, device->pipeOut, buffer.data + sent, piece, count);
            sent += static_cast<uint64_t>(count);
            if (error != 0 || count < piece || sent >= length) break;
        }
        if (error != 0) {
            ORQ_LOG(ERR, "Write failed %d", error);
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
    static int LIBUSB_CALL OnHotplug(libusb_context*, libusb_device*, libusb_hotplug_event,
                                     void* self) {
        // Runs inside libusb's event handling, possibly on a transferring thread: only flag it.
        static_cast<UsbLib_LibUsb*>(self)->Changed();
        return 0;
    }

    void Changed() {
        {
            std::lock_guard<std::mutex> guard(lock);
            changed = true;
        }
        wake.notify_all();
    }

    void NotificationThread() {
        auto interval = hotplug ? kHotplugPumpInterval : kEnumerationInterval;
        std::unique_lock<std::mutex> guard(lock);
        while (!stopping) {
            if (changed) {
                changed = false;
                guard.unlock();
                try {
                    notify->OnDeviceChange();
                } catch (...) {
                    ORQ_LOG(ERR, "OnDeviceChange failed with an exception");
                }
                guard.lock();
                continue;
            }
            guard.unlock();
            Poll();
            guard.lock();
            wake.wait_for(guard, interval, [this] { return changed || stopping; });
        }
    }

    // Collects pending hot-plug messages (their callbacks only set the flag), or compares the
    // device list where there are no hot-plug events.
    void Poll() {
        if (!context) return;
        if (hotplug) {
            timeval zero{0, 0};
            libusb_handle_events_timeout_completed(context, &zero, nullptr);
            return;
        }
        std::set<std::pair<int, int>> now = DeviceSet();
        if (now != lastDeviceSet) {
            lastDeviceSet = std::move(now);
            std::lock_guard<std::mutex> guard(lock);
            changed = true;
        }
    }

    // Every USB device, cameras or not, as the system reports a change of any of them.
    std::set<std::pair<int, int>> DeviceSet() {
        std::set<std::pair<int, int>> set;
        libusb_device** list = nullptr;
        ssize_t count = libusb_get_device_list(context, &list);
        if (count < 0) return set;
        for (ssize_t i = 0; i < count; ++i) {
            set.emplace(libusb_get_bus_number(list[i]), libusb_get_device_address(list[i]));
        }
        libusb_free_device_list(list, 1);
        return set;
    }

    // The attached device behind a path, referenced, with its still-image interface.
    libusb_device* FindDevice(const std::u16string& path, StillImageInterface& found) {
        libusb_device** list = nullptr;
        ssize_t count = libusb_get_device_list(context, &list);
        if (count < 0) {
            ORQ_LOG(ERR, "Can't open device file. %d", static_cast<int>(count));
            return nullptr;
        }
        libusb_device* match = nullptr;
        for (ssize_t i = 0; i < count && !match; ++i) {
            if (PathOf(list[i]) == path) match = libusb_ref_device(list[i]);
        }
        libusb_free_device_list(list, 1);
        if (!match) {
            ORQ_LOG(ERR, "Can't open device file. %d", LIBUSB_ERROR_NO_DEVICE);
            return nullptr;
        }
        if (!FindStillImageInterface(match, found)) {
            ORQ_LOG(ERR, "QueryDeviceEndpoints failed");
            libusb_unref_device(match);
            return nullptr;
        }
        return match;
    }

    // String descriptor 2 as the device sends it: the 16-bit units behind the 2-byte header.
    static bool ReadProductString(libusb_device_handle* handle, std::u16string& name) {
        unsigned char descriptor[kDescriptorBuffer] = {};
        int length = libusb_get_string_descriptor(handle, kProductStringIndex, kLanguageId,
                                                  descriptor, sizeof descriptor);
        if (length < 0) {
            ORQ_LOG(ERR, "Get product string Error %d", length);
            return false;
        }
        name.clear();
        for (int i = 2; i + 1 < length; i += 2) {
            name += static_cast<char16_t>(descriptor[i] | (descriptor[i + 1] << 8));
        }
        return true;
    }

    static void Close(LibUsbDevice& device) {
        std::unique_lock<std::mutex> guard(device.lock);
        if (device.closed) return;
        device.closed = true;
        if (device.inFlight) {
            // The transferring thread completes the cancellation in its own event handling.
            libusb_cancel_transfer(device.transfer);
            device.idle.wait(guard, [&device] { return !device.inFlight; });
        }
        libusb_release_interface(device.handle, device.interfaceNumber);
        libusb_close(device.handle);
        device.handle = nullptr;
        libusb_free_transfer(device.transfer);
        device.transfer = nullptr;
    }

    static int TakeSpill(LibUsbDevice& device, uint8_t* destination, uint64_t wanted) {
        size_t count = static_cast<size_t>(std::min<uint64_t>(wanted, device.spillLength));
        std::copy_n(device.spill.data() + device.spillStart, count, destination);
        device.spillStart += count;
        device.spillLength -= count;
        return static_cast<int>(count);
    }

    // One bulk transfer, waited for by handling libusb events on this thread. Returns 0 or a
    // libusb error number; count is what moved, also on failure.
    int Transfer(LibUsbDevice& device, uint8_t endpoint, uint8_t* data, int length, int& count) {
        count = 0;
        {
            std::lock_guard<std::mutex> guard(device.lock);
            if (device.closed) return LIBUSB_ERROR_NO_DEVICE;
            libusb_fill_bulk_transfer(device.transfer, device.handle, endpoint, data, length,
                                      OnTransferDone, &device, kUsbPipeTimeoutMs);
            __atomic_store_n(&device.done, 0, __ATOMIC_RELAXED);
            int result = libusb_submit_transfer(device.transfer);
            if (result != 0) return result;
            device.inFlight = true;
        }
        bool cancelled = false;
        while (!__atomic_load_n(&device.done, __ATOMIC_ACQUIRE)) {
            timeval wait{1, 0};
            int result = libusb_handle_events_timeout_completed(context, &wait, &device.done);
            if (result < 0 && result != LIBUSB_ERROR_INTERRUPTED && !cancelled) {
                // Event handling broke: get the transfer back rather than wait on it forever.
                libusb_cancel_transfer(device.transfer);
                cancelled = true;
            }
        }
        bool closed;
        {
            std::lock_guard<std::mutex> guard(device.lock);
            device.inFlight = false;
            closed = device.closed;
        }
        device.idle.notify_all();
        count = device.actualLength;
        if (closed && device.status != LIBUSB_TRANSFER_COMPLETED) return LIBUSB_ERROR_NO_DEVICE;
        return ErrorOf(device.status);
    }

    IUsbLib_Notify* notify;
    libusb_context* context = nullptr;
    bool hotplug = false;
    libusb_hotplug_callback_handle hotplugHandle = 0;
    // Used by the notification thread only.
    std::set<std::pair<int, int>> lastDeviceSet;

    // Guards changed, stopping and denied.
    std::mutex lock;
    std::condition_variable wake;
    bool changed = false;
    bool stopping = false;
    UsbRecords<LibUsbDevice> devices;
    // Paths whose last open was refused for lack of permission.
    std::set<std::u16string> denied;
    std::thread thread;
};

}  // namespace

// The same backend with hot-plug events turned off, for testing the periodic enumeration that
// stands in for them where libusb has none.
std::unique_ptr<UsbLib> CreateUsbLib_LibUsb(IUsbLib_Notify* notify, bool useHotplug) {
    return std::make_unique<UsbLib_LibUsb>(notify, useHotplug);
}

#ifndef ORQ_USB_NO_DEFAULT_FACTORY
// Programs that link this backend beside the virtual bus (the benchmark) define
// ORQ_USB_NO_DEFAULT_FACTORY, as both would provide this factory.
std::unique_ptr<UsbLib> CreateUsbLib(IUsbLib_Notify* notify) {
    return CreateUsbLib_LibUsb(notify, true);
}
#endif

}  // namespace orq
