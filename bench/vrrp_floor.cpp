// One transaction per store, with the lab's settings and layout: the records of the source are read
// once, in order, and written to the target, and the moved ones are deleted by one statement per
// key type. No temporary store, and no checksum is verified.

#include "vrrp_floor.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "lab/checksum.h"
#include "vrrp_stores.h"

// A store is made in the transaction that fills it.
#define SETTINGS(db)                                                                               \
  "PRAGMA " db "synchronous=EXTRA; PRAGMA temp_store=MEMORY; PRAGMA " db "cache_size=-32768;"      \
  "PRAGMA cell_size_check=ON;"
#define MAKE_STORE(db)                                                                             \
  "PRAGMA " db "application_id=1145925747; PRAGMA " db "user_version=2;"                           \
  "CREATE TABLE " db "records (key BLOB PRIMARY KEY, value BLOB NOT NULL, sum INTEGER NOT NULL) "  \
  "WITHOUT ROWID;"                                                                                 \
  "CREATE TABLE " db "params (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"       \
  "INSERT INTO " db "params VALUES ('max_key_size', 4096), ('max_value_size', 1048576),"           \
  "('max_node_keys', 0), ('version', 1);"
#define MOVED "(key >= x'01' AND key < x'03' OR key = x'04000000')"
#define DELETE_MOVED(db)                                                                           \
  "DELETE FROM " db "records WHERE key = x'04000000';"                                             \
  "DELETE FROM " db "records WHERE key >= x'01' AND key < x'03';"

namespace bench {
namespace {

class direct {
public:
  explicit direct(const char *file) {
    const int opened = sqlite3_open_v2((std::string("/") + file).c_str(), &db_,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                           SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE,
                                       nullptr);
    if (opened != SQLITE_OK) {
      fail(file, static_cast<unsigned long>(opened));
    }
    run(SETTINGS(""));
  }
  ~direct() { sqlite3_close(db_); }
  direct(const direct &) = delete;
  direct &operator=(const direct &) = delete;

  void run(const char *sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
      fail(sql, static_cast<unsigned long>(sqlite3_errcode(db_)));
    }
  }
  sqlite3_stmt *prepare(const char *sql) {
    sqlite3_stmt *made = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr) != SQLITE_OK) {
      fail(sql, static_cast<unsigned long>(sqlite3_errcode(db_)));
    }
    return made;
  }

private:
  sqlite3 *db_ = nullptr;
};

void step_once(sqlite3_stmt *statement) {
  if (sqlite3_step(statement) != SQLITE_DONE) {
    fail("sqlite3_step", 0);
  }
  sqlite3_reset(statement);
}

// Writes each record that `select` gives of `from` to `to`, the VR records in `vr_size` bytes.
void convert(direct &from, direct &to, size_t vr_size, const char *select) {
  sqlite3_stmt *const all = from.prepare(select);
  sqlite3_stmt *const put = to.prepare("INSERT INTO records (key, value, sum) VALUES (?1, ?2, ?3)");
  char vr[new_vr_size] = {};
  int stepped = 0;
  while ((stepped = sqlite3_step(all)) == SQLITE_ROW) {
    const auto *key = static_cast<const char *>(sqlite3_column_blob(all, 0));
    const int key_size = sqlite3_column_bytes(all, 0);
    const void *value = sqlite3_column_blob(all, 1);
    int value_size = sqlite3_column_bytes(all, 1);
    int64_t sum = sqlite3_column_int64(all, 2);
    if (key[0] == 1) {
      std::memcpy(vr, value, old_vr_size);
      value = vr;
      value_size = static_cast<int>(vr_size);
      sum = lab::record_sum({key, static_cast<size_t>(key_size)}, {vr, vr_size});
    }
    sqlite3_bind_blob(put, 1, key, key_size, SQLITE_STATIC);
    sqlite3_bind_blob(put, 2, value, value_size, SQLITE_STATIC);
    sqlite3_bind_int64(put, 3, sum);
    step_once(put);
  }
  if (stepped != SQLITE_DONE) {
    fail("reading", static_cast<unsigned long>(stepped));
  }
  sqlite3_finalize(all);
  sqlite3_finalize(put);
}

} // namespace

void floor_up() {
  direct manager(manager_file);
  direct engine(engine_file);
  engine.run("BEGIN IMMEDIATE");
  engine.run(MAKE_STORE(""));
  manager.run("BEGIN IMMEDIATE");
  convert(manager, engine, new_vr_size, "SELECT key, value, sum FROM records ORDER BY key");
  engine.run("COMMIT");
  manager.run(DELETE_MOVED(""));
  manager.run("COMMIT");
}

void floor_down() {
  direct manager(manager_file);
  direct engine(engine_file);
  manager.run("BEGIN IMMEDIATE");
  engine.run("BEGIN IMMEDIATE");
  convert(engine, manager, old_vr_size,
          "SELECT key, value, sum FROM records WHERE " MOVED " ORDER BY key");
  manager.run("COMMIT");
  engine.run(DELETE_MOVED(""));
  engine.run("COMMIT");
}

#define ATTACH_ENGINE                                                                              \
  SETTINGS("")                                                                                     \
  "ATTACH 'cfg/0/bin/vrrp-eng_runtime_config.pss' AS engine;" SETTINGS("engine.")

const char sql_up[] = ATTACH_ENGINE
    "BEGIN;" MAKE_STORE("engine.") "INSERT INTO engine.records SELECT key, "
                                   "CASE substr(key, 1, 1) WHEN x'01' THEN CAST(value || "
                                   "zeroblob(32) AS BLOB) ELSE value END, "
                                   "sum FROM main.records ORDER BY key;"
                                   "COMMIT; BEGIN;" DELETE_MOVED("main.") "COMMIT";

const char sql_down[] =
    ATTACH_ENGINE "BEGIN; INSERT INTO main.records SELECT key, "
                  "CASE substr(key, 1, 1) WHEN x'01' THEN substr(value, 1, 85) ELSE value END, "
                  "sum FROM engine.records WHERE " MOVED " ORDER BY key;"
                  "COMMIT; BEGIN;" DELETE_MOVED("engine.") "COMMIT";

} // namespace bench
