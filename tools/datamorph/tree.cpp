#include "tree.h"

#include <cerrno>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "failure.h"
#include "jail.h"
#include "text.h"
#include "unique_fd.h"

namespace {

constexpr int deepest = 512; // folders within folders, so that no tree exhausts the stack

struct closer {
  void operator()(DIR *folder) const { closedir(folder); }
};

[[noreturn]] void failed(const char *what, const std::string &name, int error) {
  throw failure(exit_failed,
                std::string("cannot ") + what + " " + in_quotes(name) + ": " + error_text(error));
}

unique_fd open_folder(int parent, const std::string &name) {
  return unique_fd(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Calls `visit` with each entry's name. `folder` is read through a descriptor of its own.
template <typename visit_t> void for_each_entry(int folder, visit_t visit) {
  const int fd = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, closer> stream(fd < 0 ? nullptr : fdopendir(fd));
  if (stream == nullptr) {
    failed("read the folder", ".", errno);
  }
  while (const dirent *entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      visit(name);
    }
  }
}

void remove_below(int parent, const std::string &name, int depth) {
  unique_fd folder = open_folder(parent, name);
  if (!folder.is_open() && errno == EACCES) {
    fchmodat(parent, name.c_str(), 0700, 0);
    folder = open_folder(parent, name);
  }
  if (!folder.is_open()) {
    failed("open", name, errno);
  }
  if (depth > deepest) {
    failed("remove", name, ELOOP);
  }
  fchmod(folder.get(), 0700);
  for_each_entry(folder.get(), [&](const std::string &entry) {
    if (unlinkat(folder.get(), entry.c_str(), 0) == 0) {
      return;
    }
    if (errno != EISDIR && errno != EPERM) {
      failed("remove", entry, errno);
    }
    remove_below(folder.get(), entry, depth + 1);
  });
  if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0) {
    failed("remove", name, errno);
  }
}

uint64_t used_below(int parent, const std::string &name, int depth) {
  struct stat about = {};
  if (fstatat(parent, name.c_str(), &about, AT_SYMLINK_NOFOLLOW) != 0) {
    failed("examine", name, errno);
  }
  auto used = static_cast<uint64_t>(about.st_blocks) * 512;
  if (!S_ISDIR(about.st_mode)) {
    return used;
  }
  const unique_fd folder = open_folder(parent, name);
  if (!folder.is_open() || depth > deepest) {
    failed("read the folder", name, folder.is_open() ? ELOOP : errno);
  }
  for_each_entry(folder.get(), [&](const std::string &entry) {
    used += used_below(folder.get(), entry, depth + 1);
  });
  return used;
}

bool write_content(int file, const std::string &content) {
  for (size_t done = 0; done < content.size();) {
    const ssize_t put = write(file, content.data() + done, content.size() - done);
    if (put <= 0) {
      return false;
    }
    done += static_cast<size_t>(put);
  }
  return true;
}

} // namespace

namespace tree {

bool exists(int folder, const std::string &name) {
  struct stat about = {};
  return fstatat(folder, name.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0;
}

void remove(int folder, const std::string &name) {
  if (unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) {
    return;
  }
  if (errno != EISDIR && errno != EPERM) {
    failed("remove", name, errno);
  }
  remove_below(folder, name, 0);
}

uint64_t bytes_used(int folder, const std::string &name) {
  return used_below(folder, name, 0);
}

uint64_t bytes_free(int folder) {
  struct statvfs about = {};
  if (fstatvfs(folder, &about) != 0) {
    failed("examine the file system of", ".", errno);
  }
  return static_cast<uint64_t>(about.f_bavail) * about.f_frsize;
}

void copy(int folder, const std::string &from, const std::string &to) {
  std::string errors;
  const int status =
      jail::run_program({"cp", "-a", "--reflink=auto", "-T", "--", from, to}, folder, &errors);
  if (status == 0) {
    return;
  }
  const std::string first = errors.substr(0, errors.find('\n'));
  throw failure(exit_failed,
                "cannot copy the switch's state: " +
                    (first.empty() ? "cp ended with " + std::to_string(status) : first));
}

void replace_file(int folder, const std::string &name, const std::string &content) {
  const std::string beside = name + "." + std::to_string(getpid()) + ".new";
  const unique_fd file(
      openat(folder, beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file.is_open()) {
    failed("create", beside, errno);
  }
  if (!write_content(file.get(), content) || fsync(file.get()) != 0 ||
      renameat(folder, beside.c_str(), folder, name.c_str()) != 0) {
    const int error = errno;
    unlinkat(folder, beside.c_str(), 0);
    failed("write", name, error);
  }
}

std::string read_file(int folder, const std::string &name, size_t limit) {
  const unique_fd file(
      openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat about = {};
  if (!file.is_open() || fstat(file.get(), &about) != 0) {
    throw failure(exit_refused, "cannot read " + in_quotes(name) + ": " + error_text(errno));
  }
  if (!S_ISREG(about.st_mode)) {
    throw failure(exit_refused, "cannot read " + in_quotes(name) + ": not a regular file");
  }
  std::string content;
  char buffer[65536];
  ssize_t got = 0;
  while ((got = read(file.get(), buffer, sizeof buffer)) > 0) {
    content.append(buffer, static_cast<size_t>(got));
    if (content.size() > limit) {
      throw failure(exit_refused, "cannot read " + in_quotes(name) + ": larger than " +
                                      std::to_string(limit) + " bytes");
    }
  }
  if (got < 0) {
    throw failure(exit_refused, "cannot read " + in_quotes(name) + ": " + error_text(errno));
  }
  return content;
}

} // namespace tree
