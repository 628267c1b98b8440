// What the VRRP manager's and the VRRP engine's conversions have in common: libdatamorph_vrrp.h.

#include "libdatamorph_vrrp.h"
#include "libdatamorph_walk.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// ---- Keys --------------------------------------------------------------------------------------

void vrrp_make_vr_key(uint8 *key, uint8 key_type, if_index_t ifindex, uint8 vr_id,
                      inet_addr_type_t addr_type) {
  const bool known =
      key_type == VRRP_KEY_VR || key_type == VRRP_KEY_VIP || key_type == VRRP_KEY_VR_5;
  if (key == nullptr || !known) {
    return;
  }
  const vrrp_vr_key_t made = {key_type, htonl(static_cast<uint32>(addr_type)), vr_id,
                              hton_if_index(ifindex)};
  memcpy(key, &made, sizeof made);
}

void vrrp_make_assoc_key(uint8 *key, if_index_t ifindex, uint8 vr_id,
                         const inet_addr_t &inet_addr) {
  if (key == nullptr) {
    return;
  }
  vrrp_vip_key_t made = {VRRP_KEY_VIP,
                         htonl(static_cast<uint32>(inet_addr.addr_type)),
                         vr_id,
                         hton_if_index(ifindex),
                         {}};
  memcpy(made.address, &inet_addr.a, sizeof made.address);
  memcpy(key, &made, sizeof made);
}

// ---- Bulk get ----------------------------------------------------------------------------------

namespace {

constexpr int32 k_no_value = 2;
constexpr int32 k_no_memory = 3; // also for a value size below 1

bool is_acceptable(syserr_t status) {
  return status == SYSERR_SUCCESS || status == SYSERR_PSS_NOT_FOUND;
}

// The keys of a table from the first of a key type on, in order. Ends as well at a key that does
// not come after the one before, so that it ends whatever the store answers.
class key_walk {
public:
  key_walk(pss_service_t table, uint8 key_type) : table_(table), key_type_(key_type) {}

  // Goes to the next key. False at the end, and after a failure.
  bool step() {
    syserr_t status = SYSERR_SUCCESS;
    const pss_datum_t first = {&key_type_, 1};
    const pss_datum_t *key = started_ ? pss_move2location(table_, PSS_NEXT_KEY, &status)
                                      : pss_move2key(table_, &first, &status);
    if (!is_acceptable(status)) {
      failure_ = static_cast<int32>(status);
      return false;
    }
    if (key == nullptr || key->ptr == nullptr || (started_ && !last_.is_before(*key))) {
      return false;
    }
    started_ = true;
    if (!last_.keep(*key)) {
      failure_ = k_no_memory;
      return false;
    }
    matches_ = key->siz > 0 && *static_cast<const uint8 *>(key->ptr) == key_type_;
    return true;
  }

  bool matches() const { return matches_; }  // the key type
  int32 failure() const { return failure_; } // 0 when there was none

private:
  pss_service_t table_;
  uint8 key_type_;
  bool started_ = false;
  bool matches_ = false;
  int32 failure_ = 0;
  datamorph_kept_key last_;
};

// How much of a value must be there, so that the slots hold no key fields that nobody stored.
uint32 least_value(uint8 key_type, uint32 value_size) {
  uint32 fields = 0;
  if (key_type == VRRP_KEY_VR) {
    fields = vrrp_vr_key_fields;
  } else if (key_type == VRRP_KEY_VIP) {
    fields = vrrp_vip_key_fields;
  }
  return fields <= value_size ? fields : 0;
}

int32 count_records(pss_service_t table, uint8 key_type, int32 *count) {
  key_walk walk(table, key_type);
  while (walk.step() && walk.matches()) {
    ++*count;
  }
  return walk.failure();
}

// Fills at most *count slots and lowers *count to what was filled.
int32 copy_values(pss_service_t table, uint8 key_type, uint8 *slots, int32 *count,
                  uint32 value_size) {
  const uint32 least = least_value(key_type, value_size);
  int32 filled = 0;
  key_walk walk(table, key_type);
  // QUIRK: this pass walks on to the end of the table; the counting one stops at another key type.
  // Pinned by vrrp_table_test, the_copying_pass_walks_to_the_end.
  while (walk.step()) {
    if (!walk.matches()) {
      continue;
    }
    syserr_t status = SYSERR_SUCCESS;
    const pss_datum_t *value = pss_getvalue(table, &status);
    if (!is_acceptable(status)) {
      return static_cast<int32>(status);
    }
    if (value == nullptr || value->ptr == nullptr) {
      return k_no_value;
    }
    if (filled < *count && value->siz >= least) {
      memcpy(slots + static_cast<size_t>(filled) * value_size, value->ptr,
             std::min(value->siz, value_size));
      ++filled;
    }
  }
  if (walk.failure() == 0) {
    *count = filled;
  }
  return walk.failure();
}

} // namespace

int32 vrrp_get_table(pss_service_t table, uint8 key_type, void **value_array, int32 *num_values,
                     int32 value_size) {
  if (value_array == nullptr || num_values == nullptr) {
    return static_cast<int32>(SYSERR_FAILED);
  }
  *value_array = nullptr;
  *num_values = 0;
  if (value_size < 1) {
    return k_no_memory;
  }
  int32 count = 0;
  int32 status = count_records(table, key_type, &count);
  if (status != 0) {
    return status;
  }
  *num_values = count;
  if (count == 0) {
    return 0;
  }
  const auto size = static_cast<uint32>(value_size);
  auto *slots = static_cast<uint8 *>(calloc(static_cast<size_t>(count), size));
  if (slots == nullptr) {
    return k_no_memory;
  }
  status = copy_values(table, key_type, slots, num_values, size);
  if (status != 0 || *num_values == 0) {
    free(slots);
    return status;
  }
  *value_array = slots;
  return 0;
}

vrrp_values::~vrrp_values() {
  free(values_);
}

int32 vrrp_values::get(pss_service_t table, uint8 key_type, size_t value_size) {
  value_size_ = value_size;
  return vrrp_get_table(table, key_type, &values_, &count_, static_cast<int32>(value_size));
}

const uint8 *vrrp_values::slot(int32 at) const {
  return static_cast<const uint8 *>(values_) + static_cast<size_t>(at) * value_size_;
}

// ---- Trace files -------------------------------------------------------------------------------

void vrrp_open_trace(vrrp_side_t &side) {
  if (side.trace_fd == -1) {
    side.trace_fd = datamorph_open_own_file(side.trace_file, O_APPEND | O_CLOEXEC, 0);
  }
}

void vrrp_trace(vrrp_side_t &side, const char *routine, int line, const char *format, ...) {
  if (side.trace_fd == -1) {
    return;
  }
  const int saved_errno = errno;
  constexpr size_t size = sizeof side.debug_str;
  time(&side.tstamp);
  const char *text = ctime(&side.tstamp);
  snprintf(side.debug_str, size, "<%.24s> %s:%d ", text != nullptr ? text : "", routine, line);
  const size_t used = strlen(side.debug_str);
  va_list args;
  va_start(args, format);
  vsnprintf(side.debug_str + used, size - used, format, args);
  va_end(args);
  const ssize_t written = write(side.trace_fd, side.debug_str, strlen(side.debug_str));
  static_cast<void>(written); // a line that cannot be written is lost, nothing else
  fsync(side.trace_fd);
  errno = saved_errno;
}

// ---- What both sides do ------------------------------------------------------------------------

syserr_t vrrp_convert_startup(decltype(&vrrp_handle_generic_convert) convert, const char *path,
                              const char *pkg_name, const char *to_ver, const char *from_ver,
                              uint8 flag) {
  if (path == nullptr) {
    return SYSERR_FAILED;
  }
  constexpr char bin[] = "/bin";
  constexpr int room = static_cast<int>(vrrp_path_size - sizeof bin);
  char bin_path[vrrp_path_size] = {};
  snprintf(bin_path, sizeof bin_path, "%.*s%s", room, path, bin);
  return convert(bin_path, pkg_name, to_ver, from_ver, vrrp_startup_conversion, flag);
}

syserr_t vrrp_read_vdc(const vrrp_routine_t &self, const char *path, vrrp_vdc_t *vdc) {
  const char *suffix = nullptr;
  *vdc = {};
  vdc->id = datamorph_path_vdc(path, &suffix);
  if (vdc->id == 0) {
    VRRP_TRACE(self.side, self.name, "Could not get vdc from path\n");
    return SYSERR_NO_SUCH_VDC;
  }
  if (suffix != nullptr) {
    // QUIRK: not cut at the digits: "/bin", which follows them, is part of the store's name.
    // Pinned by vrrp_mgr_test, the_temporary_store_of_a_vdc.
    vdc->named = true;
    memcpy(vdc->string, suffix, strnlen(suffix, vrrp_vdc_string_size));
  }
  return SYSERR_SUCCESS;
}

void vrrp_temporary_uri(const char *base, const char *vdc_string, char (&uri)[vrrp_path_size]) {
  snprintf(uri, sizeof uri, "%s%.*s", base, static_cast<int>(vrrp_vdc_string_size), vdc_string);
}

namespace {

constexpr char k_moved_release[] = "4.2(1)"; // the records stand in the engine's store from here on

} // namespace

bool vrrp_read_change(const vrrp_routine_t &self, const char *to_ver, const char *from_ver,
                      vrrp_change_t *change) {
  syserr_t error = SYSERR_SUCCESS;
  const int from_comp = datamorph_compare_versions(from_ver, k_moved_release, &error);
  if (error != SYSERR_SUCCESS) {
    VRRP_TRACE(self.side, self.name, "Error: 0x%x from_comp\n", error);
    return false;
  }
  const int to_comp = datamorph_compare_versions(k_moved_release, to_ver, &error);
  if (error != SYSERR_SUCCESS) {
    VRRP_TRACE(self.side, self.name, "Error: 0x%x to_comp\n", error);
    return false;
  }
  VRRP_TRACE(self.side, self.name, "from_ver %s:from_comp %d, to_ver %s:to_comp %d\n", from_ver,
             from_comp, to_ver, to_comp);
  if (from_comp >= 0 && to_comp < 1) {
    VRRP_TRACE(self.side, self.name, "No ISSU conversion reqd from %s to %s\n", from_ver, to_ver);
    return false;
  }
  VRRP_TRACE(self.side, self.name, "ISSU conversion required from %s to %s\n", from_ver, to_ver);
  // QUIRK: from one release before 4.2(1) to another, both are true.
  // Pinned by vrrp_mgr_test, between_two_old_releases_both_directions_run.
  change->up = from_comp < 0;
  change->down = to_comp >= 1;
  return true;
}

namespace {

pss_datum_t datum_of(void *bytes, size_t size) {
  return {bytes, static_cast<uint32>(size)};
}

// False, traced, when that failed.
bool delete_record(const vrrp_routine_t &self, pss_service_t table, void *key_bytes, size_t size) {
  const pss_datum_t key = datum_of(key_bytes, size);
  const syserr_t status = pss_delete(table, &key);
  if (status != SYSERR_SUCCESS) {
    // QUIRK: "VR record" for a VIP record too. The trace's wording is a contract.
    // Pinned by vrrp_mgr_test, failed_deletes_are_only_traced.
    VRRP_TRACE(self.side, self.name, "Error deleting PSS VR record; Ret_val = 0x%x, %s\n", status,
               syserr2str(status));
  }
  return status == SYSERR_SUCCESS;
}

// The same.
bool store_record(const vrrp_routine_t &self, pss_service_t table, uint32 flag,
                  const pss_datum_t &key, const pss_datum_t &value) {
  const syserr_t status = pss_store(table, flag, &key, &value);
  if (status != SYSERR_SUCCESS) {
    VRRP_TRACE(self.side, self.name, "Error storing record in PSS: Ret_val = 0x%x, %s\n", status,
               syserr2str(status));
  }
  return status == SYSERR_SUCCESS;
}

void delete_vr_record(const vrrp_routine_t &self, pss_service_t table, const uint8 *slot) {
  vrrp_old_config_record_t record = {};
  memcpy(&record, slot, vrrp_vr_key_fields);
  VRRP_TRACE(self.side, self.name,
             "Retrieved PSS record for VR %d on interface 0x%x and addr type %d\n", record.vr_id,
             record.ifindex, static_cast<int>(record.addr_type));
  uint8 key_bytes[sizeof(vrrp_vr_key_t)] = {};
  vrrp_make_vr_key(key_bytes, VRRP_KEY_VR, record.ifindex, record.vr_id, record.addr_type);
  VRRP_TRACE(self.side, self.name, "Deleting PSS VR record : VR %d , intf 0x%x\n", record.vr_id,
             record.ifindex);
  if (delete_record(self, table, key_bytes, sizeof key_bytes)) {
    VRRP_TRACE(self.side, self.name, "Deleted PSS VR record : VR %d, interface 0x%x\n",
               record.vr_id, record.ifindex);
  }
}

void delete_vip_record(const vrrp_routine_t &self, pss_service_t table, const uint8 *slot) {
  vrrp_old_ip_assoc_record_t record = {};
  memcpy(&record, slot, vrrp_vip_key_fields);
  uint8 key_bytes[sizeof(vrrp_vip_key_t)] = {};
  vrrp_make_assoc_key(key_bytes, record.ifindex, record.vr_id, record.inet_addr);
  if (delete_record(self, table, key_bytes, sizeof key_bytes)) {
    VRRP_TRACE(self.side, self.name, "Deleted PSS VIP record : VR %d, interface 0x%x\n",
               record.vr_id, record.ifindex);
  }
}

} // namespace

syserr_t vrrp_delete_records(const vrrp_routine_t &self, pss_service_t table, size_t vr_size) {
  uint32 global = vrrp_global_key;
  const pss_datum_t global_key = datum_of(&global, sizeof global);
  if (pss_delete(table, &global_key) != SYSERR_SUCCESS) {
    VRRP_TRACE(self.side, self.name, "Failed to delete global info\n");
  } else {
    VRRP_TRACE(self.side, self.name, "Deleted global info\n");
  }
  vrrp_values routers;
  int32 status = routers.get(table, VRRP_KEY_VR, vr_size);
  if (status != 0) {
    VRRP_TRACE(self.side, self.name, "Error getting PSS records in bulk; Ret = %d\n", status);
    return SYSERR_SUCCESS;
  }
  VRRP_TRACE(self.side, self.name, "Number of VR records = %d\n", routers.count());
  for (int32 i = 0; i < routers.count(); ++i) {
    delete_vr_record(self, table, routers.slot(i));
  }
  // QUIRK: VIP values are stepped through 53 bytes at a time although 33 are stored; only the key
  // fields are used. Pinned by vrrp_table_test, slots_are_value_size_apart_and_zero_filled.
  vrrp_values addresses;
  status = addresses.get(table, VRRP_KEY_VIP, sizeof(vrrp_ip_assoc_record_t));
  if (status != 0) {
    VRRP_TRACE(self.side, self.name, "Error getting PSS records in bulk; Ret = %d\n", status);
    return static_cast<syserr_t>(status);
  }
  VRRP_TRACE(self.side, self.name, "Number of VIP records = %d\n", addresses.count());
  for (int32 i = 0; i < addresses.count(); ++i) {
    delete_vip_record(self, table, addresses.slot(i));
  }
  return SYSERR_SUCCESS;
}

syserr_t vrrp_store_global_info(pss_service_t table, uint32 flag) {
  uint32 global = vrrp_global_key;
  vrrp_pss_global_info_t info = {};
  info.vrrp_enabled = 1;
  const pss_datum_t key = datum_of(&global, sizeof global);
  const pss_datum_t value = datum_of(&info, sizeof info);
  return pss_store(table, flag, &key, &value);
}

bool vrrp_store_vr(const vrrp_routine_t &self, pss_service_t table, uint32 flag,
                   const vrrp_old_config_record_t &record, void *value, size_t size) {
  uint8 key_bytes[sizeof(vrrp_vr_key_t)] = {};
  vrrp_make_vr_key(key_bytes, VRRP_KEY_VR, record.ifindex, record.vr_id, record.addr_type);
  return store_record(self, table, flag, datum_of(key_bytes, sizeof key_bytes),
                      datum_of(value, size));
}

void vrrp_store_addresses(const vrrp_routine_t &self, pss_service_t table, uint32 flag,
                          const vrrp_values &addresses) {
  VRRP_TRACE(self.side, self.name, "Number of VIP records = %d\n", addresses.count());
  for (int32 i = 0; i < addresses.count(); ++i) {
    vrrp_old_ip_assoc_record_t record = {};
    memcpy(&record, addresses.slot(i), sizeof record);
    uint8 key_bytes[sizeof(vrrp_vip_key_t)] = {};
    vrrp_make_assoc_key(key_bytes, record.ifindex, record.vr_id, record.inet_addr);
    if (store_record(self, table, flag, datum_of(key_bytes, sizeof key_bytes),
                     datum_of(&record, sizeof record))) {
      VRRP_TRACE(self.side, self.name, "Added new IP record for VR %d on interface 0x%x\n",
                 record.vr_id, record.ifindex);
    }
  }
}
