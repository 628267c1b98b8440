// What check finds: each thing that stands in the way of a conversion or would be lost by it, with
// what is to be done about it.
#ifndef DATAMORPH_CHECK_FINDINGS_H
#define DATAMORPH_CHECK_FINDINGS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// The single checks, in the order in which they are told.
enum class topic {
  library,  // the conversion library loads and orders releases
  image,    // the releases have images whose versions can be read
  room,     // a copy of the state fits
  rights,   // it can be made: the switch's folder can be written, the state read
  exchange, // the file system exchanges folders
  state,    // switch.json
  run,      // commands that were stopped
  store,    // stores can be read
  file,     // flat files can be read
  record,   // values as long as their layout says, keys that agree with them
  layout,   // layouts of the release that is come from
  vdc,      // VDC numbers in the names of stores and in records
  tags,     // running tag tables
  handover, // stores between VRRP's two services
  marker,   // markers in /tmp and /mnt/pss
  log,      // where the logs of a conversion go
};

// Their words, in the same order: scripts read them, they never change.
inline constexpr std::array topic_names = {
    "library", "image",  "room",   "rights", "exchange", "switch",   "run",    "store",
    "file",    "record", "layout", "vdc",    "tags",     "handover", "marker", "log"};
static_assert(topic_names.size() == static_cast<size_t>(topic::log) + 1);

enum class level { error, warning }; // an error stops a conversion or loses data

struct finding {
  topic what = topic::library;
  level how = level::error;
  std::string store;              // bytes of its URI, or a path in the switch; empty without one
  std::optional<std::string> key; // of a record, in hex
  std::string text;               // what is wrong, in printable ASCII
  std::string remedy;             // what to do about it

  const char *name() const { return topic_names[static_cast<size_t>(what)]; }
  const char *word() const { return how == level::error ? "error" : "warning"; }
  nlohmann::json to_json() const;
  // As one process tells it to another. The way back throws nlohmann::json::exception.
  nlohmann::json to_message() const;
  static finding from_message(const nlohmann::json &message);
};

// How many findings of a topic are kept; all are counted.
inline constexpr size_t most_findings = 1000;

struct tally {
  uint64_t looked_at = 0; // stores, records, files ...
  uint64_t errors = 0;
  uint64_t warnings = 0;
  std::vector<finding> kept;
  uint64_t found() const { return errors + warnings; }
};

// All that was found, by topic.
class survey {
public:
  void looked(topic what, uint64_t number = 1) { at(what).looked_at += number; }
  void add(finding found);
  // Findings that are told by their number only.
  void count(topic what, uint64_t errors, uint64_t warnings);

  const std::array<tally, topic_names.size()> &tallies() const { return tallies_; }
  const tally &of(topic what) const { return tallies_[static_cast<size_t>(what)]; }
  uint64_t errors() const;
  uint64_t warnings() const;

private:
  tally &at(topic what) { return tallies_.at(static_cast<size_t>(what)); }

  std::array<tally, topic_names.size()> tallies_;
};

#endif
