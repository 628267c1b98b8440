// What a call leaves on standard error and in the conversion log.
#ifndef TESTS_SUPPORT_TRACE_CAPTURE_H
#define TESTS_SUPPORT_TRACE_CAPTURE_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

// Runs `call` with descriptor 2 turned into a file in memory, and gives what was written to it, of
// any size. A sanitizer's report still goes to the real standard error.
std::string captured_stderr(const std::function<void()> &call);

// The messages of a captured text: the library writes each one followed by its marker lines ("File
// check succeeded\nFile exists\n" or "File check failed\nFile doesn't exist\n"), which are taken
// off. Every message is as it was written, with its own "\n" if it has one. What follows the last
// marker line, which is nothing when all went well, is one more message.
std::vector<std::string> trace_messages(const std::string &text);

// How many of the trace's marker pairs said that the log had been started before ("succeeded").
size_t succeeded_markers(const std::string &text);

// The messages of a log's content: each stands behind a prefix such as
// "<Thu Jan  1 00:00:00 1970> ". Nothing when the text does not begin with a prefix, except for an
// empty text, which holds no messages.
std::optional<std::vector<std::string>> log_messages(const std::string &content);

// The messages of /mnt/pss/data_morph.log; with `whole`, those of its predecessor
// /mnt/pss/data_morph.last before them. Fails the running test when a prefix is missing.
std::vector<std::string> log_lines(bool whole = false);

#endif
