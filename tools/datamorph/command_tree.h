// The verbs with their options and help, as they are parsed: what the manual page and the
// completions are made from.
#ifndef DATAMORPH_COMMAND_TREE_H
#define DATAMORPH_COMMAND_TREE_H

#include <string>
#include <vector>

namespace CLI {
class App;
}

struct command_option {
  std::vector<std::string> names; // "-v", "--verbose"; of a positional one: "DIR"
  std::string value;              // what it takes: "FILE", "TEXT"; empty: nothing
  std::vector<std::string> choices;
  std::string fallback; // its value when it is not given
  std::string help;
  bool required = false;
  bool repeatable = false;
};

struct command {
  std::string name; // "store show"; of the program: ""
  std::string help;
  std::string footer; // examples and more, as --help ends
  std::vector<command_option> positionals;
  std::vector<command_option> options;
  std::vector<command> verbs;

  std::string last_name() const { return name.substr(name.rfind(' ') + 1); }
};

// All but what --help hides.
command command_tree(const CLI::App &app);

// The manual page in the language of scdoc.
std::string manual_page(const command &program);

std::string bash_completion(const command &program);
std::string zsh_completion(const command &program);

#endif
