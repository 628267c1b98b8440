// The power goes at any moment of a verb that changes the switch, or of the recovery after that:
// what was not synced may be lost, kept, out of order or torn. The next command finds the switch
// wholly before or wholly after, and what a verb had finished stays.
#include "crash/crash_fixture.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace {

constexpr int short_form = 6;      // states per deed
constexpr int recovered_every = 8; // states whose recovery loses the power too
constexpr int per_recovery = 4;

struct moment {
  size_t calls;
  survival how;
};

class power_loss : public crash_test {
protected:
  void lose_power_during(const deed &what);

private:
  void try_state(const deed &what, const disk_record &record, const moment &at);
  void lose_power_in_recovery(const deed &what, const disk_tree &tree, bool finished);
  bool is_new(const disk_tree &tree);

  std::mt19937_64 random_{wanted_seed()};
  std::set<std::string> states_;
  int tried_ = 0;
};

// Each new one is told, so that those of several programs can be counted once.
bool power_loss::is_new(const disk_tree &tree) {
  const auto [state, added] = states_.insert(tree.digest());
  if (added && long_form()) {
    std::printf("state: %s\n", state->c_str());
  }
  return added;
}

// Each moment with all that has no chance in it, in any order.
std::vector<moment> plain_moments(size_t calls, std::mt19937_64 *random) {
  std::vector<moment> all;
  for (size_t at = 0; at <= calls; ++at) {
    for (const survival how :
         {survival::nothing, survival::everything, survival::names, survival::contents}) {
      all.push_back({at, how});
    }
  }
  std::shuffle(all.begin(), all.end(), *random);
  return all;
}

void power_loss::lose_power_in_recovery(const deed &what, const disk_tree &tree, bool finished) {
  restore(tree);
  const recorded recovery = record({"lab", "show", "disk/sw"});
  for (int at = 0; at < per_recovery && !HasFailure(); ++at) {
    const size_t calls = random_() % (recovery.record.calls() + 1);
    const disk_tree left = recovery.record.after_power_loss(calls, survival::some, &random_);
    if (is_new(left)) {
      restore(left);
      EXPECT_TRUE(expect_whole(what, finished)) << "after " << calls << " calls of the recovery";
    }
  }
}

void power_loss::try_state(const deed &what, const disk_record &record, const moment &at) {
  const disk_tree tree = record.after_power_loss(at.calls, at.how, &random_);
  if (!is_new(tree)) {
    return;
  }
  const bool finished = at.calls == record.calls();
  restore(tree);
  EXPECT_TRUE(expect_whole(what, finished))
      << what.name << ": seed " << wanted_seed() << ", the power went after " << at.calls << " of "
      << record.calls() << " calls, survival " << static_cast<int>(at.how);
  if (finished && &what != &import && &what != &creation) {
    expect_told();
  }
  if (++tried_ % recovered_every == 0 && &what != &creation && !HasFailure()) {
    expect_done_again(what);
    lose_power_in_recovery(what, tree, finished);
  }
}

void power_loss::lose_power_during(const deed &what) {
  const recorded done = record_deed(what);
  const disk_record &record = done.record;
  ASSERT_EQ(record.strange(), std::vector<std::string>());
  ASSERT_EQ(differences(record.now().listing(), after_.listing()), "") << "calls are missing";
  const int wanted = wanted_count(short_form);
  std::vector<moment> plain = plain_moments(record.calls(), &random_);
  int in_vain = 0; // a verb of few calls leaves few states
  for (int at = 0; in_vain < 1000 && static_cast<int>(states_.size()) < wanted; ++at) {
    const size_t known = states_.size();
    if (at % 2 == 0 && !plain.empty()) {
      try_state(what, record, plain.back());
      plain.pop_back();
    } else {
      try_state(what, record, {random_() % (record.calls() + 1), survival::some});
    }
    if (HasFailure()) {
      return;
    }
    in_vain = states_.size() == known ? in_vain + 1 : 0;
  }
  try_state(what, record, {record.calls(), survival::nothing});
  std::printf("power loss: %s: %zu distinct states of %zu calls, all hold (seed %u)\n", what.name,
              states_.size(), record.calls(), wanted_seed());
}

TEST_F(power_loss, of_a_conversion) {
  lose_power_during(conversion);
}

TEST_F(power_loss, of_a_conversion_with_a_state_to_go_back_to) {
  lose_power_during(second_conversion);
}

TEST_F(power_loss, of_a_rollback) {
  lose_power_during(roll_back);
}

TEST_F(power_loss, of_an_import) {
  lose_power_during(import);
}

TEST_F(power_loss, of_a_creation) {
  lose_power_during(creation);
}

} // namespace
