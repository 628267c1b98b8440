// Which stores there are: a walk over the files below the process's root.
#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "lab/files.h"
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

// What lies deeper than a store's name can lead is no trouble.
void note(const std::error_code &error, int *trouble) {
  if (error != std::errc::filename_too_long) {
    note_trouble(error.value(), trouble);
  }
}

// The stores in a folder and in those below it, links not followed. What cannot be read is left
// out, and such an error noted.
void collect(const std::string &folder, std::vector<std::string> *uris, int *trouble) {
  // They are looked at when this one is closed, so that any depth takes one descriptor.
  std::vector<std::string> below;
  std::error_code error;
  fs::directory_iterator entry(folder, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const std::string path = entry->path().string();
    std::error_code unknown;
    const fs::file_type type = entry->symlink_status(unknown).type();
    note(unknown, trouble);
    if (type == fs::file_type::directory && !is_kernel_folder(path)) {
      below.push_back(path);
    } else if (type == fs::file_type::regular && path.ends_with(k_ending)) {
      const std::string uri = uri_of(path);
      if (store_file(uri) == path) {
        uris->push_back(uri);
      }
    }
  }
  note(error, trouble);
  entry = {};
  for (const std::string &path : below) {
    collect(path, uris, trouble);
  }
}

} // namespace

std::vector<std::string> store_uris(int *error) {
  std::vector<std::string> uris;
  int trouble = 0;
  collect("/", &uris, &trouble);
  if (error != nullptr) {
    *error = trouble;
  }
  std::sort(uris.begin(), uris.end()); // "nonvolatile:" comes before "volatile:"
  return uris;
}

} // namespace lab
