#include <atomic>
#include <condition_variable>
#include <list>
#include <thread>

#include "Logger.h"
#include "sim/VirtualBus.h"

namespace orq {

// A device opened on the virtual bus.
struct UsbDevice {
    std::u16string path;
    std::u16string name;
    std::shared_ptr<orqsim::VirtualEndpoint> endpoint;
    std::atomic<bool> closed{false};
};

}  // namespace orq

namespace orqsim {

namespace {

using orq::DEB;
using orq::ERR;
using orq::UsbBuffer;
using orq::UsbDevice;

// Error numbers reported in log lines, as libusb numbers them.
int ErrorNumber(TransferResult::Status status) {
    switch (status) {
        case TransferResult::Timeout:
            return -7;
        case TransferResult::Disconnected:
            return -4;
        default:
            return -1;
    }
}

class UsbLib_Virtual : public orq::UsbLib {
public:
    explicit UsbLib_Virtual(orq::IUsbLib_Notify* notify) : notify(notify) {
        thread = std::thread([this] { NotificationThread(); });
        listener = VirtualBus::Instance().AddListener([this] {
            std::lock_guard<std::mutex> guard(lock);
            changed = true;
            wake.notify_one();
        });
    }

    ~UsbLib_Virtual() override {
        VirtualBus::Instance().RemoveListener(listener);
        {
            std::lock_guard<std::mutex> guard(lock);
            stopping = true;
            wake.notify_one();
        }
        thread.join();
        for (auto& device : devices) CloseDevice(device.get());
    }

    std::set<std::u16string> GetAllConnectedDevicePaths() override {
        return VirtualBus::Instance().Paths();
    }

    UsbDevice* OpenDevice(std::u16string path) override {
        auto endpoint = VirtualBus::Instance().Find(path);
        if (!endpoint) {
            ORQ_LOG(ERR, "Can't open device file. %d", -4);
            return nullptr;
        }
        endpoint->Reset();
        auto device = std::make_unique<UsbDevice>();
        device->path = std::move(path);
        device->name = endpoint->ProductString();
        device->endpoint = std::move(endpoint);
        std::lock_guard<std::mutex> guard(lock);
        devices.push_back(std::move(device));
        return devices.back().get();
    }

    void CloseDevice(UsbDevice* device) override {
        if (device && !device->closed.exchange(true)) device->endpoint->Abort();
    }

    // The record holds the camera itself: keeping it would keep every unplugged camera alive.
    void ReleaseDevice(UsbDevice* device) override {
        if (!device) return;
        CloseDevice(device);
        std::lock_guard<std::mutex> guard(lock);
        devices.remove_if([device](const auto& record) { return record.get() == device; });
    }

    std::u16string GetDeviceName(UsbDevice* device) override {
        return device ? device->name : std::u16string();
    }

    bool UsbReadExactly(UsbBuffer buffer, UsbDevice* device) override {
        orq::ReadBudget budget(buffer.size);
        uint64_t received = 0;
        while (received < buffer.size) {
            TransferResult result{TransferResult::Disconnected, 0};
            if (device && !device->closed) {
                result = device->endpoint->BulkIn(buffer.data + received,
                                                  static_cast<size_t>(buffer.size - received),
                                                  orq::kUsbPipeTimeoutMs);
            }
            if (result.status != TransferResult::Ok) {
                ORQ_LOG(ERR, "UsbRead failed %d", ErrorNumber(result.status));
                ORQ_LOG(ERR, "UsbReadExactly failed");
                return false;
            }
            received += result.count;
            if (received < buffer.size && !budget.Spend(result.count)) {
                ORQ_LOG(ERR, "UsbRead failed %d", ErrorNumber(TransferResult::Timeout));
                ORQ_LOG(ERR, "UsbReadExactly failed");
                return false;
            }
        }
        return true;
    }

    bool UsbWrite(UsbBuffer buffer, UsbDevice* device) override {
        uint32_t length = static_cast<uint32_t>(buffer.size);
        TransferResult result{TransferResult::Disconnected, 0};
        if (device && !device->closed) {
            result = device->endpoint->BulkOut(buffer.data, length, orq::kUsbPipeTimeoutMs);
        }
        if (result.status != TransferResult::Ok) {
            ORQ_LOG(ERR, "Write failed %d", ErrorNumber(result.status));
            return false;
        }
        if (result.count != buffer.size) {
            ORQ_LOG(ERR, "usb write missmath bytes count: %d %d", static_cast<int>(buffer.size),
                    static_cast<int>(result.count));
            return false;
        }
        return true;
    }

private:
    void NotificationThread() {
        std::unique_lock<std::mutex> guard(lock);
        while (true) {
            wake.wait(guard, [this] { return changed || stopping; });
            if (stopping) return;
            changed = false;
            guard.unlock();
            notify->OnDeviceChange();
            guard.lock();
        }
    }

    orq::IUsbLib_Notify* notify;
    std::mutex lock;
    std::condition_variable wake;
    bool changed = false;
    bool stopping = false;
    int listener = 0;
    std::thread thread;
    std::list<std::unique_ptr<UsbDevice>> devices;
};

}  // namespace

std::unique_ptr<orq::UsbLib> CreateVirtualUsbLib(orq::IUsbLib_Notify* notify) {
    return std::make_unique<UsbLib_Virtual>(notify);
}

}  // namespace orqsim

namespace orq {

std::unique_ptr<UsbLib> CreateUsbLib(IUsbLib_Notify* notify) {
    return orqsim::CreateVirtualUsbLib(notify);
}

}  // namespace orq
