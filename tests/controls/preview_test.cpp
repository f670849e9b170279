// Live preview from a virtual camera: video settings, the memory read, the two frame buffers and
// the frame handed out and given back.
#include <cstring>
#include <random>

#include "tests/controls/controls_support.h"
#include "tests/controls/preview_reference.h"

namespace controlstest {
namespace {

using linktest::Count;
using linktest::InOrder;
using orqsim::Bytes;
using orqsim::Fault;

uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

std::array<uint32_t, 22> Settings(uint32_t width, uint32_t height, uint32_t height5 = 0) {
    std::array<uint32_t, 22> words{};
    words[0] = 1;
    words[1] = width;
    words[2] = height;
    words[5] = height5;
    return words;
}

Bytes RandomBytes(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (auto& b : bytes) b = static_cast<uint8_t>(random());
    return bytes;
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
    void Free(const Frame& frame) {
        auto& table = *device->released;
        auto found = table.find(frame.data);
        ASSERT_NE(found, table.end());
        auto release = std::move(found->second);
        table.erase(found);
        release(frame.data);
    }
    Bytes LiveView(uint32_t width, uint32_t height, unsigned seed) {
        camera->SetVideoSettings(Settings(width, height));
        Bytes view = RandomBytes((width - 1) / 4 * 6 + 6 + width * height * 6 / 4, seed);
        camera->SetLiveView(view);
        return view;
    }
};

TEST_F(Preview, FrameIsTheCameraPictureAsABmpImage) {
    Bytes view = LiveView(360, 240, 1);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(device->Notes(), Strings{"preview"});
    EXPECT_EQ(Params(orq::CHDK_GetMemory), (std::vector<int32_t>{0}));
    EXPECT_EQ(camera->Operations().back().params.at(2), 360u * 240 * 6 / 4);

    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    ASSERT_EQ(frame.size, 230454);
    view.resize(360u * 240 * 6 / 4);  // what was asked for
    const auto expected = Reference(view, 360, 240, 0);
    EXPECT_EQ(0, std::memcmp(frame.data, expected.data(), 230454));
    EXPECT_EQ(Count(Log(), "VideoSettings: 360 240 0 0 0 1"), 1);
}

TEST_F(Preview, HeightOf180MeansTheOtherHeightWord) {
    camera->SetVideoSettings(Settings(320, 180, 240));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    EXPECT_EQ(frame.size, 230454);
    EXPECT_EQ(Le32(frame.data + 18), 320u);
    EXPECT_EQ(Le32(frame.data + 22), 240u);
    EXPECT_EQ(camera->Operations().back().params.at(2), 320u * 240 * 6 / 4);
}

TEST_F(Preview, FrameIsHandedOutOnceUntilGivenBack) {
    Frame frame, second;
    EXPECT_EQ(Get(frame), ORQ_NOT_READY);
    EXPECT_EQ(Count(Log(), "GetPreviewFrame: result not ready"), 1);

    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    ASSERT_EQ(Get(frame), ORQ_OK);
    EXPECT_EQ(Get(second), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "GetPreviewFrame: Previous preview frame does not released"), 1);
    Free(frame);
    // No newer frame: the same one again.
    ASSERT_EQ(Get(second), ORQ_OK);
    EXPECT_EQ(second.data, frame.data);
    EXPECT_EQ(second.size, frame.size);
    Free(second);
    EXPECT_EQ(device->Held(), -1);
}

TEST_F(Preview, HeldBufferIsNeverWritten) {
    LiveView(320, 240, 1);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    Frame held;
    ASSERT_EQ(Get(held), ORQ_OK);
    ASSERT_EQ(held.data, device->BufferData(0));
    const std::vector<uint8_t> copy(held.data, held.data + held.size);

    LiveView(320, 240, 2);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(0, std::memcmp(held.data, copy.data(), copy.size()));
    EXPECT_EQ(device->Ready(), 1);

    // Given back, the newer frame in buffer 1 is fetched; held, buffer 0 takes the next one.
    Free(held);
    Frame newer;
    ASSERT_EQ(Get(newer), ORQ_OK);
    EXPECT_EQ(newer.data, device->BufferData(1));
    EXPECT_NE(0, std::memcmp(newer.data, copy.data(), copy.size()));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(device->Ready(), 0);
    Free(newer);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(device->Ready(), 0);  // with nothing held, buffer 0 over and over
}

TEST_F(Preview, SettingsAreReadAtMostEveryTwoSecondsAndLoggedOnChange) {
    camera->SetVideoSettings(Settings(320, 240));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(Ops(orq::CHDK_GetVideoSettings), 1u);

    // A new live-view size shows once the settings are read again, and the frame resizes.
    camera->SetVideoSettings(Settings(720, 480));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    device->AgeVideoSettings();
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    device->AgeVideoSettings();
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);  // read, but unchanged: no line
    EXPECT_EQ(Ops(orq::CHDK_GetVideoSettings), 3u);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    EXPECT_EQ(frame.size, 640 * 480 * 3 + 54);
    const auto log = Log();
    EXPECT_EQ(Count(log, "VideoSettings: 320 240 0 0 0 1"), 1);
    EXPECT_EQ(Count(log, "VideoSettings: 720 480 0 0 0 1"), 1);
}

TEST_F(Preview, ImpossibleSizesFailWithoutTouchingTheLastFrame) {
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    device->ClearNotes();
    camera->ClearOperations();
    const std::pair<std::array<uint32_t, 22>, std::string> cases[] = {
        {Settings(0, 240), "PTPGetPreviewFrame: bad frame size 0 x 240"},
        {Settings(320, 180, 0), "PTPGetPreviewFrame: bad frame size 320 x 0"},
        {Settings(0xFFFFFFFFu, 240), "PTPGetPreviewFrame: bad frame size -1 x 240"},
        {Settings(100000, 100000), "PTPGetPreviewFrame: bad frame size 100000 x 100000"},
    };
    for (const auto& [settings, line] : cases) {
        camera->SetVideoSettings(settings);
        device->AgeVideoSettings();
        logStart = linktest::LogSize();
        EXPECT_EQ(device->UpdatePreviewFrame(), ORQ_ERROR) << line;
        EXPECT_TRUE(InOrder(Log(), {line, "PTPGetPreviewFrame failed"}));
    }
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 0u);
    EXPECT_TRUE(device->Notes().empty());
    Frame frame;
    EXPECT_EQ(Get(frame), ORQ_OK);
    EXPECT_EQ(frame.size, 230454);
}

TEST_F(Preview, ShortSettingsBlockReadsAsNoSize) {
    camera->InjectFault(linktest::Raw(orq::PTP_OC_Vendor, orq::CHDK_GetVideoSettings,
                                      linktest::DataThenOk(linktest::Words({1, 320}))));
    EXPECT_EQ(device->UpdatePreviewFrame(), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTPGetPreviewFrame: bad frame size 320 x 0"), 1);
}

TEST_F(Preview, ShortPictureBlockConvertsWhatCame) {
    camera->SetVideoSettings(Settings(320, 240));
    Bytes part = RandomBytes(1000, 3);
    camera->InjectFault(
        linktest::Raw(orq::PTP_OC_Vendor, orq::CHDK_GetMemory, linktest::DataThenOk(part)));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    const auto expected = Reference(part, 320, 240, 0);
    EXPECT_EQ(0, std::memcmp(frame.data, expected.data(), expected.size()));
}

TEST_F(Preview, FailedTransfersAreFailures) {
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor,
                                         orq::CHDK_GetVideoSettings,
                                         orqsim::RC_OperationNotSupported));
    EXPECT_EQ(device->UpdatePreviewFrame(), ORQ_ERROR);
    EXPECT_TRUE(InOrder(Log(), {"PTP_CHDK_GetVideoSettings failed", "GetVideoSettings failed",
                                "PTPGetPreviewFrame failed"}));

    camera->InjectFault(Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor,
                                         orq::CHDK_GetMemory, orqsim::RC_OperationNotSupported));
    logStart = linktest::LogSize();
    EXPECT_EQ(device->UpdatePreviewFrame(), ORQ_ERROR);
    EXPECT_TRUE(InOrder(Log(), {"PTP_CHDK_GetMemory failed", "PTPGetPreviewFrame failed"}));
    EXPECT_EQ(device->Ready(), -1);
    EXPECT_TRUE(device->Notes().empty());
}

TEST_F(Preview, HeldFrameOutlivesTheCamera) {
    LiveView(320, 240, 4);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    const std::vector<uint8_t> copy(frame.data, frame.data + frame.size);
    auto released = device->released;
    device.reset();
    // Still readable, and giving it back afterwards touches nothing of the camera object.
    EXPECT_EQ(0, std::memcmp(frame.data, copy.data(), copy.size()));
    for (auto& [pointer, release] : *released) release(pointer);
    released->clear();
}

}  // namespace
}  // namespace controlstest
