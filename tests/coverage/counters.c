// Linked into every program and library of the coverage build (scripts/coverage.sh) and into no
// other: its counters are written to that build's folder, whatever root directory and rights the
// process has then, and also when it ends by _exit.
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
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

// Before any of the program's own code: the folder is in reach then.
__attribute__((constructor(101))) static void open_build(void) {
  const int folder = __real_open(COVERAGE_BUILD, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    g_build = fcntl(folder, F_DUPFD_CLOEXEC, k_lowest_descriptor);
    __real_close(folder);
  }
}

static int is_counters(const char *path) {
  const size_t length = strlen(path);
  return length > sizeof k_build && strncmp(path, k_build, sizeof k_build - 1) == 0 &&
         strcmp(path + length - 5, ".gcda") == 0;
}

// The script has made the files, so that nobody needs the right to.
int __wrap_open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  if (g_build >= 0 && is_counters(path)) {
    return openat(g_build, path + sizeof k_build - 1, flags, mode);
  }
  return __real_open(path, flags, mode);
}

// Who closes all folders before it works in another root closes this one last, by its end. A test
// that has its own answer to close() keeps it.
__attribute__((weak)) int __wrap_close(int fd) {
  return fd >= 0 && fd == g_build ? 0 : __real_close(fd);
}

void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}

void __wrap__Exit(int status) {
  __gcov_dump();
  __real__Exit(status);
}
