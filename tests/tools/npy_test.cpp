#include "tools/common/npy.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/temp_dir.h"

namespace corvalith::tools {
namespace {

/// A version 1.0 file with this header text.
std::string withHeader(const std::string& header, size_t dataBytes, char version = 1) {
  std::string bytes = "\x93NUMPY";
  bytes += version;
  bytes += '\0';
  bytes += static_cast<char>(header.size());
  bytes += static_cast<char>(header.size() >> 8);
  if (version == 2) bytes += std::string(2, '\0');
  return bytes + header + std::string(dataBytes, '\0');
}

TEST(NpyTest, RoundTripsOneToFourDimensions) {
  for (const std::vector<int>& shape : {std::vector<int>{5}, {2, 3}, {1, 4, 2}, {2, 1, 3, 2}, {0, 3}}) {
    Npy written{shape, {}}, read;
    size_t count = 1;
    for (int size : shape) count *= static_cast<size_t>(size);
    for (size_t i = 0; i < count; ++i) written.data.push_back(static_cast<float>(i) - 1.5f);
    testing::TempDir dir;
    std::string error;
    ASSERT_TRUE(writeNpy(dir.file("a.npy"), written, error)) << error;
    ASSERT_TRUE(readNpy(dir.file("a.npy"), read, error)) << error;
    EXPECT_EQ(shape, read.shape);
    EXPECT_EQ(written.data, read.data);
    EXPECT_EQ(0u, (npyBytes(written).size() - count * sizeof(float)) % 64) << "data are aligned";
  }
}

TEST(NpyTest, ReadsVersionTwoAndOtherSpacing) {
  Npy read;
  std::string error;
  EXPECT_TRUE(parseNpy(withHeader("{'shape':(2,3),'fortran_order':False,'descr':'<f4'}", 24, 2), read, error)) << error;
  EXPECT_EQ((std::vector<int>{2, 3}), read.shape);
}

TEST(NpyTest, RefusesWhatItCannotHoldAndSaysWhy) {
  struct Case {
    std::string bytes, reason;
  };
  const Case cases[] = {
      {"PNG", "not a .npy file"},
      {withHeader("{'descr': '<f8', 'fortran_order': False, 'shape': (2,), }", 16), "'<f8'"},
      {withHeader("{'descr': '>f4', 'fortran_order': False, 'shape': (2,), }", 8), "'>f4'"},
      {withHeader("{'descr': '<f4', 'fortran_order': True, 'shape': (2,), }", 8), "Fortran"},
      {withHeader("{'descr': '<f4', 'fortran_order': False, 'shape': (), }", 4), "0 dimensions"},
      {withHeader("{'descr': '<f4', 'fortran_order': False, 'shape': (1, 1, 1, 1, 1), }", 4), "5 dimensions"},
      {withHeader("{'descr': '<f4', 'fortran_order': False, 'shape': (-2,), }", 8), "shape"},
      {withHeader("{'descr': '<f4', 'fortran_order': False, 'shape': (65536, 65536, 65536, 2), }", 8), "shape"},
      {withHeader("{'descr': '<f4', 'fortran_order': False, 'shape': (3,), }", 8), "needs 12"},
      {withHeader("{'descr': '<f4', 'fortran_order': False, 'shape': (2", 8), "shape"},
      {withHeader("{'descr'", 0), "element type"},
      {withHeader("", 0, 3), "version 3"},
      {withHeader(std::string(200, ' '), 0).substr(0, 60), "cut off"},
  };
  for (const Case& c : cases) {
    Npy read;
    std::string error;
    EXPECT_FALSE(parseNpy(c.bytes, read, error)) << c.reason;
    EXPECT_NE(std::string::npos, error.find(c.reason)) << error;
  }
  Npy read;
  std::string error;
  EXPECT_FALSE(readNpy("/nonexistent/a.npy", read, error));
  EXPECT_NE(std::string::npos, error.find("/nonexistent/a.npy")) << error;
}

TEST(NpyTest, EveryCutOffFileIsRefused) {
  const std::string whole = npyBytes({{2, 2}, {1, 2, 3, 4}});
  for (size_t size = 0; size < whole.size(); ++size) {
    Npy read;
    std::string error;
    EXPECT_FALSE(parseNpy(whole.substr(0, size), read, error)) << size;
    EXPECT_FALSE(error.empty()) << size;
  }
}

}  // namespace
}  // namespace corvalith::tools
