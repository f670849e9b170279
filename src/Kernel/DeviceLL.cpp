#include "Kernel/DeviceLL.h"

#include "CameraText.h"
#include "Logger.h"
#include "SDKConfig.h"

namespace orq {

DeviceLL::DeviceLL(UsbLib* usb, const SDKConfig* sdkConfig, std::u16string devicePath)
    : sdkConfig(sdkConfig),
      link(std::make_unique<PtpLink>(usb)),
      devicePath(std::move(devicePath)) {}

DeviceLL::~DeviceLL() = default;

OrqResult DeviceLL::OpenCamera() {
    OrqResult opened = link->Open(devicePath, deviceName);
    if (opened != ORQ_OK) return opened;
    const CameraConfig* profile = FindCameraConfig(deviceName);
    if (!profile) {
        ORQ_LOG(ERR, "camera config not found: %s", CameraText(deviceName).c_str());
        return ORQ_ERROR;
    }
    config = *profile;
    connected = true;
    return ORQ_OK;
}

void DeviceLL::ForceCloseUSB() {
    link->ForceClose();
}

OrqResult DeviceLL::SetPreShootProperty() {
    return ORQ_OK;
}
void DeviceLL::SetPreviewSuspended(bool) {}
bool DeviceLL::IsMemLogging() {
    return false;
}
void DeviceLL::OnPropertyChanged(int propertyId) {
    ORQ_LOG(DEB, "OnPropertyChanged event: %d", propertyId);
}
void DeviceLL::OnFocusChanged() {
    ORQ_LOG(DEB, "OnFocusChanged event");
}
void DeviceLL::OnPropertyListChanged() {
    ORQ_LOG(DEB, "OnPropertyListChanged event");
}
void DeviceLL::OnZoomChanged() {
    ORQ_LOG(DEB, "OnZoomChanged event");
}
void DeviceLL::OnZoomCompleted() {
    ORQ_LOG(DEB, "OnZoomCompleted event");
}
void DeviceLL::OnShootCompleted(OrqFileInfo) {
    ORQ_LOG(DEB, "OnShootCompleted event");
}
void DeviceLL::OnDownloadCompleted(int, std::u16string) {
    ORQ_LOG(DEB, "OnDownloadCompleted event");
}
void DeviceLL::OnNewPreviewFrame() {
    ORQ_LOG(DEB, "OnNewPreviewFrame event");
}

void DeviceLL::RegisterPointer(void* pointer, std::function<void(void*)> free) {
    pointerTable[pointer] = std::move(free);
}

void DeviceLL::FreePointer(void* pointer) {
    auto found = pointerTable.find(pointer);
    if (found == pointerTable.end()) {
        ORQ_LOG(ERR, "FreePointer: unknown pointer");
        return;
    }
    auto free = std::move(found->second);
    pointerTable.erase(found);
    if (free) free(pointer);
}

OrqResult DeviceLL::CheckStarted() {
    return ORQ_OK;
}
OrqResult DeviceLL::CheckSessionOpen() {
    return ORQ_OK;
}
OrqResult DeviceLL::CheckReady() {
    return ORQ_OK;
}
OrqResult DeviceLL::SendPropertyData(int propertyId) {
    return WriteProperty(propertyId);
}

}  // namespace orq
