// What the conversion log costs: one line beside the bare system calls, a startup request that
// finds nothing to do beside the bare lines that it must write.

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "figure.h"
#include "libdatamorph_private.h"
#include "support/switch_root.h"
#include "trace_floor.h"

namespace {

constexpr int k_rounds = 3000;

// What a startup request from and to "4.2(1)" must write.
constexpr const char *k_idle_lines[] = {
    "datamorph_startup_all: calling convert function for uuid = 0xdb\n",
    "Returning Success\n",
    "datamorph_startup_all: calling convert function for uuid = 0x21e\n",
    "kps_data_morph_startup: path = /cfg/0, pkg_name = system, to_ver = 4.2(1), from_ver = "
    "4.2(1)\n",
    "datamorph_startup_all: calling convert function for uuid = 0x17d\n",
    "dot1x_data_morph_startup: path = /cfg/0, pkg_name = system, to_ver = 4.2(1), from_ver = "
    "4.2(1)\n",
    "datamorph_startup_all: calling convert function for uuid = 0x132\n",
    "Ethpm - Path - /cfg/0 \n",
    "Ethpm pss uri: nonvolatile:/cfg/0/bin/ethpm_saved_config\n",
    "pss uri: nonvolatile:/cfg/0/bin/ethpm_saved_config does not exist 0x40480002\n",
    "datamorph_startup_all: calling convert function for uuid = 0xb\n",
    "datamorph_startup_all: calling convert function for uuid = 0x44\n",
    "datamorph_startup_all: calling convert function for uuid = 0x44\n",
    "datamorph_startup_all: calling convert function for uuid = 0xb\n",
};

// Alternates both, so that the disk's moods meet both alike. Medians, in microseconds.
template <typename measured_t, typename floor_t>
bool compare(const char *name, double limit, measured_t measured, floor_t floor) {
  std::vector<double> measured_samples;
  std::vector<double> floor_samples;
  for (int i = 0; i < k_rounds; ++i) {
    measured_samples.push_back(bench::time_of(measured) * 1e6);
    floor_samples.push_back(bench::time_of(floor) * 1e6);
  }
  return bench::print_ratio(name, bench::median(measured_samples), bench::median(floor_samples),
                            "us", limit);
}

int run(int /*argc*/, char ** /*argv*/) {
  const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(quiet, 2);
  datamorph_args_t args = {"/cfg/0", "system", "4.2(1)", "4.2(1)"};
  DATAMORPH_TRACE("start\n"); // creates the marker

  bench::print_header();
  bool holds = compare(
      "one trace line / its system calls in C", 1.15,
      [] { DATAMORPH_TRACE("%s: calling convert function for uuid = 0x%x\n", "bench", 0xdbu); },
      [] { trace_floor("bench: calling convert function for uuid = 0xdb\n"); });
  holds &= compare(
      "startup request with nothing to do / its bare trace lines", 1.10,
      [&] {
        if (datamorph_startup_all(&args) != 0) {
          std::_Exit(97);
        }
      },
      [] {
        for (const char *line : k_idle_lines) {
          DATAMORPH_TRACE("%s", line);
        }
      });
  return holds ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  return switch_root::run_inside(argc, argv, run);
}
