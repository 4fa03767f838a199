// The image of a model file.
#pragma once

#include <memory>
#include <string>

namespace corvalith {

/// A whole model file in memory with a read cursor. It is walked record by record, once per network that is built from
/// it; a parse rewinds the cursor first. Pointers that it hands out stay valid until the next load or clear.
class Model {
 public:
  /// Reads the file, which must be a regular one below 4 GiB. Returns 0 or -1.
  int loadModelDataFromFile(std::string const& path);
  /// Replaces the image by a copy of `size` bytes; a size below 1 leaves it empty.
  void loadModelDataFromMemory(char const* bytes, int size);
  /// Hands out the next `size` bytes. Returns -1, with `ptr` and the cursor unchanged, when fewer are left.
  int getDataPtr(unsigned int size, char const*& ptr);
  /// Rewinds the cursor; the argument is not used.
  void setOffset(int offset);
  /// What keeps the image, for one who uses pointers into it beyond the next load or clear.
  std::shared_ptr<const void> keeper() const { return data_; }
  /// Drops the image and rewinds the cursor. The mark below stays.
  void clearModelData();

  /// Whether the file is a half-precision model. Nothing in the file says so: its path does.
  bool isNbModel() const { return nbModel_; }
  void setNbModel(bool nbModel) { nbModel_ = nbModel; }

 private:
  bool nbModel_ = false;
  unsigned int offset_ = 0;
  size_t size_ = 0;
  std::shared_ptr<char> data_;

  bool allocate(size_t size);
};

}  // namespace corvalith
