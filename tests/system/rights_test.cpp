// Who may work on a switch: nobody without a root of his own; an ordinary user with one.
#include "command.h"

#include <filesystem>
#include <fstream>

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class rights : public command_test {};

constexpr uid_t nobody = 65534;

void become_nobody() {
  if (geteuid() == 0 &&
      (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)) {
    _exit(125);
  }
}

// Whether this machine lets an ordinary user have a user namespace.
bool ordinary_users_have_namespaces() {
  const pid_t pid = fork();
  if (pid == 0) {
    become_nobody();
    _exit(unshare(CLONE_NEWUSER) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status == 0;
}

TEST_F(rights, without_the_right_to_change_the_root_nothing_is_done) {
  create("sw");
  const files before = state("sw");
  in_child = [] { deny_system_calls({SYS_chroot, SYS_unshare}, EPERM); };

  for (const words &arguments : std::vector<words>{{"convert", "sw", "--to", "4.2(1)"},
                                                   {"lab", "show", "sw"},
                                                   {"store", "list", "sw"},
                                                   {"lab", "create", "other"}}) {
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, 3) << arguments[0];
    EXPECT_EQ(refused.out, "");
    EXPECT_NE(refused.err.find("no rights to work inside the switch"), std::string::npos);
    EXPECT_NE(refused.err.find("run it as root, or allow user namespaces"), std::string::npos);
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
  EXPECT_FALSE(exists("other"));
  EXPECT_FALSE(exists(".other.creating"));
}

TEST_F(rights, an_ordinary_user_converts_where_user_namespaces_are_allowed) {
  // A copy, as the program may lie where only its owner can go.
  fs::copy_file(datamorph_program, path("datamorph"));
  fs::copy_file(real_library, path("libdatamorph.so.1"));
  program = path("datamorph");
  set("DATAMORPH_LIBRARY", "");
  fs::permissions(path(""), fs::perms::all);
  in_child = become_nobody;
  const int expected = ordinary_users_have_namespaces() ? 0 : 3;

  EXPECT_EQ(run({"lab", "create", "sw"}).status, expected);
  EXPECT_EQ(run({"convert", "sw", "--to", "3.3(1)"}).status, expected);
  const result shown = run({"lab", "show", "sw", "--format", "json"});

  EXPECT_EQ(shown.status, expected) << shown.err;
  if (expected == 0) {
    EXPECT_EQ(shown.json()["release"], "3.3(1)");
    EXPECT_EQ(shown.json()["stores"].size(), 27u);
  }
}

TEST_F(rights, a_switch_of_somebody_else_is_not_converted) {
  create("sw");
  fs::permissions(path("sw"), fs::perms::owner_read | fs::perms::owner_exec);
  in_child = [] {
    // Root writes everywhere: only without its rights it is somebody else.
    if (geteuid() == 0) {
      become_nobody();
    }
  };
  fs::copy_file(datamorph_program, path("datamorph"));
  program = path("datamorph");
  fs::permissions(path(""), fs::perms::all);
  const files before = state("sw");

  const result converted = run({"convert", "sw", "--to", "4.2(1)"});

  EXPECT_EQ(converted.status, 3);
  EXPECT_EQ(std::count(converted.err.begin(), converted.err.end(), '\n'), 1) << converted.err;
  EXPECT_EQ(state("sw"), before);
  fs::permissions(path("sw"), fs::perms::owner_all);
}

// ---- A file system with little room, of this process's own -------------------------------------

class small_disk : public command_test {
protected:
  // A mount namespace of this test's process, in a user namespace when that is needed.
  void mount_small(const std::string &name, const char *size) {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    ASSERT_EQ(unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER), 0);
    if (uid != 0) {
      map_ids(uid, gid);
    }
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    fs::create_directory(path(name));
    ASSERT_EQ(mount("tmpfs", path(name).c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()),
              0);
  }

private:
  static void map_ids(uid_t uid, gid_t gid) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  }
};

TEST_F(small_disk, no_room_for_the_copy_is_found_out_first) {
  mount_small("disk", "1200k");
  ASSERT_EQ(run({"lab", "create", "disk/sw"}).status, 0);
  const files before = state("disk/sw");

  const result converted = run({"convert", "disk/sw", "--to", "4.2(1)"});

  EXPECT_EQ(converted.status, 3);
  EXPECT_NE(converted.err.find("no room for a copy of its state"), std::string::npos)
      << converted.err;
  EXPECT_EQ(state("disk/sw"), before);
  umount2(path("disk").c_str(), MNT_DETACH);
}

TEST_F(small_disk, a_reboot_without_room_changes_nothing) {
  mount_small("disk", "1200k");
  ASSERT_EQ(run({"lab", "create", "disk/sw"}).status, 0);
  const files before = state("disk/sw");

  const result rebooted = run({"lab", "reboot", "disk/sw"});

  EXPECT_EQ(rebooted.status, 3);
  EXPECT_EQ(rebooted.err.find("datamorph: 'disk/sw': no room for a copy of its state"), 0u)
      << rebooted.err;
  EXPECT_EQ(state("disk/sw"), before);
  umount2(path("disk").c_str(), MNT_DETACH);
}

TEST_F(small_disk, a_switch_that_does_not_fit_is_not_built) {
  mount_small("disk", "100k");

  const result made = run({"lab", "create", "disk/sw"});

  EXPECT_EQ(made.status, 1);
  EXPECT_NE(made.err.find("; its file system is full: make room there"), std::string::npos)
      << made.err;
  EXPECT_EQ(std::count(made.err.begin(), made.err.end(), '\n'), 1) << made.err;
  EXPECT_FALSE(exists("disk/sw"));
  EXPECT_FALSE(exists("disk/.sw.creating"));
  umount2(path("disk").c_str(), MNT_DETACH);
}

TEST_F(small_disk, a_mount_point_can_become_a_switch) {
  mount_small("disk", "4m");

  const result made = run({"lab", "create", "disk"});

  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(run({"lab", "show", "disk"}).status, 0);
  umount2(path("disk").c_str(), MNT_DETACH);
}

TEST_F(small_disk, a_read_only_switch_can_be_looked_at_and_is_not_converted) {
  mount_small("disk", "4m");
  ASSERT_EQ(run({"lab", "create", "disk/sw"}).status, 0);
  ASSERT_EQ(mount("none", path("disk").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);

  const result converted = run({"convert", "disk/sw", "--to", "4.2(1)"});

  EXPECT_EQ(converted.status, 3);
  EXPECT_EQ(converted.err, "datamorph: 'disk/sw': its file system is read-only; copy the switch "
                           "elsewhere\n");
  EXPECT_EQ(run({"lab", "show", "disk/sw"}).status, 0);
  umount2(path("disk").c_str(), MNT_DETACH);
}

} // namespace
