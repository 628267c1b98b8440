#include "fuzz/fuzz_switch.h"

#include "fuzz/quiet_files.h"
#include "libdatamorph_vrrp.h"

namespace fuzz_switch {

namespace {

// Or the targets would go past the library's own code of logs.
void expect_a_log() {
  DATAMORPH_TRACE("%s", "a line\n");
  expect(quiet_files::logged() > 0, "the library's log is not served");
  expect(quiet_files::open_files() == 0, "the library's log was left open");
  quiet_files::reset();
}

} // namespace

void reset() {
  platform_double &platform = double_platform();
  platform.reset();
  platform.keep_no_log();
  platform.add_queue(queue);
  datamorph_mts_q = queue;
  for (ethpm_pss_type_t *request :
       {ethpm_convert_runtime_pss_list, ethpm_convert_config_tlv_pss_list}) {
    request->b_version_chk = false;
    request->transition = ETHPM_TR_NOCHANGE;
    request->pss_action = ETHPM_PSS_NOCHANGE;
  }
  vrrp_mgr_side.trace_fd = -1;
  vrrp_eng_side.trace_fd = -1;
  quiet_files::reset();
  quiet_files::drop_trace();
  static bool checked = false;
  if (!checked) {
    checked = true;
    expect_a_log();
  }
}

void expect_tidy(const std::vector<std::string> &open_stores) {
  const platform_double &platform = double_platform();
  const std::vector<std::string> left = platform.open_stores();
  if (left != open_stores) {
    std::string all;
    for (const std::string &uri : left) {
      all += " " + uri;
    }
    finding("open at the end:" + (all.empty() ? " nothing" : all));
  }
  expect(platform.open_messages().empty(), "a message was left");
  const int traces = (vrrp_mgr_side.trace_fd != -1) + (vrrp_eng_side.trace_fd != -1);
  expect(quiet_files::open_files() == traces, "a file was left open");
}

} // namespace fuzz_switch
