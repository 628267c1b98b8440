#include "child_process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "failure.h"
#include "stop_signal.h"
#include "text.h"

namespace {

using milliseconds = std::chrono::milliseconds;

// How often a child is asked after where its end cannot be polled.
constexpr milliseconds glance(100);

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

} // namespace

pipe_ends open_pipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    throw failure(exit_failed, "cannot open a pipe: " + error_text(errno));
  }
  pipe_ends ends = {unique_fd(fds[0]), unique_fd(fds[1])};
  fcntl(ends.read.get(), F_SETFL, O_NONBLOCK);
  return ends;
}

void start_child(pid_t parent, int death) {
  std::signal(SIGPIPE, SIG_DFL);
  stop_signal::restore_in_child();
  prctl(PR_SET_PDEATHSIG, death);
  if (getppid() != parent) {
    _exit(exit_failed);
  }
}

void redirect_streams(int trace) {
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing >= 0) {
    dup2(nothing, STDIN_FILENO);
    close(nothing);
  }
  dup2(trace, STDOUT_FILENO);
  dup2(trace, STDERR_FILENO);
}

watched_child::watched_child(pid_t pid, int end_signal)
    : pid_(pid), end_signal_(end_signal),
      pidfd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}

watched_child::~watched_child() {
  if (pid_ > 0) {
    end();
  }
}

bool watched_child::wait(milliseconds silence) {
  clock::time_point heard = clock::now();
  for (;;) {
    if (stop_signal::has_come()) {
      end();
      stop_signal::throw_interrupted();
    }
    std::vector<pollfd> polled = {{pidfd_.get(), POLLIN, 0}};
    for (const source &source : sources_) {
      polled.push_back({source.open ? source.fd : -1, POLLIN, 0});
    }
    timespec left = {};
    const bool limited = time_left(heard, silence, &left);
    const int ready = ppoll(polled.data(), polled.size(), limited ? &left : nullptr,
                            stop_signal::mask_while_waiting());
    if (ready < 0 && errno != EINTR) {
      throw failure(exit_failed, "cannot wait for the work in the switch: " + error_text(errno));
    }
    if (ready > 0 && take_ready(polled)) {
      heard = clock::now();
    }
    if (has_ended(polled, ready)) {
      if (end_signal_ == SIGKILL) {
        kill(-pid_, SIGKILL); // whoever the child left behind in its group
      }
      take_rest();
      return true;
    }
    if (silence.count() > 0 && clock::now() - heard >= silence) {
      return false;
    }
  }
}

int watched_child::end() {
  if (end_signal_ == SIGKILL) {
    kill(-pid_, SIGKILL);
  }
  kill(pid_, end_signal_);
  return reap();
}

int watched_child::reap() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = 0;
  return status;
}

bool watched_child::time_left(clock::time_point heard, milliseconds silence, timespec *left) const {
  const bool glances = !pidfd_.is_open();
  if (silence.count() == 0 && !glances) {
    return false;
  }
  milliseconds rest = glance;
  if (silence.count() > 0) {
    const auto passed = std::chrono::duration_cast<milliseconds>(clock::now() - heard);
    const milliseconds remaining = std::max(silence - passed, milliseconds(0));
    rest = glances ? std::min(glance, remaining) : remaining;
  }
  *left = {static_cast<time_t>(rest.count() / 1000),
           static_cast<long>(rest.count() % 1000) * 1000000};
  return true;
}

bool watched_child::has_ended(const std::vector<pollfd> &polled, int ready) const {
  if (pidfd_.is_open()) {
    return ready > 0 && polled[0].revents != 0;
  }
  siginfo_t about = {};
  return waitid(P_PID, static_cast<id_t>(pid_), &about, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         about.si_pid == pid_;
}

// Whether something came on the first source.
bool watched_child::take_ready(const std::vector<pollfd> &polled) {
  for (size_t at = 0; at < sources_.size(); ++at) {
    if (polled[at + 1].revents != 0) {
      sources_[at].open = drain(sources_[at].fd, sources_[at].take);
    }
  }
  return polled[1].revents != 0;
}

void watched_child::take_rest() {
  for (source &source : sources_) {
    if (source.open) {
      source.open = drain(source.fd, source.take);
    }
  }
}
