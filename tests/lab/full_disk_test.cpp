// A disk without room: a status, and what stood there stays.
#include <gtest/gtest.h>

#include <string>

#include "lab/lab_fixture.h"

namespace {

class full_disk : public lab_test {
protected:
  void SetUp() override {
    lab_test::SetUp();
    switch_root::mount_small("/mnt/pss/small", "256k");
    make(uri_, records_);
  }

  // Takes all the room that is left.
  static void fill() {
    std::FILE *const file = std::fopen("/mnt/pss/small/filler", "w");
    ASSERT_NE(file, nullptr);
    const std::string page(4096, 'f');
    while (std::fwrite(page.data(), page.size(), 1, file) == 1 && std::fflush(file) == 0) {
    }
    std::fclose(file);
  }

  const std::string uri_ = "nonvolatile:/mnt/pss/small/store";
  const contents records_ = {{"a", "first"}, {"b", std::string(5000, 'b')}};
};

TEST_F(full_disk, a_store_that_does_not_fit_is_no_room_and_the_store_as_it_was) {
  const pss_service_t service = open(uri_);
  syserr_t status = 0;
  for (int i = 0; i < 1000 && status == 0; ++i) {
    status = put(service, "key-" + std::to_string(i), std::string(4000, 'x'));
  }
  const syserr_t closed = pss_close(service);

  // The room may give out with a record, or when all of them are brought to disk.
  EXPECT_TRUE(status == 0x4048000C || (status == 0 && closed == 0x4048000C)) << status << closed;
  EXPECT_EQ(closed, 0x4048000CU);
  EXPECT_EQ(read(uri_), records_);
  EXPECT_EQ(list("/mnt/pss/small"), "store.pss");
}

TEST_F(full_disk, a_large_value_that_does_not_fit_loses_nothing) {
  const pss_service_t service = open(uri_);
  ASSERT_EQ(put(service, "a", "changed"), 0U);
  put(service, "c", std::string(900'000, 'c'));

  EXPECT_EQ(pss_close(service), 0x4048000CU);
  EXPECT_EQ(read(uri_), records_);
}

// More than the engine keeps in memory: the room gives out in the middle, with the first records
// already written, and the engine takes all of them back by itself.
TEST_F(full_disk, a_handle_whose_records_were_taken_back_says_so) {
  const pss_service_t service = open(uri_);
  ASSERT_EQ(put(service, "a", "changed"), 0U);
  syserr_t status = 0;
  for (int i = 0; i < 200 && status == 0; ++i) {
    status = put(service, "key-" + std::to_string(i), std::string(1'000'000, 'x'));
  }
  ASSERT_EQ(status, 0x4048000CU);

  EXPECT_EQ(put(service, "small", "x"), 0x4048000CU);
  EXPECT_EQ(remove(service, "a"), 0x4048000CU);
  EXPECT_EQ(pss_close(service), 0x4048000CU);
  EXPECT_EQ(read(uri_), records_);
}

TEST_F(full_disk, a_change_without_any_room_is_no_room) {
  fill();
  const pss_service_t service = open(uri_);
  const syserr_t stored = put(service, "c", "third");
  const syserr_t closed = pss_close(service);

  EXPECT_TRUE(stored == 0x4048000C || closed == 0x4048000C) << stored << " " << closed;
  EXPECT_EQ(read(uri_), records_);
}

TEST_F(full_disk, creating_is_no_room_and_leaves_nothing) {
  fill();
  EXPECT_EQ(pss_create("nonvolatile:/mnt/pss/small/new"), 0x4048000CU);
  syserr_t status = 0;
  EXPECT_EQ(pss2_open("nonvolatile:/mnt/pss/small/new", 0x13, SRVUUID_NONE, 0, 0, &status), 0U);
  EXPECT_EQ(status, 0x4048000CU);
  EXPECT_EQ(list("/mnt/pss/small"), "filler store.pss");
}

TEST_F(full_disk, destroying_needs_no_room) {
  fill();
  EXPECT_EQ(pss_destroy(uri_.c_str()), 0U);
  EXPECT_EQ(list("/mnt/pss/small"), "filler");
}

class full_disk_copy : public full_disk {
protected:
  void SetUp() override {
    full_disk::SetUp();
    contents large;
    for (int i = 0; i < 300; ++i) {
      large["key-" + std::to_string(i)] = std::string(2000, 'x');
    }
    make("nonvolatile:/bootflash/large", large);
    source_ = open("nonvolatile:/bootflash/large");
  }
  pss_service_t source_ = 0;
};

TEST_F(full_disk_copy, a_snapshot_is_no_room_and_the_target_as_it_was) {
  EXPECT_EQ(pss_snapshot(source_, 0, uri_.c_str()), 0x4048000CU);
  EXPECT_EQ(read(uri_), records_);
}

TEST_F(full_disk_copy, a_snapshot_to_a_new_store_is_no_room_and_leaves_nothing) {
  EXPECT_EQ(pss_snapshot(source_, 0, "nonvolatile:/mnt/pss/small/new"), 0x4048000CU);
  EXPECT_EQ(list("/mnt/pss/small"), "store.pss");
}

TEST_F(full_disk_copy, a_flat_file_is_no_room_and_the_old_one_stays) {
  switch_root::write_file("/mnt/pss/small/flat", "old");
  EXPECT_EQ(pss2_kernel2file(source_, "/mnt/pss/small/flat", 0), 0x4048000CU);
  EXPECT_EQ(switch_root::read_file("/mnt/pss/small/flat"), "old");
  EXPECT_EQ(list("/mnt/pss/small"), "flat store.pss");
}

TEST_F(full_disk_copy, loading_a_flat_file_is_no_room_and_the_store_as_it_was) {
  ASSERT_EQ(pss2_kernel2file(source_, "/bootflash/flat", 0), 0U);
  const pss2_service_t small = open(uri_);
  const syserr_t loaded = pss2_file2kernel("/bootflash/flat", small, 0);
  const syserr_t closed = pss2_close(small);

  EXPECT_TRUE(loaded == 0x4048000C || closed == 0x4048000C) << loaded << " " << closed;
  EXPECT_EQ(read(uri_), records_);
}

} // namespace
