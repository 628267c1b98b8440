// The names that the library opens by itself, with something else planted in their places: it
// writes to its own files only, waits for nobody, and converts as it does without them.

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "libdatamorph_private.h"
#include "unit/vrrp_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr char k_marker[] = "/tmp/datamorphcheck";
constexpr char k_log[] = "/mnt/pss/data_morph.log";
constexpr char k_last[] = "/mnt/pss/data_morph.last";
constexpr char k_mgr_trace[] = "/bootflash/data_morph_vrrp_mgr.log";
constexpr char k_eng_trace[] = "/bootflash/data_morph_vrrp_eng.log";
constexpr char k_npv[] = "/tmp/fc_nport_mux";
constexpr char k_saved_npv[] = "/mnt/pss/fc_nport_mux";
const char *const k_names[] = {k_marker,    k_log, k_last,     k_mgr_trace,
                               k_eng_trace, k_npv, k_saved_npv};

constexpr char k_victim[] = "/outside/victim"; // somebody else's
constexpr char k_absent[] = "/outside/absent";
constexpr char k_content[] = "somebody else's\n";

// What a test has planted, and what it holds on to meanwhile; nothing when that is -1.
class planted {
public:
  planted(const char *name, int fd) : name_(name), fd_(fd) {
    EXPECT_EQ(0, lstat(name_, &before_)) << name_;
  }
  ~planted() {
    if (fd_ != -1) {
      close(fd_);
    }
  }
  planted(const planted &) = delete;
  planted &operator=(const planted &) = delete;
  int get() const { return fd_; }

  // It stands there still, and nothing was written to it.
  bool is_as_it_was() const {
    struct stat now = {};
    return lstat(name_, &now) == 0 && now.st_dev == before_.st_dev &&
           now.st_ino == before_.st_ino && now.st_mode == before_.st_mode &&
           now.st_rdev == before_.st_rdev && now.st_uid == before_.st_uid &&
           now.st_nlink == before_.st_nlink && now.st_size == before_.st_size &&
           now.st_mtim.tv_sec == before_.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == before_.st_mtim.tv_nsec;
  }

private:
  const char *name_;
  int fd_;
  struct stat before_ = {};
};

int plant_link(const char *name) {
  EXPECT_EQ(0, symlink(k_victim, name));
  return -1;
}

int plant_dangling_link(const char *name) {
  EXPECT_EQ(0, symlink(k_absent, name));
  return -1;
}

int plant_hard_link(const char *name) {
  EXPECT_EQ(0, link(k_victim, name));
  return -1;
}

int plant_fifo(const char *name) {
  EXPECT_EQ(0, mkfifo(name, 0666));
  return -1;
}

int plant_fifo_with_reader(const char *name) {
  plant_fifo(name);
  return open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

int plant_fifo_with_writer(const char *name) {
  plant_fifo(name);
  return open(name, O_RDWR | O_NONBLOCK | O_CLOEXEC); // needs no reader
}

int plant_folder(const char *name) {
  switch_root::write_file(std::string(name) + "/inside", k_content);
  return -1;
}

// Not everybody may make a device: one that is there serves as well.
int plant_device(const char *name) {
  if (mknod(name, S_IFCHR | 0666, makedev(1, 7)) != 0) {
    switch_root::write_file(name, "");
    EXPECT_EQ(0, mount("/dev/full", name, "none", MS_BIND, nullptr));
  }
  return -1;
}

int plant_socket(const char *name) {
  const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", name);
  EXPECT_EQ(0, bind(server, reinterpret_cast<const sockaddr *>(&address), sizeof address));
  return server;
}

// Who leases a file holds up whoever opens it otherwise, for 45 s.
int plant_leased_file(const char *name) {
  switch_root::write_file(name, k_content);
  const int file = open(name, O_RDWR | O_CLOEXEC);
  EXPECT_EQ(0, fcntl(file, F_SETLEASE, F_WRLCK));
  return file;
}

struct kind_t {
  const char *name;
  int (*plant)(const char *name);
  bool opens; // for reading, without waiting: a marker is there
};

// None of these is a file of the library's own.
constexpr kind_t k_kinds[] = {
    {"a link", plant_link, true},
    {"a dangling link", plant_dangling_link, false},
    {"a hard link", plant_hard_link, true},
    {"a FIFO", plant_fifo, true},
    {"a FIFO with a reader", plant_fifo_with_reader, true},
    {"a FIFO with a writer", plant_fifo_with_writer, true},
    {"a folder", plant_folder, true},
    {"a device", plant_device, true},
    {"a socket", plant_socket, false},
    {"a leased file", plant_leased_file, false},
};

bool is_mounted(const std::string &name) {
  struct stat about = {};
  struct stat above = {};
  return lstat(name.c_str(), &about) == 0 &&
         lstat(fs::path(name).parent_path().c_str(), &above) == 0 && about.st_dev != above.st_dev;
}

// Runs `call` as somebody to whom the modes of files apply.
void without_privileges(const std::function<void()> &call) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct usual[_LINUX_CAPABILITY_U32S_3] = {};
  ASSERT_EQ(0, syscall(SYS_capget, &header, usual));
  __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {usual[0], usual[1]};
  none[0].effective &= ~(CAP_TO_MASK(CAP_DAC_OVERRIDE) | CAP_TO_MASK(CAP_DAC_READ_SEARCH));
  ASSERT_EQ(0, syscall(SYS_capset, &header, none));
  call();
  ASSERT_EQ(0, syscall(SYS_capset, &header, usual));
}

// Ends the test program when the thread that made this waits for somebody for a second: it sleeps
// whenever it is looked at, and has not been awake in between. Who waits for a disk, or for his
// turn on a busy machine, does not sleep.
class no_waiting {
public:
  no_waiting() : status_("/proc/self/task/" + std::to_string(gettid()) + "/status") {}
  ~no_waiting() {
    {
      const std::lock_guard lock(mutex_);
      done_ = true;
    }
    changed_.notify_one();
    watcher_.join();
  }
  no_waiting(const no_waiting &) = delete;
  no_waiting &operator=(const no_waiting &) = delete;

private:
  // The state and how often it has gone to sleep, where it sleeps; "" else.
  std::string sleep() const {
    std::ifstream lines(status_);
    std::string state;
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("State:\tS", 0) == 0) {
        state = line;
      } else if (!state.empty() && line.rfind("voluntary_ctxt_switches:", 0) == 0) {
        return state + line;
      }
    }
    return {};
  }

  void watch() {
    std::string last;
    unsigned same = 0;
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, std::chrono::milliseconds(50), [this] { return done_; })) {
      const std::string now = sleep();
      same = !now.empty() && now == last ? same + 1 : 0;
      last = now;
      if (same == 20) {
        std::puts("waited for somebody for a second");
        std::fflush(stdout);
        std::abort();
      }
    }
  }

  std::string status_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  std::thread watcher_{[this] { watch(); }};
};

class fixed_names_test : public vrrp_fixture {
protected:
  void SetUp() override {
    // Leases are a matter of the file system: one that has them.
    vrrp_fixture::SetUp();
    for (const char *folder : {"/tmp", "/mnt/pss", "/bootflash"}) {
      switch_root::mount_small(folder, "4m");
    }
    signal(SIGIO, SIG_IGN); // to who leases a file when it is opened
    empty();
  }
  void TearDown() override {
    empty();
    vrrp_fixture::TearDown();
  }

  // A switch of one VRRP group, somebody else's file, and none of the fixed names.
  void empty() {
    for (const char *name : k_names) {
      umount2(name, MNT_DETACH);
      fs::remove_all(name);
    }
    for (const char *folder : {"", "/tmp", "/mnt/pss", "/bootflash"}) {
      fs::remove_all(std::string(folder) + "/outside");
    }
    switch_root::write_file(k_victim, k_content);
    platform.reset();
    forget_traces();
    platform.add_queue(7);
    datamorph_mts_q = 7;
    platform.set_store(k_mgr, one_group(old_vr("0a", "01 00 00 00")));
    platform.set_store(k_eng);
    platform.set_store(k_temp);
  }

  // A hard link is of the same file system.
  void put_victim_beside(const char *name) {
    fs::remove_all("/outside");
    const std::string folder = fs::path(name).parent_path().string() + "/outside";
    switch_root::write_file(folder + "/victim", k_content);
    fs::create_directory_symlink(folder, "/outside");
  }

  // Conversions that open all of the names: what they ask of the platform.
  lines_t convert() {
    text_ = captured_stderr([this] {
      EXPECT_EQ(0u, vrrp_mgr_data_morph_startup_for_upgrade("/cfg", "s", "4.2(1)", "4.1(5)"));
      EXPECT_EQ(0u, vrrp_eng_data_morph_startup_for_upgrade("/cfg", "s", "4.2(1)", "4.1(5)"));
      EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg", "s", "4.0(4)", "4.2(1)"));
      check_data_morph_log_size();
    });
    return platform.calls();
  }

  // The same on a switch without any of the names.
  lines_t undisturbed_calls(bool in_npv_mode) {
    empty();
    if (in_npv_mode) {
      switch_root::write_file(k_npv, "");
    }
    const lines_t calls = convert();
    EXPECT_FALSE(calls.empty());
    return calls;
  }

  void expect_outside_untouched(const std::string &what) {
    EXPECT_EQ(k_content, switch_root::read_file(k_victim)) << what;
    const fs::directory_iterator entries("/outside/");
    EXPECT_EQ(1, std::distance(begin(entries), end(entries))) << what;
  }

  // What was planted is as it was, and nothing was written into it.
  // But for the last log, whose place is taken.
  void expect_as_planted(const char *name, const kind_t &kind, const planted &holder) {
    const std::string what = std::string(kind.name) + " at " + name;
    expect_outside_untouched(what);
    EXPECT_TRUE(name == k_last || holder.is_as_it_was()) << what;
    if (kind.plant == plant_folder) {
      EXPECT_EQ(k_content, switch_root::read_file(std::string(name) + "/inside")) << what;
    }
    if (kind.plant == plant_leased_file) {
      char content[64] = {};
      EXPECT_EQ(16, pread(holder.get(), content, sizeof content, 0)) << what;
      EXPECT_STREQ(k_content, content) << what;
    }
    if (kind.plant == plant_fifo_with_reader || kind.plant == plant_fifo_with_writer) {
      char byte = 0;
      EXPECT_GE(0, read(holder.get(), &byte, 1)) << what << ": was written to";
    }
  }

  const no_waiting watch_;
  std::string text_; // what convert() wrote to standard error
};

// ---- The conversion, whatever stands there -----------------------------------------------------

TEST_F(fixed_names_test, a_conversion_goes_on_and_writes_to_nothing_planted) {
  const lines_t outside_npv_mode = undisturbed_calls(false);
  const lines_t in_npv_mode = undisturbed_calls(true);
  ASSERT_EQ(outside_npv_mode.size() + 4, in_npv_mode.size());
  for (const char *name : k_names) {
    for (const kind_t &kind : k_kinds) {
      SCOPED_TRACE(std::string(kind.name) + " at " + name);
      empty();
      put_victim_beside(name);
      const planted holder(name, kind.plant(name));
      const bool is_npv_marker = name == k_npv || name == k_saved_npv;
      EXPECT_EQ(is_npv_marker && kind.opens ? in_npv_mode : outside_npv_mode, convert());
      expect_as_planted(name, kind, holder);
      // Once more, as a process that has not opened its trace files yet.
      forget_traces();
      convert();
      expect_as_planted(name, kind, holder);
    }
  }
}

TEST_F(fixed_names_test, a_conversion_goes_on_without_the_folders) {
  const lines_t expected = undisturbed_calls(false);
  for (const char *folder : {"/tmp", "/mnt/pss", "/bootflash"}) {
    for (const bool is_a_file : {false, true}) {
      SCOPED_TRACE(folder);
      empty();
      ASSERT_EQ(0, umount(folder));
      ASSERT_TRUE(fs::remove(folder));
      if (is_a_file) {
        switch_root::write_file(folder, k_content);
      }
      EXPECT_EQ(expected, convert());
      EXPECT_EQ(is_a_file ? k_content : "", switch_root::read_file(folder));
      fs::remove(folder);
      fs::create_directory(folder);
      switch_root::mount_small(folder, "4m");
    }
  }
}

// ---- The conversion log ------------------------------------------------------------------------

TEST_F(fixed_names_test, what_is_no_file_of_its_own_is_no_log) {
  for (const kind_t &kind : k_kinds) {
    for (const bool started : {false, true}) { // in this boot
      SCOPED_TRACE(kind.name);
      empty();
      put_victim_beside(k_log);
      if (started) {
        switch_root::write_file(k_marker, "");
      }
      const planted holder(k_log, kind.plant(k_log));
      const std::string text = captured_stderr([] {
        DATAMORPH_TRACE("a\n");
        EXPECT_EQ(nullptr, open_debug_log());
      });
      EXPECT_EQ(std::string("a\n") +
                    (started ? "File check succeeded\nFile exists\n"
                             : "File check failed\nFile doesn't exist\n") +
                    "File check succeeded\nFile exists\n",
                text);
      expect_as_planted(k_log, kind, holder);
      EXPECT_FALSE(switch_root::exists(k_last));
    }
  }
}

TEST_F(fixed_names_test, a_log_of_another_owner_is_written_to) {
  switch_root::write_file(k_marker, "");
  switch_root::write_file(k_log, "<Thu Jan  1 00:00:00 1970> before\n");
  const int changed = chown(k_log, 65534, 65534);
  ASSERT_TRUE(changed == 0 || errno == EINVAL); // a user namespace has one owner only
  captured_stderr([] { DATAMORPH_TRACE("after\n"); });
  EXPECT_EQ(lines_t({"before\n", "after\n"}), log_lines());
  ASSERT_EQ(0, unlink(k_marker));
  captured_stderr([] { DATAMORPH_TRACE("anew\n"); });
  EXPECT_EQ(lines_t({"anew\n"}), log_lines());
}

TEST_F(fixed_names_test, a_log_that_may_not_be_read_is_left_alone) {
  for (const mode_t mode : {0000, 0200, 0400}) {
    switch_root::write_file(k_log, k_content);
    ASSERT_EQ(0, chmod(k_log, mode));
    EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n",
              captured_stderr([] { without_privileges([] { DATAMORPH_TRACE("a\n"); }); }));
    EXPECT_EQ(k_content, switch_root::read_file(k_log));
    ASSERT_EQ(0, unlink(k_marker));
  }
}

TEST_F(fixed_names_test, the_beginning_of_a_boot_removes_what_stands_for_the_last_log) {
  for (const kind_t &kind : k_kinds) {
    SCOPED_TRACE(kind.name);
    empty();
    put_victim_beside(k_last);
    const planted holder(k_last, kind.plant(k_last));
    const bool stays = kind.plant == plant_folder || is_mounted(k_last);
    EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n",
              captured_stderr([] { DATAMORPH_TRACE("a\n"); }));
    EXPECT_EQ(stays, switch_root::exists(k_last));
    EXPECT_EQ(lines_t({"a\n"}), log_lines());
    expect_as_planted(k_last, kind, holder);
  }
}

TEST_F(fixed_names_test, a_rotation_takes_the_place_of_what_stands_for_the_last_log) {
  for (const kind_t &kind : k_kinds) {
    SCOPED_TRACE(kind.name);
    empty();
    put_victim_beside(k_last);
    const planted holder(k_last, kind.plant(k_last));
    switch_root::write_file(k_log, std::string(50001, 'x'));
    EXPECT_EQ(0, check_data_morph_log_size());
    EXPECT_EQ("", switch_root::read_file(k_log));
    expect_as_planted(k_last, kind, holder);
    struct stat about = {};
    ASSERT_EQ(0, lstat(k_last, &about));
    EXPECT_TRUE(S_ISDIR(about.st_mode) || S_ISCHR(about.st_mode) ||
                (S_ISREG(about.st_mode) && about.st_size == 50001));
  }
}

TEST_F(fixed_names_test, a_rotation_that_cannot_move_a_link_empties_nothing) {
  switch_root::write_file(k_victim, std::string(50001, 'v'));
  switch_root::write_file(std::string(k_last) + "/in the way", "");
  ASSERT_EQ(0, symlink(k_victim, k_log));
  EXPECT_EQ(0, check_data_morph_log_size());
  EXPECT_EQ(std::string(50001, 'v'), switch_root::read_file(k_victim));
}

// Moving a file onto another name of itself does nothing, and says that it went well.
TEST_F(fixed_names_test, a_rotation_does_not_empty_the_last_log_by_its_other_name) {
  switch_root::write_file(k_log, std::string(50001, 'x'));
  ASSERT_EQ(0, link(k_log, k_last));
  EXPECT_EQ(0, check_data_morph_log_size());
  EXPECT_EQ(std::string(50001, 'x'), switch_root::read_file(k_last));
}

// ---- Markers -----------------------------------------------------------------------------------

TEST_F(fixed_names_test, the_boot_marker_counts_when_it_opens) {
  for (const kind_t &kind : k_kinds) {
    SCOPED_TRACE(kind.name);
    empty();
    put_victim_beside(k_marker);
    const planted holder(k_marker, kind.plant(k_marker));
    const std::string lines = kind.opens ? "File check succeeded\nFile exists\n"
                                         : "File check failed\nFile doesn't exist\n";
    EXPECT_EQ("a\n" + lines + "b\n" + lines, captured_stderr([] {
                DATAMORPH_TRACE("a\n");
                DATAMORPH_TRACE("b\n");
              }));
    // What is no marker cannot be made one: the log starts anew each time.
    EXPECT_EQ(kind.opens ? lines_t({"a\n", "b\n"}) : lines_t({"b\n"}), log_lines());
    expect_as_planted(k_marker, kind, holder);
  }
}

TEST_F(fixed_names_test, a_boot_marker_that_may_not_be_read_is_none_and_is_left_alone) {
  for (const mode_t mode : {0000, 0200}) {
    switch_root::write_file(k_marker, k_content);
    ASSERT_EQ(0, chmod(k_marker, mode));
    EXPECT_EQ("a\nFile check failed\nFile doesn't exist\n",
              captured_stderr([] { without_privileges([] { DATAMORPH_TRACE("a\n"); }); }));
    EXPECT_EQ(k_content, switch_root::read_file(k_marker));
  }
}

TEST_F(fixed_names_test, an_npv_marker_that_may_not_be_read_is_none) {
  for (const char *marker : {k_npv, k_saved_npv}) {
    switch_root::write_file(marker, k_content);
    ASSERT_EQ(0, chmod(marker, 0));
  }
  traced([] {
    without_privileges([] {
      EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg", "s", "4.0(4)", "4.2(1)"));
    });
  });
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(fixed_names_test, an_npv_marker_of_another_owner_counts) {
  switch_root::write_file(k_saved_npv, k_content);
  const int changed = chown(k_saved_npv, 65534, 65534);
  ASSERT_TRUE(changed == 0 || errno == EINVAL);
  traced([] {
    EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg", "s", "4.0(4)", "4.2(1)"));
  });
  EXPECT_EQ(4u, platform.calls().size());
}

// ---- VRRP's trace files ------------------------------------------------------------------------

TEST_F(fixed_names_test, what_is_no_file_of_its_own_is_no_trace_file) {
  for (vrrp_side_t *side : {&vrrp_mgr_side, &vrrp_eng_side}) {
    for (const kind_t &kind : k_kinds) {
      SCOPED_TRACE(kind.name);
      empty();
      put_victim_beside(side->trace_file);
      const planted holder(side->trace_file, kind.plant(side->trace_file));
      vrrp_open_trace(*side);
      EXPECT_EQ(-1, side->trace_fd);
      expect_as_planted(side->trace_file, kind, holder);
    }
  }
}

TEST_F(fixed_names_test, a_trace_file_of_another_owner_is_written_to) {
  switch_root::write_file(k_mgr_trace, k_content);
  const int changed = chown(k_mgr_trace, 65534, 65534);
  ASSERT_TRUE(changed == 0 || errno == EINVAL);
  convert();
  EXPECT_EQ(0u, switch_root::read_file(k_mgr_trace).rfind(k_content, 0));
  EXPECT_LT(1000u, switch_root::read_file(k_mgr_trace).size());
}

TEST_F(fixed_names_test, a_trace_file_that_may_not_be_written_is_left_alone) {
  for (const mode_t mode : {0000, 0200, 0400}) {
    switch_root::write_file(k_mgr_trace, k_content);
    ASSERT_EQ(0, chmod(k_mgr_trace, mode));
    without_privileges([] { vrrp_open_trace(vrrp_mgr_side); });
    EXPECT_EQ(-1, vrrp_mgr_side.trace_fd);
    EXPECT_EQ(k_content, switch_root::read_file(k_mgr_trace));
  }
}

} // namespace
