#include "confirm.h"

#include <cerrno>
#include <cstdio>

#include <poll.h>
#include <unistd.h>

#include "failure.h"
#include "stop_signal.h"
#include "text.h"

namespace {

// Until something was typed. A signal that asks the program to stop ends the wait.
void wait_for_keys() {
  pollfd in = {STDIN_FILENO, POLLIN, 0};
  while (ppoll(&in, 1, nullptr, stop_signal::mask_while_waiting()) < 0 && errno == EINTR &&
         !stop_signal::has_come()) {
  }
  stop_signal::check();
}

// The answer's line; what stands behind it is left for others.
std::string read_line() {
  std::string line;
  for (;;) {
    char letter = 0;
    wait_for_keys();
    const ssize_t got = read(STDIN_FILENO, &letter, 1);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      std::fputs("\n", stderr); // the cursor stands behind the question
      return line;
    }
    if (letter == '\n') {
      return line;
    }
    line += letter;
  }
}

} // namespace

bool can_ask() {
  return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

void confirm(const std::string &question, bool yes) {
  if (yes || !can_ask()) {
    return;
  }
  std::fputs(("datamorph: " + question + " [y/N] ").c_str(), stderr);
  const std::string answer = upper_case(read_line());
  if (answer != "Y" && answer != "YES") {
    throw failure(exit_refused, "not confirmed, nothing was changed",
                  "answer y, or say --yes beforehand");
  }
}
