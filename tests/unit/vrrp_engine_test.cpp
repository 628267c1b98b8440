// VRRP: the engine's conversions, and both sides together.

#include "vrrp_fixture.h"

namespace {

class vrrp_engine_test : public vrrp_fixture {
protected:
  void up(const char *path = "/cfg", const char *to = "4.2(1)", const char *from = "4.1(5)") {
    status = vrrp_eng_data_morph_startup_for_upgrade(path, "system", to, from);
  }
  void down(const char *path = "/cfg", const char *to = "4.1(5)", const char *from = "4.2(1)") {
    status = vrrp_eng_data_morph_startup_for_downgrade(path, "system", to, from);
  }

  // What the engine holds after it went up.
  static records_t converted() { return with_others(two_groups(new_vr, global_info())); }
};

const std::string k_self = "vrrp_eng_handle_generic_convert: ";
const std::string k_copy = "vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade: ";
const std::string k_delete = "vrrp_eng_delete_pss_records_for_downgrade: ";

// ---- Going up

TEST_F(vrrp_engine_test, going_up) {
  platform.set_store(k_temp, old_records());
  platform.set_store(k_eng, {{"what the engine had", "is replaced"}});
  EXPECT_EQ(
      lines_t({"vrrp_eng_data_morph_startup_for_upgrade: vrrp_eng_data_morph_startup_for_upgrade: "
               "start conversion for vrrp\n",
               "vrrp_eng_data_morph_startup_for_upgrade: Convert startup called with path /cfg\n",
               k_self + "Entering upgrade/downgrade path in Engine\n",
               k_self + "eng_rc_url = nonvolatile:/cfg/bin/vrrp-eng_runtime_config\n",
               k_self + "mgr_rc_url = nonvolatile:/tmp/vrrp-startup-pss\n",
               k_self + "from_ver 4.1(5):from_comp -1, to_ver 4.2(1):to_comp 0\n",
               k_self + "ISSU conversion required from 4.1(5) to 4.2(1)\n",
               k_copy + "Number of VR records = 2\n",
               k_copy + "Retrieved PSS record for VR 10 on interface 0x1a000000 and addr type 1\n",
               k_copy + "Added new record for VR 10 on interface 0x1a000000\n",
               k_copy + "Retrieved PSS record for VR 11 on interface 0x1a000000 and addr type 2\n",
               k_copy + "Added new record for VR 11 on interface 0x1a000000\n",
               k_copy + "Number of VIP records = 2\n",
               k_copy + "Added new IP record for VR 10 on interface 0x1a000000\n",
               k_copy + "Added new IP record for VR 11 on interface 0x1a000000\n",
               "vrrp_eng_handle_upgrade_to_4_2_1: Copied RC records from temp PSS to Engine's\n",
               k_self + "Closed temp pss in Engine\n",
               k_self + "Destroyed temporary PSS file in Engine\n",
               k_self + "Completed conversion in Engine\n"}),
      eng_lines([this] { up(); }));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(converted(), platform.records(k_eng));
  EXPECT_FALSE(platform.has_store(k_temp));
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(vrrp_engine_test, the_calls_going_up) {
  platform.set_store(k_temp,
                     {{vip_key("0a", "00 00 00 01", k_ipv4), vip("0a", "01 00 00 00", k_ipv4)}});
  traced([this] { up(); });
  EXPECT_EQ(
      calls_taking_over({"pss_open(\"nonvolatile:/tmp/vrrp-startup-pss\")",
                         "pss_snapshot(1, 0, \"nonvolatile:/cfg/bin/vrrp-eng_runtime_config\")",
                         "pss_open(\"nonvolatile:/cfg/bin/vrrp-eng_runtime_config\")"},
                        "1"),
      platform.calls());
}

TEST_F(vrrp_engine_test, the_flag_of_every_store_going_up) {
  platform.set_store(k_temp, old_records());
  traced([this] { up(); });
  expect_flag_of_every_store("1");
}

TEST_F(vrrp_engine_test, without_a_trace_file_the_work_is_the_same) {
  platform.set_store(k_temp, old_records());
  EXPECT_EQ(lines_t(), traced([this] { up(); }));
  EXPECT_EQ(converted(), platform.records(k_eng));
  EXPECT_FALSE(platform.has_store(k_temp));
  EXPECT_EQ(lines_t(), traced([this] { down(); }));
  EXPECT_EQ(converted(), platform.records(k_temp));
  EXPECT_EQ(others(), platform.records(k_eng));
  EXPECT_FALSE(switch_root::exists("/bootflash/data_morph_vrrp_eng.log"));
}

TEST_F(vrrp_engine_test, an_upgrade_without_the_temporary_store) {
  platform.set_store(k_eng, others());
  const lines_t lines = eng_lines([this] { up(); });
  EXPECT_EQ(k_self + "Failed to open nonvolatile:/tmp/vrrp-startup-pss: no such store\n",
            lines.back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(others(), platform.records(k_eng));
  EXPECT_EQ(1u, platform.calls().size());
}

TEST_F(vrrp_engine_test, short_and_long_values_going_up) {
  const std::string vr = old_vr("0a", "01 00 00 00");
  platform.set_store(k_temp, {{bytes("01 01"), vr.substr(0, 9)},
                              {bytes("01 02"), ""},
                              {bytes("01 03"), vr.substr(0, 8)},
                              {bytes("02 01"), vip("0a", "01 00 00 00", k_ipv4) + "more"}});
  traced([this] { up(); });
  const records_t stored = platform.records(k_eng);
  EXPECT_EQ(vr.substr(0, 9) + std::string(108, '\0'), stored.at(vr_key("0a", "00 00 00 01")));
  EXPECT_EQ(vip("0a", "01 00 00 00", k_ipv4), stored.at(vip_key("0a", "00 00 00 01", k_ipv4)));
  EXPECT_EQ(7u, stored.size()); // the copy's four, the two new ones, the global info
}

TEST_F(vrrp_engine_test, every_failing_call_going_up) {
  const std::string error = "input or output error in a store\n";
  // One group and one address: open, snapshot, open, global; VR: key, next, key, value, next, next,
  // store; VIP: key, next, key, value, next, store; close, destroy, close.
  const struct {
    std::string line; // what stands there
    size_t lines;     // behind the first seven
    size_t open;      // handles
  } rows[] = {
      {k_self + "Failed to open nonvolatile:/tmp/vrrp-startup-pss: " + error, 1, 0},
      {k_self + "Failed to snapshot PSS in Engine: " + error, 1, 1},
      {k_self + "Failed to open nonvolatile:/cfg/bin/vrrp-eng_runtime_config: " + error, 1, 1},
      {k_copy + "Failed to store global info\n", 10, 0},
      {k_copy + "Error getting PSS records in bulk; Ret_val = 0x4048000b\n", 5, 0},
      {k_copy + "Error getting PSS records in bulk; Ret_val = 0x4048000b\n", 5, 0},
      {k_copy + "Error getting PSS records in bulk; Ret_val = 0x4048000b\n", 5, 0},
      {k_copy + "Error getting PSS records in bulk; Ret_val = 0x4048000b\n", 5, 0},
      {k_copy + "Error getting PSS records in bulk; Ret_val = 0x4048000b\n", 5, 0},
      {k_copy + "Error getting PSS records in bulk; Ret_val = 0x4048000b\n", 5, 0},
      {k_copy + "Error storing record in PSS: Ret_val = 0x4048000b, " + error, 9, 0},
      {k_copy + "Error getting PSS records in bulk; Ret = 0x4048000b\n", 8, 0},
      {k_copy + "Error getting PSS records in bulk; Ret = 0x4048000b\n", 8, 0},
      {k_copy + "Error getting PSS records in bulk; Ret = 0x4048000b\n", 8, 0},
      {k_copy + "Error getting PSS records in bulk; Ret = 0x4048000b\n", 8, 0},
      {k_copy + "Error getting PSS records in bulk; Ret = 0x4048000b\n", 8, 0},
      {k_copy + "Error storing record in PSS: Ret_val = 0x4048000b, " + error, 9, 0},
      {k_self + "Error closing Mgr RC PSS : Ret 0x4048000b(input or output error in a store)\n", 10,
       0},
      {k_self + "Error destroying temp pss in Engine :Ret_val 1078460427(input or output error in "
                "a store)\n",
       10, 0},
      {k_self + "Error closing Eng RC PSS : Ret 0x4048000b(input or output error in a store)\n", 10,
       0},
  };
  unsigned nth = 0;
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(k_temp, one_group(old_vr("0a", "01 00 00 00")));
    platform.fail_any(++nth, 0x4048000B);
    const lines_t lines = eng_lines([this] { up(); });
    EXPECT_EQ(0u, status) << nth;
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), row.line)) << nth;
    EXPECT_EQ(7 + row.lines, lines.size()) << nth;
    EXPECT_EQ(row.open, platform.open_handles().size()) << nth;
    EXPECT_EQ(1u, platform.scripted());
    const bool ended = row.open > 0 || nth == 1;
    EXPECT_EQ(ended, lines.back() != k_self + "Completed conversion in Engine\n") << nth;
    const std::string failed = "vrrp_eng_handle_upgrade_to_4_2_1: Error copying PSS recs from Mgr "
                               "to Engine's RC PSS - Ret_val 0x4048000b\n";
    EXPECT_EQ(nth >= 12 && nth <= 16 ? 1 : 0, std::count(lines.begin(), lines.end(), failed))
        << nth;
  }
}

// ---- Going down

TEST_F(vrrp_engine_test, going_down) {
  records_t before = converted();
  before[vr_key("0a", "00 00 00 01")] = full_vr("0a", "01 00 00 00");
  platform.set_store(k_eng, before);
  EXPECT_EQ(
      joined({{"vrrp_eng_data_morph_startup_for_downgrade: "
               "vrrp_eng_data_morph_startup_for_downgrade: start conversion for vrrp\n",
               "vrrp_eng_data_morph_startup_for_downgrade: Convert startup called wit path /cfg\n",
               k_self + "Entering upgrade/downgrade path in Engine\n",
               k_self + "eng_rc_url = nonvolatile:/cfg/bin/vrrp-eng_runtime_config\n",
               k_self + "mgr_rc_url = nonvolatile:/tmp/vrrp-startup-pss\n",
               k_self + "from_ver 4.2(1):from_comp 0, to_ver 4.1(5):to_comp 1\n",
               k_self + "ISSU conversion required from 4.2(1) to 4.1(5)\n",
               k_self + "Opened Engine's RC PSS File\n",
               k_self + "Taken snapshot to temp startup PSS\n"},
              deletions(k_delete),
              {k_self + "Completed conversion in Engine\n"}}),
      eng_lines([this] { down(); }));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(others(), platform.records(k_eng));
  EXPECT_EQ(before, platform.records(k_temp)); // everything, for the manager
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(vrrp_engine_test, the_calls_going_down) {
  platform.set_store(k_eng, one_group(full_vr("0a", "01 00 00 00")));
  traced([this] { down(); });
  EXPECT_EQ(calls_giving_away("nonvolatile:/cfg/bin/vrrp-eng_runtime_config"), platform.calls());
}

TEST_F(vrrp_engine_test, the_downgrade_entry_is_misspelt) {
  EXPECT_EQ("vrrp_eng_data_morph_startup_for_downgrade: Convert startup called wit path (null)\n",
            eng_lines([this] { down(nullptr); }).at(1));
}

TEST_F(vrrp_engine_test, every_failing_call_going_down) {
  const std::string error = "input or output error in a store\n";
  // open, snapshot, delete global; VR: key, next, key, value, next, next, delete; VIP: key, next,
  // key, value, next, delete; close
  const std::string bulk = k_delete + "Error getting PSS records in bulk; Ret = 1078460427\n";
  const std::string failed =
      k_delete + "Error deleting PSS VR record; Ret_val = 0x4048000b, " + error;
  const struct {
    std::string line;
    size_t lines; // behind the first seven
    size_t open;
  } rows[] = {
      {k_self + "Failed to open nonvolatile:/cfg/bin/vrrp-eng_runtime_config: " + error, 1, 0},
      {k_self + "Failed to snapshot PSS during Downgrade in Engine: " + error, 2, 1},
      {k_delete + "Failed to delete global info\n", 10, 0},
      {bulk, 5, 0},
      {bulk, 5, 0},
      {bulk, 5, 0},
      {bulk, 5, 0},
      {bulk, 5, 0},
      {bulk, 5, 0},
      {failed, 10, 0},
      {bulk, 10, 0},
      {bulk, 10, 0},
      {bulk, 10, 0},
      {bulk, 10, 0},
      {bulk, 10, 0},
      {failed, 10, 0},
      {k_self + "Error closing Eng RC PSS : Ret 0x4048000b(input or output error in a store)\n", 11,
       0},
  };
  unsigned nth = 0;
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(k_eng, one_group(full_vr("0a", "01 00 00 00")));
    platform.put(k_eng, global_key(), global_info());
    platform.fail_any(++nth, 0x4048000B);
    const lines_t lines = eng_lines([this] { down(); });
    EXPECT_EQ(0u, status) << nth;
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), row.line)) << nth;
    EXPECT_EQ(7 + row.lines, lines.size()) << nth;
    EXPECT_EQ(row.open, platform.open_handles().size()) << nth;
    EXPECT_EQ(1u, platform.scripted());
    const std::string step =
        k_self + "Error deleting Startup PSS records in Engine for downgrade\n";
    EXPECT_EQ(nth >= 11 && nth <= 15 ? 1 : 0, std::count(lines.begin(), lines.end(), step)) << nth;
  }
}

// ---- Which way

TEST_F(vrrp_engine_test, what_the_releases_decide) {
  const struct {
    const char *from;
    const char *to;
    bool up;
    bool down;
  } rows[] = {{"4.1(2)", "4.2(1)", true, false},  {"4.2(0)", "5.0(2)", true, false},
              {"4.2(1)", "4.2(1)", false, false}, {"5.0(2)", "4.2(1)", false, false},
              {"4.2(1)", "4.1(5)", false, true},  {"4.1(2)", "4.1(5)", true, true}};
  for (const auto &row : rows) {
    for (const bool upgrade : {true, false}) {
      platform.reset();
      platform.set_store(k_eng);
      platform.set_store(k_temp);
      const lines_t lines = eng_lines(
          [&] { upgrade ? up("/cfg", row.to, row.from) : down("/cfg", row.to, row.from); });
      EXPECT_EQ(0u, status);
      EXPECT_EQ(upgrade ? row.up : row.down, !platform.calls().empty()) << row.from << row.to;
      const std::string none =
          k_self + "No ISSU conversion reqd from " + row.from + " to " + row.to + "\n";
      const bool any = row.up || row.down;
      EXPECT_EQ(any ? k_self + "Completed conversion in Engine\n" : none, lines.back());
    }
  }
}

TEST_F(vrrp_engine_test, other_ids_do_nothing) {
  for (const uint8 id : std::vector<uint8>{0, 3, 255}) {
    const lines_t lines = eng_lines([&] {
      vrrp_open_trace(vrrp_eng_side);
      status = vrrp_eng_handle_generic_convert("/cfg", "system", "4.2(1)", "4.1(5)", 1, id);
    });
    EXPECT_EQ(k_self + "Completed conversion in Engine\n", lines.back());
    EXPECT_EQ(0u, status);
  }
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(vrrp_engine_test, the_temporary_store) {
  const struct {
    const char *path;
    uint8 type;
    const char *uri;
  } rows[] = {
      {"/cfg/bin", 1, "nonvolatile:/tmp/vrrp-startup-pss"},
      {"/cfg/bin", 0, "nonvolatile:/tmp/vrrp-pss"},
      {"/cfg/bin", 2, "nonvolatile:/tmp/vrrp-pss"},
      {"/cfg/vdc_1/bin", 1, "nonvolatile:/tmp/vrrp-startup-pss"},
      {"/cfg/vdc_2/bin", 1, "nonvolatile:/tmp/vrrp-startup-pss2/bin"},
      {"/cfg/vdc_2/bin", 0, "nonvolatile:/tmp/vrrp-pss2/bin"},
      {"/cfg/vdc_1234/bin", 1, "nonvolatile:/tmp/vrrp-startup-pss1234/bin"},
      {"/cfg/vdc_12345/bin", 1, "nonvolatile:/tmp/vrrp-startup-pss12345/bi"},
      {"/cfg/vdc_2", 1, "nonvolatile:/tmp/vrrp-startup-pss2"},
  };
  for (const auto &row : rows) {
    const lines_t lines = eng_lines([&] {
      vrrp_open_trace(vrrp_eng_side);
      status = vrrp_eng_handle_generic_convert(row.path, "s", "4.2(1)", "4.2(1)", row.type, 1);
    });
    EXPECT_EQ(
        lines_t({k_self + "Entering upgrade/downgrade path in Engine\n",
                 k_self + "eng_rc_url = nonvolatile:" + row.path + "/vrrp-eng_runtime_config\n",
                 k_self + "mgr_rc_url = " + row.uri + "\n",
                 k_self + "from_ver 4.2(1):from_comp 0, to_ver 4.2(1):to_comp 0\n",
                 k_self + "No ISSU conversion reqd from 4.2(1) to 4.2(1)\n"}),
        lines);
    EXPECT_EQ(0u, status);
  }
}

TEST_F(vrrp_engine_test, a_path_without_a_number_behind_vdc) {
  for (const char *path : {"/cfg/vdc_0", "/cfg/vdc_", "/cfg/vdc_x", "/cfg/vdc_65536"}) {
    for (const bool upgrade : {true, false}) {
      // before the releases are looked at
      const lines_t lines =
          eng_lines([&] { upgrade ? up(path, nullptr, nullptr) : down(path, nullptr, nullptr); });
      ASSERT_EQ(4u, lines.size());
      EXPECT_EQ(k_self + "Could not get vdc from path\n", lines.back());
      EXPECT_EQ(0x401E0076u, status) << path;
    }
  }
  EXPECT_TRUE(platform.calls().empty());
}

// ---- Numbers in messages

TEST_F(vrrp_engine_test, the_largest_numbers_in_messages) {
  std::string vr = old_vr("ff", "ff ff ff ff");
  vr.replace(0, 4, bytes("ff ff ff ff"));
  vr.replace(81, 4, bytes("ff ff ff ff")); // the last field
  platform.set_store(k_temp, {{bytes("01 ff ff ff ff ff ff ff ff ff"), vr}});
  const lines_t lines = eng_lines([this] { up(); });
  EXPECT_EQ(
      lines_t(
          {k_copy + "Number of VR records = 1\n",
           k_copy + "Retrieved PSS record for VR 255 on interface 0xffffffff and addr type -1\n",
           k_copy + "Added new record for VR 255 on interface 0xffffffff\n"}),
      lines_t(lines.begin() + 7, lines.begin() + 10));
  EXPECT_EQ(records_t({{global_key(), global_info()},
                       {bytes("01 ff ff ff ff ff ff ff ff ff"), vr + std::string(32, '\0')}}),
            platform.records(k_eng));
}

TEST_F(vrrp_engine_test, the_status_of_a_failed_destruction_is_signed) {
  platform.set_store(k_temp);
  platform.fail("pss_destroy", 0xFFFFFFFE);
  const lines_t lines = eng_lines([this] { up(); });
  const std::string start = k_self + "Error destroying temp pss in Engine :Ret_val -2(";
  EXPECT_EQ(start, lines.at(lines.size() - 3).substr(0, start.size()));
}

// ---- Bad input

TEST_F(vrrp_engine_test, paths_are_cut) {
  for (const size_t length : {250, 251, 252, 4000}) {
    const std::string used(std::min<size_t>(length, 251), 'p');
    const std::string uri = ("nonvolatile:" + used + "/bin/vrrp-eng_runtime_config").substr(0, 255);
    platform.clear();
    const lines_t lines = eng_lines([&] { down(std::string(length, 'p').c_str()); });
    const std::string line = k_self + "eng_rc_url = " + uri + "\n";
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), line));
    EXPECT_EQ(lines_t({"pss_open(\"" + uri + "\")"}), platform.calls());
    EXPECT_EQ(0u, status);
  }
  // the last of 251 characters counts, one behind it does not
  for (const char *vdc : {"/vdc_2", "/vdc_23"}) {
    EXPECT_EQ(k_self + "mgr_rc_url = nonvolatile:/tmp/vrrp-startup-pss2/bin\n",
              eng_lines([&] { up((std::string(245, 'p') + vdc).c_str()); }).at(4));
  }
}

TEST_F(vrrp_engine_test, nulls) {
  for (const bool upgrade : {true, false}) {
    EXPECT_EQ(2u, eng_lines([&] { upgrade ? up(nullptr) : down(nullptr); }).size());
    EXPECT_EQ(0xFFFFFFFFu, status);
  }
  EXPECT_EQ(1u, eng_lines([this] {
                  vrrp_open_trace(vrrp_eng_side);
                  status = vrrp_eng_handle_generic_convert(nullptr, "s", "4.2(1)", "4.1(5)", 1, 1);
                }).size());
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_EQ(k_self + "Error: 0xffffffff from_comp\n",
            eng_lines([this] { up("/cfg", "4.2(1)", nullptr); }).back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(k_self + "Error: 0xffffffff to_comp\n",
            eng_lines([this] { up("/cfg", nullptr, "4.2(1)"); }).back());
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(platform.calls().empty());
  traced([] {
    EXPECT_EQ(0u, vrrp_eng_handle_upgrade_to_4_2_1(0, 0, 1));
    EXPECT_EQ(0u, vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade(0, 0));
    EXPECT_EQ(0u, vrrp_eng_delete_pss_records_for_downgrade(0));
  });
}

// ---- Both sides

TEST_F(vrrp_engine_test, there_and_back) {
  datamorph_args_t args = {"/cfg/vdc_2", "system", "4.2(1)", "4.1(5)"};
  convert_ret_value_t result = {};
  const std::string mgr = "nonvolatile:/cfg/vdc_2/bin/vrrp-cfg_config_sav";
  const std::string eng = "nonvolatile:/cfg/vdc_2/bin/vrrp-eng_runtime_config";
  platform.set_store(mgr, old_records());
  traced([&] {
    EXPECT_EQ(0u, datamorph_startup(SRVUUID_VRRP_MGR, &result, &args));
    EXPECT_EQ(0u, datamorph_startup(SRVUUID_VRRP_ENG, &result, &args));
  });
  EXPECT_EQ(std::vector<std::string>({mgr, eng}), platform.store_uris());
  EXPECT_EQ(others(), platform.records(mgr));
  EXPECT_EQ(converted(), platform.records(eng));

  args = {"/cfg/vdc_2", "system", "4.1(5)", "4.2(1)"};
  traced([&] {
    EXPECT_EQ(0u, datamorph_startup(SRVUUID_VRRP_ENG, &result, &args));
    EXPECT_EQ(0u, datamorph_startup(SRVUUID_VRRP_MGR, &result, &args));
  });
  EXPECT_EQ(std::vector<std::string>({mgr, eng}), platform.store_uris());
  const records_t expected = with_others(two_groups(old_vr, global_info()));
  EXPECT_EQ(expected, platform.records(mgr));
  EXPECT_EQ(others(), platform.records(eng));
}

TEST_F(vrrp_engine_test, the_whole_table_there_and_back) {
  datamorph_args_t args = {"/cfg", "system", "4.2(1)", "4.1(5)"};
  platform.set_store(k_mgr, old_records());
  traced([&] { EXPECT_EQ(0u, datamorph_startup_all(&args)); });
  EXPECT_EQ(converted(), platform.records(k_eng));
  args = {"/cfg", "system", "4.1(5)", "4.2(1)"};
  traced([&] { EXPECT_EQ(0u, datamorph_startup_all(&args)); });
  const records_t expected = with_others(two_groups(old_vr, global_info()));
  EXPECT_EQ(expected, platform.records(k_mgr));
  EXPECT_FALSE(platform.has_store(k_temp));
}

TEST_F(vrrp_engine_test, vdc_1_named_by_the_path_loses_its_hand_over) {
  // The manager's temporary store has the VDC's text behind it, the engine's has not.
  const std::string mgr = "nonvolatile:/cfg/vdc_1/bin/vrrp-cfg_config_sav";
  platform.set_store(mgr, old_records());
  traced([this] {
    vrrp_mgr_data_morph_startup_for_upgrade("/cfg/vdc_1", "s", "4.2(1)", "4.1(5)");
    up("/cfg/vdc_1");
  });
  EXPECT_EQ(0u, status);
  EXPECT_EQ(std::vector<std::string>({mgr, "nonvolatile:/tmp/vrrp-startup-pss1/bin"}),
            platform.store_uris());
}

} // namespace
