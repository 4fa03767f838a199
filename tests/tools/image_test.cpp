#include "tools/common/image.h"

#include <gtest/gtest.h>
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

}  // namespace
}  // namespace corvalith::tools
