// A directory that lives as long as the object.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace corvalith::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "corvalith_XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }
  /// Writes a file and gives its path.
  std::string write(const std::string& name, const std::vector<char>& bytes) const {
    std::ofstream(file(name), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return file(name);
  }

 private:
  std::filesystem::path path_;
};

}  // namespace corvalith::testing
