// What a rehearsal leaves in files: its report as a page, and every change as a line of JSON.
#ifndef DATAMORPH_REHEARSAL_FILES_H
#define DATAMORPH_REHEARSAL_FILES_H

#include <string>

#include <nlohmann/json.hpp>

#include "report_page.h"
#include "tree.h"

class rehearsal_files {
public:
  // Throws failure, 3 when one of the files cannot be written and 64 when it is the one of the plan
  // as well ("": there is none).
  static void check(const std::string &page, const std::string &plan);
  // "X.html" has its lines beside it in "X.jsonl"; another name gets the ending as well. `head` is
  // the page's. Throws failure(3) when the files cannot be made.
  rehearsal_files(const std::string &page, const nlohmann::json &head);

  const std::string &lines_path() const { return lines_path_; }
  void change(const nlohmann::json &change);
  // Both files stand there afterwards. `tail` is the page's; "complete" is added here. Throws
  // failure(1).
  void finish(nlohmann::json tail);

private:
  std::string lines_path_;
  tree::placed_file page_file_;
  tree::placed_file lines_;
  report_page page_;
};

#endif
