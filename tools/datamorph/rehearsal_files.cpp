#include "rehearsal_files.h"

#include "failure.h"
#include "output.h"
#include "text.h"

namespace {

std::string lines_beside(const std::string &page) {
  constexpr std::string_view ending = ".html";
  const bool html = page.ends_with(ending);
  return (html ? page.substr(0, page.size() - ending.size()) : page) + ".jsonl";
}

} // namespace

void rehearsal_files::check(const std::string &page, const std::string &plan) {
  for (const std::string &file : {page, lines_beside(page)}) {
    if (file == plan) {
      throw failure(exit_usage, in_quotes(file) + " is to hold the plan and the report",
                    "name another place for one of them");
    }
    const tree::placed_file tried(file);
  }
}

rehearsal_files::rehearsal_files(const std::string &page, const nlohmann::json &head)
    : lines_path_(lines_beside(page)), page_file_(page), lines_(lines_path_),
      page_(page_file_.fd(), head) {}

void rehearsal_files::change(const nlohmann::json &change) {
  page_.change(change);
  lines_.write(output::json_text(change, -1) + "\n");
}

void rehearsal_files::finish(nlohmann::json tail) {
  tail["complete"] = lines_path_.substr(lines_path_.rfind('/') + 1);
  page_.finish(tail);
  lines_.put();
  page_file_.put();
}
