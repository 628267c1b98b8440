// The SVI service (SRVUUID_SVI): its global snapshot database is registered when the switch goes up
// across release 4.2(1), and unregistered when it goes down.

#include <cstdio>

#include "libdatamorph_private.h"

namespace {

constexpr char k_boundary[] = "4.2(1)";
constexpr uint32 k_mcast_info = 0xFF00000C;

void svi_uri(const char *self, char (&uri)[256]) {
  // "gldb" with an l: the name of the file that services know.
  snprintf(uri, sizeof uri, "%s/svi_gldb", datamorph_uri_complete());
  DATAMORPH_TRACE("%s: uri is [%s]\n", self, uri);
}

} // namespace

// QUIRK: what became of the database is only traced, here and on its removal, so that the message
// of the converter on a failure never stands there. Pinned by svi_test, failures_are_only_traced.
syserr_t svi_create_gsdb(const char *path) {
  if (path == nullptr) {
    return SYSERR_SUCCESS;
  }
  char uri[256] = {};
  svi_uri(__func__, uri);
  const syserr_t status = datamorph_gsdb_add(path, uri, k_mcast_info, SRVUUID_SVI, 0);
  DATAMORPH_TRACE("%s: return value is [%s]\n", __func__, syserr2str(status));
  return SYSERR_SUCCESS;
}

syserr_t svi_delete_gsdb(const char *path) {
  if (path == nullptr) {
    return SYSERR_SUCCESS;
  }
  char uri[256] = {};
  svi_uri(__func__, uri);
  const syserr_t status = datamorph_gsdb_delete(path, uri);
  DATAMORPH_TRACE("%s: return value is [%s]\n", __func__, syserr2str(status));
  return SYSERR_SUCCESS;
}

namespace {

void trace_failure(syserr_t status) {
  if (status != SYSERR_SUCCESS) { // GCOVR_EXCL_BR_LINE: neither routine reports a failure
    DATAMORPH_TRACE("check and convert pss failure 0x%x\n", status);
  }
}

} // namespace

syserr_t svi_data_morph_psshlpr_upg(const char *path, const char *pkg_name, const char *to_ver,
                                    const char *from_ver) {
  if (path == nullptr || pkg_name == nullptr || to_ver == nullptr || from_ver == nullptr) {
    DATAMORPH_TRACE("Invalid arguments\n");
    return SYSERR_FAILED;
  }
  DATAMORPH_TRACE("Verifying up/down grade versions\n");
  syserr_t error = SYSERR_SUCCESS;
  const int from_comp = datamorph_compare_versions(from_ver, k_boundary, &error);
  if (error != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("Error: 0x%x from_comp\n", error);
    return SYSERR_SUCCESS;
  }
  // The other way round: above 0 is a target before the boundary.
  const int to_comp = datamorph_compare_versions(k_boundary, to_ver, &error);
  if (error != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("Error: 0x%x to_comp\n", error);
    return SYSERR_SUCCESS;
  }
  DATAMORPH_TRACE("from_ver %s:from_comp %d, to_ver %s:to_comp %d\n", from_ver, from_comp, to_ver,
                  to_comp);
  if (from_comp < 0 && to_comp <= 0) {
    DATAMORPH_TRACE("issu upgrade conversion required from %s to %s\n", from_ver, to_ver);
    trace_failure(svi_create_gsdb(path));
  } else if (from_comp >= 0 && to_comp > 0) {
    DATAMORPH_TRACE("issu downgrade conversion required from %s to %s\n", from_ver, to_ver);
    trace_failure(svi_delete_gsdb(path));
  } else {
    DATAMORPH_TRACE("No issu conversion reqd from %s to %s\n", from_ver, to_ver);
  }
  return SYSERR_SUCCESS;
}
