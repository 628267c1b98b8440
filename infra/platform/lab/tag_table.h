// Tag tables as bytes: a TLV array (tlv_array.cpp) with one TLV per service: type 1, the service's
// number (uint32, host byte order), its tag with a terminator. Saved tables come back from disk and
// the library copies them over the running ones, so nothing in a table is believed.
//
// lab.h has the two functions for whoever stands outside: tag_table_decode, tag_table_encode.
#ifndef LAB_TAG_TABLE_H
#define LAB_TAG_TABLE_H

#include <optional>
#include <string>

#include "platform/sysmgr.h"

namespace lab {

inline constexpr size_t longest_tag = 31; // characters

// REQUIRES of these: `table` has room for SYSMGR_TAG_TABLE_MAX bytes.
void tag_table_clear(tlv_array_t *table);
// Adds or replaces the service's tag, of which `longest_tag` characters count. SYSERR_TLV_DAMAGED
// or SYSERR_TAG_TABLE_FULL, and the table as it was.
syserr_t tag_table_put(tlv_array_t *table, uint32 uuid, const char *tag);

// The service's tag; nothing when the table has no entry of it, or is damaged.
std::optional<std::string> tag_table_find(const tlv_array_t *table, uint32 uuid);

// The bytes that a table states to take.
uint32 tag_table_size(const tlv_array_t *table);

} // namespace lab

#endif
