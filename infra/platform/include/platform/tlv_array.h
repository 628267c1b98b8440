/* Arrays of type/length/value items, as services store them. */
#ifndef PLATFORM_TLV_ARRAY_H
#define PLATFORM_TLV_ARRAY_H

#include "platform/types.h"

PLATFORM_BEGIN_DECLS

typedef struct tlv_array tlv_array_t; /* opaque */

#define TLV_ARRAY_HEADER_SIZE 8

/* One item; the value bytes follow. */
typedef struct tlv {
  uint16 type;
  uint16 length; /* bytes of the value */
} tlv_t;

/* Bytes the array takes when stored; reads only its first TLV_ARRAY_HEADER_SIZE bytes. */
uint32 tlv_array_size_get(const tlv_array_t *array, uint32 version);

/* How many TLVs; never reads past the size that the array states. */
uint32 tlv_array_get_num_tlvs(const tlv_array_t *array, uint32 version);

/* 0 and the next TLV (*cursor starts at 0; *value points into the array), or a status at the end
 * or where a TLV would pass the stated size. */
syserr_t tlv_array_get_next_tlv(const tlv_array_t *array, uint16 *type, uint16 *length,
                                uint8 **value, uint32 version, uint32 *cursor);

PLATFORM_END_DECLS

#endif
