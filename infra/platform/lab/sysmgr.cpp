// The system manager's side: the tag table of each VDC (tag_table.h tells its bytes) and the trace
// facility.
#include "lab/sysmgr.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

#include "lab/journal.h"
#include "lab/lab.h"
#include "lab/tag_table.h"

sysmgr_info_t sysmgr_info_tbl[SYSMGR_VDC_ROWS] = {};
debug_trace_fac_t debug_trace_fac_SYSMGR = {nullptr, 0};

namespace {

std::vector<vdc_id_t> &vdcs() {
  static std::vector<vdc_id_t> &all = *new std::vector<vdc_id_t>{1};
  return all;
}

// Null too where the tables have no row for the VDC.
tlv_array_t *table_of(vdc_id_t vdc) {
  return vdc < SYSMGR_VDC_ROWS ? sysmgr_info_tbl[vdc].srv_tag_info_tbl : nullptr;
}

std::optional<uint64_t> size_of(const tlv_array_t *table) {
  return table == nullptr ? std::nullopt : std::optional<uint64_t>(lab::tag_table_size(table));
}

// For the journal only; nothing is worked out while it is off.
std::optional<std::string> tag_before(vdc_id_t vdc, uint32 uuid) {
  const tlv_array_t *const table = lab::journal_on() ? table_of(vdc) : nullptr;
  try {
    return table == nullptr ? std::nullopt : lab::tag_table_find(table, uuid);
  } catch (const std::bad_alloc &) {
    return std::nullopt;
  }
}

// Runs `change` on the VDC's table and writes the line that tells of it.
template <typename changer>
syserr_t journalled(lab::journal_entry entry, vdc_id_t vdc, const changer &change) {
  entry.table_vdc = vdc;
  entry.has_sizes = true;
  entry.expected = SYSERR_NO_SUCH_VDC;
  entry.old_size = size_of(table_of(vdc));
  entry.status = change();
  entry.new_size = size_of(table_of(vdc));
  lab::journal_write(entry);
  return entry.status;
}

syserr_t prepare(vdc_id_t vdc) {
  if (!lab::sysmgr_has_vdc(vdc)) {
    return SYSERR_NO_SUCH_VDC;
  }
  auto *const table = static_cast<tlv_array_t *>(std::malloc(SYSMGR_TAG_TABLE_MAX));
  if (table == nullptr) {
    return SYSERR_PSS_NO_ROOM;
  }
  lab::tag_table_clear(table);
  std::free(sysmgr_info_tbl[vdc].srv_tag_info_tbl);
  sysmgr_info_tbl[vdc].srv_tag_info_tbl = table;
  return SYSERR_SUCCESS;
}

syserr_t add(uint32 uuid, const char *tag, vdc_id_t vdc) {
  if (tag == nullptr) {
    return SYSERR_NULL_ARGUMENT;
  }
  if (table_of(vdc) == nullptr) {
    return SYSERR_NO_SUCH_VDC;
  }
  try {
    return lab::tag_table_put(table_of(vdc), uuid, tag);
  } catch (const std::bad_alloc &) {
    return SYSERR_PSS_NO_ROOM;
  }
}

} // namespace

syserr_t sysmgr_srv_tag_info_table_prepare(uint32 /*flags*/, vdc_id_t vdc) {
  lab::journal_entry entry;
  entry.call = __func__;
  return journalled(entry, vdc, [vdc] { return prepare(vdc); });
}

syserr_t sysmgr_srv_tag_info_add(uuid_t uuid, uint8 *tag, vdc_id_t vdc) {
  const char *const text = reinterpret_cast<const char *>(tag);
  lab::journal_entry entry;
  entry.call = __func__;
  entry.uuid = static_cast<uint32>(uuid);
  if (text != nullptr) {
    entry.tag = {text, strnlen(text, lab::longest_tag)};
  }
  entry.has_old_tag = true;
  entry.old_tag = tag_before(vdc, static_cast<uint32>(uuid));
  return journalled(entry, vdc, [=] { return add(static_cast<uint32>(uuid), text, vdc); });
}

namespace lab {

bool sysmgr_has_vdc(uint32 vdc) {
  return vdc != 0 && vdc < SYSMGR_VDC_ROWS &&
         std::find(vdcs().begin(), vdcs().end(), vdc) != vdcs().end();
}

void sysmgr_set_vdcs(const std::vector<vdc_id_t> &wanted) {
  vdcs() = wanted;
  for (sysmgr_info_t &row : sysmgr_info_tbl) {
    std::free(row.srv_tag_info_tbl);
    row.srv_tag_info_tbl = nullptr;
  }
}

} // namespace lab
