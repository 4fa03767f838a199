#include "tools/common/draw.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

namespace corvalith::tools {
namespace {

constexpr int kGlyphWidth = 5, kGlyphHeight = 7, kMargin = 1, kAdvance = kGlyphWidth + 1;

/// Seven rows of five pixels, the leftmost pixel in bit 4.
struct Glyph {
  char character;
  uint8_t rows[kGlyphHeight];
};

constexpr Glyph kFont[] = {
    {' ', {0, 0, 0, 0, 0, 0, 0}},
    {'0', {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}},
    {'1', {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e}},
    {'2', {0x0e, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1f}},
    {'3', {0x1f, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0e}},
    {'4', {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}},
    {'5', {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e}},
    {'6', {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}},
    {'7', {0x1f, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}},
    {'9', {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c}},
    {'A', {0x0e, 0x11, 0x11, 0x1f, 0x11, 0x11, 0x11}},
    {'B', {0x1e, 0x11, 0x11, 0x1e, 0x11, 0x11, 0x1e}},
    {'C', {0x0e, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0e}},
    {'D', {0x1c, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1c}},
    {'E', {0x1f, 0x10, 0x10, 0x1e, 0x10, 0x10, 0x1f}},
    {'F', {0x1f, 0x10, 0x10, 0x1e, 0x10, 0x10, 0x10}},
    {'G', {0x0e, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0f}},
    {'H', {0x11, 0x11, 0x11, 0x1f, 0x11, 0x11, 0x11}},
    {'I', {0x0e, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0e}},
    {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0c}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}},
    {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1f}},
    {'M', {0x11, 0x1b, 0x15, 0x15, 0x11, 0x11, 0x11}},
    {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0e, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0e}},
    {'P', {0x1e, 0x11, 0x11, 0x1e, 0x10, 0x10, 0x10}},
    {'Q', {0x0e, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0d}},
    {'R', {0x1e, 0x11, 0x11, 0x1e, 0x14, 0x12, 0x11}},
    {'S', {0x0f, 0x10, 0x10, 0x0e, 0x01, 0x01, 0x1e}},
    {'T', {0x1f, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0e}},
    {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0a, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0a}},
    {'X', {0x11, 0x11, 0x0a, 0x04, 0x0a, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x11, 0x0a, 0x04, 0x04, 0x04}},
    {'Z', {0x1f, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1f}},
    {'.', {0, 0, 0, 0, 0, 0x0c, 0x0c}},
    {',', {0, 0, 0, 0, 0x0c, 0x04, 0x08}},
    {':', {0, 0x0c, 0x0c, 0, 0x0c, 0x0c, 0}},
    {'-', {0, 0, 0, 0x1f, 0, 0, 0}},
    {'_', {0, 0, 0, 0, 0, 0, 0x1f}},
    {'+', {0, 0x04, 0x04, 0x1f, 0x04, 0x04, 0}},
    {'/', {0, 0x01, 0x02, 0x04, 0x08, 0x10, 0}},
    {'%', {0x18, 0x19, 0x02, 0x04, 0x08, 0x13, 0x03}},
    {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}},
    {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}},
    {'?', {0x0e, 0x11, 0x01, 0x02, 0x04, 0, 0x04}},
};

const Glyph& glyphOf(char character) {
  const char wanted = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
  const auto found =
      std::find_if(std::begin(kFont), std::end(kFont), [wanted](const Glyph& g) { return g.character == wanted; });
  return found != std::end(kFont) ? *found : kFont[std::size(kFont) - 1];
}

/// Fills the part of the rectangle that lies in the picture.
void fill(Image& image, int left, int top, int right, int bottom, const Color& color) {
  left = std::max(left, 0);
  right = std::min(right, image.width);
  for (int y = std::max(top, 0); y < std::min(bottom, image.height); ++y) {
    for (int x = left; x < right; ++x) {
      std::copy(color.begin(), color.end(), image.rgb.begin() + (static_cast<std::ptrdiff_t>(y) * image.width + x) * 3);
    }
  }
}

/// The nearest pixel border, held near the picture: coordinates may be anything, NaN included.
int border(float coordinate, int size) {
  if (!(coordinate > -1.0f)) return -1;
  return coordinate < static_cast<float>(size) ? static_cast<int>(std::lround(coordinate)) : size + 1;
}

}  // namespace

void drawBox(Image& image, const PixelBox& box, const Color& color, int thickness) {
  const int left = border(box.left, image.width), right = border(box.right, image.width);
  const int top = border(box.top, image.height), bottom = border(box.bottom, image.height);
  if (left >= right || top >= bottom) return;
  fill(image, left, top, right, std::min(top + thickness, bottom), color);
  fill(image, left, std::max(bottom - thickness, top), right, bottom, color);
  fill(image, left, top, std::min(left + thickness, right), bottom, color);
  fill(image, std::max(right - thickness, left), top, right, bottom, color);
}

int textHeight(int scale) { return (kGlyphHeight + 2 * kMargin) * scale; }

void drawText(Image& image, int x, int y, const std::string& text, const Color& ink, const Color& ground, int scale) {
  const int width = (static_cast<int>(text.size()) * kAdvance + 2 * kMargin - 1) * scale;
  x = std::max(0, std::min(x, image.width - width));
  y = std::max(0, std::min(y, image.height - textHeight(scale)));
  fill(image, x, y, x + width, y + textHeight(scale), ground);
  for (size_t i = 0; i < text.size(); ++i) {
    const Glyph& glyph = glyphOf(text[i]);
    for (int row = 0; row < kGlyphHeight; ++row) {
      for (int column = 0; column < kGlyphWidth; ++column) {
        if ((glyph.rows[row] >> (kGlyphWidth - 1 - column) & 1) == 0) continue;
        const int left = x + (kMargin + static_cast<int>(i) * kAdvance + column) * scale;
        const int top = y + (kMargin + row) * scale;
        fill(image, left, top, left + scale, top + scale, ink);
      }
    }
  }
}

bool writePng(const std::string& path, const Image& image, std::string& error) {
  png_image header;
  std::memset(&header, 0, sizeof header);
  header.version = PNG_IMAGE_VERSION;
  header.width = static_cast<png_uint_32>(image.width);
  header.height = static_cast<png_uint_32>(image.height);
  header.format = PNG_FORMAT_RGB;
  if (png_image_write_to_file(&header, path.c_str(), 0, image.rgb.data(), 0, nullptr) != 0) return true;
  error = path + ": cannot be written: " + header.message;
  return false;
}

}  // namespace corvalith::tools
