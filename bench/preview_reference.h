// The conversion of a live-view picture to a BMP image, written out literally and slowly, to
// time the fast conversion against.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace orqbench {

// Literal, slow form of the conversion.
inline std::vector<uint8_t> Reference(const std::vector<uint8_t>& source, int width, int height,
                                      uint8_t fill = 0xAB) {
    const int outWidth = static_cast<int>(std::floor(height * 1.33333333 + 0.5));
    const double ratio = static_cast<double>(width) / outWidth;
    const int stride = outWidth * 3;
    const int pad = (4 - stride % 4) % 4;
    std::vector<uint8_t> image(54 + size_t(stride) * height + pad, fill);
    const uint32_t total = uint32_t(stride) * height;
    const uint32_t header[] = {
        total + 54, 0,    54, 40, uint32_t(outWidth), uint32_t(height), 1 | 24 << 16, 0, total,
        3780,       3780, 0,  0};
    image[0] = 'B';
    image[1] = 'M';
    for (size_t i = 0; i < sizeof header / 4; ++i) {
        for (int b = 0; b < 4; ++b) image[2 + 4 * i + b] = uint8_t(header[i] >> (8 * b));
    }
    std::vector<int> map(width);
    for (int i = 0; i < width; ++i) map[i] = 3 * static_cast<int>(std::floor(i / ratio + 0.5));
    for (int i = 1; i < width; ++i) {
        int p = i - 1;
        while (p >= 0 && map[p] == -1) --p;
        if (p >= 0 && map[p] == map[i]) map[i] = -1;
    }
    const auto clamp = [](int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); };
    const int groups = (width - 1) / 4 + 1;
    size_t at = 0;
    for (int y = 0; y < height; ++y) {
        uint8_t* row = image.data() + 54 + size_t(height - 1 - y) * stride + pad;
        int i = 0;
        for (int g = 0; g < groups; ++g, at += 6) {
            const bool present = at + 6 <= source.size();
            static const int kLuma[4] = {1, 3, 4, 5};
            for (int k = 0; k < 4; ++k, ++i) {
                if (i >= width || !present) continue;
                const int o = map[i];
                if (o < 0 || o >= stride) continue;
                const int u = int8_t(source[at]), v = int8_t(source[at + 2]);
                const int luma = source[at + kLuma[k]];
                row[o] = clamp((4096 * luma + 2048 + 7258 * u) >> 12);
                row[o + 1] = clamp((4096 * luma + 2048 - 1411 * u - 2925 * v) >> 12);
                row[o + 2] = clamp((4096 * luma + 2048 + 5743 * v) >> 12);
            }
        }
    }
    return image;
}

}  // namespace orqbench
