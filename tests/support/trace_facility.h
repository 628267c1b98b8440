// The system manager's trace facility for a test: what is written to it while this object lives.
#ifndef TESTS_SUPPORT_TRACE_FACILITY_H
#define TESTS_SUPPORT_TRACE_FACILITY_H

#include <cstdio>
#include <string>
#include <vector>

#include "platform/types.h"

class trace_facility {
public:
  explicit trace_facility(uint32 level_mask);
  ~trace_facility(); // the facility has no stream again
  trace_facility(const trace_facility &) = delete;
  trace_facility &operator=(const trace_facility &) = delete;

  // The lines that were flushed so far, without the time, which is checked: "<2048> message". The
  // running test fails when a line has no time or no line end.
  std::vector<std::string> lines() const;

private:
  FILE *stream_;
  int reader_;
};

#endif
