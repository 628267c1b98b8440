// The conversion log: files, order, marker lines, rotation.

#include "libdatamorph_private.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

size_t open_descriptors() {
  size_t count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    count += fcntl(fd, F_GETFD) != -1;
  }
  return count;
}

// Runs `call` while descriptor 0 is free; whether it is taken afterwards.
bool takes_descriptor_0(const std::function<void()> &call) {
  const int saved = dup(0);
  close(0);
  call();
  const bool taken = fcntl(0, F_GETFD) != -1;
  if (saved >= 0) {
    dup2(saved, 0);
    close(saved);
  } else {
    close(0);
  }
  return taken;
}

// Runs `call` while the process can open no further descriptor.
void without_descriptors(const std::function<void()> &call) {
  const int next = dup(2);
  close(next);
  struct rlimit usual = {};
  getrlimit(RLIMIT_NOFILE, &usual);
  struct rlimit none = usual;
  none.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  call();
  setrlimit(RLIMIT_NOFILE, &usual);
}

std::vector<off_t> g_synced;      // size of each file that fsync was called for
std::vector<std::string> g_syncs; // what stood when sync was called
size_t g_open_at_sync = 0;
bool g_stat_fails = false;
std::string g_fails; // the call on a file's descriptor that fails: the disk, or the memory

bool fails(const char *call) {
  if (g_fails == call) {
    errno = EIO;
  }
  return g_fails == call;
}

// Two messages where no log can be made: standard error and the marker remain.
void expect_two_lines_without_a_log() {
  const std::string text = captured_stderr([] {
    DATAMORPH_TRACE("a\n");
    DATAMORPH_TRACE("b\n");
  });
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n"
            "b\nFile check succeeded\nFile exists\n",
            text);
  EXPECT_TRUE(switch_root::exists(k_marker));
  EXPECT_FALSE(switch_root::exists(k_log));
}

mode_t mode_of(const char *path) {
  struct stat status = {};
  return stat(path, &status) == 0 ? status.st_mode & 07777u : 0;
}

// Without opening it: what stands there need not be a file. 0 when nothing does.
off_t size_of(const char *path) {
  struct stat status = {};
  return fstatat(AT_FDCWD, path, &status, AT_SYMLINK_NOFOLLOW) == 0 ? status.st_size : 0;
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
  const size_t before = open_descriptors();
  for (int i = 0; i < 3; ++i) {
    switch_root::write_file(k_log, std::string(50001, 'x'));
    EXPECT_EQ(0, check_data_morph_log_size());
  }
  EXPECT_EQ(before, open_descriptors());
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

TEST_F(log_test, a_log_that_cannot_be_reached_gives_1) {
  ASSERT_EQ(0, symlink("data_morph.log", k_log)); // a loop
  EXPECT_EQ(1, check_data_morph_log_size());
}

TEST_F(log_test, a_log_that_cannot_be_examined_gives_1) {
  switch_root::write_file(k_log, std::string(50001, 'x'));
  g_stat_fails = true;
  const int result = check_data_morph_log_size();
  g_stat_fails = false;
  EXPECT_EQ(1, result);
  EXPECT_EQ(50001u, switch_root::read_file(k_log).size());
}

TEST_F(log_test, a_log_folder_without_the_right_to_write) {
  switch_root::mount_small("/mnt/pss", "64k");
  ASSERT_EQ(0, mount("none", "/mnt/pss", "none", MS_REMOUNT | MS_RDONLY, nullptr));
  expect_two_lines_without_a_log();
}

TEST_F(log_test, without_the_log_folder_standard_error_and_marker_remain) {
  rmdir("/mnt/pss");
  expect_two_lines_without_a_log();
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
  const size_t before = open_descriptors();
  captured_stderr([] {
    for (int i = 0; i < 50; ++i) {
      DATAMORPH_TRACE("line %d\n", i);
    }
  });
  EXPECT_EQ(before, open_descriptors());
}

// The file was opened: it is closed again, and what it held stays.
TEST_F(log_test, a_log_that_cannot_be_used_is_closed) {
  const struct {
    const char *call;
    const char *left;
  } rows[] = {{"fstat", "old\n"}, {"ftruncate", "old\n"}, {"fdopen", ""}};
  const size_t before = open_descriptors();
  for (const auto &row : rows) {
    unlink(k_marker);
    switch_root::write_file(k_log, "old\n");
    g_fails = row.call;
    const std::string text = captured_stderr([] { DATAMORPH_TRACE("a\n"); });
    g_fails.clear();
    EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n", text) << row.call;
    EXPECT_EQ(row.left, switch_root::read_file(k_log)) << row.call;
    EXPECT_EQ(before, open_descriptors()) << row.call;
  }
  captured_stderr([] {
    g_fails = "fdopen";
    EXPECT_FALSE(takes_descriptor_0([] { DATAMORPH_TRACE("a\n"); }));
    g_fails.clear();
  });
}

TEST_F(log_test, without_descriptors_the_line_reaches_standard_error) {
  const std::string text =
      captured_stderr([] { without_descriptors([] { DATAMORPH_TRACE("a\n"); }); });
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n", text);
  EXPECT_FALSE(switch_root::exists(k_log));
  EXPECT_FALSE(switch_root::exists(k_marker));
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

TEST_F(log_test, each_line_is_flushed_and_synced_before_the_size_is_looked_at) {
  g_synced.clear();
  captured_stderr([] {
    DATAMORPH_TRACE("a\n");
    DATAMORPH_TRACE("bc\n");
  });
  EXPECT_EQ(std::vector<off_t>({29, 59}), g_synced); // prefix and message, whole, each time
}

TEST_F(log_test, a_rotation_is_committed_with_sync_once_the_new_log_stands) {
  switch_root::write_file(k_log, std::string(50000, 'x'));
  g_syncs.clear();
  EXPECT_EQ(0, check_data_morph_log_size());
  EXPECT_EQ(lines_t(), g_syncs);
  switch_root::write_file(k_marker, "");
  const size_t before = open_descriptors();
  captured_stderr([] { DATAMORPH_TRACE("a\n"); });
  EXPECT_EQ(lines_t({"log of 0 bytes, last of 50029 bytes"}), g_syncs);
  EXPECT_EQ(before + 2, g_open_at_sync); // the capture's two
}

TEST_F(log_test, descriptor_0_serves_the_marker_like_any_other) {
  std::string text;
  EXPECT_FALSE(takes_descriptor_0([] {}));
  text = captured_stderr([] {
    EXPECT_FALSE(takes_descriptor_0([] { DATAMORPH_TRACE("a\n"); }));
    EXPECT_FALSE(takes_descriptor_0([] { DATAMORPH_TRACE("b\n"); }));
  });
  EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n"
            "b\nFile check succeeded\nFile exists\n",
            text);
}

TEST_F(log_test, a_marker_of_any_kind_that_opens_for_reading_counts) {
  mkdir(k_marker, 0755);
  EXPECT_EQ("a\nFile check succeeded\nFile exists\n",
            captured_stderr([] { DATAMORPH_TRACE("a\n"); }));
  rmdir(k_marker);
  ASSERT_EQ(0, mkfifo(k_marker, 0600)); // does not block
  EXPECT_EQ("b\nFile check succeeded\nFile exists\n",
            captured_stderr([] { DATAMORPH_TRACE("b\n"); }));
}

TEST_F(log_test, marker_and_log_have_the_modes_that_the_process_gives) {
  captured_stderr([] { DATAMORPH_TRACE("a\n"); });
  EXPECT_EQ(0644u, mode_of(k_marker));
  EXPECT_EQ(0644u, mode_of(k_log));
}

TEST_F(log_test, a_log_that_cannot_be_opened_is_not_rotated) {
  switch_root::write_file(k_log, std::string(50001, 'x'));
  captured_stderr([] { without_descriptors([] { DATAMORPH_TRACE("a\n"); }); });
  EXPECT_EQ(50001u, switch_root::read_file(k_log).size());
  EXPECT_FALSE(switch_root::exists(k_last));
}

TEST_F(log_test, a_log_behind_a_link_is_measured) {
  switch_root::write_file("/bootflash/real.log", std::string(50001, 'x'));
  ASSERT_EQ(0, symlink("/bootflash/real.log", k_log));
  EXPECT_EQ(0, check_data_morph_log_size());
  EXPECT_EQ(50001u, switch_root::read_file(k_last).size());
  EXPECT_EQ("", switch_root::read_file(k_log));
}

TEST_F(log_test, the_stream_of_open_debug_log_can_be_read_too) {
  for (int mode = 0; mode < 2; ++mode) { // "w+", then "a+"
    FILE *log = nullptr;
    captured_stderr([&] { log = open_debug_log(); });
    ASSERT_NE(nullptr, log);
    fputs("first\n", log);
    rewind(log);
    char line[16] = {};
    EXPECT_NE(nullptr, fgets(line, sizeof line, log));
    EXPECT_STREQ("first\n", line);
    fclose(log);
  }
}

} // namespace

// The C library's, with a record: the library's objects in this program call these.
extern "C" int fsync(int fd) {
  struct stat status = {};
  g_synced.push_back(fstat(fd, &status) == 0 ? status.st_size : -1);
  return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int fstat(int fd, struct stat *status) noexcept {
  return fails("fstat") ? -1 : fstatat(fd, "", status, AT_EMPTY_PATH);
}

extern "C" int ftruncate(int fd, off_t size) noexcept {
  return fails("ftruncate") ? -1 : static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

extern "C" FILE *__real_fdopen(int fd, const char *mode);
extern "C" FILE *__wrap_fdopen(int fd, const char *mode) {
  return fails("fdopen") ? nullptr : __real_fdopen(fd, mode);
}

extern "C" int stat(const char *path, struct stat *status) noexcept {
  if (g_stat_fails) {
    errno = EIO;
    return -1;
  }
  return fstatat(AT_FDCWD, path, status, 0);
}

extern "C" void sync() noexcept {
  g_open_at_sync = open_descriptors();
  g_syncs.push_back("log of " + std::to_string(size_of(k_log)) + " bytes, last of " +
                    std::to_string(size_of(k_last)) + " bytes");
}
