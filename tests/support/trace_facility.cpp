#include "support/trace_facility.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/sysmgr.h"

namespace {

[[noreturn]] void give_up() {
  std::perror("trace_facility");
  std::abort();
}

// "<Thu Jan  1 00:00:00 1970> ".
bool has_time(const std::string &line) {
  constexpr size_t width = 27;
  return line.size() >= width && line[0] == '<' && line[14] == ':' && line[17] == ':' &&
         line.compare(25, 2, "> ") == 0;
}

} // namespace

trace_facility::trace_facility(uint32 level_mask) {
  reader_ = memfd_create("facility", MFD_CLOEXEC);
  const int writer = reader_ < 0 ? -1 : dup(reader_);
  stream_ = writer < 0 ? nullptr : fdopen(writer, "w");
  if (stream_ == nullptr) {
    give_up();
  }
  debug_trace_fac_SYSMGR = {stream_, level_mask};
}

trace_facility::~trace_facility() {
  debug_trace_fac_SYSMGR = {nullptr, 0};
  std::fclose(stream_);
  close(reader_);
}

std::vector<std::string> trace_facility::lines() const {
  std::string text(1 << 20, '\0');
  const ssize_t size = pread(reader_, text.data(), text.size(), 0);
  if (size < 0) {
    give_up();
  }
  text.resize(static_cast<size_t>(size));
  std::vector<std::string> found;
  for (size_t start = 0; start < text.size();) {
    const size_t end = text.find('\n', start);
    EXPECT_NE(std::string::npos, end) << "no line end: " << text.substr(start);
    const std::string line = text.substr(start, end == std::string::npos ? end : end + 1 - start);
    EXPECT_TRUE(has_time(line)) << line;
    found.push_back(has_time(line) ? line.substr(27) : line);
    start += line.size();
  }
  return found;
}
