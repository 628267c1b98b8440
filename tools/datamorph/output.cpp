#include "output.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <libsmartcols/libsmartcols.h>
#include <poll.h>
#include <unistd.h>

#include "failure.h"
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

void add_row(libscols_table *table, const std::vector<output::cell> &cells) {
  libscols_line *line = scols_table_new_line(table, nullptr);
  if (line == nullptr) {
    no_memory();
  }
  for (size_t at = 0; at < cells.size(); ++at) {
    if (scols_line_set_data(line, at, cells[at].text.c_str()) != 0) {
      no_memory();
    }
    if (cells[at].alarming) {
      scols_cell_set_color(scols_line_get_cell(line, at), "red");
    }
  }
}

void write_all(const std::string &text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    lost = true;
  }
}

} // namespace

namespace output {

void table(const std::vector<column> &columns, const std::vector<std::vector<cell>> &rows) {
  const table_ptr table(scols_new_table());
  if (table == nullptr) {
    no_memory();
  }
  scols_table_enable_colors(table.get(), wants_colour() ? 1 : 0);
  for (const column &column : columns) {
    const bool last = &column == &columns.back();
    const int flags = (column.alignment == align::right ? SCOLS_FL_RIGHT : 0) |
                      (last && column.alignment == align::left ? SCOLS_FL_WRAP : 0);
    libscols_column *made = scols_table_new_column(table.get(), column.name, 0, flags);
    // Cells come with their unprintable bytes written as \xNN; that is not to be done again.
    if (made == nullptr || scols_column_set_safechars(made, "\\") != 0) {
      no_memory();
    }
  }
  for (const std::vector<cell> &row : rows) {
    add_row(table.get(), row);
  }
  if (rows.empty()) {
    std::string head;
    for (const column &column : columns) {
      append_word(head, column.name);
    }
    write_all(head + "\n");
    return;
  }
  char *printed = nullptr;
  if (scols_print_table_to_string(table.get(), &printed) != 0) {
    no_memory();
  }
  const std::unique_ptr<char, decltype(&std::free)> owner(printed, std::free);
  std::string text = printed == nullptr ? "" : printed;
  if (!text.empty() && text.back() != '\n') {
    text += '\n';
  }
  write_all(text);
}

std::string json_text(const nlohmann::json &document, int indent) {
  return document.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

void json(const nlohmann::json &document) {
  write_all(json_text(document) + "\n");
}

void text(const std::string &text) {
  write_all(text);
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
  std::fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace output
