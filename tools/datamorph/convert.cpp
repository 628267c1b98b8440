// convert: the version change of a lab switch, seen from outside. Everything that can be refused
// is refused first; then a copy of the state is converted and takes the state's place in one step.
#include "verbs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <fcntl.h>
#include <unistd.h>

#include "conversion_child.h"
#include "failure.h"
#include "jail.h"
#include "lab/lab.h"
#include "report.h"
#include "run_folder.h"
#include "run_record.h"
#include "run_steps.h"
#include "services.h"
#include "statuses.h"
#include "stop_signal.h"
#include "switch_dir.h"
#include "text.h"
#include "tree.h"
#include "vrrp_hand_over.h"

namespace {

constexpr size_t longest_journal = size_t(1) << 30;

class conversion {
public:
  conversion(const common_options &common, const convert_options &options)
      : common_(common), options_(options), switch_(options.dir, switch_dir::access::write) {}

  int run();

private:
  [[noreturn]] void refuse(const std::string &message) const {
    throw failure(exit_refused, in_quotes(options_.dir) + ": " + message);
  }
  bool selected(moment which) const;
  bool whole_change() const;
  std::vector<uint32> wanted_services() const;
  nlohmann::json look();
  void check_release(const nlohmann::json &images, const std::string &release,
                     const char *what) const;
  void check_damage(const nlohmann::json &found) const;
  void make_plan(const nlohmann::json &found);
  void prepare();
  void convert_copy(const run_folder &folder);
  int attempt(const run_folder &folder);
  void take_message(const nlohmann::json &message);
  void note_end(const jail::outcome &outcome);
  std::string verdict() const;
  nlohmann::json vrrp_records(const char *which) const;
  std::string unwanted_losses() const;
  void commit();
  void fail(const std::string &trouble);
  run_facts facts() const;
  const char *result(int ended) const;
  void finish(const run_folder &folder, run_record *record, int ended);
  void take_journal(const run_folder &folder);
  void say(const std::string &message) const;
  void print_report() const;

  const common_options &common_;
  const convert_options &options_;
  switch_dir switch_;
  unique_fd next_; // the copy that is converted
  conversion_plan plan_;
  conversion_report report_;
  nlohmann::json closing_;
};

// ---- What is refused ---------------------------------------------------------------------------

bool conversion::selected(moment which) const {
  return options_.moments.empty() || std::count(options_.moments.begin(), options_.moments.end(),
                                                std::string(moment_name(which))) != 0;
}

// Whether nothing of a version change is left out, so that the switch runs the new release then.
bool conversion::whole_change() const {
  return options_.services.empty() && selected(moment::gsync) && selected(moment::running_fs) &&
         selected(moment::startup);
}

std::vector<uint32> conversion::wanted_services() const {
  std::vector<uint32> wanted;
  for (const std::string &name : options_.services) {
    wanted.push_back(*service_number(name));
  }
  return wanted;
}

nlohmann::json conversion::look() {
  nlohmann::json found;
  library loaded;
  jail::request request;
  request.root = switch_.current();
  request.prepare = [&] { loaded = load_library(common_.library); };
  request.body = [&](const jail::channel &channel) {
    channel.send({{"library", loaded.file}});
    examine(channel, loaded, plan_);
  };
  request.on_message = [&](const nlohmann::json &message) { found.update(message); };
  request.silence = std::chrono::seconds(options_.timeout);
  const jail::outcome outcome = jail::run(request);
  if (outcome.how == jail::outcome::kind::silent) {
    refuse("the library gave no answer within " + counted(options_.timeout, "second") +
           " while the switch was examined; raise --timeout");
  }
  if (!outcome.finished()) {
    refuse("the library, while the switch was examined with it: " + outcome.text());
  }
  return found;
}

void conversion::check_release(const nlohmann::json &images, const std::string &release,
                               const char *what) const {
  std::string known;
  for (const auto &[name, version] : images.items()) {
    append_word(known, to_text(name));
  }
  const auto found = images.find(release);
  if (!is_release_name(release) || found == images.end()) {
    refuse(std::string(what) + " " + in_quotes(release) +
           " is unknown: the switch has no image of " +
           "it; images: " + (known.empty() ? "none" : known));
  }
  if (!found->is_string()) {
    refuse("the version of the image " + in_quotes(release) +
           " cannot be read; put the release's " + "text into images/" + release + "/version");
  }
}

void conversion::check_damage(const nlohmann::json &found) const {
  if (!found.contains("damaged")) {
    return;
  }
  const nlohmann::json &damaged = found["damaged"];
  const std::string uri = damaged.at("uri").get<std::string>();
  const std::string what = "the store " + in_quotes(uri) +
                           " cannot be read: " + status_text(damaged.at("status").get<syserr_t>());
  if (uri != lab::running_tag_tables) {
    refuse(what + "; remove it with 'datamorph store delete --all' and bring it back with "
                  "'datamorph store import'");
  }
  const std::string remove = "datamorph store delete " + options_.dir + " " + uri + " ";
  const std::string reboot =
      ", 'datamorph lab reboot' makes it anew from the saved tag tables, but empties /tmp and the "
      "other volatile stores too";
  if (!damaged.contains("key")) {
    refuse(what + "; '" + remove + "--all' removes it" + reboot);
  }
  const std::string key = damaged["key"].get<std::string>();
  refuse(what + ": the record with the key '" + key +
         "': " + damaged.at("text").get<std::string>() + "; '" + remove +
         (key.empty() ? "\"\"" : key) + "' removes that one" + reboot);
}

// Each service once: where it first stands when the release rises, where it last stands when the
// release falls. That keeps the nesting of services that hand data to each other.
std::vector<uint32> in_call_order(std::vector<uint32> rows, bool falls) {
  if (falls) {
    std::reverse(rows.begin(), rows.end());
  }
  std::vector<uint32> order;
  for (const uint32 uuid : rows) {
    if (std::find(order.begin(), order.end(), uuid) == order.end()) {
      order.push_back(uuid);
    }
  }
  if (falls) {
    std::reverse(order.begin(), order.end());
  }
  return order;
}

void conversion::make_plan(const nlohmann::json &found) {
  const bool falls = found.at("order").get<int>() > 0;
  const std::vector<uint32> wanted = wanted_services();
  std::vector<uint32> met;
  for (const moment which : all_moments) {
    if (!selected(which)) {
      continue;
    }
    const auto rows = found.at("tables").at(static_cast<size_t>(which)).get<std::vector<uint32>>();
    std::vector<uint32> services = in_call_order(rows, falls);
    if (!wanted.empty()) {
      std::erase_if(services, [&](uint32 uuid) {
        return std::find(wanted.begin(), wanted.end(), uuid) == wanted.end();
      });
      met.insert(met.end(), services.begin(), services.end());
    }
    if (options_.whole_table && which != moment::gsync && !rows.empty()) {
      services = {SRVUUID_NONE};
    }
    for (const vdc_id_t vdc : switch_.state().vdcs) {
      for (const uint32 uuid : services) {
        if (which != moment::running_fs || vdc == 1) {
          plan_.requests.push_back({which, vdc, uuid});
        }
      }
    }
  }
  for (const uint32 uuid : wanted) {
    if (std::find(met.begin(), met.end(), uuid) == met.end()) {
      refuse("the service " + service_name(uuid) +
             " has no routine in the chosen moments; 'datamorph services' lists them");
    }
  }
}

// ---- The conversion itself ---------------------------------------------------------------------

void conversion::take_message(const nlohmann::json &message) {
  if (message.contains("closing")) {
    closing_ = message["closing"];
    return;
  }
  const bool start = message.contains("start");
  const size_t at = message.value(start ? "start" : "result", size_t(0));
  request_report &report = report_.requests.at(at);
  report.started = true;
  if (start) {
    const std::string where = std::string(moment_name(report.request.which)) + ", VDC " +
                              std::to_string(report.request.vdc) + ": " + report.request.service();
    if (jail::stderr_takes(std::chrono::seconds(1))) {
      output::message(where);
    }
    return;
  }
  report.status = message.at("status").get<syserr_t>();
  report.milliseconds = message.at("milliseconds").get<double>();
  report.take_tags_gone(message.at("tags_gone"));
}

// Says at each request that has no status why that is so.
void conversion::note_end(const jail::outcome &outcome) {
  const std::string text = outcome.how == jail::outcome::kind::silent
                               ? "no answer within " + counted(options_.timeout, "second")
                               : outcome.text();
  std::string where = "the library, outside of any service";
  for (request_report &report : report_.requests) {
    if (report.status) {
      continue;
    }
    report.trouble = report.started ? text : "not called";
    if (report.started) {
      where = report.request.service() + " (" + moment_name(report.request.which) + ", VDC " +
              std::to_string(report.request.vdc) + ")";
    }
  }
  if (!outcome.finished()) {
    report_.trouble = where + ": " + text;
  }
}

void conversion::convert_copy(const run_folder &folder) {
  next_ = switch_.make_next();
  const unique_fd journal = folder.create("journal.jsonl");
  limited_file trace(folder.create("trace.log"));
  step_log steps(folder, plan_.requests);
  library loaded;
  jail::request request;
  request.root = next_.get();
  request.prepare = [&] { loaded = load_library(common_.library); };
  request.body = [&](const jail::channel &channel) {
    run_conversion(channel, loaded, plan_, journal.get());
  };
  request.on_message = [&](const nlohmann::json &message) {
    take_message(message);
    steps.take(message);
  };
  request.on_trace = [&](std::string_view text) {
    trace.append(text);
    if (common_.verbose) {
      jail::show_trace(text);
    }
  };
  request.silence = std::chrono::seconds(options_.timeout);
  const jail::outcome outcome = jail::run(request);
  note_end(outcome);
  folder.keep_conversion_log(next_.get());
}

// Why the converted copy may not become the switch's state; empty when it may.
std::string conversion::verdict() const {
  if (!report_.trouble.empty()) {
    return report_.trouble;
  }
  if (closing_.value("unexpected", size_t(0)) > 0) {
    return first_failed_write(closing_);
  }
  const auto closed = closing_.value("close_status", SYSERR_FAILED);
  if (closed != SYSERR_SUCCESS) {
    return "a store could not be closed: " + status_text(closed);
  }
  const auto saved = closing_.value("tables_status", SYSERR_FAILED);
  if (saved != SYSERR_SUCCESS) {
    return "the running tag tables could not be kept in the store " +
           in_quotes(lab::running_tag_tables) + ": " + status_text(saved);
  }
  const size_t failed = report_.failed_requests();
  if (failed > 0 && !options_.accept_failures) {
    return counted(failed, "service") + " failed (--accept-failures keeps the result all the same)";
  }
  return "";
}

// "vrrp_lost" or "vrrp_waiting": how many records by their store.
nlohmann::json conversion::vrrp_records(const char *which) const {
  return closing_.is_object() ? closing_.value(which, nlohmann::json::object())
                              : nlohmann::json::object();
}

// What would be lost and may not be; empty when there is nothing.
std::string conversion::unwanted_losses() const {
  const nlohmann::json lost = vrrp_records("vrrp_lost");
  if (lost.empty() || options_.accept_losses) {
    return "";
  }
  return vrrp_records_text(lost) + " would be lost; " + vrrp_remedy(lost) +
         " (--accept-losses keeps the result all the same)";
}

void conversion::commit() {
  switch_state state = switch_.state();
  state.generation += 1;
  if (whole_change()) {
    state.release = plan_.to;
  }
  switch_.commit(std::move(next_), state);
  report_.converted = true;
  report_.release = state.release;
  report_.closing_line = options_.dir + ": converted from " + plan_.from + " to " + plan_.to;
  if (!whole_change()) {
    report_.closing_line +=
        "; only a part of the version change, so its release stays " + state.release;
  }
  if (report_.failed_requests() > 0) {
    report_.notes.push_back(counted(report_.failed_requests(), "service") +
                            " failed; accepted as asked");
  }
  const std::string lost = vrrp_records_text(vrrp_records("vrrp_lost"));
  if (!lost.empty()) {
    report_.notes.push_back(lost + " were lost; accepted as asked");
  }
  const std::string waiting = vrrp_records_text(vrrp_records("vrrp_waiting"));
  if (!waiting.empty()) {
    report_.notes.push_back(waiting + " wait for the other service: convert that one before 'lab "
                                      "reboot', which empties /tmp");
  }
}

void conversion::fail(const std::string &trouble) {
  report_.trouble = trouble;
  report_.closing_line =
      options_.dir + ": not converted, still at " + switch_.state().release + ": " + trouble;
}

void conversion::take_journal(const run_folder &folder) {
  const auto uris = [&](const char *name) {
    return closing_.is_object() ? closing_.value(name, std::set<std::string>())
                                : std::set<std::string>();
  };
  std::string journal;
  try {
    journal = folder.read("journal.jsonl", longest_journal);
  } catch (const failure &error) {
    report_.notes.push_back(std::string("the counts of records are missing: ") + error.what());
  }
  report_.take_journal(journal, closing_.is_object(), uris("stores_before"), uris("stores_after"));
  if (closing_.is_object()) {
    report_.take_tables(closing_.value("tables_changes", nlohmann::json::object()),
                        uris("stores_before"), uris("stores_after"));
  }
}

// A reader of the messages that stands still is waited for, but not when the program is to stop.
void conversion::say(const std::string &message) const {
  if (jail::stderr_takes(std::chrono::milliseconds(-1))) {
    output::message(in_quotes(options_.dir) + ": " + message);
  }
}

void conversion::print_report() const {
  if (common_.format == output::format::json) {
    output::json(report_.to_json());
  } else {
    report_.print_tables();
  }
}

// What the run writes down of itself when it begins.
run_facts conversion::facts() const {
  run_facts facts;
  facts.verb = "convert";
  facts.from = plan_.from;
  facts.to = plan_.to;
  facts.generation = switch_.state().generation;
  facts.moments.emplace();
  for (const moment which : all_moments) {
    if (selected(which)) {
      facts.moments->push_back(moment_name(which));
    }
  }
  facts.services.emplace();
  for (const uint32 uuid : wanted_services()) {
    facts.services->push_back(service_name(uuid));
  }
  return facts;
}

const char *conversion::result(int ended) const {
  if (report_.converted) {
    return run_result::done;
  }
  return ended == exit_refused ? run_result::refused : run_result::failed;
}

void conversion::finish(const run_folder &folder, run_record *record, int ended) {
  take_journal(folder);
  const size_t left_open = closing_.is_object() ? closing_.value("left_open", size_t(0)) : 0;
  if (left_open > 0) {
    report_.notes.push_back(counted(left_open, "store handle") +
                            " left open by routines, closed at the end");
  }
  folder.write_report(report_.to_json());
  record->finish(result(ended), report_.trouble);
  if (!report_.converted) {
    say("not converted: " + report_.trouble + "; the switch is as it was, still at " +
        report_.release);
  }
  for (const std::string &note : report_.notes) {
    say(note);
  }
  print_report();
  output::finish(); // what is lost is told by run(); here the message is to stand behind the report
  if (jail::stderr_takes(std::chrono::milliseconds(-1))) {
    output::message("run folder: " + options_.dir + "/runs/" + folder.number());
  }
}

// All that is refused, and the plan of what is done.
void conversion::prepare() {
  plan_.state = switch_.state();
  plan_.to = options_.to;
  plan_.from = options_.from.empty() ? switch_.state().release : options_.from;
  const nlohmann::json found = look();
  try {
    check_release(found.at("images"), plan_.to, "the release");
    check_release(found.at("images"), plan_.from, "the release to come from");
    make_plan(found);
    check_damage(found);
    report_.library = found.at("library").get<std::string>();
  } catch (const nlohmann::json::exception &) {
    refuse("the library's process sent a message that makes no sense");
  }
  switch_.check_exchange();
  switch_.check_room();
  report_.dir = options_.dir;
  report_.from = plan_.from;
  report_.to = plan_.to;
  report_.release = switch_.state().release;
  if (plan_.from != report_.release) {
    report_.notes.push_back("--from names " + plan_.from + ", the switch ran " + report_.release +
                            ": converting once more what was converted already can lose records");
  }
  for (const conversion_request &request : plan_.requests) {
    report_.requests.emplace_back().request = request;
  }
}

// Converts the copy and puts it in place, or notes why not. The exit status when it was refused or
// stopped by a signal, else 0.
int conversion::attempt(const run_folder &folder) {
  try {
    convert_copy(folder);
    stop_signal::check();
    const std::string trouble =
        output::reader_gone() ? "the reader of its output is gone" : verdict();
    const std::string losses = trouble.empty() ? unwanted_losses() : "";
    if (!losses.empty()) {
      fail(losses);
      return exit_refused;
    }
    if (trouble.empty()) {
      commit();
    } else {
      fail(trouble);
    }
  } catch (const failure &error) {
    fail(error.what());
    return error.status() > 128 ? error.status() : 0;
  } catch (const nlohmann::json::exception &) {
    fail("the library's process sent a message that makes no sense");
  }
  return 0;
}

int conversion::run() {
  prepare();
  const run_folder folder(switch_);
  report_.run = folder.number();
  run_record record(folder, facts());
  const int ended = attempt(folder);
  if (!report_.converted) {
    next_.reset();
    const std::string left = switch_.drop_next();
    if (!left.empty()) {
      report_.notes.push_back(left);
    }
  }
  finish(folder, &record, ended);
  if (ended != 0) {
    return ended;
  }
  if (report_.converted && !output::finish()) {
    say("not all of the output could be written; the switch IS converted, see " + options_.dir +
        "/runs/" + folder.number() + "/report.json");
    return exit_failed;
  }
  return report_.converted ? exit_done : exit_failed;
}

} // namespace

int convert(const common_options &common, const convert_options &options) {
  for (const std::string &name : options.services) {
    if (!service_number(name)) {
      throw failure(exit_usage,
                    "unknown service " + in_quotes(name) + "; services: " + service_names());
    }
  }
  const stop_signal::guard guard;
  try {
    return conversion(common, options).run();
  } catch (const failure &error) {
    const std::string message = error.what();
    const bool placed = message.starts_with(in_quotes(options.dir));
    throw failure(error.status(), placed ? message : in_quotes(options.dir) + ": " + message);
  }
}
