// Bounded reading of the records of a model file.
#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <vector>

namespace corvalith {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are little-endian and are copied as they are");

/// Copies `n` bytes from `src` + `*offset` to `dst` and advances the offset. Checks nothing; RecordReader does.
inline void memcpyWithOffsetUpdate(char const* src, void* dst, size_t n, size_t* offset) {
  if (n > 0) std::memcpy(dst, src + *offset, n);
  *offset += n;
}

/// Takes the successive parts of one record apart and never leaves it. Does not own the bytes.
class RecordReader {
 public:
  RecordReader(char const* data, size_t size) : data_(data), size_(size) {}

  size_t remaining() const { return size_ - offset_; }
  char const* cursor() const { return data_ + offset_; }

  /// Copies the next `n` bytes; false, with nothing copied, when the record has fewer left.
  [[nodiscard]] bool read(void* dst, size_t n) {
    if (n > remaining()) return false;
    memcpyWithOffsetUpdate(data_, dst, n, &offset_);
    return true;
  }

  template <class Record>
  [[nodiscard]] bool read(Record& record) {
    static_assert(std::is_trivially_copyable<Record>::value, "records are plain structs");
    return read(&record, sizeof record);
  }

  /// Copies the next `count` floats; false when `count` is negative or the record has fewer left.
  [[nodiscard]] bool readFloats(int count, std::vector<float>& out) {
    if (count < 0 || static_cast<size_t>(count) > remaining() / sizeof(float)) return false;
    out.resize(static_cast<size_t>(count));
    return read(out.data(), out.size() * sizeof(float));
  }

 private:
  char const* data_;
  size_t size_;
  size_t offset_ = 0;
};

}  // namespace corvalith
