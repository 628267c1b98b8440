#include "jail.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "failure.h"
#include "text.h"
#include "unique_fd.h"

namespace {

using clock_type = std::chrono::steady_clock;
using milliseconds = std::chrono::milliseconds;

// ---- Signals -----------------------------------------------------------------------------------

constexpr int stop_signals[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t stop_signal = 0;
int guards = 0;
sigset_t mask_outside;
struct sigaction actions_outside[std::size(stop_signals)];

void note_signal(int number) {
  stop_signal = number;
}

[[noreturn]] void throw_interrupted() {
  throw failure(128 + stop_signal, std::string("stopped by a signal (") + strsignal(stop_signal) +
                                       "); the switch is as it was");
}

// What a child starts with: signals as they were outside of the guard, and death with the parent.
void start_child(pid_t parent) {
  for (size_t at = 0; guards > 0 && at < std::size(stop_signals); ++at) {
    sigaction(stop_signals[at], &actions_outside[at], nullptr);
  }
  std::signal(SIGPIPE, SIG_DFL);
  if (guards > 0) {
    sigprocmask(SIG_SETMASK, &mask_outside, nullptr);
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(exit_failed);
  }
}

// ---- Pipes -------------------------------------------------------------------------------------

struct pipe_ends {
  unique_fd read;
  unique_fd write;
};

pipe_ends open_pipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    throw failure(exit_failed, "cannot open a pipe: " + error_text(errno));
  }
  pipe_ends ends = {unique_fd(fds[0]), unique_fd(fds[1])};
  fcntl(ends.read.get(), F_SETFL, O_NONBLOCK);
  return ends;
}

// Hands over what is there now; at most some, so that a child that writes without end cannot hold
// the parent. False at the pipe's end.
bool drain(int fd, const std::function<void(std::string_view)> &take) {
  char buffer[65536];
  for (int round = 0; round < 16; ++round) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got > 0) {
      take({buffer, static_cast<size_t>(got)});
    } else if (got == 0) {
      return false;
    } else if (errno != EINTR) {
      return errno == EAGAIN;
    }
  }
  return true;
}

// ---- A running child ---------------------------------------------------------------------------

// The parent's side: waits for the child's end and its pipes together.
class watched_child {
public:
  explicit watched_child(pid_t pid)
      : pid_(pid), pidfd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  ~watched_child() {
    if (pid_ > 0) {
      end();
    }
  }
  watched_child(const watched_child &) = delete;
  watched_child &operator=(const watched_child &) = delete;

  void watch(int fd, std::function<void(std::string_view)> take) {
    sources_.push_back({fd, std::move(take), true});
  }

  // Until the child ends. False when nothing came on the first source for `silence`.
  bool wait(milliseconds silence) {
    clock_type::time_point heard = clock_type::now();
    for (;;) {
      if (stop_signal != 0) {
        end();
        throw_interrupted();
      }
      std::vector<pollfd> polled = {{pidfd_.get(), POLLIN, 0}};
      for (const source &source : sources_) {
        polled.push_back({source.open ? source.fd : -1, POLLIN, 0});
      }
      timespec left = {};
      const bool limited = time_left(heard, silence, &left);
      const int ready = ppoll(polled.data(), polled.size(), limited ? &left : nullptr,
                              guards > 0 ? &mask_outside : nullptr);
      if (ready < 0 && errno != EINTR) {
        throw failure(exit_failed, "cannot wait for the work in the switch: " + error_text(errno));
      }
      if (ready > 0 && take_ready(polled)) {
        heard = clock_type::now();
      }
      if (ready > 0 && polled[0].revents != 0) {
        kill(-pid_, SIGKILL); // whoever the child left behind in its group
        drain_all();
        return true;
      }
      if (limited && clock_type::now() - heard >= silence) {
        return false;
      }
    }
  }

  // The child's status as waitpid gives it; the child and all that it started are gone.
  int end() {
    kill(-pid_, SIGKILL);
    kill(pid_, SIGKILL);
    return reap();
  }

  int reap() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = 0;
    return status;
  }

private:
  struct source {
    int fd;
    std::function<void(std::string_view)> take;
    bool open;
  };

  static bool time_left(clock_type::time_point heard, milliseconds silence, timespec *left) {
    if (silence.count() == 0) {
      return false;
    }
    const auto passed = std::chrono::duration_cast<milliseconds>(clock_type::now() - heard);
    const long long rest = std::max(silence - passed, milliseconds(0)).count();
    *left = {static_cast<time_t>(rest / 1000), static_cast<long>(rest % 1000) * 1000000};
    return true;
  }

  // Whether something came on the first source.
  bool take_ready(const std::vector<pollfd> &polled) {
    for (size_t at = 0; at < sources_.size(); ++at) {
      if (polled[at + 1].revents != 0) {
        sources_[at].open = drain(sources_[at].fd, sources_[at].take);
      }
    }
    return polled[1].revents != 0;
  }

  void drain_all() {
    for (source &source : sources_) {
      if (source.open) {
        source.open = drain(source.fd, source.take);
      }
    }
  }

  pid_t pid_;
  unique_fd pidfd_;
  std::vector<source> sources_;
};

// Whole lines out of what comes in pieces.
class line_splitter {
public:
  explicit line_splitter(std::function<void(const std::string &)> take) : take_(std::move(take)) {}
  void operator()(std::string_view piece) {
    for (const char c : piece) {
      if (c != '\n') {
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
                    error_text(error) +
                    "); run it as root, or allow user namespaces on this machine (sysctl "
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
    throw failure(exit_refused, "cannot enter the switch's state: " + error_text(errno) +
                                    "; run as the user that the switch belongs to");
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

void redirect(int trace) {
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing >= 0) {
    dup2(nothing, STDIN_FILENO);
    close(nothing);
  }
  dup2(trace, STDOUT_FILENO);
  dup2(trace, STDERR_FILENO);
}

void send_failure(const jail::channel &channel, int status, const std::string &message) {
  channel.send({{"failure", {{"status", status}, {"message", message}}}});
}

[[noreturn]] void live_in_child(const jail::request &request, pid_t parent, int trace,
                                int results) {
  start_child(parent);
  setpgid(0, 0); // the terminal's signals are the parent's to handle
  redirect(trace);
  const jail::channel channel(results);
  int status = exit_done;
  try {
    request.prepare();
    enter_root(request.root);
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
    send_failure(channel, error.status(), error.what());
    status = exit_failed;
  } catch (const std::exception &error) {
    send_failure(channel, exit_failed, error.what());
    status = exit_failed;
  }
  std::fflush(nullptr);
  _exit(status);
}

void write_to_stderr(std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = write(STDERR_FILENO, text.data(), text.size());
    if (put <= 0) {
      return;
    }
    text.remove_prefix(static_cast<size_t>(put));
  }
}

struct failure_report {
  int status = 0;
  std::string message;
};

jail::outcome outcome_of(int status, bool finished) {
  if (WIFSIGNALED(status)) {
    return {jail::outcome::kind::killed, WTERMSIG(status)};
  }
  if (finished) {
    return {};
  }
  return {jail::outcome::kind::exited, WEXITSTATUS(status)};
}

} // namespace

namespace jail {

void channel::send(const nlohmann::json &message) const {
  std::string line = message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  line += '\n';
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
  const signal_guard guard;
  pipe_ends trace = open_pipe();
  pipe_ends results = open_pipe();
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    throw failure(exit_failed, "cannot start a process: " + error_text(errno));
  }
  if (pid == 0) {
    live_in_child(request, parent, trace.write.get(), results.write.get());
  }
  setpgid(pid, pid);
  trace.write.reset();
  results.write.reset();

  bool finished = false;
  failure_report failed;
  line_splitter lines([&](const std::string &line) {
    const nlohmann::json message = nlohmann::json::parse(line, nullptr, false);
    if (!message.is_object()) {
      return;
    }
    if (message.contains("finished")) {
      finished = true;
    } else if (message.contains("failure")) {
      failed = {message["failure"].value("status", +exit_failed),
                message["failure"].value("message", "")};
    } else {
      request.on_message(message);
    }
  });
  watched_child child(pid);
  child.watch(results.read.get(), [&](std::string_view piece) { lines(piece); });
  child.watch(trace.read.get(), request.on_trace ? request.on_trace : write_to_stderr);
  if (!child.wait(request.silence)) {
    child.end();
    return {outcome::kind::silent, 0};
  }
  const int status = child.reap();
  if (failed.status != 0) {
    throw failure(failed.status, failed.message);
  }
  return outcome_of(status, finished);
}

signal_guard::signal_guard() {
  if (guards++ > 0) {
    return;
  }
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int number : stop_signals) {
    sigaddset(&blocked, number);
  }
  sigprocmask(SIG_BLOCK, &blocked, &mask_outside);
  struct sigaction action = {};
  action.sa_handler = note_signal;
  sigemptyset(&action.sa_mask);
  for (size_t at = 0; at < std::size(stop_signals); ++at) {
    sigaction(stop_signals[at], nullptr, &actions_outside[at]);
    if (actions_outside[at].sa_handler != SIG_IGN) {
      sigaction(stop_signals[at], &action, nullptr);
    }
  }
}

signal_guard::~signal_guard() {
  if (--guards > 0) {
    return;
  }
  sigprocmask(SIG_SETMASK, &mask_outside, nullptr);
  for (size_t at = 0; at < std::size(stop_signals); ++at) {
    sigaction(stop_signals[at], &actions_outside[at], nullptr);
  }
}

void signal_guard::check() {
  // Lets a waiting signal in.
  const timespec at_once = {};
  ppoll(nullptr, 0, &at_once, &mask_outside);
  if (stop_signal != 0) {
    throw_interrupted();
  }
}

int run_program(const std::vector<std::string> &words, int folder, std::string *errors) {
  const signal_guard guard;
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
    start_child(parent);
    setpgid(0, 0);
    redirect(output.write.get());
    setenv("LC_ALL", "C", 1);
    if (fchdir(folder) == 0) {
      execvp(arguments[0], arguments.data());
    }
    std::fprintf(stderr, "%s: %s\n", arguments[0], strerror(errno));
    _exit(127);
  }
  setpgid(pid, pid);
  output.write.reset();
  watched_child child(pid);
  child.watch(output.read.get(), [&](std::string_view piece) {
    if (errors->size() < 4096) {
      errors->append(piece);
    }
  });
  child.wait(milliseconds(0));
  const int status = child.reap();
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace jail
