// Every platform call of every routine fails, at every pair of releases at which the routine calls
// the platform: once and from then on, with each status there is, or with data that cannot be
// right. And every allocation. The routine comes back with a status that it may have, has
// closed what it opened, and wrote nothing that it does not write when all goes well.
//
// A short form runs by default; DATAMORPH_FAULTS=all runs all of them.
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

const char *const k_releases[] = {"3.3(1)", "4.0(4)", "4.1(1)", "4.1(2)", "4.1(3)",
                                  "4.1(5)", "4.2(0)", "4.2(1)", "4.2(2)", "4.2(3)"};

// Each status of the platform, one of somebody else's, and all bits.
const syserr_t k_statuses[] = {0x40480001, 0x40480002, 0x40480003, 0x40480004, 0x40480006,
                               0x40480008, 0x40480009, 0x4048000A, 0x4048000B, 0x4048000C,
                               0x4048000D, 0x40490001, 0x40490002, 0x401E0076, 0x00000001,
                               0xFFFFFFFF};

// What a routine may give of its own.
const std::set<syserr_t> k_own_statuses = {0,          0xFFFFFFFF, 0x401E0056, 0x401E0076,
                                           0x401E00A3, 0x40480008, 0x40480009, 2,
                                           3};

const std::set<std::string> k_writes = {
    "pss_create",       "pss_store",         "pss_delete",      "pss_destroy",
    "pss_snapshot",     "pss2_store",        "pss2_delete",     "pss2_destroy",
    "pss2_kernel2file", "mts_sap_destroy",   "mts_send",        "sysmgr_srv_tag_info_add",
    "pss2_file2kernel", "sysmgr_srv_tag_info_table_prepare"};

std::string function_of(const std::string &call) {
  return call.substr(0, call.find('('));
}

// The calls that write, without the numbers of handles, which tell nothing.
std::set<std::string> writes_of(const lines_t &calls) {
  static const std::regex handle("^(pss2?_[a-z0-9]+)\\([0-9]+, |^(pss2_kernel2file)\\([0-9]+, ");
  std::set<std::string> found;
  for (const std::string &call : calls) {
    if (k_writes.count(function_of(call)) == 1) {
      found.insert(std::regex_replace(call, handle, "$1$2("));
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
  unsigned allocations = 0;
};

class fault_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    setenv("SYSMGR_VDC_ID", "1", 1);
    setenv("SYSMGR_RUNNING_CFG_DIR", "/cfg", 1);
    setenv("SYSMGR_TO_SRG_PATH", "/images/to", 1);
    setenv("SYSMGR_FROM_SRG_PATH", "/images/from", 1);
    switch_root::write_file("/tmp/fc_nport_mux", "");
    // A log that cannot be opened: what is traced is not what is looked at here.
    switch_root::write_file("/mnt/pss/data_morph.log/in the way", "");
    switch_root::write_file("/bootflash/data_morph_vrrp_mgr.log/in the way", "");
    switch_root::write_file("/bootflash/data_morph_vrrp_eng.log/in the way", "");
    real_stderr_ = dup(STDERR_FILENO);
    ASSERT_NE(nullptr, std::freopen("/dev/null", "w", stderr));
  }
  void TearDown() override {
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
    undisturbed_run found{&what, change, {}, {}, 0};
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

  // True for one case of so many, another one of each that follow; for all of them on request.
  bool is_due() {
    static const bool all = std::getenv("DATAMORPH_FAULTS") != nullptr;
    ++asked_;
    const bool due = all || asked_ % k_stride == 0;
    done_ += due ? 1 : 0;
    return due;
  }

  void expect_tidy(const undisturbed_run &of, const std::string &fault) {
    const std::string where = std::string(of.what->name) + ", to " + of.change.to + " from " +
                              of.change.from + ", " + fault;
    std::vector<uint32> left = platform.open_handles();
    EXPECT_TRUE(std::includes(handles_.begin(), handles_.end(), left.begin(), left.end()))
        << where << ": a store was left open";
    EXPECT_TRUE(platform.open_messages().empty()) << where << ": a message was left";
  }

  void expect_nothing_else_written(const undisturbed_run &of, const std::string &fault) {
    for (const std::string &write : writes_of(platform.calls())) {
      EXPECT_EQ(1u, of.writes.count(write))
          << of.what->name << ", to " << of.change.to << " from " << of.change.from << ", " << fault
          << ": " << write;
    }
  }

  void expect_status(const undisturbed_run &of, syserr_t given, syserr_t got,
                     const std::string &fault) {
    const bool own = k_own_statuses.count(got) == 1 || got == given;
    EXPECT_TRUE(own || (got & 0xFFFFF000) == 0x801E0000)
        << of.what->name << ", to " << of.change.to << " from " << of.change.from << ", " << fault
        << ": " << std::hex << got;
  }

  void fail_call(const undisturbed_run &of, unsigned nth, syserr_t status, bool forever) {
    const std::string fault = std::to_string(nth) + " " + of.calls[nth - 1] + " gives " +
                              std::to_string(status) + (forever ? " from then on" : "");
    const syserr_t got = run(*of.what, of.change, [&] {
      forever ? platform.fail_any_from(nth, status) : platform.fail_any(nth, status);
    });
    EXPECT_NE(0u, platform.scripted()) << of.what->name << " " << fault;
    expect_tidy(of, fault);
    expect_status(of, status, got, fault);
    expect_nothing_else_written(of, fault);
  }

  static constexpr unsigned k_stride = 53;
  uint64_t asked_ = 0;
  uint64_t done_ = 0;
  open_stores open_;
  std::vector<uint32> handles_;
  int real_stderr_ = -1;
};

TEST_F(fault_test, every_call_fails_with_every_status) {
  const std::vector<undisturbed_run> runs = all_runs();
  for (const undisturbed_run &of : runs) {
    for (unsigned nth = 1; nth <= of.calls.size(); ++nth) {
      for (const syserr_t status : k_statuses) {
        for (const bool forever : {false, true}) {
          if (is_due()) {
            fail_call(of, nth, status, forever);
          }
        }
      }
    }
  }
  std::printf("faults: %zu routines at releases, %llu of %llu failing calls\n", runs.size(),
              static_cast<unsigned long long>(done_), static_cast<unsigned long long>(asked_));
  EXPECT_GT(done_, 1000u);
}

} // namespace
