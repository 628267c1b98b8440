// A root file system of its own for a test program: fixed paths such as /mnt/pss are the test's,
// nothing on the host is touched, and tests run in parallel.
#ifndef TESTS_SUPPORT_SWITCH_ROOT_H
#define TESTS_SUPPORT_SWITCH_ROOT_H

#include <string>

namespace switch_root {

// The main() of every test program that needs a root: forks, moves the child into a fresh
// directory (in a mount namespace of its own, with /proc and /dev/null and /dev/full bound; in a
// user namespace first when not root), runs `run` there, removes the directory and gives the
// child's exit status, or its signal. With --gtest_list_tests `run` is called where it stands.
int run_inside(int argc, char **argv, int (*run)(int argc, char **argv));

// Gives this process mounts of its own, in a user namespace first when not root.
void own_mounts();

// Empties the root again to what a freshly started switch has: /tmp, /mnt/pss, /bootflash,
// /dev/shm, /var/run/mts, /images, all empty. Mounts made below them are released; one that
// a test makes elsewhere it must release itself.
void reset();

// Files. Failures end the test program with a message.
void write_file(const std::string &path, const std::string &content); // makes parent folders
std::string read_file(const std::string &path);                       // "" when missing
bool exists(const std::string &path);
void mount_small(const std::string &path, const char *size); // a tmpfs, for full disks

} // namespace switch_root

#endif
