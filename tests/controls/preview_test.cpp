// Live preview: the camera's picture turned into a BMP image, held against hand-worked pixels,
// each vector path against the plain one; and from a virtual camera the video settings, the memory
// read, the two frame buffers and the frame handed out and given back.
#include <cstring>
#include <random>

#include "Kernel/PreviewFrame.h"
#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

using orq::preview::ComputeGeometry;
using orq::preview::FrameGeometry;
using orqsim::Bytes;

Bytes RandomBytes(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (auto& b : bytes) b = static_cast<uint8_t>(random());
    return bytes;
}

// The whole image, header included, over a buffer prefilled with `fill`.
Bytes Convert(const Bytes& source, uint32_t width, uint32_t height,
              orq::preview::PixelPath path = orq::preview::FastestPixelPath(),
              uint8_t fill = 0xAB) {
    FrameGeometry g;
    EXPECT_TRUE(ComputeGeometry(width, height, g)) << width << "x" << height;
    std::vector<int32_t> map;
    orq::preview::BuildColumnMap(g, map);
    Bytes image(g.Allocation(), fill);
    orq::preview::ConvertPixels(source.data(), source.size(), g, map.data(),
                                image.data() + orq::preview::kBmpHeaderSize, path);
    orq::preview::WriteBmpHeader(image.data(), g);
    return image;
}

TEST(PreviewImage, PixelsAreFixedPointJfifWithClampingBottomRowFirstAndColumnsScaled) {
    // Three rows of one group (u, y0, v, y1, y2, y3); three rows give four output columns.
    const std::vector<uint8_t> source = {127, 255, 127, 0, 128, 16, 0x80, 0,   0x80,
                                         255, 128, 235, 0, 0,   0,  77,   200, 255};
    const std::vector<uint8_t> expected = {
        0,   0,   0,   77,  77,  77,  200, 200, 200, 255, 255, 255,  // source row 2
        0,   136, 0,   28,  255, 76,  0,   255, 0,   8,   255, 56,   // row 1
        255, 121, 255, 225, 0,   178, 255, 0,   255, 241, 0,   194,  // row 0
    };
    auto image = Convert(source, 4, 3);
    EXPECT_EQ(std::vector<uint8_t>(image.begin() + 54, image.end()), expected);

    // Five columns into four: the fourth lands where the third did and is dropped.
    const Bytes row = {0, 10, 0, 20, 30, 40, 0, 50, 0, 0, 0, 0};
    Bytes grey, greyExpected;
    for (int y = 0; y < 3; ++y) {
        grey.insert(grey.end(), row.begin(), row.end());
        for (uint8_t level : {10, 20, 30, 50}) greyExpected.insert(greyExpected.end(), 3, level);
    }
    image = Convert(grey, 5, 3);
    EXPECT_EQ(Bytes(image.begin() + 54, image.end()), greyExpected);
}

TEST(PreviewImage, VectorPathsMatchThePlainOneOnEverySizeAndShortBlock) {
    // Live-view sizes scaled down, kept and scaled up (output columns left alone), widths no
    // multiple of 4, padded rows; then blocks that stop short (an odd width asks for less than
    // whole groups; mid-row, so a vector step would read past the end; less than a group;
    // nothing). Exact-size sources let a sanitizer catch a read past the block.
    const struct {
        int width, height;
        long size;  // -1: whole groups
    } cases[] = {{320, 240, -1},   {360, 240, -1},     {720, 240, -1}, {704, 528, -1},
                 {720, 480, -1},   {1920, 1080, -1},   {300, 240, -1}, {5, 100, -1},
                 {7, 5, -1},       {1, 1, -1},         {322, 241, -1}, {322, 241, 116403},
                 {360, 240, 5430}, {720, 240, 129658}, {322, 241, 5},  {322, 241, 0}};
    // One size on every path in turn, widest first: what a path keeps for a size is not another's.
    using orq::preview::PixelPath;
    for (const auto& c : cases) {
        const long whole = long((c.width - 1) / 4 + 1) * 6 * c.height;
        const Bytes source = RandomBytes(size_t(c.size < 0 ? whole : c.size), c.width);
        const Bytes plain = Convert(source, c.width, c.height, PixelPath::Plain);
        for (PixelPath path : {PixelPath::Avx2, PixelPath::Ssse3, PixelPath::Sse2}) {
            if (path > orq::preview::FastestPixelPath()) continue;
            EXPECT_EQ(Convert(source, c.width, c.height, path), plain)
                << "path " << int(path) << ", " << c.width << "x" << c.height << ", "
                << source.size() << " bytes";
        }
    }
}

TEST(PreviewImage, RefusedSizes) {
    FrameGeometry g;
    const std::pair<uint32_t, uint32_t> refused[] = {
        {0, 240}, {320, 0}, {0xFFFFFFFFu, 240}, {320, 0x80000000u}, {2049, 16}, {16384, 16384}};
    for (auto [w, h] : refused) EXPECT_FALSE(ComputeGeometry(w, h, g)) << w << "x" << h;
    // The largest accepted size stays below what an int can hand to the application.
    ASSERT_TRUE(ComputeGeometry(2048, 2048, g));
    EXPECT_LT(g.Allocation(), uint64_t(INT32_MAX));
}

class Preview : public ControlsTest {
protected:
    struct Frame {
        uint8_t* data = nullptr;
        int size = 0;
    };
    OrqResult Get(Frame& frame) {
        void* data = nullptr;
        OrqResult result = device->GetPreviewFrame(&data, &frame.size);
        frame.data = static_cast<uint8_t*>(data);
        return result;
    }
    // Gives the frame back as the memory manager would; throws for a frame never handed out.
    void Free(const Frame& frame) { device->released->at(frame.data)(frame.data); }
};

TEST_F(Preview, FrameIsTheCameraPictureAsABmpImageAndBadReadsKeepTheLast) {
    // 362 x 240 comes out 320 x 240; a height of 180 means the height is in word 5. An odd width
    // asks for less than whole groups (the division comes last). A block that stops short
    // converts what came (and the fresh buffer is zeroed).
    camera->SetVideoSettings({1, 362, 180, 0, 0, 240});
    const Bytes part = RandomBytes(1000, 3);
    camera->InjectFault(Raw(orq::PTP_OC_Vendor, orq::CHDK_GetMemory, DataThen(part)));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(Params(orq::CHDK_GetMemory), (std::vector<int32_t>{0}));
    EXPECT_EQ(camera->Operations().back().params.at(2), 130320u);
    const auto expected = Convert(part, 362, 240, orq::preview::PixelPath::Plain, 0);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    ASSERT_EQ(frame.size, int(expected.size()));
    EXPECT_EQ(0, std::memcmp(frame.data, expected.data(), expected.size()));
    EXPECT_EQ(device->notes, Strings{"preview"});
    EXPECT_EQ(Count(Log(), "VideoSettings: 362 180 0 240 0 1"), 1);

    // Settings are read at most every two seconds; a new size resizes the frame.
    camera->SetVideoSettings({1, 720, 480});
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(Ops(orq::CHDK_GetVideoSettings), 1u);
    device->AgeVideoSettings();
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(Ops(orq::CHDK_GetVideoSettings), 2u);
    Free(frame);
    ASSERT_EQ(Get(frame), ORQ_OK);
    EXPECT_EQ(frame.size, 640 * 480 * 3 + 54);

    // Bad sizes and failed reads keep the last frame.
    const Bytes copy(frame.data, frame.data + frame.size);
    Free(frame);
    Mark();
    // A settings block that stops short, failed reads of the settings and of the picture.
    camera->InjectFault(
        Raw(orq::PTP_OC_Vendor, orq::CHDK_GetVideoSettings, DataThen(Words({1, 320}))));
    for (uint32_t fail :
         {0u, uint32_t(orq::CHDK_GetVideoSettings), uint32_t(orq::CHDK_GetMemory)}) {
        if (fail) InjectFailure(fail);
        device->AgeVideoSettings();
        EXPECT_EQ(device->UpdatePreviewFrame(), ORQ_ERROR) << fail;
    }
    // A size no live view has is refused before anything is asked or allocated.
    camera->ClearFaults();
    camera->SetVideoSettings({1, 16384, 16384});
    device->AgeVideoSettings();
    const size_t reads = Ops(orq::CHDK_GetMemory);
    EXPECT_EQ(device->UpdatePreviewFrame(), ORQ_ERROR);
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), reads);
    EXPECT_TRUE(InOrder(
        Log(), {"PTPGetPreviewFrame: bad frame size 320 x 0", "PTPGetPreviewFrame failed",
                "PTP_CHDK_GetVideoSettings failed", "GetVideoSettings failed",
                "PTPGetPreviewFrame failed", "PTP_CHDK_GetMemory failed",
                "PTPGetPreviewFrame failed", "PTPGetPreviewFrame: bad frame size 16384 x 16384"}));
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 1u);  // only once the size was good
    EXPECT_TRUE(device->notes.empty());
    ASSERT_EQ(Get(frame), ORQ_OK);
    ASSERT_EQ(size_t(frame.size), copy.size());
    EXPECT_EQ(0, std::memcmp(frame.data, copy.data(), copy.size()));
}

TEST_F(Preview, FrameIsHandedOutOnceNeverWrittenWhileHeldAndOutlivesTheCamera) {
    Frame first, second;
    EXPECT_EQ(Get(first), ORQ_NOT_READY);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    ASSERT_EQ(Get(first), ORQ_OK);
    EXPECT_EQ(Get(second), ORQ_ERROR);
    Free(first);
    ASSERT_EQ(Get(second), ORQ_OK);  // no newer frame: the same one again
    EXPECT_EQ(second.data, first.data);
    EXPECT_TRUE(InOrder(Log(), {"GetPreviewFrame: result not ready",
                                "GetPreviewFrame: Previous preview frame does not released"}));

    // Newer frames go to the other buffer while one is held.
    const Bytes copy(second.data, second.data + second.size);
    camera->SetLiveView(RandomBytes(1 << 20, 2));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(0, std::memcmp(second.data, copy.data(), copy.size()));
    Free(second);
    ASSERT_EQ(Get(first), ORQ_OK);
    EXPECT_NE(first.data, second.data);
    EXPECT_NE(0, std::memcmp(first.data, copy.data(), copy.size()));

    // Still readable once the camera object has gone, and given back without touching it.
    const Bytes held(first.data, first.data + first.size);
    auto released = device->released;
    device.reset();
    EXPECT_EQ(0, std::memcmp(first.data, held.data(), held.size()));
    released->at(first.data)(first.data);
}

}  // namespace
}  // namespace controlstest
