// Every call by which a verb that changes nothing looks at the switch fails, once and from then on.
// The verb says so and gives none of it for the whole, or was not touched by it; it ends by itself,
// and the switch stays as it is, to the byte.
#include "crash/crash_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>

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
  int status = 0;                 // undisturbed
  bool leaves_out_closed = false; // what its user may not read is no part of what it shows
  int length = 1;                 // times that of the others: it has so many points less
};

void PrintTo(const look &one, std::ostream *out) {
  *out << one.name;
}

const look looks[] = {
    {"show", {"lab", "show", "disk/sw"}, 0, true},
    {"show_json", {"lab", "show", "disk/sw", "--format", "json"}, 0, true},
    {"list", {"store", "list", "disk/sw"}},
    {"store", {"store", "show", "disk/sw", "nonvolatile:/cfg/0/ethpm_runtime_cfg"}},
    {"snapshot", {"store", "show", "disk/sw", "/cfg/0/globalpss_table.snp"}},
    {"export", {"store", "export", "disk/sw"}},
    {"check", {"check", "disk/sw", "--from", "4.2(1)", "--to", "4.1(5)"}, 3},
    {"difference", {"diff", "disk/sw/previous", "disk/sw"}, 2, true},
    {"difference_of_stores",
     {"diff", "disk/sw/previous:nonvolatile:/cfg/0/ethpm_runtime_cfg",
      "disk/sw:nonvolatile:/cfg/0/ethpm_runtime_cfg"},
     2},
    {"reason", {"why", "disk/sw", vlan_store}},
    {"history", {"history", "disk/sw"}},
    {"rehearsal",
     {"rehearse", "disk/sw", "--to", "4.1(5)", "--from", "4.2(1)", "--round-trip", "--report",
      "disk/out/report.html", "--save", "disk/out/plan.json"},
     0,
     false,
     4},
    {"matrix", {"matrix", "disk/sw"}, 0, false, 3},
};

// Of an output: what is another in each run.
std::string settled_text(const std::string &text) {
  static const std::regex times("[0-9]+\\.[0-9]+( ?ms| s)?|[0-9]{2}:[0-9]{2}:[0-9]{2}");
  return std::regex_replace(text, times, "<time>");
}

// What an output says where it cannot tell a part: a store's status, a run that has no record.
const std::regex trouble_words("0x404[0-9a-f]{5}|cannot be|cannot read|not told|not known|"
                               "no version|error|no access|damaged|[1-9][0-9]* unreadable|"
                               "unreadable -|remedy: ");

size_t troubles_in(const std::string &text) {
  return static_cast<size_t>(std::distance(
      std::sregex_iterator(text.begin(), text.end(), trouble_words), std::sregex_iterator()));
}

// What can be right or wrong by itself.
struct part {
  std::string text;
  bool is_trouble; // or the head of one
};
using parts = std::vector<part>;

// Of a document: each element of a list, and each other member with its name.
void add_parts(const std::string &name, const nlohmann::json &document, parts *into) {
  const auto add = [&](const nlohmann::json &one) {
    const std::string text = settled_text(name + one.dump());
    into->push_back({text, troubles_in(text) > 0});
  };
  if (document.is_array()) {
    std::for_each(document.begin(), document.end(), add);
  } else if (document.is_object()) {
    for (const auto &[key, member] : document.items()) {
      add_parts(name + key + ": ", member, into);
    }
  } else {
    add(document);
  }
}

// Of one that may stand in the envelope, which has no result when nothing can be told at all.
parts parts_of_document(const nlohmann::json &document) {
  parts found;
  const nlohmann::json told = document.value("result", document);
  if (!told.is_null()) {
    add_parts("", told, &found);
  }
  return found;
}

// Of a text: its lines. Not how wide columns are, for that is of the other rows too. What trouble
// is told of stands in the first two lines of its paragraph.
parts parts_of_text(const std::string &text) {
  static const std::regex blanks(" +");
  parts found;
  size_t head = 0; // of the paragraph
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) {
      head = found.size();
      continue;
    }
    line = std::regex_replace(settled_text(line), blanks, " ");
    if (line.ends_with(",")) {
      line.pop_back(); // a document that ends there has none
    }
    const bool is_trouble = troubles_in(line) > 0;
    found.push_back({line, is_trouble});
    for (size_t at = head; is_trouble && at < std::min(head + 2, found.size()); ++at) {
      found[at].is_trouble = true;
    }
  }
  return found;
}

// The parts of `text` that tell of no trouble, and yet are none of `whole`, in its order.
std::string made_up(const std::string &text, const std::string &whole) {
  const bool documents = nlohmann::json::accept(text) && nlohmann::json::accept(whole);
  const auto parts_of = [&](const std::string &of) {
    return documents ? parts_of_document(nlohmann::json::parse(of)) : parts_of_text(of);
  };
  const parts known = parts_of(whole);
  auto from = known.begin();
  std::string found;
  for (const part &one : parts_of(text)) {
    if (one.is_trouble) {
      continue; // its headings may be those of what comes later in the whole
    }
    const auto same =
        std::find_if(from, known.end(), [&](const part &other) { return other.text == one.text; });
    if (same != known.end()) {
      from = std::next(same);
    } else {
      found += one.text + "\n";
    }
  }
  return found;
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
  size_t missed_ = 0;            // points that were not reached: the run had fewer calls
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
    return now ? how.given() : answer();
  });
  missed_ += first.empty() ? 1 : 0;
  const std::string where = std::string(what.name) + ": " + how.name + " at call " +
                            std::to_string(at) + (for_ever ? " and on: " : ": ") + first +
                            ": status " + std::to_string(ended.status) + "\n" + ended.err;
  const bool as_ever = ended.status == undisturbed_.status;
  EXPECT_TRUE(as_ever || ended.status == 1 || ended.status == 3) << where << ended.out;
  EXPECT_TRUE(as_ever || ended.err.find("datamorph: ") != std::string::npos ||
              troubles_in(ended.out) > troubles_in(undisturbed_.out))
      << where << ended.out;
  // What is left out is told.
  const bool may_leave_out = what.leaves_out_closed && how.error == EACCES;
  if (as_ever && !may_leave_out && ended.err == undisturbed_.err &&
      troubles_in(ended.out) == troubles_in(undisturbed_.out)) {
    EXPECT_EQ(settled_text(ended.out), settled_text(undisturbed_.out)) << where;
  }
  // What is left out of one side is a difference, and so is what lies below a folder of it that
  // cannot be read, which is told.
  const bool closed_folder = ended.out.find("the folder cannot be read") != std::string::npos;
  if (what.status != 2 || !(may_leave_out || closed_folder)) {
    static const std::regex store_file("[^\n]*\\.pss[^\n]*\n");
    const std::string found = made_up(ended.out, undisturbed_.out);
    // A store that is left out is a file like others.
    EXPECT_EQ(may_leave_out ? std::regex_replace(found, store_file, "") : found, "")
        << where << ended.out;
  }
  EXPECT_EQ(disk().digest("sw"), before_.digest("sw")) << where;
}

void failing_look::look_undisturbed(const look &what) {
  undisturbed_ = look_with(what, [&](const file_call &call) {
    kinds_.push_back(call.kind);
    return answer();
  });
  ASSERT_EQ(undisturbed_.status, what.status) << undisturbed_.err;
}

void failing_look::fail_during(const look &what, const failing &how) {
  const auto calls = static_cast<size_t>(std::count_if(
      kinds_.begin(), kinds_.end(), [&](call_kind kind) { return how.which.count(kind) == 1; }));
  ASSERT_GT(calls, 0U) << how.name;
  missed_ = 0;
  const int wanted = std::max(1, wanted_count(short_form) / what.length);
  const std::vector<size_t> points = some_of(2 * calls, wanted, &random_);
  for (const size_t point : points) {
    restore(before_);
    fail_at(what, how, point % calls, point >= calls);
  }
  EXPECT_LE(missed_, 1 + points.size() / 10) << how.name;
  if (!HasFailure()) {
    std::printf("failing reads: %s: %s at %zu of %zu points, all hold (seed %u)\n", what.name,
                how.name, points.size() - missed_, 2 * calls, wanted_seed());
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
