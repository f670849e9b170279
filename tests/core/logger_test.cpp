#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "CameraText.h"
#include "tests/support/support.h"

using namespace orq;
using orqtest::LogLinesSince;
using orqtest::LogSize;

namespace {

// "<TAG> MM-DD hh:mm:ss.mmm | <message> | <source>:<line> [<tid>]"
const std::regex kLine(
    R"(^(DEB|INF|ERR) \d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d \| (.*) \| ([^ ]+):(\d+) \[(\d+)\]$)");

std::string MessageColumn(const std::string& line) {
    std::smatch match;
    EXPECT_TRUE(std::regex_match(line, match, kLine)) << line;
    return match.size() > 2 ? match[2].str() : "";
}

}  // namespace

TEST(Logger, LinesArePaddedToSeventyCutSplitAndFormatted) {
    size_t start = LogSize();
    LogWrite(LOG_MAIN, INF, "C:\\work\\src\\Kernel\\DeviceLL_Property.cpp", 386, 4812,
             "Camera mode changed to %d", 3);
    LogWrite(LOG_MAIN, ERR, "x.cpp", 1, 1, "%s", std::string(69, 'a').c_str());
    LogWrite(LOG_MAIN, 7, "x.cpp", 1, 1, "%s", std::string(70, 'b').c_str());
    LogWrite(LOG_MAIN, DEB, "x.cpp", 1, 1, "");
    LogWrite(LOG_MAIN, INF, "x.cpp", 5, 1, "%s", std::string(5000, 'z').c_str());
    LogWrite(LOG_MAIN, INF, "x.cpp", 1, 1, "%S|%5d|%-3s|%x|%lld|%%", u"Kamera \u00e9", 42, "a",
             255u, 1LL << 40);
    LogWrite(LOG_MAIN, INF, "y.cpp", 6, 1, "first\nsecond\nthird");
    // Line breaks come from formats only: an argument's are escaped.
    LogWrite(LOG_MAIN, INF, "x.cpp", 1, 1, "%s|%S|%s", "a\nb", u"c\rd",
             CameraText("e\\f\n").c_str());
    auto lines = LogLinesSince(start);
    ASSERT_EQ(lines.size(), 10u);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[0], match, kLine)) << lines[0];
    EXPECT_EQ(match[1], "INF");
    EXPECT_EQ(match[2].str(), "Camera mode changed to 3" + std::string(70 - 24, ' '));
    EXPECT_EQ(match[3], "DeviceLL_Property");
    EXPECT_EQ(match[4], "386");
    EXPECT_EQ(match[5], "4812");
    EXPECT_EQ(MessageColumn(lines[1]), std::string(69, 'a') + " ");
    EXPECT_EQ(MessageColumn(lines[2]), std::string(70, 'b'));
    EXPECT_EQ(lines[2].substr(0, 3), "DEB");  // unknown levels are tagged DEB
    EXPECT_EQ(MessageColumn(lines[3]), std::string(70, ' '));
    EXPECT_EQ(MessageColumn(lines[4]), std::string(4095, 'z'));
    const std::string formatted = "Kamera \xc3\xa9|   42|a  |ff|1099511627776|%";
    EXPECT_EQ(MessageColumn(lines[5]).substr(0, formatted.size()), formatted);
    EXPECT_NE(lines[6].find("| first"), std::string::npos);
    EXPECT_NE(lines[6].find("| y:6 ["), std::string::npos);
    for (int i : {7, 8}) {
        EXPECT_TRUE(std::regex_match(lines[i], std::regex(R"(^INF \d\d-\d\d [\d:.]+ \| \w+$)")))
            << lines[i];
    }
    EXPECT_NE(lines[8].find("| third"), std::string::npos);
    EXPECT_EQ(MessageColumn(lines[9]).substr(0, 24), "a\\x0Ab|c\\x0Dd|e\\x5Cf\\x0A");
    // Camera text is cut at its bound, never inside a character.
    EXPECT_EQ(CameraText(std::string(300, 'x')).str(), std::string(256, 'x') + "...");
    EXPECT_EQ(CameraText(std::string(255, 'x') + "\xc3\xa9").str(), std::string(255, 'x') + "...");
}

TEST(Logger, ApiLogIsSeparate) {
    const size_t apiBefore = orqtest::ReadAll(ApiLogPath()).size();
    const size_t mainBefore = LogSize();
    LogWrite(LOG_API, INF, "x.cpp", 1, 1, "only in the api log");
    EXPECT_NE(orqtest::ReadAll(ApiLogPath()).find("only in the api log", apiBefore),
              std::string::npos);
    EXPECT_EQ(LogSize(), mainBefore);
}

TEST(Logger, ConcurrentLinesStayWhole) {
    size_t start = LogSize();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                LogWrite(LOG_MAIN, INF, "x.cpp", 1, t, "thread %d line %d", t, i);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    auto lines = LogLinesSince(start);
    ASSERT_EQ(lines.size(), 200u);
    for (const auto& line : lines) EXPECT_TRUE(std::regex_match(line, kLine)) << line;
}

class LogTrim : public ::testing::Test {
protected:
    std::u16string path = platform::TempFolder() + u"/trim_test.log";
    void Write(const std::string& contents) {
        FILE* file = platform::OpenFile(path, "wb");
        ASSERT_NE(file, nullptr);
        std::fwrite(contents.data(), 1, contents.size(), file);
        std::fclose(file);
    }
    std::string Read() { return orqtest::ReadAll(path); }
};

TEST_F(LogTrim, KeepsTheNewestWholeLinesWithinTheLimit) {
    std::string contents;
    for (int i = 0; contents.size() < 2000000; ++i) {
        contents += "line " + std::to_string(i) + std::string(90, '.') + "\n";
    }
    Write(contents);
    TrimLogFile(path);
    std::string trimmed = Read();
    size_t text = 0, count = 0;
    for (char c : trimmed) (c == '\n' ? ++count : ++text);
    EXPECT_LE(text, 1048576u);
    EXPECT_GT(text, 1048576u - 200);
    // The tail is untouched and every line is whole.
    EXPECT_EQ(contents.substr(contents.size() - trimmed.size()), trimmed);
    EXPECT_EQ(trimmed.front(), 'l');
}

TEST_F(LogTrim, ExactlyAtTheLimitOrMissingStaysUntouched) {
    std::string line(1023, 'x');
    std::string contents;
    for (int i = 0; i < 1024; ++i) contents += line + (i % 2 ? "\r\n" : "\n");
    // Line text without line ends: 1024 * 1023 = 1,047,552; one more line of 1024 fills it.
    contents += std::string(1024, 'y') + "\n";
    Write(contents);
    TrimLogFile(path);
    EXPECT_EQ(Read(), contents);
    Write(contents + "z\n");
    TrimLogFile(path);
    std::string trimmed = Read();
    EXPECT_EQ(trimmed.substr(0, 1023), line);
    EXPECT_EQ(trimmed.substr(trimmed.size() - 2), "z\n");

    std::u16string missing = platform::TempFolder() + u"/no_such_dir/none.log";
    TrimLogFile(missing);
    EXPECT_EQ(platform::OpenFile(missing, "rb"), nullptr);
}
