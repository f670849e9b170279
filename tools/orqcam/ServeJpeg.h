// Live-view frames for the browser: the SDK's BMP frames as JPEG.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orqcam {

// Encodes a 24-bit uncompressed BMP file image as a JPEG of the given quality (1..100) into
// *jpeg. False, with *jpeg untouched, for anything else or a header that does not fit the size.
bool BmpToJpeg(const uint8_t* bmp, size_t size, int quality, std::string* jpeg);

}  // namespace orqcam
