#include "tag_tables.h"

#include <algorithm>

#include "failure.h"
#include "lab/lab.h"
#include "platform/pss2.h"
#include "platform/sysmgr.h"
#include "services.h"
#include "statuses.h"
#include "store_access.h"
#include "text.h"

namespace {

// A record that may be missing, as may its store.
struct found_value {
  syserr_t status = SYSERR_SUCCESS; // SYSERR_PSS_NOT_FOUND without store or record
  std::string value;
};

found_value find_value(const std::string &uri, std::string_view key) {
  found_value found;
  const pss2_service_t store =
      pss2_open(uri.c_str(), PSS2_MODE_READ, SRVUUID_NONE, 0, 0, &found.status);
  if (found.status == SYSERR_PSS_NO_STORE) {
    found.status = SYSERR_PSS_NOT_FOUND;
  }
  if (found.status != SYSERR_SUCCESS) {
    return found;
  }
  const pss_datum_t datum = datum_of(key);
  const pss_datum_t *value = pss2_fetch(store, &datum, &found.status);
  if (found.status == SYSERR_SUCCESS) {
    found.value = bytes_of(*value);
  }
  pss2_close(store);
  return found;
}

found_value find_saved(const switch_state &state, vdc_id_t vdc) {
  return find_value(saved_tag_table_uri(state, vdc),
                    {saved_tag_table_key.data(), saved_tag_table_key.size()});
}

// How many bytes a tag table states to take. The bytes are one.
size_t stated_size(std::string_view table) {
  return tlv_array_size_get(reinterpret_cast<const tlv_array_t *>(table.data()), 1);
}

constexpr char too_large[] = "too large to run";

bool is_too_large(std::string_view table) {
  return stated_size(table) > SYSMGR_TAG_TABLE_MAX;
}

using table_reader = std::optional<nlohmann::json> (*)(std::string_view bytes);

nlohmann::json description_of(const found_value &found, table_reader read) {
  nlohmann::json table = {{"state", "ok"}, {"entries", nlohmann::json::array()}};
  if (found.status != SYSERR_SUCCESS) {
    table["state"] =
        found.status == SYSERR_PSS_NOT_FOUND ? "none" : status_text(found.status).c_str();
    return table;
  }
  const std::optional<nlohmann::json> entries = read(found.value);
  if (entries) {
    table["state"] = is_too_large(found.value) ? too_large : "ok";
    table["entries"] = *entries;
  } else {
    table["state"] = "damaged";
  }
  return table;
}

// Why a saved table cannot become the running one; empty when it can.
std::string trouble_of(const found_value &saved) {
  if (saved.status != SYSERR_SUCCESS) {
    return status_text(saved.status);
  }
  if (!tag_entries(saved.value)) {
    return "the record is damaged";
  }
  return is_too_large(saved.value) ? std::string("it is ") + too_large : "";
}

// What the machine refused, not the table: it may be whole, and the next reader finds it.
bool is_out_of_reach(const found_value &saved) {
  return saved.status == SYSERR_PSS_IO || saved.status == SYSERR_PSS_NO_ROOM;
}

} // namespace

std::string saved_tag_table_uri(const switch_state &state, vdc_id_t vdc) {
  return "nonvolatile:" + state.path_of(moment::startup, vdc) + "/bin/sysmgr_config";
}

std::string running_tag_table_key(vdc_id_t vdc) {
  return {static_cast<char>(vdc >> 8), static_cast<char>(vdc & 0xff)};
}

std::optional<vdc_id_t> vdc_of_running_key(std::string_view key) {
  if (key.size() != 2) {
    return std::nullopt;
  }
  const auto byte = [key](size_t at) { return static_cast<unsigned char>(key[at]); };
  return static_cast<vdc_id_t>(byte(0) << 8 | byte(1));
}

std::optional<nlohmann::json> tag_entries(std::string_view table) {
  std::vector<lab::tag_entry> decoded;
  if (!lab::tag_table_decode(table, &decoded)) {
    return std::nullopt;
  }
  nlohmann::json entries = nlohmann::json::array();
  for (const lab::tag_entry &entry : decoded) {
    entries.push_back(
        {{"service", service_name(entry.uuid)}, {"uuid", entry.uuid}, {"tag", to_text(entry.tag)}});
  }
  return entries;
}

std::optional<nlohmann::json> running_tag_entries(std::string_view table) {
  std::optional<nlohmann::json> entries = tag_entries(table);
  const bool runs =
      entries && stated_size(table) == table.size() && table.size() <= SYSMGR_TAG_TABLE_MAX;
  return runs ? entries : std::nullopt;
}

std::string tag_entry_text(const std::string &service, const std::string &tag) {
  std::string text = service + " \"";
  for (const char c : tag) {
    text += c == '"' ? "\\\"" : std::string(1, c);
  }
  return text + "\"";
}

std::string tag_entries_text(const nlohmann::json &entries) {
  std::string text;
  for (const nlohmann::json &entry : entries) {
    append_word(
        text, tag_entry_text(entry["service"].get<std::string>(), entry["tag"].get<std::string>()),
        ", ");
  }
  return text.empty() ? "no entries" : text;
}

std::string running_record_trouble(const std::vector<vdc_id_t> &vdcs, std::string_view key,
                                   std::string_view value) {
  const std::optional<vdc_id_t> vdc = vdc_of_running_key(key);
  if (!vdc) {
    return "its key is not the 2 bytes of a VDC";
  }
  if (std::find(vdcs.begin(), vdcs.end(), *vdc) == vdcs.end()) {
    return "the switch has no VDC " + std::to_string(*vdc);
  }
  return running_tag_entries(value) ? "" : "its table is damaged";
}

std::vector<record_trouble> running_record_troubles(const std::vector<vdc_id_t> &vdcs) {
  std::vector<record_trouble> troubles;
  for (const auto &[key, value] : running_records()) {
    const std::string text = running_record_trouble(vdcs, key, value);
    if (!text.empty()) {
      troubles.push_back({to_hex(key), text});
    }
  }
  return troubles;
}

std::map<std::string, std::string> running_records() {
  std::map<std::string, std::string> records;
  lab::store_info info;
  if (lab::store_inspect(lab::running_tag_tables, &info) == SYSERR_SUCCESS) {
    store_handle store(lab::running_tag_tables, PSS2_MODE_READ);
    store.for_each(
        [&](std::string_view key, std::string_view value) { records.emplace(key, value); });
    store.close();
  }
  return records;
}

nlohmann::json describe_tag_tables(const switch_state &state, vdc_id_t vdc) {
  return {
      {"vdc", vdc},
      {"saved", description_of(find_saved(state, vdc), tag_entries)},
      {"running", description_of(find_value(lab::running_tag_tables, running_tag_table_key(vdc)),
                                 running_tag_entries)}};
}

booted_tag_tables boot_tag_tables(const switch_state &state) {
  booted_tag_tables booted;
  std::vector<std::pair<vdc_id_t, std::string>> tables;
  for (const vdc_id_t vdc : state.vdcs) {
    const found_value saved = find_saved(state, vdc);
    if (saved.status == SYSERR_PSS_NOT_FOUND) {
      continue;
    }
    if (is_out_of_reach(saved)) {
      throw failure(exit_failed, "cannot read the tag table that VDC " + std::to_string(vdc) +
                                     " has saved in the store " +
                                     in_quotes(saved_tag_table_uri(state, vdc)) + ": " +
                                     status_text(saved.status));
    }
    const std::string trouble = trouble_of(saved);
    if (trouble.empty()) {
      tables.emplace_back(vdc, saved.value.substr(0, stated_size(saved.value)));
    } else {
      booted.troubles.push_back("VDC " + std::to_string(vdc) +
                                " starts without a tag table: its saved one in the store " +
                                in_quotes(saved_tag_table_uri(state, vdc)) + ": " + trouble);
    }
  }
  booted.made = !tables.empty();
  if (booted.made) {
    store_handle running(lab::running_tag_tables,
                         PSS2_MODE_READ | PSS2_MODE_WRITE | PSS2_MODE_CREATE);
    for (const auto &[vdc, table] : tables) {
      running.put(running_tag_table_key(vdc), table);
    }
    running.close();
  }
  return booted;
}
