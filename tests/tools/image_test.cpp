#include "tools/common/image.h"

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <png.h>

#include "tests/support/temp_dir.h"

namespace corvalith::tools {
namespace {

Image gradient() {
  Image image{2, 2, {}};
  for (int value : {0, 10, 20, 100, 110, 120, 40, 50, 60, 200, 210, 220}) {
    image.rgb.push_back(static_cast<uint8_t>(value));
  }
  return image;
}

TEST(ImageTest, KeepsPixelsAtTheirOwnSize) {
  const std::vector<float> planes = imageTensor(gradient(), 3, 2, 2, {});
  EXPECT_EQ((std::vector<float>{0, 100, 40, 200, 10, 110, 50, 210, 20, 120, 60, 220}), planes);
}

TEST(ImageTest, AppliesMeanScaleAndChannelOrderPerNetworkChannel) {
  ImageOptions options;
  options.bgr = true;
  options.mean = {20, 10, 0};
  options.scale = {0.5f, 2, 1};
  const std::vector<float> planes = imageTensor(gradient(), 3, 2, 2, options);
  EXPECT_EQ((std::vector<float>{0, 50, 20, 100, 0, 200, 80, 400, 0, 100, 40, 200}), planes);
}

TEST(ImageTest, ResizesBilinearlyAroundPixelCentres) {
  // Positions -0.25, 0.25, 0.75 and 1.25 of two pixels, held inside.
  const std::vector<float> wide = imageTensor(gradient(), 3, 2, 4, {});
  EXPECT_EQ((std::vector<float>{0, 25, 75, 100}), std::vector<float>(wide.begin(), wide.begin() + 4));
  // One output pixel is the middle of all four.
  EXPECT_FLOAT_EQ(85, imageTensor(gradient(), 3, 1, 1, {})[0]);
}

TEST(ImageTest, MakesGreyFromAllChannels) {
  EXPECT_FLOAT_EQ(0.587f * 10 + 0.114f * 20, imageTensor(gradient(), 1, 2, 2, {})[0]);
}

TEST(ImageTest, ReadsPngAndRefusesDamagedFiles) {
  testing::TempDir dir;
  const Image image = gradient();
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = png.height = 2;
  png.format = PNG_FORMAT_RGB;
  png_alloc_size_t size = 10000;
  std::vector<char> bytes(size);
  ASSERT_NE(0, png_image_write_to_memory(&png, bytes.data(), &size, 0, image.rgb.data(), 0, nullptr));
  bytes.resize(size);
  Image read;
  std::string error;
  ASSERT_TRUE(readImage(dir.write("a.png", bytes), read, error)) << error;
  EXPECT_EQ(image.rgb, read.rgb);
  for (size_t cut : {size_t{0}, size_t{4}, size_t{20}, size - 20}) {
    error.clear();
    const std::string path = dir.write("cut.png", {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut)});
    EXPECT_FALSE(readImage(path, read, error)) << cut;
    EXPECT_NE(std::string::npos, error.find("cut.png")) << error;
  }
  error.clear();
  EXPECT_FALSE(readImage(dir.write("a.jpg", {'\xff', '\xd8', '\xff', '\xe0', 'x', 'y'}), read, error));
  EXPECT_FALSE(error.empty());
}

TEST(ImageTest, ReadsJpegOfColourAndGrey) {
  for (const int components : {3, 1}) {
    jpeg_compress_struct codec;
    jpeg_error_mgr errors;
    codec.err = jpeg_std_error(&errors);
    jpeg_create_compress(&codec);
    unsigned char* data = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&codec, &data, &size);
    codec.image_width = codec.image_height = 16;
    codec.input_components = components;
    codec.in_color_space = components == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&codec);
    jpeg_start_compress(&codec, TRUE);
    std::vector<uint8_t> line(16 * 3);
    for (size_t i = 0; i < line.size(); ++i) line[i] = components == 1 ? 90 : static_cast<uint8_t>(60 + i % 3 * 60);
    for (int y = 0; y < 16; ++y) {
      JSAMPROW row = line.data();
      jpeg_write_scanlines(&codec, &row, 1);
    }
    jpeg_finish_compress(&codec);
    jpeg_destroy_compress(&codec);
    testing::TempDir dir;
    Image read;
    std::string error;
    ASSERT_TRUE(readImage(dir.write("a.jpg", {data, data + size}), read, error)) << error;
    ASSERT_EQ(16, read.width);
    const int expected[] = {components == 1 ? 90 : 60, components == 1 ? 90 : 120, components == 1 ? 90 : 180};
    for (size_t c = 0; c < 3; ++c) EXPECT_NEAR(expected[c], read.rgb.at(3 * 100 + c), 4);
    error.clear();
    EXPECT_FALSE(readImage(dir.write("b.jpg", {data, data + 30}), read, error) && error.empty());
    std::free(data);
  }
}

}  // namespace
}  // namespace corvalith::tools
