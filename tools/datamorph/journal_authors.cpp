#include "journal_authors.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "journal_lines.h"
#include "lab/lab.h"
#include "store_access.h"
#include "text.h"

namespace {

constexpr size_t kept_whole_calls = 64; // of a store; the oldest go

uint64_t hash_of(const std::string &store, const std::string &key) {
  return std::hash<std::string>()(store + '\0' + key);
}

// Calls after which a store, or what is in it, is another one.
struct whole_store_call {
  std::string_view call;
  enum class what { makes, destroys, fills } does;
};
using does = whole_store_call::what;
constexpr whole_store_call whole_store_calls[] = {
    {"pss_create", does::makes},       {"pss2_create", does::makes},
    {"pss2_open", does::makes},        {"pss_destroy", does::destroys},
    {"pss2_destroy", does::destroys},  {"pss_snapshot", does::fills},
    {"pss2_file2kernel", does::fills},
};

const whole_store_call *find_whole(const std::string &call) {
  const auto *const found =
      std::find_if(std::begin(whole_store_calls), std::end(whole_store_calls),
                   [&](const whole_store_call &row) { return row.call == call; });
  return found == std::end(whole_store_calls) ? nullptr : found;
}

bool counts(const nlohmann::json &line, const char *what) {
  return number_member(line, what) > 0;
}

// Whether a call went well and left something other than it was. An access point that goes, a flat
// file and a store as a whole have no counts of records.
bool changes_something(const nlohmann::json &line) {
  const std::string call = text_member(line, "call");
  if (number_member(line, "status") != 0 || call == "pss_close" || call == "pss2_close") {
    return false;
  }
  if (line.contains("table_vdc")) {
    return text_member(line, "old_sum") != text_member(line, "new_sum");
  }
  return !line.contains("key") || counts(line, "added") || counts(line, "changed") ||
         counts(line, "removed");
}

record_call::what done_to_record(const nlohmann::json &line) {
  return counts(line, "removed") ? record_call::what::removed
         : counts(line, "added") ? record_call::what::added
                                 : record_call::what::changed;
}

// The key that a VDC's table has in the store of the running ones.
std::string table_key(uint64_t vdc) {
  return to_hex(std::string{static_cast<char>(vdc >> 8), static_cast<char>(vdc)});
}

} // namespace

journal_authors::journal_authors(const std::vector<conversion_request> &requests,
                                 record_calls::file_maker make_file)
    : requests_(requests), records_(std::move(make_file)) {}

std::optional<journal_authors::author_number>
journal_authors::author_of(const nlohmann::json &line) {
  const std::string moment = text_member(line, "moment");
  const std::string service = text_member(line, "service");
  const uint64_t vdc = number_member(line, "vdc");
  for (size_t step = 0; step < requests_.size(); ++step) {
    const conversion_request &request = requests_[step];
    if (vdc != request.vdc || moment != moment_name(request.which) ||
        service != request.service()) {
      continue;
    }
    const auto key = std::make_pair(step, text_member(line, "routine"));
    const auto [found, is_new] = numbers_.emplace(key, static_cast<author_number>(authors_.size()));
    if (is_new) {
      authors_.push_back({step, key.second, {}});
    }
    return found->second;
  }
  return std::nullopt; // what the conversion did itself at its end
}

// ---- The journal's lines -----------------------------------------------------------------------

void journal_authors::take(uint64_t number, const nlohmann::json &line) {
  const std::optional<author_number> author =
      changes_something(line) ? author_of(line) : std::nullopt;
  if (author) {
    take_call(number, line, *author);
  }
}

void journal_authors::take_call(uint64_t number, const nlohmann::json &line, author_number author) {
  const std::string call = text_member(line, "call");
  if (call == "mts_sap_destroy") {
    things_[{"access point", std::to_string(number_member(line, "sap"))}].whole = author;
  } else if (line.contains("table_vdc")) {
    take_table(line, author);
  } else if (call == "pss2_kernel2file") {
    things_[{"file", text_member(line, "file")}].whole = author;
  } else {
    take_store(number, line, author);
  }
}

// An author who leaves a table as it was found, whatever happened in between, did nothing to it.
void journal_authors::take_table(const nlohmann::json &line, author_number author) {
  table_story &story = things_[{"tag table", table_key(number_member(line, "table_vdc"))}].table;
  if (story.after.empty()) {
    story.before = text_member(line, "old_sum");
  }
  if (story.after.empty() || story.after.back().first != author) {
    story.after.emplace_back(author, "");
  }
  story.after.back().second = text_member(line, "new_sum");
  const std::string &found =
      story.after.size() == 1 ? story.before : std::prev(story.after.end(), 2)->second;
  if (story.after.back().second == found) {
    story.after.pop_back();
  }
  things_[{"store", lab::store_file(lab::running_tag_tables)}].whole = author;
}

void journal_authors::take_store(uint64_t number, const nlohmann::json &line,
                                 author_number author) {
  const std::string uri = text_member(line, "uri");
  if (uri.empty()) {
    return;
  }
  const std::string file = lab::store_file(uri);
  thing &about = things_[{"store", file}];
  if (line.contains("key")) {
    records_.add({hash_of(file, text_member(line, "key")), number, author, done_to_record(line)});
  } else {
    take_whole(&about, line, {number, author, false, false, false});
  }
  about.several = about.several || (about.last && *about.last != author);
  about.last = author;
}

void journal_authors::take_whole(thing *about, const nlohmann::json &line, const whole_call &call) {
  const whole_store_call *const row = find_whole(text_member(line, "call"));
  if (row == nullptr) {
    return;
  }
  whole_call taken = call;
  taken.destroyed = row->does == does::destroys;
  taken.put = counts(line, "added") || counts(line, "changed");
  taken.removed = counts(line, "removed");
  const bool touched = taken.destroyed || taken.put || taken.removed;
  // One that put there what stood there made nothing, unless it made the store itself.
  if (row->does != does::fills || touched || !about->whole) {
    about->whole = call.author;
  }
  if (!touched) {
    return;
  }
  if (about->calls.size() == kept_whole_calls) {
    about->calls.erase(about->calls.begin());
  }
  about->calls.push_back(taken);
}

// ---- Answers -----------------------------------------------------------------------------------

// What became of one record of a store, call by call.
class journal_authors::record_story {
public:
  explicit record_story(const state_change &change)
      : stands_(change.a.has_value()), goes_(change.how == state_change::what::removed) {}

  void take(const record_call &call) {
    note(call.author);
    stands_ = call.did != record_call::what::removed;
  }

  // Which records a call that filled a store touched is not known: this one, where it may be.
  void take(const whole_call &call) {
    if (call.destroyed) {
      if (stands_) {
        note(call.author);
      }
      stands_ = false;
    } else if (goes_ ? stands_ && call.removed : call.put) {
      note(call.author);
      stands_ = !goes_;
    } else {
      stands_ = stands_ || call.put;
    }
  }

  std::optional<author_number> last() const { return last_; }
  const std::vector<author_number> &all() const { return all_; }

private:
  void note(author_number author) {
    if (last_ != author && std::find(all_.begin(), all_.end(), author) == all_.end()) {
      all_.push_back(author);
    }
    last_ = author;
  }

  bool stands_;
  bool goes_;
  std::optional<author_number> last_;
  std::vector<author_number> all_; // each once
};

const journal_authors::thing *journal_authors::find(const std::string &kind,
                                                    const std::string &name) const {
  const auto found = things_.find({kind, name});
  return found == things_.end() ? nullptr : &found->second;
}

change_author journal_authors::shown(std::optional<author_number> author) const {
  return author ? authors_[*author] : change_author();
}

// The last one of those who changed it one after the other, with the others.
change_author journal_authors::shown(const std::vector<author_number> &authors,
                                     author_number last) const {
  change_author found = authors_[last];
  for (const author_number one : authors) {
    const std::pair<size_t, std::string> maker = {*authors_[one].step, authors_[one].routine};
    const bool told =
        std::find(found.earlier.begin(), found.earlier.end(), maker) != found.earlier.end();
    if (maker.first != *found.step && !told) {
      found.earlier.push_back(maker);
    }
  }
  return found;
}

change_author journal_authors::of_record(const state_change &change, const thing &about) {
  record_story story(change);
  auto whole = about.calls.begin();
  records_.for_each(hash_of(lab::store_file(change.name), *change.key),
                    [&](const record_call &call) {
                      for (; whole != about.calls.end() && whole->line < call.line; ++whole) {
                        story.take(*whole);
                      }
                      story.take(call);
                    });
  for (; whole != about.calls.end(); ++whole) {
    story.take(*whole);
  }
  return story.last() ? shown(story.all(), *story.last()) : shown(about.whole);
}

change_author journal_authors::of_table(const thing &about) const {
  std::vector<author_number> authors;
  for (const auto &[author, sum] : about.table.after) {
    authors.push_back(author);
  }
  return authors.empty() ? change_author() : shown(authors, authors.back());
}

bool journal_authors::wrote(size_t step) const {
  return std::any_of(authors_.begin(), authors_.end(),
                     [&](const change_author &author) { return author.step == step; });
}

std::vector<std::string> journal_authors::routines_of(size_t step) const {
  std::vector<std::string> names;
  for (const change_author &author : authors_) {
    if (author.step == step && !author.routine.empty()) {
      names.push_back(author.routine);
    }
  }
  return names;
}

change_author journal_authors::of(const state_change &change) {
  const std::string name = shown_uri(change.name);
  if (change.key && name == lab::running_tag_tables) {
    const thing *const table = find("tag table", *change.key);
    return table == nullptr ? change_author() : of_table(*table);
  }
  const thing *const about =
      find(change.kind, change.kind == "store" ? lab::store_file(change.name) : name);
  if (about == nullptr) {
    return {};
  }
  if (change.key && change.kind == "store" && about->several) {
    return of_record(change, *about);
  }
  return shown(change.key && about->last ? about->last : about->whole ? about->whole : about->last);
}
