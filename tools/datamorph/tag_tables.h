// The system manager's tag tables of a switch: the saved one of each VDC, which stands in its
// startup configuration, and the running one, which a boot makes from it. Each of these looks at
// the state that is the process's root.
#ifndef DATAMORPH_TAG_TABLES_H
#define DATAMORPH_TAG_TABLES_H

#include <array>
#include <bit>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "switch_state.h"

// The key of a saved tag table: its type, 9, in host byte order and an unused union.
inline constexpr auto saved_tag_table_key =
    std::bit_cast<std::array<char, 12>>(std::array<uint32, 3>{9, 0, 0});

// Where a VDC's saved tag table is.
std::string saved_tag_table_uri(const switch_state &state, vdc_id_t vdc);

// The key of a VDC's table among the running ones, and back.
std::string running_tag_table_key(vdc_id_t vdc);
std::optional<vdc_id_t> vdc_of_running_key(std::string_view key);

// The entries of a table, each with "service", "uuid" and "tag" (as to_text writes it); nothing
// when the bytes are no tag table.
std::optional<nlohmann::json> tag_entries(std::string_view table);
// The same of a running table, which fills its record and is of a size that runs.
std::optional<nlohmann::json> running_tag_entries(std::string_view table);
// The same for people: DOT1X "", KPS "lab". Quotes within a tag come as \".
std::string tag_entries_text(const nlohmann::json &entries);
std::string tag_entry_text(const std::string &service, const std::string &tag);

// The records of the running tables' store; none when it is not there or damaged.
std::map<std::string, std::string> running_records();

// Why such a record cannot be loaded into a switch with these VDCs; empty when it can.
std::string running_record_trouble(const std::vector<vdc_id_t> &vdcs, std::string_view key,
                                   std::string_view value);

struct record_trouble {
  std::string key; // in hex
  std::string text;
};
// All records that cannot be loaded.
std::vector<record_trouble> running_record_troubles(const std::vector<vdc_id_t> &vdcs);

// A VDC's tables: "vdc", and "saved" and "running" with a "state" ("ok", "none", "damaged", of a
// saved one "too large to run", or why it cannot be read) and the "entries".
nlohmann::json describe_tag_tables(const switch_state &state, vdc_id_t vdc);

struct booted_tag_tables {
  bool made = false;                 // there was something to make them from
  std::vector<std::string> troubles; // saved tables that were passed over, and why
};

// Makes the running tag tables from the saved ones, as a boot does; none may stand. A VDC without a
// saved table gets none, and without any there is no store of them. A damaged one is passed over.
// Throws failure when the machine cannot read a saved one, or the store cannot be made.
booted_tag_tables boot_tag_tables(const switch_state &state);

#endif
