// history: what each run wrote down of itself, and nothing that it did not.
#include "command.h"

#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class history : public command_test {
protected:
  json runs(const std::string &name = "sw") {
    const result told = run({"history", name, "--format", "json"});
    EXPECT_EQ(told.status, 0) << told.err;
    json document = told.json();
    EXPECT_EQ(document["switch"], name);
    return document["runs"];
  }

  // A file of JSON with some of its members changed.
  void change(const std::string &name, const json &members) {
    json document = json::parse(read(name));
    document.update(members);
    write(name, document.dump());
  }

  void kill_hanging(const words &arguments) {
    fake("hang");
    const std::unique_ptr<background> running = start(arguments);
    EXPECT_TRUE(eventually([&] {
      return read("sw/next/bootflash/calls").find("sksd") != std::string::npos &&
             read("sw/runs/0001/steps.jsonl").find("SKSD") != std::string::npos;
    }));
    const json begun = json::parse(read("sw/runs/0001/run.json"));
    EXPECT_EQ(begun["result"], "running");
    EXPECT_EQ(begun["milliseconds"], nullptr);
    running->signal(SIGKILL);
    running->wait();
    set("DATAMORPH_LIBRARY", real_library);
  }
};

std::string my_name() {
  const passwd *entry = getpwuid(getuid());
  return entry == nullptr ? "" : entry->pw_name;
}

std::string my_host() {
  char name[256] = "";
  EXPECT_EQ(gethostname(name, sizeof name - 1), 0);
  return name;
}

// The words of a line.
words words_of(const std::string &text, const std::string &start) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(start)) {
      std::istringstream all(line);
      return {std::istream_iterator<std::string>(all), std::istream_iterator<std::string>()};
    }
  }
  return {};
}

TEST_F(history, of_a_new_switch_is_empty) {
  create("sw");

  EXPECT_EQ(runs(), json::array());
  EXPECT_EQ(run({"history", "sw"}).out, "sw: no runs yet\n");
}

TEST_F(history, without_a_folder_for_runs_is_empty) {
  create("sw");
  fs::remove(path("sw/runs"));

  EXPECT_EQ(runs(), json::array());
  EXPECT_FALSE(exists("sw/runs"));
}

TEST_F(history, tells_each_run_oldest_first) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  ASSERT_EQ(run({"rollback", "sw", "--yes"}).status, 0);

  const json told = runs();

  ASSERT_EQ(told.size(), 3u);
  const char *const expected[][4] = {{"0001", "convert", "4.1(5)", "4.2(1)"},
                                     {"0002", "reboot", "4.2(1)", "4.2(1)"},
                                     {"0003", "rollback", "4.2(1)", "4.1(5)"}};
  for (size_t at = 0; at < 3; ++at) {
    EXPECT_EQ(told[at]["run"], expected[at][0]);
    EXPECT_EQ(told[at]["verb"], expected[at][1]);
    EXPECT_EQ(told[at]["from"], expected[at][2]);
    EXPECT_EQ(told[at]["to"], expected[at][3]);
    EXPECT_EQ(told[at]["result"], "done");
    EXPECT_EQ(told[at]["remark"], "");
    EXPECT_EQ(told[at]["user"], my_name());
    EXPECT_EQ(told[at]["uid"], getuid());
    EXPECT_EQ(told[at]["host"], my_host());
    EXPECT_GT(told[at]["pid"], 1);
    EXPECT_TRUE(told[at]["milliseconds"].is_number_unsigned());
  }
  EXPECT_LE(told[0]["started"], told[1]["started"]);
  EXPECT_LE(told[1]["started"], told[2]["started"]);
  EXPECT_EQ(told[0]["moments"], json::array({"gsync", "running-fs", "startup"}));
  EXPECT_EQ(told[0]["services"], json::array());
  EXPECT_EQ(told[0]["command"], json::array({"datamorph", "convert", "sw", "--to", "4.2(1)"}));
  EXPECT_EQ(told[2]["command"], json::array({"datamorph", "rollback", "sw", "--yes"}));
  for (const char *unknown : {"moments", "services", "records"}) {
    EXPECT_EQ(told[1][unknown], nullptr);
    EXPECT_EQ(told[2][unknown], nullptr);
  }
}

TEST_F(history, counts_the_records_of_a_conversion) {
  create("sw");
  const json report = run({"convert", "sw", "--to", "3.3(1)", "--moment", "running-fs", "--service",
                           "evms", "--format", "json"})
                          .json();
  uint64_t removed = 0;
  for (const json &store : report["stores"]) {
    removed += store["records"]["removed"].get<uint64_t>();
  }
  ASSERT_GT(removed, 0u);

  const json told = runs()[0];

  EXPECT_EQ(told["records"], (json{{"added", 0}, {"changed", 0}, {"removed", removed}}));
  EXPECT_EQ(told["moments"], json::array({"running-fs"}));
  EXPECT_EQ(told["services"], json::array({"EVMS"}));
  const words line = words_of(run({"history", "sw"}).out, "0001");
  ASSERT_EQ(line.size(), 15u);
  EXPECT_EQ(line[1], told["started"]);
  EXPECT_EQ(words(line.begin() + 3, line.end()),
            (words{"convert", "4.1(5)", "3.3(1)", "running-fs", "EVMS", "done", my_name(),
                   "(" + std::to_string(getuid()) + ")", "0", "0", std::to_string(removed), "-"}));
}

TEST_F(history, shows_what_is_not_known_as_a_dash) {
  create("sw");
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);

  const words line = words_of(run({"history", "sw"}).out, "0001");

  ASSERT_EQ(line.size(), 15u);
  EXPECT_EQ(words(line.begin() + 3, line.end()),
            (words{"reboot", "4.1(5)", "4.1(5)", "-", "-", "done", my_name(),
                   "(" + std::to_string(getuid()) + ")", "-", "-", "-", "-"}));
}

TEST_F(history, tells_why_a_run_failed) {
  create("sw");
  fake("fail");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 1);
  set("DATAMORPH_LIBRARY", real_library);
  fs::remove_all(path("sw/current/dev/shm/volatile"));
  write("sw/current/dev/shm/volatile", "in the way");
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 1);

  const json told = runs();

  ASSERT_EQ(told.size(), 2u);
  EXPECT_EQ(told[0]["result"], "failed");
  EXPECT_EQ(told[0]["remark"],
            "1 service failed (--accept-failures keeps the result all the same)");
  EXPECT_EQ(told[0]["records"], nullptr);
  EXPECT_EQ(told[1]["result"], "failed");
  EXPECT_EQ(told[1]["remark"], "cannot empty /dev/shm/volatile: Not a directory");
}

TEST_F(history, tells_what_was_refused) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  ASSERT_EQ(
      run({"convert", "sw", "--from", "4.1(5)", "--to", "4.2(1)", "--moment", "startup"}).status,
      3);
  ASSERT_EQ(run({"convert", "sw", "--to", "9.9(9)"}).status, 3); // before it was a run

  const json told = runs();

  ASSERT_EQ(told.size(), 2u);
  EXPECT_EQ(told[1]["result"], "refused");
  EXPECT_EQ(told[1]["from"], "4.1(5)");
  EXPECT_NE(told[1]["remark"].get<std::string>().find("would be lost"), std::string::npos);
}

TEST_F(history, a_run_that_was_stopped_by_a_signal_failed) {
  create("sw");
  fake("hang");
  const std::unique_ptr<background> running = start({"convert", "sw", "--to", "4.2(1)"});
  ASSERT_TRUE(eventually([&] { return exists("sw/next/bootflash/calls"); }));
  running->signal(SIGTERM);
  ASSERT_EQ(running->wait().status, 128 + SIGTERM);

  const json told = runs()[0];

  EXPECT_EQ(told["result"], "failed");
  EXPECT_EQ(told["remark"], "stopped by a signal (Terminated)");
}

// ---- Killed ------------------------------------------------------------------------------------

TEST_F(history, a_killed_conversion_is_told) {
  create("sw");
  kill_hanging({"convert", "sw", "--to", "4.2(1)"});

  const json told = runs()[0];

  EXPECT_EQ(told["verb"], "convert");
  EXPECT_EQ(told["result"], "killed");
  EXPECT_EQ(told["remark"],
            "interrupted in SKSD (running-fs, VDC 1), 2 of 8 service calls done; the "
            "switch stayed as it was");
  EXPECT_EQ(told["milliseconds"], nullptr);
  EXPECT_EQ(told["records"], nullptr);
  EXPECT_EQ(told["user"], my_name());
  EXPECT_TRUE(told["started"].is_string());
  EXPECT_EQ(words_of(run({"history", "sw"}).out, "0001")[2], "-");
}

TEST_F(history, a_killed_run_is_told_by_what_the_next_one_found) {
  create("sw");
  kill_hanging({"convert", "sw", "--to", "4.2(1)"});
  for (const char *to : {"4.2(1)", "5.0(2)"}) {
    ASSERT_EQ(run({"convert", "sw", "--to", to}).status, 0);
  }
  change("sw/runs/0002/run.json", {{"result", "running"}, {"milliseconds", nullptr}});

  const char *const first =
      "interrupted in SKSD (running-fs, VDC 1), 2 of 8 service calls done; the "
      "switch stayed as it was";
  json told = runs();
  EXPECT_EQ(told[0]["remark"], first);
  EXPECT_EQ(told[1]["remark"],
            "interrupted after its last service, 32 of 32 service calls done; its "
            "change had been made");

  // Nobody knows what the run in between found.
  write("sw/runs/0003/run.json", "");
  told = runs();
  EXPECT_EQ(told[0]["remark"], first);
  EXPECT_EQ(told[1]["result"], "killed");
  EXPECT_EQ(told[1]["remark"], "interrupted after its last service, 32 of 32 service calls done");
}

TEST_F(history, a_killed_conversion_is_told_as_far_as_it_was_written_down) {
  create("sw");
  kill_hanging({"convert", "sw", "--to", "4.2(1)"});
  const struct {
    const char *steps;
    const char *remark;
  } cases[] = {
      {"", "the switch stayed as it was"},
      {"rubbish\n[]\n", "the switch stayed as it was"},
      {R"({"requests":-1})", "the switch stayed as it was"},
      {R"({"requests":2})", "interrupted before its first service, 0 of 2 service calls done; the "
                            "switch stayed as it was"},
      {"{\"requests\":2}\n{\"start\":0,\"moment\":\"gsync\",\"vdc\":1,\"service\":\"IKE\"}\n"
       "{\"result\":0,\"status\":0}\n{\"start\":1,\"mom",
       "interrupted between two services, 1 of 2 service calls done; the switch stayed as it was"},
  };
  for (const auto &at : cases) {
    write("sw/runs/0001/steps.jsonl", at.steps);
    EXPECT_EQ(runs()[0]["remark"], at.remark) << at.steps;
  }
}

TEST_F(history, of_a_killed_reboot_nothing_more_is_known) {
  create("sw");
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  change("sw/runs/0001/run.json", {{"result", "running"}, {"milliseconds", nullptr}});

  EXPECT_EQ(runs()[0]["result"], "killed");
  EXPECT_EQ(runs()[0]["remark"], "");
}

TEST_F(history, of_a_switch_in_use_is_not_told) {
  create("sw");
  fake("hang");
  const std::unique_ptr<background> running = start({"convert", "sw", "--to", "4.2(1)"});
  ASSERT_TRUE(eventually([&] { return exists("sw/next/bootflash/calls"); }));

  const result told = run({"history", "sw"});

  EXPECT_EQ(told.status, 5);
  EXPECT_EQ(told.out, "");
}

// ---- Folders of other kinds --------------------------------------------------------------------

TEST_F(history, an_older_run_folder_is_told_as_far_as_it_goes) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  fake("fail");
  ASSERT_EQ(run({"convert", "sw", "--to", "5.0(2)"}).status, 1);
  const json records = runs()[0]["records"];
  for (const char *number : {"0001", "0002"}) {
    fs::remove(path(std::string("sw/runs/") + number + "/run.json"));
  }
  fs::create_directory(path("sw/runs/0003"));

  const json told = runs();

  ASSERT_EQ(told.size(), 3u);
  EXPECT_TRUE(records.is_object());
  json expected = {
      {"run", "0001"},           {"verb", "convert"}, {"from", "4.1(5)"},   {"to", "4.2(1)"},
      {"result", "done"},        {"remark", ""},      {"records", records}, {"started", nullptr},
      {"milliseconds", nullptr}, {"user", nullptr},   {"uid", nullptr},     {"moments", nullptr},
      {"services", nullptr},     {"pid", nullptr},    {"host", nullptr},    {"command", nullptr}};
  EXPECT_EQ(told[0], expected);
  // Whether it failed or was refused does not stand there.
  EXPECT_EQ(told[1]["result"], nullptr);
  EXPECT_EQ(told[1]["remark"], "not converted: 1 service failed (--accept-failures keeps the "
                               "result all the same)");
  EXPECT_EQ(told[2]["verb"], nullptr);
  EXPECT_EQ(told[2]["remark"], "holds neither run.json nor report.json");
  EXPECT_EQ(words_of(run({"history", "sw"}).out, "0003"),
            (words{"0003", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "holds",
                   "neither", "run.json", "nor", "report.json"}));
}

TEST_F(history, what_is_no_run_is_said_to_be_none) {
  create("sw");
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  write("sw/runs/0002", "a file");
  fs::create_directory(path("sw/runs/notes\n"));
  fs::create_directory_symlink(path("sw/runs/0001"), path("sw/runs/0010"));
  fs::copy(path("sw/runs/0001"), path("sw/runs/9"));

  const json told = runs();

  ASSERT_EQ(told.size(), 5u);
  const char *const expected[][2] = {{"0001", ""},
                                     {"0002", "foreign: not the folder of a run"},
                                     {"9", "damaged: run.json is of run '0001'"},
                                     {"0010", "foreign: not the folder of a run"},
                                     {"notes\\x0a", "foreign: not the folder of a run"}};
  for (size_t at = 0; at < 5; ++at) {
    EXPECT_EQ(told[at]["run"], expected[at][0]);
    EXPECT_EQ(told[at]["remark"], expected[at][1]);
  }
  EXPECT_EQ(told[2]["verb"], nullptr);
}

struct damage {
  const char *content; // of run.json; a member to change in the good one when it is an object
  const char *remark;
};
constexpr damage damages[] = {
    {"", "damaged: run.json is no JSON object"},
    {"[]", "damaged: run.json is no JSON object"},
    {R"({"format":2})", "damaged: run.json: format is not 1"},
    {R"({"run":null})", "damaged: run.json: run is no text"},
    {R"({"verb":"destroy"})", "damaged: run.json: verb is none that this program knows"},
    {R"({"result":"well"})", "damaged: run.json: result is none that this program knows"},
    {R"({"generation":-1})", "damaged: run.json: generation is no number"},
    {R"({"started":"yesterday"})", "damaged: run.json: started is no time"},
    {R"({"started":"2026-01-31T12:59:59.123ZZ"})", "damaged: run.json: started is no time"},
    {R"({"milliseconds":"1"})", "damaged: run.json: milliseconds is no number"},
    {R"({"moments":[1]})", "damaged: run.json: moments is no list of texts"},
    {R"({"services":"EVMS"})", "damaged: run.json: services is no list of texts"},
    {R"({"uid":"root"})", "damaged: run.json: uid is no number"},
    {R"({"pid":-1})", "damaged: run.json: pid is no number"},
    {R"({"host":1})", "damaged: run.json: host is no text"},
    {R"({"command":null})", "damaged: run.json: command is no list of texts"},
    {R"({"command":[1]})", "damaged: run.json: command is no list of texts"},
};

TEST_F(history, a_damaged_run_is_a_row_that_says_so) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  const json good = json::parse(read("sw/runs/0001/run.json"));
  for (const damage &row : damages) {
    const json members = json::parse(row.content, nullptr, false);
    json damaged = good;
    if (members.is_object()) {
      damaged.update(members);
    }
    write("sw/runs/0001/run.json", members.is_object() ? damaged.dump() : row.content);
    const json told = runs();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0]["remark"], row.remark);
    EXPECT_EQ(told[0]["verb"], nullptr);
    EXPECT_EQ(told[0]["result"], nullptr);
  }
  json missing = good;
  missing.erase("user");
  write("sw/runs/0001/run.json", missing.dump());
  EXPECT_EQ(runs()[0]["remark"], "damaged: run.json: user is missing");
}

TEST_F(history, a_damaged_report_leaves_the_rest) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  const struct {
    const char *content;
    const char *remark;
  } cases[] = {{"{", "damaged: report.json is no JSON object"},
               {"{}", "damaged: report.json is no report of a conversion"},
               {R"({"stores":[{"records":{"added":"x"}}]})",
                "damaged: report.json is no report of a conversion"}};
  for (const auto &at : cases) {
    write("sw/runs/0001/report.json", at.content);
    const json told = runs()[0];
    EXPECT_EQ(told["result"], "done");
    EXPECT_EQ(told["to"], "4.2(1)");
    EXPECT_EQ(told["records"], nullptr);
    EXPECT_EQ(told["remark"], at.remark);
  }
}

TEST_F(history, without_a_folder_to_read_is_refused) {
  create("sw");
  fs::remove(path("sw/runs"));
  write("sw/runs", "in the way");

  const result told = run({"history", "sw"});

  EXPECT_EQ(told.status, 3);
  EXPECT_EQ(told.err, "datamorph: 'sw': cannot open the folder runs/: Not a directory; move what "
                      "stands there out of the way, or run as the user that the switch belongs "
                      "to\n");
}

} // namespace
