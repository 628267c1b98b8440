// A process between the program and the work in a switch. Whatever the work starts, in sessions of
// its own too, becomes the keeper's child at last and is ended by it: when the work is done, when
// the program asks for it, and when the program dies. It holds the switch's lock for so long.
#ifndef DATAMORPH_KEEPER_H
#define DATAMORPH_KEEPER_H

#include <functional>

#include <sys/types.h>

#include "unique_fd.h"

namespace keeper {

struct started {
  pid_t pid = -1;    // the keeper; SIGTERM makes it end the work
  unique_fd verdict; // for verdict_of
};

// Starts a keeper, and below it `work` (which does not return; it gets its parent's number). Throws
// failure(1).
started start(const std::function<void(pid_t)> &work);

// After the keeper has ended with `keeper_status`: the work's status as waitpid gives it. Throws
// failure(1) when a process that the work started could not be ended.
int verdict_of(const started &kept, int keeper_status);

} // namespace keeper

#endif
