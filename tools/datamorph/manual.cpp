// The manual page, in the language of scdoc.
#include <string_view>

#include "command_tree.h"
#include "text.h"

namespace {

// What stands in the page, in scdoc's own words.
constexpr std::string_view head = R"(datamorph(1)

# NAME

datamorph - rehearses and inspects the conversion of a switch's persistent state

# SYNOPSIS

*datamorph* _VERB_ [_OPTION_]... [_ARGUMENT_]...

# DESCRIPTION

)";

constexpr std::string_view tail = R"(# FILES

_DIR_/current/
	The switch's root file system, as far as a conversion can touch it.

_DIR_/previous/
	The state before the last conversion.

_DIR_/runs/_NUMBER_/
	What a conversion left: _report.json_, _trace.log_, _journal.jsonl_ and the switch's conversion log.

# ENVIRONMENT

*DATAMORPH_LIBRARY*
	The conversion library, where *--library* does not name one.

*DATAMORPH_PROGRESS_DELAY*
	After how many milliseconds a work tells how far it is; 1000 otherwise. With 0 each step is told.

*NO_COLOR*
	When it is set and not empty, tables have no colour.

*TMPDIR*
	Where *rehearse* and *matrix* make their copies; /tmp otherwise.

*TERM*
	On a terminal that is *dumb* there is neither colour nor progress.

# NOTES

What takes longer than a second tells on standard error how far it is, where that is a terminal; never with *-v*, and never with another format than _table_.

What discards something for good (*store delete --all*, *convert --accept-losses*) asks first, where standard input and standard error are a terminal. *--yes* is the answer given beforehand; scripts are not asked.

With *--format* _json_ or _jsonl_ all verbs write one envelope, on success and on failure: "datamorph" with the envelope's version, "verb", "result", "exit\_code", and "error", which is null or has "code", "message" and "next\_action".
)";

// Plain text: nothing in it means anything to scdoc.
std::string plain(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (std::string_view("\\*_#`[]|<>~").find(c) != std::string_view::npos) {
      escaped += '\\';
    }
    escaped += c;
  }
  return escaped;
}

std::string literal(std::string_view text) {
  return "\n```\n" + std::string(text) + (text.ends_with('\n') ? "" : "\n") + "```\n\n";
}

std::string synopsis(const command &verb) {
  std::string line = "*datamorph " + plain(verb.name) + "* [_OPTION_]...";
  for (const command_option &option : verb.options) {
    if (option.required) {
      line += " *" + plain(option.names.back()) + "* _" + plain(option.value) + "_";
    }
  }
  for (const command_option &positional : verb.positionals) {
    const std::string name =
        "_" + plain(positional.names.back()) + "_" + (positional.repeatable ? "..." : "");
    line += positional.required ? " " + name : " [" + name + "]";
  }
  return line + "\n\n";
}

std::string option_text(const command_option &option) {
  std::string line;
  for (const std::string &name : option.names) {
    append_word(line,
                (name.starts_with("-") ? "*" : "_") + plain(name) +
                    (name.starts_with("-") ? "*" : "_"),
                ", ");
  }
  if (!option.value.empty() && option.names.back().starts_with("-")) {
    line += " _" + plain(option.value) + "_";
  }
  std::string notes;
  const auto note = [&](bool holds, const std::string &text) {
    if (holds) {
      append_word(notes, text, "; ");
    }
  };
  std::string choices;
  for (const std::string &choice : option.choices) {
    append_word(choices, choice, ", ");
  }
  note(!option.choices.empty(), "one of " + choices);
  note(!option.fallback.empty(), "default: " + option.fallback);
  note(option.required, "required");
  note(option.repeatable && option.help.find("may be repeated") == std::string::npos,
       "may be repeated");
  return line + "\n\t" + plain(option.help) + (notes.empty() ? "" : " (" + plain(notes) + ")") +
         "\n\n";
}

std::string verb_text(const command &verb) {
  if (!verb.verbs.empty()) {
    std::string text;
    for (const command &below : verb.verbs) {
      text += verb_text(below);
    }
    return text;
  }
  std::string text =
      "## datamorph " + plain(verb.name) + "\n\n" + synopsis(verb) + plain(verb.help) + ".\n\n";
  for (const command_option &positional : verb.positionals) {
    text += option_text(positional);
  }
  for (const command_option &option : verb.options) {
    text += option_text(option);
  }
  return text + literal(verb.footer);
}

} // namespace

std::string manual_page(const command &program) {
  std::string text = std::string(head) + plain(program.help) + "\n\n# OPTIONS\n\n";
  for (const command_option &option : program.options) {
    text += option_text(option);
  }
  text += "# VERBS\n\n";
  for (const command &verb : program.verbs) {
    text += verb_text(verb);
  }
  return text + "# EXIT STATUS\n" + literal(program.footer) + std::string(tail);
}
