#include "release_matrix.h"

#include <algorithm>
#include <memory>
#include <optional>

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

attempt try_to(const matrix_work &work, const char *name, int root, const switch_state &state,
               const std::string &to) {
  convert_options options = work.options;
  options.to = to;
  options.from = state.release;
  attempt result;
  try {
    result.made =
        std::make_unique<rehearsal>(work.common, options, work.scratch, name, root, state);
    result.trouble = result.made->trouble();
  } catch (const failure &error) {
    if (error.status() != exit_refused) {
      throw;
    }
    result.trouble = error.message();
  }
  return result;
}

void count_changes(const matrix_work &work, int before, const rehearsal &made, matrix_cell *cell) {
  diff_states({work.options.dir, before, ""}, {"the copy", made.root(), ""},
              [&](const state_change &change) {
                if (change.kind == "switch") {
                  return; // the release, which changes anyway
                }
                ++cell->changes;
                const change_author author = made.authors().of(change);
                add_once(&cell->routines, author.routine);
                if (author.step) {
                  add_once(&cell->services, made.done().plan().requests[*author.step].service());
                }
              });
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
