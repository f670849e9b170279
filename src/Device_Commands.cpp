// What each session export does on the caller's thread: check, then post or answer at once.
#include <algorithm>

#include "Device.h"
#include "Logger.h"
#include "memmgr.h"

namespace orq {

OrqResult Device::ShootCommand(std::shared_ptr<ShotTicket> ticket) {
    if (OrqResult ready = CheckReady()) return ready;
    // Taken now, not when the loop gets to the message: video must not start in between.
    std::shared_ptr<void> accepted = AcceptShot();
    if (!accepted) return ORQ_ERROR;
    Post(std::make_shared<MainLoopMsg_Shoot>(std::move(ticket), std::move(accepted)));
    return ORQ_OK;
}

OrqResult Device::UpdateAEAFCommand() {
    if (OrqResult ready = CheckReady()) return ready;
    Post(std::make_shared<MainLoopMsg_UpdateAeAf>());
    return ORQ_OK;
}

OrqResult Device::ResetCameraCommand() {
    if (OrqResult ready = CheckReady()) return ready;
    Post(std::make_shared<MainLoopMsg_ResetCamera>());
    return ORQ_OK;
}

OrqResult Device::DownloadFileCommand(int fileId, bool deleteAfter) {
    if (OrqResult ready = CheckReady()) return ready;
    OrqFileInfo file{};
    if (!FindFile(fileId, file)) {
        ORQ_LOG(ERR, "Download file: file not found");
        return ORQ_ERROR;
    }
    std::u16string name;
    for (size_t i = 0; i < 128 && file.name[i]; ++i) name += static_cast<char16_t>(file.name[i]);
    std::u16string path;
    if (!DownloadTarget(platform::TempFolder(), name, path)) return ORQ_ERROR;
    Post(std::make_shared<MainLoopMsg_DownloadTo>(fileId, std::move(path), deleteAfter));
    return ORQ_OK;
}

OrqResult Device::DownloadFileToCommand(int fileId, const std::u16string& path, bool deleteAfter) {
    // Without a name the part file would land in whatever folder the process runs in.
    if (path.empty()) {
        ORQ_LOG(ERR, "Download file: no path given");
        return ORQ_ERROR;
    }
    if (OrqResult ready = CheckReady()) return ready;
    Post(std::make_shared<MainLoopMsg_DownloadTo>(fileId, path, deleteAfter));
    return ORQ_OK;
}

OrqResult Device::DeleteFileCommand(int fileId) {
    if (OrqResult ready = CheckReady()) return ready;
    Post(std::make_shared<MainLoopMsg_RemoveFile>(fileId));
    return ORQ_OK;
}

OrqResult Device::GetFileListCommand(OrqFileInfo** list, int* count) {
    std::vector<OrqFileInfo> files = FileTable();
    *count = static_cast<int>(files.size());
    if (files.empty()) {
        *list = nullptr;
        return ORQ_OK;
    }
    auto* block = new OrqFileInfo[files.size()];
    std::copy(files.begin(), files.end(), block);
    RegisterPointer(block, [](void* p) { delete[] static_cast<OrqFileInfo*>(p); });
    *list = block;
    return ORQ_OK;
}

OrqResult Device::GetPropertyDataCommand(int propertyId, int* value) {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    if (OrqResult ready = CheckReady()) return ready;
    return GetPropertyData(propertyId, value);
}

OrqResult Device::SetPropertyDataCommand(int propertyId, int value) {
    if (OrqResult ready = CheckStarted()) return ready;
    return SetPropertyData(propertyId, value);
}

OrqResult Device::SetZoomCommand(int position) {
    if (OrqResult ready = CheckReady()) return ready;
    ORQ_LOG(DEB, "SetZoom: %d", position);
    Post(std::make_shared<MainLoopMsg_SetZoom>(position));
    return ORQ_OK;
}

OrqResult Device::SetFocusCommand(int position) {
    if (OrqResult ready = CheckReady()) return ready;
    ORQ_LOG(DEB, "SetFocus: %d", position);
    Post(std::make_shared<MainLoopMsg_SetFocus>(position));
    return ORQ_OK;
}

OrqResult Device::FocusShiftCommand(int shift) {
    if (OrqResult ready = CheckReady()) return ready;
    ORQ_LOG(DEB, "DoFocusShift: %d", shift);
    Post(std::make_shared<MainLoopMsg_FocusShift>(shift));
    return ORQ_OK;
}

OrqResult Device::SetPreviewState(int state) {
    previewOn = state == 1;
    return ORQ_OK;
}

}  // namespace orq
