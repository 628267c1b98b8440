#include "fuzz/switch_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "fuzz/finding.h"

namespace {

// The way back: the root and the working folder as the program got them.
int opened(const char *folder) {
  return open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

const int g_root = opened("/");
const int g_work = opened(".");

} // namespace

switch_folder::switch_folder() {
  expect(mkdtemp(folder_) != nullptr && chroot(folder_) == 0, "a folder cannot become the root");
}

switch_folder::~switch_folder() {
  expect(fchdir(g_root) == 0 && chroot(".") == 0 && fchdir(g_work) == 0, "no way back");
  std::filesystem::remove_all(folder_);
}
