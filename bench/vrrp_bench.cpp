// What the conversion of VRRP across 4.2(1) costs on the lab platform, both sides of it, up and
// down: its time beside the same end state reached by direct calls of the stores' engine and by its
// command line, its peak memory, and its time for ten times as many groups.
//
// Works in a root file system below TMPDIR (/tmp otherwise), which should lie on a disk.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "child.h"
#include "figure.h"
#include "support/switch_root.h"
#include "vrrp_floor.h"
#include "vrrp_stores.h"

namespace {

constexpr unsigned k_groups = 100'000;
constexpr unsigned k_many_groups = 1'000'000;
constexpr int k_rounds = 7;
constexpr int k_rounds_of_many = 5;
constexpr double k_limit = 2.0;       // at no less than half the speed
constexpr double k_many_limit = 11.0; // ten times the groups
// An old and a new VR record and a VIP slot of each group, and what a process needs anyway.
constexpr double k_memory_limit = k_groups * (85.0 + 117.0 + 53.0) + 40 * 1048576.0;

using bench::state;

struct direction {
  const char *name;
  state start;
  void (*convert)();
  void (*floor)();
  const char *sql;
};
constexpr direction k_directions[] = {
    {"VRRP upgrade", state::before_4_2_1, bench::convert_up, bench::floor_up, bench::sql_up},
    {"VRRP downgrade", state::from_4_2_1, bench::convert_down, bench::floor_down, bench::sql_down},
};

std::string named(const direction &which, const char *rest) {
  return std::string(which.name) + rest;
}

int outer_root = -1;

// The engine's command line is no part of the switch: it is run from the machine's own root, in
// this one's folder. 127 when there is none.
int run_sqlite(const char *sql) {
  const pid_t child = fork();
  if (child == 0) {
    const int here = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fchdir(outer_root) == 0 && chroot(".") == 0 && fchdir(here) == 0) {
      execlp("sqlite3", "sqlite3", "-batch", "-bail", bench::manager_file, sql, nullptr);
    }
    std::_Exit(127);
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

bench::spent measure(const direction &which, void (*work)(), unsigned groups = k_groups) {
  bench::place_state(groups, which.start);
  return bench::in_child(work);
}

// The end states of both ways, record by record.
void check_end_states(const direction &which) {
  measure(which, which.convert);
  bench::in_child([] { switch_root::write_file("/converted", bench::contents()); });
  measure(which, which.floor);
  bench::in_child([] { switch_root::write_file("/floor", bench::contents()); });
  bench::in_child([] {
    const std::string converted = switch_root::read_file("/converted");
    if (converted.empty() || converted != switch_root::read_file("/floor")) {
      bench::fail("the floor's end state is another one", 0);
    }
  });
}

struct measured {
  double seconds = 0;
  double bytes = 0;
};

bool compare_with_floor(const direction &which, measured *conversion) {
  std::vector<double> converting;
  std::vector<double> floor;
  for (int round = 0; round < k_rounds; ++round) {
    const bench::spent once = measure(which, which.convert);
    converting.push_back(once.seconds);
    conversion->bytes = std::max(conversion->bytes, once.bytes);
    floor.push_back(measure(which, which.floor).seconds);
  }
  conversion->seconds = bench::median(converting);
  return bench::print_ratio(named(which, ", 100,000 groups / in SQLite").c_str(),
                            conversion->seconds * 1e3, bench::median(floor) * 1e3, "ms", k_limit);
}

void compare_with_command_line(const direction &which, const measured &conversion) {
  std::vector<double> samples;
  for (int round = 0; round < k_rounds; ++round) {
    bench::place_state(k_groups, which.start);
    int status = 0;
    samples.push_back(bench::time_of([&] { status = run_sqlite(which.sql); }) * 1e3);
    if (status == 127) {
      std::printf("%s / by sqlite3: not measured, there is no sqlite3 here\n", which.name);
      return;
    }
    if (status != 0) {
      bench::fail("sqlite3", static_cast<unsigned long>(status));
    }
  }
  bench::print_stated(named(which, ", 100,000 groups / by sqlite3").c_str(),
                      conversion.seconds * 1e3, bench::median(samples), "ms");
}

bool compare_sizes(const direction &which) {
  std::vector<double> few;
  std::vector<double> many;
  for (int round = 0; round < k_rounds_of_many; ++round) {
    few.push_back(measure(which, which.convert).seconds * 1e3);
    many.push_back(measure(which, which.convert, k_many_groups).seconds * 1e3);
  }
  return bench::print_ratio(named(which, ", 1,000,000 groups / 100,000").c_str(),
                            bench::median(many), bench::median(few), "ms", k_many_limit);
}

int run(int /*argc*/, char ** /*argv*/) {
  bench::print_header();
  bool holds = true;
  bench::in_child([] { bench::prepare_states(k_groups); });
  for (const direction &which : k_directions) {
    measured conversion;
    check_end_states(which);
    holds &= compare_with_floor(which, &conversion);
    compare_with_command_line(which, conversion);
    holds &= bench::print_ratio(named(which, ", peak memory / its limit").c_str(),
                                conversion.bytes / 1048576, k_memory_limit / 1048576, "MB", 1);
  }
  bench::in_child([] { bench::prepare_states(k_many_groups); });
  for (const direction &which : k_directions) {
    holds &= compare_sizes(which);
  }
  return holds ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  outer_root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  return switch_root::run_inside(argc, argv, run);
}
