// Where stores lie, their limits, and what becomes of handles when others change or remove a store.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "lab/lab_fixture.h"

namespace {

constexpr char k_uri[] = "nonvolatile:/mnt/pss/store";

TEST_F(lab_test, the_file_of_a_store) {
  EXPECT_EQ(lab::store_file("nonvolatile:/mnt/pss/a"), "/mnt/pss/a.pss");
  EXPECT_EQ(lab::store_file("nonvolatile:mnt/pss/a"), "/mnt/pss/a.pss");
  EXPECT_EQ(lab::store_file("nonvolatile://mnt/./pss//a"), "/mnt/pss/a.pss");
  EXPECT_EQ(lab::store_file("volatile:/cfg/0/a"), "/dev/shm/volatile/cfg/0/a.pss");
  EXPECT_EQ(lab::store_file("volatile:/cfg/"), "/dev/shm/volatile/cfg/.pss");
  EXPECT_EQ(lab::store_file("nonvolatile:"), "/.pss");
}

TEST_F(lab_test, what_names_no_store) {
  const std::vector<std::string> bad = {"",
                                        "x",
                                        "/mnt/pss/a",
                                        "nonvolatile",
                                        "other:/a",
                                        "volatile:/../etc/a",
                                        "nonvolatile:/mnt/../a",
                                        "nonvolatile:/" + std::string(244, 'a'),
                                        "nonvolatile:/" + std::string(600, '/') + "a/b" +
                                            std::string(240, 'a') + "/" + std::string(240, 'b') +
                                            "/" + std::string(240, 'c'),
                                        std::string("nonvolatile:/a\0b", 16)};
  for (const std::string &uri : bad) {
    EXPECT_EQ(lab::store_file(uri), "") << uri;
  }
  EXPECT_EQ(pss_create(nullptr), 0x40480005U);
  EXPECT_EQ(pss_destroy("nonvolatile"), 0x40480005U);
  EXPECT_NE(lab::store_file("nonvolatile:/" + std::string(243, 'a')), "");
}

TEST_F(lab_test, the_longest_name_works) {
  const std::string uri = "nonvolatile:/" + std::string(243, 'a');
  make(uri, {{"key", "value"}});
  EXPECT_EQ(read(uri), (contents{{"key", "value"}}));
  EXPECT_EQ(pss_destroy(uri.c_str()), 0U);
}

TEST_F(lab_test, all_stores_are_found) {
  for (const char *uri : {"volatile:/cfg/0/v", "volatile:/cfg/", "nonvolatile:/mnt/pss/b",
                          "nonvolatile:/bootflash/a", "nonvolatile:/dev/shm/c"}) {
    ASSERT_EQ(pss_create(uri), 0U);
  }
  switch_root::write_file("/mnt/pss/note.txt", "no store");
  switch_root::write_file("/mnt/pss/damaged.pss", "no store either, but in a store's place");
  std::filesystem::create_directories("/mnt/pss/folder.pss");
  std::filesystem::create_symlink("/mnt/pss/b.pss", "/mnt/pss/link.pss");

  EXPECT_EQ(lab::store_uris(),
            (std::vector<std::string>{"nonvolatile:/bootflash/a", "nonvolatile:/dev/shm/c",
                                      "nonvolatile:/mnt/pss/b", "nonvolatile:/mnt/pss/damaged",
                                      "volatile:/cfg/", "volatile:/cfg/0/v"}));
}

TEST_F(lab_test, parameters_are_kept) {
  ASSERT_EQ(lab::store_create(k_uri, {16, 32, 64, 7}), 0U);
  EXPECT_EQ(lab::store_create(k_uri, {16, 32, 64, 7}), 0x40480001U);
  EXPECT_EQ(lab::store_create("volatile:/x", {0, 32, 0, 0}), 0x40480005U);
  EXPECT_EQ(lab::store_create("volatile:/x", {16, 0, 0, 0}), 0x40480005U);
  const pss2_service_t service = open(k_uri);
  ASSERT_EQ(put(service, "key", "value"), 0U);
  ASSERT_EQ(pss2_close(service), 0U);

  lab::store_info info;
  ASSERT_EQ(lab::store_inspect(k_uri, &info), 0U);
  EXPECT_EQ(info.records, 1U);
  EXPECT_EQ(info.bytes, std::filesystem::file_size("/mnt/pss/store.pss"));
  EXPECT_EQ(info.params.max_key_size, 16U);
  EXPECT_EQ(info.params.max_value_size, 32U);
  EXPECT_EQ(info.params.max_node_keys, 64U);
  EXPECT_EQ(info.params.version, 7U);
  EXPECT_EQ(lab::store_inspect("volatile:/x", &info), 0x40480002U);
  uint64_t records = 0;
  EXPECT_EQ(lab::store_count(k_uri, &records), 0U);
  EXPECT_EQ(records, 1U);
  EXPECT_EQ(lab::store_count("volatile:/x", &records), 0x40480002U);
}

TEST_F(lab_test, what_is_over_the_limits_is_too_large_and_nothing_changes) {
  ASSERT_EQ(lab::store_create(k_uri, {4, 6, 0, 1}), 0U);
  const pss2_service_t service = open(k_uri);
  EXPECT_EQ(put(service, "four", "sixsix"), 0U);
  EXPECT_EQ(put(service, "five5", "x"), 0x40480006U);
  EXPECT_EQ(put(service, "four", "seven77"), 0x40480006U);
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"four", "sixsix"}}));
}

TEST_F(lab_test, a_second_writer_is_told_that_the_store_is_in_use) {
  make(k_uri, {{"key", "value"}});
  const pss_service_t first = open(k_uri);
  const pss_service_t second = open(k_uri);
  ASSERT_EQ(put(first, "key", "first"), 0U);
  EXPECT_EQ(put(second, "key", "second"), 0x4048000DU);
  EXPECT_EQ(remove(second, "none"), 0x40480003U);
  ASSERT_EQ(pss_close(first), 0U);

  // Having been refused once is no failure of the handle.
  EXPECT_EQ(put(second, "more", "second"), 0U);
  EXPECT_EQ(pss_close(second), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"key", "first"}, {"more", "second"}}));
}

TEST_F(lab_test, a_handle_that_reads_holds_no_writer_up) {
  make(k_uri, {{"a", "1"}, {"b", "2"}});
  const pss_service_t reading = open(k_uri);
  ASSERT_EQ(move(reading, PSS_FIRST_KEY), "a");
  const pss_service_t writing = open(k_uri);
  ASSERT_EQ(put(writing, "c", "3"), 0U);
  EXPECT_EQ(pss_close(writing), 0U);
  EXPECT_EQ(move(reading, PSS_NEXT_KEY), "b");
  EXPECT_EQ(move(reading, PSS_NEXT_KEY), "c");
}

// The system drops a process's locks on a file as soon as the process closes any descriptor of it.
TEST_F(lab_test, a_writers_lock_outlives_other_handles_of_its_process) {
  make(k_uri, {{"key", "value"}});
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  // Forked before the store is open here: it shares nothing with the writer but the file.
  const pid_t other = fork();
  if (other == 0) {
    char byte = 0;
    const bool told = ::read(go[0], &byte, 1) == 1;
    _exit(told && put(open(k_uri), "key", "other") == 0x4048000D ? 0 : 1);
  }
  const pss_service_t writing = open(k_uri);
  ASSERT_EQ(put(writing, "key", "new"), 0U);
  ASSERT_EQ(read(k_uri), (contents{{"key", "value"}}));
  lab::store_info info;
  ASSERT_EQ(lab::store_inspect(k_uri, &info), 0U);

  ASSERT_EQ(::write(go[1], "g", 1), 1);
  int status = 1;
  ASSERT_EQ(waitpid(other, &status, 0), other);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(pss_close(writing), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"key", "new"}}));
}

TEST_F(lab_test, a_store_that_is_destroyed_takes_its_handles_along) {
  make(k_uri, {{"key", "value"}});
  const pss_service_t reading = open(k_uri);
  const pss_service_t writing = open(k_uri);
  ASSERT_EQ(move(reading, PSS_FIRST_KEY), "key");
  ASSERT_EQ(put(writing, "key", "lost"), 0U);

  EXPECT_EQ(pss_destroy(k_uri), 0U);
  EXPECT_EQ(list("/mnt/pss"), "");
  ASSERT_EQ(pss_create(k_uri), 0U);

  syserr_t status = 0;
  EXPECT_EQ(pss_getvalue(reading, &status), nullptr);
  EXPECT_EQ(status, 0x40480002U);
  EXPECT_EQ(put(writing, "key", "again"), 0x40480002U);
  EXPECT_EQ(pss_close(reading), 0U);
  EXPECT_EQ(pss_close(writing), 0U);
  EXPECT_EQ(read(k_uri), contents());
}

TEST_F(lab_test, a_file_that_vanished_is_no_store_for_the_one_who_writes) {
  make(k_uri, {{"key", "value"}});
  const pss_service_t service = open(k_uri);
  std::filesystem::remove("/mnt/pss/store.pss");
  const syserr_t stored = put(service, "key", "new");
  const syserr_t closed = pss_close(service);
  EXPECT_TRUE(stored == 0x40480002 || closed == 0x40480002) << stored << " " << closed;
}

TEST_F(lab_test, one_handle_serves_both_generations) {
  make(k_uri, {{"key", "value"}});
  const pss_service_t service = open(k_uri);
  syserr_t status = 1;
  pss2_service_t handle = service;
  EXPECT_EQ(pss2_move2location(&handle, 1, PSS_FIRST_KEY, &status), 0U);
  EXPECT_EQ(text(pss_getvalue(service, &status)), "value");
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss_close(service), 0x40480008U);
}

TEST_F(lab_test, closing_all_makes_all_durable) {
  make(k_uri, {});
  make("volatile:/x", {});
  ASSERT_EQ(put(open(k_uri), "a", "1"), 0U);
  ASSERT_EQ(put(open("volatile:/x"), "b", "2"), 0U);
  size_t closed = 0;
  EXPECT_EQ(lab::close_all_stores(&closed), 0U);
  EXPECT_EQ(closed, 2U);
  EXPECT_EQ(read(k_uri), (contents{{"a", "1"}}));
  EXPECT_EQ(read("volatile:/x"), (contents{{"b", "2"}}));
  EXPECT_EQ(lab::close_all_stores(nullptr), 0U);
}

TEST_F(lab_test, a_snapshot_replaces_records_and_parameters) {
  ASSERT_EQ(lab::store_create(k_uri, {16, 32, 64, 7}), 0U);
  const pss_service_t source = open(k_uri);
  ASSERT_EQ(put(source, "new", "uncommitted"), 0U);
  make("volatile:/target", {{"old", "1"}, {"new", "2"}});
  const pss_service_t reading = open("volatile:/target");
  ASSERT_EQ(move(reading, PSS_FIRST_KEY), "new");

  EXPECT_EQ(pss_snapshot(source, 0, "volatile:/target"), 0U);

  EXPECT_EQ(move(reading, PSS_NEXT_KEY), "(none)");
  EXPECT_EQ(read("volatile:/target"), (contents{{"new", "uncommitted"}}));
  lab::store_info info;
  ASSERT_EQ(lab::store_inspect("volatile:/target", &info), 0U);
  EXPECT_EQ(info.params.version, 7U);
  EXPECT_EQ(pss_snapshot(source, 0, k_uri), 0U); // onto itself: there is nothing to copy
  EXPECT_EQ(pss_snapshot(source, 0, "nonsense"), 0x40480005U);
  EXPECT_EQ(pss_snapshot(source, 0, nullptr), 0x40480005U);
  EXPECT_EQ(pss_close(source), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"new", "uncommitted"}}));
}

TEST_F(lab_test, a_snapshot_over_a_store_that_is_being_written_is_in_use) {
  make(k_uri, {{"a", "1"}});
  make("volatile:/target", {{"old", "1"}});
  const pss_service_t writing = open("volatile:/target");
  ASSERT_EQ(put(writing, "own", "2"), 0U);
  const pss_service_t source = open(k_uri);
  EXPECT_EQ(pss_snapshot(source, 0, "volatile:/target"), 0x4048000DU);
  EXPECT_EQ(pss_close(writing), 0U);
  EXPECT_EQ(read("volatile:/target"), (contents{{"old", "1"}, {"own", "2"}}));
}

TEST_F(lab_test, a_snapshot_of_committed_records_takes_all_along) {
  ASSERT_EQ(lab::store_create(k_uri, {16, 32, 64, 7}), 0U);
  const pss_service_t writing = open(k_uri);
  ASSERT_EQ(put(writing, "a", "1"), 0U);
  ASSERT_EQ(put(writing, "b", "2"), 0U);
  ASSERT_EQ(pss_close(writing), 0U);
  EXPECT_EQ(pss_snapshot(open(k_uri), 0, "nonvolatile:/cfg/0/copy"), 0U);
  EXPECT_EQ(read("nonvolatile:/cfg/0/copy"), (contents{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(list("/cfg/0"), "copy.pss");
  lab::store_info info;
  ASSERT_EQ(lab::store_inspect("nonvolatile:/cfg/0/copy", &info), 0U);
  EXPECT_EQ(info.params.max_key_size, 16U);
  EXPECT_EQ(info.params.max_value_size, 32U);
  EXPECT_EQ(info.params.max_node_keys, 64U);
  EXPECT_EQ(info.params.version, 7U);
}

TEST_F(lab_test, a_snapshot_takes_no_file_along_that_is_mostly_empty) {
  contents records;
  for (int n = 0; n < 200; ++n) {
    records["key-" + std::to_string(n)] = std::string(1000, 'v');
  }
  make(k_uri, records);
  const pss_service_t emptying = open(k_uri);
  for (const auto &[key, value] : records) {
    ASSERT_EQ(remove(emptying, key), 0U);
  }
  ASSERT_EQ(put(emptying, "last", "one"), 0U);
  ASSERT_EQ(pss_close(emptying), 0U);
  EXPECT_EQ(pss_snapshot(open(k_uri), 0, "volatile:/copy"), 0U);
  EXPECT_EQ(read("volatile:/copy"), (contents{{"last", "one"}}));
  lab::store_info info;
  ASSERT_EQ(lab::store_inspect(k_uri, &info), 0U);
  EXPECT_GT(info.bytes, 200'000U);
  ASSERT_EQ(lab::store_inspect("volatile:/copy", &info), 0U);
  EXPECT_LE(info.bytes, 12'288U);
}

// Changes one byte of a text in the store's file.
void damage(const char *file, const std::string &text) {
  std::string bytes = switch_root::read_file(file);
  const size_t at = bytes.find(text);
  ASSERT_NE(at, std::string::npos);
  bytes[at] ^= 1;
  switch_root::write_file(file, bytes);
}

TEST_F(lab_test, a_snapshot_of_a_damaged_record_makes_no_store) {
  make(k_uri, {{"a", "1"}, {"b", "the-value"}});
  damage("/mnt/pss/store.pss", "the-value");
  EXPECT_EQ(pss_snapshot(open(k_uri), 0, "nonvolatile:/cfg/0/copy"), 0x40480009U);
  EXPECT_EQ(list("/cfg/0"), "");
}

TEST_F(lab_test, the_same_value_replaces_a_damaged_one) {
  make(k_uri, {{"a", "1"}, {"b", "the-value"}});
  damage("/mnt/pss/store.pss", "the-value");
  const pss_service_t service = open(k_uri);
  ASSERT_EQ(put(service, "b", "the-value"), 0U);
  ASSERT_EQ(pss_close(service), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"a", "1"}, {"b", "the-value"}}));
}

TEST_F(lab_test, the_same_value_leaves_the_file_as_it_is) {
  make(k_uri, {{"a", "1"}, {"b", "2"}});
  const std::string bytes = switch_root::read_file("/mnt/pss/store.pss");
  const pss_service_t service = open(k_uri);
  ASSERT_EQ(put(service, "a", "1"), 0U);
  ASSERT_EQ(put(service, "b", "2"), 0U);
  ASSERT_EQ(pss_close(service), 0U);
  EXPECT_EQ(switch_root::read_file("/mnt/pss/store.pss"), bytes);
}

} // namespace
