// Records of VRRP that have one key in several of a VDC's stores. A change brings them together in
// one store, so only one of them stays there.
#ifndef DATAMORPH_VRRP_RIVALS_H
#define DATAMORPH_VRRP_RIVALS_H

#include <array>
#include <map>
#include <set>
#include <string>

#include "state_diff.h"

// The stores that VRRP's records of a VDC may be in, and which are there before and after.
struct vrrp_move {
  std::array<std::string, 3> stores;
  const std::set<std::string> &before;
  const std::set<std::string> &after;
};

// The keys, in hex, by the store, of records whose value is nowhere afterwards though a record of
// their key is: that one came from another store. Throws failure as diff_states does.
std::map<std::string, std::set<std::string>>
records_that_gave_way(const vrrp_move &move, const state_side &before, const state_side &after);

#endif
