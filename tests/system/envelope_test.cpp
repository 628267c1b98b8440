// JSON for programs: the envelope that every verb's result stands in, and the lines of its lists.
#include "command.h"

#include <algorithm>
#include <csignal>
#include <fstream>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

class envelope : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  static constexpr char vlan[] = "nonvolatile:/cfg/0/vlan_cfg";

  static nlohmann::json error_of(const result &failed) {
    EXPECT_EQ(failed.envelope()["result"], nlohmann::json());
    return failed.envelope().value("error", nlohmann::json());
  }
};

TEST_F(envelope, bytes_of_a_short_one) {
  EXPECT_EQ(run({"compare", "4.2(1)", "4.2(1a)", "--format", "json"}).out,
            "{\n \"datamorph\": {\"envelope\": 1, \"version\": \"1.0.0\"},\n"
            " \"verb\": \"compare\",\n"
            " \"result\": {\n  \"a\": \"4.2(1)\",\n  \"b\": \"4.2(1a)\",\n  \"order\": \"equal\",\n"
            "  \"result\": 0\n},\n"
            " \"exit_code\": 0,\n"
            " \"error\": null\n}\n");
  EXPECT_EQ(run({"compare", "4.2(1)", "4.1(2)", "--format=jsonl"}).out,
            "{\"datamorph\": {\"envelope\": 1, \"version\": \"1.0.0\"}, \"verb\": \"compare\", "
            "\"result\": {\"a\":\"4.2(1)\",\"b\":\"4.1(2)\",\"order\":\"newer\",\"result\":1}, "
            "\"exit_code\": 2, \"error\": null}\n");
}

TEST_F(envelope, every_verb_has_one) {
  struct step {
    words arguments;
    const char *verb;
    int status;
  };
  const std::vector<step> steps = {
      {{"lab", "create", "new"}, "lab create", 0},
      {{"lab", "show", "new"}, "lab show", 0},
      {{"lab", "reboot", "new"}, "lab reboot", 0},
      {{"convert", "new", "--to", "3.3(1)"}, "convert", 0},
      {{"store", "list", "sw"}, "store list", 0},
      {{"store", "show", "sw", vlan}, "store show", 0},
      {{"store", "put", "sw", vlan, "00ff", "01"}, "store put", 0},
      {{"store", "get", "sw", vlan, "00ff"}, "store get", 0},
      {{"store", "export", "sw"}, "store export", 0},
      {{"store", "export", "sw", "--file", "all.json"}, "store export", 0},
      {{"store", "import", "new", "--file", "all.json"}, "store import", 0},
      {{"store", "delete", "sw", vlan, "00ff"}, "store delete", 0},
      {{"diff", "sw", "new"}, "diff", 2},
      {{"services"}, "services", 0},
      {{"compare", "4.2(1)", "4.2(1)"}, "compare", 0},
  };
  for (const char *format : {"json", "jsonl"}) {
    for (const step &step : steps) {
      SCOPED_TRACE(step.arguments[0] + " " + step.arguments[1 % step.arguments.size()]);
      words arguments = step.arguments;
      arguments.insert(arguments.end(), {"--format", format});
      if (step.verb == std::string("lab create") && format == std::string("jsonl")) {
        arguments[2] = "newer";
      }
      const result done = run(arguments);
      EXPECT_EQ(done.status, step.status) << done.err;
      EXPECT_EQ(done.envelope()["verb"], step.verb);
      EXPECT_TRUE(done.json().is_object());
    }
    ASSERT_EQ(run({"lab", "create", std::string("again-") + format}).status, 0);
  }
}

TEST_F(envelope, lines_of_a_list) {
  const words show = {"store", "show", "sw", vlan, "--text", "--format"};
  const auto with = [&](const char *format) {
    words arguments = show;
    arguments.emplace_back(format);
    return run(arguments);
  };
  nlohmann::json whole = with("json").json();
  const result lines = with("jsonl");

  ASSERT_EQ(lines.items().size(), 3u);
  EXPECT_EQ(nlohmann::json(lines.items()), whole["records"]);
  whole.erase("records");
  EXPECT_EQ(lines.json(), whole);
  EXPECT_EQ(std::count(lines.out.begin(), lines.out.end(), '\n'), 4);

  EXPECT_EQ(run({"services", "--format", "jsonl"}).items()[0]["moment"], "gsync");
  EXPECT_EQ(run({"store", "list", "sw", "--format", "jsonl"}).items().size(), 37u);
}

TEST_F(envelope, lines_of_a_diff) {
  create("b");
  ASSERT_EQ(run({"store", "put", "b", vlan, "00ff", "01"}).status, 0);
  ASSERT_EQ(run({"store", "put", "b", vlan, "00fe", "01"}).status, 0);

  const nlohmann::json whole = run({"diff", "sw", "b", "--format", "json"}).json();
  const result lines = run({"diff", "sw", "b", "--format", "jsonl"});

  EXPECT_EQ(lines.status, 2);
  ASSERT_EQ(lines.items().size(), 2u);
  EXPECT_EQ(lines.items()[0]["key"], "00fe");
  EXPECT_EQ(nlohmann::json(lines.items()), whole["changes"]);
  EXPECT_EQ(lines.json()["summary"], whole["summary"]);
  EXPECT_EQ(lines.json()["a"]["path"], "sw");
  EXPECT_FALSE(lines.json().contains("changes"));
}

TEST_F(envelope, errors_say_what_and_what_next) {
  nlohmann::json error = error_of(run({"lab", "show", "none", "--format", "json"}));
  EXPECT_EQ(error["code"], "refused");
  EXPECT_EQ(error["message"],
            "'none': cannot open the switch's directory: No such file or directory");
  EXPECT_EQ(error["next_action"], "build a switch with 'datamorph lab create DIR'");

  const result missing = run({"store", "get", "sw", vlan, "aaaa", "--format", "jsonl"});
  EXPECT_EQ(missing.err.find("datamorph: 'sw': store 'nonvolatile:/cfg/0/vlan_cfg': no record with "
                             "the key aaaa; 'datamorph store show' tells what records there are\n"),
            0u)
      << missing.err;
  error = error_of(missing);
  EXPECT_EQ(error["message"],
            "'sw': store 'nonvolatile:/cfg/0/vlan_cfg': no record with the key aaaa");
  EXPECT_EQ(error["next_action"], "'datamorph store show' tells what records there are");

  error = error_of(run({"services", "--library", "none.so", "--format", "json"}));
  EXPECT_EQ(error["code"], "refused");
  EXPECT_EQ(error["next_action"], "name it with --library or DATAMORPH_LIBRARY");
}

TEST_F(envelope, a_switch_in_use) {
  ASSERT_EQ(run({"lab", "create", "busy"}).status, 0);
  fake("hang");
  const std::unique_ptr<background> running =
      start({"convert", "busy", "--to", "3.3(1)", "--moment", "running-fs"});
  ASSERT_TRUE(eventually([&] { return exists("busy/next/switch.json"); }));

  const nlohmann::json error = error_of(run({"store", "list", "busy", "--format", "json"}));
  EXPECT_EQ(error["code"], "in_use");
  EXPECT_EQ(error["next_action"], "wait until it is done");

  running->signal(SIGINT);
  EXPECT_EQ(running->wait().status, 130);
}

TEST_F(envelope, wrong_usage) {
  struct row {
    words arguments;
    nlohmann::json verb;
    const char *message;
    const char *next_action;
  };
  const std::vector<row> rows = {
      {{"store", "show", "sw", "--format", "json"},
       "store show",
       "URI is required",
       "see 'datamorph store show --help'"},
      {{"store", "drop", "--format=jsonl"},
       "store",
       "unknown verb 'drop'",
       "verbs: list show get put delete export import"},
      {{"drop", "--format", "json"},
       nullptr,
       "unknown verb 'drop'",
       "verbs: lab rehearse convert matrix history rollback why store diff check services compare"},
      {{"--format", "json", "services"},
       nullptr,
       "'--format' stands before the verb, where only --help and --version may",
       "options stand after the verb"},
      {{"convert", "sw", "--to", "4.2(1)", "--service", "nobody", "--format", "json"},
       "convert",
       "unknown service 'nobody'",
       "services: "},
  };
  for (const row &row : rows) {
    const result wrong = run(row.arguments);
    SCOPED_TRACE(wrong.err);
    EXPECT_EQ(wrong.status, 64);
    EXPECT_EQ(wrong.envelope()["verb"], row.verb);
    const nlohmann::json error = error_of(wrong);
    EXPECT_EQ(error["code"], "usage");
    EXPECT_EQ(error["message"], row.message);
    EXPECT_EQ(error["next_action"].get<std::string>().find(row.next_action), 0u) << error;
    EXPECT_EQ(wrong.err.find("datamorph: "), 0u);
  }
  EXPECT_EQ(run({"store", "put", "sw", "x", "--", "--format", "json"}).out, "");
  EXPECT_EQ(run({"services", "--format", "xml"}).out, "");
  EXPECT_EQ(run({"services", "--format", "json", "--help"}).out.find("The library's dispatch"), 0u);
}

TEST_F(envelope, a_failed_conversion_has_its_report_and_an_error) {
  fake("fail");
  const result failed =
      run({"convert", "sw", "--to", "3.3(1)", "--moment", "running-fs", "--format", "json"});

  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.json()["converted"], false);
  const nlohmann::json error = failed.envelope()["error"];
  EXPECT_EQ(error["code"], "failed");
  EXPECT_NE(error["message"].get<std::string>().find("'sw': not converted: "), std::string::npos);
  EXPECT_NE(error["message"].get<std::string>().find("still at 4.1(5)"), std::string::npos);
}

TEST_F(envelope, a_conversion_that_hangs_names_the_step) {
  fake("hang");
  const result failed = run({"convert", "sw", "--to", "3.3(1)", "--moment", "running-fs",
                             "--timeout", "1", "--format", "json"});

  EXPECT_EQ(failed.status, 1);
  const std::string step = "SKSD (running-fs, VDC 1): no answer within 1 second";
  EXPECT_EQ(failed.json()["trouble"], step);
  EXPECT_EQ(failed.json()["requests"][0]["service"], "SKSD");
  EXPECT_EQ(failed.json()["requests"][0]["text"], "no answer within 1 second");
  const nlohmann::json error = failed.envelope()["error"];
  EXPECT_EQ(error["message"],
            "'sw': not converted: " + step + "; the switch is as it was, still at 4.1(5)");
  EXPECT_EQ(error["next_action"], "sw/runs/0001 tells more");
}

TEST_F(envelope, what_cannot_be_read_is_told_beside_the_differences) {
  create("b");
  write("b/current/cfg/0/vlan_cfg.pss", "no store at all");

  const result done = run({"diff", "sw", "b", "--format", "json"});

  EXPECT_EQ(done.status, 3);
  EXPECT_EQ(done.json()["summary"]["unreadable"], 1);
  EXPECT_EQ(done.envelope()["error"]["code"], "refused");
  EXPECT_EQ(done.envelope()["error"]["message"], "1 thing could not be read");
}

TEST_F(envelope, output_that_cannot_be_written_is_a_failure) {
  in_child = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
  const result lost = run({"services", "--format", "json"});
  EXPECT_EQ(lost.status, 1);
  EXPECT_EQ(lost.err, "datamorph: not all of the output could be written\n");
}

// Of a process tree, those that have no children.
void add_leaves(pid_t pid, std::vector<pid_t> *leaves) {
  const std::string name = std::to_string(pid);
  std::ifstream children("/proc/" + name + "/task/" + name + "/children");
  bool any = false;
  for (pid_t child = 0; children >> child; any = true) {
    add_leaves(child, leaves);
  }
  if (!any) {
    leaves->push_back(pid);
  }
}

TEST_F(envelope, what_breaks_off_is_whole_json_and_says_so) {
  std::string records;
  for (int at = 100000; at < 140000; ++at) {
    records += (at == 100000 ? "{\"key\":\"" : ",{\"key\":\"") + std::to_string(at) +
               "\",\"value\":\"00\"}";
  }
  create("b");
  ASSERT_EQ(run({"store", "import", "b"},
                R"({"stores":[{"uri":"nonvolatile:/cfg/large","records":[)" + records + "]}]}")
                .status,
            0);
  for (const words &arguments :
       std::vector<words>{{"store", "export", "b", "nonvolatile:/cfg/large", "--format", "json"},
                          {"diff", "b", "sw", "--format", "json"},
                          {"diff", "b", "sw", "--format", "jsonl"}}) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    in_child = [&] { dup2(ends[1], STDOUT_FILENO); };
    const std::unique_ptr<background> running = start(arguments);
    close(ends[1]);
    // Nobody reads: the command stands still in its document, and those who work for it soon do.
    EXPECT_TRUE(eventually([&] {
      int waiting = 0;
      return ioctl(ends[0], FIONREAD, &waiting) == 0 && waiting > 60000;
    }));
    std::vector<pid_t> workers;
    add_leaves(running->pid(), &workers);
    for (const pid_t worker : workers) {
      ASSERT_NE(worker, running->pid());
      kill(worker, SIGKILL);
    }
    std::string text;
    char buffer[65536];
    for (ssize_t got = 0; (got = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<size_t>(got));
    }
    close(ends[0]);
    result broken = running->wait();
    broken.out = text;
    EXPECT_EQ(broken.status, 1) << broken.err;
    EXPECT_EQ(broken.envelope()["error"]["code"], "failed");
    EXPECT_TRUE(broken.json().is_object());
    EXPECT_LT(text.size(), records.size() * 4);
    EXPECT_GT(text.size(), 60000u);
  }
}

TEST_F(envelope, documents_are_read_with_it_and_without) {
  create("b");
  ASSERT_EQ(run({"store", "put", "sw", vlan, "00ff", "01"}).status, 0);
  write("bare.json", run({"store", "export", "sw", vlan}).out);
  write("enveloped.json", run({"store", "export", "sw", vlan, "--format", "json"}).out);
  write("line.json", run({"store", "export", "sw", vlan, "--format", "jsonl"}).out);
  EXPECT_EQ(read("bare.json").find("{\n \"stores\": [\n"), 0u);
  for (const char *file : {"bare.json", "enveloped.json", "line.json"}) {
    ASSERT_EQ(run({"store", "import", "b", "--file", file}).status, 0) << file;
    EXPECT_EQ(run({"diff", "sw", "b"}).status, 0) << file;
    ASSERT_EQ(run({"store", "delete", "b", vlan, "00ff"}).status, 0) << file;
  }
  const result known = run({"diff", "sw", "b", "--format", "json"});
  write("known.json", known.out);
  write("bare-known.json", known.json().dump());
  for (const char *file : {"known.json", "bare-known.json"}) {
    EXPECT_EQ(run({"diff", "sw", "b", "--expect", file}).status, 0) << file;
  }
}

TEST_F(envelope, documents_of_a_failure_or_of_another_version_are_refused) {
  const auto import = [&](const std::string &text) {
    const result refused = run({"store", "import", "sw"}, text);
    EXPECT_EQ(refused.status, 3) << text;
    return refused.err;
  };
  EXPECT_EQ(import(run({"store", "export", "sw", "volatile:/no", "--format", "json"}).out),
            "datamorph: 'standard input': it comes from a command that failed; run that command "
            "again\n");
  EXPECT_EQ(import(R"({"datamorph": {"envelope": 2}, "result": {"stores": []}, "error": null})"),
            "datamorph: 'standard input': its envelope is not of version 1, which this program "
            "reads; write it with this program\n");
  EXPECT_NE(import(R"({"datamorph": 1, "result": {"stores": []}})"), "");
  EXPECT_NE(import(R"({"datamorph": {"envelope": 1}})"), "");
}

} // namespace
