#include "workshop.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "failure.h"
#include "output.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr char state_in_work[] = "current.creating";
// All that a command can have left when it was stopped while it built a switch.
constexpr const char *own_names[] = {"current", state_in_work, "runs", ".lock"};

bool is_own(const std::string &name) {
  return std::find(std::begin(own_names), std::end(own_names), name) != std::end(own_names) ||
         (name.starts_with(".lock.") && name.ends_with(".new"));
}

} // namespace

workshop::workshop(const std::string &dir) : dir_(dir) {
  struct stat about = {};
  if (stat(dir_.c_str(), &about) == 0 && S_ISDIR(about.st_mode)) {
    open_standing();
  } else {
    find_place();
    open_beside();
  }
}

workshop::~workshop() {
  if (done_) {
    return;
  }
  try {
    clear();
  } catch (const failure &error) {
    output::message(in_quotes(dir_) + ": " + error.what());
  }
}

const char *workshop::state_name() const {
  return parent_.is_open() ? "current" : state_in_work;
}

// False when another command has it.
bool workshop::lock_folder() {
  return flock(folder_.get(), LOCK_EX | LOCK_NB) == 0;
}

std::vector<std::string> workshop::contents() const {
  const std::optional<std::vector<std::string>> names = tree::names_in(folder_.get());
  if (!names) {
    throw failure(exit_refused,
                  "cannot read the directory " + in_quotes(dir_) + ": " + error_text(errno));
  }
  return *names;
}

void workshop::check_contents(const std::string &where) const {
  for (const std::string &name : contents()) {
    if (!is_own(name)) {
      throw failure(exit_refused, in_quotes(dir_) + ": " + where);
    }
  }
}

void workshop::clear() const {
  if (parent_.is_open()) {
    tree::remove(parent_.get(), building_);
    return;
  }
  for (const std::string &name : contents()) {
    if (is_own(name)) {
      tree::remove(folder_.get(), name);
    }
  }
}

// Of a directory that stands already.
void workshop::check_free() const {
  constexpr char taken[] = "stands already and is not empty; remove it or name another directory";
  if (tree::is_there(folder_.get(), "current")) {
    throw failure(exit_refused, in_quotes(dir_) + ": " + taken);
  }
  check_contents(taken);
}

void workshop::open_standing() {
  folder_.reset(open(dir_.c_str(), O_RDONLY | O_DIRECTORY));
  done_ = true; // until it is known to be this command's
  if (!folder_.is_open()) {
    throw failure(exit_refused, in_quotes(dir_) + ": " + error_text(errno));
  }
  check_free();
  if (!lock_folder()) {
    throw failure(exit_in_use, in_quotes(dir_) + ": another command is building it");
  }
  check_free(); // another command may have built it since
  done_ = false;
  if (!contents().empty()) {
    clear();
    output::message(in_quotes(dir_) + ": removed what a stopped command had built so far");
  }
}

void workshop::find_place() {
  std::filesystem::path path = dir_;
  while (!path.empty() && path.filename().empty() && path.has_relative_path()) {
    path = path.parent_path(); // a slash at the end
  }
  name_ = path.filename();
  done_ = true;
  if (name_.empty() || name_ == "." || name_ == "..") {
    throw failure(exit_refused, in_quotes(dir_) + ": no name for a new directory");
  }
  const std::string parent = path.has_parent_path() ? path.parent_path().string() : ".";
  parent_.reset(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent_.is_open()) {
    throw failure(exit_refused, in_quotes(dir_) +
                                    ": cannot open the directory that it would be in: " +
                                    error_text(errno) + "; make that one first");
  }
  struct stat about = {};
  if (fstatat(parent_.get(), name_.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0) {
    throw failure(exit_refused,
                  in_quotes(dir_) + ": stands already and is no directory; name another");
  }
  if (errno != ENOENT) {
    throw failure(exit_refused, in_quotes(dir_) + ": " + error_text(errno));
  }
}

void workshop::open_beside() {
  // Hidden, and short enough for any name.
  building_ = "." + name_.substr(0, 200) + ".creating";
  const auto make = [&] {
    if (mkdirat(parent_.get(), building_.c_str(), 0755) == 0) {
      return true;
    }
    const int error = errno;
    if (error != EEXIST) {
      throw failure(exit_refused,
                    in_quotes(dir_) + ": cannot write beside it: " + error_text(error),
                    error == EACCES ? "run as a user who may" : "name another place");
    }
    return false;
  };
  const auto open_made = [&] {
    folder_.reset(openat(parent_.get(), building_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
  };
  const bool made = make();
  open_made();
  const std::string in_the_way = building_ + " beside it was not left by a stopped command; move "
                                             "it elsewhere, or name another directory";
  if (!folder_.is_open()) {
    throw failure(exit_refused, in_quotes(dir_) + ": " + in_the_way);
  }
  check_contents(in_the_way);
  if (!lock_folder()) {
    throw failure(exit_in_use, in_quotes(dir_) + ": another command is building it");
  }
  if (!made) {
    tree::remove(parent_.get(), building_);
    output::message(in_quotes(dir_) + ": removed what a stopped command had built so far");
    make();
    open_made();
    if (!folder_.is_open() || !lock_folder()) {
      throw failure(exit_in_use, in_quotes(dir_) + ": another command is building it");
    }
  }
  done_ = false;
}

void workshop::become_switch() {
  const bool beside = parent_.is_open();
  const int where = beside ? parent_.get() : folder_.get();
  const std::string from = beside ? building_ : state_in_work;
  const std::string to = beside ? name_ : "current";
  if (renameat(where, from.c_str(), where, to.c_str()) != 0) {
    throw failure(exit_failed,
                  in_quotes(dir_) + ": cannot put the switch in place: " + error_text(errno));
  }
  done_ = true;
  if (TEMP_FAILURE_RETRY(fsync(where)) != 0) {
    output::message(in_quotes(dir_) +
                    ": the switch stands, but its name may not outlast a loss of "
                    "power: " +
                    error_text(errno));
  }
}
