// Live preview: the camera's live-view buffer, read as memory, turned into a BMP image in one of
// two buffers, so that the next frame is built while the application holds the last one.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <new>

#include "Kernel/Bytes.h"
#include "Kernel/DeviceLL.h"
#include "Kernel/PreviewFrame.h"
#include "Logger.h"

namespace orq {

namespace preview {

namespace {

using bytes::PutLe16;
using bytes::PutLe32;

// 0 .. 255 for every value a channel can take before clamping (-227 .. 480), by table: three
// loads a pixel instead of six compares.
struct ClampTable {
    static constexpr int32_t kOffset = 256;
    uint8_t values[768];
    constexpr ClampTable() : values() {
        for (int32_t i = 0; i < 768; ++i) values[i] = bytes::ClampToByte(i - kOffset);
    }
};
constexpr ClampTable kClamp;

inline uint8_t Clamp255(int32_t shifted) {
    return kClamp.values[shifted + ClampTable::kOffset];
}

// JFIF YCbCr to RGB in 12-bit fixed point; chroma terms are shared by the group's four pixels.
struct Chroma {
    int32_t blue, green, red;
};

inline Chroma GroupChroma(const uint8_t* group) {
    const int32_t u = static_cast<int8_t>(group[0]);
    const int32_t v = static_cast<int8_t>(group[2]);
    return {7258 * u, -1411 * u - 2925 * v, 5743 * v};
}

inline void PutPixel(uint8_t* out, uint8_t luma, const Chroma& chroma) {
    const int32_t y = 4096 * luma + 2048;
    out[0] = Clamp255((y + chroma.blue) >> 12);
    out[1] = Clamp255((y + chroma.green) >> 12);
    out[2] = Clamp255((y + chroma.red) >> 12);
}

}  // namespace

bool ComputeGeometry(uint32_t width, uint32_t height, FrameGeometry& geometry) {
    if (width == 0 || height == 0 || width > kMaxPreviewSide || height > kMaxPreviewSide) {
        return false;
    }
    FrameGeometry g;
    g.width = static_cast<int32_t>(width);
    g.height = static_cast<int32_t>(height);
    // The constant is written out, not 4/3: it decides the rounding at some heights.
    g.outWidth = static_cast<int32_t>(std::floor(height * 1.33333333 + 0.5));
    // 32 bits with the division last, as the camera expects; the bounds keep it from wrapping.
    g.request = (height * width * 6) / 4;
    const uint64_t stride = static_cast<uint64_t>(g.outWidth) * 3;
    g.total = stride * height;
    g.pad = static_cast<uint32_t>((4 - stride % 4) % 4);
    g.groupsPerRow = (width - 1) / 4 + 1;
    geometry = g;
    return true;
}

void BuildColumnMap(const FrameGeometry& geometry, std::vector<int32_t>& map) {
    map.assign(static_cast<size_t>(geometry.groupsPerRow * 4), -1);
    const double ratio = static_cast<double>(geometry.width) / geometry.outWidth;
    const int64_t limit = static_cast<int64_t>(geometry.outWidth) * 3;
    int64_t last = -1;
    for (int32_t i = 0; i < geometry.width; ++i) {
        const int64_t offset = 3 * static_cast<int64_t>(std::floor(i / ratio + 0.5));
        // The mapping never decreases, so a repeat of the last kept offset is a later column
        // landing on the same output column.
        if (offset == last) continue;
        last = offset;
        if (offset < limit) map[static_cast<size_t>(i)] = static_cast<int32_t>(offset);
    }
}

void ConvertPixelsPlain(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                        const int32_t* map, uint8_t* pixels) {
    const uint64_t rowBytes = geometry.groupsPerRow * 6;
    const uint64_t stride = static_cast<uint64_t>(geometry.outWidth) * 3;
    for (int32_t y = 0; y < geometry.height; ++y) {
        const uint64_t rowStart = static_cast<uint64_t>(y) * rowBytes;
        if (!source || rowStart >= sourceSize) break;
        // The camera's block may stop short (its size is never compared with the request, and
        // a width that is no multiple of 4 asks for less than whole groups): whole groups only.
        const uint64_t groups = std::min(geometry.groupsPerRow, (sourceSize - rowStart) / 6);
        const uint8_t* group = source + rowStart;
        // The top row goes last; pad is added once to every row's start, not accumulated.
        uint8_t* out =
            pixels + static_cast<uint64_t>(geometry.height - 1 - y) * stride + geometry.pad;
        const int32_t* columns = map;
        for (uint64_t g = 0; g < groups; ++g, group += 6, columns += 4) {
            const Chroma chroma = GroupChroma(group);
            if (columns[0] >= 0) PutPixel(out + columns[0], group[1], chroma);
            if (columns[1] >= 0) PutPixel(out + columns[1], group[3], chroma);
            if (columns[2] >= 0) PutPixel(out + columns[2], group[4], chroma);
            if (columns[3] >= 0) PutPixel(out + columns[3], group[5], chroma);
        }
    }
}

void WriteBmpHeader(uint8_t* image, const FrameGeometry& geometry) {
    const uint32_t total = static_cast<uint32_t>(geometry.total);
    image[0] = 'B';
    image[1] = 'M';
    PutLe32(image + 2, total + kBmpHeaderSize);
    PutLe32(image + 6, 0);
    PutLe32(image + 10, kBmpHeaderSize);
    PutLe32(image + 14, 40);
    PutLe32(image + 18, static_cast<uint32_t>(geometry.outWidth));
    PutLe32(image + 22, static_cast<uint32_t>(geometry.height));  // positive: bottom-up rows
    PutLe16(image + 26, 1);
    PutLe16(image + 28, 24);
    PutLe32(image + 30, 0);
    PutLe32(image + 34, total);
    PutLe32(image + 38, 3780);
    PutLe32(image + 42, 3780);
    PutLe32(image + 46, 0);
    PutLe32(image + 50, 0);
}

}  // namespace preview

namespace {

constexpr int64_t kVideoSettingsLifetimeMs = 2000;

int64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

OrqResult DeviceLL::GetVideoSettings(VideoSettings& target) {
    PtpDataBlock block;
    // The wrapper logs "PTP_CHDK_GetVideoSettings failed".
    if (PTPGetVideoSettings(block) != ORQ_OK) return ORQ_ERROR;
    // Words a short block lacks read as 0, which no frame size passes.
    for (size_t i = 0; i < target.size(); ++i) target[i] = block.Word(i);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetPreviewFrame(PreviewBuffer* target) {
    const int64_t now = NowMs();
    if (videoSettingsTime == 0 || now - videoSettingsTime > kVideoSettingsLifetimeMs) {
        const VideoSettings previous = videoSettings;
        if (GetVideoSettings(videoSettings) != ORQ_OK) {
            ORQ_LOG(ERR, "GetVideoSettings failed");
            return ORQ_ERROR;
        }
        videoSettingsTime = NowMs();
        if (videoSettings != previous) {
            const auto word = [this](size_t i) { return static_cast<int32_t>(videoSettings[i]); };
            ORQ_LOG(INF, "VideoSettings: %d %d %d %d %d %d", word(1), word(2), word(3), word(5),
                    word(4), word(0));
        }
    }

    const uint32_t width = videoSettings[1];
    const uint32_t height = videoSettings[2] == 180 ? videoSettings[5] : videoSettings[2];
    preview::FrameGeometry geometry;
    if (!preview::ComputeGeometry(width, height, geometry)) {
        ORQ_LOG(ERR, "PTPGetPreviewFrame: bad frame size %d x %d", static_cast<int32_t>(width),
                static_cast<int32_t>(height));
        return ORQ_ERROR;
    }
    try {
        preview::BuildColumnMap(geometry, previewColumnMap);
    } catch (const std::bad_alloc&) {
        ORQ_LOG(ERR, "PTPGetPreviewFrame: out of memory");
        return ORQ_ERROR;
    }

    PtpDataBlock block;
    // The wrapper logs "PTP_CHDK_GetMemory failed".
    if (PTPGetMemory(0, geometry.request, block) != ORQ_OK) return ORQ_ERROR;

    if (target->size != geometry.ImageSize() || !target->data) {
        target->data.reset();
        target->size = 0;
        // Zeroed, so that output columns no source column reaches show no stale heap memory.
        target->data.reset(new (std::nothrow) uint8_t[geometry.Allocation()]());
        if (!target->data) {
            ORQ_LOG(ERR, "PTPGetPreviewFrame: out of memory");
            return ORQ_ERROR;
        }
        target->size = geometry.ImageSize();
    }

    preview::ConvertPixels(block.data.get(), block.size, geometry, previewColumnMap.data(),
                           target->data.get() + preview::kBmpHeaderSize);
    block.data.reset();
    preview::WriteBmpHeader(target->data.get(), geometry);
    return ORQ_OK;
}

OrqResult DeviceLL::UpdatePreviewFrame() {
    {
        // Held across the transfer: the application's fetch and release wait for this frame.
        std::lock_guard<std::mutex> guard(preview->previewLock);
        const int32_t index = preview->previewHeld == 0 ? 1 : 0;
        OrqResult result = PTPGetPreviewFrame(&preview->previewBuffers[index]);
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "PTPGetPreviewFrame failed");
            // A failed allocation empties the buffer; it must not be handed out as the frame.
            if (preview->previewReady == index && !preview->previewBuffers[index].data)
                preview->previewReady = -1;
            return result;
        }
        preview->previewReady = index;
    }
    OnNewPreviewFrame();
    return ORQ_OK;
}

OrqResult DeviceLL::GetPreviewFrame(void** frame, int* size) {
    if (!frame || !size) return ORQ_ERROR;
    void* handedOut = nullptr;
    {
        std::lock_guard<std::mutex> guard(preview->previewLock);
        if (preview->previewHeld != -1) {
            ORQ_LOG(ERR, "GetPreviewFrame: Previous preview frame does not released");
            return ORQ_ERROR;
        }
        if (preview->previewReady == -1) {
            ORQ_LOG(ERR, "GetPreviewFrame: result not ready");
            return ORQ_NOT_READY;
        }
        const PreviewBuffer& ready = preview->previewBuffers[preview->previewReady];
        handedOut = ready.data.get();
        *frame = handedOut;
        *size = static_cast<int>(ready.size);
        preview->previewHeld = preview->previewReady;
    }
    // Registered after the lock is released: the release function takes previewLock under the
    // memory manager's mutex, so registering under previewLock would invert that order. Nothing
    // can release the frame before the application has it. The function holds the buffers, not
    // this object, so a frame freed after the camera has gone only drops the last reference.
    std::shared_ptr<PreviewFrames> frames = preview;
    RegisterPointer(handedOut, [frames](void*) {
        std::lock_guard<std::mutex> guard(frames->previewLock);
        frames->previewHeld = -1;
    });
    return ORQ_OK;
}

}  // namespace orq
