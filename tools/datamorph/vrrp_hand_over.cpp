#include "vrrp_hand_over.h"

#include <filesystem>

#include "lab/lab.h"
#include "store_access.h"
#include "text.h"

namespace {

constexpr char between[] = "nonvolatile:/tmp/vrrp-startup-pss";

} // namespace

// Those that may be overwritten last: a record is told where it is safest.
std::array<std::string, 3> vrrp_stores(const switch_state &state, vdc_id_t vdc) {
  const std::string bin = "nonvolatile:" + state.path_of(moment::startup, vdc) + "/bin/";
  return {bin + "vrrp-cfg_config_sav", bin + "vrrp-eng_runtime_config",
          between + (vdc == 1 ? std::string() : std::to_string(vdc) + "/bin")};
}

bool is_vr_or_vip(std::string_view key) {
  return key.starts_with('\1') || key.starts_with('\2');
}

vrrp_places vrrp_records_now(const switch_state &state) {
  vrrp_places places;
  for (const vdc_id_t vdc : state.vdcs) {
    for (const std::string &uri : vrrp_stores(state, vdc)) {
      std::error_code error;
      if (!std::filesystem::exists(lab::store_file(uri), error) && !error) {
        continue;
      }
      store_handle store(uri, PSS2_MODE_READ);
      store.for_each([&](std::string_view key, std::string_view) {
        if (is_vr_or_vip(key)) {
          places[vdc].emplace(key, uri);
        }
      });
      store.close();
    }
  }
  return places;
}

nlohmann::json vrrp_lost(const vrrp_places &before, const vrrp_places &after) {
  nlohmann::json lost = nlohmann::json::object();
  for (const auto &[vdc, records] : before) {
    const auto left = after.find(vdc);
    for (const auto &[key, uri] : records) {
      if (left == after.end() || !left->second.contains(key)) {
        lost[uri] = lost.value(uri, uint64_t(0)) + 1;
      }
    }
  }
  return lost;
}

nlohmann::json vrrp_waiting(const vrrp_places &now) {
  nlohmann::json waiting = nlohmann::json::object();
  for (const auto &[vdc, records] : now) {
    for (const auto &[key, uri] : records) {
      if (uri.starts_with(between)) {
        waiting[uri] = waiting.value(uri, uint64_t(0)) + 1;
      }
    }
  }
  return waiting;
}

std::string vrrp_records_text(const nlohmann::json &counts) {
  constexpr size_t told = 3;
  std::string text;
  size_t at = 0;
  for (const auto &[uri, count] : counts.items()) {
    if (at++ < told) {
      append_word(text, counted(count.get<size_t>(), "VRRP record") + " of " + in_quotes(uri),
                  ", ");
    }
  }
  return at > told ? text + " and those of " + counted(at - told, "more store") : text;
}

std::string vrrp_remedy(const nlohmann::json &lost) {
  bool waited = false;
  for (const auto &[uri, count] : lost.items()) {
    waited = waited || uri.starts_with(between);
  }
  return std::string("give them back to VRRP's manager first: convert from 4.2(1) or later to an "
                     "older release with --moment startup --service VRRP_MGR") +
         (waited ? "" : " --service VRRP_ENG");
}
