// What registering a global snapshot database costs beside 10,000 registered ones, on the lab
// platform: its time beside the same files and stores written by direct calls of the stores' engine
// and of the system.
//
// Works in a root file system below TMPDIR (/tmp otherwise), which should lie on a disk.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
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
#include "support/switch_root.h"

namespace {

constexpr unsigned k_registered = 10'000;
constexpr int k_rounds = 15;
constexpr double k_limit = 2.0; // at no less than half the speed

constexpr char k_path[] = "/isan/conv";
constexpr char k_new_uri[] = "volatile:/dev/shm/new_gldb";
constexpr char k_meta_store[] = "dev/shm/volatile/isan/conv/globalpss_table.pss";
constexpr char k_new_store[] = "dev/shm/volatile/isan/conv/new_gldb.pss";
constexpr char k_meta_file[] = "/isan/conv/globalpss_table.snp";
constexpr char k_new_file[] = "/isan/conv/new_gldb.snp";
constexpr char k_prepared[] = "/prepared.snp";

void need(const char *what, syserr_t status) {
  if (status != SYSERR_SUCCESS) {
    bench::fail(what, status);
  }
}

void need(const char *what, bool done) {
  if (!done) {
    bench::fail(what, static_cast<unsigned long>(errno));
  }
}

// ---- The library -------------------------------------------------------------------------------

int nowhere = -1; // where the library's lines on standard error go

void add_by_library() {
  dup2(nowhere, STDERR_FILENO);
  need("datamorph_gsdb_add", datamorph_gsdb_add(k_path, k_new_uri, 7, SRVUUID_SVI, 1));
}

// ---- The floor ---------------------------------------------------------------------------------

// The flat file's layout: infra/platform/lab/flat_file.h.
constexpr char k_mark[] = "LABFLAT\n\2\0\0";
constexpr size_t k_mark_size = 12;

template <typename integer> void append(std::string *bytes, integer value) {
  bytes->append(reinterpret_cast<const char *>(&value), sizeof(value));
}

template <typename integer> integer take(const char *&at) {
  integer value = 0;
  std::memcpy(&value, at, sizeof(value));
  at += sizeof(value);
  return value;
}

class filled_store {
public:
  explicit filled_store(const char *file) : file_(std::string("/") + file), store_(file_) {
    store_.run("PRAGMA synchronous=OFF; BEGIN IMMEDIATE;" DIRECT_MAKE_STORE(""));
    put_ = store_.prepare("INSERT INTO records (key, value, sum) VALUES (?1, ?2, ?3)");
  }
  ~filled_store() {
    sqlite3_finalize(put_);
    unlink(file_.c_str());
  }
  filled_store(const filled_store &) = delete;
  filled_store &operator=(const filled_store &) = delete;

  void put(const char *key, size_t key_size, const char *value, size_t value_size) {
    sqlite3_bind_blob(put_, 1, key, static_cast<int>(key_size), SQLITE_STATIC);
    sqlite3_bind_blob(put_, 2, value, static_cast<int>(value_size), SQLITE_STATIC);
    sqlite3_bind_int64(put_, 3, lab::record_sum({key, key_size}, {value, value_size}));
    bench::step_once(put_);
  }
  void load(const std::string &flat) {
    const char *at = flat.data() + k_mark_size;
    for (auto left = take<uint64_t>(at); left > 0; --left) {
      const auto key_size = take<uint32_t>(at);
      const auto value_size = take<uint32_t>(at);
      put(at, key_size, at + key_size, value_size);
      at += key_size + value_size;
    }
  }
  std::string flat() {
    std::string bytes(k_mark, k_mark_size);
    append(&bytes, uint64_t{0});
    uint64_t records = 0;
    sqlite3_stmt *const all = store_.prepare("SELECT key, value FROM records ORDER BY key");
    for (; sqlite3_step(all) == SQLITE_ROW; ++records) {
      const int key_size = sqlite3_column_bytes(all, 0);
      const int value_size = sqlite3_column_bytes(all, 1);
      append(&bytes, static_cast<uint32_t>(key_size));
      append(&bytes, static_cast<uint32_t>(value_size));
      bytes.append(static_cast<const char *>(sqlite3_column_blob(all, 0)),
                   static_cast<size_t>(key_size));
      bytes.append(static_cast<const char *>(sqlite3_column_blob(all, 1)),
                   static_cast<size_t>(value_size));
    }
    sqlite3_finalize(all);
    std::memcpy(bytes.data() + k_mark_size, &records, sizeof(records));
    lab::running_sum sum;
    sum.add(bytes.data(), bytes.size());
    append(&bytes, sum.digest());
    return bytes;
  }
  void commit() { store_.run("COMMIT"); }

private:
  std::string file_;
  bench::direct store_;
  sqlite3_stmt *put_ = nullptr;
};

// Beside its place, then there, on disk.
void write_durably(const char *file, const std::string &bytes) {
  const std::string beside = std::string(file) + "-new";
  const int fd = open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  need("write", write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  need("fsync", fsync(fd) == 0);
  close(fd);
  need("rename", rename(beside.c_str(), file) == 0);
  const int folder = open(k_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  need("fsync of a folder", fsync(folder) == 0);
  close(folder);
}

// One transaction for each store. No checksum is verified, nothing is traced.
void add_directly() {
  {
    filled_store meta(k_meta_store);
    meta.load(switch_root::read_file(k_meta_file));
    const uint32_t value[] = {7, SRVUUID_SVI, 1};
    meta.put(k_new_uri, sizeof(k_new_uri), reinterpret_cast<const char *>(value), sizeof(value));
    write_durably(k_meta_file, meta.flat());
    meta.commit();
  }
  filled_store added(k_new_store);
  write_durably(k_new_file, added.flat());
  added.commit();
}

// ---- Comparing ---------------------------------------------------------------------------------

void prepare() {
  std::filesystem::create_directories(k_path);
  std::filesystem::create_directories("/dev/shm/volatile/isan/conv");
  syserr_t status = SYSERR_SUCCESS;
  const pss2_service_t table = pss2_open("volatile:/table", 19, SRVUUID_NONE, 0, 0, &status);
  need("pss2_open", status);
  for (unsigned n = 0; n < k_registered; ++n) {
    std::string uri = "volatile:/dev/shm/database_" + std::to_string(100'000 + n);
    uint32_t record[] = {0xFF00000C, n, n % 4};
    const pss_datum_t key = {uri.data(), static_cast<uint32>(uri.size() + 1)};
    const pss_datum_t value = {record, sizeof(record)};
    need("pss2_store", pss2_store(table, &key, &value));
  }
  need("pss2_kernel2file", pss2_kernel2file(table, k_prepared, 0));
  need("pss2_close", pss2_close(table));
  need("pss2_destroy", pss2_destroy("volatile:/table"));
}

bench::spent measure(void (*add)()) {
  bench::copy_durably(k_prepared, k_meta_file);
  std::filesystem::remove(k_new_file);
  return bench::in_child(add);
}

void check_end_states() {
  std::string files[2];
  int side = 0;
  for (void (*add)() : {add_by_library, add_directly}) {
    measure(add);
    files[side++] = switch_root::read_file(k_meta_file) + switch_root::read_file(k_new_file);
    if (std::filesystem::exists(std::string("/") + k_meta_store) ||
        std::filesystem::exists(std::string("/") + k_new_store)) {
      bench::fail("a store is left", 0);
    }
  }
  if (files[0] != files[1] || files[0].size() < k_registered * size_t{50}) {
    bench::fail("the floor's files are others", 0);
  }
}

int run(int /*argc*/, char ** /*argv*/) {
  bench::in_child(prepare);
  check_end_states();
  std::vector<double> library;
  std::vector<double> floor;
  for (int round = 0; round < k_rounds; ++round) {
    library.push_back(measure(add_by_library).seconds * 1e3);
    floor.push_back(measure(add_directly).seconds * 1e3);
  }
  bench::print_header();
  return bench::print_ratio("snapshot database beside 10,000 / in SQLite", bench::median(library),
                            bench::median(floor), "ms", k_limit)
             ? 0
             : 1;
}

} // namespace

int main(int argc, char **argv) {
  nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  return switch_root::run_inside(argc, argv, run);
}
