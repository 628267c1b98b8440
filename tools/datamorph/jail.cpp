#include "jail.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child_process.h"
#include "failure.h"
#include "keeper.h"
#include "progress.h"
#include "stop_signal.h"
#include "text.h"
#include "unique_fd.h"

namespace {

using milliseconds = std::chrono::milliseconds;

// No message of a child that is sane is longer.
constexpr size_t longest_message = size_t(256) << 20;

[[noreturn]] void nonsense() {
  throw failure(exit_failed, "the library's process sent a message that makes no sense");
}

// Whole lines out of what comes in pieces.
class line_splitter {
public:
  explicit line_splitter(std::function<void(const std::string &)> take) : take_(std::move(take)) {}
  void operator()(std::string_view piece) {
    for (const char c : piece) {
      if (c != '\n') {
        if (line_.size() >= longest_message) {
          nonsense();
        }
        line_ += c;
        continue;
      }
      take_(line_);
      line_.clear();
    }
  }

private:
  std::function<void(const std::string &)> take_;
  std::string line_;
};

// ---- In the child ------------------------------------------------------------------------------

bool write_proc(const char *path, const std::string &text) {
  const unique_fd file(open(path, O_WRONLY | O_CLOEXEC));
  return file.is_open() &&
         write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

[[noreturn]] void no_rights(const char *step, int error) {
  throw failure(exit_refused,
                std::string("no rights to work inside the switch: ") + step + " failed (" +
                    error_text(error) + ")",
                "run it as root, or allow user namespaces on this machine (sysctl "
                "user.max_user_namespaces above 0)");
}

// A user namespace in which this user may change its root; only its own id exists there.
void enter_user_namespace() {
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  if (unshare(CLONE_NEWUSER) != 0) {
    no_rights("a user namespace", errno);
  }
  if (!write_proc("/proc/self/setgroups", "deny") ||
      !write_proc("/proc/self/uid_map", "0 " + uid + " 1\n") ||
      !write_proc("/proc/self/gid_map", "0 " + gid + " 1\n")) {
    no_rights("the user namespace's id map", errno);
  }
}

void enter_root(int root) {
  if (fchdir(root) != 0) {
    throw failure(exit_refused, "cannot enter the switch's state: " + error_text(errno),
                  "run as the user that the switch belongs to");
  }
  if (chroot(".") != 0) {
    if (errno != EPERM) {
      no_rights("changing the root", errno);
    }
    enter_user_namespace();
    if (chroot(".") != 0) {
      no_rights("changing the root", errno);
    }
  }
  if (chdir("/") != 0) {
    no_rights("entering the root", errno);
  }
}

// A folder of the host that is open is a way out of the root.
void close_folders() {
  constexpr int highest = 4096;
  for (int fd = STDERR_FILENO + 1; fd < highest; ++fd) {
    struct stat about = {};
    if (fstat(fd, &about) == 0 && S_ISDIR(about.st_mode)) {
      close(fd);
    }
  }
}

void send_failure(const jail::channel &channel, const failure &error) {
  channel.send({{"failure",
                 {{"status", error.status()},
                  {"message", error.message()},
                  {"next_action", error.next_action()}}}});
}

[[noreturn]] void live_in_child(const jail::request &request, pid_t parent, int trace,
                                int results) {
  redirect_streams(trace);
  const jail::channel channel(results);
  int status = exit_done;
  try {
    request.prepare();
    enter_root(request.root);
    close_folders();
    // A change of credentials takes the tie to the parent away.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(exit_failed);
    }
    setenv("TZ", "UTC", 1);
    tzset();
    request.body(channel);
    channel.send({{"finished", true}});
  } catch (const failure &error) {
    send_failure(channel, error);
    status = exit_failed;
  } catch (const std::exception &error) {
    send_failure(channel, failure(exit_failed, error.what()));
    status = exit_failed;
  }
  std::fflush(nullptr);
  _exit(status);
}

jail::outcome outcome_of(int status, bool finished) {
  if (WIFSIGNALED(status)) {
    return {jail::outcome::kind::killed, WTERMSIG(status)};
  }
  if (finished) {
    return {};
  }
  return {jail::outcome::kind::exited, WEXITSTATUS(status)};
}

// What the child says of itself. It may have been written by the library's code just as well.
class message_reader {
public:
  explicit message_reader(const jail::request &request) : request_(request) {}

  void take(const std::string &line) {
    if (request_.on_line && request_.on_line(line)) {
      return;
    }
    const nlohmann::json message = nlohmann::json::parse(line, nullptr, false);
    if (!message.is_object()) {
      return;
    }
    try {
      take(message);
    } catch (const nlohmann::json::exception &) {
      nonsense();
    } catch (const std::logic_error &) {
      nonsense(); // an index out of range
    }
  }

  bool finished() const { return finished_; }

  void throw_failure() const {
    if (status_ != 0) {
      throw failure(status_, text_, next_action_);
    }
  }

private:
  void take(const nlohmann::json &message) {
    if (message.contains("finished")) {
      finished_ = true;
    } else if (message.contains("failure")) {
      const int status = message["failure"].at("status").get<int>();
      const bool known = status == exit_refused || status == exit_in_use || status == exit_usage;
      text_ = message["failure"].at("message").get<std::string>();
      next_action_ = message["failure"].value("next_action", "");
      status_ = known ? status : exit_failed;
    } else {
      request_.on_message(message);
    }
  }

  const jail::request &request_;
  bool finished_ = false;
  int status_ = 0;
  std::string text_;
  std::string next_action_;
};

// Can be read once a second; not open where the system has none to give.
unique_fd each_second() {
  unique_fd clock(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  const itimerspec second = {{1, 0}, {1, 0}};
  timerfd_settime(clock.get(), 0, &second, nullptr);
  return clock;
}

} // namespace

namespace jail {

void channel::send(const nlohmann::json &message) const {
  send_line(message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n');
}

void channel::send_line(std::string_view line) const {
  for (size_t done = 0; done < line.size();) {
    const ssize_t put = write(fd_, line.data() + done, line.size() - done);
    if (put < 0 && errno == EINTR) {
      continue;
    }
    if (put <= 0) {
      _exit(exit_failed); // nobody is there to report to
    }
    done += static_cast<size_t>(put);
  }
}

std::string outcome::text() const {
  switch (how) {
  case kind::killed:
    return std::string("crashed: ") + strsignal(value) + " (signal " + std::to_string(value) + ")";
  case kind::silent:
    return "no answer in time";
  case kind::exited:
    return "ended the process with status " + std::to_string(value);
  case kind::finished:
    break;
  }
  return "finished";
}

outcome run(const request &request) {
  const stop_signal::guard guard;
  pipe_ends trace = open_pipe();
  pipe_ends results = open_pipe();
  const keeper::started kept = keeper::start([&](pid_t parent) {
    live_in_child(request, parent, trace.write.get(), results.write.get());
  });
  trace.write.reset();
  results.write.reset();

  message_reader messages(request);
  line_splitter lines([&](const std::string &line) { messages.take(line); });
  watched_child child(kept.pid, SIGTERM);
  child.watch(results.read.get(), [&](std::string_view piece) { lines(piece); });
  child.watch(trace.read.get(), request.on_trace ? request.on_trace : show_trace);
  const bool in_time = child.wait(request.silence);
  const int status = keeper::verdict_of(kept, in_time ? child.reap() : child.end());
  if (!in_time) {
    return {outcome::kind::silent, 0};
  }
  messages.throw_failure();
  return outcome_of(status, messages.finished());
}

int run_program(const std::vector<std::string> &words, int folder, std::string *errors,
                const std::function<void()> &now_and_then) {
  const stop_signal::guard guard;
  pipe_ends output = open_pipe();
  std::vector<char *> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string &word : words) {
    arguments.push_back(const_cast<char *>(word.c_str()));
  }
  arguments.push_back(nullptr);
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    throw failure(exit_failed, "cannot start a process: " + error_text(errno));
  }
  if (pid == 0) {
    start_child(parent, SIGKILL);
    setpgid(0, 0);
    redirect_streams(output.write.get());
    setenv("LC_ALL", "C", 1);
    if (fchdir(folder) == 0) {
      execvp(arguments[0], arguments.data());
    }
    std::fprintf(stderr, "%s: %s\n", arguments[0], strerror(errno));
    _exit(127);
  }
  setpgid(pid, pid);
  output.write.reset();
  watched_child child(pid, SIGKILL);
  child.watch(output.read.get(), [&](std::string_view piece) {
    if (errors->size() < 4096) {
      errors->append(piece);
    }
  });
  const unique_fd clock = each_second();
  child.watch(clock.get(), [&](std::string_view) { now_and_then(); });
  child.wait(milliseconds(0));
  const int status = child.reap();
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool stderr_takes(milliseconds patience) {
  if (stop_signal::has_come() && patience != milliseconds(0)) {
    return stderr_takes(milliseconds(0));
  }
  pollfd out = {STDERR_FILENO, POLLOUT, 0};
  const timespec limit = {static_cast<time_t>(patience.count() / 1000),
                          static_cast<long>(patience.count() % 1000) * 1000000};
  return ppoll(&out, 1, patience < milliseconds(0) ? nullptr : &limit,
               stop_signal::mask_while_waiting()) == 1;
}

void show_trace(std::string_view text) {
  // So much goes into a pipe that can be written at all.
  constexpr size_t portion = PIPE_BUF;
  static bool stopped = false;
  progress::clear();
  while (!text.empty()) {
    stopped = !stderr_takes(milliseconds(stopped ? 0 : 1000));
    if (stopped) {
      return;
    }
    const ssize_t put = write(STDERR_FILENO, text.data(), std::min(text.size(), portion));
    if (put <= 0) {
      return;
    }
    text.remove_prefix(static_cast<size_t>(put));
  }
}

} // namespace jail
