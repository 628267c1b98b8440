// What stays in the library from one call to the next, for tests that run it as a new process
// would.
#ifndef TESTS_SUPPORT_LIBRARY_STATE_H
#define TESTS_SUPPORT_LIBRARY_STATE_H

#include <unistd.h>

#include <cstring>

#include "libdatamorph_ethpm.h"
#include "libdatamorph_private.h"
#include "libdatamorph_vrrp.h"

// The sides of VRRP open their trace files anew.
inline void forget_traces() {
  for (vrrp_side_t *side : {&vrrp_mgr_side, &vrrp_eng_side}) {
    if (side->trace_fd != -1) {
      close(side->trace_fd);
      side->trace_fd = -1;
    }
  }
}

// No request of the port manager is marked, no table of its reasons filled.
inline void forget_port_manager() {
  for (ethpm_pss_type_t *request :
       {ethpm_convert_runtime_pss_list, ethpm_convert_config_tlv_pss_list}) {
    request->b_version_chk = false;
    request->transition = ETHPM_TR_NOCHANGE;
    request->pss_action = ETHPM_PSS_NOCHANGE;
  }
  std::memset(upgrade_port_state_reason_table, 0, sizeof upgrade_port_state_reason_table);
  std::memset(downgrade_port_state_reason_table, 0, sizeof downgrade_port_state_reason_table);
}

inline void forget_process() {
  forget_traces();
  forget_port_manager();
}

#endif
