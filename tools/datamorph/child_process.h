// A process that the program starts and watches: its end and what it writes, waited for together.
#ifndef DATAMORPH_CHILD_PROCESS_H
#define DATAMORPH_CHILD_PROCESS_H

#include <chrono>
#include <functional>
#include <string_view>
#include <vector>

#include <poll.h>
#include <sys/types.h>

#include "unique_fd.h"

struct pipe_ends {
  unique_fd read; // does not block
  unique_fd write;
};

// Throws failure(1).
pipe_ends open_pipe();

// What a new child does first: signals as they were outside of the guard, and `death` when its
// parent dies. Ends the child when `parent` is dead already.
void start_child(pid_t parent, int death);

// The child's standard input is empty, its output and error go to `trace`.
void redirect_streams(int trace);

class watched_child {
public:
  // `end_signal`: SIGKILL goes to the child and its group; any other asks the child alone, which
  // ends soon then.
  watched_child(pid_t pid, int end_signal);
  ~watched_child();
  watched_child(const watched_child &) = delete;
  watched_child &operator=(const watched_child &) = delete;

  void watch(int fd, std::function<void(std::string_view)> take) {
    sources_.push_back({fd, std::move(take), true});
  }

  // Until the child ends. False when nothing came on the first source for `silence` (0: no limit).
  // Throws when a signal asked this program to stop; the child is gone then.
  bool wait(std::chrono::milliseconds silence);

  // Ends the child; its status as waitpid gives it.
  int end();
  int reap();

private:
  using clock = std::chrono::steady_clock;
  struct source {
    int fd;
    std::function<void(std::string_view)> take;
    bool open;
  };
  bool time_left(clock::time_point heard, std::chrono::milliseconds silence, timespec *left) const;
  bool has_ended(const std::vector<pollfd> &polled, int ready) const;
  bool take_ready(const std::vector<pollfd> &polled);
  void take_rest();

  pid_t pid_;
  int end_signal_;
  unique_fd pidfd_; // not open where the kernel has none
  std::vector<source> sources_;
};

#endif
