// convert with the real library: what it removes, what it leaves, what it says.
#include "command.h"

#include <algorithm>
#include <cstring>
#include <set>

#include <unistd.h>

namespace {

class convert_verb : public command_test {};

const std::set<std::string> removed_by_the_seven = {
    "volatile:/cfg/0/plugin_runtime_cfg",  "volatile:/cfg/0/plugin_runtime_info",
    "volatile:/cfg/0/plugin_debug",        "volatile:/cfg/0/evms_runtime_cfg",
    "volatile:/cfg/0/evms_runtime_info",   "volatile:/cfg/0/evmc_runtime_cfg",
    "volatile:/cfg/0/evmc_runtime_info",   "volatile:/cfg/0/mvsh_runtime_cfg",
    "volatile:/cfg/0/mvsh_runtime_info",   "volatile:/dev/shm/smm_smm_data",
    "volatile:/cfg/0/clis_runtime_config", "volatile:/cfg/0/clis_runtime_info"};

// The file of each of those stores, below the switch's state.
bool is_file_of_the_seven(const std::string &file) {
  for (const std::string &uri : removed_by_the_seven) {
    if (file == "/dev/shm/volatile" + uri.substr(strlen("volatile:")) + ".pss") {
      return true;
    }
  }
  return false;
}

bool is_sap_of_the_seven(const std::string &file) {
  for (const char *sap :
       {"11", "187", "245", "295", "296", "297", "341", "342", "364", "422", "485"}) {
    if (file == std::string("/var/run/mts/sap-") + sap) {
      return true;
    }
  }
  return false;
}

// What every conversion writes besides: its log, its marker, its generation.
void forget_traces(files *state) {
  state->erase("/mnt/pss/data_morph.log");
  state->erase("/tmp/datamorphcheck");
  state->erase("/switch.json");
}

// Between two releases before 4.2(1) the VRRP manager gives its records away and takes them back;
// vrrp_test looks at them.
void forget_vrrp(files *state) {
  EXPECT_EQ(state->erase("/cfg/startup/bin/vrrp-cfg_config_sav.pss"), 1u);
  EXPECT_EQ(state->erase("/cfg/startup/vdc_2/bin/vrrp-cfg_config_sav.pss"), 1u);
  state->erase("/tmp/vrrp-startup-pss2"); // a folder
}

TEST_F(convert_verb, running_fs_to_major_3_removes_what_the_seven_own_and_nothing_else) {
  create("sw");
  files expected = state("sw");
  const size_t gone = std::erase_if(expected, [](const auto &file) {
    return is_file_of_the_seven(file.first) || is_sap_of_the_seven(file.first);
  });
  ASSERT_EQ(gone, 12u + 11u);

  const result converted =
      run({"convert", "sw", "--to", "3.3(1)", "--moment", "running-fs", "--format", "json"});

  EXPECT_EQ(converted.status, 0) << converted.err;
  files after = state("sw");
  forget_traces(&after);
  forget_traces(&expected);
  EXPECT_EQ(after, expected);
  const nlohmann::json report = converted.json();
  std::set<std::string> removed;
  for (const nlohmann::json &store : report["stores"]) {
    EXPECT_EQ(store["what"], "removed");
    removed.insert(store["uri"]);
  }
  EXPECT_EQ(removed, removed_by_the_seven);
  EXPECT_EQ(show("sw")["release"], "4.1(5)");
}

TEST_F(convert_verb, running_fs_to_4_2_removes_nothing) {
  create("sw");
  files before = state("sw");

  const result converted =
      run({"convert", "sw", "--to", "4.2(1)", "--moment", "running-fs", "--format", "json"});

  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_EQ(converted.json()["stores"],
            nlohmann::json::array({{{"uri", "volatile:/sysmgr/tag_tables"},
                                    {"what", "changed"},
                                    {"records", {{"added", 0}, {"changed", 1}, {"removed", 0}}},
                                    {"services", {"KPS", "DOT1X"}}}}));
  files after = state("sw");
  for (files *all : {&before, &after}) {
    forget_traces(all);
    EXPECT_EQ(all->erase("/dev/shm/volatile/sysmgr/tag_tables.pss"), 1u); // KPS and 802.1X enter it
  }
  EXPECT_EQ(after, before);
}

TEST_F(convert_verb, npv_switch_going_down_loses_what_epp_owns) {
  create("npv", {"--from", examples + "/npv-switch.json"});

  const result converted = run({"convert", "npv", "--to", "4.0(4)"});

  EXPECT_EQ(converted.status, 0) << converted.err;
  const nlohmann::json shown = show("npv");
  EXPECT_EQ(shown["release"], "4.0(4)");
  EXPECT_EQ(uris(shown), (std::vector<std::string>{"nonvolatile:/cfg/0/vlan_cfg",
                                                   "volatile:/cfg/0/cond_srv_config",
                                                   "volatile:/cfg/0/vlan_runtime_info"}));
  EXPECT_EQ(saps(shown), (std::vector<unsigned>{28, 175}));
}

TEST_F(convert_verb, conversion_log_holds_every_step) {
  create("npv", {"--from", examples + "/npv-switch.json"});

  ASSERT_EQ(run({"convert", "npv", "--to", "4.0(4)"}).status, 0);

  const std::string log = read("npv/current/mnt/pss/data_morph.log");
  EXPECT_EQ(log, read("npv/runs/0001/conversion.log"));
  const std::string epp = "epp_in_npv_mode_data_morph_running_fs_upg: ";
  size_t at = 0;
  for (const std::string &line :
       {std::string("libdatamorph_init: datamorph_mts_q = 1\n"),
        std::string("datamorph_gsync: calling convert function for uuid = 0x186\n"),
        std::string("psshlpr_data_morph_gsync: calling psshlpr convert functions"),
        std::string("datamorph_gsync: calling convert function for uuid = 0xdb\n"),
        std::string("Returning Success\n"),
        std::string("datamorph_running_fs_upg: calling convert function for uuid = 0x129\n"),
        std::string("SKSD service in function(sksd_data_morph_running_fs_upg) Args: path = "
                    "/cfg/0,pkg_name = system, to_ver = 4.0(4), from_ver = 4.2(1)\n"),
        std::string("datamorph_running_fs_upg: calling convert function for uuid = 0xa6\n"),
        epp + "Entering \n", epp + "args: to_pkg_version 4.0(4) from_pkg_version 4.2(1)\n",
        epp + "Attempting conversion\n", std::string("epp_convert_4_0: Entering \n"),
        std::string("epp_destroy_mts_sap: Entering \n"),
        std::string("epp_destroy_pss: Entering \n"), epp + "EPP mts, pss deleted successfully \n",
        std::string("datamorph_startup: calling convert function for uuid = 0xdb\n"),
        std::string("Returning Success\n")}) {
    const size_t found = log.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "not found in order in\n" << log;
    at = found + line.size();
  }
}

TEST_F(convert_verb, closes_with_tables_and_a_plain_line) {
  create("sw");

  const result converted = run({"convert", "sw", "--to", "3.3(1)"});

  EXPECT_EQ(converted.status, 0);
  EXPECT_NE(converted.out.find("MOMENT"), std::string::npos);
  EXPECT_NE(converted.out.find("running-fs   1 EVMC "), std::string::npos) << converted.out;
  EXPECT_NE(converted.out.find("0x00000000"), std::string::npos);
  EXPECT_NE(converted.out.find("342 364"), std::string::npos);
  EXPECT_NE(
      converted.out.find(
          "volatile:/cfg/0/evms_runtime_cfg                       removed       0       0       4 "
          "EVMS\n"),
      std::string::npos)
      << converted.out;
  EXPECT_TRUE(converted.out.ends_with("\n\nsw: converted from 4.1(5) to 3.3(1)\n"));
  EXPECT_NE(converted.err.find("run folder: sw/runs/0001\n"), std::string::npos);
  EXPECT_EQ(converted.err.find("calling convert function"), std::string::npos);
}

// As it looks when both are written to one place.
TEST_F(convert_verb, messages_stand_before_and_behind_the_report) {
  create("sw");
  in_child = [] { dup2(STDOUT_FILENO, STDERR_FILENO); };

  const std::string out = run({"convert", "sw", "--to", "4.2(1)"}).out;

  EXPECT_GT(out.size(), 4096u); // more than is kept back
  EXPECT_TRUE(out.ends_with("\n\nsw: converted from 4.1(5) to 4.2(1)\n"
                            "datamorph: run folder: sw/runs/0001\n"))
      << out;
}

TEST_F(convert_verb, verbose_shows_the_trace_on_standard_error) {
  create("sw");

  const result converted = run({"convert", "sw", "--to", "4.2(1)", "-v", "--format", "json"});

  EXPECT_NE(converted.err.find("datamorph_startup: calling convert function for uuid = 0xdb\n"),
            std::string::npos);
  EXPECT_EQ(converted.json()["converted"], true);
  EXPECT_NE(read("sw/runs/0001/trace.log").find("File check succeeded\n"), std::string::npos);
}

TEST_F(convert_verb, json_report_is_the_kept_one) {
  create("sw");

  const result converted = run({"convert", "sw", "--to", "3.3(1)", "--format", "json"});

  const nlohmann::json report = converted.json();
  EXPECT_EQ(report, nlohmann::json::parse(read("sw/runs/0001/report.json")));
  EXPECT_EQ(report["from"], "4.1(5)");
  EXPECT_EQ(report["to"], "3.3(1)");
  EXPECT_EQ(report["release"], "3.3(1)");
  for (const nlohmann::json &request : report["requests"]) {
    EXPECT_EQ(request["status"], 0);
    EXPECT_EQ(request["text"], "success");
    if (request["service"] == "EVMC") {
      EXPECT_EQ(request["access_points_removed"], nlohmann::json({342, 364}));
      EXPECT_EQ(request["records"]["removed"], 5);
    }
  }
}

TEST_F(convert_verb, whole_change_records_the_release_and_keeps_the_state_before) {
  create("sw");
  const files before = state("sw");

  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  EXPECT_EQ(show("sw")["release"], "4.2(1)");
  EXPECT_EQ(show("sw")["generation"], 2);
  expect_tidy("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "5.0(2)"}).status, 0);
  EXPECT_EQ(show("sw")["release"], "5.0(2)");
  const nlohmann::json previous = nlohmann::json::parse(read("sw/previous/switch.json"));
  EXPECT_EQ(previous["release"], "4.2(1)");
  EXPECT_TRUE(exists("sw/runs/0002/report.json"));
}

TEST_F(convert_verb, a_part_of_the_change_leaves_the_release) {
  create("sw");

  const result converted = run({"convert", "sw", "--to", "3.3(1)", "--service", "evms"});

  EXPECT_EQ(converted.status, 0);
  EXPECT_TRUE(converted.out.ends_with(
      "sw: converted from 4.1(5) to 3.3(1); only a part of the version change, so its release "
      "stays 4.1(5)\n"))
      << converted.out;
  EXPECT_EQ(show("sw")["release"], "4.1(5)");
  EXPECT_EQ(show("sw")["stores"].size(), 35u);
}

// The conditional service's store is planted whatever the releases are.
TEST_F(convert_verb, to_the_same_release_plants_the_conditional_stores_and_nothing_else) {
  create("sw");
  files before = state("sw");

  EXPECT_EQ(run({"convert", "sw", "--to", "4.1(5)"}).status, 0);

  EXPECT_EQ(show("sw")["release"], "4.1(5)");
  files after = state("sw");
  EXPECT_EQ(after.erase("/dev/shm/volatile/cfg/0/cond_srv_config.pss"), 1u);
  EXPECT_EQ(after.erase("/dev/shm/volatile/cfg/0/vdc_2/cond_srv_config.pss"), 1u);
  for (files *all : {&before, &after}) {
    forget_traces(all);
    forget_vrrp(all);
  }
  EXPECT_EQ(after, before);
}

TEST_F(convert_verb, whole_table_removes_the_same) {
  create("sw");

  const result converted = run({"convert", "sw", "--to", "3.3(1)", "--whole-table"});

  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_NE(converted.out.find("running-fs   1 (whole table) 0x00000000"), std::string::npos)
      << converted.out;
  // Two more than service by service: VRRP's engine of each VDC takes its records and gives them
  // back.
  EXPECT_EQ(show("sw")["stores"].size(), 29u);
  EXPECT_NE(read("sw/runs/0001/trace.log").find("datamorph_running_fs_upg_all: calling"),
            std::string::npos);
}

// ---- How it plays the system manager: seen by fake converters that note their calls ------------

TEST_F(convert_verb, calls_each_service_once_per_moment_and_vdc_with_its_environment) {
  create("sw");
  fake("");

  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  const std::string images = " /cfg/0 /images/4.2(1) /images/4.1(5)\n";
  EXPECT_EQ(read("sw/current/bootflash/calls"),
            "ike /cfg/0 1" + images + "ike /cfg/0/vdc_2 2" + images + "sksd /cfg/0 1" + images +
                "plugin /cfg/0 1" + images + "manager_up /cfg/startup 1" + images +
                "manager_down /cfg/startup 1" + images + "engine_up /cfg/startup 1" + images +
                "engine_down /cfg/startup 1" + images + "manager_up /cfg/startup/vdc_2 2" + images +
                "manager_down /cfg/startup/vdc_2 2" + images + "engine_up /cfg/startup/vdc_2 2" +
                images + "engine_down /cfg/startup/vdc_2 2" + images);
}

TEST_F(convert_verb, goes_by_last_rows_when_the_release_falls) {
  create("sw");
  fake("");

  const result converted =
      run({"convert", "sw", "--to", "4.0(4)", "--moment", "startup", "--format", "json"});

  std::vector<std::string> order;
  const nlohmann::json report = converted.json();
  for (const nlohmann::json &request : report["requests"]) {
    order.push_back(request["service"]);
  }
  EXPECT_EQ(order, (std::vector<std::string>{"VRRP_ENG", "VRRP_MGR", "VRRP_ENG", "VRRP_MGR"}));
}

TEST_F(convert_verb, from_overrides_the_recorded_release) {
  create("sw");
  fake("");

  ASSERT_EQ(
      run({"convert", "sw", "--to", "4.2(1)", "--from", "4.0(4)", "--moment", "gsync"}).status, 0);

  EXPECT_NE(read("sw/current/bootflash/calls").find("/images/4.0(4)\n"), std::string::npos);
}

TEST_F(convert_verb, changed_records_are_counted) {
  create("sw");
  fake("change");

  const result converted =
      run({"convert", "sw", "--to", "4.2(1)", "--moment", "running-fs", "--format", "json"});

  const nlohmann::json store = converted.json()["stores"].at(0);
  EXPECT_EQ(store["uri"], "nonvolatile:/cfg/0/vlan_cfg");
  EXPECT_EQ(store["what"], "changed");
  EXPECT_EQ(store["records"], nlohmann::json({{"added", 1}, {"changed", 0}, {"removed", 0}}));
  EXPECT_EQ(store["services"], nlohmann::json({"SKSD"}));
}

TEST_F(convert_verb, what_the_library_prints_is_no_data) {
  create("sw");
  fake("print");

  const result converted = run({"convert", "sw", "--to", "4.2(1)", "--format", "json"});

  EXPECT_EQ(converted.json()["converted"], true);
  EXPECT_NE(read("sw/runs/0001/trace.log").find("NOISE ON STANDARD OUTPUT"), std::string::npos);
}

} // namespace
