// Memory that gives out: the C++ allocations of this program can be made to fail.
#ifndef TESTS_LAB_SCARCE_MEMORY_H
#define TESTS_LAB_SCARCE_MEMORY_H

#include <cstddef>

namespace scarce_memory {

// Every allocation of `size` bytes and more fails from here on.
void refuse_from(size_t size);
// The n-th allocation from here on fails (0: the next one), once.
void refuse_nth(long n);
// All succeed again.
void relieve();

} // namespace scarce_memory

#endif
