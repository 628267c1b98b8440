// The records around a cursor, read from the store a run at a time.
//
// It holds an unbroken run of the store's records in key order: every record from low() up to the
// last one held, and when at_end() is set every record from low() on. The handle's own writes are
// made here too, so the run stays exact; whoever changes the store otherwise clears it.
#ifndef LAB_READ_AHEAD_H
#define LAB_READ_AHEAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

class read_ahead {
public:
  static constexpr size_t k_capacity = 1024;     // records
  static constexpr size_t k_byte_limit = 262144; // a run ends at the record that reaches it
  static constexpr size_t k_none = SIZE_MAX;

  struct record {
    std::string key;
    std::string value;
  };

  void clear();
  // Starts a new run at the first key that can be in it.
  void start(std::string_view low);
  // Adds the record that follows in the store. False when the run is full with it.
  bool append(std::string_view key, std::string_view value);
  void reached_end() { at_end_ = true; }
  bool at_end() const { return at_end_; }

  size_t size() const { return order_.size(); }
  const record &at(size_t index) const { return slots_[order_[index]]; }

  // Whether the run tells what stands at and after `key` (as far as it goes).
  bool covers(std::string_view key) const { return !order_.empty() && key >= low_; }
  // The first record at or after `key`; size() when that is past the run.
  size_t lower_bound(std::string_view key) const;
  // The first record after `key`.
  size_t upper_bound(std::string_view key) const;

  // What the handle did to the store.
  void stored(std::string_view key, std::string_view value);
  void erased(std::string_view key);

  // Where the cursor's record is in the run; k_none when it is not there. Kept by the edits.
  size_t current = k_none;

private:
  void insert(size_t index, std::string_view key, std::string_view value);
  void remove(size_t index);
  uint16_t fill_slot(std::string_view key, std::string_view value);

  std::string low_;
  bool at_end_ = false;
  size_t bytes_ = 0;
  std::vector<record> slots_;   // their memory is used again and again
  std::vector<uint16_t> order_; // slots in key order
  std::vector<uint16_t> free_;
  mutable size_t near_ = 0; // where the last look-up ended; the next one mostly ends beside it
};

} // namespace lab

#endif
