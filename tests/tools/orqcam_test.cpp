// orqcam commands run in process against virtual cameras that outlive each command, as a real
// camera outlives the tool: what a command leaves on the camera is read after the SDK stopped.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
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

    // Runs one command; its stdout and stderr land in out and err, and while it runs in the
    // files outPath and errPath.
    int Cmd(const std::vector<std::string>& arguments) {
        FILE* o = std::fopen(outPath().string().c_str(), "w+b");
        FILE* e = std::fopen((dir / "stderr.txt").string().c_str(), "w+b");
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

    fs::path outPath() const { return dir / "stdout.txt"; }

    int OnCamera(OrqSimCamera camera, int property) {
        return ValueOnCamera(camera, models[camera], property);
    }

    std::string out, err;
    fs::path dir;
    std::map<OrqSimCamera, std::string> models;
};

constexpr size_t npos = std::string::npos;

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

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

    // The measure: every one of the sets is on the camera once the command has returned. Under
    // wine, where each start of the SDK costs more, a quarter of them take the same path.
#ifdef _WIN32
    constexpr int kSets = 25;
#else
    constexpr int kSets = 100;
#endif
    const std::vector<std::string> sizes = {"large", "Medium 1", "MEDIUM 2", "small"};
    int landed = 0;
    for (int i = 0; i < kSets; ++i) {
        std::string name = ValueName(ORQ_PROP_IMAGE_SIZE, OnCamera(camera, ORQ_PROP_IMAGE_SIZE));
        if (Cmd({"--quiet", "set", "image size", sizes[i % 4]}) == kExitOk &&
            Lower(ValueName(ORQ_PROP_IMAGE_SIZE, OnCamera(camera, ORQ_PROP_IMAGE_SIZE))) ==
                Lower(sizes[i % 4]) &&
            Lower(name) != Lower(sizes[i % 4]))
            ++landed;
    }
    std::printf("%d of %d sets landed\n", landed, kSets);
    EXPECT_EQ(landed, kSets);
    EXPECT_GE(sdk.SimCountOperations(camera, kVendorOperation, kSetPropCase), kSets);
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

    // Errors under --json are one document on stdout, result by name, and one line on stderr;
    // failures no SDK result stands for name orqcam's own.
    EXPECT_EQ(Cmd({"--json", "set", "Image Size", "99"}), kExitRefused);
    EXPECT_EQ(out,
              "{\"error\":\"the camera refused Image Size = 99: ORQ_PROPERTY_CONSTRAINT\","
              "\"result\":\"ORQ_PROPERTY_CONSTRAINT\",\"exit\":6}\n");
    EXPECT_EQ(err, "orqcam: the camera refused Image Size = 99: ORQ_PROPERTY_CONSTRAINT\n");
    const std::vector<std::vector<std::string>> usage = {
        {"--json", "--frobnicate", "list"}, {"--json"}, {"--json", "--camera", "7", "info"}};
    for (const auto& args : usage) {
        EXPECT_EQ(Cmd(args), kExitUsage);
        EXPECT_NE(out.find("\"result\":\"ORQCAM_USAGE\""), std::string::npos) << out;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }

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

// A script reads watch's events as they happen: each is a line of its own on stdout, there
// before the command ends.
TEST_F(OrqcamTest, WatchStreamsEveryEventAsALineOfJson) {
    OrqSimCamera camera = Attach("SX160");
    std::atomic<bool> ended{false};
    bool seenWhileRunning = false;
    std::thread unplug([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        sdk.SimDetachCamera(camera);
        for (int i = 0; i < 200 && !ended && !seenWhileRunning; ++i) {
            std::ifstream file(outPath());
            std::string text((std::istreambuf_iterator<char>(file)), {});
            seenWhileRunning = text.find("\"event\":\"disconnected\"") != npos && !ended;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    int exit = Cmd({"--json", "watch", "4"});
    ended = true;
    unplug.join();
    EXPECT_EQ(exit, kExitCameraError);
    EXPECT_TRUE(seenWhileRunning) << out;
    EXPECT_NE(out.find("\"event\":\"camera-error\""), std::string::npos) << out;
    std::istringstream lines(out);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_TRUE(line.rfind("{\"t\":", 0) == 0 && line.back() == '}') << line;
    EXPECT_GE(count, 2);
    EXPECT_EQ(err, "") << "stderr is for errors only";
}

// Numbers are what scripts hold on to: --virtual's order, whatever order the bus lists them in,
// and cameras attached otherwise by serial.
TEST_F(OrqcamTest, CamerasAreNumberedInTheOrderNamed) {
    const std::vector<std::vector<std::string>> orders = {
        {"A810", "SX160", "G15"}, {"G15", "A810", "SX160"}, {"SX160", "G15", "A810"}};
    for (const auto& order : orders) {
        std::vector<std::string> args = {"--json"};
        for (const std::string& model : order) args.insert(args.end(), {"--virtual", model});
        ASSERT_EQ(Cmd(args + std::vector<std::string>{"list"}), kExitOk) << err;
        size_t a = out.find(order[0]), b = out.find(order[1]), c = out.find(order[2]);
        EXPECT_TRUE(a < b && b < c) << out;
        // Only the A810 records video: --camera reaches the camera that list numbered.
        int video = static_cast<int>(std::find(order.begin(), order.end(), "A810") - order.begin());
        EXPECT_EQ(Cmd(args + std::vector<std::string>{"--camera", std::to_string(video), "video",
                                                      "start"}),
                  kExitOk)
            << err;
    }
    for (const char* model : {"SX160", "A810", "G15"}) Attach(model);
    ASSERT_EQ(Cmd({"--json", "list"}), kExitOk);
    std::vector<std::string> serials;
    for (size_t at = out.find("\"serial\":\""); at != npos; at = out.find("\"serial\":\"", at + 1))
        serials.push_back(out.substr(at + 10, out.find('"', at + 10) - at - 10));
    EXPECT_EQ(serials.size(), 3u) << out;
    EXPECT_TRUE(std::is_sorted(serials.begin(), serials.end())) << out;
}

// With --json, stdout is JSON and stderr is silent unless something failed; --help names no
// result that does not exist.
TEST_F(OrqcamTest, JsonOutputLeavesStderrForErrorsAndHelpNamesRealResults) {
    Attach("SX160");
    const std::vector<std::vector<std::string>> commands = {
        {"list"},
        {"info"},
        {"props"},
        {"set", "Image Size", "Small"},
        {"shoot"},
        {"files"},
        {"download", "--all", "--dir", dir.string()},
        {"preview", "--frames", "1"},
        {"zoom"},
        {"--all", "shoot", "--to-host", (dir / "host").string()},
        {"--version"}};
    for (auto args : commands) {
        args.insert(args.begin(), "--json");
        EXPECT_EQ(Cmd(args), kExitOk) << err;
        EXPECT_EQ(err, "") << args[1];
        EXPECT_TRUE(out.size() > 2 && (out.front() == '{' || out.front() == '[')) << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    }
    EXPECT_EQ(Cmd({"--help"}), kExitOk);
    std::set<std::string> known;
    for (int result = 0; result < 64; ++result) known.insert(OrqResultName(result));
    for (int exit = 0; exit <= kExitRefused; ++exit) known.insert(ToolResultName(exit));
    known.insert("ORQ_RIG_PASSWORD");  // the one environment variable, not a result
    std::regex name("ORQ(CAM)?_[A-Z_]*[A-Z]");
    int named = 0;
    for (std::sregex_iterator it(out.begin(), out.end(), name), end; it != end; ++it, ++named)
        EXPECT_EQ(known.count(it->str()), 1u) << it->str();
    EXPECT_GE(named, 3);
}

}  // namespace
}  // namespace orqcam
