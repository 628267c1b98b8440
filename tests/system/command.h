// Runs the built command line on lab switches in a temporary folder and looks at what it did.
#ifndef TESTS_SYSTEM_COMMAND_H
#define TESTS_SYSTEM_COMMAND_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/types.h>

// What is tested: what was built with the tests, or in the folder that DATAMORPH_BUILD names.
std::string built(const char *file);
inline const std::string datamorph_program = built("datamorph");
inline const std::string real_library = built("libdatamorph.so.1");
inline const std::string fake_converters = built("tests/system/fake_converters.so");
inline const std::string fake_crashing = built("tests/system/fake_crashing.so");
inline const std::string fake_incomplete = built("tests/system/fake_incomplete.so");
inline const std::string examples = EXAMPLES;

struct result {
  int status = -1; // the exit status; 1000 and the signal's number
  std::string out;
  std::string err;

  // The envelope in `out`, behind the items of --format jsonl; fails the test when there is none,
  // or one that disagrees with the exit status.
  nlohmann::json envelope() const;
  nlohmann::json json() const; // the envelope's result
  std::vector<nlohmann::json> items() const;

private:
  size_t lines_end() const; // of the items
};

// A running command; killed when its owner goes.
class background {
public:
  background(pid_t pid, std::string out, std::string err);
  ~background();
  background(const background &) = delete;
  background &operator=(const background &) = delete;
  pid_t pid() const { return pid_; }
  void signal(int number) const;
  result wait();

private:
  pid_t pid_;
  std::string out_;
  std::string err_;
};

using words = std::vector<std::string>;
using files = std::map<std::string, std::string>; // path in a tree: mode and content

class command_test : public testing::Test {
protected:
  // Waits until a condition holds; false after 20 seconds.
  template <typename condition_t> static bool eventually(condition_t holds) {
    for (int at = 0; at < 2000; ++at) {
      if (holds()) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  void SetUp() override;
  void TearDown() override;

  // In the temporary folder.
  std::string path(const std::string &name) const { return folder_ + "/" + name; }
  void write(const std::string &name, const std::string &content) const;
  std::string read(const std::string &name) const;
  bool exists(const std::string &name) const;

  // Of the commands to come.
  void set(const std::string &variable, const std::string &value) {
    environment_[variable] = value;
  }
  // What is mounted from now on is seen by this test only.
  static void enter_private_mounts();
  void fake(const std::string &what);     // the fake converters, doing this
  std::function<void()> in_child = [] {}; // called just before the program starts

  result run(const words &arguments, const std::string &input = "");
  std::unique_ptr<background> start(const words &arguments);

  // Makes the example switch `name`.
  void create(const std::string &name, const words &more = {});
  nlohmann::json show(const std::string &name);
  static std::vector<std::string> uris(const nlohmann::json &shown);
  static std::vector<unsigned> saps(const nlohmann::json &shown);

  // Every file of the switch's state.
  files state(const std::string &name) const;
  // Nothing of a command that was stopped lies about.
  void expect_tidy(const std::string &name) const;

  std::string program = datamorph_program;

private:
  pid_t spawn(const words &arguments, const std::string &in, const std::string &out,
              const std::string &err) const;

  std::string folder_;
  int outputs_ = 0;
  std::map<std::string, std::string> environment_;
};

// Makes these system calls fail with `error` in this process and what it starts.
void deny_system_calls(const std::vector<long> &numbers, int error);

#endif
