// orqcam commands run in process against virtual cameras that outlive each command, as a real
// camera outlives the tool: what a command leaves on the camera is read after the SDK stopped.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Args.h"
#include "Output.h"
#include "Run.h"
#include "Session.h"
#include "Verbs.h"
#include "orqcam_support.h"

namespace orqcam {
namespace {

namespace fs = std::filesystem;

constexpr int32_t kSetPropCase = 130;

std::string Slurp(FILE* file) {
    std::string text;
    std::rewind(file);
    char buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, got);
    return text;
}

class OrqcamTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(sdk.Load(true, error)) << error;
        dir = fs::path(::testing::TempDir()) /
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { sdk.SimRemoveAll(); }

    OrqSimCamera Attach(const std::string& model) {
        OrqSimCamera camera = sdk.SimAttachCamera(model.c_str());
        models[camera] = model;
        return camera;
    }

    // Runs one command; its stdout and stderr land in out and err.
    int Cmd(const std::vector<std::string>& arguments) {
        FILE* o = std::tmpfile();
        FILE* e = std::tmpfile();
        io.out = o;
        io.err = e;
        int exit = orqcam::Run(arguments, true);
        out = Slurp(o);
        err = Slurp(e);
        std::fclose(o);
        std::fclose(e);
        io.out = stdout;
        io.err = stderr;
        return exit;
    }

    int OnCamera(OrqSimCamera camera, int property) {
        return ValueOnCamera(camera, models[camera], property);
    }

    std::string out, err;
    fs::path dir;
    std::map<OrqSimCamera, std::string> models;
};

// The first number under key in a JSON document.
int Field(const std::string& json, const std::string& key) {
    size_t at = json.find("\"" + key + "\":");
    return at == std::string::npos ? -12345 : std::stoi(json.substr(at + key.size() + 3));
}
int JsonValue(const std::string& json) {
    return Field(json, "value");
}

TEST_F(OrqcamTest, SetLandsOnTheCameraBeforeTheToolExits) {
    OrqSimCamera camera = Attach("SX160");
    // A number that is also a value name is the name; other numbers are SDK values.
    ASSERT_EQ(Cmd({"--json", "get", "Exposure Compensation"}), kExitOk);
    ASSERT_EQ(Cmd({"set", "exposure compensation", "0"}), kExitOk) << err;
    ASSERT_EQ(Cmd({"--json", "get", "10"}), kExitOk);
    EXPECT_EQ(ValueName(ORQ_PROP_EXPOSURE_COMPENSATION, JsonValue(out)), "0");
    EXPECT_EQ(OnCamera(camera, ORQ_PROP_EXPOSURE_COMPENSATION), JsonValue(out));
    ASSERT_EQ(Cmd({"set", "Image Size", "2"}), kExitOk) << err;
    EXPECT_EQ(ValueName(ORQ_PROP_IMAGE_SIZE, OnCamera(camera, ORQ_PROP_IMAGE_SIZE)), "Medium 2");
    // A reset takes the same path on every model: the camera is back when the command returns.
    ASSERT_EQ(Cmd({"reset"}), kExitOk) << err;
    EXPECT_EQ(Cmd({"set", "Image Size", "Small"}), kExitOk) << err;

    // The measure: every one of 100 sets is on the camera once the command has returned.
    const std::vector<std::string> sizes = {"large", "Medium 1", "MEDIUM 2", "small"};
    int landed = 0;
    for (int i = 0; i < 100; ++i) {
        std::string name = ValueName(ORQ_PROP_IMAGE_SIZE, OnCamera(camera, ORQ_PROP_IMAGE_SIZE));
        if (Cmd({"--quiet", "set", "image size", sizes[i % 4]}) == kExitOk &&
            Lower(ValueName(ORQ_PROP_IMAGE_SIZE, OnCamera(camera, ORQ_PROP_IMAGE_SIZE))) ==
                Lower(sizes[i % 4]) &&
            Lower(name) != Lower(sizes[i % 4]))
            ++landed;
    }
    std::printf("%d of 100 sets landed\n", landed);
    EXPECT_EQ(landed, 100);
    EXPECT_EQ(sdk.SimCountOperations(camera, kVendorOperation, kSetPropCase) >= 100, true);
}

TEST_F(OrqcamTest, RefusalsTimeoutsAndErrorsHaveTheirExitCodes) {
    OrqSimCamera camera = Attach("SX160");
    struct Case {
        std::vector<std::string> args;
        int exit;
    };
    const Case cases[] = {
        {{"set", "Image Size", "Huge"}, kExitUsage},
        {{"set", "Zoomness", "1"}, kExitUsage},
        {{"set", "Battery Level", "1"}, kExitRefused},
        {{"set", "JPEG Quality", "Superfine"}, kExitRefused},  // not at the largest size
        {{"zoom", "100000"}, kExitUsage},
        {{"download", "x"}, kExitUsage},
        {{"video", "start"}, kExitRefused},  // the SX160 records no video
        {{"--camera", "1", "info"}, kExitUsage},
        {{"--frobnicate", "list"}, kExitUsage},
        {{"info", "extra"}, kExitUsage},
        {{"shoot", "--dir", "x"}, kExitUsage},
        {{}, kExitUsage},
        {{"--help"}, kExitOk},
        {{"--version"}, kExitOk},
    };
    for (const Case& c : cases) {
        std::string line;
        for (const std::string& arg : c.args) line += arg + " ";
        EXPECT_EQ(Cmd(c.args), c.exit) << line << err;
    }
    EXPECT_EQ(Cmd({"--virtual", "SX999", "list"}), kExitUsage);
    EXPECT_NE(err.find("A1400 A2200"), std::string::npos);  // the models are listed

    // Errors under --json are one document on stdout, result by name.
    EXPECT_EQ(Cmd({"--json", "set", "Image Size", "99"}), kExitRefused);
    EXPECT_EQ(out,
              "{\"error\":\"the camera refused Image Size = 99: ORQ_PROPERTY_CONSTRAINT\","
              "\"result\":\"ORQ_PROPERTY_CONSTRAINT\",\"exit\":6}\n");

    // A write the camera answers late is a timeout; one it fails ends the session.
    OrqSimFault late{};
    late.kind = ORQSIM_DELAY;
    late.opcode = kVendorOperation;
    late.subCommand = kSetPropCase;
    late.value = 2500;
    sdk.SimInjectFault(camera, &late);
    EXPECT_EQ(Cmd({"--timeout", "1", "set", "Image Size", "Small"}), kExitTimeout);
    OrqSimFault broken = late;
    broken.kind = ORQSIM_RESPONSE_CODE;
    broken.value = 0x2019;
    sdk.SimInjectFault(camera, &broken);
    EXPECT_EQ(Cmd({"--json", "set", "Image Size", "Medium 1"}), kExitCameraError);
    EXPECT_NE(out.find("\"result\":\"ORQ_"), std::string::npos) << out;

    sdk.SimRemoveAll();
    EXPECT_EQ(Cmd({"info"}), kExitNoCamera);
}

class OrqcamModelTest : public OrqcamTest, public ::testing::WithParamInterface<std::string> {};

// Every verb on every model, each checked by what it left on the camera or the disk.
TEST_P(OrqcamModelTest, EveryVerbWorks) {
    const std::string model = GetParam();
    OrqSimCamera camera = Attach(model);
    fs::path here = dir / model;
    auto files = [&] { return sdk.SimGetFileCount(camera); };
    EXPECT_EQ(Cmd({"list"}), kExitOk);
    EXPECT_NE(out.find(model), std::string::npos);
    EXPECT_EQ(Cmd({"info"}), kExitOk);
    EXPECT_EQ(Cmd({"props"}), kExitOk);
    EXPECT_EQ(Cmd({"get", "Image Size"}), kExitOk);
    EXPECT_EQ(Cmd({"--json", "set", "Image Size", "Small"}), kExitOk) << err;
    EXPECT_EQ(OnCamera(camera, ORQ_PROP_IMAGE_SIZE), JsonValue(out));
    EXPECT_EQ(ValueName(ORQ_PROP_IMAGE_SIZE, JsonValue(out)), "Small");
    int before = files();
    ASSERT_EQ(Cmd({"shoot"}), kExitOk) << err;
    EXPECT_EQ(files(), before + 1);
    // A new SDK clears numbered pictures from the card; a file of another name stays.
    const char data[] = "picture";
    const std::u16string name = u"PHOTO.JPG";  // OrqChar is wchar_t on Windows
    int id = sdk.SimAddFile(camera, std::basic_string<OrqChar>(name.begin(), name.end()).c_str(),
                            data, sizeof data);
    EXPECT_EQ(Cmd({"--json", "files"}), kExitOk);
    before = files();
    EXPECT_NE(out.find("PHOTO.JPG"), std::string::npos);
    EXPECT_EQ(Cmd({"download", std::to_string(id), "--dir", here.string()}), kExitOk) << err;
    EXPECT_EQ(fs::file_size(here / "PHOTO.JPG"), sizeof data);
    EXPECT_EQ(Cmd({"--json", "delete", std::to_string(id)}), kExitOk) << err;
    EXPECT_EQ(files(), before - 1);
    EXPECT_EQ(Cmd({"shoot", "--to-host", (here / "host").string()}), kExitOk) << err;
    EXPECT_EQ(fs::directory_iterator(here / "host") != fs::directory_iterator(), true);
    EXPECT_EQ(Cmd({"preview", "--frames", "2", "--out", (here / "view").string()}), kExitOk);
    std::ifstream frame(here / "view" / "frame_0002.bmp", std::ios::binary);
    char magic[2] = {};
    frame.read(magic, 2);
    EXPECT_EQ(std::string(magic, 2), "BM");
    // A step short of the end: the walk there is the virtual camera's, a second on a long zoom.
    EXPECT_EQ(Cmd({"--json", "zoom"}), kExitOk);
    sdk.SimSetZoom(camera, Field(out, "maxZoom") - 1);
    EXPECT_EQ(Cmd({"zoom", "max"}), kExitOk) << err;
    EXPECT_EQ(Cmd({"--json", "zoom"}), kExitOk);  // a new SDK reads it from the camera
    EXPECT_EQ(Field(out, "zoom"), Field(out, "maxZoom"));
    EXPECT_EQ(Cmd({"focus", "shift", "1"}), kExitOk) << err;
    EXPECT_EQ(Cmd({"watch", "0"}), kExitOk);
    bool video = model == "A810";
    EXPECT_EQ(Cmd({"video", "start"}), video ? kExitOk : kExitRefused) << err;
    before = files();
    EXPECT_EQ(Cmd({"video", "stop"}), video ? kExitOk : kExitRefused) << err;
    EXPECT_EQ(files(), before + (video ? 1 : 0));
}

// Under wine, where every start of the SDK costs more, one model of each series stands for the
// rest; the verbs take the same paths on all of them.
#ifdef _WIN32
const std::vector<std::string> kVerbModels = {"A810", "G15", "IXUS145", "SX160"};
#else
const std::vector<std::string> kVerbModels = KnownModels();
#endif
INSTANTIATE_TEST_SUITE_P(Models, OrqcamModelTest, ::testing::ValuesIn(kVerbModels),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return info.param;
                         });

TEST_F(OrqcamTest, AllCamerasShootTogetherAndDownloadEveryFile) {
    std::vector<OrqSimCamera> cameras = {Attach("SX160"), Attach("A810"), Attach("G15")};
    ASSERT_EQ(Cmd({"--all", "info"}), kExitOk);  // the first start writes the camera's log
    std::vector<int> before;
    for (OrqSimCamera camera : cameras) before.push_back(sdk.SimGetFileCount(camera));
    ASSERT_EQ(Cmd({"--all", "--json", "shoot"}), kExitOk) << err;
    for (size_t i = 0; i < cameras.size(); ++i)
        EXPECT_EQ(sdk.SimGetFileCount(cameras[i]), before[i] + 1);
    EXPECT_NE(out.find("\"delayUs\":0}"), std::string::npos) << out;
    // Each camera's files go to a folder of its own: their names are alike.
    EXPECT_EQ(Cmd({"--all", "download", "--all", "--delete", "--dir", dir.string()}), kExitOk)
        << err;
    for (size_t i = 0; i < cameras.size(); ++i) {
        EXPECT_EQ(sdk.SimGetFileCount(cameras[i]), 0);
        EXPECT_TRUE(fs::exists(dir / ("camera" + std::to_string(i)) / "img_0002.jpg"));
    }
}

TEST_F(OrqcamTest, WatchTellsEveryEventWithTimeAndCamera) {
    OrqSimCamera camera = Attach("SX160");
    std::thread unplug([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        sdk.SimDetachCamera(camera);
    });
    int exit = Cmd({"--json", "watch", "4"});
    unplug.join();
    EXPECT_EQ(exit, kExitCameraError);
    EXPECT_NE(out.find("\"event\":\"disconnected\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"event\":\"camera-error\""), std::string::npos) << out;
    EXPECT_NE(err.find("ORQ_DISCONNECTED"), std::string::npos) << err;
}

}  // namespace
}  // namespace orqcam
