#include "support/bytes.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace {

int digit(char c) {
  const auto code = static_cast<unsigned char>(c);
  if (std::isdigit(code) != 0) {
    return c - '0';
  }
  return std::isxdigit(code) != 0 ? std::tolower(code) - 'a' + 10 : -1;
}

} // namespace

std::string bytes(const std::string &hex) {
  std::string found;
  int high = -1;
  for (const char c : hex) {
    const int value = digit(c);
    const bool blank = std::isspace(static_cast<unsigned char>(c)) != 0;
    if (value < 0 ? !blank || high >= 0 : false) {
      std::fprintf(stderr, "bytes: no hexadecimal text: %s\n", hex.c_str());
      std::abort();
    }
    if (value < 0) {
      continue;
    }
    if (high >= 0) {
      found.push_back(static_cast<char>(high * 16 + value));
    }
    high = high >= 0 ? -1 : value;
  }
  if (high >= 0) {
    std::fprintf(stderr, "bytes: a digit is missing: %s\n", hex.c_str());
    std::abort();
  }
  return found;
}

std::string hex(const void *data, size_t size) {
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    char digits[4];
    std::snprintf(digits, sizeof(digits), "%s%02x", i == 0 ? "" : " ",
                  static_cast<const unsigned char *>(data)[i]);
    text += digits;
  }
  return text;
}

std::string hex(const std::string &bytes) {
  return hex(bytes.data(), bytes.size());
}
