// malloc, calloc and realloc of a test program that links the platform double, refused where a test
// wants it, and counted. Those of shared libraries, operator new's among them, are not touched; the
// double's are never refused.
#ifndef TESTS_SUPPORT_SCARCE_MALLOC_H
#define TESTS_SUPPORT_SCARCE_MALLOC_H

#include <cstddef>

namespace scarce_malloc {

// The n-th call from now on fails, once; 1 is the next one.
void refuse_nth(unsigned n);
// That one and all later calls fail.
void refuse_from(unsigned n);
// Calls for blocks of exactly this size fail.
void refuse_size(size_t size);
// None fail any more. Whether one did since the last relieve().
bool relieve();

// How many blocks malloc, calloc and realloc have given that were not freed yet. Exact over a
// stretch in which only the library and the double allocate and free.
long live_blocks();

// For the double's own use: never refused, nor one of the numbered calls.
void *always(size_t size);

} // namespace scarce_malloc

#endif
