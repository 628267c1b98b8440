// Releases and the VDCs of paths, read a second time, in another way than the library does.
#ifndef TESTS_FUZZ_RELEASE_MODEL_H
#define TESTS_FUZZ_RELEASE_MODEL_H

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <string>

namespace release_model {

// The number that a text starts with, at most the largest of 32 bits.
inline int64_t leading_number(const std::string &text) {
  const std::string digits = text.substr(0, text.find_first_not_of("0123456789"));
  const size_t zeros = std::min(digits.find_first_not_of('0'), digits.size());
  const std::string number = digits.substr(zeros);
  if (number.size() > 10) {
    return INT_MAX;
  }
  return number.empty() ? 0 : std::min<int64_t>(std::stoll(number), INT_MAX);
}

// Its first three numbers; 16 characters count.
inline std::array<int64_t, 3> numbers(const std::string &release) {
  std::array<int64_t, 3> found = {};
  std::string rest = release.substr(0, 16);
  for (int64_t &number : found) {
    const size_t start = std::min(rest.find_first_not_of(".()"), rest.size());
    const size_t end = std::min(rest.find_first_of(".()", start), rest.size());
    number = leading_number(rest.substr(start, end - start));
    rest = rest.substr(end);
  }
  return found;
}

inline int order(const std::string &a, const std::string &b) {
  const auto one = numbers(a);
  const auto other = numbers(b);
  return one == other ? 0 : one < other ? -1 : 1;
}

// Of the text behind "/vdc_": the low 16 bits of its number, which is cut to 32 bits.
inline uint16_t vdc_of(const std::string &text) {
  const size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == std::string::npos) {
    return 0;
  }
  const bool negative = text[start] == '-';
  const size_t first = start + (negative || text[start] == '+' ? 1 : 0);
  const std::string digits =
      text.substr(first, text.find_first_not_of("0123456789", first) - first);
  const size_t zeros = std::min(digits.find_first_not_of('0'), digits.size());
  const std::string number = digits.substr(zeros);
  const int64_t value = number.empty()       ? 0
                        : number.size() > 12 ? INT64_C(1) << 40
                                             : std::stoll(number);
  const int64_t cut = std::clamp<int64_t>(negative ? -value : value, INT_MIN, INT_MAX);
  return static_cast<uint16_t>(cut & 0xFFFF);
}

} // namespace release_model

#endif
