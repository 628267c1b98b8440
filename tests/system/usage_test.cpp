// Wrong usage, help, the verbs without a switch, and directories that are no switches.
#include "command.h"

#include <algorithm>
#include <filesystem>

namespace {

class usage : public command_test {
protected:
  void expect_one_line(const words &arguments, int status, const std::string &message) {
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, status) << refused.err;
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err.find("datamorph: " + message), 0u) << refused.err;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
};

TEST_F(usage, words_that_are_no_verbs) {
  expect_one_line({}, 64, "A subcommand is required");
  expect_one_line({"frobnicate"}, 64,
                  "unknown verb 'frobnicate'; verbs: lab rehearse convert matrix history rollback "
                  "why store diff "
                  "check services compare");
  expect_one_line({""}, 64, "unknown verb ''");
  expect_one_line({std::string(4000, 'x')}, 64, "unknown verb 'xxx");
  expect_one_line({"lab", "destroy", "x"}, 64, "unknown verb 'destroy'; verbs: create show reboot");
  expect_one_line({"store", "drop"}, 64, "unknown verb 'drop'");
}

TEST_F(usage, options_that_are_none_or_missing) {
  expect_one_line({"convert"}, 64, "");
  expect_one_line({"convert", "sw"}, 64, "--to (or --plan) is required");
  expect_one_line({"convert", "sw", "--to", "4.2(1)", "--bogus"}, 64,
                  "unknown option '--bogus'; see 'datamorph convert --help'");
  expect_one_line(
      {"rehearse", "--too", "4.2(1)", "sw"}, 64,
      "unknown option '--too'; the nearest one is --to: see 'datamorph rehearse --help'");
  expect_one_line({"store", "import", "sw", "--flie=x"}, 64,
                  "unknown option '--flie'; the nearest one is --file: see 'datamorph store import "
                  "--help'");
  expect_one_line({"convert", "sw", "-x"}, 64, "unknown option '-x'; see 'datamorph convert");
  // What looks like an option may be a value.
  expect_one_line({"convert", "sw", "--from", "--too"}, 64, "--to (or --plan) is required");
  expect_one_line({"convert", "sw", "--", "--too"}, 64, "");
  expect_one_line({"lab", "show", "sw", "extra"}, 64, "");
  expect_one_line({"services", "--format", "xml"}, 64, "--format: xml not in {table,json,jsonl}");
  expect_one_line({"--bogus"}, 64, "'--bogus' stands before the verb");
  expect_one_line({"--format", "table", "services"}, 64,
                  "'--format' stands before the verb, where only --help and --version may; options "
                  "stand after the verb");
}

TEST_F(usage, directories_that_are_no_switches) {
  std::filesystem::create_directory(path("empty"));
  write("file", "x");
  for (const words &verb : std::vector<words>{{"lab", "show"},
                                              {"lab", "reboot"},
                                              {"history"},
                                              {"rollback"},
                                              {"store", "list"},
                                              {"store", "export"}}) {
    for (const std::string &dir : {std::string("missing"), std::string("empty"),
                                   std::string("file"), std::string(""), std::string(4000, 'x')}) {
      words arguments = verb;
      arguments.push_back(dir);
      expect_one_line(arguments, 3, "'");
    }
  }
  expect_one_line({"convert", "missing", "--to", "4.2(1)"}, 3,
                  "'missing': cannot open the switch's directory: No such file or directory; build "
                  "a switch with 'datamorph lab create DIR'");
  expect_one_line({"convert", "empty", "--to", "4.2(1)"}, 3,
                  "'empty': not a lab switch (no current/switch.json)");
  EXPECT_TRUE(std::filesystem::is_empty(path("empty")));
}

TEST_F(usage, help_has_an_example_for_each_verb) {
  for (const words &verb : std::vector<words>{{"lab", "create"},
                                              {"lab", "show"},
                                              {"lab", "reboot"},
                                              {"convert"},
                                              {"history"},
                                              {"rollback"},
                                              {"why"},
                                              {"store", "list"},
                                              {"store", "show"},
                                              {"store", "get"},
                                              {"store", "put"},
                                              {"store", "delete"},
                                              {"store", "export"},
                                              {"store", "import"},
                                              {"check"},
                                              {"services"},
                                              {"compare"}}) {
    words arguments = verb;
    arguments.push_back("--help");
    const result help = run(arguments);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_NE(help.out.find("Example:\n  datamorph " + verb[0]), std::string::npos) << help.out;
  }
  EXPECT_NE(run({"--help"}).out.find("64  wrong usage"), std::string::npos);
  EXPECT_EQ(run({"--version"}).out.find("datamorph "), 0u);
}

TEST_F(usage, services_lists_the_tables_in_order) {
  const nlohmann::json rows = run({"services", "--format", "json"}).json()["rows"];

  std::vector<std::string> running;
  for (const nlohmann::json &row : rows) {
    EXPECT_EQ(row["routine"].get<std::string>().find("0x"), std::string::npos) << row;
    if (row["moment"] == "running-fs" && row["order"] < 8) {
      running.push_back(row["service"].get<std::string>() + " " + row["uuid"].dump() + " " +
                        row["routine"].get<std::string>());
    }
  }
  EXPECT_EQ(
      running,
      (std::vector<std::string>{
          "SKSD 297 sksd_data_morph_running_fs_upg", "PLUGIN 327 plugin_data_morph_running_fs_upg",
          "EVMS 411 evms_data_morph_running_fs_upg", "EVMC 413 evmc_data_morph_running_fs_upg",
          "MVSH 564 mvsh_data_morph_running_fs_upg", "SMM 260 smm_data_morph_running_fs_upg",
          "CLIS 261 clis_data_morph_running_fs_upg",
          "EXCHANGE_PEER_PARAMS 166 epp_in_npv_mode_data_morph_running_fs_upg"}));
}

TEST_F(usage, services_lists_all_rows_of_the_other_tables) {
  const nlohmann::json rows = run({"services", "--format", "json"}).json()["rows"];

  std::vector<std::string> found;
  for (const nlohmann::json &row : rows) {
    if (row["moment"] != "running-fs") {
      found.push_back(row["moment"].get<std::string>() + " " + row["order"].dump() + " " +
                      row["service"].get<std::string>() + " " + row["uuid"].dump() + " " +
                      row["routine"].get<std::string>());
    }
  }
  EXPECT_EQ(
      found,
      (std::vector<std::string>{
          "gsync 0 PSS_HELPER 390 psshlpr_data_morph_gsync", "gsync 1 IKE 219 ike_data_morph_gsync",
          "gsync 2 AIC_DBG 501 cond_srv1_data_morph_gsync",
          "gsync 3 PIXM 307 pixm_data_morph_gsync", "gsync 4 TEST_ETHPM 306 ethpm_data_morph_gsync",
          "startup 0 IKE 219 ike_data_morph_startup", "startup 1 KPS 542 kps_data_morph_startup",
          "startup 2 DOT1X 381 dot1x_data_morph_startup",
          "startup 3 TEST_ETHPM 306 ethpm_data_morph_startup",
          "startup 4 VRRP_MGR 11 vrrp_mgr_data_morph_startup_for_upgrade",
          "startup 5 VRRP_ENG 68 vrrp_eng_data_morph_startup_for_upgrade",
          "startup 6 VRRP_ENG 68 vrrp_eng_data_morph_startup_for_downgrade",
          "startup 7 VRRP_MGR 11 vrrp_mgr_data_morph_startup_for_downgrade",
          "psshlpr 0 SVI 380 svi_data_morph_psshlpr_upg"}));
}

TEST_F(usage, compare_tells_the_order_by_text_and_status) {
  const result newer = run({"compare", "4.2(10)", "4.2(9)"});
  EXPECT_EQ(newer.status, 2);
  EXPECT_EQ(newer.out, "4.2(10) is newer than 4.2(9)\n");

  const result older = run({"compare", "4.1(2)", "4.2(1)"});
  EXPECT_EQ(older.status, 2);
  EXPECT_EQ(older.out, "4.1(2) is older than 4.2(1)\n");

  const result equal = run({"compare", "4.2(1a)", "4.2(1)", "--format", "json"});
  EXPECT_EQ(equal.status, 0);
  EXPECT_EQ(equal.json()["order"], "equal");
  EXPECT_EQ(run({"compare", "1", std::string(4000, '9')}).status, 2);
  EXPECT_EQ(run({"compare", "banana", "kiwi"}).status, 0);
  expect_one_line({"compare", "", "4.2(1)"}, 64, "compare wants two releases");
  expect_one_line({"compare", "4.2(1)", ""}, 64, "compare wants two releases");
}

TEST_F(usage, the_library_is_found_beside_the_program_and_in_lib) {
  std::filesystem::create_directories(path("bin"));
  std::filesystem::create_directories(path("lib"));
  std::filesystem::copy_file(datamorph_program, path("bin/datamorph"));
  std::filesystem::copy_file(real_library, path("lib/libdatamorph.so.1"));
  program = path("bin/datamorph");
  set("DATAMORPH_LIBRARY", "");

  EXPECT_EQ(run({"compare", "1.0(1)", "1.0(1)"}).status, 0);
  std::filesystem::rename(path("lib/libdatamorph.so.1"), path("bin/libdatamorph.so.1"));
  EXPECT_EQ(run({"compare", "1.0(1)", "1.0(1)"}).status, 0);
}

} // namespace
