// Threads that no signal is delivered to.
#ifndef LAB_SIGNALS_OFF_H
#define LAB_SIGNALS_OFF_H

#include <signal.h>

namespace lab {

// While one stands, its thread gets no signals, and the threads that are made meanwhile never get
// any: signals are for the program's own threads, which wait for answers.
class signals_off {
public:
  signals_off() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~signals_off() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  signals_off(const signals_off &) = delete;
  signals_off &operator=(const signals_off &) = delete;

private:
  sigset_t before_;
};

} // namespace lab

#endif
