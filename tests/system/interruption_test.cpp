// Stopped at any moment, the switch is wholly before or wholly after; two commands never work on
// one switch at once.
#include "command.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

class interruption : public command_test {
protected:
  // A conversion that stands still in the middle of its work.
  std::unique_ptr<background> start_hanging() {
    fake("hang");
    std::unique_ptr<background> running = start({"convert", "sw", "--to", "4.2(1)"});
    EXPECT_TRUE(eventually(
        [&] { return read("sw/next/bootflash/calls").find("sksd") != std::string::npos; }));
    return running;
  }

  size_t slow_records() {
    const result shown =
        run({"store", "show", "sw", "nonvolatile:/cfg/0/vlan_cfg", "--text", "--format", "json"});
    size_t count = 0;
    const nlohmann::json document = shown.json();
    for (const nlohmann::json &record : document["records"]) {
      count += record["key"].get<std::string>().starts_with("slow-") ? 1u : 0u;
    }
    return count;
  }
};

TEST_F(interruption, killed_at_any_moment_the_switch_is_wholly_before_or_after) {
  create("sw");
  fake("slow");
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  const auto whole = std::chrono::steady_clock::now() - begin;
  ASSERT_EQ(slow_records(), 20u);
  int before = 0;
  int after = 0;
  constexpr int points = 25;
  for (int at = 0; at < points; ++at) {
    std::filesystem::remove_all(path("sw"));
    create("sw");
    const std::unique_ptr<background> running = start({"convert", "sw", "--to", "4.2(1)"});
    std::this_thread::sleep_for(whole * at / (points - 2));
    running->signal(SIGKILL);
    running->wait();

    const nlohmann::json shown = show("sw");

    const size_t records = slow_records();
    EXPECT_TRUE((records == 0 && shown["release"] == "4.1(5)") ||
                (records == 20 && shown["release"] == "4.2(1)"))
        << records << " " << shown["release"] << " at point " << at;
    (records == 0 ? before : after) += 1;
    expect_tidy("sw");
    for (const nlohmann::json &store : shown["stores"]) {
      EXPECT_EQ(store["status"], 0) << store;
    }
  }
  EXPECT_GT(before, 0);
  EXPECT_EQ(before + after, points);
}

TEST_F(interruption, a_reboot_that_is_killed_at_any_moment_is_wholly_done_or_not) {
  create("sw");
  const files before = state("sw");
  std::filesystem::copy(path("sw"), path("kept"), std::filesystem::copy_options::recursive);
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  const auto whole = std::chrono::steady_clock::now() - begin;
  const files after = state("sw");
  ASSERT_NE(before, after);
  int as_before = 0;
  constexpr int points = 20;
  for (int at = 0; at < points; ++at) {
    std::filesystem::remove_all(path("sw"));
    std::filesystem::copy(path("kept"), path("sw"), std::filesystem::copy_options::recursive);
    const std::unique_ptr<background> running = start({"lab", "reboot", "sw"});
    std::this_thread::sleep_for(whole * at / (points - 2));
    running->signal(at % 2 == 0 ? SIGKILL : SIGTERM);
    running->wait();

    EXPECT_EQ(run({"lab", "show", "sw"}).status, 0);

    const files now = state("sw");
    EXPECT_TRUE(now == before || now == after) << at;
    as_before += now == before ? 1 : 0;
    EXPECT_FALSE(exists("sw/previous"));
    expect_tidy("sw");
  }
  EXPECT_GT(as_before, 0);
}

TEST_F(interruption, a_killed_command_takes_its_child_with_it) {
  create("sw");
  const std::unique_ptr<background> running = start_hanging();

  running->signal(SIGKILL);
  running->wait();

  const result next = run({"lab", "show", "sw"});
  EXPECT_EQ(next.status, 0) << next.err;
  EXPECT_NE(next.err.find("removed the copy of a command that was stopped"), std::string::npos);
  expect_tidy("sw");
}

TEST_F(interruption, signals_end_it_in_order) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    std::filesystem::remove_all(path("sw"));
    create("sw");
    const files before = state("sw");
    const std::unique_ptr<background> running = start_hanging();

    running->signal(number);
    const result stopped = running->wait();

    EXPECT_EQ(stopped.status, 128 + number);
    EXPECT_NE(stopped.err.find("stopped by a signal"), std::string::npos) << stopped.err;
    EXPECT_EQ(state("sw"), before);
    expect_tidy("sw");
    EXPECT_TRUE(exists("sw/runs/0001/report.json"));
  }
}

TEST_F(interruption, a_second_command_is_told_who_works_there) {
  create("sw");
  const std::unique_ptr<background> running = start_hanging();
  const std::string message = "datamorph: 'sw': in use by another command (process " +
                              std::to_string(running->pid()) + "); wait until it is done\n";

  for (const words &arguments : std::vector<words>{{"convert", "sw", "--to", "4.2(1)"},
                                                   {"lab", "show", "sw"},
                                                   {"lab", "reboot", "sw"},
                                                   {"history", "sw"},
                                                   {"rollback", "sw", "--yes"},
                                                   {"store", "list", "sw"}}) {
    const result second = run(arguments);
    EXPECT_EQ(second.status, 5) << arguments[0];
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err, message);
  }
  EXPECT_TRUE(exists("sw/next"));
}

TEST_F(interruption, readers_do_not_keep_each_other_out) {
  create("sw");
  std::vector<std::unique_ptr<background>> readers;
  for (int at = 0; at < 4; ++at) {
    readers.push_back(start({"lab", "show", "sw"}));
  }
  for (const std::unique_ptr<background> &reader : readers) {
    EXPECT_EQ(reader->wait().status, 0);
  }
}

TEST_F(interruption, a_conversion_whose_reader_is_gone_changes_nothing) {
  create("sw");
  const files before = state("sw");
  in_child = [] {
    int ends[2];
    if (pipe(ends) == 0) {
      dup2(ends[1], STDOUT_FILENO);
      close(ends[0]);
      close(ends[1]);
    }
  };

  const result converted = run({"convert", "sw", "--to", "4.2(1)"});

  EXPECT_EQ(converted.status, 1);
  EXPECT_NE(converted.err.find("the reader of its output is gone"), std::string::npos);
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
}

TEST_F(interruption, output_that_cannot_be_written_is_a_failure) {
  create("sw");
  in_child = [] {
    const int full = open("/dev/full", O_WRONLY);
    dup2(full, STDOUT_FILENO);
  };

  const result shown = run({"lab", "show", "sw"});

  EXPECT_EQ(shown.status, 1);
  EXPECT_EQ(shown.err, "datamorph: not all of the output could be written\n");
}

} // namespace
