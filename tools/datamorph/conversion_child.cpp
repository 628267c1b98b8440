#include "conversion_child.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "failure.h"
#include "lab/lab.h"
#include "running_routine.h"
#include "services.h"
#include "statuses.h"
#include "store_access.h"
#include "tag_tables.h"
#include "text.h"
#include "unique_fd.h"
#include "vrrp_hand_over.h"

namespace {

nlohmann::json tables(const library &library) {
  nlohmann::json all = nlohmann::json::array();
  for (const std::vector<table_row> &table : library.tables) {
    nlohmann::json uuids = nlohmann::json::array();
    for (const table_row &row : table) {
      uuids.push_back(row.uuid);
    }
    all.push_back(uuids);
  }
  return all;
}

void set_environment(const conversion_plan &plan, vdc_id_t vdc) {
  setenv("SYSMGR_VDC_ID", std::to_string(vdc).c_str(), 1);
  setenv("SYSMGR_RUNNING_CFG_DIR", plan.state.running_cfg_dir.c_str(), 1);
  setenv("SYSMGR_TO_SRG_PATH", ("/images/" + plan.to).c_str(), 1);
  setenv("SYSMGR_FROM_SRG_PATH", ("/images/" + plan.from).c_str(), 1);
}

syserr_t make_request(const library &library, const conversion_plan &plan,
                      const conversion_request &request) {
  const std::string path = plan.state.path_of(request.which, request.vdc);
  datamorph_args_t args = {path.c_str(), plan.state.package.c_str(), plan.to.c_str(),
                           plan.from.c_str()};
  convert_ret_value_t failed = {};
  return request.uuid == SRVUUID_NONE ? library.call_all(request.which, &args)
                                      : library.call(request.which, request.uuid, &failed, &args);
}

// "uri" and "status" of the first store that cannot be read; null when all can.
nlohmann::json first_damaged_store(const switch_state &state) {
  for (const std::string &uri : all_store_uris()) {
    lab::store_info info;
    const syserr_t status = lab::store_inspect(uri, &info);
    if (status != SYSERR_SUCCESS) {
      return {{"uri", uri}, {"status", status}};
    }
  }
  // A store that is whole may hold tables that are not.
  lab::sysmgr_set_vdcs(state.vdcs);
  const syserr_t status = lab::sysmgr_load_tables();
  if (status != SYSERR_SUCCESS) {
    nlohmann::json damaged = {{"uri", lab::running_tag_tables}, {"status", status}};
    const std::vector<record_trouble> troubles = running_record_troubles(state.vdcs);
    if (!troubles.empty()) {
      damaged["key"] = troubles.front().key;
      damaged["text"] = troubles.front().text;
    }
    return damaged;
  }
  return nullptr;
}

// The running tag tables, and the service that answers requests about them.
void start_system_manager(const std::vector<vdc_id_t> &vdcs) {
  lab::sysmgr_set_vdcs(vdcs);
  const syserr_t status = lab::sysmgr_load_tables();
  if (status != SYSERR_SUCCESS) {
    throw failure(exit_failed, "cannot read the running tag tables in the store " +
                                   in_quotes(lab::running_tag_tables) + ": " + status_text(status));
  }
  if (lab::sysmgr_start() != 0) {
    throw failure(exit_failed,
                  "cannot start the system manager's service in the switch: " + error_text(errno));
  }
}

void stop_system_manager() {
  if (lab::sysmgr_stop() != 0) {
    throw failure(exit_failed, "the system manager's service did not give its access point back: " +
                                   error_text(errno));
  }
}

// ---- What becomes of the running tag tables ----------------------------------------------------

struct tag_of_service {
  vdc_id_t vdc = 0;
  uint32 uuid = 0;
  auto operator<=>(const tag_of_service &) const = default;
};
using running_tags = std::map<tag_of_service, std::string>;

running_tags tags_now(const std::vector<vdc_id_t> &vdcs) {
  running_tags tags;
  for (const vdc_id_t vdc : vdcs) {
    std::vector<lab::tag_entry> entries;
    lab::tag_table_decode(lab::sysmgr_running_table(vdc), &entries);
    for (const lab::tag_entry &entry : entries) {
      tags.emplace(tag_of_service{vdc, entry.uuid}, entry.tag);
    }
  }
  return tags;
}

nlohmann::json tags_gone(const running_tags &before, const running_tags &after) {
  nlohmann::json gone = nlohmann::json::array();
  for (const auto &[entry, tag] : before) {
    if (!after.contains(entry)) {
      gone.push_back({{"vdc", entry.vdc}, {"uuid", entry.uuid}, {"tag", to_hex(tag)}});
    }
  }
  return gone;
}

using store_records = std::map<std::string, std::string>;

// Counted here: the tables are kept when the journal is over.
nlohmann::json record_changes(const store_records &before, const store_records &after) {
  uint64_t added = 0;
  uint64_t changed = 0;
  uint64_t removed = 0;
  for (const auto &[key, value] : after) {
    const auto old = before.find(key);
    added += old == before.end() ? 1 : 0;
    changed += old != before.end() && old->second != value ? 1 : 0;
  }
  for (const auto &[key, value] : before) {
    removed += after.contains(key) ? 0 : 1;
  }
  return {{"added", added}, {"changed", changed}, {"removed", removed}};
}

// Whether VRRP's records may change places; nobody reads them otherwise.
bool converts_vrrp(const conversion_plan &plan) {
  return std::any_of(plan.requests.begin(), plan.requests.end(), [](const auto &request) {
    return request.which == moment::startup &&
           (request.uuid == SRVUUID_NONE || request.uuid == SRVUUID_VRRP_MGR ||
            request.uuid == SRVUUID_VRRP_ENG);
  });
}

// Until the parent has read what the library wrote, so that it knows what belongs to which request.
// One that reads nothing for so long does not hold the conversion up.
void drain_trace() {
  std::fflush(nullptr);
  int unread = 0;
  for (int waited = 0; waited < 20000; ++waited) {
    if (ioctl(STDERR_FILENO, FIONREAD, &unread) != 0 || unread == 0) {
      return;
    }
    usleep(100);
  }
}

void sync_state() {
  const unique_fd root(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.is_open() || TEMP_FAILURE_RETRY(syncfs(root.get())) != 0) {
    throw failure(exit_failed, "cannot sync the converted state: " + error_text(errno));
  }
}

} // namespace

nlohmann::json images() {
  nlohmann::json found = nlohmann::json::object();
  std::error_code error;
  for (std::filesystem::directory_iterator at("/images", error), end; at != end;
       at.increment(error)) {
    const char *version = srg_sw_ver_file_get(at->path().c_str());
    found[at->path().filename()] = version == nullptr ? nlohmann::json() : nlohmann::json(version);
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    throw failure(exit_failed, "not all images of the switch can be read: " + error.message());
  }
  return found;
}

std::string conversion_request::service() const {
  return uuid == SRVUUID_NONE ? "(whole table)" : service_name(uuid);
}

std::string conversion_request::text() const {
  return service() + " (" + moment_name(which) + ", VDC " + std::to_string(vdc) + ")";
}

void examine(const jail::channel &channel, const library &library, const conversion_plan &plan) {
  syserr_t error = SYSERR_SUCCESS;
  nlohmann::json message = {
      {"images", images()},
      {"tables", tables(library)},
      {"order", library.compare_versions(plan.from.c_str(), plan.to.c_str(), &error)}};
  const nlohmann::json damaged = first_damaged_store(plan.state);
  if (!damaged.is_null()) {
    message["damaged"] = damaged;
  }
  channel.send(message);
}

void run_conversion(const jail::channel &channel, const library &library,
                    const conversion_plan &plan, int journal) {
  using clock = std::chrono::steady_clock;
  const mts_q_handle_t queue = lab::mts_queue_open();
  if (queue == 0) {
    throw failure(exit_failed, "cannot open a message queue in the switch: " + error_text(errno));
  }
  start_system_manager(plan.state.vdcs);
  debug_trace_fac_SYSMGR = {stderr, 0xffffffffu};
  const std::vector<std::string> before = all_store_uris();
  const store_records tables_before = running_records();
  const bool vrrp = converts_vrrp(plan);
  const vrrp_places vrrp_before = vrrp ? vrrp_records_now(plan.state) : vrrp_places();
  running_tags tags = tags_now(plan.state.vdcs);
  lab::journal_start(journal);
  lab::journal_routine(running_routine::name);
  lab::sysmgr_journal_edits(); // takes note of the tables as they are
  set_environment(plan, 1);
  library.init(queue);
  for (size_t at = 0; at < plan.requests.size(); ++at) {
    const conversion_request &request = plan.requests[at];
    drain_trace();
    channel.send({{"start", at}});
    set_environment(plan, request.vdc);
    running_routine::expect(library, request);
    lab::journal_request(moment_name(request.which), request.vdc, request.service());
    const clock::time_point start = clock::now();
    const syserr_t status = make_request(library, plan, request);
    const std::chrono::duration<double, std::milli> took = clock::now() - start;
    lab::sysmgr_journal_edits();
    const running_tags tags_before = std::exchange(tags, tags_now(plan.state.vdcs));
    drain_trace();
    channel.send({{"result", at},
                  {"status", status},
                  {"milliseconds", took.count()},
                  {"tags_gone", tags_gone(tags_before, tags)}});
  }
  stop_system_manager(); // what it enters last is the last request's
  lab::journal_routine(nullptr);
  lab::journal_request("closing", 0, "");
  size_t left_open = 0;
  const syserr_t closed = lab::close_all_stores(&left_open);
  std::string first;
  const size_t unexpected = lab::journal_unexpected(&first);
  lab::journal_stop();
  const vrrp_places vrrp_after = vrrp ? vrrp_records_now(plan.state) : vrrp_places();
  const syserr_t saved = lab::sysmgr_save_tables();
  lab::mts_queue_close(queue);
  lab::mts_shutdown();
  sync_state();
  channel.send({{"closing",
                 {{"left_open", left_open},
                  {"close_status", closed},
                  {"tables_status", saved},
                  {"tables_changes", record_changes(tables_before, running_records())},
                  {"vrrp_lost", vrrp_lost(vrrp_before, vrrp_after)},
                  {"vrrp_waiting", vrrp_waiting(vrrp_after)},
                  {"unexpected", unexpected},
                  {"first_unexpected", first},
                  {"stores_before", before},
                  {"stores_after", all_store_uris()}}}});
}
