// The VRRP manager's side (SRVUUID_VRRP_MGR) of a change across release 4.2(1), at the startup
// moment. Going up it puts a copy of its saved configuration "vrrp-cfg_config_sav" into the
// temporary store and deletes its VR, VIP and global info records; going down it takes the records
// that the engine left there, in the narrower layout, and destroys the temporary store.

#include <cstdio>
#include <cstring>

#include "libdatamorph_vrrp.h"

vrrp_side_t vrrp_mgr_side = {"/bootflash/data_morph_vrrp_mgr.log", -1, {}, 0};

// ---- Startup entries ---------------------------------------------------------------------------

namespace {

syserr_t start(const char *name, const char *path, const char *pkg_name, const char *to_pkg_version,
               const char *from_pkg_version, uint8 flag) {
  vrrp_open_trace(vrrp_mgr_side);
  VRRP_TRACE(vrrp_mgr_side, name, "%s: Convert startup called with path %s\n", name,
             datamorph_text(path));
  return vrrp_convert_startup(vrrp_handle_generic_convert, path, pkg_name, to_pkg_version,
                              from_pkg_version, flag);
}

} // namespace

syserr_t vrrp_mgr_data_morph_startup_for_upgrade(const char *path, const char *pkg_name,
                                                 const char *to_pkg_version,
                                                 const char *from_pkg_version) {
  return start(__func__, path, pkg_name, to_pkg_version, from_pkg_version, vrrp_upgrade);
}

syserr_t vrrp_mgr_data_morph_startup_for_downgrade(const char *path, const char *pkg_name,
                                                   const char *to_pkg_version,
                                                   const char *from_pkg_version) {
  return start(__func__, path, pkg_name, to_pkg_version, from_pkg_version, vrrp_downgrade);
}

// ---- Both directions ---------------------------------------------------------------------------

namespace {

constexpr vrrp_routine_t k_generic = {vrrp_mgr_side, "vrrp_handle_generic_convert"};

// False when the store could not be opened, which ends the conversion.
bool upgrade(const char *mgr_rc_url, uint8 conversion_type, const char *vdc_string) {
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t table = pss_open(mgr_rc_url, &status);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Failed to open %s: 0x%x\n", mgr_rc_url, status);
    return false;
  }
  VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Opened Mgr's PSS File %s\n", mgr_rc_url);
  status = vrrp_handle_upgrade_to_4_2_1(table, conversion_type, vdc_string);
  if (status != SYSERR_SUCCESS) { // GCOVR_EXCL_BR_LINE: it reports none for a VDC's text
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Error handling upgrade changes : Ret_val 0x%x\n",
               status);
  }
  status = pss_close(table);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Error closing RC PSS file in Mgr : Ret_val 0x%x\n",
               status);
  } else {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Closed RC PSS file in Mgr\n");
  }
  return true;
}

void close_temporary(pss_service_t temporary, const char *temp_url) {
  syserr_t status = pss_close(temporary);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Error closing temp PSS file in Mgr : 0x%x\n",
               status);
  } else {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Closed temp PSS file in Mgr\n");
  }
  status = pss_destroy(temp_url);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name,
               "Error destroying temp pss file in Mgr : Ret_val 0x%x\n", status);
  } else {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Destroyed temp PSS file in Mgr\n");
  }
}

// False when a store could not be opened, which ends the conversion.
bool downgrade(const char *mgr_rc_url, const vrrp_vdc_t &vdc) {
  // QUIRK: the text of the VDC stands in the temporary store's name only for other VDCs than 1, and
  // the name is that of a startup conversion, whatever the conversion; going up both differ.
  // Pinned by vrrp_mgr_test, the_temporary_store_of_a_vdc.
  char temp_url[vrrp_path_size] = {};
  vrrp_temporary_uri(vrrp_temporary_startup, vdc.id != 1 ? vdc.string : "", temp_url);
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t temporary = pss_open(temp_url, &status);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Failed to open %s: %s\n", temp_url,
               syserr2str(status));
    return false;
  }
  VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Opened Engine's PSS file %s\n", temp_url);
  const pss_service_t table = pss_open(mgr_rc_url, &status);
  if (status != SYSERR_SUCCESS) {
    // QUIRK: the temporary store stays open and is not destroyed, so that its records are not lost.
    // Pinned by vrrp_mgr_test, a_downgrade_without_the_managers_store.
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Failed to open %s: 0x%x\n", mgr_rc_url, status);
    return false;
  }
  VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Opened Mgr's PSS File %s\n", mgr_rc_url);
  status = datamorph_vrrp_mgr_handle_downgrade_from_4_2_1(table, temporary);
  if (status != SYSERR_SUCCESS) { // GCOVR_EXCL_BR_LINE: it reports no failure
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Error handling downgrade changes : Ret_val 0x%x\n",
               status);
  }
  close_temporary(temporary, temp_url);
  pss_close(table);
  return true;
}

} // namespace

syserr_t vrrp_handle_generic_convert(const char *path, const char * /*pkg_name*/,
                                     const char *to_pkg_version, const char *from_pkg_version,
                                     uint8 conversion_type, uint8 convert_func_flag) {
  VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Entering upgrade/downgrade code path in Mgr\n");
  if (path == nullptr) {
    return SYSERR_FAILED;
  }
  char mgr_rc_url[vrrp_path_size] = {};
  snprintf(mgr_rc_url, sizeof mgr_rc_url, "nonvolatile:%s/%s", path, "vrrp-cfg_config_sav");
  vrrp_change_t change = {};
  if (!vrrp_read_change(k_generic, to_pkg_version, from_pkg_version, &change)) {
    return SYSERR_SUCCESS;
  }
  vrrp_vdc_t vdc = {};
  const syserr_t status = vrrp_read_vdc(k_generic, path, &vdc);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  if (vdc.named) {
    VRRP_TRACE(vrrp_mgr_side, k_generic.name, "VDC string = %s\n", vdc.string);
  }
  if (change.up && convert_func_flag == vrrp_upgrade) {
    if (!upgrade(mgr_rc_url, conversion_type, vdc.string)) {
      return SYSERR_SUCCESS;
    }
  } else if (change.down && convert_func_flag == vrrp_downgrade) {
    if (!downgrade(mgr_rc_url, vdc)) {
      return SYSERR_SUCCESS;
    }
  }
  VRRP_TRACE(vrrp_mgr_side, k_generic.name, "Done with conversion in Mgr\n");
  return SYSERR_SUCCESS;
}

// ---- Going up ----------------------------------------------------------------------------------

syserr_t vrrp_handle_upgrade_to_4_2_1(pss_service_t mgr_rc_pss_table, uint8 conversion_type,
                                      const char *vdc_string) {
  VRRP_TRACE(vrrp_mgr_side, __func__, "Entered Upgrade path\n");
  if (vdc_string == nullptr) {
    return SYSERR_FAILED;
  }
  char temp_url[vrrp_path_size] = {};
  vrrp_temporary_uri(conversion_type == vrrp_startup_conversion ? vrrp_temporary_startup
                                                                : vrrp_temporary_other,
                     vdc_string, temp_url);
  syserr_t status = pss_snapshot(mgr_rc_pss_table, 0, temp_url);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, __func__, "Error in taking snapshot of Mgr's PSS: %s\n",
               syserr2str(status));
  }
  status = datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade(mgr_rc_pss_table);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, __func__, "Error deleting Startup PSS recs in upgrade : 0x%x\n",
               status);
  }
  // QUIRK: both lines stand there whatever became of the deletion and the snapshot.
  // Pinned by vrrp_mgr_test, a_failed_snapshot_is_carried_on_from.
  VRRP_TRACE(vrrp_mgr_side, __func__, "Deleted RC recs in Mgr for upgrade\n");
  VRRP_TRACE(vrrp_mgr_side, __func__, "Taken snapshot of Mgr PSS to temp file %s\n", temp_url);
  return SYSERR_SUCCESS;
}

syserr_t datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade(pss_service_t mgr_rc_pss_table) {
  return vrrp_delete_records({vrrp_mgr_side, __func__}, mgr_rc_pss_table,
                             sizeof(vrrp_old_config_record_t));
}

// ---- Going down --------------------------------------------------------------------------------

syserr_t datamorph_vrrp_mgr_handle_downgrade_from_4_2_1(pss_service_t pss_mgr_rc_table,
                                                        pss_service_t pss_eng_rc_table) {
  if (vrrp_copy_and_convert_rc_pss_recs_for_downgrade(pss_eng_rc_table, pss_mgr_rc_table) !=
      SYSERR_SUCCESS) {
    // QUIRK: the wrong way round: the records go from the engine's copy to the manager.
    // Pinned by vrrp_mgr_test, a_failed_read_of_the_temporary_store_going_down.
    VRRP_TRACE(vrrp_mgr_side, __func__, "Error copying PSS recs from Mgr to Engine's RC PSS\n");
  }
  return SYSERR_SUCCESS;
}

namespace {

vrrp_old_config_record_t narrowed(const uint8 *slot) {
  vrrp_config_record_t wide = {};
  memcpy(&wide, slot, sizeof wide);
  return wide.old; // the thresholds and the forwarding state have no place there
}

void store_narrowed(const vrrp_routine_t &self, pss_service_t dst, const uint8 *slot) {
  vrrp_old_config_record_t record = narrowed(slot);
  if (vrrp_store_vr(self, dst, 0, record, &record, sizeof record)) {
    VRRP_TRACE(self.side, self.name,
               "Added new record for VR %d on interface 0x%x and addr type %d\n", record.vr_id,
               record.ifindex, static_cast<int>(record.addr_type));
  }
}

} // namespace

syserr_t vrrp_copy_and_convert_rc_pss_recs_for_downgrade(pss_service_t pss_eng_rc_table,
                                                         pss_service_t pss_mgr_rc_table) {
  syserr_t stored = vrrp_store_global_info(pss_mgr_rc_table, 0);
  if (stored != SYSERR_SUCCESS) {
    VRRP_TRACE(vrrp_mgr_side, __func__, "Failed to store global info : 0x%x\n", stored);
  }
  vrrp_values routers;
  int32 status = routers.get(pss_eng_rc_table, VRRP_KEY_VR, sizeof(vrrp_config_record_t));
  if (status != 0) {
    VRRP_TRACE(vrrp_mgr_side, __func__, "Error getting PSS records in bulk; Ret_val = 0x%x\n",
               static_cast<uint32>(status));
    return static_cast<syserr_t>(status);
  }
  VRRP_TRACE(vrrp_mgr_side, __func__, "Number of VR records = %d\n", routers.count());
  for (int32 i = 0; i < routers.count(); ++i) {
    store_narrowed({vrrp_mgr_side, __func__}, pss_mgr_rc_table, routers.slot(i));
  }
  vrrp_values addresses;
  status = addresses.get(pss_eng_rc_table, VRRP_KEY_VIP, sizeof(vrrp_ip_assoc_record_t));
  if (status != 0) {
    VRRP_TRACE(vrrp_mgr_side, __func__, "Error getting PSS records in bulk; Ret_val = 0x%x\n",
               static_cast<uint32>(status));
    return static_cast<syserr_t>(status);
  }
  vrrp_store_addresses({vrrp_mgr_side, __func__}, pss_mgr_rc_table, 0, addresses);
  return SYSERR_SUCCESS;
}

// ---- Bulk get and keys -------------------------------------------------------------------------

int32 datamorph_vrrp_mgr_pss_mgr_get_table(pss_service_t table, uint8 key_type, void **value_array,
                                           int32 *num_values, int32 value_size) {
  return vrrp_get_table(table, key_type, value_array, num_values, value_size);
}

void datamorph_vrrp_mgr_make_vr_key(uint8 *key, uint8 key_type, if_index_t ifindex, uint8 vr_id,
                                    inet_addr_type_t addr_type) {
  vrrp_make_vr_key(key, key_type, ifindex, vr_id, addr_type);
}

void datamorph_vrrp_mgr_make_assoc_key(uint8 *key, if_index_t ifindex, uint8 vr_id,
                                       inet_addr_t inet_addr) {
  vrrp_make_assoc_key(key, ifindex, vr_id, inet_addr);
}
