// What a version change discards: records that are in no store afterwards, or whose value gave way
// to another one's; fields that the new layout does not have, and elements of lists. Each record
// that goes has a rule that tells why, is found in another store, or is unaccounted for.
#ifndef DATAMORPH_LOSSES_H
#define DATAMORPH_LOSSES_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "journal_authors.h"
#include "removal_rules.h"
#include "state_diff.h"
#include "switch_state.h"

struct lost_record {
  std::string store;
  std::string key;      // hex
  nlohmann::json value; // as of a change's side
  std::string text;
  std::optional<size_t> step;
  std::string why; // empty: unaccounted for

  nlohmann::json to_json() const;
};

struct lost_field {
  std::string store;
  std::string key; // hex
  std::string kind;
  std::string name;
  nlohmann::json value;
  std::string text;
  std::optional<size_t> step;
  std::string why;

  nlohmann::json to_json() const;
};

struct record_balance {
  uint64_t in = 0;
  uint64_t converted = 0; // there afterwards, here or in another store, changed or as it was
  uint64_t by_rule = 0;
  uint64_t unaccounted() const { return in - converted - by_rule; }

  nlohmann::json to_json() const;
  // "52 records in, 49 converted, 3 removed by rule, 0 unaccounted"
  std::string to_text() const;
};

// Of each list the first 1000 are kept, of those without a rule another 1000; all are counted.
class loss_report {
public:
  using author_finder = std::function<change_author(const state_change &)>;
  // `before` and `after` are the stores that were there, as the conversion tells. `accepted`: that
  // VRRP's records may be lost.
  loss_report(const switch_state &state, std::set<std::string> before, std::set<std::string> after,
              author_finder author_of, bool accepted);

  // Before the first change: looks for records that gave way to others. Throws failure as
  // diff_states.
  void begin(const state_side &before, const state_side &after);
  // A change of the state, of those that diff_states gives.
  void take(const state_change &change, const change_author &author);
  // After the last one: looks for the records that changed stores. Throws failure as diff_states.
  void end(const state_side &before, const state_side &after, const record_totals &totals);

  const std::vector<lost_record> &records() const { return records_; }
  const std::vector<lost_field> &fields() const { return fields_; }
  uint64_t records_total() const { return records_total_; }
  uint64_t fields_total() const { return fields_total_; }
  const record_balance &balance() const { return balance_; }

private:
  struct moving_store {
    std::string uri;
    std::vector<std::string> places; // where its records may be afterwards; itself first
    bool lost_some = false;
  };
  // Records whose rule names another one, which is looked at in the end.
  struct promised {
    std::vector<lost_record> first; // as many as could be listed
    uint64_t count = 0;
    std::string last_value; // hex
    const removal_rule *rule = nullptr;
  };
  void take_removed(const state_change &change, const change_author &author);
  void take_record(const state_change &change, const std::string &why, const change_author &author);
  void list(lost_record lost);
  void take_fields(const state_change &change, const change_author &author);
  void take_elements(const state_change &change, const field_change &field,
                     const change_author &author);
  void list_field(const state_change &change, const change_author &author, const char *why,
                  const decoded_field &field);
  moving_store *moving(const std::string &uri);
  void look_at_promises(const state_side &after);
  void list_rivals(const state_side &before);
  bool gave_way_to_another(const std::string &uri, const std::string &key) const;
  void look_for(const moving_store &store, const state_side &before, const state_side &after);
  bool is_replaced(const moving_store &store, const state_side &before,
                   const state_side &after) const;

  std::vector<std::array<std::string, 3>> vrrp_; // of each VDC
  std::vector<moving_store> moving_;
  std::map<std::string, std::map<std::string, promised>> promised_; // by store and key
  std::map<std::string, std::set<std::string>> gave_way_;           // keys by store
  std::set<std::string> before_;
  std::set<std::string> after_;
  author_finder author_of_;
  bool accepted_;
  std::vector<lost_record> records_;
  std::vector<lost_field> fields_;
  uint64_t records_total_ = 0;
  uint64_t fields_total_ = 0;
  uint64_t known_kept_ = 0;
  uint64_t removed_ = 0; // that are in no store any more
  record_balance balance_;
};

#endif
