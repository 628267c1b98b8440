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

// What has no chance in it.
constexpr survival plain[] = {survival::nothing, survival::everything, survival::names,
                              survival::contents};

class power_loss : public crash_test {
protected:
  void lose_power_during(const deed &what);

private:
  using digests = std::set<std::string>;

  void try_state(const deed &what, const disk_record &record, const moment &at);
  void lose_power_in_recovery(const deed &what, const disk_tree &tree, bool finished);
  void expect_change(const deed &what, bool finished);
  bool is_untried(const disk_tree &tree, bool finished, digests *tried);

  std::mt19937_64 random_{wanted_seed()};
  digests states_; // of the verb
  digests
      recovery_; // of its recoveries: they hold their times, so that two may differ in those alone
  digests finished_; // of both, when the verb had ended
  int tried_ = 0;
};

// Each new one is told, so that those of several programs can be counted once. The same state is
// looked at once more when the verb had ended: what it did must be there then.
bool power_loss::is_untried(const disk_tree &tree, bool finished, digests *tried) {
  const auto [state, added] = tried->insert(tree.digest());
  if (added && long_form()) {
    std::printf("%s: %s\n", tried == &states_ ? "state" : "state of a recovery", state->c_str());
  }
  return (finished && finished_.insert(*state).second) || added;
}

// The state of after or, unless the verb had ended, of before.
void power_loss::expect_change(const deed &what, bool finished) {
  EXPECT_TRUE(expect_whole(what, finished));
  if (finished && &what != &import && &what != &creation) {
    expect_told();
  }
}

// Each moment with each of them, in any order.
std::vector<moment> plain_moments(size_t calls, std::mt19937_64 *random) {
  std::vector<moment> all;
  for (size_t at = 0; at <= calls; ++at) {
    for (const survival how : plain) {
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
    if (is_untried(left, finished, &recovery_)) {
      SCOPED_TRACE("after " + std::to_string(calls) + " calls of the recovery");
      restore(left);
      expect_change(what, finished);
    }
  }
}

void power_loss::try_state(const deed &what, const disk_record &record, const moment &at) {
  const disk_tree tree = record.after_power_loss(at.calls, at.how, &random_);
  const bool finished = at.calls == record.calls();
  if (!is_untried(tree, finished, &states_)) {
    return;
  }
  SCOPED_TRACE(std::string(what.name) + ": the power went after " + std::to_string(at.calls) +
               " of " + std::to_string(record.calls()) + " calls, survival " +
               std::to_string(static_cast<int>(at.how)) + ", seed " +
               std::to_string(wanted_seed()));
  restore(tree);
  expect_change(what, finished);
  const bool some = ++tried_ % recovered_every == 0;
  if ((some || long_form()) && !HasFailure()) {
    expect_done_again(what);
  }
  if (some && &what != &creation && !HasFailure()) {
    lose_power_in_recovery(what, tree, finished);
  }
}

void power_loss::lose_power_during(const deed &what) {
  const recorded done = record_deed(what);
  const disk_record &record = done.record;
  ASSERT_EQ(record.strange(), std::vector<std::string>());
  ASSERT_EQ(differences(record.now().listing(), after_.listing()), "") << "calls are missing";
  const int wanted = wanted_count(short_form);
  std::vector<moment> moments = plain_moments(record.calls(), &random_);
  int in_vain = 0; // a verb of few calls leaves few states
  for (int at = 0; in_vain < 1000 && static_cast<int>(states_.size()) < wanted; ++at) {
    const size_t known = states_.size();
    if (at % 2 == 0 && !moments.empty()) {
      try_state(what, record, moments.back());
      moments.pop_back();
    } else {
      try_state(what, record, {random_() % (record.calls() + 1), survival::some});
    }
    if (HasFailure()) {
      return;
    }
    in_vain = states_.size() == known ? in_vain + 1 : 0;
  }
  for (const survival how : plain) {
    try_state(what, record, {record.calls(), how});
  }
  if (!HasFailure()) {
    std::printf("power loss: %s: %zu distinct states of %zu calls, %zu of recoveries, %zu of both "
                "with the verb ended, all hold (seed %u)\n",
                what.name, states_.size(), record.calls(), recovery_.size(), finished_.size(),
                wanted_seed());
  }
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
