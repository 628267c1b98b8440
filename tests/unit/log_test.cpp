// The conversion log: files, order, marker lines, rotation.

#include "libdatamorph_private.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "support/library_fixture.h"

namespace {

constexpr char k_log[] = "/mnt/pss/data_morph.log";
constexpr char k_last[] = "/mnt/pss/data_morph.last";
constexpr char k_marker[] = "/tmp/datamorphcheck";
constexpr size_t k_prefix = 27; // "<Fri Nov 20 18:32:00 2026> "

class log_test : public library_fixture {};

mode_t mode_of(const char *path) {
  struct stat status = {};
  return stat(path, &status) == 0 ? status.st_mode & 07777u : 0;
}

TEST_F(log_test, first_message_of_a_boot_starts_a_new_log) {
  switch_root::write_file(k_log, std::string(40000, 'o'));
  switch_root::write_file(k_last, "older");
  const std::string text = captured_stderr([] { DATAMORPH_TRACE("%s: one %d\n", "f", 1); });
  EXPECT_EQ("f: one 1\nFile check failed\nFile doesn't exist\n", text);
  EXPECT_EQ(lines_t({"f: one 1\n"}), log_lines());
  EXPECT_EQ(k_prefix + 9, switch_root::read_file(k_log).size());
  EXPECT_FALSE(switch_root::exists(k_last));
  EXPECT_TRUE(switch_root::exists(k_marker));
  EXPECT_EQ("", switch_root::read_file(k_marker));
}

TEST_F(log_test, marker_lines_are_written_for_every_message) {
  const std::string text = captured_stderr([] {
    DATAMORPH_TRACE("a\n");
    DATAMORPH_TRACE("b\n");
    DATAMORPH_TRACE("c\n");
  });
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n"
            "b\nFile check succeeded\nFile exists\n"
            "c\nFile check succeeded\nFile exists\n",
            text);
  EXPECT_EQ(lines_t({"a\n", "b\n", "c\n"}), log_lines());
}

TEST_F(log_test, later_messages_are_appended) {
  switch_root::write_file(k_marker, "");
  switch_root::write_file(k_log, "<Thu Jan  1 00:00:00 1970> before\n");
  switch_root::write_file(k_last, "older");
  captured_stderr([] { DATAMORPH_TRACE("after\n"); });
  EXPECT_EQ(lines_t({"before\n", "after\n"}), log_lines());
  EXPECT_EQ("older", switch_root::read_file(k_last));
}

TEST_F(log_test, the_prefix_is_the_time_in_24_characters) {
  const time_t before = time(nullptr);
  captured_stderr([] { DATAMORPH_TRACE("x\n"); });
  const time_t after = time(nullptr);
  const std::string line = switch_root::read_file(k_log);
  char expected_before[32] = {};
  char expected_after[32] = {};
  ctime_r(&before, expected_before);
  ctime_r(&after, expected_after);
  const std::string rest = "> x\n";
  EXPECT_TRUE(line == "<" + std::string(expected_before, 24) + rest ||
              line == "<" + std::string(expected_after, 24) + rest)
      << line;
}

TEST_F(log_test, a_message_without_a_line_end_runs_on) {
  captured_stderr([] {
    DATAMORPH_TRACE("open");
    DATAMORPH_TRACE("next\n");
  });
  const std::string log = switch_root::read_file(k_log);
  ASSERT_EQ(k_prefix * 2 + 9, log.size());
  EXPECT_EQ("open<", log.substr(k_prefix, 5));
}

TEST_F(log_test, a_message_of_any_length_is_written_whole) {
  const std::string text(200000, 'm');
  captured_stderr([&] { DATAMORPH_TRACE("%s", text.c_str()); });
  EXPECT_EQ(text, switch_root::read_file(k_last).substr(k_prefix)); // rotated at once
  EXPECT_EQ("", switch_root::read_file(k_log));
}

TEST_F(log_test, arguments_are_evaluated_once_and_errno_is_kept) {
  int evaluated = 0;
  captured_stderr([&] {
    errno = EXDEV;
    DATAMORPH_TRACE("%d\n", ++evaluated);
    EXPECT_EQ(EXDEV, errno);
  });
  EXPECT_EQ(1, evaluated);
}

TEST_F(log_test, rotation_after_the_line_that_passes_50000_bytes) {
  switch_root::write_file(k_marker, "");
  switch_root::write_file(k_log, std::string(49990, 'x'));
  captured_stderr([] { DATAMORPH_TRACE("22\n"); }); // 30 bytes with the prefix
  EXPECT_EQ(50020u, switch_root::read_file(k_last).size());
  EXPECT_TRUE(switch_root::exists(k_log));
  EXPECT_EQ("", switch_root::read_file(k_log));
}

TEST_F(log_test, rotation_leaves_an_empty_log_of_mode_0700) {
  switch_root::write_file(k_log, std::string(50001, 'x'));
  switch_root::write_file(k_last, "older");
  EXPECT_EQ(0, check_data_morph_log_size());
  EXPECT_EQ(std::string(50001, 'x'), switch_root::read_file(k_last));
  EXPECT_EQ("", switch_root::read_file(k_log));
  EXPECT_EQ(0700u, mode_of(k_log));
}

TEST_F(log_test, exactly_50000_bytes_are_not_rotated) {
  switch_root::write_file(k_log, std::string(50000, 'x'));
  EXPECT_EQ(0, check_data_morph_log_size());
  EXPECT_EQ(50000u, switch_root::read_file(k_log).size());
  EXPECT_FALSE(switch_root::exists(k_last));
}

TEST_F(log_test, rotation_keeps_descriptor_0_open) {
  const int saved = dup(0);
  close(0);
  switch_root::write_file(k_log, std::string(50001, 'x'));
  const bool taken_before = fcntl(0, F_GETFD) != -1;
  EXPECT_EQ(0, check_data_morph_log_size());
  const bool taken_after = fcntl(0, F_GETFD) != -1;
  if (saved >= 0) {
    dup2(saved, 0);
    close(saved);
  } else {
    close(0);
  }
  EXPECT_FALSE(taken_before);
  EXPECT_TRUE(taken_after);
}

TEST_F(log_test, rotation_closes_any_other_descriptor) {
  const int before = dup(2);
  close(before);
  for (int i = 0; i < 3; ++i) {
    switch_root::write_file(k_log, std::string(50001, 'x'));
    EXPECT_EQ(0, check_data_morph_log_size());
  }
  const int after = dup(2);
  close(after);
  EXPECT_EQ(before, after);
}

TEST_F(log_test, a_failed_rename_still_empties_the_log) {
  switch_root::write_file(k_log, std::string(50001, 'x'));
  switch_root::write_file(std::string(k_last) + "/taken", ""); // a folder stands there
  EXPECT_EQ(0, check_data_morph_log_size());
  EXPECT_EQ("", switch_root::read_file(k_log));
  EXPECT_TRUE(switch_root::exists("/mnt/pss/data_morph.last/taken"));
}

TEST_F(log_test, no_log_gives_1) {
  EXPECT_EQ(1, check_data_morph_log_size());
}

TEST_F(log_test, a_log_that_cannot_be_examined_gives_1) {
  ASSERT_EQ(0, symlink("data_morph.log", k_log)); // a loop
  EXPECT_EQ(1, check_data_morph_log_size());
}

TEST_F(log_test, without_the_log_folder_standard_error_and_marker_remain) {
  rmdir("/mnt/pss");
  const std::string text = captured_stderr([] {
    DATAMORPH_TRACE("a\n");
    DATAMORPH_TRACE("b\n");
  });
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n"
            "b\nFile check succeeded\nFile exists\n",
            text);
  EXPECT_TRUE(switch_root::exists(k_marker));
  EXPECT_FALSE(switch_root::exists(k_log));
  mkdir("/mnt/pss", 0755);
}

TEST_F(log_test, a_marker_that_cannot_be_created_starts_the_log_anew_each_time) {
  rmdir("/tmp");
  const std::string text = captured_stderr([] {
    DATAMORPH_TRACE("a\n");
    DATAMORPH_TRACE("b\n");
  });
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n"
            "b\nFile check failed\nFile doesn't exist\n",
            text);
  EXPECT_EQ(lines_t({"b\n"}), log_lines());
  mkdir("/tmp", 0755);
}

TEST_F(log_test, a_folder_in_the_logs_place_is_left_alone) {
  switch_root::write_file(std::string(k_log) + "/inside", "x");
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n",
            captured_stderr([] { DATAMORPH_TRACE("a\n"); }));
  EXPECT_EQ(nullptr, open_debug_log());
  EXPECT_EQ("x", switch_root::read_file(std::string(k_log) + "/inside"));
}

TEST_F(log_test, a_full_log_device_is_harmless) {
  switch_root::mount_small("/mnt/pss", "4k");
  switch_root::write_file("/mnt/pss/filler", std::string(4096, 'f'));
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n",
            captured_stderr([] { DATAMORPH_TRACE("a\n"); }));
}

TEST_F(log_test, no_descriptor_is_left_open) {
  const int before = dup(2);
  close(before);
  captured_stderr([] {
    for (int i = 0; i < 50; ++i) {
      DATAMORPH_TRACE("line %d\n", i);
    }
  });
  const int after = dup(2);
  close(after);
  EXPECT_EQ(before, after);
}

TEST_F(log_test, without_descriptors_the_line_reaches_standard_error) {
  const std::string text = captured_stderr([] {
    int taken[1024];
    int count = 0;
    while (count < 1024 && (taken[count] = dup(2)) >= 0) {
      ++count;
    }
    DATAMORPH_TRACE("a\n");
    while (count > 0) {
      close(taken[--count]);
    }
  });
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n", text);
}

TEST_F(log_test, open_debug_log_gives_a_stream_at_the_end_of_the_log) {
  FILE *log = nullptr;
  std::string text = captured_stderr([&] { log = open_debug_log(); });
  EXPECT_EQ("File check failed\nFile doesn't exist\n", text);
  ASSERT_NE(nullptr, log);
  fputs("first\n", log);
  fclose(log);
  text = captured_stderr([&] { log = open_debug_log(); });
  EXPECT_EQ("File check succeeded\nFile exists\n", text);
  ASSERT_NE(nullptr, log);
  fputs("second\n", log);
  fclose(log);
  EXPECT_EQ("first\nsecond\n", switch_root::read_file(k_log));
}

} // namespace
