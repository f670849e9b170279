// What orqcam node and rig take from the command line and the disk before any broker is asked:
// the broker's address and password, the names that become topics and folders, and the
// checksums that decide whether a collected file is fetched again, and the rig map.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>

#include "Rig.h"

namespace {

using orqcam::Options;
using orqcam::rig::BrokerAddress;

TEST(RigBroker, UrlsAndPasswords) {
    struct Case {
        const char* url;
        const char* environment;  // ORQ_RIG_PASSWORD, null: unset
        const char* file;         // --password-file's content, null: none
        bool ok;
        bool tls;
        const char* user;
        const char* password;
        const char* host;
        int port;
    };
    const Case cases[] = {
        {"mqtt://broker", nullptr, nullptr, true, false, "", "", "broker", 1883},
        {"mqtts://rig@broker:8884", nullptr, nullptr, true, true, "rig", "", "broker", 8884},
        {"mqtt://rig:p%40ss@[::1]:1884/", nullptr, nullptr, true, false, "rig", "p@ss", "::1",
         1884},
        // The environment over the URL, the file over both.
        {"mqtt://rig:url@h", "env", nullptr, true, false, "rig", "env", "h", 1883},
        {"mqtt://rig:url@h", "env", "file\n", true, false, "rig", "file", "h", 1883},
        {"http://h", nullptr, nullptr, false, false, "", "", "", 0},
        {"mqtt://", nullptr, nullptr, false, false, "", "", "", 0},
        {"mqtt://h:0", nullptr, nullptr, false, false, "", "", "", 0},
        {"mqtt://h:port", nullptr, nullptr, false, false, "", "", "", 0},
        {"mqtt://h", "secret", nullptr, false, false, "", "", "", 0},  // a password without a user
    };
    const std::string file = ::testing::TempDir() + "orq-rig-password";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url);
        Options options;
        options.broker = c.url;
        if (c.environment) {
            setenv("ORQ_RIG_PASSWORD", c.environment, 1);
        } else {
            unsetenv("ORQ_RIG_PASSWORD");
        }
        if (c.file) {
            std::ofstream(file) << c.file;
            options.passwordFile = file;
        }
        BrokerAddress address;
        std::string error;
        ASSERT_EQ(orqcam::rig::ResolveBroker(options, address, error), c.ok) << error;
        if (!c.ok) {
            EXPECT_FALSE(error.empty());
            continue;
        }
        EXPECT_EQ(address.tls, c.tls);
        EXPECT_EQ(address.user, c.user);
        EXPECT_EQ(address.password, c.password);
        EXPECT_EQ(address.host, c.host);
        EXPECT_EQ(address.port, c.port);
    }
    unsetenv("ORQ_RIG_PASSWORD");
    // An unreadable password file, and a CA for a plain broker, are refused.
    Options options;
    options.broker = "mqtt://rig@h";
    options.passwordFile = file + "-missing";
    BrokerAddress address;
    std::string error;
    EXPECT_FALSE(orqcam::rig::ResolveBroker(options, address, error));
    options.passwordFile.clear();
    options.cafile = "ca.crt";
    EXPECT_FALSE(orqcam::rig::ResolveBroker(options, address, error));
    std::remove(file.c_str());
}

TEST(RigNames, TopicLevelsAndFolders) {
    const std::pair<std::string, bool> names[] = {{"pc-0", true},
                                                  {"A.z_9", true},
                                                  {"", false},
                                                  {".", false},
                                                  {"..", false},
                                                  {"a/b", false},
                                                  {"a+b", false},
                                                  {"a#", false},
                                                  {std::string(64, 'x'), true},
                                                  {std::string(65, 'x'), false},
                                                  {"caf\xc3\xa9", false}};
    for (const auto& [name, valid] : names) EXPECT_EQ(orqcam::rig::ValidName(name), valid) << name;
    EXPECT_EQ(orqcam::rig::SafeName("Orq/Cam 7+#"), "Orq_Cam_7__");
    EXPECT_EQ(orqcam::rig::SafeName(".."), "unknown");
    EXPECT_TRUE(orqcam::rig::ValidName(orqcam::rig::SafeName(std::string(100, '/'))));
}

TEST(RigFiles, ChecksumsAndAtomicWrites) {
    const std::string path = ::testing::TempDir() + "orq-rig-file";
    ASSERT_TRUE(orqcam::rig::WriteAtomically(path, "abc"));
    uint64_t size = 0;
    EXPECT_EQ(orqcam::rig::FileSha256(path, &size),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(orqcam::rig::FileSha256(path + "-missing", &size), "");
    std::ifstream leftover(path + ".part");
    EXPECT_FALSE(leftover.good());
    std::remove(path.c_str());
}

// The rig map is people's text: read strictly, naming the line at fault; a new camera is
// appended after everything they wrote, which stays as it was.
TEST(RigMap, ReadStrictlyAndAppendedTo) {
    const std::string path = ::testing::TempDir() + "orq-rig-map.txt";
    struct Case {
        const char* text;
        const char* error;  // a part of the refusal; null: read
    };
    const Case cases[] = {
        {"# front row\n\n000 A1\n  007\tB2  \n0012 C3\n", nullptr},
        {"000 A1\n01 B2\n", "line 2: not 'NNN SERIAL'"},
        {"000 A1 B2\n", "line 1: not"},
        {"000\n", "line 1: not"},
        {"abc A1\n", "line 1: not"},
        {"000 A1\n# x\n0000 B2\n", "line 3: number 0000 is given on line 1 too"},
        {"000 A1\n001 A1\n", "line 2: serial A1 is given on line 1 too"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_TRUE(orqcam::rig::WriteAtomically(path, c.text));
        orqcam::rig::RigMap map;
        std::string error;
        EXPECT_EQ(orqcam::rig::ReadRigMap(path, map, error), c.error == nullptr);
        if (c.error) EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    const std::string owner = "# front row\n000 A1\n  007\tB2  \n0012 C3";  // no final newline
    ASSERT_TRUE(orqcam::rig::WriteAtomically(path, owner));
    orqcam::rig::RigMap map;
    std::string error;
    ASSERT_TRUE(orqcam::rig::ReadRigMap(path, map, error)) << error;
    EXPECT_EQ(orqcam::rig::RigFolderOf(map, "B2"), "007");
    EXPECT_EQ(orqcam::rig::RigFolderOf(map, "C3"), "0012");
    EXPECT_EQ(orqcam::rig::RigFolderOf(map, "D4"), "013");
    EXPECT_EQ(orqcam::rig::RigFolderOf(map, "E5"), "014");
    EXPECT_EQ(orqcam::rig::RigFolderOf(map, "D4"), "013");
    ASSERT_TRUE(orqcam::rig::SaveRigMap(map));
    std::ifstream in(path);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, owner + "\n013 D4\n014 E5\n");
    // A missing map is an empty one: numbers from 000.
    std::remove(path.c_str());
    ASSERT_TRUE(orqcam::rig::ReadRigMap(path, map, error));
    EXPECT_EQ(orqcam::rig::RigFolderOf(map, "A1"), "000");
}

// What the broker holds is anyone's: a payload of the wrong shape reads as absent, and a node
// whose name is no name never becomes a folder.
TEST(RigCollect, PayloadsOfAnyShapeAndNamesThatAreNoNames) {
    using orqcam::rig::Json;
    const std::string root = ::testing::TempDir() + "orq-rig-collect";
    Options options;
    options.args = {"collect", "s1"};
    options.dir = root;
    const std::map<std::string, Json> nodes = {
        {"pa", Json::parse(R"({"online": "yes", "files": 5, "clock": []})")},
        {"pb", Json::parse(R"({"online": true, "files": {"url": 7}})")},
        {"..", Json::parse(R"({"online": false})")},
        {"p/c", Json::parse(R"({"online": false})")}};
    const std::map<std::string, Json> cameras = {
        {"pa/x", Json::parse(R"({"node": "pa", "camera": "x", "serial": 3})")},
        {"pb/y", Json::parse(R"({"node": "pb", "camera": "y"})")},
        {"../z", Json::parse(R"({"node": "..", "camera": "z"})")},
        {"p/c/w", Json::parse(R"({"node": "p/c", "camera": "w"})")}};
    orqcam::Outcome outcome;
    ASSERT_NO_THROW(outcome = orqcam::rig::CollectShot(options, nodes, cameras));
    EXPECT_EQ(outcome.exit, orqcam::kExitCameraError);
    std::ifstream in(root + "/s1/manifest.json");
    const Json manifest = Json::parse(in, nullptr, false);
    ASSERT_TRUE(manifest.is_object());
    std::map<std::string, std::string> reasons;
    for (const Json& entry : manifest["cameras"])
        reasons[entry["node"].get<std::string>() + "/" + entry["camera"].get<std::string>()] =
            entry["reason"].get<std::string>();
    const std::map<std::string, std::string> expected = {{"pa/x", "node offline"},
                                                         {"pb/y", "the node gives no file server"}};
    EXPECT_EQ(reasons, expected);
}

}  // namespace
