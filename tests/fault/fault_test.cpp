// Every platform call of every routine fails, at every pair of releases at which the routine calls
// the platform: once and from then on, with each status that this function can give, or with data
// that cannot be right. And every allocation. The routine comes back with the status that it is
// described to give (tests/fault/fault_rules.cpp), after so many calls, has closed and freed what
// is its own, and wrote nothing that it does not write when all goes well, or that is not to be
// written any more. Where it is described to go on, it writes all the rest.
//
// A short form runs by default; DATAMORPH_FAULTS=all runs all of them, DATAMORPH_FAULTS=N one of so
// many.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "fault/busy_switch.h"
#include "fault/fault_kinds.h"
#include "fault/fault_rules.h"
#include "libdatamorph_private.h"
#include "support/library_fixture.h"
#include "support/scarce_malloc.h"

namespace {

// Which store stays open when this call fails: VRRP's early ends, on purpose.
const struct {
  const char *call;
  const char *left_open;
} k_early_ends[] = {
    {"pss_open(\"nonvolatile:/cfg/bin/vrrp-cfg_config_sav\")", "nonvolatile:/tmp/vrrp-startup-pss"},
    {"pss_open(\"nonvolatile:/cfg/bin/vrrp-eng_runtime_config\")",
     "nonvolatile:/tmp/vrrp-startup-pss"},
    {"pss_snapshot(\"nonvolatile:/tmp/vrrp-startup-pss\", 0, "
     "\"nonvolatile:/cfg/bin/vrrp-eng_runtime_config\")",
     "nonvolatile:/tmp/vrrp-startup-pss"},
    {"pss_snapshot(\"nonvolatile:/cfg/bin/vrrp-eng_runtime_config\", 0, "
     "\"nonvolatile:/tmp/vrrp-startup-pss\")",
     "nonvolatile:/cfg/bin/vrrp-eng_runtime_config"},
};

std::vector<releases> pairs_for(const routine &what) {
  std::vector<releases> pairs;
  for (const char *to : k_releases) {
    for (const char *from : k_releases) {
      if (what.takes_a_release || pairs.empty()) {
        pairs.push_back({to, from});
      }
    }
  }
  return pairs;
}

// How many cases there are, but for a few: none is lost unseen.
constexpr uint64_t k_failing_calls = 1'360'000;
constexpr uint64_t k_spoilt_answers = 570'000;
constexpr uint64_t k_failing_allocations = 5'900;

// No walk takes more calls than this, whatever it is given.
size_t most_calls(size_t undisturbed) {
  return 4 * undisturbed + 100;
}

// A row of an entry point, or a whole routine, and where its calls end.
struct row_run {
  std::string name;
  uuid_t uuid;
  size_t end;
};

// A routine at a pair of releases, as it goes when all goes well.
struct undisturbed_run {
  const routine *what;
  releases change;
  lines_t calls;
  lines_t writes;
  syserr_t status;
  std::vector<row_run> rows;

  const row_run &row_of(size_t call) const {
    return *std::find_if(rows.begin(), rows.end(),
                         [call](const row_run &row) { return call < row.end; });
  }
};

// What one service's call of an entry point did, or the whole routine.
struct part {
  size_t begin; // of its calls
  size_t end;
  syserr_t status;
};

lines_t writes_of(const lines_t &calls) {
  lines_t found;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(found), is_write);
  return found;
}

class fault_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    set_busy_environment();
    // A log that cannot be opened: what is traced is not what is looked at here.
    switch_root::write_file("/mnt/pss/data_morph.log/in the way", "");
    switch_root::write_file("/bootflash/data_morph_vrrp_mgr.log/in the way", "");
    switch_root::write_file("/bootflash/data_morph_vrrp_eng.log/in the way", "");
    real_stderr_ = dup(STDERR_FILENO);
    ASSERT_NE(nullptr, std::freopen("/dev/null", "w", stderr));
  }
  void TearDown() override {
    std::fflush(stderr); // what still waits is not for the real one
    dup2(real_stderr_, STDERR_FILENO);
    close(real_stderr_);
    library_fixture::TearDown();
  }

  // The calls so far, with the stores' names for the handles: the first argument, and the second of
  // what loads a file.
  lines_t told_calls() const {
    lines_t told = platform.calls();
    for (std::string &call : told) {
      const bool loads = call.compare(0, 17, "pss2_file2kernel(") == 0;
      const size_t start = loads ? call.find(", ") + 2 : call.find('(') + 1;
      const size_t end = call.find_first_not_of("[]0123456789", start);
      if (call.compare(0, 3, "pss") == 0 && end != start && end != std::string::npos) {
        const size_t number = call.find_first_not_of('[', start);
        const auto handle = static_cast<uint32>(std::strtoul(&call[number], nullptr, 10));
        call.replace(start, end - start, '"' + platform.store_of(handle) + '"');
      }
    }
    return told;
  }

  // Runs a routine on the busy switch; `spoil` comes before it, when its stores are open. One that
  // does not come to an end has all its calls fail, and then the program ends.
  syserr_t run(const routine &what, const releases &change, size_t limit,
               const std::function<void()> &spoil) {
    platform.reset();
    blocks_ = scarce_malloc::live_blocks();
    make_busy_switch(change);
    open_ = what.takes_stores ? open_for_steps() : open_stores();
    handles_ = platform.open_handles();
    platform.clear();
    platform.before(
        "",
        [] {
          std::puts("a walk without end");
          std::fflush(stdout);
          std::abort();
        },
        static_cast<unsigned>(2 * limit));
    platform.fail_any_from(static_cast<unsigned>(limit), SYSERR_PSS_BAD_HANDLE);
    spoil();
    const syserr_t status = what.run(open_, change);
    calls_ = told_calls();
    EXPECT_LT(calls_.size(), limit) << what.name << ", to " << change.to << " from " << change.from;
    return status;
  }

  // Once the switch has gone, nothing is left of what was allocated.
  void expect_freed(const undisturbed_run &of, const std::string &told) {
    platform.reset();
    EXPECT_EQ(blocks_, scarce_malloc::live_blocks()) << at(of, told) << ": a leak";
  }

  undisturbed_run look_at(const routine &what, const releases &change) {
    undisturbed_run found{&what, change, {}, {}, 0, {}};
    found.status = run(what, change, 10000, [] {});
    found.calls = calls_;
    found.writes = writes_of(calls_);
    expect_freed(found, "undisturbed");
    if (what.rows == nullptr) {
      found.rows = {{what.name, SRVUUID_NONE, calls_.size()}};
    } else {
      EXPECT_EQ(0u, found.status) << at(found, "undisturbed");
      found.rows = look_at_rows(what, change);
      EXPECT_EQ(calls_, found.calls) << at(found, "row by row");
    }
    return found;
  }

  // The rows of an entry point, one after the other: the same calls.
  std::vector<row_run> look_at_rows(const routine &what, const releases &change) {
    std::vector<row_run> rows;
    make_busy_switch(change);
    for (const table_row &row : what.rows()) {
      EXPECT_EQ(0u, run_row(row, change)) << what.name << row.uuid;
      const routine *its = routine_of(row.converter);
      rows.push_back({its != nullptr ? its->name : "", row.uuid, platform.calls().size()});
    }
    calls_ = told_calls();
    return rows;
  }

  // Each routine at each pair at which it calls the platform; at one where none is asked for.
  const std::vector<undisturbed_run> &all_runs() {
    static std::vector<undisturbed_run> runs;
    if (!runs.empty()) {
      return runs;
    }
    for (const routine &what : k_routines) {
      for (const releases &change : pairs_for(what)) {
        undisturbed_run found = look_at(what, change);
        if (!found.calls.empty()) {
          runs.push_back(std::move(found));
        }
      }
    }
    return runs;
  }

  static uint64_t stride() {
    const char *wanted = std::getenv("DATAMORPH_FAULTS");
    if (wanted == nullptr) {
      return k_stride;
    }
    const int number = std::atoi(wanted); // 0: "all"
    return number > 0 ? static_cast<uint64_t>(number) : 1;
  }

  // True for one case of so many, another one of each that follow; for all of them on request.
  bool is_due() {
    ++asked_;
    const bool due = asked_ % stride() == 0;
    done_ += due ? 1 : 0;
    return due;
  }

  std::string at(const undisturbed_run &of, const std::string &fault) const {
    return std::string(of.what->name) + ", to " + of.change.to + " from " + of.change.from + ", " +
           fault;
  }

  // The handle of the store that the first of the failing calls leaves open, if it does.
  std::vector<uint32> left_by_early_end(const std::vector<size_t> &hits) {
    for (const size_t hit : hits) {
      for (const auto &early : k_early_ends) {
        if (calls_[hit] == early.call) {
          std::vector<uint32> left = platform.open_handles();
          left.erase(std::remove_if(left.begin(), left.end(),
                                    [&](uint32 handle) {
                                      return platform.store_of(handle) != early.left_open ||
                                             std::count(handles_.begin(), handles_.end(), handle);
                                    }),
                     left.end());
          return left;
        }
      }
    }
    return {};
  }

  // What is open was so before, or is left open on purpose.
  void expect_tidy(const undisturbed_run &of, const std::vector<size_t> &hits,
                   const std::string &told) {
    std::vector<uint32> expected = handles_;
    for (const uint32 handle : left_by_early_end(hits)) {
      expected.push_back(handle);
    }
    EXPECT_EQ(expected, platform.open_handles()) << at(of, told);
    for (const mts_ref_t message : platform.open_messages()) {
      const std::string drop = "mts_drop(7, " + std::to_string(message) + ")";
      EXPECT_EQ(1, std::count(calls_.begin(), calls_.end(), drop))
          << at(of, told) << ": a message was left";
    }
  }

  // The last run as the parts that have a status each.
  std::vector<part> parts_of(const undisturbed_run &of, syserr_t got, const std::string &told) {
    if (service_runs().empty()) {
      return {{0, calls_.size(), got}};
    }
    std::vector<part> parts;
    for (const service_run &service : service_runs()) {
      const size_t begin = parts.empty() ? 0 : parts.back().end;
      parts.push_back({begin, service.calls, service.status});
      EXPECT_EQ(service.status != 0 ? service.uuid : SRVUUID_NONE,
                static_cast<uuid_t>(service.failed.uuid))
          << at(of, told);
      EXPECT_EQ(service.status, service.failed.syserr) << at(of, told);
    }
    EXPECT_EQ(calls_.size(), parts.back().end) << at(of, told);
    return parts;
  }

  // After the call at `hit`, which the rule is for, nothing is written that it forbids.
  void expect_no_more(const undisturbed_run &of, const rule &its, size_t hit, size_t end,
                      const std::string &told) {
    if (its.no_more == nullptr) {
      return;
    }
    const std::string forbidden = forbidden_by(its, calls_, hit);
    int written = 0;
    for (size_t i = hit + 1; i < end; ++i) {
      const bool one = is_write(calls_[i]) && tells(calls_[i], forbidden.c_str());
      written += one ? 1 : 0;
      EXPECT_LE(written, its.spared)
          << at(of, told) << ": after " << calls_[hit] << ", " << calls_[i];
    }
  }

  static syserr_t described(const rule &its, const fault &happens) {
    if (its.status == k_errno) {
      return 0x801E0000 | static_cast<syserr_t>(happens.error);
    }
    return its.status == k_its_own ? happens.status : static_cast<syserr_t>(its.status);
  }

  // A part has the status that the first call gave it which ends it; else the one that it has when
  // nothing happens. What may be written instead is kept.
  void expect_part(const undisturbed_run &of, const part &one, const fault &happens,
                   const std::vector<size_t> &hits, const std::string &told) {
    std::set<syserr_t> expected = {of.status};
    for (const size_t hit : hits) {
      if (hit < one.begin || hit >= one.end) {
        continue;
      }
      const rule &its = rule_for(of.what->name, happens, calls_, hit);
      expect_no_more(of, its, hit, one.end, told);
      if (its.instead != nullptr) {
        instead_.insert(its.instead);
      }
      if (its.or_else != k_as_ever) {
        expected.insert(static_cast<syserr_t>(its.or_else));
      }
      if (its.status != k_as_ever) {
        expected = {described(its, happens)};
        break;
      }
    }
    EXPECT_EQ(1u, expected.count(one.status))
        << at(of, told) << ": " << std::hex << one.status << ", not " << *expected.begin();
  }

  bool may_be_written_instead(const undisturbed_run &of, const std::string &write) const {
    return std::any_of(instead_.begin(), instead_.end(), [&](const char *instead) {
      return instead == k_other_records
                 ? std::any_of(of.writes.begin(), of.writes.end(),
                               [&](const std::string &usual) {
                                 return function_and_store(usual) == function_and_store(write);
                               })
                 : write.rfind(instead, 0) == 0;
    });
  }

  // What is written is written when all goes well, too, and in this order unless records are other
  // ones than they were.
  void expect_nothing_else_written(const undisturbed_run &of, bool in_order,
                                   const std::string &told) {
    auto from = of.writes.begin();
    for (const std::string &write : writes_of(calls_)) {
      const auto found = std::find(in_order ? from : of.writes.begin(), of.writes.end(), write);
      if (found != of.writes.end()) {
        from = found + 1;
      } else {
        EXPECT_TRUE(may_be_written_instead(of, write) || comes_of_another_row(of.what->name, write))
            << at(of, told) << ": " << write;
      }
    }
  }

  // A deletion that is pending, which is made before the cursor's next step, is made all the same.
  static bool is_forbidden(const rule &its, const lines_t &calls, size_t hit, size_t write) {
    if (its.no_more == nullptr || !tells(calls[write], forbidden_by(its, calls, hit).c_str())) {
      return false;
    }
    const auto begin = calls.begin() + static_cast<std::ptrdiff_t>(hit) + 1;
    const auto end = calls.begin() + static_cast<std::ptrdiff_t>(write);
    const bool pending = std::none_of(begin, end, [](const std::string &call) {
      return function_of(call) == "pss2_move2location";
    });
    return its.spared == 0 || !pending;
  }

  // Whether a write of the undisturbed run stands after the single failure of the call at `hit`.
  static bool is_still_due(const undisturbed_run &of, const fault &happens, size_t hit,
                           size_t write) {
    const row_run &row = of.row_of(hit);
    const row_run &later = of.row_of(write);
    const rule &its = rule_for(row.name, happens, of.calls, hit);
    if (&row == &later) {
      return its.status == k_as_ever && !is_lost(row.name, happens, of.calls, hit, write) &&
             !is_forbidden(its, of.calls, hit, write);
    }
    const bool stopped =
        its.status != k_as_ever && its.status != 0 && (!of.what->is_each || row.uuid == later.uuid);
    return !stopped && !depends_on_row(row.name, of.calls[write]);
  }

  // After a failure with which a routine goes on, or with which only one row ends, it writes all
  // that it writes when all goes well, in this order.
  void expect_goes_on(const undisturbed_run &of, const fault &happens, size_t hit,
                      const std::string &told) {
    auto from = calls_.begin() + static_cast<std::ptrdiff_t>(hit) + 1;
    for (size_t i = hit + 1; i < of.calls.size(); ++i) {
      if (!is_write(of.calls[i]) || !is_still_due(of, happens, hit, i)) {
        continue;
      }
      const auto found = std::find(from, calls_.end(), of.calls[i]);
      EXPECT_NE(calls_.end(), found) << at(of, told) << ": not written: " << of.calls[i];
      from = found == calls_.end() ? from : found + 1;
      ++still_due_;
    }
  }

  // The n-th call was the first one to which it happened.
  void expect_as_described(const undisturbed_run &of, unsigned nth, const fault &happens,
                           syserr_t got, const std::string &told) {
    ASSERT_LE(nth, calls_.size()) << at(of, told);
    EXPECT_TRUE(std::equal(calls_.begin(), calls_.begin() + nth, of.calls.begin()))
        << at(of, told) << ": other calls before";
    const std::string function = function_of(of.calls[nth - 1]);
    std::vector<size_t> hits = {nth - 1};
    for (size_t i = nth; happens.forever && i < calls_.size(); ++i) {
      if (!happens.gives_data || function_of(calls_[i]) == function) {
        hits.push_back(i);
      }
    }
    EXPECT_EQ(hits.size(), platform.scripted()) << at(of, told);
    instead_.clear();
    expect_tidy(of, happens.gives_data ? std::vector<size_t>() : hits, told);
    for (const part &one : parts_of(of, got, told)) {
      expect_part(of, one, happens, hits, told);
    }
    expect_nothing_else_written(of, !happens.gives_data, told);
    if (!happens.gives_data && !happens.forever) {
      expect_goes_on(of, happens, nth - 1, told);
    }
    expect_freed(of, told);
  }

  void expect_as_described(const undisturbed_run &of, const allocation_rule &its, syserr_t got,
                           const std::string &told) {
    EXPECT_EQ(its.status == k_as_ever ? of.status : static_cast<syserr_t>(its.status), got)
        << at(of, told);
    for (const std::string &write : writes_of(calls_)) {
      for (const char *text : its.not_written) {
        EXPECT_FALSE(text != nullptr && tells(write, text)) << at(of, told) << ": " << write;
      }
    }
  }

  void fail_call(const undisturbed_run &of, unsigned nth, const failure &with, bool forever) {
    const std::string told = std::to_string(nth) + " " + of.calls[nth - 1] + " gives " +
                             std::to_string(with.status) + ", errno " + std::to_string(with.error) +
                             (forever ? " from then on" : "");
    const syserr_t got = run(*of.what, of.change, most_calls(of.calls.size()), [&] {
      forever ? platform.fail_any_from(nth, with.status, with.error)
              : platform.fail_any(nth, with.status, with.error);
    });
    expect_as_described(of, nth, {false, with.status, with.error, forever}, got, told);
  }

  // False when the routine makes no such allocation.
  bool fail_allocation(const undisturbed_run &of, unsigned nth, bool forever) {
    const std::string told =
        "allocation " + std::to_string(nth) + (forever ? " and all later ones" : "");
    const syserr_t got = run(*of.what, of.change, most_calls(of.calls.size()), [&] {
      forever ? scarce_malloc::refuse_from(nth) : scarce_malloc::refuse_nth(nth);
    });
    if (!scarce_malloc::relieve()) {
      return false;
    }
    instead_.clear();
    expect_tidy(of, {}, told);
    expect_as_described(of, allocation_rule_for(of.what->name, nth), got, told);
    expect_nothing_else_written(of, true, told);
    expect_freed(of, told);
    return true;
  }

  static std::string text_of(const fault &spoilt) {
    if (spoilt.handles) {
      return "says " + std::to_string(*spoilt.handles) + " of its handles";
    }
    if (spoilt.number) {
      return "gives " + std::to_string(*spoilt.number);
    }
    if (spoilt.without_bytes) {
      return "gives bytes that are nowhere";
    }
    return spoilt.data ? "gives " + std::to_string(spoilt.data->size()) + " bytes"
                       : "gives nothing";
  }

  // The `ordinal`-th call of this function, or all from it on, give this.
  void script(const std::string &function, unsigned ordinal, const fault &spoilt) {
    const bool forever = spoilt.forever;
    if (spoilt.handles) {
      forever ? platform.answer_handles_from(*spoilt.handles, ordinal)
              : platform.answer_handles(*spoilt.handles, ordinal);
    } else if (spoilt.number) {
      forever ? platform.fail_from(function, *spoilt.number, ordinal)
              : platform.fail(function, *spoilt.number, ordinal);
    } else if (spoilt.without_bytes) {
      forever ? platform.answer_without_bytes_from(function, k_nowhere, ordinal)
              : platform.answer_without_bytes(function, k_nowhere, ordinal);
    } else if (spoilt.data) {
      forever ? platform.answer_from(function, *spoilt.data, ordinal)
              : platform.answer(function, *spoilt.data, ordinal);
    } else {
      forever ? platform.answer_null_from(function, ordinal)
              : platform.answer_null(function, ordinal);
    }
  }

  // A call that gives data gives this, once or from then on.
  void spoil_data(const undisturbed_run &of, unsigned nth, const fault &spoilt) {
    const std::string &call = of.calls[nth - 1];
    const std::string function = function_of(call);
    const auto before =
        std::count_if(of.calls.begin(), of.calls.begin() + nth,
                      [&](const std::string &one) { return function_of(one) == function; });
    const std::string told = std::to_string(nth) + " " + call + " " + text_of(spoilt) +
                             (spoilt.forever ? " from then on" : "");
    const syserr_t got = run(*of.what, of.change, most_calls(of.calls.size()),
                             [&] { script(function, static_cast<unsigned>(before), spoilt); });
    expect_as_described(of, nth, spoilt, got, told);
  }

  // That a rule is used is seen in the short form, too, which runs few of the cases.
  static void mark_rules(const undisturbed_run &of, size_t hit, const failure &with) {
    const bool tells_apart = with.status == SYSERR_PSS_NOT_FOUND ||
                             with.status == SYSERR_PSS_DAMAGED || with.status == SYSERR_TLV_END ||
                             with.status == SYSERR_PSS_IO;
    if (!tells_apart) {
      return;
    }
    const fault happens = {false, with.status, with.error};
    rule_for(of.what->name, happens, of.calls, hit);
    if (of.what->rows == nullptr) {
      is_lost(of.what->name, happens, of.calls, hit, hit);
    }
  }

  // For every routine, pair and call: `each` with the number of the call.
  void for_each_call(const char *what,
                     const std::function<void(const undisturbed_run &, unsigned)> &each) {
    const std::vector<undisturbed_run> &runs = all_runs();
    for (const undisturbed_run &of : runs) {
      for (unsigned nth = 1; nth <= of.calls.size(); ++nth) {
        each(of, nth);
      }
    }
    tell(what);
  }

  void tell(const char *what) {
    std::vector<std::string> texts;
    for (const undisturbed_run &of : all_runs()) {
      texts.emplace_back(of.what->name);
    }
    std::printf("%s: %llu of %llu cases run, %s, of %zu routines in %zu runs at pairs of releases; "
                "one of %llu, by their order, nothing is drawn\n",
                what, static_cast<unsigned long long>(done_),
                static_cast<unsigned long long>(asked_), HasFailure() ? "not all hold" : "all hold",
                exported_names_in(texts).size(), texts.size(),
                static_cast<unsigned long long>(stride()));
    EXPECT_EQ(asked_ / stride(), done_);
  }

  lines_t calls_;                  // of the last run
  std::set<const char *> instead_; // what its rules let it write instead
  static constexpr unsigned k_stride = FAULT_STRIDE;
  static constexpr uint32 k_nowhere = 12; // bytes
  uint64_t asked_ = 0;
  uint64_t done_ = 0;
  uint64_t still_due_ = 0; // writes that were made after a failure
  long blocks_ = 0;        // allocated before the last run
  open_stores open_;
  std::vector<uint32> handles_;
  int real_stderr_ = -1;
};

TEST_F(fault_test, every_call_fails_with_every_status) {
  for_each_call("failing calls", [this](const undisturbed_run &of, unsigned nth) {
    for (const failure &with : failures_of(function_of(of.calls[nth - 1]))) {
      mark_rules(of, nth - 1, with);
      for (const bool forever : {false, true}) {
        // A wait that is interrupted is waited anew, as often as it is.
        const bool without_end =
            forever && with.error == EINTR && function_of(of.calls[nth - 1]) == "mts_recv";
        if (!without_end && is_due()) {
          fail_call(of, nth, with, forever);
        }
      }
    }
  });
  EXPECT_EQ("", rules_without_use(false));
  EXPECT_EQ("", losses_without_use());
  EXPECT_LT(k_failing_calls, asked_);
  std::printf("%llu writes after them\n", static_cast<unsigned long long>(still_due_));
  EXPECT_LT(done_, still_due_);
}

TEST_F(fault_test, every_call_gives_data_that_cannot_be_right) {
  for_each_call("spoilt data", [&](const undisturbed_run &of, unsigned nth) {
    for (fault &spoilt : spoilt_answers(of.calls, nth - 1)) {
      rule_for(of.what->name, spoilt, of.calls, nth - 1); // is used
      for (const bool forever : {false, true}) {
        spoilt.forever = forever;
        if (is_due()) {
          spoil_data(of, nth, spoilt);
        }
      }
    }
  });
  EXPECT_EQ("", rules_without_use(true));
  EXPECT_LT(k_spoilt_answers, asked_);
}

TEST_F(fault_test, every_allocation_fails) {
  for (const undisturbed_run &of : all_runs()) {
    for (unsigned nth = 1; fail_allocation(of, nth, false); ++nth) {
      EXPECT_TRUE(fail_allocation(of, nth, true)) << at(of, std::to_string(nth));
      done_ += 2;
    }
  }
  std::printf("failing allocations: %llu cases run, %s\n", static_cast<unsigned long long>(done_),
              HasFailure() ? "not all hold" : "all hold");
  EXPECT_LT(k_failing_allocations, done_);
}

} // namespace
