// Every platform call of every routine fails, at every pair of releases at which the routine calls
// the platform: once and from then on, with each status there is, or with data that cannot be
// right. And every allocation. The routine comes back with a status that it may have, has
// closed what it opened, and wrote nothing that it does not write when all goes well.
//
// A short form runs by default; DATAMORPH_FAULTS=all runs all of them, DATAMORPH_FAULTS=N one of so
// many.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <set>

#include "fault/busy_switch.h"
#include "libdatamorph_private.h"
#include "support/library_fixture.h"
#include "support/scarce_malloc.h"

namespace {

using lines_t = std::vector<std::string>;

// Each status of the platform, one of somebody else's, and all bits.
const syserr_t k_statuses[] = {
    0x40480001, 0x40480002, 0x40480003, 0x40480004, 0x40480006, 0x40480008, 0x40480009, 0x4048000A,
    0x4048000B, 0x4048000C, 0x4048000D, 0x40490001, 0x40490002, 0x401E0076, 0x00000001, 0xFFFFFFFF};

// What a routine may give of its own.
const std::set<syserr_t> k_own_statuses = {
    0, 0xFFFFFFFF, 0x401E0056, 0x401E0076, 0x401E00A3, 0x40480008, 0x40480009, 2, 3};

const std::set<std::string> k_writes = {"pss_create",       "pss_store",
                                        "pss_delete",       "pss_destroy",
                                        "pss_snapshot",     "pss2_store",
                                        "pss2_delete",      "pss2_destroy",
                                        "pss2_kernel2file", "mts_sap_destroy",
                                        "mts_send",         "sysmgr_srv_tag_info_add",
                                        "pss2_file2kernel", "sysmgr_srv_tag_info_table_prepare"};

// Where a store stays open when this call fails: VRRP's early ends, on purpose.
const char *const k_early_ends[] = {
    "pss_open(\"nonvolatile:/cfg/bin/vrrp-cfg_config_sav\")",
    "pss_open(\"nonvolatile:/cfg/bin/vrrp-eng_runtime_config\")",
    "pss_snapshot(\"nonvolatile:/cfg/bin/vrrp-eng_runtime_config\")",
    "pss_snapshot(\"nonvolatile:/tmp/vrrp-startup-pss\")",
};

// The table of tags is begun anew when the configuration has none, as far as can be told.
constexpr char k_new_table[] = "pss_store(1, 090000000000000000000000, 11000000010001000100050";

std::string function_of(const std::string &call) {
  return call.substr(0, call.find('('));
}

// A call without the numbers of handles and the snapshots' flags, which tell nothing.
std::string told(const std::string &call) {
  static const std::regex handle("^(pss2?_[a-z0-9]+\\()[0-9]+, (0, (?=\"))?");
  return std::regex_replace(call, handle, "$1");
}

std::set<std::string> writes_of(const lines_t &calls) {
  std::set<std::string> found;
  for (const std::string &call : calls) {
    if (k_writes.count(function_of(call)) == 1) {
      found.insert(told(call));
    }
  }
  return found;
}

// A routine at a pair of releases, as it goes when all goes well.
struct undisturbed_run {
  const routine *what;
  releases change;
  lines_t calls;
  std::set<std::string> writes;
};

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

  // Runs a routine on the busy switch; `spoil` comes before it, when its stores are open.
  syserr_t run(const routine &what, const releases &change, const std::function<void()> &spoil) {
    make_busy_switch(change);
    open_ = what.takes_stores ? open_for_steps() : open_stores();
    handles_ = platform.open_handles();
    platform.clear();
    spoil();
    return what.run(open_, change);
  }

  undisturbed_run look_at(const routine &what, const releases &change) {
    undisturbed_run found{&what, change, {}, {}};
    run(what, change, [] {});
    found.calls = platform.calls();
    found.writes = writes_of(found.calls);
    return found;
  }

  // Each routine at each pair at which it calls the platform.
  std::vector<undisturbed_run> all_runs() {
    std::vector<undisturbed_run> runs;
    for (const routine &what : k_routines) {
      for (const char *to : k_releases) {
        for (const char *from : k_releases) {
          undisturbed_run found = look_at(what, {to, from});
          if (!found.calls.empty()) {
            runs.push_back(std::move(found));
          }
        }
      }
    }
    return runs;
  }

  static uint64_t stride_wanted() {
    const char *wanted = std::getenv("DATAMORPH_FAULTS");
    if (wanted == nullptr) {
      return k_stride;
    }
    const int number = std::atoi(wanted); // 0: "all"
    return number > 0 ? static_cast<uint64_t>(number) : 1;
  }

  // True for one case of so many, another one of each that follow; for all of them on request.
  bool is_due() {
    static const uint64_t stride = stride_wanted();
    ++asked_;
    const bool due = asked_ % stride == 0;
    done_ += due ? 1 : 0;
    return due;
  }

  std::string at(const undisturbed_run &of, const std::string &fault) const {
    return std::string(of.what->name) + ", to " + of.change.to + " from " + of.change.from + ", " +
           fault;
  }

  // Of what was opened only that is open still whose own end failed.
  void expect_tidy(const undisturbed_run &of, const std::string &failed, const std::string &fault) {
    const std::vector<uint32> left = platform.open_handles();
    const bool early =
        std::count(std::begin(k_early_ends), std::end(k_early_ends), told(failed)) != 0;
    EXPECT_TRUE(early || std::includes(handles_.begin(), handles_.end(), left.begin(), left.end()))
        << at(of, fault) << ": a store was left open";
    for (const mts_ref_t message : platform.open_messages()) {
      const std::string drop = "mts_drop(7, " + std::to_string(message) + ")";
      EXPECT_EQ(1, std::count(platform_calls_.begin(), platform_calls_.end(), drop))
          << at(of, fault) << ": a message was left";
    }
  }

  void expect_nothing_else_written(const undisturbed_run &of, const std::string &fault) {
    for (const std::string &write : writes_of(platform_calls_)) {
      EXPECT_TRUE(of.what->has_rows || of.writes.count(write) == 1 ||
                  write.rfind(k_new_table, 0) == 0)
          << at(of, fault) << ": " << write;
    }
  }

  void expect_status(const undisturbed_run &of, syserr_t given, syserr_t got,
                     const std::string &fault) {
    const bool own = k_own_statuses.count(got) == 1 || got == given;
    EXPECT_TRUE(own || (got & 0xFFFFF000) == 0x801E0000)
        << at(of, fault) << ": " << std::hex << got;
  }

  void fail_call(const undisturbed_run &of, unsigned nth, syserr_t status, bool forever) {
    const std::string &failed = of.calls[nth - 1];
    const std::string fault = std::to_string(nth) + " " + failed + " gives " +
                              std::to_string(status) + (forever ? " from then on" : "");
    const syserr_t got = run(*of.what, of.change, [&] {
      forever ? platform.fail_any_from(nth, status) : platform.fail_any(nth, status);
    });
    platform_calls_ = platform.calls();
    EXPECT_NE(0u, platform.scripted()) << at(of, fault);
    expect_tidy(of, failed, fault);
    expect_status(of, status, got, fault);
    expect_nothing_else_written(of, fault);
  }

  // A call that gives data gives these, once or from then on.
  void spoil_data(const undisturbed_run &of, unsigned nth, const std::optional<std::string> &data,
                  bool forever) {
    const std::string &spoilt = of.calls[nth - 1];
    const std::string function = function_of(spoilt);
    const auto before =
        std::count_if(of.calls.begin(), of.calls.begin() + nth,
                      [&](const std::string &call) { return function_of(call) == function; });
    const auto ordinal = static_cast<unsigned>(before);
    const std::string fault = std::to_string(nth) + " " + spoilt + " gives " +
                              (data ? std::to_string(data->size()) + " bytes" : "nothing") +
                              (forever ? " from then on" : "");
    const syserr_t got = run(*of.what, of.change, [&] {
      if (data) {
        forever ? platform.answer_from(function, *data, ordinal)
                : platform.answer(function, *data, ordinal);
      } else {
        forever ? platform.answer_null_from(function, ordinal)
                : platform.answer_null(function, ordinal);
      }
    });
    platform_calls_ = platform.calls();
    EXPECT_NE(0u, platform.scripted()) << at(of, fault);
    expect_tidy(of, spoilt, fault);
    if (function != "mts_payload_get") { // its bytes are the status
      expect_status(of, 0, got, fault);
    }
  }

  // For every routine, pair and call: `each` with the number of the call.
  void for_each_call(const char *what,
                     const std::function<void(const undisturbed_run &, unsigned)> &each) {
    const std::vector<undisturbed_run> runs = all_runs();
    for (const undisturbed_run &of : runs) {
      for (unsigned nth = 1; nth <= of.calls.size(); ++nth) {
        each(of, nth);
      }
    }
    std::printf("%s: %llu of %llu cases run, %s, of %zu routines at pairs of releases\n", what,
                static_cast<unsigned long long>(done_), static_cast<unsigned long long>(asked_),
                HasFailure() ? "not all hold" : "all hold", runs.size());
    EXPECT_GT(done_, std::getenv("DATAMORPH_FAULTS") != nullptr ? 0u : 300u);
  }

  lines_t platform_calls_;
  static constexpr unsigned k_stride = FAULT_STRIDE;
  uint64_t asked_ = 0;
  uint64_t done_ = 0;
  open_stores open_;
  std::vector<uint32> handles_;
  int real_stderr_ = -1;
};

TEST_F(fault_test, every_call_fails_with_every_status) {
  for_each_call("failing calls", [this](const undisturbed_run &of, unsigned nth) {
    for (const syserr_t status : k_statuses) {
      for (const bool forever : {false, true}) {
        if (is_due()) {
          fail_call(of, nth, status, forever);
        }
      }
    }
  });
}

TEST_F(fault_test, every_call_gives_data_that_cannot_be_right) {
  const std::set<std::string> giving = {
      "pss_fetch",   "pss_getvalue",  "pss_move2key",    "pss_move2location",  "pss2_fetch",
      "pss2_getkey", "pss2_getvalue", "mts_payload_get", "srg_sw_ver_file_get"};
  // A walk whose cursor gives a key for ever is as long as the platform wants.
  const std::set<std::string> cursors = {"pss_move2key", "pss_move2location", "pss2_getkey"};
  const std::optional<std::string> datas[] = {std::nullopt,
                                              "",
                                              std::string(1, '\x01'),
                                              std::string(3, '\0'),
                                              std::string(64, '\xff'),
                                              std::string(4096, '\0'),
                                              std::string(70000, '\xff')};
  for_each_call("spoilt data", [&](const undisturbed_run &of, unsigned nth) {
    const std::string function = function_of(of.calls[nth - 1]);
    if (giving.count(function) == 0) {
      return;
    }
    for (const std::optional<std::string> &data : datas) {
      for (const bool forever : {false, true}) {
        const bool endless = forever && data && cursors.count(function) == 1;
        // A payload has 4 bytes, or there is none.
        const bool too_short = function == "mts_payload_get" && data && data->size() < 4;
        if (!endless && !too_short && is_due()) {
          spoil_data(of, nth, data, forever);
        }
      }
    }
  });
}

TEST_F(fault_test, every_allocation_fails) {
  uint64_t cases = 0;
  for (const undisturbed_run &of : all_runs()) {
    for (const bool forever : {false, true}) {
      for (unsigned nth = 1;; ++nth) {
        const std::string fault = "allocation " + std::to_string(nth);
        const syserr_t got = run(*of.what, of.change, [&] {
          forever ? scarce_malloc::refuse_from(nth) : scarce_malloc::refuse_nth(nth);
        });
        if (!scarce_malloc::relieve()) {
          break;
        }
        platform_calls_ = platform.calls();
        expect_tidy(of, "", fault);
        expect_status(of, 0, got, fault);
        expect_nothing_else_written(of, fault);
        ++cases;
      }
    }
  }
  std::printf("failing allocations: %llu cases hold\n", static_cast<unsigned long long>(cases));
  EXPECT_GT(cases, 100u);
}

} // namespace
