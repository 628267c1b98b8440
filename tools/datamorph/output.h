// Data on standard output, as a table for people or as JSON for programs; messages on standard
// error.
#ifndef DATAMORPH_OUTPUT_H
#define DATAMORPH_OUTPUT_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace output {

enum class format { table, json };
enum class align { left, right };

struct column {
  const char *name;
  align alignment = align::left;
  // Its cells are texts, which are broken at blanks where the terminal is too narrow. So are those
  // of a last column that is aligned to the left.
  bool text = false;
};

struct cell {
  cell(std::string value) : text(std::move(value)) {}
  cell(const char *value) : text(value) {}
  cell(unsigned long long value) : text(std::to_string(value)) {}
  cell(unsigned long value) : text(std::to_string(value)) {}
  cell(unsigned value) : text(std::to_string(value)) {}
  cell(int value) : text(std::to_string(value)) {}
  static cell bad(std::string value) {
    cell out(std::move(value));
    out.alarming = true;
    return out;
  }
  std::string text;
  bool alarming = false; // in red where there is colour
};

// Writes a table to standard output. Nothing but the head when there are no rows. No cell is ever
// cut: a table that stays too wide for the terminal runs over.
void table(const std::vector<column> &columns, const std::vector<std::vector<cell>> &rows);

// Writes a document, or text as it is, to standard output. Bytes that are no UTF-8 are replaced.
void json(const nlohmann::json &document);
void text(const std::string &text);
std::string json_text(const nlohmann::json &document, int indent = 2);

// Whether the reader of standard output is gone.
bool reader_gone();

// Flushes standard output. False when something could not be written.
bool finish();

// "datamorph: MESSAGE" on standard error, as one line.
void message(const std::string &message);

} // namespace output

#endif
