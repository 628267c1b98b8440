// The main() of all test programs that run in a root of their own.
#include <gtest/gtest.h>

#include "support/switch_root.h"

namespace {

int run_tests(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

} // namespace

int main(int argc, char **argv) {
  return switch_root::run_inside(argc, argv, run_tests);
}
