// Work inside a switch: a child process that has made the switch's state its root, so that every
// fixed path is the switch's own, and a crash or a hang stays there.
#ifndef DATAMORPH_JAIL_H
#define DATAMORPH_JAIL_H

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>
#include <sys/types.h>

namespace jail {

// The child's end of the pipe on which it reports; each message is one line of JSON.
class channel {
public:
  explicit channel(int fd) : fd_(fd) {}
  void send(const nlohmann::json &message) const;
  // A line as it is, for request::on_line; with its end of line.
  void send_line(std::string_view line) const;

private:
  int fd_;
};

struct request {
  int root = -1; // the folder that becomes the child's root; stays the caller's
  // In the child, before its root changes: what needs the host's files.
  std::function<void()> prepare = [] {};
  // In the child, in its root. Whatever it throws is thrown to the parent again.
  std::function<void(const channel &)> body;
  // In the parent: each message that the child sent.
  std::function<void(const nlohmann::json &)> on_message = [](const nlohmann::json &) {};
  // In the parent: each line of the child before it is taken for a message; true when it was none.
  std::function<bool(const std::string &)> on_line;
  // In the parent: what the child wrote to its standard output and error, as it comes. Without it
  // that is shown (show_trace).
  std::function<void(std::string_view)> on_trace;
  // The child is killed when it sends nothing for so long; 0 is no limit.
  std::chrono::milliseconds silence{0};
};

struct outcome {
  enum class kind { finished, exited, killed, silent };
  kind how = kind::finished;
  int value = 0; // the exit status or the signal
  bool finished() const { return how == kind::finished; }
  std::string text() const; // "crashed: Segmentation fault (signal 11)"
};

// Runs the child to its end; nothing that it started is left then. Throws what the child threw; a
// failure of 3 when the root cannot be changed, of 1 when the child's messages make no sense, of
// 128 and the number when a signal asked this program to stop.
outcome run(const request &request);

// Runs a program of the host (found by PATH) to its end, in `folder`; dies with this process.
// Its exit status, 128 and the signal; what it wrote to standard error in *errors. `now_and_then`
// is called while it runs, each second.
int run_program(const std::vector<std::string> &words, int folder, std::string *errors,
                const std::function<void()> &now_and_then);

// Whether standard error takes a few lines without blocking, waiting at most so long for its reader
// (negative: without limit). False when a signal asks the program to stop.
bool stderr_takes(std::chrono::milliseconds patience);

// Writes to standard error what its reader takes; the rest is dropped when that one stands still.
void show_trace(std::string_view text);

} // namespace jail

#endif
