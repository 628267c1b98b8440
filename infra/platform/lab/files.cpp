#include "lab/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace lab {
namespace {

constexpr mode_t k_folder_mode = 0755;
constexpr int k_lock_attempts = 500; // 10 ms apart

struct errno_row {
  int error;
  syserr_t status;
};

constexpr errno_row k_errno_rows[] = {
    {ENOENT, SYSERR_PSS_NO_STORE},  {ENOTDIR, SYSERR_PSS_NO_STORE},
    {EEXIST, SYSERR_PSS_EXISTS},    {ENAMETOOLONG, SYSERR_PSS_BAD_ARGUMENT},
    {EACCES, SYSERR_PSS_NO_ACCESS}, {EPERM, SYSERR_PSS_NO_ACCESS},
    {EROFS, SYSERR_PSS_NO_ACCESS},  {ENOSPC, SYSERR_PSS_NO_ROOM},
    {EDQUOT, SYSERR_PSS_NO_ROOM},   {ENOMEM, SYSERR_PSS_NO_ROOM},
    {EFBIG, SYSERR_PSS_NO_ROOM},    {EISDIR, SYSERR_PSS_DAMAGED},
    {ELOOP, SYSERR_PSS_DAMAGED},    {ENXIO, SYSERR_PSS_DAMAGED},
    {EBUSY, SYSERR_PSS_BUSY},       {EWOULDBLOCK, SYSERR_PSS_BUSY},
};

} // namespace

syserr_t status_of_errno(int error) {
  for (const errno_row &row : k_errno_rows) {
    if (row.error == error) {
      return row.status;
    }
  }
  return SYSERR_PSS_IO;
}

unique_fd::~unique_fd() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

bool unique_fd::close_now() {
  return close(std::exchange(fd_, -1)) == 0;
}

std::string parent_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

syserr_t make_parents(const std::string &path, bool durable) {
  const std::string folder = parent_of(path);
  struct stat found = {};
  if (stat(folder.c_str(), &found) == 0) {
    return S_ISDIR(found.st_mode) ? SYSERR_SUCCESS : SYSERR_PSS_BAD_ARGUMENT;
  }
  if (errno != ENOENT) {
    return errno == ENOTDIR ? SYSERR_PSS_BAD_ARGUMENT : status_of_errno(errno);
  }
  const syserr_t above = make_parents(folder, durable);
  if (above != SYSERR_SUCCESS) {
    return above;
  }
  if (mkdir(folder.c_str(), k_folder_mode) != 0 && errno != EEXIST) {
    return status_of_errno(errno);
  }
  return durable ? sync_folder(parent_of(folder)) : SYSERR_SUCCESS;
}

void note_trouble(int error, int *trouble) {
  if (error != 0 && error != ENOENT && (*trouble == 0 || *trouble == EACCES)) {
    *trouble = error;
  }
}

syserr_t sync_folder(const std::string &folder) {
  const unique_fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.good()) {
    return status_of_errno(errno);
  }
  // Some file systems cannot sync a folder and say so; there is nothing more to do on those.
  if (TEMP_FAILURE_RETRY(fsync(fd.get())) != 0 && errno != EINVAL && errno != ENOTSUP) {
    return status_of_errno(errno);
  }
  return SYSERR_SUCCESS;
}

int replace_scratch(const std::string &file) {
  unlink(file.c_str());
  return static_cast<int>(
      TEMP_FAILURE_RETRY(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)));
}

bool write_all(int fd, const void *bytes, size_t size) {
  const char *next = static_cast<const char *>(bytes);
  while (size > 0) {
    const ssize_t done = write(fd, next, size);
    if (done < 0 && errno == EINTR) {
      continue;
    }
    if (done < 0) {
      return false;
    }
    next += done;
    size -= static_cast<size_t>(done);
  }
  return true;
}

folder_lock::folder_lock(const std::string &folder)
    : fd_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), status_(SYSERR_SUCCESS) {
  if (!fd_.good()) {
    status_ = status_of_errno(errno);
    return;
  }
  for (int attempt = 0; flock(fd_.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || attempt == k_lock_attempts) {
      status_ = status_of_errno(errno);
      return;
    }
    const timespec pause = {0, 10'000'000};
    nanosleep(&pause, nullptr);
  }
}

} // namespace lab
