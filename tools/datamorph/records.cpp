#include "records.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "lab/lab.h"
#include "tag_tables.h"
#include "text.h"
#include "vrrp_records.h"

namespace {

using field_list = std::vector<decoded_field>;

// Takes the fields of a key or of a value; false when it is none of this kind.
using field_reader = bool (*)(std::string_view bytes, field_list *fields);

// ---- Keys --------------------------------------------------------------------------------------

// Keys that are always the same bytes. Those in the byte order of the network come as they lie.
constexpr std::array<char, 12> dot1x_key = {0x64, 0x0a};
constexpr std::array<char, 8> port_security_key = {};
constexpr auto kps_key = std::bit_cast<std::array<char, 4>>(uint32{240});
constexpr auto conditional_key = std::bit_cast<std::array<char, 4>>(uint32{15});

template <const auto &bytes> bool exactly(std::string_view key, field_list *) {
  return key == std::string_view(bytes.data(), bytes.size());
}

bool vdc_key(std::string_view key, field_list *fields) {
  const std::optional<vdc_id_t> vdc = vdc_of_running_key(key);
  if (vdc) {
    fields->push_back({"vdc", *vdc, "vdc " + std::to_string(*vdc)});
  }
  return vdc.has_value();
}

// ---- Values ------------------------------------------------------------------------------------

void add_enabled(bool enabled, field_list *fields) {
  fields->push_back({"enabled", enabled, enabled ? "enabled yes" : "enabled no"});
}

template <auto read> bool tag_table(std::string_view value, field_list *fields) {
  const std::optional<nlohmann::json> entries = read(value);
  if (entries) {
    fields->push_back({"entries", *entries, tag_entries_text(*entries)});
  }
  return entries.has_value();
}

// Its first number decides; what follows is the service's own.
bool starts_with_flag(std::string_view value, field_list *fields) {
  uint32 flag = 0;
  if (value.size() < sizeof(flag)) {
    return false;
  }
  std::memcpy(&flag, value.data(), sizeof(flag));
  add_enabled(flag != 0, fields);
  return true;
}

bool is_flag(std::string_view value, field_list *fields) {
  return value.size() == sizeof(uint32) && starts_with_flag(value, fields);
}

// That the record stands is all that counts.
bool any_value(std::string_view, field_list *fields) {
  add_enabled(true, fields);
  return true;
}

// ---- The kinds ---------------------------------------------------------------------------------

// Stores of a name in any folder; or of a whole path, which starts with a slash, with a star at the
// end for all that go on from there.
struct store_set {
  const char *scheme;
  const char *store;
};

struct record_kind {
  const char *kind;
  const char *scheme;
  const char *store; // both as in store_set
  field_reader key;
  field_reader value;
};

// clang-format off
constexpr record_kind kinds[] = {
    // kind                       scheme          store                       key                             value
    {"tag table",                 "nonvolatile:", "sysmgr_config",            exactly<saved_tag_table_key>,   tag_table<tag_entries>},
    {"tag table",                 "volatile:",    "/sysmgr/tag_tables",       vdc_key,                        tag_table<running_tag_entries>},
    {"DOT1X feature flag",        "nonvolatile:", "dot1x_saved_config",       exactly<dot1x_key>,             starts_with_flag},
    {"ETH_PORT_SEC feature flag", "nonvolatile:", "eth_port_sec_saved_config", exactly<port_security_key>,    starts_with_flag},
    {"KPS feature flag",          "nonvolatile:", "kps_saved_config",         exactly<kps_key>,               any_value},
    {"conditional service",       "volatile:",    "cond_srv_config",          exactly<conditional_key>,       is_flag},
};
// clang-format on

// Where VRRP's records stand: with the manager before 4.2(1), with the engine from then on, and in
// a store for the time between.
constexpr store_set vrrp_stores[] = {
    {"nonvolatile:", "vrrp-cfg_config_sav"},
    {"nonvolatile:", "vrrp-eng_runtime_config"},
    {"nonvolatile:", "/tmp/vrrp-startup-pss*"},
    {"nonvolatile:", "/tmp/vrrp-pss*"},
};

bool is_in(const store_set &set, const std::string &uri) {
  const std::string whole = std::string(set.scheme) + set.store;
  if (whole.ends_with('*')) {
    return uri.starts_with(whole.substr(0, whole.size() - 1));
  }
  if (set.store[0] == '/') {
    return lab::store_file(uri) == lab::store_file(whole);
  }
  return uri.starts_with(set.scheme) && uri.substr(uri.rfind('/') + 1) == set.store;
}

} // namespace

nlohmann::json decoded_record::to_json() const {
  nlohmann::json document = {{"kind", kind}};
  for (const decoded_field &field : fields) {
    document[field.name] = field.value;
  }
  if (damaged) {
    document["damaged"] = true;
  }
  return document;
}

std::string decoded_record::to_text() const {
  std::string text;
  for (const decoded_field &field : fields) {
    if (!field.text.empty()) {
      append_word(text, field.text, ", ");
    }
  }
  if (damaged) {
    append_word(text, "damaged", ", ");
  }
  return std::string(kind) + ": " + text;
}

std::optional<decoded_record> decode_record(const std::string &uri, std::string_view key,
                                            std::string_view value) {
  for (const record_kind &row : kinds) {
    decoded_record record = {row.kind, false, {}};
    if (is_in({row.scheme, row.store}, uri) && row.key(key, &record.fields)) {
      record.damaged = !row.value(value, &record.fields);
      return record;
    }
  }
  const bool of_vrrp = std::any_of(std::begin(vrrp_stores), std::end(vrrp_stores),
                                   [&](const store_set &set) { return is_in(set, uri); });
  return of_vrrp ? decode_vrrp_record(key, value) : std::nullopt;
}
