#include "lab/tag_table.h"

#include <cstring>
#include <string>
#include <vector>

#include "lab/lab.h"

namespace lab {
namespace {

constexpr uint16 k_tag_type = 1;
constexpr uint16 k_table_version = 1;

struct table_header {
  uint32 size;
  uint16 count;
  uint16 version;
};
static_assert(sizeof(table_header) == TLV_ARRAY_HEADER_SIZE, "stored as it lies");

uint8 *bytes_of(tlv_array_t *table) {
  return reinterpret_cast<uint8 *>(table);
}

// One TLV of a table.
struct table_item {
  uint32 offset = 0; // from the start of the table
  uint32 length = 0; // its head included
  bool is_tag = false;
  uint32 uuid = 0;
  std::string_view tag;
};

// Calls `take` for each TLV. SYSERR_TLV_DAMAGED for one that passes the stated size.
template <typename taker> syserr_t for_each_item(const tlv_array_t *table, const taker &take) {
  uint32 cursor = 0;
  while (true) {
    table_item item;
    item.offset = cursor + static_cast<uint32>(sizeof(table_header));
    uint16 type = 0;
    uint16 length = 0;
    uint8 *value = nullptr;
    const syserr_t status =
        tlv_array_get_next_tlv(table, &type, &length, &value, k_table_version, &cursor);
    if (status != SYSERR_SUCCESS) {
      return status == SYSERR_TLV_END ? SYSERR_SUCCESS : status;
    }
    item.length = cursor + static_cast<uint32>(sizeof(table_header)) - item.offset;
    item.is_tag = type == k_tag_type && length >= sizeof(item.uuid);
    if (item.is_tag) {
      std::memcpy(&item.uuid, value, sizeof(item.uuid));
      const char *const text = reinterpret_cast<const char *>(value) + sizeof(item.uuid);
      item.tag = {text, strnlen(text, length - sizeof(item.uuid))};
    }
    take(item);
  }
}

// Where the service's TLV stands, or would stand, and how many bytes it takes there now.
struct tag_place {
  uint32 offset = 0;
  uint32 length = 0;
  uint16 count = 0; // TLVs of the table
  std::string_view tag;
};

syserr_t find_place(const tlv_array_t *table, uint32 uuid, tag_place *place) {
  const uint32 size = tag_table_size(table);
  if (size < sizeof(table_header) || size > SYSMGR_TAG_TABLE_MAX) {
    return SYSERR_TLV_DAMAGED;
  }
  *place = {size, 0, 0, {}};
  return for_each_item(table, [&](const table_item &item) {
    ++place->count;
    if (item.is_tag && item.uuid == uuid && place->length == 0) {
      place->offset = item.offset;
      place->length = item.length;
      place->tag = item.tag;
    }
  });
}

std::string tag_item(uint32 uuid, const char *tag) {
  const size_t tag_length = strnlen(tag, longest_tag);
  const tlv_t head = {k_tag_type, static_cast<uint16>(sizeof(uuid) + tag_length + 1)};
  std::string item(reinterpret_cast<const char *>(&head), sizeof(head));
  item.append(reinterpret_cast<const char *>(&uuid), sizeof(uuid));
  item.append(tag, tag_length);
  return item.append(1, '\0');
}

syserr_t put_item(tlv_array_t *table, const tag_place &place, std::string_view item) {
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

uint32 tag_table_size(const tlv_array_t *table) {
  return tlv_array_size_get(table, k_table_version);
}

void tag_table_clear(tlv_array_t *table) {
  const table_header empty = {sizeof(table_header), 0, k_table_version};
  std::memcpy(table, &empty, sizeof(empty));
}

syserr_t tag_table_put(tlv_array_t *table, uint32 uuid, const char *tag) {
  tag_place place;
  const syserr_t status = find_place(table, uuid, &place);
  return status == SYSERR_SUCCESS ? put_item(table, place, tag_item(uuid, tag)) : status;
}

std::optional<std::string> tag_table_find(const tlv_array_t *table, uint32 uuid) {
  tag_place place;
  const bool found = find_place(table, uuid, &place) == SYSERR_SUCCESS && place.length != 0;
  return found ? std::optional<std::string>(place.tag) : std::nullopt;
}

bool tag_table_decode(std::string_view bytes, std::vector<tag_entry> *entries) {
  const auto *const table = reinterpret_cast<const tlv_array_t *>(bytes.data());
  if (bytes.size() < sizeof(table_header) || tag_table_size(table) < sizeof(table_header) ||
      tag_table_size(table) > bytes.size()) {
    return false;
  }
  std::vector<tag_entry> found;
  const syserr_t status = for_each_item(table, [&found](const table_item &item) {
    if (item.is_tag) {
      found.push_back({item.uuid, std::string(item.tag)});
    }
  });
  if (status != SYSERR_SUCCESS) {
    return false;
  }
  *entries = std::move(found);
  return true;
}

std::string tag_table_encode(const std::vector<tag_entry> &entries) {
  std::string body;
  for (const tag_entry &entry : entries) {
    body += tag_item(entry.uuid, entry.tag.c_str());
  }
  const table_header head = {static_cast<uint32>(sizeof(table_header) + body.size()),
                             static_cast<uint16>(entries.size()), k_table_version};
  return std::string(reinterpret_cast<const char *>(&head), sizeof(head)) + body;
}

} // namespace lab
