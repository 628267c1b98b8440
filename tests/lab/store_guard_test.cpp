// Stores that others remove, replace, lock, link to or damage while handles are open on them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "lab/lab_fixture.h"

namespace {

constexpr char k_uri[] = "nonvolatile:/mnt/pss/store";
constexpr char k_file[] = "/mnt/pss/store.pss";
constexpr char k_journal[] = "/mnt/pss/store.pss-journal";

std::string key_of(int n) {
  char key[16];
  std::snprintf(key, sizeof(key), "key-%05d", n);
  return key;
}

contents numbered(int count, size_t value_size, char fill = 'v') {
  contents records;
  for (int n = 0; n < count; ++n) {
    records[key_of(n)] = std::string(value_size, fill);
  }
  return records;
}

// A child process that runs up to a point, and goes on or dies when it is told to.
class companion {
public:
  explicit companion(const std::function<void(const std::function<void()> &pause)> &act) {
    if (pipe(ready_) != 0 || pipe(go_) != 0) {
      ADD_FAILURE() << "no pipe";
    }
    std::fflush(nullptr);
    child_ = fork();
    if (child_ == 0) {
      act([this] {
        char byte = 'r';
        if (write(ready_[1], &byte, 1) != 1 || ::read(go_[0], &byte, 1) != 1) {
          _exit(99);
        }
      });
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    close(ready_[1]);
  }
  ~companion() {
    for (const int fd : {ready_[0], go_[0], go_[1]}) {
      close(fd);
    }
  }
  companion(const companion &) = delete;
  companion &operator=(const companion &) = delete;

  void wait_until_paused() {
    char byte = 0;
    EXPECT_EQ(::read(ready_[0], &byte, 1), 1);
  }
  void go_on() { EXPECT_EQ(write(go_[1], "g", 1), 1); }
  void kill_it() { EXPECT_EQ(kill(child_, SIGKILL), 0); }
  int end() {
    int status = 0;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }

private:
  int ready_[2] = {-1, -1};
  int go_[2] = {-1, -1};
  pid_t child_ = -1;
};

// ---- Another process ---------------------------------------------------------------------------

// The handle's file is gone; the journal beside its place belongs to the store that was made there.
void expect_journal_of_the_new_store_to_stay(const std::function<syserr_t(pss_service_t)> &use) {
  make(k_uri, {{"a", "old"}});
  const pss_service_t idle = open(k_uri);
  companion other([](const std::function<void()> &pause) {
    EXPECT_EQ(pss_destroy(k_uri), 0U);
    make(k_uri, numbered(60'000, 700));
    const pss_service_t writer = open(k_uri);
    for (int n = 0; n < 55'000; ++n) {
      put(writer, key_of(n), std::string(700, 'n'));
    }
    pause();
  });
  other.wait_until_paused();
  ASSERT_TRUE(switch_root::exists(k_journal));

  EXPECT_EQ(use(idle), 0x40480002U);

  EXPECT_TRUE(switch_root::exists(k_journal));
  other.kill_it();
  other.end();
  EXPECT_EQ(pss_close(idle), 0U);
  EXPECT_EQ(read(k_uri), numbered(60'000, 700));
}

TEST_F(lab_test, a_fetch_leaves_the_journal_of_a_store_made_anew) {
  expect_journal_of_the_new_store_to_stay([](pss_service_t service) {
    const std::string key = "a";
    const pss_datum_t key_datum = datum(key);
    syserr_t status = 0;
    pss_fetch(service, &key_datum, &status);
    return status;
  });
}

TEST_F(lab_test, a_walk_leaves_the_journal_of_a_store_made_anew) {
  expect_journal_of_the_new_store_to_stay([](pss_service_t service) {
    syserr_t status = 0;
    pss_move2location(service, PSS_FIRST_KEY, &status);
    return status;
  });
}

TEST_F(lab_test, a_step_back_leaves_the_journal_of_a_store_made_anew) {
  expect_journal_of_the_new_store_to_stay([](pss_service_t service) {
    syserr_t status = 0;
    pss_move2location(service, PSS_LAST_KEY, &status);
    return status;
  });
}

TEST_F(lab_test, a_write_leaves_the_journal_of_a_store_made_anew) {
  expect_journal_of_the_new_store_to_stay(
      [](pss_service_t service) { return put(service, "a", "new"); });
}

TEST_F(lab_test, a_snapshot_leaves_the_journal_of_a_store_made_anew) {
  expect_journal_of_the_new_store_to_stay(
      [](pss_service_t service) { return pss_snapshot(service, 0, "volatile:/copy"); });
}

TEST_F(lab_test, a_flat_file_leaves_the_journal_of_a_store_made_anew) {
  expect_journal_of_the_new_store_to_stay(
      [](pss_service_t service) { return pss2_kernel2file(service, "/bootflash/flat", 0); });
}

TEST_F(lab_test, what_is_written_to_a_file_that_went_is_not_committed) {
  make(k_uri, {{"a", "old"}});
  const pss_service_t service = open(k_uri);
  ASSERT_EQ(put(service, "a", "new"), 0U);
  std::filesystem::remove(k_file);
  EXPECT_EQ(pss_close(service), 0x40480002U);
}

TEST_F(lab_test, a_walk_goes_on_where_another_process_deleted_its_record) {
  const contents records = numbered(300, 40);
  for (const bool forward : {true, false}) {
    make(k_uri, records);
    const pss_service_t service = open(k_uri);
    const std::string key = key_of(100);
    const pss_datum_t key_datum = datum(key);
    syserr_t status = 0;
    ASSERT_EQ(text(pss_move2key(service, &key_datum, &status)), key);
    companion other([&key](const std::function<void()> &) {
      const pss_service_t own = open(k_uri);
      EXPECT_EQ(remove(own, key), 0U);
      EXPECT_EQ(pss_close(own), 0U);
    });
    ASSERT_EQ(other.end(), 0);

    EXPECT_EQ(move(service, forward ? PSS_NEXT_KEY : PSS_PREVIOUS_KEY), key_of(forward ? 101 : 99));
    EXPECT_EQ(pss_close(service), 0U);
  }
}

// A destroyer that waits for the folder finds a store there that was not when it came.
TEST_F(lab_test, destroying_looks_when_it_is_its_turn) {
  make("nonvolatile:/mnt/pss/folder/other", {{"a", "old"}});
  const int folder = ::open("/mnt/pss/folder", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(folder, LOCK_EX), 0);
  companion destroyer([folder](const std::function<void()> &pause) {
    close(folder);
    pause();
    EXPECT_EQ(pss_destroy("nonvolatile:/mnt/pss/folder/store"), 0x4048000DU);
  });
  destroyer.wait_until_paused();
  destroyer.go_on();
  usleep(300'000);
  std::filesystem::copy("/mnt/pss/folder/other.pss", "/mnt/pss/folder/store.pss");
  const pss_service_t writer = open("nonvolatile:/mnt/pss/folder/store");
  ASSERT_EQ(put(writer, "a", "new"), 0U);

  ASSERT_EQ(flock(folder, LOCK_UN), 0);

  EXPECT_EQ(destroyer.end(), 0);
  EXPECT_EQ(list("/mnt/pss/folder"), "other.pss store.pss store.pss-journal");
  EXPECT_EQ(pss_close(writer), 0U);
  close(folder);
}

TEST_F(lab_test, a_commit_waits_for_a_reader_of_another_process) {
  make(k_uri, {{"a", "old"}});
  companion reader([](const std::function<void()> &pause) {
    sqlite3 *db = nullptr;
    sqlite3_stmt *all = nullptr;
    EXPECT_EQ(sqlite3_open(k_file, &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT * FROM records", -1, &all, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(all), SQLITE_ROW);
    pause();
    usleep(1'000'000);
  });
  reader.wait_until_paused();
  const pss_service_t writer = open(k_uri);
  ASSERT_EQ(put(writer, "a", "new"), 0U);

  reader.go_on();

  EXPECT_EQ(pss_close(writer), 0U);
  EXPECT_EQ(reader.end(), 0);
  EXPECT_EQ(read(k_uri), (contents{{"a", "new"}}));
}

// Whether a handle of this process still locks the store against writers of others.
bool is_locked() {
  return in_child([] {
           const int fd = ::open(k_file, O_RDWR | O_CLOEXEC);
           struct flock reserved = {};
           reserved.l_type = F_WRLCK;
           reserved.l_whence = SEEK_SET;
           reserved.l_start = 0x40000001; // where the engine's writers lock
           reserved.l_len = 1;
           fcntl(fd, F_GETLK, &reserved);
           return reserved.l_type != F_UNLCK ? 1 : 0;
         }) == 1;
}

TEST_F(lab_test, an_open_store_is_no_flat_file_and_keeps_its_locks) {
  make(k_uri, {{"a", "old"}});
  make("volatile:/target", {});
  const pss_service_t writer = open(k_uri);
  ASSERT_EQ(put(writer, "a", "new"), 0U);
  ASSERT_TRUE(is_locked());
  const pss_service_t target = open("volatile:/target");

  EXPECT_EQ(pss2_file2kernel(k_file, target, 0), 0x40480009U);

  EXPECT_TRUE(is_locked());
}

TEST_F(lab_test, a_flat_file_replaces_no_open_store) {
  make(k_uri, {{"a", "old"}});
  make("volatile:/source", {{"b", "flat"}});
  const pss_service_t writer = open(k_uri);
  ASSERT_EQ(put(writer, "a", "new"), 0U);
  const pss_service_t source = open("volatile:/source");

  EXPECT_EQ(pss2_kernel2file(source, k_file, 0), 0x4048000DU);

  EXPECT_EQ(pss_close(writer), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"a", "new"}}));
}

TEST_F(lab_test, a_flat_file_replaces_no_fifo_and_no_link) {
  make(k_uri, {{"a", "b"}});
  const pss_service_t source = open(k_uri);
  ASSERT_EQ(mkfifo("/bootflash/fifo", 0600), 0);
  switch_root::write_file("/bootflash/real", "untouched");
  std::filesystem::create_symlink("real", "/bootflash/link");

  EXPECT_EQ(pss2_kernel2file(source, "/bootflash/fifo", 0), 0x40480009U);
  EXPECT_EQ(pss2_kernel2file(source, "/bootflash/link", 0), 0x40480009U);

  EXPECT_TRUE(std::filesystem::is_fifo("/bootflash/fifo"));
  EXPECT_TRUE(std::filesystem::is_symlink("/bootflash/link"));
  EXPECT_EQ(switch_root::read_file("/bootflash/real"), "untouched");
}

// ---- Links, FIFOs, descriptors -----------------------------------------------------------------

TEST_F(lab_test, destroying_a_link_leaves_the_store_that_it_leads_to) {
  make(k_uri, {{"a", "old"}});
  std::filesystem::create_symlink("store.pss", "/mnt/pss/alias.pss");
  const pss_service_t service = open(k_uri);
  ASSERT_EQ(put(service, "a", "new"), 0U);

  EXPECT_EQ(pss_destroy("nonvolatile:/mnt/pss/alias"), 0U);

  EXPECT_EQ(pss_close(service), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"a", "new"}}));
  EXPECT_EQ(list("/mnt/pss"), "store.pss");
}

TEST_F(lab_test, a_journal_that_is_a_fifo_is_damaged_and_nobody_waits_for_it) {
  make(k_uri, {{"a", "old"}});
  ASSERT_EQ(mkfifo(k_journal, 0600), 0);
  EXPECT_EQ(in_child([] {
              alarm(10);
              syserr_t status = 0;
              pss_open(k_uri, &status);
              return status == 0x40480009 ? 0 : 1;
            }),
            0);
}

// Without a descriptor nobody can know whether the store is in use, as this one is.
TEST_F(lab_test, destroying_without_descriptors_removes_nothing) {
  make(k_uri, {{"a", "b"}});
  companion writer([](const std::function<void()> &pause) {
    const pss_service_t service = open(k_uri);
    EXPECT_EQ(put(service, "a", "new"), 0U);
    pause();
    EXPECT_EQ(pss_close(service), 0U);
  });
  writer.wait_until_paused();
  for (rlim_t free = 0; free < 6; ++free) {
    EXPECT_EQ(
        in_child([free] {
          const int next = dup(0);
          close(next);
          const rlimit few = {static_cast<rlim_t>(next) + free, static_cast<rlim_t>(next) + free};
          setrlimit(RLIMIT_NOFILE, &few);
          return pss_destroy(k_uri) == 0 ? 1 : 0;
        }),
        0)
        << free;
    EXPECT_TRUE(switch_root::exists(k_file)) << free;
  }
  writer.go_on();
  EXPECT_EQ(writer.end(), 0);
  EXPECT_EQ(read(k_uri), (contents{{"a", "new"}}));
}

TEST_F(lab_test, a_path_too_long_to_follow_hides_no_store) {
  const std::string name(250, 'n');
  for (const char *folder : {"/mnt/pss/a", "/mnt/pss/b", "/mnt/pss/c", "/mnt/pss/d"}) {
    make(std::string("nonvolatile:") + folder + "/store", {});
    int deep = ::open(folder, O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < 20; ++level) {
      ASSERT_EQ(mkdirat(deep, name.c_str(), 0755), 0);
      const int below = openat(deep, name.c_str(), O_DIRECTORY | O_CLOEXEC);
      close(deep);
      deep = below;
    }
    close(deep);
  }
  EXPECT_EQ(lab::store_uris().size(), 4U);
}

// ---- Another handle of this process ------------------------------------------------------------

TEST_F(lab_test, a_deletion_moves_the_cursor_past_what_another_handle_removed) {
  make("volatile:/store", numbered(20, 3));
  const pss_service_t walker = open("volatile:/store");
  for (int n = 0; n < 5; ++n) {
    move(walker, n == 0 ? PSS_FIRST_KEY : PSS_NEXT_KEY);
  }
  const pss_service_t other = open("volatile:/store");
  ASSERT_EQ(remove(other, key_of(5)), 0U);
  ASSERT_EQ(put(other, key_of(6) + "-", "new"), 0U);
  ASSERT_EQ(pss_close(other), 0U);

  syserr_t status = 0;
  for (const std::string &key : {key_of(4), key_of(6)}) {
    const pss_datum_t key_datum = datum(key);
    ASSERT_EQ(pss2_delete(walker, &key_datum, 0), 0U);
    EXPECT_EQ(text(pss2_getkey(walker, &status)), key == key_of(4) ? key_of(6) : key_of(6) + "-");
  }
}

TEST_F(lab_test, the_limits_that_a_snapshot_brought_hold_for_all_handles) {
  ASSERT_EQ(lab::store_create("volatile:/small", {8, 8, 0, 7}), 0U);
  make("volatile:/large", {});
  const pss_service_t large = open("volatile:/large");
  const pss_service_t small = open("volatile:/small");
  ASSERT_EQ(pss_snapshot(small, 0, "volatile:/large"), 0U);

  pss2_nonvol_params params = {};
  EXPECT_EQ(pss2_get_params(large, &params), 0U);
  EXPECT_EQ(params.max_value_size, 8U);
  EXPECT_EQ(params.version, 7U);
  EXPECT_EQ(put(large, "a", std::string(9, 'x')), 0x40480006U);
}

TEST_F(lab_test, a_load_into_a_store_that_is_gone_is_a_failed_write) {
  make("volatile:/source", {{"a", "b"}});
  const pss_service_t source = open("volatile:/source");
  ASSERT_EQ(pss2_kernel2file(source, "/bootflash/flat", 0), 0U);
  make("volatile:/store", {});
  const pss_service_t service = open("volatile:/store");
  ASSERT_EQ(pss_destroy("volatile:/store"), 0U);
  lab::journal_start(-1);

  EXPECT_EQ(pss2_file2kernel("/bootflash/none", source, 0), 0x40480002U);
  EXPECT_EQ(lab::journal_unexpected(nullptr), 0U);
  EXPECT_EQ(pss2_file2kernel("/bootflash/flat", service, 0), 0x40480002U);
  EXPECT_EQ(lab::journal_unexpected(nullptr), 1U);
}

TEST_F(lab_test, a_handle_whose_store_is_gone_copies_nothing) {
  make("volatile:/store", {});
  const pss_service_t service = open("volatile:/store");
  ASSERT_EQ(pss_destroy("volatile:/store"), 0U);
  EXPECT_EQ(pss_snapshot(service, 0, "volatile:/copy"), 0x40480002U);
  EXPECT_EQ(pss2_kernel2file(service, "/bootflash/flat", 0), 0x40480002U);
}

// ---- Sizes that lie ----------------------------------------------------------------------------

TEST_F(lab_test, a_key_that_cannot_be_is_not_read) {
  make("volatile:/store", {{"a", "b"}});
  lab::journal_start(-1);
  const pss_service_t service = open("volatile:/store");
  std::string bytes(5000, 'x'); // over the limit of 4096, and not as many as the size says
  const pss_datum_t huge = {bytes.data(), 0xFFFFFFFF};
  const pss_datum_t value = {bytes.data(), 1};
  syserr_t status = 0;

  EXPECT_EQ(pss_store(service, 0, &huge, &value), 0x40480006U);
  EXPECT_EQ(pss_store(77, 0, &huge, &value), 0x40480008U);
  EXPECT_NE(pss_delete(service, &huge), 0U);
  EXPECT_EQ(pss_fetch(service, &huge, &status), nullptr);
  EXPECT_EQ(pss_move2key(service, &huge, &status), nullptr);
  EXPECT_EQ(status, 0x40480003U);
}

// ---- Damage ------------------------------------------------------------------------------------

bool is_part_of(const contents &records, const contents &whole) {
  for (const auto &[key, value] : records) {
    const auto found = whole.find(key);
    if (found == whole.end() || found->second != value) {
      return false;
    }
  }
  return true;
}

// What a walk meets until it ends; *status says how.
contents walked(pss_service_t service, bool forward, syserr_t *status) {
  contents seen;
  const pss_location_t start = forward ? PSS_FIRST_KEY : PSS_LAST_KEY;
  const pss_location_t step = forward ? PSS_NEXT_KEY : PSS_PREVIOUS_KEY;
  int steps = 0;
  for (pss_datum_t *key = pss_move2location(service, start, status); key != nullptr && steps < 2000;
       key = pss_move2location(service, step, status)) {
    const std::string name = text(key);
    syserr_t of_value = 0;
    seen[name] = text(pss_getvalue(service, &of_value));
    EXPECT_EQ(of_value, 0U);
    ++steps;
  }
  EXPECT_LT(steps, 2000) << "a walk without end";
  return seen;
}

// Every read of a store with a changed record gives true records or says that it is damaged.
void expect_told(const contents &records) {
  lab::store_info info;
  EXPECT_EQ(lab::store_inspect(k_uri, &info), 0x40480009U);
  const pss_service_t service = open(k_uri);
  for (const bool forward : {true, false}) {
    syserr_t status = 0;
    EXPECT_TRUE(is_part_of(walked(service, forward, &status), records));
    EXPECT_EQ(status, 0x40480009U);
  }
  EXPECT_EQ(pss_snapshot(service, 0, "volatile:/copy"), 0x40480009U);
  EXPECT_EQ(pss2_kernel2file(service, "/bootflash/flat", 0), 0x40480009U);
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(lab_test, a_changed_bit_in_a_value_is_damage) {
  const contents records = numbered(300, 40);
  make(k_uri, records);
  const std::string whole = switch_root::read_file(k_file);
  for (int n = 0; n < 300; n += 7) {
    const std::string key = key_of(n);
    std::string bytes = whole;
    const size_t at = bytes.find(key + std::string(40, 'v'));
    ASSERT_NE(at, std::string::npos);
    bytes[at + key.size() + static_cast<size_t>(n % 40)] ^= 1;
    switch_root::write_file(k_file, bytes);

    const pss_service_t service = open(k_uri);
    const pss_datum_t key_datum = datum(key);
    syserr_t status = 0;
    EXPECT_EQ(pss_fetch(service, &key_datum, &status), nullptr);
    EXPECT_EQ(status, 0x40480009U);
    EXPECT_EQ(pss_close(service), 0U);
    expect_told(records);
  }
}

TEST_F(lab_test, a_changed_bit_in_a_key_is_damage) {
  const contents records = numbered(300, 40);
  make(k_uri, records);
  const std::string whole = switch_root::read_file(k_file);
  for (const int mask : {0x01, 0x04, 0x20}) {
    for (int n = 0; n < 300; n += 11) {
      std::string bytes = whole;
      const size_t at = bytes.find(key_of(n) + std::string(40, 'v'));
      ASSERT_NE(at, std::string::npos);
      bytes[at] = static_cast<char>(bytes[at] ^ mask);
      switch_root::write_file(k_file, bytes);
      lab::store_info info;
      EXPECT_EQ(lab::store_inspect(k_uri, &info), 0x40480009U);
      const pss_service_t service = open(k_uri);
      for (const bool forward : {true, false}) {
        syserr_t status = 0;
        const contents seen = walked(service, forward, &status);
        EXPECT_TRUE(is_part_of(seen, records));
        EXPECT_TRUE(status == 0x40480009 || (status == 0x40480003 && seen == records)) << n;
      }
      EXPECT_EQ(pss_close(service), 0U);
    }
  }
}

TEST_F(lab_test, a_damaged_record_can_be_replaced_and_deleted) {
  make(k_uri, {{"a", "value-a"}, {"b", "value-b"}, {"c", "value-c"}});
  std::string bytes = switch_root::read_file(k_file);
  bytes[bytes.find("value-a")] ^= 1;
  bytes[bytes.find("value-b")] ^= 1;
  for (const bool journal : {false, true}) {
    switch_root::write_file(k_file, bytes);
    if (journal) {
      lab::journal_start(-1);
    }
    const pss_service_t service = open(k_uri);
    EXPECT_EQ(put(service, "a", "new"), 0U);
    EXPECT_EQ(remove(service, "b"), 0U);
    EXPECT_EQ(pss_close(service), 0U);
    EXPECT_EQ(read(k_uri), (contents{{"a", "new"}, {"c", "value-c"}}));
  }
}

} // namespace
