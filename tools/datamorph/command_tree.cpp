#include "command_tree.h"

#include <CLI/CLI.hpp>

#include "text.h"

namespace {

// Out of "TEXT:{table,json}".
std::vector<std::string> choices_of(const std::string &type) {
  std::vector<std::string> choices;
  const size_t begin = type.find(":{");
  const size_t end = type.find('}', begin == std::string::npos ? type.size() : begin);
  if (end == std::string::npos) {
    return choices;
  }
  for (size_t at = begin + 2; at < end;) {
    const size_t next = std::min(type.find(',', at), end);
    choices.push_back(type.substr(at, next - at));
    at = next + 1;
  }
  return choices;
}

command_option option_of(const CLI::Option &from) {
  command_option option;
  for (const std::string &name : from.get_snames()) {
    option.names.push_back("-" + name);
  }
  for (const std::string &name : from.get_lnames()) {
    option.names.push_back("--" + name);
  }
  if (option.names.empty()) {
    option.names.push_back(from.get_name(true));
  }
  const std::string type = from.get_type_name();
  option.value = from.get_items_expected_max() == 0 ? "" : type.substr(0, type.find(':'));
  if (option.names.back() == "DIR") {
    option.value = "DIR"; // --help names it once
  }
  option.choices = choices_of(type);
  option.fallback = from.get_default_str();
  option.help = from.get_description();
  option.required = from.get_required();
  option.repeatable = from.get_items_expected_max() > 1;
  return option;
}

command command_of(const CLI::App &app, const std::string &name) {
  command found;
  found.name = name;
  found.help = app.get_description();
  found.footer = app.get_footer();
  for (const CLI::Option *option : app.get_options()) {
    if (!option->get_group().empty()) {
      (option->nonpositional() ? found.options : found.positionals).push_back(option_of(*option));
    }
  }
  for (const CLI::App *verb : app.get_subcommands([](const CLI::App *) { return true; })) {
    if (!verb->get_group().empty()) {
      std::string path = name;
      append_word(path, verb->get_name());
      found.verbs.push_back(command_of(*verb, path));
    }
  }
  return found;
}

} // namespace

command command_tree(const CLI::App &app) {
  return command_of(app, "");
}
