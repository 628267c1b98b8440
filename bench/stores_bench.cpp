// What the lab's stores cost: 100,000 records of 85 bytes stored, walked by cursor and deleted,
// each beside the same work written directly against SQLite with the same settings; and what a
// step of a walk costs in stores of different sizes.
//
// Works in the folder that BENCH_DIR names (the current one otherwise), which should lie on a disk.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "direct_store.h"
#include "figure.h"
#include "lab/lab.h"

namespace {

constexpr unsigned k_records = 100'000;
constexpr int k_rounds = 7;
constexpr double k_limit = 2.0;      // at no less than half the speed
constexpr double k_size_limit = 1.5; // a step in the largest store / in the smallest
constexpr size_t k_key_size = 10;
constexpr size_t k_value_size = 75;

using bench::fail;

void need(const char *what, syserr_t status) {
  if (status != SYSERR_SUCCESS) {
    fail(what, status);
  }
}

// A folder of its own, removed at the end.
class scratch_folder {
public:
  scratch_folder() {
    const char *base = std::getenv("BENCH_DIR");
    path_ = std::filesystem::absolute(base == nullptr ? "." : base).string() + "/stores-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
      fail("cannot make a folder in BENCH_DIR", 0);
    }
  }
  ~scratch_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  scratch_folder(const scratch_folder &) = delete;
  scratch_folder &operator=(const scratch_folder &) = delete;
  std::string file(const char *name) const { return path_ + "/" + name; }
  std::string uri(const char *name) const { return "nonvolatile:" + path_ + "/" + name; }

private:
  std::string path_;
};

struct record {
  char key[k_key_size + 1];
  char value[k_value_size];
};

// Record n: keys in no order that a tree could profit from.
record make_record(unsigned n) {
  record made;
  std::snprintf(made.key, sizeof(made.key), "%010u", n * 2654435761u);
  std::memset(made.value, static_cast<int>('a' + n % 26), sizeof(made.value));
  return made;
}

pss_datum_t datum_of(void *bytes, size_t size) {
  return {bytes, static_cast<uint32>(size)};
}

// What a walk adds up, so that both sides have to touch what they read.
struct walked {
  unsigned records = 0;
  unsigned long sum = 0;
  void take(const void *key, size_t key_size, const void *value, size_t value_size) {
    ++records;
    sum += static_cast<const unsigned char *>(key)[key_size - 1];
    sum += static_cast<const unsigned char *>(value)[value_size - 1];
  }
};

void check_walk(const walked &seen, unsigned records) {
  if (seen.records != records) {
    fail("a walk saw another number of records", seen.records);
  }
}

// ---- The lab -----------------------------------------------------------------------------------

pss2_service_t open_lab(const std::string &uri) {
  syserr_t status = 0;
  const pss2_service_t service = pss2_open(uri.c_str(), 3, SRVUUID_NONE, 0, 0, &status);
  need("pss2_open", status);
  return service;
}

void lab_store(const std::string &uri, const std::vector<record> &records) {
  const pss2_service_t service = open_lab(uri);
  for (record one : records) {
    const pss_datum_t key = datum_of(one.key, k_key_size);
    const pss_datum_t value = datum_of(one.value, k_value_size);
    need("pss2_store", pss2_store(service, &key, &value));
  }
  need("pss2_close", pss2_close(service));
}

void lab_walk(const std::string &uri, unsigned records) {
  pss2_service_t service = open_lab(uri);
  walked seen;
  syserr_t status = 0;
  pss_location_t to = PSS_FIRST_KEY;
  while (pss2_move2location(&service, 1, to, &status) == SYSERR_SUCCESS &&
         status == SYSERR_SUCCESS) {
    const pss_datum_t *const key = pss2_getkey(service, &status);
    need("pss2_getkey", status);
    const pss_datum_t *const value = pss2_getvalue(service, &status);
    need("pss2_getvalue", status);
    seen.take(key->ptr, key->siz, value->ptr, value->siz);
    to = PSS_NEXT_KEY;
  }
  check_walk(seen, records);
  need("pss2_close", pss2_close(service));
}

void lab_delete(const std::string &uri, const std::vector<record> &records) {
  const pss2_service_t service = open_lab(uri);
  for (record one : records) {
    const pss_datum_t key = datum_of(one.key, k_key_size);
    need("pss2_delete", pss2_delete(service, &key, 1));
  }
  need("pss2_close", pss2_close(service));
}

// ---- The floor ---------------------------------------------------------------------------------

void direct_store(const std::string &file, const std::vector<record> &records) {
  bench::direct db(file);
  db.run("BEGIN IMMEDIATE");
  sqlite3_stmt *const put = db.prepare("INSERT OR REPLACE INTO records VALUES (?1, ?2)");
  for (const record &one : records) {
    sqlite3_bind_blob(put, 1, one.key, k_key_size, SQLITE_STATIC);
    sqlite3_bind_blob(put, 2, one.value, k_value_size, SQLITE_STATIC);
    bench::step_once(put);
  }
  db.run("COMMIT");
}

void direct_walk(const std::string &file, unsigned records) {
  bench::direct db(file);
  sqlite3_stmt *const all = db.prepare("SELECT key, value FROM records ORDER BY key");
  walked seen;
  while (sqlite3_step(all) == SQLITE_ROW) {
    const void *const key = sqlite3_column_blob(all, 0);
    const void *const value = sqlite3_column_blob(all, 1);
    seen.take(key, static_cast<size_t>(sqlite3_column_bytes(all, 0)), value,
              static_cast<size_t>(sqlite3_column_bytes(all, 1)));
  }
  check_walk(seen, records);
}

void direct_delete(const std::string &file, const std::vector<record> &records) {
  bench::direct db(file);
  db.run("BEGIN IMMEDIATE");
  sqlite3_stmt *const erase = db.prepare("DELETE FROM records WHERE key = ?1");
  for (const record &one : records) {
    sqlite3_bind_blob(erase, 1, one.key, k_key_size, SQLITE_STATIC);
    bench::step_once(erase);
  }
  db.run("COMMIT");
}

// ---- Comparing ---------------------------------------------------------------------------------

std::vector<record> make_records(unsigned count) {
  std::vector<record> records;
  records.reserve(count);
  for (unsigned n = 0; n < count; ++n) {
    records.push_back(make_record(n));
  }
  return records;
}

bool compare_phases(const scratch_folder &folder) {
  const std::vector<record> records = make_records(k_records);
  const std::string uri = folder.uri("lab");
  const std::string file = folder.file("direct");
  need("pss_create", pss_create(uri.c_str()));
  bench::direct(file).run(
      "CREATE TABLE records (key BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID");
  std::vector<double> lab[3];
  std::vector<double> floor[3];
  for (int round = 0; round < k_rounds; ++round) {
    lab[0].push_back(bench::time_of([&] { lab_store(uri, records); }) * 1e3);
    floor[0].push_back(bench::time_of([&] { direct_store(file, records); }) * 1e3);
    lab[1].push_back(bench::time_of([&] { lab_walk(uri, k_records); }) * 1e3);
    floor[1].push_back(bench::time_of([&] { direct_walk(file, k_records); }) * 1e3);
    lab[2].push_back(bench::time_of([&] { lab_delete(uri, records); }) * 1e3);
    floor[2].push_back(bench::time_of([&] { direct_delete(file, records); }) * 1e3);
  }
  const char *const names[] = {"100,000 records stored, closed / in SQLite",
                               "100,000 records walked by cursor / scanned in SQLite",
                               "100,000 records deleted, closed / in SQLite"};
  bool holds = true;
  for (int phase = 0; phase < 3; ++phase) {
    holds &= bench::print_ratio(names[phase], bench::median(lab[phase]),
                                bench::median(floor[phase]), "ms", k_limit);
  }
  return holds;
}

// Nanoseconds per record of a walk.
double walk_cost(const scratch_folder &folder, const char *name, unsigned count) {
  const std::string uri = folder.uri(name);
  need("pss_create", pss_create(uri.c_str()));
  lab_store(uri, make_records(count));
  std::vector<double> samples;
  for (int round = 0; round < k_rounds; ++round) {
    samples.push_back(bench::time_of([&] { lab_walk(uri, count); }) * 1e9 / count);
  }
  need("pss_destroy", pss_destroy(uri.c_str()));
  return bench::median(samples);
}

bool compare_sizes(const scratch_folder &folder) {
  const double smallest = walk_cost(folder, "small", 10'000);
  const double middle = walk_cost(folder, "middle", 100'000);
  const double largest = walk_cost(folder, "large", 1'000'000);
  bool holds = bench::print_ratio("a step of a walk, 100,000 records / 10,000", middle, smallest,
                                  "ns", k_size_limit);
  holds &= bench::print_ratio("a step of a walk, 1,000,000 records / 10,000", largest, smallest,
                              "ns", k_size_limit);
  return holds;
}

} // namespace

int main() {
  const scratch_folder folder;
  bench::print_header();
  const bool phases = compare_phases(folder);
  const bool sizes = compare_sizes(folder);
  return phases && sizes ? 0 : 1;
}
