// Loads, and has one of the entry points only.
#include "platform/mts.h"

extern "C" __attribute__((visibility("default"))) void libdatamorph_init(mts_q_handle_t) {}
