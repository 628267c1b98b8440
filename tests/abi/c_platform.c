/* A platform in C on which nothing stands: every function of the interface, so that a library that
 * needs any of them loads, and so that each declaration is met by a definition in C. */
#include "c_platform.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "platform/mts.h"
#include "platform/pss.h"
#include "platform/pss2.h"
#include "platform/sysmgr.h"

#define UNUSED(argument) ((void)(argument))

enum { NO_STORE = 0x40480002, BAD_HANDLE = 0x40480008, NO_VDC = 0x401E0076 };

char destroyed[300];
sysmgr_info_t sysmgr_info_tbl[SYSMGR_VDC_ROWS];
debug_trace_fac_t debug_trace_fac_SYSMGR;

static pss_datum_t *no_datum(syserr_t *status) {
  *status = BAD_HANDLE;
  return NULL;
}

static int no_queue(void) {
  errno = EBADF;
  return -1;
}

/* clang-format off */
const char *syserr2str(syserr_t status) { UNUSED(status); return "status"; }
uint32 hton_if_index(if_index_t if_index) { return if_index; }

pss_service_t pss_open(const char *uri, syserr_t *error) { UNUSED(uri); *error = NO_STORE; return 0; }
syserr_t pss_close(pss_service_t service) { UNUSED(service); return BAD_HANDLE; }
syserr_t pss_create(const char *uri) { UNUSED(uri); return 0; }
syserr_t pss_destroy(const char *uri) { UNUSED(uri); return NO_STORE; }
pss_datum_t *pss_fetch(pss_service_t service, const pss_datum_t *key, syserr_t *error) { UNUSED(service); UNUSED(key); return no_datum(error); }
syserr_t pss_store(pss_service_t service, uint32 flag, const pss_datum_t *key, const pss_datum_t *value) { UNUSED(service); UNUSED(flag); UNUSED(key); UNUSED(value); return BAD_HANDLE; }
syserr_t pss_delete(pss_service_t service, const pss_datum_t *key) { UNUSED(service); UNUSED(key); return BAD_HANDLE; }
pss_datum_t *pss_move2key(pss_service_t service, const pss_datum_t *key, syserr_t *error) { UNUSED(service); UNUSED(key); return no_datum(error); }
pss_datum_t *pss_move2location(pss_service_t service, pss_location_t location, syserr_t *error) { UNUSED(service); UNUSED(location); return no_datum(error); }
pss_datum_t *pss_getvalue(pss_service_t service, syserr_t *error) { UNUSED(service); return no_datum(error); }
syserr_t pss_snapshot(pss_service_t service, uint32 flags, const char *uri) { UNUSED(service); UNUSED(flags); UNUSED(uri); return BAD_HANDLE; }
const char *__pss_key_type_enum_t_find(uint32 key_type) { UNUSED(key_type); return "key type"; }

pss2_service_t pss2_open(const char *uri, uint32 mode, uuid_t owner, uint32 reserved1, uint32 reserved2, syserr_t *status) { UNUSED(uri); UNUSED(mode); UNUSED(owner); UNUSED(reserved1); UNUSED(reserved2); *status = NO_STORE; return 0; }
syserr_t pss2_close(pss2_service_t service) { UNUSED(service); return BAD_HANDLE; }
syserr_t pss2_destroy(const char *uri) { snprintf(destroyed, sizeof destroyed, "%s", uri); return NO_STORE; }
syserr_t pss2_get_params(pss2_service_t service, pss2_nonvol_params *params) { UNUSED(service); UNUSED(params); return BAD_HANDLE; }
pss_datum_t *pss2_fetch(pss2_service_t service, const pss_datum_t *key, syserr_t *status) { UNUSED(service); UNUSED(key); return no_datum(status); }
syserr_t pss2_store(pss2_service_t service, const pss_datum_t *key, const pss_datum_t *value) { UNUSED(service); UNUSED(key); UNUSED(value); return BAD_HANDLE; }
syserr_t pss2_delete(pss2_service_t service, const pss_datum_t *key, uint32 flag) { UNUSED(service); UNUSED(key); UNUSED(flag); return BAD_HANDLE; }
syserr_t pss2_move2location(pss2_service_t *services, uint32 count, pss_location_t location, syserr_t *errlist) { UNUSED(services); UNUSED(location); for (uint32 i = 0; i < count; ++i) { errlist[i] = BAD_HANDLE; } return 0; }
pss_datum_t *pss2_getkey(pss2_service_t service, syserr_t *status) { UNUSED(service); return no_datum(status); }
pss_datum_t *pss2_getvalue(pss2_service_t service, syserr_t *status) { UNUSED(service); return no_datum(status); }
syserr_t pss2_kernel2file(pss2_service_t service, const char *file, uint32 flags) { UNUSED(service); UNUSED(file); UNUSED(flags); return BAD_HANDLE; }
syserr_t pss2_file2kernel(const char *file, pss2_service_t service, uint32 flags) { UNUSED(file); UNUSED(service); UNUSED(flags); return BAD_HANDLE; }

int mts_send(mts_q_handle_t queue, uint32 destination, uint32 destination_sap, uint32 opcode, const void *payload, uint32 length, mts_ref_t *reference, uint32 flags, uint32 reserved) { UNUSED(queue); UNUSED(destination); UNUSED(destination_sap); UNUSED(opcode); UNUSED(payload); UNUSED(length); UNUSED(reference); UNUSED(flags); UNUSED(reserved); return no_queue(); }
mts_rr_token_t mts_rr_token_get(mts_ref_t reference) { UNUSED(reference); return 0; }
int mts_recv(mts_q_handle_t queue, mts_ref_t *reference, const mts_recv_options_t *options) { UNUSED(queue); UNUSED(reference); UNUSED(options); return no_queue(); }
void *mts_payload_get(mts_ref_t reference) { UNUSED(reference); return NULL; }
int mts_drop(mts_q_handle_t queue, mts_ref_t reference) { UNUSED(queue); UNUSED(reference); return no_queue(); }
int mts_sap_destroy(mts_q_handle_t queue, uint32 sap) { UNUSED(queue); UNUSED(sap); return no_queue(); }

uint32 tlv_array_size_get(const tlv_array_t *array, uint32 version) { UNUSED(array); UNUSED(version); return 0; }
uint32 tlv_array_get_num_tlvs(const tlv_array_t *array, uint32 version) { UNUSED(array); UNUSED(version); return 0; }
syserr_t tlv_array_get_next_tlv(const tlv_array_t *array, uint16 *type, uint16 *length, uint8 **value, uint32 version, uint32 *cursor) { UNUSED(array); UNUSED(type); UNUSED(length); UNUSED(value); UNUSED(version); UNUSED(cursor); return BAD_HANDLE; }

syserr_t sysmgr_srv_tag_info_table_prepare(uint32 flags, vdc_id_t vdc) { UNUSED(flags); UNUSED(vdc); return NO_VDC; }
syserr_t sysmgr_srv_tag_info_add(uuid_t uuid, uint8 *tag, vdc_id_t vdc) { UNUSED(uuid); UNUSED(tag); UNUSED(vdc); return NO_VDC; }
char *srg_sw_ver_file_get(const char *srg_path) { static char version[] = "4.2(1)"; return strcmp(srg_path, "/image") == 0 ? version : NULL; }
/* clang-format on */
