// rollback: the state before the last change comes back in one step, and nothing is lost by it.
#include "command.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <poll.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class rollback : public command_test {
protected:
  // At 4.2(1), with the state at 4.1(5) in previous/.
  void create_converted() {
    create("sw");
    first = state("sw");
    ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
    second = state("sw");
    ASSERT_NE(first, second);
  }

  files previous_state() {
    if (!exists("old/current")) {
      fs::create_directory(path("old"));
      fs::create_directory_symlink("../sw/previous", path("old/current"));
    }
    return state("old");
  }

  void expect_refused(const words &arguments, const std::string &message) {
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, 3);
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err, "datamorph: 'sw': " + message + "\n");
  }

  void expect_untouched() {
    EXPECT_EQ(state("sw"), second);
    EXPECT_EQ(previous_state(), first);
    EXPECT_FALSE(exists("sw/runs/0002"));
    expect_tidy("sw");
  }

  files first;
  files second;
};

constexpr char closing[] = "sw: rolled back, from 4.2(1) to 4.1(5); what was replaced is in "
                           "previous/: rollback once more to take it back\n";

TEST_F(rollback, puts_the_state_before_the_conversion_back) {
  create_converted();

  const result back = run({"rollback", "sw", "--yes"});

  EXPECT_EQ(back.status, 0);
  EXPECT_EQ(back.out, closing);
  EXPECT_EQ(back.err, "");
  EXPECT_EQ(state("sw"), first);
  EXPECT_EQ(previous_state(), second);
  EXPECT_EQ(show("sw")["release"], "4.1(5)");
  expect_tidy("sw");
}

TEST_F(rollback, can_be_taken_back) {
  create_converted();
  ASSERT_EQ(run({"rollback", "sw", "-y"}).status, 0);

  EXPECT_EQ(run({"rollback", "sw", "-y"}).out,
            "sw: rolled back, from 4.1(5) to 4.2(1); what was replaced is in previous/: rollback "
            "once more to take it back\n");

  EXPECT_EQ(state("sw"), second);
  EXPECT_EQ(previous_state(), first);
}

TEST_F(rollback, tells_as_json) {
  create_converted();

  const nlohmann::json told = run({"rollback", "sw", "--yes", "--format", "json"}).json();

  EXPECT_EQ(told, (nlohmann::json{{"switch", "sw"},
                                  {"run", "0002"},
                                  {"run_folder", "sw/runs/0002"},
                                  {"from", "4.2(1)"},
                                  {"to", "4.1(5)"},
                                  {"message", std::string(closing, sizeof closing - 2)}}));
}

TEST_F(rollback, of_a_part_of_a_change_keeps_the_release) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "3.3(1)", "--moment", "running-fs"}).status, 0);

  EXPECT_EQ(run({"rollback", "sw", "--yes"}).out,
            "sw: rolled back, at 4.1(5) as before; what was replaced is in previous/: rollback "
            "once more to take it back\n");
}

TEST_F(rollback, keeps_what_was_stored_and_rebooted_since) {
  create_converted();
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  ASSERT_EQ(run({"store", "put", "sw", "nonvolatile:/cfg/0/vlan_cfg", "ffff", "01"}).status, 0);
  const files later = state("sw");

  ASSERT_EQ(run({"rollback", "sw", "--yes"}).status, 0);

  EXPECT_EQ(state("sw"), first);
  EXPECT_EQ(previous_state(), later);
}

TEST_F(rollback, a_conversion_goes_on_from_there) {
  create_converted();
  ASSERT_EQ(run({"rollback", "sw", "--yes"}).status, 0);

  EXPECT_EQ(run({"convert", "sw", "--to", "5.0(2)"}).status, 0);

  EXPECT_EQ(show("sw")["release"], "5.0(2)");
  EXPECT_EQ(previous_state(), first);
  expect_tidy("sw");
}

TEST_F(rollback, a_conversion_that_was_killed_is_recovered_first) {
  create_converted();
  fs::copy(path("sw/current"), path("sw/next"),
           fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  write("sw/.copy", "");

  const result back = run({"rollback", "sw", "--yes"});

  EXPECT_EQ(back.err, "datamorph: 'sw': removed the copy of a command that was stopped; the switch "
                      "is as it was before it\n");
  EXPECT_EQ(state("sw"), first);
  EXPECT_EQ(previous_state(), second);
}

// ---- Refused -----------------------------------------------------------------------------------

TEST_F(rollback, without_a_state_to_go_back_to_is_refused) {
  create("sw");
  first = state("sw");

  expect_refused({"rollback", "sw", "--yes"},
                 "there is nothing to go back to: no state of before a conversion stands in "
                 "previous/; 'datamorph history' lists what was done");

  EXPECT_EQ(state("sw"), first);
  EXPECT_FALSE(exists("sw/runs/0001"));
}

TEST_F(rollback, to_what_is_no_state_is_refused) {
  create_converted();
  fs::rename(path("sw/previous"), path("kept"));
  fs::create_directory(path("sw/previous"));
  expect_refused({"rollback", "sw", "--yes"},
                 "previous/: cannot read 'switch.json': No such file or directory; it is no state "
                 "to go back to, move it elsewhere");
  write("sw/previous/switch.json", "{");
  expect_refused({"rollback", "sw", "--yes"},
                 "previous/: switch.json is no JSON; it is no state to go back to, move it "
                 "elsewhere");
  fs::remove_all(path("sw/previous"));
  fs::create_directory_symlink(path("kept"), path("sw/previous"));
  expect_refused({"rollback", "sw", "--yes"},
                 "cannot open previous/: Not a directory; it is no state to go back to, move it "
                 "elsewhere");
  EXPECT_EQ(state("sw"), second);
  EXPECT_FALSE(exists("sw/runs/0002"));
}

TEST_F(rollback, nobody_is_asked_without_a_terminal) {
  create_converted();

  expect_refused({"rollback", "sw"},
                 "not rolled back: there is no terminal to ask on; 'datamorph rollback sw --yes' "
                 "goes back from 4.2(1) to 4.1(5)");

  expect_untouched();
}

TEST_F(rollback, of_a_switch_in_use_is_refused) {
  create_converted();
  fake("hang");
  const std::unique_ptr<background> running = start({"convert", "sw", "--to", "5.0(2)"});
  ASSERT_TRUE(eventually([&] { return exists("sw/next/bootflash/calls"); }));

  const result refused = run({"rollback", "sw", "--yes"});

  EXPECT_EQ(refused.status, 5);
  EXPECT_EQ(refused.err, "datamorph: 'sw': in use by another command (process " +
                             std::to_string(running->pid()) + "); wait until it is done\n");
  EXPECT_EQ(state("sw"), second);
}

TEST_F(rollback, without_a_place_to_write_it_down_nothing_is_done) {
  create_converted();
  fs::rename(path("sw/runs"), path("kept"));
  write("sw/runs", "in the way");

  const result back = run({"rollback", "sw", "--yes"});

  EXPECT_EQ(back.status, 1);
  EXPECT_EQ(back.err, "datamorph: 'sw': cannot read the folder runs/: Not a directory; make room, "
                      "or move what stands there out of the way\n");
  EXPECT_EQ(state("sw"), second);
  EXPECT_EQ(previous_state(), first);
}

TEST_F(rollback, output_that_cannot_be_written_does_not_hide_that_it_is_done) {
  create_converted();
  in_child = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };

  const result back = run({"rollback", "sw", "--yes"});

  EXPECT_EQ(back.status, 1);
  EXPECT_EQ(back.err, "datamorph: 'sw': not all of the output could be written; the switch IS "
                      "rolled back\n");
  EXPECT_EQ(state("sw"), first);
}

// ---- Asked -------------------------------------------------------------------------------------

class rollback_asked : public rollback {
protected:
  void SetUp() override {
    rollback::SetUp();
    terminal_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal_, 0);
    ASSERT_EQ(grantpt(terminal_), 0);
    ASSERT_EQ(unlockpt(terminal_), 0);
    // Held open here too: a terminal that everybody closed is hung up for the next one.
    held_ = open(ptsname(terminal_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(held_, 0);
    create_converted();
    in_child = [this] {
      const int fd = open(ptsname(terminal_), O_RDWR | O_NOCTTY);
      dup2(fd, STDIN_FILENO);
      dup2(fd, STDERR_FILENO);
    };
  }
  void TearDown() override {
    close(held_);
    close(terminal_);
    rollback::TearDown();
  }

  // What the terminal shows up to this text, which it does within 20 seconds.
  std::string shown_until(const std::string &text) {
    std::string shown;
    pollfd in = {terminal_, POLLIN, 0};
    while (shown.find(text) == std::string::npos && poll(&in, 1, 20000) == 1) {
      char buffer[1024];
      const ssize_t got = ::read(terminal_, buffer, sizeof buffer);
      if (got <= 0) {
        break;
      }
      shown.append(buffer, static_cast<size_t>(got));
    }
    return shown;
  }

  std::unique_ptr<background> start_and_be_asked() {
    std::unique_ptr<background> running = start({"rollback", "sw"});
    EXPECT_EQ(shown_until("[y/N] "), "datamorph: 'sw': roll back, from 4.2(1) to 4.1(5)? [y/N] ");
    return running;
  }

  void type(const std::string &text) {
    ASSERT_EQ(::write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

private:
  int terminal_ = -1;
  int held_ = -1;
};

TEST_F(rollback_asked, yes_does_it) {
  const std::unique_ptr<background> running = start_and_be_asked();

  type("yes\n");
  const result back = running->wait();

  EXPECT_EQ(back.status, 0);
  EXPECT_EQ(back.out, closing);
  EXPECT_EQ(state("sw"), first);
  EXPECT_EQ(previous_state(), second);
}

TEST_F(rollback_asked, anything_else_does_not) {
  for (const char *said : {"n\n", "\n", "yesterday\n", "\x04"}) {
    const std::unique_ptr<background> running = start_and_be_asked();

    type(said);

    EXPECT_EQ(running->wait().status, 3) << said;
    EXPECT_NE(
        shown_until("beforehand\r\n")
            .find("datamorph: 'sw': not confirmed, nothing was changed; answer y, or say --yes "
                  "beforehand\r\n"),
        std::string::npos);
    expect_untouched();
  }
}

TEST_F(rollback_asked, a_signal_ends_the_question) {
  const std::unique_ptr<background> running = start_and_be_asked();

  running->signal(SIGTERM);

  EXPECT_EQ(running->wait().status, 128 + SIGTERM);
  expect_untouched();
}

// ---- Killed ------------------------------------------------------------------------------------

// The system calls that can change what another process sees.
bool changes_something(uint64_t number) {
  constexpr std::array<uint64_t, 12> changing = {
      SYS_openat, SYS_mkdirat,  SYS_rename,    SYS_renameat, SYS_renameat2, SYS_unlinkat,
      SYS_write,  SYS_pwrite64, SYS_ftruncate, SYS_fsync,    SYS_flock,     SYS_exit_group};
  return std::find(changing.begin(), changing.end(), number) != changing.end();
}

class rollback_killed : public rollback {
protected:
  // Runs a command up to its `at`th such system call, and kills it before that is made. False when
  // it ended earlier.
  bool killed_before(const words &arguments, int at) {
    in_child = [] { ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); };
    const std::unique_ptr<background> running = start(arguments);
    in_child = [] {};
    const bool killed = follow(running->pid(), at);
    running->wait();
    return killed;
  }

private:
  static bool follow(pid_t pid, int at) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSTOPPED(status));
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    int met = 0;
    while (ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr) == 0 && waitpid(pid, &status, 0) == pid &&
           WIFSTOPPED(status)) {
      __ptrace_syscall_info info = {};
      const long got = ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
      if (got > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY && changes_something(info.entry.nr) &&
          ++met == at) {
        kill(pid, SIGKILL);
        return true;
      }
    }
    EXPECT_TRUE(WIFEXITED(status));
    return false;
  }
};

TEST_F(rollback_killed, before_each_system_call_it_is_wholly_before_or_after) {
  create_converted();
  const files before = second;
  const files after = first;
  fs::copy(path("sw"), path("kept"), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  int points_before = 0;
  int points_after = 0;
  for (int at = 1;; ++at) {
    fs::remove_all(path("sw"));
    fs::copy(path("kept"), path("sw"),
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    if (!killed_before({"rollback", "sw", "--yes"}, at)) {
      break;
    }
    // Before anything tidies up: the states themselves are whole.
    const bool done = state("sw") == after;
    ASSERT_TRUE(done || state("sw") == before) << at;
    ASSERT_EQ(previous_state(), done ? before : after) << at;
    (done ? points_after : points_before) += 1;

    const nlohmann::json told = run({"history", "sw", "--format", "json"}).json();

    expect_tidy("sw");
    if (told["runs"].size() == 2 && told["runs"][1]["result"] == "killed") {
      EXPECT_EQ(told["runs"][1]["remark"],
                done ? "its change had been made" : "the switch stayed as it was")
          << at;
    } else if (told["runs"].size() == 2 && told["runs"][1]["result"] == "done") {
      EXPECT_TRUE(done) << at;
    } else {
      EXPECT_FALSE(done) << at;
    }
    EXPECT_EQ(run({"rollback", "sw", "--yes"}).status, 0) << at;
    EXPECT_EQ(state("sw"), done ? before : after) << at;
  }
  EXPECT_GT(points_before, 5);
  EXPECT_GT(points_after, 5);
  EXPECT_EQ(state("sw"), after);
}

} // namespace
