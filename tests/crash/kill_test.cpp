// A verb that changes the switch is killed at each call that changes files and at each call of the
// platform, with all that it has started; then the recovery is killed, too. The next command finds
// the switch wholly before or wholly after, and the verb done again gives what it gives
// undisturbed.
#include "crash/crash_fixture.h"

#include <csignal>
#include <cstdio>

namespace {

constexpr int short_form = 3; // points per deed
constexpr size_t pieces = 40; // of a trace, at most

// Kills at a call, counted from 0, of those that `counts` says yes to.
class killer {
public:
  killer(size_t at, answer_kind how, bool (*counts)(call_kind))
      : at_(at), how_(how), counts_(counts) {}
  answer operator()(const file_call &call) {
    const bool now = counts_(call.kind) && seen_++ == at_;
    return {now ? how_ : answer_kind::go_on, 0};
  }

private:
  size_t at_;
  answer_kind how_;
  bool (*counts_)(call_kind);
  size_t seen_ = 0;
};

bool changes_files(call_kind kind) {
  return kind != call_kind::read_folder && kind != call_kind::platform;
}

bool calls_platform(call_kind kind) {
  return kind == call_kind::platform;
}

class kills : public crash_test {
protected:
  void kill_during(const deed &what);
  void kill_at_platform_calls(answer_kind how, const deed &what);

  size_t count_calls(const deed &what, bool (*counts)(call_kind)) {
    restore(before_);
    size_t seen = 0;
    const result done = watched(what.arguments, [&](const file_call &call) {
      seen += counts(call.kind) ? 1 : 0;
      return answer();
    });
    EXPECT_EQ(done.status, 0) << done.err;
    return seen;
  }

  std::mt19937_64 random_{wanted_seed()};
};

void kills::kill_during(const deed &what) {
  record_deed(what);
  const size_t calls = count_calls(what, changes_files);
  const std::vector<size_t> chosen = some_of(calls, wanted_count(short_form), &random_);
  size_t in_recovery = 0;
  size_t missed = 0; // the run had ended before
  for (const size_t at : chosen) {
    restore(before_);
    const result killed = watched(what.arguments, killer(at, answer_kind::kill_all, changes_files));
    // The trace comes in pieces as it happens: a run may have a few calls less than the counted
    // one.
    const bool ended = killed.status == 0 && at + pieces >= calls;
    ASSERT_TRUE(ended || killed.status == 1000 + SIGKILL) << "at " << at;
    missed += ended ? 1 : 0;
    const size_t again = random_() % 40;
    const words next = &what == &creation ? what.arguments : words{"lab", "show", "disk/sw"};
    const result recovery = watched(next, killer(again, answer_kind::kill_all, changes_files));
    in_recovery += recovery.status == 1000 + SIGKILL ? 1 : 0;
    ASSERT_TRUE(expect_whole(what, ended))
        << what.name << " killed at call " << at << ", its recovery at call " << again;
    expect_done_again(what);
    ASSERT_FALSE(HasFailure()) << what.name << " killed at call " << at;
  }
  EXPECT_LE(missed, 1 + chosen.size() / 10) << what.name;
  std::printf("kills: %s: at %zu of %zu calls, %zu recoveries killed too, all hold (seed %u)\n",
              what.name, chosen.size() - missed, calls, in_recovery, wanted_seed());
}

void kills::kill_at_platform_calls(answer_kind how, const deed &what) {
  set("DATAMORPH_LIBRARY", built("tests/crash/marked_converters.so"));
  record_deed(what);
  const size_t calls = count_calls(what, calls_platform);
  ASSERT_GT(calls, 50U);
  const std::vector<size_t> chosen = some_of(calls, wanted_count(short_form), &random_);
  const bool all = how == answer_kind::kill_all;
  for (const size_t at : chosen) {
    restore(before_);
    const result killed = watched(what.arguments, killer(at, how, calls_platform));
    ASSERT_EQ(killed.status, all ? 1000 + SIGKILL : 1) << "at " << at << killed.err;
    if (!all) {
      EXPECT_NE(killed.err.find("crashed: Killed (signal 9); the switch is as it was"),
                std::string::npos)
          << killed.err;
    }
    ASSERT_TRUE(expect_whole(what, false)) << what.name << " killed at platform call " << at;
    ASSERT_EQ(differences(settled(disk()), settled(before_)), "");
    expect_done_again(what);
    ASSERT_FALSE(HasFailure()) << what.name << " killed at platform call " << at;
  }
  std::printf("kills: %s: %s at %zu of %zu platform calls, all hold (seed %u)\n", what.name,
              all ? "all processes" : "the converting process", chosen.size(), calls,
              wanted_seed());
}

TEST_F(kills, of_a_conversion) {
  kill_during(conversion);
}

TEST_F(kills, of_a_conversion_with_a_state_to_go_back_to) {
  kill_during(second_conversion);
}

TEST_F(kills, of_a_rollback) {
  kill_during(roll_back);
}

TEST_F(kills, of_an_import) {
  kill_during(import);
}

TEST_F(kills, of_a_creation) {
  kill_during(creation);
}

TEST_F(kills, at_platform_calls) {
  kill_at_platform_calls(answer_kind::kill_all, conversion);
}

TEST_F(kills, of_the_converting_process_at_platform_calls) {
  kill_at_platform_calls(answer_kind::kill_process, conversion);
}

TEST_F(kills, at_platform_calls_of_the_way_back) {
  kill_at_platform_calls(answer_kind::kill_all, second_conversion);
}

} // namespace
