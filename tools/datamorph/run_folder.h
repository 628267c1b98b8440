// The folder that keeps what a run leaves behind, whether it ends well or not:
// run.json and, of a conversion, report.json, steps.jsonl, trace.log, journal.jsonl,
// conversion.log.
#ifndef DATAMORPH_RUN_FOLDER_H
#define DATAMORPH_RUN_FOLDER_H

#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "switch_dir.h"

// A file that grows to a limit; the line that says so is its last.
class limited_file {
public:
  explicit limited_file(unique_fd file) : file_(std::move(file)) {}
  // What of the text fits: a full disk does not end a conversion because of its trace.
  void append(std::string_view text);

private:
  bool put(std::string_view text);

  unique_fd file_;
  size_t left_ = size_t(64) << 20;
  bool full_ = false;
};

class run_folder {
public:
  // Throws failure(1).
  explicit run_folder(const switch_dir &owner) : folder_(owner.make_run(&number_)) {}

  const std::string &number() const { return number_; }

  // A new file in it, for writing. Throws failure(1).
  unique_fd create(const char *name) const;
  // The content of a file in it; "" when it is not there. Throws failure(3) when it cannot be read
  // or is larger than `limit` bytes.
  std::string read(const char *name, size_t limit) const;

  // Writes a file in it, all or nothing. Throws failure(1).
  void replace(const char *name, const std::string &content) const;

  void write_report(const nlohmann::json &report) const;
  // Copies the state's conversion log; nothing when the state has none.
  void keep_conversion_log(int state) const;

private:
  std::string number_;
  unique_fd folder_;
};

// The first write that failed, or whose line the journal does not have, for a message.
std::string first_failed_write(const nlohmann::json &closing);

#endif
