// history: the runs of a switch, from what each wrote down.
#include "verbs.h"

#include <cstdio>

#include "failure.h"
#include "output.h"
#include "runs.h"
#include "switch_dir.h"
#include "text.h"

namespace {

std::string or_dash(const std::string &text) {
  return text.empty() ? "-" : to_text(text);
}

std::string moments_text(const run_row &row) {
  if (!row.facts || !row.facts->moments) {
    return "-";
  }
  std::string text;
  for (const std::string &name : *row.facts->moments) {
    append_word(text, name);
  }
  return row.facts->moments->size() == all_moments.size() ? "all" : or_dash(text);
}

std::string services_text(const run_row &row) {
  if (!row.facts || !row.facts->services) {
    return "-";
  }
  std::string text;
  for (const std::string &name : *row.facts->services) {
    append_word(text, name);
  }
  return text.empty() ? "all" : to_text(text);
}

std::string seconds_text(const run_row &row) {
  if (!row.facts || !row.facts->milliseconds) {
    return "-";
  }
  const unsigned long long all = *row.facts->milliseconds;
  char text[48];
  std::snprintf(text, sizeof text, "%llu.%03llu", all / 1000, all % 1000);
  return text;
}

std::string user_text(const run_row &row) {
  return row.facts ? or_dash(row.facts->user) + " (" + std::to_string(row.facts->uid) + ")" : "-";
}

void print_table(const std::vector<run_row> &rows) {
  using output::align;
  std::vector<std::vector<output::cell>> cells;
  for (const run_row &row : rows) {
    const auto count = [&](uint64_t record_counts::*which) {
      return row.records ? std::to_string((*row.records).*which) : "-";
    };
    const bool good = row.result == run_result::done;
    const std::string result = or_dash(row.result);
    cells.push_back({to_text(row.run), row.facts ? row.facts->started : "-", seconds_text(row),
                     or_dash(row.verb), or_dash(row.from), or_dash(row.to), moments_text(row),
                     services_text(row), good ? output::cell(result) : output::cell::bad(result),
                     user_text(row), count(&record_counts::added), count(&record_counts::changed),
                     count(&record_counts::removed), or_dash(row.remark)});
  }
  output::table({{"RUN"},
                 {"STARTED"},
                 {"SECONDS", align::right},
                 {"VERB"},
                 {"FROM"},
                 {"TO"},
                 {"MOMENTS", align::left, true},
                 {"SERVICES", align::left, true},
                 {"RESULT"},
                 {"BY"},
                 {"ADDED", align::right},
                 {"CHANGED", align::right},
                 {"REMOVED", align::right},
                 {"REMARK"}},
                cells, output::too_wide::is_told);
}

nlohmann::json or_null(const std::string &text) {
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

// What is not known is null.
nlohmann::json row_json(const run_row &row) {
  const nlohmann::json written = row.facts ? row.facts->to_json() : nlohmann::json::object();
  nlohmann::json document = {
      {"run", to_text(row.run)}, {"verb", or_null(row.verb)},     {"from", or_null(row.from)},
      {"to", or_null(row.to)},   {"result", or_null(row.result)}, {"remark", row.remark},
      {"records", nullptr}};
  for (const char *name : {"started", "milliseconds", "user", "uid", "pid", "host", "command",
                           "moments", "services"}) {
    document[name] = written.value(name, nlohmann::json());
  }
  if (row.facts && row.facts->user.empty()) {
    document["user"] = nullptr;
  }
  if (row.records) {
    document["records"] = {{"added", row.records->added},
                           {"changed", row.records->changed},
                           {"removed", row.records->removed}};
  }
  return document;
}

} // namespace

int history(const common_options &common, const std::string &dir) {
  const switch_dir target(dir, switch_dir::access::read);
  const std::vector<run_row> rows = run_rows(target);
  if (common.format == output::format::table) {
    if (rows.empty()) {
      output::text(dir + ": no runs yet\n");
      return exit_done;
    }
    print_table(rows);
    return exit_done;
  }
  nlohmann::json list = nlohmann::json::array();
  for (const run_row &row : rows) {
    list.push_back(row_json(row));
  }
  output::json({{"switch", dir}, {"runs", list}}, "runs");
  return exit_done;
}
