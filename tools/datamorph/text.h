// Bytes and numbers as text, and back.
#ifndef DATAMORPH_TEXT_H
#define DATAMORPH_TEXT_H

#include <optional>
#include <string>
#include <string_view>

// Two lower-case hex digits a byte.
std::string to_hex(std::string_view bytes);
// Nothing when the digits are odd in number or no digits. Either case; empty is no bytes.
std::optional<std::string> from_hex(std::string_view digits);

// Printable ASCII as it is, a backslash doubled, every other byte as \xNN.
std::string to_text(std::string_view bytes);
// The way back. Nothing when a backslash is followed by anything else.
std::optional<std::string> from_text(std::string_view text);

// Whether the bytes are whole characters of UTF-8, so that JSON carries them as they are.
bool is_utf8(std::string_view text);

// A name or path out of a switch for a message: as to_text, cut at 200 characters.
std::string in_quotes(std::string_view text);

// The error's own words: strerror without its static buffer's surprises.
std::string error_text(int error);

// Adds a word to a list of words, after `between` when it is not the first.
void append_word(std::string &list, std::string_view word, std::string_view between = " ");

// The time, as in 2026-01-31T12:59:59.123Z.
std::string utc_now();

std::string upper_case(std::string_view text);

// "1 store", "2 stores".
std::string counted(size_t count, const char *noun);

// A release of a switch, which is a folder name under images/ too: "4.2(1)", with letters after the
// maintenance number ("4.2(1a)") or a tail of letters and digits after '.', '-' or '_'
// ("4.2(1).S3") where wanted; at most 64 characters. Anything else has no place in the order of
// releases.
bool is_release_name(std::string_view text);

// An absolute path without "..", "." or empty components, at most 1024 bytes, no control bytes.
bool is_contained_path(std::string_view path);

// One word of a command that is to be typed: quoted where the shell wants it.
std::string shell_word(std::string_view word);

#endif
