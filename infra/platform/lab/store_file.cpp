#include "lab/store_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "lab/checksum.h"
#include "lab/files.h"

namespace lab {
namespace {

constexpr char k_ending[] = ".pss";
constexpr char k_journal_ending[] = "-journal";
constexpr char k_scratch_ending[] = "-new";
constexpr char k_volatile_folder[] = "/dev/shm/volatile";

// SQLite's own limit for a path is 512 bytes with the journal's ending; a file name has 255.
constexpr size_t k_longest_path = 500;
constexpr size_t k_longest_name = 255 - (sizeof(k_journal_ending) - 1);

constexpr int k_copied_at_once = 1 << 18; // bytes of a file

constexpr int k_busy_ms = 200;
constexpr int k_commit_busy_ms = 10000;

// The engine's own limit for a record. What says that it is larger is not read.
constexpr size_t k_largest_record = 1'000'000'000;

// In the header of every store file, and never to be changed: 'DMps' and the layout's version.
constexpr uint32 k_application_id = 0x444d7073;
constexpr uint32 k_layout_version = 2;

bool for_reading_only = false;

constexpr char k_records_sql[] =
    "CREATE TABLE records (key BLOB PRIMARY KEY, value BLOB NOT NULL, sum INTEGER NOT NULL) "
    "WITHOUT ROWID";
constexpr char k_params_sql[] =
    "CREATE TABLE params (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID";

// The files that are open here. Closing any descriptor of a file drops all of the process's locks
// on it, so a file that the engine has open is never opened beside it.

std::map<file_id, open_file> &open_files() {
  static std::map<file_id, open_file> &files = *new std::map<file_id, open_file>;
  return files;
}

std::string_view scheme_rest(std::string_view uri, std::string_view scheme, bool *matches) {
  *matches = uri.substr(0, scheme.size()) == scheme;
  return *matches ? uri.substr(scheme.size()) : uri;
}

// Appends P with one slash before each part. The last part is the store's name: it may be empty,
// and "." and ".." are names like others there. False for a ".." above it, which would lead out of
// the folder that the URI names.
bool append_path(std::string_view rest, std::string *file) {
  while (true) {
    const size_t slash = rest.find('/');
    const std::string_view part = rest.substr(0, slash);
    if (slash == std::string_view::npos) {
      file->append("/").append(part);
      return part.size() + sizeof(k_ending) - 1 <= k_longest_name;
    }
    if (part == "..") {
      return false;
    }
    if (!part.empty() && part != ".") {
      file->append("/").append(part);
    }
    rest.remove_prefix(slash + 1);
  }
}

uint32 big_endian(const unsigned char *bytes) {
  return static_cast<uint32>(bytes[0]) << 24 | static_cast<uint32>(bytes[1]) << 16 |
         static_cast<uint32>(bytes[2]) << 8 | static_cast<uint32>(bytes[3]);
}

// The engine's file header, by its documented offsets.
bool is_our_header(const unsigned char (&header)[100]) {
  return std::memcmp(header, "SQLite format 3", 16) == 0 && header[18] == 1 && header[19] == 1 &&
         big_endian(header + 60) == k_layout_version && big_endian(header + 68) == k_application_id;
}

syserr_t read_header(const std::string &file) {
  const unique_fd fd(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.good()) {
    return status_of_errno(errno);
  }
  unsigned char header[100];
  const ssize_t got = pread(fd.get(), header, sizeof(header), 0);
  if (got < 0) {
    return status_of_errno(errno);
  }
  return got == sizeof(header) && is_our_header(header) ? SYSERR_SUCCESS : SYSERR_PSS_DAMAGED;
}

syserr_t status_of_cantopen(int error) {
  return error == 0 ? SYSERR_PSS_IO : status_of_errno(error);
}

// The bytes of an empty store, made by the engine in memory.
syserr_t empty_store_image(const pss2_nonvol_params &params, std::vector<unsigned char> *image) {
  store_db db;
  syserr_t status = db.open_memory();
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  status = db.write_params(params);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  sqlite3_int64 size = 0;
  unsigned char *const bytes = sqlite3_serialize(db.raw(), "main", &size, 0);
  if (bytes == nullptr) {
    return SYSERR_PSS_NO_ROOM;
  }
  const std::unique_ptr<unsigned char, void (*)(void *)> owner(bytes, sqlite3_free);
  image->assign(bytes, bytes + size);
  return SYSERR_SUCCESS;
}

} // namespace

std::mutex &store_mutex() {
  static std::mutex &mutex = *new std::mutex;
  return mutex;
}

// ---- Where a store lies ------------------------------------------------------------------------

bool parse_uri(const char *uri, store_path *path) {
  if (uri == nullptr) {
    return false;
  }
  bool nonvolatile = false;
  bool is_volatile = false;
  std::string_view rest = scheme_rest(uri, "nonvolatile:", &nonvolatile);
  if (!nonvolatile) {
    rest = scheme_rest(uri, "volatile:", &is_volatile);
  }
  if (!nonvolatile && !is_volatile) {
    return false;
  }
  path->durable = nonvolatile;
  path->file = nonvolatile ? "" : k_volatile_folder;
  if (!append_path(rest, &path->file)) {
    return false;
  }
  path->file += k_ending;
  return path->file.size() <= k_longest_path;
}

syserr_t probe_store(const std::string &file, file_id *id) {
  struct stat found = {};
  if (stat(file.c_str(), &found) != 0) {
    return status_of_errno(errno);
  }
  *id = {found.st_dev, found.st_ino};
  if (!S_ISREG(found.st_mode) || found.st_size == 0) {
    return SYSERR_PSS_DAMAGED;
  }
  if (is_open_here(*id)) {
    return SYSERR_SUCCESS;
  }
  // The engine would wait at a FIFO for its writer.
  struct stat journal = {};
  if (lstat((file + k_journal_ending).c_str(), &journal) == 0 && !S_ISREG(journal.st_mode)) {
    return SYSERR_PSS_DAMAGED;
  }
  return read_header(file);
}

bool is_open_here(const file_id &id) {
  return open_files().count(id) != 0;
}

// ---- Statements --------------------------------------------------------------------------------

namespace {

// The engine takes a page that the disk does not give for a damaged one; its file knows the error
// of the last call that failed. Nobody is to remove a store for that.
bool page_was_unreadable(sqlite3 *db) {
  int error = 0;
  sqlite3_file_control(db, nullptr, SQLITE_FCNTL_LAST_ERRNO, &error);
  return error == EIO || error == ENXIO || error == ERANGE;
}

} // namespace

syserr_t status_of(sqlite3 *db) {
  const int code = sqlite3_extended_errcode(db);
  if (code == SQLITE_READONLY_DBMOVED) {
    return SYSERR_PSS_NO_STORE;
  }
  switch (code & 0xff) {
  case SQLITE_OK:
  case SQLITE_ROW:
  case SQLITE_DONE:
    return SYSERR_SUCCESS;
  case SQLITE_BUSY:
  case SQLITE_LOCKED:
    return SYSERR_PSS_BUSY;
  case SQLITE_FULL:
  case SQLITE_NOMEM:
    return SYSERR_PSS_NO_ROOM;
  case SQLITE_TOOBIG:
    return SYSERR_PSS_TOO_LARGE;
  case SQLITE_PERM:
  case SQLITE_AUTH:
  case SQLITE_READONLY:
    return SYSERR_PSS_NO_ACCESS;
  case SQLITE_CORRUPT:
    return page_was_unreadable(db) ? SYSERR_PSS_IO : SYSERR_PSS_DAMAGED;
  case SQLITE_ERROR:
  case SQLITE_NOTADB:
    return SYSERR_PSS_DAMAGED;
  case SQLITE_CANTOPEN:
    return status_of_cantopen(sqlite3_system_errno(db));
  case SQLITE_IOERR: {
    const int error = sqlite3_system_errno(db);
    const bool room = error == ENOSPC || error == EDQUOT || code == SQLITE_IOERR_NOMEM;
    return room ? SYSERR_PSS_NO_ROOM : SYSERR_PSS_IO;
  }
  default:
    return SYSERR_PSS_IO;
  }
}

bool statement::prepare(sqlite3 *db, const char *sql) {
  return sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &raw_, nullptr) == SQLITE_OK;
}

void statement::finalize() {
  sqlite3_finalize(raw_);
  raw_ = nullptr;
}

run &run::bind(int place, std::string_view bytes) {
  // A null pointer would bind NULL instead of no bytes.
  const char *const data = bytes.empty() ? "" : bytes.data();
  const int result = sqlite3_bind_blob64(raw_, place, data, bytes.size(), SQLITE_STATIC);
  bound_ = bound_ == SQLITE_OK ? result : bound_;
  return *this;
}

run &run::bind(int place, int64_t number) {
  const int result = sqlite3_bind_int64(raw_, place, number);
  bound_ = bound_ == SQLITE_OK ? result : bound_;
  return *this;
}

namespace {

// False for a value that is no bytes: no record of ours is like that.
bool bytes_in(sqlite3_value *found, std::string_view *bytes) {
  if (sqlite3_value_type(found) != SQLITE_BLOB) {
    return false;
  }
  const void *const data = sqlite3_value_blob(found);
  const int size = sqlite3_value_bytes(found);
  *bytes = size == 0 ? std::string_view("")
                     : std::string_view(static_cast<const char *>(data), static_cast<size_t>(size));
  return size == 0 || data != nullptr;
}

bool is_sum(sqlite3_value *sum, std::string_view key, std::string_view value) {
  return sqlite3_value_type(sum) == SQLITE_INTEGER &&
         sqlite3_value_int64(sum) == record_sum(key, value);
}

} // namespace

bool run::record(std::string_view *key, std::string_view *value) const {
  // Each column is taken out once: every access goes through the statement's checks again.
  return bytes_in(sqlite3_column_value(raw_, 0), key) &&
         bytes_in(sqlite3_column_value(raw_, 1), value) &&
         is_sum(sqlite3_column_value(raw_, 2), *key, *value);
}

bool run::value_of(std::string_view key, std::string_view *value) const {
  return bytes_in(sqlite3_column_value(raw_, 0), value) &&
         is_sum(sqlite3_column_value(raw_, 1), key, *value);
}

// ---- An open store file ------------------------------------------------------------------------

syserr_t store_db::connect(const std::string &file, int flags, const char *pragmas) {
  const int opened = sqlite3_open_v2(
      file.c_str(), &db_,
      flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE | SQLITE_OPEN_EXRESCODE, nullptr);
  if (db_ == nullptr) {
    return SYSERR_PSS_NO_ROOM;
  }
  if (opened != SQLITE_OK) {
    return status_of(db_);
  }
  sqlite3_busy_timeout(db_, k_busy_ms);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  if (sqlite3_create_function(db_, "see_record", 3, SQLITE_UTF8 | SQLITE_DIRECTONLY, this,
                              see_record, nullptr, nullptr) != SQLITE_OK) {
    return status_of(db_);
  }
  return execute(pragmas);
}

void stores_for_reading_only() {
  for_reading_only = true;
}

syserr_t store_db::open(const store_path &path, bool writable) {
  close();
  syserr_t status = probe_store(path.file, &id_);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  if (writable && for_reading_only) {
    return SYSERR_PSS_NO_ACCESS;
  }
  if (writable && faccessat(AT_FDCWD, path.file.c_str(), W_OK, AT_EACCESS) != 0) {
    return SYSERR_PSS_NO_ACCESS;
  }
  shared_ = &open_files()[id_];
  ++shared_->users;
  // A reader needs the right to write as well where it meets the journal of a killed writer, so it
  // asks for both and takes what it gets.
  status = connect(path.file, for_reading_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE,
                   path.durable ? "PRAGMA synchronous=EXTRA; PRAGMA temp_store=MEMORY;"
                                  "PRAGMA cache_size=-2048; PRAGMA cell_size_check=ON"
                                : "PRAGMA synchronous=OFF; PRAGMA temp_store=MEMORY;"
                                  "PRAGMA cache_size=-2048; PRAGMA cell_size_check=ON");
  status = status == SYSERR_SUCCESS ? check_schema() : status;
  status = status == SYSERR_SUCCESS ? prepare_all() : status;
  status = status == SYSERR_SUCCESS ? read_params(&params_) : status;
  if (status != SYSERR_SUCCESS) {
    close();
  }
  return status;
}

syserr_t store_db::open_scratch(const std::string &file) {
  close();
  syserr_t status = connect(file, SQLITE_OPEN_READWRITE,
                            "PRAGMA journal_mode=MEMORY; PRAGMA synchronous=OFF;"
                            "PRAGMA temp_store=MEMORY");
  status = status == SYSERR_SUCCESS ? prepare_all() : status;
  if (status != SYSERR_SUCCESS) {
    close();
  }
  return status;
}

syserr_t store_db::open_memory() {
  close();
  char header[80];
  std::snprintf(header, sizeof(header), "PRAGMA application_id=%u; PRAGMA user_version=%u",
                k_application_id, k_layout_version);
  syserr_t status = connect(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, header);
  status = status == SYSERR_SUCCESS ? execute(k_records_sql) : status;
  status = status == SYSERR_SUCCESS ? execute(k_params_sql) : status;
  if (status != SYSERR_SUCCESS) {
    close();
  }
  return status;
}

void store_db::close() {
  for (statement *kept : {&fetch, &all_, &from_, &before, &last, &insert, &erase, &erase_range}) {
    kept->finalize();
  }
  if (db_ != nullptr) {
    sqlite3_close(db_);
    db_ = nullptr;
  }
  if (shared_ != nullptr) {
    if (--shared_->users == 0) {
      open_files().erase(id_);
    }
    shared_ = nullptr;
  }
}

// Exactly our two tables: a file with a trigger, a view or another table is somebody else's.
syserr_t store_db::check_schema() {
  statement schema;
  if (!schema.prepare(db_, "SELECT count(*), total(sql IN (?1, ?2)) FROM sqlite_schema")) {
    return status_of(db_);
  }
  sqlite3_bind_text(schema.raw(), 1, k_records_sql, -1, SQLITE_STATIC);
  sqlite3_bind_text(schema.raw(), 2, k_params_sql, -1, SQLITE_STATIC);
  run reading(schema);
  if (reading.step() != SQLITE_ROW) {
    return status_of(db_);
  }
  return reading.number(0) == 2 && reading.number(1) == 2 ? SYSERR_SUCCESS : SYSERR_PSS_DAMAGED;
}

syserr_t store_db::prepare_all() {
  const struct {
    statement *place;
    const char *sql;
  } rows[] = {
      {&fetch, "SELECT value, sum FROM records WHERE key = ?1"},
      {&all_, "SELECT 1 FROM records WHERE see_record(key, value, sum) ORDER BY key"},
      {&from_, "SELECT 1 FROM records WHERE key >= ?1 AND see_record(key, value, sum) "
               "ORDER BY key"},
      {&before, "SELECT key, value, sum FROM records WHERE key <= ?1 ORDER BY key DESC LIMIT 2"},
      {&last, "SELECT key, value, sum FROM records ORDER BY key DESC LIMIT 1"},
      // What stands there already is not written again, nor its page brought to disk.
      {&insert, "INSERT INTO records (key, value, sum) VALUES (?1, ?2, ?3) ON CONFLICT (key) "
                "DO UPDATE SET value = excluded.value, sum = excluded.sum "
                "WHERE sum IS NOT excluded.sum OR value IS NOT excluded.value"},
      {&erase, "DELETE FROM records WHERE key = ?1"},
      {&erase_range, "DELETE FROM records WHERE key BETWEEN ?1 AND ?2"},
  };
  for (const auto &row : rows) {
    if (!row.place->prepare(db_, row.sql)) {
      return status_of(db_);
    }
  }
  return SYSERR_SUCCESS;
}

syserr_t store_db::execute(const char *sql) {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK ? SYSERR_SUCCESS
                                                                        : status_of(db_);
}

bool store_db::in_place() const {
  int moved = 0;
  return sqlite3_file_control(db_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK ||
         moved == 0;
}

syserr_t store_db::begin() {
  // A writer brings no page to disk before the end, as long as there is room; a reader needs few.
  return execute("PRAGMA cache_size=-131072; BEGIN IMMEDIATE");
}

syserr_t store_db::begin_exclusive() {
  return execute("BEGIN EXCLUSIVE");
}

syserr_t store_db::commit() {
  if (shared_ != nullptr && !in_place()) {
    rollback(); // the file was removed or replaced: nobody would ever see what was written
    return SYSERR_PSS_NO_STORE;
  }
  // All of the handle's records hang on this: a reader of another process is waited for longer.
  sqlite3_busy_timeout(db_, k_commit_busy_ms);
  const syserr_t status = execute("COMMIT");
  if (status != SYSERR_SUCCESS) {
    rollback();
  }
  if (shared_ != nullptr) {
    ++shared_->generation; // a commit whose last sync failed is there all the same
  }
  return status;
}

void store_db::rollback() {
  if (in_transaction()) {
    execute("ROLLBACK");
  }
}

syserr_t store_db::put(std::string_view key, std::string_view value) {
  if (key.size() + value.size() > k_largest_record) {
    return SYSERR_PSS_TOO_LARGE;
  }
  run writing(insert);
  writing.bind(1, key).bind(2, value).bind(3, record_sum(key, value));
  return writing.step() == SQLITE_DONE ? SYSERR_SUCCESS : status_of(db_);
}

syserr_t store_db::count(uint64_t *records) {
  statement counting;
  if (!counting.prepare(db_, "SELECT count(*) FROM records")) {
    return status_of(db_);
  }
  run reading(counting);
  if (reading.step() != SQLITE_ROW) {
    return status_of(db_);
  }
  *records = static_cast<uint64_t>(reading.number(0));
  return SYSERR_SUCCESS;
}

syserr_t store_db::read_params(pss2_nonvol_params *params) {
  const struct {
    const char *name;
    uint32 *value;
  } rows[] = {{"max_key_size", &params->max_key_size},
              {"max_value_size", &params->max_value_size},
              {"max_node_keys", &params->max_node_keys},
              {"version", &params->version}};
  statement reading;
  if (!reading.prepare(db_, "SELECT value FROM params WHERE name = ?1")) {
    return status_of(db_);
  }
  for (const auto &row : rows) {
    sqlite3_bind_text(reading.raw(), 1, row.name, -1, SQLITE_STATIC);
    run one(reading);
    const int stepped = one.step();
    if (stepped != SQLITE_ROW) {
      return stepped == SQLITE_DONE ? SYSERR_PSS_DAMAGED : status_of(db_);
    }
    const int64_t value = one.number(0);
    if (value < 0 || value > UINT32_MAX) {
      return SYSERR_PSS_DAMAGED;
    }
    *row.value = static_cast<uint32>(value);
  }
  return SYSERR_SUCCESS;
}

syserr_t store_db::write_params(const pss2_nonvol_params &params) {
  statement writing;
  if (!writing.prepare(db_, "INSERT OR REPLACE INTO params VALUES ('max_key_size', ?1),"
                            "('max_value_size', ?2), ('max_node_keys', ?3), ('version', ?4)")) {
    return status_of(db_);
  }
  run one(writing);
  one.bind(1, int64_t{params.max_key_size}).bind(2, int64_t{params.max_value_size});
  one.bind(3, int64_t{params.max_node_keys}).bind(4, int64_t{params.version});
  return one.step() == SQLITE_DONE ? SYSERR_SUCCESS : status_of(db_);
}

syserr_t store_db::check_limits(size_t key_size, size_t value_size) const {
  return key_size <= params_.max_key_size && value_size <= params_.max_value_size
             ? SYSERR_SUCCESS
             : SYSERR_PSS_TOO_LARGE;
}

// A page for which the engine had no memory is damage to it, too.
syserr_t store_db::ask_integrity(bool *good) {
  statement checking;
  if (!checking.prepare(db_, "PRAGMA integrity_check(1)")) {
    return status_of(db_);
  }
  run reading(checking);
  if (reading.step() != SQLITE_ROW) {
    return status_of(db_);
  }
  const unsigned char *const text = sqlite3_column_text(checking.raw(), 0);
  const std::string_view said = text == nullptr ? "" : reinterpret_cast<const char *>(text);
  *good = said == "ok";
  return said.ends_with("error code=7") ? SYSERR_PSS_NO_ROOM : SYSERR_SUCCESS; // SQLITE_NOMEM
}

// Nor is a page that could not be read damage: nobody is to remove a store for it.
syserr_t store_db::check_integrity() {
  bool good = false;
  syserr_t status = ask_integrity(&good);
  if (status != SYSERR_SUCCESS || good) {
    return status;
  }
  status = ask_integrity(&good);
  if (status == SYSERR_SUCCESS && !good) {
    status = read_file([](const char *, size_t) { return true; });
    return status == SYSERR_SUCCESS ? SYSERR_PSS_DAMAGED : status;
  }
  return SYSERR_PSS_IO;
}

syserr_t store_db::check_all(uint64_t *records) {
  const syserr_t status = check_integrity();
  return status == SYSERR_SUCCESS ? check_records(records) : status;
}

// Quicker than a row of the statement for each record.
void store_db::see_record(sqlite3_context *context, int /*count*/, sqlite3_value **record) {
  auto *const going = static_cast<store_db *>(sqlite3_user_data(context))->visit_;
  bool go_on = false;
  std::string_view key;
  std::string_view value;
  going->damaged =
      !bytes_in(record[0], &key) || !bytes_in(record[1], &value) || !is_sum(record[2], key, value);
  if (!going->damaged) {
    try {
      go_on = going->each.call(going->each.action, key, value);
    } catch (...) { // not through the engine
      going->thrown = std::current_exception();
    }
  }
  sqlite3_result_int(context, go_on ? 0 : 1);
}

syserr_t store_db::visit_with(const std::string_view *low, const visitor &each, bool *ended) {
  visit_state going = {each, false, nullptr};
  visit_ = &going;
  run reading(low == nullptr ? all_ : from_);
  if (low != nullptr) {
    reading.bind(1, *low);
  }
  const int stepped = reading.step();
  visit_ = nullptr;
  if (going.thrown) {
    std::rethrow_exception(going.thrown);
  }
  *ended = stepped == SQLITE_DONE;
  if (stepped != SQLITE_DONE && stepped != SQLITE_ROW) {
    return status_of(db_);
  }
  return going.damaged ? SYSERR_PSS_DAMAGED : SYSERR_SUCCESS;
}

syserr_t store_db::check_records(uint64_t *records) {
  *records = 0;
  std::string last_key;
  bool ended = false;
  const syserr_t status = visit(
      nullptr,
      [&](std::string_view key, std::string_view) {
        const bool in_order = *records == 0 || key > last_key;
        last_key = key;
        *records += in_order ? 1 : 0;
        return in_order;
      },
      &ended);
  return status == SYSERR_SUCCESS && !ended ? SYSERR_PSS_DAMAGED : status;
}

syserr_t store_db::worth_copying_file(bool *worth) {
  statement reading;
  if (!reading.prepare(db_, "SELECT freelist_count * 2 <= page_count "
                            "FROM pragma_freelist_count, pragma_page_count")) {
    return status_of(db_);
  }
  run one(reading);
  if (one.step() != SQLITE_ROW) {
    return status_of(db_);
  }
  *worth = one.number(0) != 0;
  return SYSERR_SUCCESS;
}

syserr_t store_db::copy_file_to(int target) {
  if (sqlite3_txn_state(db_, "main") != SQLITE_TXN_READ) {
    return SYSERR_PSS_IO; // another process could change the file meanwhile
  }
  return read_file(
      [target](const char *bytes, size_t size) { return write_all(target, bytes, size); });
}

// All of it, piece by piece; `take` may end that by false and errno.
syserr_t store_db::read_file(const std::function<bool(const char *bytes, size_t size)> &take) {
  // Through the engine's own descriptor: closing another one would drop this process's locks.
  sqlite3_file *file = nullptr;
  sqlite3_int64 size = 0;
  if (sqlite3_file_control(db_, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file->pMethods == nullptr || file->pMethods->xFileSize(file, &size) != SQLITE_OK) {
    return SYSERR_PSS_IO;
  }
  std::vector<char> piece(k_copied_at_once);
  for (sqlite3_int64 at = 0; at < size;) {
    const auto length = std::min<sqlite3_int64>(size - at, k_copied_at_once);
    if (file->pMethods->xRead(file, piece.data(), static_cast<int>(length), at) != SQLITE_OK) {
      return SYSERR_PSS_IO;
    }
    if (!take(piece.data(), static_cast<size_t>(length))) {
      return status_of_errno(errno);
    }
    at += length;
  }
  return SYSERR_SUCCESS;
}

// ---- Creating and removing ---------------------------------------------------------------------

void remove_leftovers(const std::string &file) {
  unlink((file + k_journal_ending).c_str());
  unlink((file + k_scratch_ending).c_str());
}

store_in_making::store_in_making(const store_path &path)
    : path_(path), scratch_(path.file + k_scratch_ending) {}

store_in_making::~store_in_making() {
  if (lock_ != nullptr) {
    unlink(scratch_.c_str());
  }
}

syserr_t store_in_making::start(const pss2_nonvol_params &params) {
  syserr_t status = make_parents(path_.file, path_.durable);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  auto lock = std::make_unique<folder_lock>(parent_of(path_.file));
  if (lock->status() != SYSERR_SUCCESS) {
    return lock->status();
  }
  struct stat found = {};
  if (lstat(path_.file.c_str(), &found) == 0) {
    return SYSERR_PSS_EXISTS;
  }
  lock_ = std::move(lock);
  // Nobody else makes a store here now and none stands: what lies beside its place is left from a
  // former one. A journal must not be replayed into the new store.
  remove_leftovers(path_.file);
  std::vector<unsigned char> image;
  status = empty_store_image(params, &image);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  unique_fd fd(replace_scratch(scratch_));
  if (!fd.good() || !write_all(fd.get(), image.data(), image.size()) || !fd.close_now()) {
    return status_of_errno(errno);
  }
  return SYSERR_SUCCESS;
}

syserr_t store_in_making::place() {
  if (path_.durable) {
    unique_fd fd(open(scratch_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.good() || TEMP_FAILURE_RETRY(fsync(fd.get())) != 0) {
      return status_of_errno(errno);
    }
  }
  const char *const from = scratch_.c_str();
  const char *const to = path_.file.c_str();
  // Not every file system knows the rename that never replaces; a second name does the same.
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) != 0 &&
      ((errno != EINVAL && errno != ENOSYS) || link(from, to) != 0)) {
    return status_of_errno(errno);
  }
  return path_.durable ? sync_folder(parent_of(path_.file)) : SYSERR_SUCCESS;
}

syserr_t create_store(const store_path &path, const pss2_nonvol_params &params) {
  store_in_making making(path);
  const syserr_t status = making.start(params);
  return status == SYSERR_SUCCESS ? making.place() : status;
}

} // namespace lab
