// One call of a verb fails, as the disk or the kernel may make it: what is told of it, with which
// status, and which state the switch has then.
#include "crash/crash_fixture.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

constexpr unsigned each = 0;

enum class left : uint8_t { before, after };

struct row {
  const char *name;
  call_kind kind;
  const char *path; // or how it begins, where it ends with '*'
  unsigned nth;     // of such calls
  int error;
  int status;
  left state;
  const char *message; // a part of what is told
};

const words convert_words = {"convert", "disk/sw", "--to", "4.2(1)", "--service", "KPS"};
const words reboot_words = {"lab", "reboot", "disk/sw"};
const words roll_back_words = {"rollback", "disk/sw", "--yes"};
const words create_words = {"lab", "create", "disk/new", "--from", "switch.json"};
const words rehearse_words = {"rehearse",  "disk/sw", "--to",     "4.2(1)",
                              "--service", "KPS",     "--report", "disk/page.html"};

#define SWITCH "datamorph: 'disk/sw': "

const row conversions[] = {
    {"lock", call_kind::open, "sw/.lock", 1, EIO, 3, left::before,
     SWITCH "cannot open its lock file .lock: Input/output error; run as the user that the switch "
            "belongs to"},
    {"probe", call_kind::make_folder, "sw/.probe-a", 1, EROFS, 3, left::before,
     SWITCH "cannot write there: Read-only file system; make room, or run as the user that the "
            "switch belongs to"},
    {"exchange_of_probes", call_kind::exchange, "sw/.probe-a", 1, EINVAL, 3, left::before,
     SWITCH "its file system cannot exchange two folders (Invalid argument); move the switch to "
            "one that can, such as ext4 or xfs"},
    {"runs", call_kind::make_folder, "sw/runs", 1, EIO, 1, left::before,
     "cannot make the folder runs/: Input/output error; make room, or move what stands there out "
     "of the way"},
    {"run", call_kind::make_folder, "sw/runs/*", each, ENOSPC, 1, left::before,
     "cannot make a folder in runs/: No space left on device; make room, or move what stands there "
     "out of the way"},
    {"look", call_kind::examine, "sw/next", 1, EIO, 1, left::before,
     SWITCH "cannot examine 'next': Input/output error"},
    {"state", call_kind::read, "sw/current/switch.json", 1, EIO, 3, left::before,
     SWITCH "cannot read 'switch.json': Input/output error; mend disk/sw/current/switch.json; "
            "disk/sw/previous/switch.json has its members as they were before the last conversion"},
    {"list_of_runs_later", call_kind::list, "sw/runs", 3, EIO, 1, left::before,
     "cannot read the folder runs/: Input/output error"},
    {"images", call_kind::list, "sw/current/images", 1, EIO, 1, left::before,
     "not all images of the switch can be read: Input/output error"},
    {"record", call_kind::open, "sw/runs/0002/run.json*", 1, EIO, 1, left::before,
     SWITCH "cannot create 'run.json."},
    {"journal", call_kind::open, "sw/runs/0002/journal.jsonl", 1, EIO, 1, left::before,
     "cannot create journal.jsonl in the run's folder: Input/output error"},
    {"steps", call_kind::open, "sw/runs/0002/steps.jsonl", 1, EIO, 1, left::before, "4"},
    {"log", call_kind::open, "sw/runs/0002/conversion.log", 1, EIO, 1, left::before,
     SWITCH "not converted: cannot create conversion.log in the run's folder: Input/output error; "
            "the switch is as it was, still at 4.1(5)"},
    {"sync_of_runs", call_kind::sync, "sw/runs", 1, EIO, 1, left::before,
     "cannot sync the switch's folder: Input/output error"},
    {"mark", call_kind::open, "sw/.copy", 1, EIO, 1, left::before,
     "cannot mark the copy of the state: Input/output error"},
    {"sync_of_mark", call_kind::sync, "sw/.copy", 1, EIO, 1, left::before,
     "cannot mark the copy of the state: Input/output error"},
    {"sync_of_conversion", call_kind::sync_all, "sw/next", 1, EIO, 1, left::before,
     "cannot sync the converted state: Input/output error"},
    {"sync_of_copy", call_kind::sync_all, "sw/next", 2, EIO, 1, left::before,
     "cannot sync the copy of the state: Input/output error"},
    {"unmark", call_kind::remove, "sw/.copy", 1, EIO, 1, left::before,
     "cannot unmark the copy of the state: Input/output error"},
    {"exchange", call_kind::exchange, "sw/current", 1, EIO, 1, left::before,
     "cannot exchange the states: Input/output error"},
    {"aside", call_kind::move, "sw/previous", 1, EIO, 0, left::after,
     SWITCH "the conversion is done, but tidying up failed (cannot put previous/ aside: "
            "Input/output error); the next command completes it"},
    {"previous", call_kind::move, "sw/next", 1, EIO, 0, left::after,
     SWITCH "the conversion is done, but tidying up failed (cannot keep the state before the "
            "conversion: Input/output error); the next command completes it"},
};

const row reboots[] = {
    {"emptying", call_kind::read_folder, "sw/next/tmp", 3, EIO, 1, left::before,
     "not rebooted: cannot empty /tmp: Input/output error; the switch is as it was"},
    {"sync", call_kind::sync_all, "sw/next", 1, EIO, 1, left::before,
     "not rebooted: cannot sync the copy of the state: Input/output error; the switch is as it "
     "was"},
    {"tidying", call_kind::sync, "sw", 4, EIO, 0, left::after,
     SWITCH "the state is replaced, but tidying up failed (cannot sync the switch's folder: "
            "Input/output error)"},
};

const row roll_backs[] = {
    {"exchange", call_kind::exchange, "sw/current", 1, EIO, 1, left::before,
     "cannot exchange the states: Input/output error"},
    {"sync", call_kind::sync, "sw", 2, EIO, 0, left::after,
     SWITCH "the states are exchanged, but cannot sync the switch's folder: Input/output error"},
};

const row creations[] = {
    {"folder", call_kind::make_folder, ".new.creating/current", 1, EIO, 1, left::before,
     "datamorph: 'disk/new': cannot make current: Input/output error"},
    {"sync", call_kind::sync_all, ".new.creating", 1, EIO, 1, left::before,
     "datamorph: 'disk/new': cannot sync the switch: Input/output error"},
    {"place", call_kind::move, ".new.creating", 1, EIO, 1, left::before,
     "datamorph: 'disk/new': cannot put the switch in place: Input/output error"},
    {"sync_of_place", call_kind::sync, "", 1, EIO, 0, left::after,
     "datamorph: 'disk/new': the switch stands, but its name may not outlast a loss of power: "
     "Input/output error"},
};

const row rehearsals[] = {
    {"folder", call_kind::make_folder, "scratch/*", each, EIO, 3, left::before,
     "datamorph: 'disk/sw': cannot make a folder for the copy in "},
    {"file", call_kind::open, "scratch/*", 1, EIO, 1, left::before,
     "datamorph: 'disk/sw': cannot copy the switch's state: cp: cannot create regular file "},
    {"file_without_right", call_kind::open, "scratch/*", 1, EACCES, 3, left::before,
     "datamorph: 'disk/sw': cannot copy the switch's state: cp: cannot create regular file "},
    {"file_without_room", call_kind::open, "scratch/*", 1, ENOSPC, 3, left::before,
     "datamorph: 'disk/sw': the disk became full while its state was copied: "},
    {"page", call_kind::write, "page.html*", 1, EIO, 1, left::before,
     "cannot write the report's page: Input/output error"},
};

// Verbs that only look.
const row shows[] = {
    {"images", call_kind::list, "sw/current/images", 1, EIO, 1, left::before,
     SWITCH "not all images of the switch can be read: Input/output error"},
    {"stores", call_kind::list, "sw/current/cfg", 1, EIO, 1, left::before,
     SWITCH "not all stores of the switch can be read: Input/output error"},
    {"files", call_kind::list, "sw/current/cfg", 3, EIO, 1, left::before,
     SWITCH "not all files could be looked at: Input/output error"},
    {"file", call_kind::examine, "sw/current/bootflash/boot.cfg", 2, EIO, 1, left::before,
     SWITCH "cannot examine '/bootflash/boot.cfg': Input/output error"},
    {"access_points", call_kind::list, "sw/current/var/run/mts", 3, EIO, 1, left::before,
     SWITCH "not all access points of the switch can be read: Input/output error"},
};

const row checks[] = {
    {"images", call_kind::list, "sw/current/images", 1, EIO, 1, left::before,
     SWITCH "not all images of the switch can be read: Input/output error"},
    {"stores", call_kind::list, "sw/current/cfg", 3, EIO, 3, left::before,
     "not all stores of the switch can be read: Input/output error"},
};

class told : public crash_test {
protected:
  // The switch was converted to 4.2(1), and has a previous state.
  void SetUp() override {
    crash_test::SetUp();
    make_disk(roll_back);
    fs::create_directories(path("disk/scratch"));
    set("TMPDIR", path("disk/scratch"));
    before_ = disk();
  }

  static bool is_like(const std::string &path, const std::string &wanted) {
    const bool begins = wanted.ends_with('*');
    return begins ? path.starts_with(wanted.substr(0, wanted.size() - 1)) : path == wanted;
  }

  static call_watch::scope scope_of(call_kind kind) {
    return kind == call_kind::read || kind == call_kind::list || kind == call_kind::examine
               ? call_watch::scope::reading
               : call_watch::scope::changes;
  }

  void expect_told(const words &verb, const row &one) {
    SCOPED_TRACE(one.name);
    restore(before_);
    unsigned seen = 0;
    const auto decide = [&](const file_call &call) {
      const bool like = call.kind == one.kind && is_like(call.path, one.path);
      seen += like ? 1 : 0;
      const bool now = like && (one.nth == each || seen == one.nth);
      return now ? answer{answer_kind::fail, one.error} : answer();
    };
    const result ended = watched(verb, decide, scope_of(one.kind));
    EXPECT_GE(seen, one.nth == each ? 1U : one.nth);
    EXPECT_EQ(ended.status, one.status);
    EXPECT_EQ((ended.err + ended.out).find("Bad file descriptor"), std::string::npos)
        << ended.err << ended.out;
    EXPECT_NE((ended.err + ended.out).find(one.message), std::string::npos)
        << ended.err << ended.out;
  }

  // The state that the verb changes, and that it is wholly as it was or another one.
  void expect_each(const words &verb, const std::string &state, const row *rows, size_t count) {
    for (const row *one = rows; one != rows + count; ++one) {
      expect_told(verb, *one);
      const bool same = disk().digest(state) == before_.digest(state);
      EXPECT_EQ(same, one->state == left::before) << one->name;
    }
  }
};

TEST_F(told, by_a_conversion) {
  expect_each(convert_words, "sw/current", conversions, std::size(conversions));
}

TEST_F(told, by_a_reboot) {
  expect_each(reboot_words, "sw/current", reboots, std::size(reboots));
}

TEST_F(told, by_a_rollback) {
  expect_each(roll_back_words, "sw/current", roll_backs, std::size(roll_backs));
}

TEST_F(told, by_a_creation) {
  expect_each(create_words, "new", creations, std::size(creations));
}

TEST_F(told, by_who_shows_a_switch) {
  expect_each({"lab", "show", "disk/sw"}, "sw", shows, std::size(shows));
}

TEST_F(told, by_a_check) {
  expect_each({"check", "disk/sw", "--to", "4.2(1)"}, "sw/current", checks, std::size(checks));
}

TEST_F(told, by_a_rehearsal) {
  expect_each(rehearse_words, "sw", rehearsals, std::size(rehearsals));
}

} // namespace
