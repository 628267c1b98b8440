// Tables on a terminal: texts are broken at blanks, nothing is ever cut.
#include "command.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

class tables : public command_test {
protected:
  // What a command prints on a terminal of this width.
  std::string on_terminal(unsigned short width, const words &arguments) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(grantpt(terminal) | unlockpt(terminal), 0);
    const std::string name = ptsname(terminal);
    const int inner = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const winsize size = {24, width, 0, 0};
    EXPECT_EQ(ioctl(inner, TIOCSWINSZ, &size), 0);
    in_child = [inner] { dup2(inner, STDOUT_FILENO); };
    const std::unique_ptr<background> running = start(arguments);
    close(inner);
    std::string text;
    char buffer[4096];
    for (ssize_t got = 0; (got = ::read(terminal, buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<size_t>(got));
    }
    close(terminal);
    EXPECT_EQ(running->wait().status, 0);
    std::erase(text, '\r');
    return text;
  }

  static std::vector<std::string> words_of(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string word; stream >> word;) {
      result.push_back(word);
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  static size_t widest(const std::string &text) {
    std::istringstream stream(text);
    size_t most = 0;
    for (std::string line; std::getline(stream, line);) {
      most = std::max(most, line.size());
    }
    return most;
  }
};

TEST_F(tables, texts_are_broken_at_blanks) {
  create("sw");
  const std::string plain = run({"lab", "show", "sw"}).out;

  const std::string narrow = on_terminal(50, {"lab", "show", "sw"});

  EXPECT_NE(narrow.find("images                3.3(1) 4.0(4) 4.1(1) 4.1(2)\n"
                        "                      4.1(5) 4.2(1) 4.2(3) 5.0(2)\n"),
            std::string::npos)
      << narrow;
  EXPECT_EQ(words_of(narrow), words_of(plain));
  EXPECT_EQ(on_terminal(500, {"lab", "show", "sw"}), plain);
}

TEST_F(tables, names_of_services_are_not_cut) {
  create("sw");

  const std::string narrow = on_terminal(60, {"convert", "sw", "--to", "3.3(1)"});

  EXPECT_NE(narrow.find(" removed       0       0       1 PLUGIN\n"), std::string::npos) << narrow;
  EXPECT_NE(narrow.find(" EXCHANGE_PEER_PARAMS "), std::string::npos) << narrow;
}

TEST_F(tables, what_has_no_blanks_runs_over_and_is_whole) {
  create("sw");
  const std::string value(300, 'a');
  ASSERT_EQ(run({"store", "put", "sw", "nonvolatile:/cfg/0/vlan_cfg", "aabb", value}).status, 0);

  const std::string narrow =
      on_terminal(40, {"store", "show", "sw", "nonvolatile:/cfg/0/vlan_cfg"});

  EXPECT_NE(narrow.find("aabb " + value + "\n"), std::string::npos) << narrow;
  EXPECT_GT(widest(narrow), 300u);
}

// Fourteen columns and more: told line by line, with all that is known.
TEST_F(tables, runs_and_what_they_touched_fit_a_usual_terminal) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "3.3(1)"}).status, 0);
  ASSERT_EQ(run({"convert", "sw", "--to", "4.1(5)", "--service", "sksd"}).status, 0);
  const words history = {"history", "sw"};
  const words why = {"why", "sw", "volatile:/cfg/0/plugin_debug"};

  const std::string runs = on_terminal(80, history);
  const std::string touches = on_terminal(80, why);

  EXPECT_LE(widest(runs), 80u) << runs;
  EXPECT_LE(widest(touches), 80u) << touches;
  for (const char *known :
       {"RUN 0001  STARTED 20", "  SECONDS ", "VERB convert", "FROM 4.1(5)", "TO 3.3(1)",
        "MOMENTS all", "SERVICES all", "SERVICES SKSD", "RESULT done", "BY ", "ADDED ", "CHANGED ",
        "REMOVED ", "\nRUN 0002  STARTED 20"}) {
    EXPECT_NE(runs.find(known), std::string::npos) << known << "\n" << runs;
  }
  EXPECT_EQ(runs.find("REMARK"), std::string::npos) << runs; // there is none
  for (const char *known : {"RUN 0001  STARTED 20", "STATE kept", "MOMENT running-fs", "VDC 1",
                            "SERVICE PLUGIN", "ROUTINE ", "CALL ", "STATUS ok"}) {
    EXPECT_NE(touches.find(known), std::string::npos) << known << "\n" << touches;
  }
  EXPECT_EQ(on_terminal(500, history), run(history).out);
  EXPECT_EQ(on_terminal(500, why), run(why).out);
}

TEST_F(tables, long_remarks_are_broken_where_rows_are_told) {
  create("sw");
  fake("fail");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 1);

  const std::string runs = on_terminal(60, {"history", "sw"});

  EXPECT_LE(widest(runs), 60u) << runs;
  EXPECT_TRUE(runs.ends_with("\n  REMARK 1 service failed (--accept-failures keeps the\n"
                             "  result all the same)\n"))
      << runs;
}

TEST_F(tables, what_is_wrong_is_red_on_a_terminal_that_wants_colour) {
  create("sw");
  write("sw/current/cfg/0/vlan_cfg.pss", "no store at all");
  set("TERM", "xterm");

  const std::string coloured = on_terminal(200, {"store", "list", "sw"});
  set("NO_COLOR", "1");
  const std::string plain = on_terminal(200, {"store", "list", "sw"});

  EXPECT_NE(coloured.find("\x1b[31m0x40480009"), std::string::npos) << coloured;
  EXPECT_NE(plain.find(" 0x40480009"), std::string::npos) << plain;
  EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
}

TEST_F(tables, the_stores_of_a_run_that_failed_are_those_of_its_copy) {
  create("sw");
  fake("fail");

  const std::string failed = run({"convert", "sw", "--to", "4.2(1)"}).out;

  EXPECT_NE(failed.find("\nSTORE (in the copy that was dropped) WHAT "), std::string::npos)
      << failed;
}

} // namespace
