#include "keeper.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child_process.h"
#include "failure.h"
#include "text.h"

namespace {

// For a process that stands in the kernel; all others are gone at once.
constexpr auto patience = std::chrono::seconds(30);

struct verdict {
  int status;
  bool all_gone;
};

// The parent of a process; 0 when it is gone.
pid_t parent_of(const char *pid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%.20s/stat", pid);
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  char text[512] = "";
  const ssize_t got = file.is_open() ? read(file.get(), text, sizeof text - 1) : -1;
  // The name before it may hold anything, brackets too.
  const char *after = got > 0 ? std::strrchr(text, ')') : nullptr;
  if (after == nullptr || std::strlen(after) < 4) {
    return 0;
  }
  return static_cast<pid_t>(std::strtol(after + 4, nullptr, 10));
}

void kill_children() {
  DIR *processes = opendir("/proc");
  if (processes == nullptr) {
    return;
  }
  while (const dirent *entry = readdir(processes)) {
    const auto pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (pid > 0 && parent_of(entry->d_name) == getpid()) {
      kill(pid, SIGKILL);
    }
  }
  closedir(processes);
}

// Takes the children that have ended; the worker's status in *status. False when none is left.
bool reap_ended(pid_t worker, int *status, bool *worker_ended) {
  for (;;) {
    int one = 0;
    const pid_t pid = waitpid(-1, &one, WNOHANG | __WALL);
    if (pid <= 0) {
      return pid == 0 || errno != ECHILD;
    }
    if (pid == worker) {
      *status = one;
      *worker_ended = true;
    }
  }
}

// Ends everything below this process. False when something is left.
bool end_all(pid_t worker, int *status, bool worker_ended) {
  const auto until = std::chrono::steady_clock::now() + patience;
  if (!worker_ended) {
    kill(-worker, SIGKILL);
    kill(worker, SIGKILL);
  }
  while (reap_ended(worker, status, &worker_ended)) {
    if (std::chrono::steady_clock::now() > until) {
      return false;
    }
    kill_children();
    const timespec pause = {0, 2000000};
    nanosleep(&pause, nullptr);
  }
  return true;
}

void wait_for(const sigset_t &signals, pid_t worker, int *status, bool *worker_ended) {
  while (!*worker_ended) {
    const int number = sigwaitinfo(&signals, nullptr);
    if (number > 0 && number != SIGCHLD) {
      return;
    }
    reap_ended(worker, status, worker_ended);
  }
}

[[noreturn]] void keep(pid_t parent, int verdicts, const std::function<void(pid_t)> &work) {
  setpgid(0, 0); // the terminal's signals are the program's to handle
  std::signal(SIGCHLD, SIG_DFL);
  sigset_t signals;
  sigset_t outside;
  sigemptyset(&signals);
  for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&signals, number);
  }
  start_child(parent, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, &outside);
  if (getppid() != parent) {
    _exit(exit_failed); // it died before its signal was waited for
  }
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t self = getpid();
  const pid_t worker = fork();
  if (worker == 0) {
    close(verdicts);
    sigprocmask(SIG_SETMASK, &outside, nullptr);
    start_child(self, SIGKILL);
    setpgid(0, 0);
    work(self);
    _exit(exit_failed);
  }
  if (worker < 0) {
    _exit(exit_failed);
  }
  setpgid(worker, worker);
  int status = 0;
  bool worker_ended = false;
  wait_for(signals, worker, &status, &worker_ended);
  const bool all_gone = end_all(worker, &status, worker_ended);
  const verdict said = {status, all_gone};
  const bool written = write(verdicts, &said, sizeof said) == sizeof said;
  _exit(written ? exit_done : exit_failed);
}

} // namespace

namespace keeper {

started start(const std::function<void(pid_t)> &work) {
  pipe_ends verdicts = open_pipe();
  std::fflush(nullptr);
  const pid_t parent = getpid();
  started kept;
  kept.pid = fork();
  if (kept.pid < 0) {
    throw failure(exit_failed, "cannot start a process: " + error_text(errno));
  }
  if (kept.pid == 0) {
    keep(parent, verdicts.write.get(), work);
  }
  setpgid(kept.pid, kept.pid);
  kept.verdict = std::move(verdicts.read);
  return kept;
}

int verdict_of(const started &kept, int keeper_status) {
  verdict said = {};
  if (read(kept.verdict.get(), &said, sizeof said) != sizeof said) {
    return keeper_status; // it was killed itself; the work died with it
  }
  if (!said.all_gone) {
    throw failure(exit_failed, "a process that it started in the switch cannot be ended");
  }
  return said.status;
}

} // namespace keeper
