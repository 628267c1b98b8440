#include "switch_dir.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "failure.h"
#include "output.h"
#include "run_record.h"
#include "run_steps.h"
#include "strict_json.h"
#include "text.h"
#include "tree.h"

namespace {

using namespace std::chrono_literals;

constexpr char current_name[] = "current";
constexpr char next_name[] = "next";
constexpr char previous_name[] = "previous";
constexpr char discard_name[] = "discard";
constexpr char runs_name[] = "runs";
constexpr char lock_name[] = ".lock";
constexpr char copy_name[] = ".copy";
constexpr char probe_a[] = ".probe-a";
constexpr char probe_b[] = ".probe-b";
constexpr char runs_advice[] = "make room, or move what stands there out of the way";
constexpr char k_as_owner[] = "run as the user that it belongs to";
constexpr size_t largest_switch_file = 1 << 20;

// A command that was killed leaves its lock when the last process of it is gone, and a reading
// command is soon done: both are waited for. A command that is alive and writing is not.
constexpr auto patience = 3s;

unique_fd open_state(int folder, const char *name) {
  return unique_fd(openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

switch_state read_state(int state_folder) {
  const std::string text = tree::read_file(state_folder, switch_file, largest_switch_file);
  const nlohmann::json document = parse_shallow(text);
  if (document.is_discarded()) {
    throw failure(exit_refused, std::string(switch_file) + " is no JSON");
  }
  return switch_state::from_json(document);
}

std::optional<uint64_t> generation_of(int folder, const char *name) {
  const unique_fd state = open_state(folder, name);
  if (!state.is_open()) {
    return std::nullopt;
  }
  try {
    return read_state(state.get()).generation;
  } catch (const failure &) {
    return std::nullopt;
  }
}

// Of a next/ that is not marked as a copy: it is a whole state or, without its file, the rest of
// one that was being removed; what is no folder is none. Throws failure(3) when that cannot be
// told.
std::optional<uint64_t> unmarked_generation(int folder) {
  const unique_fd next = open_state(folder, next_name);
  try {
    if (!next.is_open() && errno != ENOTDIR) {
      throw failure(exit_refused, error_text(errno));
    }
    if (!next.is_open() || !tree::is_there(next.get(), switch_file)) {
      return std::nullopt;
    }
    return read_state(next.get()).generation;
  } catch (const failure &error) {
    throw failure(exit_refused,
                  std::string("next/ of a command that was stopped may be the state before it, and "
                              "cannot be read: ") +
                      error.what() +
                      "; nothing was changed; keep a copy of it, then mend its switch.json or "
                      "remove it");
  }
}

void sync_folder(int folder) {
  if (TEMP_FAILURE_RETRY(fsync(folder)) != 0) {
    throw failure(exit_failed, "cannot sync the switch's folder: " + error_text(errno));
  }
}

// What tells a process from a later one of the same number; "" when it is gone.
std::string start_of(const std::string &pid) {
  std::ifstream file("/proc/" + pid + "/stat");
  std::string text;
  std::getline(file, text);
  // The name may hold anything; 19 members stand between it and the start.
  const size_t name_end = text.rfind(')');
  std::istringstream members(name_end == std::string::npos ? "" : text.substr(name_end + 1));
  std::string member;
  for (int at = 0; at < 20 && members >> member; ++at) {
  }
  return members ? member : "";
}

// How far it came.
std::string text_of(const killed_run &killed) {
  const std::string where = how_far(killed.folder.get());
  return killed.facts.name() + " was killed" + (where.empty() ? "" : " " + where);
}

// What became of the switch, to be put behind that.
std::string outcome_of(const killed_run &killed, int folder) {
  const std::optional<uint64_t> now = generation_of(folder, current_name);
  const std::string outcome = now ? outcome_of_killed(killed.facts, *now) : "";
  return outcome.empty() ? "" : "; " + outcome;
}

bool same_folder(int a, int b) {
  struct stat about_a = {};
  struct stat about_b = {};
  return fstat(a, &about_a) == 0 && fstat(b, &about_b) == 0 && about_a.st_dev == about_b.st_dev &&
         about_a.st_ino == about_b.st_ino;
}

} // namespace

switch_dir::switch_dir(const std::string &path, access how) : path_(path) {
  try {
    open_folder();
    lock(how);
    if (how != access::look) {
      recover(how);
    }
    open_current(how);
  } catch (const failure &error) {
    throw error.placed(in_quotes(path_));
  }
}

switch_dir::~switch_dir() {
  if (named_) {
    // The name is for messages only; one that stays behind does no harm.
    [[maybe_unused]] const int cleared = ftruncate(lock_.get(), 0);
  }
}

void switch_dir::open_folder() {
  // Handed down on purpose: what works in the switch for this program dies with it, and the lock
  // is free when the last of them is gone.
  folder_.reset(open(path_.c_str(), O_RDONLY | O_DIRECTORY));
  if (!folder_.is_open()) {
    const int error = errno;
    throw failure(exit_refused, "cannot open the switch's directory: " + error_text(error),
                  error == EACCES ? k_as_owner : "build a switch with 'datamorph lab create DIR'");
  }
  struct stat about = {};
  const std::string file = std::string(current_name) + "/" + switch_file;
  if (fstatat(folder_.get(), file.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0) {
    return;
  }
  if (errno == EACCES) {
    throw failure(exit_refused, "no right to read the switch", k_as_owner);
  }
  if (errno != ENOENT && errno != ENOTDIR) {
    throw failure(exit_refused, "cannot look for " + file + ": " + error_text(errno));
  }
  if (tree::exists(folder_.get(), std::string(previous_name) + "/" + switch_file)) {
    throw failure(exit_refused, file + " is missing", state_remedy());
  }
  throw failure(exit_refused, "not a lab switch (no " + file + ")",
                "build one with 'datamorph lab create DIR'");
}

// The process whose number stands in the lock file, when it is alive; a command that was killed
// leaves its number there, and the system gives it to others.
std::string switch_dir::holder() const {
  char text[64] = "";
  const ssize_t got = lock_.is_open() ? pread(lock_.get(), text, sizeof text - 1, 0) : 0;
  std::istringstream words(std::string(text, got > 0 ? static_cast<size_t>(got) : 0));
  std::string pid;
  std::string start;
  words >> pid >> start;
  const bool number = !pid.empty() && pid.find_first_not_of("0123456789") == std::string::npos;
  return number && !start.empty() && start == start_of(pid) ? pid : "";
}

// Of one who only reads, whose number stands in no file; "" when the system does not tell. Files of
// different file systems have the same number.
std::string switch_dir::locking_process() const {
  struct stat about = {};
  if (fstat(folder_.get(), &about) != 0) {
    return "";
  }
  char wanted[64];
  std::snprintf(wanted, sizeof wanted, "%02x:%02x:%llu", major(about.st_dev), minor(about.st_dev),
                static_cast<unsigned long long>(about.st_ino));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, advisory, mode, pid, file;
    words >> number >> kind >> advisory >> mode >> pid >> file;
    if (kind == "FLOCK" && file == wanted && !start_of(pid).empty()) {
      return pid;
    }
  }
  return "";
}

void switch_dir::in_use() const {
  const std::string named = holder();
  const std::string pid = named.empty() ? locking_process() : named;
  throw failure(exit_in_use,
                "in use by another command" + (pid.empty() ? "" : " (process " + pid + ")"),
                "wait until it is done");
}

void switch_dir::open_lock_file(access how) {
  constexpr int flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  if (how != access::look) {
    lock_.reset(static_cast<int>(
        TEMP_FAILURE_RETRY(openat(folder_.get(), lock_name, flags | O_RDWR | O_CREAT, 0644))));
  }
  if (!lock_.is_open() && how != access::write) {
    lock_.reset(openat(folder_.get(), lock_name, flags | O_RDONLY));
    if (!lock_.is_open() && (errno == ENOENT || errno == EACCES || errno == EROFS)) {
      return; // it only tells who works there
    }
  }
  struct stat about = {};
  if (lock_.is_open() && fstat(lock_.get(), &about) == 0 && S_ISREG(about.st_mode)) {
    return;
  }
  if (!lock_.is_open() && errno == EROFS) {
    throw failure(exit_refused, "its file system is read-only", "copy the switch elsewhere");
  }
  throw failure(exit_refused,
                std::string("cannot open its lock file ") + lock_name + ": " +
                    (lock_.is_open() ? "not a regular file" : error_text(errno)),
                "run as the user that the switch belongs to");
}

void switch_dir::wait_for_lock(int operation) const {
  const auto until = std::chrono::steady_clock::now() + patience;
  while (flock(folder_.get(), operation | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      throw failure(exit_failed, "cannot lock the switch: " + error_text(errno));
    }
    if (!holder().empty() || std::chrono::steady_clock::now() > until) {
      in_use();
    }
    std::this_thread::sleep_for(20ms);
  }
}

void switch_dir::note_holder() {
  const std::string pid = std::to_string(getpid());
  const std::string text = pid + " " + start_of(pid) + "\n";
  // The lock counts, not the name: a full disk is told later and better.
  named_ = ftruncate(lock_.get(), 0) == 0 &&
           pwrite(lock_.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

void switch_dir::lock(access how) {
  open_lock_file(how);
  wait_for_lock(how == access::write ? LOCK_EX : LOCK_SH);
  if (how == access::write) {
    note_holder();
  }
}

// Whoever only looks leaves it to the next one who may write; current/ is whole either way.
bool switch_dir::may_recover() const {
  if (faccessat(folder_.get(), ".", W_OK, AT_EACCESS) != 0) {
    return false;
  }
  if (flock(folder_.get(), LOCK_EX | LOCK_NB) == 0) {
    return true;
  }
  share_lock(); // a failed change of the lock has given it up
  return false;
}

void switch_dir::share_lock() const {
  if (flock(folder_.get(), LOCK_SH | LOCK_NB) != 0) {
    in_use();
  }
}

std::vector<std::string> switch_dir::leftovers() const {
  std::vector<std::string> found;
  for (const char *name : {next_name, discard_name, probe_a, probe_b, copy_name}) {
    if (tree::is_there(folder_.get(), name)) {
      found.emplace_back(name);
    }
  }
  return found;
}

void switch_dir::recover(access how) {
  const int folder = folder_.get();
  const bool any = !leftovers().empty();
  const std::optional<killed_run> killed = find_killed_run(folder);
  if (!any && !killed) {
    return;
  }
  if (how == access::read && !may_recover()) {
    tell_unfinished();
    return;
  }
  std::string what = any ? tidy_up() : "";
  if (killed) {
    note_killed(*killed);
    append_word(what, text_of(*killed) + (any ? "" : outcome_of(*killed, folder)), "; ");
  }
  if (how == access::read) {
    share_lock();
  }
  if (!what.empty()) {
    output::message(in_quotes(path_) + ": " + what);
  }
}

// What was done, for a message.
std::string switch_dir::tidy_up() {
  const int folder = folder_.get();
  std::string what = recover_next();
  for (const char *name : {discard_name, probe_a, probe_b}) {
    put_away_or_say(name);
  }
  drop_mark();
  sync_folder(folder);
  return what;
}

std::string switch_dir::unfinished() const {
  std::string names;
  for (const std::string &name : leftovers()) {
    append_word(names, name, ", ");
  }
  const std::optional<killed_run> killed = find_killed_run(folder_.get());
  if (!killed) {
    return names.empty() ? "" : "a command was cut short and left " + names;
  }
  return text_of(*killed) + outcome_of(*killed, folder_.get()) +
         (names.empty() ? "" : "; it left " + names);
}

void switch_dir::tell_unfinished() const {
  std::string what = unfinished();
  if (what.empty()) {
    return;
  }
  if (!leftovers().empty()) {
    const bool writable = faccessat(folder_.get(), ".", W_OK, AT_EACCESS) == 0;
    append_word(what, "'datamorph lab show " + shell_word(path_) + "' tidies up", "; ");
    what += writable ? "" : " when the user that it belongs to runs it";
  }
  output::message(in_quotes(path_) + ": " + what);
}

// What was done, for a message.
std::string switch_dir::recover_next() {
  const int folder = folder_.get();
  if (!tree::is_there(folder, next_name)) {
    return "removed what a stopped command had left";
  }
  const std::optional<uint64_t> current = generation_of(folder, current_name);
  if (!current) {
    throw failure(exit_refused, "current/switch.json cannot be read, and next/ of a command that "
                                "was stopped is there too: one of the two is the whole state; "
                                "nothing was changed; keep a copy of both, then put the whole one "
                                "at current/");
  }
  const bool is_copy = tree::is_there(folder, copy_name);
  const std::optional<uint64_t> next = is_copy ? std::nullopt : unmarked_generation(folder);
  if (next && *next < *current) {
    put_away_or_say(discard_name);
    keep_previous();
    return "completed a conversion that was stopped after its last step; the state before it is in "
           "previous/";
  }
  put_away_or_say(next_name);
  const bool is_before = is_copy || (next && *next > *current);
  return is_before
             ? "removed the copy of a command that was stopped; the switch is as it was before it"
             : "removed a state that a stopped command had left; the switch is wholly as it was "
               "before it or after it";
}

// Tidying up never keeps a command from its work: what cannot be removed, as another user's files
// cannot, is put out of the way.
std::string switch_dir::put_away(const char *name) const {
  if (!tree::exists(folder_.get(), name)) {
    return "";
  }
  try {
    tree::remove(folder_.get(), name);
    return "";
  } catch (const failure &error) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
      const std::string aside = std::string(discard_name) + "." + std::to_string(attempt);
      if (renameat2(folder_.get(), name, folder_.get(), aside.c_str(), RENAME_NOREPLACE) == 0) {
        return std::string(error.what()) + "; it is now " + aside +
               "/: remove that as the user that it belongs to";
      }
      if (errno != EEXIST) {
        break;
      }
    }
    return std::string(error.what()) + "; remove it as the user that it belongs to";
  }
}

void switch_dir::put_away_or_say(const char *name) const {
  const std::string trouble = put_away(name);
  if (!trouble.empty()) {
    output::message(in_quotes(path_) + ": " + trouble);
  }
}

void switch_dir::open_current(access how) {
  current_ = open_state(folder_.get(), current_name);
  if (!current_.is_open()) {
    throw failure(exit_refused, "cannot open its state: " + error_text(errno));
  }
  try {
    state_ = read_state(current_.get());
  } catch (const failure &error) {
    if (how != access::look) {
      throw failure(error.status(), error.message(),
                    error.next_action().empty() ? state_remedy() : error.next_action());
    }
    state_trouble_ = error.what();
  }
}

std::string switch_dir::state_remedy() const {
  const std::string mend = "mend " + shell_word(path_ + "/current/switch.json");
  const std::string other = path_ + "/previous/switch.json";
  return ::access(other.c_str(), F_OK) != 0 ? mend
                                            : mend + "; " + shell_word(other) +
                                                  " has its members as they were before the last "
                                                  "conversion";
}

void switch_dir::check_exchange() const {
  const int folder = folder_.get();
  if (mkdirat(folder, probe_a, 0700) != 0 || mkdirat(folder, probe_b, 0700) != 0) {
    const int error = errno;
    tree::remove(folder, probe_a);
    throw failure(exit_refused, in_quotes(path_) + ": cannot write there: " + error_text(error),
                  "make room, or run as the user that the switch belongs to");
  }
  const int result = renameat2(folder, probe_a, folder, probe_b, RENAME_EXCHANGE);
  const int error = errno;
  tree::remove(folder, probe_a);
  tree::remove(folder, probe_b);
  if (result != 0) {
    throw failure(exit_refused,
                  in_quotes(path_) + ": its file system cannot exchange two folders (" +
                      error_text(error) + ")",
                  "move the switch to one that can, such as ext4 or xfs");
  }
}

switch_dir::room switch_dir::room_for_copy() const {
  return {tree::copy_wants(folder_.get(), current_name), tree::bytes_free(folder_.get())};
}

void switch_dir::check_room() const {
  try {
    tree::check_room(folder_.get(), current_name, folder_.get(), "make room there");
  } catch (const failure &error) {
    throw error.placed(in_quotes(path_));
  }
}

unique_fd switch_dir::make_next() const {
  const int folder = folder_.get();
  if (tree::is_there(folder, next_name)) {
    throw failure(exit_failed, "next/ stands in the way", "move it elsewhere");
  }
  const unique_fd mark = tree::make_file(folder, copy_name, 0644);
  if (!mark.is_open() || TEMP_FAILURE_RETRY(fsync(mark.get())) != 0) {
    throw failure(exit_failed, "cannot mark the copy of the state: " + error_text(errno));
  }
  sync_folder(folder);
  tree::copy(folder, current_name, next_name, "make room");
  unique_fd next = open_state(folder, next_name);
  if (!next.is_open()) {
    throw failure(exit_failed, "cannot open the copy of the state: " + error_text(errno));
  }
  return next;
}

std::string switch_dir::drop_next() const {
  std::string trouble = put_away(next_name);
  drop_mark();
  return trouble;
}

// As long as there is a next/, also on disk, it is known for a copy. Where that cannot be told, the
// next command tidies up.
void switch_dir::drop_mark() const {
  const int folder = folder_.get();
  if (!tree::exists(folder, next_name) && TEMP_FAILURE_RETRY(fsync(folder)) == 0) {
    put_away_or_say(copy_name);
  }
}

void switch_dir::keep_previous() const {
  const int folder = folder_.get();
  if (renameat(folder, previous_name, folder, discard_name) != 0 && errno != ENOENT) {
    throw failure(exit_failed, "cannot put previous/ aside: " + error_text(errno));
  }
  if (renameat(folder, next_name, folder, previous_name) != 0) {
    throw failure(exit_failed, "cannot keep the state before the conversion: " + error_text(errno));
  }
  sync_folder(folder);
}

void switch_dir::exchange(unique_fd next, const switch_state &state) {
  const int folder = folder_.get();
  // All that the converters' processes could do is done: what stands in the file now is this
  // program's.
  state.save(next.get());
  if (TEMP_FAILURE_RETRY(syncfs(next.get())) != 0) {
    throw failure(exit_failed, "cannot sync the copy of the state: " + error_text(errno));
  }
  if (!same_folder(next.get(), open_state(folder, next_name).get())) {
    throw failure(exit_failed, "another one has come to the place of the copy of the state");
  }
  if (unlinkat(folder, copy_name, 0) != 0) {
    throw failure(exit_failed, "cannot unmark the copy of the state: " + error_text(errno));
  }
  sync_folder(folder);
  if (renameat2(folder, current_name, folder, next_name, RENAME_EXCHANGE) != 0) {
    throw failure(exit_failed, "cannot exchange the states: " + error_text(errno));
  }
  current_ = std::move(next);
  state_ = state;
}

void switch_dir::commit(unique_fd next, const switch_state &state) {
  const int folder = folder_.get();
  exchange(std::move(next), state);
  try {
    sync_folder(folder);
    put_away_or_say(discard_name);
    keep_previous();
    put_away_or_say(discard_name);
    sync_folder(folder);
  } catch (const failure &error) {
    output::message(in_quotes(path_) + ": the conversion is done, but tidying up failed (" +
                    error.what() + "); the next command completes it");
  }
}

void switch_dir::replace(unique_fd next) {
  exchange(std::move(next), switch_state(state_));
  try {
    const int folder = folder_.get();
    sync_folder(folder);
    // Under the other name first: a next/ without its switch.json tells nobody what it was.
    put_away_or_say(discard_name);
    if (renameat(folder, next_name, folder, discard_name) != 0) {
      throw failure(exit_failed, "cannot put next/ aside: " + error_text(errno));
    }
    put_away_or_say(discard_name);
    sync_folder(folder);
  } catch (const failure &error) {
    output::message(in_quotes(path_) + ": the state is replaced, but tidying up failed (" +
                    error.what() + ")");
  }
}

switch_state switch_dir::previous_state() const {
  if (!tree::is_there(folder_.get(), previous_name)) {
    throw failure(exit_refused, "there is nothing to go back to: no state of before a conversion "
                                "stands in previous/; 'datamorph history' lists what was done");
  }
  const char *const remedy = "; it is no state to go back to, move it elsewhere";
  const unique_fd previous = open_state(folder_.get(), previous_name);
  if (!previous.is_open()) {
    throw failure(exit_refused, "cannot open previous/: " + error_text(errno) + remedy);
  }
  try {
    return read_state(previous.get());
  } catch (const failure &error) {
    throw failure(exit_refused, std::string("previous/: ") + error.what() + remedy);
  }
}

void switch_dir::exchange_previous() {
  const int folder = folder_.get();
  unique_fd previous = open_state(folder, previous_name);
  const switch_state state = previous_state();
  if (renameat2(folder, current_name, folder, previous_name, RENAME_EXCHANGE) != 0) {
    throw failure(exit_failed, "cannot exchange the states: " + error_text(errno));
  }
  current_ = std::move(previous);
  state_ = state;
  try {
    sync_folder(folder);
  } catch (const failure &error) {
    output::message(in_quotes(path_) + ": the states are exchanged, but " + error.what());
  }
}

unique_fd switch_dir::make_run(std::string *number) const {
  if (mkdirat(folder_.get(), runs_name, 0755) != 0 && errno != EEXIST) {
    throw failure(exit_failed, "cannot make the folder runs/: " + error_text(errno), runs_advice);
  }
  const unique_fd runs = open_state(folder_.get(), runs_name);
  const std::optional<std::vector<std::string>> names =
      runs.is_open() ? tree::names_in(runs.get()) : std::nullopt;
  if (!names) {
    throw failure(exit_failed, "cannot read the folder runs/: " + error_text(errno), runs_advice);
  }
  unsigned long last = 0;
  for (const std::string &run : *names) {
    last = std::max(last, std::strtoul(run.c_str(), nullptr, 10));
  }
  char name[32];
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::snprintf(name, sizeof name, "%04lu", ++last);
    if (mkdirat(runs.get(), name, 0755) == 0) {
      try {
        sync_folder(runs.get());
        sync_folder(folder_.get());
      } catch (const failure &) {
        unlinkat(runs.get(), name, AT_REMOVEDIR);
        throw;
      }
      *number = name;
      return open_state(runs.get(), name);
    }
  }
  throw failure(exit_failed, "cannot make a folder in runs/: " + error_text(errno), runs_advice);
}
