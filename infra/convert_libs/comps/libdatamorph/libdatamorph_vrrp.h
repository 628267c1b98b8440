// What the two VRRP sources share: the records and keys that the manager and the engine store, the
// bulk get, the trace file, and the steps that both sides take.
//
// Up to 4.1 the configuration stands in the manager's saved configuration, from 4.2(1) on in the
// engine's runtime configuration, with a wider virtual-router record. The sides hand it over in a
// temporary store.
#ifndef LIBDATAMORPH_VRRP_H
#define LIBDATAMORPH_VRRP_H

#include <cstddef>
#include <ctime>

#include "libdatamorph_private.h"
#include "platform/pss.h"

// ---- Stored records ---------------------------------------------------------------------------
//
// Packed; integers in host byte order. A truth value has 4 bytes.

// The first byte of every key. The numbers are stored and never change.
enum vrrp_pss_key_type_t : uint8 {
  VRRP_KEY_VR = 1,     // virtual router
  VRRP_KEY_VIP = 2,    // address of a virtual router
  VRRP_KEY_GLOBAL = 4, // global info
  VRRP_KEY_VR_5 = 5,   // only the key builder knows it
};

enum vrrp_admin_t : uint32 { STATE_UP = 1, STATE_DOWN = 2 };
enum vrrp_auth_t : uint32 { AUTH_NO = 1, AUTH_TEXT = 2, AUTH_IP = 3 };
using intf_t = if_index_t;

struct __attribute__((packed)) vrrp_old_config_record_t { // before 4.2(1)
  if_index_t ifindex;
  uint8 vr_id;
  inet_addr_type_t addr_type;
  vrrp_admin_t admin;
  uint32 prio;
  inet_addr_t primary_ip;
  vrrp_auth_t auth;
  uint8 key[16];
  uint32 adv; // advertisement interval
  uint32 preempt;
  uint32 track_prio;
  intf_t track_intf;
  uint32 spi;
  uint32 row_status;
  uint32 owner;
};

struct __attribute__((packed)) vrrp_config_record_t { // from 4.2(1) on
  vrrp_old_config_record_t old;
  uint32 lower_threshold_prio;
  uint32 upper_threshold_prio;
  uint32 forwarding_state;
  uint8 reserved[20];
};

struct __attribute__((packed)) vrrp_old_ip_assoc_record_t { // what both sides store
  if_index_t ifindex;
  uint8 vr_id;
  inet_addr_t inet_addr;
  uint32 is_virtual; // the field is called `virtual`
  uint32 row_status;
};

struct __attribute__((packed)) vrrp_ip_assoc_record_t { // what both sides step through
  vrrp_old_ip_assoc_record_t old;
  uint8 reserved[20];
};

struct __attribute__((packed)) vrrp_pss_global_info_t { // the same in all releases
  uint8 vrrp_enabled;
  uint8 reserved[20];
};

static_assert(sizeof(inet_addr_t) == 20 && offsetof(inet_addr_t, a) == 4);
static_assert(sizeof(vrrp_old_config_record_t) == 85);
static_assert(offsetof(vrrp_old_config_record_t, ifindex) == 0);
static_assert(offsetof(vrrp_old_config_record_t, vr_id) == 4);
static_assert(offsetof(vrrp_old_config_record_t, addr_type) == 5);
static_assert(offsetof(vrrp_old_config_record_t, admin) == 9);
static_assert(offsetof(vrrp_old_config_record_t, prio) == 13);
static_assert(offsetof(vrrp_old_config_record_t, primary_ip) == 17);
static_assert(offsetof(vrrp_old_config_record_t, auth) == 37);
static_assert(offsetof(vrrp_old_config_record_t, key) == 41);
static_assert(offsetof(vrrp_old_config_record_t, adv) == 57);
static_assert(offsetof(vrrp_old_config_record_t, preempt) == 61);
static_assert(offsetof(vrrp_old_config_record_t, track_prio) == 65);
static_assert(offsetof(vrrp_old_config_record_t, track_intf) == 69);
static_assert(offsetof(vrrp_old_config_record_t, spi) == 73);
static_assert(offsetof(vrrp_old_config_record_t, row_status) == 77);
static_assert(offsetof(vrrp_old_config_record_t, owner) == 81);
static_assert(sizeof(vrrp_config_record_t) == 117);
static_assert(offsetof(vrrp_config_record_t, old) == 0);
static_assert(offsetof(vrrp_config_record_t, lower_threshold_prio) == 85);
static_assert(offsetof(vrrp_config_record_t, upper_threshold_prio) == 89);
static_assert(offsetof(vrrp_config_record_t, forwarding_state) == 93);
static_assert(offsetof(vrrp_config_record_t, reserved) == 97);
static_assert(sizeof(vrrp_old_ip_assoc_record_t) == 33);
static_assert(offsetof(vrrp_old_ip_assoc_record_t, ifindex) == 0);
static_assert(offsetof(vrrp_old_ip_assoc_record_t, vr_id) == 4);
static_assert(offsetof(vrrp_old_ip_assoc_record_t, inet_addr) == 5);
static_assert(offsetof(vrrp_old_ip_assoc_record_t, is_virtual) == 25);
static_assert(offsetof(vrrp_old_ip_assoc_record_t, row_status) == 29);
static_assert(sizeof(vrrp_ip_assoc_record_t) == 53);
static_assert(offsetof(vrrp_ip_assoc_record_t, reserved) == 33);
static_assert(sizeof(vrrp_pss_global_info_t) == 21);
static_assert(offsetof(vrrp_pss_global_info_t, reserved) == 1);

// What a value must hold for its key to be built from it.
inline constexpr uint32 vrrp_vr_key_fields = offsetof(vrrp_old_config_record_t, admin);
inline constexpr uint32 vrrp_vip_key_fields = offsetof(vrrp_old_ip_assoc_record_t, is_virtual);
static_assert(vrrp_vr_key_fields == 9 && vrrp_vip_key_fields == 25);

// ---- Keys -------------------------------------------------------------------------------------

struct __attribute__((packed)) vrrp_vr_key_t {
  uint8 key_type;
  uint32 addr_type; // big-endian
  uint8 vr_id;
  uint32 ifindex; // as hton_if_index gives it
};
struct __attribute__((packed)) vrrp_vip_key_t {
  uint8 key_type;
  uint32 addr_type; // big-endian
  uint8 vr_id;
  uint32 ifindex; // as hton_if_index gives it
  uint8 address[16];
};
inline constexpr uint32 vrrp_global_key = VRRP_KEY_GLOBAL; // host byte order

static_assert(sizeof(vrrp_vr_key_t) == 10);
static_assert(offsetof(vrrp_vr_key_t, addr_type) == 1);
static_assert(offsetof(vrrp_vr_key_t, vr_id) == 5);
static_assert(offsetof(vrrp_vr_key_t, ifindex) == 6);
static_assert(sizeof(vrrp_vip_key_t) == 26);
static_assert(offsetof(vrrp_vip_key_t, addr_type) == 1);
static_assert(offsetof(vrrp_vip_key_t, vr_id) == 5);
static_assert(offsetof(vrrp_vip_key_t, ifindex) == 6);
static_assert(offsetof(vrrp_vip_key_t, address) == 10);

void vrrp_make_vr_key(uint8 *key, uint8 key_type, if_index_t ifindex, uint8 vr_id,
                      inet_addr_type_t addr_type);
void vrrp_make_assoc_key(uint8 *key, if_index_t ifindex, uint8 vr_id, const inet_addr_t &inet_addr);

// ---- Bulk get ---------------------------------------------------------------------------------

int32 vrrp_get_table(pss_service_t table, uint8 key_type, void **value_array, int32 *num_values,
                     int32 value_size);

// The values of one key type, as the bulk get gives them; freed at the end.
class vrrp_values {
public:
  vrrp_values() = default;
  ~vrrp_values();
  vrrp_values(const vrrp_values &) = delete;
  vrrp_values &operator=(const vrrp_values &) = delete;

  int32 get(pss_service_t table, uint8 key_type, size_t value_size);
  int32 count() const { return count_; }
  // A slot of the value size; copied from, never cast to a record.
  const uint8 *slot(int32 at) const;

private:
  void *values_ = nullptr;
  int32 count_ = 0;
  size_t value_size_ = 0;
};

// ---- Trace files ------------------------------------------------------------------------------

// The trace file of one side. It is written to only when it existed at the first startup
// conversion; it is never created and never closed.
struct vrrp_side_t {
  const char *trace_file;
  int trace_fd; // -1: none
  char debug_str[1000];
  time_t tstamp;
};

extern vrrp_side_t vrrp_mgr_side; // mgr_trace_fd, mgr_debug_str, mgr_tstamp
extern vrrp_side_t vrrp_eng_side; // eng_trace_fd, eng_debug_str, eng_tstamp

// Opens the file unless that was done before.
void vrrp_open_trace(vrrp_side_t &side);

// One message, with the time, the routine and the line in front, synced. errno is left as it was.
#define VRRP_TRACE(side, routine, ...) vrrp_trace(side, routine, __LINE__, __VA_ARGS__)

void vrrp_trace(vrrp_side_t &side, const char *routine, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// ---- What both sides do -----------------------------------------------------------------------

inline constexpr char vrrp_temporary_startup[] = "nonvolatile:/tmp/vrrp-startup-pss";
inline constexpr char vrrp_temporary_other[] = "nonvolatile:/tmp/vrrp-pss";
inline constexpr uint8 vrrp_startup_conversion = 1; // conversion type
inline constexpr uint8 vrrp_upgrade = 1;            // flag or id of a conversion
inline constexpr uint8 vrrp_downgrade = 2;
inline constexpr size_t vrrp_path_size = 256;
inline constexpr size_t vrrp_vdc_string_size = 8;

// A conversion routine of one side as the log's reader knows it.
struct vrrp_routine_t {
  vrrp_side_t &side;
  const char *name;
};

// The startup conversion of a side: its generic one (vrrp_handle_generic_convert or the engine's)
// in the directory "bin" of `path`, which is cut so that this always fits. -1 without a path.
syserr_t vrrp_convert_startup(decltype(&vrrp_handle_generic_convert) convert, const char *path,
                              const char *pkg_name, const char *to_ver, const char *from_ver,
                              uint8 flag);

// The VDC of a path and the first 8 characters behind "/vdc_"; VDC 1 and no text without "/vdc_".
// 0x401E0076, traced, for a "/vdc_" without a number.
struct vrrp_vdc_t {
  vdc_id_t id;
  bool named; // by the path
  char string[vrrp_vdc_string_size + 1];
};
syserr_t vrrp_read_vdc(const vrrp_routine_t &self, const char *path, vrrp_vdc_t *vdc);

// A temporary store's URI: `base`, and behind it at most 8 characters of vdc_string.
void vrrp_temporary_uri(const char *base, const char *vdc_string, char (&uri)[vrrp_path_size]);

// The comparisons of a change of release with 4.2(1). False, traced, when there is nothing to
// convert or a release is missing.
struct vrrp_change_t {
  bool up;   // leaves a release older than 4.2(1)
  bool down; // goes to a release older than 4.2(1)
};
bool vrrp_read_change(const vrrp_routine_t &self, const char *to_ver, const char *from_ver,
                      vrrp_change_t *change);

// Deletes the VR, VIP and global info records of a side that gives them away. `vr_size` is the size
// of a VR record there. The status of a failed read of the VIP records; every other failure is only
// traced.
syserr_t vrrp_delete_records(const vrrp_routine_t &self, pss_service_t table, size_t vr_size);

// Stores of a side that takes the records over; `flag` is pss_store's. The VR record is keyed by
// its first fields; `value` is what is stored under it: false, traced, when that failed. The VIP
// records go in one after the other, and failures of single ones are only traced.
syserr_t vrrp_store_global_info(pss_service_t table, uint32 flag);
bool vrrp_store_vr(const vrrp_routine_t &self, pss_service_t table, uint32 flag,
                   const vrrp_old_config_record_t &record, void *value, size_t size);
void vrrp_store_addresses(const vrrp_routine_t &self, pss_service_t table, uint32 flag,
                          const vrrp_values &addresses);

#endif
