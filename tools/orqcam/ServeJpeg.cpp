#include "ServeJpeg.h"

#include <turbojpeg.h>

#include <cstring>
#include <memory>

namespace orqcam {

namespace {

uint32_t Read32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

uint16_t Read16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

constexpr int32_t kMaxSide = 8192;

}  // namespace

bool BmpToJpeg(const uint8_t* bmp, size_t size, int quality, std::string* jpeg) {
    if (!bmp || size < 54 || bmp[0] != 'B' || bmp[1] != 'M') return false;
    uint32_t offset = Read32(bmp + 10);
    auto width = static_cast<int32_t>(Read32(bmp + 18));
    auto height = static_cast<int32_t>(Read32(bmp + 22));
    if (Read16(bmp + 26) != 1 || Read16(bmp + 28) != 24 || Read32(bmp + 30) != 0) return false;
    // Rows run bottom-up unless the height is negative.
    bool topDown = height < 0;
    if (topDown) height = -height;
    if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide) return false;
    size_t pitch = (static_cast<size_t>(width) * 3 + 3) & ~size_t{3};
    if (offset > size || size - offset < pitch * static_cast<size_t>(height)) return false;

    std::unique_ptr<void, int (*)(tjhandle)> encoder(tjInitCompress(), tjDestroy);
    if (!encoder) return false;
    unsigned char* out = nullptr;
    unsigned long outSize = 0;
    int flags = TJFLAG_FASTDCT | (topDown ? 0 : TJFLAG_BOTTOMUP);
    int failed = tjCompress2(encoder.get(), bmp + offset, width, static_cast<int>(pitch), height,
                             TJPF_BGR, &out, &outSize, TJSAMP_420, quality, flags);
    if (!failed) jpeg->assign(reinterpret_cast<const char*>(out), outSize);
    tjFree(out);
    return !failed;
}

}  // namespace orqcam
