#include "lab/journal.h"

#include <cinttypes>
#include <cstdio>
#include <exception>
#include <mutex>
#include <utility>

#include "lab/files.h"
#include "lab/lab.h"

namespace lab {

std::atomic<bool> journal_is_on{false};

namespace {

std::atomic<uint64_t> journals_started{0};

struct journal_state {
  std::mutex mutex;
  int fd = -1;
  uint64_t lines = 0;
  std::string moment;
  vdc_id_t vdc = 0;
  std::string service;
  journal_caller caller = nullptr;
  size_t unexpected = 0;
  std::string first_unexpected;
};

journal_state &state() {
  // Never destroyed: message threads may outlive main().
  static journal_state &one = *new journal_state;
  return one;
}

// Length of the UTF-8 sequence at the start of `text`; 0 when it is none.
size_t utf8_length(std::string_view text) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  const size_t length = lead < 0x80                   ? 1
                        : lead >= 0xc2 && lead < 0xe0 ? 2
                        : lead >= 0xe0 && lead < 0xf0 ? 3
                        : lead >= 0xf0 && lead < 0xf5 ? 4
                                                      : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) {
      return 0;
    }
  }
  const bool overlong = (lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xf0 && byte(1) < 0x90);
  const bool surrogate = lead == 0xed && byte(1) >= 0xa0;
  const bool beyond = lead == 0xf4 && byte(1) >= 0x90;
  return overlong || surrogate || beyond ? 0 : length;
}

// A URI may hold any bytes; what is no text is written as the code point of the same number.
void append_string(std::string *line, std::string_view text) {
  *line += '"';
  while (!text.empty()) {
    const unsigned char first = static_cast<unsigned char>(text[0]);
    const size_t length = utf8_length(text);
    if (length == 0 || first < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", first);
      *line += escaped;
      text.remove_prefix(1);
      continue;
    }
    if (first == '"' || first == '\\') {
      *line += '\\';
    }
    line->append(text.substr(0, length));
    text.remove_prefix(length);
  }
  *line += '"';
}

void append_name(std::string *line, const char *name) {
  line->append(line->size() > 1 ? ",\"" : "\"").append(name).append("\":");
}

void append_text(std::string *line, const char *name, std::string_view text) {
  append_name(line, name);
  append_string(line, text);
}

void append_number(std::string *line, const char *name, uint64_t number) {
  append_name(line, name);
  line->append(std::to_string(number));
}

void append_hex(std::string *line, const char *name, std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  append_name(line, name);
  *line += '"';
  for (const char byte : bytes) {
    *line += digits[static_cast<unsigned char>(byte) >> 4];
    *line += digits[static_cast<unsigned char>(byte) & 15];
  }
  *line += '"';
}

void append_size(std::string *line, const char *name, const std::optional<uint64_t> &size) {
  append_name(line, name);
  line->append(size ? std::to_string(*size) : "null");
}

void append_sum(std::string *line, const char *name, const std::optional<uint64_t> &sum) {
  char digits[17] = "";
  append_name(line, name);
  if (sum) {
    std::snprintf(digits, sizeof(digits), "%016" PRIx64, *sum);
  }
  *line += sum ? std::string(1, '"') + digits + '"' : "null";
}

std::string line_of(const journal_state &journal, const journal_entry &entry, bool unexpected) {
  std::string line = "{";
  append_number(&line, "n", journal.lines);
  append_text(&line, "moment", journal.moment);
  append_number(&line, "vdc", journal.vdc);
  append_text(&line, "service", journal.service);
  const char *const routine = journal.caller == nullptr ? nullptr : journal.caller();
  if (routine != nullptr) {
    append_text(&line, "routine", routine);
  }
  append_text(&line, "call", entry.call);
  if (entry.uri) {
    append_text(&line, "uri", *entry.uri);
  }
  if (entry.file) {
    append_text(&line, "file", *entry.file);
  }
  if (entry.table_vdc) {
    append_number(&line, "table_vdc", *entry.table_vdc);
  }
  if (entry.uuid) {
    append_number(&line, "uuid", *entry.uuid);
  }
  if (entry.tag) {
    append_hex(&line, "tag", *entry.tag);
  }
  if (entry.has_old_tag && entry.old_tag) {
    append_hex(&line, "old_tag", *entry.old_tag);
  } else if (entry.has_old_tag) {
    append_name(&line, "old_tag");
    line += "null";
  }
  if (entry.key) {
    append_hex(&line, "key", *entry.key);
  }
  if (entry.has_sizes) {
    append_size(&line, "old", entry.old_size);
    append_size(&line, "new", entry.new_size);
  }
  if (entry.has_sums) {
    append_sum(&line, "old_sum", entry.old_sum);
    append_sum(&line, "new_sum", entry.new_sum);
  }
  if (entry.has_counts) {
    append_number(&line, "added", entry.added);
    append_number(&line, "changed", entry.changed);
    append_number(&line, "removed", entry.removed);
  }
  if (entry.sap) {
    append_number(&line, "sap", *entry.sap);
  }
  append_number(&line, "status", entry.status);
  append_name(&line, "unexpected");
  line += unexpected ? "true}" : "false}";
  return line;
}

// A run whose journal cannot be written must not pass for one without failed writes.
void write_line(journal_state *journal, std::string line, bool unexpected) {
  const std::string ended = line + '\n';
  const bool written = journal->fd < 0 || write_all(journal->fd, ended.data(), ended.size());
  journal->unexpected += !written && !unexpected ? 1 : 0;
  if ((unexpected || !written) && journal->first_unexpected.empty()) {
    journal->first_unexpected = std::move(line);
  }
}

} // namespace

void journal_write(const journal_entry &entry) noexcept {
  if (!journal_on()) {
    return;
  }
  journal_state &journal = state();
  const std::lock_guard<std::mutex> lock(journal.mutex);
  if (!journal_on()) { // stopped meanwhile: the file is not ours any more, the counts have been
                       // read
    return;
  }
  const bool unexpected = entry.status != 0 && entry.status != entry.expected;
  ++journal.lines;
  journal.unexpected += unexpected ? 1 : 0;
  if (journal.fd < 0 && !unexpected) {
    return;
  }
  try {
    write_line(&journal, line_of(journal, entry, unexpected), unexpected);
  } catch (const std::exception &) {
    journal.unexpected += unexpected ? 0 : 1;
  }
}

uint64_t journal_number() {
  return journals_started;
}

void journal_start(int fd) {
  journal_state &journal = state();
  const std::lock_guard<std::mutex> lock(journal.mutex);
  journal.fd = fd;
  journal.lines = 0;
  journal.unexpected = 0;
  journal.first_unexpected.clear();
  ++journals_started;
  journal_is_on = true;
}

void journal_stop() {
  journal_state &journal = state();
  const std::lock_guard<std::mutex> lock(journal.mutex);
  journal_is_on = false;
  journal.fd = -1;
}

void journal_request(const std::string &moment, vdc_id_t vdc, const std::string &service) {
  journal_state &journal = state();
  const std::lock_guard<std::mutex> lock(journal.mutex);
  journal.moment = moment;
  journal.vdc = vdc;
  journal.service = service;
}

void journal_routine(journal_caller caller) {
  journal_state &journal = state();
  const std::lock_guard<std::mutex> lock(journal.mutex);
  journal.caller = caller;
}

size_t journal_unexpected(std::string *first) {
  journal_state &journal = state();
  const std::lock_guard<std::mutex> lock(journal.mutex);
  if (first != nullptr) {
    *first = journal.first_unexpected;
  }
  return journal.unexpected;
}

} // namespace lab
