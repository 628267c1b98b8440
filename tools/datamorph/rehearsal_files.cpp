#include "rehearsal_files.h"

#include "output.h"

namespace {

std::string lines_beside(const std::string &page) {
  constexpr std::string_view ending = ".html";
  const bool html = page.ends_with(ending);
  return (html ? page.substr(0, page.size() - ending.size()) : page) + ".jsonl";
}

} // namespace

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
