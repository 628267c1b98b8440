/* The smallest library that does what loading the real one must: be mapped, be bound, trace. */
#include "trace_floor.h"

void floor_init(unsigned queue);

void floor_init(unsigned queue) {
  (void)queue;
  trace_floor("libdatamorph_init: datamorph_mts_q = 1\n");
}
