// The system manager's side: the tag table of each VDC and the trace facility.
//
// A tag table is a TLV array (tlv_array.cpp) with one TLV per service: type 1, the service's number
// (uint32, host byte order), its tag with a terminator. The library copies saved tables over these,
// so nothing in a table is believed.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "lab/lab.h"

sysmgr_info_t sysmgr_info_tbl[SYSMGR_VDC_ROWS] = {};
debug_trace_fac_t debug_trace_fac_SYSMGR = {nullptr, 0};

namespace {

constexpr uint16 k_tag_type = 1;
constexpr uint16 k_table_version = 1;
constexpr size_t k_longest_tag = 31;

struct table_header {
  uint32 size;
  uint16 count;
  uint16 version;
};
static_assert(sizeof(table_header) == TLV_ARRAY_HEADER_SIZE, "stored as it lies");

std::vector<vdc_id_t> &vdcs() {
  static std::vector<vdc_id_t> &all = *new std::vector<vdc_id_t>{1};
  return all;
}

uint8 *bytes_of(tlv_array_t *table) {
  return reinterpret_cast<uint8 *>(table);
}

// Where the service's TLV stands, or would stand, and how many bytes it takes there now.
struct tag_place {
  uint32 offset = 0;
  uint32 length = 0;
  uint16 count = 0; // TLVs of the table
};

syserr_t find_place(const tlv_array_t *table, uint32 uuid, tag_place *place) {
  const uint32 size = tlv_array_size_get(table, k_table_version);
  if (size < sizeof(table_header) || size > SYSMGR_TAG_TABLE_MAX) {
    return SYSERR_TLV_DAMAGED;
  }
  *place = {size, 0, 0};
  uint32 cursor = 0;
  while (true) {
    const uint32 start = cursor;
    uint16 type = 0;
    uint16 length = 0;
    uint8 *value = nullptr;
    const syserr_t status =
        tlv_array_get_next_tlv(table, &type, &length, &value, k_table_version, &cursor);
    if (status != SYSERR_SUCCESS) {
      return status == SYSERR_TLV_END ? SYSERR_SUCCESS : status;
    }
    ++place->count;
    uint32 owner = 0;
    if (type == k_tag_type && length >= sizeof(owner)) {
      std::memcpy(&owner, value, sizeof(owner));
      if (owner == uuid && place->length == 0) {
        place->offset = start + static_cast<uint32>(sizeof(table_header));
        place->length = cursor - start;
      }
    }
  }
}

std::vector<uint8> tag_item(uint32 uuid, const uint8 *tag) {
  const size_t tag_length = strnlen(reinterpret_cast<const char *>(tag), k_longest_tag);
  const tlv_t head = {k_tag_type, static_cast<uint16>(sizeof(uuid) + tag_length + 1)};
  std::vector<uint8> item(sizeof(head) + head.length, 0);
  std::memcpy(item.data(), &head, sizeof(head));
  std::memcpy(item.data() + sizeof(head), &uuid, sizeof(uuid));
  std::memcpy(item.data() + sizeof(head) + sizeof(uuid), tag, tag_length);
  return item;
}

syserr_t put_item(tlv_array_t *table, const tag_place &place, const std::vector<uint8> &item) {
  table_header head;
  std::memcpy(&head, table, sizeof(head));
  const uint32 new_size = head.size - place.length + static_cast<uint32>(item.size());
  if (new_size > SYSMGR_TAG_TABLE_MAX) {
    return SYSERR_TAG_TABLE_FULL;
  }
  uint8 *const at = bytes_of(table) + place.offset;
  std::memmove(at + item.size(), at + place.length, head.size - place.offset - place.length);
  std::memcpy(at, item.data(), item.size());
  head.size = new_size;
  head.count = static_cast<uint16>(place.count + (place.length == 0 ? 1 : 0));
  std::memcpy(table, &head, sizeof(head));
  return SYSERR_SUCCESS;
}

} // namespace

syserr_t sysmgr_srv_tag_info_table_prepare(uint32 /*flags*/, vdc_id_t vdc) {
  const bool exists = std::find(vdcs().begin(), vdcs().end(), vdc) != vdcs().end();
  if (!exists || vdc == 0 || vdc >= SYSMGR_VDC_ROWS) {
    return SYSERR_NO_SUCH_VDC;
  }
  auto *const table = static_cast<tlv_array_t *>(std::malloc(SYSMGR_TAG_TABLE_MAX));
  if (table == nullptr) {
    return SYSERR_PSS_NO_ROOM;
  }
  const table_header empty = {sizeof(table_header), 0, k_table_version};
  std::memcpy(table, &empty, sizeof(empty));
  std::free(sysmgr_info_tbl[vdc].srv_tag_info_tbl);
  sysmgr_info_tbl[vdc].srv_tag_info_tbl = table;
  return SYSERR_SUCCESS;
}

syserr_t sysmgr_srv_tag_info_add(uuid_t uuid, uint8 *tag, vdc_id_t vdc) {
  if (tag == nullptr) {
    return SYSERR_NULL_ARGUMENT;
  }
  if (vdc >= SYSMGR_VDC_ROWS || sysmgr_info_tbl[vdc].srv_tag_info_tbl == nullptr) {
    return SYSERR_NO_SUCH_VDC;
  }
  tlv_array_t *const table = sysmgr_info_tbl[vdc].srv_tag_info_tbl;
  tag_place place;
  const syserr_t status = find_place(table, static_cast<uint32>(uuid), &place);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  try {
    return put_item(table, place, tag_item(static_cast<uint32>(uuid), tag));
  } catch (const std::bad_alloc &) {
    return SYSERR_PSS_NO_ROOM;
  }
}

namespace lab {

void sysmgr_set_vdcs(const std::vector<vdc_id_t> &wanted) {
  vdcs() = wanted;
  for (sysmgr_info_t &row : sysmgr_info_tbl) {
    std::free(row.srv_tag_info_tbl);
    row.srv_tag_info_tbl = nullptr;
  }
}

} // namespace lab
