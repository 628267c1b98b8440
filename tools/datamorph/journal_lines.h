// The lines of the lab's journal, read one by one.
#ifndef DATAMORPH_JOURNAL_LINES_H
#define DATAMORPH_JOURNAL_LINES_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

// From the beginning of the file; lines that are no JSON objects are passed over. Lines are
// numbered from 0. Throws failure(1) when it cannot be read.
void for_each_journal_line(int journal,
                           const std::function<void(uint64_t, const nlohmann::json &)> &take);

// Whether a line is nested as no line of a journal is. It is not to be parsed: what walks in a
// document calls itself.
bool is_nested(std::string_view line);

// A member; "" or 0 when it is not there or of another type.
std::string text_member(const nlohmann::json &line, const char *name);
uint64_t number_member(const nlohmann::json &line, const char *name);

#endif
