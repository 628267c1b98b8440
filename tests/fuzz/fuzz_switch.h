// The switch of the fuzz targets: the platform double without its log, and the library's fixed
// files in memory.
#ifndef TESTS_FUZZ_FUZZ_SWITCH_H
#define TESTS_FUZZ_FUZZ_SWITCH_H

#include <string>
#include <vector>

#include "fuzz/bytes_source.h"
#include "fuzz/finding.h"
#include "libdatamorph_private.h"
#include "support/platform_double.h"

namespace fuzz_switch {

inline constexpr mts_q_handle_t queue = 7;

// An empty switch, and the library as its process started.
void reset();

// Of stores exactly these are open, and every message was dropped.
void expect_tidy(const std::vector<std::string> &open_stores = {});

} // namespace fuzz_switch

#endif
