#include "net/model.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

#include "core/log.h"
#include "core/memory.h"

namespace corvalith {
namespace {

constexpr size_t kReadAtOnce = 1 << 30;  // systems read less than 2 GiB

int failToOpen(int error) {
  logError("Create model file stream error : %s", std::strerror(error));
  return -1;
}

struct File {
  explicit File(const char* path) : descriptor(open(path, O_RDONLY | O_CLOEXEC)) {}
  ~File() {
    if (descriptor >= 0) close(descriptor);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const int descriptor;  // negative where the file cannot be opened: errno says why
};

/// Reads up to `size` bytes and returns how many there were.
size_t readAll(const File& file, char* to, size_t size) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = read(file.descriptor, to + got, std::min(size - got, kReadAtOnce));
    if (n > 0) got += static_cast<size_t>(n);
    if (n == 0 || (n < 0 && errno != EINTR)) break;
  }
  return got;
}

}  // namespace

int Model::loadModelDataFromFile(std::string const& path) {
  // Asked before opening: a directory opens as an endless file, and opening a pipe may block.
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return failToOpen(errno);
  if (S_ISDIR(info.st_mode)) return failToOpen(EISDIR);
  if (!S_ISREG(info.st_mode)) return failToOpen(EINVAL);
  if (static_cast<uint64_t>(info.st_size) > std::numeric_limits<uint32_t>::max()) return failToOpen(EFBIG);
  const File file(path.c_str());
  if (file.descriptor < 0) return failToOpen(errno);
  clearModelData();
  const size_t size = static_cast<size_t>(info.st_size);
  const size_t got = allocate(size) ? readAll(file, data_.get(), size) : 0;
  if (size_ != size || got != size) {
    logDebug("error: only %zu data could be read", got);
    return -1;
  }
  logDebug("all characters read successfully.");
  return 0;
}

bool Model::allocate(size_t size) {
  std::unique_ptr<char, ReleaseBytes> bytes(static_cast<char*>(allocateBytes(std::max<size_t>(size, 1))));
  if (bytes == nullptr) return false;
  data_ = std::move(bytes);
  size_ = size;
  return true;
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
