#include "records.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>

#include "lab/lab.h"
#include "platform/tlv_array.h"
#include "services.h"
#include "tag_tables.h"
#include "text.h"
#include "vrrp_records.h"

namespace {

using field_list = std::vector<decoded_field>;

// Takes the fields of a key or of a value; false when it is none of this kind.
using field_reader = bool (*)(std::string_view bytes, field_list *fields);

// Most significant byte first.
uint32 network_number(std::string_view bytes) {
  uint32 number = 0;
  for (const char byte : bytes) {
    number = number << 8 | static_cast<unsigned char>(byte);
  }
  return number;
}

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

// The forwarding index (LTL) of VDC 1 or another: its type, its number, its VDC.
bool ltl_key(std::string_view key, field_list *fields) {
  if (key.size() != 7 || key[0] != 0x36) {
    return false;
  }
  const uint32 ltl = network_number(key.substr(1, 4));
  const uint32 vdc = network_number(key.substr(5, 2));
  fields->push_back({"ltl", ltl, "ltl 0x" + to_hex(key.substr(1, 4))});
  fields->push_back({"vdc", vdc, "vdc " + std::to_string(vdc)});
  return true;
}

// What is behind the type is the service's own.
bool cache_key(std::string_view key, field_list *fields) {
  if (key.size() != 7 || key[0] != 0x3A) {
    return false;
  }
  const std::string rest = to_hex(key.substr(1));
  fields->push_back({"cache_key", rest, "cache key " + rest});
  return true;
}

// A record of an interface: type, subtype, the interface's index; more may follow.
template <char type, char subtype> bool interface_key(std::string_view key, field_list *fields) {
  if (key.size() < 6 || key[0] != type || key[1] != subtype) {
    return false;
  }
  const std::string index = "0x" + to_hex(key.substr(2, 4));
  fields->push_back({"interface", index, "interface " + index});
  return true;
}

// The URI of a global snapshot database, with its terminator.
bool database_key(std::string_view key, field_list *fields) {
  if (key.size() < 2 || key.find('\0') != key.size() - 1) {
    return false;
  }
  key.remove_suffix(1);
  fields->push_back({"database", is_utf8(key) ? std::string(key) : to_text(key),
                     "database \"" + to_text(key) + "\""});
  return true;
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

// Nothing of it is known.
bool opaque(std::string_view, field_list *) {
  return true;
}

// A callback record (type 2) whose fifth byte, its kind of LTL, says Q8.
bool is_q8_item(uint16 type, std::string_view value) {
  return type == 2 && value.size() > 4 && static_cast<unsigned char>(value[4]) == 253;
}

// What a TLV array holds, up to its end or to where it is cut.
struct tlv_array_content {
  nlohmann::json items = nlohmann::json::array();
  std::string text;
  bool q8 = false;
  bool whole = false;
};

tlv_array_content content_of(const tlv_array_t *array) {
  tlv_array_content found;
  const uint32 count = tlv_array_get_num_tlvs(array, 1);
  uint32 cursor = 0;
  uint16 type = 0;
  uint16 length = 0;
  uint8 *value = nullptr;
  for (uint32 at = 0; at < count; ++at) {
    tlv_array_get_next_tlv(array, &type, &length, &value, 1, &cursor);
    found.items.push_back({{"type", type}, {"length", length}});
    append_word(found.text, "TLV " + std::to_string(type) + " of " + counted(length, "byte"), ", ");
    found.q8 = found.q8 || is_q8_item(type, {reinterpret_cast<const char *>(value), length});
  }
  found.whole = tlv_array_get_next_tlv(array, &type, &length, &value, 1, &cursor) == SYSERR_TLV_END;
  return found;
}

bool ltl_value(std::string_view value, field_list *fields) {
  const auto *const array = reinterpret_cast<const tlv_array_t *>(value.data());
  if (value.size() < TLV_ARRAY_HEADER_SIZE || tlv_array_size_get(array, 1) > value.size()) {
    return false;
  }
  tlv_array_content content = content_of(array);
  fields->push_back({"q8", content.q8, content.q8 ? "Q8 yes" : "Q8 no"});
  fields->push_back({"tlvs", std::move(content.items), content.text});
  return content.whole;
}

// A TLV in which byte 13 of the whole is the reason for the port's state.
bool runtime_value(std::string_view value, field_list *fields) {
  constexpr size_t reason_at = 13;
  if (value.size() <= reason_at) {
    return false;
  }
  const unsigned reason = static_cast<unsigned char>(value[reason_at]);
  fields->push_back({"reason", reason, "reason " + std::to_string(reason)});
  return true;
}

uint32 host_number(std::string_view bytes) {
  uint32 number = 0;
  std::memcpy(&number, bytes.data(), sizeof(number));
  return number;
}

// Where the database's changes are multicast, its owner, its VDC.
bool database_value(std::string_view value, field_list *fields) {
  if (value.size() != 12) {
    return false;
  }
  char multicast[16];
  std::snprintf(multicast, sizeof multicast, "0x%08x", host_number(value));
  const std::string owner = service_name(host_number(value.substr(4)));
  const uint32 vdc = host_number(value.substr(8));
  fields->push_back({"mcast_info", multicast, std::string("multicast ") + multicast});
  fields->push_back({"owner", owner, "owner " + owner});
  fields->push_back({"vdc", vdc, "vdc " + std::to_string(vdc)});
  return true;
}

// ---- The kinds ---------------------------------------------------------------------------------

// Stores, or without a scheme flat files, of a name in any folder; or of a whole path, which starts
// with a slash, with a star at the end for all that go on from there.
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
    {"LTL record",                "nonvolatile:", "pixm_runtime_info",        ltl_key,                        ltl_value},
    {"DUAG cache record",         "nonvolatile:", "pixm_runtime_info",        cache_key,                      opaque},
    {"interface runtime info",    "nonvolatile:", "ethpm_runtime_info",       interface_key<0x33, 6>,         runtime_value},
    {"interface config TLV",      "nonvolatile:", "ethpm_runtime_cfg",        interface_key<0x65, 20>,        opaque},
    {"interface SI config TLV",   "nonvolatile:", "ethpm_runtime_cfg",        interface_key<0x65, 21>,        opaque},
    {"interface config TLV",      "nonvolatile:", "ethpm_saved_config",       interface_key<0x65, 20>,        opaque},
    {"interface SI config TLV",   "nonvolatile:", "ethpm_saved_config",       interface_key<0x65, 21>,        opaque},
    {"snapshot database",         "volatile:",    "globalpss_table",          database_key,                   database_value},
    {"snapshot database",         "",             "globalpss_table.snp",      database_key,                   database_value},
};
// clang-format on

// Where VRRP's records stand: with the manager before 4.2(1), with the engine from then on, and in
// a store for the time between.
constexpr store_set service_stores[] = {
    {"nonvolatile:", "vrrp-cfg_config_sav"},
    {"nonvolatile:", "vrrp-eng_runtime_config"},
};
constexpr store_set waiting_stores[] = {
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

template <size_t count> bool is_in_one(const store_set (&sets)[count], const std::string &uri) {
  return std::any_of(std::begin(sets), std::end(sets),
                     [&](const store_set &set) { return is_in(set, uri); });
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
  if (misfit) {
    document["misfit"] = true;
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
  if (misfit) {
    append_word(text, "does not fit its release", ", ");
  }
  return std::string(kind) + ": " + text;
}

std::optional<decoded_record> decode_record(const std::string &uri, std::string_view key,
                                            std::string_view value,
                                            std::optional<layout_side> side) {
  for (const record_kind &row : kinds) {
    decoded_record record = {row.kind, false, {}};
    if (is_in({row.scheme, row.store}, uri) && row.key(key, &record.fields)) {
      record.damaged = !row.value(value, &record.fields);
      return record;
    }
  }
  if (!has_layouts(uri)) {
    return std::nullopt;
  }
  return decode_vrrp_record(key, value, side ? layout_trouble(uri, key, value, *side) : "");
}

bool has_layouts(const std::string &uri) {
  return is_in_one(service_stores, uri) || is_in_one(waiting_stores, uri);
}

std::string layout_trouble(const std::string &uri, std::string_view key, std::string_view value,
                           layout_side side) {
  if (is_in_one(waiting_stores, uri)) {
    return vrrp_layout_trouble(key, value, std::nullopt);
  }
  return is_in_one(service_stores, uri) ? vrrp_layout_trouble(key, value, side) : "";
}
