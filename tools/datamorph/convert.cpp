// convert: the version change of a lab switch, seen from outside. Everything that can be refused
// is refused first; then a copy of the state is converted and takes the state's place in one step.
#include "verbs.h"

#include "confirm.h"
#include "conversion.h"
#include "failure.h"
#include "jail.h"
#include "run_folder.h"
#include "run_record.h"
#include "run_steps.h"
#include "saved_plan.h"
#include "services.h"
#include "state_diff.h"
#include "stop_signal.h"
#include "switch_dir.h"
#include "text.h"

namespace {

class version_change {
public:
  version_change(const common_options &common, const convert_options &options)
      : common_(common), options_(options), switch_(options.dir, switch_dir::access::write),
        conversion_(common, options, switch_.state()) {}

  int run(const saved_plan *plan);

private:
  void check_plan(const std::string &digest) const;
  void prepare();
  void convert_copy(const run_folder &folder);
  int attempt(const run_folder &folder);
  std::string verdict();
  void commit();
  void fail(const std::string &trouble);
  run_facts facts() const;
  const char *result(int ended) const;
  void finish(const run_folder &folder, run_record *record, int ended);
  void take_journal();
  void say(const std::string &message) const;
  void print_report() const;

  const common_options &common_;
  const convert_options &options_;
  switch_dir switch_;
  unique_fd next_; // the copy that is converted
  unique_fd journal_;
  conversion conversion_;
  conversion_report &report_ = conversion_.report();
  const saved_plan *saved_ = nullptr; // what was rehearsed, when that is to happen
};

void version_change::check_plan(const std::string &digest) const {
  if (digest == saved_->before) {
    return;
  }
  const std::string place = in_quotes(options_.dir) + ": ";
  if (digest == saved_->after) {
    throw failure(exit_refused,
                  place + "the plan has been carried out: the switch is in the state "
                          "that it leads to",
                  "nothing is left to do");
  }
  throw failure(exit_refused, place + "the switch has changed since the plan was made",
                "rehearse again; 'datamorph history' may tell what was done");
}

// All that is refused, and the plan of what is done.
void version_change::prepare() {
  if (saved_ != nullptr) {
    check_plan(state_digest({options_.dir, switch_.current(), ""}));
  }
  conversion_.prepare(switch_.current());
  switch_.check_exchange();
  switch_.check_room();
}

void version_change::convert_copy(const run_folder &folder) {
  next_ = switch_.make_next();
  journal_ = folder.create("journal.jsonl");
  limited_file trace(folder.create("trace.log"));
  step_log steps(folder, conversion_.plan().requests);
  conversion_.run(
      next_.get(), journal_.get(), [&](std::string_view text) { trace.append(text); },
      [&](const nlohmann::json &message) { steps.take(message); });
  folder.keep_conversion_log(next_.get());
}

// Why the converted copy may not become the switch's state; empty when it may.
std::string version_change::verdict() {
  if (output::reader_gone()) {
    return "the reader of its output is gone";
  }
  std::string trouble = conversion_.verdict();
  if (!trouble.empty() || saved_ == nullptr) {
    return trouble;
  }
  conversion_.state_after().save(next_.get());
  const bool same = state_digest({options_.dir, next_.get(), ""}) == saved_->after;
  return same ? "" : "it did not reach the state that the plan tells of; rehearse again";
}

void version_change::commit() {
  const switch_state state = conversion_.state_after();
  switch_.commit(std::move(next_), state);
  report_.converted = true;
  report_.release = state.release;
  report_.closing_line = options_.dir + ": converted from " + conversion_.plan().from + " to " +
                         conversion_.plan().to +
                         (saved_ == nullptr ? "" : ", to the state that the plan tells of");
  if (!conversion_.whole_change()) {
    report_.closing_line +=
        "; only a part of the version change, so its release stays " + state.release;
  }
  conversion_.note_remainders();
}

void version_change::fail(const std::string &trouble) {
  report_.trouble = trouble;
  report_.closing_line =
      options_.dir + ": not converted, still at " + switch_.state().release + ": " + trouble;
}

void version_change::take_journal() {
  if (!journal_.is_open()) {
    return; // it ended before there was one: nothing was converted
  }
  try {
    conversion_.take_journal(journal_.get());
  } catch (const failure &error) {
    report_.notes.push_back(std::string("the counts of records are missing: ") + error.what());
  }
}

// A reader of the messages that stands still is waited for, but not when the program is to stop.
void version_change::say(const std::string &message) const {
  if (jail::stderr_takes(std::chrono::milliseconds(-1))) {
    output::message(in_quotes(options_.dir) + ": " + message);
  }
}

void version_change::print_report() const {
  if (common_.format == output::format::json) {
    output::json(report_.to_json());
  } else {
    report_.print_tables();
  }
}

// What the run writes down of itself when it begins.
run_facts version_change::facts() const {
  run_facts facts;
  facts.verb = "convert";
  facts.from = conversion_.plan().from;
  facts.to = conversion_.plan().to;
  facts.generation = switch_.state().generation;
  facts.moments.emplace();
  for (const moment which : all_moments) {
    if (conversion_.selected(which)) {
      facts.moments->push_back(moment_name(which));
    }
  }
  facts.services.emplace();
  for (const std::string &name : options_.services) {
    facts.services->push_back(service_name(*service_number(name)));
  }
  return facts;
}

const char *version_change::result(int ended) const {
  if (report_.converted) {
    return run_result::done;
  }
  return ended == exit_refused ? run_result::refused : run_result::failed;
}

void version_change::finish(const run_folder &folder, run_record *record, int ended) {
  take_journal();
  folder.write_report(report_.to_json());
  record->finish(result(ended), report_.trouble);
  if (!report_.converted) {
    say("not converted: " + report_.trouble + "; the switch is as it was, still at " +
        report_.release);
    output::explain(in_quotes(options_.dir) + ": not converted: " + report_.trouble +
                        "; the switch is as it was, still at " + report_.release,
                    options_.dir + "/runs/" + folder.number() + " tells more");
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

// Converts the copy and puts it in place, or notes why not. The exit status when it was refused or
// stopped by a signal, else 0.
int version_change::attempt(const run_folder &folder) {
  try {
    convert_copy(folder);
    stop_signal::check();
    const std::string trouble = verdict();
    const std::string losses = trouble.empty() ? conversion_.unwanted_losses() : "";
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
    const bool no_copy = error.status() == exit_refused && !next_.is_open();
    return no_copy || error.status() > 128 ? error.status() : 0;
  } catch (const nlohmann::json::exception &) {
    fail("the library's process sent a message that makes no sense");
  }
  return 0;
}

int version_change::run(const saved_plan *plan) {
  saved_ = plan;
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

int convert(const common_options &common, const convert_options &wanted) {
  convert_options options = wanted;
  saved_plan plan;
  if (!options.plan.empty()) {
    plan = saved_plan::read(options.plan);
    plan.fill(&options);
  }
  check_service_names(options);
  if (options.accept_losses) {
    confirm(in_quotes(options.dir) + ": convert, although records of VRRP may be lost?",
            common.yes);
  }
  const stop_signal::guard guard;
  try {
    return version_change(common, options).run(options.plan.empty() ? nullptr : &plan);
  } catch (const failure &error) {
    throw error.placed(in_quotes(options.dir));
  }
}
