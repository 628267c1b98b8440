// VRRP's virtual routers and their addresses on their way from one service to the other: the
// library replaces stores by what another one holds at that moment, so a change that is made once
// more, or only half, can leave them nowhere. What is lost or waits is found by looking.
#ifndef DATAMORPH_VRRP_HAND_OVER_H
#define DATAMORPH_VRRP_HAND_OVER_H

#include <array>
#include <map>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "switch_state.h"

// The stores that VRRP's records of a VDC may be in: the manager's, the engine's, the one between.
std::array<std::string, 3> vrrp_stores(const switch_state &state, vdc_id_t vdc);

// Where the VR and VIP records of a VDC stand, by their key: the store's URI.
using vrrp_places = std::map<vdc_id_t, std::map<std::string, std::string>>;

// Whether such a key is one of these records'.
bool is_vr_or_vip(std::string_view key);

// Those of the manager, the engine and the stores between the two at the startup moment. Reads in
// the root of the process; throws failure for a store that cannot be read.
vrrp_places vrrp_records_now(const switch_state &state);

// How many of `before` are in no store of their VDC any more, by the store that they stood in.
nlohmann::json vrrp_lost(const vrrp_places &before, const vrrp_places &after);
// How many stand in stores between the two services only, by that store.
nlohmann::json vrrp_waiting(const vrrp_places &now);

// "8 VRRP records of 'nonvolatile:...'"; the first few stores of such a list. Empty when it is.
std::string vrrp_records_text(const nlohmann::json &counts);
// What to do before a conversion that would lose these.
std::string vrrp_remedy(const nlohmann::json &lost);

#endif
