// check: all that stands in the way of a conversion, found out at once and without changing or
// opening anything for writing.
#include "verbs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "check_findings.h"
#include "check_state.h"
#include "conversion_child.h"
#include "failure.h"
#include "jail.h"
#include "progress.h"
#include "stop_signal.h"
#include "switch_dir.h"
#include "text.h"

namespace {

constexpr size_t shown_of_each = 20; // findings of one topic, in a table

// Types of file systems, as statfs tells them, that are known to exchange two folders in one step:
// ext4, xfs, btrfs, tmpfs, f2fs, bcachefs.
constexpr unsigned long exchanging[] = {0xEF53,     0x58465342, 0x9123683E,
                                        0x01021994, 0xF2F52010, 0xCA451A4E};

class checking {
public:
  checking(const common_options &common, const check_options &options);
  int run();

private:
  void add(topic what, level how, const std::string &text, const std::string &remedy) {
    survey_.add({what, how, "", {}, text, remedy});
  }
  std::string in_current(const std::string &path) const {
    return shell_word(options_.dir + "/current" + path);
  }
  std::string silence() const {
    return "gave no answer within " + counted(options_.timeout, "second");
  }
  jail::request in_state(std::function<void(const jail::channel &)> body,
                         std::function<void(const nlohmann::json &)> take) const;
  void check_library();
  void take_answer(const nlohmann::json &answer);
  void check_images();
  void check_image(const std::string &release, const char *what);
  void check_room();
  void check_rights();
  void check_exchange();
  void check_switch();
  void check_run();
  void check_state();
  bool look_on(size_t *step);
  void take(const nlohmann::json &message);
  nlohmann::json to_json() const;
  void print_blocks() const;
  std::string looked_text() const;

  const common_options &common_;
  const check_options &options_;
  switch_dir switch_;
  check_subject subject_;
  survey survey_;
  progress progress_;
};

checking::checking(const common_options &common, const check_options &options)
    : common_(common), options_(options), switch_(options.dir, switch_dir::access::look) {
  subject_.dir = options.dir;
  subject_.to = options.to;
  subject_.from = options.from.empty() ? switch_.state().release : options.from;
  subject_.as_root = geteuid() == 0;
  if (switch_.state_trouble().empty()) {
    subject_.state = switch_.state();
  }
}

jail::request checking::in_state(std::function<void(const jail::channel &)> body,
                                 std::function<void(const nlohmann::json &)> take) const {
  jail::request request;
  request.root = switch_.current();
  request.body = std::move(body);
  request.on_message = std::move(take);
  request.on_trace = [this](std::string_view text) {
    if (common_.verbose) {
      jail::show_trace(text);
    }
  };
  request.silence = std::chrono::seconds(options_.timeout);
  return request;
}

// ---- The images and the library ----------------------------------------------------------------

void checking::check_images() {
  const jail::outcome outcome = jail::run(in_state(
      [](const jail::channel &channel) {
        channel.send({{"images", images()}});
      },
      [this](const nlohmann::json &message) { subject_.images = message.at("images"); }));
  if (!outcome.finished()) {
    throw failure(exit_failed, "looking at its images " + outcome.text());
  }
  check_image(subject_.to, "the release");
  if (!subject_.from.empty()) {
    check_image(subject_.from, "the release to come from");
  }
  if (subject_.state && subject_.from != subject_.state->release) {
    add(topic::image, level::warning,
        "--from names " + to_text(subject_.from) + ", the switch runs " + subject_.state->release +
            ": converting once more what was converted already can lose records",
        "leave --from away");
  }
}

void checking::check_image(const std::string &release, const char *what) {
  survey_.looked(topic::image);
  const auto found = subject_.images.find(release);
  const std::string folder = "/images/" + release;
  const std::string put = "put the release's text into " + in_current(folder + "/version");
  if (!is_release_name(release)) {
    add(topic::image, level::error,
        std::string(what) + " " + in_quotes(release) + " is no release: they are written as 4.2(1)",
        "name one of the switch's images");
  } else if (found == subject_.images.end()) {
    std::string known;
    for (const auto &[name, version] : subject_.images.items()) {
      append_word(known, to_text(name));
    }
    add(topic::image, level::error,
        std::string("the switch has no image of ") + what + " " + release +
            "; images: " + (known.empty() ? "none" : known),
        "name another one, or make the folder " + in_current(folder) + " and " + put);
  } else if (!found->is_string()) {
    add(topic::image, level::error, "the version of the image " + release + " cannot be read", put);
  }
}

void checking::check_library() {
  survey_.looked(topic::library);
  constexpr char remedy[] = "name another one with --library or DATAMORPH_LIBRARY";
  library loaded;
  std::string trouble;
  nlohmann::json answer;
  jail::request request = in_state(
      [&](const jail::channel &channel) {
        if (trouble.empty()) {
          ask_library(channel, loaded, subject_);
        } else {
          channel.send({{"trouble", trouble}});
        }
      },
      [&](const nlohmann::json &message) { answer = message; });
  request.prepare = [&] {
    try {
      loaded = load_library(common_.library);
    } catch (const failure &error) {
      trouble = error.what();
    }
  };
  const jail::outcome outcome = jail::run(request);
  if (outcome.how == jail::outcome::kind::silent) {
    add(topic::library, level::error, "the conversion library " + silence(),
        std::string("raise --timeout, or ") + remedy);
  } else if (!outcome.finished()) {
    add(topic::library, level::error, "the conversion library " + outcome.text(), remedy);
  } else if (answer.contains("trouble")) {
    const auto text = answer["trouble"].get<std::string>();
    add(topic::library, level::error, text.substr(0, text.rfind("; name ")), remedy);
  } else {
    take_answer(answer);
  }
}

void checking::take_answer(const nlohmann::json &answer) {
  subject_.newer = answer.at("newer").get<std::string>();
  subject_.older = answer.at("older").get<std::string>();
  if (answer.contains("side")) {
    subject_.side = answer["side"].get<layout_side>();
  }
  for (const nlohmann::json &one : answer.at("differs")) {
    const auto release = one.get<std::string>();
    add(topic::image, level::warning,
        "the image " + release + " says that its version is " +
            in_quotes(subject_.images.at(release).get<std::string>()) +
            ": some services go by that",
        "put the release's text into " + in_current("/images/" + release + "/version"));
  }
}

// ---- The copy and its way to the switch's place ------------------------------------------------

void checking::check_room() {
  constexpr uint64_t slack = 64; // KiB: what a command writes before it looks at the room
  survey_.looked(topic::room);
  try {
    const switch_dir::room room = switch_.room_for_copy();
    if (room.free < room.wanted) {
      add(topic::room, level::error,
          "no room for a copy of the state: " + std::to_string(room.wanted) +
              " bytes are wanted, " + std::to_string(room.free) + " are free",
          "make room for " + std::to_string(((room.wanted - room.free) >> 10) + slack) +
              " KiB more on the file system of " + shell_word(options_.dir));
    }
  } catch (const failure &error) {
    add(topic::room, level::error, std::string("the state cannot be measured: ") + error.what(),
        "run as the user that the switch belongs to");
  }
}

// As the kernel sees it: rights, and file systems that are read-only.
void checking::check_rights() {
  constexpr struct {
    const char *name;
    int rights;
    const char *what;
  } places[] = {{".", R_OK | W_OK | X_OK, "the switch's folder"},
                {"runs", R_OK | W_OK | X_OK, "its folder runs/"},
                {".lock", R_OK | W_OK, "its lock file .lock"}};
  for (const auto &place : places) {
    survey_.looked(topic::rights);
    if (faccessat(switch_.folder(), place.name, place.rights, AT_EACCESS) == 0 || errno == ENOENT) {
      continue;
    }
    const int error = errno;
    add(topic::rights, level::error,
        std::string(place.what) + " cannot be written: " + error_text(error),
        error == EROFS ? "copy the switch to a file system that can be written"
                       : "run as the user that the switch belongs to");
    return;
  }
}

// Trying it would change the switch's folder.
void checking::check_exchange() {
  survey_.looked(topic::exchange);
  struct statfs about = {};
  const bool known =
      fstatfs(switch_.folder(), &about) == 0 &&
      std::any_of(std::begin(exchanging), std::end(exchanging), [&](unsigned long type) {
        return type == static_cast<unsigned long>(about.f_type);
      });
  if (!known) {
    char type[32];
    std::snprintf(type, sizeof type, "0x%lx", static_cast<unsigned long>(about.f_type));
    add(topic::exchange, level::warning,
        std::string("its file system, of type ") + type +
            ", is not known to exchange two folders in one step",
        "'datamorph convert' tries it before it changes anything; if it refuses, move the switch "
        "to a file system such as ext4 or xfs");
  }
}

// ---- The switch itself -------------------------------------------------------------------------

void checking::check_switch() {
  survey_.looked(topic::state);
  if (!switch_.state_trouble().empty()) {
    add(topic::state, level::error,
        switch_.state_trouble() + "; VDCs, tag tables and what depends on them were not looked at",
        switch_.state_remedy());
  }
}

void checking::check_run() {
  survey_.looked(topic::run);
  if (!switch_.leftovers().empty()) {
    add(topic::run, level::warning, switch_.unfinished(),
        "datamorph lab show " + shell_word(options_.dir) + ", which tidies up and says so");
  } else {
    switch_.tell_unfinished(); // it left nothing that would be in the way
  }
}

void checking::take(const nlohmann::json &message) {
  if (!message.contains("counts")) {
    survey_.add(finding::from_message(message));
    return;
  }
  for (const nlohmann::json &row : message["counts"]) {
    const auto what = row.at(0).get<topic>();
    survey_.looked(what, row.at(1).get<uint64_t>());
    survey_.count(what, row.at(2).get<uint64_t>(), row.at(3).get<uint64_t>());
  }
}

// From this step on, as far as the child comes; false when it came to the end. One that crashes or
// hangs is told, and the next step is after it.
bool checking::look_on(size_t *step) {
  std::optional<size_t> at;
  std::string store;
  const jail::outcome outcome = jail::run(
      in_state([&](const jail::channel &channel) { look_at_state(channel, subject_, *step); },
               [&](const nlohmann::json &message) {
                 if (message.contains("step")) {
                   at = message["step"].get<size_t>();
                   progress_.expect(message["of"].get<uint64_t>());
                   progress_.reach(*at);
                   store = from_hex(message.at("store").get<std::string>()).value_or("");
                 } else {
                   take(message);
                   progress_.advance(0); // of a large store it comes many times
                 }
               }));
  if (outcome.finished()) {
    return false;
  }
  const bool silent = outcome.how == jail::outcome::kind::silent;
  const std::string what = "looking at it " + (silent ? silence() : outcome.text());
  if (!at) {
    throw failure(exit_failed, what);
  }
  survey_.add({topic::store,
               level::error,
               store,
               {},
               what,
               silent ? "raise --timeout, or see why its disk does not answer"
                      : "datamorph store delete " + shell_word(options_.dir) + " " +
                            shell_word(store) + " --all"});
  *step = *at + 1;
  return true;
}

void checking::check_state() {
  size_t step = 0;
  progress_.begin("checking", 0, "stores and other parts");
  while (look_on(&step)) {
  }
  progress_.end();
}

// ---- What is told ------------------------------------------------------------------------------

std::string checking::looked_text() const {
  return counted(topic_names.size(), "check") + ", " +
         counted(survey_.of(topic::store).looked_at, "store") + ", " +
         counted(survey_.of(topic::record).looked_at + survey_.of(topic::tags).looked_at, "record");
}

nlohmann::json checking::to_json() const {
  nlohmann::json checks = nlohmann::json::array();
  nlohmann::json findings = nlohmann::json::array();
  size_t at = 0;
  for (const tally &one : survey_.tallies()) {
    checks.push_back(
        {{"check", topic_names[at++]}, {"looked_at", one.looked_at}, {"findings", one.found()}});
    for (const finding &found : one.kept) {
      findings.push_back(found.to_json());
    }
  }
  return {{"switch", options_.dir},
          {"from", subject_.from},
          {"to", subject_.to},
          {"checks", checks},
          {"findings", findings},
          {"summary",
           {{"errors", survey_.errors()},
            {"warnings", survey_.warnings()},
            {"shown", findings.size()},
            {"stores", survey_.of(topic::store).looked_at},
            {"records", survey_.of(topic::record).looked_at + survey_.of(topic::tags).looked_at}}}};
}

std::string block_of(const finding &found) {
  std::string head = std::string(found.word()) + ": " + found.name();
  if (!found.store.empty()) {
    head += ", " + to_text(found.store);
  }
  if (found.key) {
    head += ", key " + (found.key->empty() ? "\"\"" : *found.key);
  }
  return head + "\n  " + found.text + "\n  remedy: " + found.remedy + "\n\n";
}

void checking::print_blocks() const {
  for (const tally &one : survey_.tallies()) {
    for (size_t at = 0; at < std::min(one.kept.size(), shown_of_each); ++at) {
      output::text(block_of(one.kept[at]));
    }
    if (one.found() > shown_of_each) {
      output::text(std::to_string(one.found() - shown_of_each) + " more of " +
                   one.kept.front().name() + "\n\n");
    }
  }
  const std::string change = "a conversion from " +
                             (subject_.from.empty() ? "?" : to_text(subject_.from)) + " to " +
                             to_text(subject_.to);
  const uint64_t found = survey_.errors() + survey_.warnings();
  output::text(to_text(options_.dir) + ": " +
               (found == 0 ? "nothing stands in the way of " + change + "; looked at "
                           : counted(survey_.errors(), "error") + " and " +
                                 counted(survey_.warnings(), "warning") + " before " + change +
                                 "; looked at ") +
               looked_text() + "\n");
}

int checking::run() {
  check_images();
  check_library();
  check_room();
  check_rights();
  check_exchange();
  check_switch();
  check_run();
  check_state();
  if (common_.format == output::format::json) {
    output::json(to_json(), "findings");
  } else {
    print_blocks();
  }
  return survey_.errors() + survey_.warnings() == 0 ? exit_done : exit_refused;
}

} // namespace

int check(const common_options &common, const check_options &options) {
  const stop_signal::guard guard;
  try {
    return checking(common, options).run();
  } catch (const failure &error) {
    const std::string message = error.what();
    const bool placed = message.starts_with(in_quotes(options.dir));
    throw failure(error.status(), placed ? message : in_quotes(options.dir) + ": " + message);
  } catch (const nlohmann::json::exception &) {
    throw failure(exit_failed, in_quotes(options.dir) + ": the process that looked at the switch "
                                                        "sent a message that makes no sense");
  }
}
