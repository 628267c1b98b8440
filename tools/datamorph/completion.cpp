// Completions for shells: scripts that know every verb, its options and their choices. A value that
// is a FILE or a DIR is completed by files or folders.
#include <string_view>

#include "command_tree.h"
#include "text.h"

namespace {

void add_leaves(const command &verb, std::vector<const command *> *all) {
  all->push_back(&verb);
  for (const command &below : verb.verbs) {
    add_leaves(below, all);
  }
}

// The program, the groups of verbs and the verbs.
std::vector<const command *> all_of(const command &program) {
  std::vector<const command *> all;
  add_leaves(program, &all);
  return all;
}

bool is_folder(const command_option &option) {
  return option.value == "DIR";
}

// ---- bash --------------------------------------------------------------------------------------

constexpr std::string_view bash_head = R"(# bash completion for datamorph

_datamorph() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local verb= words= values= at
  # --option=value comes as three words
  if [[ $word == = ]]; then
    word=
  elif [[ $before == = ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for ((at = 1; at < COMP_CWORD; ++at)); do
    case "${verb:+$verb }${COMP_WORDS[at]}" in
)";

constexpr std::string_view bash_middle = R"(      *) break ;;
    esac
    verb="${verb:+$verb }${COMP_WORDS[at]}"
  done
  case $verb in
)";

constexpr std::string_view bash_values = R"(  esac
  case "$verb $before" in
)";

constexpr std::string_view bash_tail = R"(  esac
  case $values in
    FILE) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    DIR) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
    ANY) COMPREPLY=() ;;
    ?*) mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word") ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word") ;;
  esac
}

complete -F _datamorph datamorph
)";

std::string joined(const std::vector<std::string> &words) {
  std::string line;
  for (const std::string &word : words) {
    append_word(line, word);
  }
  return line;
}

// What completes a value: the choices, FILE, DIR, or ANY where nobody knows.
std::string values_of(const command_option &option) {
  return !option.choices.empty()                           ? joined(option.choices)
         : option.value == "FILE" || option.value == "DIR" ? option.value
                                                           : "ANY";
}

std::string bash_words(const command &verb) {
  std::string line;
  for (const command &below : verb.verbs) {
    append_word(line, below.last_name());
  }
  for (const command_option &option : verb.options) {
    append_word(line, option.names.back());
  }
  return line;
}

std::string bash_value_rows(const command &verb) {
  std::string rows;
  for (const command_option &option : verb.options) {
    if (option.value.empty()) {
      continue;
    }
    std::string names;
    for (const std::string &name : option.names) {
      append_word(names, "'" + verb.name + " " + name + "'", " | ");
    }
    rows += "    " + names + ") values='" + values_of(option) + "' ;;\n";
  }
  return rows;
}

// What completes a word that is no option: the first kind of its positionals.
std::string bash_positional_row(const command &verb) {
  for (const command_option &positional : verb.positionals) {
    const std::string values = values_of(positional);
    if (values != "ANY") {
      return "    '" + verb.name + " '*) [[ $word == -* ]] || values='" + values + "' ;;\n";
    }
  }
  return "";
}

// ---- zsh ---------------------------------------------------------------------------------------

constexpr std::string_view zsh_head = R"(#compdef datamorph
# zsh completion for datamorph

_datamorph() {
  local verb= at=2
  while (( at < CURRENT )); do
    case "${verb:+$verb }${words[at]}" in
)";

constexpr std::string_view zsh_middle = R"(      (*) break ;;
    esac
    verb="${verb:+$verb }${words[at]}"
    (( ++at ))
  done
  (( at -= 2 ))
  shift $at words
  (( CURRENT -= at ))
  case $verb in
)";

constexpr std::string_view zsh_tail = R"(  esac
}

if [[ $zsh_eval_context[-1] == loadautofunc ]]; then
  _datamorph "$@"
else
  compdef _datamorph datamorph
fi
)";

// Inside of single quotes; `special` are the characters that mean something to _arguments there.
std::string zsh_text(std::string_view text, std::string_view special) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\'') {
      escaped += "'\\''";
      continue;
    }
    if (special.find(c) != std::string_view::npos) {
      escaped += '\\';
    }
    escaped += c;
  }
  return escaped;
}

std::string zsh_action(const command_option &option) {
  return !option.choices.empty()  ? "(" + joined(option.choices) + ")"
         : option.value == "FILE" ? "_files"
         : is_folder(option)      ? "_files -/"
                                  : " ";
}

std::string zsh_option(const command_option &option) {
  std::string text;
  for (const std::string &name : option.names) {
    text += " \\\n        '" + std::string(option.repeatable ? "*" : "") + name + "[" +
            zsh_text(option.help, "[]\\:") + "]";
    text += option.value.empty() ? "'" : ":" + option.value + ":" + zsh_action(option) + "'";
  }
  return text;
}

std::string zsh_positional(const command_option &option) {
  return " \\\n        '" + std::string(option.repeatable ? "*" : "") +
         (option.required || option.repeatable ? ":" : "::") + option.names.back() + ":" +
         zsh_action(option) + "'";
}

std::string zsh_row(const command &verb) {
  std::string text = "    ('" + verb.name + "')\n      _arguments";
  for (const command_option &option : verb.options) {
    text += zsh_option(option);
  }
  for (const command_option &positional : verb.positionals) {
    text += zsh_positional(positional);
  }
  if (!verb.verbs.empty()) {
    text += " \\\n        ':verb:((";
    for (const command &below : verb.verbs) {
      text += "\n          " + below.last_name() + "\\:\"" + zsh_text(below.help, "\"\\:$`") + "\"";
    }
    text += "))'";
  }
  return text + "\n      ;;\n";
}

} // namespace

std::string bash_completion(const command &program) {
  std::string verbs;
  std::string words;
  std::string values;
  std::string positionals;
  for (const command *verb : all_of(program)) {
    if (!verb->name.empty()) {
      verbs += "      '" + verb->name + "') ;;\n";
    }
    words += "    '" + verb->name + "') words='" + bash_words(*verb) + "' ;;\n";
    values += bash_value_rows(*verb);
    positionals += bash_positional_row(*verb);
  }
  return std::string(bash_head) + verbs + std::string(bash_middle) + words +
         std::string(bash_values) + values + positionals + std::string(bash_tail);
}

std::string zsh_completion(const command &program) {
  std::string verbs;
  std::string rows;
  for (const command *verb : all_of(program)) {
    if (!verb->name.empty()) {
      verbs += "      ('" + verb->name + "') ;;\n";
    }
    rows += zsh_row(*verb);
  }
  return std::string(zsh_head) + verbs + std::string(zsh_middle) + rows + std::string(zsh_tail);
}
