// Names of numbers: statuses, key types, interface indices in key form. Needs nothing but the C
// library: test programs without a lab link it too.
#include <arpa/inet.h>

#include "platform/pss.h"
#include "platform/types.h"

namespace {

struct status_text {
  syserr_t status;
  const char *text;
};

constexpr status_text k_status_texts[] = {
    {SYSERR_SUCCESS, "success"},
    {SYSERR_PSS_EXISTS, "a store stands there already"},
    {SYSERR_PSS_NO_STORE, "no such store"},
    {SYSERR_PSS_NOT_FOUND, "no such record"},
    {SYSERR_PSS_BAD_ARGUMENT, "bad argument to a store call"},
    {SYSERR_PSS_TOO_LARGE, "key or value over the store's limit"},
    {SYSERR_PSS_BAD_HANDLE, "bad store handle"},
    {SYSERR_PSS_DAMAGED, "store or record damaged"},
    {SYSERR_PSS_NO_ACCESS, "no access to the store"},
    {SYSERR_PSS_IO, "input or output error in a store"},
    {SYSERR_PSS_NO_ROOM, "no room left for a store"},
    {SYSERR_PSS_BUSY, "store in use by another writer"},
    {SYSERR_TLV_END, "no further TLV"},
    {SYSERR_TLV_DAMAGED, "TLV array damaged"},
    {SYSERR_IMAGE_VERSION, "version of the image not readable"},
    {SYSERR_NO_SUCH_VDC, "no such VDC"},
    {SYSERR_TAG_TABLE_FULL, "tag table full"},
    {SYSERR_NULL_ARGUMENT, "null argument"},
    {SYSERR_FAILED, "failed"},
};

constexpr syserr_t k_mts_errno_mask = 0xFFF;

} // namespace

const char *syserr2str(syserr_t status) {
  for (const status_text &row : k_status_texts) {
    if (row.status == status) {
      return row.text;
    }
  }
  return (status & ~k_mts_errno_mask) == SYSERR_MTS_BASE ? "message not sent or not answered"
                                                         : "unknown status";
}

uint32 hton_if_index(if_index_t if_index) {
  return htonl(if_index);
}

const char *__pss_key_type_enum_t_find(uint32 key_type) {
  return key_type == PSS_KEY_TAG_INFO ? "PSS_KEY_TAG_INFO" : "PSS_KEY_UNKNOWN";
}
