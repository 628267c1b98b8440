// Data on standard output, as a table for people or as JSON for programs; messages on standard
// error. Tables and the streams themselves are in output.cpp, JSON in envelope.cpp.
#ifndef DATAMORPH_OUTPUT_H
#define DATAMORPH_OUTPUT_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace output {

// What a verb is to write: a table for people, or the documents of its result. Whether these go out
// as one document or as lines is no concern of the verbs.
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

// What becomes of a table that stays too wide for the terminal: it runs over, or each row is told
// as "NAME value" in as many lines as it takes, without the cells that are "-".
enum class too_wide { runs_over, is_told };

// Writes a table to standard output. Nothing but the head when there are no rows. No cell is ever
// cut.
void table(const std::vector<column> &columns, const std::vector<std::vector<cell>> &rows,
           too_wide what = too_wide::runs_over);

// Writes text to standard output as it is. Where JSON was asked for it is a piece of the document
// that is the verb's result.
void text(const std::string &text);
std::string json_text(const nlohmann::json &document, int indent = 2);

// ---- JSON ----
//
// Every verb's JSON is one envelope, on success and on failure (docs/json.md). The verb writes what
// stands at "result", in one of three ways: json() for a document, `document` for one with a list
// that is long or not known beforehand, text() for pieces. The rest is written around it. As lines
// (--format jsonl) each item of the list is a line of its own, {"item": ...}, and the last line is
// the envelope, whose result lacks the list. Bytes that are no UTF-8 are replaced.

// Writes the document; `list` names the member that goes out item by item as lines.
void json(const nlohmann::json &document, const char *list = nullptr);

// A result that is written as it comes, so that nothing has to be held but its other members. One
// that is not ended, as when a failure is thrown, is closed with the envelope: whole JSON, and
// "error" tells that something is missing.
//
//   output::document result({{"switch", dir}}, "changes");
//   result.item(change); ...
//   result.end({{"summary", counts}});
class document {
public:
  document(const nlohmann::json &members, const char *list);
  void item(const nlohmann::json &item);
  void end(const nlohmann::json &members = nlohmann::json::object());
};

// How JSON goes out.
enum class style { none, document, lines };

// For main, before the verb: its name ("store show"; empty when it is not known) and how.
void begin(const std::string &verb, style how);

// What went wrong, for the envelope of a verb that ends by an exit status other than 0 and 2.
// Without a next action the status says what to do.
void explain(const std::string &message, const std::string &next_action = "");

// For main, after the verb: ends the envelope. The exit status, which is 1 when nothing was wrong
// but that not all could be written.
int end(int status);

// What a document that was read says, whether it is bare or stands in an envelope. Throws
// failure(3) naming `origin` for an envelope of a later version, and for one of a verb that failed.
nlohmann::json result_in(nlohmann::json document, const std::string &origin);

// ---- Standard output and error ----

// Bytes as they are, outside of any envelope.
void raw(const std::string &bytes);

// Whether the reader of standard output is gone.
bool reader_gone();

// Flushes standard output. False when something could not be written.
bool finish();

// "datamorph: MESSAGE" on standard error, as one line.
void message(const std::string &message);

} // namespace output

#endif
