#include "lab/kill_point.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <csignal>

namespace {

int armed_at = 0;
int passed = 0;
bool torn_writes = false;

[[noreturn]] void die() {
  kill(getpid(), SIGKILL);
  while (true) {
    pause();
  }
}

bool is_the_one() {
  return armed_at != 0 && ++passed == armed_at;
}

void pass() {
  if (is_the_one()) {
    die();
  }
}

} // namespace

void kill_point::arm(int n, bool torn) {
  armed_at = n;
  passed = 0;
  torn_writes = torn;
}

// The headers give some of these two names with one symbol, so each symbol is named here.
extern "C" {
ssize_t point_write(int fd, const void *bytes, size_t size) __asm__("write");
ssize_t point_pwrite(int fd, const void *bytes, size_t size, off_t at) __asm__("pwrite");
ssize_t point_pwrite64(int fd, const void *bytes, size_t size, off_t at) __asm__("pwrite64");
int point_fsync(int fd) __asm__("fsync");
int point_fdatasync(int fd) __asm__("fdatasync");
int point_ftruncate(int fd, off_t size) __asm__("ftruncate");
int point_ftruncate64(int fd, off_t size) __asm__("ftruncate64");
int point_unlink(const char *path) __asm__("unlink");
int point_rename(const char *from, const char *to) __asm__("rename");
int point_renameat2(int from_at, const char *from, int to_at, const char *to,
                    unsigned flags) __asm__("renameat2");
int point_mkdir(const char *path, mode_t mode) __asm__("mkdir");

ssize_t point_write(int fd, const void *bytes, size_t size) {
  if (is_the_one()) {
    if (torn_writes) {
      syscall(SYS_write, fd, bytes, size / 2);
    }
    die();
  }
  return syscall(SYS_write, fd, bytes, size);
}

ssize_t point_pwrite64(int fd, const void *bytes, size_t size, off_t at) {
  if (is_the_one()) {
    if (torn_writes) {
      syscall(SYS_pwrite64, fd, bytes, size / 2, at);
    }
    die();
  }
  return syscall(SYS_pwrite64, fd, bytes, size, at);
}

ssize_t point_pwrite(int fd, const void *bytes, size_t size, off_t at) {
  return point_pwrite64(fd, bytes, size, at);
}

int point_fsync(int fd) {
  pass();
  return static_cast<int>(syscall(SYS_fsync, fd));
}

int point_fdatasync(int fd) {
  pass();
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

int point_ftruncate64(int fd, off_t size) {
  pass();
  return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

int point_ftruncate(int fd, off_t size) {
  return point_ftruncate64(fd, size);
}

int point_unlink(const char *path) {
  pass();
  return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int point_rename(const char *from, const char *to) {
  pass();
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

int point_renameat2(int from_at, const char *from, int to_at, const char *to, unsigned flags) {
  pass();
  return static_cast<int>(syscall(SYS_renameat2, from_at, from, to_at, to, flags));
}

int point_mkdir(const char *path, mode_t mode) {
  pass();
  return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}
}
