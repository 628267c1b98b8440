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
  double bytes = 0; // resident at most
};

// The work's failures end the child with a status, and this program with it.
template <typename work_t> spent in_child(work_t work) {
  int ends[2] = {};
  const pid_t child = pipe(ends) == 0 ? fork() : -1;
  if (child == 0) {
    const double took = time_of(work);
    const bool told = write(ends[1], &took, sizeof(took)) == sizeof(took);
    std::_Exit(told ? 0 : 96);
  }
  spent result;
  int status = 1;
  rusage usage = {};
  const bool heard = child > 0 && close(ends[1]) == 0 &&
                     read(ends[0], &result.seconds, sizeof(double)) == sizeof(double);
  if (!heard || wait4(child, &status, 0, &usage) != child || status != 0) {
    std::fprintf(stderr, "bench: the work in a process of its own failed\n");
    std::_Exit(96);
  }
  close(ends[0]);
  result.bytes = static_cast<double>(usage.ru_maxrss) * 1024;
  return result;
}

} // namespace bench

#endif
