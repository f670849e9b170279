// UTF-16 to UTF-8, shared by the SDK's POSIX layer and by orqcam. Header-only, and orqcam sees only
// this folder: it reaches the SDK through its C interface and links none of its code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orq::text {

// A lone surrogate is written as it stands, so that a name the camera got wrong still shows.
inline void AppendUtf8(uint32_t c, std::string& out) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Unit: char16_t, or the 16-bit wchar_t of Windows.
template <class Unit>
std::string Utf16ToUtf8(const Unit* text, size_t size) {
    std::string out;
    out.reserve(size);
    for (size_t i = 0; i < size; ++i) {
        uint32_t c = static_cast<uint16_t>(text[i]);
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < size) {
            const uint32_t low = static_cast<uint16_t>(text[i + 1]);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        AppendUtf8(c, out);
    }
    return out;
}

}  // namespace orq::text
