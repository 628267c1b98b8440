// The checksum of what the lab keeps on disk: XXH3, 64 bits.
#ifndef LAB_CHECKSUM_H
#define LAB_CHECKSUM_H

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace lab {

// Over key and value; the key's is the seed of the value's, so that bytes cannot move between them.
inline int64_t record_sum(std::string_view key, std::string_view value) {
  const uint64_t of_key = XXH3_64bits(key.data(), key.size());
  return static_cast<int64_t>(XXH3_64bits_withSeed(value.data(), value.size(), of_key));
}

// Over bytes that come piece by piece.
class running_sum {
public:
  running_sum() { restart(); }
  void restart() { XXH3_64bits_reset(&state_); }
  void add(const char *bytes, size_t size) { XXH3_64bits_update(&state_, bytes, size); }
  uint64_t digest() const { return XXH3_64bits_digest(&state_); }

private:
  XXH3_state_t state_ = {};
};

} // namespace lab

#endif
