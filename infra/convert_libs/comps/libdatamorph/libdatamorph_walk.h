// What walks over stores share: the cursor's steps, keys that outlive the call that gave them, and
// a guard against walks in circles.
#ifndef LIBDATAMORPH_WALK_H
#define LIBDATAMORPH_WALK_H

#include <cstdlib>
#include <cstring>

#include "platform/pss2.h"

inline bool datamorph_is_readable(const pss_datum_t *datum) {
  return datum != nullptr && datum->ptr != nullptr;
}

// Moves the cursor of a store. Whether it stands on a record then, as far as the call tells; false
// leaves the call's own status and the location's in the two.
inline bool datamorph_move_cursor(pss2_service_t *store, pss_location_t location,
                                  syserr_t *call_status, syserr_t *location_status) {
  *location_status = SYSERR_SUCCESS;
  *call_status = pss2_move2location(store, 1, location, location_status);
  return *call_status == SYSERR_SUCCESS && *location_status != SYSERR_PSS_NOT_FOUND;
}

// A key kept beyond the call that gave it. Keys of the usual sizes need no memory of their own.
class datamorph_kept_key {
public:
  datamorph_kept_key() = default;
  ~datamorph_kept_key() { free(large_); }
  datamorph_kept_key(const datamorph_kept_key &) = delete;
  datamorph_kept_key &operator=(const datamorph_kept_key &) = delete;

  // False when there is no memory for it; the former key is kept then.
  bool keep(const pss_datum_t &key) {
    if (key.siz > capacity_) {
      auto *larger = static_cast<uint8 *>(realloc(large_, key.siz));
      if (larger == nullptr) {
        return false;
      }
      large_ = larger;
      capacity_ = key.siz;
    }
    size_ = key.siz;
    memcpy(bytes(), key.ptr, size_);
    return true;
  }

  bool equals(const pss_datum_t &key) const {
    return size_ == key.siz && memcmp(bytes(), key.ptr, size_) == 0;
  }

  // In the order of keys: a prefix comes before its extensions.
  bool is_before(const pss_datum_t &key) const {
    const uint32 common = size_ < key.siz ? size_ : key.siz;
    const int order = memcmp(bytes(), key.ptr, common);
    return order != 0 ? order < 0 : size_ < key.siz;
  }

private:
  uint8 *bytes() { return large_ != nullptr ? large_ : small_; }
  const uint8 *bytes() const { return large_ != nullptr ? large_ : small_; }

  uint8 small_[64] = {};
  uint8 *large_ = nullptr;
  uint32 capacity_ = sizeof small_;
  uint32 size_ = 0;
};

// Notices a walk that goes in circles, whatever their length: a key is held against one that was
// met before, which is changed for a later one at growing distances. A walk over a store meets no
// key twice.
class datamorph_circle_guard {
public:
  bool has_met(const pss_datum_t &key) {
    if (holds_one_ && met_.equals(key)) {
      return true;
    }
    if (++steps_ >= distance_) {
      holds_one_ = met_.keep(key) || holds_one_;
      distance_ *= 2;
      steps_ = 0;
    }
    return false;
  }

private:
  datamorph_kept_key met_;
  bool holds_one_ = false;
  uint64 steps_ = 0;
  uint64 distance_ = 1;
};

#endif
