// A 5 x 7 bitmap font for the text the virtual camera writes into its pictures and live view:
// digits, capital letters (small ones are drawn as capitals) and a few signs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orqsim {

// Lines of text laid out at an integer scale: each glyph is 5 x 7 font pixels in a 6 x 9 cell,
// and a font pixel is `scale` x `scale` picture pixels.
class TextBlock {
public:
    TextBlock(std::vector<std::string> lines, int scale);
    int Width() const { return width; }
    int Height() const { return height; }
    int Scale() const { return scale; }
    // Whether the picture pixel (x, y), relative to the block's top left, is ink.
    bool Ink(int x, int y) const;
    // Ink of pixels x0 .. x0 + 15 of row y as bits, bit 15 for x0: a tile's row in one call.
    uint16_t InkRow(int x0, int y) const;

private:
    std::vector<std::string> lines;
    int scale;
    int width = 0;
    int height = 0;
    // Per pixel column: the cell (-1 in the gap between glyphs) and the glyph's bit; per pixel
    // row: the line (-1 between lines) and the glyph's row. Glyph rows per line and cell.
    std::vector<int16_t> cellOfX, bitOfX, lineOfY, rowOfY;
    std::vector<std::vector<const uint8_t*>> glyphs;
};

// The widest line's length in cells, for choosing a scale.
size_t LongestLine(const std::vector<std::string>& lines);

}  // namespace orqsim
