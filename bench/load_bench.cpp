// What loading the library costs: dlopen with immediate binding plus libdatamorph_init, beside a
// library that does nothing but the trace line's system calls; and its size when stripped.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "figure.h"
#include "platform/mts.h"
#include "support/switch_root.h"

namespace {

constexpr int k_rounds = 500;
constexpr double k_size_limit = 150 * 1024; // bytes

// The files are opened by name again and again, so they are copied into the root beforehand.
std::string g_library;
std::string g_floor;

template <typename function_t> double load(const std::string &file, const char *init) {
  return bench::time_of([&] {
    void *library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      std::printf("%s\n", dlerror());
      std::_Exit(97);
    }
    reinterpret_cast<function_t>(dlsym(library, init))(1);
    dlclose(library);
  });
}

void copy_in(const std::string &name, const std::string &content) {
  switch_root::write_file(name, content);
  chmod(name.c_str(), 0755);
}

int run(int /*argc*/, char ** /*argv*/) {
  const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(quiet, 2);
  copy_in("/lib/libdatamorph.so.1", g_library);
  copy_in("/lib/libfloor.so", g_floor);
  using init_t = void (*)(mts_q_handle_t);
  load<init_t>("/lib/libdatamorph.so.1", "libdatamorph_init"); // creates the marker

  std::vector<double> library;
  std::vector<double> floor;
  for (int i = 0; i < k_rounds; ++i) {
    library.push_back(load<init_t>("/lib/libdatamorph.so.1", "libdatamorph_init") * 1e6);
    floor.push_back(load<init_t>("/lib/libfloor.so", "floor_init") * 1e6);
  }
  bench::print_header();
  const double measured = bench::median(library);
  const double bare = bench::median(floor);
  std::printf("%-58s %11.3f %-2s %11.3f %-2s %7.3f       -\n",
              "dlopen and libdatamorph_init / a library of one C function", measured, "us", bare,
              "us", measured / bare);
  return 0;
}

bool print_size(const char *stripped) {
  struct stat status = {};
  if (stat(stripped, &status) != 0) {
    std::printf("cannot read %s\n", stripped);
    return false;
  }
  return bench::print_ratio("size of the stripped library / 150 KiB",
                            static_cast<double>(status.st_size), k_size_limit, "B", 1.0);
}

} // namespace

int main(int argc, char **argv) {
  g_library = switch_root::read_file(BENCH_STRIPPED_LIBRARY);
  g_floor = switch_root::read_file(BENCH_FLOOR_LIBRARY);
  const int status = switch_root::run_inside(argc, argv, run);
  return print_size(BENCH_STRIPPED_LIBRARY) ? status : 1;
}
