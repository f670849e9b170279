// Little-endian words in byte buffers, and the narrowings the camera's data needs: a value to one
// byte, a 16-bit text to the low byte of each unit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orq::bytes {

inline void PutLe16(uint8_t* p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value);
    p[1] = static_cast<uint8_t>(value >> 8);
}

inline void PutLe32(uint8_t* p, uint32_t value) {
    PutLe16(p, value);
    PutLe16(p + 2, value >> 16);
}

inline uint16_t GetLe16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

inline uint32_t GetLe32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Saturates to 0 .. 255.
constexpr uint8_t ClampToByte(int32_t value) {
    return static_cast<uint8_t>(value < 0 ? 0 : (value > 255 ? 255 : value));
}

// The low byte of each unit, up to the first zero unit or the limit: enough for ASCII names in
// the log, which is all the camera's text is used for there.
template <class Unit>
std::string LowBytes(const Unit* text, size_t limit) {
    std::string out;
    for (size_t i = 0; i < limit && text[i]; ++i) out += static_cast<char>(text[i] & 0xFF);
    return out;
}

}  // namespace orq::bytes
