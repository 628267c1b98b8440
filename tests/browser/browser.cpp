#include "browser.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int patience = 60000; // milliseconds for one message: the machine may be busy

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error("browser: " + what);
}

// In the child: the ends become descriptors 3 and 4, where it listens and answers.
[[noreturn]] void become_browser(int listen, int answer, const std::string &folder) {
  setpgid(0, 0);
  const int high_listen = fcntl(listen, F_DUPFD, 10);
  const int high_answer = fcntl(answer, F_DUPFD, 10);
  dup2(high_listen, 3);
  dup2(high_answer, 4);
  const int log = open((folder + "/browser.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(log, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  for (const int fd : {high_listen, high_answer, log}) {
    close(fd);
  }
  setenv("HOME", folder.c_str(), 1);
  setenv("XDG_CONFIG_HOME", (folder + "/config").c_str(), 1);
  setenv("XDG_CACHE_HOME", (folder + "/cache").c_str(), 1);
  const std::string data = "--user-data-dir=" + folder + "/data";
  // No sandbox of its own: root cannot have it, nor can every container, and the page is ours.
  execlp("chromium", "chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
         "--disable-dev-shm-usage", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--disable-breakpad",
         "--remote-debugging-pipe", "--window-size=1200,900", data.c_str(), "about:blank",
         static_cast<char *>(nullptr));
  _exit(127);
}

} // namespace

browser::browser(const std::string &folder) {
  start(folder);
  try {
    const nlohmann::json target = call("Target.createTarget", {{"url", "about:blank"}});
    session_ = call("Target.attachToTarget", {{"targetId", target["targetId"]}, {"flatten", true}})
                   .at("sessionId");
    for (const char *domain : {"Page", "Runtime", "Log", "Network"}) {
      call(std::string(domain) + ".enable");
    }
  } catch (...) {
    stop();
    throw;
  }
}

browser::~browser() {
  stop();
}

void browser::start(const std::string &folder) {
  signal(SIGPIPE, SIG_IGN);
  int commands[2];
  int answers[2];
  if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) {
    fail("no pipe");
  }
  pid_ = fork();
  if (pid_ == 0) {
    become_browser(commands[0], answers[1], folder);
  }
  close(commands[0]);
  close(answers[1]);
  to_ = commands[1];
  from_ = answers[0];
  if (pid_ < 0) {
    fail("no process");
  }
}

// It goes when its commands end; what does not go in time is killed.
void browser::stop() {
  close(to_);
  for (int at = 0; at < 500 && pid_ > 0; ++at) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      kill(-pid_, SIGKILL);
      pid_ = -1;
    }
    usleep(10000);
  }
  if (pid_ > 0) {
    kill(-pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(from_);
}

nlohmann::json browser::receive() {
  for (;;) {
    const size_t end = received_.find('\0');
    if (end != std::string::npos) {
      const nlohmann::json message = nlohmann::json::parse(received_.substr(0, end));
      received_.erase(0, end + 1);
      return message;
    }
    pollfd waiting = {from_, POLLIN, 0};
    if (poll(&waiting, 1, patience) <= 0) {
      fail("it does not answer");
    }
    char bytes[65536];
    const ssize_t got = read(from_, bytes, sizeof bytes);
    if (got <= 0) {
      fail("it is gone; is chromium there?");
    }
    received_.append(bytes, static_cast<size_t>(got));
  }
}

void browser::take_event(const nlohmann::json &event) {
  const std::string method = event.value("method", "");
  const nlohmann::json parameters = event.value("params", nlohmann::json::object());
  if (method == "Page.loadEventFired") {
    loaded_ = true;
  } else if (method == "Network.requestWillBeSent") {
    requests_.push_back(parameters["request"]["url"]);
  } else if (method == "Runtime.consoleAPICalled" || method == "Runtime.exceptionThrown" ||
             method == "Log.entryAdded") {
    complaints_.push_back(parameters.dump());
  }
}

nlohmann::json browser::call(const std::string &method, const nlohmann::json &parameters) {
  nlohmann::json command = {{"id", ++last_id_}, {"method", method}, {"params", parameters}};
  if (!session_.empty()) {
    command["sessionId"] = session_;
  }
  const std::string text = command.dump();
  if (write(to_, text.c_str(), text.size() + 1) != static_cast<ssize_t>(text.size() + 1)) {
    fail("it takes no command");
  }
  for (;;) {
    const nlohmann::json message = receive();
    if (message.value("id", 0) != last_id_) {
      take_event(message);
    } else if (message.contains("error")) {
      fail(method + ": " + message["error"].dump());
    } else {
      return message["result"];
    }
  }
}

void browser::open(const std::string &address) {
  // Where only the fragment differs there would be no load.
  call("Page.navigate", {{"url", "about:blank"}});
  complaints_.clear();
  requests_.clear();
  loaded_ = false;
  call("Page.navigate", {{"url", address}});
  for (bool there = false; !there;) {
    while (!loaded_) {
      take_event(receive());
    }
    // The load may have been that of the blank page.
    loaded_ = false;
    there = value("document.readyState + ' ' + location.href") == "complete " + address;
  }
}

nlohmann::json browser::value(const std::string &expression) {
  const nlohmann::json answer =
      call("Runtime.evaluate",
           {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
  if (answer.contains("exceptionDetails")) {
    fail(expression + ": " + answer["exceptionDetails"].dump());
  }
  return answer["result"].value("value", nlohmann::json());
}

void browser::press(const std::string &key) {
  const int code = key == "Tab" ? 9 : key == "Enter" ? 13 : 32;
  nlohmann::json event = {
      {"type", "keyDown"}, {"key", key}, {"code", key}, {"windowsVirtualKeyCode", code}};
  if (key == "Enter") {
    event["text"] = "\r";
  }
  call("Input.dispatchKeyEvent", event);
  event["type"] = "keyUp";
  call("Input.dispatchKeyEvent", event);
}
