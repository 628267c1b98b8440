// The system manager's tag tables through a version change: the real library on the example switch,
// where 802.1X and KPS run in VDC 1, 802.1X in VDC 2, and port security in VDC 1.
#include "command.h"

#include <algorithm>
#include <regex>

namespace {

constexpr char running[] = "volatile:/sysmgr/tag_tables";
constexpr char saved_1[] = "nonvolatile:/cfg/startup/bin/sysmgr_config";
constexpr char saved_2[] = "nonvolatile:/cfg/startup/vdc_2/bin/sysmgr_config";
constexpr char saved_key[] = "090000000000000000000000";

// Tables as bytes: the size, the number of entries and the version of the layout, then per entry
// its type and length, the service's number and its tag with a terminator.
constexpr char aic_dbg_only[] = "14000000"
                                "0100"
                                "0100"
                                "01000800"
                                "f5010000"
                                "6c616200";
constexpr char aic_dbg_kps_dot1x[] = "26000000"
                                     "0300"
                                     "0100"
                                     "01000800"
                                     "f5010000"
                                     "6c616200"
                                     "01000500"
                                     "1e020000"
                                     "00"
                                     "01000500"
                                     "7d010000"
                                     "00";
constexpr char dot1x_only[] = "11000000"
                              "0100"
                              "0100"
                              "01000500"
                              "7d010000"
                              "00";
// The entry states a byte more than is there.
constexpr char damaged_entry[] = "14000000"
                                 "0100"
                                 "0100"
                                 "01000900"
                                 "f5010000"
                                 "6c616200";

const nlohmann::json aic_dbg = {{"service", "AIC_DBG"}, {"uuid", 501}, {"tag", "lab"}};
const nlohmann::json dot1x = {{"service", "DOT1X"}, {"uuid", 381}, {"tag", ""}};
const nlohmann::json kps = {{"service", "KPS"}, {"uuid", 542}, {"tag", ""}};

nlohmann::json shown_table(const char *state, const std::vector<nlohmann::json> &entries) {
  return {{"state", state}, {"entries", entries}};
}

class tag_tables : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  std::string value(const char *uri, const char *key) {
    const result got = run({"store", "get", "sw", uri, key});
    EXPECT_EQ(got.status, 0) << got.err;
    return got.out.substr(0, got.out.size() - 1);
  }
  void put(const char *uri, const char *key, const std::string &bytes) {
    const result put = run({"store", "put", "sw", uri, key, bytes, "--create"});
    ASSERT_EQ(put.status, 0) << put.err;
  }
  nlohmann::json convert(const words &more) {
    words arguments = {"convert", "sw", "--format", "json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const result converted = run(arguments);
    EXPECT_EQ(converted.status, 0) << converted.err;
    return converted.json();
  }
  // The records of the store that are tag tables, decoded.
  std::vector<nlohmann::json> decoded(const char *uri) {
    const nlohmann::json shown = run({"store", "show", "sw", uri, "--format", "json"}).json();
    std::vector<nlohmann::json> tables;
    for (const nlohmann::json &record : shown["records"]) {
      if (record.contains("decoded")) {
        tables.push_back(record["decoded"]);
      }
    }
    return tables;
  }
  // Everything but what each conversion writes: its log, its marker, its generation; and but the
  // stores that VRRP writes anew between two releases before 4.2(1), with the folder of one.
  files lasting_state() {
    files all = state("sw");
    all.erase("/mnt/pss/data_morph.log");
    all.erase("/tmp/datamorphcheck");
    all.erase("/switch.json");
    all.erase("/cfg/startup/bin/vrrp-cfg_config_sav.pss");
    all.erase("/cfg/startup/vdc_2/bin/vrrp-cfg_config_sav.pss");
    all.erase("/tmp/vrrp-startup-pss2");
    return all;
  }
  void expect_tables_as_created() {
    EXPECT_EQ(value(saved_1, saved_key), aic_dbg_only);
    EXPECT_EQ(value(running, "0001"), aic_dbg_only);
    EXPECT_EQ(show("sw")["tag_tables"][1]["saved"], shown_table("none", {}));
    EXPECT_EQ(show("sw")["tag_tables"][1]["running"], shown_table("none", {}));
  }
};

TEST_F(tag_tables, a_switch_that_is_made_runs_the_saved_ones) {
  expect_tables_as_created();

  EXPECT_EQ(show("sw")["tag_tables"][0],
            nlohmann::json({{"vdc", 1},
                            {"saved", shown_table("ok", {aic_dbg})},
                            {"running", shown_table("ok", {aic_dbg})}}));
  EXPECT_TRUE(run({"lab", "show", "sw"})
                  .out.ends_with("\n\nVDC TAG TABLE ENTRIES\n"
                                 "  1 saved     AIC_DBG \"lab\"\n"
                                 "  1 running   AIC_DBG \"lab\"\n"
                                 "  2 saved     none\n"
                                 "  2 running   none\n"));
}

// ---- A version change --------------------------------------------------------------------------

TEST_F(tag_tables, an_upgrade_enters_the_services_that_ran) {
  const nlohmann::json before = show("sw");

  convert({"--to", "4.2(1)"});

  EXPECT_EQ(value(saved_1, saved_key), aic_dbg_kps_dot1x);
  EXPECT_EQ(value(saved_2, saved_key), dot1x_only);
  EXPECT_EQ(value(running, "0001"), aic_dbg_kps_dot1x);
  EXPECT_EQ(value(running, "0002"), dot1x_only);
  EXPECT_EQ(decoded(saved_1), (std::vector<nlohmann::json>{
                                  {{"kind", "tag table"}, {"entries", {aic_dbg, kps, dot1x}}}}));
  EXPECT_EQ(decoded(saved_2), (std::vector<nlohmann::json>{
                                  {{"kind", "tag table"}, {"entries", std::vector{dot1x}}}}));
  EXPECT_EQ(decoded(running),
            (std::vector<nlohmann::json>{
                {{"kind", "tag table"}, {"vdc", 1}, {"entries", {aic_dbg, kps, dot1x}}},
                {{"kind", "tag table"}, {"vdc", 2}, {"entries", std::vector{dot1x}}}}));
  const nlohmann::json shown = show("sw");
  const nlohmann::json table_1 = shown_table("ok", {aic_dbg, kps, dot1x});
  const nlohmann::json table_2 = shown_table("ok", {dot1x});
  EXPECT_EQ(shown["tag_tables"],
            (nlohmann::json::array({{{"vdc", 1}, {"saved", table_1}, {"running", table_1}},
                                    {{"vdc", 2}, {"saved", table_2}, {"running", table_2}}})));
  EXPECT_EQ(shown["access_points"], before["access_points"]); // the system manager's is gone again
}

TEST_F(tag_tables, what_an_upgrade_leaves_besides) {
  convert({"--to", "4.2(1)"});

  EXPECT_EQ(value(saved_1, "010000000000000000000000"), "626f6f74206f72646572");
  EXPECT_EQ(value(saved_2, "010000000000000000000000"), "626f6f74206f72646572");
  EXPECT_EQ(value("volatile:/cfg/0/cond_srv_config", "0f000000"), "01000000");
  EXPECT_EQ(value("volatile:/cfg/0/vdc_2/cond_srv_config", "0f000000"), "01000000");
  const std::string shown = run({"store", "show", "sw", running}).out;
  EXPECT_NE(shown.find(" tag table: vdc 1, AIC_DBG \"lab\", KPS \"\", DOT1X \"\"\n"),
            std::string::npos)
      << shown;
  EXPECT_NE(shown.find(" tag table: vdc 2, DOT1X \"\"\n"), std::string::npos) << shown;
}

TEST_F(tag_tables, a_second_run_changes_none_of_them) {
  convert({"--to", "4.2(1)"});
  const files before = lasting_state();

  const nlohmann::json report = convert({"--from", "4.1(5)", "--to", "4.2(1)"});

  EXPECT_EQ(value(saved_1, saved_key), aic_dbg_kps_dot1x);
  EXPECT_EQ(value(saved_2, saved_key), dot1x_only);
  const files after = lasting_state();
  EXPECT_EQ(after.at("/dev/shm/volatile/sysmgr/tag_tables.pss"),
            before.at("/dev/shm/volatile/sysmgr/tag_tables.pss"));
  size_t set = 0;
  for (const nlohmann::json &request : report["requests"]) {
    for (const nlohmann::json &tag : request["tags_set"]) {
      EXPECT_EQ(tag["changed"], false) << request;
      ++set;
    }
  }
  EXPECT_EQ(set, 5u);
}

TEST_F(tag_tables, a_reboot_runs_the_saved_ones) {
  convert({"--to", "4.2(1)", "--moment", "running-fs"});
  ASSERT_EQ(value(running, "0001"), aic_dbg_kps_dot1x);
  ASSERT_EQ(value(saved_1, saved_key), aic_dbg_only);

  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  expect_tables_as_created();

  convert({"--to", "4.2(1)", "--moment", "startup"});
  ASSERT_EQ(run({"lab", "reboot", "sw"}).err, "");
  EXPECT_EQ(value(running, "0001"), aic_dbg_kps_dot1x);
  EXPECT_EQ(value(running, "0002"), dot1x_only);
}

TEST_F(tag_tables, the_same_release_opens_no_feature_store) {
  const files before = lasting_state();

  const nlohmann::json report =
      convert({"--to", "4.1(5)", "--moment", "running-fs", "--moment", "startup"});

  EXPECT_EQ(lasting_state(), before);
  for (const nlohmann::json &store : report["stores"]) {
    EXPECT_EQ(store["services"], nlohmann::json::array({"VRRP_MGR"})) << store;
  }
  const std::string log = read("sw/runs/0001/conversion.log");
  EXPECT_EQ(log.find("TOTOAL URI"), std::string::npos) << log;
  EXPECT_NE(log.find("dot1x_data_morph_startup: path = /cfg/startup/vdc_2, "), std::string::npos);
}

TEST_F(tag_tables, a_downgrade_changes_none_of_them) {
  const std::string port_manager = "/cfg/startup/bin/ethpm_saved_config.pss";
  const files before = lasting_state();

  convert({"--to", "4.0(4)", "--moment", "running-fs", "--moment", "startup"});
  EXPECT_EQ(lasting_state(), before);
  EXPECT_NE(read("sw/runs/0001/conversion.log").find("Dot1x is enabled and running"),
            std::string::npos);

  convert({"--from", "4.2(1)", "--to", "4.1(2)", "--moment", "running-fs", "--moment", "startup"});
  files after = lasting_state();
  // The port manager's saved configuration does not go down with the switch.
  EXPECT_NE(after.at(port_manager), before.at(port_manager));
  after[port_manager] = before.at(port_manager);
  EXPECT_EQ(after, before);
  EXPECT_EQ(read("sw/runs/0002/trace.log").find("TOTOAL URI"), std::string::npos);
}

TEST_F(tag_tables, a_feature_that_is_off_is_not_entered) {
  put("nonvolatile:/cfg/0/dot1x_saved_config", "640a00000000000000000000", "00000000");
  ASSERT_EQ(
      run({"store", "delete", "sw", "nonvolatile:/cfg/0/kps_saved_config", "f0000000"}).status, 0);

  const nlohmann::json report = convert({"--to", "4.2(1)", "--moment", "running-fs"});

  EXPECT_EQ(value(running, "0001"), aic_dbg_only);
  for (const nlohmann::json &request : report["requests"]) {
    EXPECT_EQ(request["tags_set"], nlohmann::json::array()) << request;
  }
}

// ---- The report and the log --------------------------------------------------------------------

TEST_F(tag_tables, a_request_that_changed_only_a_table_says_so) {
  const nlohmann::json report =
      convert({"--to", "4.2(1)", "--moment", "running-fs", "--service", "KPS"});

  ASSERT_EQ(report["requests"].size(), 1u);
  nlohmann::json tag = kps;
  tag["vdc"] = 1;
  tag["changed"] = true;
  EXPECT_EQ(report["requests"][0]["tags_set"], nlohmann::json::array({tag}));
  const result again =
      run({"convert", "sw", "--to", "4.2(1)", "--moment", "running-fs", "--service", "DOT1X"});
  EXPECT_NE(again.out.find(" ACCESS POINTS REMOVED TAGS SET\n"), std::string::npos) << again.out;
  EXPECT_NE(again.out.find(" 0 -                     DOT1X \"\"\n"), std::string::npos)
      << again.out;
}

TEST_F(tag_tables, a_typical_request_leaves_every_step_in_the_log) {
  convert({"--to", "4.2(1)", "--moment", "running-fs", "--service", "DOT1X"});

  const std::regex time("<[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}> ");
  EXPECT_EQ(std::regex_replace(read("sw/current/mnt/pss/data_morph.log"), time, "<TIME> "),
            "<TIME> libdatamorph_init: datamorph_mts_q = 1\n"
            "<TIME> datamorph_running_fs_upg: calling convert function for uuid = 0x17d\n"
            "<TIME> dot1x_data_morph_running_fs_upg: path = /cfg/0, pkg_name = system, "
            "to_ver = 4.2(1), from_ver = 4.1(5)\n"
            "<TIME> was_running_compulsory_conditional: ENTER with path: /cfg/0, uuid 381 and "
            "from_ver: 4.1(5)\n"
            "<TIME> was_dot1x_running: TOTOAL URI nonvolatile:/cfg/0/dot1x_saved_config "
            "<TIME> was_dot1x_running: Dot1x is enabled and running"
            "<TIME> was_running_compulsory_conditional: Moving from compulsory to optional "
            "service\n"
            "<TIME> sysmgr_add_tag_info_req: Return status 0x0\n"
            "<TIME> dot1x_data_morph_running_fs_upg: Return status SUCCESS\n");
}

// ---- What is damaged ---------------------------------------------------------------------------

TEST_F(tag_tables, a_saved_table_that_cannot_be_edited_stops_the_change_before_the_request) {
  const std::pair<const char *, const char *> rows[] = {
      {damaged_entry, "0x40490002"}, // a table, until it is read to its end
      {"14000000010001", "0x40480009"},
      {"", "0x40480009"},
  };
  for (const auto &[bytes, status] : rows) {
    put(saved_1, saved_key, bytes);
    const files before = state("sw");

    const result converted = run({"convert", "sw", "--to", "4.2(1)", "--moment", "startup",
                                  "--service", "KPS", "--format", "json"});

    EXPECT_EQ(converted.status, 1) << converted.err;
    EXPECT_EQ(state("sw"), before);
    expect_tidy("sw");
    const nlohmann::json report = converted.json();
    EXPECT_EQ(report["converted"], false);
    EXPECT_EQ(report["requests"][0]["status"], std::stoul(status, nullptr, 16));
    const std::string folder = report["run_folder"].get<std::string>();
    const std::string trace = read(folder + "/trace.log");
    EXPECT_NE(trace.find("kps_data_morph_startup: Failed to add tag to sysmgr startup config. "
                         "Error " +
                         std::string(status) + "\n"),
              std::string::npos)
        << trace;
    EXPECT_EQ(trace.find("sysmgr_add_tag_info_req"), std::string::npos) << trace;
  }
}

TEST_F(tag_tables, a_damaged_table_is_never_accepted_as_the_running_one) {
  put(saved_1, saved_key, damaged_entry);
  const files before = state("sw");

  const result converted =
      run({"convert", "sw", "--to", "4.2(1)", "--moment", "startup", "--accept-failures"});

  EXPECT_EQ(converted.status, 1);
  EXPECT_NE(converted.err.find("a write in the switch failed: sysmgr_srv_tag_info_add on the tag "
                               "table of VDC 1 by KPS gave 0x40490002"),
            std::string::npos)
      << converted.err;
  EXPECT_EQ(state("sw"), before);
}

TEST_F(tag_tables, a_damaged_running_table_is_refused_until_a_reboot) {
  const std::pair<const char *, const char *> rows[] = {
      {"0001", damaged_entry}, {"0001", ""},
      {"0003", dot1x_only}, // no such VDC
      {"01", dot1x_only},      {"0002", "0800000000000100ff"},
  };
  for (const auto &[key, bytes] : rows) {
    put(running, key, bytes);
    const files before = state("sw");

    const result converted = run({"convert", "sw", "--to", "4.2(1)"});

    EXPECT_EQ(converted.status, 3);
    EXPECT_EQ(converted.out, "");
    EXPECT_EQ(converted.err.find("datamorph: 'sw': the store 'volatile:/sysmgr/tag_tables' cannot "
                                 "be read: 0x40480009 ("),
              0u)
        << converted.err;
    EXPECT_TRUE(converted.err.ends_with(
        "; 'datamorph lab reboot' makes it anew from the saved tag tables\n"))
        << converted.err;
    EXPECT_EQ(state("sw"), before);
    ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
    expect_tables_as_created();
  }
}

TEST_F(tag_tables, a_running_store_that_is_none_is_refused_and_shown) {
  write("sw/current/dev/shm/volatile/sysmgr/tag_tables.pss", "no store at all");

  EXPECT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 3);
  const std::string state = show("sw")["tag_tables"][0]["running"]["state"];
  EXPECT_EQ(state.find("0x40480009 ("), 0u) << state;
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  expect_tables_as_created();
}

TEST_F(tag_tables, a_boot_goes_on_without_a_damaged_saved_table) {
  put(saved_1, saved_key, damaged_entry);
  put(saved_2, saved_key, dot1x_only);

  const result rebooted = run({"lab", "reboot", "sw"});

  EXPECT_EQ(rebooted.status, 0);
  EXPECT_EQ(rebooted.err,
            "datamorph: 'sw': VDC 1 starts without a tag table: its saved one in the store "
            "'nonvolatile:/cfg/startup/bin/sysmgr_config': the record is damaged\n");
  const nlohmann::json shown = show("sw")["tag_tables"];
  EXPECT_EQ(shown[0]["saved"], shown_table("damaged", {}));
  EXPECT_EQ(shown[0]["running"], shown_table("none", {}));
  EXPECT_EQ(shown[1]["running"], shown_table("ok", {dot1x}));
  EXPECT_NE(run({"lab", "show", "sw"}).out.find("  1 saved     damaged\n"), std::string::npos);
}

TEST_F(tag_tables, a_boot_goes_on_without_a_damaged_store_of_saved_tables) {
  write("sw/current/cfg/startup/bin/sysmgr_config.pss", "no store at all");

  const result rebooted = run({"lab", "reboot", "sw"});

  EXPECT_EQ(rebooted.status, 0);
  EXPECT_EQ(rebooted.err.find("datamorph: 'sw': VDC 1 starts without a tag table: its saved one in "
                              "the store 'nonvolatile:/cfg/startup/bin/sysmgr_config': 0x40480009"),
            0u)
      << rebooted.err;
  // No VDC has one now, so there is no store of them.
  EXPECT_EQ(run({"store", "show", "sw", running}).status, 3);
}

TEST_F(tag_tables, bytes_behind_a_saved_table_are_not_run) {
  put(saved_1, saved_key, std::string(aic_dbg_only) + "ffff");

  ASSERT_EQ(run({"lab", "reboot", "sw"}).err, "");

  EXPECT_EQ(value(running, "0001"), aic_dbg_only);
  convert({"--to", "4.2(1)"});
  EXPECT_EQ(value(saved_1, saved_key), aic_dbg_kps_dot1x);
}

// ---- What a description says -------------------------------------------------------------------

class described_tag_tables : public command_test {
protected:
  // A switch with this saved table, and with more stores.
  result create_with(const std::string &table, const std::string &more = "") {
    write("d.json", R"json({"release": "4.1(5)", "releases": ["4.1(5)", "4.2(1)"],
      "running_cfg_dir": "/cfg/0",
      "paths": {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/cfg/startup"},
      "stores": [{"uri": "nonvolatile:/cfg/startup/bin/sysmgr_config", "records": [
        {"key": [{"u32le": 9}, {"zeros": 8}], "value": {"tag_table": )json" +
                        table + "}}]}" + more + "]}");
    return run({"lab", "create", "sw", "--from", "d.json"});
  }
};

TEST_F(described_tag_tables, are_written_and_run) {
  const result made = create_with(R"([{"service": "dot1x", "tag": ""},
    {"service": "SRVUUID_KPS", "tag": "a \" b"}, {"service": 77777, "tag": "cc"}])");

  EXPECT_EQ(made.out, "sw: switch switch at release 4.1(5), 2 stores, 0 files, 0 access points\n");
  EXPECT_EQ(run({"store", "get", "sw", saved_1, saved_key}).out,
            std::string("2a000000"
                        "0300"
                        "0100") +
                "010005007d01000000" + "01000a001e020000612022206200" + "01000700d12f0100636300\n");
  EXPECT_TRUE(run({"lab", "show", "sw"})
                  .out.ends_with("  1 running   DOT1X \"\", KPS \"a \" b\", 77777 \"cc\"\n"));
}

TEST_F(described_tag_tables, may_be_empty) {
  ASSERT_EQ(create_with("[]").status, 0);

  EXPECT_EQ(run({"store", "get", "sw", saved_1, saved_key}).out, "0800000000000100\n");
  EXPECT_TRUE(run({"lab", "show", "sw"}).out.ends_with("  1 running   no entries\n"));
}

TEST_F(described_tag_tables, a_running_one_that_is_described_wins) {
  const result made = create_with(R"([{"service": "DOT1X", "tag": ""}])",
                                  R"(, {"uri": "volatile:/sysmgr/tag_tables", "records": [
    {"key": {"u16be": 1}, "value": {"tag_table": [{"service": "KPS", "tag": ""}]}}]})");

  EXPECT_EQ(made.out, "sw: switch switch at release 4.1(5), 2 stores, 0 files, 0 access points\n");
  const nlohmann::json table = show("sw")["tag_tables"][0];
  EXPECT_EQ(table["saved"], shown_table("ok", {dot1x}));
  EXPECT_EQ(table["running"], shown_table("ok", {kps}));
}

TEST_F(described_tag_tables, a_damaged_one_is_made_and_not_run) {
  create("sw");
  const result exported = run({"store", "export", "sw", saved_1});
  ASSERT_EQ(exported.status, 0);
  write("d.json", R"json({"release": "4.1(5)", "releases": ["4.1(5)"], "running_cfg_dir": "/cfg/0",
    "paths": {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/s"},
    "stores": [{"uri": "nonvolatile:/s/bin/sysmgr_config", "records": [
      {"key": [{"u32le": 9}, {"zeros": 8}], "value": "01"}]}]})json");

  const result made = run({"lab", "create", "other", "--from", "d.json"});

  EXPECT_EQ(made.status, 0);
  EXPECT_EQ(made.out,
            "other: switch switch at release 4.1(5), 1 store, 0 files, 0 access points\n");
  EXPECT_EQ(made.err, "datamorph: 'other': VDC 1 starts without a tag table: its saved one in the "
                      "store 'nonvolatile:/s/bin/sysmgr_config': the record is damaged\n");
}

TEST_F(described_tag_tables, are_refused_when_wrong) {
  const std::string value = "/stores/0/records/0/value/tag_table";
  const std::pair<std::string, std::string> rows[] = {
      {"{}", value + ": a list is wanted here"},
      {"[{}]", value + "/0: the member 'service' is missing"},
      {R"([{"service": "KPS"}])", value + "/0: the member 'tag' is missing"},
      {R"([{"service": "KPSS", "tag": ""}])",
       value + "/0/service: unknown service 'KPSS'; services: VRRP_MGR VRRP_ENG "},
      {R"([{"service": 0, "tag": ""}])",
       value + "/0/service: a number from 1 to 4294967295 is wanted here"},
      {R"([{"service": "KPS", "tag": 1}])", value + "/0/tag: a text is wanted here"},
      {R"([{"service": "KPS", "tag": ")" + std::string(32, 't') + R"("}])",
       value + "/0/tag: a tag is a text of at most 31 bytes, none of them zero"},
      {R"([{"service": "KPS", "tag": "a\u0000b"}])",
       value + "/0/tag: a tag is a text of at most 31 bytes, none of them zero"},
      {R"([{"service": "KPS", "tag": ""}, {"service": 542, "tag": "b"}])",
       value + "/1: this service is in the table already"},
      {R"([{"service": "KPS", "tag": "", "vdc": 1}])", value + "/0: unknown member 'vdc'"},
  };
  for (const auto &[table, message] : rows) {
    const result made = create_with(table);
    EXPECT_EQ(made.status, 3) << table;
    EXPECT_EQ(made.err.find("datamorph: 'd.json': " + message), 0u) << made.err;
    EXPECT_EQ(std::count(made.err.begin(), made.err.end(), '\n'), 1) << made.err;
    EXPECT_FALSE(exists("sw"));
  }
  std::string many;
  for (int service = 1; service < 8000; ++service) {
    many += (many.empty() ? "{\"service\": " : ",{\"service\": ") + std::to_string(service) +
            ", \"tag\": \"\"}";
  }
  EXPECT_NE(create_with("[" + many + "]").err.find(": the table is larger than 65536 bytes\n"),
            std::string::npos);
}

} // namespace
