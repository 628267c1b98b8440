// VRRP: the manager's conversions.

#include "vrrp_fixture.h"

namespace {

class vrrp_mgr_test : public vrrp_fixture {
protected:
  void up(const char *path = "/cfg", const char *to = "4.2(1)", const char *from = "4.1(5)") {
    status = vrrp_mgr_data_morph_startup_for_upgrade(path, "system", to, from);
  }
  void down(const char *path = "/cfg", const char *to = "4.1(5)", const char *from = "4.2(1)") {
    status = vrrp_mgr_data_morph_startup_for_downgrade(path, "system", to, from);
  }

  static records_t wide_records() {
    records_t all = with_others(two_groups(full_vr, bytes("00") + std::string(20, '\x55')));
    all[vip_key("0b", "00 00 00 02", k_ipv6)] =
        vip("0b", "02 00 00 00", k_ipv6) + std::string(20, '\x66');
    return all;
  }
};

// ---- Going up

TEST_F(vrrp_mgr_test, going_up) {
  platform.set_store(k_mgr, old_records());
  const std::string self = "vrrp_handle_generic_convert: ";
  const std::string step = "vrrp_handle_upgrade_to_4_2_1: ";
  EXPECT_EQ(
      joined({{"vrrp_mgr_data_morph_startup_for_upgrade: vrrp_mgr_data_morph_startup_for_upgrade: "
               "Convert startup called with path /cfg\n",
               self + "Entering upgrade/downgrade code path in Mgr\n",
               self + "from_ver 4.1(5):from_comp -1, to_ver 4.2(1):to_comp 0\n",
               self + "ISSU conversion required from 4.1(5) to 4.2(1)\n",
               self + "Opened Mgr's PSS File nonvolatile:/cfg/bin/vrrp-cfg_config_sav\n",
               step + "Entered Upgrade path\n"},
              deletions("datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade: "),
              {step + "Deleted RC recs in Mgr for upgrade\n",
               step + "Taken snapshot of Mgr PSS to temp file nonvolatile:/tmp/vrrp-startup-pss\n",
               self + "Closed RC PSS file in Mgr\n", self + "Done with conversion in Mgr\n"}}),
      mgr_lines([this] { up(); }));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(others(), platform.records(k_mgr));
  EXPECT_EQ(old_records(), platform.records(k_temp));
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(vrrp_mgr_test, the_calls_going_up) {
  platform.set_store(k_mgr, one_group(old_vr("0a", "01 00 00 00")));
  traced([this] { up(); });
  EXPECT_EQ(calls_giving_away("nonvolatile:/cfg/bin/vrrp-cfg_config_sav"), platform.calls());
}

TEST_F(vrrp_mgr_test, without_a_trace_file_the_work_is_the_same) {
  platform.set_store(k_mgr, old_records());
  EXPECT_EQ(lines_t(), traced([this] { up(); }));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(others(), platform.records(k_mgr));
  EXPECT_EQ(old_records(), platform.records(k_temp));
  EXPECT_FALSE(switch_root::exists("/bootflash/data_morph_vrrp_mgr.log"));

  platform.reset();
  platform.set_store(k_mgr, others());
  platform.set_store(k_temp, wide_records());
  EXPECT_EQ(lines_t(), traced([this] { down(); }));
  EXPECT_EQ(old_records().size(), platform.records(k_mgr).size());
  EXPECT_FALSE(platform.has_store(k_temp));
}

TEST_F(vrrp_mgr_test, an_empty_store_going_up) {
  platform.set_store(k_mgr);
  const lines_t lines = mgr_lines([this] { up(); });
  const std::string del = "datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade: ";
  EXPECT_EQ(lines_t({del + "Failed to delete global info\n", del + "Number of VR records = 0\n",
                     del + "Number of VIP records = 0\n"}),
            lines_t(lines.begin() + 6, lines.begin() + 9));
  EXPECT_TRUE(platform.has_store(k_temp));
  EXPECT_TRUE(platform.records(k_temp).empty());
}

TEST_F(vrrp_mgr_test, a_store_that_cannot_be_opened_going_up) {
  const lines_t lines = mgr_lines([this] { up(); });
  ASSERT_EQ(5u, lines.size());
  EXPECT_EQ("vrrp_handle_generic_convert: Failed to open "
            "nonvolatile:/cfg/bin/vrrp-cfg_config_sav: 0x40480002\n",
            lines.back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(1u, platform.calls().size());
}

TEST_F(vrrp_mgr_test, a_failed_snapshot_is_carried_on_from) {
  platform.set_store(k_mgr, old_records());
  platform.fail("pss_snapshot", 0x4048000C);
  const lines_t lines = mgr_lines([this] { up(); });
  EXPECT_EQ("vrrp_handle_upgrade_to_4_2_1: Error in taking snapshot of Mgr's PSS: no room left for "
            "a store\n",
            lines.at(6));
  EXPECT_EQ("vrrp_handle_upgrade_to_4_2_1: Taken snapshot of Mgr PSS to temp file "
            "nonvolatile:/tmp/vrrp-startup-pss\n",
            lines.at(lines.size() - 3));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(others(), platform.records(k_mgr)); // deleted all the same
  EXPECT_FALSE(platform.has_store(k_temp));
}

TEST_F(vrrp_mgr_test, failed_deletes_are_only_traced) {
  platform.set_store(k_mgr, old_records());
  platform.fail_from("pss_delete", 0x4048000B);
  const lines_t lines = mgr_lines([this] { up(); });
  const std::string del = "datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade: ";
  const std::string error =
      del +
      "Error deleting PSS VR record; Ret_val = 0x4048000b, input or output error in a store\n";
  EXPECT_EQ(lines_t({del + "Failed to delete global info\n", del + "Number of VR records = 2\n",
                     del + "Retrieved PSS record for VR 10 on interface 0x1a000000 and addr type "
                           "1\n",
                     del + "Deleting PSS VR record : VR 10 , intf 0x1a000000\n", error,
                     del + "Retrieved PSS record for VR 11 on interface 0x1a000000 and addr type "
                           "2\n",
                     del + "Deleting PSS VR record : VR 11 , intf 0x1a000000\n", error,
                     del + "Number of VIP records = 2\n", error, error,
                     "vrrp_handle_upgrade_to_4_2_1: Deleted RC recs in Mgr for upgrade\n"}),
            lines_t(lines.begin() + 6, lines.begin() + 18));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(5u, platform.calls("pss_delete").size());
}

TEST_F(vrrp_mgr_test, a_failed_bulk_read_going_up) {
  // Of the VR records: they and the VIP records stay, and it is success.
  platform.set_store(k_mgr, old_records());
  platform.fail("pss_move2key", 0x40480009);
  lines_t lines = mgr_lines([this] { up(); });
  EXPECT_EQ(lines_t({"datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade: Error getting PSS records "
                     "in bulk; Ret = 1078460425\n",
                     "vrrp_handle_upgrade_to_4_2_1: Deleted RC recs in Mgr for upgrade\n"}),
            lines_t(lines.begin() + 7, lines.begin() + 9));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(1u, platform.calls("pss_delete").size());

  // Of the VIP records: the step fails, the conversion does not.
  platform.reset();
  platform.set_store(k_mgr, old_records());
  platform.fail("pss_move2key", 0x40480009, 3);
  lines = mgr_lines([this] { up(); });
  EXPECT_EQ(lines_t({"datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade: Error getting PSS records "
                     "in bulk; Ret = 1078460425\n",
                     "vrrp_handle_upgrade_to_4_2_1: Error deleting Startup PSS recs in upgrade : "
                     "0x40480009\n",
                     "vrrp_handle_upgrade_to_4_2_1: Deleted RC recs in Mgr for upgrade\n"}),
            lines_t(lines.begin() + 14, lines.begin() + 17));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(3u, platform.calls("pss_delete").size());
}

TEST_F(vrrp_mgr_test, a_failed_close_going_up) {
  platform.set_store(k_mgr);
  platform.fail("pss_close", 0x4048000B);
  const lines_t lines = mgr_lines([this] { up(); });
  EXPECT_EQ("vrrp_handle_generic_convert: Error closing RC PSS file in Mgr : Ret_val 0x4048000b\n",
            lines.at(lines.size() - 2));
  EXPECT_EQ("vrrp_handle_generic_convert: Done with conversion in Mgr\n", lines.back());
  EXPECT_EQ(0u, status);
}

TEST_F(vrrp_mgr_test, other_conversions_have_another_temporary_store) {
  for (const uint8 type : std::vector<uint8>{0, 2, 255}) {
    platform.set_store(k_mgr, old_records());
    platform.clear();
    traced([&] {
      status = vrrp_handle_generic_convert("/cfg/bin", nullptr, "4.2(1)", "4.1(5)", type, 1);
    });
    EXPECT_EQ(0u, status);
    EXPECT_EQ(1u, platform.calls("pss_snapshot(").size() + platform.calls("pss_snapshot").size());
    EXPECT_TRUE(platform.has_store("nonvolatile:/tmp/vrrp-pss"));
    EXPECT_FALSE(platform.has_store(k_temp));
  }
  // going down it is always that of a startup conversion
  platform.set_store(k_temp, wide_records());
  traced(
      [&] { status = vrrp_handle_generic_convert("/cfg/bin", nullptr, "4.1(5)", "4.2(1)", 0, 2); });
  EXPECT_FALSE(platform.has_store(k_temp));
}

// ---- Going down

TEST_F(vrrp_mgr_test, going_down) {
  platform.set_store(k_mgr, {{bytes("03 01"), "three"}});
  platform.set_store(k_temp, wide_records());
  const std::string self = "vrrp_handle_generic_convert: ";
  const std::string copy = "vrrp_copy_and_convert_rc_pss_recs_for_downgrade: ";
  EXPECT_EQ(
      lines_t(
          {"vrrp_mgr_data_morph_startup_for_downgrade: vrrp_mgr_data_morph_startup_for_downgrade: "
           "Convert startup called with path /cfg\n",
           self + "Entering upgrade/downgrade code path in Mgr\n",
           self + "from_ver 4.2(1):from_comp 0, to_ver 4.1(5):to_comp 1\n",
           self + "ISSU conversion required from 4.2(1) to 4.1(5)\n",
           self + "Opened Engine's PSS file nonvolatile:/tmp/vrrp-startup-pss\n",
           self + "Opened Mgr's PSS File nonvolatile:/cfg/bin/vrrp-cfg_config_sav\n",
           copy + "Number of VR records = 2\n",
           copy + "Added new record for VR 10 on interface 0x1a000000 and addr type 1\n",
           copy + "Added new record for VR 11 on interface 0x1a000000 and addr type 2\n",
           copy + "Number of VIP records = 2\n",
           copy + "Added new IP record for VR 10 on interface 0x1a000000\n",
           copy + "Added new IP record for VR 11 on interface 0x1a000000\n",
           self + "Closed temp PSS file in Mgr\n", self + "Destroyed temp PSS file in Mgr\n",
           self + "Done with conversion in Mgr\n"}),
      mgr_lines([this] { down(); }));
  EXPECT_EQ(0u, status);
  records_t expected = two_groups(old_vr, global_info());
  expected[bytes("03 01")] = "three";
  EXPECT_EQ(expected, platform.records(k_mgr));
  EXPECT_FALSE(platform.has_store(k_temp));
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(vrrp_mgr_test, the_calls_going_down) {
  platform.set_store(k_mgr);
  platform.set_store(k_temp,
                     {{vip_key("0a", "00 00 00 01", k_ipv4), vip("0a", "01 00 00 00", k_ipv4)}});
  traced([this] { down(); });
  EXPECT_EQ(calls_taking_over({"pss_open(\"nonvolatile:/tmp/vrrp-startup-pss\")",
                               "pss_open(\"nonvolatile:/cfg/bin/vrrp-cfg_config_sav\")"},
                              "0"),
            platform.calls());
}

TEST_F(vrrp_mgr_test, the_flag_of_every_store_going_down) {
  platform.set_store(k_mgr);
  platform.set_store(k_temp, wide_records());
  traced([this] { down(); });
  expect_flag_of_every_store("0");
}

TEST_F(vrrp_mgr_test, values_of_other_lengths_going_down) {
  // Short ones are filled with zeros, long ones cut; what has no key fields is left out.
  const std::string vr = full_vr("0a", "01 00 00 00");
  const std::string address = vip("0a", "01 00 00 00", k_ipv4);
  const struct {
    std::string vr;
    std::string stored_vr;
    std::string vip;
    std::string stored_vip;
  } rows[] = {
      {vr + "more", vr.substr(0, 85), address + "more than there should be", address},
      {vr.substr(0, 116), vr.substr(0, 85), address.substr(0, 32), address},
      {vr.substr(0, 85), vr.substr(0, 85), address.substr(0, 29),
       address.substr(0, 29) + std::string(4, '\0')},
      {vr.substr(0, 9), vr.substr(0, 9) + std::string(76, '\0'), address.substr(0, 25),
       address.substr(0, 25) + std::string(8, '\0')},
      {vr.substr(0, 8), "", address.substr(0, 24), ""},
      {"", "", "", ""},
  };
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(k_mgr);
    platform.set_store(k_temp, {{bytes("01"), row.vr}, {bytes("02"), row.vip}});
    traced([this] { down(); });
    records_t expected = {{global_key(), global_info()}};
    if (!row.stored_vr.empty()) {
      expected[vr_key("0a", "00 00 00 01")] = row.stored_vr;
    }
    if (!row.stored_vip.empty()) {
      expected[vip_key("0a", "00 00 00 01", k_ipv4)] = row.stored_vip;
    }
    EXPECT_EQ(expected, platform.records(k_mgr)) << row.vr.size();
    EXPECT_EQ(0u, status);
  }
}

TEST_F(vrrp_mgr_test, a_downgrade_without_the_temporary_store) {
  platform.set_store(k_mgr, others());
  const lines_t lines = mgr_lines([this] { down(); });
  ASSERT_EQ(5u, lines.size());
  EXPECT_EQ("vrrp_handle_generic_convert: Failed to open nonvolatile:/tmp/vrrp-startup-pss: no "
            "such store\n",
            lines.back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(others(), platform.records(k_mgr));
}

TEST_F(vrrp_mgr_test, a_downgrade_without_the_managers_store) {
  platform.set_store(k_temp, wide_records());
  const lines_t lines = mgr_lines([this] { down(); });
  EXPECT_EQ("vrrp_handle_generic_convert: Failed to open "
            "nonvolatile:/cfg/bin/vrrp-cfg_config_sav: 0x40480002\n",
            lines.back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(wide_records(), platform.records(k_temp)); // is kept, and stays open
  EXPECT_EQ(std::vector<std::string>({k_temp}), platform.open_stores());
}

TEST_F(vrrp_mgr_test, failed_stores_going_down_are_only_traced) {
  platform.set_store(k_mgr);
  platform.set_store(k_temp, wide_records());
  platform.fail_from("pss_store", 0x4048000C);
  const lines_t lines = mgr_lines([this] { down(); });
  const std::string copy = "vrrp_copy_and_convert_rc_pss_recs_for_downgrade: ";
  const std::string error =
      copy + "Error storing record in PSS: Ret_val = 0x4048000c, no room left for a store\n";
  EXPECT_EQ(lines_t({copy + "Failed to store global info : 0x4048000c\n",
                     copy + "Number of VR records = 2\n", error, error,
                     copy + "Number of VIP records = 2\n", error, error}),
            lines_t(lines.begin() + 6, lines.begin() + 13));
  EXPECT_EQ(0u, status);
  EXPECT_FALSE(platform.has_store(k_temp));
}

TEST_F(vrrp_mgr_test, a_failed_read_of_the_temporary_store_going_down) {
  const std::string copy = "vrrp_copy_and_convert_rc_pss_recs_for_downgrade: ";
  for (const unsigned nth : {1u, 3u}) { // of the VR records, of the VIP records
    platform.reset();
    platform.set_store(k_mgr);
    platform.set_store(k_temp, wide_records());
    platform.fail("pss_move2key", 0x40480009, nth);
    const lines_t lines = mgr_lines([this] { down(); });
    const auto at = lines.end() - 5;
    EXPECT_EQ(lines_t({copy + "Error getting PSS records in bulk; Ret_val = 0x40480009\n",
                       "datamorph_vrrp_mgr_handle_downgrade_from_4_2_1: Error copying PSS recs "
                       "from Mgr to Engine's RC PSS\n",
                       "vrrp_handle_generic_convert: Closed temp PSS file in Mgr\n",
                       "vrrp_handle_generic_convert: Destroyed temp PSS file in Mgr\n",
                       "vrrp_handle_generic_convert: Done with conversion in Mgr\n"}),
              lines_t(at, lines.end()));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(nth == 1 ? 1u : 3u, platform.records(k_mgr).size());
  }
}

TEST_F(vrrp_mgr_test, failed_ends_going_down) {
  platform.set_store(k_mgr);
  platform.set_store(k_temp);
  platform.fail_from("pss_close", 0x4048000B);
  platform.fail("pss_destroy", 0x4048000A);
  const lines_t lines = mgr_lines([this] { down(); });
  EXPECT_EQ(lines_t({"vrrp_handle_generic_convert: Error closing temp PSS file in Mgr : "
                     "0x4048000b\n",
                     "vrrp_handle_generic_convert: Error destroying temp pss file in Mgr : "
                     "Ret_val 0x4048000a\n",
                     "vrrp_handle_generic_convert: Done with conversion in Mgr\n"}),
            lines_t(lines.end() - 3, lines.end()));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(2u, platform.calls("pss_close").size());
}

// ---- Which way

TEST_F(vrrp_mgr_test, what_the_releases_decide) {
  const struct {
    const char *from;
    const char *to;
    bool up;
    bool down;
    const char *third;
    const char *fourth;
  } rows[] = {
      {"4.1(2)", "4.2(1)", true, false, "from_ver 4.1(2):from_comp -1, to_ver 4.2(1):to_comp 0\n",
       "ISSU conversion required from 4.1(2) to 4.2(1)\n"},
      {"4.2(0)", "5.0(2)", true, false, "from_ver 4.2(0):from_comp -1, to_ver 5.0(2):to_comp -1\n",
       "ISSU conversion required from 4.2(0) to 5.0(2)\n"},
      {"4.2(1)", "4.2(1)", false, false, "from_ver 4.2(1):from_comp 0, to_ver 4.2(1):to_comp 0\n",
       "No ISSU conversion reqd from 4.2(1) to 4.2(1)\n"},
      {"5.0(2)", "4.2(1)", false, false, "from_ver 5.0(2):from_comp 1, to_ver 4.2(1):to_comp 0\n",
       "No ISSU conversion reqd from 5.0(2) to 4.2(1)\n"},
      {"4.2(1)", "4.1(5)", false, true, "from_ver 4.2(1):from_comp 0, to_ver 4.1(5):to_comp 1\n",
       "ISSU conversion required from 4.2(1) to 4.1(5)\n"},
      {"5.0(2)", "", false, true, "from_ver 5.0(2):from_comp 1, to_ver :to_comp 1\n",
       "ISSU conversion required from 5.0(2) to \n"},
  };
  for (const auto &row : rows) {
    for (const bool upgrade : {true, false}) {
      platform.reset();
      platform.set_store(k_mgr);
      platform.set_store(k_temp);
      const lines_t lines = mgr_lines(
          [&] { upgrade ? up("/cfg", row.to, row.from) : down("/cfg", row.to, row.from); });
      EXPECT_EQ(std::string("vrrp_handle_generic_convert: ") + row.third, lines.at(2));
      EXPECT_EQ(std::string("vrrp_handle_generic_convert: ") + row.fourth, lines.at(3));
      EXPECT_EQ(0u, status);
      EXPECT_EQ(upgrade ? row.up : row.down, !platform.calls().empty()) << row.from << row.to;
      if (platform.calls().empty() && (row.up || row.down)) { // the other way
        EXPECT_EQ(5u, lines.size());
        EXPECT_EQ("vrrp_handle_generic_convert: Done with conversion in Mgr\n", lines.back());
      }
    }
  }
}

TEST_F(vrrp_mgr_test, between_two_old_releases_both_directions_run) {
  platform.set_store(k_mgr, old_records());
  traced([this] { up("/cfg", "4.1(5)", "4.1(2)"); });
  EXPECT_EQ(others(), platform.records(k_mgr));
  traced([this] { down("/cfg", "4.1(5)", "4.1(2)"); });
  const records_t expected = with_others(two_groups(old_vr, global_info()));
  EXPECT_EQ(expected, platform.records(k_mgr));
}

TEST_F(vrrp_mgr_test, other_flags_do_nothing) {
  for (const uint8 flag : std::vector<uint8>{0, 3, 255}) {
    for (const auto &[to, from] : {std::pair("4.2(1)", "4.1(5)"), std::pair("4.1(5)", "4.2(1)")}) {
      const lines_t lines = mgr_lines([&, to = to, from = from] {
        vrrp_open_trace(vrrp_mgr_side);
        status = vrrp_handle_generic_convert("/cfg", "system", to, from, 1, flag);
      });
      EXPECT_EQ("vrrp_handle_generic_convert: Done with conversion in Mgr\n", lines.back());
      EXPECT_EQ(0u, status);
    }
  }
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(vrrp_mgr_test, the_temporary_store_of_a_vdc) {
  const struct {
    const char *path;
    const char *text;     // as it is traced; null: not at all
    const char *going_up; // behind the temporary store's name
    const char *going_down;
  } rows[] = {
      {"/cfg", nullptr, "", ""},
      {"/cfg/vdc_1", "1/bin", "1/bin", ""}, // the two differ
      {"/cfg/vdc_2", "2/bin", "2/bin", "2/bin"},
      {"/cfg/vdc_16", "16/bin", "16/bin", "16/bin"},
      {"/cfg/vdc_1234", "1234/bin", "1234/bin", "1234/bin"}, // eight characters
      {"/cfg/vdc_12345", "12345/bi", "12345/bi", "12345/bi"},
      {"/cfg/vdc_65537", "65537/bi", "65537/bi", ""},
      {"/cfg/vdc_2/x/vdc_3", "2/x/vdc_", "2/x/vdc_", "2/x/vdc_"},
      {"/cfg/vdc_-1", "-1/bin", "-1/bin", "-1/bin"},
  };
  for (const auto &row : rows) {
    platform.reset();
    const std::string store = std::string("nonvolatile:") + row.path + "/bin/vrrp-cfg_config_sav";
    platform.set_store(store);
    const lines_t lines = mgr_lines([&] { up(row.path); });
    EXPECT_EQ(0u, status);
    const std::string traced_text =
        row.text == nullptr
            ? "vrrp_handle_generic_convert: Opened Mgr's PSS File " + store + "\n"
            : std::string("vrrp_handle_generic_convert: VDC string = ") + row.text + "\n";
    EXPECT_EQ(traced_text, lines.at(4));
    EXPECT_EQ(lines_t({std::string("pss_snapshot(1, 0, \"nonvolatile:/tmp/vrrp-startup-pss") +
                       row.going_up + "\")"}),
              platform.calls("pss_snapshot"));
    platform.clear();
    traced([&] { down(row.path); });
    EXPECT_EQ(std::string("pss_open(\"nonvolatile:/tmp/vrrp-startup-pss") + row.going_down + "\")",
              platform.calls("pss_open").front());
  }
}

TEST_F(vrrp_mgr_test, a_path_without_a_number_behind_vdc) {
  for (const char *path : {"/cfg/vdc_0", "/cfg/vdc_", "/cfg/vdc_x", "/cfg/vdc_65536"}) {
    for (const bool upgrade : {true, false}) {
      const lines_t lines = mgr_lines([&] { upgrade ? up(path) : down(path); });
      EXPECT_EQ("vrrp_handle_generic_convert: Could not get vdc from path\n", lines.back());
      EXPECT_EQ(5u, lines.size());
      EXPECT_EQ(0x401E0076u, status) << path;
    }
  }
  EXPECT_TRUE(platform.calls().empty());
  up("/cfg/vdc_x", "4.2(1)", "4.2(1)"); // the releases are looked at first
  EXPECT_EQ(0u, status);
}

TEST_F(vrrp_mgr_test, vdc_strings_handed_in) {
  const char eight[8] = {'1', '2', '3', '4', '5', '6', '7', '8'}; // no terminator
  platform.set_store(k_mgr);
  syserr_t error = 0;
  const pss_service_t table = pss_open(k_mgr, &error);
  vrrp_handle_upgrade_to_4_2_1(table, 1, eight);
  vrrp_handle_upgrade_to_4_2_1(table, 1, "123456789");
  vrrp_handle_upgrade_to_4_2_1(table, 0, "");
  EXPECT_EQ(lines_t({"pss_snapshot(1, 0, \"nonvolatile:/tmp/vrrp-startup-pss12345678\")",
                     "pss_snapshot(1, 0, \"nonvolatile:/tmp/vrrp-startup-pss12345678\")",
                     "pss_snapshot(1, 0, \"nonvolatile:/tmp/vrrp-pss\")"}),
            platform.calls("pss_snapshot"));
  platform.clear();
  EXPECT_EQ(0xFFFFFFFFu, vrrp_handle_upgrade_to_4_2_1(table, 1, nullptr));
  EXPECT_TRUE(platform.calls().empty());
}

// ---- Numbers in messages

TEST_F(vrrp_mgr_test, the_largest_numbers_in_messages) {
  const std::string id = bytes("ff ff ff ff");
  std::string vr = full_vr("ff", "ff ff ff ff");
  std::string address = vip("ff", "ff ff ff ff", k_ipv6);
  vr.replace(0, 4, id);
  vr.replace(81, 4, id); // the last field of the old layout
  address.replace(0, 4, id);
  address.replace(29, 4, id); // the last one
  const std::string del = "datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade: ";
  platform.set_store(k_mgr, {{bytes("01 ff ff ff ff ff ff ff ff ff"), vr.substr(0, 85)},
                             {bytes("02 ff ff ff ff ff ff ff ff ff") + bytes(k_ipv6), address}});
  lines_t lines = mgr_lines([this] { up(); });
  EXPECT_EQ(
      lines_t({del + "Number of VR records = 1\n",
               del + "Retrieved PSS record for VR 255 on interface 0xffffffff and addr type -1\n",
               del + "Deleting PSS VR record : VR 255 , intf 0xffffffff\n",
               del + "Deleted PSS VR record : VR 255, interface 0xffffffff\n",
               del + "Number of VIP records = 1\n",
               del + "Deleted PSS VIP record : VR 255, interface 0xffffffff\n"}),
      lines_t(lines.begin() + 7, lines.begin() + 13));
  EXPECT_TRUE(platform.records(k_mgr).empty());

  const std::string copy = "vrrp_copy_and_convert_rc_pss_recs_for_downgrade: ";
  platform.set_store(k_temp, {{bytes("01 01"), vr}, {bytes("02 01"), address}});
  lines = mgr_lines([this] { down(); });
  EXPECT_EQ(
      lines_t({copy + "Number of VR records = 1\n",
               copy + "Added new record for VR 255 on interface 0xffffffff and addr type -1\n",
               copy + "Number of VIP records = 1\n",
               copy + "Added new IP record for VR 255 on interface 0xffffffff\n"}),
      lines_t(lines.begin() + 6, lines.begin() + 10));
  EXPECT_EQ(records_t({{global_key(), global_info()},
                       {bytes("01 ff ff ff ff ff ff ff ff ff"), vr.substr(0, 85)},
                       {bytes("02 ff ff ff ff ff ff ff ff ff") + bytes(k_ipv6), address}}),
            platform.records(k_mgr));
}

TEST_F(vrrp_mgr_test, a_failed_bulk_reads_status_is_signed) {
  platform.set_store(k_mgr, old_records());
  for (const unsigned nth : {1u, 3u}) { // of the VR records, of the VIP records
    platform.fail("pss_move2key", 0xFFFFFFFE, nth);
    const lines_t lines = mgr_lines([this] { up(); });
    const std::string line = "datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade: Error getting PSS "
                             "records in bulk; Ret = -2\n";
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), line)) << nth;
  }
}

// ---- Bad input

TEST_F(vrrp_mgr_test, paths_are_cut) {
  for (const size_t length : {250, 251, 252, 4000}) {
    platform.clear();
    const std::string path(length, 'p');
    const std::string used(std::min<size_t>(length, 251), 'p');
    const std::string uri = ("nonvolatile:" + used + "/bin/vrrp-cfg_config_sav").substr(0, 255);
    const lines_t lines = mgr_lines([&] { up(path.c_str()); });
    EXPECT_EQ("vrrp_handle_generic_convert: Failed to open " + uri + ": 0x40480002\n",
              lines.back());
    EXPECT_EQ(lines_t({"pss_open(\"" + uri + "\")"}), platform.calls());
    EXPECT_EQ(0u, status);
  }
  const std::string path = std::string(251, 'p') + "/vdc_2"; // what is cut off does not count
  EXPECT_EQ(5u, mgr_lines([&] { up(path.c_str()); }).size());
  // the last of 251 characters counts, one behind it does not
  for (const char *vdc : {"/vdc_2", "/vdc_23"}) {
    EXPECT_EQ("vrrp_handle_generic_convert: VDC string = 2/bin\n",
              mgr_lines([&] { up((std::string(245, 'p') + vdc).c_str()); }).at(4));
  }
}

TEST_F(vrrp_mgr_test, nulls) {
  EXPECT_EQ(lines_t({"vrrp_mgr_data_morph_startup_for_upgrade: "
                     "vrrp_mgr_data_morph_startup_for_upgrade: Convert startup called with path "
                     "(null)\n"}),
            mgr_lines([this] { up(nullptr); }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  traced([this] { down(nullptr); });
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_EQ(lines_t({"vrrp_handle_generic_convert: Entering upgrade/downgrade code path in Mgr\n"}),
            mgr_lines([this] {
              vrrp_open_trace(vrrp_mgr_side);
              status = vrrp_handle_generic_convert(nullptr, nullptr, "4.2(1)", "4.1(5)", 1, 1);
            }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_EQ("vrrp_handle_generic_convert: Error: 0xffffffff from_comp\n",
            mgr_lines([this] { up("/cfg", "4.2(1)", nullptr); }).back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ("vrrp_handle_generic_convert: Error: 0xffffffff to_comp\n",
            mgr_lines([this] { down("/cfg", nullptr, "4.2(1)"); }).back());
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(platform.calls().empty());
  // handle 0 is the platform's to refuse
  traced([] {
    EXPECT_EQ(0u, datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade(0));
    EXPECT_EQ(0u, datamorph_vrrp_mgr_handle_downgrade_from_4_2_1(0, 0));
    EXPECT_EQ(0x40480008u, vrrp_copy_and_convert_rc_pss_recs_for_downgrade(0, 0));
    EXPECT_EQ(0u, vrrp_handle_upgrade_to_4_2_1(0, 1, ""));
  });
}

TEST_F(vrrp_mgr_test, keys_that_disagree_with_their_records) {
  // The record's own fields make the key, so a record under another key stays.
  platform.set_store(k_mgr, {{bytes("01"), old_vr("0a", "01 00 00 00")},
                             {bytes("02"), vip("0a", "01 00 00 00", k_ipv4)}});
  traced([this] { up(); });
  EXPECT_EQ(0u, status);
  EXPECT_EQ(2u, platform.records(k_mgr).size());
}

TEST_F(vrrp_mgr_test, a_repeated_upgrade_replaces_the_hand_over) {
  platform.set_store(k_mgr, old_records());
  traced([this] { up(); });
  EXPECT_EQ(old_records(), platform.records(k_temp));
  traced([this] { up(); });
  EXPECT_EQ(others(), platform.records(k_temp)); // what was left
  EXPECT_EQ(0u, status);
}

TEST_F(vrrp_mgr_test, every_failing_call) {
  for (const bool upgrade : {true, false}) {
    for (unsigned nth = 1;; ++nth) {
      platform.reset();
      platform.set_store(k_mgr, old_records());
      platform.set_store(k_temp, wide_records());
      platform.fail_any(nth, 0x4048000B);
      traced([&] { upgrade ? up() : down(); });
      EXPECT_EQ(0u, status) << nth;
      const bool left_open = !upgrade && nth == 2; // the manager's store could not be opened
      EXPECT_EQ(left_open ? 1u : 0u, platform.open_handles().size()) << nth;
      if (platform.scripted() == 0) {
        EXPECT_GT(nth, 10u);
        break;
      }
    }
  }
}

} // namespace
