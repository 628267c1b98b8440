// Every call by which a verb that changes nothing looks at the switch fails, once and from then on.
// The verb says so and gives none of it for the whole, or was not touched by it; it ends by itself,
// and the switch stays as it is, to the byte.
#include "crash/crash_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <regex>

namespace {

namespace fs = std::filesystem;

constexpr int short_form = 1; // points per verb and error

const failing unreadable = {"EIO",
                            EIO,
                            {call_kind::open, call_kind::read_folder, call_kind::read,
                             call_kind::list, call_kind::examine}};
const failing no_descriptors = {"EMFILE", EMFILE, {call_kind::open, call_kind::read_folder}};
const failing denied = {
    "EACCES", EACCES, {call_kind::open, call_kind::read_folder, call_kind::examine}};

constexpr char vlan_store[] = "nonvolatile:/cfg/0/vlan_cfg";

struct look {
  const char *name;
  words arguments;
  bool leaves_out_closed = false; // what its user may not read is no part of what it shows
  int length = 1;                 // times that of the others: it has so many points less
};

void PrintTo(const look &one, std::ostream *out) {
  *out << one.name;
}

const look looks[] = {
    {"show", {"lab", "show", "disk/sw"}, true},
    {"show_json", {"lab", "show", "disk/sw", "--format", "json"}, true},
    {"list", {"store", "list", "disk/sw"}},
    {"store", {"store", "show", "disk/sw", "nonvolatile:/cfg/0/ethpm_runtime_cfg"}},
    {"snapshot", {"store", "show", "disk/sw", "/mnt/cfg/0/ascii/snapshot"}},
    {"export", {"store", "export", "disk/sw"}},
    {"check", {"check", "disk/sw", "--from", "4.2(1)", "--to", "4.1(5)"}},
    {"difference", {"diff", "disk/sw/previous", "disk/sw"}, true},
    {"difference_of_stores",
     {"diff", "disk/sw/previous:nonvolatile:/cfg/0/ethpm_runtime_cfg",
      "disk/sw:nonvolatile:/cfg/0/ethpm_runtime_cfg"}},
    {"reason", {"why", "disk/sw", vlan_store}},
    {"history", {"history", "disk/sw"}},
    {"rehearsal",
     {"rehearse", "disk/sw", "--to", "4.1(5)", "--from", "4.2(1)", "--round-trip", "--report",
      "disk/out/report.html", "--save", "disk/out/plan.json"},
     false,
     4},
    {"matrix", {"matrix", "disk/sw"}, false, 3},
};

// Of an output: what is another in each run.
std::string settled_text(const std::string &text) {
  static const std::regex times("[0-9]+\\.[0-9]+( ?ms| s)?|[0-9]{2}:[0-9]{2}:[0-9]{2}");
  return std::regex_replace(text, times, "<time>");
}

// Where an output says of a part that it cannot be told: a store's status, a run that has no
// record.
size_t troubles_in(const std::string &text) {
  static const std::regex words("0x404[0-9a-f]{5}|cannot be|cannot read|not told|not known|"
                                "no version|error|no access|damaged");
  return static_cast<size_t>(
      std::distance(std::sregex_iterator(text.begin(), text.end(), words), std::sregex_iterator()));
}

class failing_look : public crash_test {
protected:
  // The switch was converted, so that it has a history and a previous state.
  void SetUp() override {
    crash_test::SetUp();
    make_disk(roll_back);
    fs::create_directories(path("disk/scratch"));
    fs::create_directories(path("disk/out"));
    set("TMPDIR", path("disk/scratch"));
    before_ = disk();
  }

  result look_with(const look &what, const call_watch::decide_t &decide) {
    return watched(what.arguments, decide, call_watch::scope::reading);
  }

  void look_undisturbed(const look &what);
  void fail_during(const look &what, const failing &how);
  void fail_at(const look &what, const failing &how, size_t at, bool for_ever);

  std::mt19937_64 random_{wanted_seed()};
  result undisturbed_;
  std::vector<call_kind> kinds_; // of its calls
};

void failing_look::fail_at(const look &what, const failing &how, size_t at, bool for_ever) {
  size_t seen = 0;
  std::string first;
  const result ended = look_with(what, [&](const file_call &call) {
    const bool counts = how.which.count(call.kind) == 1;
    const size_t number = seen;
    seen += counts ? 1 : 0;
    const bool now = counts && (number == at || (for_ever && number > at));
    if (now && first.empty()) {
      first = std::string(name_of(call.kind)) + " '" + call.path + "'";
    }
    return now ? answer{answer_kind::fail, how.error} : answer();
  });
  const std::string where = std::string(what.name) + ": " + how.name + " at call " +
                            std::to_string(at) + (for_ever ? " and on: " : ": ") + first +
                            ": status " + std::to_string(ended.status) + "\n" + ended.err;
  const bool as_ever = ended.status == undisturbed_.status;
  EXPECT_TRUE(as_ever || ended.status == 1 || ended.status == 3) << where << ended.out;
  EXPECT_TRUE(as_ever || ended.err.find("datamorph: ") != std::string::npos || !ended.out.empty())
      << where;
  // What is left out is told.
  const bool may_leave_out = what.leaves_out_closed && how.error == EACCES;
  if (as_ever && !may_leave_out && ended.err == undisturbed_.err &&
      troubles_in(ended.out) == troubles_in(undisturbed_.out)) {
    EXPECT_EQ(settled_text(ended.out), settled_text(undisturbed_.out)) << where;
  }
  EXPECT_EQ(disk().digest("sw"), before_.digest("sw")) << where;
}

void failing_look::look_undisturbed(const look &what) {
  undisturbed_ = look_with(what, [&](const file_call &call) {
    kinds_.push_back(call.kind);
    return answer();
  });
  ASSERT_LT(undisturbed_.status, 4) << undisturbed_.err;
}

void failing_look::fail_during(const look &what, const failing &how) {
  const auto calls = static_cast<size_t>(std::count_if(
      kinds_.begin(), kinds_.end(), [&](call_kind kind) { return how.which.count(kind) == 1; }));
  const int wanted = std::max(1, wanted_count(short_form) / what.length);
  const std::vector<size_t> points = some_of(2 * calls, wanted, &random_);
  for (const size_t point : points) {
    restore(before_);
    fail_at(what, how, point % calls, point >= calls);
  }
  if (!HasFailure()) {
    std::printf("failing reads: %s: %s at %zu of %zu points, all hold (seed %u)\n", what.name,
                how.name, points.size(), 2 * calls, wanted_seed());
  }
}

class each_look : public failing_look, public testing::WithParamInterface<look> {};

TEST_P(each_look, tells_what_it_cannot_read) {
  look_undisturbed(GetParam());
  for (const failing *how : {&unreadable, &no_descriptors, &denied}) {
    fail_during(GetParam(), *how);
  }
}

INSTANTIATE_TEST_SUITE_P(disk, each_look, testing::ValuesIn(looks),
                         [](const auto &one) { return std::string(one.param.name); });

} // namespace
