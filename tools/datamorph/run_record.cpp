#include "run_record.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string_view>

#include <pwd.h>
#include <unistd.h>

#include "failure.h"
#include "output.h"
#include "runs.h"
#include "strict_json.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr int format_number = 1;
constexpr std::array<std::string_view, 3> verbs = {"convert", "reboot", "rollback"};
constexpr std::array<std::string_view, 5> results = {run_result::running, run_result::killed,
                                                     run_result::done, run_result::failed,
                                                     run_result::refused};

[[noreturn]] void wrong(const std::string &member, const std::string &what) {
  throw failure(exit_refused, std::string(run_record_file) + ": " + member + " " + what);
}

// Shaped as utc_now gives it.
bool is_time(std::string_view text) {
  constexpr std::string_view shape = "0000-00-00T00:00:00.000Z";
  return std::equal(text.begin(), text.end(), shape.begin(), shape.end(), [](char c, char wanted) {
    return wanted == '0' ? c >= '0' && c <= '9' : c == wanted;
  });
}

std::string user_name(uid_t uid) {
  const passwd *entry = getpwuid(uid);
  return entry == nullptr ? "" : entry->pw_name;
}

std::string host_name() {
  char name[256] = "";
  return gethostname(name, sizeof name - 1) == 0 ? to_text(name) : "";
}

// As this program was called.
std::vector<std::string> command_line() {
  std::ifstream file("/proc/self/cmdline");
  std::vector<std::string> words;
  for (std::string word; std::getline(file, word, '\0');) {
    words.push_back(to_text(word));
  }
  return words;
}

template <typename value_t> nlohmann::json or_null(const std::optional<value_t> &value) {
  return value ? nlohmann::json(*value) : nlohmann::json();
}

// A member that is missing is damage; one that is null is not known.
const nlohmann::json &member(const nlohmann::json &document, const char *name) {
  const auto found = document.find(name);
  if (found == document.end()) {
    wrong(name, "is missing");
  }
  return *found;
}

std::string text_member(const nlohmann::json &document, const char *name) {
  const nlohmann::json &found = member(document, name);
  if (!found.is_string()) {
    wrong(name, "is no text");
  }
  return found.get<std::string>();
}

template <size_t count>
std::string word_member(const nlohmann::json &document, const char *name,
                        const std::array<std::string_view, count> &words) {
  std::string word = text_member(document, name);
  if (std::find(words.begin(), words.end(), word) == words.end()) {
    wrong(name, "is none that this program knows");
  }
  return word;
}

uint64_t number_member(const nlohmann::json &document, const char *name) {
  const nlohmann::json &found = member(document, name);
  if (!found.is_number_unsigned()) {
    wrong(name, "is no number");
  }
  return found.get<uint64_t>();
}

std::optional<std::vector<std::string>> list_member(const nlohmann::json &document,
                                                    const char *name) {
  const nlohmann::json &found = member(document, name);
  if (found.is_null()) {
    return std::nullopt;
  }
  const bool texts = found.is_array() && std::all_of(found.begin(), found.end(),
                                                     [](const auto &at) { return at.is_string(); });
  if (!texts) {
    wrong(name, "is no list of texts");
  }
  return found.get<std::vector<std::string>>();
}

} // namespace

nlohmann::json run_facts::to_json() const {
  return {{"format", format_number},
          {"run", run},
          {"verb", verb},
          {"from", from},
          {"to", to},
          {"generation", generation},
          {"moments", or_null(moments)},
          {"services", or_null(services)},
          {"started", started},
          {"milliseconds", or_null(milliseconds)},
          {"user", user},
          {"uid", uid},
          {"pid", pid},
          {"host", host},
          {"command", command},
          {"result", result},
          {"message", message}};
}

run_facts run_facts::from_json(const nlohmann::json &document) {
  if (!document.is_object()) {
    throw failure(exit_refused, std::string(run_record_file) + " is no JSON object");
  }
  if (document.value("format", nlohmann::json()) != format_number) {
    wrong("format", "is not 1");
  }
  run_facts facts;
  facts.run = text_member(document, "run");
  facts.verb = word_member(document, "verb", verbs);
  facts.from = text_member(document, "from");
  facts.to = text_member(document, "to");
  facts.generation = number_member(document, "generation");
  facts.moments = list_member(document, "moments");
  facts.services = list_member(document, "services");
  facts.started = text_member(document, "started");
  if (!is_time(facts.started)) {
    wrong("started", "is no time");
  }
  if (!member(document, "milliseconds").is_null()) {
    facts.milliseconds = number_member(document, "milliseconds");
  }
  facts.user = text_member(document, "user");
  facts.uid = number_member(document, "uid");
  facts.pid = number_member(document, "pid");
  facts.host = text_member(document, "host");
  if (!member(document, "command").is_array()) {
    wrong("command", "is no list of texts");
  }
  facts.command = *list_member(document, "command");
  facts.result = word_member(document, "result", results);
  facts.message = text_member(document, "message");
  return facts;
}

std::string run_facts::name() const {
  return "run " + run + " (" + verb +
         (from == to ? ", at " + to_text(to) : ", from " + to_text(from) + " to " + to_text(to)) +
         ")";
}

std::optional<killed_run> find_killed_run(int folder) {
  const unique_fd runs = open_runs(folder);
  try {
    const std::string last = runs.is_open() ? last_run(runs.get()) : "";
    unique_fd run = last.empty() ? unique_fd() : open_run(runs.get(), last);
    if (!run.is_open() || !tree::exists(run.get(), run_record_file)) {
      return std::nullopt;
    }
    run_facts facts = run_facts::from_json(
        parse_shallow(tree::read_file(run.get(), run_record_file, largest_run_record)));
    if (facts.result != run_result::running || facts.run != last) {
      return std::nullopt;
    }
    return killed_run{std::move(facts), std::move(run)};
  } catch (const failure &) {
    return std::nullopt; // history tells what is wrong with it
  }
}

void note_killed(const killed_run &found) {
  run_facts facts = found.facts;
  facts.result = run_result::killed;
  try {
    tree::replace_file(found.folder.get(), run_record_file,
                       output::json_text(facts.to_json()) + "\n");
  } catch (const failure &) {
    // The next command will say it once more.
  }
}

const char *outcome_of_killed(const run_facts &facts, uint64_t after) {
  if (facts.verb == "reboot") {
    return "";
  }
  return facts.generation == after ? "the switch stayed as it was" : "its change had been made";
}

run_record::run_record(const run_folder &folder, const run_facts &facts)
    : folder_(folder), facts_(facts) {
  facts_.run = folder.number();
  facts_.started = utc_now();
  facts_.uid = getuid();
  facts_.user = user_name(getuid());
  facts_.pid = static_cast<uint64_t>(getpid());
  facts_.host = host_name();
  facts_.command = command_line();
  folder_.replace(run_record_file, output::json_text(facts_.to_json()) + "\n");
}

void run_record::finish(const char *result, const std::string &message) {
  const auto took = std::chrono::steady_clock::now() - begin_;
  facts_.milliseconds =
      static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
  facts_.result = result;
  facts_.message = message;
  try {
    folder_.replace(run_record_file, output::json_text(facts_.to_json()) + "\n");
  } catch (const failure &error) {
    output::message("the end of run " + facts_.run +
                    " could not be written down, so 'datamorph history' will show it as killed: " +
                    error.what());
  }
}
