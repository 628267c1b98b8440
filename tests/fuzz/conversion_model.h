// What a conversion makes of a switch's stores, worked out from the rules a second time, in another
// way than the library does: records in = converted + removed by rule + left alone. For paths whose
// names the library does not cut, and stores whose limits all that is written fits.
#ifndef TESTS_FUZZ_CONVERSION_MODEL_H
#define TESTS_FUZZ_CONVERSION_MODEL_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/platform_double.h"

namespace conversion_model {

using stores_t = std::map<std::string, platform_double::records_t>;

struct request {
  std::string path;
  std::string to;
  std::string from;
  std::optional<std::string> image_to; // none: the image cannot be read
  std::optional<std::string> image_from;
  bool npv_mode = false;
  std::string answer;       // the system manager's to a request for a tag, 4 bytes or more
  uint32 largest_value = 0; // that the port index manager's store allows
};

struct outcome {
  stores_t stores;
  syserr_t status = 0;
  std::vector<std::string> left_open;
};

// The moments' dispatch tables: what a request for each service runs, row by row.
using row_fn = void (*)(const request &asked, outcome *switch_state);
struct row {
  const char *moment; // gsync, startup, running-fs
  uint32 uuid;
  row_fn convert;
};
extern const std::vector<row> rows;

} // namespace conversion_model

#endif
