#include "tools/common/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace corvalith::tools {
namespace {

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

bool failed(const std::string& action, const std::string& path, std::string& error) {
  error = "cannot " + action + " " + path + ": " + std::strerror(errno);
  return false;
}

}  // namespace

bool readFile(const std::string& path, std::string& bytes, std::string& error) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return failed("open", path, error);
  if (!S_ISREG(info.st_mode)) {
    error = path + " is not a regular file";
    return false;
  }
  if (info.st_size > int64_t{UINT32_MAX}) {
    error = path + " is larger than 4 GiB";
    return false;
  }
  File file(std::fopen(path.c_str(), "rb"));
  if (!file) return failed("open", path, error);
  bytes.resize(static_cast<size_t>(info.st_size));
  if (std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) return failed("read", path, error);
  return true;
}

std::string hashText(const std::string& bytes) {
  uint64_t hash = 0xcbf29ce484222325;
  for (const char byte : bytes) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

StagedFile::~StagedFile() {
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

bool StagedFile::open(std::string& error) {
  struct stat info;
  if (stat(path_.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    error = path_ + " exists and is not a regular file";
    return false;
  }
  std::string name = path_ + ".XXXXXX";
  const int descriptor = mkstemp(name.data());
  if (descriptor < 0) return failed("write", path_, error);
  close(descriptor);
  temporary_ = name;
  const mode_t mask = umask(0);
  umask(mask);
  return chmod(name.c_str(), 0666 & ~mask) == 0 || failed("write", path_, error);
}

bool StagedFile::write(const void* bytes, size_t size, std::string& error) {
  File file(std::fopen(temporary_.c_str(), "wb"));
  return (file && std::fwrite(bytes, 1, size, file.get()) == size && std::fclose(file.release()) == 0) ||
         failed("write", path_, error);
}

bool StagedFile::commit(std::string& error) {
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) return failed("write", path_, error);
  temporary_.clear();
  return true;
}

bool writeFile(const std::string& path, const void* bytes, size_t size, std::string& error) {
  StagedFile file(path);
  return file.open(error) && file.write(bytes, size, error) && file.commit(error);
}

}  // namespace corvalith::tools
