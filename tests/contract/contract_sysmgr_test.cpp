// What the system manager's tables, trace facility and image versions do.
#include "contract/contract_platform.h"

#include <cstring>

namespace {

class sysmgr_contract : public contract_test {
protected:
  static uint8 *tag(const char *text) {
    static char buffer[8192];
    std::snprintf(buffer, sizeof(buffer), "%s", text);
    return reinterpret_cast<uint8 *>(buffer);
  }

  static const tlv_array_t *table(vdc_id_t vdc) { return sysmgr_info_tbl[vdc].srv_tag_info_tbl; }

  static uint32 entries(vdc_id_t vdc) { return tlv_array_get_num_tlvs(table(vdc), 1); }

  static std::string stored(vdc_id_t vdc) {
    return std::string(reinterpret_cast<const char *>(table(vdc)),
                       tlv_array_size_get(table(vdc), 1));
  }
};

TEST_F(sysmgr_contract, no_vdc_has_a_table_until_one_is_made) {
  for (const sysmgr_info_t &row : sysmgr_info_tbl) {
    EXPECT_EQ(row.srv_tag_info_tbl, nullptr);
  }
}

TEST_F(sysmgr_contract, prepare_makes_an_empty_table_with_room_to_the_limit) {
  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);

  ASSERT_NE(table(1), nullptr);
  EXPECT_EQ(entries(1), 0U);
  EXPECT_EQ(tlv_array_size_get(table(1), 1), 8U);
  const std::string before = stored(1);
  std::memset(reinterpret_cast<char *>(sysmgr_info_tbl[1].srv_tag_info_tbl) + 8, 0x5a,
              SYSMGR_TAG_TABLE_MAX - 8);
  EXPECT_EQ(stored(1), before);
}

TEST_F(sysmgr_contract, prepare_empties_a_table_that_stands) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("tag"), 1), 0U);
  ASSERT_EQ(entries(1), 1U);

  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);

  EXPECT_EQ(entries(1), 0U);
}

TEST_F(sysmgr_contract, a_table_can_be_made_for_vdcs_that_there_are_only) {
  contract_platform::set_vdcs({1, 3, 16});

  for (const vdc_id_t vdc : std::vector<vdc_id_t>{1, 3, 16}) {
    EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, vdc), 0U) << vdc;
    EXPECT_NE(table(vdc), nullptr) << vdc;
  }
  for (const vdc_id_t vdc : std::vector<vdc_id_t>{0, 2, 15}) {
    EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, vdc), 0x401E0076U) << vdc;
    EXPECT_EQ(table(vdc), nullptr) << vdc;
  }
  for (const vdc_id_t vdc : std::vector<vdc_id_t>{17, 18, 65535}) {
    EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, vdc), 0x401E0076U) << vdc;
    EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag(""), vdc), 0x401E0076U) << vdc;
  }
}

TEST_F(sysmgr_contract, each_service_has_one_entry) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);

  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag(""), 1), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_ETH_PORT_SEC, tag("second"), 1), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag("third"), 1), 0U);
  EXPECT_EQ(entries(1), 3U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_ETH_PORT_SEC, tag("a new tag"), 1), 0U);

  EXPECT_EQ(entries(1), 3U);
  EXPECT_NE(stored(1).find("third"), std::string::npos);
  EXPECT_NE(stored(1).find("a new tag"), std::string::npos);
  EXPECT_EQ(stored(1).find("second"), std::string::npos);
}

TEST_F(sysmgr_contract, an_entry_is_the_services_number_and_its_tag_with_a_terminator) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);

  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("ab"), 1), 0U);
  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag(""), 1), 0U);

  const std::string expected = bytes(/* size */ "1c 00 00 00" /* entries, version */ "02 00 01 00"
                                                /* type, length */ "01 00 07 00"
                                                /* 381 */ "7d 01 00 00" /* tag */ "61 62 00"
                                                /* type, length */ "01 00 05 00"
                                                /* 542 */ "1e 02 00 00" /* tag */ "00");
  EXPECT_EQ(hex(stored(1)), hex(expected));
}

TEST_F(sysmgr_contract, a_tag_has_31_characters_at_most) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);

  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag("1234567890123456789012345678901xyz"), 1), 0U);

  EXPECT_NE(stored(1).find(std::string("1234567890123456789012345678901\0", 32)),
            std::string::npos);
  EXPECT_EQ(stored(1).find("xyz"), std::string::npos);
}

TEST_F(sysmgr_contract, a_replaced_entry_stays_in_its_place) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("first"), 1), 0U);
  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag("second"), 1), 0U);

  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("a longer one"), 1), 0U);

  EXPECT_LT(stored(1).find("a longer one"), stored(1).find("second"));
  EXPECT_EQ(tlv_array_size_get(table(1), 1), stored(1).size());
}

TEST_F(sysmgr_contract, the_same_entries_make_the_same_table) {
  contract_platform::set_vdcs({1, 2});
  for (const vdc_id_t vdc : std::vector<vdc_id_t>{1, 2}) {
    ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, vdc), 0U);
    ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("tag"), vdc), 0U);
  }

  EXPECT_EQ(hex(stored(1)), hex(stored(2)));
}

TEST_F(sysmgr_contract, the_table_of_another_vdc_is_left_alone) {
  contract_platform::set_vdcs({1, 2});
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 2), 0U);

  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("tag"), 2), 0U);

  EXPECT_EQ(entries(1), 0U);
  EXPECT_EQ(entries(2), 1U);
}

TEST_F(sysmgr_contract, a_saved_table_can_be_copied_over_one_that_stands) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("saved"), 1), 0U);
  const std::string saved = stored(1);
  ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag("running"), 1), 0U);

  std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, saved.data(), saved.size());
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_ETH_PORT_SEC, tag("added"), 1), 0U);

  EXPECT_EQ(entries(1), 2U);
  EXPECT_NE(stored(1).find("saved"), std::string::npos);
  EXPECT_NE(stored(1).find("added"), std::string::npos);
  EXPECT_EQ(stored(1).find("running"), std::string::npos);
}

// What the library stores after that: the saved entries in their places, the new one behind them.
TEST_F(sysmgr_contract, a_copied_table_with_an_added_entry_is_the_saved_one_and_that_entry) {
  const std::string saved =
      bytes(/* size */ "1b 00 00 00" /* entries, version */ "02 00 01 00"
                       /* type, length, 367, tag */ "01 00 06 00 6f 01 00 00 78 00"
                       /* type, length, 381, tag */ "01 00 05 00 7d 01 00 00 00");
  for (const std::string running : {"", "a tag that is longer than the saved ones"}) {
    ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
    ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_EVMS, tag(running.c_str()), 1), 0U);

    std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, saved.data(), saved.size());
    EXPECT_EQ(tlv_array_size_get(table(1), 1), 27U);
    EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag(""), 1), 0U);

    EXPECT_EQ(hex(stored(1)), "24 00 00 00 03 00 01 00 "
                              "01 00 06 00 6f 01 00 00 78 00 "
                              "01 00 05 00 7d 01 00 00 00 "
                              "01 00 05 00 1e 02 00 00 00");
  }
}

TEST_F(sysmgr_contract, adding_what_a_copied_table_has_replaces_it_there) {
  const std::string saved = bytes("1b 00 00 00 02 00 01 00 01 00 06 00 6f 01 00 00 78 00"
                                  "01 00 05 00 7d 01 00 00 00");
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, saved.data(), saved.size());

  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_ETH_PORT_SEC, tag(""), 1), 0U);

  EXPECT_EQ(hex(stored(1)), "1a 00 00 00 02 00 01 00 "
                            "01 00 05 00 6f 01 00 00 00 "
                            "01 00 05 00 7d 01 00 00 00");
}

// A table that a later release saved: what it holds beside tags is not lost.
TEST_F(sysmgr_contract, items_of_other_types_stay_in_a_copied_table) {
  const std::string saved =
      bytes("10 00 00 00 01 00 01 00" /* another type */ "09 00 04 00 7d 01 00 00");
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, saved.data(), saved.size());

  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag(""), 1), 0U);

  EXPECT_EQ(hex(stored(1)), "19 00 00 00 02 00 01 00 "
                            "09 00 04 00 7d 01 00 00 "
                            "01 00 05 00 7d 01 00 00 00");
}

// A saved table whose sizes agree but whose items do not.
TEST_F(sysmgr_contract, a_copied_table_with_an_item_past_its_end_takes_no_entry) {
  const std::string saved = bytes("0c 00 00 00 01 00 01 00 01 00 01 00");
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, saved.data(), saved.size());

  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag(""), 1), 0x40490002U);

  EXPECT_EQ(hex(stored(1)), hex(saved));
}

// The address is read again after each call: a call may have moved the table, and what is written
// through the new one is what the next call finds.
TEST_F(sysmgr_contract, a_table_is_where_its_row_says_after_each_call) {
  const std::string saved = bytes("11 00 00 00 01 00 01 00 01 00 05 00 1e 02 00 00 00");
  for (int times = 0; times < 3; ++times) {
    ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
    ASSERT_NE(sysmgr_info_tbl[1].srv_tag_info_tbl, nullptr);
    std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, saved.data(), saved.size());
    ASSERT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("1"), 1), 0U);
    EXPECT_EQ(hex(stored(1)), "1b 00 00 00 02 00 01 00 01 00 05 00 1e 02 00 00 00 "
                              "01 00 06 00 7d 01 00 00 31 00");
  }
}

TEST_F(sysmgr_contract, a_refused_table_leaves_the_others_where_they_are) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  const tlv_array_t *const before = table(1);

  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 2), 0x401E0076U);

  EXPECT_EQ(table(1), before);
}

TEST_F(sysmgr_contract, adding_without_a_table_or_a_tag_is_a_status) {
  EXPECT_NE(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("tag"), 1), 0U);
  EXPECT_EQ(table(1), nullptr);
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);

  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, nullptr, 1), 0x401E00A3U);

  EXPECT_EQ(entries(1), 0U);
}

TEST_F(sysmgr_contract, a_long_tag_does_no_harm) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);

  sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag(std::string(4000, 't').c_str()), 1);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag("short"), 1), 0U);

  EXPECT_LE(tlv_array_size_get(table(1), 1), 65536U);
  EXPECT_NE(stored(1).find("short"), std::string::npos);
}

// Services beyond any real one fill the table; an entry that does not fit leaves it as it was.
TEST_F(sysmgr_contract, a_full_table_takes_no_more) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  const std::string text(31, 't');
  syserr_t status = 0;
  uint32 service = 1;

  for (; status == 0 && service < 65536; ++service) {
    status = sysmgr_srv_tag_info_add(static_cast<uuid_t>(service), tag(text.c_str()), 1);
  }

  EXPECT_EQ(status, 0x401E0077U);
  EXPECT_EQ(entries(1), service - 2);
  EXPECT_LE(tlv_array_size_get(table(1), 1), 65536U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(static_cast<uuid_t>(1), tag("s"), 1), 0U);
  EXPECT_EQ(entries(1), service - 2);
}

TEST_F(sysmgr_contract, a_damaged_table_is_a_status) {
  for (const uint32 size : {0U, 7U, 65537U, 0xFFFFFFFFU}) {
    ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
    std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, &size, sizeof(size));

    EXPECT_NE(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("tag"), 1), 0U) << size;
  }
  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag("tag"), 1), 0U);
}

TEST_F(sysmgr_contract, the_trace_facility_is_off) {
  EXPECT_EQ(debug_trace_fac_SYSMGR.stream, nullptr);
  EXPECT_EQ(debug_trace_fac_SYSMGR.level_mask, 0U);
}

TEST_F(sysmgr_contract, an_image_has_the_version_that_it_was_given) {
  contract_platform::set_image("/images/4.2(1)", "4.2(1)");
  contract_platform::set_image("/images/3.3(1)", "3.3(1)");

  EXPECT_STREQ(srg_sw_ver_file_get("/images/4.2(1)"), "4.2(1)");
  EXPECT_STREQ(srg_sw_ver_file_get("/images/3.3(1)"), "3.3(1)");
}

TEST_F(sysmgr_contract, an_image_that_there_is_not_has_no_version) {
  contract_platform::set_image("/images/4.2(1)", "4.2(1)");

  EXPECT_EQ(srg_sw_ver_file_get("/images/4.2(2)"), nullptr);
  EXPECT_EQ(srg_sw_ver_file_get("/images"), nullptr);
  EXPECT_EQ(srg_sw_ver_file_get(""), nullptr);
  EXPECT_EQ(srg_sw_ver_file_get(nullptr), nullptr);
  EXPECT_EQ(srg_sw_ver_file_get(std::string(4000, '/').c_str()), nullptr);
  EXPECT_EQ(srg_sw_ver_file_get(("/images/" + std::string(4000, 'a')).c_str()), nullptr);
}

} // namespace
