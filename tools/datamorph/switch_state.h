// What a switch knows of itself: the file switch.json in its state.
#ifndef DATAMORPH_SWITCH_STATE_H
#define DATAMORPH_SWITCH_STATE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/types.h"

// The conversion moments, in the order in which a version change meets them.
enum class moment { gsync, running_fs, startup };
inline constexpr std::array<moment, 3> all_moments = {moment::gsync, moment::running_fs,
                                                      moment::startup};
const char *moment_name(moment which);

struct switch_state {
  std::string name;
  std::string release;
  uint64_t generation = 1; // grows with each conversion
  std::vector<vdc_id_t> vdcs;
  std::string running_cfg_dir;
  std::array<std::string, 3> paths; // by moment, of VDC 1
  std::string package;

  // The directory that a request of this moment and VDC carries.
  std::string path_of(moment which, vdc_id_t vdc) const;

  nlohmann::json to_json() const;
  // Writes the file of a state's folder, all or nothing. Throws failure(1).
  void save(int folder) const;
  // Throws failure(3) saying which member is wrong.
  static switch_state from_json(const nlohmann::json &document);
};

inline constexpr char switch_file[] = "switch.json";

#endif
