// What a conversion did: gathered from the child's messages and the lab's journal, shown as tables
// or as one JSON document.
#ifndef DATAMORPH_REPORT_H
#define DATAMORPH_REPORT_H

#include <cstdint>
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
};

// An entry that a request set in a VDC's running tag table.
struct tag_report {
  vdc_id_t vdc = 0;
  uint32 uuid = 0;
  std::string tag;
  bool changed = false; // the table grew or shrank by it; an entry that stood so leaves its size
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

  void take_tag(const tag_report &tag);
};

struct store_report {
  std::string uri;
  std::string what; // created, changed, removed, temporary; touched when the run did not end
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

  // Reads the journal's lines. `before` and `after` are the stores that stood there, known when the
  // run came to its end.
  void take_journal(const std::string &journal, bool ended, const std::set<std::string> &before,
                    const std::set<std::string> &after);
  size_t failed_requests() const;
  nlohmann::json to_json() const;
  void print_tables() const;
};

#endif
