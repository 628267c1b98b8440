// A verb that changes the switch is killed at each call that changes files and at each call of the
// platform, with all that it has started; then the recovery is killed, too. The next command finds
// the switch wholly before or wholly after, and the verb done again gives what it gives
// undisturbed.
#include "crash/crash_fixture.h"

#include <csignal>
#include <cstdio>
#include <sstream>

namespace {

constexpr int short_form = 3; // points per deed
constexpr int few = 1;        // where it is a long one

// Kills at a call, counted from 0, of those that `counts` says yes to.
class killer {
public:
  killer(size_t at, answer_kind how, bool (*counts)(const file_call &))
      : at_(at), how_(how), counts_(counts) {}
  answer operator()(const file_call &call) {
    const bool now = counts_(call) && seen_++ == at_;
    return {now ? how_ : answer_kind::go_on, 0};
  }

private:
  size_t at_;
  answer_kind how_;
  bool (*counts_)(const file_call &);
  size_t seen_ = 0;
};

bool changes_files(const file_call &call) {
  return call.kind != call_kind::read_folder && call.kind != call_kind::platform &&
         !is_piece_of_trace(call);
}

bool calls_platform(const file_call &call) {
  return call.kind == call_kind::platform;
}

class kills : public crash_test {
protected:
  void kill_during(const deed &what);
  void kill_at_platform_calls(answer_kind how, const deed &what);
  static int wanted(const deed &what) {
    return wanted_count(&what == &whole_change || &what == &removals ? few : short_form);
  }
  bool kill_recovery(const deed &what, std::string *where);

  size_t count_calls(const words &arguments, bool (*counts)(const file_call &),
                     int other_status = 0) {
    size_t seen = 0;
    const result done = watched(arguments, [&](const file_call &call) {
      seen += counts(call) ? 1 : 0;
      return answer();
    });
    EXPECT_TRUE(done.status == 0 || done.status == other_status) << done.err;
    return seen;
  }
  size_t count_deed(const deed &what, bool (*counts)(const file_call &)) {
    restore(before_);
    return count_calls(what.arguments, counts);
  }

  std::mt19937_64 random_{wanted_seed()};
};

// At one of its calls; false when it makes none, as there is nothing to tidy up.
bool kills::kill_recovery(const deed &what, std::string *where) {
  const bool made_anew = &what == &creation;
  const words next = made_anew ? what.arguments : words{"lab", "show", "disk/sw"};
  const disk_tree left = disk();
  const size_t calls = count_calls(next, changes_files, made_anew ? 3 : 0);
  restore(left);
  if (calls == 0) {
    return false;
  }
  const size_t at = random_() % calls;
  *where += ", its recovery at call " + std::to_string(at) + " of " + std::to_string(calls);
  const result killed = watched(next, killer(at, answer_kind::kill_all, changes_files));
  EXPECT_EQ(killed.status, 1000 + SIGKILL) << *where;
  return true;
}

void kills::kill_during(const deed &what) {
  record_deed(what);
  const size_t calls = count_deed(what, changes_files);
  ASSERT_GT(calls, 0U);
  const std::vector<size_t> chosen = some_of(calls, wanted(what), &random_);
  size_t in_recovery = 0;
  size_t missed = 0; // the run had ended before
  for (const size_t at : chosen) {
    std::string where = std::string(what.name) + " killed at call " + std::to_string(at);
    restore(before_);
    const result killed = watched(what.arguments, killer(at, answer_kind::kill_all, changes_files));
    const bool ended = killed.status == 0;
    ASSERT_TRUE(ended || killed.status == 1000 + SIGKILL) << where;
    missed += ended ? 1 : 0;
    in_recovery += !ended && kill_recovery(what, &where) ? 1 : 0;
    ASSERT_TRUE(expect_whole(what, ended)) << where;
    expect_done_again(what);
    ASSERT_FALSE(HasFailure()) << where;
  }
  EXPECT_LE(missed, 1 + chosen.size() / 10) << what.name;
  EXPECT_TRUE(in_recovery > 0 || !long_form()) << what.name;
  std::printf("kills: %s: at %zu of %zu calls, %zu recoveries killed too, all hold (seed %u)\n",
              what.name, chosen.size() - missed, calls, in_recovery, wanted_seed());
}

void kills::kill_at_platform_calls(answer_kind how, const deed &what) {
  set("DATAMORPH_LIBRARY", built("tests/crash/marked_converters.so"));
  record_deed(what);
  const size_t calls = count_deed(what, calls_platform);
  ASSERT_GT(calls, 50U);
  const std::vector<size_t> chosen = some_of(calls, wanted(what), &random_);
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

TEST_F(kills, of_a_conversion_of_all_services) {
  kill_during(whole_change);
}

TEST_F(kills, of_removals) {
  kill_during(removals);
}

TEST_F(kills, find_every_service_at_the_platform) {
  std::set<std::string> services;
  for (const deed *what : {&whole_change, &removals}) {
    make_disk(*what);
    ASSERT_EQ(run(what->arguments).status, 0);
    std::istringstream journal(read(what->before.empty() ? "disk/sw/runs/0001/journal.jsonl"
                                                         : "disk/sw/runs/0002/journal.jsonl"));
    for (std::string line; std::getline(journal, line);) {
      services.insert(nlohmann::json::parse(line)["service"]);
    }
  }
  EXPECT_EQ(services, (std::set<std::string>{"AIC_DBG", "CLIS", "DOT1X", "EVMC", "EVMS",
                                             "EXCHANGE_PEER_PARAMS", "KPS", "MVSH", "PIXM",
                                             "PLUGIN", "PSS_HELPER", "SKSD", "SMM", "TEST_ETHPM",
                                             "VRRP_ENG", "VRRP_MGR"}));
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

TEST_F(kills, at_platform_calls_of_all_services) {
  kill_at_platform_calls(answer_kind::kill_all, whole_change);
}

TEST_F(kills, of_the_converting_process_at_platform_calls_of_all_services) {
  kill_at_platform_calls(answer_kind::kill_process, whole_change);
}

TEST_F(kills, at_platform_calls_of_removals) {
  kill_at_platform_calls(answer_kind::kill_all, removals);
}

} // namespace
