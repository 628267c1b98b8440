// The JSON that every verb writes: its result, in an envelope that tells the rest.
#include "output.h"

#include <algorithm>
#include <optional>

#include "failure.h"
#include "text.h"

#ifndef DATAMORPH_VERSION
#error "the build says which version this is"
#endif

namespace {

// Of the envelope. A program that reads it relies on the members of this version; more may be
// added.
constexpr unsigned envelope_version = 1;

struct status_words {
  int status;
  const char *code;
  const char *next_action;
};

// Programs rely on the codes, they never change. Any other status is that of a signal.
constexpr status_words words_of_statuses[] = {
    {exit_failed, "failed", "mend what the message names, then run the command again"},
    {exit_refused, "refused", "mend what the message names, then run the command again"},
    {exit_in_use, "in_use", "wait until the other command is done, then run this one again"},
    {exit_usage, "usage", "see what 'datamorph --help' and the verb's --help say"},
};
constexpr status_words words_of_signals = {0, "interrupted", "run the command again"};

const status_words &words_of(int status) {
  const auto *found =
      std::find_if(std::begin(words_of_statuses), std::end(words_of_statuses),
                   [&](const status_words &words) { return words.status == status; });
  return found == std::end(words_of_statuses) ? words_of_signals : *found;
}

// What was written of this program's envelope.
class envelope {
public:
  bool as_lines() const { return how_ == output::style::lines; }

  void begin(const std::string &verb, output::style how) {
    verb_ = verb;
    how_ = how;
  }

  void explain(const std::string &message, const std::string &next_action) {
    message_ = message;
    next_action_ = next_action;
  }

  void piece(std::string text) {
    if (how_ == output::style::none) {
      output::raw(text);
      return;
    }
    write_head();
    if (as_lines()) {
      std::erase(text, '\n'); // between the tokens of JSON no other ones stand
    }
    // The last one's end of line would stand before the comma.
    if (line_ended_) {
      output::raw("\n");
    }
    line_ended_ = text.ends_with('\n');
    if (line_ended_) {
      text.pop_back();
    }
    output::raw(text);
  }

  void begin_list(const nlohmann::json &members, const char *list) {
    items_ = 0;
    members_ = members;
    if (as_lines()) {
      return;
    }
    write_head();
    output::raw("{");
    for (const auto &[name, value] : members.items()) {
      write_member(name, value);
      output::raw(",");
    }
    output::raw("\n  " + output::json_text(list, -1) + ": [");
  }

  void item(const nlohmann::json &item) {
    if (as_lines()) {
      output::raw(R"({"item": )" + output::json_text(item, -1) + "}\n");
      return;
    }
    output::raw(std::string(items_++ == 0 ? "\n   " : ",\n   ") + output::json_text(item, -1));
  }

  void end_list(const nlohmann::json &members) {
    nlohmann::json whole = std::move(*members_);
    members_.reset();
    if (as_lines()) {
      whole.update(members);
      piece(output::json_text(whole, -1));
      return;
    }
    output::raw(items_ == 0 ? "]" : "\n  ]");
    for (const auto &[name, value] : members.items()) {
      output::raw(",");
      write_member(name, value);
    }
    output::raw("\n }");
  }

  void end(int status) {
    if (how_ == output::style::none) {
      return;
    }
    if (members_) {
      end_list(nlohmann::json::object());
    }
    if (!head_written_) {
      piece("null");
    }
    output::raw(between() + R"("exit_code": )" + std::to_string(status) + between() +
                R"("error": )" + output::json_text(error(status), -1) +
                (as_lines() ? "}\n" : "\n}\n"));
    how_ = output::style::none;
  }

private:
  std::string between() const { return as_lines() ? ", " : ",\n "; }

  void write_head() {
    if (head_written_) {
      return;
    }
    head_written_ = true;
    output::raw(std::string(as_lines() ? "{" : "{\n ") + R"("datamorph": {"envelope": )" +
                std::to_string(envelope_version) + R"(, "version": ")" DATAMORPH_VERSION "\"}" +
                between() + R"("verb": )" +
                output::json_text(verb_.empty() ? nlohmann::json() : nlohmann::json(verb_), -1) +
                between() + R"("result": )");
  }

  static void write_member(const std::string &name, const nlohmann::json &value) {
    const bool rows = value.is_array() && !value.empty();
    output::raw("\n  " + output::json_text(name, -1) + ": " + (rows ? "[" : ""));
    if (!rows) {
      output::raw(output::json_text(value, -1));
      return;
    }
    const char *before = "\n   ";
    for (const nlohmann::json &row : value) {
      output::raw(before + output::json_text(row, -1));
      before = ",\n   ";
    }
    output::raw("\n  ]");
  }

  nlohmann::json error(int status) const {
    if (status == exit_done || status == exit_different) {
      return nullptr;
    }
    const status_words &words = words_of(status);
    return {{"code", words.code},
            {"message", message_.empty() ? "the result tells what went wrong" : message_},
            {"next_action", next_action_.empty() ? words.next_action : next_action_}};
  }

  output::style how_ = output::style::none;
  std::string verb_;
  std::string message_;
  std::string next_action_;
  bool head_written_ = false;
  bool line_ended_ = false; // behind the last piece, not written yet
  size_t items_ = 0;
  std::optional<nlohmann::json> members_; // of the document that is under way
};

envelope ours;

} // namespace

namespace output {

std::string json_text(const nlohmann::json &document, int indent) {
  return document.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

void begin(const std::string &verb, style how) {
  ours.begin(verb, how);
}

void explain(const std::string &message, const std::string &next_action) {
  ours.explain(message, next_action);
}

int end(int status) {
  const auto checked = [](int wanted) {
    if (finish() || wanted != exit_done) {
      return wanted;
    }
    message("not all of the output could be written");
    return static_cast<int>(exit_failed);
  };
  // What is lost already makes the status that the envelope tells.
  const int told = checked(status);
  ours.end(told);
  return checked(told);
}

void text(const std::string &text) {
  ours.piece(text);
}

void json(const nlohmann::json &document, const char *list) {
  if (list == nullptr || !ours.as_lines()) {
    ours.piece(json_text(document, ours.as_lines() ? -1 : 2));
    return;
  }
  nlohmann::json members = document;
  members.erase(list);
  ours.begin_list(members, list);
  for (const nlohmann::json &item : document.at(list)) {
    ours.item(item);
  }
  ours.end_list(nlohmann::json::object());
}

document::document(const nlohmann::json &members, const char *list) {
  ours.begin_list(members, list);
}

void document::item(const nlohmann::json &item) {
  ours.item(item);
}

void document::end(const nlohmann::json &members) {
  ours.end_list(members);
}

nlohmann::json result_in(nlohmann::json document, const std::string &origin) {
  if (!document.is_object() || !document.contains("datamorph")) {
    return document;
  }
  const nlohmann::json head = document["datamorph"];
  if (!head.is_object() || head.value("envelope", nlohmann::json()) != envelope_version) {
    throw failure(exit_refused,
                  in_quotes(origin) + ": its envelope is not of version " +
                      std::to_string(envelope_version) + ", which this program reads",
                  "write it with this program");
  }
  if (!document.value("error", nlohmann::json()).is_null()) {
    throw failure(exit_refused, in_quotes(origin) + ": it comes from a command that failed",
                  "run that command again");
  }
  return document.contains("result") ? std::move(document["result"]) : nlohmann::json();
}

} // namespace output
