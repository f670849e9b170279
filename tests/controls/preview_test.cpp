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

std::array<uint32_t, 22> Settings(uint32_t width, uint32_t height, uint32_t height5 = 0) {
    return {1, width, height, 0, 0, height5};
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
        auto found = device->released->find(frame.data);
        ASSERT_NE(found, device->released->end());
        auto release = std::move(found->second);
        device->released->erase(found);
        release(frame.data);
    }
    // New settings, read at the next frame, and a picture larger than any request.
    Bytes LiveView(const std::array<uint32_t, 22>& settings, unsigned seed) {
        camera->SetVideoSettings(settings);
        device->AgeVideoSettings();
        Bytes view = RandomBytes(1 << 20, seed);
        camera->SetLiveView(view);
        return view;
    }
};

TEST_F(Preview, FrameIsTheCameraPictureAsABmpImage) {
    // 360 x 240 comes out 320 x 240; a height of 180 means the height is in word 5.
    for (const auto& settings : {Settings(360, 240), Settings(360, 180, 240)}) {
        Bytes view = LiveView(settings, settings[2]);
        camera->ClearOperations();
        ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
        EXPECT_EQ(Params(orq::CHDK_GetMemory), (std::vector<int32_t>{0}));
        EXPECT_EQ(camera->Operations().back().params.at(2), 360u * 240 * 6 / 4);
        view.resize(360u * 240 * 6 / 4);  // what was asked for
        const auto expected = Reference(view, 360, 240, 0);
        Frame frame;
        ASSERT_EQ(Get(frame), ORQ_OK);
        ASSERT_EQ(frame.size, int(expected.size()));
        EXPECT_EQ(0, std::memcmp(frame.data, expected.data(), expected.size())) << settings[2];
        Free(frame);
    }
    EXPECT_EQ(device->Notes(), (Strings{"preview", "preview"}));
    EXPECT_EQ(Count(Log(), "VideoSettings: 360 240 0 0 0 1"), 1);
}

TEST_F(Preview, FrameIsHandedOutOnceAndNeverWrittenWhileHeld) {
    Frame first, second;
    EXPECT_EQ(Get(first), ORQ_NOT_READY);
    LiveView(Settings(320, 240), 1);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    ASSERT_EQ(Get(first), ORQ_OK);
    EXPECT_EQ(Get(second), ORQ_ERROR);
    Free(first);
    ASSERT_EQ(Get(second), ORQ_OK);  // no newer frame: the same one again
    EXPECT_EQ(second.data, first.data);
    const auto log = Log();
    EXPECT_EQ(Count(log, "GetPreviewFrame: result not ready"), 1);
    EXPECT_EQ(Count(log, "GetPreviewFrame: Previous preview frame does not released"), 1);

    // Newer frames go to the other buffer while one is held.
    const Bytes copy(second.data, second.data + second.size);
    LiveView(Settings(320, 240), 2);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(0, std::memcmp(second.data, copy.data(), copy.size()));
    Free(second);
    ASSERT_EQ(Get(first), ORQ_OK);
    EXPECT_NE(first.data, second.data);
    EXPECT_NE(0, std::memcmp(first.data, copy.data(), copy.size()));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(device->Ready(), 0);  // the next one goes where the first was
    Free(first);
}

TEST_F(Preview, SettingsAreReadAtMostEveryTwoSecondsAndLoggedOnChange) {
    camera->SetVideoSettings(Settings(320, 240));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    EXPECT_EQ(Ops(orq::CHDK_GetVideoSettings), 1u);

    // A new size shows once the settings are read again, and the frame resizes.
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

TEST_F(Preview, BadSizesAndFailedReadsKeepTheLastFrame) {
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    const Bytes copy(frame.data, frame.data + frame.size);
    Free(frame);
    device->ClearNotes();
    camera->ClearOperations();
    const auto settings = [&](std::array<uint32_t, 22> words) {
        return [this, words] { camera->SetVideoSettings(words); };
    };
    const std::pair<std::function<void()>, Strings> cases[] = {
        {settings(Settings(320, 180, 0)), {"PTPGetPreviewFrame: bad frame size 320 x 0"}},
        {settings(Settings(0xFFFFFFFFu, 240)), {"PTPGetPreviewFrame: bad frame size -1 x 240"}},
        {[this] {  // a settings block that stops short
             camera->InjectFault(linktest::Raw(orq::PTP_OC_Vendor, orq::CHDK_GetVideoSettings,
                                               linktest::DataThenOk(linktest::Words({1, 320}))));
         },
         {"PTPGetPreviewFrame: bad frame size 320 x 0"}},
        {[this] { InjectFailure(orq::CHDK_GetVideoSettings); },
         {"PTP_CHDK_GetVideoSettings failed", "GetVideoSettings failed"}},
        {[this] {
             camera->SetVideoSettings(Settings(320, 240));
             InjectFailure(orq::CHDK_GetMemory);
         },
         {"PTP_CHDK_GetMemory failed"}},
    };
    for (const auto& [setUp, lines] : cases) {
        setUp();
        device->AgeVideoSettings();
        logStart = linktest::LogSize();
        EXPECT_EQ(device->UpdatePreviewFrame(), ORQ_ERROR) << lines[0];
        Strings wanted = lines;
        wanted.push_back("PTPGetPreviewFrame failed");
        EXPECT_TRUE(InOrder(Log(), wanted));
    }
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 1u);  // only once the size was good
    EXPECT_TRUE(device->Notes().empty());
    ASSERT_EQ(Get(frame), ORQ_OK);
    ASSERT_EQ(size_t(frame.size), copy.size());
    EXPECT_EQ(0, std::memcmp(frame.data, copy.data(), copy.size()));
}

TEST_F(Preview, ShortPictureBlockConvertsWhatCame) {
    camera->SetVideoSettings(Settings(320, 240));
    const Bytes part = RandomBytes(1000, 3);
    camera->InjectFault(
        linktest::Raw(orq::PTP_OC_Vendor, orq::CHDK_GetMemory, linktest::DataThenOk(part)));
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    const auto expected = Reference(part, 320, 240, 0);
    EXPECT_EQ(0, std::memcmp(frame.data, expected.data(), expected.size()));
}

TEST_F(Preview, HeldFrameOutlivesTheCamera) {
    LiveView(Settings(320, 240), 4);
    ASSERT_EQ(device->UpdatePreviewFrame(), ORQ_OK);
    Frame frame;
    ASSERT_EQ(Get(frame), ORQ_OK);
    const Bytes copy(frame.data, frame.data + frame.size);
    auto released = device->released;
    device.reset();
    // Still readable, and giving it back afterwards touches nothing of the camera object.
    EXPECT_EQ(0, std::memcmp(frame.data, copy.data(), copy.size()));
    for (auto& [pointer, release] : *released) release(pointer);
}

}  // namespace
}  // namespace controlstest
