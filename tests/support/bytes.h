// Bytes as hexadecimal text, for records in tests.
#ifndef TESTS_SUPPORT_BYTES_H
#define TESTS_SUPPORT_BYTES_H

#include <cstddef>
#include <string>

// "0a 0B0c" gives three bytes; blanks and line ends are ignored. Anything else ends the test
// program with a message.
std::string bytes(const std::string &hex);

// Three bytes give "0a 0b 0c".
std::string hex(const std::string &bytes);
std::string hex(const void *data, size_t size);

#endif
