// Converters for the tests of the command line. What the SKSD routine of the running filesystem
// does is told by FAKE_CONVERTERS_DO; everything else succeeds. Each routine notes its call in
// /bootflash/calls.
#include "libdatamorph.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <time.h>
#include <unistd.h>

#include "platform/pss.h"

namespace {

constexpr char store_uri[] = "nonvolatile:/cfg/0/vlan_cfg";

void note(const char *routine, const char *path) {
  FILE *calls = std::fopen("/bootflash/calls", "a");
  if (calls != nullptr) {
    const char *vdc = std::getenv("SYSMGR_VDC_ID");
    const char *running = std::getenv("SYSMGR_RUNNING_CFG_DIR");
    const char *to = std::getenv("SYSMGR_TO_SRG_PATH");
    const char *from = std::getenv("SYSMGR_FROM_SRG_PATH");
    std::fprintf(calls, "%s %s %s %s %s %s\n", routine, path, vdc, running, to, from);
    std::fclose(calls);
  }
}

pss_service_t open_store() {
  syserr_t status = 0;
  return pss_open(store_uri, &status);
}

syserr_t put(pss_service_t store, const std::string &key, uint32 value_size) {
  std::string value(value_size, 'v');
  std::string key_bytes = key;
  const pss_datum_t key_datum = {key_bytes.data(), static_cast<uint32>(key_bytes.size())};
  const pss_datum_t value_datum = {value.data(), value_size};
  return pss_store(store, 0, &key_datum, &value_datum);
}

void put_one(const std::string &key) {
  const pss_service_t store = open_store();
  put(store, key, 4);
  pss_close(store);
}

void put_slowly() {
  for (int at = 0; at < 20; ++at) {
    put_one("slow-" + std::to_string(at));
    const timespec pause = {0, 3000000};
    nanosleep(&pause, nullptr);
  }
}

[[noreturn]] void hang() {
  for (;;) {
    pause();
  }
}

[[noreturn]] void chatter() {
  for (;;) {
    std::fputs("still at it\n", stderr);
    const timespec pause = {0, 1000000};
    nanosleep(&pause, nullptr);
  }
}

syserr_t act(std::string_view what) {
  if (what == "crash") {
    std::signal(SIGSEGV, SIG_DFL);
    std::raise(SIGSEGV);
  } else if (what == "hang") {
    put_one("hanging");
    hang();
  } else if (what == "chatter") {
    chatter();
  } else if (what == "exit") {
    _exit(0);
  } else if (what == "fail") {
    put_one("failing");
    return SYSERR_PSS_DAMAGED;
  } else if (what == "leak") {
    put(open_store(), "leaked", 4);
  } else if (what == "bad-write") {
    const pss_service_t store = open_store();
    put(store, "too-large", 2 << 20);
    pss_close(store);
  } else if (what == "change") {
    put_one("changed");
  } else if (what == "slow") {
    put_slowly();
  } else if (what == "print") {
    std::printf("NOISE ON STANDARD OUTPUT\n");
    std::fflush(stdout);
  }
  return SYSERR_SUCCESS;
}

syserr_t sksd(const char *path, const char *, const char *, const char *) {
  note("sksd", path);
  const char *what = std::getenv("FAKE_CONVERTERS_DO");
  return act(what == nullptr ? "" : what);
}

#define QUIET_ROUTINE(name)                                                                        \
  syserr_t name(const char *path, const char *, const char *, const char *) {                      \
    note(#name, path);                                                                             \
    return SYSERR_SUCCESS;                                                                         \
  }
QUIET_ROUTINE(ike)
QUIET_ROUTINE(plugin)
QUIET_ROUTINE(manager_up)
QUIET_ROUTINE(engine_up)
QUIET_ROUTINE(engine_down)
QUIET_ROUTINE(manager_down)

template <typename row_t>
syserr_t walk(const row_t *row, uuid_t uuid, convert_ret_value_t *a, const datamorph_args_t *args) {
  for (; row->uuid != SRVUUID_NONE; ++row) {
    if (row->uuid != uuid) {
      continue;
    }
    const syserr_t status =
        row->fn(args->path, args->pkg_name, args->to_pkg_version, args->from_pkg_version);
    if (status != SYSERR_SUCCESS) {
      *a = {row->uuid, status};
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

template <typename row_t> syserr_t walk_all(const row_t *table, const datamorph_args_t *args) {
  for (const row_t *row = table; row->uuid != SRVUUID_NONE; ++row) {
    const syserr_t status =
        row->fn(args->path, args->pkg_name, args->to_pkg_version, args->from_pkg_version);
    if (status != SYSERR_SUCCESS) {
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

} // namespace

const data_morph_gsync data_morph_gsync_table[] = {{SRVUUID_IKE, ike}, {SRVUUID_NONE, nullptr}};
const data_morph_running_fs_upg data_morph_running_fs_upg_table[] = {
    {SRVUUID_SKSD, sksd}, {SRVUUID_PLUGIN, plugin}, {SRVUUID_NONE, nullptr}};
const data_morph_startup data_morph_startup_table[] = {{SRVUUID_VRRP_MGR, manager_up},
                                                       {SRVUUID_VRRP_ENG, engine_up},
                                                       {SRVUUID_VRRP_ENG, engine_down},
                                                       {SRVUUID_VRRP_MGR, manager_down},
                                                       {SRVUUID_NONE, nullptr}};
const data_morph_psshlpr_upg data_morph_psshlpr_upg_table[] = {{SRVUUID_NONE, nullptr}};

void libdatamorph_init(mts_q_handle_t) {
  const char *what = std::getenv("FAKE_CONVERTERS_DO");
  if (what != nullptr && std::strcmp(what, "crash-at-init") == 0) {
    std::signal(SIGABRT, SIG_DFL);
    std::raise(SIGABRT);
  }
}

syserr_t datamorph_gsync(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return walk(data_morph_gsync_table, uuid, a, args);
}

syserr_t datamorph_startup(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return walk(data_morph_startup_table, uuid, a, args);
}

syserr_t datamorph_running_fs_upg(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return walk(data_morph_running_fs_upg_table, uuid, a, args);
}

syserr_t datamorph_startup_all(datamorph_args_t *args) {
  return walk_all(data_morph_startup_table, args);
}

syserr_t datamorph_running_fs_upg_all(datamorph_args_t *args) {
  return walk_all(data_morph_running_fs_upg_table, args);
}

int datamorph_compare_versions(const char *from_ver, const char *to_ver, syserr_t *errcode) {
  *errcode = SYSERR_SUCCESS;
  const int order = strverscmp(from_ver, to_ver);
  return (order > 0) - (order < 0);
}
