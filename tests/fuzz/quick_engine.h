// The store engine as a fuzzer needs it: what it does beside reading and writing stores costs more
// than that. One thread uses it, no other process has its files open, and its memory is its own.
#ifndef TESTS_FUZZ_QUICK_ENGINE_H
#define TESTS_FUZZ_QUICK_ENGINE_H

#include <cstddef>

namespace quick_engine {

// Before the engine's first use.
void set_up();
// The blocks of memory that it has now: of a connection that was closed none stays.
size_t blocks();

} // namespace quick_engine

#endif
