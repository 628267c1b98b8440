// The double's system manager: tag tables, trace facility, image versions.
//
// A tag table is a TLV array with one item per service: type 1, then the service's number (uint32,
// host byte order) and its tag with a terminator. The lab has the same.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/double_state.h"
#include "support/scarce_malloc.h"

sysmgr_info_t sysmgr_info_tbl[SYSMGR_VDC_ROWS];
debug_trace_fac_t debug_trace_fac_SYSMGR;

namespace {

constexpr uint16 k_version = 1;
constexpr uint16 k_tag_type = 1;
constexpr size_t k_longest_tag = 31;
constexpr size_t k_version_text_limit = 8192;

struct array_header {
  uint32 size;
  uint16 count;
  uint16 version;
};
static_assert(sizeof(array_header) == TLV_ARRAY_HEADER_SIZE);

using items_t = std::vector<std::pair<uint16, std::string>>;

// A block of exactly the room that a table has. Always another one than before.
void put_table(vdc_id_t vdc, const std::string &content) {
  void *table = scarce_malloc::always(SYSMGR_TAG_TABLE_MAX);
  if (table == nullptr) {
    std::perror("platform_double");
    std::abort();
  }
  std::memset(table, 0, SYSMGR_TAG_TABLE_MAX);
  std::memcpy(table, content.data(), content.size());
  std::free(sysmgr_info_tbl[vdc].srv_tag_info_tbl);
  sysmgr_info_tbl[vdc].srv_tag_info_tbl = static_cast<tlv_array_t *>(table);
}

syserr_t items_of(const tlv_array_t *table, items_t *items) {
  const uint32 size = pure_tlv_array_size_get(table, k_version);
  if (size < TLV_ARRAY_HEADER_SIZE || size > SYSMGR_TAG_TABLE_MAX) {
    return SYSERR_TLV_DAMAGED;
  }
  uint16 type = 0;
  uint16 length = 0;
  uint8 *value = nullptr;
  uint32 cursor = 0;
  syserr_t status = SYSERR_SUCCESS;
  while ((status = pure_tlv_array_get_next_tlv(table, &type, &length, &value, k_version,
                                               &cursor)) == SYSERR_SUCCESS) {
    items->emplace_back(type, std::string(reinterpret_cast<char *>(value), length));
  }
  return status == SYSERR_TLV_END ? SYSERR_SUCCESS : status;
}

syserr_t add(uuid_t uuid, const uint8 *tag, vdc_id_t vdc) {
  if (tag == nullptr) {
    return SYSERR_NULL_ARGUMENT;
  }
  if (vdc >= SYSMGR_VDC_ROWS || sysmgr_info_tbl[vdc].srv_tag_info_tbl == nullptr) {
    return SYSERR_NO_SUCH_VDC;
  }
  items_t items;
  if (const syserr_t status = items_of(sysmgr_info_tbl[vdc].srv_tag_info_tbl, &items)) {
    return status;
  }
  const auto number = static_cast<uint32>(uuid);
  const std::string owner(reinterpret_cast<const char *>(&number), sizeof(number));
  const std::string text(reinterpret_cast<const char *>(tag));
  const std::string entry = owner + text.substr(0, k_longest_tag) + '\0';
  const auto old = std::find_if(items.begin(), items.end(), [&owner](const auto &item) {
    return item.first == k_tag_type && item.second.compare(0, owner.size(), owner) == 0;
  });
  if (old != items.end()) {
    old->second = entry;
  } else {
    items.emplace_back(k_tag_type, entry);
  }
  const std::string content = tlv_array_bytes(items);
  if (content.size() > SYSMGR_TAG_TABLE_MAX) {
    return SYSERR_TAG_TABLE_FULL;
  }
  std::memcpy(sysmgr_info_tbl[vdc].srv_tag_info_tbl, content.data(), content.size());
  return SYSERR_SUCCESS;
}

} // namespace

std::string tlv_array_bytes(const std::vector<std::pair<uint16, std::string>> &items) {
  std::string body;
  for (const auto &[type, value] : items) {
    const tlv_t head = {type, static_cast<uint16>(value.size())};
    body.append(reinterpret_cast<const char *>(&head), sizeof(head));
    body += value;
  }
  const array_header head = {static_cast<uint32>(sizeof(array_header) + body.size()),
                             static_cast<uint16>(items.size()), k_version};
  return std::string(reinterpret_cast<const char *>(&head), sizeof(head)) + body;
}

syserr_t sysmgr_srv_tag_info_table_prepare(uint32 flags, vdc_id_t vdc) {
  platform_double::state &state = double_platform().internals();
  if (const auto answer = state.enter("sysmgr_srv_tag_info_table_prepare",
                                      {log_text::number(flags), log_text::number(vdc)})) {
    return answer->status;
  }
  if (vdc >= SYSMGR_VDC_ROWS || state.vdcs.count(vdc) == 0) {
    return SYSERR_NO_SUCH_VDC;
  }
  put_table(vdc, tlv_array_bytes({}));
  return SYSERR_SUCCESS;
}

syserr_t sysmgr_srv_tag_info_add(uuid_t uuid, uint8 *tag, vdc_id_t vdc) {
  const auto answer = double_platform().internals().enter(
      "sysmgr_srv_tag_info_add",
      {log_text::number(static_cast<uint32>(uuid)),
       log_text::string(reinterpret_cast<const char *>(tag)), log_text::number(vdc)});
  return answer ? answer->status : add(uuid, tag, vdc);
}

char *srg_sw_ver_file_get(const char *srg_path) {
  static char text[k_version_text_limit];
  platform_double::state &state = double_platform().internals();
  const auto answer = state.enter("srg_sw_ver_file_get", {log_text::string(srg_path)});
  std::optional<std::string> version;
  if (answer) {
    version = answer->bytes;
  } else if (srg_path != nullptr && state.images.count(srg_path) == 1) {
    version = state.images[srg_path];
  }
  std::memset(text, 0, sizeof(text));
  if (!version) {
    return nullptr;
  }
  std::memcpy(text, version->data(), std::min(version->size(), sizeof(text) - 1));
  return text;
}

// ---- The test's side ----------------------------------------------------------------------------

void platform_double::set_vdcs(const std::vector<vdc_id_t> &vdcs) {
  state_->vdcs = {vdcs.begin(), vdcs.end()};
  for (sysmgr_info_t &row : sysmgr_info_tbl) {
    std::free(row.srv_tag_info_tbl);
    row.srv_tag_info_tbl = nullptr;
  }
}

void platform_double::set_image(const std::string &srg_path, const std::string &version) {
  state_->images[srg_path] = version;
}
