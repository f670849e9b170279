// Helpers shared by the core tests: reading what the SDK logged.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "Logger.h"
#include "platform/Platform.h"

namespace orqtest {

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
    for (size_t begin = offset, end; begin < contents.size(); begin = end + 1) {
        end = std::min(contents.find('\n', begin), contents.size());
        lines.push_back(contents.substr(begin, end - begin));
    }
    return lines;
}

inline int CountContaining(const std::vector<std::string>& lines, const std::string& text) {
    int count = 0;
    for (const auto& line : lines) count += line.find(text) != std::string::npos;
    return count;
}

}  // namespace orqtest
