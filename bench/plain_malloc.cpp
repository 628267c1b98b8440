// The double's own memory where none is ever refused.
#include <cstdlib>

#include "support/scarce_malloc.h"

void *scarce_malloc::always(size_t size) {
  return std::malloc(size);
}
