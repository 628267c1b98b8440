#include "support/trace_capture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <regex>

#include "support/switch_root.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

const std::string k_succeeded = "File check succeeded\nFile exists\n";
const std::string k_failed = "File check failed\nFile doesn't exist\n";

// Where a sanitizer writes while descriptor 2 is somewhere else.
void report_to(int fd) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
#else
  static_cast<void>(fd);
#endif
}

[[noreturn]] void give_up(const char *what) {
  std::perror(what);
  std::abort();
}

std::string content_of(int fd) {
  std::string text;
  char part[65536];
  off_t at = 0;
  ssize_t size = 0;
  while ((size = pread(fd, part, sizeof(part), at)) > 0) {
    text.append(part, static_cast<size_t>(size));
    at += size;
  }
  return text;
}

class stderr_capture {
public:
  stderr_capture() : file_(memfd_create("stderr", MFD_CLOEXEC)) {
    std::fflush(stderr);
    real_ = dup(STDERR_FILENO);
    if (file_ < 0 || real_ < 0) {
      give_up("trace_capture");
    }
    report_to(real_);
    if (dup2(file_, STDERR_FILENO) < 0) {
      give_up("trace_capture");
    }
  }

  ~stderr_capture() {
    restore();
    close(file_);
  }

  stderr_capture(const stderr_capture &) = delete;
  stderr_capture &operator=(const stderr_capture &) = delete;

  std::string text() {
    restore();
    return content_of(file_);
  }

private:
  void restore() {
    if (real_ < 0) {
      return;
    }
    std::fflush(stderr);
    dup2(real_, STDERR_FILENO);
    report_to(STDERR_FILENO);
    close(real_);
    real_ = -1;
  }

  int file_ = -1;
  int real_ = -1;
};

} // namespace

std::string captured_stderr(const std::function<void()> &call) {
  stderr_capture capture;
  call();
  return capture.text();
}

std::vector<std::string> trace_messages(const std::string &text) {
  std::vector<std::string> messages;
  size_t start = 0;
  while (start < text.size()) {
    const size_t succeeded = text.find(k_succeeded, start);
    const size_t failed = text.find(k_failed, start);
    const size_t end = std::min(succeeded, failed);
    if (end == std::string::npos) {
      messages.push_back(text.substr(start));
      break;
    }
    messages.push_back(text.substr(start, end - start));
    start = end + (succeeded < failed ? k_succeeded.size() : k_failed.size());
  }
  return messages;
}

size_t succeeded_markers(const std::string &text) {
  size_t count = 0;
  for (size_t at = text.find(k_succeeded); at != std::string::npos;
       at = text.find(k_succeeded, at + 1)) {
    ++count;
  }
  return count;
}

std::optional<std::vector<std::string>> log_messages(const std::string &content) {
  static const std::regex prefix("<[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] "
                                 "[0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}> ");
  std::vector<std::string> messages;
  std::sregex_iterator found(content.begin(), content.end(), prefix);
  const std::sregex_iterator none;
  if (content.empty()) {
    return messages;
  }
  if (found == none || found->position() != 0) {
    return std::nullopt;
  }
  while (found != none) {
    const auto start = static_cast<size_t>(found->position() + found->length());
    ++found;
    const size_t end = found == none ? content.size() : static_cast<size_t>(found->position());
    messages.push_back(content.substr(start, end - start));
  }
  return messages;
}

std::vector<std::string> log_lines(bool whole) {
  std::string content = switch_root::read_file("/mnt/pss/data_morph.log");
  if (whole) {
    content = switch_root::read_file("/mnt/pss/data_morph.last") + content;
  }
  const auto messages = log_messages(content);
  EXPECT_TRUE(messages.has_value()) << "a line of the log has no time in front:\n" << content;
  return messages.value_or(std::vector<std::string>());
}
