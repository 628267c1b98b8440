// A library whose own code does not survive being loaded.
#include <csignal>
#include <cstdio>

namespace {

struct crash {
  crash() {
    std::puts("NOISE ON STANDARD OUTPUT");
    std::fflush(stdout);
    std::signal(SIGILL, SIG_DFL);
    std::raise(SIGILL);
  }
} at_once;

} // namespace
