#include "support/library_fixture.h"

#include <algorithm>
#include <cstdlib>

namespace {

const char *const k_variables[] = {"SYSMGR_VDC_ID", "SYSMGR_RUNNING_CFG_DIR", "SYSMGR_TO_SRG_PATH",
                                   "SYSMGR_FROM_SRG_PATH"};

void forget_variables() {
  for (const char *name : k_variables) {
    unsetenv(name);
  }
}

// The last messages of `all`, as many as `wanted` has; fewer when it has not that many.
std::vector<std::string> last_of(const std::vector<std::string> &all, size_t wanted) {
  const size_t count = std::min(all.size(), wanted);
  return {all.end() - static_cast<std::ptrdiff_t>(count), all.end()};
}

// What the log can be expected to hold of these messages, when it holds `kept` of them: all, unless
// they are so many that it may have been rotated twice meanwhile, which loses the oldest.
std::vector<std::string> expected_of(const std::vector<std::string> &messages, size_t kept) {
  constexpr size_t prefix = 27;
  constexpr size_t rotated_above = 50000;
  size_t size = 0;
  for (const std::string &message : messages) {
    size += prefix + message.size();
  }
  return size > rotated_above ? last_of(messages, kept) : messages;
}

} // namespace

void library_fixture::SetUp() {
  switch_root::reset();
  platform.reset();
  forget_variables();
}

void library_fixture::TearDown() {
  forget_variables();
  platform.reset();
}

library_fixture::lines_t library_fixture::traced(const std::function<void()> &call) {
  const lines_t messages = traced_without_log(call);
  const lines_t logged = last_of(log_lines(true), messages.size());
  EXPECT_EQ(logged, expected_of(messages, logged.size())) << "the log differs from standard error";
  EXPECT_TRUE(messages.empty() || !logged.empty());
  return messages;
}

library_fixture::lines_t library_fixture::traced_without_log(const std::function<void()> &call) {
  return trace_messages(captured_stderr(call));
}
