#include "release_matrix.h"

#include <algorithm>
#include <memory>
#include <set>

#include "conversion.h"
#include "failure.h"
#include "jail.h"
#include "rehearsal.h"
#include "state_diff.h"
#include "text.h"

namespace {

void add_once(std::vector<std::string> *names, const std::string &name) {
  if (!name.empty() && std::find(names->begin(), names->end(), name) == names->end()) {
    names->push_back(name);
  }
}

// A rehearsal, or why there is none.
struct attempt {
  std::unique_ptr<rehearsal> made;
  std::string trouble;
};

// What convert would refuse of this pair; "" when it would begin.
std::string refused(const matrix_work &work, const convert_options &options, int root,
                    const switch_state &state) {
  try {
    conversion(work.common, options, state).prepare(root);
  } catch (const failure &error) {
    if (error.status() != exit_refused) {
      throw;
    }
    const std::string place = in_quotes(work.options.dir) + ": ";
    const std::string message = error.what();
    return message.starts_with(place) ? message.substr(place.size()) : message;
  }
  return "";
}

attempt try_to(const matrix_work &work, const char *name, int root, const switch_state &state,
               const std::string &to) {
  convert_options options = work.options;
  options.to = to;
  options.from = state.release;
  attempt result;
  result.trouble = refused(work, options, root, state);
  if (result.trouble.empty()) {
    result.made =
        std::make_unique<rehearsal>(work.common, options, work.scratch, name, root, state);
    result.trouble = result.made->trouble();
  }
  return result;
}

// What is wrong with the switch is wrong with each pair.
void check_state(const matrix_work &work) {
  convert_options options = work.options;
  options.to = work.state.release;
  options.from = work.state.release;
  conversion(work.common, options, work.state).prepare(work.root);
}

void count_changes(const matrix_work &work, int before, const rehearsal &made, matrix_cell *cell) {
  std::set<std::pair<size_t, std::string>> makers;
  diff_states({work.options.dir, before, ""}, {"the copy", made.root(), ""},
              [&](const state_change &change) {
                if (change.kind == "switch") {
                  return; // the release, which changes anyway
                }
                ++cell->changes;
                const change_author author = made.authors().of(change);
                makers.insert(author.earlier.begin(), author.earlier.end());
                if (author.step) {
                  makers.emplace(*author.step, author.routine);
                }
              });
  for (const auto &[step, routine] : makers) {
    add_once(&cell->services, made.done().plan().requests[step].service());
    add_once(&cell->routines, routine);
  }
}

matrix_cell cell_of(const matrix_work &work, int root, const switch_state &state,
                    const std::string &to) {
  matrix_cell cell = {state.release, to, "nothing", 0, {}, {}, ""};
  const attempt tried = try_to(work, "matrix-to", root, state, to);
  if (!tried.trouble.empty()) {
    cell.outcome = "fails";
    cell.text = tried.trouble;
    return cell;
  }
  count_changes(work, root, *tried.made, &cell);
  cell.outcome = cell.changes > 0 ? "acts" : "nothing";
  cell.text = cell.changes > 0 ? counted(cell.changes, "change") : "";
  return cell;
}

} // namespace

nlohmann::json matrix_cell::to_json() const {
  return {{"from", from},         {"to", to},
          {"outcome", outcome},   {"changes", changes},
          {"services", services}, {"routines", routines},
          {"text", text}};
}

std::vector<std::string> image_releases(const state_side &side) {
  std::vector<std::string> releases;
  jail::request request;
  request.root = side.root;
  request.body = [](const jail::channel &channel) { channel.send({{"images", images()}}); };
  request.on_message = [&](const nlohmann::json &message) {
    for (const auto &[release, version] : message.at("images").items()) {
      releases.push_back(release);
    }
  };
  const jail::outcome outcome = jail::run(request);
  if (!outcome.finished()) {
    throw failure(exit_failed, "looking at the images " + outcome.text());
  }
  return releases;
}

void rehearse_pairs(const matrix_work &work, const std::vector<std::string> &releases,
                    const std::function<void(const matrix_cell &)> &take) {
  check_state(work);
  for (const std::string &from : releases) {
    attempt start;
    const bool there = from == work.state.release;
    if (!there) {
      start = try_to(work, "matrix-from", work.root, work.state, from);
    }
    for (const std::string &to : releases) {
      if (to == from) {
        continue;
      }
      if (!start.trouble.empty()) {
        take({from,
              to,
              "fails",
              0,
              {},
              {},
              "the switch cannot be brought to " + from + ": " + start.trouble});
        continue;
      }
      take(there ? cell_of(work, work.root, work.state, to)
                 : cell_of(work, start.made->root(), start.made->state(), to));
    }
  }
}
