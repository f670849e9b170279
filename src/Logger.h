// The SDK's two log files and the debugger channel. Every line is on disk before LogWrite returns.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Platform.h"

namespace orq {

enum LogSelector : uint32_t { LOG_MAIN = 0, LOG_API = 1 };
enum LogLevel : int32_t { DEB = 0, INF = 1, ERR = 2 };

// printf-style; "%S" takes a NUL-terminated char16_t string. sourceFile may carry folders: only
// the base name without extension is printed.
void LogWrite(uint32_t log, int32_t level, const char* sourceFile, uint32_t line, uint64_t threadId,
              const char* format, ...);

// LogWrite with the arguments taken.
void LogWriteV(uint32_t log, int32_t level, const char* sourceFile, uint32_t line,
               uint64_t threadId, const char* format, va_list args);

// Control bytes (below 0x20, and 0x7F) as \xNN, and the backslash too if asked. Every text a
// format's %s or %S brings into a line goes through it, so no argument can start a line of its
// own; camera text also escapes the backslash (CameraText.h).
std::string EscapeLogText(std::string_view text, bool backslash = false);

// Base name of a source path, without folders or extension ("src/Kernel/DeviceLL.cpp" ->
// "DeviceLL").
std::string SourceName(const char* path);

// Keeps the newest whole lines of a log so that their text stays within maxBytes.
void TrimLogFile(const std::u16string& path, uint64_t maxBytes = 0x100000);

// Where finished lines go in place of the two files; null (the default) writes the files. A
// harness that wants every line formatted but none on disk sets one.
using LogSink = void (*)(uint32_t log, const char* line, size_t size);
void SetLogSink(LogSink sink);

// Full paths of the two logs; asking sets the logger up if no line has yet.
std::u16string MainLogPath();
std::u16string ApiLogPath();

}  // namespace orq

#define ORQ_LOG(level, ...)                                     \
    ::orq::LogWrite(::orq::LOG_MAIN, level, __FILE__, __LINE__, \
                    ::orq::platform::CurrentThreadId(), __VA_ARGS__)
#define ORQ_API_LOG(level, ...)                                                                    \
    ::orq::LogWrite(::orq::LOG_API, level, __FILE__, __LINE__, ::orq::platform::CurrentThreadId(), \
                    __VA_ARGS__)
