#include "vrrp_rivals.h"

#include <algorithm>
#include <tuple>
#include <vector>

namespace {

constexpr size_t places = std::tuple_size_v<decltype(vrrp_move::stores)>;

// How the record that a place has afterwards goes with one of before.
enum class how : unsigned char { none, same, other };

// The records of one key.
struct rivals {
  std::array<bool, places> there = {};                  // before
  std::array<std::array<how, places>, places> now = {}; // by the place before, and by that after

  bool is_continued(size_t at) const {
    return std::find(now[at].begin(), now[at].end(), how::same) != now[at].end();
  }
  bool is_seen(size_t at) const {
    return std::find(now[at].begin(), now[at].end(), how::other) != now[at].end();
  }
  // Whether what a place has afterwards comes from none of them as it was: a routine made it anew.
  bool is_made_at(size_t place) const {
    bool made = false;
    for (size_t at = 0; at < places; ++at) {
      if (there[at] && now[at][place] != how::other) {
        return false;
      }
      made = made || there[at];
    }
    return made;
  }
  // Those that are gone. A record that was made anew stands for one of them, best for its place's.
  std::vector<size_t> gone() const {
    std::vector<size_t> found;
    size_t made = 0;
    for (size_t at = 0; at < places; ++at) {
      const bool anew = is_made_at(at);
      if (there[at] && !is_continued(at) && is_seen(at) && !anew) {
        found.push_back(at);
      }
      made += anew && (!there[at] || is_continued(at)) ? 1 : 0;
    }
    found.resize(found.size() - std::min(found.size(), made));
    return found;
  }
};

using rivals_by_key = std::map<std::string, rivals>;

state_side store_of(const state_side &state, const std::string &uri) {
  return {state.label, state.root, uri, state.layouts};
}

// Either layout of a record starts with the older one.
bool continues(const std::string &before, const std::string &after) {
  return before.starts_with(after) || after.starts_with(before);
}

// The keys under which two stores hold different values.
rivals_by_key find_rivals(const vrrp_move &move, const state_side &before) {
  rivals_by_key found;
  for (size_t one = 0; one < places; ++one) {
    for (size_t other = one + 1; other < places; ++other) {
      if (!move.before.contains(move.stores[one]) || !move.before.contains(move.stores[other])) {
        continue;
      }
      diff_states(store_of(before, move.stores[one]), store_of(before, move.stores[other]),
                  [&](const state_change &change) {
                    if (change.key && change.how == state_change::what::changed) {
                      rivals &both = found[*change.key];
                      both.there[one] = both.there[other] = true;
                    }
                  });
    }
  }
  return found;
}

// What became of those of one store in a place.
void compare(size_t from, size_t place, const state_side &before, const state_side &after,
             rivals_by_key *found) {
  for (auto &[key, one] : *found) {
    one.now[from][place] = one.there[from] ? how::same : how::none;
  }
  diff_states(before, after, [&](const state_change &change) {
    const auto at = change.key ? found->find(*change.key) : found->end();
    if (at == found->end() || change.how == state_change::what::added) {
      return;
    }
    const bool is_changed = change.how == state_change::what::changed;
    at->second.now[from][place] = !is_changed                                   ? how::none
                                  : continues(change.a->value, change.b->value) ? how::same
                                                                                : how::other;
  });
}

} // namespace

std::map<std::string, std::set<std::string>>
records_that_gave_way(const vrrp_move &move, const state_side &before, const state_side &after) {
  rivals_by_key found = find_rivals(move, before);
  for (size_t from = 0; from < places && !found.empty(); ++from) {
    for (size_t place = 0; place < places && move.before.contains(move.stores[from]); ++place) {
      if (move.after.contains(move.stores[place])) {
        compare(from, place, store_of(before, move.stores[from]),
                store_of(after, move.stores[place]), &found);
      }
    }
  }
  std::map<std::string, std::set<std::string>> gone;
  for (const auto &[key, one] : found) {
    for (const size_t at : one.gone()) {
      gone[move.stores[at]].insert(key);
    }
  }
  return gone;
}
