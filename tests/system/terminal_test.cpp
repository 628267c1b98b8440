// At a terminal: how far a work is, and the question before something is discarded.
#include "command.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A command whose standard input and error are a terminal of their own; standard output is a file.
class at_terminal : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
    set("TERM", "xterm");
    keyboard_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(keyboard_) | unlockpt(keyboard_), 0);
    const std::string name = ptsname(keyboard_);
    screen_ = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(screen_, 0);
    const winsize size = {24, 100, 0, 0};
    ASSERT_EQ(ioctl(screen_, TIOCSWINSZ, &size), 0);
    in_child = [this] {
      dup2(screen_, STDIN_FILENO);
      dup2(screen_, STDERR_FILENO);
    };
  }
  void TearDown() override {
    close(keyboard_);
    close(screen_);
    command_test::TearDown();
  }

  void type(const std::string &text) const {
    EXPECT_EQ(::write(keyboard_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  // What has come to the screen so far, all of it kept.
  const std::string &screen() {
    pollfd ready = {keyboard_, POLLIN, 0};
    char buffer[4096];
    while (poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0) {
      const ssize_t got = ::read(keyboard_, buffer, sizeof buffer);
      if (got <= 0) {
        break;
      }
      seen_.append(buffer, static_cast<size_t>(got));
    }
    return seen_;
  }
  bool screen_has(const std::string &text) {
    return eventually([&] { return screen().find(text) != std::string::npos; });
  }

  static bool has_ended(const background &running) {
    siginfo_t about = {};
    return waitid(P_PID, static_cast<id_t>(running.pid()), &about, WEXITED | WNOWAIT | WNOHANG) ==
               0 &&
           about.si_pid != 0;
  }

  // The command is done; everything that it wrote is on the screen.
  result end(background *running) {
    while (!has_ended(*running)) {
      screen(); // one that is full would hold the command
      usleep(1000);
    }
    screen();
    return running->wait();
  }

  result answer(const words &arguments, const std::string &question, const std::string &keys) {
    const std::unique_ptr<background> running = start(arguments);
    EXPECT_TRUE(screen_has(question)) << screen();
    type(keys);
    return end(running.get());
  }

private:
  int keyboard_ = -1;
  int screen_ = -1;
  std::string seen_;
};

constexpr char vlan[] = "nonvolatile:/cfg/0/vlan_cfg";

// ---- The question ------------------------------------------------------------------------------

constexpr char delete_question[] =
    "datamorph: 'sw': delete the whole store 'nonvolatile:/cfg/0/vlan_cfg'? [y/N] ";

TEST_F(at_terminal, a_store_is_deleted_after_a_yes) {
  const result done = answer({"store", "delete", "sw", vlan, "--all"}, delete_question, "y\n");
  EXPECT_EQ(done.status, 0);
  EXPECT_FALSE(exists("sw/current/cfg/0/vlan_cfg.pss"));
}

TEST_F(at_terminal, a_store_stays_without_a_yes) {
  // \4 at the start of a line is the end of the input.
  for (const char *keys : {"n\n", "\n", "yep\n", "\4"}) {
    const result done = answer({"store", "delete", "sw", vlan, "--all"}, delete_question, keys);
    EXPECT_EQ(done.status, 3) << keys;
    EXPECT_TRUE(screen_has("datamorph: not confirmed, nothing was changed; answer y, or say --yes "
                           "beforehand\r\n"))
        << screen();
    EXPECT_TRUE(exists("sw/current/cfg/0/vlan_cfg.pss"));
  }
}

TEST_F(at_terminal, nothing_is_asked_where_the_answer_is_known) {
  // A single record is deleted as it is replaced: at once.
  EXPECT_EQ(end(start({"store", "delete", "sw", vlan, "0001"}).get()).status, 0);
  EXPECT_EQ(end(start({"store", "delete", "sw", vlan, "--all", "--yes"}).get()).status, 0);
  EXPECT_EQ(screen(), "");
  EXPECT_FALSE(exists("sw/current/cfg/0/vlan_cfg.pss"));
  EXPECT_EQ(
      end(start({"convert", "sw", "--to", "4.2(1)", "--accept-losses", "--yes"}).get()).status, 0);
  EXPECT_EQ(screen().find("[y/N]"), std::string::npos);
}

TEST_F(at_terminal, scripts_are_not_asked) {
  const words remove = {"store", "delete", "sw", vlan, "--all"};
  const auto at_screen = in_child;
  in_child = [&] {
    at_screen();
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
  };
  EXPECT_EQ(end(start(remove).get()).status, 0);
  EXPECT_EQ(screen(), "");
  in_child = [] {};
  create("other");
  in_child = [&] {
    at_screen();
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
  };
  EXPECT_EQ(end(start({"store", "delete", "other", vlan, "--all"}).get()).status, 0);
}

TEST_F(at_terminal, losses_are_accepted_after_a_yes) {
  constexpr char question[] =
      "datamorph: 'sw': convert, although records of VRRP may be lost? [y/N] ";
  const words convert = {"convert", "sw", "--to", "4.2(1)", "--accept-losses"};

  EXPECT_EQ(answer(convert, question, "n\n").status, 3);
  EXPECT_FALSE(exists("sw/runs/0001"));
  EXPECT_EQ(answer(convert, question, "yes\n").status, 0);
  EXPECT_TRUE(exists("sw/runs/0001"));
}

// ---- How far it is -----------------------------------------------------------------------------

TEST_F(at_terminal, a_slow_conversion_tells_its_services) {
  fake("rest");
  const std::unique_ptr<background> running =
      start({"convert", "sw", "--to", "3.3(1)", "--moment", "running-fs"});

  EXPECT_TRUE(screen_has("\rconverting: 1 of 2 services, about ")) << screen();

  EXPECT_EQ(end(running.get()).status, 0);
  EXPECT_TRUE(screen_has("\r\33[K")) << screen();
  EXPECT_EQ(screen().rfind("converting: "), screen().rfind("\rconverting: ") + 1);
  EXPECT_NE(screen().find("\r\33[Kdatamorph: running-fs, VDC 1: "), std::string::npos) << screen();
}

TEST_F(at_terminal, what_is_quick_tells_nothing) {
  set("DATAMORPH_PROGRESS_DELAY", "3600000"); // quick on any machine
  EXPECT_EQ(end(start({"convert", "sw", "--to", "3.3(1)"}).get()).status, 0);
  EXPECT_EQ(screen().find('\33'), std::string::npos) << screen();
}

TEST_F(at_terminal, nothing_is_told_to_programs) {
  fake("rest");
  const words convert = {"convert", "sw", "--to", "3.3(1)", "--moment", "running-fs"};
  words json = convert;
  json.insert(json.end(), {"--format", "json"});
  EXPECT_EQ(end(start(json).get()).status, 0);
  EXPECT_EQ(screen().find('\33'), std::string::npos) << screen();

  set("TERM", "dumb");
  EXPECT_EQ(end(start(convert).get()).status, 0);
  EXPECT_EQ(screen().find('\33'), std::string::npos) << screen();

  set("TERM", "xterm");
  in_child = [] {};
  EXPECT_EQ(run(convert).err.find('\33'), std::string::npos);
}

// A switch "sw" with a store more and one "b" without it, and works on them that tell each step,
// less than a screen takes before it is read.
class at_large_switch : public at_terminal {
protected:
  void SetUp() override {
    at_terminal::SetUp();
    set("DATAMORPH_PROGRESS_DELAY", "0");
    describe(60);
  }
  void describe(int count) {
    std::string records;
    for (int at = 100000; at < 100000 + count; ++at) {
      records += (records.empty() ? "{\"key\":\"" : ",{\"key\":\"") + std::to_string(at) +
                 "\",\"value\":\"00\"}";
    }
    write("d.json", R"({"stores":[{"uri":"nonvolatile:/cfg/large","records":[)" + records + "]}]}");
  }
  void import() {
    ASSERT_EQ(end(start({"store", "import", "sw", "--file", "d.json"}).get()).status, 0);
  }
  void expect_told(const words &arguments, const char *line, int status) {
    EXPECT_EQ(end(start(arguments).get()).status, status);
    EXPECT_NE(screen().find(line), std::string::npos) << line << "\n" << screen();
    EXPECT_TRUE(screen().ends_with("\r\33[K")) << line;
  }
};

TEST_F(at_large_switch, transfers_tell_their_records) {
  expect_told({"store", "import", "sw", "--file", "d.json"}, "\rimporting: ", 0);
  expect_told({"store", "export", "sw", "--file", "e.json"}, " records, about ", 0);
}

TEST_F(at_large_switch, comparisons_tell_their_records) {
  create("b");
  import();
  expect_told({"diff", "sw", "b"}, " records, about ", 2);
}

TEST_F(at_large_switch, checks_tell_their_parts) {
  import();
  expect_told({"check", "sw", "--to", "4.2(1)"}, "\rchecking: ", 0);
}

TEST_F(at_large_switch, digests_tell_their_records) {
  describe(2500);
  import();
  ASSERT_EQ(end(start({"rehearse", "sw", "--to", "3.3(1)", "--save", "plan.json"}).get()).status,
            0);
  const result converted = end(start({"convert", "sw", "--plan", "plan.json"}).get());
  EXPECT_EQ(converted.status, 0);
  EXPECT_NE(screen().find("\rmaking the digest: 1000 of "), std::string::npos) << screen();
}

// What is no number of milliseconds does not count.
TEST_F(at_large_switch, a_delay_is_a_number) {
  describe(1);
  import();
  EXPECT_NE(screen().find("importing"), std::string::npos);
  const size_t told = screen().size();
  for (const char *delay : {"", "-1", "1.5", "0s", "99999999999999999999"}) {
    set("DATAMORPH_PROGRESS_DELAY", delay);
    import();
  }
  EXPECT_EQ(screen().substr(told), "");
}

// "cp" is put before the real one: it stands still when it has copied a part.
TEST_F(at_terminal, a_slow_copy_tells_its_size) {
  write("bin/cp", "#!/bin/sh\n"
                  "for to; do :; done\n"
                  "mkdir \"$to\" && head -c 200000 /dev/zero > \"$to/part\" && sleep 1.2 &&\n"
                  "rm -r \"$to\" && exec env PATH=\"${PATH#*:}\" cp \"$@\"\n");
  std::filesystem::permissions(path("bin/cp"), std::filesystem::perms::owner_all);
  set("PATH", path("bin") + ":" + std::getenv("PATH"));

  EXPECT_EQ(end(start({"convert", "sw", "--to", "3.3(1)"}).get()).status, 0);

  const std::regex line("\rcopying: [0-9]+ of [0-9]+ KiB, about [0-9]+ s left\33\\[K");
  EXPECT_TRUE(std::regex_search(screen(), line)) << screen();
}

TEST_F(at_terminal, long_journals_and_many_runs_tell_how_far_they_are_read) {
  ASSERT_EQ(end(start({"convert", "sw", "--to", "3.3(1)"}).get()).status, 0);
  const std::string journal = read("sw/runs/0001/journal.jsonl");
  const std::string store = "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav";
  std::istringstream lines(journal);
  std::string touching; // lines that are asked for
  for (std::string line; std::getline(lines, line);) {
    touching += line.find(store) == std::string::npos ? "" : line + "\n";
  }
  ASSERT_NE(touching, "");
  std::string much = touching;
  while (much.size() < (50 << 10)) {
    much += touching;
  }
  write("sw/runs/0001/journal.jsonl", much);
  set("DATAMORPH_PROGRESS_DELAY", "0");
  EXPECT_EQ(end(start({"why", "sw", store}).get()).status, 0);
  EXPECT_NE(screen().find("\rreading journals: "), std::string::npos);
  EXPECT_NE(screen().find(" KiB, about "), std::string::npos);

  write("sw/runs/0001/journal.jsonl", journal);
  for (int number = 1001; number < 1400; ++number) {
    const std::string to = "sw/runs/" + std::to_string(number);
    nlohmann::json record = nlohmann::json::parse(read("sw/runs/0001/run.json"));
    record["run"] = std::to_string(number);
    write(to + "/run.json", record.dump());
    write(to + "/report.json", read("sw/runs/0001/report.json"));
  }
  EXPECT_EQ(end(start({"history", "sw"}).get()).status, 0);
  EXPECT_NE(screen().find(" of 400 runs, about "), std::string::npos);
}

// The pairs are told, not the services of each.
TEST_F(at_terminal, a_work_that_is_a_part_of_another_is_not_told) {
  fake("rest");

  EXPECT_EQ(end(start({"matrix", "sw", "--release", "4.1(5)", "--release", "4.2(1)"}).get()).status,
            0);

  EXPECT_TRUE(screen_has("\rrehearsing: 1 of 2 changes of release, about ")) << screen();
  EXPECT_EQ(screen().find(" services"), std::string::npos) << screen();
}

} // namespace
