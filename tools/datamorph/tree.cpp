#include "tree.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "failure.h"
#include "jail.h"
#include "progress.h"
#include "text.h"
#include "unique_fd.h"

namespace {

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

std::vector<std::string> entries_of(int folder) {
  const std::optional<std::vector<std::string>> names = tree::names_in(folder);
  if (!names) {
    failed("read the folder", ".", errno);
  }
  return *names;
}

// Goes through a tree with one folder open at a time and no recursion, so that neither its depth
// nor the length of its paths matters. The way back up is the folder's own "..", believed only when
// it is the folder that the way down came through.
class walk {
public:
  virtual ~walk() = default;
  // Throws failure(1) naming the entry by its path.
  void run(int parent, const std::string &name);

protected:
  walk() = default;
  walk(const walk &) = delete;
  walk &operator=(const walk &) = delete;

  virtual unique_fd enter(int parent, const std::string &name) = 0;
  virtual bool is_folder(int folder, const std::string &name) = 0; // one that is to be entered
  virtual void leave(int parent, const std::string &name) = 0;     // all below it has been seen
  [[noreturn]] void failed_at(const char *what, const std::string &name, int error) const;

private:
  struct level {
    std::string name;
    struct stat about;
    std::vector<std::string> below; // folders that are still to be entered
  };
  void down(int parent, const std::string &name);
  void up();

  unique_fd folder_; // the innermost of the levels
  std::vector<level> levels_;
};

void walk::failed_at(const char *what, const std::string &name, int error) const {
  std::string path;
  for (const level &level : levels_) {
    path += level.name + "/";
  }
  constexpr size_t longest = 300;
  if (path.size() > longest) {
    path.replace(longest / 2, path.size() - longest, "...");
  }
  failed(what, path + name, error);
}

void walk::down(int parent, const std::string &name) {
  unique_fd folder = enter(parent, name);
  level next = {name, {}, {}};
  if (!folder.is_open() || fstat(folder.get(), &next.about) != 0) {
    failed_at("open", name, errno);
  }
  folder_ = std::move(folder);
  levels_.push_back(std::move(next));
  level &here = levels_.back();
  for (const std::string &entry : entries_of(folder_.get())) {
    if (is_folder(folder_.get(), entry)) {
      here.below.push_back(entry);
    }
  }
}

void walk::up() {
  const std::string left = levels_.back().name;
  unique_fd above(openat(folder_.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const struct stat &expected = levels_[levels_.size() - 2].about;
  struct stat about = {};
  if (!above.is_open() || fstat(above.get(), &about) != 0) {
    failed_at("leave", ".", errno);
  }
  if (about.st_dev != expected.st_dev || about.st_ino != expected.st_ino) {
    failed_at("leave", ".", ESTALE); // moved elsewhere meanwhile
  }
  levels_.pop_back();
  folder_ = std::move(above);
  leave(folder_.get(), left);
}

void walk::run(int parent, const std::string &name) {
  down(parent, name);
  for (;;) {
    level &here = levels_.back();
    if (!here.below.empty()) {
      const std::string next = std::move(here.below.back());
      here.below.pop_back();
      down(folder_.get(), next);
    } else if (levels_.size() > 1) {
      up();
    } else {
      break;
    }
  }
  levels_.clear();
  folder_.reset();
  leave(parent, name);
}

class removal : public walk {
  unique_fd enter(int parent, const std::string &name) override {
    unique_fd folder = open_folder(parent, name);
    if (!folder.is_open() && errno == EACCES) {
      fchmodat(parent, name.c_str(), 0700, 0);
      folder = open_folder(parent, name);
    }
    if (folder.is_open()) {
      fchmod(folder.get(), 0700);
    }
    return folder;
  }
  bool is_folder(int folder, const std::string &name) override {
    if (unlinkat(folder, name.c_str(), 0) == 0) {
      return false;
    }
    if (errno != EISDIR && errno != EPERM) {
      failed_at("remove", name, errno);
    }
    return true;
  }
  void leave(int parent, const std::string &name) override {
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0) {
      failed_at("remove", name, errno);
    }
  }
};

class measuring : public walk {
public:
  uint64_t used = 0;

private:
  unique_fd enter(int parent, const std::string &name) override {
    return open_folder(parent, name);
  }
  bool is_folder(int folder, const std::string &name) override {
    struct stat about = {};
    if (fstatat(folder, name.c_str(), &about, AT_SYMLINK_NOFOLLOW) != 0) {
      failed_at("examine", name, errno);
    }
    used += static_cast<uint64_t>(about.st_blocks) * 512;
    return S_ISDIR(about.st_mode);
  }
  void leave(int, const std::string &) override {}
};

// Copies of a second and less are not measured: nothing is shown of them.
class copy_progress {
public:
  copy_progress(int folder, const std::string &from, const std::string &to)
      : folder_(folder), from_(from), to_(to) {
    shown_.begin("copying", 0, "KiB");
  }
  void look() {
    if (!progress::is_allowed()) {
      return;
    }
    if (total_ == 0) {
      total_ = measured(from_);
      shown_.expect(total_);
    }
    shown_.reach(std::min(measured(to_), total_));
  }

private:
  // In KiB. The copy is being made: what is not there yet, or gone, counts the next time.
  uint64_t measured(const std::string &name) const {
    measuring measured;
    try {
      measured.run(folder_, name);
    } catch (const failure &) {
    }
    return measured.used >> 10;
  }

  int folder_;
  std::string from_;
  std::string to_;
  progress shown_;
  uint64_t total_ = 0;
};

constexpr size_t portion = size_t(1) << 16; // bytes written at once

bool write_content(int file, const std::string &content) {
  for (size_t done = 0; done < content.size();) {
    const ssize_t put =
        TEMP_FAILURE_RETRY(write(file, content.data() + done, content.size() - done));
    if (put <= 0) {
      return false;
    }
    done += static_cast<size_t>(put);
  }
  return true;
}

// A file that takes another one's place has its owner and mode, as far as this user may give them.
void keep_owner(int folder, const std::string &name, int file) {
  struct stat old = {};
  struct stat made = {};
  if (fstatat(folder, name.c_str(), &old, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(old.st_mode) ||
      fstat(file, &made) != 0) {
    return;
  }
  const bool own = (old.st_uid == made.st_uid && old.st_gid == made.st_gid) ||
                   fchown(file, old.st_uid, old.st_gid) == 0;
  if (own && (old.st_mode & 07777) != (made.st_mode & 07777)) {
    fchmod(file, old.st_mode & 07777);
  }
}

} // namespace

namespace tree {

std::optional<std::vector<std::string>> names_in(int folder) {
  const int fd = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, closer> stream(fd < 0 ? nullptr : fdopendir(fd));
  if (stream == nullptr) {
    const unique_fd left(fd); // for which there was no memory
    return std::nullopt;
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent *entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
    errno = 0;
  }
  if (errno != 0) {
    return std::nullopt;
  }
  return names;
}

bool exists(int folder, const std::string &name) {
  struct stat about = {};
  return fstatat(folder, name.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0 ||
         (errno != ENOENT && errno != ENOTDIR);
}

bool is_there(int folder, const std::string &name) {
  struct stat about = {};
  if (fstatat(folder, name.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0) {
    return true;
  }
  if (errno != ENOENT) {
    failed("examine", name, errno);
  }
  return false;
}

void remove(int folder, const std::string &name) {
  if (unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) {
    return;
  }
  if (errno != EISDIR && errno != EPERM) {
    failed("remove", name, errno);
  }
  removal().run(folder, name);
}

uint64_t bytes_used(int folder, const std::string &name) {
  measuring measured;
  measured.run(folder, name);
  return measured.used;
}

uint64_t bytes_free(int folder) {
  struct statvfs about = {};
  if (fstatvfs(folder, &about) != 0) {
    failed("examine the file system of", ".", errno);
  }
  return static_cast<uint64_t>(about.f_bavail) * about.f_frsize;
}

uint64_t copy_wants(int folder, const std::string &name) {
  const uint64_t used = bytes_used(folder, name);
  return used + used / 16 + (1 << 20);
}

void check_room(int folder, const std::string &name, int where, const std::string &advice) {
  const uint64_t free = bytes_free(where);
  const uint64_t wanted = copy_wants(folder, name);
  if (free < wanted) {
    throw failure(exit_refused,
                  "no room for a copy of its state: " + std::to_string(wanted >> 10) +
                      " KiB are wanted, " + std::to_string(free >> 10) + " KiB are free",
                  advice);
  }
}

void copy(int folder, const std::string &from, const std::string &to, const std::string &advice) {
  std::string errors;
  copy_progress shown(folder, from, to);
  const int status = jail::run_program({"cp", "-a", "--reflink=auto", "-T", "--", from, to}, folder,
                                       &errors, [&] { shown.look(); });
  if (status == 0) {
    return;
  }
  const std::string first = errors.substr(0, errors.find('\n'));
  if (errors.find(error_text(ENOSPC)) != std::string::npos) {
    throw failure(exit_refused,
                  "the disk became full while its state was copied: " +
                      std::to_string(copy_wants(folder, from) >> 10) + " KiB are wanted",
                  advice);
  }
  const bool no_right = errors.find(error_text(EACCES)) != std::string::npos;
  throw failure(no_right ? exit_refused : exit_failed,
                "cannot copy the switch's state: " +
                    (first.empty() ? "cp ended with " + std::to_string(status) : first));
}

unique_fd make_file(int folder, const std::string &name, mode_t mode) {
  constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  return unique_fd(static_cast<int>(TEMP_FAILURE_RETRY(openat(folder, name.c_str(), flags, mode))));
}

void replace_file(int folder, const std::string &name, const std::string &content) {
  const std::string beside = name + "." + std::to_string(getpid()) + ".new";
  const unique_fd file = make_file(folder, beside, 0644);
  if (!file.is_open()) {
    failed("create", beside, errno);
  }
  keep_owner(folder, name, file.get());
  if (!write_content(file.get(), content) || TEMP_FAILURE_RETRY(fsync(file.get())) != 0 ||
      renameat(folder, beside.c_str(), folder, name.c_str()) != 0) {
    const int error = errno;
    unlinkat(folder, beside.c_str(), 0);
    failed("write", name, error);
  }
}

bool lies_in(const std::string &path, const std::string &folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path inner = fs::weakly_canonical(fs::absolute(path, error), error);
  const fs::path outer = fs::weakly_canonical(fs::absolute(folder, error), error);
  return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

placed_file::placed_file(const std::string &path)
    : path_(path), beside_(path + "." + std::to_string(getpid()) + ".new"),
      file_(make_file(AT_FDCWD, beside_, 0644)) {
  const int error = errno;
  struct stat about = {};
  const bool is_folder = stat(path.c_str(), &about) == 0 && S_ISDIR(about.st_mode);
  if (!file_.is_open() || is_folder) {
    if (file_.is_open()) {
      unlink(beside_.c_str());
    }
    throw failure(exit_refused,
                  "cannot write " + in_quotes(path) + ": " + error_text(is_folder ? EISDIR : error),
                  "name another place");
  }
}

placed_file::~placed_file() {
  if (!beside_.empty()) {
    unlink(beside_.c_str());
  }
}

void placed_file::write(std::string_view text) {
  waiting_ += text;
  if (waiting_.size() >= portion) {
    flush();
  }
}

void placed_file::flush() {
  if (!write_content(file_.get(), waiting_)) {
    failed("write", path_, errno);
  }
  waiting_.clear();
}

void placed_file::put() {
  flush();
  if (TEMP_FAILURE_RETRY(fsync(file_.get())) != 0 || rename(beside_.c_str(), path_.c_str()) != 0) {
    failed("write", path_, errno);
  }
  beside_.clear();
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
