// Pictures as network inputs.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace corvalith::tools {

/// Rows of interleaved red, green and blue bytes.
struct Image {
  int width = 0, height = 0;
  std::vector<uint8_t> rgb;
};

/// How pixels become input values: channel c of the network gets (pixel - mean[c]) * scale[c].
struct ImageOptions {
  std::array<float, 3> mean{0, 0, 0};  // in the order of the network's channels, of values from 0 to 255
  std::array<float, 3> scale{1, 1, 1};
  bool bgr = false;  // the network's first channel is blue
};

/// Reads a PNG or JPEG file, told apart by its first bytes. Transparent pixels are drawn on black.
bool readImage(const std::string& path, Image& image, std::string& error);

/// The picture as channels x height x width floats. It is resized bilinearly, without regard to its proportions: output
/// pixel i samples the source at (i + 0.5) * source / size - 0.5, held inside the picture, with no smoothing before.
/// `channels` is 3, or 1 for the luminance (0.299 R + 0.587 G + 0.114 B; then mean and scale 0 count).
std::vector<float> imageTensor(const Image& image, int channels, int height, int width, const ImageOptions& options);

}  // namespace corvalith::tools
