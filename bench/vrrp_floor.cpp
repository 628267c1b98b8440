// One transaction per store, with the lab's settings and layout: the records of the source are read
// once, in order, and written to the target, and the moved ones are deleted by one statement per
// key type. No temporary store, and no checksum is verified.

#include "vrrp_floor.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "direct_store.h"
#include "lab/checksum.h"
#include "vrrp_stores.h"

#define MOVED "(key >= x'01' AND key < x'03' OR key = x'04000000')"
#define DELETE_MOVED(db)                                                                           \
  "DELETE FROM " db "records WHERE key = x'04000000';"                                             \
  "DELETE FROM " db "records WHERE key >= x'01' AND key < x'03';"

namespace bench {
namespace {

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
  direct manager(std::string("/") + manager_file);
  direct engine(std::string("/") + engine_file);
  engine.run("BEGIN IMMEDIATE");
  engine.run(DIRECT_MAKE_STORE(""));
  manager.run("BEGIN IMMEDIATE");
  convert(manager, engine, new_vr_size, "SELECT key, value, sum FROM records ORDER BY key");
  engine.run("COMMIT");
  manager.run(DELETE_MOVED(""));
  manager.run("COMMIT");
}

void floor_down() {
  direct manager(std::string("/") + manager_file);
  direct engine(std::string("/") + engine_file);
  manager.run("BEGIN IMMEDIATE");
  engine.run("BEGIN IMMEDIATE");
  convert(engine, manager, old_vr_size,
          "SELECT key, value, sum FROM records WHERE " MOVED " ORDER BY key");
  manager.run("COMMIT");
  engine.run(DELETE_MOVED(""));
  engine.run("COMMIT");
}

#define ATTACH_ENGINE                                                                              \
  DIRECT_SETTINGS("")                                                                              \
  "ATTACH 'cfg/0/bin/vrrp-eng_runtime_config.pss' AS engine;" DIRECT_SETTINGS("engine.")

const char sql_up[] = ATTACH_ENGINE
    "BEGIN;" DIRECT_MAKE_STORE("engine.") "INSERT INTO engine.records SELECT key, "
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
