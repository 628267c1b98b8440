#include "lab/store_handle.h"

#include <algorithm>
#include <map>
#include <new>
#include <utility>

namespace lab {
namespace {

constexpr int k_ascending = 8;       // writes in key order before the records ahead are read
constexpr int k_pause = 1000;        // writes without, where they turned out to be others
constexpr size_t k_first_ahead = 16; // records

} // namespace

store_handle::store_handle(std::string uri, store_path path, bool writable)
    : uri_(std::move(uri)), path_(std::move(path)), writable_(writable) {}

syserr_t store_handle::open() {
  const syserr_t status = db_.open(path_, writable_);
  generation_ = db_.generation();
  return status;
}

// Another process may have removed the store, and made another one in its place, as long as this
// handle holds no lock on it.
syserr_t store_handle::still_there() {
  if (!gone_ && !wrote_ && !db_.in_place()) {
    detach();
  }
  return usable();
}

syserr_t store_handle::usable() const {
  return gone_ ? SYSERR_PSS_NO_STORE : SYSERR_SUCCESS;
}

syserr_t store_handle::usable_for_writing() {
  if (gone_) {
    return SYSERR_PSS_NO_STORE;
  }
  return writable_ ? taken_back() : SYSERR_PSS_NO_ACCESS;
}

// A copy of what is left after a loss must not pass for a copy of what was written.
syserr_t store_handle::usable_for_copying() {
  const syserr_t status = still_there();
  return status == SYSERR_SUCCESS ? flush() : status;
}

syserr_t store_handle::close(bool *wrote) {
  *wrote = wrote_ || failed_ != SYSERR_SUCCESS;
  syserr_t status = flush();
  status = status == SYSERR_SUCCESS && wrote_ ? db_.commit() : status;
  db_.close();
  return status;
}

void store_handle::detach() {
  run_.clear();
  place_ = place::nowhere;
  take_back();
  db_.close();
  gone_ = true;
}

// ---- Writing -----------------------------------------------------------------------------------

syserr_t store_handle::begin_writing(bool *began) {
  const syserr_t lost = taken_back();
  if (lost != SYSERR_SUCCESS) {
    return lost;
  }
  const syserr_t there = still_there();
  if (there != SYSERR_SUCCESS) {
    return there;
  }
  *began = !wrote_;
  if (!*began) {
    return SYSERR_SUCCESS;
  }
  // Only from here on can no other process change the store.
  run_.clear();
  const syserr_t status = db_.begin();
  wrote_ = status == SYSERR_SUCCESS;
  return status;
}

syserr_t store_handle::begin_writing_many(bool *began) {
  const syserr_t status = flush();
  return status == SYSERR_SUCCESS ? begin_writing(began) : status;
}

// The engine takes a transaction back by itself when room, memory or the disk fails it, in a read
// as well: what was written is gone then, and nothing more may pass for written.
syserr_t store_handle::taken_back() {
  if (wrote_ && !db_.in_transaction() && failed_ == SYSERR_SUCCESS) {
    failed_ = SYSERR_PSS_IO;
  }
  return failed_;
}

syserr_t store_handle::after_read(syserr_t status) {
  const bool lost = status != SYSERR_SUCCESS && wrote_ && !db_.in_transaction();
  failed_ = lost && failed_ == SYSERR_SUCCESS ? status : failed_;
  return status;
}

void store_handle::take_back() {
  db_.rollback();
  wrote_ = false;
  doomed_ = 0;
}

void store_handle::wrote_many() {
  run_.clear();
}

syserr_t store_handle::failed_write(syserr_t status) {
  run_.clear();
  if (!db_.in_transaction()) {
    failed_ = status;
  }
  return status;
}

// While this handle is the store's writer its run is exact.
store_handle::known store_handle::look_up(std::string_view key, size_t *index) const {
  if (!db_.in_transaction() || !run_.covers(key)) {
    return known::nothing;
  }
  *index = run_.lower_bound(key);
  if (*index == run_.size()) {
    return run_.at_end() ? known::absent : known::nothing;
  }
  return run_.at(*index).key == key ? known::present : known::absent;
}

// Before each write: a run of the records that come next, when it is worth it. One seek then serves
// many writes.
void store_handle::look_ahead(std::string_view key) {
  ascending_ = key > last_written_ ? ascending_ + 1 : std::min(ascending_, 0);
  last_written_ = key;
  size_t index = 0;
  if (ascending_ < k_ascending || !wrote_ || look_up(key, &index) != known::nothing) {
    return;
  }
  const bool paid = 2 * ahead_met_ >= ahead_size_;
  ahead_size_ = paid ? std::clamp(2 * ahead_size_, k_first_ahead, read_ahead::k_capacity) : 0;
  ahead_met_ = 0;
  try {
    if (paid && fill(&key, key, ahead_size_, nullptr) == SYSERR_SUCCESS) {
      return;
    }
  } catch (const std::bad_alloc &) {
    run_.clear(); // the write itself needs none of it
  }
  ascending_ = -k_pause;
}

// Before a read: the engine deletes the doomed records. After a loss there are none any more.
syserr_t store_handle::erase_doomed() {
  const int count = std::exchange(doomed_, 0);
  if (count == 0 || !db_.in_transaction()) {
    return SYSERR_SUCCESS;
  }
  run deleting(db_.erase_range);
  const bool done = deleting.bind(1, doomed_first_).bind(2, doomed_last_).step() == SQLITE_DONE;
  if (!done || db_.changes() != count) {
    // They passed for deleted: nothing that this handle wrote may be kept.
    failed_ = done ? SYSERR_PSS_DAMAGED : db_.last_status();
    run_.clear();
    db_.rollback();
  }
  return failed_;
}

// Before a write.
syserr_t store_handle::flush() {
  const syserr_t lost = taken_back();
  return lost == SYSERR_SUCCESS ? erase_doomed() : lost;
}

syserr_t store_handle::count(uint64_t *records) {
  const syserr_t status = flush();
  return status == SYSERR_SUCCESS ? db_.count(records) : status;
}

syserr_t store_handle::store(std::string_view key, std::string_view value, journal_entry *entry) {
  syserr_t status = usable_for_writing();
  status = status == SYSERR_SUCCESS ? settle() : status; // a snapshot may have brought other limits
  status = status == SYSERR_SUCCESS ? db_.check_limits(key.size(), value.size()) : status;
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  look_ahead(key);
  answer old;
  const syserr_t before = journal_on() ? fetch(key, &old) : SYSERR_PSS_NOT_FOUND;
  const bool stood = before == SYSERR_SUCCESS;
  bool began = false;
  status = begin_writing(&began);
  status = status == SYSERR_SUCCESS ? write_record(key, value) : status;
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  if (stood) {
    entry->old_size = old.bytes.size();
  }
  entry->added = before == SYSERR_PSS_NOT_FOUND ? 1 : 0;
  entry->changed = entry->added == 0 && (!stood || old.bytes != value) ? 1 : 0;
  return SYSERR_SUCCESS;
}

syserr_t store_handle::write_record(std::string_view key, std::string_view value) {
  size_t index = 0;
  if (look_up(key, &index) == known::present && run_.at(index).value == value) {
    ++ahead_met_; // only this was worth knowing
    return SYSERR_SUCCESS;
  }
  syserr_t status = flush();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  status = db_.put(key, value);
  if (status != SYSERR_SUCCESS) {
    return failed_write(status);
  }
  try {
    run_.stored(key, value);
  } catch (const std::bad_alloc &) {
    run_.clear(); // the record is written; only what was read ahead is not known any more
  }
  return SYSERR_SUCCESS;
}

// Whether nothing stands between the doomed records and the one at `index`.
bool store_handle::adjoins_doomed(size_t index) const {
  return doomed_ != 0 && run_.covers(doomed_last_) && run_.at(index).key > doomed_last_ &&
         run_.lower_bound(doomed_last_) == index;
}

syserr_t store_handle::doom(size_t index) {
  if (!adjoins_doomed(index)) {
    const syserr_t status = flush();
    if (status != SYSERR_SUCCESS) {
      return status;
    }
    doomed_first_ = run_.at(index).key;
  }
  doomed_last_ = run_.at(index).key;
  ++doomed_;
  return SYSERR_SUCCESS;
}

syserr_t store_handle::erase_record(std::string_view key) {
  bool began = false;
  syserr_t status = begin_writing(&began);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  size_t index = 0;
  switch (look_up(key, &index)) {
  case known::present:
    ++ahead_met_;
    return doom(index);
  case known::absent:
    return SYSERR_PSS_NOT_FOUND;
  default:
    break;
  }
  status = flush();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  run deleting(db_.erase);
  if (deleting.bind(1, key).step() != SQLITE_DONE) {
    return failed_write(db_.last_status());
  }
  return db_.changes() == 0 ? SYSERR_PSS_NOT_FOUND : SYSERR_SUCCESS;
}

syserr_t store_handle::erase(std::string_view key, bool follow, journal_entry *entry) {
  syserr_t status = usable_for_writing();
  status = status == SYSERR_SUCCESS ? settle() : status; // the cursor may move along the run
  if (status == SYSERR_SUCCESS && key.size() <= db_.params().max_key_size) {
    look_ahead(key);
  }
  if (status == SYSERR_SUCCESS && (journal_on() || !wrote_)) {
    // A handle that deletes nothing must not become the store's writer.
    answer old;
    status = fetch(key, &old);
    if (status == SYSERR_SUCCESS) {
      entry->old_size = old.bytes.size();
    }
    status = status == SYSERR_PSS_DAMAGED ? SYSERR_SUCCESS : status; // it can be deleted
  }
  status = status == SYSERR_SUCCESS ? erase_record(key) : status;
  if (status != SYSERR_SUCCESS) {
    entry->old_size.reset();
    return status;
  }
  entry->removed = 1;
  const bool under_cursor = place_ == place::on && key_ == key;
  was_there_ = was_there_ && !under_cursor;
  run_.erased(key);
  if (follow && under_cursor) {
    try {
      next(); // the record is deleted, whatever becomes of the cursor
    } catch (const std::bad_alloc &) {
      run_.clear();
    }
  }
  return SYSERR_SUCCESS;
}

// ---- Reading -----------------------------------------------------------------------------------

syserr_t store_handle::fetch(std::string_view key, answer *value) {
  syserr_t status = usable();
  status = status == SYSERR_SUCCESS ? still_there() : status;
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  size_t index = 0;
  const known what = look_up(key, &index);
  if (what == known::present) {
    value->bytes = run_.at(index).value;
    return SYSERR_SUCCESS;
  }
  status = what == known::absent ? SYSERR_PSS_NOT_FOUND : erase_doomed();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  run reading(db_.fetch);
  const int stepped = reading.bind(1, key).step();
  if (stepped != SQLITE_ROW) {
    return stepped == SQLITE_DONE ? SYSERR_PSS_NOT_FOUND : failed_read();
  }
  std::string_view bytes;
  if (!reading.value_of(key, &bytes)) {
    return SYSERR_PSS_DAMAGED;
  }
  value->bytes = bytes;
  return SYSERR_SUCCESS;
}

syserr_t store_handle::settle() {
  syserr_t status = usable();
  if (status != SYSERR_SUCCESS || generation_ == db_.generation()) {
    return status;
  }
  run_.clear();
  was_there_ = false;
  status = still_there();
  status = status == SYSERR_SUCCESS ? after_read(db_.reload_params()) : status;
  if (status == SYSERR_SUCCESS) {
    generation_ = db_.generation();
  }
  return status;
}

// A record that was there is not met again: another process deleted it, or a damaged key led the
// engine's search astray, past records that nobody would miss.
syserr_t store_handle::confirm_absence() {
  const syserr_t status = erase_doomed();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  uint64_t records = 0;
  return after_read(db_.check_records(&records));
}

// Reads up to `count` records into a new run, which starts at `low`; from `key` on, or all when it
// is null. With `met`, the record of `key` itself is left out, and *met says whether it was there.
syserr_t store_handle::fill(const std::string_view *key, std::string_view low, size_t count,
                            bool *met) {
  run_.start(low);
  syserr_t status = still_there();
  status = status == SYSERR_SUCCESS ? erase_doomed() : status;
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  bool in_order = true;
  bool ended = false;
  status = db_.visit(
      key,
      [&](std::string_view found, std::string_view value) {
        if (met != nullptr && !*met && run_.size() == 0 && found == *key) {
          *met = true;
          return true;
        }
        in_order = run_.size() == 0 ? found >= low : found > run_.at(run_.size() - 1).key;
        return in_order && run_.append(found, value) && run_.size() < count;
      },
      &ended);
  if (status != SYSERR_SUCCESS || !in_order) {
    run_.clear();
    return status == SYSERR_SUCCESS ? SYSERR_PSS_DAMAGED : after_read(status);
  }
  if (ended) {
    run_.reached_end();
  }
  return SYSERR_SUCCESS;
}

syserr_t store_handle::step_to(size_t index) {
  key_ = run_.at(index).key; // first: it may find no memory
  run_.current = index;
  place_ = place::on;
  was_there_ = true;
  return SYSERR_SUCCESS;
}

syserr_t store_handle::at_run_end() {
  run_.current = read_ahead::k_none;
  place_ = place::past;
  return SYSERR_PSS_NOT_FOUND;
}

// The first record, or the one after the last position, from a fresh run.
syserr_t store_handle::first() {
  if (run_.covers({})) {
    return step_to(0);
  }
  window_ = 1;
  const syserr_t status = fill(nullptr, {}, window_, nullptr);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  return run_.size() == 0 ? at_run_end() : step_to(0);
}

syserr_t store_handle::next() {
  if (place_ == place::past) {
    return SYSERR_PSS_NOT_FOUND;
  }
  if (place_ != place::on) {
    return first();
  }
  const bool known = run_.current != read_ahead::k_none;
  if (known || run_.covers(key_)) {
    const size_t index = known ? run_.current + 1 : run_.upper_bound(key_);
    if (index < run_.size()) {
      return step_to(index);
    }
    if (run_.at_end()) {
      return at_run_end();
    }
  }
  // A walk that goes on gets longer runs, up to the limit: one seek then serves many steps.
  window_ = std::min(window_ * 2, read_ahead::k_capacity);
  std::string low = key_;
  low += '\0'; // the first key after key_
  const std::string_view own = key_;
  bool met = false;
  syserr_t status = fill(&own, low, window_, &met);
  status = status == SYSERR_SUCCESS && was_there_ && !met ? confirm_absence() : status;
  if (status != SYSERR_SUCCESS) {
    run_.clear();
    return status;
  }
  return run_.size() == 0 ? at_run_end() : step_to(0);
}

// One record that a statement finds, as a run of its own; `none` is the cursor's place otherwise.
syserr_t store_handle::fill_one(const statement &from, const std::string_view *key, place none) {
  syserr_t status = still_there();
  status = status == SYSERR_SUCCESS ? erase_doomed() : status;
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  window_ = 1;
  const bool expected = key != nullptr && was_there_;
  bool met = false;
  std::string found;
  std::string value;
  {
    run reading(from);
    if (key != nullptr) {
      reading.bind(1, *key);
    }
    std::string_view key_bytes;
    std::string_view value_bytes;
    int stepped = reading.step();
    if (key != nullptr && stepped == SQLITE_ROW && reading.record(&key_bytes, &value_bytes) &&
        key_bytes == *key) {
      met = true;
      stepped = reading.step();
    }
    if (stepped != SQLITE_ROW && stepped != SQLITE_DONE) {
      return failed_read();
    }
    const syserr_t absent = expected && !met ? confirm_absence() : SYSERR_SUCCESS;
    if (absent != SYSERR_SUCCESS) {
      return absent;
    }
    if (stepped == SQLITE_DONE) {
      place_ = none;
      run_.current = read_ahead::k_none;
      return SYSERR_PSS_NOT_FOUND;
    }
    if (!reading.record(&key_bytes, &value_bytes) || (key != nullptr && key_bytes >= *key)) {
      return SYSERR_PSS_DAMAGED;
    }
    found = key_bytes;
    value = value_bytes;
  }
  run_.start(found);
  run_.append(found, value);
  return step_to(0);
}

syserr_t store_handle::last() {
  return fill_one(db_.last, nullptr, place::before);
}

syserr_t store_handle::previous() {
  if (place_ == place::before) {
    return SYSERR_PSS_NOT_FOUND;
  }
  if (place_ != place::on) {
    return last();
  }
  if (run_.current != read_ahead::k_none && run_.current > 0) {
    return step_to(run_.current - 1);
  }
  const std::string_view before = key_;
  return fill_one(db_.before, &before, place::before);
}

syserr_t store_handle::move(int location) {
  if (location < PSS_NULL_KEY || location > PSS_PREVIOUS_KEY) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  const syserr_t status = settle();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  ascending_ = std::min(ascending_, 0); // the run is the cursor's
  switch (location) {
  case PSS_FIRST_KEY:
    return first();
  case PSS_LAST_KEY:
    return last();
  case PSS_NEXT_KEY:
    return next();
  case PSS_PREVIOUS_KEY:
    return previous();
  default:
    place_ = place::nowhere;
    run_.current = read_ahead::k_none;
    return SYSERR_PSS_NOT_FOUND;
  }
}

syserr_t store_handle::move_to_key(std::string_view key) {
  syserr_t status = settle();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  ascending_ = std::min(ascending_, 0);
  // No stored key is longer, so one byte more decides as well as the rest would.
  key = key.substr(0, size_t{db_.params().max_key_size} + 1);
  if (run_.covers(key)) {
    const size_t index = run_.lower_bound(key);
    if (index < run_.size()) {
      return step_to(index);
    }
    if (run_.at_end()) {
      return at_run_end();
    }
  }
  window_ = 1;
  status = fill(&key, key, window_, nullptr);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  return run_.size() == 0 ? at_run_end() : step_to(0);
}

syserr_t store_handle::here(const read_ahead::record **record) {
  const syserr_t status = settle();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  if (place_ != place::on) {
    return SYSERR_PSS_NOT_FOUND;
  }
  if (run_.current == read_ahead::k_none) {
    // Deleted by this handle, or changed by another one: the store knows.
    answer value;
    const syserr_t read = fetch(key_, &value);
    if (read != SYSERR_SUCCESS) {
      return read;
    }
    run_.start(key_);
    run_.append(key_, value.bytes);
    run_.current = 0;
  }
  *record = &run_.at(run_.current);
  return SYSERR_SUCCESS;
}

// ---- All open handles --------------------------------------------------------------------------

namespace {

struct handle_table {
  std::map<uint32, std::unique_ptr<store_handle>> handles;
  uint32 next = 1;
  uint32 recent_number = 0; // walks call many functions on one handle
  store_handle *recent = nullptr;
};

handle_table &table() {
  // Never destroyed: what a process leaves open when it ends is rolled back by the next opener.
  static handle_table &one = *new handle_table;
  return one;
}

} // namespace

uint32 handle_add(std::unique_ptr<store_handle> handle) {
  handle_table &all = table();
  const uint32 number = all.next;
  all.handles.emplace(number, std::move(handle));
  ++all.next;
  return number;
}

store_handle *handle_find(uint32 number) {
  handle_table &all = table();
  if (number != 0 && number == all.recent_number) {
    return all.recent;
  }
  const auto found = all.handles.find(number);
  if (found == all.handles.end()) {
    return nullptr;
  }
  all.recent_number = number;
  all.recent = found->second.get();
  return all.recent;
}

std::unique_ptr<store_handle> handle_take(uint32 number) {
  handle_table &all = table();
  const auto found = all.handles.find(number);
  if (found == all.handles.end()) {
    return nullptr;
  }
  all.recent_number = 0;
  std::unique_ptr<store_handle> handle = std::move(found->second);
  all.handles.erase(found);
  return handle;
}

std::vector<uint32> handle_numbers() {
  std::vector<uint32> numbers;
  for (const auto &[number, handle] : table().handles) {
    numbers.push_back(number);
  }
  return numbers;
}

std::vector<store_handle *> handles_on(const file_id &id) {
  std::vector<store_handle *> found;
  for (const auto &[number, handle] : table().handles) {
    if (handle->db().is_open() && handle->db().id() == id) {
      found.push_back(handle.get());
    }
  }
  return found;
}

} // namespace lab
