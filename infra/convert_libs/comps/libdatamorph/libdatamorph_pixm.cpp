// The port index manager (SRVUUID_PIXM): what releases 4.1(3) and 4.2(3) changed in its store
// "pixm_runtime_info" is undone when the switch goes down below them, at the global
// synchronisation.

#include "libdatamorph_pixm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libdatamorph_private.h"
#include "libdatamorph_walk.h"
#include "platform/pss2.h"
#include "platform/tlv_array.h"

// ---- Records -----------------------------------------------------------------------------------

namespace {

constexpr uint32 k_key_size = 7;
constexpr uint8 k_ltl_key = 0x36;  // type of a forwarding index' key
constexpr uint8 k_duag_key = 0x3A; // type of a multichassis cache key

// A forwarding index' key: type, LTL number and VDC, both big-endian; the VDC is always 1.
struct pixm_ltl_key_t {
  uint8 bytes[k_key_size];
};

constexpr pixm_ltl_key_t ltl_key(uint32 ltl) {
  return {{k_ltl_key, static_cast<uint8>(ltl >> 24), static_cast<uint8>(ltl >> 16),
           static_cast<uint8>(ltl >> 8), static_cast<uint8>(ltl), 0, 1}};
}

// The value's TLV of this type holds the callback record, whose byte 4 tells the generation.
constexpr uint16 k_callback_tlv = 2;
constexpr size_t k_ltl_type = 4;
constexpr uint8 k_ltl_type_q8 = 253;

constexpr uint32 k_tlv_version = 1;
constexpr uint32 k_read_write = 3; // mode of an open store
constexpr size_t k_uri_size = 255;
constexpr size_t k_text_size = 255;

// The LTL numbers of Q8: from 4.1(3) on four for each slot, before that one for each fourth.
constexpr uint32 k_first_ltl = 0x10DA;
constexpr uint32 k_last_ltl = 0x1121;
constexpr uint32 k_first_ltl_for_4_0 = 0x1162;
constexpr uint32 k_ltls_of_a_slot = 4;
static_assert(k_last_ltl - k_first_ltl == 71);

// ---- Legs --------------------------------------------------------------------------------------

using pixm_upg_convert_fn_t = syserr_t (*)(const char *path);

struct pixm_upg_convert_t {
  char to_ver[255];
  char from_ver[255];
  char description[255];
  pixm_upg_convert_fn_t pss_fn;
};

syserr_t pixm_check_and_convert_pss_for_40(const char *path);
syserr_t pixm_check_and_convert_pss_for_423(const char *path);

// Taken from from_ver or newer to a release before to_ver, in this order.
// QUIRK: the descriptions say "<=", but a target that is to_ver itself is not converted.
// Pinned by pixm_test, which_legs_are_taken.
constexpr pixm_upg_convert_t pixm_upg_opers[] = {
    {"4.1(2)", "4.1(3)", "Q8_Downgrades From: =>4.1.3 --> To: <=4.1.2",
     pixm_check_and_convert_pss_for_40},
    {"4.2(2)", "4.2(3)", "DUAG Cache Cleanup From: =>4.2.3 --> To: <=4.2.2",
     pixm_check_and_convert_pss_for_423},
};

} // namespace

syserr_t pixm_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                               const char *from_ver) {
  if (path == nullptr || pkg_name == nullptr || to_ver == nullptr || from_ver == nullptr) {
    DATAMORPH_TRACE("Invalid arguments\n");
    return SYSERR_FAILED;
  }
  DATAMORPH_TRACE("FROM %s TO %s Num %d\n", from_ver, to_ver,
                  static_cast<int>(sizeof pixm_upg_opers / sizeof *pixm_upg_opers));
  for (const pixm_upg_convert_t &leg : pixm_upg_opers) {
    int to_comp = 0;
    int from_comp = 0;
    syserr_t status =
        pixm_compare_img_ver(to_ver, from_ver, leg.to_ver, leg.from_ver, &to_comp, &from_comp);
    if (status != SYSERR_SUCCESS) {
      DATAMORPH_TRACE("Error: 0x%x in pixm_compare_img_ver\n", status);
      continue;
    }
    if (from_comp < 0 || to_comp < 1) {
      DATAMORPH_TRACE("ISSU Leg %s: No issu conversion reqd from %s to %s\n", leg.description,
                      from_ver, to_ver);
      continue;
    }
    DATAMORPH_TRACE("ISSU Leg %s: issu conversion required from %s to %s\n", leg.description,
                    from_ver, to_ver);
    status = leg.pss_fn(path);
    if (status != SYSERR_SUCCESS) {
      DATAMORPH_TRACE("check and convert pss failure 0x%x\n", status);
    }
  }
  return SYSERR_SUCCESS;
}

syserr_t pixm_compare_img_ver(const char *to_ver, const char *from_ver, const char *to_ref,
                              const char *from_ref, int *to_comp, int *from_comp) {
  DATAMORPH_TRACE("To_ver: %s From_ver: %s To_ref: %s From_ref:%s\n", datamorph_text(to_ver),
                  datamorph_text(from_ver), datamorph_text(to_ref), datamorph_text(from_ref));
  if (to_comp == nullptr || from_comp == nullptr) {
    return SYSERR_FAILED;
  }
  syserr_t errcode = SYSERR_SUCCESS;
  // QUIRK: the two comparisons stand in opposite orders, and an error of the first is forgotten
  // when the second succeeds. Pinned by pixm_test, compare_img_ver and
  // an_error_of_the_first_comparison_is_only_traced.
  *from_comp = datamorph_compare_versions(from_ver, from_ref, &errcode);
  if (errcode != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("Error: 0x%x from_comp:%d from_ver:%s from_ref:%s\n", errcode, *from_comp,
                    datamorph_text(from_ver), datamorph_text(from_ref));
  }
  *to_comp = datamorph_compare_versions(to_ref, to_ver, &errcode);
  if (errcode != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("Error: 0x%x to_comp:%d to_ver:%s to_ref:%s\n", errcode, *to_comp,
                    datamorph_text(to_ver), datamorph_text(to_ref));
  }
  DATAMORPH_TRACE("Compare return from_ver:%s from_ref: %s : from_comp: %d\n",
                  datamorph_text(from_ver), datamorph_text(from_ref), *from_comp);
  DATAMORPH_TRACE("Compare return to_ref:%s to_ver: %s : to_comp: %d\n", datamorph_text(to_ref),
                  datamorph_text(to_ver), *to_comp);
  return errcode;
}

syserr_t pixm_print_pss_key(const char *str, const uint8 *key_data) {
  if (str == nullptr || key_data == nullptr) {
    return SYSERR_FAILED;
  }
  char text[k_text_size] = {};
  snprintf(text, sizeof text, "%s = 0x %x %x %x %x %x %x %x", str, key_data[0], key_data[1],
           key_data[2], key_data[3], key_data[4], key_data[5], key_data[6]);
  // QUIRK: a line end on standard error, none in the log, where the next prefix follows.
  // Pinned by pixm_test, print_pss_key.
  datamorph_trace_line_apart(text);
  return SYSERR_SUCCESS;
}

// ---- Renumbering of Q8 -------------------------------------------------------------------------

namespace {

void store_uri(const char *path, char (&uri)[k_uri_size]) {
  snprintf(uri, sizeof uri, "%s:%s/%s", "nonvolatile", path, "pixm_runtime_info");
  DATAMORPH_TRACE("pss uri: %s\n", uri);
}

// 0 in *status when it is open; traced otherwise.
pss2_service_t open_store(const char *uri, syserr_t *status) {
  *status = SYSERR_SUCCESS;
  const pss2_service_t store = pss2_open(uri, k_read_write, SRVUUID_NONE, 0, 0, status);
  if (*status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("pss uri: %s does not exist 0x%x\n", uri, *status);
  }
  return store;
}

pss_datum_t key_datum(pixm_ltl_key_t &key) {
  return {key.bytes, sizeof key.bytes};
}

bool is_q8_item(uint16 type, uint16 length, const uint8 *value) {
  return type == k_callback_tlv && length > k_ltl_type && value[k_ltl_type] == k_ltl_type_q8;
}

// Whether a stored value is a TLV array with the callback record of a Q8 forwarding index.
bool is_q8(const pss_datum_t *stored) {
  if (!datamorph_is_readable(stored) || stored->siz < TLV_ARRAY_HEADER_SIZE) {
    return false;
  }
  const auto *array = static_cast<const tlv_array_t *>(stored->ptr);
  if (tlv_array_size_get(array, k_tlv_version) > stored->siz) {
    return false;
  }
  const uint32 count = tlv_array_get_num_tlvs(array, k_tlv_version);
  uint32 cursor = 0;
  for (uint32 i = 0; i < count; ++i) {
    uint16 type = 0;
    uint16 length = 0;
    uint8 *value = nullptr;
    if (tlv_array_get_next_tlv(array, &type, &length, &value, k_tlv_version, &cursor) !=
        SYSERR_SUCCESS) {
      return false;
    }
    if (is_q8_item(type, length, value)) {
      return true;
    }
  }
  return false;
}

// The store being renumbered, and room for its largest value.
struct q8_store_t {
  pss2_service_t store;
  uint32 max_value_size;
  uint8 *buffer;
};

// Moves a record to its new key. The old one goes last, so that it is not lost between the two.
// QUIRK: of the numbers that fold onto one, the value of the highest stays.
// Pinned by pixm_test, the_highest_number_of_a_slot_wins.
void move_record(const q8_store_t &q8, uint32 ltl, const pss_datum_t &stored) {
  pixm_ltl_key_t current = ltl_key(ltl);
  const pss_datum_t old_key = key_datum(current);
  pixm_ltl_key_t changed = ltl_key(pixm_q8_ltl_for_4_0(ltl));
  const pss_datum_t new_key = key_datum(changed);
  pixm_print_pss_key("new pss-key", changed.bytes);
  DATAMORPH_TRACE("Init new-val key + data %d\n", static_cast<int>(stored.siz));
  memcpy(q8.buffer, stored.ptr, stored.siz);
  const pss_datum_t value = {q8.buffer, stored.siz};
  // QUIRK: an empty text where the key should be, here and for a record that is not of Q8.
  // Pinned by pixm_test, a_renumbered_record.
  DATAMORPH_TRACE("Saving new Q8 key to PSS %s\n", "");
  pss2_store(q8.store, &new_key, &value);
  DATAMORPH_TRACE("Deleting old key\n");
  pss2_delete(q8.store, &old_key, 1);
}

void renumber(const q8_store_t &q8, uint32 ltl) {
  pixm_ltl_key_t key = ltl_key(ltl);
  const pss_datum_t query = key_datum(key);
  pixm_print_pss_key("Query q8-pss-key", key.bytes);
  syserr_t status = SYSERR_SUCCESS;
  const pss_datum_t *stored = pss2_fetch(q8.store, &query, &status);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("ltl 0x%x fetch err 0x%x\n", ltl, status);
    return;
  }
  if (!is_q8(stored)) {
    DATAMORPH_TRACE("Error ltl-key %s is NOT QORN\n", "");
    return;
  }
  if (stored->siz > q8.max_value_size) {
    return; // more than the store allows: left alone
  }
  move_record(q8, ltl, *stored);
}

// Renumbers the records of an open store. False, traced, when that cannot be begun.
bool renumber_all(pss2_service_t store, const char *uri) {
  pss2_nonvol_params params = {};
  const syserr_t status = pss2_get_params(store, &params);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("pss uri %s: get_params err = 0x%x\n", uri, status);
    return false;
  }
  DATAMORPH_TRACE("pss uri %s: max val size %d\n", uri, static_cast<int>(params.max_value_size));
  auto *buffer =
      static_cast<uint8 *>(malloc(params.max_value_size > 0 ? params.max_value_size : 1));
  if (buffer == nullptr) {
    DATAMORPH_TRACE("pss uri %s: malloc failure = 0x%x\n", uri, 1u);
    return false;
  }
  const q8_store_t q8 = {store, params.max_value_size, buffer};
  for (uint32 ltl = k_first_ltl; ltl <= k_last_ltl; ++ltl) {
    renumber(q8, ltl);
  }
  free(buffer);
  return true;
}

syserr_t pixm_check_and_convert_pss_for_40(const char *path) {
  char uri[k_uri_size] = {};
  store_uri(path, uri);
  syserr_t status = SYSERR_SUCCESS;
  const pss2_service_t store = open_store(uri, &status);
  const bool is_open = status == SYSERR_SUCCESS;
  if (!is_open || !renumber_all(store, uri)) {
    // QUIRK: always 0, since a store that cannot be converted is no failure.
    // Pinned by pixm_test, a_renumbering_that_cannot_begin.
    DATAMORPH_TRACE("Error: status = 0x%x\n", SYSERR_SUCCESS);
  }
  if (is_open) {
    pss2_close(store);
  }
  return SYSERR_SUCCESS;
}

} // namespace

uint32 pixm_q8_ltl_for_4_0(uint32 ltl) {
  DATAMORPH_TRACE("q8_current_ltl 0x%x\n", ltl);
  const uint32 delta = ltl - k_first_ltl;
  if (delta > k_last_ltl - k_first_ltl) {
    DATAMORPH_TRACE("q8_current_ltl is not in 4.1 Range: 0x%x\n", ltl);
    return ltl;
  }
  const uint32 slot = delta / k_ltls_of_a_slot;
  DATAMORPH_TRACE("q8_current_ltl/slot in 4.1: 0x%x:%d\n", ltl, static_cast<int>(slot));
  const uint32 changed = k_first_ltl_for_4_0 + k_ltls_of_a_slot * slot;
  DATAMORPH_TRACE("q8_ltl_for_4_0_rel 0x%x\n", changed);
  return changed;
}

// ---- Cleanup of the multichassis cache ---------------------------------------------------------

namespace {

// A cache key that is deleted once the cursor has moved past it, so that the walk is not disturbed.
class pending_deletion {
public:
  explicit pending_deletion(pss2_service_t store) : store_(store) {}

  void note(const pss_datum_t &key) {
    if (key.siz == k_key_size && *static_cast<const uint8 *>(key.ptr) == k_duag_key) {
      memcpy(key_, key.ptr, k_key_size);
      pss_key_delete_ = true;
    }
  }

  void carry_out() {
    if (pss_key_delete_) {
      pixm_print_pss_key("Delete MCT-DUAG Cache pss-key", key_);
      const pss_datum_t key = {key_, k_key_size};
      pss2_delete(store_, &key, 1);
      pss_key_delete_ = false;
    }
  }

private:
  pss2_service_t store_;
  uint8 key_[k_key_size] = {};
  bool pss_key_delete_ = false;
};

void clean_up(pss2_service_t store, const pss_datum_t *key) {
  pending_deletion pending(store);
  datamorph_circle_guard circle;
  while (datamorph_is_readable(key) && !circle.has_met(*key)) {
    pending.note(*key);
    syserr_t status = SYSERR_SUCCESS;
    syserr_t location_status = SYSERR_SUCCESS;
    if (!datamorph_move_cursor(&store, PSS_NEXT_KEY, &status, &location_status)) {
      DATAMORPH_TRACE("Move to next location failed pss_fd:0x%x, status: 0x%x\n", store, status);
      break;
    }
    key = pss2_getkey(store, &status);
    if (status != SYSERR_SUCCESS) {
      DATAMORPH_TRACE("key not present pss_fd:0x%x, status: 0x%x\n", store, status);
      key = nullptr;
    } else {
      pending.carry_out();
    }
  }
  pending.carry_out();
}

syserr_t clean_up_from_first(pss2_service_t store) {
  syserr_t status = SYSERR_SUCCESS;
  syserr_t location_status = SYSERR_SUCCESS;
  if (!datamorph_move_cursor(&store, PSS_FIRST_KEY, &status, &location_status)) {
    DATAMORPH_TRACE("First key not present pss_fd:0x%x, status: 0x%x, 0x%x\n", store, status,
                    location_status);
    return SYSERR_SUCCESS;
  }
  const pss_datum_t *key = pss2_getkey(store, &status);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("Cannot get key pss_fd:0x%x, status: 0x%x\n", store, status);
    return status;
  }
  clean_up(store, key);
  return SYSERR_SUCCESS;
}

syserr_t pixm_check_and_convert_pss_for_423(const char *path) {
  char uri[k_uri_size] = {};
  store_uri(path, uri);
  syserr_t status = SYSERR_SUCCESS;
  const pss2_service_t store = open_store(uri, &status);
  if (status != SYSERR_SUCCESS) {
    return SYSERR_SUCCESS;
  }
  status = clean_up_from_first(store);
  pss2_close(store);
  return status;
}

} // namespace
