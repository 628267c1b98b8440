#include "layout.h"

#include "text.h"

namespace {

constexpr size_t longest_name = 255; // of a file or folder, in bytes
constexpr char own_folder[] = "/var/run/mts/";

} // namespace

layout::layout() {
  for (const char *folder : usual_folders) {
    claim_folder(folder);
  }
}

std::string layout::claim_parents(const std::string &path) {
  if (path.starts_with(own_folder)) {
    return "what is below /var/run/mts is the lab's own";
  }
  for (size_t start = 1; start <= path.size();) {
    const size_t end = path.find('/', start);
    const size_t length = (end == std::string::npos ? path.size() : end) - start;
    if (length > longest_name) {
      return "the name " + in_quotes(path.substr(start, length)) + " has " +
             counted(length, "byte") + "; at most " + std::to_string(longest_name) + " are allowed";
    }
    if (end == std::string::npos) {
      return "";
    }
    const std::string folder = path.substr(0, end);
    if (claimed_.emplace(folder, kind::folder).first->second == kind::file) {
      return in_quotes(folder) + " is a file, so nothing can be below it";
    }
    start = end + 1;
  }
  return "";
}

std::string layout::claim_folder(const std::string &path) {
  std::string trouble = claim_parents(path);
  if (!trouble.empty()) {
    return trouble;
  }
  return claimed_.emplace(path, kind::folder).first->second == kind::folder
             ? ""
             : in_quotes(path) + " is a file already";
}

std::string layout::claim_file(const std::string &path) {
  std::string trouble = claim_parents(path);
  if (!trouble.empty()) {
    return trouble;
  }
  const auto [place, is_new] = claimed_.emplace(path, kind::file);
  if (is_new) {
    return "";
  }
  return in_quotes(path) +
         (place->second == kind::folder ? " is a folder already" : " is a file already");
}
