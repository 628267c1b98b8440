// lab create, lab show, lab reboot.
#include "verbs.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "conversion_child.h"
#include "description.h"
#include "failure.h"
#include "jail.h"
#include "lab/lab.h"
#include "populate.h"
#include "run_folder.h"
#include "run_record.h"
#include "statuses.h"
#include "stop_signal.h"
#include "store_access.h"
#include "switch_dir.h"
#include "tag_tables.h"
#include "text.h"
#include "tree.h"
#include "vrrp_hand_over.h"
#include "workshop.h"

namespace {

constexpr size_t largest_description = 64 << 20;

// ---- Tag tables of a boot ----------------------------------------------------------------------

// What the child says of the running tag tables that it made.
struct boot_report {
  bool made = false;
  std::vector<std::string> troubles;

  void take(const nlohmann::json &message) {
    made |= message.value("tables_made", false);
    for (const std::string &text : message.value("troubles", std::vector<std::string>())) {
      troubles.push_back(text);
    }
  }
  void say(const std::string &dir) const {
    for (const std::string &text : troubles) {
      output::message(in_quotes(dir) + ": " + text);
    }
  }
};

void boot(const jail::channel &channel, const switch_state &state) {
  const booted_tag_tables booted = boot_tag_tables(state);
  channel.send({{"tables_made", booted.made}, {"troubles", booted.troubles}});
}

// ---- create ------------------------------------------------------------------------------------

bool describes_running_tables(const description &wanted) {
  const std::string file = lab::store_file(lab::running_tag_tables);
  return std::any_of(
      wanted.stores.begin(), wanted.stores.end(),
      [&](const store_description &store) { return lab::store_file(store.uri) == file; });
}

void make_folder(int folder, const char *name) {
  if (mkdirat(folder, name, 0755) != 0) {
    throw failure(exit_failed, std::string("cannot make ") + name + ": " + error_text(errno));
  }
}

// A switch that is described has been booted: it runs the tag tables that it has saved, where the
// description does not say otherwise.
boot_report build(const workshop &shop, const description &wanted) {
  const int folder = shop.folder();
  tree::replace_file(folder, ".lock", "");
  make_folder(folder, shop.state_name());
  make_folder(folder, "runs");
  const unique_fd current(openat(folder, shop.state_name(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  jail::request request;
  request.root = current.get();
  boot_report booted;
  request.body = [&](const jail::channel &channel) {
    populate(wanted);
    if (!describes_running_tables(wanted)) {
      boot(channel, wanted.state);
    }
  };
  request.on_message = [&](const nlohmann::json &message) { booted.take(message); };
  const jail::outcome outcome = jail::run(request);
  if (!outcome.finished()) {
    throw failure(exit_failed, "building the switch " + outcome.text());
  }
  wanted.state.save(current.get());
  if (TEMP_FAILURE_RETRY(syncfs(folder)) != 0) {
    throw failure(exit_failed, "cannot sync the switch: " + error_text(errno));
  }
  return booted;
}

// Whether a failed write there is explained by a full disk.
bool is_full(int folder) {
  constexpr uint64_t next_to_nothing = 64 << 10;
  return tree::bytes_free(folder) < next_to_nothing;
}

// ---- show --------------------------------------------------------------------------------------

nlohmann::json store_row(const std::string &uri) {
  lab::store_info info;
  const syserr_t status = lab::store_inspect(uri, &info);
  return {{"uri", uri},
          {"records", info.records},
          {"bytes", info.bytes},
          {"status", status},
          {"text", syserr2str(status)}};
}

// Every file but those that the other lists stand for.
void send_files(const jail::channel &channel, const std::vector<std::string> &uris) {
  std::set<std::string> hidden = {std::string("/") + switch_file};
  for (const std::string &uri : uris) {
    hidden.insert(lab::store_file(uri));
    hidden.insert(lab::store_file(uri) + "-journal");
  }
  std::error_code error;
  const auto options = std::filesystem::directory_options::skip_permission_denied;
  std::vector<std::string> paths;
  for (std::filesystem::recursive_directory_iterator at("/", options, error), end;
       !error && at != end; at.increment(error)) {
    const std::string path = at->path();
    std::error_code unknown;
    if (path == "/var/run/mts" || path == "/images") {
      at.disable_recursion_pending();
    } else if (at->is_symlink(unknown) || (!hidden.contains(path) && !at->is_directory(unknown))) {
      paths.push_back(path);
    }
  }
  if (error) {
    throw failure(exit_failed, "not all files could be looked at: " + error.message());
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string &path : paths) {
    struct stat about = {};
    if (lstat(path.c_str(), &about) != 0) {
      throw failure(exit_failed, "cannot examine " + in_quotes(path) + ": " + error_text(errno));
    }
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(about.st_mode & 07777));
    channel.send({{"file", {{"path", path}, {"mode", mode}, {"bytes", about.st_size}}}});
  }
}

void send_images(const jail::channel &channel) {
  const nlohmann::json found = images();
  for (const auto &[release, version] : found.items()) {
    channel.send({{"image", {{"release", release}, {"version", version}}}});
  }
}

void send_contents(const jail::channel &channel, const switch_state &state) {
  send_images(channel);
  const std::vector<std::string> uris = all_store_uris(true);
  for (const std::string &uri : uris) {
    channel.send({{"store", store_row(uri)}});
  }
  send_files(channel, uris);
  for (const lab::access_point &point : all_access_points()) {
    channel.send({{"access_point", {{"sap", point.sap}, {"owner", point.owner}}}});
  }
  for (const vdc_id_t vdc : state.vdcs) {
    channel.send({{"tag_table", describe_tag_tables(state, vdc)}});
  }
  for (const record_trouble &trouble : running_record_troubles(state.vdcs)) {
    channel.send({{"tag_table_trouble", {{"key", trouble.key}, {"text", trouble.text}}}});
  }
}

std::string value_text(const nlohmann::json &value) {
  return to_text(value.is_string() ? value.get<std::string>() : value.dump());
}

output::cell tag_table_cell(const nlohmann::json &table) {
  const std::string state = table["state"].get<std::string>();
  if (state == "ok") {
    return tag_entries_text(table["entries"]);
  }
  return state == "none" ? output::cell(state) : output::cell::bad(state);
}

void print_tag_tables(const nlohmann::json &document) {
  std::vector<std::vector<output::cell>> rows;
  for (const nlohmann::json &vdc : document["tag_tables"]) {
    for (const char *which : {"saved", "running"}) {
      rows.push_back({value_text(vdc["vdc"]), which, tag_table_cell(vdc[which])});
    }
  }
  // What makes convert refuse the running ones, damaged tables of the VDCs above too.
  for (const nlohmann::json &trouble : document["tag_table_troubles"]) {
    rows.push_back(
        {"-", "running",
         output::cell::bad("convert refuses the record with the key '" +
                           value_text(trouble["key"]) + "': " + value_text(trouble["text"]))});
  }
  output::text("\n");
  output::table({{"VDC", output::align::right}, {"TAG TABLE"}, {"ENTRIES"}}, rows);
}

void print_switch(const nlohmann::json &document) {
  using output::align;
  std::string vdcs;
  for (const nlohmann::json &vdc : document["vdcs"]) {
    append_word(vdcs, vdc.dump());
  }
  std::string images;
  for (const nlohmann::json &image : document["images"]) {
    const bool readable = image["version"].is_string();
    append_word(images, value_text(image["release"]));
    images += readable ? "" : " (no version)";
  }
  std::vector<std::vector<output::cell>> facts = {
      {"switch", value_text(document["name"])},
      {"release", value_text(document["release"])},
      {"VDCs", vdcs},
      {"running configuration", value_text(document["running_cfg_dir"])}};
  for (const auto &[moment, path] : document["paths"].items()) {
    facts.push_back({"path of " + moment, value_text(path)});
  }
  facts.push_back({"package", value_text(document["package"])});
  facts.push_back({"images", images});
  output::table({{"FACT"}, {"VALUE"}}, facts);

  std::vector<std::vector<output::cell>> stores;
  for (const nlohmann::json &store : document["stores"]) {
    const auto status = store["status"].get<syserr_t>();
    const std::string text = status == 0 ? "ok" : status_text(status);
    stores.push_back({value_text(store["uri"]), value_text(store["records"]),
                      value_text(store["bytes"]),
                      status == 0 ? output::cell(text) : output::cell::bad(text)});
  }
  output::text("\n");
  output::table({{"STORE"}, {"RECORDS", align::right}, {"BYTES", align::right}, {"STATUS"}},
                stores);

  std::vector<std::vector<output::cell>> files;
  for (const nlohmann::json &file : document["files"]) {
    files.push_back(
        {value_text(file["path"]), value_text(file["mode"]), value_text(file["bytes"])});
  }
  output::text("\n");
  output::table({{"FILE"}, {"MODE"}, {"BYTES", align::right}}, files);

  std::vector<std::vector<output::cell>> points;
  for (const nlohmann::json &point : document["access_points"]) {
    points.push_back({value_text(point["sap"]), value_text(point["owner"])});
  }
  output::text("\n");
  output::table({{"ACCESS POINT", align::right}, {"OWNER"}}, points);
  print_tag_tables(document);
}

// ---- reboot ------------------------------------------------------------------------------------

// Removes what is in a folder, not the folder. How many entries that were.
size_t empty_folder(const char *path) {
  const unique_fd folder(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.is_open() && errno != ENOENT) {
    throw failure(exit_failed, std::string("cannot empty ") + path + ": " + error_text(errno));
  }
  if (!folder.is_open()) {
    return 0;
  }
  std::error_code error;
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator at(path, error), end; at != end; at.increment(error)) {
    names.push_back(at->path().filename());
  }
  for (const std::string &name : names) {
    tree::remove(folder.get(), name);
  }
  if (error) {
    throw failure(exit_failed, std::string("cannot empty ") + path + ": " + error.message());
  }
  return names.size();
}

std::set<std::string> volatile_stores() {
  std::set<std::string> found;
  for (const std::string &uri : all_store_uris()) {
    if (uri.starts_with("volatile:")) {
      found.insert(uri);
    }
  }
  return found;
}

struct reboot_report {
  size_t stores = 0; // volatile ones that stood before and do not now
  size_t files = 0;
  std::string vrrp_lost; // records that waited in /tmp, for a message
  boot_report booted;
};

// A damaged store keeps no switch from booting.
vrrp_places vrrp_records_if_readable(const switch_state &state) {
  try {
    return vrrp_records_now(state);
  } catch (const failure &) {
    return {};
  }
}

// In the copy.
void reboot_state(const jail::channel &channel, const switch_state &state) {
  std::set<std::string> gone = volatile_stores();
  const vrrp_places vrrp_before = vrrp_records_if_readable(state);
  empty_folder("/dev/shm/volatile");
  const size_t files = empty_folder("/tmp");
  boot(channel, state);
  for (const std::string &uri : volatile_stores()) {
    gone.erase(uri);
  }
  const nlohmann::json vrrp_gone = vrrp_lost(vrrp_before, vrrp_records_if_readable(state));
  channel.send({{"stores", gone.size()}, {"files", files}, {"vrrp_lost", vrrp_gone}});
}

reboot_report reboot_copy(int copy, const switch_state &state) {
  reboot_report done;
  jail::request request;
  request.root = copy;
  request.body = [&](const jail::channel &channel) { reboot_state(channel, state); };
  request.on_message = [&](const nlohmann::json &message) {
    done.stores = message.value("stores", done.stores);
    done.files = message.value("files", done.files);
    if (message.contains("vrrp_lost")) {
      done.vrrp_lost = vrrp_records_text(message["vrrp_lost"]);
    }
    done.booted.take(message);
  };
  const jail::outcome outcome = jail::run(request);
  if (!outcome.finished()) {
    throw failure(exit_failed, "the reboot " + outcome.text());
  }
  stop_signal::check();
  return done;
}

// Of a copy that takes the state's place in one step. What stops it leaves the switch as it was.
reboot_report reboot(switch_dir *target) {
  target->check_exchange();
  target->check_room();
  const run_folder folder(*target);
  run_facts facts;
  facts.verb = "reboot";
  facts.from = target->state().release;
  facts.to = target->state().release;
  facts.generation = target->state().generation;
  run_record record(folder, facts);
  try {
    unique_fd next = target->make_next();
    reboot_report done = reboot_copy(next.get(), target->state());
    target->replace(std::move(next));
    record.finish(run_result::done, "");
    return done;
  } catch (const failure &error) {
    const std::string left = target->drop_next();
    record.finish(run_result::failed, error.what());
    throw failure(error.status(), std::string("not rebooted: ") + error.what() +
                                      "; the switch is as it was" +
                                      (left.empty() ? "" : "; " + left));
  }
}

} // namespace

int lab_create(const common_options &common, const std::string &dir, const std::string &from) {
  const std::string origin = from.empty() ? "the shipped example" : from;
  const std::string text =
      from.empty() ? example_description : tree::read_file(AT_FDCWD, from, largest_description);
  const description wanted = parse_description(text, origin);
  const stop_signal::guard guard;
  workshop shop(dir);
  boot_report booted;
  try {
    booted = build(shop, wanted);
  } catch (const failure &error) {
    const bool full = error.status() == exit_failed && is_full(shop.folder());
    throw full
        ? failure(error.status(), in_quotes(dir) + ": " + error.message(),
                  "its file system is full: make room there")
        : failure(error.status(), in_quotes(dir) + ": " + error.message(), error.next_action());
  }
  stop_signal::check();
  shop.become_switch();
  booted.say(dir);
  const size_t stores = wanted.stores.size() + (booted.made ? 1 : 0);
  if (common.format == output::format::json) {
    output::json({{"switch", dir},
                  {"name", wanted.state.name},
                  {"release", wanted.state.release},
                  {"stores", stores},
                  {"files", wanted.files.size()},
                  {"access_points", wanted.access_points.size()},
                  {"troubles", booted.troubles}});
  } else {
    output::text(dir + ": switch " + to_text(wanted.state.name) + " at release " +
                 wanted.state.release + ", " + counted(stores, "store") + ", " +
                 counted(wanted.files.size(), "file") + ", " +
                 counted(wanted.access_points.size(), "access point") + "\n");
  }
  return exit_done;
}

int lab_show(const common_options &common, const std::string &dir) {
  const switch_dir target(dir, switch_dir::access::read);
  nlohmann::json document = target.state().to_json();
  document["switch"] = dir;
  document["images"] = nlohmann::json::array();
  document["stores"] = nlohmann::json::array();
  document["files"] = nlohmann::json::array();
  document["access_points"] = nlohmann::json::array();
  document["tag_tables"] = nlohmann::json::array();
  document["tag_table_troubles"] = nlohmann::json::array();
  jail::request request;
  request.root = target.current();
  request.body = [&](const jail::channel &channel) { send_contents(channel, target.state()); };
  request.on_message = [&](const nlohmann::json &message) {
    for (const auto &[kind, row] : message.items()) {
      document[kind + "s"].push_back(row);
    }
  };
  jail::outcome outcome;
  try {
    outcome = jail::run(request);
  } catch (const failure &error) {
    throw error.placed(in_quotes(dir));
  }
  if (!outcome.finished()) {
    throw failure(exit_failed, in_quotes(dir) + ": looking into the switch " + outcome.text());
  }
  if (common.format == output::format::json) {
    output::json(document);
  } else {
    print_switch(document);
  }
  return exit_done;
}

int lab_reboot(const common_options &common, const std::string &dir) {
  const stop_signal::guard guard;
  try {
    switch_dir target(dir, switch_dir::access::write);
    const reboot_report done = reboot(&target);
    done.booted.say(dir);
    if (!done.vrrp_lost.empty()) {
      output::message(in_quotes(dir) + ": " + done.vrrp_lost +
                      " waited for the other service and are gone");
    }
    if (common.format == output::format::json) {
      output::json({{"switch", dir},
                    {"volatile_stores", done.stores},
                    {"temporary_files", done.files},
                    {"troubles", done.booted.troubles}});
    } else {
      output::text(dir + ": rebooted; " + counted(done.stores, "volatile store") + " and " +
                   counted(done.files, "file") + " of /tmp are gone\n");
    }
  } catch (const failure &error) {
    throw error.placed(in_quotes(dir));
  }
  return exit_done;
}
