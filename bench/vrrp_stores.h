// The switch states that the VRRP figures start from and end at, as stores of the lab.
#ifndef BENCH_VRRP_STORES_H
#define BENCH_VRRP_STORES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "figure.h"
#include "libdatamorph.h"

namespace bench {

inline constexpr char manager_uri[] = "nonvolatile:/cfg/0/bin/vrrp-cfg_config_sav";
inline constexpr char engine_uri[] = "nonvolatile:/cfg/0/bin/vrrp-eng_runtime_config";
inline constexpr char temporary_uri[] = "nonvolatile:/tmp/vrrp-startup-pss";
// The same as files, from the root without its slash.
inline constexpr char manager_file[] = "cfg/0/bin/vrrp-cfg_config_sav.pss";
inline constexpr char engine_file[] = "cfg/0/bin/vrrp-eng_runtime_config.pss";
inline constexpr char temporary_file[] = "tmp/vrrp-startup-pss.pss";

inline constexpr size_t old_vr_size = 85;
inline constexpr size_t new_vr_size = 117;
inline constexpr size_t vip_size = 33;

// The groups of a switch before 4.2(1), with one address each: 2 * groups + 1 records, as the
// library's callers are given them, keys in no order that a tree could profit from.
struct vrrp_record {
  std::string key;
  std::string value;
};
std::vector<vrrp_record> make_groups(unsigned groups);

// Makes the two states and puts them aside: the manager's store full and no engine's store, and
// what the upgrade makes of that.
void prepare_states(unsigned groups);
// Puts a prepared state in place, on disk, and removes what stands there.
enum class state { before_4_2_1, from_4_2_1 };
void place_state(unsigned groups, state which);

// Both sides of a change of release, as the system manager has them called.
void convert_up();
void convert_down();

// What the stores hold, read through the lab, which checks each record.
std::string contents();

} // namespace bench

#endif
