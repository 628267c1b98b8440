// Linked into every program and library of the coverage build (scripts/coverage.sh) and into no
// other: its counters are written to that build's folder, whatever root directory and rights the
// process has then, and also when it ends by _exit.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

int __real_open(const char *path, int flags, ...);
int __real_close(int fd);
_Noreturn void __real__exit(int status);
_Noreturn void __real__Exit(int status);
int __wrap_open(const char *path, int flags, ...);
int __wrap_close(int fd);
_Noreturn void __wrap__exit(int status);
_Noreturn void __wrap__Exit(int status);
void __gcov_dump(void);

enum { k_lowest_descriptor = 800 }; // out of the way of those that a program counts on

static const char k_build[] = COVERAGE_BUILD "/";
static int g_build = -1;
static int g_lock = -1;           // one process at a time adds to what is counted
static char g_counters[PATH_MAX]; // the file that is being written anew; empty: none
static char g_new[PATH_MAX];      // and what will take its place

static int out_of_the_way(int fd) {
  const int other = fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, k_lowest_descriptor);
  if (fd >= 0) {
    __real_close(fd);
  }
  return other;
}

// Before any of the program's own code: the folder is in reach then.
__attribute__((constructor(101))) static void open_build(void) {
  g_build = out_of_the_way(__real_open(COVERAGE_BUILD, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  g_lock = out_of_the_way(__real_open(COVERAGE_BUILD "/counters.lock", O_RDWR | O_CLOEXEC));
}

static void lock(short type) {
  struct flock whole = {.l_type = type, .l_whence = SEEK_SET};
  while (fcntl(g_lock, F_SETLKW, &whole) != 0 && errno == EINTR) {
  }
}

static int is_counters(const char *path) {
  const size_t length = strlen(path);
  return length > sizeof k_build && strncmp(path, k_build, sizeof k_build - 1) == 0 &&
         strcmp(path + length - 5, ".gcda") == 0;
}

static int copy(int from, int to) {
  static char bytes[1 << 16];
  ssize_t size = 0;
  while ((size = read(from, bytes, sizeof bytes)) > 0) {
    if (write(to, bytes, (size_t)size) != size) {
      return -1;
    }
  }
  return size == 0 && lseek(to, 0, SEEK_SET) == 0 ? 0 : -1;
}

// What was counted takes the place of what was there, in one step: whoever is killed before it
// spoils nothing. The counters' own code has closed the file when it opens the next one.
static void finish(void) {
  if (g_counters[0] != '\0') {
    renameat(g_build, g_new, g_build, g_counters);
    g_counters[0] = '\0';
    lock(F_UNLCK);
  }
}

// A copy of the file of counters, to be added to. Everybody may do that: some have given their
// rights away. Who cannot, as its files may not grow so large, counts for nothing: the counters'
// own code would make the folders of a file that it cannot open, in whatever root that is.
static int open_copy(const char *path, int flags) {
  finish();
  lock(F_WRLCK);
  snprintf(g_counters, sizeof g_counters, "%s", path);
  snprintf(g_new, sizeof g_new, "%s.%d", path, (int)getpid());
  const int from = openat(g_build, path, O_RDONLY | O_CLOEXEC);
  const int fd = from < 0 ? -1 : openat(g_build, g_new, flags | O_CREAT | O_TRUNC, 0666);
  const int whole = fd >= 0 && fchmod(fd, 0666) == 0 && copy(from, fd) == 0;
  if (from >= 0) {
    __real_close(from);
  }
  if (whole) {
    return fd;
  }
  if (fd >= 0) {
    __real_close(fd);
    unlinkat(g_build, g_new, 0);
  }
  g_counters[0] = '\0';
  lock(F_UNLCK);
  return memfd_create("counters", MFD_CLOEXEC);
}

int __wrap_open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  if (g_build >= 0 && is_counters(path)) {
    return open_copy(path + sizeof k_build - 1, flags);
  }
  return __real_open(path, flags, mode);
}

// Who closes all folders before it works in another root closes these two last, by its end. A test
// that has its own answer to close() keeps it.
__attribute__((weak)) int __wrap_close(int fd) {
  return fd >= 0 && (fd == g_build || fd == g_lock) ? 0 : __real_close(fd);
}

static void dump(void) {
  __gcov_dump();
  finish();
}

// Behind the end of the counters' own code, which has the priority 100.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wprio-ctor-dtor"
__attribute__((destructor(99))) static void finish_last(void) {
  finish();
}
#pragma GCC diagnostic pop

void __wrap__exit(int status) {
  dump();
  __real__exit(status);
}

void __wrap__Exit(int status) {
  dump();
  __real__Exit(status);
}
