#include "text.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

void append_hex(std::string &out, char byte) {
  static constexpr char digits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  out += digits[value >> 4];
  out += digits[value & 15];
}

// The byte of two hex digits; -1 when they are none.
int hex_byte(std::string_view digits) {
  if (digits.size() < 2) {
    return -1;
  }
  const int high = hex_digit(digits[0]);
  const int low = hex_digit(digits[1]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

struct utf8_form {
  size_t following;
  uint32_t least; // a character of fewer bytes is not to be written in this form
  unsigned char mask;
  unsigned char lead;
};
constexpr utf8_form utf8_forms[] = {
    {0, 0x00, 0x80, 0x00},
    {1, 0x80, 0xe0, 0xc0},
    {2, 0x800, 0xf0, 0xe0},
    {3, 0x10000, 0xf8, 0xf0},
};

// The bytes of the character that the text starts with; 0 when it starts with none.
size_t utf8_length(std::string_view text) {
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
  for (const utf8_form &form : utf8_forms) {
    if ((byte(0) & form.mask) != form.lead) {
      continue;
    }
    if (text.size() <= form.following) {
      return 0;
    }
    uint32_t character = byte(0) & static_cast<unsigned char>(~form.mask);
    for (size_t at = 1; at <= form.following; ++at) {
      if ((byte(at) & 0xc0) != 0x80) {
        return 0;
      }
      character = character << 6 | (byte(at) & 0x3fu);
    }
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    return character < form.least || character > 0x10ffff || surrogate ? 0 : form.following + 1;
  }
  return 0;
}

#define DIGITS  "0123456789"
#define LETTERS "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
constexpr char digits[] = DIGITS;
constexpr char letters[] = LETTERS;
constexpr char alphanumerics[] = DIGITS LETTERS;

// Takes one of these characters, or as many of them as come, off the text. Whether there was one.
bool skip_one(std::string_view *text, const char *any_of) {
  const bool found =
      !text->empty() && std::string_view(any_of).find(text->front()) != std::string_view::npos;
  text->remove_prefix(found ? 1 : 0);
  return found;
}

bool skip_some(std::string_view *text, const char *any_of) {
  const size_t length = std::min(text->find_first_not_of(any_of), text->size());
  text->remove_prefix(length);
  return length > 0;
}

bool is_component(std::string_view part) {
  return !part.empty() && part != "." && part != "..";
}

} // namespace

std::string to_hex(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    append_hex(out, byte);
  }
  return out;
}

std::optional<std::string> from_hex(std::string_view digits) {
  if (digits.size() % 2 != 0) {
    return std::nullopt;
  }
  std::string out;
  out.reserve(digits.size() / 2);
  for (size_t at = 0; at < digits.size(); at += 2) {
    const int value = hex_byte(digits.substr(at, 2));
    if (value < 0) {
      return std::nullopt;
    }
    out += static_cast<char>(value);
  }
  return out;
}

std::string to_text(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (const char byte : bytes) {
    if (byte == '\\') {
      out += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7f) {
      out += byte;
    } else {
      out += "\\x";
      append_hex(out, byte);
    }
  }
  return out;
}

std::optional<std::string> from_text(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') {
      out += text[at];
      continue;
    }
    const std::string_view rest = text.substr(at + 1);
    if (!rest.empty() && rest[0] == '\\') {
      out += '\\';
      at += 1;
      continue;
    }
    const int value = rest.size() < 3 || rest[0] != 'x' ? -1 : hex_byte(rest.substr(1));
    if (value < 0) {
      return std::nullopt;
    }
    out += static_cast<char>(value);
    at += 3;
  }
  return out;
}

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = utf8_length(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

std::string in_quotes(std::string_view text) {
  static constexpr size_t longest = 200;
  std::string out = "'";
  out += to_text(text.substr(0, longest));
  out += text.size() > longest ? "...'" : "'";
  return out;
}

std::string error_text(int error) {
  char buffer[128] = "";
  return strerror_r(error, buffer, sizeof buffer);
}

void append_word(std::string &list, std::string_view word, std::string_view between) {
  if (!list.empty()) {
    list += between;
  }
  list += word;
}

std::string upper_case(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(c < 0x80 ? std::toupper(c) : c); });
  return out;
}

std::string counted(size_t count, const char *noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

bool is_release_name(std::string_view text) {
  if (text.size() > 64) {
    return false;
  }
  std::string_view rest = text;
  if (!skip_some(&rest, digits) || !skip_one(&rest, ".") || !skip_some(&rest, digits) ||
      !skip_one(&rest, "(") || !skip_some(&rest, digits)) {
    return false;
  }
  skip_some(&rest, letters);
  if (!skip_one(&rest, ")")) {
    return false;
  }
  while (skip_one(&rest, ".-_")) {
    if (!skip_some(&rest, alphanumerics)) {
      return false;
    }
  }
  return rest.empty();
}

bool is_contained_path(std::string_view path) {
  if (path.size() < 2 || path.size() > 1024 || path.front() != '/') {
    return false;
  }
  if (std::any_of(path.begin(), path.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
      })) {
    return false;
  }
  for (size_t start = 1; start <= path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (!is_component(path.substr(start, end - start))) {
      return false;
    }
    start = end + 1;
  }
  return true;
}

std::string shell_word(std::string_view word) {
  constexpr char plain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:,+=@%";
  if (!word.empty() && word.find_first_not_of(plain) == std::string_view::npos) {
    return std::string(word);
  }
  const std::string text = to_text(word);
  if (text == word && word.find('\'') == std::string_view::npos) {
    return "'" + text + "'";
  }
  std::string quoted = "$'";
  for (const char c : text) {
    quoted += c == '\'' ? "\\'" : std::string(1, c);
  }
  return quoted + "'";
}

std::string utc_now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto all = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const std::time_t seconds = all / 1000;
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
  char text[48];
  std::snprintf(text, sizeof text, "%s.%03dZ", date, static_cast<int>(all % 1000));
  return text;
}
