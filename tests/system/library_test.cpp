// services and compare with libraries that are none, or that crash as soon as they are loaded.
#include "command.h"

#include <sys/resource.h>

namespace {

class broken_library : public command_test {
protected:
  void expect_refused(const words &arguments, const std::string &message) {
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, 3);
    EXPECT_EQ(refused.out, "");
    EXPECT_NE(refused.err.find(message), std::string::npos) << refused.err;
  }
};

TEST_F(broken_library, one_that_crashes_is_named) {
  in_child = [] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
  };
  const std::string message = "fake_crashing.so': the library crashed: Illegal instruction (signal "
                              "4); name another one with --library\n";

  expect_refused({"services", "--library", fake_crashing}, message);
  expect_refused({"compare", "1.0(1)", "1.0(2)", "--library", fake_crashing}, message);
}

TEST_F(broken_library, one_that_is_none_is_named) {
  expect_refused({"services", "--library", "missing.so"}, "cannot load the conversion library");
  expect_refused({"services", "--library", fake_incomplete}, "it has no datamorph_");
  expect_refused({"compare", "1.0(1)", "1.0(2)", "--library", "/etc/passwd"},
                 "cannot load the conversion library");
}

} // namespace
