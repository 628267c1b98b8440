// Files and folders as the stores need them: parents made, changes of a folder on disk, one creator
// at a time.
#ifndef LAB_FILES_H
#define LAB_FILES_H

#include <string>

#include "platform/types.h"

namespace lab {

// The store status that says what `error` (an errno) means for a store or a flat file.
syserr_t status_of_errno(int error);

// A file descriptor that closes itself.
class unique_fd {
public:
  explicit unique_fd(int fd = -1) : fd_(fd) {}
  ~unique_fd();
  unique_fd(const unique_fd &) = delete;
  unique_fd &operator=(const unique_fd &) = delete;
  int get() const { return fd_; }
  bool good() const { return fd_ >= 0; }
  // Closes now; false and errno when that failed.
  bool close_now();

private:
  int fd_;
};

// "/a/b" of "/a/b/c", "/" of "/c", "." of "c".
std::string parent_of(const std::string &path);

// Makes the folders that `path` lies in. `durable`: they are on disk when this returns 0.
syserr_t make_parents(const std::string &path, bool durable);

// Notes an error of many: that something is not there is none, and one that is not of rights counts
// more than one that is, which may be looked past.
void note_trouble(int error, int *trouble);

// Brings the entries of a folder to disk.
syserr_t sync_folder(const std::string &folder);

// Makes an empty file in place of what stands there, which is neither written to nor followed: a
// scratch file may be left of one that was killed, or planted. The descriptor; -1 and errno on
// failure.
int replace_scratch(const std::string &file);

// Writes all of it; false and errno on failure.
bool write_all(int fd, const void *bytes, size_t size);

// Keeps other processes from creating or removing stores in a folder at the same time. The kernel
// releases it with the process.
class folder_lock {
public:
  explicit folder_lock(const std::string &folder);
  syserr_t status() const { return status_; }

private:
  unique_fd fd_;
  syserr_t status_;
};

} // namespace lab

#endif
