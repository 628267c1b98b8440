// Software images: a folder with a file "version", whose first line is the version.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "lab/files.h"
#include "platform/sysmgr.h"

namespace {

constexpr size_t k_longest_version = 255;
constexpr std::string_view k_blanks = " \t\r\v\f";

// The first line without blanks around it; what lies behind a zero byte is no text.
std::string_view first_line(std::string_view text) {
  text = text.substr(0, text.find('\n'));
  text = text.substr(0, text.find('\0'));
  const size_t start = text.find_first_not_of(k_blanks);
  if (start == std::string_view::npos) {
    return {};
  }
  return text.substr(start, text.find_last_not_of(k_blanks) - start + 1);
}

// Empty when it cannot be read.
std::string read_version_file(const char *srg_path) {
  const std::string file = std::string(srg_path) + "/version";
  // Without O_NONBLOCK a FIFO would hold the caller until somebody writes to it.
  const lab::unique_fd fd(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  struct stat found = {};
  if (!fd.good() || fstat(fd.get(), &found) != 0 || !S_ISREG(found.st_mode)) {
    return {};
  }
  char bytes[2 * k_longest_version];
  const ssize_t got = pread(fd.get(), bytes, sizeof(bytes), 0);
  if (got <= 0) {
    return {};
  }
  const std::string_view line = first_line({bytes, static_cast<size_t>(got)});
  return std::string(line.substr(0, k_longest_version));
}

} // namespace

char *srg_sw_ver_file_get(const char *srg_path) {
  static char version[k_longest_version + 1];
  if (srg_path == nullptr || *srg_path == '\0') {
    return nullptr;
  }
  try {
    const std::string found = read_version_file(srg_path);
    std::memcpy(version, found.c_str(), found.size() + 1);
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
  return *version == '\0' ? nullptr : version;
}
