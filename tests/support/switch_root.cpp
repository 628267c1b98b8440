#include "support/switch_root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace switch_root {
namespace {

const char *const k_folders[] = {"/tmp",     "/mnt/pss",     "/bootflash",
                                 "/dev/shm", "/var/run/mts", "/images"};

[[noreturn]] void fail(const char *what, const std::string &path) {
  std::fprintf(stderr, "switch_root: %s %s: %s\n", what, path.c_str(), std::strerror(errno));
  std::_Exit(99);
}

void put(const char *path, const std::string &text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    fail("cannot write", path);
  }
  close(fd);
}

void bind_file(const std::string &root, const char *path) {
  const std::string target = root + path;
  std::ofstream(target).close();
  if (mount(path, target.c_str(), "none", MS_BIND, nullptr) != 0) {
    fail("cannot bind", target);
  }
}

void enter(const std::string &root) {
  own_mounts();
  for (const char *folder : k_folders) {
    fs::create_directories(root + folder);
  }
  fs::create_directories(root + "/proc");
  if (mount("/proc", (root + "/proc").c_str(), "none", MS_BIND | MS_REC, nullptr) != 0) {
    fail("cannot bind", root + "/proc");
  }
  bind_file(root, "/dev/null");
  bind_file(root, "/dev/full");
  if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
    fail("cannot change root to", root);
  }
  setenv("TZ", "UTC", 1);
  umask(022);
}

int as_exit_status(int status) {
  if (WIFSIGNALED(status)) {
    std::fprintf(stderr, "switch_root: the test ended by signal %d\n", WTERMSIG(status));
    return 128 + WTERMSIG(status);
  }
  return WEXITSTATUS(status);
}

void empty(const std::string &folder) {
  while (umount2(folder.c_str(), MNT_DETACH) == 0) {
  }
  if (fs::is_symlink(folder) || !fs::is_directory(folder)) {
    fs::remove_all(folder);
    fs::create_directories(folder);
  }
  chmod(folder.c_str(), 0755);
  for (const fs::directory_entry &entry : fs::directory_iterator(folder)) {
    while (umount2(entry.path().c_str(), MNT_DETACH) == 0) {
    }
    fs::remove_all(entry.path());
  }
}

} // namespace

void own_mounts() {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  if (uid == 0) {
    if (unshare(CLONE_NEWNS) != 0) {
      fail("cannot unshare", "mounts");
    }
  } else {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      fail("cannot unshare", "user and mounts (are user namespaces allowed?)");
    }
    put("/proc/self/setgroups", "deny");
    put("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    put("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
    fail("cannot make private", "/");
  }
}

int run_inside(int argc, char **argv, int (*run)(int argc, char **argv)) {
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--gtest_list_tests", 18) == 0) {
      return run(argc, argv);
    }
  }
  const char *base = std::getenv("TMPDIR");
  std::string root = std::string(base != nullptr ? base : "/tmp") + "/switch-root-XXXXXX";
  if (mkdtemp(root.data()) == nullptr) {
    fail("cannot make", root);
  }
  chmod(root.c_str(), 0755);
  const pid_t child = fork();
  if (child < 0) {
    fail("cannot fork for", root);
  }
  if (child == 0) {
    enter(root);
    std::exit(run(argc, argv));
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  std::error_code ignored;
  fs::remove_all(root, ignored);
  return as_exit_status(status);
}

void reset() {
  for (const char *folder : k_folders) {
    empty(folder);
  }
  for (const fs::directory_entry &entry : fs::directory_iterator("/")) {
    const std::string name = entry.path().filename();
    if (name != "tmp" && name != "mnt" && name != "bootflash" && name != "dev" && name != "var" &&
        name != "images" && name != "proc") {
      fs::remove_all(entry.path());
    }
  }
}

void write_file(const std::string &path, const std::string &content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out.flush()) {
    fail("cannot write", path);
  }
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool exists(const std::string &path) {
  return fs::exists(fs::symlink_status(path));
}

void mount_small(const std::string &path, const char *size) {
  fs::create_directories(path);
  const std::string options = std::string("size=") + size;
  if (mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    fail("cannot mount a small file system at", path);
  }
}

} // namespace switch_root
