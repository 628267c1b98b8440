/* What the library exports, with the exact types: a row per name. The same text for C and C++; C++
 * also tells an enumeration from its number, C does not. The check `types` of check_library.sh
 * holds the names against exported_symbols.txt. */
#ifndef TESTS_ABI_EXPORTS_CHECKS_H
#define TESTS_ABI_EXPORTS_CHECKS_H

#include <assert.h>

#include "libdatamorph.h"

#ifdef __cplusplus
#include <type_traits>
#define CHECK_ADDRESS(name, ...)                                                                   \
  static_assert(std::is_same_v<decltype(&(name)), __VA_ARGS__>, #name " has another type")
#else
#define CHECK_ADDRESS(name, ...)                                                                   \
  static_assert(_Generic(&(name), __VA_ARGS__ : 1, default : 0), #name " has another type")
#endif

#define CHECK_FUNCTION(name, result, ...) CHECK_ADDRESS(name, result (*)(__VA_ARGS__))
#define CHECK_ROUTINE(name)                                                                        \
  CHECK_FUNCTION(name, syserr_t, const char *, const char *, const char *, const char *)

/* Entry points and what they lean on. */
CHECK_FUNCTION(libdatamorph_init, void, mts_q_handle_t);
CHECK_FUNCTION(datamorph_gsync, syserr_t, uuid_t, convert_ret_value_t *, datamorph_args_t *);
CHECK_FUNCTION(datamorph_startup, syserr_t, uuid_t, convert_ret_value_t *, datamorph_args_t *);
CHECK_FUNCTION(datamorph_running_fs_upg, syserr_t, uuid_t, convert_ret_value_t *,
               datamorph_args_t *);
CHECK_FUNCTION(datamorph_startup_all, syserr_t, datamorph_args_t *);
CHECK_FUNCTION(datamorph_running_fs_upg_all, syserr_t, datamorph_args_t *);
CHECK_FUNCTION(is_uuid_in_convert_gsync_table, bool, uuid_t);
CHECK_FUNCTION(is_uuid_in_convert_startup_table, bool, uuid_t);
CHECK_FUNCTION(is_uuid_in_convert_running_fs_upg_table, bool, uuid_t);
CHECK_FUNCTION(datamorph_uri_complete, const char *, void);
CHECK_FUNCTION(datamorph_destroy_volatile_pss, syserr_t, char *, char *);
CHECK_FUNCTION(datamorph_destroy_nonvolatile_pss, syserr_t, char *, char *);
CHECK_FUNCTION(open_debug_log, FILE *, void);
CHECK_FUNCTION(check_data_morph_log_size, int, void);
CHECK_FUNCTION(datamorph_compare_versions, int, const char *, const char *, syserr_t *);
CHECK_FUNCTION(datamorph_is_srv_not_supported_target_ver, bool, const char *, const char *,
               syserr_t *);
CHECK_FUNCTION(datamorph_get_version, int, char *, char *, int);

/* Optional services and the tag table. */
CHECK_FUNCTION(sysmgr_add_tag_info_req, syserr_t, uuid_t, uint8 *, vdc_id_t);
CHECK_FUNCTION(sysmgr_add_tag_startup, syserr_t, const char *, uuid_t, uint8 *, vdc_id_t);
CHECK_FUNCTION(is_optional_conditional, int, uuid_t, const char *);
CHECK_FUNCTION(was_dot1x_running, boolean, const char *);
CHECK_FUNCTION(was_psec_running, boolean, const char *);
CHECK_FUNCTION(was_kps_running, boolean, const char *);
CHECK_FUNCTION(was_running_compulsory_conditional, int, const char *, uuid_t, const char *);

/* Conversion routines. */
CHECK_ROUTINE(psshlpr_data_morph_gsync);
CHECK_ROUTINE(cond_srv1_data_morph_gsync);
CHECK_ROUTINE(cond_srv1_data_morph_running_fs_upg);
CHECK_ROUTINE(sksd_data_morph_running_fs_upg);
CHECK_ROUTINE(plugin_data_morph_running_fs_upg);
CHECK_ROUTINE(evms_data_morph_running_fs_upg);
CHECK_ROUTINE(evmc_data_morph_running_fs_upg);
CHECK_ROUTINE(mvsh_data_morph_running_fs_upg);
CHECK_ROUTINE(smm_data_morph_running_fs_upg);
CHECK_ROUTINE(clis_data_morph_running_fs_upg);
CHECK_ROUTINE(ike_data_morph_gsync);
CHECK_ROUTINE(ike_data_morph_startup);
CHECK_ROUTINE(ike_data_morph_running_fs_upg);
CHECK_ROUTINE(dot1x_data_morph_running_fs_upg);
CHECK_ROUTINE(kps_data_morph_running_fs_upg);
CHECK_ROUTINE(psec_data_morph_running_fs_upg);
CHECK_ROUTINE(dot1x_data_morph_startup);
CHECK_ROUTINE(kps_data_morph_startup);
CHECK_ROUTINE(psec_data_morph_startup);
CHECK_ROUTINE(svi_data_morph_psshlpr_upg);
CHECK_ROUTINE(foo_data_morph_psshlpr_upg);
CHECK_ROUTINE(pixm_data_morph_gsync);
CHECK_ROUTINE(ethpm_data_morph_gsync);
CHECK_ROUTINE(ethpm_data_morph_startup);
CHECK_ROUTINE(vrrp_mgr_data_morph_startup_for_upgrade);
CHECK_ROUTINE(vrrp_mgr_data_morph_startup_for_downgrade);
CHECK_ROUTINE(vrrp_eng_data_morph_startup_for_upgrade);
CHECK_ROUTINE(vrrp_eng_data_morph_startup_for_downgrade);
CHECK_ROUTINE(epp_in_npv_mode_data_morph_running_fs_upg);

/* Global snapshot databases. */
CHECK_FUNCTION(add_gsdb, syserr_t, pss2_service_t, const char *, uint32, uuid_t, uint32_t);
CHECK_FUNCTION(delete_gsdb_table_entry, syserr_t, pss2_service_t, const char *);
CHECK_FUNCTION(datamorph_read_from_snapshot, syserr_t, pss2_service_t, const char *, const char *);
CHECK_FUNCTION(datamorph_gsdb_add, syserr_t, const char *, const char *, uint32, uuid_t, uint32_t);
CHECK_FUNCTION(datamorph_gsdb_delete, syserr_t, const char *, const char *);
CHECK_FUNCTION(svi_create_gsdb, syserr_t, const char *);
CHECK_FUNCTION(svi_delete_gsdb, syserr_t, const char *);

/* Ethernet port manager. */
CHECK_FUNCTION(ethpm_init_port_state_reason_tables, void, void);
CHECK_FUNCTION(ethpm_get_issu_transition, ethpm_issu_transition_t, void);
CHECK_FUNCTION(ethpm_get_pss_action, ethpm_pss_action_t, void);

/* VRRP. */
CHECK_FUNCTION(vrrp_handle_generic_convert, syserr_t, const char *, const char *, const char *,
               const char *, uint8, uint8);
CHECK_FUNCTION(vrrp_handle_upgrade_to_4_2_1, syserr_t, pss_service_t, uint8, const char *);
CHECK_FUNCTION(datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade, syserr_t, pss_service_t);
CHECK_FUNCTION(datamorph_vrrp_mgr_handle_downgrade_from_4_2_1, syserr_t, pss_service_t,
               pss_service_t);
CHECK_FUNCTION(vrrp_copy_and_convert_rc_pss_recs_for_downgrade, syserr_t, pss_service_t,
               pss_service_t);
CHECK_FUNCTION(vrrp_eng_handle_generic_convert, syserr_t, const char *, const char *, const char *,
               const char *, uint8, uint8);
CHECK_FUNCTION(vrrp_eng_handle_upgrade_to_4_2_1, syserr_t, pss_service_t, pss_service_t, uint8);
CHECK_FUNCTION(vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade, syserr_t, pss_service_t,
               pss_service_t);
CHECK_FUNCTION(vrrp_eng_delete_pss_records_for_downgrade, syserr_t, pss_service_t);
CHECK_FUNCTION(datamorph_vrrp_mgr_pss_mgr_get_table, int32, pss_service_t, uint8, void **, int32 *,
               int32);
CHECK_FUNCTION(datamorph_vrrp_eng_pss_mgr_get_table, int32, pss_service_t, uint8, void **, int32 *,
               int32);
CHECK_FUNCTION(datamorph_vrrp_mgr_make_vr_key, void, uint8 *, uint8, if_index_t, uint8,
               inet_addr_type_t);
CHECK_FUNCTION(datamorph_vrrp_eng_make_vr_key, void, uint8 *, uint8, if_index_t, uint8,
               inet_addr_type_t);
CHECK_FUNCTION(datamorph_vrrp_mgr_make_assoc_key, void, uint8 *, if_index_t, uint8, inet_addr_t);
CHECK_FUNCTION(datamorph_vrrp_eng_make_assoc_key, void, uint8 *, if_index_t, uint8, inet_addr_t);
static_assert(sizeof(inet_addr_t) == 20, "an address is stored as 20 bytes");
static_assert(sizeof(inet_addr_type_t) == 4, "an address's type has 32 bits");

/* EPP. */
CHECK_FUNCTION(epp_destroy_mts_sap, void, void);
CHECK_FUNCTION(epp_destroy_pss, void, const char *);

/* Data. The dispatch tables have no size that a caller could know. */
CHECK_ADDRESS(datamorph_mts_q, mts_q_handle_t *);
CHECK_ADDRESS(data_morph_gsync_table[0], const data_morph_gsync *);
CHECK_ADDRESS(data_morph_startup_table[0], const data_morph_startup *);
CHECK_ADDRESS(data_morph_running_fs_upg_table[0], const data_morph_running_fs_upg *);
CHECK_ADDRESS(data_morph_psshlpr_upg_table[0], const data_morph_psshlpr_upg *);
CHECK_ADDRESS(upgrade_port_state_reason_table[0], uint32 *);
CHECK_ADDRESS(downgrade_port_state_reason_table[0], uint32 *);
CHECK_ADDRESS(ethpm_convert_runtime_pss_list[0], ethpm_pss_type_t *);
CHECK_ADDRESS(ethpm_convert_config_tlv_pss_list[0], ethpm_pss_type_t *);
static_assert(sizeof(upgrade_port_state_reason_table) == 256 * 4, "a reason has one byte");
static_assert(sizeof(downgrade_port_state_reason_table) == 256 * 4, "a reason has one byte");
static_assert(sizeof(ethpm_convert_runtime_pss_list) == sizeof(ethpm_pss_type_t), "one row");
static_assert(sizeof(ethpm_convert_config_tlv_pss_list) == sizeof(ethpm_pss_type_t), "one row");

#undef CHECK_ADDRESS
#undef CHECK_FUNCTION
#undef CHECK_ROUTINE

#endif
