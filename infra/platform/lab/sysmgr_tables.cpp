// The running tag tables at rest: a volatile store, since they go with a boot. One record per VDC
// that has a table: key = the VDC (2 bytes, big-endian), value = the table as it lies.
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "lab/lab.h"
#include "lab/store_handle.h"
#include "lab/sysmgr.h"
#include "lab/tag_table.h"

namespace lab {
namespace {

constexpr uint32 k_read = 0x1;
constexpr uint32 k_write = 0x2;
constexpr uint32 k_create = 0x10;

using records = std::map<std::string, std::string>;

struct table_freer {
  void operator()(tlv_array_t *table) const { std::free(table); }
};
using table_ptr = std::unique_ptr<tlv_array_t, table_freer>;

std::string key_of(uint32 vdc) {
  return {static_cast<char>(vdc >> 8), static_cast<char>(vdc)};
}

// The VDC of a record; 0, which no switch has, for a key that names none.
uint32 vdc_of(const std::string &key) {
  const auto byte = [&key](size_t i) { return static_cast<unsigned char>(key[i]); };
  return key.size() == 2 ? static_cast<uint32>(byte(0) << 8 | byte(1)) : 0;
}

bool is_table(std::string_view bytes) {
  std::vector<tag_entry> ignored;
  return bytes.size() <= SYSMGR_TAG_TABLE_MAX && tag_table_decode(bytes, &ignored) &&
         tag_table_size(reinterpret_cast<const tlv_array_t *>(bytes.data())) == bytes.size();
}

pss_datum_t datum_of(const std::string &bytes) {
  return {const_cast<char *>(bytes.data()), static_cast<uint32>(bytes.size())};
}

std::string bytes_of(const pss_datum_t &datum) {
  return {static_cast<const char *>(datum.ptr), datum.siz};
}

// An open store. What was written is kept by done() only.
class table_store {
public:
  explicit table_store(uint32 mode)
      : service_(pss2_open(running_tag_tables, mode, SRVUUID_NONE, 0, 0, &status_)) {}
  ~table_store() {
    if (service_ != 0) {
      take_back();
      pss2_close(service_);
    }
  }
  table_store(const table_store &) = delete;
  table_store &operator=(const table_store &) = delete;

  syserr_t status() const { return status_; }

  syserr_t read(records *all) {
    pss_location_t to = PSS_FIRST_KEY;
    syserr_t status = SYSERR_SUCCESS;
    while (true) {
      const pss_datum_t *const key = pss_move2location(service_, to, &status);
      if (key == nullptr) {
        return status == SYSERR_PSS_NOT_FOUND ? SYSERR_SUCCESS : status;
      }
      const std::string name = bytes_of(*key);
      const pss_datum_t *const value = pss_getvalue(service_, &status);
      if (value == nullptr) {
        return status;
      }
      all->emplace(name, bytes_of(*value));
      to = PSS_NEXT_KEY;
    }
  }

  syserr_t put(const std::string &key, const std::string &value) {
    const pss_datum_t key_datum = datum_of(key);
    const pss_datum_t value_datum = datum_of(value);
    return pss2_store(service_, &key_datum, &value_datum);
  }

  syserr_t remove(const std::string &key) {
    const pss_datum_t key_datum = datum_of(key);
    return pss2_delete(service_, &key_datum, 0);
  }

  syserr_t done() {
    const pss2_service_t service = service_;
    service_ = 0;
    return pss2_close(service);
  }

private:
  void take_back() const {
    const std::lock_guard<std::mutex> lock(store_mutex());
    if (store_handle *const handle = handle_find(service_)) {
      handle->take_back();
    }
  }

  syserr_t status_ = SYSERR_SUCCESS;
  pss2_service_t service_;
};

// The store's records; none when there is no store.
syserr_t read_store(records *all) {
  table_store store(k_read);
  if (store.status() != SYSERR_SUCCESS) {
    return store.status() == SYSERR_PSS_NO_STORE ? SYSERR_SUCCESS : store.status();
  }
  return store.read(all);
}

syserr_t load() {
  records stored;
  const syserr_t status = read_store(&stored);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  table_ptr tables[SYSMGR_VDC_ROWS];
  for (const auto &[key, value] : stored) {
    const uint32 vdc = vdc_of(key);
    if (!sysmgr_has_vdc(vdc) || !is_table(value)) {
      return SYSERR_PSS_DAMAGED;
    }
    tables[vdc].reset(static_cast<tlv_array_t *>(std::malloc(SYSMGR_TAG_TABLE_MAX)));
    if (tables[vdc] == nullptr) {
      return SYSERR_PSS_NO_ROOM;
    }
    std::memcpy(static_cast<void *>(tables[vdc].get()), value.data(), value.size());
  }
  for (uint32 vdc = 0; vdc < SYSMGR_VDC_ROWS; ++vdc) {
    std::free(sysmgr_info_tbl[vdc].srv_tag_info_tbl);
    sysmgr_info_tbl[vdc].srv_tag_info_tbl = tables[vdc].release();
  }
  return SYSERR_SUCCESS;
}

// The tables that stand, as records.
syserr_t running_records(records *all) {
  for (uint32 vdc = 0; vdc < SYSMGR_VDC_ROWS; ++vdc) {
    const tlv_array_t *const table = sysmgr_info_tbl[vdc].srv_tag_info_tbl;
    if (table == nullptr) {
      continue;
    }
    const uint32 size = tag_table_size(table);
    if (!sysmgr_has_vdc(vdc) || size > SYSMGR_TAG_TABLE_MAX ||
        !is_table({reinterpret_cast<const char *>(table), size})) {
      return SYSERR_PSS_DAMAGED;
    }
    all->emplace(key_of(vdc), std::string(reinterpret_cast<const char *>(table), size));
  }
  return SYSERR_SUCCESS;
}

syserr_t write_changes(const records &stored, const records &running) {
  table_store store(k_read | k_write | k_create);
  syserr_t status = store.status();
  for (auto it = stored.begin(); status == SYSERR_SUCCESS && it != stored.end(); ++it) {
    status = running.contains(it->first) ? SYSERR_SUCCESS : store.remove(it->first);
  }
  for (auto it = running.begin(); status == SYSERR_SUCCESS && it != running.end(); ++it) {
    const auto old = stored.find(it->first);
    const bool same = old != stored.end() && old->second == it->second;
    status = same ? SYSERR_SUCCESS : store.put(it->first, it->second);
  }
  return status == SYSERR_SUCCESS ? store.done() : status;
}

syserr_t save() {
  records running;
  syserr_t status = running_records(&running);
  records stored;
  status = status == SYSERR_SUCCESS ? read_store(&stored) : status;
  if (status != SYSERR_SUCCESS || stored == running) {
    return status;
  }
  return write_changes(stored, running);
}

template <typename body> syserr_t guarded(const body &act) noexcept {
  try {
    return act();
  } catch (const std::bad_alloc &) {
    return SYSERR_PSS_NO_ROOM;
  } catch (const std::exception &) {
    return SYSERR_PSS_IO;
  }
}

} // namespace

syserr_t sysmgr_load_tables() {
  return guarded(load);
}

syserr_t sysmgr_save_tables() {
  return guarded(save);
}

} // namespace lab
