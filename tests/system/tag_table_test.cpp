// The system manager's tag tables through a version change: the real library on the example switch,
// where 802.1X and KPS run in VDC 1, 802.1X in VDC 2, and port security in VDC 1.
#include "command.h"

#include <algorithm>
#include <array>
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
  // The record is marked where it is looked at.
  void expect_shown_trouble(const std::string &key, const std::string &trouble) {
    EXPECT_EQ(show("sw")["tag_table_troubles"],
              nlohmann::json::array({{{"key", key}, {"text", trouble}}}));
    EXPECT_NE(run({"lab", "show", "sw"})
                  .out.find("\n  - running   convert refuses the record with the key '" + key +
                            "': " + trouble + "\n"),
              std::string::npos);
    const nlohmann::json document =
        run({"store", "show", "sw", running, "--format", "json"}).json();
    for (const nlohmann::json &record : document["records"]) {
      EXPECT_EQ(record.value("trouble", ""), record["key"] == key ? trouble : "") << record;
    }
    EXPECT_NE(
        run({"store", "show", "sw", running}).out.find("convert refuses it: " + trouble + "\n"),
        std::string::npos);
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

  const nlohmann::json report = convert({"--from", "4.1(5)", "--to", "4.2(1)", "--accept-losses"});

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
  for (const nlohmann::json &store : report["stores"]) { // nor is the running tables' one written
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

TEST_F(tag_tables, the_store_of_the_running_ones_is_in_the_report) {
  const auto row = [](const nlohmann::json &report) {
    nlohmann::json found;
    for (const nlohmann::json &store : report["stores"]) {
      if (store["uri"] == running) {
        found.push_back(store);
      }
    }
    return found;
  };
  const nlohmann::json one = {{"uri", running},
                              {"what", "changed"},
                              {"records", {{"added", 1}, {"changed", 1}, {"removed", 0}}},
                              {"services", {"KPS", "DOT1X"}}};
  EXPECT_EQ(row(convert({"--to", "4.2(1)"})), nlohmann::json::array({one}));
  EXPECT_EQ(row(convert({"--from", "4.1(5)", "--to", "4.2(1)", "--accept-losses"})),
            nlohmann::json());

  ASSERT_EQ(run({"store", "delete", "sw", running, "--all"}).status, 0);
  const result made = run({"convert", "sw", "--from", "4.1(5)", "--to", "4.2(1)", "--moment",
                           "running-fs", "--service", "KPS"});
  EXPECT_NE(made.out.find("\nvolatile:/sysmgr/tag_tables created     1       0       0 KPS\n"),
            std::string::npos)
      << made.out;
}

// The saved table comes over the running one: what stands only in that one goes.
TEST_F(tag_tables, entries_that_went_are_told) {
  put(running, "0001",
      "14000000"
      "0100"
      "0100"
      "01000800"
      "bc020000"
      "222f7a00");

  const result converted = run({"convert", "sw", "--to", "4.2(1)", "--moment", "startup",
                                "--service", "DOT1X", "--service", "KPS"});

  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_NE(converted.out.find(" TAGS SET TAGS GONE\n"), std::string::npos) << converted.out;
  EXPECT_NE(converted.out.find(" KPS \"\"   700 \"\\\"/z\"\n"), std::string::npos) << converted.out;
  const nlohmann::json report = nlohmann::json::parse(read("sw/runs/0001/report.json"));
  for (const nlohmann::json &request : report["requests"]) {
    const bool first = request["service"] == "KPS" && request["vdc"] == 1;
    const nlohmann::json entry = {{"vdc", 1}, {"service", "700"}, {"uuid", 700}, {"tag", "\"/z"}};
    EXPECT_EQ(request["tags_gone"],
              first ? nlohmann::json::array({entry}) : nlohmann::json::array())
        << request;
  }
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
  const std::array<const char *, 3> rows[] = {
      {"0001", damaged_entry, "its table is damaged"},
      {"0001", "", "its table is damaged"},
      {"0003", dot1x_only, "the switch has no VDC 3"},
      {"0000", dot1x_only, "the switch has no VDC 0"},
      {"01", dot1x_only, "its key is not the 2 bytes of a VDC"},
      {"000200", dot1x_only, "its key is not the 2 bytes of a VDC"},
      {"0002", "0800000000000100ff", "its table is damaged"},
  };
  for (const auto &[key, bytes, trouble] : rows) {
    put(running, key, bytes);
    const files before = state("sw");

    const result converted = run({"convert", "sw", "--to", "4.2(1)"});

    EXPECT_EQ(converted.status, 3);
    EXPECT_EQ(converted.out, "");
    EXPECT_EQ(converted.err.find("datamorph: 'sw': the store 'volatile:/sysmgr/tag_tables' cannot "
                                 "be read: 0x40480009 ("),
              0u)
        << converted.err;
    const std::string quoted_key = key;
    EXPECT_TRUE(converted.err.ends_with(
        "): the record with the key '" + quoted_key + "': " + trouble +
        "; 'datamorph store delete sw volatile:/sysmgr/tag_tables " + quoted_key +
        "' removes that one, 'datamorph lab reboot' makes it anew from the saved tag tables, but "
        "empties /tmp and the other volatile stores too\n"))
        << converted.err;
    EXPECT_EQ(state("sw"), before);
    expect_shown_trouble(key, trouble);
    ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
    expect_tables_as_created();
  }
}

TEST_F(tag_tables, a_record_that_is_refused_can_be_deleted_alone) {
  put(running, "0003", dot1x_only);
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 3);

  ASSERT_EQ(run({"store", "delete", "sw", running, "0003"}).status, 0);

  EXPECT_EQ(show("sw")["tag_table_troubles"], nlohmann::json::array());
  EXPECT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
}

TEST_F(tag_tables, a_running_store_that_is_none_is_refused_and_shown) {
  write("sw/current/dev/shm/volatile/sysmgr/tag_tables.pss", "no store at all");

  const result refused = run({"convert", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(refused.status, 3);
  EXPECT_NE(refused.err.find("); 'datamorph store delete sw volatile:/sysmgr/tag_tables --all' "
                             "removes it, 'datamorph lab reboot' makes it anew"),
            std::string::npos)
      << refused.err;
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

TEST_F(tag_tables, a_saved_table_that_is_too_large_to_run_is_marked) {
  constexpr size_t entries = 1639; // of 40 bytes each, and the header: 65568 bytes
  std::string table = "20000100"
                      "6706"
                      "0100";
  for (size_t at = 0; at < entries; ++at) {
    table += "01002400"
             "f5010000" +
             std::string(62, '7') + "00";
  }
  write("large.json", std::string(R"({"stores": [{"uri": ")") + saved_1 +
                          R"(", "records": [{"key": ")" + saved_key + R"(", "value": ")" + table +
                          R"("}]}]})");
  ASSERT_EQ(run({"store", "import", "sw", "--file", "large.json"}).status, 0);

  const result rebooted = run({"lab", "reboot", "sw", "--format", "json"});

  const std::string trouble =
      "VDC 1 starts without a tag table: its saved one in the store "
      "'nonvolatile:/cfg/startup/bin/sysmgr_config': it is too large to run";
  EXPECT_EQ(rebooted.err, "datamorph: 'sw': " + trouble + "\n");
  EXPECT_EQ(rebooted.json()["troubles"], nlohmann::json::array({trouble}));
  const nlohmann::json saved = show("sw")["tag_tables"][0]["saved"];
  EXPECT_EQ(saved["state"], "too large to run");
  EXPECT_EQ(saved["entries"].size(), entries);
  EXPECT_NE(run({"lab", "show", "sw"}).out.find("  1 saved     too large to run\n"),
            std::string::npos);
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
                  .out.ends_with("  1 running   DOT1X \"\", KPS \"a \\\" b\", 77777 \"cc\"\n"));
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
  const result third = run({"lab", "create", "third", "--from", "d.json", "--format", "json"});
  EXPECT_EQ(third.json()["troubles"],
            nlohmann::json::array({"VDC 1 starts without a tag table: its saved one in the store "
                                   "'nonvolatile:/s/bin/sysmgr_config': the record is damaged"}));
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

// ---- What a converter does to the running tables -----------------------------------------------

class edited_tag_tables : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  // The report of the one request to the fake converters' SKSD.
  result convert(const std::string &what, const words &more = {}) {
    fake(what);
    words arguments = {"convert",  "sw",         "--to",      "4.2(1)",
                       "--moment", "running-fs", "--service", "SKSD"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run(arguments);
  }
  nlohmann::json request_of(const result &converted) { return converted.json()["requests"][0]; }
};

TEST_F(edited_tag_tables, a_tag_has_changed_when_it_is_another_one) {
  const auto entry = [](const char *tag, bool changed) {
    return nlohmann::json::array(
        {{{"vdc", 1}, {"service", "AIC_DBG"}, {"uuid", 501}, {"tag", tag}, {"changed", changed}}});
  };
  const words json = {"--format", "json"};
  EXPECT_EQ(request_of(convert("set-the-same-tag", json))["tags_set"], entry("lab", false));
  EXPECT_EQ(request_of(convert("set-a-tag-and-back", json))["tags_set"], entry("lab", false));
  EXPECT_EQ(request_of(convert("set-another-tag", json))["tags_set"], entry("\\xff\"x", true));
  EXPECT_EQ(request_of(convert("set-another-tag", json))["tags_set"], entry("\\xff\"x", false));
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);
  const result shown = convert("set-another-tag");
  EXPECT_NE(shown.out.find(" AIC_DBG \"\\xff\\\"x\"\n"), std::string::npos) << shown.out;
}

TEST_F(edited_tag_tables, of_a_run_that_failed_are_those_of_the_copy) {
  const result converted = convert("empty-a-tag-table-and-fail");

  EXPECT_EQ(converted.status, 1);
  EXPECT_NE(
      converted.out.find(" TAGS SET (in the copy that was dropped) TAGS GONE (in the copy that "
                         "was dropped)\n"),
      std::string::npos)
      << converted.out;
  EXPECT_NE(converted.out.find(" AIC_DBG \"lab\"\n"), std::string::npos) << converted.out;
  EXPECT_NE(converted.out.find("\nSTORE (in the copy that was dropped) "), std::string::npos);
  EXPECT_EQ(show("sw")["tag_tables"][0]["running"], shown_table("ok", {aic_dbg}));
}

// The last ones are entered when the system manager ends.
TEST_F(edited_tag_tables, all_that_was_asked_for_is_entered_and_told) {
  const nlohmann::json report = convert("send-tags", {"--format", "json"}).json();

  EXPECT_EQ(report["requests"][0]["tags_set"].size(), 300u);
  EXPECT_EQ(show("sw")["tag_tables"][0]["running"]["entries"].size(), 301u);
}

TEST_F(edited_tag_tables, of_a_vdc_that_the_switch_does_not_have_fail_the_run) {
  const files before = state("sw");

  const result converted = convert("make-a-strange-tag-table");

  EXPECT_EQ(converted.status, 1);
  EXPECT_NE(converted.err.find("not converted: the running tag tables could not be kept in the "
                               "store 'volatile:/sysmgr/tag_tables': 0x40480009 ("),
            std::string::npos)
      << converted.err;
  EXPECT_EQ(state("sw"), before);
}

TEST_F(edited_tag_tables, a_store_that_is_written_with_what_stands_there_is_unchanged) {
  ASSERT_EQ(convert("change").status, 0);

  const nlohmann::json report = convert("change", {"--format", "json"}).json();

  ASSERT_EQ(report["stores"].size(), 1u);
  EXPECT_EQ(report["stores"][0]["uri"], "nonvolatile:/cfg/0/vlan_cfg");
  EXPECT_EQ(report["stores"][0]["what"], "unchanged");
}

} // namespace
