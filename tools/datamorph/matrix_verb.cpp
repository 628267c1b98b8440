// matrix: what each change of release between those of a switch does.
#include "verbs.h"

#include <algorithm>
#include <map>

#include "failure.h"
#include "progress.h"
#include "release_matrix.h"
#include "state_diff.h"
#include "stop_signal.h"
#include "switch_dir.h"
#include "text.h"

namespace {

using cells = std::map<std::pair<std::string, std::string>, matrix_cell>;

output::cell grid_cell(const cells &all, const std::string &from, const std::string &to) {
  const auto found = all.find({from, to});
  if (found == all.end()) {
    return "-";
  }
  const std::string outcome = found->second.outcome;
  if (outcome == "fails") {
    return output::cell::bad(outcome);
  }
  return outcome == "acts" ? outcome + " (" + std::to_string(found->second.changes) + ")" : outcome;
}

void print_grid(const std::vector<std::string> &releases, const cells &all) {
  std::vector<std::string> names;
  names.reserve(releases.size());
  for (const std::string &release : releases) {
    names.push_back("TO " + release);
  }
  std::vector<output::column> columns = {{"FROM"}};
  for (const std::string &name : names) {
    columns.push_back({name.c_str()});
  }
  std::vector<std::vector<output::cell>> rows;
  for (const std::string &from : releases) {
    rows.push_back({from});
    for (const std::string &to : releases) {
      rows.back().push_back(grid_cell(all, from, to));
    }
  }
  output::table(columns, rows);
}

void print_details(const std::vector<matrix_cell> &in_order) {
  std::vector<std::vector<output::cell>> rows;
  for (const matrix_cell &cell : in_order) {
    std::string routines;
    for (const std::string &routine : cell.routines) {
      append_word(routines, routine);
    }
    if (cell.outcome != std::string("nothing")) {
      rows.push_back({cell.from, cell.to, cell.text, routines.empty() ? "-" : routines});
    }
  }
  if (!rows.empty()) {
    output::text("\n");
    output::table({{"FROM"}, {"TO"}, {"WHAT"}, {"BY"}}, rows);
  }
}

void check_releases(const std::vector<std::string> &wanted, const std::vector<std::string> &known) {
  std::string names;
  for (const std::string &name : known) {
    append_word(names, to_text(name));
  }
  for (const std::string &name : wanted) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      throw failure(exit_refused, "the release " + in_quotes(name) +
                                      " is unknown: the switch has no image of it; images: " +
                                      (names.empty() ? "none" : names));
    }
  }
}

void print_closing(const std::vector<matrix_cell> &in_order) {
  std::map<std::string, size_t> pairs;
  for (const matrix_cell &cell : in_order) {
    ++pairs[cell.outcome];
  }
  output::text("\n" + counted(in_order.size(), "pair") + ": " + std::to_string(pairs["acts"]) +
               " act, " + std::to_string(pairs["nothing"]) + " do nothing, " +
               std::to_string(pairs["fails"]) + " fail\n");
}

// Those that were asked for, each once, or all.
std::vector<std::string> chosen(const std::vector<std::string> &wanted,
                                const std::vector<std::string> &known) {
  std::vector<std::string> releases;
  for (const std::string &name : wanted.empty() ? known : wanted) {
    if (std::find(releases.begin(), releases.end(), name) == releases.end()) {
      releases.push_back(name);
    }
  }
  if (releases.size() < 2) {
    throw failure(wanted.empty() ? exit_refused : exit_usage,
                  "a change of release wants two of them", "name at least two with --release");
  }
  return releases;
}

int show_matrix(const common_options &common, const matrix_options &options) {
  const switch_dir owner(options.work.dir, switch_dir::access::look);
  if (!owner.state_trouble().empty()) {
    throw failure(exit_refused, owner.state_trouble(), owner.state_remedy());
  }
  owner.tell_unfinished();
  const scratch_folder scratch(options.work.dir);
  const unique_fd before = scratch.copy(owner.current(), "before");
  const std::vector<std::string> known = image_releases({options.work.dir, before.get(), ""});
  check_releases(options.releases, known);
  const std::vector<std::string> releases = chosen(options.releases, known);
  progress shown;
  shown.begin("rehearsing", releases.size() * (releases.size() - 1), "changes of release");
  std::vector<matrix_cell> in_order;
  cells all;
  rehearse_pairs({common, options.work, scratch, before.get(), owner.state()}, releases,
                 [&](const matrix_cell &cell) {
                   shown.advance();
                   in_order.push_back(cell);
                   all[{cell.from, cell.to}] = cell;
                 });
  shown.end();
  if (common.format == output::format::json) {
    output::document result({{"switch", options.work.dir}, {"releases", releases}}, "cells");
    for (const matrix_cell &cell : in_order) {
      result.item(cell.to_json());
    }
    result.end();
  } else {
    print_grid(releases, all);
    print_details(in_order);
    print_closing(in_order);
  }
  return exit_done;
}

} // namespace

int matrix(const common_options &common, const matrix_options &options) {
  const stop_signal::guard guard;
  try {
    return show_matrix(common, options);
  } catch (const failure &error) {
    throw error.placed(in_quotes(options.work.dir));
  }
}
