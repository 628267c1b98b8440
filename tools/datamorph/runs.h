// The folders of a switch's runs, and what each tells of its run.
#ifndef DATAMORPH_RUNS_H
#define DATAMORPH_RUNS_H

#include <optional>
#include <string>
#include <vector>

#include "report.h"
#include "run_record.h"
#include "switch_dir.h"
#include "unique_fd.h"

// Of the switch's folder; not open when it is not there or cannot be, errno tells.
unique_fd open_runs(int folder);
// A run's folder in it; the same.
unique_fd open_run(int runs, const std::string &name);
// The highest number; "" when there is none.
std::string last_run(int runs);

// What a run wrote down. What is not known is absent, and never guessed.
struct run_row {
  std::string run; // the folder's name
  std::string verb;
  std::string from;
  std::string to;
  std::optional<run_facts> facts; // of run.json
  std::optional<record_counts> records;
  std::string result;
  std::string remark;
  std::optional<bool> kept; // whether what it made became the switch's state
};

// Oldest first; whatever else lies there comes last. Throws failure(3).
std::vector<run_row> run_rows(const switch_dir &target);

#endif
