// The VRRP engine's side (SRVUUID_VRRP_ENG) of a change across release 4.2(1), at the startup
// moment. Going up its runtime configuration "vrrp-eng_runtime_config" becomes a copy of the
// temporary store that the manager left, with VR records in the wider layout; going down a copy of
// it becomes the temporary store, and its VR, VIP and global info records are deleted.

#include <cstdio>
#include <cstring>

#include "libdatamorph_vrrp.h"

vrrp_side_t vrrp_eng_side = {"/bootflash/data_morph_vrrp_eng.log", -1, {}, 0};

// ---- Startup entries ---------------------------------------------------------------------------

syserr_t vrrp_eng_data_morph_startup_for_upgrade(const char *path, const char *pkg_name,
                                                 const char *to_pkg_version,
                                                 const char *from_pkg_version) {
  vrrp_open_trace(vrrp_eng_side);
  VRRP_TRACE(vrrp_eng_side, __func__, "%s: start conversion for vrrp\n", __func__);
  VRRP_TRACE(vrrp_eng_side, __func__, "Convert startup called with path %s\n",
             datamorph_text(path));
  return vrrp_convert_startup(vrrp_eng_handle_generic_convert, path, pkg_name, to_pkg_version,
                              from_pkg_version, vrrp_upgrade);
}

syserr_t vrrp_eng_data_morph_startup_for_downgrade(const char *path, const char *pkg_name,
                                                   const char *to_pkg_version,
                                                   const char *from_pkg_version) {
  vrrp_open_trace(vrrp_eng_side);
  VRRP_TRACE(vrrp_eng_side, __func__, "%s: start conversion for vrrp\n", __func__);
  // QUIRK: "wit". The trace's wording is a contract.
  // Pinned by vrrp_engine_test, the_downgrade_entry_is_misspelt.
  VRRP_TRACE(vrrp_eng_side, __func__, "Convert startup called wit path %s\n", datamorph_text(path));
  return vrrp_convert_startup(vrrp_eng_handle_generic_convert, path, pkg_name, to_pkg_version,
                              from_pkg_version, vrrp_downgrade);
}

// ---- Both directions ---------------------------------------------------------------------------

namespace {

constexpr vrrp_routine_t k_generic = {vrrp_eng_side, "vrrp_eng_handle_generic_convert"};

struct engine_stores_t {
  char eng_rc_url[vrrp_path_size];
  char mgr_rc_url[vrrp_path_size]; // the temporary store
  pss_service_t engine;            // 0 while it is not open
};

enum class outcome { go_on, end, failed };

pss_service_t open_store(const char *uri, syserr_t *status) {
  *status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(uri, status);
  if (*status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, k_generic.name, "Failed to open %s: %s\n", uri, syserr2str(*status));
    return 0;
  }
  return store;
}

void close_temporary(pss_service_t temporary, const char *mgr_rc_url) {
  syserr_t status = pss_close(temporary);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, k_generic.name, "Error closing Mgr RC PSS : Ret 0x%x(%s)\n", status,
               syserr2str(status));
  }
  // QUIRK: this line and the last one stand there after a failure too.
  // Pinned by vrrp_engine_test, every_failing_call_going_up.
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "Closed temp pss in Engine\n");
  status = pss_destroy(mgr_rc_url);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, k_generic.name,
               "Error destroying temp pss in Engine :Ret_val %d(%s)\n", static_cast<int>(status),
               syserr2str(status));
  }
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "Destroyed temporary PSS file in Engine\n");
}

// QUIRK: an early end leaves the stores open that were opened before it, here and going down.
// Pinned by vrrp_engine_test, every_failing_call_going_up and every_failing_call_going_down.
outcome upgrade(engine_stores_t &stores, uint8 conversion_type, syserr_t *status) {
  const pss_service_t temporary = open_store(stores.mgr_rc_url, status);
  if (*status != SYSERR_SUCCESS) {
    return outcome::end;
  }
  *status = pss_snapshot(temporary, 0, stores.eng_rc_url);
  if (*status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, k_generic.name, "Failed to snapshot PSS in Engine: %s\n",
               syserr2str(*status));
    return outcome::end;
  }
  stores.engine = open_store(stores.eng_rc_url, status);
  if (*status != SYSERR_SUCCESS) {
    return outcome::end;
  }
  *status = vrrp_eng_handle_upgrade_to_4_2_1(temporary, stores.engine, conversion_type);
  if (*status != SYSERR_SUCCESS) { // GCOVR_EXCL_BR_LINE: it reports no failure
    VRRP_TRACE(vrrp_eng_side, k_generic.name, "Error in handling upgrade request; Ret_val = %d\n",
               static_cast<int>(*status));
    return outcome::failed;
  }
  close_temporary(temporary, stores.mgr_rc_url);
  return outcome::go_on;
}

outcome downgrade(engine_stores_t &stores) {
  syserr_t status = SYSERR_SUCCESS;
  stores.engine = open_store(stores.eng_rc_url, &status);
  if (status != SYSERR_SUCCESS) {
    return outcome::end;
  }
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "Opened Engine's RC PSS File\n");
  status = pss_snapshot(stores.engine, 0, stores.mgr_rc_url);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, k_generic.name,
               "Failed to snapshot PSS during Downgrade in Engine: %s\n", syserr2str(status));
    return outcome::end;
  }
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "Taken snapshot to temp startup PSS\n");
  if (vrrp_eng_delete_pss_records_for_downgrade(stores.engine) != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, k_generic.name,
               "Error deleting Startup PSS records in Engine for downgrade\n");
  }
  return outcome::go_on;
}

// The names of the stores. The VDC's text stands in the temporary one's for other VDCs than 1.
syserr_t name_stores(const char *path, uint8 conversion_type, engine_stores_t *stores) {
  snprintf(stores->eng_rc_url, sizeof stores->eng_rc_url, "nonvolatile:%s/%s", path,
           "vrrp-eng_runtime_config");
  vrrp_vdc_t vdc = {};
  const syserr_t status = vrrp_read_vdc(k_generic, path, &vdc);
  vrrp_temporary_uri(conversion_type == vrrp_startup_conversion ? vrrp_temporary_startup
                                                                : vrrp_temporary_other,
                     vdc.id != 1 ? vdc.string : "", stores->mgr_rc_url);
  return status;
}

} // namespace

syserr_t vrrp_eng_handle_generic_convert(const char *path, const char * /*pkg_name*/,
                                         const char *to_pkg_version, const char *from_pkg_version,
                                         uint8 conversion_type, uint8 convert_func_id) {
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "Entering upgrade/downgrade path in Engine\n");
  if (path == nullptr) {
    return SYSERR_FAILED;
  }
  engine_stores_t stores = {};
  syserr_t status = name_stores(path, conversion_type, &stores);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "eng_rc_url = %s\n", stores.eng_rc_url);
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "mgr_rc_url = %s\n", stores.mgr_rc_url);
  vrrp_change_t change = {};
  if (!vrrp_read_change(k_generic, to_pkg_version, from_pkg_version, &change)) {
    return SYSERR_SUCCESS;
  }
  outcome result = outcome::go_on;
  if (change.up && convert_func_id == vrrp_upgrade) {
    result = upgrade(stores, conversion_type, &status);
  } else if (change.down && convert_func_id == vrrp_downgrade) {
    result = downgrade(stores);
  }
  if (result != outcome::go_on) {
    return result == outcome::failed ? status : SYSERR_SUCCESS; // GCOVR_EXCL_BR_LINE: as above
  }
  if (stores.engine != 0) {
    status = pss_close(stores.engine);
    if (status != SYSERR_SUCCESS) {
      VRRP_TRACE(vrrp_eng_side, k_generic.name, "Error closing Eng RC PSS : Ret 0x%x(%s)\n", status,
                 syserr2str(status));
    }
  }
  VRRP_TRACE(vrrp_eng_side, k_generic.name, "Completed conversion in Engine\n");
  return SYSERR_SUCCESS;
}

// ---- Going up ----------------------------------------------------------------------------------

syserr_t vrrp_eng_handle_upgrade_to_4_2_1(pss_service_t pss_mgr_rc_table,
                                          pss_service_t pss_eng_rc_table,
                                          uint8 /*conversion_type*/) {
  const syserr_t status =
      vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade(pss_mgr_rc_table, pss_eng_rc_table);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, __func__,
               "Error copying PSS recs from Mgr to Engine's RC PSS - Ret_val 0x%x\n", status);
  } else {
    VRRP_TRACE(vrrp_eng_side, __func__, "Copied RC records from temp PSS to Engine's\n");
  }
  return SYSERR_SUCCESS;
}

namespace {

vrrp_config_record_t widened(const vrrp_old_config_record_t &old) {
  vrrp_config_record_t wide = {}; // no thresholds, not forwarding
  wide.old = old;
  return wide;
}

void store_widened(const vrrp_routine_t &self, pss_service_t dst, const uint8 *slot) {
  vrrp_old_config_record_t old = {};
  memcpy(&old, slot, sizeof old);
  VRRP_TRACE(self.side, self.name,
             "Retrieved PSS record for VR %d on interface 0x%x and addr type %d\n", old.vr_id,
             old.ifindex, static_cast<int>(old.addr_type));
  vrrp_config_record_t wide = widened(old);
  if (vrrp_store_vr(self, dst, 1, old, &wide, sizeof wide)) {
    VRRP_TRACE(self.side, self.name, "Added new record for VR %d on interface 0x%x\n", old.vr_id,
               old.ifindex);
  }
}

} // namespace

syserr_t vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade(pss_service_t mgr_rc_pss_table,
                                                           pss_service_t eng_rc_pss_table) {
  if (vrrp_store_global_info(eng_rc_pss_table, 1) != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_eng_side, __func__, "Failed to store global info\n");
  }
  vrrp_values routers;
  int32 status = routers.get(mgr_rc_pss_table, VRRP_KEY_VR, sizeof(vrrp_old_config_record_t));
  if (status != 0) {
    // QUIRK: success, unlike a failed read of the VIP records.
    // Pinned by vrrp_engine_test, every_failing_call_going_up.
    VRRP_TRACE(vrrp_eng_side, __func__, "Error getting PSS records in bulk; Ret_val = 0x%x\n",
               static_cast<uint32>(status));
    return SYSERR_SUCCESS;
  }
  VRRP_TRACE(vrrp_eng_side, __func__, "Number of VR records = %d\n", routers.count());
  for (int32 i = 0; i < routers.count(); ++i) {
    store_widened({vrrp_eng_side, __func__}, eng_rc_pss_table, routers.slot(i));
  }
  vrrp_values addresses;
  status = addresses.get(mgr_rc_pss_table, VRRP_KEY_VIP, sizeof(vrrp_ip_assoc_record_t));
  if (status != 0) {
    VRRP_TRACE(vrrp_eng_side, __func__, "Error getting PSS records in bulk; Ret = 0x%x\n",
               static_cast<uint32>(status));
    return static_cast<syserr_t>(status);
  }
  vrrp_store_addresses({vrrp_eng_side, __func__}, eng_rc_pss_table, 1, addresses);
  return SYSERR_SUCCESS;
}

// ---- Going down --------------------------------------------------------------------------------

syserr_t vrrp_eng_delete_pss_records_for_downgrade(pss_service_t eng_rc_pss_table) {
  return vrrp_delete_records({vrrp_eng_side, __func__}, eng_rc_pss_table,
                             sizeof(vrrp_config_record_t));
}

// ---- Bulk get and keys -------------------------------------------------------------------------

int32 datamorph_vrrp_eng_pss_mgr_get_table(pss_service_t table, uint8 key_type, void **value_array,
                                           int32 *num_values, int32 value_size) {
  return vrrp_get_table(table, key_type, value_array, num_values, value_size);
}

void datamorph_vrrp_eng_make_vr_key(uint8 *key, uint8 key_type, if_index_t ifindex, uint8 vr_id,
                                    inet_addr_type_t addr_type) {
  vrrp_make_vr_key(key, key_type, ifindex, vr_id, addr_type);
}

void datamorph_vrrp_eng_make_assoc_key(uint8 *key, if_index_t ifindex, uint8 vr_id,
                                       inet_addr_t inet_addr) {
  vrrp_make_assoc_key(key, ifindex, vr_id, inet_addr);
}
