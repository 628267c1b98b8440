// The library's global snapshot databases on the lab's stores and flat files: files that are
// damaged or are none, folders that cannot be written, disks without room. The operation goes on
// where it is to go on, and leaves no store, handle or half a file.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "lab/lab_fixture.h"
#include "libdatamorph.h"
#include "support/trace_capture.h"

namespace {

constexpr char k_meta_file[] = "/mnt/pss/conv/globalpss_table.snp";
constexpr char k_meta_store[] = "volatile:/mnt/pss/conv/globalpss_table";

class flat_file_gsdb : public lab_test {
protected:
  using lines_t = std::vector<std::string>;

  lines_t add(const char *uri) {
    return traced(
        [&] { return datamorph_gsdb_add("/mnt/pss/conv", uri, 0xFF00000C, SRVUUID_SVI, 0); });
  }
  lines_t remove(const char *uri) {
    return traced([&] { return datamorph_gsdb_delete("/mnt/pss/conv", uri); });
  }
  lines_t traced(const std::function<syserr_t()> &call) {
    lines_t lines = trace_messages(captured_stderr([&] { status_ = call(); }));
    size_t open_handles = 1;
    EXPECT_EQ(lab::close_all_stores(&open_handles), 0U);
    EXPECT_EQ(open_handles, 0U);
    return lines;
  }

  static std::string key(const std::string &uri) { return uri + '\0'; }
  static std::string svi() { return std::string("\x0c\0\0\xff\x7c\x01\0\0\0\0\0\0", 12); }
  static contents flat(const std::string &file) {
    contents found;
    const syserr_t status =
        lab::flat_file_read(file, [&](std::string_view record_key, std::string_view value) {
          found[std::string(record_key)] = value;
        });
    return status == 0 ? found : no_store(std::to_string(status).c_str());
  }
  static bool has(const lines_t &lines, const std::string &line) {
    return std::count(lines.begin(), lines.end(), line) == 1;
  }
  // No store is left below the conversion directory.
  static void expect_no_stores() {
    EXPECT_EQ(switch_root::exists("/dev/shm/volatile/mnt/pss/conv")
                  ? list("/dev/shm/volatile/mnt/pss/conv")
                  : "",
              "");
  }

  syserr_t status_ = 0xdead;
};

TEST_F(flat_file_gsdb, databases_are_registered_and_dumped) {
  make("volatile:/mnt/pss/conv/one", {{"vlan 1", "up"}});

  EXPECT_TRUE(has(add("/cfg/one"),
                  "datamorph_read_from_snapshot: /mnt/pss/conv/globalpss_table.snp "
                  "pss2_file2kernel failed. err no such store\n"));
  EXPECT_EQ(status_, 0U);
  EXPECT_EQ(flat(k_meta_file), (contents{{key("/cfg/one"), svi()}}));
  EXPECT_EQ(flat("/mnt/pss/conv/one.snp"), (contents{{"vlan 1", "up"}}));
  expect_no_stores();

  add("/cfg/other/");
  EXPECT_EQ(status_, 0U);
  add("/cfg/one");
  EXPECT_EQ(status_, 0U);
  EXPECT_EQ(flat(k_meta_file), (contents{{key("/cfg/one"), svi()}, {key("/cfg/other/"), svi()}}));
  EXPECT_EQ(flat("/mnt/pss/conv/one.snp"), contents()); // it was not in memory any more
  EXPECT_EQ(flat("/mnt/pss/conv/.snp"), contents());

  remove("/cfg/one");
  EXPECT_EQ(status_, 0U);
  EXPECT_TRUE(has(remove("/cfg/one"),
                  "delete_gsdb_table_entry: delete [/cfg/one] from gsdb meta table. ec "
                  "0x40480003\n"));
  EXPECT_EQ(status_, 0U);
  EXPECT_EQ(flat(k_meta_file), (contents{{key("/cfg/other/"), svi()}}));
  EXPECT_EQ(list("/mnt/pss/conv"), ".snp globalpss_table.snp one.snp");
  expect_no_stores();
}

TEST_F(flat_file_gsdb, no_uri_without_a_slash_is_registered) {
  EXPECT_EQ(add("svi_gldb"), lines_t());
  EXPECT_EQ(status_, 0xFFFFFFFFU);
  EXPECT_FALSE(switch_root::exists("/mnt/pss/conv"));
}

// Nothing of a damaged table is believed, and the next one is whole again.
TEST_F(flat_file_gsdb, a_damaged_table_is_begun_anew) {
  add("/cfg/old");
  const std::string good = switch_root::read_file(k_meta_file);
  std::vector<std::string> damaged = {good + '\0', "of another program, and longer than a header"};
  for (size_t at = 0; at < good.size(); at += 5) {
    damaged.push_back(good.substr(0, at));
    damaged.push_back(good);
    damaged.back()[at] = static_cast<char>(good[at] ^ (1 << at % 8));
  }
  for (const std::string &bytes : damaged) {
    switch_root::write_file(k_meta_file, bytes);
    EXPECT_TRUE(has(add("/cfg/new"),
                    "datamorph_read_from_snapshot: /mnt/pss/conv/globalpss_table.snp "
                    "pss2_file2kernel failed. err store or record damaged\n"));
    EXPECT_EQ(status_, 0U);
    EXPECT_EQ(flat(k_meta_file), (contents{{key("/cfg/new"), svi()}}));
  }
  switch_root::write_file(k_meta_file, "");
  remove("/cfg/old");
  EXPECT_EQ(status_, 0U);
  EXPECT_EQ(flat(k_meta_file), contents());
  expect_no_stores();
}

// What is no file is neither read nor replaced; the database itself is dumped all the same.
TEST_F(flat_file_gsdb, what_is_no_file_stays) {
  ASSERT_EQ(mkdir("/mnt/pss/conv", 0755), 0);
  ASSERT_EQ(mkfifo(k_meta_file, 0600), 0);
  for (const bool folder : {false, true}) {
    if (folder) {
      ASSERT_EQ(unlink(k_meta_file), 0);
      ASSERT_EQ(mkdir(k_meta_file, 0755), 0);
    }
    make("volatile:/mnt/pss/conv/one", {{"vlan 1", "up"}});
    const lines_t lines = add("/cfg/one");
    EXPECT_EQ(status_, 0U);
    EXPECT_TRUE(has(lines, "datamorph_read_from_snapshot: /mnt/pss/conv/globalpss_table.snp "
                           "pss2_file2kernel failed. err store or record damaged\n"));
    EXPECT_TRUE(has(lines, "datamorph_write_to_snapshot: /mnt/pss/conv/globalpss_table.snp "
                           "pss2_kernel2file failed. err store or record damaged\n"));
    EXPECT_EQ(flat("/mnt/pss/conv/one.snp"), (contents{{"vlan 1", "up"}}));
    EXPECT_EQ(list("/mnt/pss/conv"), "globalpss_table.snp one.snp");
    expect_no_stores();
  }
}

TEST_F(flat_file_gsdb, without_room_the_files_stay_as_they_were) {
  switch_root::mount_small("/mnt/pss/conv", "64k");
  add("/cfg/one");
  const std::string before = switch_root::read_file(k_meta_file);
  std::FILE *const filler = std::fopen("/mnt/pss/conv/filler", "w");
  ASSERT_NE(filler, nullptr);
  const std::string page(4096, 'f');
  while (std::fwrite(page.data(), page.size(), 1, filler) == 1 && std::fflush(filler) == 0) {
  }
  std::fclose(filler);

  const lines_t lines = add("/cfg/two");
  EXPECT_EQ(status_, 0U);
  EXPECT_TRUE(has(lines,
                  "datamorph_write_to_snapshot: /mnt/pss/conv/globalpss_table.snp pss2_kernel2file "
                  "failed. err no room left for a store\n"));
  EXPECT_TRUE(has(lines,
                  "datamorph_write_to_snapshot: /mnt/pss/conv/two.snp pss2_kernel2file failed. err "
                  "no room left for a store\n"));
  remove("/cfg/one");
  EXPECT_EQ(status_, 0U);
  EXPECT_EQ(switch_root::read_file(k_meta_file), before);
  EXPECT_EQ(list("/mnt/pss/conv"), "filler globalpss_table.snp one.snp");
  expect_no_stores();
}

class flat_file_gsdb_unwritable : public flat_file_gsdb {
protected:
  // Adds and removes; the files are as they were and both dumps have failed for that.
  void expect_only_traced() {
    const std::string before = switch_root::read_file(k_meta_file);
    const lines_t lines = add("/cfg/two");
    EXPECT_EQ(status_, 0U);
    EXPECT_TRUE(has(lines, "datamorph_write_to_snapshot: /mnt/pss/conv/globalpss_table.snp "
                           "pss2_kernel2file failed. err no access to the store\n"));
    EXPECT_TRUE(has(lines,
                    "datamorph_write_to_snapshot: /mnt/pss/conv/two.snp pss2_kernel2file failed. "
                    "err no access to the store\n"));
    remove("/cfg/one");
    EXPECT_EQ(status_, 0U);
    EXPECT_EQ(switch_root::read_file(k_meta_file), before);
    EXPECT_EQ(list("/mnt/pss/conv"), "globalpss_table.snp one.snp");
    expect_no_stores();
  }
};

TEST_F(flat_file_gsdb_unwritable, a_folder_that_is_mounted_for_reading) {
  switch_root::mount_small("/mnt/pss/conv", "64k");
  add("/cfg/one");
  ASSERT_EQ(mount(nullptr, "/mnt/pss/conv", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  expect_only_traced();
}

TEST_F(flat_file_gsdb_unwritable, a_folder_of_somebody_else) {
  add("/cfg/one");
  ASSERT_EQ(chmod("/mnt/pss/conv", 0555), 0);
  EXPECT_EQ(in_child([this] {
              drop_file_capabilities();
              expect_only_traced();
              return HasFailure() ? 1 : 0;
            }),
            0);
}

// Where the stores in memory cannot be made, the operation ends with the status of the open.
TEST_F(flat_file_gsdb_unwritable, stores_that_cannot_be_made) {
  switch_root::mount_small("/dev/shm/volatile", "64k");
  ASSERT_EQ(mount(nullptr, "/dev/shm/volatile", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  for (const bool adding : {true, false}) {
    const lines_t lines = adding ? add("/cfg/one") : remove("/cfg/one");
    EXPECT_EQ(status_, 0x4048000AU);
    EXPECT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines.back(), std::string(adding ? "datamorph_gsdb_add" : "datamorph_gsdb_delete") +
                                ": pss2_open failed with error code 0x4048000a [no access to the "
                                "store] \n");
  }
  EXPECT_FALSE(switch_root::exists(k_meta_file));
}

// A table in memory that somebody else is writing is not taken from them: the record cannot be
// stored, the table as it stands is dumped, and the status of the destruction is the result.
TEST_F(flat_file_gsdb, a_table_that_another_process_writes) {
  make(k_meta_store, {{"own", "record"}});
  int ready[2] = {};
  int done[2] = {};
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  const pid_t writer = fork();
  if (writer == 0) {
    put(open(k_meta_store), "other", "record");
    char byte = 0;
    const bool told = write(ready[1], "", 1) == 1 && ::read(done[0], &byte, 1) == 1;
    _exit(told ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);

  const lines_t lines = add("/cfg/one");

  EXPECT_EQ(status_, 0x4048000DU);
  EXPECT_TRUE(has(lines, "add_gsdb: failed to store '/cfg/one' to globalpss_table\n"));
  EXPECT_EQ(lines.back(), "datamorph_gsdb_add: pss2_destroy failed with error code 0x4048000d "
                          "[store in use by another writer]\n");
  EXPECT_EQ(flat(k_meta_file), (contents{{"own", "record"}}));
  EXPECT_EQ(write(done[1], "", 1), 1);
  int exit_status = 1;
  EXPECT_EQ(waitpid(writer, &exit_status, 0), writer);
  EXPECT_EQ(exit_status, 0);
  EXPECT_EQ(read(k_meta_store), (contents{{"own", "record"}}));
}

} // namespace
