// The listing of the card and the table of its pictures and movies. A shot or a recording names
// no file, so the new file is found by comparing two listings.
#include <cstring>
#include <set>
#include <utility>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

constexpr uint32_t kMaxObjectHandles = 5120;

// ObjectInfo dataset: the two fields the SDK takes from it.
constexpr size_t kObjectSizeOffset = 8;
constexpr size_t kFilenameOffset = 52;
constexpr size_t kNameUnits = 128;

// The file name as the rest of the SDK compares it: one byte of each 16-bit unit (so ASCII
// survives), each byte widened with its sign.
void DecodeFilename(const PtpDataBlock& block, OrqChar (&name)[kNameUnits]) {
    char narrow[kNameUnits] = {};
    if (block.size > kFilenameOffset) {
        size_t count = block.data[kFilenameOffset];
        if (count >= kNameUnits - 1) count = kNameUnits - 1;
        // A block cut short by the camera yields what it holds.
        const uint64_t available = (block.size - kFilenameOffset - 1) / 2;
        if (count > available) count = static_cast<size_t>(available);
        for (size_t i = 0; i < count; ++i) {
            narrow[i] = static_cast<char>(block.data[kFilenameOffset + 1 + 2 * i]);
        }
    }
    std::memset(name, 0, sizeof name);
    for (size_t i = 0; i < kNameUnits - 1 && narrow[i]; ++i) {
        name[i] = static_cast<OrqChar>(static_cast<signed char>(narrow[i]));
    }
}

bool EndsWithMediaExtension(const OrqChar* name) {
    size_t length = 0;
    while (length < kNameUnits && name[length]) ++length;
    if (length <= 4) return false;
    char tail[5] = {};
    for (size_t i = 0; i < 4; ++i) {
        OrqChar c = name[length - 4 + i];
        if (c >= 'A' && c <= 'Z') c = static_cast<OrqChar>(c - 'A' + 'a');
        // Anything outside ASCII cannot match.
        tail[i] = c < 0x80 ? static_cast<char>(c) : '?';
    }
    return std::strcmp(tail, ".jpg") == 0 || std::strcmp(tail, ".mov") == 0;
}

}  // namespace

OrqResult DeviceLL::PTPGetObjectHandles(std::vector<uint32_t>& handles) {
    uint32_t storageId = 0;
    OrqResult result = PTPGetStorageIDs(storageId);
    if (result != ORQ_OK) return result;

    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_GetObjectHandles, {storageId, 0, 0}, PTP_DATA_IN, &block,
                             nullptr)) {
        ORQ_LOG(ERR, "PTP_OC_GetObjectHandles failed");
        return ORQ_ERROR;
    }
    const uint32_t count = block.Word(0);
    if (count > kMaxObjectHandles) {
        ORQ_LOG(ERR, "getObjectHandles failed: to many objects");
        return ORQ_ERROR;
    }
    if (block.size / 4 < uint64_t(count) + 1) {
        ORQ_LOG(ERR, "getObjectHandles failed: %d handles announced, %d sent",
                static_cast<int>(count), static_cast<int>(block.size / 4) - 1);
        return ORQ_ERROR;
    }
    handles.clear();
    handles.reserve(count);
    for (uint32_t i = 0; i < count; ++i) handles.push_back(block.Word(1 + i));
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetObjectInfo(uint32_t handle, OrqFileInfo& file) {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_GetObjectInfo, {handle}, PTP_DATA_IN, &block, nullptr)) {
        ORQ_LOG(ERR, "PTP_OC_GetObjectInfo failed");
        return ORQ_ERROR;
    }
    file.id = static_cast<int32_t>(handle);
    file.size = block.Word(kObjectSizeOffset / 4);
    DecodeFilename(block, file.name);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetFilesInfo(std::vector<OrqFileInfo>& files) {
    std::vector<uint32_t> handles;
    OrqResult result = PTPGetObjectHandles(handles);
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPGetObjectHandles failed");
        return result;
    }
    files.resize(handles.size());
    for (size_t i = 0; i < handles.size(); ++i) {
        if (PTPGetObjectInfo(handles[i], files[i]) != ORQ_OK) {
            // One bad object fails the whole listing.
            files.clear();
            return ORQ_ERROR;
        }
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPUpdateObjectsInfo() {
    ORQ_LOG(DEB, "PTPUpdateObjectsInfo");
    std::vector<OrqFileInfo> listing;
    OrqResult result = PTPGetFilesInfo(listing);
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPGetFilesInfo failed");
        return result;
    }
    std::vector<OrqFileInfo> media;
    media.reserve(listing.size());
    for (const OrqFileInfo& file : listing) {
        if (EndsWithMediaExtension(file.name)) media.push_back(file);
    }

    std::lock_guard<std::mutex> guard(fileTableLock);
    // A changed size under a known handle counts as a new file too.
    std::set<std::pair<int32_t, uint32_t>> known;
    for (const OrqFileInfo& file : fileTable) known.emplace(file.id, file.size);
    latestFileId = -1;
    for (const OrqFileInfo& file : media) {
        if (!known.count({file.id, file.size})) {
            latestFileId = file.id;
            break;
        }
    }
    ORQ_LOG(DEB, "Latest file ID: %d", latestFileId);
    fileTable = std::move(media);
    return ORQ_OK;
}

std::vector<OrqFileInfo> DeviceLL::FileTable() const {
    std::lock_guard<std::mutex> guard(fileTableLock);
    return fileTable;
}

int32_t DeviceLL::LatestFileId() const {
    std::lock_guard<std::mutex> guard(fileTableLock);
    return latestFileId;
}

bool DeviceLL::FindFile(int32_t id, OrqFileInfo& file) const {
    std::lock_guard<std::mutex> guard(fileTableLock);
    for (const OrqFileInfo& entry : fileTable) {
        if (entry.id == id) {
            file = entry;
            return true;
        }
    }
    return false;
}

}  // namespace orq
