#include "journal_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "failure.h"
#include "text.h"

namespace {

constexpr size_t read_at_once = size_t(1) << 17;
constexpr size_t room = longest_journal_line + 1 + read_at_once;

// Walks over the tokens of one line. Each function is false, or gives nothing, where they end.
class flat_line {
public:
  explicit flat_line(std::string_view text) : text_(text) {}

  bool is_next(char wanted) {
    skip_blanks();
    return at_ < text_.size() && text_[at_] == wanted;
  }

  bool skip(char wanted) {
    const bool there = is_next(wanted);
    at_ += there ? 1 : 0;
    return there;
  }

  bool at_end() {
    skip_blanks();
    return at_ == text_.size();
  }

  // Between the quotes.
  std::optional<std::string_view> string() {
    if (!skip('"')) {
      return std::nullopt;
    }
    const size_t start = at_;
    bool plain = true;
    for (; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      const auto byte = static_cast<unsigned char>(text_[at_]);
      if (byte < 0x20 || (byte == '\\' && !skip_escape())) {
        return std::nullopt;
      }
      plain = plain && byte < 0x80;
    }
    const std::string_view found = text_.substr(start, at_ - start);
    return skip('"') && (plain || is_utf8(found)) ? std::optional(found) : std::nullopt;
  }

  // A number, true, false or null. Numbers of a journal have no fraction.
  bool scalar() {
    skip_blanks();
    for (const std::string_view word : {"true", "false", "null"}) {
      if (text_.substr(at_).starts_with(word)) {
        at_ += word.size();
        return true;
      }
    }
    at_ += at_ < text_.size() && text_[at_] == '-' ? 1 : 0;
    const size_t start = at_;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9') {
      ++at_;
    }
    return at_ == start + 1 || (at_ > start && text_[start] != '0');
  }

private:
  void skip_blanks() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\r')) {
      ++at_;
    }
  }

  // Leaves the place at the escape's last character.
  bool skip_escape() {
    ++at_;
    const char what = at_ < text_.size() ? text_[at_] : '\0';
    if (what != 'u') {
      return what != '\0' && std::strchr("\"\\/bfnrt", what) != nullptr;
    }
    const std::string_view digits = text_.substr(at_ + 1, 4);
    at_ += digits.size();
    return digits.size() == 4 && digits.find_first_not_of("0123456789abcdefABCDEF") == digits.npos;
  }

  std::string_view text_;
  size_t at_ = 0;
};

} // namespace

line_reader::line_reader(int file)
    : file_(file), bytes_(std::make_unique_for_overwrite<char[]>(room)) {}

void line_reader::make_room() {
  std::memmove(bytes_.get(), bytes_.get() + from_, to_ - from_);
  to_ -= from_;
  from_ = 0;
}

// False at the end of the file.
bool line_reader::read_more() {
  if (room - to_ < read_at_once) {
    make_room();
  }
  ssize_t got = 0;
  do {
    got = pread(file_, bytes_.get() + to_, read_at_once, static_cast<off_t>(at_));
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    throw failure(exit_failed, error_text(errno));
  }
  at_ += static_cast<uint64_t>(got);
  to_ += static_cast<size_t>(got);
  return got > 0;
}

bool line_reader::next(std::optional<std::string_view> *line) {
  bool too_long = false;
  size_t looked = 0; // behind from_
  while (true) {
    const char *const start = bytes_.get() + from_;
    const void *const found = std::memchr(start + looked, '\n', to_ - from_ - looked);
    size_t length = to_ - from_;
    if (found != nullptr) {
      length = static_cast<size_t>(static_cast<const char *>(found) - start);
    } else if (!ended_) {
      looked = length;
      if (looked > longest_journal_line) { // its rest is passed over
        too_long = true;
        from_ = to_;
        looked = 0;
      }
      ended_ = !read_more();
      continue;
    }
    if (found == nullptr && length == 0 && !too_long) {
      return false;
    }
    from_ += length + (found != nullptr ? 1 : 0);
    too_long = too_long || length > longest_journal_line;
    *line = too_long ? std::nullopt : std::optional(std::string_view(start, length));
    return true;
  }
}

std::optional<raw_members> look_at_line(std::string_view line) {
  flat_line tokens(line);
  raw_members found;
  if (!tokens.skip('{')) {
    return std::nullopt;
  }
  bool more = !tokens.skip('}');
  while (more) {
    const std::optional<std::string_view> name = tokens.string();
    if (!name || !tokens.skip(':')) {
      return std::nullopt;
    }
    const bool is_text = tokens.is_next('"');
    const std::optional<std::string_view> text = is_text ? tokens.string() : std::nullopt;
    if (is_text ? !text : !tokens.scalar()) {
      return std::nullopt;
    }
    if (*name == "uri") {
      found.uri = text;
    }
    found.has_table_vdc = found.has_table_vdc || *name == "table_vdc";
    more = tokens.skip(',');
    if (!more && !tokens.skip('}')) {
      return std::nullopt;
    }
  }
  return tokens.at_end() ? std::optional(found) : std::nullopt;
}

uint64_t for_each_journal_line(int journal,
                               const std::function<void(uint64_t, const nlohmann::json &)> &take) {
  uint64_t number = 0;
  uint64_t damaged = 0;
  try {
    line_reader lines(journal);
    for (std::optional<std::string_view> text; lines.next(&text); ++number) {
      // What is parsed is flat: what walks in a document calls itself.
      const nlohmann::json line = text && look_at_line(*text)
                                      ? nlohmann::json::parse(*text, nullptr, false)
                                      : nlohmann::json();
      if (line.is_object()) {
        take(number, line);
      } else {
        ++damaged;
      }
    }
  } catch (const failure &error) {
    throw error.placed("cannot read the journal");
  }
  return damaged;
}

std::string text_member(const nlohmann::json &line, const char *name) {
  const auto found = line.find(name);
  return found != line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

uint64_t number_member(const nlohmann::json &line, const char *name) {
  const auto found = line.find(name);
  return found != line.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}
