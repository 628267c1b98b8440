#include "losses.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "store_access.h"
#include "text.h"
#include "vrrp_hand_over.h"

namespace {

constexpr uint64_t kept = 1000;

// Why a record may go. A converter that removes records has its row here, or they are unaccounted
// for.
struct removal_rule {
  const char *routine;
  const char *store; // its name, behind the last '/' of a store or file; "*": any volatile one
  const char *kind;  // of the decoded record; "": any
  const char *why;
};

constexpr char older_software[] = "older software builds the store anew";
constexpr char numbers_fold[] =
    "the numbers of a slot fold onto its first one, where the record of the highest stays";
constexpr char cache[] = "a cache that is built anew";
constexpr char no_such_tlv[] = "the other release keeps no such configuration";
constexpr char not_registered[] = "the database is not registered in the other release";
constexpr char accepted_loss[] = "accepted with --accept-losses";
constexpr char replaced[] = "the manager's store takes the place of the engine's";

constexpr removal_rule rules[] = {
    {"sksd_data_morph_running_fs_upg", "*", "", older_software},
    {"plugin_data_morph_running_fs_upg", "*", "", older_software},
    {"evms_data_morph_running_fs_upg", "*", "", older_software},
    {"evmc_data_morph_running_fs_upg", "*", "", older_software},
    {"mvsh_data_morph_running_fs_upg", "*", "", older_software},
    {"smm_data_morph_running_fs_upg", "*", "", older_software},
    {"clis_data_morph_running_fs_upg", "*", "", older_software},
    {"epp_in_npv_mode_data_morph_running_fs_upg", "*", "", older_software},
    {"cond_srv1_data_morph_gsync", "cond_srv_config", "", "the store is planted anew"},
    {"pixm_data_morph_gsync", "pixm_runtime_info", "LTL record", numbers_fold},
    {"pixm_data_morph_gsync", "pixm_runtime_info", "DUAG cache record", cache},
    {"ethpm_data_morph_gsync", "ethpm_runtime_cfg", "interface config TLV", no_such_tlv},
    {"ethpm_data_morph_gsync", "ethpm_runtime_cfg", "interface SI config TLV", no_such_tlv},
    {"ethpm_data_morph_startup", "ethpm_saved_config", "interface config TLV", no_such_tlv},
    {"ethpm_data_morph_startup", "ethpm_saved_config", "interface SI config TLV", no_such_tlv},
    {"svi_data_morph_psshlpr_upg", "globalpss_table", "snapshot database", not_registered},
    {"svi_data_morph_psshlpr_upg", "globalpss_table.snp", "snapshot database", not_registered},
    {"vrrp_eng_data_morph_startup_for_upgrade", "vrrp-eng_runtime_config", "", replaced},
};

std::string_view last_part(std::string_view name) {
  return name.substr(name.rfind('/') + 1);
}

bool is_vrrp_route(const state_change &change) {
  const std::string kind = change.a->decoded ? change.a->decoded->kind : "";
  return kind == "VR record" || kind == "VIP record";
}

std::string rule_of(const state_change &change, const std::string &routine) {
  const std::string kind = change.a->decoded ? change.a->decoded->kind : "";
  for (const removal_rule &rule : rules) {
    const bool any = rule.store == std::string_view("*");
    const bool here =
        any ? change.name.starts_with("volatile:") : last_part(change.name) == rule.store;
    if (here && routine == rule.routine && (*rule.kind == '\0' || kind == rule.kind) &&
        !(rule.why == replaced && is_vrrp_route(change))) {
      return rule.why;
    }
  }
  return "";
}

uint64_t hash_of(const std::string &key) {
  return std::hash<std::string>()(key);
}

using hashes = std::vector<uint64_t>;

bool has(const hashes &sorted, const std::string &key) {
  return std::binary_search(sorted.begin(), sorted.end(), hash_of(key));
}

nlohmann::json step_json(const std::optional<size_t> &step) {
  return step ? nlohmann::json(*step) : nlohmann::json();
}

} // namespace

nlohmann::json lost_record::to_json() const {
  nlohmann::json document = value;
  document["store"] = store;
  document["key"] = key;
  document["step"] = step_json(step);
  document["why"] = why.empty() ? nlohmann::json() : nlohmann::json(why);
  return document;
}

nlohmann::json lost_field::to_json() const {
  return {{"store", store}, {"key", key},   {"kind", kind},           {"field", name},
          {"value", value}, {"text", text}, {"step", step_json(step)}};
}

nlohmann::json record_balance::to_json() const {
  return {{"records_in", in},
          {"converted", converted},
          {"removed_by_rule", by_rule},
          {"unaccounted", unaccounted()}};
}

std::string record_balance::to_text() const {
  return counted(in, "record") + " in, " + std::to_string(converted) + " converted, " +
         std::to_string(by_rule) + " removed by rule, " + std::to_string(unaccounted()) +
         " unaccounted";
}

loss_report::loss_report(const switch_state &state, std::set<std::string> before,
                         std::set<std::string> after, author_finder author_of, bool accepted)
    : before_(std::move(before)), after_(std::move(after)), author_of_(std::move(author_of)),
      accepted_(accepted) {
  for (const vdc_id_t vdc : state.vdcs) {
    const auto uris = vrrp_stores(state, vdc);
    for (const std::string &uri : uris) {
      moving_store store = {uri, {uri}, false};
      std::remove_copy(uris.begin(), uris.end(), std::back_inserter(store.places), uri);
      moving_.push_back(store);
    }
  }
}

loss_report::moving_store *loss_report::moving(const std::string &uri) {
  const auto found = std::find_if(moving_.begin(), moving_.end(),
                                  [&](const moving_store &store) { return store.uri == uri; });
  return found == moving_.end() ? nullptr : &*found;
}

void loss_report::take(const state_change &change, const change_author &author) {
  if (!change.key) {
    return;
  }
  if (change.how == state_change::what::changed) {
    take_fields(change, author);
    return;
  }
  if (change.how != state_change::what::removed) {
    return;
  }
  moving_store *const store = moving(change.name);
  if (store != nullptr) {
    store->lost_some = true;
    return;
  }
  ++removed_;
  take_record(change, rule_of(change, author.routine), author);
}

void loss_report::take_record(const state_change &change, const std::string &why,
                              const change_author &author) {
  ++records_total_;
  balance_.by_rule += why.empty() ? 0 : 1;
  // One without a reason never goes missing among those that have one.
  if (why.empty() ? records_.size() - known_kept_ == kept : known_kept_ == kept) {
    return;
  }
  known_kept_ += why.empty() ? 0 : 1;
  records_.push_back({shown_uri(change.name), *change.key, change.a->to_json(),
                      change.a->decoded ? change.a->decoded->to_text() : change.a->value,
                      author.step, why});
}

void loss_report::take_fields(const state_change &change, const change_author &author) {
  if (change.undecoded()) {
    return; // nobody knows its fields
  }
  for (const field_change &field : change.fields()) {
    if (!field.b.is_null()) {
      continue;
    }
    if (fields_total_++ < kept) {
      fields_.push_back({shown_uri(change.name), *change.key, change.a->decoded->kind, field.name,
                         field.a, field.text.substr(0, field.text.rfind(" -> ")), author.step});
    }
  }
}

// A record of it that is in none of the places is lost; fields of one that is may be.
void loss_report::look_for(const moving_store &store, const state_side &before,
                           const state_side &after) {
  const auto side_of = [](const state_side &state, const std::string &uri) {
    return state_side{state.label, state.root, uri};
  };
  hashes missing;
  bool first = true; // all are missing until then
  for (const std::string &place : store.places) {
    if (!after_.contains(place)) {
      continue;
    }
    hashes not_here;
    diff_states(side_of(before, store.uri), side_of(after, place), [&](const state_change &change) {
      if (!change.key || !(first || has(missing, *change.key))) {
        return;
      }
      if (change.how == state_change::what::removed) {
        not_here.push_back(hash_of(*change.key));
      } else if (change.how == state_change::what::changed && place != store.uri) {
        take_fields(change, author_of_(change));
      }
    });
    std::sort(not_here.begin(), not_here.end());
    missing = std::move(not_here);
    first = false;
  }
  if (!first && missing.empty()) {
    return;
  }
  for_each_record(side_of(before, store.uri), [&](const state_change &change) {
    if (first || has(missing, *change.key)) {
      const change_author author = author_of_(change);
      ++removed_;
      take_record(change,
                  accepted_ && is_vrrp_route(change) ? accepted_loss
                                                     : rule_of(change, author.routine),
                  author);
    }
  });
}

void loss_report::end(const state_side &before, const state_side &after,
                      const record_totals &totals) {
  for (const moving_store &store : moving_) {
    if (store.lost_some && before_.contains(store.uri)) {
      look_for(store, before, after);
    }
  }
  balance_.in = totals.a;
  balance_.converted = totals.a - removed_ - totals.uncompared;
}
