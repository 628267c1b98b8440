#include "unknown_option.h"

#include <algorithm>
#include <numeric>
#include <string_view>

namespace {

const command_option *find_option(const command &verb, std::string_view name) {
  const auto found =
      std::find_if(verb.options.begin(), verb.options.end(), [&](const command_option &option) {
        return std::find(option.names.begin(), option.names.end(), name) != option.names.end();
      });
  return found == verb.options.end() ? nullptr : &*found;
}

// How many letters are to be put in, taken out or exchanged.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t(0));
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t exchanged = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({row[j] + 1, row[j + 1] + 1, exchanged});
    }
  }
  return row.back();
}

} // namespace

std::string unknown_option(const command &verb, const std::vector<std::string> &typed) {
  for (size_t at = 0; at < typed.size() && typed[at] != "--"; ++at) {
    const std::string &word = typed[at];
    if (word.size() < 2 || word[0] != '-') {
      continue;
    }
    const bool is_long = word[1] == '-';
    const size_t end = is_long ? word.find('=') : 2;
    const command_option *const option = find_option(verb, word.substr(0, end));
    if (option == nullptr) {
      return is_long ? word.substr(0, end) : word;
    }
    const bool joined = end < word.size();
    at += joined || option->value.empty() ? 0 : 1; // its value may look like an option
  }
  return "";
}

std::string nearest_option(const command &verb, const std::string &option) {
  constexpr size_t near = 2;
  std::string nearest;
  size_t least = std::min(near, option.size() / 2) + 1;
  for (const command_option &known : verb.options) {
    for (const std::string &name : known.names) {
      const size_t away = name.starts_with("--") ? distance(option, name) : least;
      if (away < least) {
        least = away;
        nearest = name;
      }
    }
  }
  return nearest;
}
