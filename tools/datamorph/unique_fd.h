// A file descriptor that is closed when its owner goes.
#ifndef DATAMORPH_UNIQUE_FD_H
#define DATAMORPH_UNIQUE_FD_H

#include <utility>

#include <unistd.h>

class unique_fd {
public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  unique_fd &operator=(unique_fd &&other) noexcept {
    if (this != &other) {
      reset(std::exchange(other.fd_, -1));
    }
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }

private:
  int fd_ = -1;
};

#endif
