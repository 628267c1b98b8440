#include "scratch_folder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"
#include "output.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr char prefix[] = "datamorph-rehearsal.";

std::string place() {
  const char *const wanted = std::getenv("TMPDIR");
  return wanted != nullptr && *wanted == '/' ? wanted : "/tmp";
}

unique_fd open_folder(const std::string &path) {
  return unique_fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Of this user, and nobody is at work in it.
bool is_abandoned(const std::string &path) {
  const unique_fd folder = open_folder(path);
  struct stat about = {};
  return folder.is_open() && fstat(folder.get(), &about) == 0 && about.st_uid == geteuid() &&
         flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
}

bool remove_or_say(int folder, const std::string &name) {
  try {
    tree::remove(folder, name);
    return true;
  } catch (const failure &trouble) {
    output::message(trouble.what());
    return false;
  }
}

void sweep(const std::string &parent) {
  std::error_code error;
  for (std::filesystem::directory_iterator at(parent, error), end; !error && at != end;
       at.increment(error)) {
    const std::string path = at->path();
    if (!at->path().filename().native().starts_with(prefix) || !is_abandoned(path)) {
      continue;
    }
    if (remove_or_say(AT_FDCWD, path)) {
      output::message("removed what a rehearsal that was stopped had left in " + in_quotes(path));
    }
  }
}

} // namespace

scratch_folder::scratch_folder(const std::string &dir) {
  const std::string parent = place();
  if (tree::lies_in(parent, dir)) {
    throw failure(exit_refused,
                  in_quotes(parent) + " lies in the switch, of which nothing is written",
                  "name another place in TMPDIR");
  }
  sweep(parent);
  path_ = parent + "/" + prefix + "XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) {
    throw failure(exit_refused,
                  "cannot make a folder for the copy in " + in_quotes(parent) + ": " +
                      error_text(errno),
                  "name another place in TMPDIR");
  }
  folder_ = open_folder(path_);
  if (!folder_.is_open() || flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw failure(exit_failed, "cannot lock " + in_quotes(path_) + ": " + error_text(errno));
  }
}

scratch_folder::~scratch_folder() {
  remove_or_say(AT_FDCWD, path_);
}

void scratch_folder::drop(const std::string &name) const {
  remove_or_say(folder_.get(), name);
}

unique_fd scratch_folder::copy(int state, const std::string &name) const {
  tree::check_room(state, ".", folder_.get(),
                   "make room in " + place() + ", or name another place in TMPDIR");
  tree::copy(state, ".", path_ + "/" + name);
  unique_fd made = open_folder(path_ + "/" + name);
  if (!made.is_open()) {
    throw failure(exit_failed, "cannot open the copy of the state: " + error_text(errno));
  }
  return made;
}

unique_fd scratch_folder::file(const std::string &name) const {
  unique_fd made(openat(folder_.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!made.is_open()) {
    throw failure(exit_failed,
                  "cannot create a file in " + in_quotes(path_) + ": " + error_text(errno));
  }
  return made;
}
