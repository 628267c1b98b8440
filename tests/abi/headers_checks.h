/* What the platform's headers must say: sizes, values, signatures. The same text for C and C++. */
#ifndef TESTS_ABI_HEADERS_CHECKS_H
#define TESTS_ABI_HEADERS_CHECKS_H

#include <assert.h>
#include <stddef.h>

#include "libdatamorph.h"
#include "platform/mts.h"
#include "platform/pss.h"
#include "platform/pss2.h"
#include "platform/pss_datum.h"
#include "platform/srv_uuid.h"
#include "platform/sysmgr.h"
#include "platform/tlv_array.h"
#include "platform/types.h"

/* Widths and signs. */
#define CHECK_UNSIGNED(type, size)                                                                 \
  static_assert(sizeof(type) == (size), #type " has another width");                               \
  static_assert((type)-1 > (type)0, #type " has a sign")
#define CHECK_SIGNED(type, size)                                                                   \
  static_assert(sizeof(type) == (size), #type " has another width");                               \
  static_assert((type)-1 < (type)0, #type " has no sign")
#define CHECK_MEMBER(type, member, offset)                                                         \
  static_assert(offsetof(type, member) == (offset), #type "." #member " has moved")
#define CHECK_VALUE(name, value) static_assert((name) == (value), #name " has another value")

CHECK_UNSIGNED(uint8, 1);
CHECK_UNSIGNED(uint16, 2);
CHECK_UNSIGNED(uint32, 4);
CHECK_UNSIGNED(uint64, 8);
CHECK_SIGNED(int32, 4);
CHECK_SIGNED(boolean, 4);
CHECK_UNSIGNED(syserr_t, 4);
CHECK_UNSIGNED(vdc_id_t, 2);
CHECK_UNSIGNED(if_index_t, 4);
CHECK_UNSIGNED(version_id_t, 4);
CHECK_UNSIGNED(pss_service_t, 4);
CHECK_UNSIGNED(pss2_service_t, 4);
CHECK_UNSIGNED(mts_q_handle_t, 4);
CHECK_UNSIGNED(mts_ref_t, 4);
CHECK_UNSIGNED(mts_rr_token_t, 4);
static_assert(sizeof(uuid_t) == 4, "uuid_t has another width");
static_assert(sizeof(pss_location_t) == 4, "pss_location_t has another width");
static_assert(sizeof(bool) == 1, "C's bool has one byte");

/* Records. */
CHECK_MEMBER(pss_datum_t, ptr, 0);
CHECK_MEMBER(pss_datum_t, siz, sizeof(void *));
static_assert(sizeof(pss_datum_t) == 2 * sizeof(void *), "pss_datum_t has another size");
CHECK_MEMBER(pss2_nonvol_params, max_key_size, 0);
CHECK_MEMBER(pss2_nonvol_params, max_value_size, 4);
CHECK_MEMBER(pss2_nonvol_params, max_node_keys, 8);
CHECK_MEMBER(pss2_nonvol_params, version, 12);
static_assert(sizeof(pss2_nonvol_params) == 16, "pss2_nonvol_params has another size");
CHECK_MEMBER(mts_recv_options_t, version, 0);
CHECK_MEMBER(mts_recv_options_t, non_blocking, 4);
CHECK_MEMBER(mts_recv_options_t, timeout, 8);
CHECK_MEMBER(mts_recv_options_t, rr_token, 12);
CHECK_MEMBER(mts_recv_options_t, opcode, 16);
CHECK_MEMBER(mts_recv_options_t, source_sap, 20);
CHECK_MEMBER(mts_recv_options_t, flags, 24);
static_assert(sizeof(mts_recv_options_t) == 28, "mts_recv_options_t has another size");
CHECK_MEMBER(tlv_t, type, 0);
CHECK_MEMBER(tlv_t, length, 2);
static_assert(sizeof(tlv_t) == 4, "tlv_t has another size");
CHECK_MEMBER(sysmgr_info_t, srv_tag_info_tbl, 0);
static_assert(sizeof(sysmgr_info_t) == sizeof(void *), "sysmgr_info_t has another size");
static_assert(sizeof(sysmgr_info_tbl) == 17 * sizeof(sysmgr_info_t), "one row per VDC");
CHECK_MEMBER(debug_trace_fac_t, stream, 0);
CHECK_MEMBER(debug_trace_fac_t, level_mask, sizeof(void *));

/* Numbers. */
CHECK_VALUE(TRUE, 1);
CHECK_VALUE(FALSE, 0);
CHECK_VALUE(SYSERR_SUCCESS, 0u);
CHECK_VALUE(SYSERR_PSS_NO_STORE, 0x40480002u);
CHECK_VALUE(SYSERR_PSS_NOT_FOUND, 0x40480003u);
CHECK_VALUE(SYSERR_PSS_BAD_HANDLE, 0x40480008u);
CHECK_VALUE(SYSERR_PSS_DAMAGED, 0x40480009u);
CHECK_VALUE(SYSERR_PSS_NO_ROOM, 0x4048000Cu);
CHECK_VALUE(SYSERR_NO_SUCH_VDC, 0x401E0076u);
CHECK_VALUE(SYSERR_IMAGE_VERSION, 0x401E0056u);
CHECK_VALUE(SYSERR_NULL_ARGUMENT, 0x401E00A3u);
CHECK_VALUE(SYSERR_MTS_BASE, 0x801E0000u);
CHECK_VALUE(SYSERR_FAILED, 0xFFFFFFFFu);
CHECK_VALUE(PSS_NULL_KEY, 0);
CHECK_VALUE(PSS_FIRST_KEY, 1);
CHECK_VALUE(PSS_LAST_KEY, 2);
CHECK_VALUE(PSS_NEXT_KEY, 3);
CHECK_VALUE(PSS_PREVIOUS_KEY, 4);
CHECK_VALUE(PSS_KEY_TAG_INFO, 9);
CHECK_VALUE(PSS2_MODE_READ, 0x1u);
CHECK_VALUE(PSS2_MODE_WRITE, 0x2u);
CHECK_VALUE(PSS2_MODE_CREATE, 0x10u);
CHECK_VALUE(TLV_ARRAY_HEADER_SIZE, 8);
CHECK_VALUE(SYSMGR_VDC_ROWS, 17);
CHECK_VALUE(SYSMGR_TAG_TABLE_MAX, 65536);
CHECK_VALUE(MTS_SAP_SYSMGR, 3u);
CHECK_VALUE(MTS_SAP_SKSD, 11u);
CHECK_VALUE(MTS_SAP_EXCHANGE_PEER_PARAMS, 109u);
CHECK_VALUE(MTS_SAP_PLUGIN, 187u);
CHECK_VALUE(MTS_SAP_SMM, 245u);
CHECK_VALUE(MTS_SAP_CLISH, 295u);
CHECK_VALUE(MTS_SAP_CLIS, 296u);
CHECK_VALUE(MTS_SAP_CLIS_CTRL, 297u);
CHECK_VALUE(MTS_SAP_EVENT_MANAGER_SERVER, 341u);
CHECK_VALUE(MTS_SAP_EVENT_MANAGER_CLIENT, 342u);
CHECK_VALUE(MTS_SAP_EVENT_MANAGER_CLIENT_HIGHPRIO, 364u);
CHECK_VALUE(MTS_SAP_MVSH, 422u);
CHECK_VALUE(MTS_SAP_MVSH_HIGH_PRIORITY, 485u);
CHECK_VALUE(SRVUUID_NONE, 0);
CHECK_VALUE(SRVUUID_VRRP_MGR, 11);
CHECK_VALUE(SRVUUID_VRRP_ENG, 68);
CHECK_VALUE(SRVUUID_EXCHANGE_PEER_PARAMS, 166);
CHECK_VALUE(SRVUUID_IKE, 219);
CHECK_VALUE(SRVUUID_SMM, 260);
CHECK_VALUE(SRVUUID_CLIS, 261);
CHECK_VALUE(SRVUUID_SKSD, 297);
CHECK_VALUE(SRVUUID_TEST_ETHPM, 306);
CHECK_VALUE(SRVUUID_PIXM, 307);
CHECK_VALUE(SRVUUID_PLUGIN, 327);
CHECK_VALUE(SRVUUID_ETH_PORT_SEC, 367);
CHECK_VALUE(SRVUUID_SVI, 380);
CHECK_VALUE(SRVUUID_DOT1X, 381);
CHECK_VALUE(SRVUUID_PSS_HELPER, 390);
CHECK_VALUE(SRVUUID_EVMS, 411);
CHECK_VALUE(SRVUUID_EVMC, 413);
CHECK_VALUE(SRVUUID_AIC_DBG, 501);
CHECK_VALUE(SRVUUID_KPS, 542);
CHECK_VALUE(SRVUUID_MVSH, 564);

/* Signatures: a pointer of exactly that type takes each function. Gives how many there are. */
static inline int check_signatures(void) {
  int count = 0;
#define CHECK_SIGNATURE(result, function, arguments)                                               \
  do {                                                                                             \
    result(*checked) arguments = function;                                                         \
    count += checked != NULL;                                                                      \
  } while (0)
  CHECK_SIGNATURE(const char *, syserr2str, (syserr_t));
  CHECK_SIGNATURE(uint32, hton_if_index, (if_index_t));
  CHECK_SIGNATURE(pss_service_t, pss_open, (const char *, syserr_t *));
  CHECK_SIGNATURE(syserr_t, pss_close, (pss_service_t));
  CHECK_SIGNATURE(syserr_t, pss_create, (const char *));
  CHECK_SIGNATURE(syserr_t, pss_destroy, (const char *));
  CHECK_SIGNATURE(pss_datum_t *, pss_fetch, (pss_service_t, const pss_datum_t *, syserr_t *));
  CHECK_SIGNATURE(syserr_t, pss_store,
                  (pss_service_t, uint32, const pss_datum_t *, const pss_datum_t *));
  CHECK_SIGNATURE(syserr_t, pss_delete, (pss_service_t, const pss_datum_t *));
  CHECK_SIGNATURE(pss_datum_t *, pss_move2key, (pss_service_t, const pss_datum_t *, syserr_t *));
  CHECK_SIGNATURE(pss_datum_t *, pss_move2location, (pss_service_t, pss_location_t, syserr_t *));
  CHECK_SIGNATURE(pss_datum_t *, pss_getvalue, (pss_service_t, syserr_t *));
  CHECK_SIGNATURE(syserr_t, pss_snapshot, (pss_service_t, uint32, const char *));
  CHECK_SIGNATURE(const char *, __pss_key_type_enum_t_find, (uint32));
  CHECK_SIGNATURE(pss2_service_t, pss2_open,
                  (const char *, uint32, uuid_t, uint32, uint32, syserr_t *));
  CHECK_SIGNATURE(syserr_t, pss2_close, (pss2_service_t));
  CHECK_SIGNATURE(syserr_t, pss2_destroy, (const char *));
  CHECK_SIGNATURE(syserr_t, pss2_get_params, (pss2_service_t, pss2_nonvol_params *));
  CHECK_SIGNATURE(pss_datum_t *, pss2_fetch, (pss2_service_t, const pss_datum_t *, syserr_t *));
  CHECK_SIGNATURE(syserr_t, pss2_store, (pss2_service_t, const pss_datum_t *, const pss_datum_t *));
  CHECK_SIGNATURE(syserr_t, pss2_delete, (pss2_service_t, const pss_datum_t *, uint32));
  CHECK_SIGNATURE(syserr_t, pss2_move2location,
                  (pss2_service_t *, uint32, pss_location_t, syserr_t *));
  CHECK_SIGNATURE(pss_datum_t *, pss2_getkey, (pss2_service_t, syserr_t *));
  CHECK_SIGNATURE(pss_datum_t *, pss2_getvalue, (pss2_service_t, syserr_t *));
  CHECK_SIGNATURE(syserr_t, pss2_kernel2file, (pss2_service_t, const char *, uint32));
  CHECK_SIGNATURE(syserr_t, pss2_file2kernel, (const char *, pss2_service_t, uint32));
  CHECK_SIGNATURE(
      int, mts_send,
      (mts_q_handle_t, uint32, uint32, uint32, const void *, uint32, mts_ref_t *, uint32, uint32));
  CHECK_SIGNATURE(mts_rr_token_t, mts_rr_token_get, (mts_ref_t));
  CHECK_SIGNATURE(int, mts_recv, (mts_q_handle_t, mts_ref_t *, const mts_recv_options_t *));
  CHECK_SIGNATURE(void *, mts_payload_get, (mts_ref_t));
  CHECK_SIGNATURE(int, mts_drop, (mts_q_handle_t, mts_ref_t));
  CHECK_SIGNATURE(int, mts_sap_destroy, (mts_q_handle_t, uint32));
  CHECK_SIGNATURE(uint32, tlv_array_size_get, (const tlv_array_t *, uint32));
  CHECK_SIGNATURE(uint32, tlv_array_get_num_tlvs, (const tlv_array_t *, uint32));
  CHECK_SIGNATURE(syserr_t, tlv_array_get_next_tlv,
                  (const tlv_array_t *, uint16 *, uint16 *, uint8 **, uint32, uint32 *));
  CHECK_SIGNATURE(syserr_t, sysmgr_srv_tag_info_table_prepare, (uint32, vdc_id_t));
  CHECK_SIGNATURE(syserr_t, sysmgr_srv_tag_info_add, (uuid_t, uint8 *, vdc_id_t));
  CHECK_SIGNATURE(char *, srg_sw_ver_file_get, (const char *));
  return count;
}

#endif
