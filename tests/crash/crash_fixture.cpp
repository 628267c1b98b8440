#include "crash/crash_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <regex>
#include <set>

namespace {

namespace fs = std::filesystem;

constexpr char switch_state[] = "sw/current";

// Stores that several services convert, and one that nobody touches.
const std::set<std::string> described_stores = {"volatile:/cfg/0/epp_debug",
                                                "nonvolatile:/cfg/0/vlan_cfg",
                                                "nonvolatile:/cfg/0/ethpm_runtime_info",
                                                "nonvolatile:/cfg/0/ethpm_runtime_cfg",
                                                "nonvolatile:/cfg/startup/bin/kps_saved_config",
                                                "nonvolatile:/cfg/startup/bin/sysmgr_config",
                                                "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav"};

nlohmann::json shipped() {
  std::ifstream file(examples + "/datacenter-switch.json");
  return nlohmann::json::parse(file);
}

// The shipped switch, and it is in NPV mode, which one service asks for.
nlohmann::json npv() {
  nlohmann::json all = shipped();
  all["files"].push_back({{"path", "/tmp/fc_nport_mux"}, {"text", ""}});
  return all;
}

nlohmann::json description() {
  nlohmann::json all = shipped();
  nlohmann::json stores = nlohmann::json::array();
  for (const nlohmann::json &store : all["stores"]) {
    if (described_stores.count(store["uri"].get<std::string>()) == 1) {
      stores.push_back(store);
    }
  }
  all["stores"] = stores;
  all["vdcs"] = {1};
  all["releases"] = {"4.1(5)", "4.2(1)"};
  return all;
}

// Three stores with other records, one of them new. Volatile stores are not among them: they are
// memory on a switch, and nobody syncs them.
nlohmann::json other_stores() {
  nlohmann::json stores = nlohmann::json::array();
  for (const char *uri : {"nonvolatile:/cfg/0/vlan_cfg", "nonvolatile:/cfg/0/ethpm_runtime_cfg",
                          "nonvolatile:/cfg/new/store"}) {
    nlohmann::json records = nlohmann::json::array();
    for (int at = 0; at < 40; ++at) {
      const std::string number = std::to_string(at);
      records.push_back({{"key", {{"text", "key " + number}}},
                         {"value", {{"text", std::string(100, 'v') + number}}}});
    }
    stores.push_back({{"uri", uri}, {"records", records}});
  }
  return {{"stores", stores}};
}

int number_in(const char *variable, int other) {
  const char *const text = std::getenv(variable);
  return text == nullptr ? other : std::atoi(text);
}

const words convert_words = {"convert",   "disk/sw",    "--to",      "4.2(1)",    "--service",
                             "KPS",       "--service",  "VRRP_MGR",  "--service", "VRRP_ENG",
                             "--service", "TEST_ETHPM", "--service", "PSS_HELPER"};

} // namespace

int wanted_count(int short_form) {
  return number_in("DATAMORPH_CRASH_COUNT", short_form);
}

unsigned wanted_seed() {
  return static_cast<unsigned>(number_in("DATAMORPH_CRASH_SEED", 1));
}

bool long_form() {
  return std::getenv("DATAMORPH_CRASH_COUNT") != nullptr;
}

std::vector<size_t> some_of(size_t count, int wanted, std::mt19937_64 *random) {
  std::vector<size_t> all(count);
  std::iota(all.begin(), all.end(), size_t(0));
  std::shuffle(all.begin(), all.end(), *random);
  all.resize(std::min(count, static_cast<size_t>(wanted)));
  return all;
}

bool is_piece_of_trace(const file_call &call) {
  return call.kind == call_kind::write && call.path.ends_with("/trace.log");
}

const deed conversion = {"convert", convert_words, {}};
const deed second_conversion = {"second convert",
                                {"convert", "disk/sw", "--to", "4.1(5)", "--from", "4.2(1)",
                                 "--service", "VRRP_ENG", "--service", "VRRP_MGR",
                                 "--accept-losses", "--yes"},
                                {convert_words}};
const deed roll_back = {"rollback", {"rollback", "disk/sw", "--yes"}, {convert_words}};
const deed import = {"import", {"store", "import", "disk/sw", "--file", "stores.json"}, {}};
const deed creation = {"create", {"lab", "create", "disk/sw", "--from", "switch.json"}, {}};
const deed whole_change = {
    "convert all services", {"convert", "disk/sw", "--to", "4.2(1)"}, {}, nullptr};
const deed removals = {"convert all services down",
                       {"convert", "disk/sw", "--to", "3.3(1)", "--accept-losses", "--yes"},
                       {{"convert", "disk/sw", "--to", "5.0(2)"}},
                       "npv.json"};

void crash_test::SetUp() {
  command_test::SetUp();
  write("switch.json", description().dump());
  write("npv.json", npv().dump());
  write("stores.json", other_stores().dump());
  fs::create_directory(path("scratch"));
  set("TMPDIR", path("scratch"));
}

void crash_test::make_disk(const deed &what) {
  fs::remove_all(path("disk"));
  fs::create_directory(path("disk"));
  if (&what != &creation) {
    create("disk/sw", what.described == nullptr ? words() : words{"--from", what.described});
  }
  for (const words &arguments : what.before) {
    const result done = run(arguments);
    ASSERT_EQ(done.status, 0) << done.err;
  }
  before_ = disk();
}

void crash_test::restore(const disk_tree &tree) const {
  fs::remove_all(path("disk"));
  tree.write(path("disk"));
}

result crash_test::watched(const words &arguments, const call_watch::decide_t &decide,
                           call_watch::scope what) {
  call_watch watch(fs::canonical(path("disk")), what);
  in_child = [&] { watch.enter(); };
  const std::unique_ptr<background> running = start(arguments);
  in_child = [] {};
  watch.follow(running->pid(), decide);
  return running->wait();
}

crash_test::recorded crash_test::record(const words &arguments) {
  disk_record record(disk());
  result ended = watched(arguments, [&](const file_call &call) {
    record.take(call);
    return answer();
  });
  return {std::move(ended), std::move(record)};
}

crash_test::recorded crash_test::record_deed(const deed &what) {
  make_disk(what);
  recorded done = record(what.arguments);
  EXPECT_EQ(done.ended.status, 0) << done.ended.err;
  after_ = disk();
  return done;
}

// ---- What must hold ----------------------------------------------------------------------------

crash_test::listing crash_test::settled(const disk_tree &tree, bool logs) {
  static const std::regex time("<[A-Z][a-z][a-z] [A-Z][a-z][a-z] [^>]{16}>");
  listing found = tree.listing(switch_state);
  for (auto at = found.begin(); at != found.end();) {
    const bool log =
        at->first.find("mnt/pss/data_morph.") == 0 || at->first == "tmp/datamorphcheck";
    if (log && logs) {
      at->second = std::regex_replace(at->second, time, "<time>");
    }
    const bool endpoint = at->first.find("var/run/mts/queue-") == 0;
    at = (log || endpoint) && !logs ? found.erase(at) : std::next(at);
  }
  return found;
}

std::string crash_test::differences(const listing &a, const listing &b) {
  const auto about = [](const listing &in, const std::string &name) {
    const auto found = in.find(name);
    return found == in.end() ? "none"
                             : found->second.substr(0, found->second.find(':')) + "/" +
                                   std::to_string(found->second.size());
  };
  listing all = a;
  all.insert(b.begin(), b.end());
  std::string found;
  for (const auto &[name, text] : all) {
    const auto in_a = a.find(name);
    const auto in_b = b.find(name);
    if (in_a == a.end() || in_b == b.end() || in_a->second != in_b->second) {
      found += name + ": " + about(a, name) + " " + about(b, name) + "\n";
    }
  }
  return found;
}

result crash_test::recover(const deed &what) {
  return &what == &creation ? run(what.arguments)
                            : run({"lab", "show", "disk/sw", "--format", "json"});
}

bool crash_test::expect_whole(const deed &what, bool finished) {
  const result next = recover(what);
  if (&what == &creation) {
    return expect_whole_creation(next, finished);
  }
  EXPECT_EQ(next.status, 0) << next.err;
  const nlohmann::json shown = next.json();
  for (const nlohmann::json &store : shown.value("stores", nlohmann::json::array())) {
    EXPECT_EQ(store["status"], 0) << store;
  }
  const disk_tree now = disk();
  for (const auto &[name, text] : now.listing("sw")) {
    const std::string top = name.substr(0, name.find('/'));
    const bool known = top == ".lock" || top == "current" || top == "previous" || top == "runs" ||
                       put_aside_.find("; it is now " + top + "/") != std::string::npos;
    EXPECT_TRUE(known) << name << " is left";
  }
  return expect_whole_state(now, finished) && !HasFailure();
}

// The state, and what stands beside it to go back to.
bool crash_test::expect_whole_state(const disk_tree &now, bool finished) {
  const listing here = settled(now, logs_count_);
  const bool done = here == settled(after_, logs_count_);
  const bool not_done = here == settled(before_, logs_count_);
  EXPECT_TRUE(done || not_done) << "the state is neither the one before:\n"
                                << differences(here, settled(before_, logs_count_))
                                << "nor the one after:\n"
                                << differences(here, settled(after_, logs_count_));
  EXPECT_TRUE(done || !finished) << "what was done is gone";
  const disk_tree &side = done ? after_ : before_;
  EXPECT_EQ(now.exists("sw/previous"), side.exists("sw/previous"));
  EXPECT_EQ(now.digest("sw/previous"), side.digest("sw/previous"));
  return (done || (not_done && !finished)) &&
         now.digest("sw/previous") == side.digest("sw/previous");
}

// What ended well is in the history as well.
void crash_test::expect_told() {
  const disk_tree now = disk();
  std::string last;
  for (const auto &[name, text] : now.listing("sw/runs")) {
    last = name.ends_with("/run.json") ? name : last;
  }
  const nlohmann::json record =
      nlohmann::json::parse(now.content("sw/runs/" + last), nullptr, false);
  EXPECT_EQ(record.is_object() ? record.value("result", "") : "none", "done") << last;
}

bool crash_test::expect_whole_creation(const result &again, bool finished) {
  const bool stands = again.status == 3;
  EXPECT_TRUE(stands || (again.status == 0 && !finished)) << again.status << again.err;
  EXPECT_EQ(stands, again.err.find("stands already and is not empty") != std::string::npos)
      << again.err;
  const disk_tree now = disk();
  EXPECT_EQ(differences(now.listing(), after_.listing()), "");
  EXPECT_EQ(run({"lab", "show", "disk/sw"}).status, 0);
  return !HasFailure();
}

void crash_test::expect_done_again(const deed &what) {
  const listing here = settled(disk(), logs_count_);
  if (&what == &creation || here == settled(after_, logs_count_)) {
    return; // it stands
  }
  const result again = run(what.arguments);
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(differences(settled(disk(), logs_count_), settled(after_, logs_count_)), "");
}
