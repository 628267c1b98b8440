#include "scratch_folder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

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

// One of this user's in which nobody is at work, locked: whoever makes one gives it up when another
// has its lock. Not open for any other.
unique_fd lock_abandoned(const std::string &path) {
  unique_fd folder = open_folder(path);
  struct stat about = {};
  const bool mine =
      folder.is_open() && fstat(folder.get(), &about) == 0 && about.st_uid == geteuid();
  return mine && flock(folder.get(), LOCK_EX | LOCK_NB) == 0 ? std::move(folder) : unique_fd();
}

bool is_at(int folder, const std::string &path) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(folder, &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
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
    const bool is_one = at->path().filename().native().starts_with(prefix);
    const unique_fd abandoned = is_one ? lock_abandoned(path) : unique_fd();
    // An empty one was just made, or its owner has just removed what was there.
    if (!abandoned.is_open() || rmdir(path.c_str()) == 0 || errno == ENOENT) {
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
  constexpr int attempts = 100;
  for (int at = 0; at < attempts; ++at) {
    make(parent);
    if (lock()) {
      return;
    }
  }
  throw failure(exit_failed, "cannot lock a folder for the copy in " + in_quotes(parent));
}

void scratch_folder::make(const std::string &parent) {
  path_ = parent + "/" + prefix + "XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) {
    const std::string message =
        "cannot make a folder for the copy in " + in_quotes(parent) + ": " + error_text(errno);
    if (errno == ENOSPC) {
      throw no_room(message, advice());
    }
    throw failure(exit_refused, message, "name another place in TMPDIR");
  }
}

// False when another command's sweep came between: that one takes a folder that nobody has locked
// for one that was left behind.
bool scratch_folder::lock() {
  folder_ = open_folder(path_);
  return folder_.is_open() && flock(folder_.get(), LOCK_EX | LOCK_NB) == 0 &&
         is_at(folder_.get(), path_);
}

scratch_folder::~scratch_folder() {
  remove_or_say(AT_FDCWD, path_);
}

void scratch_folder::drop(const std::string &name) const {
  remove_or_say(folder_.get(), name);
}

unique_fd scratch_folder::copy(int state, const std::string &name) const {
  try {
    tree::check_room(state, ".", folder_.get(), advice());
    tree::copy(state, ".", path_ + "/" + name, advice());
  } catch (const failure &error) {
    if (error.status() != exit_refused) {
      throw;
    }
    throw no_room(error.message(), error.next_action());
  }
  unique_fd made = open_folder(path_ + "/" + name);
  if (!made.is_open()) {
    throw failure(exit_failed, "cannot open the copy of the state: " + error_text(errno));
  }
  return made;
}

unique_fd scratch_folder::file(const std::string &name) const {
  unique_fd made = tree::make_file(folder_.get(), name, 0600);
  if (!made.is_open() && errno == ENOSPC) {
    throw no_room("no room for a file in " + in_quotes(path_), advice());
  }
  if (!made.is_open()) {
    throw failure(exit_failed,
                  "cannot create a file in " + in_quotes(path_) + ": " + error_text(errno));
  }
  return made;
}

// What is left of a file system that took nothing more may be a few blocks that were given back.
bool scratch_folder::is_full() const {
  constexpr uint64_t nothing_much = 64 << 10;
  return tree::bytes_free(folder_.get()) < nothing_much;
}

// How much the conversion would have written nobody knows. It had what lies there, and what is free
// since it gave up.
void scratch_folder::throw_full() const {
  const uint64_t had = tree::bytes_used(folder_.get(), ".") + tree::bytes_free(folder_.get());
  throw no_room("the disk of the copy became full while it was converted: more than " +
                    std::to_string(had >> 10) + " KiB are wanted there",
                advice());
}

std::string scratch_folder::advice() const {
  return "make room in " + place() + ", or name another place in TMPDIR";
}
