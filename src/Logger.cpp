#include "Logger.h"

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>

namespace orq {

namespace {

constexpr size_t kMessageBuffer = 4096;
constexpr size_t kMessageColumn = 70;

struct Logger {
    std::u16string mainPath;
    std::u16string apiPath;
    std::mutex lock;
    bool echo = false;
};

const char* LevelTag(int32_t level) {
    switch (level) {
        case INF:
            return "INF";
        case ERR:
            return "ERR";
        default:
            return "DEB";
    }
}

void Output(Logger& logger, uint32_t log, const std::string& text) {
    std::lock_guard<std::mutex> guard(logger.lock);
    platform::DebuggerOutput(text.c_str());
    platform::DebuggerOutput("\n");
    if (logger.echo) std::printf("%s\n", text.c_str());
    FILE* file = platform::OpenFile(log == LOG_API ? logger.apiPath : logger.mainPath, "ab");
    if (!file) return;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fputc('\n', file);
    std::fclose(file);
}

Logger& TheLogger() {
    // Built on first use from whichever thread logs first; the static's guard runs it once.
    static Logger* logger = [] {
        auto* made = new Logger;
        std::u16string folder = platform::LogFolder();
        made->mainPath = folder + platform::PathSeparator() + u"orqdll.log";
        made->apiPath = folder + platform::PathSeparator() + u"orqdll_api.log";
        TrimLogFile(made->mainPath);
        TrimLogFile(made->apiPath);
        // Marks where a new process begins.
        for (int i = 0; i < 3; ++i) {
            Output(*made, LOG_MAIN, "");
            Output(*made, LOG_API, "");
        }
        return made;
    }();
    return *logger;
}

// printf with one extension: "%S" formats a char16_t string. Every other conversion is handed
// to vsnprintf one at a time, so the format behaves the same on every platform.
std::string Format(const char* format, va_list args) {
    std::string out;
    const char* p = format;
    while (*p) {
        if (*p != '%') {
            const char* next = std::strchr(p, '%');
            size_t length = next ? static_cast<size_t>(next - p) : std::strlen(p);
            out.append(p, length);
            p += length;
            continue;
        }
        const char* start = p++;
        if (*p == '%') {
            out += '%';
            ++p;
            continue;
        }
        while (*p && std::strchr("-+ #0", *p)) ++p;
        bool starWidth = false, starPrecision = false;
        if (*p == '*') {
            starWidth = true;
            ++p;
        }
        while (*p >= '0' && *p <= '9') ++p;
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                starPrecision = true;
                ++p;
            }
            while (*p >= '0' && *p <= '9') ++p;
        }
        std::string lengthMod;
        while (*p && std::strchr("hljztL", *p)) lengthMod += *p++;
        char conversion = *p;
        if (!conversion) break;
        ++p;
        std::string spec(start, p);
        int width = starWidth ? va_arg(args, int) : 0;
        int precision = starPrecision ? va_arg(args, int) : 0;
        char piece[kMessageBuffer];
        auto emit = [&](auto value) {
            if (starWidth && starPrecision) {
                std::snprintf(piece, sizeof piece, spec.c_str(), width, precision, value);
            } else if (starWidth) {
                std::snprintf(piece, sizeof piece, spec.c_str(), width, value);
            } else if (starPrecision) {
                std::snprintf(piece, sizeof piece, spec.c_str(), precision, value);
            } else {
                std::snprintf(piece, sizeof piece, spec.c_str(), value);
            }
            out += piece;
        };
        switch (conversion) {
            case 'S': {
                const char16_t* wide = va_arg(args, const char16_t*);
                std::string narrow = wide ? platform::ToUtf8(wide) : "(null)";
                spec.back() = 's';
                emit(narrow.c_str());
                break;
            }
            case 's': {
                const char* text = va_arg(args, const char*);
                emit(text ? text : "(null)");
                break;
            }
            case 'c':
                emit(va_arg(args, int));
                break;
            case 'd':
            case 'i':
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                if (lengthMod == "ll") {
                    emit(va_arg(args, long long));
                } else if (lengthMod == "l") {
                    emit(va_arg(args, long));
                } else if (lengthMod == "z") {
                    emit(va_arg(args, size_t));
                } else if (lengthMod == "j") {
                    emit(va_arg(args, intmax_t));
                } else if (lengthMod == "t") {
                    emit(va_arg(args, ptrdiff_t));
                } else {
                    emit(va_arg(args, int));
                }
                break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                emit(va_arg(args, double));
                break;
            case 'p':
                emit(va_arg(args, void*));
                break;
            default:
                out.append(spec);
                break;
        }
    }
    return out;
}

}  // namespace

std::string SourceName(const char* path) {
    std::string name(path ? path : "");
    size_t slash = name.find_last_of("\\/");
    if (slash != std::string::npos) name.erase(0, slash + 1);
    size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) name.erase(dot);
    return name;
}

void TrimLogFile(const std::u16string& path, uint64_t maxBytes) {
    FILE* file = platform::OpenFile(path, "rb");
    if (!file) return;
    std::deque<std::string> lines;
    uint64_t total = 0;
    bool over = false;
    std::string line;
    int c;
    auto take = [&] {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        total += line.size();
        lines.push_back(std::move(line));
        line.clear();
        if (total > maxBytes) {
            over = true;
            while (total > maxBytes && !lines.empty()) {
                total -= lines.front().size();
                lines.pop_front();
            }
        }
    };
    while ((c = std::fgetc(file)) != EOF) {
        if (c == '\n') {
            take();
        } else {
            line += static_cast<char>(c);
        }
    }
    if (!line.empty()) take();
    std::fclose(file);
    if (!over) return;
    file = platform::OpenFile(path, "wb");
    if (!file) return;
    for (const std::string& kept : lines) {
        std::fwrite(kept.data(), 1, kept.size(), file);
        std::fputc('\n', file);
    }
    std::fclose(file);
}

std::u16string MainLogPath() {
    return TheLogger().mainPath;
}
std::u16string ApiLogPath() {
    return TheLogger().apiPath;
}

void LogWrite(uint32_t log, int32_t level, const char* sourceFile, uint32_t line, uint64_t threadId,
              const char* format, ...) {
    Logger& logger = TheLogger();
    va_list args;
    va_start(args, format);
    std::string message = Format(format ? format : "", args);
    va_end(args);
    if (message.size() > kMessageBuffer - 1) message.resize(kMessageBuffer - 1);
    // Text after an embedded NUL would not have survived a C buffer either.
    message.resize(std::strlen(message.c_str()));

    auto now = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    int millis = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000);
    std::tm local{};
#ifdef _WIN32
    localtime_s(&local, &seconds);
#else
    localtime_r(&seconds, &local);
#endif
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%s %02d-%02d %02d:%02d:%02d.%03d", LevelTag(level),
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  millis);

    std::string text;
    size_t begin = 0;
    bool first = true;
    while (true) {
        size_t end = message.find('\n', begin);
        std::string part = message.substr(begin, end == std::string::npos ? end : end - begin);
        if (!part.empty() && part.back() == '\r') part.pop_back();
        if (!first) text += '\n';
        text += stamp;
        text += " | ";
        text += part;
        if (first) {
            if (part.size() < kMessageColumn) text.append(kMessageColumn - part.size(), ' ');
            text += " | " + SourceName(sourceFile) + ":" + std::to_string(line) + " [" +
                    std::to_string(threadId) + "]";
            first = false;
        }
        if (end == std::string::npos) break;
        begin = end + 1;
    }
    Output(logger, log, text);
}

}  // namespace orq
