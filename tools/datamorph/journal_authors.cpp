#include "journal_authors.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "journal_lines.h"
#include "lab/lab.h"
#include "store_access.h"
#include "text.h"

namespace {

uint64_t hash_of(const std::string &key) {
  return std::hash<std::string>()(key);
}

// Calls after which a store, or what is in it, is another one.
bool is_about_all(const std::string &call) {
  static constexpr const char *calls[] = {"pss_create",   "pss2_create",  "pss_destroy",
                                          "pss2_destroy", "pss_snapshot", "pss2_file2kernel",
                                          "pss2_open"};
  return std::any_of(std::begin(calls), std::end(calls),
                     [&](const char *one) { return call == one; });
}

// Whether a call went well and left something other than it was. An access point that goes, a flat
// file and a store as a whole have no counts of records.
bool changes_something(const nlohmann::json &line) {
  const std::string call = text_member(line, "call");
  if (number_member(line, "status") != 0 || call == "pss_close" || call == "pss2_close") {
    return false;
  }
  if (call == "sysmgr_srv_tag_info_add") {
    return line.value("tag", nlohmann::json()) != line.value("old_tag", nlohmann::json());
  }
  return !line.contains("key") || number_member(line, "added") > 0 ||
         number_member(line, "changed") > 0 || number_member(line, "removed") > 0;
}

// The key that a VDC's table has in the store of the running ones.
std::string table_key(uint64_t vdc) {
  return to_hex(std::string{static_cast<char>(vdc >> 8), static_cast<char>(vdc)});
}

} // namespace

journal_authors::journal_authors(unique_fd journal, const std::vector<conversion_request> &requests)
    : journal_(std::move(journal)), requests_(requests) {}

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
    const std::string key = table_key(number_member(line, "table_vdc"));
    things_[{"tag table", key}].setters.push_back(author);
    things_[{"store", lab::store_file(lab::running_tag_tables)}].whole = author;
  } else if (call == "pss2_kernel2file") {
    things_[{"file", text_member(line, "file")}].whole = author;
  } else {
    take_store(number, line, author);
  }
}

void journal_authors::take_store(uint64_t number, const nlohmann::json &line,
                                 author_number author) {
  const std::string uri = text_member(line, "uri");
  const std::string call = text_member(line, "call");
  if (uri.empty()) {
    return;
  }
  thing &about = things_[{"store", lab::store_file(uri)}];
  if (is_about_all(call)) {
    about.whole = author;
    about.whole_line = number;
  }
  about.several = about.several || (about.last && *about.last != author);
  about.last = author;
}

const journal_authors::thing *journal_authors::find(const std::string &kind,
                                                    const std::string &name) const {
  const auto found = things_.find({kind, name});
  return found == things_.end() ? nullptr : &found->second;
}

change_author journal_authors::shown(std::optional<author_number> author) const {
  return author ? authors_[*author] : change_author();
}

// Of those who changed it one after the other.
change_author journal_authors::shown(const std::vector<author_number> &authors) const {
  if (authors.empty()) {
    return {};
  }
  change_author last = authors_[authors.back()];
  for (const author_number one : authors) {
    const std::pair<size_t, std::string> maker = {*authors_[one].step, authors_[one].routine};
    const bool told =
        std::find(last.earlier.begin(), last.earlier.end(), maker) != last.earlier.end();
    if (maker.first != *last.step && !told) {
      last.earlier.push_back(maker);
    }
  }
  return last;
}

// The authors of a store's records since it was last changed as a whole.
void journal_authors::load_records(const std::string &file, const thing &about) {
  records_.clear();
  loaded_ = file;
  for_each_journal_line(journal_.get(), [&](uint64_t number, const nlohmann::json &line) {
    if (number < about.whole_line || !line.contains("key") || !changes_something(line) ||
        lab::store_file(text_member(line, "uri")) != file) {
      return;
    }
    const std::optional<author_number> author = author_of(line);
    if (author) {
      records_.emplace_back(hash_of(text_member(line, "key")), *author);
    }
  });
  std::stable_sort(records_.begin(), records_.end(),
                   [](const auto &one, const auto &other) { return one.first < other.first; });
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
    return table == nullptr ? change_author() : shown(table->setters);
  }
  const thing *const about =
      find(change.kind, change.kind == "store" ? lab::store_file(change.name) : name);
  if (about == nullptr) {
    return {};
  }
  if (!change.key || change.kind != "store" || !about->several) {
    return shown(change.key && about->last ? about->last
                 : about->whole            ? about->whole
                                           : about->last);
  }
  if (loaded_ != lab::store_file(change.name)) {
    load_records(lab::store_file(change.name), *about);
  }
  const record_author wanted = {hash_of(*change.key), 0};
  const auto [first, behind] = std::equal_range(
      records_.begin(), records_.end(), wanted,
      [](const record_author &one, const record_author &other) { return one.first < other.first; });
  std::vector<author_number> authors;
  std::transform(first, behind, std::back_inserter(authors),
                 [](const record_author &one) { return one.second; });
  return authors.empty() ? shown(about->whole) : shown(authors);
}
