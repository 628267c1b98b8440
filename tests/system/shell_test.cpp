// What is made from the tree of verbs: completions, in the shells that they are for, and the manual
// page.
#include "command.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>

namespace {

class shells : public command_test {
protected:
  // Of a program of the machine, run in the temporary folder by the shell.
  std::string said(const std::string &line) {
    const std::string whole = "cd '" + path("") + "' && { " + line + "; } 2>&1";
    FILE *pipe = popen(whole.c_str(), "r");
    std::string text;
    char buffer[4096];
    for (size_t got = 0; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
      text.append(buffer, got);
    }
    EXPECT_EQ(pclose(pipe), 0) << line << "\n" << text;
    return text;
  }

  static words words_in(const std::string &text) {
    std::istringstream stream(text);
    words found;
    for (std::string word; stream >> word;) {
      found.push_back(word);
    }
    return found;
  }

  // What bash offers for the last of these words.
  words bash_offers(const words &typed) {
    write("completion", run({"completion", "bash"}).out);
    std::string line = "COMP_WORDS=(datamorph";
    for (const std::string &word : typed) {
      line += " '" + word + "'";
    }
    write("ask", ". ./completion\n" + line + ")\nCOMP_CWORD=" + std::to_string(typed.size()) +
                     "\n_datamorph\necho \"${COMPREPLY[@]}\"\n");
    words found = words_in(said("bash --norc ./ask"));
    std::sort(found.begin(), found.end());
    return found;
  }

  // All verbs as --help names them, and the options of each.
  std::map<std::string, std::set<std::string>> helped() {
    std::map<std::string, std::set<std::string>> verbs;
    look_at_help({}, &verbs);
    return verbs;
  }

private:
  void look_at_help(const words &verb, std::map<std::string, std::set<std::string>> *verbs) {
    words arguments = verb;
    arguments.emplace_back("--help");
    std::istringstream help(run(arguments).out);
    std::string name;
    for (const std::string &word : verb) {
      name += (name.empty() ? "" : " ") + word;
    }
    std::set<std::string> &options = (*verbs)[name];
    bool below = false;
    for (std::string line; std::getline(help, line);) {
      const bool indented = line.starts_with("  ") && line.size() > 2 && line[2] != ' ';
      below = line == "Subcommands:" || (below && indented);
      if (below && indented) {
        words next = verb;
        next.push_back(words_in(line)[0]);
        look_at_help(next, verbs);
      }
      const size_t option = line.find("--");
      if (indented && line[2] == '-' && option != std::string::npos) {
        options.insert(line.substr(option, line.find_first_of(" ,", option) - option));
      }
    }
  }
};

TEST_F(shells, bash_completes_verbs) {
  EXPECT_EQ(bash_offers({"st"}), (words{"store"}));
  EXPECT_EQ(bash_offers({"co"}), (words{"compare", "convert"}));
  EXPECT_EQ(bash_offers({"lab", ""}), (words{"--help", "create", "reboot", "show"}));
  EXPECT_EQ(bash_offers({"store", "e"}), (words{"export"}));
  EXPECT_EQ(bash_offers({"--v"}), (words{"--version"}));
  EXPECT_EQ(bash_offers({"frob"}), (words{}));
}

TEST_F(shells, bash_completes_options_and_their_choices) {
  EXPECT_EQ(bash_offers({"convert", "sw", "--acc"}),
            (words{"--accept-failures", "--accept-losses"}));
  EXPECT_EQ(bash_offers({"store", "import", "--me"}), (words{"--merge"}));
  EXPECT_EQ(bash_offers({"convert", "sw", "--moment", ""}),
            (words{"gsync", "running-fs", "startup"}));
  EXPECT_EQ(bash_offers({"convert", "--moment", "startup", "--moment", "r"}),
            (words{"running-fs"}));
  EXPECT_EQ(bash_offers({"services", "--format", "j"}), (words{"json", "jsonl"}));
  EXPECT_EQ(bash_offers({"services", "--format", "=", "t"}), (words{"table"}));
  EXPECT_EQ(bash_offers({"services", "--format", "="}), (words{"json", "jsonl", "table"}));
  EXPECT_EQ(bash_offers({"convert", "sw", "--to", ""}), (words{}));
}

TEST_F(shells, bash_completes_switches_and_files) {
  std::filesystem::create_directory(path("switch-1"));
  write("switch.json", "{}");
  EXPECT_EQ(bash_offers({"convert", "sw"}), (words{"switch-1"}));
  EXPECT_EQ(bash_offers({"lab", "create", "x", "--from", "sw"}),
            (words{"switch-1", "switch.json"}));
  EXPECT_EQ(bash_offers({"diff", "a", "b", "--expect", "switch."}), (words{"switch.json"}));
}

TEST_F(shells, zsh_takes_its_completion) {
  write("_datamorph", run({"completion", "zsh"}).out);
  EXPECT_EQ(read("_datamorph").find("#compdef datamorph\n"), 0u);
  EXPECT_EQ(said("zsh -n ./_datamorph"), "");
  for (const auto &[verb, options] : helped()) {
    EXPECT_NE(read("_datamorph").find("    ('" + verb + "')\n"), std::string::npos) << verb;
  }
  // What _arguments is given for a verb, where zsh itself has found out which one is typed.
  write("ask", "compdef() { }\n_arguments() { print -rl -- \"$@\" }\n. ./_datamorph\n"
               "words=(datamorph convert sw --moment '')\nCURRENT=5\n_datamorph\n");
  const std::string given = said("zsh -f ./ask");
  EXPECT_NE(given.find("]:TEXT:(gsync running-fs startup)\n"), std::string::npos) << given;
  EXPECT_NE(given.find(":DIR:_files -/\n"), std::string::npos) << given;
  EXPECT_NE(given.find("--accept-losses["), std::string::npos) << given;
}

TEST_F(shells, unknown_shells_are_wrong_usage) {
  EXPECT_EQ(run({"completion", "fish"}).status, 64);
  EXPECT_EQ(run({"completion"}).status, 64);
}

TEST_F(shells, the_manual_page_tells_what_help_tells) {
  write("datamorph.1.scd", run({"manual"}).out);
  said("scdoc <datamorph.1.scd >datamorph.1");
  EXPECT_EQ(said("groff -man -ww -z -Tutf8 datamorph.1"), ""); // no warnings
  const std::string page = said("groff -man -Tascii -P-cbou -rLL=4000n datamorph.1");

  const std::map<std::string, std::set<std::string>> verbs = helped();
  ASSERT_TRUE(verbs.contains("store import") && verbs.contains("compare"));
  for (const auto &[verb, options] : verbs) {
    const size_t begin = page.find("datamorph " + verb + "\n");
    const bool group = verb.empty() || verb == "lab" || verb == "store";
    ASSERT_TRUE(group || begin != std::string::npos) << verb;
    const std::string rest = group ? page : page.substr(begin);
    const std::string section = rest.substr(0, rest.find("Example:"));
    for (const std::string &option : options) {
      EXPECT_NE(section.find(option), std::string::npos) << verb << " " << option;
    }
  }
  for (const char *text :
       {"one of gsync, running-fs, startup", "EXIT STATUS", "64  wrong usage", "DATAMORPH_LIBRARY",
        "datamorph compare '4.2(1)' '4.1(2)'", "datamorph store get [OPTION]... DIR URI KEY",
        "default: 300", "datamorph convert [OPTION]... DIR",
        "datamorph rehearse [OPTION]... --to RELEASE DIR"}) {
    EXPECT_NE(page.find(text), std::string::npos) << text;
  }
}

} // namespace
