// Bounded reading of the records of a model file.
#pragma once

#include <cstddef>
#include <cstdint>
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

  /// The next `count` floats: in place, or as a copy in `spare` where the record does not keep them aligned. Null when
  /// `count` is negative or the record has fewer left. Stays valid as long as the record and `spare` do.
  [[nodiscard]] const float* takeFloats(int count, std::vector<float>& spare) {
    if (count < 0 || static_cast<size_t>(count) > remaining() / sizeof(float)) return nullptr;
    const size_t bytes = static_cast<size_t>(count) * sizeof(float);
    if (reinterpret_cast<uintptr_t>(cursor()) % alignof(float) == 0) {
      const float* inPlace = reinterpret_cast<const float*>(cursor());
      offset_ += bytes;
      return inPlace;
    }
    spare.resize(static_cast<size_t>(count) + 1);  // never empty: its address must not be null
    memcpyWithOffsetUpdate(data_, spare.data(), bytes, &offset_);
    return spare.data();
  }

 private:
  char const* data_;
  size_t size_;
  size_t offset_ = 0;
};

}  // namespace corvalith
