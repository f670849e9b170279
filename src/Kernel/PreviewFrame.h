// Conversion of the camera's live-view picture (packed YUV, four pixels in six bytes) into a
// complete 24-bit BMP file image, written in place in its final form.
#pragma once

#include <cstdint>
#include <vector>

namespace orq::preview {

constexpr uint32_t kBmpHeaderSize = 54;
// Largest width or height taken from the camera: twice any live view these cameras have, so
// that a frame never costs more than about 17 MiB (and no size computation can overflow).
constexpr uint32_t kMaxPreviewSide = 2048;

struct FrameGeometry {
    int32_t width = 0;     // source columns
    int32_t height = 0;    // rows, both sides
    int32_t outWidth = 0;  // output columns: the picture always comes out 4:3
    uint32_t request = 0;  // bytes asked of the camera
    uint64_t total = 0;    // pixel bytes stated in the header
    uint32_t pad = 0;      // offset of every output row's start, up to a multiple of 4
    uint64_t groupsPerRow = 0;

    uint64_t ImageSize() const { return total + kBmpHeaderSize; }
    // Each row starts pad bytes in, so the top row ends pad bytes past the image.
    uint64_t Allocation() const { return ImageSize() + pad; }
};

// False when the camera's size can't be a live-view picture (zero, negative or too large).
bool ComputeGeometry(uint32_t width, uint32_t height, FrameGeometry& geometry);

// Byte offset in the output row for each source column, -1 for a column that is dropped: of all
// columns that fall on one output column the leftmost wins. Padded with -1 to whole groups.
// May throw std::bad_alloc.
void BuildColumnMap(const FrameGeometry& geometry, std::vector<int32_t>& map);

// Converts the rows that source holds (a short block leaves the remaining rows as they were)
// into pixels, the first byte after the header; rows run bottom-up as in a BMP file. Every path
// gives the same bytes; ConvertPixels takes the fastest this processor runs.
enum class PixelPath { Plain, Sse2, Ssse3, Avx2 };
PixelPath FastestPixelPath();
void ConvertPixels(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                   const int32_t* map, uint8_t* pixels);
// A path this processor lacks falls back to the fastest one it has below it.
void ConvertPixels(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                   const int32_t* map, uint8_t* pixels, PixelPath path);
// The loop one pixel at a time, for processors without the vector paths.
void ConvertPixelsPlain(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                        const int32_t* map, uint8_t* pixels);

void WriteBmpHeader(uint8_t* image, const FrameGeometry& geometry);

}  // namespace orq::preview
