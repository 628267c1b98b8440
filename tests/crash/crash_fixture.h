// A small switch on a disk of its own, and the verbs that change it: each can be recorded, killed
// and made to fail at any of its calls, and what it leaves can be held against what stood there
// before and what it makes undisturbed.
#ifndef TESTS_CRASH_CRASH_FIXTURE_H
#define TESTS_CRASH_CRASH_FIXTURE_H

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "crash/call_watch.h"
#include "crash/disk_model.h"
#include "system/command.h"

// How much is done: DATAMORPH_CRASH_COUNT and DATAMORPH_CRASH_SEED, a short form without them.
int wanted_count(int short_form);
unsigned wanted_seed();
bool long_form();
// All of so many points, or as many of them as are wanted, in any order.
std::vector<size_t> some_of(size_t count, int wanted, std::mt19937_64 *random);

// The trace comes in pieces as it happens, and in how many is another thing in each run: they are
// no points.
bool is_piece_of_trace(const file_call &call);

// What calls fail with, and which do.
using kinds = std::set<call_kind>;
struct failing {
  const char *name;
  int error;
  kinds which;
  answer_kind how = answer_kind::fail;
  answer given() const { return {how, error}; }
};

// A verb that changes the switch.
struct deed {
  const char *name;
  words arguments;
  // What leads up to it; the switch as it is described when there is nothing.
  std::vector<words> before;
  const char *described = "switch.json"; // the switch's description; null for the shipped one
};

extern const deed conversion;
extern const deed second_conversion; // there is a previous state already
extern const deed roll_back;
extern const deed import;
extern const deed creation;
// Every service, up and down: what the small switch has nothing for is done there.
extern const deed whole_change;
extern const deed removals;

class crash_test : public command_test {
protected:
  using listing = std::map<std::string, std::string>;

  struct recorded {
    result ended;
    disk_record record;
  };

  void SetUp() override;

  // The disk as it is before the deed; it is made when there is none yet.
  void make_disk(const deed &what);
  void restore(const disk_tree &tree) const;
  disk_tree disk() const { return disk_tree::read(path("disk")); }

  result watched(const words &arguments, const call_watch::decide_t &decide,
                 call_watch::scope what = call_watch::scope::changes);
  recorded record(const words &arguments);
  // The deed on the disk as it was before, undisturbed: sets `after_`.
  recorded record_deed(const deed &what);

  // The next command finds the disk whole, tidies up, and says what it must; false, and a failure
  // told, when not. `finished`: the deed ended well before, so its change must be there.
  bool expect_whole(const deed &what, bool finished);
  // The last run stands in the history as one that ended well.
  void expect_told();
  // The deed done once more gives what it gives undisturbed.
  void expect_done_again(const deed &what);

  // The switch's state, without what tells of the moment: times in logs, and names with process
  // numbers. `logs` false: without the logs as well, and without the
  // sockets of queues, which answer nobody any more, where the disk did not let them go.
  static listing settled(const disk_tree &tree, bool logs = true);

  // Where they differ, in short; "" where they do not.
  static std::string differences(const listing &a, const listing &b);

  disk_tree before_;
  disk_tree after_;
  bool logs_count_ = true; // see settled()
  std::string put_aside_;  // messages: what they name as put aside may stand there

private:
  result recover(const deed &what);
  bool expect_whole_state(const disk_tree &now, bool finished);
  bool expect_whole_creation(const result &again, bool finished);
};

#endif
