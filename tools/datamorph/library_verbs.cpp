// services and compare: what the library says by itself, without a switch.
#include "verbs.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "failure.h"
#include "library.h"
#include "services.h"
#include "text.h"
#include "unique_fd.h"

namespace {

// ---- A process for the library -----------------------------------------------------------------

using question = std::function<nlohmann::json(const library &)>;

nlohmann::json answer_to(const std::string &wanted, const question &ask) {
  try {
    return {{"answer", ask(load_library(wanted))}};
  } catch (const failure &error) {
    return {{"status", error.status()},
            {"message", error.message()},
            {"next_action", error.next_action()}};
  }
}

[[noreturn]] void live_for_library(const std::string &wanted, const question &ask, int results,
                                   pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(exit_failed);
  }
  dup2(STDERR_FILENO, STDOUT_FILENO); // what the library prints is no data
  const std::string text = output::json_text(answer_to(wanted, ask), -1);
  for (size_t done = 0; done < text.size();) {
    const ssize_t put = write(results, text.data() + done, text.size() - done);
    if (put <= 0 && errno != EINTR) {
      _exit(exit_failed);
    }
    done += put > 0 ? static_cast<size_t>(put) : 0;
  }
  _exit(exit_done);
}

std::string read_all(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got == 0 || (got < 0 && errno != EINTR)) {
      return text;
    }
    text.append(buffer, got > 0 ? static_cast<size_t>(got) : 0);
  }
}

std::string end_text(int status) {
  if (WIFSIGNALED(status)) {
    const int number = WTERMSIG(status);
    return std::string("crashed: ") + strsignal(number) + " (signal " + std::to_string(number) +
           ")";
  }
  return "ended the process with status " + std::to_string(WEXITSTATUS(status));
}

// A library's code runs as soon as it is loaded. It does so in a process of its own, so that one
// which crashes is named and nothing else goes down with it.
nlohmann::json ask_library(const std::string &wanted, const question &ask) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw failure(exit_failed, "cannot open a pipe: " + error_text(errno));
  }
  const unique_fd reading(ends[0]);
  unique_fd writing(ends[1]);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    throw failure(exit_failed, "cannot start a process: " + error_text(errno));
  }
  if (pid == 0) {
    live_for_library(wanted, ask, writing.get(), parent);
  }
  writing.reset();
  const nlohmann::json answer = nlohmann::json::parse(read_all(reading.get()), nullptr, false);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!answer.is_object()) {
    throw failure(exit_refused,
                  in_quotes(find_library(wanted)) + ": the library " + end_text(status),
                  "name another one with --library");
  }
  if (answer.contains("message")) {
    throw failure(answer["status"].get<int>(), answer["message"].get<std::string>(),
                  answer["next_action"].get<std::string>());
  }
  return answer["answer"];
}

// ---- What it is asked --------------------------------------------------------------------------

struct table_view {
  const char *name;
  const std::vector<table_row> *rows;
};

std::vector<table_view> tables_of(const library &library) {
  std::vector<table_view> tables;
  tables.reserve(all_moments.size() + 1);
  for (const moment which : all_moments) {
    tables.push_back({moment_name(which), &library.tables[static_cast<size_t>(which)]});
  }
  tables.push_back({"psshlpr", &library.helper_table});
  return tables;
}

nlohmann::json rows_of(const library &library) {
  nlohmann::json rows = nlohmann::json::array();
  for (const table_view &table : tables_of(library)) {
    for (size_t at = 0; at < table.rows->size(); ++at) {
      const table_row &row = (*table.rows)[at];
      rows.push_back({{"moment", table.name},
                      {"order", at},
                      {"service", service_name(row.uuid)},
                      {"uuid", row.uuid},
                      {"routine", row.routine}});
    }
  }
  return {{"library", library.file}, {"rows", rows}};
}

int order_of(const library &library, const std::string &a, const std::string &b) {
  syserr_t error = SYSERR_SUCCESS;
  const int order = library.compare_versions(a.c_str(), b.c_str(), &error);
  if (error != SYSERR_SUCCESS) {
    throw failure(exit_failed,
                  "the library refuses to compare " + in_quotes(a) + " with " + in_quotes(b));
  }
  return order;
}

} // namespace

int services(const common_options &common) {
  const nlohmann::json document = ask_library(common.library, rows_of);
  if (common.format == output::format::json) {
    output::json(document, "rows");
    return exit_done;
  }
  std::vector<std::vector<output::cell>> rows;
  for (const nlohmann::json &row : document["rows"]) {
    rows.push_back({row["moment"].get<std::string>(), row["order"].get<unsigned long>(),
                    row["service"].get<std::string>(), row["uuid"].get<uint32>(),
                    to_text(row["routine"].get<std::string>())});
  }
  using output::align;
  output::table(
      {{"MOMENT"}, {"ORDER", align::right}, {"SERVICE"}, {"NUMBER", align::right}, {"ROUTINE"}},
      rows);
  return exit_done;
}

int compare(const common_options &common, const std::string &a, const std::string &b) {
  if (a.empty() || b.empty()) {
    throw failure(exit_usage, "compare wants two releases, and an empty text is none");
  }
  const int order = ask_library(common.library, [&](const library &library) {
                      return nlohmann::json(order_of(library, a, b));
                    }).get<int>();
  const char *word = order > 0 ? "newer" : order < 0 ? "older" : "equal";
  if (common.format == output::format::json) {
    output::json({{"a", a}, {"b", b}, {"result", order}, {"order", word}});
  } else {
    output::text(order == 0 ? a + " and " + b + " are equal\n"
                            : a + " is " + word + " than " + b + "\n");
  }
  return order == 0 ? exit_done : exit_different;
}
