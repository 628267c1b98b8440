// Every routine that the library exports is tried with faults, or calls nothing of the platform.
#include <gtest/gtest.h>

#include <map>

#include "exported_symbols.h"
#include "fault/busy_switch.h"
#include "fault/fault_kinds.h"

namespace {

// What is exported and calls nothing of the platform.
const std::map<std::string, const char *> k_calling_nothing = {
    {"check_data_morph_log_size", "looks at a file"},
    {"cond_srv1_data_morph_running_fs_upg", "traces only"},
    {"data_morph_gsync_table", "data"},
    {"data_morph_psshlpr_upg_table", "data"},
    {"data_morph_running_fs_upg_table", "data"},
    {"data_morph_startup_table", "data"},
    {"datamorph_compare_versions", "compares texts"},
    {"datamorph_is_srv_not_supported_target_ver", "compares texts"},
    {"datamorph_mts_q", "data"},
    {"datamorph_uri_complete", "reads the environment"},
    {"datamorph_vrrp_eng_make_assoc_key", "fills a key"},
    {"datamorph_vrrp_eng_make_vr_key", "fills a key"},
    {"datamorph_vrrp_mgr_make_assoc_key", "fills a key"},
    {"datamorph_vrrp_mgr_make_vr_key", "fills a key"},
    {"downgrade_port_state_reason_table", "data"},
    {"ethpm_convert_config_tlv_pss_list", "data"},
    {"ethpm_convert_runtime_pss_list", "data"},
    {"ethpm_get_issu_transition", "tells what the walk does"},
    {"ethpm_get_pss_action", "tells what the walk does"},
    {"ethpm_init_port_state_reason_tables", "fills two tables"},
    {"ike_data_morph_gsync", "traces only"},
    {"ike_data_morph_running_fs_upg", "traces only"},
    {"ike_data_morph_startup", "traces only"},
    {"is_optional_conditional", "compares texts"},
    {"is_uuid_in_convert_gsync_table", "looks into a table"},
    {"is_uuid_in_convert_running_fs_upg_table", "looks into a table"},
    {"is_uuid_in_convert_startup_table", "looks into a table"},
    {"libdatamorph_init", "keeps a number"},
    {"open_debug_log", "opens a file"},
    {"upgrade_port_state_reason_table", "data"},
};

TEST(exported_test, every_name_is_tried_or_calls_nothing) {
  const std::set<std::string> exported = {EXPORTED_SYMBOLS};
  std::vector<std::string> texts;
  for (const routine &what : k_routines) {
    texts.emplace_back(what.name);
  }
  const std::set<std::string> tried = exported_names_in(texts);
  for (const std::string &name : exported) {
    EXPECT_EQ(1u, tried.count(name) + k_calling_nothing.count(name)) << name;
  }
  for (const auto &[name, reason] : k_calling_nothing) {
    EXPECT_EQ(1u, exported.count(name)) << name << ", which " << reason;
  }
}

} // namespace
