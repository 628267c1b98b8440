/* libdatamorph: converts the persistent state of a switch's services when the switch changes
 * software version. What a system manager includes; C11 and C++20.
 *
 * Calling order: libdatamorph_init once, then, at each conversion moment, the per-service entry
 * point for each service (the membership query tells whether it has a routine at all), or the
 * moment's _all entry point. Everything runs on the caller's thread; nothing is thread-safe.
 *
 * All strings are owned by the caller and only read, during the call only. A null one is never
 * fatal: each routine says what it gives for it, and traces it as "(null)". */
#ifndef LIBDATAMORPH_H
#define LIBDATAMORPH_H

#include <stdio.h>

#include "platform/mts.h"
#include "platform/pss.h"
#include "platform/pss2.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* ---- Requests, results, tables ----------------------------------------------------------------
 */

/* One request. The four strings must outlive the call. */
typedef struct datamorph_args {
  const char *path;             /* directory in which the service's stores live */
  const char *pkg_name;         /* package name */
  const char *to_pkg_version;   /* release being installed, such as "4.2(1)" */
  const char *from_pkg_version; /* release being left */
} datamorph_args_t;

/* Written only when a routine fails and the entry point stops. */
typedef struct convert_ret_value {
  uint32 uuid;     /* service of the table row whose routine failed */
  syserr_t syserr; /* the status that it returned */
} convert_ret_value_t;

/* A conversion routine: 0 is success, any other status a failure. */
typedef syserr_t (*convert_gsync_fn)(const char *path, const char *pkg_name, const char *to_ver,
                                     const char *from_ver);
typedef syserr_t (*convert_startup_fn)(const char *path, const char *pkg_name, const char *to_ver,
                                       const char *from_ver);
typedef syserr_t (*convert_running_fs_upg_fn)(const char *path, const char *pkg_name,
                                              const char *to_ver, const char *from_ver);
typedef syserr_t (*convert_psshlpr_upg_fn)(const char *path, const char *pkg_name,
                                           const char *to_ver, const char *from_ver);

/* Rows of the dispatch tables: a service (a uuid_t value) and its routine. A table ends with a row
 * of SRVUUID_NONE and no routine; row order is call order; a service may have several rows. */
typedef struct data_morph_gsync {
  uint32 uuid;
  convert_gsync_fn fn;
} data_morph_gsync;
typedef struct data_morph_startup {
  uint32 uuid;
  convert_startup_fn fn;
} data_morph_startup;
typedef struct data_morph_running_fs_upg {
  uint32 uuid;
  convert_running_fs_upg_fn fn;
} data_morph_running_fs_upg;
typedef struct data_morph_psshlpr_upg {
  uint32 uuid;
  convert_psshlpr_upg_fn fn;
} data_morph_psshlpr_upg;

extern const data_morph_gsync data_morph_gsync_table[];
extern const data_morph_startup data_morph_startup_table[];
extern const data_morph_running_fs_upg data_morph_running_fs_upg_table[];
extern const data_morph_psshlpr_upg data_morph_psshlpr_upg_table[];

/* ---- Entry points -----------------------------------------------------------------------------
 */

/* The system manager's message queue; 0 until libdatamorph_init has set it. */
extern mts_q_handle_t datamorph_mts_q;

/* Keeps the queue; may be called again, the last value counts. */
void libdatamorph_init(mts_q_handle_t q);

/* Run the routines of one service, in table order. Stops at the first failure only when `a` is
 * given: fills it and returns the status. With `a` null a failure is dropped and the walk goes on.
 * 0 for a service without a row. A null `args` stands for four null strings. */
syserr_t datamorph_gsync(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args);
syserr_t datamorph_startup(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args);
syserr_t datamorph_running_fs_upg(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args);

/* Run a whole table; stop at the first failure and return it. */
syserr_t datamorph_startup_all(datamorph_args_t *args);
syserr_t datamorph_running_fs_upg_all(datamorph_args_t *args);

/* The gsync routine of the PSS helper: runs every row of its own table. Always 0. */
syserr_t psshlpr_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                                  const char *from_ver);

/* Whether a service has a row in the table. Never true for SRVUUID_NONE. */
bool is_uuid_in_convert_gsync_table(uuid_t uuid);
bool is_uuid_in_convert_startup_table(uuid_t uuid);
bool is_uuid_in_convert_running_fs_upg_table(uuid_t uuid);

/* The running-configuration directory of this process's VDC (environment SYSMGR_VDC_ID and
 * SYSMGR_RUNNING_CFG_DIR). Points into a static buffer that the next call overwrites. */
const char *datamorph_uri_complete(void);

/* Destroy the store "volatile:PATH/PSSNAME" or "nonvolatile:PATH/PSSNAME". The platform's status;
 * all bits set for a null argument. */
syserr_t datamorph_destroy_volatile_pss(char *path, char *pssname);
syserr_t datamorph_destroy_nonvolatile_pss(char *path, char *pssname);

/* ---- Conversion log ---------------------------------------------------------------------------
 */

/* The conversion log, opened for the next line; null when it cannot be. The caller writes the line,
 * flushes and syncs it, closes the stream and calls check_data_morph_log_size. */
FILE *open_debug_log(void);

/* Rotates the log when it is larger than 50000 bytes. 1 when there is no log to look at, else 0. */
int check_data_morph_log_size(void);

/* ---- Versions ---------------------------------------------------------------------------------
 */

/* 1 when from_ver is newer than to_ver, -1 when it is older, 0 when their first three fields are
 * equal; -2 when one is null, *errcode then all bits set, otherwise 0. A null errcode is not
 * written. */
int datamorph_compare_versions(const char *from_ver, const char *to_ver, syserr_t *errcode);

/* Whether curr_ver is older than min_supported_ver, or one is null. errcode is not used. */
bool datamorph_is_srv_not_supported_target_ver(const char *curr_ver, const char *min_supported_ver,
                                               syserr_t *errcode);

/* The version of the software image at srg_path into ver_str (ver_str_size bytes, always
 * terminated). 0, or -1 for a null argument, a size below 1 or an image without version text. */
int datamorph_get_version(char *srg_path, char *ver_str, int ver_str_size);

/* ---- Optional services and the tag table ------------------------------------------------------
 */

/* Tells the running system manager, over datamorph_mts_q, that a service has this tag in a VDC, and
 * waits for its answer. At most 31 characters of the tag count. 0 also when that VDC does not
 * exist; otherwise the system manager's status, or 0x801E0000 with the low 12 bits of errno when no
 * answer came; all bits set for a null tag. */
syserr_t sysmgr_add_tag_info_req(uuid_t srv_uuid, uint8 *srv_tag, vdc_id_t vdc);

/* Enters the service in the VDC's tag table in "nonvolatile:PATH/bin/sysmgr_config", with the
 * system manager's table in memory (sysmgr_info_tbl) as the work area, which keeps what was done to
 * it also on failure. 0, also when there is no such store; 0x401E0076 for a VDC that has no table
 * and gets none; 0x40480009 for a saved table that is none; all bits set for a null path or tag;
 * otherwise the status of the fetch, addition or store that failed. */
syserr_t sysmgr_add_tag_startup(const char *path, uuid_t srv_uuid, uint8 *srv_tag, vdc_id_t vdc);

/* 1 when the service is optional-conditional in release to_ver, else 0. */
int is_optional_conditional(uuid_t srv_uuid, const char *to_ver);

/* Whether the feature is enabled in the saved configuration in directory `path`. Every failure is
 * FALSE. */
boolean was_dot1x_running(const char *path);
boolean was_psec_running(const char *path);
boolean was_kps_running(const char *path);

/* 1 when from_ver is older than "4.2(1)" and the service is one of the three features and enabled,
 * so that it moves from compulsory to optional; else 0. */
int was_running_compulsory_conditional(const char *path, uuid_t srv_uuid, const char *from_ver);

/* ---- Converters -------------------------------------------------------------------------------
 */

/* Remove the runtime stores and access points of their service when the release being installed has
 * the major number 3. All bits set for a null argument, else 0. */
syserr_t sksd_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver);
syserr_t plugin_data_morph_running_fs_upg(const char *path, const char *pkg_name,
                                          const char *to_ver, const char *from_ver);
syserr_t evms_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver);
syserr_t evmc_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver);
syserr_t mvsh_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver);
syserr_t smm_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                       const char *from_ver);
syserr_t clis_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver);

/* IKE: trace that they ran; always 0. The third stands in no table. */
syserr_t ike_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                              const char *from_ver);
syserr_t ike_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                const char *from_ver);
syserr_t ike_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                       const char *from_ver);

/* The first conditional service. gsync plants the small store "volatile:PATH/cond_srv_config" anew;
 * 0x401E0056 when the version of one of the two images cannot be read, all bits set for a null
 * path, else 0, whatever became of the store. The second only traces, stands in no table, and is
 * always 0. */
syserr_t cond_srv1_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                                    const char *from_ver);
syserr_t cond_srv1_data_morph_running_fs_upg(const char *path, const char *pkg_name,
                                             const char *to_ver, const char *from_ver);

/* 802.1X, KPS and port security, which are optional services from "4.2(1)" on: one that was enabled
 * before is entered in the tag table, so that it still starts. running_fs_upg tells the running
 * system manager (VDC 1); startup also edits the saved table below `path` and takes the VDC from
 * "/vdc_N" in it. 0 also when there is nothing to do; 0x401E00A3 for a null argument; 0x401E0076
 * for a "/vdc_" whose number is missing or has low 16 bits of zero; otherwise the status of the
 * step that failed. The two of port security stand in no table. */
syserr_t dot1x_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                         const char *from_ver);
syserr_t kps_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                       const char *from_ver);
syserr_t psec_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver);
syserr_t dot1x_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                  const char *from_ver);
syserr_t kps_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                const char *from_ver);
syserr_t psec_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                 const char *from_ver);

/* Global snapshot databases: volatile stores that survive a software change as flat files
 * "DIRECTORY/NAME.snp" (NAME is what follows the last '/' of the database's URI). The meta table
 * "globalpss_table", itself kept in such a file, has a record for each. */

/* Register a database (again: its record is replaced) and write both files; unregister one. Store
 * failures on the way are only traced; the status of a failed open, close or destroy, all bits set
 * for a null argument or, when adding, a URI without '/'; else 0. */
syserr_t datamorph_gsdb_add(const char *path, const char *gsdb_uri, uint32 mcast_node_info,
                            uuid_t uuid, uint32_t vdcid);
syserr_t datamorph_gsdb_delete(const char *path, const char *gsdb_uri);

/* Their steps on an open store: the platform's status; all bits set for a null argument, 0x40480008
 * for the deletion's handle 0. */
syserr_t add_gsdb(pss2_service_t snp_hndl, const char *uri, uint32 mcast_node_info, uuid_t uuid,
                  uint32_t vdcid);
syserr_t delete_gsdb_table_entry(pss2_service_t snp_hndl, const char *uri);
syserr_t datamorph_read_from_snapshot(pss2_service_t snp_hndl, const char *path, const char *pname);

/* SVI: registers its database going up across "4.2(1)", unregisters it going down. All bits set for
 * a null argument of the converter; else 0, whatever became of the database. */
syserr_t svi_create_gsdb(const char *path);
syserr_t svi_delete_gsdb(const char *path);
syserr_t svi_data_morph_psshlpr_upg(const char *path, const char *pkg_name, const char *to_ver,
                                    const char *from_ver);

/* A sample for service owners, in no table; always 0. */
syserr_t foo_data_morph_psshlpr_upg(const char *path, const char *pkg_name, const char *to_ver,
                                    const char *from_ver);

/* Port index manager: downgrades below "4.1(2)" and "4.2(2)" renumber and remove forwarding-index
 * records of "nonvolatile:PATH/pixm_runtime_info". All bits set for a null argument, else 0. */
syserr_t pixm_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                               const char *from_ver);

/* Ethernet port manager across "4.2(0)": port-state reasons of its runtime records are renumbered,
 * its configuration TLV records deleted. All bits set for a null argument, else 0. */
syserr_t ethpm_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                                const char *from_ver);
syserr_t ethpm_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                  const char *from_ver);

typedef enum ethpm_issu_transition {
  ETHPM_TR_NOCHANGE = 0,
  ETHPM_TR_DOWNGRADE = 1,
  ETHPM_TR_UPGRADE = 2
} ethpm_issu_transition_t;

typedef enum ethpm_pss_action {
  ETHPM_PSS_NOCHANGE = 0,
  ETHPM_PSS_UPDATE = 1,
  ETHPM_PSS_DELETE = 2
} ethpm_pss_action_t;

/* The hooks of a change request. Datums belong to whoever calls; those that a value change hands
 * back are either the ones that it was given or copies, which the caller then frees (the bytes and
 * the datum). */
typedef bool (*ethpm_fn_is_ver_chk)(const char *to_ver, const char *from_ver,
                                    ethpm_issu_transition_t *transition,
                                    ethpm_pss_action_t *pss_action);
typedef bool (*ethpm_fn_is_pss_key_found)(const pss_datum_t *p_key, void *if_index, uint32 *len);
typedef bool (*ethpm_fn_change_pss_value)(const pss_datum_t *p_key, const pss_datum_t *p_data,
                                          pss_datum_t **p_wkey, pss_datum_t **p_wdatum);
typedef void (*ethpm_fn_write_pss_value)(const pss_datum_t *p_key, const pss_datum_t *p_datum);

/* A change that a store's records need. */
typedef struct ethpm_pss_type {
  char change_request_name[255];
  bool b_version_chk; /* the version check has accepted it once; never cleared */
  ethpm_issu_transition_t transition;
  ethpm_pss_action_t pss_action;
  ethpm_fn_is_ver_chk ethpm_fn_ver_chk;
  ethpm_fn_is_pss_key_found ethpm_is_pss_key_found;
  ethpm_fn_change_pss_value ethpm_change_pss_value;
  ethpm_fn_write_pss_value ethpm_write_pss_value;
} ethpm_pss_type_t;

/* A store and the changes that are applied to it. */
typedef struct ethpm_pss_change_list_info {
  char pss_name[64];
  ethpm_pss_type_t *pss_list_type;
  size_t pss_list_len;
} ethpm_pss_change_list_info_t;

extern ethpm_pss_type_t ethpm_convert_runtime_pss_list[1];
extern ethpm_pss_type_t ethpm_convert_config_tlv_pss_list[1];

/* The new number of each port-state reason; all zero until they are filled. */
extern uint32 upgrade_port_state_reason_table[256];
extern uint32 downgrade_port_state_reason_table[256];
void ethpm_init_port_state_reason_tables(void);

/* The transition and the action of the change that is being applied; 0 before the first one. */
ethpm_issu_transition_t ethpm_get_issu_transition(void);
ethpm_pss_action_t ethpm_get_pss_action(void);

/* VRRP across release "4.2(1)": the manager (mgr) and the engine (eng) hand their records over in a
 * temporary store. Each routine of the table decides from the releases whether it has anything to
 * do. 0x401E0076 for a "/vdc_" in the path whose number is missing or has low 16 bits of zero; all
 * bits set for a null path; else 0: what else fails is only told in the side's trace file. */
syserr_t vrrp_mgr_data_morph_startup_for_upgrade(const char *path, const char *pkg_name,
                                                 const char *to_pkg_version,
                                                 const char *from_pkg_version);
syserr_t vrrp_mgr_data_morph_startup_for_downgrade(const char *path, const char *pkg_name,
                                                   const char *to_pkg_version,
                                                   const char *from_pkg_version);
syserr_t vrrp_eng_data_morph_startup_for_upgrade(const char *path, const char *pkg_name,
                                                 const char *to_pkg_version,
                                                 const char *from_pkg_version);
syserr_t vrrp_eng_data_morph_startup_for_downgrade(const char *path, const char *pkg_name,
                                                   const char *to_pkg_version,
                                                   const char *from_pkg_version);

/* Their steps. `path` is the directory of the stores themselves; conversion_type 1 is a startup
 * conversion; the flag or id is 1 going up, 2 going down. Tables are open stores and stay open; of
 * vdc_string at most 8 characters are read. Results as above; the bulk reads' failures are returned
 * where one is named. */
syserr_t vrrp_handle_generic_convert(const char *path, const char *pkg_name,
                                     const char *to_pkg_version, const char *from_pkg_version,
                                     uint8 conversion_type, uint8 convert_func_flag);
syserr_t vrrp_handle_upgrade_to_4_2_1(pss_service_t mgr_rc_pss_table, uint8 conversion_type,
                                      const char *vdc_string);
syserr_t datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade(pss_service_t mgr_rc_pss_table);
syserr_t datamorph_vrrp_mgr_handle_downgrade_from_4_2_1(pss_service_t pss_mgr_rc_table,
                                                        pss_service_t pss_eng_rc_table);
/* Reads from the first store, writes to the second; the status of a failed bulk read. */
syserr_t vrrp_copy_and_convert_rc_pss_recs_for_downgrade(pss_service_t pss_eng_rc_table,
                                                         pss_service_t pss_mgr_rc_table);
syserr_t vrrp_eng_handle_generic_convert(const char *path, const char *pkg_name,
                                         const char *to_pkg_version, const char *from_pkg_version,
                                         uint8 conversion_type, uint8 convert_func_id);
syserr_t vrrp_eng_handle_upgrade_to_4_2_1(pss_service_t pss_mgr_rc_table,
                                          pss_service_t pss_eng_rc_table, uint8 conversion_type);
/* Reads from the first store, writes to the second; the status of a failed read of VIP records. */
syserr_t vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade(pss_service_t mgr_rc_pss_table,
                                                           pss_service_t eng_rc_pss_table);
syserr_t vrrp_eng_delete_pss_records_for_downgrade(pss_service_t eng_rc_pss_table);

/* An internet address as VRRP stores it: 20 bytes, packed; an IPv4 address uses the first 4 of the
 * union. The numbers are stored and never change. */
#ifdef __cplusplus
typedef enum inet_addr_type : unsigned int
#else
typedef enum inet_addr_type
#endif
{ INET_ADDR_TYPE_UNKNOWN = 0,
  INET_ADDR_TYPE_IPV4 = 1,
  INET_ADDR_TYPE_IPV6 = 2,
  INET_ADDR_TYPE_WIDTH = 0x7fffffff /* no type: keeps the enumeration 32 bits wide in C */
} inet_addr_type_t;

typedef struct __attribute__((packed)) inet_addr {
  inet_addr_type_t addr_type;
  union {
    uint8 ipv4_addr[4];
    uint8 ipv6_addr[16];
  } a;
} inet_addr_t;

/* All values of one key type (the first byte of a key), value_size bytes apart, zero behind a value
 * that is shorter. 0 and an array that the caller frees, with *num_values slots; null and 0 when
 * there are none. 2 for a key without value, 3 for a value_size below 1 or no memory, all bits set
 * for a null argument, else the store's status: the array is null then, and *num_values says how
 * many were counted. */
int32 datamorph_vrrp_mgr_pss_mgr_get_table(pss_service_t table, uint8 key_type, void **value_array,
                                           int32 *num_values, int32 value_size);
int32 datamorph_vrrp_eng_pss_mgr_get_table(pss_service_t table, uint8 key_type, void **value_array,
                                           int32 *num_values, int32 value_size);

/* Write the key of a VR record (10 bytes; nothing for other key types than 1, 2 and 5) and of a VIP
 * record (26 bytes). */
void datamorph_vrrp_mgr_make_vr_key(uint8 *key, uint8 key_type, if_index_t ifindex, uint8 vr_id,
                                    inet_addr_type_t addr_type);
void datamorph_vrrp_mgr_make_assoc_key(uint8 *key, if_index_t ifindex, uint8 vr_id,
                                       inet_addr_t inet_addr);
void datamorph_vrrp_eng_make_vr_key(uint8 *key, uint8 key_type, if_index_t ifindex, uint8 vr_id,
                                    inet_addr_type_t addr_type);
void datamorph_vrrp_eng_make_assoc_key(uint8 *key, if_index_t ifindex, uint8 vr_id,
                                       inet_addr_t inet_addr);

/* EPP: removes the service's stores and access point on a switch in NPV mode that goes down to a
 * release older than "4.1(2)". Always 0. */
syserr_t epp_in_npv_mode_data_morph_running_fs_upg(const char *path, const char *pkg_name,
                                                   const char *to_pkg_version,
                                                   const char *from_pkg_version);
void epp_destroy_mts_sap(void);
void epp_destroy_pss(const char *path);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
