// Every test works on a file system in memory that nobody else sees and that goes with the process.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/switch_root.h"

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) {
    return RUN_ALL_TESTS();
  }
  const char *const base = std::getenv("TMPDIR");
  std::string folder = std::string(base == nullptr ? "/tmp" : base) + "/crash-test-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    return 99;
  }
  switch_root::own_mounts();
  switch_root::mount_small(folder, "1g");
  setenv("TMPDIR", folder.c_str(), 1);
  umask(022);
  const int status = RUN_ALL_TESTS();
  umount2(folder.c_str(), MNT_DETACH);
  rmdir(folder.c_str());
  return status;
}
