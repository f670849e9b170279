// A 5 x 7 bitmap font for the text the virtual camera writes into its pictures and live view:
// digits, capital letters (small ones are drawn as capitals) and a few signs.
#pragma once

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

private:
    std::vector<std::string> lines;
    int scale;
    int width = 0;
    int height = 0;
};

// The widest line's length in cells, for choosing a scale.
size_t LongestLine(const std::vector<std::string>& lines);

}  // namespace orqsim
