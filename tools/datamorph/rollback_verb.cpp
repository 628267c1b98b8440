// rollback: current/ and previous/ change places in one step, so nothing is copied and nothing
// lost.
#include "verbs.h"

#include "confirm.h"
#include "failure.h"
#include "output.h"
#include "run_folder.h"
#include "run_record.h"
#include "stop_signal.h"
#include "switch_dir.h"
#include "text.h"

namespace {

std::string releases(const switch_state &from, const switch_state &to) {
  return from.release == to.release ? "at " + to.release + " as before"
                                    : "from " + from.release + " to " + to.release;
}

// Asks while the switch is locked: what was asked about is what is put back.
void ask(const std::string &dir, const std::string &what, bool yes) {
  if (!yes && !can_ask()) {
    throw failure(exit_refused, "not rolled back: there is no terminal to ask on",
                  "'datamorph rollback " + shell_word(dir) + " --yes' goes back " + what);
  }
  confirm(in_quotes(dir) + ": roll back, " + what + "?", yes);
}

// Puts previous/ in place; the number of the run that did it.
std::string put_back(switch_dir *target, const switch_state &back) {
  const run_folder folder(*target);
  run_facts facts;
  facts.verb = "rollback";
  facts.from = target->state().release;
  facts.to = back.release;
  facts.generation = target->state().generation;
  run_record record(folder, facts);
  try {
    stop_signal::check();
    target->exchange_previous();
  } catch (const failure &error) {
    record.finish(run_result::failed, error.what());
    throw failure(error.status(),
                  "not rolled back: " + error.message() + "; the switch is as it was",
                  error.next_action());
  }
  record.finish(run_result::done, "");
  return folder.number();
}

int roll_back(const common_options &common, const std::string &dir) {
  switch_dir target(dir, switch_dir::access::write);
  const switch_state now = target.state();
  const switch_state back = target.previous_state();
  target.check_exchange();
  ask(dir, releases(now, back), common.yes);
  const std::string run = put_back(&target, back);
  const std::string closing = dir + ": rolled back, " + releases(now, back) +
                              "; what was replaced is in previous/: rollback once more to take it "
                              "back";
  if (common.format == output::format::json) {
    output::json({{"switch", dir},
                  {"run", run},
                  {"run_folder", dir + "/runs/" + run},
                  {"from", now.release},
                  {"to", back.release},
                  {"message", closing}});
  } else {
    output::text(closing + "\n");
  }
  if (!output::finish()) {
    throw failure(exit_failed, "not all of the output could be written; the switch IS rolled back");
  }
  return exit_done;
}

} // namespace

int rollback(const common_options &common, const std::string &dir) {
  const stop_signal::guard guard;
  try {
    return roll_back(common, dir);
  } catch (const failure &error) {
    throw error.placed(in_quotes(dir));
  }
}
