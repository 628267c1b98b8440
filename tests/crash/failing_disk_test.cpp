// Every call that changes files fails, once and from then on, with what a full, failing or
// read-only disk gives. The verb says so, or was not touched by it; the switch is wholly before or
// wholly after, and what ended with 0 is there.
#include "crash/crash_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>

#include <fcntl.h>

#include "support/switch_root.h"

namespace {

namespace fs = std::filesystem;

constexpr int short_form = 2; // points per deed and error

const kinds making = {call_kind::open,      call_kind::write,     call_kind::make_folder,
                      call_kind::make_link, call_kind::make_node, call_kind::give_name,
                      call_kind::move};
const kinds syncing = {call_kind::sync, call_kind::sync_data, call_kind::sync_all};
const kinds changing = {call_kind::resize, call_kind::exchange, call_kind::remove,
                        call_kind::remove_folder, call_kind::set_mode};
const kinds opening = {call_kind::open, call_kind::read_folder};
// Calls that are made again when a signal interrupts them; the others tell of it, as of any
// failure.
const kinds tried_again = {call_kind::open, call_kind::write,     call_kind::resize,
                           call_kind::sync, call_kind::sync_data, call_kind::sync_all};

kinds joined(kinds a, const kinds &b) {
  a.insert(b.begin(), b.end());
  return a;
}

const failing full = {"ENOSPC", ENOSPC,
                      joined(joined(making, syncing), {call_kind::resize, call_kind::exchange})};
const failing broken = {"EIO", EIO, joined(joined(making, changing), syncing)};
const failing read_only = {"EROFS", EROFS, joined(making, changing)};
const failing no_descriptors = {"EMFILE", EMFILE, opening};
const failing interrupted = {"EINTR", EINTR, joined(joined(making, changing), syncing)};
const failing halved = {"half of a write", 0, {call_kind::write}, answer_kind::halve};

bool is_log(const std::string &path) {
  return path.find("mnt/pss/data_morph.") != std::string::npos ||
         path.find("tmp/datamorphcheck") != std::string::npos;
}

// Whom an interruption may keep from its work, at which calls.
const struct {
  kinds which;
  const char *message;
  const char *reason;
} interruptions[] = {
    {{call_kind::open},
     "cannot copy the switch's state: cp: ",
     "cp is another program, which does not open again"},
    {syncing, "0x4048000b (input or output error in a store)",
     "SQLite does not sync again; the store stays as it was, and the verb tells of it"},
};

bool may_be_interrupted(call_kind kind, const std::string &messages) {
  return std::any_of(std::begin(interruptions), std::end(interruptions), [&](const auto &one) {
    return one.which.count(kind) == 1 && messages.find(one.message) != std::string::npos;
  });
}

// Failures below next/, once, that nobody needs to notice.
const struct {
  call_kind kind;
  fs::file_type type;
  const char *reason;
} unnoticed[] = {
    {call_kind::sync_data, fs::file_type::directory,
     "SQLite does not look at what became of the sync of a new journal's folder; all of next/ is "
     "synced once more before it is put in place"},
};

bool may_be_unnoticed(call_kind kind, fs::file_type type) {
  return std::any_of(std::begin(unnoticed), std::end(unnoticed),
                     [&](const auto &one) { return one.kind == kind && one.type == type; });
}

class failing_disk : public crash_test {
protected:
  struct place {
    call_kind kind;
    std::string path;
  };

  // Fails at each of the calls in turn, and from each of them on.
  void fail_during(const deed &what, const failing &how);
  size_t count_calls(const deed &what, const failing &how);
  result fail_at(const deed &what, const failing &how, size_t at, bool for_ever);
  void expect_answer(const deed &what, const failing &how, bool for_ever, const result &ended);
  bool spoils_copy(bool for_ever) const;

  std::mt19937_64 random_{wanted_seed()};
  std::optional<place> first_; // call that failed
};

size_t failing_disk::count_calls(const deed &what, const failing &how) {
  restore(before_);
  size_t calls = 0;
  const result ended = watched(what.arguments, [&](const file_call &call) {
    calls += is_piece_of_trace(call) ? 0 : how.which.count(call.kind);
    return answer();
  });
  EXPECT_EQ(ended.status, 0) << ended.err;
  return calls;
}

result failing_disk::fail_at(const deed &what, const failing &how, size_t at, bool for_ever) {
  size_t seen = 0;
  first_.reset();
  restore(before_);
  return watched(what.arguments, [&](const file_call &call) {
    const bool fails = how.which.count(call.kind) == 1;
    const bool reached = fails && !is_piece_of_trace(call) && seen++ == at;
    const bool now = reached || (fails && for_ever && first_);
    if (reached) {
      first_ = {call.kind, call.path};
    }
    return now ? how.given() : answer();
  });
}

// A write of which the converted state may lack something, be it the platform's or this program's.
bool failing_disk::spoils_copy(bool for_ever) const {
  constexpr std::string_view copy = "sw/next/";
  const kinds writing = joined(syncing, {call_kind::write, call_kind::resize, call_kind::move});
  if (!first_ || writing.count(first_->kind) == 0 || !first_->path.starts_with(copy) ||
      is_log(first_->path)) {
    return false;
  }
  const fs::path place = path("disk/sw/current/" + first_->path.substr(copy.size()));
  return for_ever || !may_be_unnoticed(first_->kind, fs::symlink_status(place).type());
}

void failing_disk::expect_answer(const deed &what, const failing &how, bool for_ever,
                                 const result &ended) {
  EXPECT_TRUE(ended.status == 0 || ended.status == 1 || ended.status == 3);
  EXPECT_TRUE(ended.status == 0 || ended.err.find("datamorph: ") != std::string::npos);
  put_aside_ = ended.err;
  EXPECT_TRUE(expect_whole(what, ended.status == 0));
  const bool may_go_on = how.error == EINTR || how.how == answer_kind::halve;
  if (spoils_copy(for_ever) && !(may_go_on && ended.status == 0)) {
    EXPECT_NE(ended.status, 0) << "converted, although a write failed";
    EXPECT_EQ(differences(settled(disk(), false), settled(before_, false)), "")
        << "in place, although a write failed";
  }
  expect_done_again(what);
  if (may_go_on && first_ && (how.error == 0 || tried_again.count(first_->kind) == 1)) {
    EXPECT_TRUE(ended.status == 0 || may_be_interrupted(first_->kind, ended.err));
  }
}

void failing_disk::fail_during(const deed &what, const failing &how) {
  record_deed(what);
  logs_count_ = false;
  const size_t calls = count_calls(what, how);
  ASSERT_GT(calls, 0U);
  // A signal comes once: who is interrupted for ever tries for ever.
  const size_t all = how.error == EINTR ? calls : 2 * calls;
  const std::vector<size_t> points = some_of(all, wanted_count(short_form), &random_);
  size_t without_effect = 0;
  size_t missed = 0; // the run had fewer calls than the counted one
  for (const size_t point : points) {
    const bool for_ever = point >= calls;
    const result ended = fail_at(what, how, point % calls, for_ever);
    SCOPED_TRACE(
        std::string(what.name) + ": " + how.name + " at call " + std::to_string(point % calls) +
        " of " + std::to_string(calls) + (for_ever ? " and on: " : ": ") +
        (first_ ? std::string(name_of(first_->kind)) + " '" + first_->path + "'" : "none") +
        ": status " + std::to_string(ended.status) + "\n" + ended.err);
    missed += first_ ? 0 : 1;
    without_effect += first_ && ended.status == 0 ? 1 : 0;
    expect_answer(what, how, for_ever, ended);
    if (HasFailure()) {
      return;
    }
  }
  EXPECT_LE(missed, 1 + points.size() / 10);
  std::printf("failing disk: %s: %s at %zu of %zu points, %zu without effect, all hold (seed %u)\n",
              what.name, how.name, points.size() - missed, all, without_effect, wanted_seed());
}

struct work {
  const char *name;
  const deed *what;
  const failing *how;
};

void PrintTo(const work &one, std::ostream *out) {
  *out << one.name;
}

class each_failure : public failing_disk, public testing::WithParamInterface<work> {};

TEST_P(each_failure, leaves_the_switch_whole) {
  fail_during(*GetParam().what, *GetParam().how);
}

const work works[] = {
    {"full_conversion", &conversion, &full},
    {"broken_conversion", &conversion, &broken},
    {"read_only_conversion", &conversion, &read_only},
    {"scarce_conversion", &conversion, &no_descriptors},
    {"interrupted_conversion", &conversion, &interrupted},
    {"halved_conversion", &conversion, &halved},
    {"full_second_conversion", &second_conversion, &full},
    {"broken_second_conversion", &second_conversion, &broken},
    {"read_only_second_conversion", &second_conversion, &read_only},
    {"scarce_second_conversion", &second_conversion, &no_descriptors},
    {"interrupted_second_conversion", &second_conversion, &interrupted},
    {"halved_second_conversion", &second_conversion, &halved},
    {"full_rollback", &roll_back, &full},
    {"broken_rollback", &roll_back, &broken},
    {"read_only_rollback", &roll_back, &read_only},
    {"scarce_rollback", &roll_back, &no_descriptors},
    {"interrupted_rollback", &roll_back, &interrupted},
    {"halved_rollback", &roll_back, &halved},
    {"full_import", &import, &full},
    {"broken_import", &import, &broken},
    {"read_only_import", &import, &read_only},
    {"scarce_import", &import, &no_descriptors},
    {"interrupted_import", &import, &interrupted},
    {"halved_import", &import, &halved},
    {"full_creation", &creation, &full},
    {"broken_creation", &creation, &broken},
    {"read_only_creation", &creation, &read_only},
    {"scarce_creation", &creation, &no_descriptors},
    {"interrupted_creation", &creation, &interrupted},
    {"halved_creation", &creation, &halved},
};

INSTANTIATE_TEST_SUITE_P(disk, each_failure, testing::ValuesIn(works),
                         [](const auto &one) { return std::string(one.param.name); });

// Somebody's files may lie in a folder that cannot be listed.
TEST_F(failing_disk, that_does_not_list_a_folder_has_no_switch_made_in_it) {
  make_disk(creation);
  fs::create_directory(path("disk/sw"));
  std::ofstream(path("disk/sw/letter")) << "of somebody";
  const disk_tree before = disk();

  int opened = 0; // it is, but then not once more for its names
  const result ended = watched(creation.arguments, [&](const file_call &call) {
    const bool now = call.kind == call_kind::read_folder && ++opened > 1;
    return now ? answer{answer_kind::fail, EMFILE} : answer();
  });

  EXPECT_EQ(ended.status, 3);
  EXPECT_EQ(ended.err, "datamorph: cannot read the directory 'disk/sw': Too many open files\n");
  EXPECT_EQ(differences(disk().listing(), before.listing()), "");
}

// ---- The logs and the trace alone --------------------------------------------------------------

class failing_log : public failing_disk {};

TEST_F(failing_log, changes_no_result) {
  record_deed(conversion);
  const std::string shown = run({"store", "export", "disk/sw"}).out;
  for (const failing &how : {full, broken, read_only, no_descriptors, interrupted}) {
    restore(before_);
    size_t failed = 0;
    const result ended = watched(conversion.arguments, [&](const file_call &call) {
      const bool log = (is_log(call.path) && call.path.find("next/") != std::string::npos) ||
                       (how.error != EINTR && is_piece_of_trace(call)); // it tries for ever
      const bool now = log && call.kind != call_kind::remove && how.which.count(call.kind) == 1;
      failed += now ? 1 : 0;
      return now ? how.given() : answer();
    });
    EXPECT_EQ(ended.status, 0) << how.name << ended.err;
    EXPECT_GT(failed, 20U) << how.name;
    EXPECT_EQ(differences(settled(disk(), false), settled(after_, false)), "") << how.name;
    EXPECT_EQ(run({"store", "export", "disk/sw"}).out, shown) << how.name;
  }
}

// ---- 64 KiB ------------------------------------------------------------------------------------

class tiny_disk : public crash_test {
protected:
  void SetUp() override {
    crash_test::SetUp();
    write("tiny.json",
          R"JSON({"name": "tiny", "release": "4.1(5)", "releases": ["4.1(5)", "4.2(1)"],
        "vdcs": [1], "running_cfg_dir": "/cfg/0",
        "paths": {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/cfg/startup"},
        "package": "system", "files": [], "access_points": [],
        "stores": [{"uri": "nonvolatile:/cfg/0/vlan_cfg", "records": [{"key": "01", "value": "02"}]}]})JSON");
    switch_root::mount_small(path("small"), "64k");
  }
  // The tiny switch, on the small disk.
  void put_there() {
    create("tiny", {"--from", "tiny.json"});
    disk_tree::read(path("tiny")).write(path("small/sw"));
    before_ = disk_tree::read(path("small/sw/current"));
  }
  void fill() const {
    std::ofstream file(path("small/filler"));
    while (file << std::string(4096, 'f') << std::flush) {
    }
  }
  void expect_as_before() {
    fs::remove(path("small/filler"));
    EXPECT_EQ(run({"lab", "show", "small/sw"}).status, 0);
    const disk_tree now = disk_tree::read(path("small/sw/current"));
    EXPECT_EQ(differences(now.listing(), before_.listing()), "");
  }
};

TEST_F(tiny_disk, has_no_room_for_a_switch) {
  const result ended = run({"lab", "create", "small/sw", "--from", "switch.json"});

  EXPECT_EQ(ended.status, 1);
  EXPECT_NE(ended.err.find("; its file system is full: make room there\n"), std::string::npos)
      << ended.err;
  EXPECT_TRUE(fs::is_empty(path("small")));
}

TEST_F(tiny_disk, has_no_room_for_a_conversion) {
  put_there();

  const result ended = run({"convert", "small/sw", "--to", "4.2(1)"});

  EXPECT_EQ(ended.status, 3);
  EXPECT_NE(ended.err.find("datamorph: 'small/sw': no room for a copy of its state: "),
            std::string::npos)
      << ended.err;
  expect_as_before();
}

TEST_F(tiny_disk, has_no_room_for_an_import) {
  put_there();

  const result ended = run({"store", "import", "small/sw", "--file", "stores.json"});

  EXPECT_EQ(ended.status, 3);
  EXPECT_NE(ended.err.find("datamorph: 'small/sw': no room for a copy of its state: "),
            std::string::npos)
      << ended.err;
  EXPECT_NE(ended.err.find("; none of its stores was replaced; make room there\n"),
            std::string::npos)
      << ended.err;
  expect_as_before();
}

TEST_F(tiny_disk, that_is_full_is_not_rolled_back) {
  put_there();
  disk_tree::read(path("small/sw/current")).write(path("small/sw/previous"));
  fill();

  const result ended = run({"rollback", "small/sw", "--yes"});

  EXPECT_TRUE(ended.status == 1 || ended.status == 3) << ended.err;
  EXPECT_NE(ended.err.find("No space left on device"), std::string::npos) << ended.err;
  expect_as_before();
}

TEST_F(tiny_disk, is_no_scratch_folder_for_a_rehearsal) {
  create("sw", {"--from", "switch.json"});
  set("TMPDIR", path("small"));

  const result ended = run({"rehearse", "sw", "--to", "4.2(1)"});

  EXPECT_EQ(ended.status, 3);
  EXPECT_NE(ended.err.find("no room for a copy of its state: "), std::string::npos) << ended.err;
  EXPECT_TRUE(fs::is_empty(path("small")));
}

// ---- Full in the midst -------------------------------------------------------------------------

// There is room when it is asked for; then somebody else takes all of it.
struct filling {
  const char *name;
  bool (*now)(const file_call &call);
  int status;
  const char *message;
};

bool below_next(const file_call &call) {
  return call.path.starts_with("sw/next/");
}

const filling fillings[] = {
    {"while_the_state_is_copied",
     [](const file_call &call) { return call.kind == call_kind::write && below_next(call); }, 3,
     "the disk became full while its state was copied: "},
    {"when_a_store_is_written",
     [](const file_call &call) {
       return call.kind == call_kind::open && below_next(call) && call.path.ends_with("-journal");
     },
     1, "a write in the switch failed: "},
    {"when_the_copy_is_whole",
     [](const file_call &call) {
       return call.kind == call_kind::open && below_next(call) && !is_log(call.path) &&
              call.path.find("switch.json") != std::string::npos &&
              call.path != "sw/next/switch.json";
     },
     1, "No space left on device"},
};

void PrintTo(const filling &one, std::ostream *out) {
  *out << one.name;
}

class filling_disk : public crash_test, public testing::WithParamInterface<filling> {};

TEST_P(filling_disk, has_no_conversion) {
  record_deed(conversion);
  fs::remove_all(path("disk"));
  switch_root::mount_small(path("disk"), "4m");
  before_.write(path("disk/.made"));
  fs::rename(path("disk/.made/sw"), path("disk/sw"));
  bool filled = false;

  const result ended = watched(conversion.arguments, [&](const file_call &call) {
    if (!filled && GetParam().now(call)) {
      filled = true;
      std::ofstream file(path("disk/filler"));
      while (file << std::string(4096, 'f') << std::flush) {
      }
    }
    return answer();
  });

  EXPECT_TRUE(filled);
  EXPECT_EQ(ended.status, GetParam().status);
  EXPECT_NE(ended.err.find(GetParam().message), std::string::npos) << ended.err;
  fs::remove(path("disk/filler"));
  logs_count_ = false;
  EXPECT_TRUE(expect_whole(conversion, false));
  EXPECT_EQ(differences(settled(disk(), false), settled(before_, false)), "");
  expect_done_again(conversion);
}

INSTANTIATE_TEST_SUITE_P(disk, filling_disk, testing::ValuesIn(fillings),
                         [](const auto &one) { return std::string(one.param.name); });

} // namespace
