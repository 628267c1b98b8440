// Which stores there are: a walk over the files below the process's root.
#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "lab/lab.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view k_ending = ".pss";
constexpr std::string_view k_volatile_folder = "/dev/shm/volatile";
constexpr std::string_view k_kernel_folders[] = {"/proc", "/sys"};

bool is_kernel_folder(const std::string &path) {
  return std::find(std::begin(k_kernel_folders), std::end(k_kernel_folders), path) !=
         std::end(k_kernel_folders);
}

std::string uri_of(std::string_view file) {
  std::string_view path = file.substr(0, file.size() - k_ending.size());
  const bool in_memory = path.substr(0, k_volatile_folder.size()) == k_volatile_folder &&
                         path.substr(k_volatile_folder.size(), 1) == "/";
  if (in_memory) {
    path.remove_prefix(k_volatile_folder.size());
  }
  return std::string(in_memory ? "volatile:" : "nonvolatile:").append(path);
}

// The files below a folder, links not followed; what cannot be read is left out.
void collect(const fs::path &folder, std::vector<std::string> *uris) {
  std::error_code failed;
  fs::recursive_directory_iterator entry(folder, fs::directory_options::skip_permission_denied,
                                         failed);
  while (!failed && entry != fs::recursive_directory_iterator()) {
    const std::string path = entry->path().string();
    std::error_code gone;
    if (is_kernel_folder(path)) {
      entry.disable_recursion_pending();
    } else if (path.ends_with(k_ending) && fs::is_regular_file(entry->symlink_status(gone))) {
      const std::string uri = uri_of(path);
      if (store_file(uri) == path) {
        uris->push_back(uri);
      }
    }
    entry.increment(failed);
  }
}

} // namespace

std::vector<std::string> store_uris() {
  std::vector<std::string> uris;
  collect("/", &uris);
  std::sort(uris.begin(), uris.end()); // "nonvolatile:" comes before "volatile:"
  return uris;
}

} // namespace lab
