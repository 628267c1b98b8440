// VRRP across 4.2(1), through the real library on the example switch: three groups in VDC 1, two in
// VDC 2, with IPv4 and IPv6 addresses, and in each VDC a record of another key type.
#include "command.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <regex>

namespace {

constexpr char manager_1[] = "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav";
constexpr char manager_2[] = "nonvolatile:/cfg/startup/vdc_2/bin/vrrp-cfg_config_sav";
constexpr char engine_1[] = "nonvolatile:/cfg/startup/bin/vrrp-eng_runtime_config";
constexpr char engine_2[] = "nonvolatile:/cfg/startup/vdc_2/bin/vrrp-eng_runtime_config";
constexpr char hand_over_1[] = "nonvolatile:/tmp/vrrp-startup-pss";
constexpr char hand_over_2[] = "nonvolatile:/tmp/vrrp-startup-pss2/bin";

using records = std::map<std::string, std::string>;

// The virtual routers of VDC 1 as they lie before 4.2(1), 85 bytes each.
constexpr char vr_10_ethernet_1[] = "0000001a"                         // ifindex
                                    "0a"                               // vr_id
                                    "01000000"                         // addr_type
                                    "01000000"                         // admin
                                    "78000000"                         // prio
                                    "01000000"                         // primary_ip: type
                                    "0a010102000000000000000000000000" // primary_ip: address
                                    "02000000"                         // auth
                                    "73656372657400000000000000000000" // key
                                    "01000000"                         // adv
                                    "01000000"                         // preempt
                                    "0a000000"                         // track_prio
                                    "0010001a"                         // track_intf
                                    "00000000"                         // spi
                                    "01000000"                         // row_status
                                    "00000000";                        // owner
constexpr char vr_10_ethernet_2[] = "0010001a"
                                    "0a"
                                    "01000000"
                                    "02000000"
                                    "64000000"
                                    "01000000"
                                    "0a010202000000000000000000000000"
                                    "03000000"
                                    "00000000000000000000000000000000"
                                    "01000000"
                                    "00000000"
                                    "00000000"
                                    "00000000"
                                    "00000000"
                                    "01000000"
                                    "01000000";
constexpr char vr_20_ethernet_1[] = "0000001a"
                                    "14"
                                    "02000000"
                                    "01000000"
                                    "64000000"
                                    "02000000"
                                    "fe800000000000000000000000000002"
                                    "01000000"
                                    "00000000000000000000000000000000"
                                    "01000000"
                                    "01000000"
                                    "00000000"
                                    "00000000"
                                    "00000000"
                                    "01000000"
                                    "00000000";
// Those of VDC 2.
constexpr char vr_1_ethernet_4[] = "0030001a"
                                   "01"
                                   "01000000"
                                   "01000000"
                                   "c8000000"
                                   "01000000"
                                   "c0a80202000000000000000000000000"
                                   "01000000"
                                   "00000000000000000000000000000000"
                                   "01000000"
                                   "01000000"
                                   "00000000"
                                   "00000000"
                                   "00000000"
                                   "01000000"
                                   "00000000";
constexpr char vr_2_ethernet_4[] = "0030001a"
                                   "02"
                                   "02000000"
                                   "01000000"
                                   "64000000"
                                   "02000000"
                                   "fe800000000000000000000000000004"
                                   "01000000"
                                   "00000000000000000000000000000000"
                                   "03000000"
                                   "01000000"
                                   "00000000"
                                   "00000000"
                                   "00000000"
                                   "01000000"
                                   "00000000";
// What 4.2(1) added, zero: two thresholds, the forwarding state, 20 reserved bytes.
constexpr char added[] = "00000000"
                         "00000000"
                         "00000000"
                         "0000000000000000000000000000000000000000";
constexpr char global_info[] = "010000000000000000000000000000000000000000";

// The records of other key types.
const records others_1 = {{"0300000001", "636c69656e74206f6620696e746572666163652031"}};
const records others_2 = {{"0300000001", "636c69656e74206f6620696e746572666163652034"}};

// The addresses, 33 bytes in every release.
const records addresses_1 = {
    {"02000000010a1a0000000a010101000000000000000000000000",
     "0000001a0a010000000a0101010000000000000000000000000100000001000000"},
    {"02000000010a1a0000000a0101fe000000000000000000000000",
     "0000001a0a010000000a0101fe0000000000000000000000000100000001000000"},
    {"02000000010a1a0010000a010202000000000000000000000000",
     "0010001a0a010000000a0102020000000000000000000000000100000001000000"},
    {"0200000002141a00000020010db8000000000000000000000001",
     "0000001a140200000020010db80000000000000000000000010100000001000000"},
    {"0200000002141a000000fe800000000000000000000000000001",
     "0000001a1402000000fe8000000000000000000000000000010100000001000000"}};
const records addresses_2 = {
    {"0200000001011a003000c0a80201000000000000000000000000",
     "0030001a0101000000c0a802010000000000000000000000000100000001000000"},
    {"0200000002021a003000fe800000000000000000000000020001",
     "0030001a0202000000fe8000000000000000000000000200010100000001000000"}};

records joined(const std::vector<records> &parts) {
  records all;
  for (const records &part : parts) {
    all.insert(part.begin(), part.end());
  }
  return all;
}

// A whole configuration; behind each virtual router these bytes.
records configuration_1(const std::string &more) {
  return joined({{{"01000000010a1a000000", vr_10_ethernet_1 + more},
                  {"01000000010a1a001000", vr_10_ethernet_2 + more},
                  {"0100000002141a000000", vr_20_ethernet_1 + more},
                  {"04000000", global_info}},
                 addresses_1,
                 others_1});
}
records configuration_2(const std::string &more) {
  return joined({{{"0100000001011a003000", vr_1_ethernet_4 + more},
                  {"0100000002021a003000", vr_2_ethernet_4 + more},
                  {"04000000", global_info}},
                 addresses_2,
                 others_2});
}

class vrrp : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  records stored(const std::string &uri, const std::string &name = "sw") {
    const result shown = run({"store", "show", name, uri, "--format", "json"});
    EXPECT_EQ(shown.status, 0) << shown.err;
    records found;
    const nlohmann::json document = shown.json();
    for (const nlohmann::json &record : document["records"]) {
      found[record["key"]] = record["value"];
    }
    return found;
  }
  bool stands(const std::string &uri, const std::string &name = "sw") {
    const std::vector<std::string> all = uris(show(name));
    return std::find(all.begin(), all.end(), uri) != all.end();
  }
  // No temporary store, of whatever name; the folder that one stood in may stay.
  void expect_no_hand_over(const std::string &name = "sw") {
    for (const auto &[file, content] : state(name)) {
      if (file.starts_with("/tmp/") && content != "16877:") { // a folder, 0755
        EXPECT_TRUE(file == "/tmp/session.txt" || file == "/tmp/datamorphcheck") << file;
      }
      EXPECT_EQ(file.find("vrrp-pss"), std::string::npos) << file;
    }
    for (const std::string &uri : uris(show(name))) {
      EXPECT_EQ(uri.find("/tmp/"), std::string::npos) << uri;
    }
  }
  result convert(const words &more, const std::string &name = "sw") {
    words arguments = {"convert", name};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const result converted = run(arguments);
    EXPECT_EQ(converted.status, 0) << converted.err;
    return converted;
  }
  // The conversion would lose these records, and goes no further than its copy.
  void expect_refused(const words &more, const std::string &records, const std::string &engine) {
    words arguments = {"convert", "sw"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const files before = state("sw");
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, 3) << refused.err;
    const size_t at = refused.err.find("datamorph: 'sw': not converted: " + records);
    ASSERT_NE(at, std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find(" would be lost; give them back to VRRP's manager first: convert "
                               "from 4.2(1) or later to an older release with --moment startup "
                               "--service VRRP_MGR" +
                                   engine +
                                   " (--accept-losses keeps the result all the same); the switch "
                                   "is as it was, still at ",
                               at),
              std::string::npos)
        << refused.err;
    EXPECT_NE(refused.out.find("sw: not converted, still at "), std::string::npos) << refused.out;
    EXPECT_EQ(state("sw"), before);
    expect_tidy("sw");
  }
  void expect_before_4_2() {
    EXPECT_EQ(stored(manager_1), configuration_1(""));
    EXPECT_EQ(stored(manager_2), configuration_2(""));
    expect_no_hand_over();
  }
  void expect_at_4_2(const std::string &name = "sw") {
    EXPECT_EQ(stored(manager_1, name), others_1);
    EXPECT_EQ(stored(manager_2, name), others_2);
    EXPECT_EQ(stored(engine_1, name), configuration_1(added));
    EXPECT_EQ(stored(engine_2, name), configuration_2(added));
    expect_no_hand_over(name);
  }
  void expect_back() {
    expect_before_4_2();
    EXPECT_EQ(stored(engine_1), others_1);
    EXPECT_EQ(stored(engine_2), others_2);
  }
};

// ---- There and back ----------------------------------------------------------------------------

TEST_F(vrrp, the_example_stands_before_4_2) {
  expect_before_4_2();
  EXPECT_FALSE(stands(engine_1));
  EXPECT_FALSE(stands(engine_2));
  EXPECT_EQ(configuration_1("").at("01000000010a1a000000").size(), 2u * 85);
  EXPECT_EQ(configuration_1(added).at("01000000010a1a000000").size(), 2u * 117);
  EXPECT_EQ(configuration_1("").size(), 10u);
  EXPECT_EQ(configuration_2("").size(), 6u);
}

TEST_F(vrrp, goes_up_to_the_engine_and_back_to_the_manager) {
  convert({"--to", "4.2(1)"});
  expect_at_4_2();

  convert({"--to", "4.1(5)"});
  expect_back();
  EXPECT_EQ(show("sw")["release"], "4.1(5)");

  convert({"--to", "4.2(1)"});
  expect_at_4_2();
}

TEST_F(vrrp, other_releases_on_both_sides) {
  convert({"--to", "5.0(2)"});
  expect_at_4_2();

  convert({"--to", "4.2(1)"}); // both hold them with the engine
  expect_at_4_2();

  convert({"--to", "4.0(4)"});
  expect_back();
}

// What only 4.2(1) has is lost on the way back, and the addresses become those of the engine.
TEST_F(vrrp, what_was_changed_at_4_2_comes_back) {
  convert({"--to", "4.2(1)"});
  const std::string filled = "11000000"
                             "22000000"
                             "01000000"
                             "a0a1a2a3a4a5a6a7a8a9b0b1b2b3b4b5b6b7b8b9";
  ASSERT_EQ(run({"store", "put", "sw", engine_1, "0100000002141a000000", vr_20_ethernet_1 + filled})
                .status,
            0);
  ASSERT_EQ(run({"store", "delete", "sw", engine_1, addresses_1.begin()->first}).status, 0);

  convert({"--to", "4.1(5)"});

  records expected = configuration_1("");
  expected.erase(addresses_1.begin()->first);
  EXPECT_EQ(stored(manager_1), expected);
  EXPECT_EQ(stored(engine_1), others_1);
  expect_no_hand_over();
}

TEST_F(vrrp, between_two_old_releases_the_records_stay) {
  for (const char *release : {"4.1(2)", "4.1(2)", "3.3(1)", "4.1(5)"}) {
    convert({"--to", release});
    expect_before_4_2();
    EXPECT_FALSE(stands(engine_1)) << release;
  }
}

// ---- Ways to ask for it ------------------------------------------------------------------------

TEST_F(vrrp, a_whole_table_gives_the_same) {
  convert({"--to", "4.2(1)", "--whole-table"});
  expect_at_4_2();

  convert({"--to", "4.1(5)", "--whole-table"});
  expect_back();
}

// Its four rows stand in one order: what the manager hands over, the engine takes and gives back.
TEST_F(vrrp, a_whole_table_between_two_old_releases_makes_the_engines_store) {
  convert({"--to", "4.1(2)", "--whole-table"});
  expect_back();
}

TEST_F(vrrp, its_two_services_alone) {
  const words both = {"--moment", "startup", "--service", "VRRP_MGR", "--service", "VRRP_ENG"};
  words up = {"--to", "4.2(1)", "--format", "json"};
  up.insert(up.end(), both.begin(), both.end());
  words down = {"--from", "4.2(1)", "--to", "4.1(5)", "--format", "json"};
  down.insert(down.end(), both.begin(), both.end());
  const auto order = [](const result &converted) {
    std::vector<std::pair<int, std::string>> found;
    const nlohmann::json report = converted.json();
    for (const nlohmann::json &request : report["requests"]) {
      EXPECT_EQ(request["status"], 0) << request;
      found.emplace_back(request["vdc"].get<int>(), request["service"].get<std::string>());
    }
    return found;
  };
  using requests = std::vector<std::pair<int, std::string>>;

  EXPECT_EQ(order(convert(up)),
            (requests{{1, "VRRP_MGR"}, {1, "VRRP_ENG"}, {2, "VRRP_MGR"}, {2, "VRRP_ENG"}}));
  expect_at_4_2();
  EXPECT_EQ(show("sw")["release"], "4.1(5)");

  EXPECT_EQ(order(convert(down)),
            (requests{{1, "VRRP_ENG"}, {1, "VRRP_MGR"}, {2, "VRRP_ENG"}, {2, "VRRP_MGR"}}));
  expect_back();
}

TEST_F(vrrp, the_manager_alone_leaves_its_records_for_the_engine) {
  convert({"--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_MGR"});

  EXPECT_EQ(stored(manager_1), others_1);
  EXPECT_EQ(stored(manager_2), others_2);
  EXPECT_EQ(stored(hand_over_1), configuration_1(""));
  EXPECT_EQ(stored(hand_over_2), configuration_2(""));
  EXPECT_FALSE(stands(engine_1));

  convert({"--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_ENG"});
  expect_at_4_2();
}

TEST_F(vrrp, the_engine_alone_leaves_its_records_for_the_manager) {
  convert({"--to", "4.2(1)"});

  convert({"--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_ENG"});

  EXPECT_EQ(stored(engine_1), others_1);
  EXPECT_EQ(stored(engine_2), others_2);
  EXPECT_EQ(stored(hand_over_1), configuration_1(added));
  EXPECT_EQ(stored(hand_over_2), configuration_2(added));
  EXPECT_EQ(stored(manager_1), others_1);

  convert({"--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_MGR"});
  expect_back();
}

TEST_F(vrrp, the_one_that_would_take_over_has_nothing_to_take) {
  convert({"--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_ENG"});
  expect_before_4_2();
  EXPECT_FALSE(stands(engine_1));

  convert({"--to", "4.2(1)"});
  convert({"--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_MGR"});
  expect_at_4_2();
}

// A boot empties /tmp: the records are then where the state before the conversion is.
TEST_F(vrrp, records_that_wait_are_lost_by_a_boot) {
  convert({"--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_MGR"});
  const result rebooted = run({"lab", "reboot", "sw"});
  ASSERT_EQ(rebooted.status, 0);
  EXPECT_EQ(rebooted.err, "datamorph: 'sw': 8 VRRP records of '" + std::string(hand_over_1) +
                              "', 4 VRRP records of '" + hand_over_2 +
                              "' waited for the other service and are gone\n");

  convert({"--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_ENG"});

  EXPECT_EQ(stored(manager_1), others_1);
  EXPECT_FALSE(stands(engine_1));
  expect_no_hand_over();
}

// ---- Once more ---------------------------------------------------------------------------------

// What is left with the manager would replace what the engine has.
TEST_F(vrrp, an_upgrade_that_is_repeated_is_refused) {
  convert({"--to", "4.2(1)"});

  expect_refused({"--from", "4.1(5)", "--to", "4.2(1)", "--moment", "startup"},
                 "8 VRRP records of '" + std::string(engine_1) + "', 4 VRRP records of '" +
                     engine_2 + "'",
                 " --service VRRP_ENG");

  expect_at_4_2();
}

TEST_F(vrrp, an_upgrade_that_is_repeated_loses_the_engines_records_when_that_is_accepted) {
  convert({"--to", "4.2(1)"});

  const result again =
      convert({"--from", "4.1(5)", "--to", "4.2(1)", "--moment", "startup", "--accept-losses"});

  EXPECT_EQ(stored(engine_1), joined({others_1, {{"04000000", global_info}}}));
  EXPECT_EQ(stored(engine_2), joined({others_2, {{"04000000", global_info}}}));
  EXPECT_EQ(stored(manager_1), others_1);
  expect_no_hand_over();
  const std::string warning = "--from names 4.1(5), the switch ran 4.2(1): converting once more "
                              "what was converted already can lose records";
  const std::string lost = "lost, and accepted as asked: 8 VRRP records of '" +
                           std::string(engine_1) + "', 4 VRRP records of '" + engine_2 + "'";
  EXPECT_NE(again.err.find("datamorph: 'sw': " + warning + "\n"), std::string::npos) << again.err;
  EXPECT_NE(again.err.find("datamorph: 'sw': " + lost + "\n"), std::string::npos) << again.err;
  const nlohmann::json report = nlohmann::json::parse(read("sw/runs/0002/report.json"));
  EXPECT_EQ(report["notes"], nlohmann::json::array({warning, lost}));
}

// The release stays after a part of a version change, so that nothing else tells.
TEST_F(vrrp, the_whole_change_after_its_startup_moment) {
  for (const words &part :
       {words{"--moment", "startup"}, words{"--service", "VRRP_MGR", "--service", "VRRP_ENG"}}) {
    words up = {"--to", "4.2(1)"};
    up.insert(up.end(), part.begin(), part.end());
    convert(up);
    EXPECT_EQ(show("sw")["release"], "4.1(5)");
    for (const words &again :
         {words{"--to", "4.2(1)"}, words{"--to", "5.0(2)", "--whole-table"},
          words{"--from", "4.1(5)", "--to", "4.2(3)"},
          words{"--to", "4.2(1)", "--moment", "startup"}, words{"--to", "4.1(2)"}}) {
      expect_refused(again,
                     "8 VRRP records of '" + std::string(engine_1) + "', 4 VRRP records of '" +
                         engine_2 + "'",
                     " --service VRRP_ENG");
      EXPECT_EQ(show("sw")["release"], "4.1(5)");
    }
    expect_at_4_2();

    convert({"--from", "4.2(1)", "--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_MGR",
             "--service", "VRRP_ENG"});
    expect_back();
  }
  convert({"--to", "4.2(1)"});
  expect_at_4_2();
  EXPECT_EQ(show("sw")["release"], "4.2(1)");
}

// What waits between the two would be replaced by what is left with the one that gave it away.
TEST_F(vrrp, the_whole_change_after_the_manager_alone) {
  const std::string waiting = "8 VRRP records of '" + std::string(hand_over_1) +
                              "', 4 VRRP records of '" + hand_over_2 + "'";
  const result alone = convert({"--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_MGR"});
  EXPECT_NE(alone.err.find("datamorph: 'sw': " + waiting +
                           " wait for the other service: convert that one before 'lab reboot', "
                           "which empties /tmp\n"),
            std::string::npos)
      << alone.err;

  for (const words &again : {words{"--to", "4.2(1)"}, words{"--to", "4.1(2)"},
                             words{"--to", "4.2(1)", "--service", "VRRP_MGR"}}) {
    expect_refused(again, waiting, "");
  }

  convert({"--from", "4.2(1)", "--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_MGR"});
  expect_before_4_2();
  convert({"--to", "4.2(1)"});
  expect_at_4_2();
}

TEST_F(vrrp, the_whole_change_after_the_engine_alone) {
  const std::string waiting = "8 VRRP records of '" + std::string(hand_over_1) +
                              "', 4 VRRP records of '" + hand_over_2 + "'";
  convert({"--to", "4.2(1)"});
  convert({"--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_ENG"});

  expect_refused({"--to", "4.1(5)"}, waiting, "");
  expect_refused({"--from", "4.1(5)", "--to", "4.2(1)"}, waiting, "");

  convert({"--from", "4.2(1)", "--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_MGR"});
  expect_back();
}

// The engine hands over what it has, to nobody.
TEST_F(vrrp, between_two_old_releases_after_the_startup_moment) {
  convert({"--to", "4.1(2)"});
  convert({"--to", "4.2(1)", "--moment", "startup"});

  const result onward = convert({"--to", "4.1(5)"});

  EXPECT_NE(onward.err.find("8 VRRP records of '" + std::string(hand_over_1) + "'"),
            std::string::npos)
      << onward.err;
  EXPECT_EQ(show("sw")["release"], "4.1(5)");
  expect_refused({"--to", "4.2(1)"}, "8 VRRP records of '" + std::string(hand_over_1), "");
  convert({"--from", "4.2(1)", "--to", "4.1(5)", "--moment", "startup", "--service", "VRRP_MGR"});
  expect_back();
}

TEST_F(vrrp, a_downgrade_that_is_repeated_keeps_the_managers_records) {
  convert({"--to", "4.2(1)"});
  convert({"--to", "4.1(5)"});

  convert({"--from", "4.2(1)", "--to", "4.1(5)", "--moment", "startup"});

  expect_back();
}

TEST_F(vrrp, a_release_that_is_named_and_runs_is_no_warning) {
  const result converted = convert({"--from", "4.1(5)", "--to", "4.2(1)"});

  EXPECT_EQ(converted.err.find("--from"), std::string::npos) << converted.err;
  EXPECT_EQ(nlohmann::json::parse(read("sw/runs/0001/report.json"))["notes"],
            nlohmann::json::array());
}

// ---- Trace files -------------------------------------------------------------------------------

class traced_vrrp : public vrrp {
protected:
  void SetUp() override {
    vrrp::SetUp();
    std::string described = example();
    const size_t at = described.find("\"files\": [");
    ASSERT_NE(at, std::string::npos);
    described.insert(at + strlen("\"files\": ["),
                     R"({"path": "/bootflash/data_morph_vrrp_mgr.log", "text": "before\n"},
                        {"path": "/bootflash/data_morph_vrrp_eng.log"},)");
    write("d.json", described);
    create("traced", {"--from", "d.json"});
  }
  static std::string example() {
    std::ifstream file(examples + "/datacenter-switch.json", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  nlohmann::json stores(const std::string &name) { return run({"store", "export", name}).json(); }
  // The file's lines; time and source line, which are checked, as TIME and N.
  std::string lines(const char *side) const {
    static const std::regex prefix("<[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] "
                                   "[0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}> ([a-z0-9_]+):[0-9]+ ");
    return std::regex_replace(
        read("traced/current/bootflash/data_morph_vrrp_" + std::string(side) + ".log"), prefix,
        "<TIME> $1:N ");
  }
};

TEST_F(traced_vrrp, lines_are_added_where_the_files_stand) {
  convert({"--to", "4.2(1)"}, "traced");

  const std::string manager = lines("mgr");
  EXPECT_TRUE(manager.starts_with(
      "before\n<TIME> vrrp_mgr_data_morph_startup_for_upgrade:N "
      "vrrp_mgr_data_morph_startup_for_upgrade: Convert startup called with path /cfg/startup\n"
      "<TIME> vrrp_handle_generic_convert:N Entering upgrade/downgrade code path in Mgr\n"
      "<TIME> vrrp_handle_generic_convert:N from_ver 4.1(5):from_comp -1, to_ver 4.2(1):to_comp "
      "0\n"))
      << manager;
  EXPECT_NE(manager.find("<TIME> datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade:N Deleted PSS "
                         "VR record : VR 20, interface 0x1a000000\n"),
            std::string::npos)
      << manager;
  EXPECT_NE(manager.find(":N VDC string = 2/bin\n"), std::string::npos) << manager;
  EXPECT_NE(manager.find(":N Taken snapshot of Mgr PSS to temp file "
                         "nonvolatile:/tmp/vrrp-startup-pss2/bin\n"),
            std::string::npos)
      << manager;
  const std::string engine = lines("eng");
  EXPECT_TRUE(engine.starts_with("<TIME> vrrp_eng_data_morph_startup_for_upgrade:N "
                                 "vrrp_eng_data_morph_startup_for_upgrade: start conversion for "
                                 "vrrp\n"))
      << engine;
  EXPECT_NE(engine.find(":N Number of VIP records = 5\n"), std::string::npos) << engine;
  EXPECT_NE(engine.find(":N Destroyed temporary PSS file in Engine\n"), std::string::npos);
  EXPECT_TRUE(engine.ends_with(":N Completed conversion in Engine\n")) << engine;
}

TEST_F(traced_vrrp, the_stores_are_the_same_without_the_files) {
  EXPECT_EQ(stores("traced"), stores("sw"));
  for (const char *release : {"4.2(1)", "4.1(5)"}) {
    convert({"--to", release});
    convert({"--to", release}, "traced");
    EXPECT_EQ(stores("traced"), stores("sw")) << release;
  }
  EXPECT_FALSE(exists("sw/current/bootflash/data_morph_vrrp_mgr.log"));
  EXPECT_FALSE(exists("sw/current/bootflash/data_morph_vrrp_eng.log"));
}

} // namespace
