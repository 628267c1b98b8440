// The Ethernet port manager (SRVUUID_TEST_ETHPM) across release 4.2(0): the port-state reasons in
// its runtime records change their numbers, and its configuration TLV records, which older and
// newer software do not share, are deleted. Stores: "ethpm_runtime_info" and "ethpm_runtime_cfg" at
// the global synchronisation, "bin/ethpm_saved_config" at the startup moment.

#include "libdatamorph_ethpm.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libdatamorph_private.h"
#include "libdatamorph_walk.h"
#include "platform/pss2.h"
#include "platform/tlv_array.h"

// ---- Records -----------------------------------------------------------------------------------

namespace {

// Release at which the numbers and the keys changed.
constexpr char k_changed_release[] = "4.2(0)";

// Keys: type, subtype, interface index (big-endian). The numbers are stored and never change.
constexpr uint8 k_key_config_tlv = 0x65;
constexpr uint8 k_key_runtime = 0x33;
enum ethpm_pss_key_subtype_t : uint8 {
  ETHPM_ETHPORT_RUNTIME_INFO = 6,
  ETHPM_ETHPORT_CONFIG_TLV_INFO = 20,
  ETHPM_ETHPORT_SI_CONFIG_TLV_INFO = 21,
};
constexpr uint32 k_shortest_key = 6;

constexpr uint32 k_read_write = 3; // mode of an open store

// Where a runtime record's value, which starts with a tlv_t, has the reason of the port's state.
constexpr uint32 k_oper_state_reason = 13;
static_assert(k_oper_state_reason >= sizeof(tlv_t), "within the TLV's value");

// ---- Port-state reasons ------------------------------------------------------------------------

constexpr uint32 k_reasons = 256;

// The old numbers first to last become the new ones from `becomes` on.
struct reason_range_t {
  uint32 first;
  uint32 last;
  uint32 becomes;
};

// QUIRK: the tables are no inverses of each other: 145 and 220 go up as they are, but come down as
// 126 and 166; 142 and 150 come down as they are.
// Pinned by ethpm_test, the_tables_are_no_exact_inverses.
constexpr reason_range_t k_upgrade_ranges[] = {
    {124, 127, 143}, {128, 141, 125}, {142, 144, 147}, {146, 148, 151},
    {149, 161, 154}, {162, 162, 124}, {163, 165, 139}, {166, 166, 220},
};
constexpr reason_range_t k_downgrade_ranges[] = {
    {124, 124, 162}, {125, 138, 128}, {139, 141, 163}, {143, 143, 124},
    {144, 146, 125}, {147, 149, 142}, {151, 166, 146}, {220, 220, 166},
};

template <size_t count> constexpr bool is_table(const reason_range_t (&ranges)[count]) {
  uint32 free_from = 0;
  for (const reason_range_t &range : ranges) {
    const bool in_order = range.first >= free_from && range.last >= range.first;
    const bool in_range =
        range.last < k_reasons && range.becomes + (range.last - range.first) < k_reasons;
    if (!in_order || !in_range) {
      return false;
    }
    free_from = range.last + 1;
  }
  return true;
}
static_assert(is_table(k_upgrade_ranges) && is_table(k_downgrade_ranges),
              "ranges rise, are disjoint, and stay within the table");

template <size_t count>
void fill_table(uint32 (&table)[k_reasons], const reason_range_t (&ranges)[count]) {
  for (uint32 reason = 0; reason < k_reasons; ++reason) {
    table[reason] = reason;
  }
  for (const reason_range_t &range : ranges) {
    for (uint32 reason = range.first; reason <= range.last; ++reason) {
      table[reason] = range.becomes + (reason - range.first);
    }
  }
}

} // namespace

uint32 upgrade_port_state_reason_table[k_reasons];
uint32 downgrade_port_state_reason_table[k_reasons];

void ethpm_init_port_state_reason_tables(void) {
  fill_table(upgrade_port_state_reason_table, k_upgrade_ranges);
  fill_table(downgrade_port_state_reason_table, k_downgrade_ranges);
}

// ---- The walk in progress ----------------------------------------------------------------------

namespace {

pss2_service_t pss_info;                  // the store being walked
ethpm_pss_type_t *g_current_convert_list; // the list and the request being applied
uint32 g_current_convert_entry;

} // namespace

ethpm_issu_transition_t ethpm_get_issu_transition(void) {
  return g_current_convert_list != nullptr
             ? g_current_convert_list[g_current_convert_entry].transition
             : ETHPM_TR_NOCHANGE;
}

ethpm_pss_action_t ethpm_get_pss_action(void) {
  return g_current_convert_list != nullptr
             ? g_current_convert_list[g_current_convert_entry].pss_action
             : ETHPM_PSS_NOCHANGE;
}

// ---- Hooks: version checks ---------------------------------------------------------------------

namespace {

int compare(const char *one, const char *other) {
  syserr_t error = SYSERR_SUCCESS;
  return datamorph_compare_versions(one, other, &error);
}

bool ethpm_chk_ver_delete_config_tlv_key(const char *to_ver, const char *from_ver,
                                         ethpm_issu_transition_t *transition,
                                         ethpm_pss_action_t *pss_action) {
  if (to_ver == nullptr || from_ver == nullptr || transition == nullptr || pss_action == nullptr ||
      compare(to_ver, from_ver) == 0) {
    return false;
  }
  const int f_comp = compare(k_changed_release, from_ver);
  const int t_comp = compare(k_changed_release, to_ver);
  DATAMORPH_TRACE("ETHPM:From version - %d and To version - %d \n", f_comp, t_comp);
  if (f_comp <= 0 && t_comp > 0) {
    *transition = ETHPM_TR_DOWNGRADE;
  } else if (f_comp > 0 && t_comp <= 0) {
    *transition = ETHPM_TR_UPGRADE;
  } else {
    return false;
  }
  *pss_action = ETHPM_PSS_DELETE;
  return true;
}

bool ethpm_chk_ver_fix_port_state_reasons(const char *to_ver, const char *from_ver,
                                          ethpm_issu_transition_t *transition,
                                          ethpm_pss_action_t *pss_action) {
  if (to_ver == nullptr || from_ver == nullptr || transition == nullptr || pss_action == nullptr ||
      compare(to_ver, from_ver) == 0) {
    return false;
  }
  // QUIRK: "to;". The log's wording is a contract, here and in the walk.
  // Pinned by ethpm_test, an_upgrade_of_both_stores.
  DATAMORPH_TRACE("Fixing port state reasons for versions (from:%s, to;%s)\n", from_ver, to_ver);
  const int f_comp = compare(k_changed_release, from_ver);
  const int t_comp = compare(k_changed_release, to_ver);
  if ((f_comp <= 0 && t_comp <= 0) || f_comp == t_comp) {
    return false;
  }
  *transition = compare(from_ver, to_ver) < 0 ? ETHPM_TR_UPGRADE : ETHPM_TR_DOWNGRADE;
  *pss_action = ETHPM_PSS_UPDATE;
  return true;
}

// ---- Hooks: key matchers -----------------------------------------------------------------------

// Whether a key is of this type. Its interface index goes out then, whatever its subtype.
bool has_type(const pss_datum_t *key, uint8 type, void *if_index) {
  if (!datamorph_is_readable(key) || key->siz < k_shortest_key || if_index == nullptr) {
    return false;
  }
  const auto *bytes = static_cast<const uint8 *>(key->ptr);
  if (bytes[0] != type) {
    return false;
  }
  uint32 stored = 0;
  memcpy(&stored, bytes + 2, sizeof stored);
  const if_index_t found = ntohl(stored);
  memcpy(if_index, &found, sizeof found);
  return true;
}

uint8 subtype_of(const pss_datum_t *key) {
  return static_cast<const uint8 *>(key->ptr)[1];
}

bool ethpm_is_key_interface_runtime_info(const pss_datum_t *p_key, void *if_index, uint32 *len) {
  if (len == nullptr || !has_type(p_key, k_key_runtime, if_index) ||
      subtype_of(p_key) != ETHPM_ETHPORT_RUNTIME_INFO) {
    return false;
  }
  *len = sizeof(if_index_t);
  return true;
}

bool ethpm_is_key_interface_config_tlv_info(const pss_datum_t *p_key, void *if_index, uint32 *len) {
  if (len == nullptr || !has_type(p_key, k_key_config_tlv, if_index)) {
    return false;
  }
  const uint8 subtype = subtype_of(p_key);
  if (subtype != ETHPM_ETHPORT_CONFIG_TLV_INFO && subtype != ETHPM_ETHPORT_SI_CONFIG_TLV_INFO) {
    return false;
  }
  *len = sizeof(if_index_t);
  return true;
}

// ---- Hooks: value changes ----------------------------------------------------------------------

void free_copy(pss_datum_t *copy) {
  if (copy != nullptr) {
    free(copy->ptr);
    free(copy);
  }
}

// Null when there is no memory.
pss_datum_t *copy_of(const pss_datum_t *datum) {
  auto *copy = static_cast<pss_datum_t *>(malloc(sizeof(pss_datum_t)));
  if (copy == nullptr) {
    return nullptr;
  }
  *copy = {malloc(datum->siz > 0 ? datum->siz : 1), datum->siz};
  if (copy->ptr == nullptr) {
    free(copy);
    return nullptr;
  }
  memcpy(copy->ptr, datum->ptr, datum->siz);
  return copy;
}

// Whether the value is to be written back: it has a reason, and one that changes.
bool renumber(pss_datum_t *value) {
  const uint32 *table = nullptr;
  switch (ethpm_get_issu_transition()) {
  case ETHPM_TR_UPGRADE:
    table = upgrade_port_state_reason_table;
    break;
  case ETHPM_TR_DOWNGRADE:
    table = downgrade_port_state_reason_table;
    break;
  default:
    return true;
  }
  if (value->siz <= k_oper_state_reason) {
    return false;
  }
  uint8 *reason = static_cast<uint8 *>(value->ptr) + k_oper_state_reason;
  const uint32 changed = table[*reason];
  if (changed == *reason) {
    return false;
  }
  *reason = static_cast<uint8>(changed);
  return true;
}

bool ethpm_update_port_state_reason(const pss_datum_t *p_key, const pss_datum_t *p_data,
                                    pss_datum_t **p_wkey, pss_datum_t **p_wdatum) {
  if (!datamorph_is_readable(p_key) || !datamorph_is_readable(p_data) || p_wkey == nullptr ||
      p_wdatum == nullptr) {
    return false;
  }
  pss_datum_t *key = copy_of(p_key);
  pss_datum_t *value = copy_of(p_data);
  if (key == nullptr || value == nullptr || !renumber(value)) {
    free_copy(key);
    free_copy(value);
    return false;
  }
  *p_wkey = key;
  *p_wdatum = value;
  return true;
}

bool ethpm_dummy_update(const pss_datum_t *p_key, const pss_datum_t *p_data, pss_datum_t **p_wkey,
                        pss_datum_t **p_wdatum) {
  if (p_key == nullptr || p_data == nullptr || p_wkey == nullptr || p_wdatum == nullptr) {
    return false;
  }
  // The hooks' types hand the given datums on as they are.
  *p_wkey = const_cast<pss_datum_t *>(p_key);
  *p_wdatum = const_cast<pss_datum_t *>(p_data);
  return true;
}

// ---- Hooks: write back -------------------------------------------------------------------------

void ethpm_update_value_in_pss(const pss_datum_t *p_key, const pss_datum_t *p_datum) {
  if (p_key != nullptr && p_datum != nullptr) {
    pss2_store(pss_info, p_key, p_datum);
  }
}

void ethpm_delete_key_in_pss(const pss_datum_t *p_key, const pss_datum_t * /*p_datum*/) {
  if (p_key != nullptr) {
    pss2_delete(pss_info, p_key, 1);
  }
}

} // namespace

// ---- Lists -------------------------------------------------------------------------------------

// QUIRK: the lists live as long as the process, and an accepted request stays marked: a list with
// several requests would apply it again whenever another one is accepted.
// Pinned by ethpm_walk_test, an_accepted_request_stays_marked.
ethpm_pss_type_t ethpm_convert_runtime_pss_list[1] = {
    {"Port state reason modification", false, ETHPM_TR_NOCHANGE, ETHPM_PSS_NOCHANGE,
     ethpm_chk_ver_fix_port_state_reasons, ethpm_is_key_interface_runtime_info,
     ethpm_update_port_state_reason, ethpm_update_value_in_pss},
};

ethpm_pss_type_t ethpm_convert_config_tlv_pss_list[1] = {
    {"Delete config tlv pss key", false, ETHPM_TR_NOCHANGE, ETHPM_PSS_NOCHANGE,
     ethpm_chk_ver_delete_config_tlv_key, ethpm_is_key_interface_config_tlv_info,
     ethpm_dummy_update, ethpm_delete_key_in_pss},
};

namespace {

// In the order in which they are converted.
constexpr ethpm_pss_change_list_info_t k_gsync_stores[] = {
    {"ethpm_runtime_info", ethpm_convert_runtime_pss_list, 1},
    {"ethpm_runtime_cfg", ethpm_convert_config_tlv_pss_list, 1},
};
constexpr ethpm_pss_change_list_info_t k_startup_stores[] = {
    {"ethpm_saved_config", ethpm_convert_config_tlv_pss_list, 1},
};

// ---- The walk ----------------------------------------------------------------------------------

// Marks the requests that apply. Whether there are any.
bool select_requests(const char *to_ver, const char *from_ver, ethpm_pss_type_t *list,
                     size_t list_num) {
  bool abort = true;
  for (size_t i = 0; i < list_num; ++i) {
    g_current_convert_list = list;
    g_current_convert_entry = static_cast<uint32>(i);
    ethpm_issu_transition_t transition = ETHPM_TR_NOCHANGE;
    ethpm_pss_action_t action = ETHPM_PSS_NOCHANGE;
    if (list[i].ethpm_fn_ver_chk(to_ver, from_ver, &transition, &action)) {
      list[i].b_version_chk = true;
      list[i].transition = transition;
      list[i].pss_action = action;
      abort = false;
    }
    DATAMORPH_TRACE("Change Request :%s,  b_version_chk:%d, transition:%d pss_action : %d "
                    "(from:%s, to;%s)\n",
                    list[i].change_request_name, list[i].b_version_chk, list[i].transition,
                    list[i].pss_action, from_ver, to_ver);
  }
  return !abort;
}

// The key under the cursor; null when it cannot be read.
const pss_datum_t *key_at_cursor() {
  syserr_t status = SYSERR_SUCCESS;
  const pss_datum_t *key = pss2_getkey(pss_info, &status);
  return status == SYSERR_SUCCESS && datamorph_is_readable(key) ? key : nullptr;
}

const pss_datum_t *next_key() {
  syserr_t call_status = SYSERR_SUCCESS;
  syserr_t location_status = SYSERR_SUCCESS;
  return datamorph_move_cursor(&pss_info, PSS_NEXT_KEY, &call_status, &location_status)
             ? key_at_cursor()
             : nullptr;
}

const pss_datum_t *first_key() {
  syserr_t call_status = SYSERR_SUCCESS;
  syserr_t location_status = SYSERR_SUCCESS;
  if (!datamorph_move_cursor(&pss_info, PSS_FIRST_KEY, &call_status, &location_status)) {
    DATAMORPH_TRACE("Could not find the first key in the runtime info pss:0x%x, 0x%x\n",
                    call_status, location_status);
    return nullptr;
  }
  syserr_t status = SYSERR_SUCCESS;
  const pss_datum_t *key = pss2_getkey(pss_info, &status);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("Could not get the first key in the runtime info pss:0x%x\n", status);
    return nullptr;
  }
  return datamorph_is_readable(key) ? key : nullptr;
}

// Changes and writes back one record for the current request.
void apply_request(const ethpm_pss_type_t &request, const pss_datum_t *key,
                   const pss_datum_t *value) {
  pss_datum_t *wkey = nullptr;
  pss_datum_t *wdata = nullptr;
  if (!request.ethpm_change_pss_value(key, value, &wkey, &wdata)) {
    return;
  }
  request.ethpm_write_pss_value(wkey, wdata);
  if (wkey != key) {
    free_copy(wkey);
  }
  if (wdata != value) {
    free_copy(wdata);
  }
}

// Applies the marked requests to a record. Whether one that deletes took it, which ends its
// handling: the cursor stands on the following record then.
bool handle_key(const pss_datum_t *key, ethpm_pss_type_t *list, size_t list_num) {
  const pss_datum_t *value = nullptr;
  for (size_t i = 0; i < list_num; ++i) {
    if (!list[i].b_version_chk) {
      continue;
    }
    g_current_convert_entry = static_cast<uint32>(i);
    if_index_t if_index = 0;
    uint32 length = 0;
    if (!list[i].ethpm_is_pss_key_found(key, &if_index, &length)) {
      continue;
    }
    if (value == nullptr) {
      syserr_t status = SYSERR_SUCCESS;
      value = pss2_getvalue(pss_info, &status);
      if (status != SYSERR_SUCCESS || !datamorph_is_readable(value)) {
        value = nullptr;
        continue;
      }
    }
    apply_request(list[i], key, value);
    if (list[i].pss_action == ETHPM_PSS_DELETE) {
      return true;
    }
  }
  return false;
}

// The key after one that was handled. A cursor that stays where it is ends the walk: a reason that
// is renumbered twice is another one.
const pss_datum_t *key_after(const datamorph_kept_key &handled) {
  const pss_datum_t *key = next_key();
  return key != nullptr && handled.equals(*key) ? nullptr : key;
}

// The key after one that was to be deleted. Where the deletion failed, that is the key after it.
const pss_datum_t *key_after_deletion(const datamorph_kept_key &deleted) {
  const pss_datum_t *key = key_at_cursor();
  return key != nullptr && deleted.equals(*key) ? key_after(deleted) : key;
}

void walk(ethpm_pss_type_t *list, size_t list_num) {
  datamorph_circle_guard circle;
  datamorph_kept_key current;
  const pss_datum_t *key = first_key();
  while (key != nullptr && !circle.has_met(*key) && current.keep(*key)) {
    key = handle_key(key, list, list_num) ? key_after_deletion(current) : key_after(current);
  }
}

} // namespace

void ethpm_update_pss_list(const char *to_ver, const char *from_ver, const char *full_pss_uri,
                           ethpm_pss_type_t *pss_change_list, size_t list_num) {
  syserr_t status = SYSERR_SUCCESS;
  pss_info = pss2_open(full_pss_uri, k_read_write, SRVUUID_NONE, 0, 0, &status);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("pss uri: %s does not exist 0x%x\n", full_pss_uri, status);
    return;
  }
  if (select_requests(to_ver, from_ver, pss_change_list, list_num)) {
    walk(pss_change_list, list_num);
  } else {
    DATAMORPH_TRACE("Nothing to fix for versions (from:%s, to;%s)\n", from_ver, to_ver);
  }
  pss2_close(pss_info);
}

// ---- Converters --------------------------------------------------------------------------------

namespace {

// Whether all four are there; traced when not.
bool has_arguments(const char *path, const char *pkg_name, const char *to_ver,
                   const char *from_ver) {
  const bool all =
      path != nullptr && pkg_name != nullptr && to_ver != nullptr && from_ver != nullptr;
  if (!all) {
    DATAMORPH_TRACE("Invalid arguments\n");
  }
  return all;
}

} // namespace

syserr_t ethpm_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                                const char *from_ver) {
  if (!has_arguments(path, pkg_name, to_ver, from_ver)) {
    return SYSERR_FAILED;
  }
  ethpm_init_port_state_reason_tables();
  for (const ethpm_pss_change_list_info_t &store : k_gsync_stores) {
    char uri[256] = {};
    snprintf(uri, sizeof uri, "%s:%s/%s", "nonvolatile", path, store.pss_name);
    DATAMORPH_TRACE("Ethpm pss uri: %s\n", uri);
    DATAMORPH_TRACE("Ethpm: Begin PSS conversion \n");
    ethpm_update_pss_list(to_ver, from_ver, uri, store.pss_list_type, store.pss_list_len);
    DATAMORPH_TRACE("Ethpm: End PSS conversion \n");
  }
  return SYSERR_SUCCESS;
}

syserr_t ethpm_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                  const char *from_ver) {
  if (!has_arguments(path, pkg_name, to_ver, from_ver)) {
    return SYSERR_FAILED;
  }
  DATAMORPH_TRACE("Ethpm - Path - %s \n", path);
  for (const ethpm_pss_change_list_info_t &store : k_startup_stores) {
    char uri[256] = {};
    snprintf(uri, sizeof uri, "%s:%s/bin/%s", "nonvolatile", path, store.pss_name);
    DATAMORPH_TRACE("Ethpm pss uri: %s\n", uri);
    ethpm_update_pss_list(to_ver, from_ver, uri, store.pss_list_type, store.pss_list_len);
  }
  return SYSERR_SUCCESS;
}
