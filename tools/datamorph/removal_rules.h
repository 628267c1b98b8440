// Why records may go at a version change, and where a rule says that what they held is then.
#ifndef DATAMORPH_REMOVAL_RULES_H
#define DATAMORPH_REMOVAL_RULES_H

#include <optional>
#include <string>

#include "state_diff.h"

// What a rule promises of the state afterwards. Where that is not so the rule does not hold.
enum class promise {
  nothing,
  folded, // a record of its store under another key, with the value of the last one that goes there
  planted,  // a record of its store under another key
  replaced, // its store holds all that another service's held
};

struct removal_rule {
  const char *routine;
  const char *store; // its name, behind the last '/' of a store or file; "*": any volatile one
  const char *kind;  // of the decoded record; "": any
  const char *why;
  promise keeps;
};

// Of a record that is removed; null when it may not go.
const removal_rule *rule_of(const state_change &change, const std::string &routine);

// The key, in hex, of the record that a rule promises in the same store; nothing when it promises
// none of this record.
std::optional<std::string> promised_key(const removal_rule &rule, const state_change &change);

// A virtual router, or one of its addresses.
bool is_vrrp_route(const state_change &change);

#endif
