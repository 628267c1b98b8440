// Stored keys and values of every service, with the pair of releases and the store mutated together.
#include "fuzz/fuzz_switch.h"

namespace {

const char *const k_releases[] = {"3.3(1)", "4.0(4)", "4.1(1)", "4.1(2)", "4.1(3)", "4.1(5)",
                                  "4.2(0)", "4.2(1)", "4.2(2)", "4.2(3)", "", "x"};
const char *const k_uris[] = {"nonvolatile:/cfg/dot1x_saved_config",
                              "nonvolatile:/cfg/kps_saved_config",
                              "nonvolatile:/cfg/eth_port_sec_saved_config",
                              "nonvolatile:/cfg/bin/dot1x_saved_config",
                              "nonvolatile:/cfg/bin/kps_saved_config",
                              "nonvolatile:/cfg/bin/eth_port_sec_saved_config",
                              "nonvolatile:/cfg/bin/sysmgr_config",
                              "nonvolatile:/cfg/pixm_runtime_info",
                              "nonvolatile:/cfg/ethpm_runtime_info",
                              "nonvolatile:/cfg/ethpm_runtime_cfg",
                              "nonvolatile:/cfg/bin/ethpm_saved_config",
                              "nonvolatile:/cfg/bin/vrrp-cfg_config_sav",
                              "nonvolatile:/cfg/bin/vrrp-eng_runtime_config",
                              "nonvolatile:/tmp/vrrp-startup-pss",
                              "volatile:/cfg/svi_gldb",
                              "volatile:/cfg/globalpss_table"};

template <typename row_t> void run(const row_t *table, const char *to, const char *from) {
  for (const row_t *row = table; row->uuid != SRVUUID_NONE; ++row) {
    static_cast<void>(row->fn("/cfg", "system", to, from));
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  bytes_source source(data, size);
  fuzz_switch::reset();
  platform_double &platform = double_platform();
  const char *const to = k_releases[source.byte() % std::size(k_releases)];
  const char *const from = k_releases[source.byte() % std::size(k_releases)];
  const uint8_t moment = source.byte();
  for (int records = 0; records < 32 && !source.is_empty(); ++records) {
    const char *const uri = k_uris[source.byte() % std::size(k_uris)];
    const std::string key = source.bytes(source.byte() % 64);
    platform.put(uri, key, source.bytes(source.byte()));
  }
  switch (moment % 3) {
  case 0:
    run(data_morph_gsync_table, to, from);
    break;
  case 1:
    run(data_morph_running_fs_upg_table, to, from);
    break;
  default:
    run(data_morph_startup_table, to, from);
    break;
  }
  fuzz_switch::expect_tidy();
  return 0;
}
