#include "change_tables.h"

#include "text.h"

namespace {

using what = state_change::what;

std::string meaning_of(const state_change &change) {
  if (change.how == what::unreadable) {
    const side_value &side = change.a ? *change.a : *change.b;
    return std::string(change.a ? "A: " : "B: ") + to_text(side.trouble);
  }
  if (change.how != what::changed) {
    return (change.a ? *change.a : *change.b).to_text();
  }
  if (change.misfit()) {
    return change.a->to_text() + " -> " + change.b->to_text();
  }
  std::string text;
  for (const field_change &field : change.fields()) {
    append_word(text, field.text, ", ");
  }
  if (text.empty() || change.undecoded()) {
    append_word(text, hex_text(change.a->value) + " -> " + hex_text(change.b->value), ", ");
  }
  return text;
}

} // namespace

std::string misfits_text(uint64_t count, uint64_t unchanged) {
  std::string text;
  const auto tell = [&](uint64_t number, const char *what, const char *rest) {
    if (number > 0) {
      text += counted(number, what) + (number == 1 ? " does" : " do") + " not fit the layout of " +
              (number == 1 ? "its" : "their") + " release" + rest + "\n";
    }
  };
  tell(count, "record", "");
  tell(unchanged, "unchanged record", "; 'datamorph check' names them");
  return text;
}

void change_tables::take(const state_change &change, const std::string &author) {
  if (change.kind != kind_ || change.name != name_) {
    end();
    kind_ = change.kind;
    name_ = change.name;
  }
  if (rows_.size() == shown) {
    ++more_;
    return;
  }
  const bool bad = change.how == what::unreadable;
  rows_.push_back({bad ? output::cell::bad(change.word()) : output::cell(change.word()),
                   change.key ? *change.key : "-", meaning_of(change)});
  if (with_author_) {
    rows_.back().insert(rows_.back().begin() + 2, author);
  }
}

void change_tables::end() {
  if (rows_.empty()) {
    return;
  }
  output::text("\n" + kind_ + " " + to_text(name_) + "\n");
  std::vector<output::column> columns = {{"CHANGE"}, {"KEY"}, {"WHAT"}};
  if (with_author_) {
    columns.insert(columns.begin() + 2, {"BY"});
  }
  output::table(columns, rows_);
  if (more_ > 0) {
    output::text(std::to_string(more_) + " more\n");
  }
  rows_.clear();
  more_ = 0;
}
