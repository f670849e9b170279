#include <gtest/gtest.h>

#include "SDKConfig.h"
#include "tests/support/support.h"

using namespace orq;
using orqtest::CountContaining;

namespace {

SDKConfig Load(const std::string& xml, orqtest::Strings* log = nullptr) {
    std::u16string path = platform::TempFolder() + u"/ORQSDK.cfg";
    FILE* file = platform::OpenFile(path, "wb");
    std::fwrite(xml.data(), 1, xml.size(), file);
    std::fclose(file);
    size_t start = orqtest::LogSize();
    SDKConfig config;
    LoadConfig(config, path);
    if (log) *log = orqtest::LogLinesSince(start);
    return config;
}

std::string Document(const std::string& body) {
    return "<?xml version=\"1.0\"?>\n<configuration>" + body + "</configuration>";
}

}  // namespace

TEST(Config, ValuesOfTheFirstConfigurationElementElseTheDefaults) {
    struct Case {
        std::string xml;
        bool memLogging, testVersion;
        int interval;
    } cases[] = {
        {Document("<MemLogging val=\"true\"/><TestOrqmVer val=\"false\"/>"
                  "<PreviewFrameInterval val=\"120\"/>"),
         true, false, 120},
        // Only the exact lower-case word counts; an empty or missing value keeps the default.
        {Document("<MemLogging val=\"true \"/><TestOrqmVer val=\"1\"/>"), false, false, 60},
        {Document("<MemLogging val=\"TRUE\"/><TestOrqmVer val=\"\"/>"), false, true, 60},
        {Document("<MemLogging val=\"\"/><TestOrqmVer other=\"false\"/>"), false, true, 60},
        // The interval takes the leading number; a negative one keeps the default.
        {Document("<PreviewFrameInterval val=\"abc\"/>"), false, true, 0},
        {Document("<PreviewFrameInterval val=\"-5\"/>"), false, true, 60},
        {Document("<PreviewFrameInterval val=\"25fps\"/>"), false, true, 25},
        {"<configuration><PreviewFrameInterval val=\"10\"/></configuration>"
         "<configuration><PreviewFrameInterval val=\"99\"/></configuration>",
         false, true, 10},
        {"<configuration><MemLogging val=\"true\">", false, true, 60},  // broken
        {"", false, true, 60},
        {"<other><MemLogging val=\"true\"/></other>", false, true, 60},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.xml);
        const SDKConfig config = Load(c.xml);
        EXPECT_EQ(config.MemLogging, c.memLogging);
        EXPECT_EQ(config.TestOrqmVer, c.testVersion);
        EXPECT_EQ(config.PreviewFrameInterval, c.interval);
    }
}

TEST(Config, LoadingIsLogged) {
    orqtest::Strings log;
    Load(Document("<MemLogging val=\"true\"/><PreviewFrameInterval val=\"120\"/>"), &log);
    EXPECT_EQ(CountContaining(log, "Loading config"), 1);
    EXPECT_EQ(CountContaining(log, "cfg: MemLogging: true"), 1);
    EXPECT_EQ(CountContaining(log, "cfg: PreviewFrameInterval: 120"), 1);
    Load("<configuration><MemLogging val=\"true\">", &log);
    EXPECT_EQ(CountContaining(log, "LoadConfig ORQSDK.cfg loading error"), 1);
    Load("", &log);
    EXPECT_EQ(CountContaining(log, "cfg: "), 3);
}
