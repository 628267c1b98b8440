// rehearse: a version change on a copy, and all that it does, change by change.
#include "verbs.h"

#include <memory>

#include "change_tables.h"
#include "failure.h"
#include "losses.h"
#include "progress.h"
#include "rehearsal.h"
#include "rehearsal_files.h"
#include "release_matrix.h"
#include "release_sides.h"
#include "saved_plan.h"
#include "state_diff.h"
#include "statuses.h"
#include "stop_signal.h"
#include "switch_dir.h"
#include "text.h"

namespace {

constexpr size_t shown_losses = 20;             // in a table
constexpr size_t most_lines = 999;              // of a step's trace, in a document
constexpr size_t kept_values = size_t(8) << 20; // of two ways' differences

using what = state_change::what;

// ---- Counting ----------------------------------------------------------------------------------

struct change_counts {
  uint64_t things[3] = {}; // added, removed, changed
  uint64_t records[3] = {};
  uint64_t undecoded = 0;
  uint64_t misfits = 0;
  uint64_t unchanged_misfits = 0;
  uint64_t unreadable = 0;

  void take(const state_change &change) {
    if (change.how == what::unreadable) {
      ++unreadable;
      return;
    }
    ++(change.key ? records : things)[static_cast<size_t>(change.how)];
    undecoded += change.undecoded() ? 1 : 0;
    misfits += change.misfit() ? 1 : 0;
  }
  nlohmann::json to_json() const {
    const auto counts = [](const uint64_t(&of)[3]) {
      return nlohmann::json({{"added", of[0]}, {"removed", of[1]}, {"changed", of[2]}});
    };
    return {{"things", counts(things)},
            {"records", counts(records)},
            {"undecoded", undecoded},
            {"misfits", misfits},
            {"unchanged_misfits", unchanged_misfits},
            {"unreadable", unreadable}};
  }
  std::string to_text() const {
    const auto counts = [](const uint64_t(&of)[3]) {
      return std::to_string(of[0]) + " added, " + std::to_string(of[1]) + " removed, " +
             std::to_string(of[2]) + " changed";
    };
    return "stores, files and the like: " + counts(things) + "; records: " + counts(records) +
           ", " + std::to_string(undecoded) + " undecoded; " + std::to_string(unreadable) +
           " unreadable";
  }
};

// ---- Two rehearsed states side by side ---------------------------------------------------------

// What a way there and back, or over another release, left different.
struct comparison {
  const char *name = ""; // in documents
  std::string title;
  const char *way = "";              // in messages
  std::string release;               // that the other way goes back to, or over
  std::string trouble;               // why there is nothing to compare
  int status = exit_done;            // that convert would have then
  std::vector<state_change> changes; // the first ones
  size_t kept = 0;                   // bytes of their values, in hex
  uint64_t total = 0;

  static size_t size_of(const std::optional<side_value> &side) {
    return side ? side->value.size() : 0;
  }

  void take(const state_change &change) {
    ++total;
    kept += size_of(change.a) + size_of(change.b);
    if (changes.size() < most_lines && kept <= kept_values) {
      changes.push_back(change);
    }
  }
  nlohmann::json to_json() const {
    nlohmann::json listed = nlohmann::json::array();
    for (const state_change &change : changes) {
      listed.push_back(change.to_json());
    }
    return {{"title", title},
            {"release", release},
            {"trouble", trouble},
            {"total", total},
            {"changes", listed}};
  }
  void print() const {
    output::text("\n" + title + ": " + (trouble.empty() ? counted(total, "difference") : trouble) +
                 "\n");
    change_tables tables(false);
    for (const state_change &change : changes) {
      tables.take(change);
    }
    tables.end();
    if (total > changes.size()) {
      output::text(std::to_string(total - changes.size()) + " more\n");
    }
  }
};

// ---- The verb ----------------------------------------------------------------------------------

class rehearse_run {
public:
  rehearse_run(const common_options &common, const rehearse_options &options)
      : common_(common), options_(options), switch_(options.work.dir, switch_dir::access::look),
        scratch_(options.work.dir) {}

  int run();

private:
  bool as_json() const { return common_.format == output::format::json; }
  std::unique_ptr<rehearsal> rehearse(const char *name, int root, const switch_state &state,
                                      const std::string &to, const std::string &from) const;
  struct start_of_way {
    int root;
    const switch_state &state;
    std::string release;
  };
  std::unique_ptr<rehearsal> rehearse_further(comparison *other, const char *name,
                                              const start_of_way &start,
                                              const std::string &to) const;
  void print_head(const rehearsal &main);
  void give(const nlohmann::json &change);
  void take(const rehearsal &main, const state_change &change);
  state_side side(const std::string &label, int root, const std::string &release) const;
  void compare(const rehearsal &main);
  void compare_further(comparison *other, const state_side &a, const state_side &b);
  void there_and_back(const rehearsal &main);
  void over_another(const rehearsal &main);
  void print_end(const rehearsal &main);
  void print_losses() const;
  nlohmann::json losses_json() const;
  nlohmann::json tail_json(const rehearsal &main) const;
  void write_page(const rehearsal &main);
  void every_pair();
  void check_options();
  void save(const rehearsal &main) const;
  int complain(int status, const std::string &what) const;
  int complain_of_others() const;

  const common_options &common_;
  const rehearse_options &options_;
  switch_dir switch_;
  scratch_folder scratch_;
  unique_fd before_; // a copy of the state: nothing else of the switch is opened
  change_tables tables_{true};
  std::unique_ptr<output::document> document_;   // with --format json
  std::unique_ptr<rehearsal_files> files_;       // with --report
  std::unique_ptr<tree::placed_file> plan_file_; // with --save
  nlohmann::json matrix_;
  std::unique_ptr<release_sides> sides_;
  uint64_t by_length_ = 0; // values whose layout their length chose
  change_counts counts_;
  std::unique_ptr<loss_report> losses_;
  std::vector<comparison> others_;
};

std::unique_ptr<rehearsal> rehearse_run::rehearse(const char *name, int root,
                                                  const switch_state &state, const std::string &to,
                                                  const std::string &from) const {
  convert_options work = options_.work;
  work.to = to;
  work.from = from;
  return std::make_unique<rehearsal>(common_, work, scratch_, name, root, state);
}

// ---- Steps -------------------------------------------------------------------------------------

// Of a step, the first lines, and how many there are more.
nlohmann::json trace_json(const rehearsal &main, size_t step) {
  size_t more = 0;
  nlohmann::json trace = nlohmann::json::array();
  for (const std::string &line : main.trace_of(step, most_lines, &more)) {
    trace.push_back(to_text(line));
  }
  if (more > 0) {
    trace.push_back("[" + std::to_string(more) + " more lines]");
  }
  return trace;
}

nlohmann::json step_json(const rehearsal &main, size_t step) {
  const request_report &report = main.done().report().requests[step];
  return {
      {"moment", moment_name(report.request.which)},
      {"vdc", report.request.vdc},
      {"service", report.request.service()},
      {"routines", main.authors().routines_of(step)},
      {"status", report.status ? nlohmann::json(status_number(*report.status)) : nlohmann::json()},
      {"status_text", report.status ? syserr2str(*report.status) : ""},
      {"trouble", report.trouble},
      {"milliseconds", report.milliseconds},
      {"records",
       {{"added", report.records.added},
        {"changed", report.records.changed},
        {"removed", report.records.removed}}},
      {"trace", trace_json(main, step)}};
}

nlohmann::json steps_json(const rehearsal &main) {
  nlohmann::json steps = nlohmann::json::array();
  for (size_t step = 0; step < main.done().report().requests.size(); ++step) {
    steps.push_back(step_json(main, step));
  }
  return steps;
}

bool is_worth_a_row(const rehearsal &main, size_t step) {
  const request_report &report = main.done().report().requests[step];
  return report.status.value_or(SYSERR_FAILED) != SYSERR_SUCCESS || main.authors().wrote(step);
}

void print_steps(const rehearsal &main) {
  using output::align;
  std::vector<std::vector<output::cell>> rows;
  const std::vector<request_report> &requests = main.done().report().requests;
  for (size_t step = 0; step < requests.size(); ++step) {
    const request_report &report = requests[step];
    if (!is_worth_a_row(main, step)) {
      continue;
    }
    std::string routines;
    for (const std::string &routine : main.authors().routines_of(step)) {
      append_word(routines, routine);
    }
    const bool bad = report.status.value_or(SYSERR_FAILED) != SYSERR_SUCCESS;
    const std::string text = report.status ? syserr2str(*report.status) : report.trouble;
    rows.push_back(
        {"#" + std::to_string(step), moment_name(report.request.which), report.request.vdc,
         report.request.service(), bad ? output::cell::bad(text) : output::cell(text),
         static_cast<unsigned long>(report.records.added),
         static_cast<unsigned long>(report.records.changed),
         static_cast<unsigned long>(report.records.removed), routines.empty() ? "-" : routines});
  }
  output::table({{"STEP"},
                 {"MOMENT"},
                 {"VDC", align::right},
                 {"SERVICE"},
                 {"STATUS"},
                 {"ADDED", align::right},
                 {"CHANGED", align::right},
                 {"REMOVED", align::right},
                 {"ROUTINE"}},
                rows);
  const size_t others = requests.size() - rows.size();
  if (others > 0) {
    output::text(counted(others, "step") + " of " + std::to_string(requests.size()) +
                 " wrote nothing\n");
  }
}

std::string author_text(const change_author &author) {
  std::string text;
  for (const auto &[step, routine] : author.earlier) {
    append_word(text, "#" + std::to_string(step));
  }
  append_word(text, author.step ? "#" + std::to_string(*author.step) : "-");
  return text;
}

nlohmann::json change_json(const rehearsal &main, const state_change &change,
                           const change_author &author) {
  nlohmann::json document = change.to_json();
  document["step"] = nullptr;
  if (author.step) {
    const conversion_request &request = main.done().plan().requests[*author.step];
    document["step"] = *author.step;
    document["earlier_steps"] = nlohmann::json::array();
    document["earlier_routines"] = nlohmann::json::array();
    for (const auto &[step, routine] : author.earlier) {
      document["earlier_steps"].push_back(step);
      document["earlier_routines"].push_back(routine);
    }
    document["moment"] = moment_name(request.which);
    document["vdc"] = request.vdc;
    document["service"] = request.service();
  }
  if (!author.routine.empty()) {
    document["routine"] = author.routine;
  }
  return document;
}

// ---- Output ------------------------------------------------------------------------------------

nlohmann::json head_json(const rehearsal &main, const std::string &dir) {
  const conversion_plan &plan = main.done().plan();
  return {{"switch", dir},
          {"from", plan.from},
          {"to", plan.to},
          {"library", main.done().report().library}};
}

void rehearse_run::print_head(const rehearsal &main) {
  const conversion_plan &plan = main.done().plan();
  if (!options_.report.empty()) {
    nlohmann::json head = head_json(main, options_.work.dir);
    head["time"] = utc_now();
    head["version"] = DATAMORPH_VERSION;
    files_ = std::make_unique<rehearsal_files>(options_.report, head);
  }
  if (as_json()) {
    nlohmann::json head = head_json(main, options_.work.dir);
    head["steps"] = steps_json(main);
    document_ = std::make_unique<output::document>(head, "changes");
    return;
  }
  output::text(options_.work.dir + ": from " + plan.from + " to " + plan.to +
               ", rehearsed on a copy; the switch is as it was\n\n");
  print_steps(main);
}

void rehearse_run::print_end(const rehearsal &main) {
  if (files_ != nullptr) {
    write_page(main);
  }
  if (document_ != nullptr) {
    document_->end(tail_json(main));
    return;
  }
  tables_.end();
  print_losses();
  for (const comparison &other : others_) {
    other.print();
  }
  output::text("\n" + counts_.to_text() + "\n" +
               misfits_text(counts_.misfits, counts_.unchanged_misfits) +
               losses_->balance().to_text() + "\n");
}

nlohmann::json rehearse_run::losses_json() const {
  nlohmann::json records = nlohmann::json::array();
  for (const lost_record &lost : losses_->records()) {
    records.push_back(lost.to_json());
  }
  nlohmann::json fields = nlohmann::json::array();
  for (const lost_field &lost : losses_->fields()) {
    fields.push_back(lost.to_json());
  }
  return {{"records", records},
          {"records_total", losses_->records_total()},
          {"fields", fields},
          {"fields_total", losses_->fields_total()}};
}

// What is known at the end, for the document and the page.
nlohmann::json rehearse_run::tail_json(const rehearsal &main) const {
  nlohmann::json summary = counts_.to_json();
  summary.update(losses_->balance().to_json());
  nlohmann::json tail = {{"losses", losses_json()},
                         {"notes", main.done().report().notes},
                         {"trouble", main.trouble()},
                         {"summary", summary}};
  for (const comparison &other : others_) {
    tail[other.name] = other.to_json();
  }
  if (!matrix_.is_null()) {
    tail["matrix"] = matrix_;
  }
  return tail;
}

void rehearse_run::write_page(const rehearsal &main) {
  nlohmann::json tail = tail_json(main);
  tail["steps"] = steps_json(main);
  for (const char *member : {"round_trip", "via", "matrix"}) {
    tail.emplace(member, nullptr);
  }
  tail["converted"] = main.status() == 0;
  tail["result"] = main.status() == 0 ? "It would be converted from " + main.done().plan().from +
                                            " to " + main.done().plan().to
                                      : "It would not be converted: " + main.trouble();
  files_->finish(tail);
}

void rehearse_run::print_losses() const {
  std::vector<std::vector<output::cell>> rows;
  const auto add = [&](const std::string &store, const std::string &key,
                       const std::optional<size_t> &step, const std::string &text,
                       const output::cell &why) {
    if (rows.size() < shown_losses) {
      rows.push_back({to_text(store), key, author_text({step, "", {}}), to_text(text), why});
    }
  };
  for (const bool known : {false, true}) {
    for (const lost_record &lost : losses_->records()) {
      if (lost.why.empty() != known) {
        add(lost.store, lost.key, lost.step, lost.text,
            known ? output::cell(lost.why) : output::cell::bad("UNACCOUNTED"));
      }
    }
  }
  for (const lost_field &lost : losses_->fields()) {
    add(lost.store, lost.key, lost.step, lost.text, lost.why);
  }
  const uint64_t total = losses_->records_total() + losses_->fields_total();
  output::text("\nLost: " + counted(losses_->records_total(), "record") + ", " +
               counted(losses_->fields_total(), "field") + "\n");
  if (total > 0) {
    output::table({{"STORE"}, {"KEY"}, {"BY"}, {"WHAT"}, {"WHY"}}, rows);
  }
  if (total > rows.size()) {
    output::text(std::to_string(total - rows.size()) +
                 " more; --format json lists the first 1000, and all among its "
                 "changes\n");
  }
}

void rehearse_run::give(const nlohmann::json &change) {
  if (files_ != nullptr) {
    files_->change(change);
  }
  if (document_ != nullptr) {
    document_->item(change);
  }
}

// ---- What is compared --------------------------------------------------------------------------

void rehearse_run::take(const rehearsal &main, const state_change &change) {
  const change_author author = main.authors().of(change);
  counts_.take(change);
  losses_->take(change, author);
  if (document_ != nullptr || files_ != nullptr) {
    give(change_json(main, change, author));
  }
  if (document_ == nullptr) {
    tables_.take(change, author_text(author));
  }
}

// A whole state at this release, with the layouts that its records have there.
state_side rehearse_run::side(const std::string &label, int root,
                              const std::string &release) const {
  return {label, root, "", sides_->of(release)};
}

void rehearse_run::compare(const rehearsal &main) {
  sides_ = std::make_unique<release_sides>(common_.library, before_.get(),
                                           std::vector<std::string>{switch_.state().release,
                                                                    main.done().plan().from,
                                                                    main.done().plan().to},
                                           options_.work.timeout);
  const state_side before = side(options_.work.dir, before_.get(), switch_.state().release);
  const state_side after = side("the copy", main.root(), main.done().plan().to);
  losses_ = std::make_unique<loss_report>(
      switch_.state(), main.done().stores("stores_before"), main.done().stores("stores_after"),
      [&](const state_change &change) { return main.authors().of(change); },
      options_.work.accept_losses);
  losses_->begin(before, after);
  const record_totals totals =
      diff_states(before, after, [&](const state_change &change) { take(main, change); });
  by_length_ += totals.by_length;
  counts_.unchanged_misfits = totals.unchanged_misfits;
  losses_->end(before, after, totals);
}

// Its steps stand nowhere in the output.
std::string way_trouble(const rehearsal &made) {
  std::string services;
  for (const request_report &report : made.done().report().requests) {
    if (report.status && *report.status != SYSERR_SUCCESS) {
      append_word(services, report.request.text() + " gave " + status_text(*report.status), ", ");
    }
  }
  return made.trouble() + (services.empty() ? "" : ": " + services);
}

// Another change of release; none, and the reason in *other, when that does not go well.
std::unique_ptr<rehearsal> rehearse_run::rehearse_further(comparison *other, const char *name,
                                                          const start_of_way &start,
                                                          const std::string &to) const {
  const std::string legs = "from " + start.release + " to " + to + ": ";
  try {
    std::unique_ptr<rehearsal> made = rehearse(name, start.root, start.state, to, start.release);
    if (made->status() == exit_done) {
      return made;
    }
    other->status = made->status();
    other->trouble = legs + way_trouble(*made);
  } catch (const no_room &) {
    throw;
  } catch (const failure &error) {
    if (error.status() != exit_refused) {
      throw;
    }
    other->status = error.status();
    other->trouble = legs + error.what();
  }
  return nullptr;
}

void rehearse_run::compare_further(comparison *other, const state_side &a, const state_side &b) {
  by_length_ +=
      diff_states(a, b, [&](const state_change &change) { other->take(change); }).by_length;
}

void rehearse_run::there_and_back(const rehearsal &main) {
  const conversion_plan &plan = main.done().plan();
  comparison other;
  other.name = "round_trip";
  other.way = "back";
  other.release = plan.from;
  other.title = "There and back to " + other.release;
  const std::unique_ptr<rehearsal> back =
      rehearse_further(&other, "back", {main.root(), main.state(), plan.to}, plan.from);
  if (back != nullptr) {
    compare_further(&other, side(options_.work.dir, before_.get(), switch_.state().release),
                    side("the copy", back->root(), back->done().plan().to));
  }
  others_.push_back(std::move(other));
}

void rehearse_run::over_another(const rehearsal &main) {
  const conversion_plan &plan = main.done().plan();
  comparison other;
  other.name = "via";
  other.way = "over another release";
  other.release = options_.via;
  other.title = "Over " + other.release + " instead";
  const std::unique_ptr<rehearsal> first =
      rehearse_further(&other, "via", {before_.get(), switch_.state(), plan.from}, options_.via);
  const std::unique_ptr<rehearsal> second =
      first == nullptr ? nullptr
                       : rehearse_further(&other, "via-to",
                                          {first->root(), first->state(), options_.via}, plan.to);
  if (second != nullptr) {
    compare_further(&other, side("the copy", main.root(), plan.to),
                    side("the other copy", second->root(), second->done().plan().to));
  }
  others_.push_back(std::move(other));
}

void rehearse_run::save(const rehearsal &main) const {
  saved_plan plan;
  plan.options = options_.work;
  plan.options.from = main.done().plan().from;
  plan.before = state_digest({options_.work.dir, before_.get(), ""});
  plan.after = state_digest({"the copy", main.root(), ""});
  plan.write(plan_file_.get());
  output::message("plan: " + options_.save + "; to carry it out: datamorph convert " +
                  shell_word(options_.work.dir) + " --plan " + shell_word(options_.save));
}

void rehearse_run::every_pair() {
  const std::vector<std::string> releases = image_releases({options_.work.dir, before_.get(), ""});
  matrix_ = {{"releases", releases}, {"cells", nlohmann::json::array()}};
  progress shown;
  shown.begin("rehearsing", releases.size() * (releases.size() - 1), "changes of release");
  rehearse_pairs({common_, options_.work, scratch_, before_.get(), switch_.state()}, releases,
                 [&](const matrix_cell &cell) {
                   matrix_["cells"].push_back(cell.to_json());
                   shown.advance();
                 });
}

// What would come to light after the work else.
void rehearse_run::check_options() {
  const std::string &from =
      options_.work.from.empty() ? switch_.state().release : options_.work.from;
  if (!options_.via.empty() && (options_.via == options_.work.to || options_.via == from)) {
    throw failure(exit_usage, "--via is one of the two releases", "name another one between them");
  }
  if (!options_.via.empty()) {
    convert_options over = options_.work;
    over.to = options_.via;
    conversion(common_, over, switch_.state()).prepare(before_.get());
  }
  for (const std::string &file : {options_.save, options_.report}) {
    if (!file.empty() && tree::lies_in(file, options_.work.dir)) {
      throw failure(exit_usage,
                    in_quotes(file) + " lies in the switch, of which nothing is written",
                    "name a place beside it");
    }
  }
  if (!options_.report.empty()) {
    rehearsal_files::check(options_.report, options_.save);
  }
  if (!options_.save.empty()) {
    plan_file_ = std::make_unique<tree::placed_file>(options_.save);
  }
}

int rehearse_run::complain(int status, const std::string &what) const {
  const std::string message = in_quotes(options_.work.dir) + ": " + what;
  output::message(message);
  output::explain(message);
  return status;
}

// The exit status when one of the ways that were asked for fails.
int rehearse_run::complain_of_others() const {
  int status = exit_done;
  for (const comparison &other : others_) {
    if (other.status != exit_done) {
      status =
          complain(other.status, std::string("the way ") + other.way + " fails: " + other.trouble);
    }
  }
  return status;
}

int rehearse_run::run() {
  if (!switch_.state_trouble().empty()) {
    throw failure(exit_refused, switch_.state_trouble(), switch_.state_remedy());
  }
  switch_.tell_unfinished();
  before_ = scratch_.copy(switch_.current(), "before");
  check_options();
  const std::unique_ptr<rehearsal> main =
      rehearse("rehearsal", before_.get(), switch_.state(), options_.work.to, options_.work.from);
  print_head(*main);
  compare(*main);
  const bool good = main->status() == 0;
  if (options_.round_trip && good) {
    there_and_back(*main);
  }
  if (!options_.via.empty() && good) {
    over_another(*main);
  }
  if (options_.matrix) {
    every_pair();
  }
  print_end(*main);
  if (files_ != nullptr) {
    output::message("report: " + options_.report + ", all changes: " + files_->lines_path());
  }
  if (by_length_ > 0) {
    sides_->explain_missing();
  }
  for (const std::string &note : main->done().report().notes) {
    output::message(in_quotes(options_.work.dir) + ": " + note);
  }
  if (!good) {
    return complain(main->status(), "it would not be converted: " + main->trouble());
  }
  if (counts_.unreadable > 0) {
    return complain(exit_failed, counted(counts_.unreadable, "thing") + " could not be read");
  }
  if (losses_->balance().unaccounted() > 0) {
    return complain(exit_failed, counted(losses_->balance().unaccounted(), "record") +
                                     " would be lost for no known reason");
  }
  const int of_others = complain_of_others();
  if (of_others != exit_done) {
    return of_others;
  }
  if (!options_.save.empty()) {
    save(*main);
  } else if (options_.work.is_whole()) {
    output::message("nothing was converted; to do it: datamorph convert " +
                    shell_word(options_.work.dir) + " --to " + shell_word(options_.work.to) +
                    "; --save FILE makes a plan first");
  }
  return exit_done;
}

} // namespace

int rehearse(const common_options &common, const rehearse_options &options) {
  check_service_names(options.work);
  const stop_signal::guard guard;
  try {
    return rehearse_run(common, options).run();
  } catch (const failure &error) {
    throw error.placed(in_quotes(options.work.dir));
  }
}
