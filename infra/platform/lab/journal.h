// The lab's journal, from the side of the functions that write to it.
#ifndef LAB_JOURNAL_H
#define LAB_JOURNAL_H

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace lab {

struct journal_entry {
  const char *call = "";
  std::optional<std::string_view> uri;
  std::optional<std::string_view> key;
  std::optional<std::string_view> file; // that was written, or read into the store
  bool has_sizes = false;               // old and new are written, null where empty
  std::optional<uint64_t> old_size;
  std::optional<uint64_t> new_size;
  bool has_sums = false; // of a tag table, null where empty
  std::optional<uint64_t> old_sum;
  std::optional<uint64_t> new_sum;
  bool has_counts = false;
  uint64_t added = 0;
  uint64_t changed = 0;
  uint64_t removed = 0;
  std::optional<uint32> sap;
  std::optional<uint32> table_vdc; // whose tag table it was; "vdc" is the running request's
  std::optional<uint32> uuid;
  std::optional<std::string_view> tag;
  bool has_old_tag = false; // it is written, null where empty
  std::optional<std::string> old_tag;
  uint32 status = 0;
  uint32 expected = 0; // a status beside 0 that only says that the thing was not there
};

extern std::atomic<bool> journal_is_on;
inline bool journal_on() {
  return journal_is_on.load(std::memory_order_relaxed);
}

// Counts the journals that were started: whoever remembers what stood knows by it of a new one.
uint64_t journal_number();

// One line. Nothing while the journal is off.
void journal_write(const journal_entry &entry) noexcept;

} // namespace lab

#endif
