// Store files: a good one of which the input changes bytes, cuts or adds some, or any bytes. Every
// call of the lab's store interface is made on it, and the library's routines are run over it.
// Whatever comes, a call gives a status, and a record that is given is one that was stored.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "fuzz/bytes_source.h"
#include "fuzz/finding.h"
#include "fuzz/quick_engine.h"
#include "fuzz/quiet_files.h"
#include "fuzz/switch_folder.h"
#include "lab/lab.h"
#include "libdatamorph.h"

namespace {

// Where the file is put: the places of which the routines know.
const char *const k_uris[] = {"nonvolatile:/cfg/pixm_runtime_info",
                              "nonvolatile:/cfg/ethpm_runtime_info",
                              "nonvolatile:/cfg/bin/vrrp-cfg_config_sav",
                              "nonvolatile:/cfg/bin/vrrp-eng_runtime_config",
                              "nonvolatile:/tmp/vrrp-startup-pss",
                              "nonvolatile:/cfg/bin/sysmgr_config",
                              "volatile:/cfg/globalpss_table",
                              "volatile:/cfg/plugin_debug"};
constexpr char k_copy[] = "volatile:/copy";
constexpr char k_flat_file[] = "/tmp/flat";
// What the calls on one input may cost together: one that makes more of them shows little that two
// inputs would not.
constexpr int k_calls_cost = 12;

struct routine {
  syserr_t (*run)(const char *path, const char *pkg_name, const char *to, const char *from);
  const char *to;
  const char *from;
};
constexpr routine k_routines[] = {
    {pixm_data_morph_gsync, "4.0(4)", "4.2(3)"},
    {ethpm_data_morph_gsync, "4.2(1)", "4.1(5)"},
    {ethpm_data_morph_gsync, "4.1(5)", "4.2(1)"},
    {vrrp_mgr_data_morph_startup_for_upgrade, "4.2(1)", "4.1(5)"},
    {vrrp_eng_data_morph_startup_for_upgrade, "4.2(1)", "4.1(5)"},
    {vrrp_eng_data_morph_startup_for_downgrade, "4.1(5)", "4.2(1)"},
    {vrrp_mgr_data_morph_startup_for_downgrade, "4.1(5)", "4.2(1)"},
    {psshlpr_data_morph_gsync, "4.2(1)", "4.1(5)"},
    {plugin_data_morph_running_fs_upg, "3.3(1)", "4.1(5)"},
};

// ---- The good file -----------------------------------------------------------------------------

using records_t = std::map<std::string, std::string>;

std::string text(const char *bytes, size_t size) {
  return {bytes, size};
}

// Records that every routine finds something to do with, and enough for a tree of several pages.
records_t good_records() {
  records_t all = {{text("\x36\0\0\x10\xda\0\1", 7),
                    text("\x14\0\0\0\1\0\1\0\2\0\x08\0\x11\0\0\0\xfd\0\0\0", 20)},
                   {text("\x3a\0\0\0\0\0\1", 7), "cache"},
                   {text("\x33\x06\x1a\0\0\1", 6), text("\1\0\x10\0ninebytes\x8frest", 18)},
                   {text("\x65\x14\x1a\0\0\1", 6), "config"},
                   {text("\4\0\0\0", 4), std::string(21, '\1')},
                   {text("\1\0\0\0\1\x0a\x1a\0\0\0", 10), text("\0\0\0\x1a\x0a\1\0\0\0", 9)},
                   {"", "of the empty key"},
                   {"empty", ""}};
  all[text("\2\0\0\0\1\x0a\x1a\0\0\0", 10) + std::string(16, 'a')] =
      text("\0\0\0\x1a\x0a\1\0\0\0", 9) + std::string(24, 'a');
  for (int i = 0; i < 30; ++i) {
    all["key-" + std::to_string(i)] = std::string(static_cast<size_t>(i) * 11, 'v');
  }
  all["long"] = std::string(9000, 'l');
  return all;
}

pss_datum_t datum(const std::string &bytes) {
  return {const_cast<char *>(bytes.data()), static_cast<uint32>(bytes.size())};
}

void put(const std::string &file, const std::string &content) {
  const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  expect(fd >= 0 &&
             write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
         "the file cannot be written");
  close(fd);
}

std::string get(const std::string &file) {
  std::string content(1 << 20, '\0');
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t size = read(fd, content.data(), content.size());
  expect(size > 0, "the good file cannot be read");
  close(fd);
  return content.substr(0, static_cast<size_t>(size));
}

struct good_store {
  records_t records = good_records();
  std::string bytes;
  std::string flat_bytes;
};

good_store make_good_store() {
  good_store made;
  syserr_t status = lab::store_create(k_uris[0], lab::default_store_params);
  expect(status == 0, "the good store cannot be made");
  const pss_service_t handle = pss_open(k_uris[0], &status);
  for (const auto &[key, value] : made.records) {
    const pss_datum_t key_datum = datum(key);
    const pss_datum_t value_datum = datum(value);
    expect(pss_store(handle, 0, &key_datum, &value_datum) == 0, "a good record cannot be stored");
  }
  expect(pss2_kernel2file(handle, k_flat_file, 0) == 0 && pss_close(handle) == 0,
         "the good store cannot be closed");
  made.bytes = get(lab::store_file(k_uris[0]));
  made.flat_bytes = get(k_flat_file);
  expect(pss_destroy(k_uris[0]) == 0 && unlink(k_flat_file) == 0, "it cannot be removed");
  return made;
}

const good_store &good() {
  static const good_store one = make_good_store();
  return one;
}

// Changes bytes of it: how many, then where and to what.
std::string damaged(const std::string &bytes, bytes_source *source) {
  std::string changed = bytes;
  const uint8_t how = source->byte();
  for (int left = how % 32; left > 0 && !source->is_empty(); --left) {
    const size_t at = static_cast<size_t>(source->byte() << 8 | source->byte());
    changed[at % changed.size()] = static_cast<char>(source->byte());
  }
  if (how >= 240) {
    changed.resize(changed.size() * source->byte() / 256);
  } else if (how >= 224) {
    changed.append(source->byte(), 'x');
  }
  return changed;
}

// ---- The calls ---------------------------------------------------------------------------------

// What may stand in a store: by its key every value that was ever stored.
class known_records {
public:
  void add(const std::string &key, const std::string &value) { added_[key].insert(value); }
  // Nothing is known of what routines write, and of stores of any bytes.
  void believe_all() { all_ = true; }

  void expect_key(const std::string &key) const {
    expect(all_ || good().records.count(key) == 1 || added_.count(key) == 1,
           "a key that nobody stored");
  }
  void expect_record(const std::string &key, const std::string &value) const {
    expect(all_ || is_good(key, value) || is_added(key, value),
           "a value that nobody stored under its key");
  }

private:
  static bool is_good(const std::string &key, const std::string &value) {
    const auto found = good().records.find(key);
    return found != good().records.end() && found->second == value;
  }
  bool is_added(const std::string &key, const std::string &value) const {
    const auto found = added_.find(key);
    return found != added_.end() && found->second.count(value) == 1;
  }

  std::map<std::string, std::set<std::string>> added_;
  bool all_ = false;
};

void expect_status(syserr_t status) {
  expect(status == 0 || (status & 0xFFFFFFF0U) == 0x40480000U, "a status that no store gives");
}

// Two handles on the file, and what was given by them.
class store_calls {
public:
  store_calls(std::string uri, bytes_source *source, bool believes_all)
      : uri_(std::move(uri)), source_(source) {
    if (believes_all) {
      known_.believe_all();
    }
    reopen(0);
  }

  // Makes a call. What it costs: those on whole files take as long as a dozen others.
  int step() {
    const uint8_t which = source_->byte();
    at_ = which >> 7;
    struct row {
      void (store_calls::*call)();
      int cost = 1;
    };
    static constexpr row rows[] = {
        {&store_calls::fetch},       {&store_calls::insert},       {&store_calls::erase},
        {&store_calls::to_key},      {&store_calls::to_place},     {&store_calls::value},
        {&store_calls::place2},      {&store_calls::key2},         {&store_calls::value2},
        {&store_calls::fetch2},      {&store_calls::insert2},      {&store_calls::erase2},
        {&store_calls::params},      {&store_calls::snapshot, 12}, {&store_calls::dump, 6},
        {&store_calls::load, 4},     {&store_calls::inspect, 6},   {&store_calls::count, 6},
        {&store_calls::remake, 12},  {&store_calls::run, 12},      {&store_calls::close},
        {&store_calls::open_new, 6}, {&store_calls::list, 6},      {&store_calls::walk, 4}};
    const row &chosen = rows[which % std::size(rows)];
    (this->*chosen.call)();
    return chosen.cost;
  }

  void end() {
    size_t open = 0;
    expect_status(lab::close_all_stores(&open));
  }
  // Whether the stores are no more than the input's.
  bool alone() const { return !ran_; }

private:
  uint32 &handle() { return handles_[at_]; }

  std::string key() {
    const auto &records = good().records;
    const uint8_t which = source_->byte();
    if (which < 200) {
      return std::next(records.begin(), which % static_cast<int>(records.size()))->first;
    }
    return source_->bytes(which % 16);
  }

  void reopen(uint8_t mode) {
    syserr_t status = 1;
    handle() = mode == 0 ? pss_open(uri_.c_str(), &status)
                         : pss2_open(uri_.c_str(), mode, SRVUUID_NONE, 0, 0, &status);
    expect_status(status);
    expect((handle() != 0) == (status == 0), "a handle without success");
  }

  static std::string bytes_of(const pss_datum_t *given) {
    return {static_cast<const char *>(given->ptr), given->siz};
  }

  void took_value(const pss_datum_t *value, const std::string &key, syserr_t status) {
    expect_status(status);
    expect((value != nullptr) == (status == 0), "data without success");
    if (value != nullptr) {
      known_.expect_record(key, bytes_of(value));
    }
  }

  void took_key(const pss_datum_t *key, syserr_t status) {
    expect_status(status);
    expect((key != nullptr) == (status == 0), "data without success");
    if (key != nullptr) {
      known_.expect_key(bytes_of(key));
    }
  }

  void fetch() { fetch_by(pss_fetch); }
  void fetch2() { fetch_by(pss2_fetch); }
  void fetch_by(decltype(&pss_fetch) call) {
    const std::string name = key();
    const pss_datum_t wanted = datum(name);
    syserr_t status = 1;
    const pss_datum_t *value = call(handle(), &wanted, &status);
    took_value(value, name, status);
  }

  void insert() { insert_by(false); }
  void insert2() { insert_by(true); }
  void insert_by(bool second) {
    const std::string name = key();
    const std::string value = source_->bytes(source_->byte());
    const pss_datum_t key_datum = datum(name);
    const pss_datum_t value_datum = datum(value);
    known_.add(name, value);
    expect_status(second ? pss2_store(handle(), &key_datum, &value_datum)
                         : pss_store(handle(), 1, &key_datum, &value_datum));
  }

  void erase() { erase_by(false); }
  void erase2() { erase_by(true); }
  void erase_by(bool second) {
    const std::string name = key();
    const pss_datum_t key_datum = datum(name);
    expect_status(second ? pss2_delete(handle(), &key_datum, 1) : pss_delete(handle(), &key_datum));
  }

  void to_key() {
    const std::string name = key();
    const pss_datum_t key_datum = datum(name);
    syserr_t status = 1;
    const pss_datum_t *found = pss_move2key(handle(), &key_datum, &status);
    took_key(found, status);
  }

  void to_place() {
    syserr_t status = 1;
    const auto place = static_cast<pss_location_t>(source_->byte() % 6);
    const pss_datum_t *found = pss_move2location(handle(), place, &status);
    took_key(found, status);
  }

  void place2() {
    syserr_t statuses[2] = {1, 1};
    expect_status(pss2_move2location(handles_, 2, static_cast<pss_location_t>(source_->byte() % 6),
                                     statuses));
    expect_status(statuses[0]);
    expect_status(statuses[1]);
  }

  void key2() {
    syserr_t status = 1;
    const pss_datum_t *found = pss2_getkey(handle(), &status);
    took_key(found, status);
  }

  void value() { value_by(pss_getvalue); }
  void value2() { value_by(pss2_getvalue); }
  void value_by(decltype(&pss_getvalue) call) {
    syserr_t status = 1;
    const pss_datum_t *key = pss2_getkey(handle(), &status);
    took_key(key, status);
    const std::string name = key == nullptr ? "" : bytes_of(key);
    const pss_datum_t *value = call(handle(), &status);
    if (key != nullptr) {
      took_value(value, name, status);
    }
  }

  // To the end, which comes whatever the file holds.
  void walk() {
    syserr_t status = 1;
    const pss_datum_t *key = pss_move2location(handle(), PSS_FIRST_KEY, &status);
    std::string last;
    for (int steps = 0; key != nullptr; ++steps) {
      expect(steps == 0 || last < bytes_of(key), "keys that do not rise");
      took_key(key, status);
      last = bytes_of(key);
      value();
      key = pss_move2location(handle(), PSS_NEXT_KEY, &status);
    }
    expect_status(status);
  }

  void params() {
    pss2_nonvol_params found = {};
    expect_status(pss2_get_params(handle(), &found));
  }

  void snapshot() {
    expect_status(pss_snapshot(handle(), 0, k_copy));
    uint64_t records = 0;
    expect_status(lab::store_count(k_copy, &records));
    pss_destroy(k_copy);
  }

  void dump() {
    expect_status(pss2_kernel2file(handle(), k_flat_file, 0));
    expect_status(lab::flat_file_read(k_flat_file, [this](auto key, auto value) {
      known_.expect_record(std::string(key), std::string(value));
    }));
  }

  // A flat file that is damaged in the same way.
  void load() {
    put(k_flat_file, damaged(good().flat_bytes, source_));
    expect_status(pss2_file2kernel(k_flat_file, handle(), 0));
  }

  void inspect() {
    lab::store_info info;
    expect_status(lab::store_inspect(uri_, &info));
  }

  void count() {
    uint64_t records = 0;
    expect_status(lab::store_count(uri_, &records));
  }

  void remake() {
    expect_status(pss_destroy(uri_.c_str()));
    expect_status(pss_create(uri_.c_str()));
  }

  void run() {
    const routine &chosen = k_routines[source_->byte() % std::size(k_routines)];
    end();
    ran_ = true;
    known_.believe_all();
    const syserr_t status = chosen.run("/cfg", "system", chosen.to, chosen.from);
    expect(status <= 3 || (status & 0xFFFFFFF0U) == 0x40480000U, "a routine's strange status");
    size_t open = 0;
    expect_status(lab::close_all_stores(&open));
    expect(open <= 2, "a routine left stores open"); // the early ends of VRRP may
    reopen(0);
  }

  void close() { expect_status(pss_close(handle())); }

  void open_new() {
    pss_close(handle());
    reopen(source_->byte() % 20);
  }

  void list() { expect(lab::store_uris().size() <= 12, "stores that nobody made"); }

  std::string uri_;
  bytes_source *source_;
  known_records known_;
  uint32 handles_[2] = {0, 0};
  unsigned at_ = 0;
  bool ran_ = false;
};

void remove_store(const std::string &uri) {
  const std::string file = lab::store_file(uri);
  for (const char *ending : {"", "-journal", "-new"}) {
    unlink((file + ending).c_str());
  }
}

// The next input finds the switch as this one did, or a finding could not be had again.
void clear(const std::string &uri, const store_calls &calls) {
  remove_store(uri);
  remove_store(k_copy);
  unlink(k_flat_file);
  if (!calls.alone()) {
    for (const std::string &each : lab::store_uris()) {
      remove_store(each);
    }
    unlink("/cfg/globalpss_table.snp");
    unlink("/cfg/svi_gldb.snp");
  }
}

// A switch's root, with the folders of all places. Not before the first input: the fuzzer opens
// files of its own below /tmp until then.
const switch_folder &enter_root() {
  static const switch_folder root;
  setenv("SYSMGR_VDC_ID", "1", 1);
  setenv("SYSMGR_RUNNING_CFG_DIR", "/cfg", 1);
  quiet_files::drop_trace();
  quick_engine::set_up();
  mkdir("/tmp", 0755);
  for (const char *uri : k_uris) {
    expect(pss_create(uri) == 0 && pss_destroy(uri) == 0, "a place that cannot be had");
  }
  return root;
}

} // namespace

// The engine waits for a lock that another handle has. Nobody gives one back meanwhile: what it
// would sleep is lost.
extern "C" int usleep(useconds_t /*microseconds*/) {
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  quiet_files::reset();
  static const switch_folder &root = enter_root();
  static_cast<void>(root);
  good();
  const size_t blocks = quick_engine::blocks();
  bytes_source source(data, size);
  const uint8_t how = source.byte();
  const char *const uri = k_uris[how % std::size(k_uris)];
  const bool any_bytes = how >= 224;
  put(lab::store_file(uri),
      any_bytes ? source.bytes(source.byte() * 64U) : damaged(good().bytes, &source));
  store_calls calls(uri, &source, any_bytes);
  for (int left = k_calls_cost; left > 0 && !source.is_empty();) {
    left -= calls.step();
  }
  calls.end();
  clear(uri, calls);
  expect(quick_engine::blocks() == blocks, "memory of a connection that is closed");
  return 0;
}
