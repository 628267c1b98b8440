// What a stopped conversion leaves is completed or cleaned by the next command, which says so.
#include "command.h"

#include <filesystem>

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
constexpr char completed[] =
    "datamorph: 'sw': completed a conversion that was stopped after its last step; the state "
    "before it is in previous/\n";

TEST_F(recovery, a_copy_that_was_not_finished_is_removed) {
  create("sw");
  const files before = state("sw");
  write("sw/next/cfg/0/vlan_cfg.pss", "half");

  const result shown = run({"lab", "show", "sw"});

  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.err, removed_copy);
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
TEST_F(recovery, a_state_that_a_reboot_left_is_removed) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  copy("sw/current", "sw/next");
  fs::remove(path("sw/next/tmp/session.txt"));
  const files before = state("sw");

  EXPECT_EQ(run({"lab", "show", "sw"}).err,
            "datamorph: 'sw': removed a state that a stopped reboot had left; the switch is wholly "
            "as it was before it or after it\n");

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

} // namespace
