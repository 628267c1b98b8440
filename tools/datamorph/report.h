// What a conversion did: gathered from the child's messages and the lab's journal, shown as tables
// or as one JSON document.
#ifndef DATAMORPH_REPORT_H
#define DATAMORPH_REPORT_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "conversion_child.h"

struct record_counts {
  uint64_t added = 0;
  uint64_t changed = 0;
  uint64_t removed = 0;
  void add(const record_counts &other);
  bool any() const { return added + changed + removed > 0; }
};

// An entry that a request set in a VDC's running tag table.
struct tag_report {
  vdc_id_t vdc = 0;
  uint32 uuid = 0;
  std::string tag;                // bytes
  std::optional<std::string> old; // the entry's tag before; none: it did not stand
  bool changed() const { return old != tag; }
};

struct request_report {
  conversion_request request;
  bool started = false;
  std::optional<syserr_t> status; // none: it did not come back
  std::string trouble;            // why it did not
  double milliseconds = 0;
  record_counts records;
  std::set<std::string> stores;
  std::vector<uint32> access_points; // removed
  std::vector<tag_report> tags;      // each entry once, in the order in which they were set
  std::vector<tag_report> gone;      // entries that stood before it and not after it

  void take_tag(const tag_report &tag);
  // The child's list: "vdc", "uuid" and "tag" in hex of each. Throws nlohmann::json::exception.
  void take_tags_gone(const nlohmann::json &entries);
};

struct store_report {
  std::string uri;
  // created, changed, unchanged (written, with the records that stood there), removed, temporary;
  // touched when the run did not end
  std::string what;
  record_counts records;
  std::vector<std::string> services; // in the order in which they touched it
};

struct conversion_report {
  std::string dir;
  std::string run; // the number of its folder
  std::string library;
  std::string from;
  std::string to;
  std::string release; // that the switch runs afterwards
  bool converted = false;
  std::string closing_line;
  std::string trouble; // why it failed; empty when it did not
  std::vector<std::string> notes;
  std::vector<request_report> requests;
  std::vector<store_report> stores;
  std::map<std::string, store_report> touched; // until the journal's end

  // A line of the journal, and its end. `before` and `after` are the stores that stood there, known
  // when the run came to its end.
  void take_line(const nlohmann::json &line);
  void end_journal(bool ended, const std::set<std::string> &before,
                   const std::set<std::string> &after);
  // What became of the running tag tables' store, which is written when the journal is over:
  // "added", "changed", "removed". After end_journal.
  void take_tables(const nlohmann::json &changes, const std::set<std::string> &before,
                   const std::set<std::string> &after);
  size_t failed_requests() const;
  nlohmann::json to_json() const;
  void print_tables() const;

private:
  void print_requests() const;
};

#endif
