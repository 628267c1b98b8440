// A disk or a memory that fails while the engine works: what was written and then lost is told, and
// nothing more passes for written.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "lab/lab_fixture.h"
#include "lab/scarce_memory.h"

namespace {

constexpr char k_uri[] = "nonvolatile:/mnt/pss/store";

// ---- The engine's files, whose reads can be made to fail ---------------------------------------

sqlite3_vfs *real_files = nullptr;
sqlite3_io_methods methods;
bool next_read_fails = false; // once
long writes_left = -1;        // before one that fails, once; below 0: none does
long reads_left = -1;         // the same
int failed_read =
    SQLITE_IOERR_READ; // what is said of it; the engine's own files say the other of EIO

struct wrapped_file {
  sqlite3_file base;
  sqlite3_file *real;
  bool of_store; // the one that the tests look at
};

sqlite3_file *real_of(sqlite3_file *file) {
  return reinterpret_cast<wrapped_file *>(file)->real;
}

int open_wrapped(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *out_flags) {
  auto *const wrapped = reinterpret_cast<wrapped_file *>(file);
  wrapped->real = reinterpret_cast<sqlite3_file *>(wrapped + 1);
  std::memset(wrapped->real, 0, static_cast<size_t>(real_files->szOsFile));
  wrapped->of_store = name != nullptr && std::strncmp(name, "/mnt/pss/store", 14) == 0;
  const int result = real_files->xOpen(real_files, name, wrapped->real, flags, out_flags);
  wrapped->base.pMethods = wrapped->real->pMethods == nullptr ? nullptr : &methods;
  return result;
}

#define FORWARD(name, parameters, ...)                                                             \
  methods.name = [] parameters { return real_of(file)->pMethods->name(__VA_ARGS__); }

void wrap_files() {
  if (real_files != nullptr) {
    return; // by an earlier test in this process
  }
  static sqlite3_vfs wrapping;
  sqlite3_initialize();
  real_files = sqlite3_vfs_find(nullptr);
  wrapping = *real_files;
  wrapping.zName = "failing";
  wrapping.pNext = nullptr;
  wrapping.szOsFile = static_cast<int>(sizeof(wrapped_file)) + real_files->szOsFile;
  wrapping.xOpen = open_wrapped;
  methods.iVersion = 1;
  methods.xRead = [](sqlite3_file *file, void *bytes, int size, sqlite3_int64 at) {
    if (next_read_fails && reinterpret_cast<wrapped_file *>(file)->of_store) {
      next_read_fails = false;
      return failed_read;
    }
    if (reinterpret_cast<wrapped_file *>(file)->of_store && reads_left >= 0 && reads_left-- == 0) {
      return failed_read;
    }
    return real_of(file)->pMethods->xRead(real_of(file), bytes, size, at);
  };
  methods.xWrite = [](sqlite3_file *file, const void *bytes, int size, sqlite3_int64 at) {
    if (reinterpret_cast<wrapped_file *>(file)->of_store && writes_left-- == 0) {
      return SQLITE_IOERR_WRITE;
    }
    return real_of(file)->pMethods->xWrite(real_of(file), bytes, size, at);
  };
  FORWARD(xClose, (sqlite3_file * file), real_of(file));
  FORWARD(xTruncate, (sqlite3_file * file, sqlite3_int64 size), real_of(file), size);
  FORWARD(xSync, (sqlite3_file * file, int flags), real_of(file), flags);
  FORWARD(xFileSize, (sqlite3_file * file, sqlite3_int64 * size), real_of(file), size);
  FORWARD(xLock, (sqlite3_file * file, int lock), real_of(file), lock);
  FORWARD(xUnlock, (sqlite3_file * file, int lock), real_of(file), lock);
  FORWARD(xCheckReservedLock, (sqlite3_file * file, int *out), real_of(file), out);
  methods.xFileControl = [](sqlite3_file *file, int what, void *out) {
    if (what == SQLITE_FCNTL_LAST_ERRNO && failed_read == SQLITE_IOERR_CORRUPTFS) {
      *static_cast<int *>(out) = EIO;
      return SQLITE_OK;
    }
    return real_of(file)->pMethods->xFileControl(real_of(file), what, out);
  };
  FORWARD(xSectorSize, (sqlite3_file * file), real_of(file));
  FORWARD(xDeviceCharacteristics, (sqlite3_file * file), real_of(file));
  ASSERT_EQ(sqlite3_vfs_register(&wrapping, 1), SQLITE_OK);
}

std::string key_of(int n) {
  char key[16];
  std::snprintf(key, sizeof(key), "key-%05d", n);
  return key;
}

contents numbered(int count, size_t value_size) {
  contents records;
  for (int n = 0; n < count; ++n) {
    records[key_of(n)] = std::string(value_size, 'v');
  }
  return records;
}

// ---- Reads that fail ---------------------------------------------------------------------------

class failing_read : public lab_test {
protected:
  void SetUp() override {
    lab_test::SetUp();
    wrap_files();
    make(k_uri, records_);
    service_ = open(k_uri);
    ASSERT_EQ(put(service_, "new", "record"), 0U);
  }

  // A read of what the engine has not in memory yet.
  template <typename call> void fail_during(const call &act) {
    next_read_fails = true;
    act();
    EXPECT_FALSE(next_read_fails);
    next_read_fails = false;
  }

  void expect_lost() {
    EXPECT_EQ(put(service_, "later", "record"), 0x4048000BU);
    EXPECT_EQ(remove(service_, key_of(1)), 0x4048000BU);
    EXPECT_EQ(pss_snapshot(service_, 0, "volatile:/copy"), 0x4048000BU);
    EXPECT_EQ(pss2_kernel2file(service_, "/bootflash/flat", 0), 0x4048000BU);
    EXPECT_EQ(pss_close(service_), 0x4048000BU);
    EXPECT_EQ(read(k_uri), records_);
  }

  const contents records_ = numbered(3000, 500);
  pss_service_t service_ = 0;
};

TEST_F(failing_read, of_a_key_loses_no_write_unnoticed) {
  const std::string key = key_of(1500);
  const pss_datum_t datum_of_key = datum(key);
  fail_during([&] {
    syserr_t status = 0;
    EXPECT_EQ(pss_fetch(service_, &datum_of_key, &status), nullptr);
    EXPECT_EQ(status, 0x4048000BU);
  });
  expect_lost();
}

TEST_F(failing_read, of_the_cursor_loses_no_write_unnoticed) {
  fail_during([&] {
    syserr_t status = 0;
    EXPECT_EQ(pss_move2location(service_, PSS_FIRST_KEY, &status), nullptr);
    EXPECT_EQ(status, 0x4048000BU);
  });
  expect_lost();
}

TEST_F(failing_read, of_the_one_before_loses_no_write_unnoticed) {
  syserr_t status = 0;
  const std::string key = key_of(2000);
  const pss_datum_t datum_of_key = datum(key);
  ASSERT_NE(pss_move2key(service_, &datum_of_key, &status), nullptr);
  ASSERT_EQ(put(service_, "new", "record"), 0U);
  int steps = 0;
  fail_during([&] {
    while (pss_move2location(service_, PSS_PREVIOUS_KEY, &status) != nullptr) {
      ++steps;
    }
    EXPECT_EQ(status, 0x4048000BU);
  });
  EXPECT_LT(steps, 2000);
  expect_lost();
}

TEST_F(failing_read, of_a_snapshot_loses_no_write_unnoticed) {
  fail_during([&] { EXPECT_EQ(pss_snapshot(service_, 0, "volatile:/copy"), 0x4048000BU); });
  expect_lost();
}

TEST_F(failing_read, what_was_read_ahead_is_not_taken_for_the_store_after_a_loss) {
  ASSERT_EQ(move(service_, PSS_FIRST_KEY), key_of(0));
  ASSERT_EQ(move(service_, PSS_NEXT_KEY), key_of(1));
  ASSERT_EQ(put(service_, key_of(1), "changed"), 0U);
  syserr_t status = 0;
  const std::string far = key_of(1500);
  const pss_datum_t far_datum = datum(far);
  fail_during([&] { pss_fetch(service_, &far_datum, &status); });
  EXPECT_EQ(status, 0x4048000BU);
  const std::string key = key_of(1);
  const pss_datum_t key_datum = datum(key);
  EXPECT_EQ(text(pss_fetch(service_, &key_datum, &status)), records_.at(key));
  expect_lost();
}

TEST_F(failing_read, before_a_write_with_the_journal_on_loses_nothing_unnoticed) {
  lab::journal_start(-1);
  fail_during([&] { EXPECT_EQ(put(service_, key_of(1500), "changed"), 0x4048000BU); });
  EXPECT_EQ(lab::journal_unexpected(nullptr), 1U);
  expect_lost();
}

// A converter may take no answer for no record: the run is not to be kept.
TEST_F(failing_read, is_a_line_of_the_journal) {
  lab::journal_start(-1);
  std::string first;
  EXPECT_EQ(lab::journal_unexpected(&first), 0U);
  const std::string key = key_of(1500);
  const pss_datum_t key_datum = datum(key);
  syserr_t status = 0;
  fail_during([&] { pss_fetch(service_, &key_datum, &status); });
  EXPECT_EQ(status, 0x4048000BU);
  EXPECT_EQ(lab::journal_unexpected(&first), 1U);
  EXPECT_NE(first.find(R"("call":"pss_fetch","uri":"nonvolatile:/mnt/pss/store")"),
            std::string::npos)
      << first;
}

TEST_F(failing_read, at_an_open_is_a_line_of_the_journal) {
  ASSERT_EQ(pss_close(service_), 0U);
  lab::journal_start(-1);
  fail_during([] {
    syserr_t status = 0;
    EXPECT_EQ(pss_open(k_uri, &status), 0U);
    EXPECT_EQ(status, 0x4048000BU);
  });
  std::string first;
  EXPECT_EQ(lab::journal_unexpected(&first), 1U);
  EXPECT_NE(first.find(R"("call":"pss_open","uri":"nonvolatile:/mnt/pss/store")"),
            std::string::npos)
      << first;
}

TEST_F(failing_read, of_a_step_is_a_line_of_the_journal) {
  ASSERT_EQ(pss_close(service_), 0U);
  syserr_t status = 0;
  pss2_service_t handle = pss2_open(k_uri, PSS2_MODE_READ, SRVUUID_NONE, 0, 0, &status);
  ASSERT_NE(handle, 0U);
  lab::journal_start(-1);
  fail_during([&] { EXPECT_EQ(pss2_move2location(&handle, 1, PSS_LAST_KEY, &status), 0U); });
  EXPECT_EQ(status, 0x4048000BU);
  EXPECT_EQ(lab::journal_unexpected(nullptr), 1U);
}

// ---- Every read, and any memory ----------------------------------------------------------------

syserr_t with_handle(const std::function<syserr_t(pss_service_t)> &act) {
  syserr_t status = 1;
  const pss_service_t service = pss_open(k_uri, &status);
  if (service == 0) {
    return status;
  }
  status = act(service);
  const syserr_t closed = pss_close(service);
  return status == 0 ? closed : status;
}

constexpr char k_other_uri[] = "nonvolatile:/mnt/pss/store-other";

const struct {
  const char *name;
  std::function<syserr_t()> call;
} each_call[] = {
    {"open", [] { return with_handle([](pss_service_t) { return syserr_t(0); }); }},
    {"count",
     [] {
       uint64_t records = 0;
       return lab::store_count(k_uri, &records);
     }},
    {"inspect",
     [] {
       lab::store_info info;
       return lab::store_inspect(k_uri, &info);
     }},
    {"snapshot",
     [] {
       return with_handle(
           [](pss_service_t service) { return pss_snapshot(service, 0, k_other_uri); });
     }},
    {"dump",
     [] {
       return with_handle(
           [](pss_service_t service) { return pss2_kernel2file(service, "/bootflash/flat", 0); });
     }},
    {"load",
     [] {
       return with_handle(
           [](pss_service_t service) { return pss2_file2kernel("/bootflash/good", service, 0); });
     }},
    {"create", [] { return lab::store_create(k_other_uri, lab::default_store_params); }},
};

class whatever_fails : public lab_test {
protected:
  void SetUp() override {
    lab_test::SetUp();
    wrap_files();
    make(k_uri, records_);
    ASSERT_EQ(with_handle([](pss_service_t service) {
                return pss2_kernel2file(service, "/bootflash/good", 0);
              }),
              0U);
  }

  // Undisturbed, a call does what it did not do before; the store has its records all the time.
  void expect_told(const std::function<void(long)> &fail, const std::function<bool()> &relieve,
                   syserr_t told, long last, long by) {
    size_t failures = 0;
    for (const auto &[name, call] : each_call) {
      for (long at = 0; at < last; at += by) {
        fail(at);
        const syserr_t status = call();
        const bool failed = relieve();
        failures += status == 0 ? 0 : 1;
        ASSERT_TRUE(status == 0 || (failed && status == told))
            << name << " " << at << std::hex << " " << status;
        ASSERT_EQ(read(k_uri), records_) << name << " " << at;
        pss_destroy(k_other_uri);
      }
      ASSERT_EQ(call(), 0U) << name;
      pss_destroy(k_other_uri);
    }
    EXPECT_GT(failures, 50U);
  }

  const contents records_ = numbered(40, 500);
};

TEST_F(whatever_fails, of_its_reads_a_call_tells_and_changes_nothing) {
  for (const int result : {SQLITE_IOERR_READ, SQLITE_IOERR_CORRUPTFS}) {
    expect_told(
        [result](long at) {
          reads_left = at;
          failed_read = result;
        },
        [] {
          const bool failed = reads_left < 0;
          reads_left = -1;
          failed_read = SQLITE_IOERR_READ;
          return failed;
        },
        0x4048000BU, 40, 1);
  }
}

TEST_F(whatever_fails, of_the_engines_memory_a_call_tells_and_changes_nothing) {
  expect_told([](long spare) { sqlite3_hard_heap_limit64(sqlite3_memory_used() + spare + 1); },
              [] {
                sqlite3_hard_heap_limit64(0);
                return true;
              },
              0x4048000CU, 200'000, 2'000);
}

// ---- Memory that gives out ---------------------------------------------------------------------

TEST_F(lab_test, a_load_without_memory_takes_back_what_it_brought) {
  contents large = numbered(50, 10);
  large["z"] = std::string(900'000, 'z');
  make("nonvolatile:/mnt/pss/large", large);
  const pss2_service_t source = open("nonvolatile:/mnt/pss/large");
  ASSERT_EQ(pss2_kernel2file(source, "/bootflash/flat", 0), 0U);
  make(k_uri, {{"own", "record"}});
  for (const bool wrote : {false, true}) {
    const pss2_service_t target = open(k_uri);
    if (wrote) {
      ASSERT_EQ(put(target, "before", "the load"), 0U);
    }
    scarce_memory::refuse_from(800'000);
    const syserr_t loaded = pss2_file2kernel("/bootflash/flat", target, 0);
    scarce_memory::relieve();
    EXPECT_EQ(loaded, 0x4048000CU);
    EXPECT_EQ(pss2_close(target), 0U);
  }
  EXPECT_EQ(read(k_uri), (contents{{"own", "record"}, {"before", "the load"}}));
}

// Writes along a walk while one allocation fails; how often the cursor and the store disagree.
int disagreements_after(long refused) {
  make("volatile:/store", numbered(40, 300));
  const pss_service_t service = open("volatile:/store");
  const std::string value(2000, 'q');
  const pss_datum_t value_datum = datum(value);
  syserr_t status = 0;
  std::string added[20];
  std::string changed[20];
  for (int n = 0; n < 20; ++n) {
    added[n] = key_of(n) + std::string(40, '-');
    changed[n] = key_of(n + 1);
  }
  scarce_memory::refuse_nth(refused);
  pss_move2location(service, PSS_FIRST_KEY, &status);
  for (int n = 0; n < 20; ++n) {
    const pss_datum_t one = datum(added[n]);
    const pss_datum_t other = datum(changed[n]);
    pss_move2location(service, PSS_NEXT_KEY, &status);
    pss_store(service, 0, &one, &value_datum);
    pss_store(service, 0, &other, &value_datum);
    pss2_getvalue(service, &status);
    if (n % 5 == 4) {
      pss2_delete(service, &other, 0);
    }
  }
  scarce_memory::relieve();
  int wrong = 0;
  for (pss_datum_t *at = pss_move2location(service, PSS_FIRST_KEY, &status); at != nullptr;
       at = pss_move2location(service, PSS_NEXT_KEY, &status)) {
    const std::string key = text(at);
    const pss_datum_t key_datum = datum(key);
    syserr_t fetched = 0;
    const std::string seen = text(pss_getvalue(service, &status));
    wrong += seen == text(pss_fetch(service, &key_datum, &fetched)) && fetched == 0 ? 0 : 1;
  }
  return wrong;
}

TEST_F(lab_test, the_cursor_agrees_with_the_store_whatever_allocation_fails) {
  for (long refused = 0; refused < 300; ++refused) {
    ASSERT_EQ(in_child([refused] { return disagreements_after(refused) == 0 ? 0 : 1; }), 0)
        << refused;
  }
}

// Deletes and stores in key order, which the lab does in runs, while the memory gives out. Whatever
// it said of each call must be what stands in the end, or the close says that nothing does.
bool told_the_truth(void (*give_out)(long), void (*relieve)(), long when) {
  constexpr int count = 1500;
  constexpr int deleted = 1000;
  constexpr int stored_again = 1300;
  const std::string same(200, 'v');
  const contents before = numbered(count, same.size());
  make(k_uri, before);
  const pss_service_t service = open(k_uri);
  const std::string other = "changed";
  const pss_datum_t values[] = {datum(same), datum(other)};
  std::string keys[count];
  bool done[count];
  for (int n = 0; n < count; ++n) {
    keys[n] = key_of(n);
  }
  give_out(when); // the test itself takes no memory from here on
  for (int n = 0; n < count; ++n) {
    const pss_datum_t key = datum(keys[n]);
    done[n] = n < deleted ? pss_delete(service, &key) == 0
                          : pss_store(service, 0, &key, &values[n < stored_again ? 0 : 1]) == 0;
  }
  relieve();
  contents expected = before;
  for (int n = 0; n < count; ++n) {
    if (done[n] && n < deleted) {
      expected.erase(keys[n]);
    } else if (done[n]) {
      expected[keys[n]] = n < stored_again ? same : other;
    }
  }
  const bool kept = pss_close(service) == 0;
  return read(k_uri) == (kept ? expected : before);
}

TEST_F(lab_test, writes_in_key_order_are_done_or_told_whatever_allocation_fails) {
  for (long refused = 0; refused < 2'500; refused += 73) {
    ASSERT_EQ(in_child([refused] {
                return told_the_truth(scarce_memory::refuse_nth, scarce_memory::relieve, refused)
                           ? 0
                           : 1;
              }),
              0)
        << refused;
  }
}

TEST_F(lab_test, writes_in_key_order_are_done_or_told_whatever_write_of_the_engine_fails) {
  wrap_files();
  for (long left = 0; left < 300; left += 7) {
    ASSERT_EQ(in_child([left] {
                return told_the_truth([](long writes) { writes_left = writes; },
                                      [] { writes_left = -1; }, left)
                           ? 0
                           : 1;
              }),
              0)
        << left;
  }
}

TEST_F(lab_test, writes_in_key_order_are_done_or_told_whatever_memory_the_engine_has) {
  for (long spare = 0; spare < 300'000; spare += 9'000) {
    ASSERT_EQ(in_child([spare] {
                const auto limit = [](long bytes) {
                  sqlite3_hard_heap_limit64(sqlite3_memory_used() + bytes + 1);
                };
                return told_the_truth(
                           limit, [] { sqlite3_hard_heap_limit64(0); }, spare)
                           ? 0
                           : 1;
              }),
              0)
        << spare;
  }
}

} // namespace
