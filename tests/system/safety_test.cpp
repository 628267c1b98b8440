// What must hold whoever does what: one command at a time, a state that is whole, nothing of the
// converters outside of the copy or after the run, and an end to everything.
#include "command.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class safety : public command_test {
protected:
  // A conversion that does `what` and stands still then.
  std::unique_ptr<background> start_hanging(const std::string &what = "hang") {
    fake(what);
    std::unique_ptr<background> running = start({"convert", "sw", "--to", "4.2(1)"});
    EXPECT_TRUE(eventually(
        [&] { return read("sw/next/bootflash/calls").find("sksd") != std::string::npos; }));
    return running;
  }

  result convert(const words &more = {}) {
    words arguments = {"convert", "sw", "--to", "4.2(1)"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run(arguments);
  }

  std::string release_in(const std::string &state) {
    return nlohmann::json::parse(read(state + "/switch.json"))["release"];
  }
};

// ---- One command at a time ---------------------------------------------------------------------

TEST_F(safety, without_its_lock_file_a_switch_is_locked_all_the_same) {
  create("sw");
  const std::unique_ptr<background> running = start_hanging();
  fs::remove(path("sw/.lock"));

  const result second = convert();

  EXPECT_EQ(second.status, 5) << second.err;
  EXPECT_NE(second.err.find("'sw': in use by another command"), std::string::npos) << second.err;
  EXPECT_TRUE(exists("sw/next/bootflash/calls"));
}

TEST_F(safety, with_another_lock_file_a_switch_is_locked_all_the_same) {
  create("sw");
  const std::unique_ptr<background> running = start_hanging();
  fs::remove(path("sw/.lock"));
  write("sw/.lock", "");

  EXPECT_EQ(run({"lab", "show", "sw"}).status, 5);
  EXPECT_TRUE(exists("sw/next/bootflash/calls"));
}

TEST_F(safety, a_number_that_a_killed_command_left_is_believed_of_nobody) {
  create("sw");
  // This test's process got the killed command's number, as it were; others read the switch.
  write("sw/.lock", std::to_string(getpid()) + "\n");
  const int folder = open(path("sw").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int file = open(path("sw/.lock").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(folder, LOCK_SH), 0);
  ASSERT_EQ(flock(file, LOCK_SH), 0);

  const std::unique_ptr<background> writer = start({"lab", "reboot", "sw"});
  std::this_thread::sleep_for(500ms);
  close(folder);
  close(file);

  const result rebooted = writer->wait();
  EXPECT_EQ(rebooted.status, 0) << rebooted.err;
}

// ---- A state that is whole ---------------------------------------------------------------------

TEST_F(safety, where_the_current_state_cannot_be_read_the_other_one_is_kept) {
  create("sw");
  ASSERT_EQ(convert().status, 0);
  fs::rename(path("sw/previous"), path("sw/next"));
  write("sw/current/switch.json", "");

  for (const words &arguments :
       std::vector<words>{{"lab", "show", "sw"}, {"convert", "sw", "--to", "5.0(2)"}}) {
    const result refused = run(arguments);

    EXPECT_EQ(refused.status, 3);
    EXPECT_NE(refused.err.find("one of the two is the whole state"), std::string::npos)
        << refused.err;
    EXPECT_EQ(release_in("sw/next"), "4.1(5)");
  }
}

TEST_F(safety, a_copy_in_which_converters_faked_an_old_generation_is_a_copy) {
  create("sw");
  const files before = state("sw");
  const std::unique_ptr<background> running = start_hanging("old-generation");
  ASSERT_TRUE(eventually([&] {
    return read("sw/next/switch.json").find("\"generation\": 0") != std::string::npos &&
           read("sw/runs/0001/steps.jsonl").find("SKSD") != std::string::npos;
  }));
  running->signal(SIGKILL);
  running->wait();

  const result shown = run({"lab", "show", "sw"});

  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.err,
            "datamorph: 'sw': removed the copy of a command that was stopped; the "
            "switch is as it was before it; run 0001 (convert, from 4.1(5) to 4.2(1)) was "
            "killed in SKSD (running-fs, VDC 1), 2 of 8 service calls done\n");
  EXPECT_EQ(state("sw"), before);
  EXPECT_FALSE(exists("sw/previous"));
  expect_tidy("sw");
}

TEST_F(safety, what_converters_write_into_the_switch_file_does_not_count) {
  create("sw");
  fake("rubbish-in-switch-json");

  EXPECT_EQ(convert().status, 0);

  EXPECT_EQ(show("sw")["release"], "4.2(1)");
  EXPECT_EQ(release_in("sw/previous"), "4.1(5)");
}

TEST_F(safety, a_conversion_whose_report_cannot_be_written_says_that_it_is_done) {
  create("sw");
  in_child = [] { dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO); };

  const result converted = convert();

  EXPECT_EQ(converted.status, 1);
  EXPECT_NE(converted.err.find("datamorph: 'sw': not all of the output could be written; the "
                               "switch IS converted, see sw/runs/0001/report.json\n"),
            std::string::npos)
      << converted.err;
  EXPECT_EQ(release_in("sw/current"), "4.2(1)");
}

TEST_F(safety, output_to_a_closed_stream_is_lost) {
  in_child = [] { close(STDOUT_FILENO); };

  EXPECT_EQ(run({"services"}).status, 1);
}

// ---- What cannot be removed --------------------------------------------------------------------

TEST_F(safety, a_copy_of_any_depth_is_removed) {
  create("sw");
  const files before = state("sw");
  fake("nest-and-fail");

  const result converted = convert();

  EXPECT_EQ(converted.status, 1);
  EXPECT_NE(converted.out.find("1 service failed"), std::string::npos) << converted.err;
  EXPECT_TRUE(exists("sw/runs/0001/report.json"));
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
}

TEST_F(safety, a_state_of_any_depth_is_converted_and_replaced) {
  create("sw");
  fake("nest");
  ASSERT_EQ(convert().status, 0);
  fake("");

  const result converted = run({"convert", "sw", "--to", "5.0(2)"});
  EXPECT_EQ(converted.status, 0) << converted.err;
  expect_tidy("sw");
}

TEST_F(safety, what_cannot_be_removed_is_put_aside_and_said_once) {
  create("sw");
  write("sw/discard/of-somebody-else", "x");
  in_child = [] { deny_system_calls({SYS_unlinkat}, EACCES); };

  const result first = run({"lab", "show", "sw"});
  const result second = run({"lab", "show", "sw"});

  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_NE(first.err.find("cannot remove 'discard': Permission denied; it is now "
                           "discard.0/: remove that as the user that it belongs to\n"),
            std::string::npos)
      << first.err;
  EXPECT_EQ(second.status, 0);
  EXPECT_EQ(second.err, "");
  EXPECT_EQ(read("sw/discard.0/of-somebody-else"), "x");
}

// ---- Nothing of the converters outlives the run or leaves the copy ------------------------------

TEST_F(safety, a_process_in_a_session_of_its_own_ends_with_the_run) {
  create("sw");
  fake("daemon");

  ASSERT_EQ(convert().status, 0);

  const pid_t daemon = std::stoi(read("sw/current/bootflash/daemon"));
  EXPECT_EQ(kill(daemon, 0), -1);
  EXPECT_EQ(errno, ESRCH);
  std::this_thread::sleep_for(1200ms);
  EXPECT_FALSE(exists("sw/current/bootflash/daemon-was-here"));
}

TEST_F(safety, a_process_in_a_session_of_its_own_ends_with_a_command_that_is_killed) {
  create("sw");
  const std::unique_ptr<background> running = start_hanging("daemon-and-hang");
  ASSERT_TRUE(eventually([&] { return !read("sw/next/bootflash/daemon").empty(); }));
  const pid_t daemon = std::stoi(read("sw/next/bootflash/daemon"));

  running->signal(SIGKILL);
  running->wait();

  const result shown = run({"lab", "show", "sw"});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(kill(daemon, 0), -1);
  expect_tidy("sw");
}

TEST_F(safety, converters_find_no_folder_of_the_host) {
  create("sw");
  fake("escape");

  EXPECT_EQ(convert().status, 0);

  EXPECT_FALSE(exists("escaped"));
  EXPECT_FALSE(exists("sw/escaped"));
}

// ---- An end to everything ----------------------------------------------------------------------

TEST_F(safety, a_reader_of_the_trace_that_stands_still_holds_up_nothing) {
  create("sw");
  const files before = state("sw");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  in_child = [&] { dup2(ends[1], STDERR_FILENO); };
  fake("endless-flood");

  const std::unique_ptr<background> running =
      start({"convert", "sw", "--to", "4.2(1)", "-v", "--timeout", "2"});

  ASSERT_TRUE(eventually([&] { return exists("sw/runs/0001/report.json"); }));
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
  running->signal(SIGTERM);
  EXPECT_EQ(running->wait().status, 1);
  close(ends[0]);
  close(ends[1]);
}

TEST_F(safety, the_trace_is_kept_up_to_a_limit) {
  create("sw");
  fake("flood");

  ASSERT_EQ(convert().status, 0);

  const std::string trace = read("sw/runs/0001/trace.log");
  EXPECT_LT(trace.size(), (64u << 20) + 100);
  EXPECT_TRUE(
      trace.ends_with("x\n[the rest is left out: this file has reached its limit of 64 MiB]\n"));
}

TEST_F(safety, the_conversion_log_is_kept_up_to_a_limit) {
  create("sw");
  fake("large-log");

  ASSERT_EQ(convert().status, 0);

  const std::string log = read("sw/runs/0001/conversion.log");
  EXPECT_LT(log.size(), (64u << 20) + 100);
  EXPECT_TRUE(log.starts_with("first line\n"));
  EXPECT_TRUE(log.ends_with("has reached its limit of 64 MiB]\n"));
}

TEST_F(safety, where_the_kernel_has_no_pidfd_the_end_of_work_is_noticed) {
  create("sw");
  in_child = [] { deny_system_calls({SYS_pidfd_open}, ENOSYS); };

  EXPECT_EQ(run({"lab", "show", "sw"}).status, 0);
  EXPECT_EQ(convert().status, 0);
}

TEST_F(safety, a_hang_while_the_switch_is_examined_is_ended) {
  create("sw");
  fake("hang-in-compare");

  const result converted = convert({"--timeout", "1"});

  EXPECT_EQ(converted.status, 3);
  EXPECT_EQ(converted.err, "datamorph: 'sw': the library gave no answer within 1 second while the "
                           "switch was examined; raise --timeout\n");
}

// ---- Messages that the converters made up ------------------------------------------------------

TEST_F(safety, made_up_messages_fail_the_run) {
  create("sw");
  const files before = state("sw");
  fake("message");
  for (const char *message :
       {R"({"start": 99})", R"({"result": 0})", R"({"result": 0, "status": "x"})",
        R"({"failure": 3})", R"({"failure": {"status": "x", "message": 3}})"}) {
    set("FAKE_CONVERTERS_MESSAGE", message);

    const result converted = convert();

    EXPECT_EQ(converted.status, 1) << message;
    EXPECT_NE(converted.err.find("'sw': not converted: the library's process sent a message that "
                                 "makes no sense; the switch is as it was"),
              std::string::npos)
        << converted.err;
    EXPECT_EQ(state("sw"), before);
  }
}

TEST_F(safety, a_made_up_status_is_not_the_commands) {
  create("sw");
  fake("message");
  set("FAKE_CONVERTERS_MESSAGE", R"({"failure": {"status": 143, "message": "made up"}})");

  EXPECT_EQ(convert().status, 1);
}

// ---- Where a command cannot work ---------------------------------------------------------------

TEST_F(safety, a_file_in_the_place_of_the_runs_is_named) {
  create("sw");
  fs::remove_all(path("sw/runs"));
  write("sw/runs", "x");

  const result converted = convert();

  EXPECT_EQ(converted.status, 1);
  EXPECT_EQ(converted.err, "datamorph: 'sw': cannot read the folder runs/: Not a directory; make "
                           "room, or move what stands there out of the way\n");
}

// Each record has several lines in the journal, which so grows beyond every store.
TEST_F(safety, a_run_whose_journal_cannot_be_written_says_so) {
  create("sw");
  std::string addresses;
  for (int at = 0; at < 300; ++at) {
    char address[16];
    std::snprintf(address, sizeof address, "%08x", at);
    const std::string rest = std::string(address) + std::string(24, '0');
    addresses += std::string(at == 0 ? "" : ",") + R"({"key": "02000000010a1a000000)" + rest +
                 R"(", "value": "0000001a0a01000000)" + rest + R"(0100000001000000"})";
  }
  const std::string document =
      R"({"stores": [{"uri": "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav", "records": [)" +
      addresses + "]}]}";
  ASSERT_EQ(run({"store", "import", "sw"}, document).status, 0);
  const files before = state("sw");
  in_child = [] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {100000, 100000};
    setrlimit(RLIMIT_FSIZE, &limit);
  };

  const result converted = run({"convert", "sw", "--to", "4.2(1)", "--moment", "startup"});

  EXPECT_EQ(converted.status, 1);
  EXPECT_NE(converted.err.find("datamorph: 'sw': not converted: the run's journal could not be "
                               "written, from pss_"),
            std::string::npos)
      << converted.err;
  EXPECT_NE(converted.err.find(" by VRRP_MGR on; is there room for it in runs/?; the switch is as "
                               "it was, still at 4.1(5)\n"),
            std::string::npos)
      << converted.err;
  EXPECT_EQ(fs::file_size(path("sw/runs/0001/journal.jsonl")), 100000u);
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
}

} // namespace
