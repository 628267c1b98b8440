#include "command.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string content_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// What tells contents apart and can be read where they differ.
std::string short_form(const std::string &content) {
  return content.size() <= 1000 ? content
                                : std::to_string(content.size()) + " bytes, hash " +
                                      std::to_string(std::hash<std::string>()(content));
}

int status_of(int status) {
  return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
}

void redirect(const std::string &path, int flags, int to) {
  const int fd = open(path.c_str(), flags, 0644);
  dup2(fd, to);
  close(fd);
}

} // namespace

std::string built(const char *file) {
  const char *other = std::getenv("DATAMORPH_BUILD");
  return std::string(other != nullptr ? other : BUILD) + "/" + file;
}

nlohmann::json result::envelope() const {
  const nlohmann::json document = nlohmann::json::parse(out.substr(lines_end()), nullptr, false);
  if (!document.is_object()) {
    ADD_FAILURE() << "no envelope: " << out;
    return nlohmann::json::object();
  }
  std::vector<std::string> members;
  for (const auto &member : document.items()) {
    members.push_back(member.key());
  }
  EXPECT_EQ(members,
            (std::vector<std::string>{"datamorph", "error", "exit_code", "result", "verb"}));
  EXPECT_EQ(document["datamorph"], nlohmann::json::parse(R"({"envelope": 1, "version": "1.0.0"})"));
  EXPECT_EQ(document["exit_code"], status);
  EXPECT_EQ(document["error"].is_null(), status == 0 || status == 2) << out;
  return document;
}

nlohmann::json result::json() const {
  // store export's own document, which is bare.
  if (out.starts_with("{\n \"stores\": ")) {
    return nlohmann::json::parse(out, nullptr, false);
  }
  return envelope().value("result", nlohmann::json());
}

std::vector<nlohmann::json> result::items() const {
  std::vector<nlohmann::json> found;
  std::istringstream text(out.substr(0, lines_end()));
  for (std::string line; std::getline(text, line);) {
    const nlohmann::json item = nlohmann::json::parse(line, nullptr, false);
    EXPECT_TRUE(item.is_object() && item.size() == 1 && item.contains("item")) << line;
    found.push_back(item.value("item", nlohmann::json()));
  }
  return found;
}

size_t result::lines_end() const {
  constexpr char item[] = R"({"item": )";
  size_t at = 0;
  while (out.compare(at, std::strlen(item), item) == 0 && out.find('\n', at) != std::string::npos) {
    at = out.find('\n', at) + 1;
  }
  return at;
}

background::background(pid_t pid, std::string out, std::string err)
    : pid_(pid), out_(std::move(out)), err_(std::move(err)) {}

background::~background() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void background::signal(int number) const {
  kill(pid_, number);
}

result background::wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return {status_of(status), content_of(out_), content_of(err_)};
}

void command_test::SetUp() {
  std::string name = (fs::temp_directory_path() / "datamorph-test-XXXXXX").string();
  ASSERT_NE(mkdtemp(name.data()), nullptr);
  folder_ = name;
  set("DATAMORPH_LIBRARY", real_library);
  set("NO_COLOR", "");
}

void command_test::TearDown() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void command_test::write(const std::string &name, const std::string &content) const {
  fs::create_directories(fs::path(path(name)).parent_path());
  std::ofstream(path(name), std::ios::binary) << content;
}

std::string command_test::read(const std::string &name) const {
  return content_of(path(name));
}

bool command_test::exists(const std::string &name) const {
  return fs::exists(fs::symlink_status(path(name)));
}

void command_test::enter_private_mounts() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  ASSERT_EQ(unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER), 0);
  if (uid != 0) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  }
  ASSERT_EQ(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr), 0);
}

void command_test::fake(const std::string &what) {
  set("DATAMORPH_LIBRARY", fake_converters);
  set("FAKE_CONVERTERS_DO", what);
}

pid_t command_test::spawn(const words &arguments, const std::string &in, const std::string &out,
                          const std::string &err) const {
  const pid_t pid = fork();
  if (pid != 0) {
    return pid;
  }
  redirect(in, O_RDONLY, STDIN_FILENO);
  redirect(out, O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
  redirect(err, O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO);
  for (const auto &[variable, value] : environment_) {
    setenv(variable.c_str(), value.c_str(), 1);
  }
  if (chdir(folder_.c_str()) != 0) {
    _exit(126);
  }
  std::vector<char *> pointers = {const_cast<char *>("datamorph")};
  for (const std::string &argument : arguments) {
    pointers.push_back(const_cast<char *>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  in_child();
  execv(program.c_str(), pointers.data());
  _exit(127);
}

result command_test::run(const words &arguments, const std::string &input) {
  write(".input", input);
  const pid_t pid = spawn(arguments, path(".input"), path(".out"), path(".err"));
  return background(pid, path(".out"), path(".err")).wait();
}

std::unique_ptr<background> command_test::start(const words &arguments) {
  const std::string number = std::to_string(++outputs_);
  const pid_t pid = spawn(arguments, "/dev/null", path(".out-" + number), path(".err-" + number));
  return std::make_unique<background>(pid, path(".out-" + number), path(".err-" + number));
}

void command_test::create(const std::string &name, const words &more) {
  words arguments = {"lab", "create", name};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const result made = run(arguments);
  ASSERT_EQ(made.status, 0) << made.err;
}

nlohmann::json command_test::show(const std::string &name) {
  const result shown = run({"lab", "show", name, "--format", "json"});
  EXPECT_EQ(shown.status, 0) << shown.err;
  return shown.json();
}

std::vector<std::string> command_test::uris(const nlohmann::json &shown) {
  std::vector<std::string> result;
  for (const nlohmann::json &store : shown["stores"]) {
    result.push_back(store["uri"]);
  }
  return result;
}

std::vector<unsigned> command_test::saps(const nlohmann::json &shown) {
  std::vector<unsigned> result;
  for (const nlohmann::json &point : shown["access_points"]) {
    result.push_back(point["sap"]);
  }
  return result;
}

files command_test::state(const std::string &name) const {
  files found;
  const std::string root = path(name + "/current");
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
    struct stat about = {};
    EXPECT_EQ(lstat(entry.path().c_str(), &about), 0);
    const std::string content = entry.is_symlink()        ? fs::read_symlink(entry.path()).string()
                                : entry.is_regular_file() ? content_of(entry.path())
                                                          : "";
    found[entry.path().string().substr(root.size())] =
        std::to_string(about.st_mode) + ":" + short_form(content);
  }
  return found;
}

void command_test::expect_tidy(const std::string &name) const {
  for (const char *leftover : {"/next", "/discard", "/.probe-a", "/.probe-b"}) {
    EXPECT_FALSE(exists(name + leftover)) << leftover;
  }
}

void deny_system_calls(const std::vector<long> &numbers, int error) {
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const long number : numbers) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filters = {static_cast<unsigned short>(filter.size()), filter.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filters) != 0) {
    _exit(125);
  }
}
