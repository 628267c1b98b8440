#include "stop_signal.h"

#include <cstring>
#include <iterator>
#include <string>

#include <poll.h>

#include "failure.h"

namespace {

constexpr int stop_signals[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t noted = 0;
int guards = 0;
sigset_t mask_outside;
struct sigaction actions_outside[std::size(stop_signals)];

void note_signal(int number) {
  noted = number;
}

} // namespace

namespace stop_signal {

guard::guard() {
  if (guards++ > 0) {
    return;
  }
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int number : stop_signals) {
    sigaddset(&blocked, number);
  }
  sigprocmask(SIG_BLOCK, &blocked, &mask_outside);
  struct sigaction action = {};
  action.sa_handler = note_signal;
  sigemptyset(&action.sa_mask);
  for (size_t at = 0; at < std::size(stop_signals); ++at) {
    sigaction(stop_signals[at], nullptr, &actions_outside[at]);
    if (actions_outside[at].sa_handler != SIG_IGN) {
      sigaction(stop_signals[at], &action, nullptr);
    }
  }
}

guard::~guard() {
  if (--guards > 0) {
    return;
  }
  sigprocmask(SIG_SETMASK, &mask_outside, nullptr);
  for (size_t at = 0; at < std::size(stop_signals); ++at) {
    sigaction(stop_signals[at], &actions_outside[at], nullptr);
  }
}

bool has_come() {
  return noted != 0;
}

void throw_interrupted() {
  throw failure(128 + noted, std::string("stopped by a signal (") + strsignal(noted) + ")");
}

void check() {
  const timespec at_once = {};
  ppoll(nullptr, 0, &at_once, mask_while_waiting());
  if (has_come()) {
    throw_interrupted();
  }
}

const sigset_t *mask_while_waiting() {
  return guards > 0 ? &mask_outside : nullptr;
}

void restore_in_child() {
  if (guards == 0) {
    return;
  }
  for (size_t at = 0; at < std::size(stop_signals); ++at) {
    sigaction(stop_signals[at], &actions_outside[at], nullptr);
  }
  sigprocmask(SIG_SETMASK, &mask_outside, nullptr);
}

} // namespace stop_signal
