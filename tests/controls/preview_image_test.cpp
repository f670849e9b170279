// The live-view picture turned into a BMP image: geometry, header, pixels, scaling, row order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "Kernel/PreviewFrame.h"
#include "tests/controls/preview_reference.h"

namespace {

using controlstest::Reference;
using orq::preview::FrameGeometry;

FrameGeometry Geometry(uint32_t width, uint32_t height) {
    FrameGeometry g;
    EXPECT_TRUE(orq::preview::ComputeGeometry(width, height, g)) << width << "x" << height;
    return g;
}

// The whole image, header included, converted by the code under test over a buffer prefilled
// with `fill`.
std::vector<uint8_t> Convert(const std::vector<uint8_t>& source, uint32_t width, uint32_t height,
                             uint8_t fill = 0xAB) {
    const FrameGeometry g = Geometry(width, height);
    std::vector<int32_t> map;
    orq::preview::BuildColumnMap(g, map);
    std::vector<uint8_t> image(g.Allocation(), fill);
    orq::preview::ConvertPixels(source.data(), source.size(), g, map.data(),
                                image.data() + orq::preview::kBmpHeaderSize);
    orq::preview::WriteBmpHeader(image.data(), g);
    return image;
}

std::vector<uint8_t> RandomSource(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(size);
    for (auto& b : bytes) b = static_cast<uint8_t>(random());
    return bytes;
}

// One group of four pixels.
void PutGroup(std::vector<uint8_t>& source, size_t group, int8_t u, int8_t v,
              const uint8_t (&luma)[4]) {
    uint8_t* p = source.data() + group * 6;
    p[0] = uint8_t(u);
    p[1] = luma[0];
    p[2] = uint8_t(v);
    p[3] = luma[1];
    p[4] = luma[2];
    p[5] = luma[3];
}

TEST(PreviewImage, GeometryOfCommonAndOddSizes) {
    FrameGeometry g = Geometry(320, 240);
    EXPECT_EQ(g.outWidth, 320);
    EXPECT_EQ(g.request, 115200u);
    EXPECT_EQ(g.ImageSize(), 230454u);
    EXPECT_EQ(g.pad, 0u);

    g = Geometry(720, 480);
    EXPECT_EQ(g.outWidth, 640);
    EXPECT_EQ(g.ImageSize(), 640u * 480 * 3 + 54);

    // 100 rows: 133 columns, 399 bytes a row, one byte of pad, allocated but not stated.
    g = Geometry(150, 100);
    EXPECT_EQ(g.outWidth, 133);
    EXPECT_EQ(g.pad, 1u);
    EXPECT_EQ(g.ImageSize(), 399u * 100 + 54);
    EXPECT_EQ(g.Allocation(), g.ImageSize() + 1);

    // The 32-bit request of an odd width falls short of whole groups.
    g = Geometry(322, 2);
    EXPECT_EQ(g.request, 966u);
    EXPECT_EQ(g.groupsPerRow, 81u);
}

TEST(PreviewImage, RefusesSizesNoCameraSends) {
    FrameGeometry g;
    for (auto [w, h] : std::vector<std::pair<uint32_t, uint32_t>>{{0, 240},
                                                                  {320, 0},
                                                                  {0xFFFFFFFFu, 240},
                                                                  {320, 0x80000000u},
                                                                  {16385, 16},
                                                                  {65536, 65536}}) {
        EXPECT_FALSE(orq::preview::ComputeGeometry(w, h, g)) << w << "x" << h;
    }
    // The largest accepted size stays below what an int can hand to the application.
    ASSERT_TRUE(orq::preview::ComputeGeometry(16384, 16384, g));
    EXPECT_LT(g.Allocation(), uint64_t(INT32_MAX));
}

TEST(PreviewImage, PixelsAreFixedPointJfifWithClamping) {
    // Three rows of four pixels (three rows give four output columns: ratio 1).
    std::vector<uint8_t> source(3 * 6);
    PutGroup(source, 0, 127, 127, {255, 0, 128, 16});
    PutGroup(source, 1, -128, -128, {0, 255, 128, 235});
    PutGroup(source, 2, 0, 0, {0, 77, 200, 255});
    const auto image = Convert(source, 4, 3);
    // Source row 0 is the top row, which a bottom-up BMP holds last.
    const uint8_t* top = &image[54 + 2 * 12];
    const uint8_t* middle = &image[54 + 12];
    const uint8_t* bottom = &image[54];
    const uint8_t expectTop[12] = {255, 121, 255, 225, 0, 178, 255, 0, 255, 241, 0, 194};
    const uint8_t expectMiddle[12] = {0, 136, 0, 28, 255, 76, 0, 255, 0, 8, 255, 56};
    const uint8_t expectBottom[12] = {0, 0, 0, 77, 77, 77, 200, 200, 200, 255, 255, 255};
    EXPECT_EQ(0, std::memcmp(top, expectTop, 12));
    EXPECT_EQ(0, std::memcmp(middle, expectMiddle, 12));
    EXPECT_EQ(0, std::memcmp(bottom, expectBottom, 12));
    EXPECT_EQ(image, Reference(source, 4, 3));
}

TEST(PreviewImage, DownscaleKeepsTheLeftmostColumn) {
    // 360 columns onto 320: column 5 lands where column 4 did and loses.
    const FrameGeometry g = Geometry(360, 240);
    std::vector<int32_t> map;
    orq::preview::BuildColumnMap(g, map);
    EXPECT_EQ(map[3], 9);
    EXPECT_EQ(map[4], 12);
    EXPECT_EQ(map[5], -1);
    EXPECT_EQ(map[6], 15);
    int kept = 0;
    for (int32_t o : map) kept += o >= 0;
    EXPECT_EQ(kept, 320);

    // Every output column is written exactly once; nothing is left of the prefill.
    const auto image = Convert(RandomSource(360 / 4 * 6 * 240, 1), 360, 240, 0xAB);
    const auto again = Convert(RandomSource(360 / 4 * 6 * 240, 1), 360, 240, 0x54);
    EXPECT_TRUE(std::equal(image.begin() + 54, image.end(), again.begin() + 54));
}

TEST(PreviewImage, MatchesLiteralConversionOnManySizes) {
    const std::pair<int, int> sizes[] = {{320, 240}, {360, 240}, {720, 240}, {704, 528}, {322, 241},
                                         {7, 5},     {1, 1},     {5, 100},   {200, 240}};
    unsigned seed = 10;
    for (auto [w, h] : sizes) {
        const size_t groups = (w - 1) / 4 + 1;
        const auto source = RandomSource(groups * 6 * h, seed++);
        EXPECT_EQ(Convert(source, w, h), Reference(source, w, h)) << w << "x" << h;
    }
}

TEST(PreviewImage, ShortBlockConvertsOnlyWhatIsThere) {
    // An odd width asks for less than whole groups; a camera may also send less than asked.
    // Exact-size vectors let a sanitizer catch any read past the block.
    const FrameGeometry g = Geometry(322, 241);
    for (size_t size : {size_t(g.request), size_t(1000), size_t(5), size_t(0)}) {
        const auto source = RandomSource(size, 7);
        EXPECT_EQ(Convert(source, 322, 241), Reference(source, 322, 241)) << size;
    }
    // The last source row, which the block does not reach, is the first row in memory and
    // keeps the buffer's content.
    const auto image = Convert(RandomSource(g.request, 7), 322, 241);
    EXPECT_EQ(image[54 + g.pad], 0xAB);
    EXPECT_NE(image[54 + g.pad + size_t(g.outWidth) * 3], 0xAB);
}

}  // namespace
