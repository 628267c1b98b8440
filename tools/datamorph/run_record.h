// What a run says of itself, for 'datamorph history': the file run.json in its folder. It is
// written when the run begins and once more when it ends, each time all or nothing; a run whose
// record still says "running" while nobody works on the switch was killed, and is noted as that.
#ifndef DATAMORPH_RUN_RECORD_H
#define DATAMORPH_RUN_RECORD_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "run_folder.h"

inline constexpr char run_record_file[] = "run.json";
inline constexpr size_t largest_run_record = 1 << 20; // bytes

// These words stand in files of earlier runs: they never change.
namespace run_result {
inline constexpr char running[] = "running";
inline constexpr char killed[] = "killed"; // found by a later command
inline constexpr char done[] = "done";
inline constexpr char failed[] = "failed";
inline constexpr char refused[] = "refused";
} // namespace run_result

struct run_facts {
  std::string run;  // the number of its folder
  std::string verb; // convert, reboot, rollback
  std::string from; // releases
  std::string to;
  uint64_t generation = 0; // of the switch's state before the run
  // Of a conversion only. No service: all of them.
  std::optional<std::vector<std::string>> moments;
  std::optional<std::vector<std::string>> services;

  std::string started; // UTC, as in 2026-01-31T12:59:59.123Z
  std::optional<uint64_t> milliseconds;
  std::string user; // empty: the number has no name
  uint64_t uid = 0;
  uint64_t pid = 0;
  std::string host;
  std::vector<std::string> command; // the words of the command line; empty: not known
  std::string result = run_result::running;
  std::string message; // why it did not succeed

  // "run 0001 (convert, from 4.1(5) to 4.2(1))"
  std::string name() const;

  nlohmann::json to_json() const;
  // Throws failure(3) saying what is wrong.
  static run_facts from_json(const nlohmann::json &document);
};

// The last run of a switch (its folder) on which nobody works, when it was killed and no command
// has said so yet.
struct killed_run {
  run_facts facts;
  unique_fd folder;
};
std::optional<killed_run> find_killed_run(int folder);
// Notes that it has been said, where that can be written.
void note_killed(const killed_run &found);
// What became of the switch by a run that was killed, when `after` is the generation of the state
// that the next command found; "" when that does not tell.
const char *outcome_of_killed(const run_facts &facts, uint64_t after);

class run_record {
public:
  // Fills in when and by whom, and writes the record. Throws failure(1).
  run_record(const run_folder &folder, const run_facts &facts);
  // Says so when the record cannot be written: the run is over, whatever becomes of it.
  void finish(const char *result, const std::string &message);

private:
  const run_folder &folder_;
  run_facts facts_;
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

#endif
