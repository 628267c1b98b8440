// lab::flat_file_read: the records of a flat file, all of which is checked before the first.
#define XXH_INLINE_ALL
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "lab/lab_fixture.h"

namespace {

constexpr char k_flat[] = "/bootflash/flat";
using records_t = std::vector<std::pair<std::string, std::string>>;

std::string little_endian(uint64_t number, int bytes) {
  std::string all;
  for (int i = 0; i < bytes; ++i) {
    all += static_cast<char>(number >> (8 * i) & 0xff);
  }
  return all;
}

std::string with_checksum(const std::string &bytes) {
  return bytes + little_endian(XXH3_64bits(bytes.data(), bytes.size()), 8);
}

std::string header(uint64_t records, uint32_t layout = 2) {
  return "LABFLAT\n" + little_endian(layout, 4) + little_endian(records, 8);
}

std::string record(const std::string &key, const std::string &value) {
  return little_endian(key.size(), 4) + little_endian(value.size(), 4) + key + value;
}

class flat_file_read : public lab_test {
protected:
  // What is given of a file with these bytes.
  syserr_t read_bytes(const std::string &bytes) {
    switch_root::write_file(k_flat, bytes);
    return read_file(k_flat);
  }
  syserr_t read_file(const std::string &file) {
    given_.clear();
    return lab::flat_file_read(file, [this](std::string_view key, std::string_view value) {
      given_.emplace_back(key, value);
    });
  }
  // Damaged, and nothing of it is given.
  void expect_damaged(const std::string &bytes) {
    EXPECT_EQ(read_bytes(bytes), 0x40480009U);
    EXPECT_EQ(given_, records_t());
  }

  // In another order than a store has them: the file's counts.
  const std::string good_ = with_checksum(header(3) + record("b", "value") + record("", "empty") +
                                          record(std::string("a\0", 2), ""));
  records_t given_;
};

TEST_F(flat_file_read, gives_the_records_in_the_files_order) {
  EXPECT_EQ(read_bytes(good_), 0U);
  EXPECT_EQ(given_,
            (records_t{{"b", "value"}, {"", "empty"}, {std::string("a\0", 2), std::string()}}));
}

TEST_F(flat_file_read, gives_nothing_of_a_file_without_records) {
  EXPECT_EQ(read_bytes(with_checksum(header(0))), 0U);
  EXPECT_EQ(given_, records_t());
}

TEST_F(flat_file_read, gives_what_a_store_was_written_as) {
  make("nonvolatile:/mnt/pss/source", {{"a", ""}, {"b", std::string(200'000, 'v')}, {"c", "x"}});
  const pss2_service_t source = open("nonvolatile:/mnt/pss/source");
  ASSERT_EQ(pss2_kernel2file(source, k_flat, 0), 0U);
  ASSERT_EQ(pss2_close(source), 0U);

  EXPECT_EQ(read_file(k_flat), 0U);
  EXPECT_EQ(given_, (records_t{{"a", ""}, {"b", std::string(200'000, 'v')}, {"c", "x"}}));
}

TEST_F(flat_file_read, follows_a_link) {
  switch_root::write_file("/bootflash/target", good_);
  ASSERT_EQ(symlink("/bootflash/target", "/bootflash/link"), 0);
  EXPECT_EQ(read_file("/bootflash/link"), 0U);
  EXPECT_EQ(given_.size(), 3U);
}

TEST_F(flat_file_read, cut_at_any_length_or_lengthened_is_damaged) {
  for (size_t size = 0; size < good_.size(); ++size) {
    SCOPED_TRACE(size);
    expect_damaged(good_.substr(0, size));
  }
  expect_damaged(good_ + '\0');
  expect_damaged(good_ + good_);
}

TEST_F(flat_file_read, any_flipped_bit_is_damage) {
  for (size_t bit = 0; bit < 8 * good_.size(); ++bit) {
    SCOPED_TRACE(bit);
    std::string bytes = good_;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    expect_damaged(bytes);
  }
}

TEST_F(flat_file_read, a_good_checksum_does_not_make_it_one) {
  const std::string huge(4, '\xff');
  for (const std::string &bytes : {
           header(1, 1) + record("a", "b"),                             // another layout
           header(1, 3) + record("a", "b"),                             //
           header(0, 0x02000000),                                       //
           "LABFLAT\r" + header(0).substr(8),                           // another magic word
           header(1),                                                   // a record too few
           header(2) + record("a", "b"),                                //
           header(0) + record("a", "b"),                                // a record too many
           header(1) + record("a", "b") + "c",                          //
           header(1) + little_endian(1, 4) + little_endian(2, 4) + "a", // a value past the end
           header(1) + little_endian(2, 4) + little_endian(0, 4) + "a", // a key past the end
           header(1) + huge + huge,                                     //
           header(1) + huge + little_endian(1, 4) + "a",                // 0 in 32 bits
           header(UINT64_MAX) + record("a", "b"),                       // more than there can be
           header(0x2000000000000001U) + record("a", "b"),              // 8 times it is 8
           header(uint64_t{1} << 32 | 1) + record("a", "b"),            // 1 in 32 bits
       }) {
    SCOPED_TRACE(bytes);
    expect_damaged(with_checksum(bytes));
  }
}

TEST_F(flat_file_read, what_is_no_flat_file_is_damaged) {
  make("nonvolatile:/mnt/pss/store", {{"a", "b"}});
  ASSERT_EQ(mkfifo("/bootflash/fifo", 0600), 0);
  expect_damaged("");
  expect_damaged("a text that is longer than a header and a checksum\n");
  for (const char *file :
       {"/bootflash", "/bootflash/fifo", "/mnt/pss/store.pss", "/dev/null", "/dev/full"}) {
    EXPECT_EQ(read_file(file), 0x40480009U) << file;
    EXPECT_EQ(given_, records_t()) << file;
  }
}

TEST_F(flat_file_read, what_is_not_there_is_missing) {
  ASSERT_EQ(symlink("/bootflash/nowhere", "/bootflash/dangling"), 0);
  for (const char *file : {"/bootflash/none", "/none/flat", "/bootflash/dangling", ""}) {
    EXPECT_EQ(read_file(file), 0x40480002U) << file;
    EXPECT_EQ(given_, records_t()) << file;
  }
}

TEST_F(flat_file_read, one_that_may_not_be_read_is_no_access) {
  switch_root::write_file(k_flat, good_);
  ASSERT_EQ(chmod(k_flat, 0), 0);
  EXPECT_EQ(in_child([this] {
              drop_file_capabilities();
              return read_file(k_flat) == 0x4048000A && given_.empty() ? 0 : 1;
            }),
            0);
}

// Closing a second descriptor of a store would drop the locks of its handle. The other process is
// there before the handle is, so that it knows of the store from its locks only.
TEST_F(flat_file_read, a_store_that_is_open_stays_locked) {
  make("nonvolatile:/mnt/pss/store", {{"a", "b"}});
  int start[2] = {};
  ASSERT_EQ(pipe(start), 0);
  const pid_t other = fork();
  if (other == 0) {
    char byte = 0;
    const bool started = ::read(start[0], &byte, 1) == 1;
    _exit(started && put(open("nonvolatile:/mnt/pss/store"), "a", "d") == 0x4048000D ? 0 : 1);
  }
  const pss_service_t writer = open("nonvolatile:/mnt/pss/store");
  ASSERT_EQ(put(writer, "a", "c"), 0U);

  EXPECT_EQ(read_file("/mnt/pss/store.pss"), 0x40480009U);

  ASSERT_EQ(write(start[1], "", 1), 1);
  int exit_status = 1;
  EXPECT_EQ(waitpid(other, &exit_status, 0), other);
  EXPECT_EQ(exit_status, 0);
  EXPECT_EQ(pss_close(writer), 0U);
  EXPECT_EQ(read("nonvolatile:/mnt/pss/store"), (contents{{"a", "c"}}));
}

// It was whole when it was checked: what was given stands, and the status says that more is wrong.
TEST_F(flat_file_read, one_that_changes_while_its_records_are_given_is_damaged) {
  const std::string long_value(300'000, 'v');
  const std::string whole =
      with_checksum(header(2) + record("a", "first") + record("b", long_value));
  for (const size_t left : {size_t{100'000}, whole.size() - 1}) {
    switch_root::write_file(k_flat, whole);
    int given = 0;
    EXPECT_EQ(lab::flat_file_read(k_flat,
                                  [&](std::string_view, std::string_view) {
                                    if (++given == 1) {
                                      EXPECT_EQ(truncate(k_flat, static_cast<off_t>(left)), 0);
                                    }
                                  }),
              0x40480009U);
  }
  switch_root::write_file(k_flat, whole);
  std::string last;
  EXPECT_EQ(lab::flat_file_read(k_flat,
                                [&](std::string_view key, std::string_view) {
                                  last = key;
                                  if (key == "a") {
                                    const int file = ::open(k_flat, O_WRONLY | O_CLOEXEC);
                                    EXPECT_EQ(pwrite(file, "w", 1, 200'000), 1);
                                    close(file);
                                  }
                                }),
            0x40480009U);
  EXPECT_EQ(last, "b");
}

TEST_F(flat_file_read, leaves_no_descriptor_open) {
  switch_root::write_file(k_flat, good_);
  const rlimit few = {16, 16};
  EXPECT_EQ(in_child([&] {
              setrlimit(RLIMIT_NOFILE, &few);
              for (int i = 0; i < 100; ++i) {
                if (read_file(k_flat) != 0 || read_file("/bootflash") != 0x40480009) {
                  return 1;
                }
              }
              return 0;
            }),
            0);
}

} // namespace
