// Work in a process of its own, with its time and its highest resident memory.
#ifndef BENCH_CHILD_H
#define BENCH_CHILD_H

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "figure.h"

namespace bench {

struct spent {
  double seconds = 0;
  double note = 0;  // what the child said of itself at its end
  double bytes = 0; // resident at most
};

inline double nothing_to_note() {
  return 0;
}

// The work's failures end the child with a status, and this program with it.
template <typename work_t> spent in_child(work_t work, double (*note)() = nothing_to_note) {
  int ends[2] = {};
  const pid_t child = pipe(ends) == 0 ? fork() : -1;
  if (child == 0) {
    const double took = time_of(work);
    const double said[] = {took, note()};
    const bool told = write(ends[1], said, sizeof(said)) == sizeof(said);
    std::_Exit(told ? 0 : 96);
  }
  spent result;
  int status = 1;
  rusage usage = {};
  double said[2] = {};
  const bool heard =
      child > 0 && close(ends[1]) == 0 && read(ends[0], said, sizeof(said)) == sizeof(said);
  if (!heard || wait4(child, &status, 0, &usage) != child || status != 0) {
    std::fprintf(stderr, "bench: the work in a process of its own failed\n");
    std::_Exit(96);
  }
  close(ends[0]);
  result.seconds = said[0];
  result.note = said[1];
  result.bytes = static_cast<double>(usage.ru_maxrss) * 1024;
  return result;
}

} // namespace bench

#endif
