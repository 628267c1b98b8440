// Takes a fuzzer's bytes apart into the values that a target needs. When they run out, zeros
// follow.
#ifndef TESTS_FUZZ_BYTES_SOURCE_H
#define TESTS_FUZZ_BYTES_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <string>

class bytes_source {
public:
  bytes_source(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  bool is_empty() const { return size_ == 0; }
  uint8_t byte() {
    if (size_ == 0) {
      return 0;
    }
    --size_;
    return *data_++;
  }
  // At most this many bytes.
  std::string bytes(size_t most) {
    const size_t count = most < size_ ? most : size_;
    std::string taken(reinterpret_cast<const char *>(data_), count);
    data_ += count;
    size_ -= count;
    return taken;
  }
  // A text of a length of its own, without zero bytes inside.
  std::string text() {
    const std::string taken = bytes(byte());
    return taken.c_str();
  }
  std::string rest() { return bytes(size_); }

private:
  const uint8_t *data_;
  size_t size_;
};

#endif
