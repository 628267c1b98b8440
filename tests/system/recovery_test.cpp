// What a stopped conversion leaves is completed or cleaned by the next command, which says so.
#include "command.h"

#include <csignal>
#include <filesystem>

#include <sys/syscall.h>

namespace {

namespace fs = std::filesystem;

class recovery : public command_test {
protected:
  void move(const std::string &from, const std::string &to) { fs::rename(path(from), path(to)); }
  void copy(const std::string &from, const std::string &to) {
    fs::copy(path(from), path(to), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  }
  std::string release_in(const std::string &state) {
    return nlohmann::json::parse(read(state + "/switch.json"))["release"];
  }
};

constexpr char removed_copy[] =
    "datamorph: 'sw': removed the copy of a command that was stopped; the switch is as it was "
    "before it\n";
constexpr char removed_state[] =
    "datamorph: 'sw': removed a state that a stopped command had left; the switch is wholly as it "
    "was before it or after it\n";
constexpr char completed[] =
    "datamorph: 'sw': completed a conversion that was stopped after its last step; the state "
    "before it is in previous/\n";

TEST_F(recovery, a_copy_that_was_not_finished_is_removed) {
  create("sw");
  const files before = state("sw");
  write("sw/next/cfg/0/vlan_cfg.pss", "half");

  const result shown = run({"lab", "show", "sw"});

  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.err, removed_state);
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
}

TEST_F(recovery, a_copy_of_the_same_generation_is_removed) {
  create("sw");
  copy("sw/current", "sw/next");
  write("sw/.copy", "");

  EXPECT_EQ(run({"lab", "show", "sw"}).err, removed_copy);
  EXPECT_EQ(release_in("sw/current"), "4.1(5)");
  expect_tidy("sw");
}

// Stopped just before its step or just after it: the other state is needed by nobody.
TEST_F(recovery, a_state_of_the_same_generation_is_removed) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  copy("sw/current", "sw/next");
  fs::remove(path("sw/next/tmp/session.txt"));
  const files before = state("sw");

  EXPECT_EQ(run({"lab", "show", "sw"}).err, removed_state);

  EXPECT_EQ(state("sw"), before);
  EXPECT_EQ(release_in("sw/previous"), "4.1(5)");
  expect_tidy("sw");
}

TEST_F(recovery, a_converted_copy_that_was_not_exchanged_is_removed) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  move("sw/current", "sw/next");
  move("sw/previous", "sw/current");

  EXPECT_EQ(run({"lab", "show", "sw"}).err, removed_copy);
  EXPECT_EQ(release_in("sw/current"), "4.1(5)");
  EXPECT_FALSE(exists("sw/previous"));
  expect_tidy("sw");
}

TEST_F(recovery, an_exchange_without_the_second_step_is_completed) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  move("sw/previous", "sw/next");

  EXPECT_EQ(run({"lab", "show", "sw"}).err, completed);
  EXPECT_EQ(release_in("sw/current"), "4.2(1)");
  EXPECT_EQ(release_in("sw/previous"), "4.1(5)");
  expect_tidy("sw");
}

TEST_F(recovery, an_older_previous_state_makes_room) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  copy("sw/previous", "kept");
  ASSERT_EQ(run({"convert", "sw", "--to", "5.0(2)"}).status, 0);
  move("sw/previous", "sw/next");
  move("kept", "sw/previous");

  EXPECT_EQ(run({"lab", "show", "sw"}).err, completed);
  EXPECT_EQ(release_in("sw/current"), "5.0(2)");
  EXPECT_EQ(release_in("sw/previous"), "4.2(1)");
  expect_tidy("sw");
}

// It may be the only state before a conversion.
TEST_F(recovery, a_whole_state_that_cannot_be_read_is_not_removed) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  move("sw/previous", "sw/next");
  write("sw/next/switch.json", "{");
  const files before = state("sw");

  const result shown = run({"lab", "show", "sw"});

  EXPECT_EQ(shown.status, 3);
  EXPECT_EQ(shown.err,
            "datamorph: 'sw': next/ of a command that was stopped may be the state before it, and "
            "cannot be read: switch.json is no JSON; nothing was changed; keep a copy of it, then "
            "mend its switch.json or remove it\n");
  EXPECT_EQ(read("sw/next/switch.json"), "{");
  EXPECT_EQ(state("sw"), before);
}

TEST_F(recovery, a_folder_in_the_place_of_the_mark_goes) {
  create("sw");
  write("sw/.copy/file", "");

  EXPECT_EQ(run({"lab", "show", "sw"}).err,
            "datamorph: 'sw': removed what a stopped command had left\n");
  expect_tidy("sw");
  EXPECT_FALSE(exists("sw/.copy"));
}

TEST_F(recovery, the_rest_of_a_state_that_was_being_removed_goes) {
  create("sw");
  copy("sw/current", "sw/next");
  fs::remove(path("sw/next/switch.json"));

  EXPECT_EQ(run({"lab", "show", "sw"}).err, removed_state);
  expect_tidy("sw");
}

TEST_F(recovery, a_second_step_that_was_half_done_is_completed) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  copy("sw/previous", "sw/discard");
  move("sw/previous", "sw/next");

  EXPECT_EQ(run({"convert", "sw", "--to", "5.0(2)"}).err.find(completed), 0u);
  EXPECT_EQ(release_in("sw/current"), "5.0(2)");
  EXPECT_EQ(release_in("sw/previous"), "4.2(1)");
  expect_tidy("sw");
}

TEST_F(recovery, what_was_to_be_thrown_away_is) {
  create("sw");
  copy("sw/current", "sw/discard");
  fs::create_directory(path("sw/.probe-a"));

  EXPECT_EQ(run({"lab", "show", "sw"}).err,
            "datamorph: 'sw': removed what a stopped command had left\n");
  EXPECT_EQ(release_in("sw/current"), "4.1(5)");
  expect_tidy("sw");
}

TEST_F(recovery, a_link_in_the_place_of_the_copy_is_not_followed) {
  create("sw");
  write("outside/switch.json", "mine");
  fs::create_directory_symlink(path("outside"), path("sw/next"));

  EXPECT_EQ(run({"lab", "show", "sw"}).status, 0);
  EXPECT_EQ(read("outside/switch.json"), "mine");
  expect_tidy("sw");
}

// ---- How far it came ---------------------------------------------------------------------------

class killed_run : public recovery {
protected:
  void kill_conversion() {
    fake("hang");
    const std::unique_ptr<background> running = start({"convert", "sw", "--to", "4.2(1)"});
    ASSERT_TRUE(eventually([&] {
      return read("sw/next/bootflash/calls").find("sksd") != std::string::npos &&
             read("sw/runs/0001/steps.jsonl").find("SKSD") != std::string::npos;
    }));
    running->signal(SIGKILL);
    running->wait();
  }
  // As if the last run had been killed before it wrote its end.
  void forget_end(const std::string &number) {
    const std::string file = "sw/runs/" + number + "/run.json";
    nlohmann::json record = nlohmann::json::parse(read(file));
    record["result"] = "running";
    record["milliseconds"] = nullptr;
    write(file, record.dump());
  }
};

TEST_F(killed_run, the_next_command_tells_how_far_it_came) {
  create("sw");
  const files before = state("sw");
  kill_conversion();

  EXPECT_EQ(run({"lab", "show", "sw"}).err,
            "datamorph: 'sw': removed the copy of a command that was stopped; the switch is as it "
            "was before it; run 0001 (convert, from 4.1(5) to 4.2(1)) was killed in SKSD "
            "(running-fs, VDC 1), 2 of 8 service calls done\n");

  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
  EXPECT_EQ(run({"lab", "show", "sw"}).err, "");
}

// It had done its work: nothing stands in the way of the next one.
TEST_F(killed_run, a_check_tells_one_that_left_nothing) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  forget_end("0001");
  const result checked = run({"check", "sw", "--to", "4.2(3)"});
  EXPECT_EQ(checked.status, 0) << checked.out;
  EXPECT_NE(checked.err.find("run 0001 (convert, from 4.1(5) to 4.2(1)) was killed"),
            std::string::npos)
      << checked.err;
}

// Whoever opens nothing for writing tells it, and leaves it to the next one.
TEST_F(killed_run, a_rehearsal_tells_it_and_leaves_it) {
  create("sw");
  const files before = state("sw");
  kill_conversion();
  fake("nothing");
  const std::string killed =
      "run 0001 (convert, from 4.1(5) to 4.2(1)) was killed in SKSD (running-fs, VDC 1), 2 of 8 "
      "service calls done; the switch stayed as it was; it left next, .copy";
  const std::string told = "datamorph: 'sw': " + killed + "; 'datamorph lab show sw' tidies up\n";
  const std::string record = read("sw/runs/0001/run.json");

  EXPECT_TRUE(run({"rehearse", "sw", "--to", "4.2(1)"}).err.starts_with(told));
  EXPECT_EQ(run({"matrix", "sw", "--release", "4.1(5)", "--release", "4.2(1)"}).err, told);
  const nlohmann::json checked = run({"check", "sw", "--to", "4.2(1)", "--format", "json"}).json();

  EXPECT_EQ(checked["findings"][0]["text"], killed);
  EXPECT_EQ(checked["findings"][0]["remedy"], "datamorph lab show sw, which tidies up and says so");
  EXPECT_TRUE(exists("sw/next"));
  EXPECT_EQ(read("sw/runs/0001/run.json"), record);
  EXPECT_EQ(run({"diff", "sw", "sw"}).status, 0);
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
  EXPECT_EQ(run({"rehearse", "sw", "--to", "4.2(1)"}).err.find("killed"), std::string::npos);
}

TEST_F(killed_run, who_has_no_right_to_write_is_told_whose_it_is) {
  create("sw");
  kill_conversion();
  fake("nothing");
  in_child = [this] {
    // Read-only for this one, whoever runs it.
    deny_system_calls({SYS_faccessat2}, EACCES);
  };

  const result told = run({"history", "sw"});

  EXPECT_EQ(told.status, 0);
  EXPECT_EQ(told.err,
            "datamorph: 'sw': run 0001 (convert, from 4.1(5) to 4.2(1)) was killed in "
            "SKSD (running-fs, VDC 1), 2 of 8 service calls done; the switch stayed as it "
            "was; it left next, .copy; 'datamorph lab show sw' tidies up when the user "
            "that it belongs to runs it\n");
  EXPECT_TRUE(exists("sw/next"));
}

TEST_F(killed_run, without_anything_left_it_is_told_too) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  ASSERT_EQ(run({"rollback", "sw", "--yes"}).status, 0);
  forget_end("0002");

  EXPECT_EQ(run({"lab", "show", "sw"}).err,
            "datamorph: 'sw': run 0002 (rollback, from 4.2(1) to 4.1(5)) was killed; its change "
            "had been made\n");
  EXPECT_EQ(run({"lab", "show", "sw"}).err, "");

  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  forget_end("0003");
  EXPECT_EQ(run({"convert", "sw", "--to", "9.9(9)"})
                .err.find("datamorph: 'sw': run 0003 (reboot, at 4.1(5)) was killed\n"),
            0u);
}

TEST_F(killed_run, a_conversion_that_had_taken_its_last_step_is_told) {
  create("sw");
  fake("nothing");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  forget_end("0001");

  EXPECT_EQ(run({"history", "sw"}).err,
            "datamorph: 'sw': run 0001 (convert, from 4.1(5) to 4.2(1)) was killed after its last "
            "service, 8 of 8 service calls done; its change had been made\n");
}

TEST_F(killed_run, who_cannot_write_it_down_goes_on) {
  create("sw");
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  forget_end("0001");
  write("sw/runs/9", "in the way");

  EXPECT_EQ(run({"lab", "show", "sw"}).status, 0);
  write("sw/runs/0001/run.json", "{");
  fs::remove(path("sw/runs/9"));
  EXPECT_EQ(run({"lab", "show", "sw"}).status, 0);
}

} // namespace
