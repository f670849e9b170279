#include "Output.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>

#include "Utf16.h"

namespace orqcam {

Io io;

const char* ResultName(int result) {
    return OrqResultName(result);
}

int ExitFor(OrqResult result) {
    switch (result) {
        case ORQ_OK:
            return kExitOk;
        case ORQ_UNKNOWN_PROPERTY:
        case ORQ_PROPERTY_CONSTRAINT:
            return kExitRefused;
        case ORQ_SECOND_PROCESS:
            return kExitSdk;
        default:
            return kExitCameraError;
    }
}

std::string Utf8(const OrqChar* text) {
    size_t size = 0;
    while (text && text[size]) ++size;
    return orq::text::Utf16ToUtf8(text, size);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

void Say(const char* format, ...) {
    if (io.quiet || io.json) return;
    va_list args;
    va_start(args, format);
    std::vfprintf(io.out, format, args);
    va_end(args);
    std::fflush(io.out);
}

void Warn(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(io.err, format, args);
    va_end(args);
    std::fflush(io.err);
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string JsonObject(const std::vector<std::pair<std::string, std::string>>& members) {
    std::string out = "{";
    for (const auto& [key, value] : members) {
        if (out.size() > 1) out += ",";
        out += JsonString(key) + ":" + value;
    }
    return out + "}";
}

std::string JsonArray(const std::vector<std::string>& items) {
    std::string out = "[";
    for (const std::string& item : items) {
        if (out.size() > 1) out += ",";
        out += item;
    }
    return out + "]";
}

namespace {

// Columns are counted in characters, not bytes: names may hold any text.
size_t Width(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

}  // namespace

void PrintTable(const std::vector<std::string>& header,
                const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(header.size(), 0);
    auto measure = [&](const std::vector<std::string>& row) {
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], Width(row[i]));
    };
    measure(header);
    for (const auto& row : rows) measure(row);
    auto print = [&](const std::vector<std::string>& row) {
        std::string line;
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - Width(row[i]) + 2, ' ');
        }
        Say("%s\n", line.c_str());
    };
    print(header);
    for (const auto& row : rows) print(row);
}

const char* ToolResultName(int exitCode) {
    switch (exitCode) {
        case kExitUsage:
            return "ORQCAM_USAGE";
        case kExitNoCamera:
            return "ORQCAM_NO_CAMERA";
        case kExitTimeout:
            return "ORQCAM_TIMEOUT";
        default:
            return "ORQ_ERROR";
    }
}

Outcome Failure(int exitCode, const std::string& message, int result) {
    Warn("orqcam: %s\n", message.c_str());
    Outcome outcome;
    outcome.exit = exitCode;
    const char* name = result == kNoSdkResult ? ToolResultName(exitCode) : ResultName(result);
    outcome.json = JsonObject({{"error", JsonString(message)},
                               {"result", JsonString(name)},
                               {"exit", JsonNumber(exitCode)}});
    return outcome;
}

Outcome FailureOf(OrqResult result, const std::string& what) {
    return Failure(ExitFor(result), what + ": " + ResultName(result), result);
}

}  // namespace orqcam
