// The exchange-peer-parameters service (SRVUUID_EXCHANGE_PEER_PARAMS): on a switch in NPV mode that
// goes down to a release older than "4.1(2)", its three volatile stores and its access point are
// removed, since the older software cannot use them.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "libdatamorph_private.h"
#include "platform/mts.h"
#include "platform/pss.h"

namespace {

constexpr const char *k_npv_markers[] = {"/tmp/fc_nport_mux", "/mnt/pss/fc_nport_mux"};

constexpr struct {
  const char *store;
  const char *failure; // the message on a failed removal
} k_epp_stores[] = {
    {"epp_runtime_config", "Failed to destroy epp_runtime_config_url"},
    {"epp_runtime_ha", "Failed to destroy epp_runtime_ha_url"},
    {"epp_debug", "Failed to destroy epp_debug_url"},
};

bool in_npv_mode() {
  for (const char *marker : k_npv_markers) {
    const int file = open(marker, O_RDONLY | O_EXCL | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file >= 0) {
      close(file);
      return true;
    }
  }
  return false;
}

} // namespace

syserr_t epp_in_npv_mode_data_morph_running_fs_upg(const char *path, const char * /*pkg_name*/,
                                                   const char *to_pkg_version,
                                                   const char *from_pkg_version) {
  DATAMORPH_TRACE("%s: Entering \n", __func__);
  if (!in_npv_mode()) {
    DATAMORPH_TRACE("%s: Not in NPV, so ignoring the conversion \n", __func__);
    return SYSERR_SUCCESS;
  }
  DATAMORPH_TRACE("%s: args: to_pkg_version %s from_pkg_version %s\n", __func__,
                  datamorph_text(to_pkg_version), datamorph_text(from_pkg_version));
  if (to_pkg_version == nullptr || from_pkg_version == nullptr) {
    return SYSERR_SUCCESS;
  }
  // QUIRK: versions are compared as plain text here, so that 4.10(1) sorts below 4.2(1).
  // Pinned by epp_test, versions_are_compared_as_text.
  // QUIRK: the two messages below have no line end. Kept as the log's readers know them.
  // Pinned by epp_test, an_upgrade_or_the_same_release_has_nothing_to_do.
  if (strcmp(from_pkg_version, to_pkg_version) <= 0) {
    DATAMORPH_TRACE("%s: Upgrade : nothing to do", __func__);
    return SYSERR_SUCCESS;
  }
  if (strcmp(to_pkg_version, min_supported_ver) >= 0) {
    DATAMORPH_TRACE("%s: Target version %s does not need conversion", __func__, to_pkg_version);
    return SYSERR_SUCCESS;
  }
  if (path == nullptr) {
    return SYSERR_SUCCESS;
  }
  DATAMORPH_TRACE("%s: Attempting conversion\n", __func__);
  // QUIRK: the conversion step is announced under the name of a routine of its own.
  // Pinned by epp_test, downgrade_in_npv_mode_removes_stores_and_access_point.
  DATAMORPH_TRACE("%s: Entering \n", "epp_convert_4_0");
  epp_destroy_mts_sap();
  epp_destroy_pss(path);
  // QUIRK: says so whatever the removals reported.
  // Pinned by epp_test, failed_removals_are_only_traced.
  DATAMORPH_TRACE("%s: EPP mts, pss deleted successfully \n", __func__);
  return SYSERR_SUCCESS;
}

void epp_destroy_mts_sap(void) {
  DATAMORPH_TRACE("%s: Entering \n", __func__);
  if (mts_sap_destroy(datamorph_mts_q, MTS_SAP_EXCHANGE_PEER_PARAMS) == -1) {
    DATAMORPH_TRACE("%s: failed destroying EPP sap %s\n", __func__, strerror(errno));
  }
}

void epp_destroy_pss(const char *path) {
  DATAMORPH_TRACE("%s: Entering \n", __func__);
  if (path == nullptr) {
    return;
  }
  for (const auto &epp : k_epp_stores) {
    char uri[256] = {};
    snprintf(uri, sizeof uri, "volatile:%s/%s", path, epp.store);
    if (pss_destroy(uri) != SYSERR_SUCCESS) {
      DATAMORPH_TRACE("%s: %s\n", __func__, epp.failure);
    }
  }
}
