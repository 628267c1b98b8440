// A conversion was stopped between its last two steps, and who tidies up cannot look at what it
// left: each of those calls fails, once and from then on. The state before the conversion stays,
// and the next command completes it.
#include "crash/crash_fixture.h"

#include <cerrno>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

const failing looks[] = {
    {"EIO", EIO, {call_kind::examine, call_kind::open, call_kind::read_folder, call_kind::read}},
    {"EMFILE", EMFILE, {call_kind::open, call_kind::read_folder}}};

class leftovers : public crash_test {
protected:
  // What the two steps are told apart by.
  static bool is_told_apart_by(const std::string &path) {
    return path == "sw/.copy" || path == "sw/next" || path == "sw/next/switch.json" ||
           path == "sw/current/switch.json";
  }

  // How many such calls there were.
  size_t show(const failing &how, size_t at, bool for_ever, result *ended) {
    size_t seen = 0;
    *ended = watched(
        {"lab", "show", "disk/sw"},
        [&](const file_call &call) {
          if (how.which.count(call.kind) == 0 || !is_told_apart_by(call.path)) {
            return answer();
          }
          const size_t number = seen++;
          return number == at || (for_ever && number > at) ? answer{answer_kind::fail, how.error}
                                                           : answer();
        },
        call_watch::scope::reading);
    return seen;
  }

  void expect_kept(const failing &how, size_t at, bool for_ever) {
    restore(before_);
    result failed;
    show(how, at, for_ever, &failed);
    const std::string where = std::string(how.name) + " at call " + std::to_string(at) +
                              (for_ever ? " and on" : "") + ": " + failed.err;
    EXPECT_TRUE(failed.status == 0 || failed.status == 1 || failed.status == 3) << where;
    EXPECT_NE(failed.err.find("datamorph: "), std::string::npos) << where;
    const result next = run({"lab", "show", "disk/sw"});
    EXPECT_EQ(next.status, 0) << next.err;
    const disk_tree after = disk();
    EXPECT_EQ(after.digest("sw/previous"), before_.digest("sw/next")) << where;
    EXPECT_EQ(after.digest("sw/current"), before_.digest("sw/current")) << where;
  }
};

TEST_F(leftovers, that_cannot_be_looked_at_stay) {
  make_disk(roll_back);
  fs::rename(path("disk/sw/previous"), path("disk/sw/next"));
  before_ = disk();
  for (const failing &how : looks) {
    restore(before_);
    result undisturbed;
    const size_t calls = show(how, SIZE_MAX, false, &undisturbed);
    EXPECT_EQ(undisturbed.status, 0) << undisturbed.err;
    EXPECT_GE(calls, 3U) << how.name;
    for (size_t at = 0; at < calls; ++at) {
      expect_kept(how, at, false);
      expect_kept(how, at, true);
    }
  }
}

} // namespace
