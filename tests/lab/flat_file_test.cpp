// Flat files: what is damaged is found out before anything is written.
#define XXH_INLINE_ALL
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lab/lab_fixture.h"

namespace {

constexpr char k_uri[] = "nonvolatile:/mnt/pss/store";
constexpr char k_flat[] = "/bootflash/flat";

class flat_file : public lab_test {
protected:
  void SetUp() override {
    lab_test::SetUp();
    make("nonvolatile:/mnt/pss/source", records_);
    const pss2_service_t source = open("nonvolatile:/mnt/pss/source");
    ASSERT_EQ(pss2_kernel2file(source, k_flat, 0), 0U);
    ASSERT_EQ(pss2_close(source), 0U);
    flat_ = switch_root::read_file(k_flat);
    make(k_uri, {{"own", "record"}});
  }

  // Loads these bytes into a store and closes it; the store must be as it was unless they load.
  static syserr_t load(const std::string &bytes) {
    switch_root::write_file(k_flat, bytes);
    const pss2_service_t service = open(k_uri);
    const syserr_t status = pss2_file2kernel(k_flat, service, 0);
    EXPECT_EQ(pss2_close(service), 0U);
    if (status != 0) {
      EXPECT_EQ(read(k_uri), (contents{{"own", "record"}}));
    }
    return status;
  }

  const contents records_ = {{"", "empty key"}, {"a", ""}, {"b", "value"}};
  std::string flat_;
};

TEST_F(flat_file, is_written_as_its_layout_says) {
  const char expected[] = "LABFLAT\n"
                          "\x02\x00\x00\x00"                 // layout
                          "\x03\x00\x00\x00\x00\x00\x00\x00" // records
                          "\x00\x00\x00\x00\x09\x00\x00\x00"
                          "empty key"
                          "\x01\x00\x00\x00\x00\x00\x00\x00"
                          "a"
                          "\x01\x00\x00\x00\x05\x00\x00\x00"
                          "b"
                          "value";
  EXPECT_EQ(flat_.substr(0, flat_.size() - 8), std::string(expected, sizeof(expected) - 1));
}

TEST_F(flat_file, loads_beside_what_stands_there) {
  make(k_uri, {{"a", "old"}, {"z", "own"}});
  const pss2_service_t service = open(k_uri);
  EXPECT_EQ(pss2_file2kernel(k_flat, service, 0), 0U);
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"", "empty key"}, {"a", ""}, {"b", "value"}, {"z", "own"}}));
}

TEST_F(flat_file, cut_short_or_lengthened_is_damaged) {
  for (size_t size = 0; size < flat_.size(); ++size) {
    ASSERT_EQ(load(flat_.substr(0, size)), 0x40480009U) << size;
  }
  EXPECT_EQ(load(flat_ + "x"), 0x40480009U);
  EXPECT_EQ(load(flat_), 0U);
}

TEST_F(flat_file, any_byte_changed_is_damaged) {
  for (size_t at = 0; at < flat_.size(); ++at) {
    std::string bytes = flat_;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x41);
    ASSERT_EQ(load(bytes), 0x40480009U) << at;
  }
}

// The checksum as the layout has it.
std::string with_checksum(std::string bytes) {
  const uint64_t sum = XXH3_64bits(bytes.data(), bytes.size());
  for (int i = 0; i < 8; ++i) {
    bytes += static_cast<char>(sum >> (8 * i) & 0xff);
  }
  return bytes;
}

std::string header(const std::string &count) {
  return std::string("LABFLAT\n\x02\x00\x00\x00", 12) + count + std::string(8 - count.size(), '\0');
}

TEST_F(flat_file, has_the_checksum_of_its_layout) {
  EXPECT_EQ(with_checksum(flat_.substr(0, flat_.size() - 8)), flat_);
}

TEST_F(flat_file, sizes_that_lie_are_damaged) {
  const std::string huge(4, '\xff');
  const std::vector<std::string> liars = {
      header("\x01"),                                                // a record that is not there
      header("\x01") + huge + huge,                                  // sizes past the file
      header("\x01") + huge + std::string("\x01\0\0\0", 4) + "x",    // their sum wraps in 32 bits
      header(std::string(8, '\xff')) + std::string(64, '\0'),        // more records than bytes
      header("\x01") + std::string("\x01\0\0\0\x02\0\0\0", 8) + "x", // one byte too few
      header(std::string(1, '\0')) + "rest",                         // bytes behind the last record
  };
  for (const std::string &bytes : liars) {
    EXPECT_EQ(load(with_checksum(bytes)), 0x40480009U);
  }
}

TEST_F(flat_file, a_record_over_the_stores_limits_is_too_large) {
  ASSERT_EQ(lab::store_create("nonvolatile:/mnt/pss/narrow", {4, 8, 0, 1}), 0U);
  const pss2_service_t narrow = open("nonvolatile:/mnt/pss/narrow");
  ASSERT_EQ(put(narrow, "own", "record"), 0U);

  EXPECT_EQ(pss2_file2kernel(k_flat, narrow, 0), 0x40480006U);

  EXPECT_EQ(pss2_close(narrow), 0U);
  EXPECT_EQ(read("nonvolatile:/mnt/pss/narrow"), (contents{{"own", "record"}}));
}

TEST_F(flat_file, what_is_no_file_is_missing_or_damaged) {
  const pss2_service_t service = open(k_uri);
  EXPECT_EQ(pss2_file2kernel("/bootflash/none", service, 0), 0x40480002U);
  EXPECT_EQ(pss2_file2kernel("/bootflash", service, 0), 0x40480009U);
  ASSERT_EQ(mkfifo("/bootflash/fifo", 0600), 0);
  EXPECT_EQ(pss2_file2kernel("/bootflash/fifo", service, 0), 0x40480009U);
  EXPECT_EQ(pss2_kernel2file(service, "/bootflash", 0), 0x40480009U);
  EXPECT_EQ(pss2_kernel2file(service, "", 0), 0x40480005U);
  EXPECT_EQ(pss2_kernel2file(service, nullptr, 0), 0x40480005U);
  EXPECT_EQ(pss2_kernel2file(service, ("/" + std::string(4000, 'a')).c_str(), 0), 0x40480005U);
}

TEST_F(flat_file, holds_what_the_handle_sees) {
  const pss2_service_t service = open(k_uri);
  ASSERT_EQ(put(service, "later", "uncommitted"), 0U);
  ASSERT_EQ(pss2_kernel2file(service, "/bootflash/deep/down/flat", 0), 0U);
  make("volatile:/copy", {});
  const pss2_service_t copy = open("volatile:/copy");
  ASSERT_EQ(pss2_file2kernel("/bootflash/deep/down/flat", copy, 0), 0U);
  ASSERT_EQ(pss2_close(copy), 0U);
  EXPECT_EQ(read("volatile:/copy"), (contents{{"later", "uncommitted"}, {"own", "record"}}));
  EXPECT_EQ(list("/bootflash/deep/down"), "flat");
}

// A load that fails half-way takes back its own records and none of the handle's earlier ones.
TEST_F(flat_file, a_failed_load_keeps_what_the_handle_wrote_before) {
  switch_root::write_file(k_flat, flat_.substr(0, flat_.size() - 1));
  const pss2_service_t service = open(k_uri);
  ASSERT_EQ(put(service, "before", "the load"), 0U);
  EXPECT_EQ(pss2_file2kernel(k_flat, service, 0), 0x40480009U);
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(read(k_uri), (contents{{"before", "the load"}, {"own", "record"}}));
}

} // namespace
