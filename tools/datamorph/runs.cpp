#include "runs.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>

#include "failure.h"
#include "progress.h"
#include "run_steps.h"
#include "strict_json.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr char runs_name[] = "runs";
constexpr char report_file[] = "report.json";
constexpr size_t largest_report = 256 << 20;

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

std::vector<std::string> sorted_runs(int runs) {
  std::optional<std::vector<std::string>> names = tree::names_in(runs);
  if (!names) {
    throw failure(exit_refused, "cannot read the folder runs/: " + error_text(errno));
  }
  std::sort(names->begin(), names->end(), earlier);
  return *names;
}

nlohmann::json document_in(int folder, const char *name, size_t limit) {
  nlohmann::json document = parse_shallow(tree::read_file(folder, name, limit));
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
void take_old_report(const nlohmann::json &report, run_row *row) {
  const bool converted = report.at("converted").get<bool>();
  row->verb = "convert"; // no other verb leaves a report
  row->from = report.at("from").get<std::string>();
  row->to = report.at("to").get<std::string>();
  row->result = converted ? run_result::done : "";
  row->remark = converted ? "" : "not converted: " + report.at("trouble").get<std::string>();
}

void take_report(int folder, run_row *row) {
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

std::string interrupted(int folder) {
  const std::string where = how_far(folder);
  return where.empty() ? "" : "interrupted " + where;
}

void take_record(int folder, run_row *row) {
  run_facts facts = run_facts::from_json(document_in(folder, run_record_file, largest_run_record));
  if (facts.run != row->run) {
    throw failure(exit_refused,
                  std::string(run_record_file) + " is of run " + in_quotes(facts.run));
  }
  row->verb = facts.verb;
  row->from = facts.from;
  row->to = facts.to;
  // Nobody works on the switch now, or its lock would not have been given.
  row->result = facts.result == run_result::running ? run_result::killed : facts.result;
  row->remark = row->result == run_result::killed ? interrupted(folder) : facts.message;
  row->facts = std::move(facts);
}

run_row row_of(int runs, const std::string &name) {
  run_row row;
  row.run = name;
  const unique_fd folder = open_run(runs, name);
  const int error = folder.is_open() ? 0 : errno;
  if (!is_number(name) || error == ENOTDIR || error == ELOOP || error == ENOENT) {
    row.remark = "foreign: not the folder of a run";
    return row;
  }
  if (error != 0) {
    row.remark = "cannot be read: " + error_text(error);
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
void tell_killed(std::vector<run_row> *rows, uint64_t now) {
  uint64_t after = now;
  bool known = true; // what stood after the run
  for (size_t at = rows->size(); at-- > 0;) {
    run_row &row = (*rows)[at];
    if (!is_number(row.run)) {
      continue;
    }
    if (row.result == run_result::killed && known) {
      const std::string outcome = outcome_of_killed(*row.facts, after);
      if (!outcome.empty()) {
        append_word(row.remark, outcome, "; ");
      }
      row.kept = row.verb == "reboot" ? row.kept : row.facts->generation != after;
    }
    known = row.facts.has_value();
    after = known ? row.facts->generation : 0;
  }
}

void tell_kept(std::vector<run_row> *rows) {
  for (run_row &row : *rows) {
    if (row.result != run_result::killed && !row.verb.empty()) {
      row.kept = row.result == run_result::done;
    }
  }
}

} // namespace

unique_fd open_runs(int folder) {
  return unique_fd(openat(folder, runs_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

unique_fd open_run(int runs, const std::string &name) {
  return unique_fd(openat(runs, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::string last_run(int runs) {
  std::string last;
  for (const std::string &name : sorted_runs(runs)) {
    last = is_number(name) ? name : last;
  }
  return last;
}

std::vector<run_row> run_rows(const switch_dir &target) {
  std::vector<run_row> rows;
  const unique_fd runs = open_runs(target.folder());
  if (!runs.is_open() && errno == ENOENT) {
    return rows;
  }
  if (!runs.is_open()) {
    throw failure(exit_refused, in_quotes(target.path()) +
                                    ": cannot open the folder runs/: " + error_text(errno) +
                                    "; move what stands there out of the way, or run as the user "
                                    "that the switch belongs to");
  }
  const std::vector<std::string> names = sorted_runs(runs.get());
  progress shown;
  shown.begin("reading", names.size(), "runs");
  for (const std::string &name : names) {
    rows.push_back(row_of(runs.get(), name));
    shown.advance();
  }
  tell_killed(&rows, target.state().generation);
  tell_kept(&rows);
  return rows;
}
