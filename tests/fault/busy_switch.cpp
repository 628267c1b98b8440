#include "fault/busy_switch.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "libdatamorph_private.h"
#include "support/library_state.h"
#include "unit/vrrp_fixture.h"

namespace {

constexpr mts_q_handle_t k_queue = 7;
constexpr uint32 k_up = 1;
constexpr uint32 k_down = 2;

// The records of VRRP, as the unit tests of its two sides have them.
struct vrrp_records : vrrp_fixture {
  static records_t before() { return old_records(); }
  static records_t now() { return with_others(two_groups(full_vr, global_info())); }
  static constexpr const char *mgr = k_mgr;
  static constexpr const char *eng = k_eng;
  static constexpr const char *temp = k_temp;
  void TestBody() override {}
};

const char *const k_removed_stores[] = {"plugin_runtime_cfg", "plugin_runtime_info",
                                        "plugin_debug",       "evms_runtime_cfg",
                                        "evms_runtime_info",  "evmc_runtime_cfg",
                                        "evmc_runtime_info",  "mvsh_runtime_cfg",
                                        "mvsh_runtime_info",  "clis_runtime_config",
                                        "clis_runtime_info",  "epp_runtime_config",
                                        "epp_runtime_ha",     "epp_debug"};
const uint32 k_access_points[] = {3, 11, 109, 187, 245, 295, 296, 297, 341, 342, 364, 422, 485};

void put_features(platform_double &platform) {
  const std::string on = bytes("01 00 00 00");
  for (const std::string folder : {"nonvolatile:/cfg", "nonvolatile:/cfg/bin"}) {
    platform.put(folder + "/dot1x_saved_config", bytes("64 0a 00 00 00 00 00 00 00 00 00 00"), on);
    platform.put(folder + "/kps_saved_config", bytes("f0 00 00 00"), on);
    platform.put(folder + "/eth_port_sec_saved_config", bytes("00 00 00 00 00 00 00 00"), on);
  }
  platform.put("nonvolatile:/cfg/bin/sysmgr_config", bytes("09 00 00 00  00 00 00 00 00 00 00 00"),
               tlv_array_bytes({{1, bytes("f5 01 00 00") + "old" + std::string(1, '\0')}}));
}

void put_port_managers(platform_double &platform) {
  const std::string callback = bytes("11 00 00 00 fd 00 00 00") + std::string(48, 'v');
  platform.set_store("nonvolatile:/cfg/pixm_runtime_info",
                     {{bytes("36 00 00 10 da 00 01"), tlv_array_bytes({{2, callback}})},
                      {bytes("36 00 00 11 21 00 01"), tlv_array_bytes({{2, callback}})},
                      {bytes("3a 00 00 00 00 00 01"), "cache"},
                      {bytes("3a 00 00 00 00 00 02"), "cache"},
                      {"other", "record"}});
  const auto reason = [](const char *number) {
    return bytes("01 00 10 00") + "ninebytes" + bytes(number) + "rest";
  };
  platform.set_store("nonvolatile:/cfg/ethpm_runtime_info",
                     {{bytes("33 06 1a 00 00 01"), reason("7c")},
                      {bytes("33 06 1a 00 00 02"), reason("8f")},
                      {"other", "record"}});
  for (const char *uri :
       {"nonvolatile:/cfg/ethpm_runtime_cfg", "nonvolatile:/cfg/bin/ethpm_saved_config"}) {
    platform.set_store(uri, {{bytes("65 14 1a 00 00 01"), "a"},
                             {bytes("65 15 1a 00 00 02"), "b"},
                             {"other", "record"}});
  }
}

void put_databases(platform_double &platform) {
  platform.set_store("volatile:/cfg/svi_gldb", {{"vlan 1", "up"}});
  switch_root::write_file(
      "/cfg/globalpss_table.snp",
      platform_double::flat_file({{std::string("/cfg/svi_gldb") + '\0', std::string(12, 'd')},
                                  {std::string("/cfg/other") + '\0', std::string(12, 'd')}}));
}

// What datamorph_get_version takes.
char *image() {
  static char path[] = "/images/to";
  return path;
}
constexpr int k_version_room = 255;
char *version_room() {
  static char room[k_version_room] = {};
  return room;
}

uint8 *no_tag() {
  static uint8 tag[1] = {};
  return tag;
}

syserr_t bulk_read(decltype(&datamorph_vrrp_mgr_pss_mgr_get_table) read, pss_service_t table) {
  void *values = nullptr;
  int32 count = 0;
  const int32 status = read(table, 1, &values, &count, 117);
  std::free(values);
  return static_cast<syserr_t>(status);
}

datamorph_args_t arguments(const releases &change) {
  return {"/cfg", "system", change.to, change.from};
}

template <auto converter> syserr_t convert(const open_stores &, const releases &change) {
  return converter("/cfg", "system", change.to, change.from);
}

template <auto entry_point> syserr_t run_all(const open_stores &, const releases &change) {
  datamorph_args_t args = arguments(change);
  return entry_point(&args);
}

std::vector<service_run> g_service_runs;

// All services' entry points in the order of their numbers; the last failure.
template <auto entry_point, auto is_in_table>
syserr_t run_each(const open_stores &, const releases &change) {
  datamorph_args_t args = arguments(change);
  syserr_t last = 0;
  for (uint32 number = 1; number < 1024; ++number) {
    const auto uuid = static_cast<uuid_t>(number);
    service_run made = {uuid, 0, {}, 0};
    made.status = entry_point(uuid, &made.failed, &args);
    last = made.status != 0 ? made.status : last;
    if (is_in_table(uuid)) {
      made.calls = double_platform().calls().size();
      g_service_runs.push_back(made);
    }
  }
  return last;
}

template <const auto &table> std::vector<table_row> rows_of() {
  std::vector<table_row> rows;
  for (const auto *row = table; row->uuid != SRVUUID_NONE; ++row) {
    rows.push_back({static_cast<uuid_t>(row->uuid), row->fn});
  }
  return rows;
}

// As they come when the services are gone through by their numbers.
template <const auto &table> std::vector<table_row> rows_by_service() {
  std::vector<table_row> rows = rows_of<table>();
  std::stable_sort(rows.begin(), rows.end(), [](const table_row &one, const table_row &other) {
    return one.uuid < other.uuid;
  });
  return rows;
}

template <auto asks> syserr_t ask(const open_stores &, const releases &) {
  return asks("/cfg/bin") ? 1 : 0;
}

} // namespace

void set_busy_environment() {
  setenv("SYSMGR_VDC_ID", "1", 1);
  setenv("SYSMGR_RUNNING_CFG_DIR", "/cfg", 1);
  setenv("SYSMGR_TO_SRG_PATH", "/images/to", 1);
  setenv("SYSMGR_FROM_SRG_PATH", "/images/from", 1);
  switch_root::write_file("/tmp/fc_nport_mux", "");
}

void make_busy_switch(const releases &change) {
  platform_double &platform = double_platform();
  platform.reset();
  platform.watch_tlvs();
  forget_process();
  g_service_runs.clear();
  platform.add_queue(k_queue);
  datamorph_mts_q = k_queue;
  platform.reply_always(3, bytes("00 00 00 00"));
  for (const uint32 sap : k_access_points) {
    platform.add_sap(sap);
  }
  platform.set_image("/images/to", change.to);
  platform.set_image("/images/from", change.from);
  for (const char *store : k_removed_stores) {
    platform.set_store(std::string("volatile:/cfg/") + store, {{"key", "value"}});
  }
  platform.set_store("volatile:/dev/shm/smm_smm_data", {{"key", "value"}});
  put_features(platform);
  put_port_managers(platform);
  put_databases(platform);
  platform.set_store(vrrp_records::mgr, vrrp_records::before());
  platform.set_store(vrrp_records::eng, vrrp_records::now());
  platform.set_store(vrrp_records::temp, vrrp_records::before());
}

const std::vector<service_run> &service_runs() {
  return g_service_runs;
}

open_stores open_for_steps() {
  syserr_t ignored = 0;
  open_stores open;
  open.mgr = pss_open(vrrp_records::mgr, &ignored);
  open.eng = pss_open(vrrp_records::eng, &ignored);
  open.temp = pss_open(vrrp_records::temp, &ignored);
  open.meta = pss2_open("volatile:/cfg/globalpss_table",
                        PSS2_MODE_READ | PSS2_MODE_WRITE | PSS2_MODE_CREATE, SRVUUID_PSS_HELPER, 0,
                        0, &ignored);
  return open;
}

#define EACH(name, is_in_table, table)                                                             \
  { #name, run_each < name, is_in_table>, nullptr, rows_by_service < table>, true }
#define ALL(name, table)                                                                           \
  { #name, run_all < name>, nullptr, rows_of < table> }
#define CONVERTER(name)                                                                            \
  { #name, convert < name>, name }
#define ASK(name)                                                                                  \
  { #name, ask < name>, nullptr, nullptr, false, false, false }
#define STEP(call)                                                                                 \
  {                                                                                                \
#call,                                                                                          \
   [](const open_stores &open, const releases &change) -> syserr_t {                               \
     static_cast<void>(open);                                                                      \
     static_cast<void>(change);                                                                    \
     return static_cast<syserr_t>(call);                                                                                \
   },                                                                                              \
   nullptr, nullptr, false, true, std::strstr(#call, "change.") != nullptr  \
  }

const std::vector<routine> k_routines = {
    // The entry points.
    EACH(datamorph_gsync, is_uuid_in_convert_gsync_table, data_morph_gsync_table),
    EACH(datamorph_startup, is_uuid_in_convert_startup_table, data_morph_startup_table),
    EACH(datamorph_running_fs_upg, is_uuid_in_convert_running_fs_upg_table,
         data_morph_running_fs_upg_table),
    ALL(datamorph_startup_all, data_morph_startup_table),
    ALL(datamorph_running_fs_upg_all, data_morph_running_fs_upg_table),
    // The converters, in tables or not.
    CONVERTER(psshlpr_data_morph_gsync),
    CONVERTER(sksd_data_morph_running_fs_upg),
    CONVERTER(plugin_data_morph_running_fs_upg),
    CONVERTER(evms_data_morph_running_fs_upg),
    CONVERTER(evmc_data_morph_running_fs_upg),
    CONVERTER(mvsh_data_morph_running_fs_upg),
    CONVERTER(smm_data_morph_running_fs_upg),
    CONVERTER(clis_data_morph_running_fs_upg),
    CONVERTER(cond_srv1_data_morph_gsync),
    CONVERTER(dot1x_data_morph_running_fs_upg),
    CONVERTER(kps_data_morph_running_fs_upg),
    CONVERTER(psec_data_morph_running_fs_upg),
    CONVERTER(dot1x_data_morph_startup),
    CONVERTER(kps_data_morph_startup),
    CONVERTER(psec_data_morph_startup),
    CONVERTER(svi_data_morph_psshlpr_upg),
    CONVERTER(foo_data_morph_psshlpr_upg),
    CONVERTER(pixm_data_morph_gsync),
    CONVERTER(ethpm_data_morph_gsync),
    CONVERTER(ethpm_data_morph_startup),
    CONVERTER(vrrp_mgr_data_morph_startup_for_upgrade),
    CONVERTER(vrrp_mgr_data_morph_startup_for_downgrade),
    CONVERTER(vrrp_eng_data_morph_startup_for_upgrade),
    CONVERTER(vrrp_eng_data_morph_startup_for_downgrade),
    CONVERTER(epp_in_npv_mode_data_morph_running_fs_upg),
    // What they are made of.
    ASK(was_dot1x_running),
    ASK(was_psec_running),
    ASK(was_kps_running),
    STEP(datamorph_get_version(image(), version_room(), k_version_room)),
    STEP(was_running_compulsory_conditional("/cfg/bin", SRVUUID_KPS, change.from)),
    STEP(datamorph_destroy_volatile_pss(const_cast<char *>("/cfg"),
                                        const_cast<char *>("plugin_debug"))),
    STEP(datamorph_destroy_nonvolatile_pss(const_cast<char *>("/cfg"),
                                           const_cast<char *>("ethpm_runtime_cfg"))),
    STEP(sysmgr_add_tag_info_req(SRVUUID_KPS, no_tag(), 1)),
    STEP(sysmgr_add_tag_startup("/cfg", SRVUUID_KPS, no_tag(), 1)),
    STEP(datamorph_gsdb_add("/cfg", "/cfg/svi_gldb", 1, SRVUUID_SVI, 0)),
    STEP(datamorph_gsdb_delete("/cfg", "/cfg/svi_gldb")),
    STEP(add_gsdb(open.meta, "/cfg/svi_gldb", 1, SRVUUID_SVI, 0)),
    STEP(delete_gsdb_table_entry(open.meta, "/cfg/svi_gldb")),
    STEP(datamorph_read_from_snapshot(open.meta, "/cfg", "globalpss_table")),
    STEP(svi_create_gsdb("/cfg")),
    STEP(svi_delete_gsdb("/cfg")),
    STEP((epp_destroy_mts_sap(), 0u)),
    STEP((epp_destroy_pss("/cfg"), 0u)),
    STEP(bulk_read(datamorph_vrrp_mgr_pss_mgr_get_table, open.mgr)),
    STEP(bulk_read(datamorph_vrrp_eng_pss_mgr_get_table, open.eng)),
    STEP(vrrp_handle_generic_convert("/cfg/bin", "system", change.to, change.from, 1, k_up)),
    STEP(vrrp_handle_generic_convert("/cfg/bin", "system", change.to, change.from, 1, k_down)),
    STEP(vrrp_eng_handle_generic_convert("/cfg/bin", "system", change.to, change.from, 1, k_up)),
    STEP(vrrp_eng_handle_generic_convert("/cfg/bin", "system", change.to, change.from, 1, k_down)),
    STEP(vrrp_handle_upgrade_to_4_2_1(open.mgr, 1, "")),
    STEP(datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade(open.mgr)),
    STEP(datamorph_vrrp_mgr_handle_downgrade_from_4_2_1(open.mgr, open.eng)),
    STEP(vrrp_copy_and_convert_rc_pss_recs_for_downgrade(open.eng, open.mgr)),
    STEP(vrrp_eng_handle_upgrade_to_4_2_1(open.temp, open.eng, 1)),
    STEP(vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade(open.temp, open.eng)),
    STEP(vrrp_eng_delete_pss_records_for_downgrade(open.eng)),
};

const routine *routine_of(convert_gsync_fn converter) {
  const auto found =
      std::find_if(k_routines.begin(), k_routines.end(), [converter](const routine &one) {
        return one.converter != nullptr && one.converter == converter;
      });
  return found == k_routines.end() ? nullptr : &*found;
}

syserr_t run_row(const table_row &row, const releases &change) {
  return row.converter("/cfg", "system", change.to, change.from);
}
