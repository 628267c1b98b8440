// The lines of the lab's journal, read one by one.
#ifndef DATAMORPH_JOURNAL_LINES_H
#define DATAMORPH_JOURNAL_LINES_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

// Without its end. The lab writes longer ones only of keys beyond 500,000 bytes, which no store has
// that was made with the usual limits.
constexpr size_t longest_journal_line = size_t(1) << 20;

// The lines of a regular file from its beginning. Holds a little more than the longest line.
class line_reader {
public:
  // The file stays the caller's, and where it is read from does not move.
  explicit line_reader(int file);

  // The next line, without its end; nothing in *line for one that is too long. False at the end of
  // the file. A line stands until the next call. Throws failure(1) when the file cannot be read.
  bool next(std::optional<std::string_view> *line);

  // How many bytes of the file the lines had so far, with their ends.
  uint64_t given() const { return at_ - (to_ - from_); }

private:
  bool read_more();
  void make_room();

  int file_;
  uint64_t at_ = 0; // in the file
  bool ended_ = false;
  std::unique_ptr<char[]> bytes_;
  size_t from_ = 0; // what is not given yet
  size_t to_ = 0;
};

// What stands behind a name in a line, without the quotes of a text, escapes as they stand.
struct raw_members {
  std::optional<std::string_view> uri;
  bool has_table_vdc = false;
};

// Looks at a line without making a document of it. Nothing when it is damaged: no JSON object, or
// one with a list or an object in it, which no line of a journal has.
std::optional<raw_members> look_at_line(std::string_view line);

// Lines are numbered from 0. Damaged ones are passed over; how many there were. Throws failure(1)
// when the journal cannot be read.
uint64_t for_each_journal_line(int journal,
                               const std::function<void(uint64_t, const nlohmann::json &)> &take);

// A member; "" or 0 when it is not there or of another type.
std::string text_member(const nlohmann::json &line, const char *name);
uint64_t number_member(const nlohmann::json &line, const char *name);

#endif
