// why: what touched a record of a switch, or a whole store, from the journals of its runs. Journals
// are read line by line, for they may be large; changes by hand stand in none of them.
#include "verbs.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>

#include "failure.h"
#include "journal_lines.h"
#include "lab/lab.h"
#include "output.h"
#include "progress.h"
#include "runs.h"
#include "statuses.h"
#include "store_access.h"
#include "switch_dir.h"
#include "text.h"

namespace {

constexpr char journal_file[] = "journal.jsonl";
constexpr size_t shown_lines = 1000;  // of a table; JSON has them all
constexpr size_t known_stores = 4096; // are held; a journal may name any number

// Calls that change a store without naming its records. A close does where it fails: what was
// written is lost then. All other calls name a record, or only read.
struct whole_store_call {
  std::string_view call;
  bool only_failed;
};
constexpr whole_store_call whole_store_calls[] = {
    {"pss_create", false},      {"pss_destroy", false},      {"pss_snapshot", false},
    {"pss_close", true},        {"pss2_open", false},        {"pss2_destroy", false},
    {"pss2_close", true},       {"pss2_file2kernel", false}, {"store_create", false},
    {"close_all_stores", true},
};

// ---- What is asked for -------------------------------------------------------------------------

class question {
public:
  question(const store_options &options, const std::optional<std::string> &key)
      : file_(lab::store_file(options.uri)), key_(key), shows_text_(options.text) {
    if (file_.empty()) {
      check_store(SYSERR_PSS_BAD_ARGUMENT, options.uri);
    }
    if (!is_utf8(options.uri)) {
      throw failure(exit_refused, "store " + in_quotes(options.uri) +
                                      ": journals do not tell stores apart whose names are no "
                                      "UTF-8");
    }
    tag_tables_ = file_ == lab::store_file(lab::running_tag_tables);
  }

  // Whether a line may be about it.
  bool may_be(const raw_members &line) {
    return line.uri ? is_store(*line.uri) : tag_tables_ && line.has_table_vdc;
  }

  // "record" or "store"; nullptr when the line does not touch what is asked for. Throws
  // nlohmann::json::exception.
  const char *touched(const nlohmann::json &line) const {
    if (line.contains("table_vdc")) {
      return touches_table(line.at("table_vdc").get<unsigned>()) ? "record" : nullptr;
    }
    if (!line.contains("old")) {
      return changes_whole_store(line) ? "store" : nullptr;
    }
    // A call whose key no store could hold is written without it.
    const auto key = line.find("key");
    const bool same = key_ && key != line.end() && from_hex(key->get<std::string>()) == key_;
    return !key_ || same ? "record" : nullptr;
  }

  // A key as the user asked to see it.
  std::string shown(const std::string &hex) const {
    return shows_text_ ? to_text(from_hex(hex).value_or("")) : hex;
  }

  // A boot takes along what stands in memory and what stands below /tmp.
  bool goes_with_reboot() const {
    return file_.starts_with("/dev/shm/volatile/") || file_.starts_with("/tmp/");
  }

private:
  // Few stores stand in many lines. The same store may be written in several ways.
  bool is_store(std::string_view raw) {
    const auto known = stores_.find(raw);
    if (known != stores_.end()) {
      return known->second;
    }
    if (stores_.size() == known_stores) {
      stores_.clear();
    }
    const nlohmann::json uri = nlohmann::json::parse('"' + std::string(raw) + '"', nullptr, false);
    const bool same = uri.is_string() && lab::store_file(uri.get<std::string>()) == file_;
    stores_.emplace(raw, same);
    return same;
  }

  // The key of a running tag table is its VDC.
  bool touches_table(unsigned vdc) const {
    const std::string key = {static_cast<char>(vdc >> 8 & 0xff), static_cast<char>(vdc & 0xff)};
    return tag_tables_ && (!key_ || *key_ == key);
  }

  static bool changes_whole_store(const nlohmann::json &line) {
    const std::string call = line.at("call").get<std::string>();
    const bool failed = line.at("status").get<uint32>() != SYSERR_SUCCESS;
    return std::any_of(std::begin(whole_store_calls), std::end(whole_store_calls),
                       [&](const whole_store_call &row) {
                         return row.call == call && (failed || !row.only_failed);
                       });
  }

  std::string file_;
  std::optional<std::string> key_;
  bool shows_text_;
  bool tag_tables_ = false;
  std::map<std::string, bool, std::less<>> stores_; // by their URIs as they stand in lines
};

// ---- Journals ----------------------------------------------------------------------------------

// What journals do not tell, for the end.
struct gap {
  std::string run;
  size_t damaged_lines = 0;
  std::string trouble; // why the journal cannot be read; "" when it can
};

// Throws failure(3).
unique_fd open_journal(int folder) {
  unique_fd file(openat(folder, journal_file, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat about = {};
  if (!file.is_open() || fstat(file.get(), &about) != 0) {
    throw failure(exit_refused, error_text(errno));
  }
  if (!S_ISREG(about.st_mode)) {
    throw failure(exit_refused, "not a regular file");
  }
  return file;
}

nlohmann::json or_null(const std::string &text) {
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

// What all lines of a run say of it.
nlohmann::json run_json(const run_row &run) {
  return {{"run", run.run},
          {"started", run.facts ? nlohmann::json(run.facts->started) : nlohmann::json()},
          {"verb", or_null(run.verb)},
          {"from", or_null(run.from)},
          {"to", or_null(run.to)},
          {"result", or_null(run.result)},
          {"kept", run.kept ? nlohmann::json(*run.kept) : nlohmann::json()}};
}

using take_touch = std::function<void(const nlohmann::json &)>;

// A line that touched it, with the run that it is of.
nlohmann::json touch_json(const run_row &run, const nlohmann::json &line, const char *touched,
                          const question &asked) {
  nlohmann::json touch = run_json(run);
  touch["touched"] = touched;
  for (const char *name : {"n", "moment", "vdc", "service", "routine", "call", "key", "old", "new",
                           "added", "changed", "removed", "status", "unexpected"}) {
    touch[name] = line.value(name, nlohmann::json());
  }
  // Both are shown as numbers and words: a line without them is damaged.
  touch["text"] = syserr2str(line.at("status").get<syserr_t>());
  touch["service"] = line.at("service").get<std::string>();
  touch["call"] = line.at("call").get<std::string>();
  if (!touch["key"].is_null()) {
    touch["key"] = asked.shown(touch["key"].get<std::string>());
  }
  return touch;
}

// False when the line is damaged.
bool take_line(const run_row &run, std::string_view text, question *asked, const take_touch &take) {
  const std::optional<raw_members> members = look_at_line(text);
  if (!members || !asked->may_be(*members)) {
    return members.has_value();
  }
  try {
    const nlohmann::json line = nlohmann::json::parse(text);
    const char *touched = asked->touched(line);
    if (touched != nullptr) {
      take(touch_json(run, line, touched, *asked));
    }
    return true;
  } catch (const nlohmann::json::exception &) {
    return false;
  }
}

// Of all journals, in KiB.
class journal_progress {
public:
  journal_progress(int runs, const std::vector<run_row> &rows) {
    uint64_t bytes = 0;
    for (const run_row &run : rows) {
      struct stat about = {};
      const std::string name = run.run + "/" + journal_file;
      const bool has_one =
          run.verb == "convert" && fstatat(runs, name.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0;
      bytes += has_one && S_ISREG(about.st_mode) ? static_cast<uint64_t>(about.st_size) : 0;
    }
    shown_.begin("reading journals", bytes >> 10, "KiB");
  }
  // So many bytes more.
  void take(uint64_t bytes) {
    bytes_ += bytes;
    shown_.reach(bytes_ >> 10);
  }

private:
  progress shown_;
  uint64_t bytes_ = 0;
};

gap read_journal(int runs, const run_row &run, question *asked, const take_touch &take,
                 journal_progress *shown) {
  gap found = {run.run, 0, ""};
  try {
    const unique_fd folder = open_run(runs, run.run);
    const unique_fd file = open_journal(folder.get());
    line_reader lines(file.get());
    uint64_t given = 0;
    for (std::optional<std::string_view> line; lines.next(&line); given = lines.given()) {
      found.damaged_lines += line && take_line(run, *line, asked, take) ? 0 : 1;
      shown->take(lines.given() - given);
    }
  } catch (const failure &error) {
    found.trouble = error.what();
  }
  return found;
}

// A reboot and a rollback leave no journal, and are a line where they matter.
bool matters(const run_row &run, const question &asked) {
  return run.verb == "rollback" || (run.verb == "reboot" && asked.goes_with_reboot());
}

nlohmann::json run_touch(const run_row &run) {
  nlohmann::json touch = run_json(run);
  touch["touched"] = run.verb == "rollback" ? "state" : "store";
  touch["call"] = run.verb;
  for (const char *name : {"n", "moment", "vdc", "service", "routine", "key", "old", "new", "added",
                           "changed", "removed", "status", "text", "unexpected"}) {
    touch[name] = nullptr;
  }
  return touch;
}

std::vector<gap> read_runs(const switch_dir &target, const std::vector<run_row> &rows,
                           question *asked, const take_touch &take) {
  const unique_fd runs = open_runs(target.folder());
  journal_progress shown(runs.get(), rows);
  std::vector<gap> gaps;
  for (const run_row &run : rows) {
    if (matters(run, *asked)) {
      take(run_touch(run));
    } else if (run.verb == "convert") {
      gap found = read_journal(runs.get(), run, asked, take, &shown);
      if (found.damaged_lines > 0 || !found.trouble.empty()) {
        gaps.push_back(std::move(found));
      }
    } else if (run.verb.empty()) {
      gaps.push_back({run.run, 0, run.remark});
    }
  }
  return gaps;
}

// ---- What stands there now ---------------------------------------------------------------------

// "there" (true or false), "bytes" of the value or "records" of the store, "trouble" where it
// cannot be read.
nlohmann::json stands_now(const switch_dir &target, const std::string &uri,
                          const std::optional<std::string> &key) {
  nlohmann::json now;
  in_switch(
      target,
      [&](const jail::channel &channel) {
        lab::store_info info;
        syserr_t status = SYSERR_SUCCESS;
        if (!key) {
          status = lab::store_inspect(uri, &info);
          channel.send({{"status", status}, {"records", info.records}});
          return;
        }
        const pss2_service_t store =
            pss2_open(uri.c_str(), PSS2_MODE_READ, SRVUUID_NONE, 0, 0, &status);
        const pss_datum_t datum = datum_of(*key);
        const pss_datum_t *value =
            status == SYSERR_SUCCESS ? pss2_fetch(store, &datum, &status) : nullptr;
        channel.send({{"status", status}, {"bytes", value == nullptr ? 0 : value->siz}});
      },
      [&](const nlohmann::json &message) { now = message; });
  const auto status = now.at("status").get<syserr_t>();
  if (status == SYSERR_SUCCESS) {
    now["there"] = true;
    now.erase("status");
    return now;
  }
  if (status == SYSERR_PSS_NO_STORE || status == SYSERR_PSS_NOT_FOUND) {
    return {{"there", false}};
  }
  return {{"there", nullptr}, {"trouble", status_text(status)}};
}

std::string now_text(const nlohmann::json &now) {
  if (now.at("there").is_null()) {
    return "cannot be read now: " + now.at("trouble").get<std::string>();
  }
  if (!now.at("there").get<bool>()) {
    return "is not there now";
  }
  return "is there now, with " + (now.contains("records")
                                      ? counted(now.at("records").get<size_t>(), "record")
                                      : counted(now.at("bytes").get<size_t>(), "byte"));
}

// ---- Shown -------------------------------------------------------------------------------------

struct answer {
  std::string what; // "the record 'aa' of the store 'nonvolatile:/x'"
  size_t runs = 0;
  size_t touches = 0; // rollbacks left out, which touch everything
  std::vector<gap> gaps;
  std::vector<nlohmann::json> now; // what stands there: one document
};

// A member that may be missing, as it stands.
std::string member_text(const nlohmann::json &touch, const char *name) {
  const nlohmann::json &found = touch.at(name);
  const std::string text = found.is_string() ? found.get<std::string>()
                           : found.is_null() ? ""
                                             : found.dump();
  return text.empty() ? "-" : to_text(text);
}

std::string kept_text(const nlohmann::json &touch) {
  const nlohmann::json &kept = touch.at("kept");
  const std::string result = member_text(touch, "result");
  return kept.is_null() ? "not known" : kept.get<bool>() ? "kept" : "not kept: " + result;
}

class table_writer {
public:
  void take(const nlohmann::json &touch) {
    if (rows_.size() == shown_lines) {
      ++more_;
      return;
    }
    const bool kept = touch.at("kept").is_boolean() && touch.at("kept").get<bool>();
    const std::string state = kept_text(touch);
    std::vector<output::cell> row;
    for (const char *name : {"run", "started", "from", "to"}) {
      row.emplace_back(member_text(touch, name));
    }
    row.push_back(kept ? output::cell(state) : output::cell::bad(state));
    for (const char *name : {"moment", "vdc", "service", "routine", "call"}) {
      row.emplace_back(member_text(touch, name));
    }
    row.emplace_back(touched_text(touch));
    for (const char *name : {"old", "new", "added", "changed", "removed"}) {
      row.emplace_back(member_text(touch, name));
    }
    row.push_back(status_cell(touch));
    rows_.push_back(std::move(row));
  }

  void end(const answer &found) const {
    if (!rows_.empty()) {
      print_rows();
    }
    if (found.touches == 0) {
      output::text("nothing touched " + found.what + ": " +
                   (found.runs == 0 ? "the switch has no runs yet"
                                    : "it stands in no journal of " + counted(found.runs, "run") +
                                          "; what was edited by hand or imported stands in none") +
                   "\n");
    }
    if (more_ > 0) {
      output::text(std::to_string(more_) + " more; --format json has them all\n");
    }
    for (const gap &missing : found.gaps) {
      output::text("run " + to_text(missing.run) + ": " +
                   (missing.trouble.empty()
                        ? counted(missing.damaged_lines, "damaged line") + " in its journal"
                        : "its journal is not told: " + to_text(missing.trouble)) +
                   "\n");
    }
    output::text(found.what + " " + now_text(found.now.front()) + "\n");
  }

private:
  static std::string touched_text(const nlohmann::json &touch) {
    const std::string touched = touch.at("touched").get<std::string>();
    if (touched != "record") {
      return "whole " + touched;
    }
    return touch.at("key").is_null() ? "record" : "record " + touch.at("key").get<std::string>();
  }

  static output::cell status_cell(const nlohmann::json &touch) {
    if (touch.at("status").is_null()) {
      return "-";
    }
    const auto status = touch.at("status").get<syserr_t>();
    return status == SYSERR_SUCCESS ? output::cell("ok") : output::cell::bad(status_text(status));
  }

  void print_rows() const {
    using output::align;
    output::table({{"RUN"},
                   {"STARTED"},
                   {"FROM"},
                   {"TO"},
                   {"STATE"},
                   {"MOMENT"},
                   {"VDC", align::right},
                   {"SERVICE"},
                   {"ROUTINE"},
                   {"CALL"},
                   {"TOUCHED"},
                   {"OLD BYTES", align::right},
                   {"NEW BYTES", align::right},
                   {"ADDED", align::right},
                   {"CHANGED", align::right},
                   {"REMOVED", align::right},
                   {"STATUS"}},
                  rows_, output::too_wide::is_told);
  }

  std::vector<std::vector<output::cell>> rows_;
  size_t more_ = 0;
};

class json_writer {
public:
  explicit json_writer(const nlohmann::json &head) : result_(head, "touches") {}
  void take(const nlohmann::json &touch) { result_.item(touch); }
  void end(const answer &found) {
    nlohmann::json gaps = nlohmann::json::array();
    for (const gap &missing : found.gaps) {
      gaps.push_back({{"run", to_text(missing.run)},
                      {"damaged_lines", missing.damaged_lines},
                      {"trouble", or_null(missing.trouble)}});
    }
    result_.end({{"runs", found.runs}, {"gaps", gaps}, {"now", found.now.front()}});
  }

private:
  output::document result_;
};

// Whatever can be refused is, before the writer writes its head.
struct inquiry {
  inquiry(const store_options &options, const std::optional<std::string> &key)
      : asked(options, key), target(options.dir, switch_dir::access::read), runs(run_rows(target)) {
    found.what = (key ? "the record " + in_quotes(options.key) + " of " : std::string()) +
                 "the store " + in_quotes(options.uri);
    found.runs = runs.size();
    found.now.push_back(stands_now(target, options.uri, key));
  }
  template <typename writer_t> void answer_with(writer_t writer) {
    found.gaps = read_runs(target, runs, &asked, [&](const nlohmann::json &touch) {
      found.touches += touch.at("touched") == "state" ? 0 : 1;
      writer.take(touch);
    });
    writer.end(found);
  }

  question asked;
  switch_dir target;
  std::vector<run_row> runs;
  answer found;
};

} // namespace

int why(const common_options &common, const store_options &options) {
  const std::optional<std::string> key =
      options.has_key ? std::optional(typed_bytes(options.key, options.text, "key")) : std::nullopt;
  inquiry asking(options, key);
  if (common.format == output::format::table) {
    asking.answer_with(table_writer());
    return exit_done;
  }
  asking.answer_with(json_writer({{"switch", options.dir},
                                  {"uri", shown_uri(options.uri)},
                                  {"encoding", options.text ? "text" : "hex"},
                                  {"key", key ? nlohmann::json(options.key) : nlohmann::json()}}));
  return exit_done;
}
