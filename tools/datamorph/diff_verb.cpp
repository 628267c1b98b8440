// diff: two states side by side.
#include "verbs.h"

#include <array>
#include <memory>
#include <set>

#include <fcntl.h>

#include "change_tables.h"
#include "failure.h"
#include "release_sides.h"
#include "state_diff.h"
#include "store_access.h"
#include "strict_json.h"
#include "switch_dir.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr size_t largest_document = size_t(256) << 20; // it is held, and so is what it lists
constexpr size_t longest_change = size_t(8) << 20;     // that of two values of 1 MiB has 4 MiB
constexpr size_t largest_switch_file = 1 << 20;
constexpr unsigned answer_seconds = 60; // that the conversion library has to order two releases

// ---- What is compared --------------------------------------------------------------------------

// A state that was named, with the lock of the switch that it belongs to.
struct operand {
  std::string path;
  std::unique_ptr<switch_dir> owner; // null: a state folder that lies in no switch
  unique_fd folder;                  // of the state, when it is not the owner's current one
  switch_state state;
  std::string uri;

  int root() const { return folder.is_open() ? folder.get() : owner->current(); }
};

bool has_switch_file(const std::string &folder) {
  return tree::exists(AT_FDCWD, folder + "/" + switch_file);
}

void open_state_folder(operand *found) {
  // previous/ goes with the next conversion.
  if (has_switch_file(found->path + "/../current")) {
    found->owner = std::make_unique<switch_dir>(found->path + "/..", switch_dir::access::read);
  }
  found->folder.reset(open(found->path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  try {
    const std::string text = tree::read_file(found->folder.get(), switch_file, largest_switch_file);
    found->state = switch_state::from_json(parse_shallow(text));
  } catch (const failure &error) {
    throw error.placed(in_quotes(found->path));
  }
}

// DIR, a state's folder, or one of them with ":URI" behind it.
operand open_operand(const std::string &text) {
  operand found;
  const size_t uri = std::min(text.find(":nonvolatile:"), text.find(":volatile:"));
  found.path = text.substr(0, uri);
  found.uri = uri == std::string::npos ? "" : text.substr(uri + 1);
  if (has_switch_file(found.path) && !has_switch_file(found.path + "/current")) {
    open_state_folder(&found);
  } else {
    found.owner = std::make_unique<switch_dir>(found.path, switch_dir::access::read);
    found.state = found.owner->state();
  }
  return found;
}

nlohmann::json operand_json(const operand &side) {
  nlohmann::json document = {{"path", side.path}, {"release", side.state.release}};
  if (!side.uri.empty()) {
    document["uri"] = shown_uri(side.uri);
  }
  return document;
}

std::string operand_text(const operand &side) {
  return to_text(side.path + (side.uri.empty() ? "" : ":" + side.uri)) + " at " +
         side.state.release;
}

// ---- What is known -----------------------------------------------------------------------------

constexpr char known_form[] = "known differences are what 'datamorph diff --format json' writes";

template <typename taker_t>
nlohmann::json known_document(const std::string &file, const taker_t &take) {
  try {
    return parse_json_items(tree::read_file(AT_FDCWD, file, largest_document), file, "changes",
                            take);
  } catch (const failure &error) {
    throw failure(error.status(), error.message(), known_form);
  }
}

// Holds the texts of the known ones.
class known_changes {
public:
  explicit known_changes(const std::string &file) {
    if (file.empty()) {
      return;
    }
    std::multiset<std::string> bare;
    size_t too_long = 0;
    const nlohmann::json document =
        known_document(file, [&](list_place where, const nlohmann::json &change) {
          std::string text = output::json_text(change, -1);
          if (text.size() > longest_change) {
            ++too_long;
          } else {
            (where == list_place::document ? bare : known_).insert(std::move(text));
          }
        });
    const bool in_envelope = document.is_object() && document.contains("datamorph");
    const nlohmann::json read = output::result_in(document, file);
    if (!read.is_object() || !read.value("changes", nlohmann::json()).is_array()) {
      throw failure(exit_refused, in_quotes(file) + ": no list \"changes\"", known_form);
    }
    if (!in_envelope) {
      known_ = std::move(bare);
    }
    if (too_long > 0) {
      output::message(in_quotes(file) + ": " + counted(too_long, "known difference") +
                      " of more than " + std::to_string(longest_change) +
                      " bytes of JSON: damaged, and passed over");
    }
  }
  // Whether it was one, which it is once.
  bool take(const state_change &change) {
    if (known_.empty()) {
      return false;
    }
    const auto found = known_.find(output::json_text(change.to_json(), -1));
    const bool is_known = found != known_.end();
    if (is_known) {
      known_.erase(found);
    }
    return is_known;
  }
  const std::multiset<std::string> &missing() const { return known_; }

private:
  std::multiset<std::string> known_;
};

// ---- Counting ----------------------------------------------------------------------------------

using what = state_change::what;

struct summary {
  std::array<size_t, 3> things = {}; // added, removed, changed
  std::array<size_t, 3> records = {};
  size_t unreadable = 0;
  size_t undecoded = 0;
  size_t misfits = 0;
  uint64_t unchanged_misfits = 0;
  size_t expected = 0;
  size_t missing = 0;

  void count(const state_change &change) {
    if (change.how == what::unreadable) {
      ++unreadable;
      return;
    }
    ++(change.key ? records : things)[static_cast<size_t>(change.how)];
    undecoded += change.undecoded() ? 1 : 0;
    misfits += change.misfit() ? 1 : 0;
  }
  // Nothing is left to tell of.
  bool settled() const {
    return things == std::array<size_t, 3>{} && records == std::array<size_t, 3>{} &&
           unreadable == 0 && missing == 0;
  }
  int status() const {
    return unreadable > 0 ? exit_refused : settled() ? exit_done : exit_different;
  }
  nlohmann::json to_json() const {
    const auto counts = [](const std::array<size_t, 3> &of) {
      return nlohmann::json({{"added", of[0]}, {"removed", of[1]}, {"changed", of[2]}});
    };
    return {{"same", settled() && expected == 0},
            {"as_expected", settled()},
            {"things", counts(things)},
            {"records", counts(records)},
            {"unreadable", unreadable},
            {"undecoded", undecoded},
            {"misfits", misfits},
            {"unchanged_misfits", unchanged_misfits},
            {"expected", expected},
            {"missing", missing}};
  }
  std::string to_text() const {
    const auto counts = [](const std::array<size_t, 3> &of) {
      return std::to_string(of[0]) + " added, " + std::to_string(of[1]) + " removed, " +
             std::to_string(of[2]) + " changed";
    };
    return std::string(!settled()      ? "different"
                       : expected == 0 ? "same"
                                       : "as expected") +
           ": stores, files and the like: " + counts(things) + "; records: " + counts(records) +
           ", " + std::to_string(undecoded) + " undecoded; " + std::to_string(unreadable) +
           " unreadable; " + std::to_string(expected) + " as expected, " + std::to_string(missing) +
           " expected and missing\n" + misfits_text(misfits, unchanged_misfits);
  }
};
static_assert(static_cast<size_t>(what::added) == 0 && static_cast<size_t>(what::removed) == 1 &&
              static_cast<size_t>(what::changed) == 2);

// ---- JSON --------------------------------------------------------------------------------------

class json_writer {
public:
  json_writer(const operand &a, const operand &b)
      : result_({{"a", operand_json(a)}, {"b", operand_json(b)}}, "changes") {}
  void take(const state_change &change) { result_.item(change.to_json()); }
  void end(const known_changes &known, const summary &counts) {
    nlohmann::json missing = nlohmann::json::array();
    for (const std::string &change : known.missing()) {
      missing.push_back(nlohmann::json::parse(change));
    }
    result_.end({{"missing", missing}, {"summary", counts.to_json()}});
  }

private:
  output::document result_;
};

// ---- A table -----------------------------------------------------------------------------------

class table_writer {
public:
  table_writer(const operand &a, const operand &b) {
    output::text("A: " + operand_text(a) + "\nB: " + operand_text(b) + "\n");
  }
  void take(const state_change &change) { tables_.take(change); }
  void end(const known_changes &known, const summary &counts) {
    tables_.end();
    size_t listed = 0;
    for (const std::string &change : known.missing()) {
      if (listed++ == change_tables::shown) {
        output::text("\n" + std::to_string(counts.missing - change_tables::shown) + " more");
        break;
      }
      output::text((listed == 1 ? "\nexpected and missing\n" : "\n") + to_text(change));
    }
    output::text((counts.settled() ? "" : counts.missing > 0 ? "\n\n" : "\n") + counts.to_text());
  }

private:
  change_tables tables_{false};
};

template <typename writer_t>
int write_diff(const std::string &library, const operand &a, const operand &b,
               known_changes *known) {
  writer_t writer(a, b);
  summary counts;
  const release_sides sides(library, a.root(), {a.state.release, b.state.release}, answer_seconds);
  const record_totals totals = diff_states({a.path, a.root(), a.uri, sides.of(a.state.release)},
                                           {b.path, b.root(), b.uri, sides.of(b.state.release)},
                                           [&](const state_change &change) {
                                             if (known->take(change)) {
                                               ++counts.expected;
                                               return;
                                             }
                                             counts.count(change);
                                             writer.take(change);
                                           });
  if (totals.by_length > 0) {
    sides.explain_missing();
  }
  counts.unchanged_misfits = totals.unchanged_misfits;
  counts.missing = known->missing().size();
  writer.end(*known, counts);
  if (counts.unreadable > 0) {
    output::explain(counted(counts.unreadable, "thing") + " could not be read",
                    "the unreadable ones among the changes tell which and why");
  }
  return counts.status();
}

} // namespace

int diff(const common_options &common, const diff_options &options) {
  known_changes known(options.expect);
  const operand a = open_operand(options.a);
  const operand b = open_operand(options.b);
  if (a.uri.empty() != b.uri.empty()) {
    throw failure(exit_usage, "diff wants two states or two stores, not one of each");
  }
  return common.format == output::format::json
             ? write_diff<json_writer>(common.library, a, b, &known)
             : write_diff<table_writer>(common.library, a, b, &known);
}
