#include "lab/access_points.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <string_view>

#include "lab/files.h"
#include "lab/lab.h"

namespace lab {
namespace {

constexpr uint32 k_last_sap = 65535;
constexpr size_t k_longest_owner = 255; // the endpoint behind it is read as well
constexpr std::string_view k_prefix = "sap-";

std::string file_of(uint32 sap) {
  return std::string(mts_folder).append("/").append(k_prefix).append(std::to_string(sap));
}

// The number in a file's name; 0 for a name that is none.
uint32 sap_of(std::string_view name) {
  if (!name.starts_with(k_prefix)) {
    return 0;
  }
  name.remove_prefix(k_prefix.size());
  uint32 sap = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), sap);
  const bool whole = error == std::errc() && end == name.data() + name.size();
  return whole && is_sap(sap) && std::to_string(sap) == name ? sap : 0;
}

// What opening gives, or reading, where something stands that is no access point's file, or in
// the place of their folder.
bool is_other_thing(int error) {
  return error == EISDIR || error == ENXIO || error == ELOOP || error == ENOTDIR;
}

std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

} // namespace

bool is_sap(uint32 sap) {
  return sap > 0 && sap <= k_last_sap;
}

int sap_read(uint32 sap, sap_entry *entry) {
  const unique_fd fd(open(file_of(sap).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.good()) {
    return errno;
  }
  char bytes[4096];
  const ssize_t got = read(fd.get(), bytes, sizeof(bytes));
  if (got < 0) {
    return errno;
  }
  const std::string_view text(bytes, static_cast<size_t>(got));
  const size_t end = text.find('\n');
  entry->owner = text.substr(0, end);
  entry->endpoint.clear();
  if (end != std::string_view::npos) {
    const std::string_view rest = text.substr(end + 1);
    entry->endpoint = rest.substr(0, rest.find('\n'));
  }
  return 0;
}

int sap_write(uint32 sap, const sap_entry &entry) {
  const std::string file = file_of(sap);
  const std::string scratch = file + ".new";
  errno = 0;
  if (make_parents(file, false) != SYSERR_SUCCESS) {
    return errno == 0 || errno == ENOTDIR ? ENOENT : errno; // where a file stands in the way
  }
  const std::string text =
      one_line(entry.owner.substr(0, k_longest_owner)) + "\n" + entry.endpoint + "\n";
  unique_fd fd(replace_scratch(scratch));
  if (!fd.good() || !write_all(fd.get(), text.data(), text.size()) || !fd.close_now() ||
      rename(scratch.c_str(), file.c_str()) != 0) {
    const int error = errno;
    unlink(scratch.c_str());
    return error;
  }
  return 0;
}

int sap_remove(uint32 sap) {
  return unlink(file_of(sap).c_str()) == 0 ? 0 : errno;
}

std::vector<access_point> mts_saps(int *error) {
  std::vector<access_point> found;
  int trouble = 0;
  const auto note = [&](int one) {
    if (!is_other_thing(one)) {
      note_trouble(one, &trouble);
    }
  };
  errno = 0;
  const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(mts_folder), closedir);
  note(folder == nullptr ? errno : 0);
  while (folder != nullptr) {
    errno = 0;
    const dirent *const entry = readdir(folder.get());
    if (entry == nullptr) {
      note(errno);
      break;
    }
    const uint32 sap = sap_of(entry->d_name);
    sap_entry content;
    const int status = sap == 0 ? 0 : sap_read(sap, &content);
    note(status);
    if (sap != 0 && status == 0) {
      found.push_back({sap, content.owner});
    }
  }
  std::sort(found.begin(), found.end(),
            [](const access_point &a, const access_point &b) { return a.sap < b.sap; });
  if (error != nullptr) {
    *error = trouble;
  }
  return found;
}

} // namespace lab
