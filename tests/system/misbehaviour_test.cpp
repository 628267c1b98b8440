// convert with converters that crash, hang, fail or write badly: the switch is as it was.
#include "command.h"

#include <algorithm>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

class misbehaviour : public command_test {
protected:
  // Converts with the fake converters doing `what`, which must leave the switch as it was.
  result fail_with(const std::string &what, const words &more = {}) {
    create("sw");
    const files before = state("sw");
    fake(what);
    words arguments = {"convert", "sw", "--to", "4.2(1)"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const result converted = run(arguments);
    EXPECT_EQ(converted.status, 1) << converted.err;
    EXPECT_EQ(state("sw"), before);
    expect_tidy("sw");
    EXPECT_FALSE(exists("sw/previous"));
    for (const char *kept : {"report.json", "trace.log", "journal.jsonl", "conversion.log"}) {
      EXPECT_TRUE(exists(std::string("sw/runs/0001/") + kept)) << kept;
    }
    return converted;
  }

  void expect_trouble(const result &converted, const std::string &trouble) {
    EXPECT_TRUE(
        converted.out.ends_with("\n\nsw: not converted, still at 4.1(5): " + trouble + "\n"))
        << converted.out;
    EXPECT_NE(converted.err.find("datamorph: 'sw': not converted: " + trouble +
                                 "; the switch is as it was, still at 4.1(5)\n"),
              std::string::npos)
        << converted.err;
  }
};

TEST_F(misbehaviour, a_crash_is_contained) {
  const result converted = fail_with("crash");

  expect_trouble(converted, "SKSD (running-fs, VDC 1): crashed: Segmentation fault (signal 11)");
  EXPECT_NE(converted.out.find("not called"), std::string::npos);
}

TEST_F(misbehaviour, a_crash_at_the_start_is_contained) {
  expect_trouble(fail_with("crash-at-init"),
                 "the library, outside of any service: crashed: Aborted (signal 6)");
}

TEST_F(misbehaviour, a_hang_is_ended) {
  expect_trouble(fail_with("hang", {"--timeout", "1"}),
                 "SKSD (running-fs, VDC 1): no answer within 1 second");
}

TEST_F(misbehaviour, endless_trace_is_a_hang_too) {
  expect_trouble(fail_with("chatter", {"--timeout", "1"}),
                 "SKSD (running-fs, VDC 1): no answer within 1 second");
}

TEST_F(misbehaviour, an_exit_is_no_success) {
  expect_trouble(fail_with("exit"), "SKSD (running-fs, VDC 1): ended the process with status 0");
}

TEST_F(misbehaviour, a_failed_service_does_not_stop_the_others) {
  const result converted = fail_with("fail", {"--format", "json"});

  const nlohmann::json report = converted.json();
  EXPECT_EQ(report["converted"], false);
  EXPECT_EQ(report["trouble"],
            "1 service failed (--accept-failures keeps the result all the same)");
  for (const nlohmann::json &request : report["requests"]) {
    EXPECT_EQ(request["status"], request["service"] == "SKSD" ? 0x40480009u : 0u) << request;
  }
  EXPECT_EQ(report["requests"].size(), 8u);
}

TEST_F(misbehaviour, a_failed_service_is_accepted_when_asked) {
  create("sw");
  fake("fail");

  const result converted = run({"convert", "sw", "--to", "4.2(1)", "--accept-failures"});

  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_EQ(show("sw")["release"], "4.2(1)");
  EXPECT_NE(converted.err.find("'sw': 1 service failed; accepted as asked\n"), std::string::npos);
  EXPECT_NE(converted.out.find("0x40480009"), std::string::npos);
}

TEST_F(misbehaviour, a_failed_write_fails_the_run_even_when_the_service_says_0) {
  const result converted = fail_with("bad-write", {"--accept-failures"});

  EXPECT_NE(converted.out.find("a write in the switch failed: pss_store on the store "
                               "'nonvolatile:/cfg/0/vlan_cfg' by SKSD gave 0x40480006"),
            std::string::npos)
      << converted.out;
}

TEST_F(misbehaviour, a_crash_is_never_accepted) {
  fail_with("crash", {"--accept-failures"});
}

TEST_F(misbehaviour, a_handle_left_open_is_closed_and_its_writes_are_kept) {
  create("sw");
  fake("leak");

  const result converted = run({"convert", "sw", "--to", "4.2(1)"});

  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_NE(converted.err.find("1 store handle left open by routines, closed at the end"),
            std::string::npos);
  const result got = run({"store", "get", "sw", "nonvolatile:/cfg/0/vlan_cfg", "leaked", "--text"});
  EXPECT_EQ(got.out, "vvvv\n");
}

// What stands behind such lines is read all the same.
TEST_F(misbehaviour, damaged_lines_of_the_journal_are_told) {
  create("sw");
  fake("damage-journal");
  const std::string note = "2 damaged lines in the journal: nobody knows what they told";

  const result rehearsed = run({"rehearse", "sw", "--to", "4.2(1)", "--format", "json"});
  EXPECT_EQ(rehearsed.status, 0) << rehearsed.err;
  EXPECT_EQ(rehearsed.json()["notes"], nlohmann::json::array({note}));
  EXPECT_EQ(rehearsed.json()["steps"][2]["records"]["added"], 1);
  const result converted = run({"convert", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_NE(converted.err.find(note), std::string::npos) << converted.err;
  const result why = run({"why", "sw", "nonvolatile:/cfg/0/vlan_cfg", "behind it", "--text"});
  EXPECT_NE(why.out.find("run 0001: 2 damaged lines in its journal\n"), std::string::npos)
      << why.out;
  EXPECT_NE(why.out.find("record behind it "), std::string::npos) << why.out;
}

// ---- Refused before anything is touched --------------------------------------------------------

class refusal : public command_test {
protected:
  result refuse(const words &more, int status = 3) {
    const files before = state("sw");
    words arguments = {"convert", "sw"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const result converted = run(arguments);
    EXPECT_EQ(converted.status, status) << converted.err;
    EXPECT_EQ(converted.out, "");
    EXPECT_EQ(std::count(converted.err.begin(), converted.err.end(), '\n'), 1) << converted.err;
    EXPECT_EQ(state("sw"), before);
    expect_tidy("sw");
    EXPECT_FALSE(exists("sw/runs/0001"));
    return converted;
  }
};

TEST_F(refusal, unknown_release_lists_the_known_ones) {
  create("sw");

  EXPECT_EQ(refuse({"--to", "9.9(9)"}).err,
            "datamorph: 'sw': the release '9.9(9)' is unknown: the switch has no image of it; "
            "images: 3.3(1) 4.0(4) 4.1(1) 4.1(2) 4.1(5) 4.2(1) 4.2(3) 5.0(2)\n");
  refuse({"--to", ""});
  refuse({"--to", "../../etc"});
  refuse({"--to", std::string(4000, '4')});
  refuse({"--to", "4.2(1)", "--from", "1.0(1)"});
}

TEST_F(refusal, an_image_without_a_version) {
  create("sw");
  std::remove(path("sw/current/images/4.2(1)/version").c_str());

  EXPECT_NE(refuse({"--to", "4.2(1)"}).err.find("the version of the image '4.2(1)' cannot be read"),
            std::string::npos);
}

TEST_F(refusal, services_that_nobody_knows_or_nobody_converts) {
  create("sw");

  refuse({"--to", "4.2(1)", "--service", "NOBODY"}, 64);
  refuse({"--to", "4.2(1)", "--service", ""}, 64);
  refuse({"--to", "4.2(1)", "--service", "SKSD", "--moment", "startup"}, 3);
  refuse({"--to", "4.2(1)", "--moment", "noon"}, 64);
  refuse({"--to", "4.2(1)", "--timeout", "0"}, 64);
  refuse({"--to", "4.2(1)", "--whole-table", "--service", "SKSD"}, 64);
}

TEST_F(refusal, a_damaged_store_is_named) {
  create("sw");
  write("sw/current/cfg/0/vlan_cfg.pss", std::string(5000, 'x'));

  EXPECT_NE(refuse({"--to", "4.2(1)"})
                .err.find("the store 'nonvolatile:/cfg/0/vlan_cfg' cannot be read: 0x40480009"),
            std::string::npos);
}

TEST_F(refusal, a_library_that_is_none) {
  create("sw");

  EXPECT_NE(
      refuse({"--to", "4.2(1)", "--library", fake_incomplete}).err.find("it has no datamorph_"),
      std::string::npos);
  refuse({"--to", "4.2(1)", "--library", "/etc/passwd"});
  refuse({"--to", "4.2(1)", "--library", "missing.so"});
  refuse({"--to", "4.2(1)", "--library", std::string(4000, 'x')});
}

TEST_F(refusal, a_file_system_without_the_exchange) {
  create("sw");
  in_child = [] { deny_system_calls({SYS_renameat2}, EINVAL); };

  EXPECT_NE(refuse({"--to", "4.2(1)"}).err.find("cannot exchange two folders"), std::string::npos);
}

} // namespace
