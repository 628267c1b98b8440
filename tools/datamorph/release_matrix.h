// Which change of release does what: every pair of a switch's releases, rehearsed.
#ifndef DATAMORPH_RELEASE_MATRIX_H
#define DATAMORPH_RELEASE_MATRIX_H

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "scratch_folder.h"
#include "state_diff.h"
#include "switch_state.h"
#include "verbs.h"

struct matrix_cell {
  std::string from;
  std::string to;
  const char *outcome = "nothing"; // of it: "acts" when the state is another one, "fails"
  uint64_t changes = 0;            // records, and things such as stores
  std::vector<std::string> services;
  std::vector<std::string> routines; // that made the changes
  std::string text;                  // why it fails, or in words what it does

  nlohmann::json to_json() const;
};

struct matrix_work {
  const common_options &common;
  const convert_options &options; // `to` and `from` are the matrix's own
  const scratch_folder &scratch;
  int root; // the state's folder, which nothing is written to
  const switch_state &state;
};

// The releases that the state has images of. Throws failure.
std::vector<std::string> image_releases(const state_side &side);

// Each ordered pair of different releases, row by row. The state that a row begins with is
// converted to its release first. Throws failure for what no rehearsal can begin with.
void rehearse_pairs(const matrix_work &work, const std::vector<std::string> &releases,
                    const std::function<void(const matrix_cell &)> &take);

#endif
