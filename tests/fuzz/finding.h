// How a fuzz target tells that an input is a finding.
#ifndef TESTS_FUZZ_FINDING_H
#define TESTS_FUZZ_FINDING_H

#include <string>

// Ends the process with this message, on standard error as the program got it.
[[noreturn]] void finding(const std::string &message);

inline void expect(bool holds, const char *message) {
  if (!holds) {
    finding(message);
  }
}

#endif
