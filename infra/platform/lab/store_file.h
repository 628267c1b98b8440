// One store in one SQLite file: where it lies, whether a file there is one of ours, and how it is
// opened, created and removed. Handles, cursors and the platform's functions stand on this.
//
// All of it runs under one lock (store_mutex), so connections need none of their own.
#ifndef LAB_STORE_FILE_H
#define LAB_STORE_FILE_H

#include <sqlite3.h>
#include <sys/types.h>

#include <compare>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/pss2.h"

namespace lab {

class folder_lock;

// Held by every store function for as long as it runs.
std::mutex &store_mutex();

// ---- Where a store lies ------------------------------------------------------------------------

struct store_path {
  std::string file;
  bool durable = true; // synced; volatile stores are not
};

// False for a null or malformed URI and for a name that is too long for a file.
bool parse_uri(const char *uri, store_path *path);

// Which file it is, whatever the path that led there.
struct file_id {
  dev_t device = 0;
  ino_t inode = 0;
  auto operator<=>(const file_id &) const = default;
};

// ---- Statements --------------------------------------------------------------------------------

// What a failed call on this connection means.
syserr_t status_of(sqlite3 *db);

inline std::string_view bytes_of(const pss_datum_t &datum) {
  return {datum.siz == 0 ? "" : static_cast<const char *>(datum.ptr), datum.siz};
}

// A prepared statement, kept as long as its connection.
class statement {
public:
  statement() = default;
  ~statement() { sqlite3_finalize(raw_); }
  statement(const statement &) = delete;
  statement &operator=(const statement &) = delete;
  bool prepare(sqlite3 *db, const char *sql);
  void finalize();
  sqlite3_stmt *raw() const { return raw_; }

private:
  sqlite3_stmt *raw_ = nullptr;
};

// One run of a statement. Resets it at the end of the scope, so that no read lock lingers. The
// bytes bound must outlive the run.
class run {
public:
  explicit run(const statement &of) : raw_(of.raw()) {}
  ~run() { sqlite3_reset(raw_); }
  run(const run &) = delete;
  run &operator=(const run &) = delete;

  run &bind(int place, std::string_view bytes);
  run &bind(int place, int64_t number);
  int step() { return bound_ == SQLITE_OK ? sqlite3_step(raw_) : bound_; }
  // The record of a statement that gives key, value and sum; false for one that is damaged.
  bool record(std::string_view *key, std::string_view *value) const;
  // The same for one that gives value and sum of a key that is known.
  bool value_of(std::string_view key, std::string_view *value) const;
  int64_t number(int place) const { return sqlite3_column_int64(raw_, place); }

private:
  sqlite3_stmt *raw_;
  int bound_ = SQLITE_OK;
};

// ---- An open store file ------------------------------------------------------------------------

// What the connections of this process to one file share.
struct open_file {
  unsigned users = 0;
  uint64_t generation = 0; // grows with each commit
};

class store_db {
public:
  store_db() = default;
  ~store_db() { close(); }
  store_db(const store_db &) = delete;
  store_db &operator=(const store_db &) = delete;

  // Opens a store of ours; any other file is left exactly as it is. `writable` false: reads only.
  syserr_t open(const store_path &path, bool writable);
  // A store that is still being built: no journal, no syncs.
  syserr_t open_scratch(const std::string &file);
  // An empty store in memory.
  syserr_t open_memory();
  // What was not committed is rolled back.
  void close();
  bool is_open() const { return db_ != nullptr; }
  sqlite3 *raw() const { return db_; }

  syserr_t begin();
  syserr_t begin_exclusive();
  syserr_t commit(); // on failure all is rolled back
  void rollback();
  // False when another process removed the file: the journal beside its place is another store's,
  // and the engine would take it for its own, play it back and delete it.
  bool in_place() const;
  bool in_transaction() const { return db_ != nullptr && sqlite3_get_autocommit(db_) == 0; }
  syserr_t execute(const char *sql);
  syserr_t last_status() const { return status_of(db_); }
  int changes() const { return sqlite3_changes(db_); }

  syserr_t put(std::string_view key, std::string_view value);
  syserr_t count(uint64_t *records);
  syserr_t read_params(pss2_nonvol_params *params);
  syserr_t write_params(const pss2_nonvol_params &params);
  syserr_t reload_params() { return read_params(&params_); }
  const pss2_nonvol_params &params() const { return params_; }
  // SYSERR_PSS_TOO_LARGE for a record over the store's limits.
  syserr_t check_limits(size_t key_size, size_t value_size) const;
  // The engine's whole check of the file, and that of each record.
  syserr_t check_all(uint64_t *records);
  // That of each record, and their order.
  syserr_t check_records(uint64_t *records);

  // Calls `act(key, value)` for the records from *low on (null: for all) in key order, until it
  // returns false; *ended says whether it never did. It may throw, and must not call this store.
  template <typename action>
  syserr_t visit(const std::string_view *low, const action &act, bool *ended) {
    const visitor each = {[](const void *which, std::string_view key, std::string_view value) {
                            return (*static_cast<const action *>(which))(key, value);
                          },
                          &act};
    return visit_with(low, each, ended);
  }

  // Writes the bytes of the store's file; for a connection that holds a read transaction and writes
  // nothing. Quicker than record by record, unless most of the file's pages hold none.
  syserr_t copy_file_to(int target);
  syserr_t worth_copying_file(bool *worth);

  const file_id &id() const { return id_; }
  // Grows with each commit to this file in this process; what was read before may be out of date.
  uint64_t generation() const { return shared_ == nullptr ? 0 : shared_->generation; }

  // Each gives the records' sums as well.
  statement fetch;       // value of key ?1
  statement before;      // the two records with the last keys <= ?1
  statement last;        // the last record
  statement insert;      // key ?1, value ?2, sum ?3
  statement erase;       // key ?1
  statement erase_range; // keys from ?1 to ?2

private:
  struct visitor {
    bool (*call)(const void *action, std::string_view key, std::string_view value);
    const void *action;
  };
  // The visit that is going on: a function in the statement's own condition sees each record.
  struct visit_state {
    visitor each;
    bool damaged;
    std::exception_ptr thrown;
  };

  static void see_record(sqlite3_context *context, int count, sqlite3_value **record);
  syserr_t visit_with(const std::string_view *low, const visitor &each, bool *ended);
  syserr_t connect(const std::string &file, int flags, const char *pragmas);
  syserr_t check_schema();
  syserr_t ask_integrity(bool *good);
  syserr_t check_integrity();
  syserr_t read_file(const std::function<bool(const char *bytes, size_t size)> &take);
  syserr_t prepare_all();

  sqlite3 *db_ = nullptr;
  statement all_;  // all records, each shown to see_record; a row where it ended the visit
  statement from_; // the same for those with key >= ?1
  visit_state *visit_ = nullptr;
  open_file *shared_ = nullptr;
  file_id id_;
  pss2_nonvol_params params_ = {};
};

// ---- Creating and removing ---------------------------------------------------------------------

// An empty store, there as a whole or not at all. SYSERR_PSS_EXISTS when anything stands there.
syserr_t create_store(const store_path &path, const pss2_nonvol_params &params);

// A store that is made beside its place and put there when complete.
class store_in_making {
public:
  explicit store_in_making(const store_path &path);
  ~store_in_making();
  store_in_making(const store_in_making &) = delete;
  store_in_making &operator=(const store_in_making &) = delete;

  // SYSERR_PSS_EXISTS when something stands at the place.
  syserr_t start(const pss2_nonvol_params &params);
  const std::string &scratch() const { return scratch_; }
  syserr_t place();

private:
  store_path path_;
  std::string scratch_;
  std::unique_ptr<folder_lock> lock_; // held from start() on
};

// What lies at a path: 0 for a store of ours, else the status that opening it gives.
syserr_t probe_store(const std::string &file, file_id *id);

// Whether a connection of this process is open on the file.
bool is_open_here(const file_id &id);

// Removes what can be left beside a store: its journal and a half-made successor.
void remove_leftovers(const std::string &file);

} // namespace lab

#endif
