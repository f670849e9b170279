// The Exif identity of a picture (maker, model, serial, release time, focal length), written into
// a JPEG's APP1 segment with libexif. Nothing else of the file is touched: image data is never
// decoded or re-encoded, so the pixels stay exactly as the camera made them. Used by orqcam's
// rig collector on pictures from cameras and by the virtual camera on its own pictures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orq::exif {

// What is written where the file lacks it. Empty texts and zero numbers are not written.
struct Identity {
    std::string make;
    std::string model;
    std::string serial;
    // Microseconds since 1970 (UTC): DateTimeOriginal with SubSecTimeOriginal (six digits).
    int64_t timeUs = 0;
    // OffsetTimeOriginal, written only together with a DateTimeOriginal written here.
    std::string offset = "+00:00";
    // FocalLength as the rational focalHundredths / 100 mm, not reduced.
    uint32_t focalHundredths = 0;
    uint16_t focal35mm = 0;
};

// Pictures larger than this are not read (a camera's JPEG is a few megabytes).
constexpr size_t kLargestJpeg = 256u << 20;

struct Stamped {
    bool ok = false;
    bool changed = false;  // false: the file had every tag; bytes is empty, keep the original
    std::vector<uint8_t> bytes;
    std::string why;  // when not ok: why the file was refused
};

// The file with the identity's missing tags added: its Exif APP1 segment replaced where it has
// one, else a new one after SOI. A file that is not a whole JPEG (no SOI, a segment past the end,
// no scan or no EOI) or whose Exif does not parse is refused, never guessed at.
Stamped Stamp(const uint8_t* data, size_t size, const Identity& identity);

// A whole APP1 segment (marker and length included) holding only the identity, for writers that
// put a JPEG together themselves. Empty when the identity is too large for one segment.
std::vector<uint8_t> Segment(const Identity& identity);

// "YYYY:MM:DD HH:MM:SS" and the six-digit microseconds of a UTC time, as Exif writes them.
std::string DateTime(int64_t timeUs);
std::string SubSeconds(int64_t timeUs);

}  // namespace orq::exif
