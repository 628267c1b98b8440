// How far a conversion came: the file steps.jsonl in its run's folder, a line at each beginning and
// end of a request. It is read when the run was killed.
#ifndef DATAMORPH_RUN_STEPS_H
#define DATAMORPH_RUN_STEPS_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "conversion_child.h"
#include "run_folder.h"

class step_log {
public:
  // Throws failure(1).
  step_log(const run_folder &folder, const std::vector<conversion_request> &requests);
  // A message of the conversion's child that was found good; others than "start" and "result" are
  // not written.
  void take(const nlohmann::json &message);

private:
  void put(const nlohmann::json &line);

  limited_file file_;
  const std::vector<conversion_request> &requests_;
};

// "in SKSD (running-fs, VDC 1), 1 of 6 service calls done", from a run's folder; "" when nothing of
// it stands there.
std::string how_far(int folder);

#endif
