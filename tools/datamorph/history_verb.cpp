// history: the runs of a switch, from what each wrote down. What a run did not write down is not
// guessed.
#include "verbs.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "failure.h"
#include "output.h"
#include "report.h"
#include "run_record.h"
#include "switch_dir.h"
#include "text.h"
#include "tree.h"
#include "unique_fd.h"

namespace {

constexpr char runs_name[] = "runs";
constexpr char report_file[] = "report.json";
constexpr char killed[] = "killed";
constexpr size_t largest_record = 1 << 20;
constexpr size_t largest_report = 256 << 20;

// What is not known is absent.
struct history_row {
  std::string run; // the folder's name
  std::string verb;
  std::string from;
  std::string to;
  std::optional<run_facts> facts; // what the run wrote down
  std::optional<record_counts> records;
  std::string result;
  std::string remark;
};

// ---- What stands in a run's folder -------------------------------------------------------------

bool is_number(const std::string &name) {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

// By number, whatever its length; what is no run comes last.
bool earlier(const std::string &a, const std::string &b) {
  if (is_number(a) != is_number(b)) {
    return is_number(a);
  }
  const unsigned long number_a = std::strtoul(a.c_str(), nullptr, 10);
  const unsigned long number_b = std::strtoul(b.c_str(), nullptr, 10);
  return number_a != number_b ? number_a < number_b : a < b;
}

std::vector<std::string> names_in(int runs) {
  const int fd = openat(runs, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR *stream = fd < 0 ? nullptr : fdopendir(fd);
  if (stream == nullptr) {
    throw failure(exit_refused, "cannot read the folder runs/: " + error_text(errno));
  }
  std::vector<std::string> names;
  while (const dirent *entry = readdir(stream)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  closedir(stream);
  std::sort(names.begin(), names.end(), earlier);
  return names;
}

nlohmann::json document_in(int folder, const char *name, size_t limit) {
  nlohmann::json document =
      nlohmann::json::parse(tree::read_file(folder, name, limit), nullptr, false);
  if (!document.is_object()) {
    throw failure(exit_refused, std::string(name) + " is no JSON object");
  }
  return document;
}

// All records that a conversion's report counts. Throws nlohmann::json::exception.
record_counts counts_of(const nlohmann::json &report) {
  record_counts counts;
  for (const nlohmann::json &store : report.at("stores")) {
    const nlohmann::json &records = store.at("records");
    counts.add({records.at("added").get<uint64_t>(), records.at("changed").get<uint64_t>(),
                records.at("removed").get<uint64_t>()});
  }
  return counts;
}

// Of a run that wrote no record: one of an earlier version of this program.
void take_old_report(const nlohmann::json &report, history_row *row) {
  const bool converted = report.at("converted").get<bool>();
  row->verb = "convert"; // no other verb leaves a report
  row->from = report.at("from").get<std::string>();
  row->to = report.at("to").get<std::string>();
  row->result = converted ? run_result::done : "";
  row->remark = converted ? "" : "not converted: " + report.at("trouble").get<std::string>();
}

void take_report(int folder, history_row *row) {
  if (!tree::exists(folder, report_file)) {
    return;
  }
  try {
    const nlohmann::json report = document_in(folder, report_file, largest_report);
    if (!row->facts) {
      take_old_report(report, row);
    }
    if (row->result == run_result::done) {
      row->records = counts_of(report);
    }
  } catch (const failure &error) {
    row->remark = std::string("damaged: ") + error.what();
  } catch (const nlohmann::json::exception &) {
    row->remark = std::string("damaged: ") + report_file + " is no report of a conversion";
  }
}

void take_record(int folder, history_row *row) {
  run_facts facts = run_facts::from_json(document_in(folder, run_record_file, largest_record));
  if (facts.run != row->run) {
    throw failure(exit_refused,
                  std::string(run_record_file) + " is of run " + in_quotes(facts.run));
  }
  row->verb = facts.verb;
  row->from = facts.from;
  row->to = facts.to;
  // Nobody works on the switch now, or its lock would not have been given.
  row->result = facts.result == run_result::running ? killed : facts.result;
  row->remark = facts.message;
  row->facts = std::move(facts);
}

history_row row_of(int runs, const std::string &name) {
  history_row row;
  row.run = name;
  const unique_fd folder(
      openat(runs, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!is_number(name) || (!folder.is_open() && errno != EACCES)) {
    row.remark = "foreign: not the folder of a run";
    return row;
  }
  if (!folder.is_open()) {
    row.remark = "cannot be read: " + error_text(EACCES);
    return row;
  }
  const bool record = tree::exists(folder.get(), run_record_file);
  if (!record && !tree::exists(folder.get(), report_file)) {
    row.remark = "holds neither run.json nor report.json";
    return row;
  }
  try {
    if (record) {
      take_record(folder.get(), &row);
    }
  } catch (const failure &error) {
    row.remark = std::string("damaged: ") + error.what();
    return row;
  }
  take_report(folder.get(), &row);
  return row;
}

// ---- The rows together -------------------------------------------------------------------------

// A conversion and a rollback change the state's generation with their step: what the next run
// found tells on which side of it a killed one ended. A reboot does not.
void tell_killed(std::vector<history_row> *rows, uint64_t now) {
  uint64_t after = now;
  bool known = true; // what stood after the run
  for (size_t at = rows->size(); at-- > 0;) {
    history_row &row = (*rows)[at];
    if (!is_number(row.run)) {
      continue;
    }
    if (row.result == killed && row.verb != "reboot" && known) {
      row.remark = row.facts->generation == after ? "the switch stayed as it was"
                                                  : "its change had been made";
    }
    known = row.facts.has_value();
    after = known ? row.facts->generation : 0;
  }
}

std::vector<history_row> rows_of(const switch_dir &target) {
  std::vector<history_row> rows;
  const unique_fd runs(
      openat(target.folder(), runs_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!runs.is_open() && errno == ENOENT) {
    return rows;
  }
  if (!runs.is_open()) {
    throw failure(exit_refused, in_quotes(target.path()) +
                                    ": cannot open the folder runs/: " + error_text(errno) +
                                    "; move what stands there out of the way, or run as the user "
                                    "that the switch belongs to");
  }
  for (const std::string &name : names_in(runs.get())) {
    rows.push_back(row_of(runs.get(), name));
  }
  tell_killed(&rows, target.state().generation);
  return rows;
}

// ---- Shown -------------------------------------------------------------------------------------

std::string or_dash(const std::string &text) {
  return text.empty() ? "-" : to_text(text);
}

std::string moments_text(const history_row &row) {
  if (!row.facts || !row.facts->moments) {
    return "-";
  }
  std::string text;
  for (const std::string &name : *row.facts->moments) {
    append_word(text, name);
  }
  return row.facts->moments->size() == all_moments.size() ? "all" : or_dash(text);
}

std::string services_text(const history_row &row) {
  if (!row.facts || !row.facts->services) {
    return "-";
  }
  std::string text;
  for (const std::string &name : *row.facts->services) {
    append_word(text, name);
  }
  return text.empty() ? "all" : to_text(text);
}

std::string seconds_text(const history_row &row) {
  if (!row.facts || !row.facts->milliseconds) {
    return "-";
  }
  const unsigned long long all = *row.facts->milliseconds;
  char text[48];
  std::snprintf(text, sizeof text, "%llu.%03llu", all / 1000, all % 1000);
  return text;
}

std::string user_text(const history_row &row) {
  return row.facts ? or_dash(row.facts->user) + " (" + std::to_string(row.facts->uid) + ")" : "-";
}

void print_table(const std::vector<history_row> &rows) {
  using output::align;
  std::vector<std::vector<output::cell>> cells;
  for (const history_row &row : rows) {
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
                cells);
}

nlohmann::json or_null(const std::string &text) {
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

// What is not known is null.
nlohmann::json row_json(const history_row &row) {
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
  const std::vector<history_row> rows = rows_of(target);
  if (common.format == output::format::table) {
    print_table(rows);
    return exit_done;
  }
  nlohmann::json list = nlohmann::json::array();
  for (const history_row &row : rows) {
    list.push_back(row_json(row));
  }
  output::json({{"switch", dir}, {"runs", list}});
  return exit_done;
}
