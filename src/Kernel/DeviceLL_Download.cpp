// Moving a file to the host and removing it. An id of 0 or above is an object on the card; a
// negative id is a picture held in memory after a remote shot.
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CameraText.h"
#include "Kernel/Bytes.h"
#include "Kernel/DeviceLL.h"
#include "Logger.h"
#include "platform/Platform.h"

namespace orq {

bool DeviceLL::DownloadTarget(std::u16string folder, const std::u16string& name,
                              std::u16string& path) {
    // Without the system's folder the name alone would land at the root of the drive.
    if (folder.empty()) {
        ORQ_LOG(ERR, "Download file: temporary folder not available");
        return false;
    }
    bool plain = !name.empty() && name != u"." && name != u".." &&
                 platform::ToUtf8(name).size() <= 255 && !platform::ReservedFileName(name);
    for (char16_t c : name) {
        if (c < 0x20 || c == 0x7F || c == u'/' || c == u'\\' || c == u':') plain = false;
    }
    if (!plain) {
        ORQ_LOG(ERR, "Download file: file name refused: %s", CameraText(name).c_str());
        return false;
    }
    if (folder.back() != platform::PathSeparator()) folder += platform::PathSeparator();
    path = folder + name;
    return true;
}

bool DeviceLL::WriteDownloadedFile(const std::u16string& path,
                                   const std::vector<std::pair<const uint8_t*, uint64_t>>& parts) {
    try {
        std::unique_ptr<platform::OutputFile> out = platform::OutputFile::Create(path);
        if (!out) return false;
        for (const auto& part : parts) {
            if (part.first && part.second > 0 &&
                !out->Write(part.first, static_cast<size_t>(part.second))) {
                return false;
            }
        }
        return out->Commit();
    } catch (const std::exception&) {
        return false;
    }
}

OrqResult DeviceLL::PTPDownloadFile(int32_t fileId, const std::u16string& path) {
    if (fileId >= 0) {
        PtpDataBlock block;
        if (PTPGetObject(static_cast<uint32_t>(fileId), block) != ORQ_OK) return ORQ_ERROR;
        PTPMemoryStatistics("after PTP_OC_GetObject");
        if (!WriteDownloadedFile(path, {{block.data.get(), block.data ? block.size : 0}})) {
            ORQ_LOG(ERR, "PTPDownloadFile: write file failed");
            return ORQ_ERROR;
        }
        block = PtpDataBlock();
        ORQ_LOG(INF, "Download file completed:\n    id:   %d\n    path: %s", fileId,
                bytes::LowBytes(path.c_str(), path.size()).c_str());
        OnDownloadCompleted(fileId, path);
        return ORQ_OK;
    }

    {
        // Held through the write: a removal must not free the chunks under it.
        std::lock_guard<std::recursive_mutex> guard(directTransferLock);
        auto found = DirectTransferFiles.find(fileId);
        if (found == DirectTransferFiles.end()) {
            ORQ_LOG(ERR, "PTPDownloadFile: DirectTransfer FileId not found!");
            return ORQ_ERROR;
        }
        std::vector<std::pair<const uint8_t*, uint64_t>> parts;
        try {
            parts.reserve(found->second.size());
        } catch (const std::exception&) {
            ORQ_LOG(ERR, "PTPDownloadFile: write file failed");
            return ORQ_ERROR;
        }
        for (const PtpDataBlock& chunk : found->second) {
            parts.emplace_back(chunk.data.get(), chunk.data ? chunk.size : 0);
        }
        if (!WriteDownloadedFile(path, parts)) {
            ORQ_LOG(ERR, "PTPDownloadFile: write file failed");
            return ORQ_ERROR;
        }
        ORQ_LOG(INF, "DirectTransfer download file completed:\n    id:   %d\n    path: %s", fileId,
                bytes::LowBytes(path.c_str(), path.size()).c_str());
    }
    OnDownloadCompleted(fileId, path);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPRemoveFile(int32_t fileId) {
    if (fileId >= 0) {
        // The file table keeps showing the file until the next listing.
        if (PTPDeleteObject(static_cast<uint32_t>(fileId)) != ORQ_OK) return ORQ_ERROR;
        PTPMemoryStatistics("after PTP_OC_DeleteObject");
        return ORQ_OK;
    }

    std::lock_guard<std::recursive_mutex> guard(directTransferLock);
    auto found = DirectTransferFiles.find(fileId);
    if (found == DirectTransferFiles.end()) {
        ORQ_LOG(ERR, "PTPRemoveFile: DirectTransfer FileId not found!");
        return ORQ_ERROR;
    }
    DirectTransferFiles.erase(found);  // releases the chunks' buffers
    ORQ_LOG(INF, "PTPRemoveFile: DirectTransfer %d", fileId);
    return ORQ_OK;
}

}  // namespace orq
