// Whole files in and out, with one clear line for what went wrong.
#pragma once

#include <string>

namespace corvalith::tools {

/// Reads a regular file below 4 GiB into `bytes`. On failure returns false with the reason in `error`.
bool readFile(const std::string& path, std::string& bytes, std::string& error);

/// FNV-1a over 64 bits, in hexadecimal. Tells versions and damage apart; no protection against forgery.
std::string hashText(const std::string& bytes);

/// A file that is written under a fresh temporary name in the folder of `path` and then takes the place of `path`,
/// which so holds the whole new file or what it held. Without commit the temporary file is removed. Functions return
/// false with the reason in `error`.
class StagedFile {
 public:
  explicit StagedFile(std::string path) : path_(std::move(path)) {}
  ~StagedFile();
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  /// Makes the temporary file, so that a place where nothing can be written shows early.
  bool open(std::string& error);
  bool write(const void* bytes, size_t size, std::string& error);
  /// Where it stands until commit; empty before open.
  const std::string& temporary() const { return temporary_; }
  bool commit(std::string& error);

 private:
  std::string path_, temporary_;
};

/// Writes a staged file and commits it.
bool writeFile(const std::string& path, const void* bytes, size_t size, std::string& error);

}  // namespace corvalith::tools
