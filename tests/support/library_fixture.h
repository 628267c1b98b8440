// The fixture of the library's unit tests: a fresh root, a fresh platform double, none of the
// system manager's environment variables, and the lines that a call traces.
#ifndef TESTS_SUPPORT_LIBRARY_FIXTURE_H
#define TESTS_SUPPORT_LIBRARY_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/platform_double.h"
#include "support/switch_root.h"
#include "support/trace_capture.h"

class library_fixture : public testing::Test {
protected:
  using lines_t = std::vector<std::string>;

  void SetUp() override;
  void TearDown() override;

  // The messages that `call` traces, each with its own "\n", without the marker lines. The test
  // fails when the conversion log does not hold exactly the same messages.
  static lines_t traced(const std::function<void()> &call);
  // The same where there is no log to compare with (a log that cannot be written).
  static lines_t traced_without_log(const std::function<void()> &call);

  platform_double &platform = double_platform();
};

#endif
