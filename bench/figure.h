// A figure beside the floor it is held against, both measured in turn in the same run.
#ifndef BENCH_FIGURE_H
#define BENCH_FIGURE_H

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace bench {

[[noreturn]] inline void fail(const char *what, unsigned long status) {
  std::fprintf(stderr, "bench: %s: 0x%lx\n", what, status);
  std::_Exit(97);
}

inline double seconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename work_t> double time_of(work_t work) {
  const double start = seconds();
  work();
  return seconds() - start;
}

inline double median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  const size_t middle = samples.size() / 2;
  return samples.size() % 2 == 1 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

// The sample that `percent` of them are not above.
inline double percentile(std::vector<double> samples, size_t percent) {
  std::sort(samples.begin(), samples.end());
  return samples[(samples.size() * percent + 99) / 100 - 1];
}

inline void print_header() {
  std::printf("%-58s %14s %14s %7s %7s\n", "figure", "measured", "floor", "ratio", "limit");
}

// Prints one row. True when the ratio is within the limit.
inline bool print_ratio(const char *name, double measured, double floor, const char *unit,
                        double limit) {
  const double ratio = measured / floor;
  const bool holds = ratio <= limit;
  std::printf("%-58s %11.3f %-2s %11.3f %-2s %7.3f %7.2f%s\n", name, measured, unit, floor, unit,
              ratio, limit, holds ? "" : "  MISSED");
  return holds;
}

// The same without a limit.
inline void print_stated(const char *name, double measured, double floor, const char *unit) {
  std::printf("%-58s %11.3f %-2s %11.3f %-2s %7.3f  stated\n", name, measured, unit, floor, unit,
              measured / floor);
}

} // namespace bench

#endif
