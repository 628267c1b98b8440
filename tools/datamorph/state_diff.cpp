#include "state_diff.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child_process.h"
#include "failure.h"
#include "jail.h"
#include "lab/checksum.h"
#include "lab/lab.h"
#include "progress.h"
#include "store_access.h"
#include "strict_json.h"
#include "switch_state.h"
#include "text.h"
#include "tree.h"
#include "unique_fd.h"

namespace {

// In the order in which a side tells of them.
constexpr const char *kinds[] = {"switch", "store", "file", "access point"};
enum kind : size_t { switch_kind, store_kind, file_kind, point_kind };

constexpr size_t largest_switch_file = 1 << 20;
constexpr uint64_t records_told = 1000; // of a digest: how often its progress is

// ---- In a side's root: what there is, as messages ----------------------------------------------
//
// "kind", "name" (hex) and "facts" begin a thing; "trouble" says that there is more of it which
// cannot be read. Its records, with rising keys, are many: a line of their own form each.

struct side_message {
  nlohmann::json body; // null: a record
  std::string key;     // hex
  std::string value;   // hex
  bool is_record() const { return body.is_null(); }
  bool is_thing() const { return body.contains("kind"); }
  bool is_trouble() const { return body.contains("trouble"); }
};

constexpr char record_mark = '=';

std::string record_line(std::string_view key, std::string_view value) {
  return record_mark + to_hex(key) + ' ' + to_hex(value) + '\n';
}

// With or without its end of line.
std::optional<side_message> read_record(std::string_view line) {
  const size_t blank = line.find(' ');
  if (!line.starts_with(record_mark) || blank == std::string_view::npos) {
    return std::nullopt;
  }
  line = line.substr(0, line.find('\n'));
  return side_message{nullptr, std::string(line.substr(1, blank - 1)),
                      std::string(line.substr(blank + 1))};
}

class teller {
public:
  // `refuse` is called for what cannot be read, before that is told.
  using sink = std::function<void(std::string_view)>;
  explicit teller(
      sink send, std::function<void(const std::string &)> refuse = [](const std::string &) {})
      : send_(std::move(send)), refuse_(std::move(refuse)) {}
  void thing(kind which, const std::string &name, const nlohmann::json &facts) const {
    send({{"kind", which}, {"name", to_hex(name)}, {"facts", facts}});
  }
  void record(std::string_view key, std::string_view value) const {
    send_(record_line(key, value));
  }
  void trouble(const std::string &text) const {
    refuse_(text);
    send({{"trouble", text}});
  }

private:
  void send(const nlohmann::json &message) const {
    send_(message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n');
  }

  sink send_;
  std::function<void(const std::string &)> refuse_;
};

void tell_switch(const teller &tell) {
  const std::string text = tree::read_file(AT_FDCWD, switch_file, largest_switch_file);
  nlohmann::json facts = switch_state::from_json(parse_shallow(text)).to_json();
  facts.erase("generation");
  tell.thing(switch_kind, switch_file, facts);
}

void tell_store(const teller &tell, const std::string &uri, const std::string &name) {
  bool begun = false;
  try {
    store_handle store(uri, PSS2_MODE_READ);
    const pss2_nonvol_params params = store.params();
    tell.thing(store_kind, name,
               {{"max_key_size", params.max_key_size},
                {"max_value_size", params.max_value_size},
                {"max_node_keys", params.max_node_keys},
                {"version", params.version}});
    begun = true;
    store.for_each([&](std::string_view key, std::string_view value) { tell.record(key, value); });
    store.close();
  } catch (const failure &error) {
    if (!begun) {
      tell.thing(store_kind, name, nlohmann::json::object());
    }
    tell.trouble(error.what());
  }
}

// Whether it is a flat file whose keys rise, as those that were written from a store do.
bool is_ordered_flat_file(const std::string &path) {
  std::optional<std::string> last;
  bool rising = true;
  const syserr_t status = lab::flat_file_read(path, [&](std::string_view key, std::string_view) {
    rising = rising && (!last || *last < key);
    last = key;
  });
  return status == SYSERR_SUCCESS && rising;
}

std::string sum_text(const lab::running_sum &sum) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(sum.digest()));
  return text;
}

// The checksum of what is in a file, in hex; empty and errno when it cannot be read.
std::string sum_of(const std::string &path) {
  const unique_fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.is_open()) {
    return "";
  }
  lab::running_sum sum;
  std::vector<char> buffer(size_t(1) << 16);
  for (;;) {
    const ssize_t got = read(file.get(), buffer.data(), buffer.size());
    if (got < 0 && errno != EINTR) {
      return "";
    }
    if (got == 0) {
      return sum_text(sum);
    }
    sum.add(buffer.data(), got > 0 ? static_cast<size_t>(got) : 0);
  }
}

void tell_regular_file(const teller &tell, const std::string &path, nlohmann::json facts,
                       off_t bytes) {
  if (is_ordered_flat_file(path)) {
    facts["type"] = "flat file";
    tell.thing(file_kind, path, facts);
    const syserr_t status = lab::flat_file_read(
        path, [&](std::string_view key, std::string_view value) { tell.record(key, value); });
    if (status != SYSERR_SUCCESS) {
      tell.trouble("it changed while it was read");
    }
    return;
  }
  const std::string sum = sum_of(path);
  const int error = errno;
  if (sum.empty()) {
    tell.thing(file_kind, path, nlohmann::json::object());
    tell.trouble(error_text(error));
    return;
  }
  facts["type"] = "file";
  facts["bytes"] = bytes;
  facts["xxh3"] = sum;
  tell.thing(file_kind, path, facts);
}

void tell_file(const teller &tell, const std::string &path) {
  struct stat about = {};
  if (lstat(path.c_str(), &about) != 0) {
    const int error = errno;
    tell.thing(file_kind, path, nlohmann::json::object());
    tell.trouble(error_text(error));
    return;
  }
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(about.st_mode & 07777));
  if (S_ISREG(about.st_mode)) {
    tell_regular_file(tell, path, {{"mode", mode}}, about.st_size);
    return;
  }
  const char *const type = S_ISDIR(about.st_mode) ? "folder" : "special file";
  nlohmann::json facts = {{"type", type}, {"mode", mode}};
  if (S_ISLNK(about.st_mode)) {
    std::error_code error;
    facts = {{"type", "link"},
             {"target", to_text(std::filesystem::read_symlink(path, error).native())}};
  }
  tell.thing(file_kind, path, facts);
  if (S_ISDIR(about.st_mode)) {
    tell.trouble("the folder cannot be read");
  }
}

// What other things stand for, and what a conversion writes about itself.
std::set<std::string> hidden_files(const std::vector<std::string> &uris) {
  std::set<std::string> hidden = {std::string("/") + switch_file, "/var/run/mts",
                                  "/mnt/pss/data_morph.log", "/mnt/pss/data_morph.last",
                                  "/tmp/datamorphcheck"};
  for (const std::string &uri : uris) {
    hidden.insert(lab::store_file(uri));
    hidden.insert(lab::store_file(uri) + "-journal");
  }
  return hidden;
}

// Every file; a folder that cannot be read too.
void collect_files(const std::string &folder, const std::set<std::string> &hidden,
                   std::vector<std::string> *paths) {
  std::error_code error;
  for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
       at.increment(error)) {
    const std::string path = at->path();
    if (hidden.contains(path)) {
      continue;
    }
    std::error_code unknown;
    if (!at->is_symlink(unknown) && at->is_directory(unknown)) {
      collect_files(path, hidden, paths);
    } else {
      paths->push_back(path);
    }
  }
  if (error) {
    paths->push_back(folder);
  }
}

void tell_files(const teller &tell, const std::vector<std::string> &uris) {
  std::vector<std::string> paths;
  collect_files("/", hidden_files(uris), &paths);
  std::sort(paths.begin(), paths.end());
  for (const std::string &path : paths) {
    tell_file(tell, path);
  }
}

void tell_points(const teller &tell) {
  std::vector<std::pair<std::string, std::string>> points;
  for (const lab::access_point &point : all_access_points()) {
    points.emplace_back(std::to_string(point.sap), shown_uri(point.owner));
  }
  std::sort(points.begin(), points.end());
  for (const auto &[number, owner] : points) {
    tell.thing(point_kind, number, {{"owner", owner}});
  }
}

using names = std::set<std::string>;

// But for these stores.
void tell_state(const teller &tell, const names &skipped = {}) {
  tell_switch(tell);
  std::vector<std::string> uris = all_store_uris(true);
  std::sort(uris.begin(), uris.end());
  for (const std::string &uri : uris) {
    if (!skipped.contains(uri)) {
      tell_store(tell, uri, uri);
    }
  }
  tell_files(tell, uris);
  tell_points(tell);
}

// How a side is told: under which name one store meets the other, or without which stores.
struct telling {
  std::string name;
  names skipped;
};

void tell_side(const jail::channel &channel, const std::string &uri, const telling &how) {
  const teller tell([&](std::string_view line) { channel.send_line(line); });
  if (uri.empty()) {
    tell_state(tell, how.skipped);
    return;
  }
  store_handle(uri, PSS2_MODE_READ).close(); // one that was asked for has to be there
  tell_store(tell, uri, how.name);
}

// How many records of stores a side tells; 0 where nobody wants to know, for counting takes time.
uint64_t records_to_read(const state_side &side, const telling &how) {
  uint64_t total = 0;
  if (!progress::is_allowed()) {
    return total;
  }
  jail::request request;
  request.root = side.root;
  request.body = [&](const jail::channel &channel) {
    const std::vector<std::string> uris =
        side.uri.empty() ? lab::store_uris() : std::vector<std::string>{side.uri};
    for (const std::string &uri : uris) {
      uint64_t records = 0;
      if (!how.skipped.contains(uri) && lab::store_count(uri, &records) == SYSERR_SUCCESS) {
        channel.send({{"records", records}});
      }
    }
  };
  request.on_message = [&](const nlohmann::json &message) {
    total += message.at("records").get<uint64_t>();
  };
  // What is wrong there is told when the side is read.
  return jail::run(request).finished() ? total : 0;
}

// Records are given as lines to `take_record`, where there is one, and as messages else.
void hear_side(const state_side &side, const telling &how,
               const std::function<void(const side_message &)> &take,
               const std::function<void(const std::string &)> &take_record = {}) {
  jail::request request;
  request.root = side.root;
  request.body = [&](const jail::channel &channel) { tell_side(channel, side.uri, how); };
  request.on_line = [&](const std::string &line) {
    if (!line.starts_with(record_mark)) {
      return false;
    }
    const std::optional<side_message> record = take_record ? std::nullopt : read_record(line);
    if (take_record) {
      take_record(line);
    } else if (record) {
      take(*record);
    }
    return true;
  };
  request.on_message = [&](const nlohmann::json &message) { take({message, "", ""}); };
  const jail::outcome outcome = jail::run(request);
  if (!outcome.finished()) {
    throw failure(exit_failed, "looking into the state " + outcome.text());
  }
}

// ---- Stores that are the same, byte for byte ---------------------------------------------------

// A store's file; `records` only where it is whole.
struct store_print {
  std::string sum; // empty: it is not to be judged by its file
  std::optional<uint64_t> records;
};
using store_prints = std::map<std::string, store_print>;

// What stands in a journal beside the file counts as well, so such a store is read.
store_print print_of(const std::string &uri, bool count) {
  const std::string file = lab::store_file(uri);
  store_print print;
  lab::store_info info;
  if (tree::exists(AT_FDCWD, file + "-journal") ||
      (count && lab::store_inspect(uri, &info) != SYSERR_SUCCESS)) {
    return print;
  }
  print.sum = sum_of(file);
  if (count) {
    print.records = info.records;
  }
  return print;
}

store_prints prints_of(const state_side &side, bool count) {
  store_prints prints;
  jail::request request;
  request.root = side.root;
  request.body = [&](const jail::channel &channel) {
    for (const std::string &uri : lab::store_uris()) {
      const store_print print = print_of(uri, count);
      if (!print.sum.empty()) {
        channel.send(
            {{"name", to_hex(uri)}, {"sum", print.sum}, {"records", print.records.value_or(0)}});
      }
    }
  };
  request.on_message = [&](const nlohmann::json &message) {
    prints[from_hex(message["name"].get<std::string>()).value_or("")] = {
        message["sum"].get<std::string>(), message["records"].get<uint64_t>()};
  };
  // What is wrong there is found again, and told, when the side is read.
  if (!jail::run(request).finished()) {
    prints.clear();
  }
  return prints;
}

// Their records need not be compared; how many there are in *records.
names same_stores(const state_side &a, const state_side &b, uint64_t *records) {
  names same;
  if (!a.uri.empty()) {
    return same;
  }
  const store_prints of_b = prints_of(b, false);
  for (const auto &[uri, print] : prints_of(a, true)) {
    const auto found = of_b.find(uri);
    const bool wants_looking = has_layouts(uri) && (a.layouts || b.layouts);
    if (found != of_b.end() && found->second.sum == print.sum && !wants_looking) {
      same.insert(uri);
      *records += *print.records;
    }
  }
  return same;
}

// ---- The side that is asked for its next message -----------------------------------------------

// Heard by a process of its own, which waits while nobody takes its messages.
class asked_side {
public:
  asked_side(const state_side &side, const telling &how, std::function<void()> record_read)
      : label_(side.label), record_read_(std::move(record_read)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw failure(exit_failed, "cannot open a pipe: " + error_text(errno));
    }
    in_ = fdopen(ends[0], "r");
    const unique_fd writing(ends[1]);
    std::fflush(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) {
      throw failure(exit_failed, "cannot start a process: " + error_text(errno));
    }
    if (pid_ == 0) {
      live(side, how, writing.get(), parent);
    }
  }
  ~asked_side() {
    kill(pid_, SIGTERM);
    if (in_ != nullptr) {
      std::fclose(in_);
    }
    std::free(line_);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  asked_side(const asked_side &) = delete;
  asked_side &operator=(const asked_side &) = delete;

  // Null at the end, and before the first advance().
  const std::optional<side_message> &next() const { return next_; }
  void advance() {
    const ssize_t got = in_ == nullptr ? -1 : getline(&line_, &room_, in_);
    const size_t size = got <= 0 ? 0 : static_cast<size_t>(got);
    next_ = read_record({line_, size});
    if (next_) {
      record_read_();
      return;
    }
    const nlohmann::json message =
        size == 0 ? nlohmann::json() : nlohmann::json::parse(line_, line_ + got, nullptr, false);
    if (!message.is_object()) {
      throw failure(exit_failed, in_quotes(label_) + ": looking into the state ended early");
    }
    if (message.contains("failure")) {
      throw failure(message["failure"].get<int>(),
                    in_quotes(label_) + ": " + message["message"].get<std::string>(),
                    message["next_action"].get<std::string>());
    }
    if (!message.contains("end")) {
      next_ = {message, "", ""};
    }
  }

private:
  [[noreturn]] static void live(const state_side &side, const telling &how, int to, pid_t parent) {
    start_child(parent, SIGKILL);
    const jail::channel channel(to);
    const auto tell = [&](const failure &error) {
      channel.send({{"failure", error.status()},
                    {"message", error.message()},
                    {"next_action", error.next_action()}});
    };
    try {
      hear_side(
          side, how, [&](const side_message &message) { channel.send(message.body); },
          [&](const std::string &line) { channel.send_line(line + '\n'); });
      channel.send({{"end", true}});
    } catch (const failure &error) {
      tell(error);
    } catch (const std::exception &error) {
      tell(failure(exit_failed, error.what()));
    }
    _exit(exit_done);
  }

  std::string label_;
  std::function<void()> record_read_;
  pid_t pid_ = -1;
  FILE *in_ = nullptr;
  char *line_ = nullptr;
  size_t room_ = 0;
  std::optional<side_message> next_;
};

// ---- Merging -----------------------------------------------------------------------------------

using what = state_change::what;

side_value value_of(const std::string &uri, const side_message &record,
                    std::optional<layout_side> layouts) {
  side_value side;
  side.value = record.value;
  side.decoded = decode_record(uri, from_hex(record.key).value_or(""),
                               from_hex(side.value).value_or(""), layouts);
  return side;
}

// Takes the messages of A as they come, and those of B where they belong.
class merger {
public:
  merger(const state_side &a, const state_side &b, asked_side *asked,
         const std::function<void(const state_change &)> &take)
      : side_a_(a), side_b_(b), b_(*asked), take_(take) {}

  void hear(const side_message &message) {
    if (message.is_thing()) {
      end_thing();
      begin_thing(message.body);
    } else if (message.is_trouble()) {
      unreadable(message.body, true);
    } else {
      ++totals_.a;
      hear_record(message);
    }
  }
  const record_totals &totals() const { return totals_; }
  void end() {
    end_thing();
    while (b_.next().has_value()) {
      only_in_b();
    }
  }

private:
  // Things in the order in which they come.
  static bool before(const nlohmann::json &one, const nlohmann::json &other) {
    return one["kind"] != other["kind"] ? one["kind"] < other["kind"] : one["name"] < other["name"];
  }
  void pass_b() {
    totals_.b += b_.next()->is_record() ? 1 : 0;
    b_.advance();
  }
  bool b_in_thing() const { return b_.next().has_value() && !b_.next()->is_thing(); }

  void begin_thing(const nlohmann::json &thing) {
    while (b_.next().has_value() && before(b_.next()->body, thing)) {
      only_in_b();
    }
    set_thing(thing);
    both_ = b_.next().has_value() && !before(thing, b_.next()->body);
    if (!both_) {
      give_thing(what::removed, &thing["facts"], nullptr);
      return;
    }
    const nlohmann::json facts = b_.next()->body["facts"];
    pass_b();
    compare_facts(thing["facts"], facts);
  }

  void compare_facts(const nlohmann::json &a, const nlohmann::json &b) {
    compared_ = a.value("type", "") == b.value("type", "");
    // Without facts it could not be opened, which is told next.
    if (a != b && !a.empty() && !b.empty()) {
      give_thing(what::changed, &a, &b);
    }
  }

  void end_thing() {
    while (both_ && b_in_thing()) {
      hear_b();
    }
    both_ = false;
  }

  void only_in_b() {
    set_thing(b_.next()->body);
    give_thing(what::added, nullptr, &b_.next()->body["facts"]);
    pass_b();
    while (b_in_thing()) {
      hear_b();
    }
  }

  // What B has more of the thing.
  void hear_b() {
    if (b_.next()->is_trouble()) {
      unreadable(b_.next()->body, false);
    } else if (compared_) {
      give_record(what::added, nullptr, &*b_.next());
    }
    pass_b();
  }

  void hear_record(const side_message &record) {
    while (both_ && compared_ && b_in_thing() &&
           (b_.next()->is_trouble() || b_.next()->key < record.key)) {
      hear_b();
    }
    if (!compared_) {
      ++totals_.uncompared;
      return;
    }
    if (!both_ || !b_in_thing() || b_.next()->key != record.key) {
      give_record(what::removed, &record, nullptr);
      return;
    }
    if (b_.next()->value != record.value) {
      give_record(what::changed, &record, &*b_.next());
    } else {
      totals_.unchanged_misfits += is_misfit(side_a_, record) || is_misfit(side_b_, record) ? 1 : 0;
    }
    pass_b();
  }

  // What follows would look as if it were not there on the side that cannot be read.
  void unreadable(const nlohmann::json &message, bool of_a) {
    state_change change = named(what::unreadable);
    (of_a ? change.a : change.b).emplace().trouble = message["trouble"].get<std::string>();
    take_(change);
    compared_ = false;
  }

  void set_thing(const nlohmann::json &thing) {
    kind_ = kinds[thing["kind"].get<size_t>()];
    name_ = from_hex(thing["name"].get<std::string>()).value_or("");
    compared_ = true;
  }

  state_change named(what how) const {
    state_change change;
    change.how = how;
    change.kind = kind_;
    change.name = name_;
    return change;
  }

  static std::vector<decoded_field> facts_of(const nlohmann::json &facts) {
    std::vector<decoded_field> fields;
    for (const auto &[name, value] : facts.items()) {
      std::string text = name;
      append_word(text, to_text(value.is_string() ? value.get<std::string>() : value.dump()));
      fields.push_back({name, value, text});
    }
    return fields;
  }

  void give_thing(what how, const nlohmann::json *a, const nlohmann::json *b) {
    state_change change = named(how);
    if (a != nullptr) {
      change.a.emplace().facts = facts_of(*a);
    }
    if (b != nullptr) {
      change.b.emplace().facts = facts_of(*b);
    }
    take_(change);
  }

  void give_record(what how, const side_message *a, const side_message *b) {
    state_change change = named(how);
    if (a != nullptr) {
      change.key = a->key;
      change.a = value_on(side_a_, *a);
    }
    if (b != nullptr) {
      change.key = b->key;
      change.b = value_on(side_b_, *b);
    }
    take_(change);
  }

  bool is_misfit(const state_side &side, const side_message &record) const {
    const std::string &uri = side.uri.empty() ? name_ : side.uri;
    if (!side.layouts || !has_layouts(uri)) {
      return false;
    }
    const side_value value = value_of(uri, record, side.layouts);
    return value.decoded && value.decoded->misfit;
  }

  side_value value_on(const state_side &side, const side_message &record) {
    const std::string &uri = side.uri.empty() ? name_ : side.uri;
    totals_.by_length += !side.layouts && has_layouts(uri) ? 1 : 0;
    return value_of(uri, record, side.layouts);
  }

  record_totals totals_;
  const state_side &side_a_;
  const state_side &side_b_;
  asked_side &b_;
  const std::function<void(const state_change &)> &take_;
  const char *kind_ = "";
  std::string name_;
  bool both_ = false;     // the thing that A tells of is on both sides
  bool compared_ = false; // its records are
};

// ---- Fields ------------------------------------------------------------------------------------

std::vector<decoded_field> fields_of(const side_value &side) {
  std::vector<decoded_field> fields;
  if (side.decoded) {
    fields.push_back({"kind", side.decoded->kind, ""});
    fields.push_back({"damaged", side.decoded->damaged, side.decoded->damaged ? "damaged" : ""});
    fields.insert(fields.end(), side.decoded->fields.begin(), side.decoded->fields.end());
  }
  if (side.facts) {
    fields.insert(fields.end(), side.facts->begin(), side.facts->end());
  }
  return fields;
}

const decoded_field *find_field(const std::vector<decoded_field> &fields, const std::string &name) {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const decoded_field &one) { return one.name == name; });
  return found == fields.end() ? nullptr : &*found;
}

std::string field_text(const decoded_field *field) {
  if (field == nullptr) {
    return "none";
  }
  if (!field->text.empty()) {
    return field->text;
  }
  const nlohmann::json &value = field->value;
  return field->name + " " + to_text(value.is_string() ? value.get<std::string>() : value.dump());
}

} // namespace

std::string hex_text(const std::string &hex) {
  return hex.size() <= shown_hex
             ? hex
             : hex.substr(0, shown_hex) + "... (" + counted(hex.size() / 2, "byte") + ")";
}

std::string side_value::to_text() const {
  if (decoded) {
    return decoded->to_text() + (decoded->damaged || decoded->misfit ? ", " + hex_text(value) : "");
  }
  std::string text = hex_text(value);
  for (const decoded_field &fact : facts.value_or(std::vector<decoded_field>())) {
    append_word(text, fact.text, ", ");
  }
  return text;
}

nlohmann::json side_value::to_json() const {
  if (!trouble.empty()) {
    return {{"trouble", trouble}};
  }
  nlohmann::json document = nlohmann::json::object();
  if (facts) {
    for (const decoded_field &fact : *facts) {
      document[fact.name] = fact.value;
    }
    return document;
  }
  document["value"] = value;
  if (decoded) {
    document["decoded"] = decoded->to_json();
  }
  return document;
}

const char *state_change::word() const {
  switch (how) {
  case what::added:
    return "added";
  case what::removed:
    return "removed";
  case what::changed:
    return "changed";
  case what::unreadable:
    break;
  }
  return "unreadable";
}

std::vector<field_change> state_change::fields() const {
  std::vector<field_change> changes;
  if (how != what::changed || misfit()) {
    return changes;
  }
  const std::vector<decoded_field> of_a = fields_of(*a);
  const std::vector<decoded_field> of_b = fields_of(*b);
  const auto compare = [&](const std::string &field) {
    const decoded_field *const one = find_field(of_a, field);
    const decoded_field *const other = find_field(of_b, field);
    const nlohmann::json before = one == nullptr ? nlohmann::json() : one->value;
    const nlohmann::json after = other == nullptr ? nlohmann::json() : other->value;
    if (before != after) {
      changes.push_back({field, before, after, field_text(one) + " -> " + field_text(other)});
    }
  };
  for (const decoded_field &field : of_a) {
    compare(field.name);
  }
  for (const decoded_field &field : of_b) {
    if (find_field(of_a, field.name) == nullptr) {
      compare(field.name);
    }
  }
  return changes;
}

bool state_change::undecoded() const {
  const auto unknown = [](const std::optional<side_value> &side) {
    return side && (!side->decoded || side->decoded->damaged || side->decoded->misfit);
  };
  return key && (unknown(a) || unknown(b));
}

nlohmann::json state_change::to_json() const {
  nlohmann::json document = {{"change", word()}, {"kind", kind}, {"name", shown_uri(name)}};
  if (key) {
    document["key"] = *key;
  }
  if (a) {
    document["a"] = a->to_json();
  }
  if (b) {
    document["b"] = b->to_json();
  }
  for (const field_change &field : fields()) {
    document["fields"][field.name] = {{"a", field.a}, {"b", field.b}};
  }
  return document;
}

record_totals diff_states(const state_side &a, const state_side &b,
                          const std::function<void(const state_change &)> &take) {
  uint64_t same = 0;
  telling how = {a.uri, {}};
  try {
    how.skipped = same_stores(a, b, &same);
  } catch (const failure &error) {
    if (error.status() > 128) {
      throw;
    }
    // A side that cannot be looked into is told below.
  }
  progress shown;
  shown.begin("comparing", records_to_read(a, how) + records_to_read(b, how), "records");
  const auto record_read = [&] { shown.advance(); };
  asked_side asked(b, how, record_read);
  asked.advance();
  merger merged(a, b, &asked, take);
  try {
    hear_side(a, how, [&](const side_message &message) {
      if (message.is_record()) {
        record_read();
      }
      merged.hear(message);
    });
  } catch (const failure &error) {
    if (error.message().starts_with(in_quotes(b.label) + ": ")) {
      throw;
    }
    throw failure(error.status(), in_quotes(a.label) + ": " + error.message(), error.next_action());
  }
  merged.end();
  record_totals totals = merged.totals();
  totals.a += same;
  totals.b += same;
  return totals;
}

void for_each_record(const state_side &side,
                     const std::function<void(const state_change &)> &take) {
  hear_side(side, {side.uri, {}}, [&](const side_message &message) {
    if (!message.is_record()) {
      return;
    }
    state_change change;
    change.how = what::removed;
    change.kind = kinds[store_kind];
    change.name = side.uri;
    change.key = message.key;
    change.a = value_of(side.uri, message, side.layouts);
    take(change);
  });
}

std::map<std::string, std::string> values_of(const state_side &side,
                                             const std::vector<std::string> &keys) {
  std::map<std::string, std::string> values;
  jail::request request;
  request.root = side.root;
  request.body = [&](const jail::channel &channel) {
    store_handle store(side.uri, PSS2_MODE_READ);
    for (const std::string &hex : keys) {
      const std::string key = from_hex(hex).value_or("");
      if (store.has(key)) {
        channel.send_line(record_line(key, store.fetch(key)));
      }
    }
    store.close();
  };
  request.on_line = [&](const std::string &line) {
    std::optional<side_message> record = read_record(line);
    if (record) {
      values[record->key] = std::move(record->value);
    }
    return record.has_value();
  };
  const jail::outcome outcome = jail::run(request);
  if (!outcome.finished()) {
    throw failure(exit_failed,
                  in_quotes(side.label) + ": looking into the state " + outcome.text());
  }
  return values;
}

std::string state_digest(const state_side &side) {
  std::string digest;
  std::string trouble;
  jail::request request;
  progress shown;
  shown.begin("making the digest", records_to_read(side, {}), "records");
  request.root = side.root;
  request.body = [](const jail::channel &channel) {
    lab::running_sum sum;
    uint64_t records = 0;
    const auto add = [&](std::string_view line) {
      sum.add(line.data(), line.size());
      if (line.starts_with(record_mark) && ++records % records_told == 0) {
        channel.send({{"records", records}});
      }
    };
    tell_state(
        teller(add, [](const std::string &trouble) { throw failure(exit_refused, trouble); }));
    channel.send({{"digest", sum_text(sum)}});
  };
  request.on_message = [&](const nlohmann::json &message) {
    digest = message.value("digest", "");
    shown.reach(message.value("records", uint64_t(0)));
  };
  const jail::outcome outcome = jail::run(request);
  if (!outcome.finished()) {
    throw failure(exit_failed,
                  in_quotes(side.label) + ": looking into the state " + outcome.text());
  }
  return digest;
}
