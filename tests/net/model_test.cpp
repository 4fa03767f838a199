#include "net/model.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith {
namespace {

using corvalith::testing::LogCapture;
using corvalith::testing::TempDir;

constexpr const char* kReadAll = "D/all characters read successfully.";

std::string openFailure(int error) { return std::string("E/Create model file stream error : ") + std::strerror(error); }

TEST(Model, HandsOutItsBytesInOrder) {
  LogCapture log;
  const char bytes[] = {1, 2, 3, 4, 5};
  Model model;
  model.loadModelDataFromMemory(bytes, 5);
  char const* ptr = nullptr;
  ASSERT_EQ(model.getDataPtr(2, ptr), 0);
  EXPECT_EQ(*ptr, 1);
  char const* const before = ptr;
  EXPECT_EQ(model.getDataPtr(4, ptr), -1);
  EXPECT_EQ(model.getDataPtr(4294967295u, ptr), -1);
  EXPECT_EQ(ptr, before);
  EXPECT_EQ(log.take(), (std::vector<std::string>(2, "E/unmatched requested memory size")));
  ASSERT_EQ(model.getDataPtr(3, ptr), 0);  // the cursor had not moved; exactly what is left
  EXPECT_EQ(*ptr, 3);
  EXPECT_EQ(model.getDataPtr(0, ptr), 0);
  EXPECT_EQ(model.getDataPtr(1, ptr), -1);
  model.setOffset(3);  // any argument rewinds
  ASSERT_EQ(model.getDataPtr(1, ptr), 0);
  EXPECT_EQ(*ptr, 1);
}

TEST(Model, ASecondLoadReplacesTheImage) {
  const TempDir dir;
  const std::string path = dir.write("model", {7, 8, 9});
  Model model;
  EXPECT_FALSE(model.isNbModel());
  model.setNbModel(true);
  char const* ptr = nullptr;
  const char bytes[] = {1, 2};
  LogCapture log;
  for (int round = 0; round < 2; ++round) {
    model.loadModelDataFromMemory(bytes, 2);
    EXPECT_EQ(model.getDataPtr(2, ptr), 0);
    EXPECT_EQ(*ptr, 1);
    EXPECT_EQ(model.loadModelDataFromFile(path), 0);
    EXPECT_EQ(model.getDataPtr(3, ptr), 0);
    EXPECT_EQ(*ptr, 7);
    EXPECT_EQ(model.getDataPtr(1, ptr), -1);
  }
  for (const int size : {0, -1, -2147483647 - 1}) {
    model.loadModelDataFromMemory(nullptr, size);
    EXPECT_EQ(model.getDataPtr(1, ptr), -1);
  }
  model.loadModelDataFromMemory(bytes, 2);
  model.clearModelData();
  EXPECT_EQ(model.getDataPtr(1, ptr), -1);
  EXPECT_TRUE(model.isNbModel());
}

TEST(Model, ReadsEmptyFiles) {
  const TempDir dir;
  LogCapture log;
  Model model;
  EXPECT_EQ(model.loadModelDataFromFile(dir.write("empty", {})), 0);
  EXPECT_EQ(log.lines(), std::vector<std::string>{kReadAll});
  char const* ptr = nullptr;
  EXPECT_EQ(model.getDataPtr(0, ptr), 0);
  EXPECT_EQ(model.getDataPtr(1, ptr), -1);
}

TEST(Model, RefusesWhatIsNoReadableFileWithoutOpeningIt) {
  const TempDir dir;
  LogCapture log;
  Model model;
  EXPECT_EQ(model.loadModelDataFromFile(dir.file("missing")), -1);
  EXPECT_EQ(model.loadModelDataFromFile(""), -1);
  EXPECT_EQ(log.take(), (std::vector<std::string>(2, openFailure(ENOENT))));

  EXPECT_EQ(model.loadModelDataFromFile(dir.file("")), -1);
  EXPECT_EQ(log.take(), std::vector<std::string>{openFailure(EISDIR)});

  ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
  ASSERT_EQ(symlink("pipe", dir.file("link").c_str()), 0);
  alarm(20);  // opening a pipe that nobody writes would never return
  EXPECT_EQ(model.loadModelDataFromFile(dir.file("pipe")), -1);
  EXPECT_EQ(model.loadModelDataFromFile(dir.file("link")), -1);
  EXPECT_EQ(model.loadModelDataFromFile("/dev/zero"), -1);
  alarm(0);
  EXPECT_EQ(log.take(), (std::vector<std::string>(3, openFailure(EINVAL))));

  if (geteuid() != 0) {  // root may read everything
    const std::string secret = dir.write("secret", {1});
    ASSERT_EQ(chmod(secret.c_str(), 0), 0);
    EXPECT_EQ(model.loadModelDataFromFile(secret), -1);
    EXPECT_EQ(log.take(), std::vector<std::string>{openFailure(EACCES)});
  }
}

TEST(Model, RefusesFilesThatItsCursorCannotAddress) {
  const TempDir dir;
  const std::string path = dir.write("huge", {1});
  if (truncate(path.c_str(), off_t{1} << 32) != 0) GTEST_SKIP() << "no sparse files here";
  LogCapture log;
  Model model;
  EXPECT_EQ(model.loadModelDataFromFile(path), -1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{openFailure(EFBIG)});
}

}  // namespace
}  // namespace corvalith
