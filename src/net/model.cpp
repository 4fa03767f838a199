#include "net/model.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>

#include "core/log.h"
#include "core/memory.h"

namespace corvalith {
namespace {

int failToOpen(int error) {
  logError("Create model file stream error : %s", std::strerror(error));
  return -1;
}

}  // namespace

int Model::loadModelDataFromFile(std::string const& path) {
  // Asked before opening: a directory opens as an endless file, and opening a pipe may block.
  struct stat info;
  if (stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return failToOpen(EISDIR);
    if (!S_ISREG(info.st_mode)) return failToOpen(EINVAL);
    if (static_cast<uint64_t>(info.st_size) > std::numeric_limits<uint32_t>::max()) return failToOpen(EFBIG);
  }
  errno = 0;
  std::ifstream in(path);
  if (!in) return failToOpen(errno);
  in.seekg(0, std::ios::end);
  const std::streamoff end = in.tellg();
  in.seekg(0, std::ios::beg);
  clearModelData();
  const size_t size = end < 0 ? 0 : static_cast<size_t>(end);
  if (size > std::numeric_limits<uint32_t>::max()) return failToOpen(EFBIG);
  size_t got = 0;
  if (allocate(size)) {
    in.read(data_.get(), static_cast<std::streamsize>(size));
    got = static_cast<size_t>(in.gcount());
  }
  if (size_ != size || got != size) {
    logDebug("error: only %zu data could be read", got);
    return -1;
  }
  logDebug("all characters read successfully.");
  return 0;
}

bool Model::allocate(size_t size) {
  data_.reset(static_cast<char*>(allocateBytes(std::max<size_t>(size, 1))));
  if (data_ != nullptr) size_ = size;
  return data_ != nullptr;
}

void Model::loadModelDataFromMemory(char const* bytes, int size) {
  clearModelData();
  if (size >= 1 && allocate(static_cast<size_t>(size))) std::memcpy(data_.get(), bytes, size_);
}

int Model::getDataPtr(unsigned int size, char const*& ptr) {
  const uint64_t remaining = static_cast<uint64_t>(size_) - offset_;
  if (remaining < size) return fail("unmatched requested memory size");
  ptr = data_.get() + offset_;
  offset_ += size;
  return 0;
}

void Model::setOffset(int) { offset_ = 0; }

void Model::clearModelData() {
  offset_ = 0;
  size_ = 0;
  data_.reset();
}

}  // namespace corvalith
