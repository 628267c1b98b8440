/* The system manager's tag tables, trace facility and image versions. */
#ifndef PLATFORM_SYSMGR_H
#define PLATFORM_SYSMGR_H

#include <stdio.h>

#include "platform/tlv_array.h"
#include "platform/types.h"

PLATFORM_BEGIN_DECLS

#define SYSMGR_VDC_ROWS      17
#define SYSMGR_TAG_TABLE_MAX 65536 /* bytes that a table that stands has room for */

typedef struct sysmgr_info {
  tlv_array_t *srv_tag_info_tbl; /* null while the VDC has no table */
} sysmgr_info_t;

/* Indexed by VDC id. */
extern sysmgr_info_t sysmgr_info_tbl[SYSMGR_VDC_ROWS];

typedef struct debug_trace_fac {
  FILE *stream; /* null: no trace */
  uint32 level_mask;
} debug_trace_fac_t;

extern debug_trace_fac_t debug_trace_fac_SYSMGR;

/* Makes the VDC's empty tag table in sysmgr_info_tbl; empties one that stands; may move it, so the
 * pointer is read again. SYSERR_NO_SUCH_VDC for a VDC that the system does not have. */
syserr_t sysmgr_srv_tag_info_table_prepare(uint32 flags, vdc_id_t vdc);

/* Adds or replaces the service's entry in the VDC's tag table. */
syserr_t sysmgr_srv_tag_info_add(uuid_t uuid, uint8 *tag, vdc_id_t vdc);

/* The version text of the software image at that path, or null; static storage. */
char *srg_sw_ver_file_get(const char *srg_path);

PLATFORM_END_DECLS

#endif
