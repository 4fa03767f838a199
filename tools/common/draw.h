// Drawing on pictures, and writing them.
#pragma once

#include <array>
#include <string>

#include "tools/common/image.h"

namespace corvalith::tools {

using Color = std::array<uint8_t, 3>;  // red, green, blue

/// A box in pixels; right and bottom lie behind the last pixel. Parts outside the picture are not drawn.
struct PixelBox {
  float left, top, right, bottom;
};

/// Frames the box with lines of `thickness` pixels that lie inside it.
void drawBox(Image& image, const PixelBox& box, const Color& color, int thickness);

/// Writes text in a fixed font of capitals (others are shown as capitals or '?'), on a filled ground. (x, y) is the
/// upper left corner of the ground, moved where the text would leave the picture; `scale` is the size of a font pixel.
void drawText(Image& image, int x, int y, const std::string& text, const Color& ink, const Color& ground, int scale);

/// Height of the ground that drawText fills.
int textHeight(int scale);

bool writePng(const std::string& path, const Image& image, std::string& error);

}  // namespace corvalith::tools
