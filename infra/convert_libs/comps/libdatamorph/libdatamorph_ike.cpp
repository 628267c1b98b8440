// The IKE service (SRVUUID_IKE): its data needs no conversion in any release; the converters record
// that they ran.

#include "libdatamorph_private.h"

namespace {

syserr_t nothing_to_convert() {
  // QUIRK: the message carries no routine's name. Kept as the log's readers know it.
  // Pinned by ike_test, each_routine_traces_the_plain_text.
  DATAMORPH_TRACE("Returning Success\n");
  return SYSERR_SUCCESS;
}

} // namespace

syserr_t ike_data_morph_gsync(const char * /*path*/, const char * /*pkg_name*/,
                              const char * /*to_ver*/, const char * /*from_ver*/) {
  return nothing_to_convert();
}

syserr_t ike_data_morph_startup(const char * /*path*/, const char * /*pkg_name*/,
                                const char * /*to_ver*/, const char * /*from_ver*/) {
  return nothing_to_convert();
}

syserr_t ike_data_morph_running_fs_upg(const char * /*path*/, const char * /*pkg_name*/,
                                       const char * /*to_ver*/, const char * /*from_ver*/) {
  return nothing_to_convert();
}
