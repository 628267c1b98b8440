#include "losses.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "store_access.h"
#include "tag_tables.h"
#include "text.h"
#include "vrrp_hand_over.h"
#include "vrrp_rivals.h"

namespace {

constexpr uint64_t kept = 1000;
constexpr size_t kept_hex = 2048; // characters of a value

constexpr char accepted_loss[] = "accepted with --accept-losses";
constexpr char gave_way[] = "the record of its key in another of VRRP's stores took its place";
constexpr char no_such_field[] = "the layout has no such field";
constexpr char no_such_element[] = "the list does not have it any more";
constexpr char unknown_fields[] = "nobody knows which of its fields are kept";

// Lists among the fields, and the member by which an element is the same one on both sides.
struct list_field_form {
  const char *field;
  const char *member;
  std::string (*text)(const nlohmann::json &element);
};

std::string tag_text(const nlohmann::json &entry) {
  return tag_entry_text(entry["service"].get<std::string>(), entry["tag"].get<std::string>());
}

std::string tlv_text(const nlohmann::json &item) {
  return "TLV " + item["type"].dump() + " of " + counted(item["length"].get<size_t>(), "byte");
}

constexpr list_field_form lists[] = {
    {"entries", "uuid", tag_text},
    {"tlvs", "type", tlv_text},
};

// The elements of `before` that have none in `after`. The same ones go together, then those that
// only have the same member.
std::vector<nlohmann::json> vanished(const nlohmann::json &before, nlohmann::json after,
                                     const char *member) {
  std::vector<nlohmann::json> left(before.begin(), before.end());
  const auto pair_off = [&](const auto &alike) {
    std::erase_if(left, [&](const nlohmann::json &element) {
      const auto found = std::find_if(after.begin(), after.end(), [&](const nlohmann::json &other) {
        return alike(element, other);
      });
      if (found == after.end()) {
        return false;
      }
      after.erase(found);
      return true;
    });
  };
  pair_off(std::equal_to<nlohmann::json>());
  pair_off([&](const nlohmann::json &element, const nlohmann::json &other) {
    return element[member] == other[member];
  });
  return left;
}

uint64_t hash_of(const std::string &key) {
  return std::hash<std::string>()(key);
}

using hashes = std::vector<uint64_t>;

bool has(const hashes &sorted, const std::string &key) {
  return std::binary_search(sorted.begin(), sorted.end(), hash_of(key));
}

nlohmann::json step_json(const std::optional<size_t> &step) {
  return step ? nlohmann::json(*step) : nlohmann::json();
}

} // namespace

nlohmann::json lost_record::to_json() const {
  nlohmann::json document = value;
  document["store"] = store;
  document["key"] = key;
  document["step"] = step_json(step);
  document["why"] = why.empty() ? nlohmann::json() : nlohmann::json(why);
  return document;
}

nlohmann::json lost_field::to_json() const {
  return {{"store", store},          {"key", key},     {"kind", kind},
          {"field", name},           {"value", value}, {"text", text},
          {"step", step_json(step)}, {"why", why}};
}

nlohmann::json record_balance::to_json() const {
  return {{"records_in", in},
          {"converted", converted},
          {"removed_by_rule", by_rule},
          {"unaccounted", unaccounted()}};
}

std::string record_balance::to_text() const {
  return counted(in, "record") + " in, " + std::to_string(converted) + " converted, " +
         std::to_string(by_rule) + " removed by rule, " + std::to_string(unaccounted()) +
         " unaccounted";
}

loss_report::loss_report(const switch_state &state, std::set<std::string> before,
                         std::set<std::string> after, author_finder author_of, bool accepted)
    : before_(std::move(before)), after_(std::move(after)), author_of_(std::move(author_of)),
      accepted_(accepted) {
  for (const vdc_id_t vdc : state.vdcs) {
    const auto &uris = vrrp_.emplace_back(vrrp_stores(state, vdc));
    for (const std::string &uri : uris) {
      moving_store store = {uri, {uri}, false};
      std::remove_copy(uris.begin(), uris.end(), std::back_inserter(store.places), uri);
      moving_.push_back(store);
    }
  }
}

loss_report::moving_store *loss_report::moving(const std::string &uri) {
  const auto found = std::find_if(moving_.begin(), moving_.end(),
                                  [&](const moving_store &store) { return store.uri == uri; });
  return found == moving_.end() ? nullptr : &*found;
}

void loss_report::begin(const state_side &before, const state_side &after) {
  for (const std::array<std::string, 3> &stores : vrrp_) {
    gave_way_.merge(records_that_gave_way({stores, before_, after_}, before, after));
  }
}

bool loss_report::gave_way_to_another(const std::string &uri, const std::string &key) const {
  const auto found = gave_way_.find(uri);
  return found != gave_way_.end() && found->second.contains(key);
}

void loss_report::take(const state_change &change, const change_author &author) {
  const bool is_changed = change.how == state_change::what::changed;
  if (!change.key || !(is_changed || change.how == state_change::what::removed)) {
    return;
  }
  moving_store *const store = moving(change.name);
  if (store != nullptr) {
    store->lost_some = store->lost_some || !is_changed;
  }
  if (is_changed) {
    if (!gave_way_to_another(change.name, *change.key)) {
      take_fields(change, author);
    }
  } else if (store == nullptr) {
    ++removed_;
    take_removed(change, author);
  }
}

namespace {

// Of a long value as much as a list of thousands can hold; all of it stands among the changes.
nlohmann::json short_value(const side_value &side) {
  nlohmann::json document = side.to_json();
  if (side.value.size() > kept_hex) {
    document["value"] = side.value.substr(0, kept_hex);
    document["bytes"] = side.value.size() / 2;
  }
  return document;
}

lost_record lost_record_of(const state_change &change, const std::string &why,
                           const change_author &author) {
  return {shown_uri(change.name), *change.key, short_value(*change.a),
          change.a->to_text(),    author.step, why};
}

} // namespace

void loss_report::take_removed(const state_change &change, const change_author &author) {
  const removal_rule *const rule = rule_of(change, author.routine);
  if (rule == nullptr || rule->keeps == promise::nothing) {
    take_record(change, rule == nullptr ? "" : rule->why, author);
    return;
  }
  const std::optional<std::string> target = promised_key(*rule, change);
  if (!target || change.kind != "store") {
    take_record(change, "", author);
    return;
  }
  promised &kept_back = promised_[change.name][*target];
  if (kept_back.count++ < kept) {
    kept_back.first.push_back(lost_record_of(change, rule->why, author));
  }
  kept_back.last_value = rule->keeps == promise::folded ? change.a->value : "";
  kept_back.rule = rule;
}

void loss_report::take_record(const state_change &change, const std::string &why,
                              const change_author &author) {
  ++records_total_;
  balance_.by_rule += why.empty() ? 0 : 1;
  list(lost_record_of(change, why, author));
}

// One without a reason never goes missing among those that have one.
void loss_report::list(lost_record lost) {
  const bool known = !lost.why.empty();
  if (known ? known_kept_ < kept : records_.size() - known_kept_ < kept) {
    known_kept_ += known ? 1 : 0;
    records_.push_back(std::move(lost));
  }
}

void loss_report::take_fields(const state_change &change, const change_author &author) {
  if (change.misfit()) {
    list_field(change, author, unknown_fields,
               {"value", change.a->value.substr(0, kept_hex), change.a->to_text()});
  }
  if (change.undecoded()) {
    return; // nobody knows its fields
  }
  for (const field_change &field : change.fields()) {
    if (field.b.is_null()) {
      list_field(change, author, no_such_field,
                 {field.name, field.a, field.text.substr(0, field.text.rfind(" -> "))});
    } else if (field.a.is_array() && field.b.is_array()) {
      take_elements(change, field, author);
    }
  }
}

void loss_report::take_elements(const state_change &change, const field_change &field,
                                const change_author &author) {
  for (const list_field_form &form : lists) {
    if (field.name != form.field) {
      continue;
    }
    for (const nlohmann::json &element : vanished(field.a, field.b, form.member)) {
      list_field(change, author, no_such_element, {field.name, element, form.text(element)});
    }
  }
}

void loss_report::list_field(const state_change &change, const change_author &author,
                             const char *why, const decoded_field &field) {
  if (fields_total_++ < kept) {
    fields_.push_back({shown_uri(change.name), *change.key, change.a->decoded->kind, field.name,
                       field.value, field.text, author.step, why});
  }
}

// ---- After the last change ---------------------------------------------------------------------

namespace {

state_side store_of(const state_side &state, const std::string &uri) {
  return {state.label, state.root, uri, state.layouts};
}

} // namespace

// Where a promised record is not there, or has another value, its rule does not hold.
void loss_report::look_at_promises(const state_side &after) {
  for (auto &[uri, targets] : promised_) {
    std::vector<std::string> keys;
    for (const auto &[key, kept_back] : targets) {
      keys.push_back(key);
    }
    std::map<std::string, std::string> values;
    if (after_.contains(uri)) {
      values = values_of(store_of(after, uri), keys);
    }
    for (auto &[key, kept_back] : targets) {
      const auto found = values.find(key);
      const bool holds = found != values.end() && (kept_back.rule->keeps != promise::folded ||
                                                   found->second == kept_back.last_value);
      records_total_ += kept_back.count;
      balance_.by_rule += holds ? kept_back.count : 0;
      for (lost_record &lost : kept_back.first) {
        lost.why = holds ? lost.why : "";
        list(std::move(lost));
      }
    }
  }
}

// Of the records of one key in several of a VDC's stores, those whose value is nowhere afterwards.
void loss_report::list_rivals(const state_side &before) {
  for (const auto &[uri, keys] : gave_way_) {
    for_each_record(store_of(before, uri), [&, &gone = keys](const state_change &change) {
      if (gone.contains(*change.key)) {
        ++removed_;
        take_record(change, gave_way, author_of_(change));
      }
    });
  }
}

// Whether the store has all that another one of its VDC had.
bool loss_report::is_replaced(const moving_store &store, const state_side &before,
                              const state_side &after) const {
  if (!after_.contains(store.uri)) {
    return false;
  }
  return std::any_of(store.places.begin() + 1, store.places.end(), [&](const std::string &other) {
    bool whole = before_.contains(other);
    if (whole) {
      diff_states(store_of(before, other), store_of(after, store.uri),
                  [&](const state_change &change) {
                    whole = whole && !(change.key && change.how == state_change::what::removed);
                  });
    }
    return whole;
  });
}

// A record of it that is in none of the places is lost; fields of one that is may be.
void loss_report::look_for(const moving_store &store, const state_side &before,
                           const state_side &after) {
  hashes missing;
  bool first = true; // all are missing until then
  for (const std::string &place : store.places) {
    if (!after_.contains(place)) {
      continue;
    }
    hashes not_here;
    diff_states(store_of(before, store.uri), store_of(after, place),
                [&](const state_change &change) {
                  if (!change.key || !(first || has(missing, *change.key))) {
                    return;
                  }
                  if (change.how == state_change::what::removed) {
                    not_here.push_back(hash_of(*change.key));
                  } else if (change.how == state_change::what::changed && place != store.uri &&
                             !gave_way_to_another(store.uri, *change.key)) {
                    take_fields(change, author_of_(change));
                  }
                });
    std::sort(not_here.begin(), not_here.end());
    missing = std::move(not_here);
    first = false;
  }
  if (!first && missing.empty()) {
    return;
  }
  const bool replaced = is_replaced(store, before, after);
  for_each_record(store_of(before, store.uri), [&](const state_change &change) {
    if (!first && !has(missing, *change.key)) {
      return;
    }
    ++removed_;
    const change_author author = author_of_(change);
    const removal_rule *const rule = rule_of(change, author.routine);
    const bool holds = rule != nullptr && (rule->keeps != promise::replaced || replaced);
    take_record(change,
                accepted_ && is_vrrp_route(change) ? accepted_loss
                : holds                            ? rule->why
                                                   : "",
                author);
  });
}

void loss_report::end(const state_side &before, const state_side &after,
                      const record_totals &totals) {
  look_at_promises(after);
  list_rivals(before);
  for (const moving_store &store : moving_) {
    if (store.lost_some && before_.contains(store.uri)) {
      look_for(store, before, after);
    }
  }
  balance_.in = totals.a;
  balance_.converted = totals.a - removed_ - totals.uncompared;
}
