// A process that is killed at any moment leaves each store and each flat file wholly before or
// wholly after what it was doing.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "lab/kill_point.h"
#include "lab/lab_fixture.h"

namespace {

constexpr int k_killed = 128 + SIGKILL;
constexpr int k_most_points = 2000;

contents numbered(int count, const std::string &value) {
  contents records;
  for (int i = 0; i < count; ++i) {
    char key[16];
    std::snprintf(key, sizeof(key), "key-%05d", i);
    records[key] = value + std::string(static_cast<size_t>(i % 90), 'v');
  }
  return records;
}

// One thing that a process does, as often as there are points at which it can be killed.
struct deed {
  std::function<void()> prepare;
  std::function<int()> act; // 0 when done
  std::function<contents()> look;
  contents before;
  contents after;
};

struct outcome {
  int points = 0;
  int befores = 0;
  int afters = 0;
};

outcome kill_everywhere(const deed &one, bool torn) {
  outcome seen;
  for (int point = 1; point < k_most_points; ++point) {
    one.prepare();
    const int end = in_child([&one, point, torn] {
      kill_point::arm(point, torn);
      return one.act();
    });
    const contents found = one.look();
    if (end != k_killed) {
      EXPECT_EQ(end, 0);
      EXPECT_EQ(found, one.after);
      return seen;
    }
    ++seen.points;
    EXPECT_TRUE(found == one.before || found == one.after) << "killed at change " << point;
    seen.befores += found == one.before ? 1 : 0;
    seen.afters += found == one.after ? 1 : 0;
  }
  ADD_FAILURE() << "no end of changes";
  return seen;
}

void expect_all(const deed &one, int least_points) {
  for (const bool torn : {false, true}) {
    const outcome seen = kill_everywhere(one, torn);
    EXPECT_GE(seen.points, least_points);
    EXPECT_GT(seen.befores, 0);
  }
}

class kill_test : public lab_test, public testing::WithParamInterface<const char *> {
protected:
  std::string uri(const char *name) const { return std::string(GetParam()) + name; }
};

int change_records(const std::string &uri, const contents &from, const contents &to) {
  syserr_t status = 0;
  const pss_service_t service = pss_open(uri.c_str(), &status);
  for (const auto &[key, value] : from) {
    status |= to.count(key) == 0 ? remove(service, key) : 0;
  }
  for (const auto &[key, value] : to) {
    status |= put(service, key, value);
  }
  status |= pss_close(service);
  return status == 0 ? 0 : 1;
}

TEST_P(kill_test, writing_records) {
  const std::string store = uri("/mnt/pss/store");
  deed one;
  one.before = numbered(900, "old");
  one.after = numbered(1100, "new");
  one.after.erase("key-00003");
  one.prepare = [&] { make(store, one.before); };
  one.act = [&] { return change_records(store, one.before, one.after); };
  one.look = [&] { return read(store); };

  expect_all(one, 50);
}

TEST_P(kill_test, creating_a_store) {
  const std::string store = uri("/cfg/0/new");
  deed one;
  one.before = no_store("40480002");
  one.prepare = [&] { switch_root::reset(); };
  one.act = [&] { return pss_create(store.c_str()) == 0 ? 0 : 1; };
  one.look = [&] {
    const contents found = read(store);
    // Whatever is left does not get in the way of the next one, or stay.
    const syserr_t made = pss_create(store.c_str());
    EXPECT_EQ(made, found == one.before ? 0U : 0x40480001U);
    EXPECT_EQ(read(store), contents());
    EXPECT_EQ(pss_destroy(store.c_str()), 0U);
    const std::string file = lab::store_file(store);
    EXPECT_EQ(list(file.substr(0, file.rfind('/'))), "");
    return found;
  };

  expect_all(one, 3);
}

TEST_P(kill_test, destroying_a_store) {
  const std::string store = uri("/mnt/pss/store");
  deed one;
  one.before = numbered(300, "old");
  one.after = no_store("40480002");
  one.prepare = [&] { make(store, one.before); };
  one.act = [&] { return pss_destroy(store.c_str()) == 0 ? 0 : 1; };
  one.look = [&] { return read(store); };

  expect_all(one, 2);
}

// A writer of the store's 300 records, killed in the last write of its commit: the journal is
// complete, the file half written.
void leave_journal(const std::string &store) {
  const std::string journal = lab::store_file(store) + "-journal";
  const std::string whole = switch_root::read_file(lab::store_file(store));
  int last = 0;
  for (int point = 1, end = k_killed; end == k_killed; ++point) {
    switch_root::write_file(lab::store_file(store), whole);
    std::filesystem::remove(journal);
    end = in_child([&store, point] {
      kill_point::arm(point, true);
      return change_records(store, {}, numbered(300, "new"));
    });
    last = switch_root::exists(journal) ? point : last;
  }
  ASSERT_GT(last, 0);
  switch_root::write_file(lab::store_file(store), whole);
  ASSERT_EQ(in_child([&store, last] {
              kill_point::arm(last, true);
              return change_records(store, {}, numbered(300, "new"));
            }),
            k_killed);
  ASSERT_NE(switch_root::read_file(lab::store_file(store)), whole);
  ASSERT_TRUE(switch_root::exists(journal));
}

TEST_P(kill_test, a_journal_without_its_store_is_not_replayed_into_the_next_one) {
  const std::string store = uri("/mnt/pss/store");
  make(store, numbered(300, "old"));
  leave_journal(store);
  std::filesystem::remove(lab::store_file(store));

  EXPECT_EQ(pss_create(store.c_str()), 0U);

  EXPECT_EQ(read(store), contents());
  EXPECT_EQ(list(std::filesystem::path(lab::store_file(store)).parent_path()), "store.pss");
}

TEST_P(kill_test, a_snapshot_to_a_new_store_is_not_spoilt_by_a_journal) {
  const std::string store = uri("/mnt/pss/store");
  make(store, numbered(300, "old"));
  make("volatile:/from", numbered(20, "new"));
  leave_journal(store);
  std::filesystem::remove(lab::store_file(store));

  const pss_service_t from = open("volatile:/from");
  EXPECT_EQ(pss_snapshot(from, 0, store.c_str()), 0U);

  EXPECT_EQ(read(store), numbered(20, "new"));
}

// The journal of a killed writer must not survive its store and be replayed into the next one.
TEST_P(kill_test, destroying_a_store_whose_writer_was_killed) {
  const std::string store = uri("/mnt/pss/store");
  deed one;
  one.before = numbered(300, "old");
  one.after = no_store("40480002");
  one.prepare = [&] {
    make(store, one.before);
    leave_journal(store);
  };
  one.act = [&] { return pss_destroy(store.c_str()) == 0 ? 0 : 1; };
  one.look = [&] {
    const contents found = read(store);
    if (found == one.after) {
      EXPECT_EQ(pss_create(store.c_str()), 0U);
      EXPECT_EQ(read(store), contents());
    }
    return found;
  };

  expect_all(one, 3);
}

TEST_P(kill_test, a_snapshot_over_a_store) {
  const std::string from = uri("/mnt/pss/from");
  const std::string to = uri("/mnt/pss/to");
  deed one;
  one.before = numbered(500, "old");
  one.after = numbered(700, "new");
  one.prepare = [&] {
    make(from, one.after);
    make(to, one.before);
  };
  one.act = [&] {
    const pss_service_t service = open(from);
    return pss_snapshot(service, 0, to.c_str()) == 0 ? 0 : 1;
  };
  one.look = [&] { return read(to); };

  expect_all(one, 30);
}

TEST_P(kill_test, a_snapshot_to_a_new_store) {
  const std::string from = uri("/mnt/pss/from");
  const std::string to = uri("/mnt/pss/deep/to");
  deed one;
  one.before = no_store("40480002");
  one.after = numbered(700, "new");
  one.after["large"] = std::string(1'000'000, 'l'); // the file is copied by several writes
  make(from, one.after);
  one.prepare = [&] { pss_destroy(to.c_str()); };
  one.act = [&] {
    const pss_service_t service = open(from);
    return pss_snapshot(service, 0, to.c_str()) == 0 ? 0 : 1;
  };
  one.look = [&] { return read(to); };

  expect_all(one, 9);
}

TEST_P(kill_test, a_snapshot_of_uncommitted_records_to_a_new_store) {
  const std::string from = uri("/mnt/pss/from");
  const std::string to = uri("/mnt/pss/deep/to");
  deed one;
  one.before = no_store("40480002");
  one.after = numbered(700, "new");
  make(from, one.after);
  one.after["key-00003"] = "uncommitted";
  one.prepare = [&] { pss_destroy(to.c_str()); };
  one.act = [&] {
    const pss_service_t service = open(from);
    const syserr_t written = put(service, "key-00003", "uncommitted");
    return written == 0U && pss_snapshot(service, 0, to.c_str()) == 0 ? 0 : 1;
  };
  one.look = [&] { return read(to); };

  expect_all(one, 10);
}

TEST_P(kill_test, writing_a_flat_file) {
  const std::string store = uri("/mnt/pss/store");
  const std::string empty = uri("/mnt/pss/empty");
  deed one;
  one.before = numbered(400, "old");
  one.after = numbered(2000, "new");
  const auto write_flat = [&store] {
    const pss2_service_t service = open(store);
    const syserr_t written = pss2_kernel2file(service, "/bootflash/flat", 0);
    return written == 0 && pss2_close(service) == 0 ? 0 : 1;
  };
  one.prepare = [&] {
    make(store, one.before);
    ASSERT_EQ(write_flat(), 0);
    make(store, one.after);
  };
  one.act = write_flat;
  one.look = [&] {
    make(empty, {});
    const pss2_service_t service = open(empty);
    EXPECT_EQ(pss2_file2kernel("/bootflash/flat", service, 0), 0U);
    EXPECT_EQ(pss2_close(service), 0U);
    return read(empty);
  };

  expect_all(one, 5);
}

TEST_P(kill_test, loading_a_flat_file) {
  const std::string store = uri("/mnt/pss/store");
  deed one;
  one.before = numbered(500, "old");
  one.after = numbered(800, "new");
  make(store, one.after);
  const pss2_service_t full = open(store);
  ASSERT_EQ(pss2_kernel2file(full, "/bootflash/flat", 0), 0U);
  ASSERT_EQ(pss2_close(full), 0U);
  one.prepare = [&] { make(store, one.before); };
  one.act = [&] {
    const pss2_service_t service = open(store);
    const syserr_t loaded = pss2_file2kernel("/bootflash/flat", service, 0);
    return loaded == 0 && pss2_close(service) == 0 ? 0 : 1;
  };
  one.look = [&] { return read(store); };

  expect_all(one, 30);
}

// At moments that no call marks: a process that rewrites all records again and again, killed after
// some time. All records must then carry one number.
TEST_P(kill_test, at_random_moments) {
  const std::string store = uri("/mnt/pss/store");
  make(store, numbered(200, "0"));
  std::mt19937 random(20091);
  for (int round = 0; round < 150; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      for (int n = 1; change_records(store, {}, numbered(200, std::to_string(n))) == 0; ++n) {
      }
      _exit(1);
    }
    usleep(static_cast<useconds_t>(random() % 15000));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed";

    const contents found = read(store);
    const std::string number = found.begin()->second;
    ASSERT_EQ(found, numbered(200, number)) << "round " << round;
  }
}

INSTANTIATE_TEST_SUITE_P(both_kinds, kill_test, testing::Values("nonvolatile:", "volatile:"),
                         [](const auto &kind) {
                           return std::string(kind.index == 0 ? "nonvolatile" : "volatile");
                         });

} // namespace
