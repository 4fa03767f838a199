#include "tools/common/image.h"

#include <jpeglib.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstring>

#include "tools/common/files.h"

namespace corvalith::tools {
namespace {

constexpr uint64_t kMaxPixels = uint64_t{1} << 28;

bool tooLarge(uint64_t width, uint64_t height, std::string& error) {
  if (width > 0 && height > 0 && width <= kMaxPixels && height <= kMaxPixels / width) return false;
  error = "the picture is " + std::to_string(width) + "x" + std::to_string(height) + ", which is too large or empty";
  return true;
}

bool readPng(const std::string& bytes, Image& image, std::string& error) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&png, bytes.data(), bytes.size()) == 0) {
    error = png.message;
    return false;
  }
  if (tooLarge(png.width, png.height, error)) {
    png_image_free(&png);
    return false;
  }
  png.format = PNG_FORMAT_RGB;
  image.width = static_cast<int>(png.width);
  image.height = static_cast<int>(png.height);
  image.rgb.resize(PNG_IMAGE_SIZE(png));
  const png_color black{0, 0, 0};
  if (png_image_finish_read(&png, &black, image.rgb.data(), 0, nullptr) != 0) return true;
  error = png.message;
  return false;
}

struct JpegErrors {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void jpegFailed(j_common_ptr codec) {
  JpegErrors* errors = reinterpret_cast<JpegErrors*>(codec->err);
  (*codec->err->format_message)(codec, errors->message);
  std::longjmp(errors->jump, 1);
}

/// Everything with a destructor belongs to the caller: a longjmp passes over this function.
bool decodeJpeg(jpeg_decompress_struct& codec, JpegErrors& errors, const std::string& bytes, Image& image,
                std::string& error) {
  if (setjmp(errors.jump) != 0) return false;
  jpeg_create_decompress(&codec);
  jpeg_mem_src(&codec, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  jpeg_read_header(&codec, TRUE);
  if (tooLarge(codec.image_width, codec.image_height, error)) return false;
  codec.out_color_space = JCS_RGB;
  jpeg_start_decompress(&codec);
  image.width = static_cast<int>(codec.output_width);
  image.height = static_cast<int>(codec.output_height);
  image.rgb.resize(size_t{codec.output_width} * codec.output_height * 3);
  while (codec.output_scanline < codec.output_height) {
    JSAMPROW row = image.rgb.data() + size_t{codec.output_scanline} * codec.output_width * 3;
    jpeg_read_scanlines(&codec, &row, 1);
  }
  jpeg_finish_decompress(&codec);
  return true;
}

bool readJpeg(const std::string& bytes, Image& image, std::string& error) {
  jpeg_decompress_struct codec{};
  JpegErrors errors{};
  codec.err = jpeg_std_error(&errors.manager);
  errors.manager.error_exit = jpegFailed;
  errors.manager.output_message = [](j_common_ptr) {};
  const bool decoded = decodeJpeg(codec, errors, bytes, image, error);
  jpeg_destroy_decompress(&codec);
  if (!decoded && error.empty()) error = errors.message;
  return decoded;
}

/// For every output position the two source positions and the weight of the second.
struct Tap {
  int first, second;
  float weight;
};

std::vector<Tap> taps(int source, int size) {
  std::vector<Tap> out;
  for (int i = 0; i < size; ++i) {
    const double exact = (i + 0.5) * source / size - 0.5;
    const double held = std::min(std::max(0.0, exact), static_cast<double>(source - 1));
    const int first = static_cast<int>(held);
    out.push_back({first, std::min(first + 1, source - 1), static_cast<float>(held - first)});
  }
  return out;
}

}  // namespace

bool readImage(const std::string& path, Image& image, std::string& error) {
  std::string bytes;
  if (!readFile(path, bytes, error)) return false;
  bool read = false;
  if (bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0) {
    read = readPng(bytes, image, error);
  } else if (bytes.compare(0, 3, "\xff\xd8\xff") == 0) {
    read = readJpeg(bytes, image, error);
  } else {
    error = "neither a PNG nor a JPEG picture";
  }
  if (!read) error = path + ": " + error;
  return read;
}

std::vector<float> imageTensor(const Image& image, int channels, int height, int width, const ImageOptions& options) {
  const std::vector<Tap> rows = taps(image.height, height), columns = taps(image.width, width);
  std::vector<float> out(static_cast<size_t>(channels) * height * width);
  const auto pixel = [&image](int y, int x, int c) {
    return static_cast<float>(image.rgb[(static_cast<size_t>(y) * image.width + x) * 3 + c]);
  };
  const auto sample = [&](const Tap& y, const Tap& x, int c) {
    const float above = pixel(y.first, x.first, c) * (1 - x.weight) + pixel(y.first, x.second, c) * x.weight;
    const float below = pixel(y.second, x.first, c) * (1 - x.weight) + pixel(y.second, x.second, c) * x.weight;
    return above * (1 - y.weight) + below * y.weight;
  };
  float* to = out.data();
  for (int c = 0; c < channels; ++c) {
    const size_t channel = static_cast<size_t>(c);
    for (const Tap& y : rows) {
      for (const Tap& x : columns) {
        const float value = channels == 1
                                ? 0.299f * sample(y, x, 0) + 0.587f * sample(y, x, 1) + 0.114f * sample(y, x, 2)
                                : sample(y, x, options.bgr ? 2 - c : c);
        *to++ = (value - options.mean[channel]) * options.scale[channel];
      }
    }
  }
  return out;
}

}  // namespace corvalith::tools
