// A rehearsal of a switch of 200,000 records in 40 stores beside the conversion alone, both by the
// built command line, and the memory that all of its processes take together.
#include <fcntl.h>
#include <signal.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include "child.h"
#include "figure.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t k_records = 200000;
constexpr size_t k_stores = 40;
constexpr size_t k_groups = 12500; // of VRRP, in each of two VDCs, with an address each
constexpr size_t k_reasons = 50000;
constexpr int k_rounds = 5;
constexpr double k_limit = 3.00;
constexpr double k_memory_limit = 200.0; // MiB

std::string hex(uint64_t value, int digits) {
  char text[17];
  std::snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(value));
  return text;
}

std::string swapped(uint32_t value) {
  return hex(__builtin_bswap32(value), 8);
}

// A document that "datamorph store import" reads.
class store_document {
public:
  explicit store_document(const fs::path &file) : out_(file) { out_ << "{\"stores\": ["; }
  void begin(const std::string &uri) {
    out_ << (stores_++ == 0 ? "" : "]},\n") << "{\"uri\": \"" << uri << "\", \"records\": [";
    first_ = true;
  }
  void record(const std::string &key, const std::string &value) {
    out_ << (first_ ? "\n" : ",\n") << "{\"key\": \"" << key << "\", \"value\": \"" << value
         << "\"}";
    first_ = false;
    ++records_;
  }
  void end() {
    out_ << "]}]}\n";
    out_.close();
    if (!out_ || stores_ != k_stores || records_ != k_records) {
      bench::fail("the stores' document", records_);
    }
  }
  size_t stores() const { return stores_; }
  size_t records() const { return records_; }

private:
  std::ofstream out_;
  bool first_ = true;
  size_t stores_ = 0;
  size_t records_ = 0;
};

void write_groups(store_document *out) {
  const std::string zeros(24, '0');
  for (size_t at = 0; at < k_groups; ++at) {
    const uint32_t interface = 0x1a000000 + static_cast<uint32_t>(at / 200) * 0x1000;
    const std::string group = hex(at % 200 + 1, 2);
    const std::string head = swapped(interface) + group + "01000000";
    const std::string key = "00000001" + group + hex(interface, 8);
    out->record("01" + key, head +
                                "01000000"
                                "78000000"
                                "01000000"
                                "0a010102" +
                                zeros +
                                "02000000"
                                "73656372657400000000000000000000"
                                "01000000"
                                "01000000"
                                "0a000000"
                                "0010001a"
                                "00000000"
                                "01000000"
                                "00000000");
  }
  for (size_t at = 0; at < k_groups; ++at) {
    const uint32_t interface = 0x1a000000 + static_cast<uint32_t>(at / 200) * 0x1000;
    const std::string group = hex(at % 200 + 1, 2);
    out->record("0200000001" + group + hex(interface, 8) + "0a010101" + zeros, swapped(interface) +
                                                                                   group +
                                                                                   "01000000"
                                                                                   "0a010101" +
                                                                                   zeros +
                                                                                   "01000000"
                                                                                   "01000000");
  }
}

// Half of the records are converted.
void write_stores(const fs::path &file) {
  store_document out(file);
  for (const char *vdc : {"", "vdc_2/"}) {
    out.begin(std::string("nonvolatile:/cfg/startup/") + vdc + "bin/vrrp-cfg_config_sav");
    write_groups(&out);
  }
  out.begin("nonvolatile:/cfg/0/ethpm_runtime_info");
  for (size_t at = 0; at < k_reasons; ++at) {
    out.record("3306" + hex(0x1a000000 + at, 8), "0100100000000000000000000"
                                                 "07c000000000000");
  }
  const size_t others = k_stores - out.stores();
  const size_t left = k_records - out.records();
  for (size_t store = 0; store < others; ++store) {
    out.begin("nonvolatile:/cfg/0/other_" + std::to_string(store));
    for (size_t at = 0; at < left / others + (store < left % others ? 1 : 0); ++at) {
      out.record(hex(at, 8), hex(at * 7, 64 / 4));
    }
  }
  out.end();
}

// ---- The command line --------------------------------------------------------------------------

pid_t start(const std::vector<std::string> &words) {
  const pid_t child = fork();
  if (child != 0) {
    return child;
  }
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(nowhere, fd);
  }
  std::vector<char *> pointers;
  for (const std::string &word : words) {
    pointers.push_back(const_cast<char *>(word.c_str()));
  }
  pointers.push_back(nullptr);
  execv(BENCH_PROGRAM, pointers.data());
  std::_Exit(127);
}

void wait_for(pid_t child, const char *what) {
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) {
    bench::fail(what, static_cast<unsigned long>(status));
  }
}

void datamorph(std::vector<std::string> words) {
  words.insert(words.begin(), "datamorph");
  wait_for(start(words), words[1].c_str());
}

// The parent of a process, and its share of the memory in KiB.
pid_t parent_of(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream members(text.substr(std::min(text.rfind(')'), text.size() - 1) + 1));
  std::string state;
  pid_t parent = 0;
  members >> state >> parent;
  return text.empty() ? 0 : parent;
}

double share_of(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("Pss:")) {
      return std::stod(line.substr(4));
    }
  }
  return 0; // it is gone
}

// Of a process and all that it started, in MiB.
double memory_of(pid_t root) {
  std::vector<pid_t> all;
  for (const auto &entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) {
      all.push_back(static_cast<pid_t>(std::stol(name)));
    }
  }
  std::set<pid_t> tree = {root};
  for (size_t before = 0; before != tree.size();) {
    before = tree.size();
    for (const pid_t pid : all) {
      if (tree.contains(parent_of(pid))) {
        tree.insert(pid);
      }
    }
  }
  double kib = 0;
  for (const pid_t pid : tree) {
    kib += share_of(pid);
  }
  return kib / 1024;
}

double peak_memory(const std::vector<std::string> &words) {
  const pid_t child = start(words);
  double peak = 0;
  siginfo_t ended = {};
  while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         ended.si_pid == 0) {
    peak = std::max(peak, memory_of(child));
    usleep(5000);
  }
  wait_for(child, words[1].c_str());
  return peak;
}

int measure(const fs::path &folder) {
  const std::string sw = folder / "switch";
  const std::string copy = folder / "copy";
  write_stores(folder / "stores.json");
  std::ofstream(folder / "switch.json")
      << R"j({"name": "large", "release": "4.1(5)", "releases": ["4.1(5)", "4.2(1)"],
              "vdcs": [1, 2], "running_cfg_dir": "/cfg/0", "package": "system",
              "paths": {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/cfg/startup"}})j";
  datamorph({"lab", "create", sw, "--from", folder / "switch.json"});
  datamorph({"store", "import", sw, "--file", folder / "stores.json"});
  std::vector<double> conversions;
  std::vector<double> rehearsals;
  for (int round = 0; round < k_rounds; ++round) {
    fs::copy(sw, copy, fs::copy_options::recursive);
    sync();
    conversions.push_back(bench::time_of([&] { datamorph({"convert", copy, "--to", "4.2(1)"}); }));
    fs::remove_all(copy);
    sync();
    rehearsals.push_back(bench::time_of([&] { datamorph({"rehearse", sw, "--to", "4.2(1)"}); }));
  }
  const double memory = peak_memory({"datamorph", "rehearse", sw, "--to", "4.2(1)", "--report",
                                     folder / "report.html", "--format", "json"});
  bench::print_header();
  const bool fast =
      bench::print_ratio("rehearse 200,000 records in 40 stores / convert alone",
                         bench::median(rehearsals), bench::median(conversions), "s", k_limit);
  const bool small = bench::print_ratio("rehearse with report and JSON, all processes / 200 MiB",
                                        memory, k_memory_limit, "Mi", 1.00);
  return fast && small ? 0 : 1;
}

} // namespace

int main() {
  const char *const place = std::getenv("TMPDIR");
  std::string folder = std::string(place == nullptr ? "/tmp" : place) + "/rehearse_bench.XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    bench::fail("mkdtemp", 0);
  }
  setenv("TMPDIR", folder.c_str(), 1);
  const int status = measure(folder);
  fs::remove_all(folder);
  return status;
}
