#include "fuzz/quiet_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
int __real_open64(const char *path, int flags, ...);
int __real_close(int fd);
FILE *__real_fdopen(int fd, const char *mode);
int __real_fclose(FILE *file);
int __real_fileno(FILE *file);
int __real_access(const char *path, int mode);
int __real_stat64(const char *path, struct stat *status);
int __real_fstat64(int fd, struct stat *status);
int __real_ftruncate64(int fd, off_t size);
int __real_rename(const char *from, const char *to);
int __real_unlink(const char *path);
int __real_fsync(int fd);
void __real_sync(void);
ssize_t __real_write(int fd, const void *bytes, size_t size);

int __wrap_open64(const char *path, int flags, ...);
int __wrap_close(int fd);
FILE *__wrap_fdopen(int fd, const char *mode);
int __wrap_fclose(FILE *file);
int __wrap_fileno(FILE *file);
int __wrap_access(const char *path, int mode);
int __wrap_stat64(const char *path, struct stat *status);
int __wrap_fstat64(int fd, struct stat *status);
int __wrap_ftruncate64(int fd, off_t size);
int __wrap_rename(const char *from, const char *to);
int __wrap_unlink(const char *path);
int __wrap_fsync(int fd);
void __wrap_sync(void);
ssize_t __wrap_write(int fd, const void *bytes, size_t size);
}

namespace {

// A file whose content is not looked at.
struct quiet_file {
  const char *path;
  bool stands = false;
  off_t size = 0;
};

enum file_t { marker, log, last_log, npv_tmp, npv_pss, mgr_trace, eng_trace, files };

quiet_file g_files[files] = {{"/tmp/datamorphcheck"},
                             {"/mnt/pss/data_morph.log"},
                             {"/mnt/pss/data_morph.last"},
                             {"/tmp/fc_nport_mux"},
                             {"/mnt/pss/fc_nport_mux"},
                             {"/bootflash/data_morph_vrrp_mgr.log"},
                             {"/bootflash/data_morph_vrrp_eng.log"}};

// Descriptors that no process has: one for each file.
constexpr int k_first_fd = 1 << 20;
int g_open = 0;

quiet_file *find(const char *path) {
  for (quiet_file &file : g_files) {
    if (std::strcmp(file.path, path) == 0) {
      return &file;
    }
  }
  return nullptr;
}

quiet_file *at(int fd) {
  return fd >= k_first_fd && fd < k_first_fd + files ? &g_files[fd - k_first_fd] : nullptr;
}

void tell(const quiet_file &file, struct stat *status) {
  *status = {};
  status->st_mode = S_IFREG | 0700;
  status->st_nlink = 1;
  status->st_size = file.size;
}

int absent() {
  errno = ENOENT;
  return -1;
}

// The log's stream: its bytes are formatted and counted.
ssize_t take(void * /*cookie*/, const char * /*bytes*/, size_t size) {
  g_files[log].size += static_cast<off_t>(size);
  return static_cast<ssize_t>(size);
}

ssize_t drop(void * /*cookie*/, const char * /*bytes*/, size_t size) {
  return static_cast<ssize_t>(size);
}

FILE *log_stream() {
  static FILE *stream = fopencookie(nullptr, "w", {nullptr, take, nullptr, nullptr});
  return stream;
}

} // namespace

int __wrap_open64(const char *path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  quiet_file *file = find(path);
  if (file == nullptr) {
    return __real_open64(path, flags, mode);
  }
  if (!file->stands && (flags & O_CREAT) == 0) {
    return absent();
  }
  if (file->stands && (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
    errno = EEXIST;
    return -1;
  }
  file->stands = true;
  ++g_open;
  return k_first_fd + static_cast<int>(file - g_files);
}

int __wrap_close(int fd) {
  if (at(fd) == nullptr) {
    return __real_close(fd);
  }
  --g_open;
  return 0;
}

FILE *__wrap_fdopen(int fd, const char *mode) {
  return fd == k_first_fd + log ? log_stream() : __real_fdopen(fd, mode);
}

int __wrap_fclose(FILE *file) {
  if (file != log_stream()) {
    return __real_fclose(file);
  }
  --g_open;
  return 0;
}

int __wrap_fileno(FILE *file) {
  return file == log_stream() ? k_first_fd + log : __real_fileno(file);
}

int __wrap_access(const char *path, int mode) {
  const quiet_file *file = find(path);
  if (file == nullptr) {
    return __real_access(path, mode);
  }
  return file->stands ? 0 : absent();
}

int __wrap_stat64(const char *path, struct stat *status) {
  const quiet_file *file = find(path);
  if (file == nullptr) {
    return __real_stat64(path, status);
  }
  if (!file->stands) {
    return absent();
  }
  tell(*file, status);
  return 0;
}

int __wrap_fstat64(int fd, struct stat *status) {
  const quiet_file *file = at(fd);
  if (file == nullptr) {
    return __real_fstat64(fd, status);
  }
  tell(*file, status);
  return 0;
}

int __wrap_ftruncate64(int fd, off_t size) {
  quiet_file *file = at(fd);
  if (file == nullptr) {
    return __real_ftruncate64(fd, size);
  }
  file->size = size;
  return 0;
}

int __wrap_rename(const char *from, const char *to) {
  quiet_file *source = find(from);
  quiet_file *target = find(to);
  if (source == nullptr || target == nullptr) {
    return __real_rename(from, to);
  }
  target->stands = source->stands;
  target->size = source->size;
  source->stands = false;
  return 0;
}

int __wrap_unlink(const char *path) {
  quiet_file *file = find(path);
  if (file == nullptr) {
    return __real_unlink(path);
  }
  if (!file->stands) {
    return absent();
  }
  file->stands = false;
  return 0;
}

int __wrap_fsync(int fd) {
  return at(fd) != nullptr ? 0 : __real_fsync(fd);
}

// Only the log's change of files asks for it, and nothing of that is on a disk.
void __wrap_sync(void) {}

ssize_t __wrap_write(int fd, const void *bytes, size_t size) {
  quiet_file *file = at(fd);
  if (file == nullptr) {
    return __real_write(fd, bytes, size);
  }
  file->size += static_cast<off_t>(size);
  return static_cast<ssize_t>(size);
}

namespace quiet_files {

void reset() {
  for (quiet_file &file : g_files) {
    file.stands = false;
    file.size = 0;
  }
  g_open = 0;
}

void set_npv_mode(bool on) {
  g_files[npv_tmp].stands = on;
}

void set_vrrp_traces(bool on) {
  g_files[mgr_trace].stands = on;
  g_files[eng_trace].stands = on;
}

void drop_trace() {
  static FILE *const dropped = fopencookie(nullptr, "w", {nullptr, drop, nullptr, nullptr});
  stderr = dropped;
}

int open_files() {
  return g_open;
}

long logged() {
  return static_cast<long>(g_files[log].size);
}

} // namespace quiet_files
