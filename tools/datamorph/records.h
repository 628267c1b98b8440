// Records whose form is known, told apart by their store and key and shown with named fields.
#ifndef DATAMORPH_RECORDS_H
#define DATAMORPH_RECORDS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

struct decoded_field {
  std::string name;
  nlohmann::json value;
  std::string text; // for people: with the name where it takes one; empty where it tells no more
};

struct decoded_record {
  const char *kind = "";
  bool damaged = false;              // the value is not what the key promises
  std::vector<decoded_field> fields; // those of the key, then those of the value
  bool misfit = false; // the value has another layout than its release stores: it is not decoded

  // "kind" and the fields; "damaged" and "misfit" when it is so.
  nlohmann::json to_json() const;
  // "tag table: vdc 1, DOT1X """
  std::string to_text() const;
};

// The release at which the layouts of records change, and the side of it that a release is on.
inline constexpr char layout_release[] = "4.2(1)";
enum class layout_side { before, from_then_on };

// What a record of this store, or of the flat file of this path, is; nothing when its place and key
// are of no known kind. Any bytes may come. Without a side the value's length chooses its layout.
std::optional<decoded_record> decode_record(const std::string &uri, std::string_view key,
                                            std::string_view value,
                                            std::optional<layout_side> side = std::nullopt);

// Whether a record of this store has another layout on the other side of that release, or could.
bool has_layouts(const std::string &uri);
// Why a record whose value has the length of a layout does not fit the releases on this side; empty
// when it does. Where records wait for the other side both layouts do.
std::string layout_trouble(const std::string &uri, std::string_view key, std::string_view value,
                           layout_side side);

#endif
