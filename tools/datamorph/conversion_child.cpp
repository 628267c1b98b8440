#include "conversion_child.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

#include "failure.h"
#include "lab/lab.h"
#include "services.h"
#include "statuses.h"
#include "text.h"
#include "unique_fd.h"

namespace {

nlohmann::json images() {
  nlohmann::json found = nlohmann::json::object();
  std::error_code error;
  for (std::filesystem::directory_iterator at("/images", error), end; at != end;
       at.increment(error)) {
    const char *version = srg_sw_ver_file_get(at->path().c_str());
    found[at->path().filename()] = version == nullptr ? nlohmann::json() : nlohmann::json(version);
  }
  return found;
}

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
  for (const std::string &uri : lab::store_uris()) {
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
    return {{"uri", lab::running_tag_tables}, {"status", status}};
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

void sync_state() {
  const unique_fd root(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.is_open() || syncfs(root.get()) != 0) {
    throw failure(exit_failed, "cannot sync the converted state: " + error_text(errno));
  }
}

} // namespace

std::string conversion_request::service() const {
  return uuid == SRVUUID_NONE ? "(whole table)" : service_name(uuid);
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
  const std::vector<std::string> before = lab::store_uris();
  lab::journal_start(journal);
  set_environment(plan, 1);
  library.init(queue);
  for (size_t at = 0; at < plan.requests.size(); ++at) {
    const conversion_request &request = plan.requests[at];
    channel.send({{"start", at}});
    set_environment(plan, request.vdc);
    lab::journal_request(moment_name(request.which), request.vdc, request.service());
    const clock::time_point start = clock::now();
    const syserr_t status = make_request(library, plan, request);
    const std::chrono::duration<double, std::milli> took = clock::now() - start;
    channel.send({{"result", at}, {"status", status}, {"milliseconds", took.count()}});
  }
  lab::journal_request("closing", 0, "");
  stop_system_manager();
  size_t left_open = 0;
  const syserr_t closed = lab::close_all_stores(&left_open);
  std::string first;
  const size_t unexpected = lab::journal_unexpected(&first);
  lab::journal_stop();
  const syserr_t saved = lab::sysmgr_save_tables();
  lab::mts_queue_close(queue);
  lab::mts_shutdown();
  sync_state();
  channel.send({{"closing",
                 {{"left_open", left_open},
                  {"close_status", closed},
                  {"tables_status", saved},
                  {"unexpected", unexpected},
                  {"first_unexpected", first},
                  {"stores_before", before},
                  {"stores_after", lab::store_uris()}}}});
}
