// Text that came from a camera (file names, the module version, the serial number, the USB
// product string, the camera's own log), made fit for one log line: control bytes and the
// backslash become \xNN, so that it can neither break the line nor pass for an escape, and it is
// cut at a bound, "..." marking the cut. Every string from a device reaches the log as one.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Logger.h"
#include "platform/Platform.h"

namespace orq {

class CameraText {
public:
    static constexpr size_t kDefaultLimit = 256;

    // Bytes as the camera sent them, the first `limit` of them.
    explicit CameraText(std::string_view bytes, size_t limit = kDefaultLimit) {
        const bool cut = bytes.size() > limit;
        if (cut) {
            // Not inside a UTF-8 sequence.
            while (limit > 0 && (static_cast<unsigned char>(bytes[limit]) & 0xC0) == 0x80) --limit;
            bytes = bytes.substr(0, limit);
        }
        text = EscapeLogText(bytes, true);
        if (cut) text += "...";
    }
    // 16-bit text, as UTF-8.
    explicit CameraText(const std::u16string& wide, size_t limit = kDefaultLimit)
        : CameraText(platform::ToUtf8(wide.substr(0, limit)), limit) {}

    const char* c_str() const { return text.c_str(); }
    const std::string& str() const { return text; }

private:
    std::string text;
};

}  // namespace orq
