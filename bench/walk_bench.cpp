// What the port manager's walk across 4.2(0) costs on the lab platform: 1,000,000 runtime records
// whose reasons are all rewritten, and 1,000,000 configuration records that are all deleted. Their
// time beside the same end state reached by direct calls of the stores' engine, time per record
// beside that in a small store, and memory beside that of a small store.
//
// Works in a root file system below TMPDIR (/tmp otherwise), which should lie on a disk.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "child.h"
#include "direct_store.h"
#include "durable_copy.h"
#include "figure.h"
#include "lab/checksum.h"
#include "lab/lab.h"
#include "libdatamorph.h"
#include "port_records.h"
#include "support/switch_root.h"

namespace {

constexpr unsigned k_few = 1'000;
constexpr unsigned k_some = 100'000;
constexpr unsigned k_records = 1'000'000;
constexpr unsigned k_read_at_once = 1'024;
constexpr int k_rounds = 5;
constexpr double k_limit = 2.0;        // at no less than half the speed
constexpr double k_growth_limit = 1.2; // a record in the large store / in one of a tenth
constexpr double k_memory_limit = 8.0; // MiB more than with few records

struct kind {
  const char *name;
  const char *uri;
  const char *file; // from the root without its slash
  bench::port_record (*make)(unsigned n);
  void (*floor)();
};

void need(const char *what, syserr_t status) {
  if (status != SYSERR_SUCCESS) {
    bench::fail(what, status);
  }
}

// ---- The floors --------------------------------------------------------------------------------

struct read_record {
  std::string key;
  std::string value;
};

char renumbered(char reason) {
  for (const auto &row : bench::reasons) {
    if (row.old_reason == reason) {
      return row.new_reason;
    }
  }
  return reason;
}

// The next records after the last one read, in the slots.
size_t read_some(sqlite3_stmt *select, std::vector<read_record> *slots) {
  std::string after = slots->back().key;
  sqlite3_bind_blob(select, 1, after.data(), static_cast<int>(after.size()), SQLITE_STATIC);
  size_t count = 0;
  while (count < slots->size() && sqlite3_step(select) == SQLITE_ROW) {
    read_record &to = (*slots)[count++];
    to.key.assign(static_cast<const char *>(sqlite3_column_blob(select, 0)),
                  static_cast<size_t>(sqlite3_column_bytes(select, 0)));
    to.value.assign(static_cast<const char *>(sqlite3_column_blob(select, 1)),
                    static_cast<size_t>(sqlite3_column_bytes(select, 1)));
  }
  sqlite3_reset(select);
  return count;
}

void write_renumbered(sqlite3_stmt *update, read_record *record) {
  record->value[bench::reason_at] = renumbered(record->value[bench::reason_at]);
  sqlite3_bind_blob(update, 1, record->key.data(), static_cast<int>(record->key.size()),
                    SQLITE_STATIC);
  sqlite3_bind_blob(update, 2, record->value.data(), static_cast<int>(record->value.size()),
                    SQLITE_STATIC);
  sqlite3_bind_int64(update, 3, lab::record_sum(record->key, record->value));
  bench::step_once(update);
}

// Reads the records in order, a run at a time, and updates each. No checksum is verified.
void floor_rewrite() {
  bench::direct store("/cfg/0/ethpm_runtime_info.pss");
  store.run("BEGIN IMMEDIATE");
  sqlite3_stmt *const select =
      store.prepare("SELECT key, value FROM records WHERE key > ?1 ORDER BY key");
  sqlite3_stmt *const update =
      store.prepare("UPDATE records SET value = ?2, sum = ?3 WHERE key = ?1");
  std::vector<read_record> slots(k_read_at_once);
  size_t count = slots.size();
  while (count == slots.size()) {
    count = read_some(select, &slots);
    for (size_t i = 0; i < count; ++i) {
      write_renumbered(update, &slots[i]);
    }
  }
  sqlite3_finalize(select);
  sqlite3_finalize(update);
  store.run("COMMIT");
}

// One statement for all records of the two subtypes.
void floor_delete() {
  bench::direct store("/cfg/0/ethpm_runtime_cfg.pss");
  store.run("BEGIN IMMEDIATE");
  sqlite3_stmt *const erase =
      store.prepare("DELETE FROM records WHERE key >= x'6514' AND key < x'6516'");
  bench::step_once(erase);
  sqlite3_finalize(erase);
  store.run("COMMIT");
}

constexpr kind k_kinds[] = {
    {"runtime records rewritten", "nonvolatile:/cfg/0/ethpm_runtime_info",
     "cfg/0/ethpm_runtime_info.pss", bench::make_runtime, floor_rewrite},
    {"configuration records deleted", "nonvolatile:/cfg/0/ethpm_runtime_cfg",
     "cfg/0/ethpm_runtime_cfg.pss", bench::make_configuration, floor_delete},
};

// ---- The switch --------------------------------------------------------------------------------

std::filesystem::path file_of(const kind &which) {
  return std::filesystem::path("/") / which.file;
}

std::filesystem::path aside(const kind &which, unsigned records) {
  return "/aside-" + std::to_string(records) + "/" + file_of(which).filename().string();
}

void prepare(const kind &which, unsigned records) {
  need("pss_create", pss_create(which.uri));
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(which.uri, &status);
  need("pss_open", status);
  for (unsigned n = 0; n < records; ++n) {
    bench::port_record made = which.make(n);
    const pss_datum_t key = {made.key.data(), static_cast<uint32>(made.key.size())};
    const pss_datum_t value = {made.value.data(), static_cast<uint32>(made.value.size())};
    need("pss_store", pss_store(store, 0, &key, &value));
  }
  need("pss_close", pss_close(store));
  bench::copy_durably(file_of(which), aside(which, records));
  need("pss_destroy", pss_destroy(which.uri));
}

int nowhere = -1; // where the conversion's lines on standard error go

void convert() {
  dup2(nowhere, STDERR_FILENO);
  need("the conversion", ethpm_data_morph_gsync("/cfg/0", "system", "4.2(1)", "4.1(5)"));
}

double engine_memory() {
  return static_cast<double>(sqlite3_memory_highwater(0));
}

template <typename work_t>
bench::spent measure(const kind &which, unsigned records, const work_t &work) {
  bench::copy_durably(aside(which, records), file_of(which));
  return bench::in_child(work, engine_memory);
}

void write_contents(const kind &which, const char *to) {
  std::string text;
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(which.uri, &status);
  need("pss_open", status);
  const pss_datum_t *key = pss_move2location(store, PSS_FIRST_KEY, &status);
  while (status == SYSERR_SUCCESS) {
    text.append(static_cast<const char *>(key->ptr), key->siz);
    const pss_datum_t *const value = pss_getvalue(store, &status);
    need("pss_getvalue", status);
    text.append(static_cast<const char *>(value->ptr), value->siz).append("\n");
    key = pss_move2location(store, PSS_NEXT_KEY, &status);
  }
  need("the end of a walk", status == SYSERR_PSS_NOT_FOUND ? SYSERR_SUCCESS : status);
  need("pss_close", pss_close(store));
  switch_root::write_file(to, text);
}

// Both ways reach the same end, which is another one than the start.
void check_end_states(const kind &which) {
  const auto contents_after = [&](void (*work)(), const char *to) {
    measure(which, k_records, work);
    bench::in_child([&] { write_contents(which, to); });
  };
  contents_after([] {}, "/start");
  contents_after(convert, "/converted");
  contents_after(which.floor, "/floor");
  bench::in_child([] {
    const std::string converted = switch_root::read_file("/converted");
    if (converted != switch_root::read_file("/floor") ||
        converted == switch_root::read_file("/start")) {
      bench::fail("the floor's end state is another one", 0);
    }
  });
}

// ---- Figures -----------------------------------------------------------------------------------

double nanoseconds(const bench::spent &once, unsigned records) {
  return once.seconds * 1e9 / records;
}

bool show(const kind &which) {
  check_end_states(which);
  std::vector<double> converting;
  std::vector<double> floor;
  std::vector<double> small;
  double beyond = 0; // MiB, but the engine's
  double beyond_few = 0;
  const auto own = [](const bench::spent &once) { return (once.bytes - once.note) / 1048576; };
  for (int round = 0; round < k_rounds; ++round) {
    const bench::spent once = measure(which, k_records, convert);
    converting.push_back(nanoseconds(once, k_records));
    beyond = std::max(beyond, own(once));
    floor.push_back(nanoseconds(measure(which, k_records, which.floor), k_records));
    small.push_back(nanoseconds(measure(which, k_some, convert), k_some));
    beyond_few = std::max(beyond_few, own(measure(which, k_few, convert)));
  }
  const double per_record = bench::median(converting);
  const double per_record_floor = bench::median(floor);
  const std::string name = "1,000,000 " + std::string(which.name);
  bool holds = bench::print_ratio((name + ", each / in SQLite").c_str(), per_record,
                                  per_record_floor, "ns", k_limit);
  bench::print_stated((name + ", a second").c_str(), 1e6 / per_record, 1e6 / per_record_floor, "k");
  holds &= bench::print_ratio(("each of 1,000,000 / of 100,000 " + std::string(which.name)).c_str(),
                              per_record, bench::median(small), "ns", k_growth_limit);
  holds &= bench::print_ratio((name + ", memory over 1,000's / 8 MiB").c_str(), beyond - beyond_few,
                              k_memory_limit, "MB", 1);
  return holds;
}

int run(int /*argc*/, char ** /*argv*/) {
  bench::print_header();
  bool holds = true;
  for (const kind &which : k_kinds) {
    for (const unsigned records : {k_few, k_some, k_records}) {
      bench::in_child([&] { prepare(which, records); });
    }
    holds &= show(which);
    std::filesystem::remove(file_of(which));
  }
  return holds ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  return switch_root::run_inside(argc, argv, run);
}
