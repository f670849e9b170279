// Helpers shared by the core tests: reading what the SDK logged.
#pragma once

#include <string>
#include <vector>

#include "Logger.h"
#include "platform/Platform.h"

namespace orqtest {

inline std::vector<std::string> ReadLines(const std::u16string& path) {
    std::string contents;
    orq::platform::ReadFile(path, contents);
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < contents.size()) {
        size_t end = contents.find('\n', begin);
        if (end == std::string::npos) end = contents.size();
        lines.push_back(contents.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

inline size_t MainLogSize() {
    std::string contents;
    orq::platform::ReadFile(orq::MainLogPath(), contents);
    return contents.size();
}

// Lines the main log gained since a size taken with MainLogSize().
inline std::vector<std::string> MainLogSince(size_t offset) {
    std::string contents;
    orq::platform::ReadFile(orq::MainLogPath(), contents);
    std::vector<std::string> lines;
    size_t begin = offset;
    while (begin < contents.size()) {
        size_t end = contents.find('\n', begin);
        if (end == std::string::npos) end = contents.size();
        lines.push_back(contents.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

inline int CountContaining(const std::vector<std::string>& lines, const std::string& text) {
    int count = 0;
    for (const auto& line : lines) count += line.find(text) != std::string::npos;
    return count;
}

}  // namespace orqtest
