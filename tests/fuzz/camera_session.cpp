#include "camera_session.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "Kernel/DeviceLL.h"

namespace orqfuzz {

namespace {

using orq::DeviceLL;
using std::chrono::milliseconds;

// The link with the upward operations the SDK's camera gives it, minus its thread and events.
class SessionLink : public DeviceLL {
public:
    SessionLink(orq::UsbLib* usb, const orq::SDKConfig* config, const std::u16string& path)
        : DeviceLL(usb, config, path) {
        // A bound an input can reach: fifty event reads of a shot, not six hundred.
        operationLimit = milliseconds(5000);
    }

    bool IsMemLogging() override { return sdkConfig->MemLogging; }
    OrqResult SetPreShootProperty() override {
        return config.Has(ORQ_PROP_FLASH_POWER) ? WriteProperty(ORQ_PROP_FLASH_POWER) : ORQ_OK;
    }

    // Ids a download or a removal may name: the card's files, then the pictures held here.
    std::vector<int32_t> FileIds() {
        std::vector<int32_t> ids;
        for (const OrqFileInfo& file : FileTable()) ids.push_back(file.id);
        std::lock_guard<std::recursive_mutex> guard(directTransferLock);
        for (const auto& held : DirectTransferFiles) ids.push_back(held.first);
        return ids;
    }

    // As the SDK's start-up, step for step.
    OrqResult StartUp() {
        OrqResult step;
        if ((step = PTPOpenSession()) != ORQ_OK) return step;
        if ((step = PTPWaitRecMode()) != ORQ_OK) return step;
        if ((step = LoadProperties()) != ORQ_OK) return step;
        if ((step = LoadOrqmVersion("3.1.3.0")) != ORQ_OK) return step;
        if ((step = LoadSerialNumber()) != ORQ_OK) return step;
        if ((step = CleanMemoryCard()) != ORQ_OK) return step;
        if ((step = PTPGetCamLog()) != ORQ_OK) return step;
        if ((step = PTPUpdateObjectsInfo()) != ORQ_OK) return step;
        if (config.Has(ORQ_PROP_MANUAL_FOCUS_MODE)) return PTPManualFocusEnable(false);
        return ORQ_OK;
    }

    // The longest a chain may ask to wait in all before it ends: its bound, and one more step.
    milliseconds ChainBound() const { return operationLimit + milliseconds(100); }

    // As the SDK's periodic poll; it stops at the first failure as the SDK does.
    void Poll() {
        BuildAvailableValues();
        if (ReadCameraMode() != ORQ_OK) return;
        BuildAvailableValues();
        if (UpdateZoom() != ORQ_OK) return;
        if (ReadBatteryLevel(false) != ORQ_OK) return;
        UpdateFocusPos();
    }
};

// Steps a multi-step operation to its end, as the main loop does. An operation that asks to wait
// longer than `bound` in all has not ended as it must, whatever the camera answered: a finding.
void RunToEnd(std::unique_ptr<orq::ContProc> proc, SessionSource& source,
              milliseconds bound = milliseconds::max()) {
    milliseconds waited(0);
    while (proc) {
        milliseconds delay(0);
        OrqResult result = ORQ_OK;
        bool again = false;
        proc->step(proc.get(), &delay, &result, &again);
        if (!again) return;
        waited += delay;
        if (waited > bound) {
            std::fprintf(stderr, "an operation did not end within %lld ms\n",
                         static_cast<long long>(bound.count()));
            std::abort();
        }
        source.Wait(delay);
    }
}

uint8_t Arg(SessionSource& source) {
    uint8_t value = 0;
    source.Choose(value);
    return value;
}

void Preview(SessionLink& link) {
    if (link.UpdatePreviewFrame() != ORQ_OK) return;
    void* frame = nullptr;
    int size = 0;
    if (link.GetPreviewFrame(&frame, &size) != ORQ_OK) return;
    // The application reads the whole image before it gives it back.
    const auto* bytes = static_cast<const volatile uint8_t*>(frame);
    uint8_t sum = 0;
    for (int i = 0; i < size; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
    (void)sum;
    link.FreePointer(frame);
}

void SetProperty(SessionLink& link, uint8_t which, uint8_t choice) {
    const auto& properties = link.Config().properties;
    if (properties.empty()) return;
    auto entry = properties.begin();
    std::advance(entry, which % properties.size());
    const auto& values = entry->second.values;
    const int value = values.empty() ? choice : values[choice % values.size()].value;
    link.SetPropertyData(entry->first, value);

    int* list = nullptr;
    int count = 0;
    if (link.GetPropertyList(&list, &count) == ORQ_OK) link.FreePointer(list);
    OrqPropertyDesc* description = nullptr;
    if (link.GetPropertyDesc(entry->first, &description) == ORQ_OK) link.FreePointer(description);
}

void RunOperation(SessionLink& link, uint8_t operation, SessionSource& source,
                  const std::u16string& downloadPath) {
    switch (operation % kOperationCount) {
        case kPoll:
            link.Poll();
            break;
        case kShoot:
            RunToEnd(link.Shoot(nullptr), source, link.ChainBound());
            break;
        case kFileList:
            link.PTPUpdateObjectsInfo();
            break;
        case kDownload:
        case kRemove: {
            const uint8_t which = Arg(source);
            const std::vector<int32_t> ids = link.FileIds();
            if (ids.empty()) break;
            const int32_t id = ids[which % ids.size()];
            if (operation % kOperationCount == kDownload) {
                link.PTPDownloadFile(id, downloadPath);
            } else {
                link.PTPRemoveFile(id);
            }
            break;
        }
        case kPreview:
            Preview(link);
            break;
        case kVideoStart:
            link.PTPStartVideo();
            break;
        case kVideoStop: {
            OrqFileInfo file{};
            link.PTPStopVideo(&file);
            break;
        }
        case kZoom:
            RunToEnd(link.CreateZoomProc(Arg(source)), source);
            break;
        case kFocus: {
            const uint8_t position = Arg(source);
            if (position & 0x80) {
                link.FocusShift(static_cast<int8_t>(position << 1) / 2);
            } else {
                link.SetFocus(position == 0x7F ? -1 : position * 8);
            }
            break;
        }
        case kSetProperty: {
            const uint8_t which = Arg(source);
            SetProperty(link, which, Arg(source));
            break;
        }
        case kUpdateAeAf:
            link.PTPUpdateAEAF();
            break;
        case kCamLog:
            link.PTPGetCamLog();
            break;
        case kUnplug:
            link.SetConnected(false);
            link.ForceCloseUSB();
            break;
    }
}

}  // namespace

void PlaySession(orq::UsbLib* usb, const std::u16string& path, SessionSource& source,
                 const orq::SDKConfig& config, const std::u16string& downloadPath) {
    SessionLink link(usb, &config, path);
    if (link.OpenCamera() == ORQ_OK && link.StartUp() == ORQ_OK) {
        // After the cable goes, one more operation sees the closed device; the SDK would have
        // failed the camera by then.
        bool unplugged = false;
        for (uint8_t operation = 0; source.Choose(operation);) {
            RunOperation(link, operation, source, downloadPath);
            if (unplugged) break;
            unplugged = operation % kOperationCount == kUnplug;
        }
    }
    link.SetConnected(false);
    link.ForceCloseUSB();
}

}  // namespace orqfuzz
