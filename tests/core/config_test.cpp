#include <gtest/gtest.h>

#include "SDKConfig.h"
#include "test_support.h"

using namespace orq;
using orqtest::CountContaining;
using orqtest::MainLogSince;
using orqtest::MainLogSize;

namespace {

SDKConfig Load(const std::string& xml, std::vector<std::string>* log = nullptr) {
    std::u16string path = platform::TempFolder() + u"/ORQSDK.cfg";
    FILE* file = platform::OpenFile(path, "wb");
    std::fwrite(xml.data(), 1, xml.size(), file);
    std::fclose(file);
    size_t start = MainLogSize();
    SDKConfig config;
    LoadConfig(config, path);
    if (log) *log = MainLogSince(start);
    return config;
}

std::string Document(const std::string& body) {
    return "<?xml version=\"1.0\"?>\n<configuration>" + body + "</configuration>";
}

}  // namespace

TEST(Config, CompleteFileIsRead) {
    std::vector<std::string> log;
    SDKConfig config = Load(Document("<MemLogging val=\"true\"/><TestOrqmVer val=\"false\"/>"
                                     "<PreviewFrameInterval val=\"120\"/>"),
                            &log);
    EXPECT_TRUE(config.MemLogging);
    EXPECT_FALSE(config.TestOrqmVer);
    EXPECT_EQ(config.PreviewFrameInterval, 120);
    EXPECT_EQ(CountContaining(log, "Loading config"), 1);
    EXPECT_EQ(CountContaining(log, "cfg: MemLogging: true"), 1);
    EXPECT_EQ(CountContaining(log, "cfg: PreviewFrameInterval: 120"), 1);
}

TEST(Config, OnlyTheExactLowerCaseWordSwitchesOn) {
    EXPECT_FALSE(Load(Document("<MemLogging val=\"true \"/>")).MemLogging);
    EXPECT_FALSE(Load(Document("<MemLogging val=\"TRUE\"/>")).MemLogging);
    EXPECT_FALSE(Load(Document("<TestOrqmVer val=\"1\"/>")).TestOrqmVer);
    EXPECT_FALSE(Load(Document("<MemLogging val=\"\"/>")).MemLogging);
    EXPECT_TRUE(Load(Document("<TestOrqmVer val=\"\"/>")).TestOrqmVer);
    EXPECT_TRUE(Load(Document("<TestOrqmVer other=\"false\"/>")).TestOrqmVer);
}

TEST(Config, IntervalTakesTheLeadingNumber) {
    EXPECT_EQ(Load(Document("<PreviewFrameInterval val=\"abc\"/>")).PreviewFrameInterval, 0);
    EXPECT_EQ(Load(Document("<PreviewFrameInterval val=\"-5\"/>")).PreviewFrameInterval, 60);
    EXPECT_EQ(Load(Document("<PreviewFrameInterval val=\"25fps\"/>")).PreviewFrameInterval, 25);
    EXPECT_EQ(Load(Document("<PreviewFrameInterval val=\"0\"/>")).PreviewFrameInterval, 0);
}

TEST(Config, OnlyTheFirstConfigurationElementCounts) {
    SDKConfig config = Load(
        "<configuration><PreviewFrameInterval val=\"10\"/></configuration>"
        "<configuration><PreviewFrameInterval val=\"99\"/></configuration>");
    EXPECT_EQ(config.PreviewFrameInterval, 10);
}

TEST(Config, BrokenOrEmptyFilesLeaveTheDefaults) {
    std::vector<std::string> log;
    SDKConfig broken = Load("<configuration><MemLogging val=\"true\">", &log);
    EXPECT_FALSE(broken.MemLogging);
    EXPECT_EQ(CountContaining(log, "LoadConfig ORQSDK.cfg loading error"), 1);
    SDKConfig empty = Load("", &log);
    EXPECT_EQ(empty.PreviewFrameInterval, 60);
    EXPECT_EQ(CountContaining(log, "cfg: "), 3);
    SDKConfig noRoot = Load("<other><MemLogging val=\"true\"/></other>", &log);
    EXPECT_FALSE(noRoot.MemLogging);
    EXPECT_EQ(CountContaining(log, "cfg: MemLogging: "), 1);
}
