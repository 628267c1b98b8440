// How a verb ends, and the exception that ends it early.
#ifndef DATAMORPH_FAILURE_H
#define DATAMORPH_FAILURE_H

#include <stdexcept>
#include <string>

// Exit statuses: scripts rely on them, the numbers never change.
enum exit_status : int {
  exit_done = 0,      // done, or nothing to change
  exit_failed = 1,    // a conversion or the program failed
  exit_different = 2, // compare: the releases differ
  exit_refused = 3,   // refused before anything was touched
  exit_in_use = 5,    // another command is at work on the switch
  exit_usage = 64,    // wrong usage
};

// Ends a verb. what() is one line: what was wrong and where, and behind "; " what to do next, where
// there is more to say of that than the status says of itself.
class failure : public std::runtime_error {
public:
  failure(int status, const std::string &message, const std::string &next_action = "")
      : std::runtime_error(message + (next_action.empty() ? "" : "; " + next_action)),
        status_(status), message_(message), next_action_(next_action) {}
  int status() const { return status_; }
  const std::string &message() const { return message_; }
  const std::string &next_action() const { return next_action_; }
  // The same, with the place before it unless it stands there.
  failure placed(const std::string &place) const {
    return message_.starts_with(place) ? *this
                                       : failure(status_, place + ": " + message_, next_action_);
  }

private:
  int status_;
  std::string message_;
  std::string next_action_;
};

#endif
