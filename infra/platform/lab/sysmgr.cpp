// The system manager's side: the tag table of each VDC (tag_table.h tells its bytes) and the trace
// facility.
#include "lab/sysmgr.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "lab/checksum.h"
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

// What the journal tells of a table. One that states a size that no table has is not summed up.
struct table_look {
  std::optional<uint64_t> size;
  std::optional<uint64_t> sum;
  bool operator==(const table_look &) const = default;
};

table_look look_at(vdc_id_t vdc) {
  const tlv_array_t *const table = table_of(vdc);
  if (table == nullptr) {
    return {};
  }
  const uint32 size = lab::tag_table_size(table);
  if (size == 0 || size > SYSMGR_TAG_TABLE_MAX) {
    return {size, std::nullopt};
  }
  lab::running_sum sum;
  sum.add(reinterpret_cast<const char *>(table), size);
  return {size, sum.digest()};
}

// The tables as the journal knows them. The library writes into them past all calls; what the next
// look finds changed since the last one was done so.
struct table_watch {
  std::mutex mutex; // held while a call edits a table, too
  uint64_t journal = 0;
  std::array<table_look, SYSMGR_VDC_ROWS> seen;
};

table_watch &watch() {
  static table_watch &one = *new table_watch; // outlives the service's thread
  return one;
}

void write_line(lab::journal_entry *entry, vdc_id_t vdc, const table_look &before,
                const table_look &after) {
  entry->table_vdc = vdc;
  entry->has_sizes = entry->has_sums = true;
  entry->old_size = before.size;
  entry->old_sum = before.sum;
  entry->new_size = after.size;
  entry->new_sum = after.sum;
  lab::journal_write(*entry);
}

// REQUIRES: the watch's mutex is held.
void write_edits(table_watch *tables) {
  const uint64_t journal = lab::journal_number();
  const bool is_new = std::exchange(tables->journal, journal) != journal;
  for (vdc_id_t vdc = 0; vdc < SYSMGR_VDC_ROWS; ++vdc) {
    const table_look now = look_at(vdc);
    const table_look before = std::exchange(tables->seen[vdc], now);
    if (!is_new && before != now) {
      lab::journal_entry entry;
      entry.call = "sysmgr_info_tbl";
      write_line(&entry, vdc, before, now);
    }
  }
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
  if (!lab::journal_on()) {
    return change();
  }
  table_watch &tables = watch();
  const std::lock_guard<std::mutex> lock(tables.mutex);
  write_edits(&tables);
  const table_look before = look_at(vdc);
  entry.expected = SYSERR_NO_SUCH_VDC;
  entry.status = change();
  const table_look after = look_at(vdc);
  if (vdc < SYSMGR_VDC_ROWS) {
    tables.seen[vdc] = after;
  }
  write_line(&entry, vdc, before, after);
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

void sysmgr_journal_edits() {
  if (!journal_on()) {
    return;
  }
  table_watch &tables = watch();
  const std::lock_guard<std::mutex> lock(tables.mutex);
  write_edits(&tables);
}

void sysmgr_set_vdcs(const std::vector<vdc_id_t> &wanted) {
  vdcs() = wanted;
  for (sysmgr_info_t &row : sysmgr_info_tbl) {
    std::free(row.srv_tag_info_tbl);
    row.srv_tag_info_tbl = nullptr;
  }
}

} // namespace lab
