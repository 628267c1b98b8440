// A store's file used directly, with the lab's settings: what the lab's figures are held against.
#ifndef BENCH_DIRECT_STORE_H
#define BENCH_DIRECT_STORE_H

#include <sqlite3.h>

#include <string>

#include "figure.h"

#define DIRECT_SETTINGS(db)                                                                        \
  "PRAGMA " db "synchronous=EXTRA; PRAGMA temp_store=MEMORY; PRAGMA " db "cache_size=-131072;"     \
  "PRAGMA cell_size_check=ON;"

// A store is made in the transaction that fills it.
#define DIRECT_MAKE_STORE(db)                                                                      \
  "PRAGMA " db "application_id=1145925747; PRAGMA " db "user_version=2;"                           \
  "CREATE TABLE " db "records (key BLOB PRIMARY KEY, value BLOB NOT NULL, sum INTEGER NOT NULL) "  \
  "WITHOUT ROWID;"                                                                                 \
  "CREATE TABLE " db "params (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"       \
  "INSERT INTO " db "params VALUES ('max_key_size', 4096), ('max_value_size', 1048576),"           \
  "('max_node_keys', 0), ('version', 1);"

namespace bench {

class direct {
public:
  explicit direct(const std::string &file) {
    const int opened = sqlite3_open_v2(file.c_str(), &db_,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                           SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE,
                                       nullptr);
    if (opened != SQLITE_OK) {
      fail(file.c_str(), static_cast<unsigned long>(opened));
    }
    run(DIRECT_SETTINGS(""));
  }
  ~direct() {
    while (sqlite3_stmt *const left = sqlite3_next_stmt(db_, nullptr)) {
      sqlite3_finalize(left);
    }
    sqlite3_close(db_);
  }
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

inline void step_once(sqlite3_stmt *statement) {
  if (sqlite3_step(statement) != SQLITE_DONE) {
    fail("sqlite3_step", 0);
  }
  sqlite3_reset(statement);
}

} // namespace bench

#endif
