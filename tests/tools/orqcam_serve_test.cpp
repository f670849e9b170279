// orqcam serve over loopback against virtual cameras that outlive it: what the API answers, and
// what reached the cameras.
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>
#include <tuple>
#include <vector>

#include "Output.h"
#include "Run.h"
#include "Session.h"
#include "orqcam_support.h"

namespace orqcam {
namespace {

constexpr int32_t kGetMemory = 1;  // how live-view frames are read
constexpr int32_t kShoot = 147;

class ServeTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(sdk.Load(true, error)) << error;
        camera = sdk.SimAttachCamera("SX160");
        for (size_t i = 0; i < card.size(); ++i) card[i] = static_cast<char>(i * 7 + i / 256);
        // IMG_0000 to IMG_0009 survive the SDK's start-up.
        cardFile = sdk.SimAddFile(camera, u"IMG_0005.JPG", card.data(), card.size());
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        io.out = fdopen(ends[1], "w");
        server = std::thread([this] {
            exit = orqcam::Run({"serve", "--listen", "127.0.0.1:0", "--token", "s3cret"}, true);
        });
        std::string line;
        char c;
        while (read(ends[0], &c, 1) == 1 && c != '\n') line += c;
        close(ends[0]);
        size_t colon = line.rfind(':');
        ASSERT_NE(colon, std::string::npos) << line;
        port = std::stoi(line.substr(colon + 1));
        client = std::make_unique<httplib::Client>("127.0.0.1", port);
        client->set_bearer_token_auth("s3cret");
    }
    void TearDown() override {
        if (server.joinable()) {
            std::raise(SIGTERM);
            server.join();
            EXPECT_EQ(exit, kExitOk);
        }
        std::fclose(io.out);
        io.out = stdout;
        sdk.SimRemoveAll();
    }

    httplib::Result Post(const std::string& path, const std::string& body) {
        return client->Post(path.c_str(), body, "application/json");
    }

    int OnCamera(int property) { return ValueOnCamera(camera, "SX160", property); }

    int Shots() { return sdk.SimCountOperations(camera, kVendorOperation, kShoot); }

    OrqSimCamera camera = 0;
    std::string card = std::string(70000, '\0');
    int32_t cardFile = -1;
    std::thread server;
    int exit = -1;
    int port = 0;
    std::unique_ptr<httplib::Client> client;
};

TEST_F(ServeTest, ApiChangesTheCamerasOnlyWhenAskedRightly) {
    httplib::Client stranger("127.0.0.1", port);
    EXPECT_EQ(stranger.Get("/api/cameras")->status, 401);
    stranger.set_bearer_token_auth("s3cre");
    EXPECT_EQ(stranger.Get("/api/cameras")->status, 401);
    EXPECT_EQ(stranger.Post("/api/cameras/0/shoot", "{}", "application/json")->status, 401);
    EXPECT_EQ(httplib::Client("127.0.0.1", port).Get("/?token=s3cret")->status, 200);

    auto cameras = client->Get("/api/cameras");
    ASSERT_EQ(cameras->status, 200);
    EXPECT_NE(cameras->body.find("\"name\":\"Orq Camera SX160\""), std::string::npos);

    // A set by names lands on the camera; refusals leave it as it was.
    auto set = Post("/api/cameras/0/settings/iso%20speed", R"({"value":"ISO 400"})");
    ASSERT_EQ(set->status, 200) << set->body;
    EXPECT_NE(set->body.find("\"value\":400"), std::string::npos);
    EXPECT_EQ(OnCamera(ORQ_PROP_ISO_SPEED), 400);
    EXPECT_EQ(Post("/api/cameras/0/settings/ISO%20Speed", R"({"value":"ISO 3"})")->status, 422);
    EXPECT_EQ(Post("/api/cameras/0/settings/Loudness", R"({"value":1})")->status, 404);
    EXPECT_EQ(Post("/api/cameras/0/settings/7", R"({"value":200)")->status, 400);
    EXPECT_EQ(client->Post("/api/cameras/0/settings/7", "value=200", "text/plain")->status, 415);
    EXPECT_EQ(client->Get("/api/cameras/0/settings/7?value=200")->status, 200);
    EXPECT_EQ(client->Get("/api/cameras/0/shoot")->status, 404);
    EXPECT_EQ(OnCamera(ORQ_PROP_ISO_SPEED), 400);
    EXPECT_EQ(Shots(), 0);

    // A shot, and files by id only.
    auto shot = Post("/api/cameras/0/shoot", "{}");
    ASSERT_EQ(shot->status, 200) << shot->body;
    EXPECT_EQ(Shots(), 1);
    auto all = Post("/api/shoot", "{}");
    EXPECT_NE(all->body.find("\"camera\":0,\"ok\":true"), std::string::npos) << all->body;
    EXPECT_EQ(Shots(), 2);
    std::string id = shot->body.substr(shot->body.find("\"id\":") + 5);
    id = id.substr(0, id.find(','));
    auto picture = client->Get(("/api/cameras/0/files/" + id).c_str());
    ASSERT_EQ(picture->status, 200);
    EXPECT_NE(shot->body.find("\"size\":" + std::to_string(picture->body.size())),
              std::string::npos);
    std::string known = "/api/cameras/0/files/" + std::to_string(cardFile);
    auto copy = client->Get(known.c_str());
    ASSERT_EQ(copy->status, 200);
    EXPECT_TRUE(copy->body == card);
    for (const char* path :
         {"/api/cameras/0/files/..%2F..%2Fetc%2Fpasswd", "/api/cameras/0/files/%2Fetc%2Fpasswd",
          "/api/cameras/0/files/passwd", "/api/cameras/0/files/99999", "/api/cameras/2/files/3"}) {
        auto refused = client->Get(path);
        EXPECT_GE(refused->status, 400) << path;
        EXPECT_EQ(refused->body.find("root:"), std::string::npos) << path;
    }

    // A delete reaches the card, and the file is gone from the API at once.
    int onCard = sdk.SimGetFileCount(camera);
    ASSERT_EQ(Post(known + "/delete", "{}")->status, 200);
    EXPECT_EQ(client->Get(known.c_str())->status, 404);
    for (int i = 0; i < 100 && sdk.SimGetFileCount(camera) == onCard; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(sdk.SimGetFileCount(camera), onCard - 1);
}

// Every route, and what it checks before it runs: none reaches the camera unless all hold.
TEST_F(ServeTest, EveryRouteChecksWhatItNeedsFirst) {
    enum : unsigned { kCamera = 1, kBody = 2, kAlive = 4 };
    const std::string file = "/api/cameras/0/files/" + std::to_string(cardFile);
    const struct {
        const char* method;
        std::string path;  // of camera 0 where it names one
        unsigned needs;
    } routes[] = {
        {"GET", "/", 0},
        {"GET", "/api/cameras", 0},
        {"GET", "/api/cameras/0", kCamera},
        {"GET", "/api/cameras/0/settings", kCamera},
        {"GET", "/api/cameras/0/settings/7", kCamera},
        {"POST", "/api/cameras/0/settings/7", kCamera | kBody | kAlive},
        {"POST", "/api/cameras/0/shoot", kCamera | kAlive},
        {"POST", "/api/shoot", 0},
        {"POST", "/api/cameras/0/zoom", kCamera | kBody | kAlive},
        {"POST", "/api/cameras/0/focus", kCamera | kBody | kAlive},
        {"POST", "/api/cameras/0/video", kCamera | kBody | kAlive},
        {"GET", "/api/cameras/0/files", kCamera},
        {"GET", file, kCamera | kAlive},
        {"POST", file + "/delete", kCamera | kAlive},
        {"GET", "/api/cameras/0/shots/1/thumb", kCamera},
        {"GET", "/api/cameras/0/live", kCamera},
        {"GET", "/api/events", 0},
        {"GET", "/api/rig", 0},
    };
    // One body that every route would take.
    const std::string body = R"({"value":200,"zoom":40,"focus":300,"action":"start"})";
    auto ask = [&](httplib::Client& to, const char* method, const std::string& path,
                   const std::string& content, const char* type = "application/json") {
        auto result = std::string(method) == "GET" ? to.Get(path.c_str())
                                                   : to.Post(path.c_str(), content, type);
        return result ? std::make_pair(result->status, result->body)
                      : std::make_pair(-1, std::string());
    };
    const int iso = OnCamera(ORQ_PROP_ISO_SPEED);
    const int onCard = sdk.SimGetFileCount(camera);
    httplib::Client stranger("127.0.0.1", port);
    for (const auto& route : routes) {
        EXPECT_EQ(ask(stranger, route.method, route.path, body).first, 401) << route.path;
        EXPECT_EQ(ask(stranger, route.method, route.path + "?token=s3cre", body).first, 401)
            << route.path;
        if (std::string(route.method) == "POST") {
            EXPECT_EQ(ask(*client, route.method, route.path, body, "text/plain").first, 415)
                << route.path;
        }
        if (route.needs & kCamera) {
            std::string elsewhere = route.path;
            elsewhere.replace(elsewhere.find("/0"), 2, "/7");
            auto answer = ask(*client, route.method, elsewhere, body);
            EXPECT_EQ(answer.first, 404) << elsewhere;
            EXPECT_NE(answer.second.find("no such camera"), std::string::npos) << answer.second;
        }
        if (route.needs & kBody) {
            EXPECT_EQ(ask(*client, route.method, route.path, R"({"value":)").first, 400)
                << route.path;
        }
    }
    // What a path names besides the camera: a setting it has (404), a file by its number (400).
    for (const auto& [method, path, status] :
         std::vector<std::tuple<const char*, std::string, int>>{
             {"GET", "/api/cameras/0/settings/Loudness", 404},
             {"POST", "/api/cameras/0/settings/Loudness", 404},
             {"GET", "/api/cameras/0/files/x", 400},
             {"POST", "/api/cameras/0/files/x/delete", 400},
             {"GET", "/api/cameras/0/shots/x/thumb", 400}}) {
        EXPECT_EQ(ask(*client, method, path, body).first, status) << path;
    }
    EXPECT_EQ(Shots(), 0);
    EXPECT_EQ(OnCamera(ORQ_PROP_ISO_SPEED), iso);

    // A camera whose session ended is left alone by every route that would change it.
    ASSERT_EQ(sdk.SimDetachCamera(camera), ORQ_OK);
    bool ended = false;
    for (int i = 0; i < 500 && !ended; ++i) {
        ended = client->Get("/api/cameras/0")->body.find("\"failure\":null") == std::string::npos;
        if (!ended) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(ended);
    for (const auto& route : routes) {
        if (!(route.needs & kAlive)) continue;
        auto answer = ask(*client, route.method, route.path, body);
        EXPECT_EQ(answer.first, 503) << route.path;
        EXPECT_NE(answer.second.find("the camera's session has ended"), std::string::npos)
            << route.path << ": " << answer.second;
    }
    EXPECT_EQ(sdk.SimGetFileCount(camera), onCard);
    EXPECT_EQ(sdk.SimCountOperations(camera, kVendorOperation, kShoot), 0);
}

TEST_F(ServeTest, LiveViewRunsWhileWatched) {
    int parts = 0;
    std::string head;
    auto live = client->Get("/api/cameras/0/live", [&](const char* data, size_t length) {
        std::string chunk(data, length);
        if (head.size() < 64) head += chunk;
        for (size_t at = 0; (at = chunk.find("Content-Type: image/jpeg", at)) != std::string::npos;
             ++at)
            ++parts;
        return parts < 5;
    });
    EXPECT_EQ(parts, 5);
    EXPECT_EQ(head.rfind("--orqframe\r\nContent-Type: image/jpeg\r\n", 0), 0u) << head;
    EXPECT_NE(head.find("\r\n\r\n\xFF\xD8"), std::string::npos);
    // The viewer gone, the camera stops making frames.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    int reads = sdk.SimCountOperations(camera, kVendorOperation, kGetMemory);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_EQ(sdk.SimCountOperations(camera, kVendorOperation, kGetMemory), reads);
    EXPECT_GT(reads, 0);
}

}  // namespace
}  // namespace orqcam
