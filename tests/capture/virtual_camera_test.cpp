// The virtual camera as a user develops against it: cameras told apart by serial, pictures that
// decode at the size their Image Size says, a live view that moves, a card that outlasts a run.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>

#include "orqsdk_sim.h"
#include "sim/Pictures.h"
#include "tests/support/support.h"

#ifdef ORQ_SIM_TURBOJPEG
#include <turbojpeg.h>
#endif

namespace capturetest {
namespace {

using namespace orqtest;
namespace fs = std::filesystem;

std::string Ascii(const std::u16string& text) {
    return std::string(text.begin(), text.end());
}

std::string FileText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Decoded {
    bool ok = false;
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;  // at 1/8 scale unless asked for whole
};

// Decodes every byte of the file; `whole` keeps the full-size pixels.
Decoded Decode(const std::string& jpeg, bool whole = false) {
    Decoded out;
#ifdef ORQ_SIM_TURBOJPEG
    std::unique_ptr<void, int (*)(tjhandle)> decoder(tjInitDecompress(), tjDestroy);
    int subsampling = 0, colours = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(jpeg.data());
    if (tjDecompressHeader3(decoder.get(), data, jpeg.size(), &out.width, &out.height, &subsampling,
                            &colours) != 0) {
        return out;
    }
    const int w = whole ? out.width : (out.width + 7) / 8,
              h = whole ? out.height : (out.height + 7) / 8;
    out.rgb.resize(static_cast<size_t>(w) * h * 3);
    out.ok = tjDecompress2(decoder.get(), data, jpeg.size(), out.rgb.data(), w, 0, h, TJPF_RGB,
                           TJFLAG_FASTDCT) == 0 &&
             tjGetErrorCode(decoder.get()) != TJERR_WARNING;
#else
    (void)jpeg;
    (void)whole;
#endif
    return out;
}

class VirtualCameraTest : public SdkTest {
protected:
    std::u16string Serial(OrqSimCamera camera) {
        OrqChar path[128] = {};
        OrqSimGetCameraPath(camera, path, 128);
        for (const OrqCameraInfo& info : Cameras()) {
            if (std::u16string(reinterpret_cast<const char16_t*>(info.path)) ==
                reinterpret_cast<const char16_t*>(path)) {
                return reinterpret_cast<const char16_t*>(info.serial);
            }
        }
        return u"";
    }
    OrqSessionHandle Session(OrqSimCamera camera) {
        OrqChar path[128] = {};
        OrqSimGetCameraPath(camera, path, 128);
        for (const OrqCameraInfo& info : Cameras()) {
            if (std::u16string(reinterpret_cast<const char16_t*>(info.path)) ==
                reinterpret_cast<const char16_t*>(path)) {
                return Open(info.id);
            }
        }
        return nullptr;
    }
    // Shoots once and brings the picture to `path`; its record in `shot`.
    bool ShootTo(OrqSessionHandle s, const fs::path& path, OrqFileInfo& shot) {
        Recorder events;
        OrqSubscription shots = OrqShootCompletedSubscribe(s, &Recorder::OnShot, &events);
        OrqSubscription downloads =
            OrqDownloadCompletedSubscribe(s, &Recorder::OnDownload, &events);
        bool ok = OrqShoot(s) == ORQ_OK && events.Await(events.shots, 1, 20000);
        if (ok) {
            shot = events.Copy(events.shots).at(0);
            std::u16string target = orq::platform::FromUtf8(path.string());
            ok = OrqDownloadFileTo(s, shot.id, reinterpret_cast<OrqChar*>(target.data()), 0) ==
                     ORQ_OK &&
                 events.Await(events.downloads, 1, 20000);
        }
        OrqFree(shots);
        OrqFree(downloads);
        return ok;
    }
};

// Three cameras of a booth: three serials, settings out of the box, and each picture a JPEG at
// the pixel size of its camera's Image Size, naming the camera and the shot; the direct transfer
// to the host alike.
TEST_F(VirtualCameraTest, ABoothOfThreeGetsDecodablePicturesOfTheRightSizeFromEachCamera) {
    struct Row {
        const char* model;
        int imageSize;  // SDK value
        bool direct;
        int width, height;  // from the model's size table
    };
    const Row rows[] = {
        {"SX160", ORQ_IMAGE_SIZE_SMALL, false, 640, 480},
        {"SX160", ORQ_IMAGE_SIZE_SMALL, true, 640, 480},
        {"SX150", ORQ_IMAGE_SIZE_LARGE, false, 4320, 3240},  // not whole tiles high
        {"A495", ORQ_IMAGE_SIZE_MEDIUM_2, false, 2272, 1704},
    };
    std::vector<OrqSimCamera> cameras;
    for (const char* model : {"SX160", "SX160", "SX150", "A495"}) {
        cameras.push_back(OrqSimAttachCamera(model));
    }
    Start();
    ASSERT_EQ(Cameras().size(), cameras.size());
    std::set<std::u16string> serials;
    for (size_t i = 0; i < cameras.size(); ++i) {
        serials.insert(Serial(cameras[i]));
        // The same attach order gives the same serial in every run.
        EXPECT_EQ(Serial(cameras[i]),
                  orqsim::SerialFor(rows[i].model, static_cast<uint32_t>(cameras[i])));
    }
    EXPECT_EQ(serials.size(), cameras.size()) << "each camera has a serial of its own";

    const fs::path dir = fs::path(orq::platform::ToUtf8(TempPath("booth")));
    fs::remove_all(dir);
    fs::create_directories(dir);
    for (size_t i = 0; i < cameras.size(); ++i) {
        const Row& row = rows[i];
        SCOPED_TRACE(std::string(row.model) + (row.direct ? " direct" : ""));
        OrqSessionHandle s = Session(cameras[i]);
        ASSERT_NE(s, nullptr);
        int value = -1;
        EXPECT_EQ(OrqGetPropertyData(s, ORQ_PROP_EXPOSURE_COMPENSATION, &value), ORQ_OK);
        EXPECT_EQ(value, ORQ_COMP_ZERO);
        if (row.model != std::string("A495")) {  // the one without flash compensation
            EXPECT_EQ(OrqGetPropertyData(s, ORQ_PROP_FLASH_COMPENSATION, &value), ORQ_OK);
            EXPECT_EQ(value, ORQ_COMP_ZERO);
        }
        ASSERT_EQ(OrqSetPropertyData(s, ORQ_PROP_IMAGE_SIZE, row.imageSize), ORQ_OK);
        if (row.direct) {
            ASSERT_EQ(OrqSetPropertyData(s, ORQ_PROP_DIRECT_TRANSFER, 0), ORQ_OK);
        }
        OrqFileInfo shot{};
        ASSERT_TRUE(ShootTo(s, dir / ("shot" + std::to_string(i) + ".jpg"), shot));
        EXPECT_EQ(shot.id < 0, row.direct);
        OrqFree(s);
        const std::string jpeg = FileText(dir / ("shot" + std::to_string(i) + ".jpg"));
        EXPECT_EQ(jpeg.size(), static_cast<size_t>(shot.size));
        if (!orqsim::JpegPicturesBuilt()) continue;
        const Decoded picture = Decode(jpeg);
        EXPECT_TRUE(picture.ok) << "the picture decodes";
        EXPECT_EQ(picture.width, row.width);
        EXPECT_EQ(picture.height, row.height);
        const std::string serial = Ascii(Serial(cameras[i]));
        EXPECT_NE(jpeg.find(row.model + (" serial " + serial + " shot 1 ")), std::string::npos);
    }
}

// The live view moves: each camera's frames differ from frame to frame and from the other
// camera's.
TEST_F(VirtualCameraTest, LiveViewFramesDifferFromFrameToFrameAndCameraToCamera) {
    OrqSimCamera one = OrqSimAttachCamera("SX160"), two = OrqSimAttachCamera("SX160");
    Start();
    std::vector<std::string> frames[2];
    for (int c = 0; c < 2; ++c) {
        OrqSessionHandle s = Session(c == 0 ? one : two);
        ASSERT_NE(s, nullptr);
        std::atomic<int> made{0};
        OrqSubscription sub = OrqNewPreviewFrameSubscribe(
            s, [](void* count) { ++*static_cast<std::atomic<int>*>(count); }, &made);
        ASSERT_EQ(OrqSetPreviewState(s, ORQ_PREVIEW_ON), ORQ_OK);
        for (int i = 0; i < 2; ++i) {
            const int seen = made;
            ASSERT_TRUE(WaitFor([&] { return made > seen; }));
            void* frame = nullptr;
            int size = 0;
            ASSERT_EQ(OrqGetPreviewFrame(s, &frame, &size), ORQ_OK);
            frames[c].emplace_back(static_cast<const char*>(frame), static_cast<size_t>(size));
            OrqFree(frame);
        }
        OrqSetPreviewState(s, ORQ_PREVIEW_OFF);
        OrqFree(sub);
        OrqFree(s);
    }
    EXPECT_TRUE(frames[0][0] != frames[0][1]) << "one camera's frames move";
    EXPECT_TRUE(frames[1][0] != frames[1][1]);
    // The lower rows, away from the bar and the counter, show each camera's own colours.
    EXPECT_TRUE(frames[0][0].substr(54, 320 * 3 * 100) != frames[1][0].substr(54, 320 * 3 * 100))
        << "two cameras' frames differ";
}

// The zoom shows: the pattern's squares grow as the lens goes long.
TEST(VirtualCameraPictures, LiveViewFollowsTheZoom) {
    auto edges = [](int32_t zoom) {
        orqsim::LiveViewScene scene{360, 240, 5, zoom, 10, 1, "SX160"};
        const orqsim::Bytes frame = orqsim::LiveViewFrame(scene, 360 * 240 * 6 / 4);
        int count = 0;
        const size_t row = 200 * 90 * 6;  // row 200, below the text
        for (size_t g = 1; g < 90; ++g) count += frame[row + g * 6 + 1] != frame[row + g * 6 - 5];
        return count;
    };
    EXPECT_GT(edges(0), 2 * edges(10));
}

// A card folder keeps a shot from one run to the next: the next run's camera has it on its card,
// and the SDK's start-up moves it, byte for byte, into the clean-up folder of that camera.
TEST_F(VirtualCameraTest, ACardFolderKeepsTheShotsOfTheLastRun) {
    const fs::path card = fs::path(orq::platform::ToUtf8(TempPath("card")));
    fs::remove_all(card);
    const std::u16string folder = orq::platform::FromUtf8(card.string());
    OrqSimCamera first = OrqSimAttachCamera("SX160");
    ASSERT_EQ(OrqSimSetCardFolder(first, reinterpret_cast<const OrqChar*>(folder.c_str())), ORQ_OK);
    Start();
    OrqSessionHandle s = Session(first);
    ASSERT_EQ(OrqSetPropertyData(s, ORQ_PROP_IMAGE_SIZE, ORQ_IMAGE_SIZE_SMALL), ORQ_OK);
    OrqFileInfo shot{};
    ASSERT_TRUE(ShootTo(s, card.parent_path() / "card-shot.jpg", shot));
    const std::string name = Ascii(reinterpret_cast<const char16_t*>(shot.name));
    const std::string taken = FileText(card.parent_path() / "card-shot.jpg");
    OrqFree(s);
    OrqTerminateSDK();
    OrqSimRemoveAll();

    OrqSimCamera next = OrqSimAttachCamera("SX160");
    ASSERT_EQ(OrqSimSetCardFolder(next, reinterpret_cast<const OrqChar*>(folder.c_str())), ORQ_OK);
    EXPECT_EQ(OrqSimGetFileCount(next), 2) << "the shot and the camera's log";
    EXPECT_TRUE(FileText(card / name) == taken);
    const fs::path kept = fs::path(orq::MainLogPath()).parent_path() / "orqsdk-card-cleanup" /
                          Ascii(orqsim::SerialFor("SX160", static_cast<uint32_t>(next)));
    fs::remove_all(kept);  // serials repeat from run to run, and so would an older copy
    Start();
    EXPECT_TRUE(FileText(kept / name) == taken);
    EXPECT_FALSE(fs::exists(card / name)) << "deleted from the card, deleted from the folder";
}

// Two shots of one camera differ where the label is and nowhere else; the label's box is drawn
// over the bars.
TEST(VirtualCameraPictures, TheLabelChangesWithTheShotOverTheSameBars) {
    if (!orqsim::JpegPicturesBuilt()) GTEST_SKIP() << "no JPEG encoder in this build";
    orqsim::PictureLabel label;
    label.model = "SX160";
    label.serial = Ascii(orqsim::SerialFor("SX160", 1));
    label.shot = 7;
    label.make = "Orqwerk";
    label.timeUs = 1795657800123456;
    label.focalHundredths = 1234;
    const auto first = orqsim::StillPicture(label, 640, 480);
    // Measured as built, Exif included: the card tells this size before the file is read.
    EXPECT_EQ(first.size(), orqsim::StillPictureSize(label, 640, 480));
#ifdef ORQ_SIM_EXIF
    // The Exif segment right after SOI.
    ASSERT_GT(first.size(), 12u);
    EXPECT_EQ(first[2], 0xFF);
    EXPECT_EQ(first[3], 0xE1);
    EXPECT_EQ(std::string(first.begin() + 6, first.begin() + 12), std::string("Exif\0\0", 6));
#endif
    label.shot = 8;
    const auto second = orqsim::StillPicture(label, 640, 480);
    const Decoded a = Decode(std::string(first.begin(), first.end()), true);
    const Decoded b = Decode(std::string(second.begin(), second.end()), true);
    ASSERT_TRUE(a.ok && b.ok);
    auto differs = [&](int x0, int y0, int x1, int y1) {
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
                const size_t at = (static_cast<size_t>(y) * 640 + x) * 3;
                if (std::abs(a.rgb[at] - b.rgb[at]) > 40) return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(differs(64, 160, 576, 320)) << "the shot number is drawn";
    EXPECT_FALSE(differs(0, 0, 640, 96)) << "the bars stay";
}

}  // namespace
}  // namespace capturetest
