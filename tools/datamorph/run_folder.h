// The folder that keeps what a run leaves behind, whether it ends well or not:
// report.json, trace.log, journal.jsonl, conversion.log.
#ifndef DATAMORPH_RUN_FOLDER_H
#define DATAMORPH_RUN_FOLDER_H

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "switch_dir.h"

class run_folder {
public:
  // Throws failure(1).
  explicit run_folder(const switch_dir &owner) : folder_(owner.make_run(&number_)) {}

  const std::string &number() const { return number_; }

  // A new file in it, for writing. Throws failure(1).
  unique_fd create(const char *name) const;
  // What of the text fits: a full disk does not end a conversion because of its trace.
  static void append(const unique_fd &file, std::string_view text);
  // The content of a file in it; "" when it is not there.
  std::string read(const char *name, size_t limit) const;

  void write_report(const nlohmann::json &report) const;
  // Copies the state's conversion log; nothing when the state has none.
  void keep_conversion_log(int state) const;

private:
  std::string number_;
  unique_fd folder_;
};

// The journal's line on the first write that failed, for a message.
std::string first_failed_write(const nlohmann::json &closing);

#endif
