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

// Ends a verb. The message is one line: what was wrong, where, and what to do next.
class failure : public std::runtime_error {
public:
  failure(int status, const std::string &message) : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

private:
  int status_;
};

#endif
