// A sample for service owners: how a service registers its global snapshot database. It stands in
// no table and is never called by the library.

#include <cstdio>

#include "libdatamorph_private.h"

syserr_t foo_data_morph_psshlpr_upg(const char *path, const char * /*pkg_name*/,
                                    const char * /*to_ver*/, const char * /*from_ver*/) {
  if (path == nullptr) {
    return SYSERR_SUCCESS;
  }
  char uri[256] = {};
  snprintf(uri, sizeof uri, "%s/foo_gsdb", datamorph_uri_complete());
  DATAMORPH_TRACE("%s: uri is [%s]\n", __func__, uri);
  const syserr_t status = datamorph_gsdb_add(path, uri, 0, SRVUUID_NONE, 0);
  DATAMORPH_TRACE("%s: return value is [%s]\n", __func__, syserr2str(status));
  return SYSERR_SUCCESS;
}
