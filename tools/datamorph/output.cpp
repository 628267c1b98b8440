#include "output.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <libsmartcols/libsmartcols.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "failure.h"
#include "progress.h"
#include "text.h"

namespace {

bool lost = false; // something could not be written

struct unref {
  void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using table_ptr = std::unique_ptr<libscols_table, unref>;

bool wants_colour() {
  const char *no_colour = std::getenv("NO_COLOR");
  const char *terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0') &&
         terminal != nullptr && std::string_view(terminal) != "dumb";
}

[[noreturn]] void no_memory() {
  throw failure(exit_failed, "no memory for the table");
}

// ---- Fitting a table to the terminal -----------------------------------------------------------

using table_rows = std::vector<std::vector<output::cell>>;

// Columns of the terminal on standard output; 0 when that is none.
size_t terminal_width() {
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::vector<std::string_view> words_of(std::string_view text) {
  std::vector<std::string_view> words;
  while (!text.empty()) {
    const size_t length = std::min(text.find(' '), text.size());
    words.push_back(text.substr(0, length));
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return words;
}

// Broken at blanks; a word that is longer than the width stays whole.
std::string broken(std::string_view text, size_t width) {
  std::string lines;
  size_t used = 0;
  for (const std::string_view word : words_of(text)) {
    const bool fits = used + 1 + word.size() <= width;
    if (!lines.empty()) {
      lines += fits ? ' ' : '\n';
    }
    used = fits && !lines.empty() ? used + 1 + word.size() : word.size();
    lines += word;
  }
  return lines;
}

struct extent {
  bool text = false;
  size_t width = 0; // of the longest cell
  size_t least = 0; // of the longest word
};

std::vector<extent> extents_of(const std::vector<output::column> &columns, const table_rows &rows) {
  std::vector<extent> extents;
  for (size_t at = 0; at < columns.size(); ++at) {
    const output::column &column = columns[at];
    const size_t head = std::string_view(column.name).size();
    extent found = {column.text, head, head};
    found.text |= at + 1 == columns.size() && column.alignment == output::align::left;
    for (const std::vector<output::cell> &row : rows) {
      found.width = std::max(found.width, row[at].text.size());
      for (const std::string_view word : words_of(row[at].text)) {
        found.least = std::max(found.least, word.size());
      }
    }
    extents.push_back(found);
  }
  return extents;
}

// Breaks texts, those of the last columns first, until the table is as wide as the terminal.
table_rows fitted(const std::vector<output::column> &columns, table_rows rows) {
  const size_t room = terminal_width();
  std::vector<extent> extents = extents_of(columns, rows);
  size_t wide = columns.size() - 1;
  for (const extent &column : extents) {
    wide += column.width;
  }
  for (size_t at = columns.size(); room > 0 && at-- > 0 && wide > room;) {
    if (!extents[at].text) {
      continue;
    }
    const size_t less = std::min(wide - room, extents[at].width - extents[at].least);
    wide -= less;
    for (std::vector<output::cell> &row : rows) {
      row[at].text = broken(row[at].text, extents[at].width - less);
    }
  }
  return rows;
}

// Whether it can be made as narrow as the terminal is.
bool can_fit(const std::vector<output::column> &columns, const table_rows &rows) {
  size_t least = columns.size() - 1;
  for (const extent &column : extents_of(columns, rows)) {
    least += column.text ? column.least : column.width;
  }
  return terminal_width() == 0 || least <= terminal_width();
}

// ---- Rows that are told ------------------------------------------------------------------------

constexpr size_t indent = 2;
constexpr std::string_view between = "  ";

// A text of several lines, those behind the first one indented.
std::string indented(std::string_view lines) {
  std::string text;
  for (const char letter : lines) {
    text += letter;
    text += letter == '\n' ? std::string(indent, ' ') : "";
  }
  return text;
}

std::string told(const std::vector<output::column> &columns, const std::vector<output::cell> &row) {
  const size_t room = std::max(terminal_width(), 2 * indent) - indent;
  std::string text;
  size_t used = 0; // of the last line
  for (size_t at = 0; at < columns.size(); ++at) {
    if (row[at].text == "-") {
      continue;
    }
    const std::string whole = std::string(columns[at].name) + " " + row[at].text;
    const std::string lines = broken(whole, room);
    const bool fits = used == 0 || used + between.size() + whole.size() <= room + indent;
    if (used > 0) {
      text += fits ? std::string(between) : indented("\n");
    }
    used = (fits && used > 0 ? used + between.size() : indent) + whole.size();
    // Whatever follows a text of several lines begins one of its own.
    used = lines.size() > room ? room + indent : used;
    text += row[at].alarming && wants_colour() ? "\033[31m" + indented(lines) + "\033[0m"
                                               : indented(lines);
  }
  return text + "\n";
}

// ---- The table itself --------------------------------------------------------------------------

void add_column(libscols_table *table, const output::column &column) {
  const int flags = SCOLS_FL_WRAP | (column.alignment == output::align::right ? SCOLS_FL_RIGHT : 0);
  libscols_column *made = scols_table_new_column(table, column.name, 0, flags);
  // Cells come with their unprintable bytes written as \xNN; that is not to be done again.
  if (made == nullptr || scols_column_set_safechars(made, "\\\n") != 0 ||
      scols_column_set_wrapfunc(made, scols_wrapnl_chunksize, scols_wrapnl_nextchunk, nullptr) !=
          0) {
    no_memory();
  }
}

// The table's library counts "\x" as wide as the four characters that it would write for a byte. So
// backslashes go through it as backticks, and those as backslashes; once more is the way back.
std::string exchanged(std::string text) {
  for (char &c : text) {
    c = c == '\\' ? '`' : c == '`' ? '\\' : c;
  }
  return text;
}

void add_row(libscols_table *table, const std::vector<output::cell> &cells) {
  libscols_line *line = scols_table_new_line(table, nullptr);
  if (line == nullptr) {
    no_memory();
  }
  for (size_t at = 0; at < cells.size(); ++at) {
    if (scols_line_set_data(line, at, exchanged(cells[at].text).c_str()) != 0) {
      no_memory();
    }
    if (cells[at].alarming) {
      scols_cell_set_color(scols_line_get_cell(line, at), "red");
    }
  }
}

} // namespace

namespace output {

void table(const std::vector<column> &columns, const std::vector<std::vector<cell>> &rows,
           too_wide what) {
  if (rows.empty()) {
    std::string head;
    for (const column &column : columns) {
      append_word(head, column.name);
    }
    raw(head + "\n");
    return;
  }
  if (what == too_wide::is_told && !can_fit(columns, rows)) {
    for (const std::vector<cell> &row : rows) {
      raw(told(columns, row));
    }
    return;
  }
  const table_ptr table(scols_new_table());
  // The table comes fitted; the library's own way to make it narrower cuts words.
  if (table == nullptr || scols_table_set_termforce(table.get(), SCOLS_TERMFORCE_NEVER) != 0) {
    no_memory();
  }
  scols_table_enable_colors(table.get(), wants_colour() ? 1 : 0);
  for (const column &column : columns) {
    add_column(table.get(), column);
  }
  for (const std::vector<cell> &row : fitted(columns, rows)) {
    add_row(table.get(), row);
  }
  char *printed = nullptr;
  if (scols_print_table_to_string(table.get(), &printed) != 0) {
    no_memory();
  }
  const std::unique_ptr<char, decltype(&std::free)> owner(printed, std::free);
  std::string text = exchanged(printed == nullptr ? "" : printed);
  if (!text.empty() && text.back() != '\n') {
    text += '\n';
  }
  raw(text);
}

void raw(const std::string &bytes) {
  static const bool on_terminal = isatty(STDOUT_FILENO) == 1;
  if (on_terminal) {
    progress::clear();
  }
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
    lost = true;
  }
}

bool reader_gone() {
  pollfd out = {STDOUT_FILENO, 0, 0};
  return poll(&out, 1, 0) == 1 && (out.revents & (POLLERR | POLLNVAL)) != 0;
}

bool finish() {
  if (std::fflush(stdout) != 0) {
    lost = true;
  }
  return !lost;
}

void message(const std::string &message) {
  std::string line = "datamorph: " + message;
  for (char &c : line) {
    c = c == '\n' || c == '\r' ? ' ' : c;
  }
  line += '\n';
  progress::clear();
  std::fflush(stdout); // what was written before it stands before it where both go
  std::fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace output
