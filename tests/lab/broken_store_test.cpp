// What stands where a store should be and is none of ours: a status, and it stays as it is.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <random>
#include <string>

#include "lab/lab_fixture.h"

namespace {

constexpr char k_uri[] = "nonvolatile:/mnt/pss/store";
constexpr char k_file[] = "/mnt/pss/store.pss";

std::string fresh_store() {
  make(k_uri, {{"key", "value"}});
  return switch_root::read_file(k_file);
}

// What each function that opens a store says, when they agree; 1 otherwise.
syserr_t opening() {
  syserr_t first = 1;
  syserr_t second = 1;
  syserr_t created = 1;
  EXPECT_EQ(pss_open(k_uri, &first), 0U);
  EXPECT_EQ(pss2_open(k_uri, 3, SRVUUID_NONE, 0, 0, &second), 0U);
  EXPECT_EQ(pss2_open(k_uri, 0x13, SRVUUID_NONE, 0, 0, &created), 0U);
  lab::store_info info;
  const syserr_t inspected = lab::store_inspect(k_uri, &info);
  return first == second && second == created && created == inspected ? first : 1;
}

void expect_damaged_and_untouched(const std::string &bytes) {
  switch_root::write_file(k_file, bytes);
  EXPECT_EQ(opening(), 0x40480009U);
  EXPECT_EQ(pss_create(k_uri), 0x40480001U);
  make("nonvolatile:/mnt/pss/source", {{"a", "b"}});
  const pss_service_t source = open("nonvolatile:/mnt/pss/source");
  EXPECT_EQ(pss_snapshot(source, 0, k_uri), 0x40480009U);
  EXPECT_EQ(pss_close(source), 0U);
  EXPECT_EQ(switch_root::read_file(k_file), bytes);
  EXPECT_EQ(list("/mnt/pss"), "source.pss store.pss");
}

TEST_F(lab_test, a_file_of_no_bytes_is_damaged) {
  expect_damaged_and_untouched("");
}

TEST_F(lab_test, a_text_file_is_damaged) {
  expect_damaged_and_untouched("not a store\n");
}

TEST_F(lab_test, a_store_without_its_header_is_damaged) {
  std::string bytes = fresh_store();
  bytes.replace(0, 16, 16, 'x');
  expect_damaged_and_untouched(bytes);
}

TEST_F(lab_test, a_store_that_is_cut_short_is_damaged) {
  const std::string bytes = fresh_store();
  for (const size_t size : {1U, 99U, 100U, 4095U, 4096U, 8000U}) {
    expect_damaged_and_untouched(bytes.substr(0, size));
  }
}

TEST_F(lab_test, a_store_of_another_layout_is_damaged) {
  std::string bytes = fresh_store();
  bytes[63] = 1; // user_version
  expect_damaged_and_untouched(bytes);
}

// A database of some other program, made with SQL.
std::string database(const char *sql) {
  sqlite3 *db = nullptr;
  EXPECT_EQ(sqlite3_open("/tmp/other.db", &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
  return switch_root::read_file("/tmp/other.db");
}

constexpr char k_our_numbers[] = "PRAGMA application_id=1145925747; PRAGMA user_version=2;";

TEST_F(lab_test, a_database_of_another_program_is_damaged) {
  expect_damaged_and_untouched(database("CREATE TABLE t (a); INSERT INTO t VALUES (1)"));
}

TEST_F(lab_test, a_database_with_other_tables_under_our_number_is_damaged) {
  expect_damaged_and_untouched(
      database((std::string(k_our_numbers) + "CREATE TABLE t (a)").c_str()));
}

TEST_F(lab_test, a_store_with_a_trigger_is_damaged) {
  fresh_store();
  std::filesystem::rename(k_file, "/tmp/other.db");
  expect_damaged_and_untouched(
      database("CREATE TRIGGER t AFTER INSERT ON params BEGIN DELETE FROM records; END"));
}

TEST_F(lab_test, a_store_turned_to_a_write_ahead_log_is_damaged) {
  fresh_store();
  std::filesystem::rename(k_file, "/tmp/other.db");
  expect_damaged_and_untouched(database("PRAGMA journal_mode=WAL; DELETE FROM params WHERE 0"));
}

TEST_F(lab_test, a_store_without_parameters_is_damaged) {
  fresh_store();
  std::filesystem::rename(k_file, "/tmp/other.db");
  expect_damaged_and_untouched(database("DELETE FROM params WHERE name='version'"));
}

TEST_F(lab_test, a_store_with_parameters_that_are_no_sizes_is_damaged) {
  for (const char *change : {"UPDATE params SET value=-1 WHERE name='version'",
                             "UPDATE params SET value=4294967296 WHERE name='version'"}) {
    fresh_store();
    std::filesystem::rename(k_file, "/tmp/other.db");
    expect_damaged_and_untouched(database(change));
    std::filesystem::remove(k_file);
  }
}

// Its journal is waiting: whoever opens the database would replay it.
TEST_F(lab_test, the_journal_of_another_programs_database_is_left_alone) {
  const std::string bytes = database("CREATE TABLE t (a); INSERT INTO t VALUES (1)");
  const std::string journal("\xd9\xd5\x05\xf9\x20\xa1\x63\xd7 and so on");
  switch_root::write_file(k_file, bytes);
  switch_root::write_file(std::string(k_file) + "-journal", journal);

  EXPECT_EQ(opening(), 0x40480009U);

  EXPECT_EQ(switch_root::read_file(k_file), bytes);
  EXPECT_EQ(switch_root::read_file(std::string(k_file) + "-journal"), journal);
}

TEST_F(lab_test, a_folder_is_damaged_and_stays) {
  switch_root::write_file(std::string(k_file) + "/inside", "x");
  EXPECT_EQ(opening(), 0x40480009U);
  EXPECT_EQ(pss_create(k_uri), 0x40480001U);
  EXPECT_EQ(pss_destroy(k_uri), 0x40480009U);
  EXPECT_EQ(switch_root::read_file(std::string(k_file) + "/inside"), "x");
}

TEST_F(lab_test, a_fifo_is_damaged_and_nobody_waits_for_it) {
  ASSERT_EQ(mkfifo(k_file, 0600), 0);
  EXPECT_EQ(opening(), 0x40480009U);
}

TEST_F(lab_test, a_link_that_leads_nowhere_is_no_store) {
  std::filesystem::create_symlink("/nowhere", k_file);
  EXPECT_EQ(pss_create(k_uri), 0x40480001U);
  syserr_t status = 0;
  EXPECT_EQ(pss_open(k_uri, &status), 0U);
  EXPECT_EQ(status, 0x40480002U);
}

TEST_F(lab_test, destroy_removes_damaged_files_too) {
  for (const char *bytes : {"", "not a store\n"}) {
    switch_root::write_file(k_file, bytes);
    switch_root::write_file(std::string(k_file) + "-journal", "left");
    EXPECT_EQ(pss_destroy(k_uri), 0U);
    EXPECT_EQ(list("/mnt/pss"), "");
  }
}

TEST_F(lab_test, without_rights_it_is_no_access) {
  make(k_uri, {{"key", "value"}});
  const std::string bytes = switch_root::read_file(k_file);
  ASSERT_EQ(chmod(k_file, 0), 0);
  EXPECT_EQ(in_child([] {
              drop_file_capabilities();
              const syserr_t opened = opening();
              const bool same = opened == 0x4048000A;
              return same && !testing::Test::HasFailure() ? 0 : 1;
            }),
            0);
  ASSERT_EQ(chmod(k_file, 0600), 0);
  EXPECT_EQ(switch_root::read_file(k_file), bytes);
}

TEST_F(lab_test, a_store_that_may_only_be_read_is_opened_for_reading_only) {
  make(k_uri, {{"key", "value"}});
  ASSERT_EQ(chmod(k_file, 0400), 0);
  EXPECT_EQ(in_child([] {
              drop_file_capabilities();
              syserr_t status = 0;
              const bool refused = pss_open(k_uri, &status) == 0 && status == 0x4048000A;
              const pss2_service_t service = pss2_open(k_uri, 1, SRVUUID_NONE, 0, 0, &status);
              const std::string name = "key";
              const pss_datum_t key = datum(name);
              const bool read = text(pss2_fetch(service, &key, &status)) == "value";
              const bool kept = pss2_store(service, &key, &key) == 0x4048000A;
              return refused && read && kept ? 0 : 1;
            }),
            0);
}

TEST_F(lab_test, a_folder_that_may_not_be_written_is_no_access) {
  make(k_uri, {{"key", "value"}});
  ASSERT_EQ(chmod("/mnt/pss", 0500), 0);
  EXPECT_EQ(in_child([] {
              drop_file_capabilities();
              syserr_t status = 0;
              const pss_service_t service = pss_open(k_uri, &status);
              const bool refused = put(service, "key", "new") == 0x4048000A &&
                                   pss_create("nonvolatile:/mnt/pss/new") == 0x4048000A &&
                                   pss_destroy(k_uri) == 0x4048000A;
              pss_close(service);
              return refused ? 0 : 1;
            }),
            0);
  ASSERT_EQ(chmod("/mnt/pss", 0755), 0);
  EXPECT_EQ(read(k_uri), (contents{{"key", "value"}}));
}

// Bytes of the file changed at random: every call gives a status or a record, nothing crashes.
TEST_F(lab_test, damage_anywhere_is_survived) {
  contents records;
  for (int i = 0; i < 400; ++i) {
    records["key-" + std::to_string(i)] = std::string(static_cast<size_t>(i % 120), 'v');
  }
  make(k_uri, records);
  const std::string whole = switch_root::read_file(k_file);
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::string bytes = whole;
    for (auto changes = 1 + random() % 20; changes > 0; --changes) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    switch_root::write_file(k_file, bytes);
    syserr_t status = 0;
    const pss_service_t service = pss_open(k_uri, &status);
    unsigned steps = 0;
    for (pss_datum_t *key = pss_move2location(service, PSS_FIRST_KEY, &status);
         key != nullptr && steps < 2000; key = pss_move2location(service, PSS_NEXT_KEY, &status)) {
      pss_getvalue(service, &status);
      ++steps;
    }
    put(service, "key-200", "new");
    remove(service, "key-300");
    pss_snapshot(service, 0, "volatile:/copy");
    pss_close(service);
    pss_destroy("volatile:/copy");
  }
}

} // namespace
