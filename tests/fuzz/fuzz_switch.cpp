#include "fuzz/fuzz_switch.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libdatamorph_vrrp.h"

namespace fuzz_switch {

void reset() {
  platform_double &platform = double_platform();
  platform.reset();
  platform.add_queue(queue);
  datamorph_mts_q = queue;
  for (ethpm_pss_type_t *request :
       {ethpm_convert_runtime_pss_list, ethpm_convert_config_tlv_pss_list}) {
    request->b_version_chk = false;
    request->transition = ETHPM_TR_NOCHANGE;
    request->pss_action = ETHPM_PSS_NOCHANGE;
  }
}

void expect_tidy() {
  const platform_double &platform = double_platform();
  for (const std::string &message : platform.open_stores()) {
    std::fprintf(stderr, "left open: %s\n", message.c_str());
    std::abort();
  }
  if (!platform.open_messages().empty() && platform.scripted() == 0) {
    std::fputs("a message was left\n", stderr);
    std::abort();
  }
}

} // namespace fuzz_switch
