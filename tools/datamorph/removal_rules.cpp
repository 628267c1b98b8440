#include "removal_rules.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <iterator>

#include "platform/types.h"
#include "text.h"

namespace {

constexpr char older_software[] = "older software builds the store anew";
constexpr char numbers_fold[] =
    "the numbers of a slot fold onto its first one, where the record of the highest stays";
constexpr char cache[] = "a cache that is built anew";
constexpr char no_such_tlv[] = "the other release keeps no such configuration";
constexpr char not_registered[] = "the database is not registered in the other release";
constexpr char planted_anew[] = "the store is planted anew";
constexpr char replaced[] = "the manager's store takes the place of the engine's";

// A converter that removes records has its row here, or they are unaccounted for.
// clang-format off
constexpr removal_rule rules[] = {
    // routine                                     store                      kind                       why             promise
    {"sksd_data_morph_running_fs_upg",             "*",                       "",                        older_software, promise::nothing},
    {"plugin_data_morph_running_fs_upg",           "*",                       "",                        older_software, promise::nothing},
    {"evms_data_morph_running_fs_upg",             "*",                       "",                        older_software, promise::nothing},
    {"evmc_data_morph_running_fs_upg",             "*",                       "",                        older_software, promise::nothing},
    {"mvsh_data_morph_running_fs_upg",             "*",                       "",                        older_software, promise::nothing},
    {"smm_data_morph_running_fs_upg",              "*",                       "",                        older_software, promise::nothing},
    {"clis_data_morph_running_fs_upg",             "*",                       "",                        older_software, promise::nothing},
    {"epp_in_npv_mode_data_morph_running_fs_upg",  "*",                       "",                        older_software, promise::nothing},
    {"cond_srv1_data_morph_gsync",                 "cond_srv_config",         "",                        planted_anew,   promise::planted},
    {"pixm_data_morph_gsync",                      "pixm_runtime_info",       "LTL record",              numbers_fold,   promise::folded},
    {"pixm_data_morph_gsync",                      "pixm_runtime_info",       "DUAG cache record",       cache,          promise::nothing},
    {"ethpm_data_morph_gsync",                     "ethpm_runtime_cfg",       "interface config TLV",    no_such_tlv,    promise::nothing},
    {"ethpm_data_morph_gsync",                     "ethpm_runtime_cfg",       "interface SI config TLV", no_such_tlv,    promise::nothing},
    {"ethpm_data_morph_startup",                   "ethpm_saved_config",      "interface config TLV",    no_such_tlv,    promise::nothing},
    {"ethpm_data_morph_startup",                   "ethpm_saved_config",      "interface SI config TLV", no_such_tlv,    promise::nothing},
    {"svi_data_morph_psshlpr_upg",                 "globalpss_table",         "snapshot database",       not_registered, promise::nothing},
    {"svi_data_morph_psshlpr_upg",                 "globalpss_table.snp",     "snapshot database",       not_registered, promise::nothing},
    {"vrrp_eng_data_morph_startup_for_upgrade",    "vrrp-eng_runtime_config", "",                        replaced,       promise::replaced},
};
// clang-format on

std::string_view last_part(std::string_view name) {
  return name.substr(name.rfind('/') + 1);
}

std::string kind_of(const state_change &change) {
  return change.a->decoded ? change.a->decoded->kind : "";
}

// The number under this name among the fields of a decoded record; nothing when it has none.
std::optional<uint32> number_in(const state_change &change, const char *name) {
  for (const decoded_field &field : change.a->decoded->fields) {
    if (field.name == name && field.value.is_number_unsigned()) {
      return field.value.get<uint32>();
    }
  }
  return std::nullopt;
}

// The numbers that Q8 has from 4.1(3) on, four for each slot, become the first of the slot's four
// that it has before; those of VDC 1 only.
std::optional<std::string> folded_key(const state_change &change) {
  constexpr uint32 first = 0x10DA;
  constexpr uint32 last = 0x1121;
  constexpr uint32 first_before = 0x1162;
  constexpr uint32 of_a_slot = 4;
  const std::optional<uint32> ltl = number_in(change, "ltl");
  if (!ltl || *ltl < first || *ltl > last || number_in(change, "vdc") != 1) {
    return std::nullopt;
  }
  char key[15];
  std::snprintf(key, sizeof key, "36%08x0001",
                first_before + (*ltl - first) / of_a_slot * of_a_slot);
  return key;
}

std::string conditional_key() {
  constexpr auto bytes = std::bit_cast<std::array<char, 4>>(uint32{15});
  return to_hex({bytes.data(), bytes.size()});
}

} // namespace

bool is_vrrp_route(const state_change &change) {
  const std::string kind = kind_of(change);
  return kind == "VR record" || kind == "VIP record";
}

const removal_rule *rule_of(const state_change &change, const std::string &routine) {
  const std::string kind = kind_of(change);
  const auto found =
      std::find_if(std::begin(rules), std::end(rules), [&](const removal_rule &rule) {
        const bool any = rule.store == std::string_view("*");
        const bool here =
            any ? change.name.starts_with("volatile:") : last_part(change.name) == rule.store;
        return here && routine == rule.routine && (*rule.kind == '\0' || kind == rule.kind) &&
               !(rule.keeps == promise::replaced && is_vrrp_route(change));
      });
  return found == std::end(rules) ? nullptr : found;
}

std::optional<std::string> promised_key(const removal_rule &rule, const state_change &change) {
  if (rule.keeps == promise::planted) {
    return conditional_key();
  }
  return rule.keeps == promise::folded ? folded_key(change) : std::nullopt;
}
