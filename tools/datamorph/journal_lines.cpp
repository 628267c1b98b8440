#include "journal_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <fcntl.h>

#include "failure.h"
#include "text.h"

// No line of a journal is; text may hold a few of these.
bool is_nested(std::string_view line) {
  constexpr auto most = 64;
  return std::count_if(line.begin(), line.end(), [](char c) { return c == '{' || c == '['; }) >
         most;
}

void for_each_journal_line(int journal,
                           const std::function<void(uint64_t, const nlohmann::json &)> &take) {
  const std::unique_ptr<FILE, int (*)(FILE *)> file(fdopen(fcntl(journal, F_DUPFD_CLOEXEC, 0), "r"),
                                                    std::fclose);
  if (file == nullptr || std::fseek(file.get(), 0, SEEK_SET) != 0) {
    throw failure(exit_failed, "cannot read the journal: " + error_text(errno));
  }
  char *text = nullptr;
  size_t room = 0;
  const std::unique_ptr<char *, void (*)(char **)> kept(&text, [](char **one) { std::free(*one); });
  uint64_t number = 0;
  for (ssize_t got = 0; (got = getline(&text, &room, file.get())) > 0; ++number) {
    if (is_nested({text, static_cast<size_t>(got)})) {
      continue;
    }
    const nlohmann::json line = nlohmann::json::parse(text, text + got, nullptr, false);
    if (line.is_object()) {
      take(number, line);
    }
  }
}

std::string text_member(const nlohmann::json &line, const char *name) {
  const auto found = line.find(name);
  return found != line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

uint64_t number_member(const nlohmann::json &line, const char *name) {
  const auto found = line.find(name);
  return found != line.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}
