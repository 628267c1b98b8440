// Where `lab create` builds: it takes nothing away from anybody and leaves a directory what it is.
#include "command.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class create_verb : public command_test {
protected:
  struct stat about(const std::string &name) {
    struct stat found = {};
    EXPECT_EQ(stat(path(name).c_str(), &found), 0);
    return found;
  }
};

TEST_F(create_verb, a_folder_of_somebody_else_beside_it_is_kept) {
  write(".sw.creating/keep", "mine");

  const result made = run({"lab", "create", "sw"});

  EXPECT_EQ(made.status, 3);
  EXPECT_NE(made.err.find(".sw.creating beside it was not left by a stopped command"),
            std::string::npos)
      << made.err;
  EXPECT_EQ(read(".sw.creating/keep"), "mine");
  EXPECT_FALSE(exists("sw"));
}

TEST_F(create_verb, a_file_beside_it_is_kept) {
  write(".sw.creating", "mine");

  EXPECT_EQ(run({"lab", "create", "sw"}).status, 3);

  EXPECT_EQ(read(".sw.creating"), "mine");
}

TEST_F(create_verb, an_empty_directory_stays_what_it_is) {
  fs::create_directory(path("sw"));
  fs::permissions(path("sw"), fs::perms::owner_all);
  const struct stat before = about("sw");

  ASSERT_EQ(run({"lab", "create", "sw"}).status, 0);

  EXPECT_EQ(about("sw").st_ino, before.st_ino);
  EXPECT_EQ(about("sw").st_mode, before.st_mode);
  EXPECT_EQ(show("sw")["release"], "4.1(5)");
  EXPECT_FALSE(exists("sw/current.creating"));
}

TEST_F(create_verb, the_working_directory_can_become_a_switch) {
  fs::create_directory(path("sw"));
  const int here = open(path("sw").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  in_child = [here] {
    if (fchdir(here) != 0) {
      _exit(125);
    }
  };

  ASSERT_EQ(run({"lab", "create", "."}).status, 0);
  const result shown = run({"lab", "show", "."});

  EXPECT_EQ(shown.status, 0) << shown.err;
  close(here);
}

TEST_F(create_verb, an_own_directory_in_one_of_somebody_else_will_do) {
  fs::create_directories(path("of-others/sw"));
  fs::permissions(path("of-others"), fs::perms::owner_read | fs::perms::owner_exec);

  const result made = run({"lab", "create", "of-others/sw"});

  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_FALSE(exists("of-others/.sw.creating"));
  fs::permissions(path("of-others"), fs::perms::owner_all);
}

TEST_F(create_verb, what_a_stopped_command_left_in_the_directory_makes_room) {
  write("sw/current.creating/half", "x");
  write("sw/.lock", "");

  const result made = run({"lab", "create", "sw"});

  EXPECT_EQ(made.status, 0);
  EXPECT_EQ(made.err, "datamorph: 'sw': removed what a stopped command had built so far\n");
  EXPECT_FALSE(exists("sw/current/half"));
}

TEST_F(create_verb, a_switch_is_not_built_over) {
  create("sw");
  const files before = state("sw");

  EXPECT_EQ(run({"lab", "create", "sw"}).status, 3);

  EXPECT_EQ(state("sw"), before);
}

TEST_F(create_verb, a_failed_build_leaves_the_directory_empty) {
  fs::create_directory(path("sw"));
  in_child = [] { deny_system_calls({SYS_chroot, SYS_unshare}, EPERM); };

  EXPECT_EQ(run({"lab", "create", "sw"}).status, 3);

  EXPECT_TRUE(fs::is_empty(path("sw")));
}

} // namespace
