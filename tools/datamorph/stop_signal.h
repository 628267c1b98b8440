// Signals that ask the program to stop: while it works on a switch they are noted, and seen only at
// the places that ask.
#ifndef DATAMORPH_STOP_SIGNAL_H
#define DATAMORPH_STOP_SIGNAL_H

#include <csignal>

namespace stop_signal {

// While one of these stands, SIGINT, SIGTERM and SIGHUP do not end the program where it happens to
// be.
class guard {
public:
  guard();
  ~guard();
  guard(const guard &) = delete;
  guard &operator=(const guard &) = delete;
};

// Whether one has come; throw_interrupted throws failure(128 and its number).
bool has_come();
[[noreturn]] void throw_interrupted();

// Lets a waiting signal in, and throws when one has come.
void check();

// The mask for ppoll while waiting; null outside of a guard.
const sigset_t *mask_while_waiting();

// In a new child: the signals as they were outside of the guard.
void restore_in_child();

} // namespace stop_signal

#endif
