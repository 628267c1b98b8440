// An open store: one transaction, one cursor. Both generations of the platform's store functions
// are thin faces over this. Every function here is called with store_mutex() held.
#ifndef LAB_STORE_HANDLE_H
#define LAB_STORE_HANDLE_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lab/journal.h"
#include "lab/read_ahead.h"
#include "lab/store_file.h"

namespace lab {

// What a function returned stays valid until its own next call on the handle, so each function that
// returns data has a slot of its own.
enum class slot : uint8_t {
  pss_fetch,
  pss_move2key,
  pss_move2location,
  pss_getvalue,
  pss2_fetch,
  pss2_getkey,
  pss2_getvalue,
  count
};

class store_handle {
public:
  // The bytes of a returned datum, and the datum.
  struct answer {
    std::string bytes;
    pss_datum_t datum = {};
  };

  store_handle(std::string uri, store_path path, bool writable);
  syserr_t open();

  // Makes all writes durable. The handle is of no use afterwards, whatever the result. *wrote:
  // there was something to make durable, or to lose.
  syserr_t close(bool *wrote);

  syserr_t fetch(std::string_view key, answer *value);
  // Both fill in what the journal, when it is on, says of the record.
  syserr_t store(std::string_view key, std::string_view value, journal_entry *entry);
  // `follow`: deleting the record under the cursor moves the cursor onto the following one.
  syserr_t erase(std::string_view key, bool follow, journal_entry *entry);

  syserr_t move_to_key(std::string_view key);
  syserr_t move(int location);
  // The record under the cursor; SYSERR_PSS_NOT_FOUND when there is none.
  syserr_t here(const read_ahead::record **record);

  // For calls that write many records at once: the transaction is begun, and after the writes the
  // cursor's run is thrown away. *began says whether this call began it.
  syserr_t begin_writing_many(bool *began);
  void wrote_many();
  // The records as this handle sees them.
  syserr_t count(uint64_t *records);
  // After a failed write: the engine may have rolled everything back, and then the handle's earlier
  // writes are lost and nothing more may pass for written.
  syserr_t failed_write(syserr_t status);

  // Ends the transaction that this call began.
  void take_back();

  // The store was removed; what was not committed is gone with it.
  void detach();

  // After a read that gave `status`: the same, when that read made the engine take the handle's
  // writes back.
  syserr_t after_read(syserr_t status);

  // 0 when the handle can be read (written, copied as a whole).
  syserr_t usable() const;
  syserr_t usable_for_writing();
  syserr_t usable_for_copying();
  // Before the cursor or the limits are used: follows what another handle committed since.
  syserr_t settle();

  answer &slot_of(slot which) { return slots_[static_cast<size_t>(which)]; }
  store_db &db() { return db_; }
  const std::string &uri() const { return uri_; }
  const store_path &path() const { return path_; }

private:
  // Before the first record, on one (or where one was), past the last; or nowhere yet, which
  // differs from "before" in that PREVIOUS is the last record.
  enum class place : uint8_t { nowhere, before, on, past };

  // What is known of a key without asking the engine.
  enum class known : uint8_t { nothing, absent, present };

  syserr_t begin_writing(bool *began);
  known look_up(std::string_view key, size_t *index) const;
  void look_ahead(std::string_view key);
  syserr_t write_record(std::string_view key, std::string_view value);
  bool adjoins_doomed(size_t index) const;
  syserr_t doom(size_t index);
  syserr_t erase_doomed();
  syserr_t flush();
  syserr_t still_there();
  syserr_t taken_back();
  syserr_t failed_read() { return after_read(db_.last_status()); }
  syserr_t next();
  syserr_t previous();
  syserr_t first();
  syserr_t last();
  syserr_t step_to(size_t index);
  syserr_t at_run_end();
  syserr_t fill(const std::string_view *key, std::string_view low, size_t count, bool *met);
  syserr_t confirm_absence();
  syserr_t fill_one(const statement &from, const std::string_view *key, place none);
  syserr_t erase_record(std::string_view key);

  std::string uri_;
  store_path path_;
  bool writable_;
  bool gone_ = false;
  bool wrote_ = false; // in the transaction that is open, or was until the engine took it back
  syserr_t failed_ = SYSERR_SUCCESS;
  store_db db_;
  place place_ = place::nowhere;
  std::string key_;        // of the record that the cursor is on
  bool was_there_ = false; // and nobody in this process deleted it since it was read
  size_t window_ = 1;
  uint64_t generation_ = 0;
  read_ahead run_;
  // Writes that go through the store in key order have the records ahead of them read in runs too.
  std::string last_written_;
  int ascending_ = 0;     // writes in order so far; below 0 where looking ahead did not pay
  size_t ahead_size_ = 0; // of the last such run
  size_t ahead_met_ = 0;  // its records that were then deleted, or stored as they stood
  // Deleted, but not by the engine yet: all that stands from one key to another, in one go.
  std::string doomed_first_;
  std::string doomed_last_;
  int doomed_ = 0; // records
  std::array<answer, static_cast<size_t>(slot::count)> slots_;
};

// ---- All open handles --------------------------------------------------------------------------

// The number of a new handle; numbers are never used twice.
uint32 handle_add(std::unique_ptr<store_handle> handle);
store_handle *handle_find(uint32 number); // null for none
std::unique_ptr<store_handle> handle_take(uint32 number);
std::vector<uint32> handle_numbers();
// The handles on a file.
std::vector<store_handle *> handles_on(const file_id &id);

} // namespace lab

#endif
