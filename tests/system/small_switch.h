// A lab switch with images of three releases only, for verbs that go through all of them.
#ifndef TESTS_SYSTEM_SMALL_SWITCH_H
#define TESTS_SYSTEM_SMALL_SWITCH_H

#include "command.h"

#include <filesystem>
#include <fstream>

#include <sys/stat.h>

class small_switch_test : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    make("sw", example());
    std::filesystem::create_directory(path("scratch"));
    set("TMPDIR", path("scratch"));
  }
  void TearDown() override {
    EXPECT_TRUE(std::filesystem::is_empty(path("scratch")));
    command_test::TearDown();
  }

  // The shipped example at 4.1(5), with fewer images.
  static nlohmann::json example() {
    std::ifstream file(examples + "/datacenter-switch.json");
    nlohmann::json description = nlohmann::json::parse(file);
    description["releases"] = {"3.3(1)", "4.1(5)", "4.2(1)"};
    return description;
  }
  void make(const std::string &name, const nlohmann::json &description) {
    std::filesystem::remove_all(path(name));
    write("description.json", description.dump());
    create(name, {"--from", "description.json"});
  }
  // Size, mode and times of everything below a folder; when it was read does not count.
  static files traces_of(const std::string &folder) {
    files found;
    const auto note = [&](const std::string &at) {
      struct stat about = {};
      EXPECT_EQ(lstat(at.c_str(), &about), 0);
      const auto text = [](const timespec &time) {
        return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
      };
      found[at] = std::to_string(about.st_ino) + " " + std::to_string(about.st_mode) + " " +
                  std::to_string(about.st_size) + " " + text(about.st_mtim) + " " +
                  text(about.st_ctim);
    };
    note(folder);
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
      note(entry.path());
    }
    return found;
  }
};

#endif
