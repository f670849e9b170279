// The live-view picture turned into a BMP image, held against hand-worked pixels and the literal
// conversion.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Kernel/PreviewFrame.h"
#include "tests/controls/preview_reference.h"

namespace {

using orq::preview::ComputeGeometry;
using orq::preview::FrameGeometry;

// The whole image, header included, over a buffer prefilled as Reference's is.
std::vector<uint8_t> Convert(const std::vector<uint8_t>& source, uint32_t width, uint32_t height) {
    FrameGeometry g;
    EXPECT_TRUE(ComputeGeometry(width, height, g)) << width << "x" << height;
    std::vector<int32_t> map;
    orq::preview::BuildColumnMap(g, map);
    std::vector<uint8_t> image(g.Allocation(), 0xAB);
    orq::preview::ConvertPixels(source.data(), source.size(), g, map.data(),
                                image.data() + orq::preview::kBmpHeaderSize);
    orq::preview::WriteBmpHeader(image.data(), g);
    return image;
}

TEST(PreviewImage, PixelsAreFixedPointJfifWithClampingBottomRowFirst) {
    // Three rows of one group (u, y0, v, y1, y2, y3); three rows give four output columns.
    const std::vector<uint8_t> source = {127, 255, 127, 0, 128, 16, 0x80, 0,   0x80,
                                         255, 128, 235, 0, 0,   0,  77,   200, 255};
    const std::vector<uint8_t> expected = {
        0,   0,   0,   77,  77,  77,  200, 200, 200, 255, 255, 255,  // source row 2
        0,   136, 0,   28,  255, 76,  0,   255, 0,   8,   255, 56,   // row 1
        255, 121, 255, 225, 0,   178, 255, 0,   255, 241, 0,   194,  // row 0
    };
    const auto image = Convert(source, 4, 3);
    EXPECT_EQ(std::vector<uint8_t>(image.begin() + 54, image.end()), expected);
}

TEST(PreviewImage, MatchesLiteralConversionOnOddSizesAndShortBlocks) {
    // Scaled down and up, widths no multiple of 4, padded rows; then blocks that stop short (an
    // odd width asks for less than whole groups, and a camera may send less than asked).
    // Exact-size sources let a sanitizer catch a read past the block.
    const struct {
        int width, height;
        long size;  // -1: whole groups
    } cases[] = {{320, 240, -1},   {360, 240, -1},
                 {720, 240, -1},   {704, 528, -1},
                 {7, 5, -1},       {1, 1, -1},
                 {5, 100, -1},     {200, 240, -1},
                 {322, 241, -1},   {322, 241, 322 * 241 * 6 / 4},
                 {322, 241, 1000}, {322, 241, 5},
                 {322, 241, 0}};
    std::mt19937 random(10);
    for (const auto& c : cases) {
        const long whole = long((c.width - 1) / 4 + 1) * 6 * c.height;
        std::vector<uint8_t> source(size_t(c.size < 0 ? whole : c.size));
        for (auto& b : source) b = static_cast<uint8_t>(random());
        EXPECT_EQ(Convert(source, c.width, c.height),
                  controlstest::Reference(source, c.width, c.height))
            << c.width << "x" << c.height << ", " << source.size() << " bytes";
    }
}

TEST(PreviewImage, RequestOfAnOddWidthAndRefusedSizes) {
    FrameGeometry g;
    ASSERT_TRUE(ComputeGeometry(322, 2, g));
    EXPECT_EQ(g.request, 966u);  // the division comes last: less than whole groups
    for (auto [w, h] : std::vector<std::pair<uint32_t, uint32_t>>{
             {0, 240}, {320, 0}, {0xFFFFFFFFu, 240}, {320, 0x80000000u}, {16385, 16}}) {
        EXPECT_FALSE(ComputeGeometry(w, h, g)) << w << "x" << h;
    }
    // The largest accepted size stays below what an int can hand to the application.
    ASSERT_TRUE(ComputeGeometry(16384, 16384, g));
    EXPECT_LT(g.Allocation(), uint64_t(INT32_MAX));
}

}  // namespace
