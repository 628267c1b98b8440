#include "conversion.h"

#include <algorithm>
#include <chrono>

#include "failure.h"
#include "jail.h"
#include "journal_lines.h"
#include "lab/lab.h"
#include "run_folder.h"
#include "services.h"
#include "statuses.h"
#include "text.h"
#include "vrrp_hand_over.h"

namespace {

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

} // namespace

conversion::conversion(const common_options &common, const convert_options &options,
                       const switch_state &state)
    : common_(common), options_(options) {
  plan_.state = state;
  report_.dir = options.dir;
  report_.release = state.release;
}

// ---- What is refused ---------------------------------------------------------------------------

[[noreturn]] void conversion::refuse(const std::string &message, const std::string &next) const {
  throw failure(exit_refused, in_quotes(options_.dir) + ": " + message, next);
}

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

nlohmann::json conversion::look(int current) {
  nlohmann::json found;
  library loaded;
  jail::request request;
  request.root = current;
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
               " while the switch was examined",
           "raise --timeout");
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
    refuse("the version of the image " + in_quotes(release) + " cannot be read",
           "put the release's text into images/" + release + "/version");
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
    refuse(what, "remove it with 'datamorph store delete --all' and bring it back with "
                 "'datamorph store import'");
  }
  const std::string remove = "datamorph store delete " + options_.dir + " " + uri + " ";
  const std::string reboot =
      ", 'datamorph lab reboot' makes it anew from the saved tag tables, but empties /tmp and the "
      "other volatile stores too";
  if (!damaged.contains("key")) {
    refuse(what, "'" + remove + "--all' removes it" + reboot);
  }
  const std::string key = damaged["key"].get<std::string>();
  refuse(what + ": the record with the key '" + key + "': " + damaged.at("text").get<std::string>(),
         "'" + remove + (key.empty() ? "\"\"" : key) + "' removes that one" + reboot);
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
    for (const vdc_id_t vdc : plan_.state.vdcs) {
      for (const uint32 uuid : services) {
        if (which != moment::running_fs || vdc == 1) {
          plan_.requests.push_back({which, vdc, uuid});
        }
      }
    }
  }
  for (const uint32 uuid : wanted) {
    if (std::find(met.begin(), met.end(), uuid) == met.end()) {
      refuse("the service " + service_name(uuid) + " has no routine in the chosen moments",
             "'datamorph services' lists them");
    }
  }
}

void conversion::prepare(int current) {
  plan_.to = options_.to;
  plan_.from = options_.from.empty() ? plan_.state.release : options_.from;
  const nlohmann::json found = look(current);
  try {
    check_release(found.at("images"), plan_.to, "the release");
    check_release(found.at("images"), plan_.from, "the release to come from");
    make_plan(found);
    check_damage(found);
    report_.library = found.at("library").get<std::string>();
  } catch (const nlohmann::json::exception &) {
    refuse("the library's process sent a message that makes no sense");
  }
  report_.from = plan_.from;
  report_.to = plan_.to;
  if (plan_.from != report_.release) {
    report_.notes.push_back("--from names " + plan_.from + ", the switch ran " + report_.release +
                            ": converting once more what was converted already can lose records");
  }
  for (const conversion_request &request : plan_.requests) {
    report_.requests.emplace_back().request = request;
  }
  spans_.resize(plan_.requests.size());
}

// ---- The conversion itself ---------------------------------------------------------------------

void conversion::take_message(const nlohmann::json &message) {
  if (message.contains("closing")) {
    closing_ = message["closing"];
    progress_.end();
    return;
  }
  const bool start = message.contains("start");
  const size_t at = message.value(start ? "start" : "result", size_t(0));
  request_report &report = report_.requests.at(at);
  (start ? spans_.at(at).from : spans_.at(at).to) = traced_;
  report.started = true;
  if (start) {
    if (at == 0) {
      progress_.begin(quiet_ ? "rehearsing" : "converting", report_.requests.size(), "services");
    }
    const std::string where = std::string(moment_name(report.request.which)) + ", VDC " +
                              std::to_string(report.request.vdc) + ": " + report.request.service();
    if (!quiet_ && jail::stderr_takes(std::chrono::seconds(1))) {
      output::message(where);
    }
    return;
  }
  report.status = message.at("status").get<syserr_t>();
  report.milliseconds = message.at("milliseconds").get<double>();
  report.take_tags_gone(message.at("tags_gone"));
  progress_.advance();
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
      where = report.request.text();
    }
  }
  if (!outcome.finished()) {
    report_.trouble = where + ": " + text;
  }
}

void conversion::run(int copy, int journal, const std::function<void(std::string_view)> &trace,
                     const std::function<void(const nlohmann::json &)> &also) {
  library loaded;
  jail::request request;
  request.root = copy;
  request.prepare = [&] { loaded = load_library(common_.library); };
  request.body = [&](const jail::channel &channel) {
    run_conversion(channel, loaded, plan_, journal);
  };
  request.on_message = [&](const nlohmann::json &message) {
    take_message(message);
    also(message);
  };
  request.on_trace = [&](std::string_view text) {
    traced_ += text.size();
    trace(text);
    if (common_.verbose) {
      jail::show_trace(text);
    }
  };
  request.silence = std::chrono::seconds(options_.timeout);
  note_end(jail::run(request));
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

bool conversion::met_full_disk() const {
  const auto is_full = [](const nlohmann::json &line, const char *name) {
    return line.is_object() && line.value(name, SYSERR_SUCCESS) == SYSERR_PSS_NO_ROOM;
  };
  const std::string first =
      closing_.is_object() ? closing_.value("first_unexpected", "") : std::string();
  return is_full(closing_, "close_status") || is_full(closing_, "tables_status") ||
         is_full(nlohmann::json::parse(first, nullptr, false), "status") ||
         std::any_of(report_.requests.begin(), report_.requests.end(),
                     [](const request_report &one) { return one.status == SYSERR_PSS_NO_ROOM; });
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

switch_state conversion::state_after() const {
  switch_state state = plan_.state;
  state.generation += 1;
  if (whole_change()) {
    state.release = plan_.to;
  }
  return state;
}

std::set<std::string> conversion::stores(const char *when) const {
  return closing_.is_object() ? closing_.value(when, std::set<std::string>())
                              : std::set<std::string>();
}

void conversion::take_journal(int journal, const line_taker &also) {
  const std::set<std::string> before = stores("stores_before");
  const std::set<std::string> after = stores("stores_after");
  const uint64_t damaged =
      for_each_journal_line(journal, [&](uint64_t number, const nlohmann::json &line) {
        report_.take_line(line);
        also(number, line);
      });
  if (damaged > 0) {
    report_.notes.push_back(counted(damaged, "damaged line") +
                            " in the journal: nobody knows what they told");
  }
  report_.end_journal(closing_.is_object(), before, after);
  if (closing_.is_object()) {
    report_.take_tables(closing_.value("tables_changes", nlohmann::json::object()), before, after);
  }
  const size_t left_open = closing_.is_object() ? closing_.value("left_open", size_t(0)) : 0;
  if (left_open > 0) {
    report_.notes.push_back(counted(left_open, "store handle") +
                            " left open by routines, closed at the end");
  }
}

void conversion::note_remainders() {
  if (report_.failed_requests() > 0) {
    report_.notes.push_back(counted(report_.failed_requests(), "service") +
                            " failed; accepted as asked");
  }
  const std::string lost = vrrp_records_text(vrrp_records("vrrp_lost"));
  if (!lost.empty()) {
    report_.notes.push_back("lost, and accepted as asked: " + lost);
  }
  const std::string waiting = vrrp_records_text(vrrp_records("vrrp_waiting"));
  if (!waiting.empty()) {
    report_.notes.push_back(waiting + " wait for the other service: convert that one before 'lab "
                                      "reboot', which empties /tmp");
  }
}

void check_service_names(const convert_options &options) {
  for (const std::string &name : options.services) {
    if (!service_number(name)) {
      throw failure(exit_usage, "unknown service " + in_quotes(name),
                    "services: " + service_names());
    }
  }
}
