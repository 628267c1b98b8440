#include "report.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "journal_lines.h"
#include "lab/lab.h"
#include "output.h"
#include "services.h"
#include "statuses.h"
#include "tag_tables.h"
#include "text.h"

namespace {

std::string milliseconds_text(double milliseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", milliseconds);
  return text;
}

nlohmann::json counts_json(const record_counts &counts) {
  return {{"added", counts.added}, {"changed", counts.changed}, {"removed", counts.removed}};
}

std::string joined(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words) {
    append_word(text, word);
  }
  return text.empty() ? "-" : text;
}

std::string numbers(const std::vector<uint32> &values) {
  std::vector<std::string> words;
  words.reserve(values.size());
  for (const uint32 value : values) {
    words.push_back(std::to_string(value));
  }
  return joined(words);
}

// With the VDC where it is not the request's own.
std::string tag_text(const request_report &report, const tag_report &tag) {
  const bool elsewhere = tag.vdc != report.request.vdc;
  return tag_entry_text(service_name(tag.uuid), to_text(tag.tag)) +
         (elsewhere ? " in VDC " + std::to_string(tag.vdc) : "");
}

// Those that changed a table.
std::string tags_text(const request_report &report) {
  std::string text;
  for (const tag_report &tag : report.tags) {
    if (tag.changed()) {
      append_word(text, tag_text(report, tag), ", ");
    }
  }
  return text.empty() ? "-" : text;
}

std::string gone_text(const request_report &report) {
  std::string text;
  for (const tag_report &tag : report.gone) {
    append_word(text, tag_text(report, tag), ", ");
  }
  return text.empty() ? "-" : text;
}

nlohmann::json entry_json(const tag_report &tag) {
  return {{"vdc", tag.vdc},
          {"service", service_name(tag.uuid)},
          {"uuid", tag.uuid},
          {"tag", to_text(tag.tag)}};
}

nlohmann::json tags_json(const std::vector<tag_report> &tags) {
  nlohmann::json rows = nlohmann::json::array();
  for (const tag_report &tag : tags) {
    rows.push_back(entry_json(tag));
    rows.back()["changed"] = tag.changed();
  }
  return rows;
}

nlohmann::json gone_json(const std::vector<tag_report> &tags) {
  nlohmann::json rows = nlohmann::json::array();
  for (const tag_report &tag : tags) {
    rows.push_back(entry_json(tag));
  }
  return rows;
}

tag_report tag_of(const nlohmann::json &line) {
  tag_report tag;
  tag.vdc = static_cast<vdc_id_t>(number_member(line, "table_vdc"));
  tag.uuid = static_cast<uint32>(number_member(line, "uuid"));
  tag.tag = from_hex(text_member(line, "tag")).value_or("");
  const auto old = line.find("old_tag");
  if (old != line.end() && old->is_string()) {
    tag.old = from_hex(old->get<std::string>());
  }
  return tag;
}

const char *what_happened(const record_counts &records, bool before, bool after) {
  if (before && after) {
    return records.any() ? "changed" : "unchanged";
  }
  if (before) {
    return "removed";
  }
  return after ? "created" : "temporary";
}

record_counts counts_of(const nlohmann::json &line) {
  return {number_member(line, "added"), number_member(line, "changed"),
          number_member(line, "removed")};
}

request_report *request_of(std::vector<request_report> *requests, const nlohmann::json &line) {
  const std::string moment = text_member(line, "moment");
  const std::string service = text_member(line, "service");
  const uint64_t vdc = number_member(line, "vdc");
  for (request_report &report : *requests) {
    if (moment == moment_name(report.request.which) && vdc == report.request.vdc &&
        service == report.request.service()) {
      return &report;
    }
  }
  return nullptr;
}

std::vector<output::cell> request_row(const request_report &report, bool with_gone) {
  const auto number = [&](uint64_t value) {
    return output::cell(static_cast<unsigned long>(value));
  };
  const bool bad = !report.status || *report.status != SYSERR_SUCCESS;
  const std::string status = report.status ? status_number(*report.status) : "-";
  const std::string text = report.status ? syserr2str(*report.status) : report.trouble;
  std::vector<output::cell> row = {moment_name(report.request.which),
                                   report.request.vdc,
                                   report.request.service(),
                                   bad ? output::cell::bad(status) : output::cell(status),
                                   bad ? output::cell::bad(text) : output::cell(text),
                                   report.started ? milliseconds_text(report.milliseconds) : "-",
                                   number(report.stores.size()),
                                   number(report.records.added),
                                   number(report.records.changed),
                                   number(report.records.removed),
                                   numbers(report.access_points),
                                   tags_text(report)};
  if (with_gone) {
    row.emplace_back(gone_text(report));
  }
  return row;
}

nlohmann::json request_json(const request_report &report) {
  nlohmann::json row = {{"moment", moment_name(report.request.which)},
                        {"vdc", report.request.vdc},
                        {"service", report.request.service()},
                        {"uuid", report.request.uuid},
                        {"started", report.started},
                        {"status", nullptr},
                        {"text", report.trouble},
                        {"milliseconds", report.milliseconds},
                        {"records", counts_json(report.records)},
                        {"stores", report.stores},
                        {"access_points_removed", report.access_points},
                        {"tags_set", tags_json(report.tags)},
                        {"tags_gone", gone_json(report.gone)}};
  if (report.status) {
    row["status"] = *report.status;
    row["text"] = syserr2str(*report.status);
  }
  return row;
}

} // namespace

void record_counts::add(const record_counts &other) {
  added += other.added;
  changed += other.changed;
  removed += other.removed;
}

void request_report::take_tag(const tag_report &tag) {
  for (tag_report &taken : tags) {
    if (taken.vdc == tag.vdc && taken.uuid == tag.uuid) {
      taken.tag = tag.tag;
      return;
    }
  }
  tags.push_back(tag);
}

void request_report::take_tags_gone(const nlohmann::json &entries) {
  for (const nlohmann::json &entry : entries) {
    tag_report tag;
    tag.vdc = entry.at("vdc").get<vdc_id_t>();
    tag.uuid = entry.at("uuid").get<uint32>();
    tag.tag = from_hex(entry.at("tag").get<std::string>()).value_or("");
    gone.push_back(tag);
  }
}

void conversion_report::take_line(const nlohmann::json &line) {
  if (number_member(line, "status") != 0) {
    return;
  }
  request_report *const report = request_of(&requests, line);
  if (report != nullptr && text_member(line, "call") == "mts_sap_destroy") {
    report->access_points.push_back(static_cast<uint32>(number_member(line, "sap")));
  }
  if (report != nullptr && text_member(line, "call") == "sysmgr_srv_tag_info_add") {
    report->take_tag(tag_of(line));
  }
  const std::string uri = text_member(line, "uri");
  if (uri.empty()) {
    return;
  }
  const record_counts counts = counts_of(line);
  store_report &store = touched[uri];
  store.records.add(counts);
  if (report != nullptr) {
    report->stores.insert(uri);
    report->records.add(counts);
    const std::string service = report->request.service();
    if (std::find(store.services.begin(), store.services.end(), service) == store.services.end()) {
      store.services.push_back(service);
    }
  }
}

void conversion_report::end_journal(bool ended, const std::set<std::string> &before,
                                    const std::set<std::string> &after) {
  for (auto &[uri, store] : touched) {
    store.uri = uri;
    store.what =
        ended ? what_happened(store.records, before.contains(uri), after.contains(uri)) : "touched";
    stores.push_back(store);
  }
  touched.clear();
}

void conversion_report::take_tables(const nlohmann::json &changes,
                                    const std::set<std::string> &before,
                                    const std::set<std::string> &after) {
  const std::string uri = lab::running_tag_tables;
  std::erase_if(stores, [&](const store_report &store) { return store.uri == uri; });
  const record_counts counts = counts_of(changes);
  if (!counts.any() && before.contains(uri) == after.contains(uri)) {
    return;
  }
  store_report tables = {uri, "", counts, {}};
  tables.what = what_happened(counts, before.contains(uri), after.contains(uri));
  for (const request_report &report : requests) {
    const bool set = std::any_of(report.tags.begin(), report.tags.end(),
                                 [](const tag_report &tag) { return tag.changed(); });
    const std::string service = report.request.service();
    if ((set || !report.gone.empty()) && std::find(tables.services.begin(), tables.services.end(),
                                                   service) == tables.services.end()) {
      tables.services.push_back(service);
    }
  }
  const auto place = std::find_if(stores.begin(), stores.end(),
                                  [&](const store_report &store) { return store.uri > uri; });
  stores.insert(place, tables);
}

size_t conversion_report::failed_requests() const {
  return static_cast<size_t>(
      std::count_if(requests.begin(), requests.end(), [](const request_report &report) {
        return report.status.value_or(SYSERR_SUCCESS) != SYSERR_SUCCESS;
      }));
}

nlohmann::json conversion_report::to_json() const {
  nlohmann::json document = {{"switch", dir},
                             {"run", run},
                             {"run_folder", run.empty() ? "" : dir + "/runs/" + run},
                             {"library", library},
                             {"from", from},
                             {"to", to},
                             {"release", release},
                             {"converted", converted},
                             {"message", closing_line},
                             {"trouble", trouble},
                             {"notes", notes},
                             {"requests", nlohmann::json::array()},
                             {"stores", nlohmann::json::array()}};
  for (const request_report &report : requests) {
    document["requests"].push_back(request_json(report));
  }
  for (const store_report &store : stores) {
    document["stores"].push_back({{"uri", store.uri},
                                  {"what", store.what},
                                  {"records", counts_json(store.records)},
                                  {"services", store.services}});
  }
  return document;
}

// The column of entries that went stands when there is one. Of a run that failed nothing is left of
// all this.
void conversion_report::print_requests() const {
  using output::align;
  const bool gone = std::any_of(requests.begin(), requests.end(),
                                [](const request_report &report) { return !report.gone.empty(); });
  std::vector<std::vector<output::cell>> rows;
  for (const request_report &report : requests) {
    rows.push_back(request_row(report, gone));
  }
  std::vector<output::column> columns = {
      {"MOMENT"},
      {"VDC", align::right},
      {"SERVICE"},
      {"STATUS"},
      {"MEANING", align::left, true},
      {"MS", align::right},
      {"STORES", align::right},
      {"ADDED", align::right},
      {"CHANGED", align::right},
      {"REMOVED", align::right},
      {"ACCESS POINTS REMOVED"},
      {converted ? "TAGS SET" : "TAGS SET (in the copy that was dropped)"}};
  if (gone) {
    columns.push_back({converted ? "TAGS GONE" : "TAGS GONE (in the copy that was dropped)"});
  }
  output::table(columns, rows);
}

void conversion_report::print_tables() const {
  print_requests();
  if (!stores.empty()) {
    using output::align;
    std::vector<std::vector<output::cell>> rows;
    for (const store_report &store : stores) {
      rows.push_back({to_text(store.uri), store.what,
                      static_cast<unsigned long>(store.records.added),
                      static_cast<unsigned long>(store.records.changed),
                      static_cast<unsigned long>(store.records.removed), joined(store.services)});
    }
    output::text("\n");
    output::table({{converted ? "STORE" : "STORE (in the copy that was dropped)"},
                   {"WHAT"},
                   {"ADDED", align::right},
                   {"CHANGED", align::right},
                   {"REMOVED", align::right},
                   {"BY"}},
                  rows);
  }
  output::text("\n" + closing_line + "\n");
}
