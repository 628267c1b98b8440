// A version change of a state: what is refused before, the work on a copy, and what became of it.
// Whose the copy is, and whether it takes the state's place, is the caller's business.
#ifndef DATAMORPH_CONVERSION_H
#define DATAMORPH_CONVERSION_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "conversion_child.h"
#include "progress.h"
#include "report.h"
#include "unique_fd.h"
#include "verbs.h"

// Where the text of one request stands in the trace: bytes [from, to).
struct trace_span {
  uint64_t from = 0;
  uint64_t to = 0;
};

class conversion {
public:
  // `state` is what the state's switch.json holds. The options stay the caller's.
  conversion(const common_options &common, const convert_options &options,
             const switch_state &state);

  // Does not name each service as it begins.
  void be_quiet() { quiet_ = true; }
  // Looks at the state, changing nothing, and makes the plan. Throws failure(3) for what cannot be
  // converted.
  void prepare(int current);
  // Converts the copy. Ends are noted in the report; what the library writes to its output goes to
  // `trace`, the child's messages (run_conversion) that were taken go to `also`. Throws failure
  // when a signal came or no process could be started.
  void run(
      int copy, int journal, const std::function<void(std::string_view)> &trace,
      const std::function<void(const nlohmann::json &)> &also = [](const nlohmann::json &) {});
  // Why the copy may not become the state; empty when it may.
  std::string verdict() const;
  // Whether the disk that it worked on took no more, as far as statuses tell.
  bool met_full_disk() const;
  // What would be lost and may not be; empty when there is nothing.
  std::string unwanted_losses() const;
  // The state that the copy is then: with the release that it runs.
  switch_state state_after() const;
  // Counts the journal's lines into the report and hands each on. Throws failure(1).
  using line_taker = std::function<void(uint64_t, const nlohmann::json &)>;
  void take_journal(
      int journal, const line_taker &also = [](uint64_t, const nlohmann::json &) {});
  // Remarks on what was converted.
  void note_remainders();

  bool selected(moment which) const;
  bool whole_change() const;
  const conversion_plan &plan() const { return plan_; }
  conversion_report &report() { return report_; }
  const conversion_report &report() const { return report_; }
  const std::vector<trace_span> &spans() const { return spans_; }
  // The stores that were there before and after; empty when the run did not come to its end.
  std::set<std::string> stores(const char *when) const;

private:
  [[noreturn]] void refuse(const std::string &message, const std::string &next = "") const;
  std::vector<uint32> wanted_services() const;
  nlohmann::json look(int current);
  void check_release(const nlohmann::json &images, const std::string &release,
                     const char *what) const;
  void check_damage(const nlohmann::json &found) const;
  void make_plan(const nlohmann::json &found);
  void take_message(const nlohmann::json &message);
  void note_end(const jail::outcome &outcome);
  nlohmann::json vrrp_records(const char *which) const;

  const common_options &common_;
  const convert_options &options_;
  bool quiet_ = false;
  conversion_plan plan_;
  conversion_report report_;
  nlohmann::json closing_;
  uint64_t traced_ = 0; // bytes
  std::vector<trace_span> spans_;
  progress progress_;
};

// Throws failure(64) for a service that does not exist.
void check_service_names(const convert_options &options);

#endif
