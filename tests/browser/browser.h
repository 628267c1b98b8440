// A headless Chromium that a test steers: over a pipe, in the protocol of its developer tools.
#ifndef TESTS_BROWSER_BROWSER_H
#define TESTS_BROWSER_BROWSER_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/types.h>

class browser {
public:
  // Starts it with all it writes in `folder`. What goes wrong, here and in the calls, is thrown as
  // std::runtime_error.
  explicit browser(const std::string &folder);
  ~browser(); // no process is left
  browser(const browser &) = delete;
  browser &operator=(const browser &) = delete;

  // Opens an address in place of the page; returns when it is loaded and quiet.
  void open(const std::string &address);
  // A command of the protocol, to the page; its result.
  nlohmann::json call(const std::string &method,
                      const nlohmann::json &parameters = nlohmann::json::object());
  // What an expression of the page's script is.
  nlohmann::json value(const std::string &expression);
  void press(const std::string &key); // "Tab"

  // Since the last open(): messages of the console, exceptions, what the policy kept out.
  const std::vector<std::string> &complaints() const { return complaints_; }
  // Addresses that were asked for.
  const std::vector<std::string> &requests() const { return requests_; }

private:
  void start(const std::string &folder);
  void stop();
  nlohmann::json receive(); // the next message
  void take_event(const nlohmann::json &event);

  pid_t pid_ = -1;
  int to_ = -1;
  int from_ = -1;
  std::string received_;
  std::string session_;
  int last_id_ = 0;
  bool loaded_ = false;
  std::vector<std::string> complaints_;
  std::vector<std::string> requests_;
};

#endif
