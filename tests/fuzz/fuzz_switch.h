// The switch of the fuzz targets: the platform double, silent, in the process's own folders.
#ifndef TESTS_FUZZ_FUZZ_SWITCH_H
#define TESTS_FUZZ_FUZZ_SWITCH_H

#include "fuzz/bytes_source.h"
#include "libdatamorph_private.h"
#include "support/platform_double.h"

namespace fuzz_switch {

inline constexpr mts_q_handle_t queue = 7;

// An empty switch, and the library as its process started.
void reset();
// Ends the process when a store or a message was left.
void expect_tidy();

} // namespace fuzz_switch

#endif
