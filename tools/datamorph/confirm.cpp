#include "confirm.h"

#include <cerrno>
#include <cstdio>

#include <unistd.h>

#include "failure.h"
#include "text.h"

namespace {

// The answer's line; what stands behind it is left for others.
std::string read_line() {
  std::string line;
  for (;;) {
    char letter = 0;
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

void confirm(const std::string &question, bool yes) {
  if (yes || isatty(STDIN_FILENO) != 1 || isatty(STDERR_FILENO) != 1) {
    return;
  }
  std::fputs(("datamorph: " + question + " [y/N] ").c_str(), stderr);
  const std::string answer = upper_case(read_line());
  if (answer != "Y" && answer != "YES") {
    throw failure(exit_refused, "not confirmed, nothing was changed",
                  "answer y, or say --yes beforehand");
  }
}
