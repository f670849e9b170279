#include "Logger.h"

#include <algorithm>
#include <atomic>
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
#include <string_view>

namespace orq {

namespace {

constexpr size_t kMessageBuffer = 4096;
constexpr size_t kMessageColumn = 70;

struct Logger {
    std::u16string mainPath;
    std::u16string apiPath;
    // The same paths in UTF-8, converted once: every line opens its file by name.
    std::string mainPathUtf8;
    std::string apiPathUtf8;
    std::mutex lock;
    bool echo = false;
};

std::atomic<LogSink> logSink{nullptr};

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

// text holds size bytes and room for one more behind them.
void Output(Logger& logger, uint32_t log, char* text, size_t size) {
    std::lock_guard<std::mutex> guard(logger.lock);
    text[size] = '\0';
    platform::DebuggerOutput(text);
    platform::DebuggerOutput("\n");
    if (logger.echo) std::printf("%s\n", text);
    if (LogSink sink = logSink.load(std::memory_order_relaxed)) {
        sink(log, text, size);
        return;
    }
    text[size] = '\n';
    platform::AppendToFile(log == LOG_API ? logger.apiPathUtf8 : logger.mainPathUtf8, text,
                           size + 1);
}

Logger& TheLogger() {
    // Built on first use from whichever thread logs first; the static's guard runs it once.
    static Logger* logger = [] {
        auto* made = new Logger;
        std::u16string folder = platform::LogFolder();
        made->mainPath = folder + platform::PathSeparator() + u"orqdll.log";
        made->apiPath = folder + platform::PathSeparator() + u"orqdll_api.log";
        made->mainPathUtf8 = platform::ToUtf8(made->mainPath);
        made->apiPathUtf8 = platform::ToUtf8(made->apiPath);
        TrimLogFile(made->mainPath);
        TrimLogFile(made->apiPath);
        // Marks where a new process begins.
        char empty[1];
        for (int i = 0; i < 3; ++i) {
            Output(*made, LOG_MAIN, empty, 0);
            Output(*made, LOG_API, empty, 0);
        }
        return made;
    }();
    return *logger;
}

// The message as a C buffer would hold it: at most kMessageBuffer - 1 bytes, the rest cut.
struct Message {
    char text[kMessageBuffer];
    size_t size = 0;

    void Append(const char* data, size_t length) {
        length = std::min(length, kMessageBuffer - 1 - size);
        std::memcpy(text + size, data, length);
        size += length;
    }
    // Room left for snprintf, terminator included.
    size_t Room() const { return kMessageBuffer - size; }
    // After snprintf at the end: a piece stops at its first NUL, as a C string would.
    void Took() { size += std::strlen(text + size); }
};

bool NeedsEscape(const char* text) {
    for (; *text; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < 0x20 || byte == 0x7F) return true;
    }
    return false;
}

// printf with one extension: "%S" formats a char16_t string. Every other conversion is handed
// to snprintf one at a time, so the format behaves the same on every platform.
void Format(Message& out, const char* format, va_list args) {
    const char* p = format;
    while (*p) {
        if (*p != '%') {
            const char* next = std::strchr(p, '%');
            size_t length = next ? static_cast<size_t>(next - p) : std::strlen(p);
            out.Append(p, length);
            p += length;
            continue;
        }
        const char* start = p++;
        if (*p == '%') {
            out.Append("%", 1);
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
        const char* lengthStart = p;
        while (*p && std::strchr("hljztL", *p)) ++p;
        const std::string_view lengthMod(lengthStart, static_cast<size_t>(p - lengthStart));
        char conversion = *p;
        if (!conversion) break;
        ++p;
        // The conversion alone, NUL-terminated; a longer one than any real format is kept whole.
        char shortSpec[64];
        std::string longSpec;
        const size_t specLength = static_cast<size_t>(p - start);
        char* spec = shortSpec;
        if (specLength >= sizeof shortSpec) {
            longSpec.assign(start, specLength);
            spec = &longSpec[0];
        } else {
            std::memcpy(shortSpec, start, specLength);
            shortSpec[specLength] = '\0';
        }
        int width = starWidth ? va_arg(args, int) : 0;
        int precision = starPrecision ? va_arg(args, int) : 0;
        auto emit = [&](auto value) {
            char* at = out.text + out.size;
            if (starWidth && starPrecision) {
                std::snprintf(at, out.Room(), spec, width, precision, value);
            } else if (starWidth) {
                std::snprintf(at, out.Room(), spec, width, value);
            } else if (starPrecision) {
                std::snprintf(at, out.Room(), spec, precision, value);
            } else {
                std::snprintf(at, out.Room(), spec, value);
            }
            out.Took();
        };
        switch (conversion) {
            case 'S': {
                const char16_t* wide = va_arg(args, const char16_t*);
                std::string narrow = wide ? EscapeLogText(platform::ToUtf8(wide)) : "(null)";
                spec[specLength - 1] = 's';
                emit(narrow.c_str());
                break;
            }
            case 's': {
                const char* text = va_arg(args, const char*);
                if (!text) {
                    emit("(null)");
                } else if (NeedsEscape(text)) {
                    emit(EscapeLogText(text).c_str());
                } else {
                    emit(text);
                }
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
                out.Append(start, specLength);
                break;
        }
    }
}

// Decimal digits of value at out + at, as "%llu" writes them.
void PutDecimal(char* out, size_t& at, uint64_t value) {
    char digits[20];
    size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value);
    while (count) out[at++] = digits[--count];
}

// As "%0*d" with width 2 or 3: zeros in front up to the width.
void PutPadded(char* out, size_t& at, int value, size_t width) {
    if (value < 0) {
        at += static_cast<size_t>(
            std::snprintf(out + at, 16, "%0*d", static_cast<int>(width), value));
        return;
    }
    size_t begin = at;
    PutDecimal(out, at, static_cast<uint64_t>(value));
    const size_t length = at - begin;
    if (length >= width) return;
    std::memmove(out + begin + (width - length), out + begin, length);
    std::memset(out + begin, '0', width - length);
    at = begin + width;
}

// The finished lines: on the stack, unless a message of many short lines outgrows it.
class LineBuffer {
public:
    void Append(const char* data, size_t length) {
        if (heap_.empty() && size_ + length + 1 <= sizeof stack_) {
            std::memcpy(stack_ + size_, data, length);
            size_ += length;
            return;
        }
        if (heap_.empty()) heap_.assign(stack_, size_);
        heap_.append(data, length);
        size_ = heap_.size();
    }
    void Pad(size_t count) {
        char spaces[kMessageColumn];
        std::memset(spaces, ' ', sizeof spaces);
        Append(spaces, std::min(count, sizeof spaces));
    }
    // The text with room for one byte behind it.
    char* Data() {
        if (heap_.empty()) return stack_;
        heap_.push_back('\0');
        return &heap_[0];
    }
    size_t Size() const { return size_; }

private:
    char stack_[8192];
    size_t size_ = 0;
    std::string heap_;
};

}  // namespace

std::string EscapeLogText(std::string_view text, bool backslash) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || (backslash && c == '\\')) {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 15];
        } else {
            out += c;
        }
    }
    return out;
}

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

void SetLogSink(LogSink sink) {
    logSink.store(sink, std::memory_order_relaxed);
}

std::u16string MainLogPath() {
    return TheLogger().mainPath;
}
std::u16string ApiLogPath() {
    return TheLogger().apiPath;
}

void LogWrite(uint32_t log, int32_t level, const char* sourceFile, uint32_t line, uint64_t threadId,
              const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogWriteV(log, level, sourceFile, line, threadId, format, args);
    va_end(args);
}

void LogWriteV(uint32_t log, int32_t level, const char* sourceFile, uint32_t line,
               uint64_t threadId, const char* format, va_list args) {
    Logger& logger = TheLogger();
    Message message;
    Format(message, format ? format : "", args);

    auto now = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    int millis = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000);
    // The local time changes its fields once a second: each thread keeps its last one.
    thread_local std::time_t lastSeconds = -1;
    thread_local std::tm local{};
    if (seconds != lastSeconds) {
#ifdef _WIN32
        localtime_s(&local, &seconds);
#else
        localtime_r(&seconds, &local);
#endif
        lastSeconds = seconds;
    }
    // "%s %02d-%02d %02d:%02d:%02d.%03d": tag, month, day, hour, minute, second, millisecond.
    char stamp[64];
    size_t stampLength = 0;
    const auto put = [&](const char* text, size_t length) {
        std::memcpy(stamp + stampLength, text, length);
        stampLength += length;
    };
    put(LevelTag(level), 3);
    put(" ", 1);
    PutPadded(stamp, stampLength, local.tm_mon + 1, 2);
    put("-", 1);
    PutPadded(stamp, stampLength, local.tm_mday, 2);
    put(" ", 1);
    PutPadded(stamp, stampLength, local.tm_hour, 2);
    put(":", 1);
    PutPadded(stamp, stampLength, local.tm_min, 2);
    put(":", 1);
    PutPadded(stamp, stampLength, local.tm_sec, 2);
    put(".", 1);
    PutPadded(stamp, stampLength, millis, 3);

    // The source position: base name without folders or extension, line, thread.
    const char* name = sourceFile ? sourceFile : "";
    const char* lastDot = nullptr;
    for (const char* c = name; *c; ++c) {
        if (*c == '/' || *c == '\\') {
            name = c + 1;
            lastDot = nullptr;
        } else if (*c == '.') {
            lastDot = c;
        }
    }
    const size_t nameLength =
        lastDot && lastDot > name ? static_cast<size_t>(lastDot - name) : std::strlen(name);
    // ":%u [%llu]": line, thread.
    char position[64];
    size_t positionLength = 0;
    position[positionLength++] = ':';
    PutDecimal(position, positionLength, line);
    position[positionLength++] = ' ';
    position[positionLength++] = '[';
    PutDecimal(position, positionLength, threadId);
    position[positionLength++] = ']';

    LineBuffer text;
    const char* begin = message.text;
    const char* const end = message.text + message.size;
    bool first = true;
    while (true) {
        const char* stop =
            static_cast<const char*>(std::memchr(begin, '\n', static_cast<size_t>(end - begin)));
        const char* partEnd = stop ? stop : end;
        size_t part = static_cast<size_t>(partEnd - begin);
        if (part > 0 && begin[part - 1] == '\r') --part;
        if (!first) text.Append("\n", 1);
        text.Append(stamp, stampLength);
        text.Append(" | ", 3);
        text.Append(begin, part);
        if (first) {
            if (part < kMessageColumn) text.Pad(kMessageColumn - part);
            text.Append(" | ", 3);
            text.Append(name, nameLength);
            text.Append(position, positionLength);
            first = false;
        }
        if (!stop) break;
        begin = stop + 1;
    }
    Output(logger, log, text.Data(), text.Size());
}

}  // namespace orq
