// TLV arrays. The layout, in host byte order and without any alignment:
//
//   header   uint32 stated size (bytes, header included), uint16 number of TLVs, uint16 version
//   TLVs     uint16 type, uint16 length, then `length` value bytes; the next one follows at once
//
// Stored arrays come back from disk, so nothing in them is believed: no read passes the stated
// size, whatever the counts and lengths say. The caller has made sure that the stated size is not
// above what it holds. Needs nothing but the C library: test programs without a lab link it too.
#include "platform/tlv_array.h"

#include <cstring>

namespace {

struct header {
  uint32 size;
  uint16 count;
  uint16 version;
};
static_assert(sizeof(header) == TLV_ARRAY_HEADER_SIZE, "stored as it lies");
static_assert(sizeof(tlv_t) == 4, "stored as it lies");

header header_of(const tlv_array_t *array) {
  header found;
  std::memcpy(&found, array, sizeof(found));
  return found;
}

// The TLV that starts `offset` bytes behind the header.
syserr_t tlv_at(const tlv_array_t *array, uint32 size, uint32 offset, tlv_t *found) {
  if (size < sizeof(header) || offset > size - sizeof(header)) {
    return SYSERR_TLV_DAMAGED;
  }
  const uint32 left = size - static_cast<uint32>(sizeof(header)) - offset;
  if (left == 0) {
    return SYSERR_TLV_END;
  }
  if (left < sizeof(tlv_t)) {
    return SYSERR_TLV_DAMAGED;
  }
  std::memcpy(found, reinterpret_cast<const uint8 *>(array) + sizeof(header) + offset,
              sizeof(tlv_t));
  return found->length <= left - sizeof(tlv_t) ? SYSERR_SUCCESS : SYSERR_TLV_DAMAGED;
}

} // namespace

uint32 tlv_array_size_get(const tlv_array_t *array, uint32 /*version*/) {
  return array == nullptr ? 0 : header_of(array).size;
}

// A stated number that is too high must not send a caller past the end, so only TLVs that are there
// count.
uint32 tlv_array_get_num_tlvs(const tlv_array_t *array, uint32 /*version*/) {
  if (array == nullptr) {
    return 0;
  }
  const header head = header_of(array);
  uint32 count = 0;
  uint32 offset = 0;
  tlv_t item;
  while (count < head.count && tlv_at(array, head.size, offset, &item) == SYSERR_SUCCESS) {
    ++count;
    offset += static_cast<uint32>(sizeof(tlv_t)) + item.length;
  }
  return count;
}

syserr_t tlv_array_get_next_tlv(const tlv_array_t *array, uint16 *type, uint16 *length,
                                uint8 **value, uint32 /*version*/, uint32 *cursor) {
  if (array == nullptr || type == nullptr || length == nullptr || value == nullptr ||
      cursor == nullptr) {
    return SYSERR_NULL_ARGUMENT;
  }
  tlv_t item;
  const syserr_t status = tlv_at(array, header_of(array).size, *cursor, &item);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  *type = item.type;
  *length = item.length;
  // The interface hands a const array's bytes out as writable, as it always has.
  *value = const_cast<uint8 *>(reinterpret_cast<const uint8 *>(array)) + sizeof(header) + *cursor +
           sizeof(tlv_t);
  *cursor += static_cast<uint32>(sizeof(tlv_t)) + item.length;
  return SYSERR_SUCCESS;
}
