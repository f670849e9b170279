// How orqcam speaks: exit codes, result names, JSON documents, tables, and the two streams.
#pragma once

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "orqsdk.h"

namespace orqcam {

// Exit codes; scripts depend on them, and --help and the README list them.
enum Exit {
    kExitOk = 0,
    kExitSdk = 1,  // the SDK could not be loaded or started
    kExitUsage = 2,
    kExitNoCamera = 3,
    kExitCameraError = 4,
    kExitTimeout = 5,
    kExitRefused = 6,
    kExitBroker = 7,  // orqcam node and rig: the broker refused us or cannot be reached
};

// Where output goes. Human text goes to `out`; with --json `out` carries the one JSON document
// of the command and `err` errors alone, so that a script can treat any text there as a failure.
struct Io {
    FILE* out = stdout;
    FILE* err = stderr;
    bool json = false;
    bool quiet = false;
};
extern Io io;

const char* ResultName(int result);
// The exit code a failed result of the SDK stands for.
int ExitFor(OrqResult result);

std::string Utf8(const OrqChar* text);
std::string Lower(std::string text);

// mingw's C++ runtime prints through its ISO stdio (%zu, %lld), which plain printf checking there
// would take for the system DLL's.
#ifdef __MINGW32__
#define ORQCAM_PRINTF __attribute__((format(gnu_printf, 1, 2)))
#else
#define ORQCAM_PRINTF __attribute__((format(printf, 1, 2)))
#endif

// Human text on stdout; nothing under --json or --quiet.
void Say(const char* format, ...) ORQCAM_PRINTF;
// A warning or error line on stderr, always.
void Warn(const char* format, ...) ORQCAM_PRINTF;

// JSON text builders: each returns a complete JSON value.
std::string JsonString(const std::string& text);
std::string JsonObject(const std::vector<std::pair<std::string, std::string>>& members);
std::string JsonArray(const std::vector<std::string>& items);
inline std::string JsonNumber(long long value) {
    return std::to_string(value);
}
inline std::string JsonBool(bool value) {
    return value ? "true" : "false";
}

// A table whose columns are as wide as their widest cell.
void PrintTable(const std::vector<std::string>& header,
                const std::vector<std::vector<std::string>>& rows);

// The outcome of a command on one camera: its exit code and its JSON document.
struct Outcome {
    int exit = kExitOk;
    std::string json = "{}";
    bool streamed = false;  // its JSON went out line by line already (watch)
};

// A failure that no SDK result stands for; its document names orqcam's own result for the exit
// code: ORQCAM_USAGE, ORQCAM_NO_CAMERA, ORQCAM_TIMEOUT (ORQ_ERROR for the rest).
constexpr int kNoSdkResult = -1;
const char* ToolResultName(int exitCode);

// A failure: says it on stderr and makes the error document.
Outcome Failure(int exitCode, const std::string& message, int result = kNoSdkResult);
Outcome FailureOf(OrqResult result, const std::string& what);

}  // namespace orqcam
