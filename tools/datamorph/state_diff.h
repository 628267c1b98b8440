// How two states of switches differ: two processes, each in one of them, walk in the same order,
// and what they meet is merged. No more is held than one record of each side.
#ifndef DATAMORPH_STATE_DIFF_H
#define DATAMORPH_STATE_DIFF_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "records.h"

struct state_side {
  std::string label;                       // in quotes before what went wrong there
  int root = -1;                           // the state's folder; stays the caller's
  std::string uri;                         // one store; empty for all of the state
  std::optional<layout_side> layouts = {}; // of its release; none: a value's length chooses
};

// Characters of a value's hex in a text, which says how many bytes there are.
inline constexpr size_t shown_hex = 512;
std::string hex_text(const std::string &hex);

// What stands on one side of a change.
struct side_value {
  std::optional<std::vector<decoded_field>> facts; // of a thing: its members
  std::string value;                               // of a record, in hex
  std::optional<decoded_record> decoded;
  std::string trouble; // of a thing that cannot be read: why

  bool misfit() const { return decoded && decoded->misfit; }
  // Of a value that stands alone, for people; bytes where nobody knows, or not all.
  std::string to_text() const;
  nlohmann::json to_json() const;
};

struct field_change {
  std::string name;
  nlohmann::json a; // null where that side does not have it
  nlohmann::json b;
  std::string text; // "priority 100 -> priority 120"
};

// A thing (switch.json, a store, a file, an access point), or a record of a store or a flat file.
struct state_change {
  enum class what { added, removed, changed, unreadable };

  what how = what::changed;
  std::string kind;               // of the thing: "switch", "store", "file", "access point"
  std::string name;               // its bytes; of two stores that were named, the first one's
  std::optional<std::string> key; // of a record, in hex
  std::optional<side_value> a;    // absent when it is not there, or can be read
  std::optional<side_value> b;

  const char *word() const;
  // Facts or decoded fields that differ. None for records that only bytes tell apart, or that do
  // not fit their release.
  std::vector<field_change> fields() const;
  // Whether one of its values is of no known form, is damaged, or does not fit its release.
  bool undecoded() const;
  // Whether one of its values does not fit its release.
  bool misfit() const { return (a && a->misfit()) || (b && b->misfit()); }
  nlohmann::json to_json() const;
};

// How many records each side has, those of flat files included.
struct record_totals {
  uint64_t a = 0;
  uint64_t b = 0;
  uint64_t uncompared = 0;        // of a's, where b's thing cannot be read or is of another type
  uint64_t by_length = 0;         // values of changes whose layout their length chose
  uint64_t unchanged_misfits = 0; // records that are the same, and do not fit a side's release
};

// Gives each difference, things by kind and name and the records of each by key, behind their
// thing. A thing on one side only comes with all of its records. Left out: the conversion logs and
// their marker, the generation of the state, folders, the times of files. What cannot be read is a
// change of its own; the rest of that thing is not compared. Both stores of two named ones must be
// there. Shows its progress. Writes nothing. Throws failure: 3 for what a side is, else 1 or 128
// and the signal.
record_totals diff_states(const state_side &a, const state_side &b,
                          const std::function<void(const state_change &)> &take);

// Gives each record of one store as if it were removed. Throws as diff_states does.
void for_each_record(const state_side &side, const std::function<void(const state_change &)> &take);

// The values, in hex, of those of the keys, in hex, that are in one store. Throws as diff_states
// does.
std::map<std::string, std::string> values_of(const state_side &side,
                                             const std::vector<std::string> &keys);

// A checksum (16 hex digits) of all that diff_states compares: two states of which it tells no
// difference have the same one. Shows its progress. Throws failure as diff_states does, 3 also for
// what cannot be read.
std::string state_digest(const state_side &side);

#endif
