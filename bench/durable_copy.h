// Files that are put in place before a figure is taken.
#ifndef BENCH_DURABLE_COPY_H
#define BENCH_DURABLE_COPY_H

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "figure.h"

namespace bench {

// A file with that content at `to`, and nothing of it left to be written later.
inline void copy_durably(const std::filesystem::path &from, const std::filesystem::path &to) {
  namespace fs = std::filesystem;
  fs::create_directories(to.parent_path());
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  const int fd = open(to.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || fsync(fd) != 0) {
    fail("cannot copy a store", 0);
  }
  close(fd);
}

} // namespace bench

#endif
