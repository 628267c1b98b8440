#include "report.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

#include "output.h"
#include "services.h"
#include "statuses.h"
#include "text.h"

namespace {

uint64_t count_of(const nlohmann::json &line, const char *name) {
  const auto found = line.find(name);
  return found != line.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

std::string text_of(const nlohmann::json &line, const char *name) {
  const auto found = line.find(name);
  return found != line.end() && found->is_string() ? found->get<std::string>() : "";
}

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

// Those that changed a table, with the VDC where it is not the request's own.
std::string tags_text(const request_report &report) {
  std::string text;
  for (const tag_report &tag : report.tags) {
    const bool elsewhere = tag.vdc != report.request.vdc;
    if (tag.changed) {
      append_word(text,
                  service_name(tag.uuid) + " \"" + to_text(tag.tag) + "\"" +
                      (elsewhere ? " in VDC " + std::to_string(tag.vdc) : ""),
                  ", ");
    }
  }
  return text.empty() ? "-" : text;
}

nlohmann::json tags_json(const std::vector<tag_report> &tags) {
  nlohmann::json rows = nlohmann::json::array();
  for (const tag_report &tag : tags) {
    rows.push_back({{"vdc", tag.vdc},
                    {"service", service_name(tag.uuid)},
                    {"uuid", tag.uuid},
                    {"tag", to_text(tag.tag)},
                    {"changed", tag.changed}});
  }
  return rows;
}

tag_report tag_of(const nlohmann::json &line) {
  tag_report tag;
  tag.vdc = static_cast<vdc_id_t>(count_of(line, "table_vdc"));
  tag.uuid = static_cast<uint32>(count_of(line, "uuid"));
  tag.tag = text_of(line, "tag");
  tag.changed = count_of(line, "old") != count_of(line, "new");
  return tag;
}

const char *what_happened(bool ended, bool before, bool after) {
  if (!ended) {
    return "touched";
  }
  if (before) {
    return after ? "changed" : "removed";
  }
  return after ? "created" : "temporary";
}

request_report *request_of(std::vector<request_report> *requests, const nlohmann::json &line) {
  const std::string moment = text_of(line, "moment");
  const std::string service = text_of(line, "service");
  const uint64_t vdc = count_of(line, "vdc");
  for (request_report &report : *requests) {
    if (moment == moment_name(report.request.which) && vdc == report.request.vdc &&
        service == report.request.service()) {
      return &report;
    }
  }
  return nullptr;
}

std::vector<output::cell> request_row(const request_report &report) {
  const auto number = [&](uint64_t value) {
    return output::cell(static_cast<unsigned long>(value));
  };
  const bool bad = !report.status || *report.status != SYSERR_SUCCESS;
  const std::string status = report.status ? status_number(*report.status) : "-";
  const std::string text = report.status ? syserr2str(*report.status) : report.trouble;
  return {moment_name(report.request.which),
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
                        {"tags_set", tags_json(report.tags)}};
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
      taken.changed |= tag.changed;
      return;
    }
  }
  tags.push_back(tag);
}

void conversion_report::take_journal(const std::string &journal, bool ended,
                                     const std::set<std::string> &before,
                                     const std::set<std::string> &after) {
  std::map<std::string, store_report> touched;
  std::istringstream lines(journal);
  for (std::string text; std::getline(lines, text);) {
    const nlohmann::json line = nlohmann::json::parse(text, nullptr, false);
    if (!line.is_object() || count_of(line, "status") != 0) {
      continue;
    }
    request_report *report = request_of(&requests, line);
    if (report != nullptr && text_of(line, "call") == "mts_sap_destroy") {
      report->access_points.push_back(static_cast<uint32>(count_of(line, "sap")));
    }
    if (report != nullptr && text_of(line, "call") == "sysmgr_srv_tag_info_add") {
      report->take_tag(tag_of(line));
    }
    const std::string uri = text_of(line, "uri");
    if (uri.empty()) {
      continue;
    }
    const record_counts counts = {count_of(line, "added"), count_of(line, "changed"),
                                  count_of(line, "removed")};
    store_report &store = touched[uri];
    store.records.add(counts);
    if (report != nullptr) {
      report->stores.insert(uri);
      report->records.add(counts);
      const std::string service = report->request.service();
      if (std::find(store.services.begin(), store.services.end(), service) ==
          store.services.end()) {
        store.services.push_back(service);
      }
    }
  }
  for (auto &[uri, store] : touched) {
    store.uri = uri;
    store.what = what_happened(ended, before.contains(uri), after.contains(uri));
    stores.push_back(store);
  }
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

void conversion_report::print_tables() const {
  using output::align;
  std::vector<std::vector<output::cell>> rows;
  for (const request_report &report : requests) {
    rows.push_back(request_row(report));
  }
  output::table({{"MOMENT"},
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
                 {"TAGS SET"}},
                rows);
  if (!stores.empty()) {
    rows.clear();
    for (const store_report &store : stores) {
      rows.push_back({to_text(store.uri), store.what,
                      static_cast<unsigned long>(store.records.added),
                      static_cast<unsigned long>(store.records.changed),
                      static_cast<unsigned long>(store.records.removed), joined(store.services)});
    }
    output::text("\n");
    // Of a run that failed nothing is left of all this.
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
