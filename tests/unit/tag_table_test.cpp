// The saved tag table of a VDC: a service is entered.

#include "libdatamorph_private.h"

#include <cerrno>
#include <cstdio>

#include "support/library_fixture.h"
#include "support/trace_facility.h"

namespace {

constexpr char k_store[] = "nonvolatile:/cfg/bin/sysmgr_config";
constexpr uint32 k_all = 0xffffffff;

std::string key() {
  return bytes("09 00 00 00  00 00 00 00 00 00 00 00");
}

// The table that holds these items, and one item: a service's number and its tag.
std::string table(const std::vector<std::pair<uint16, std::string>> &items) {
  return tlv_array_bytes(items);
}

std::pair<uint16, std::string> entry(const std::string &number, const std::string &tag) {
  return {1, bytes(number) + tag + std::string(1, '\0')};
}

const std::pair<uint16, std::string> k_kps = entry("1e 02 00 00", "");
const std::pair<uint16, std::string> k_other = entry("f5 01 00 00", "old");

class tag_table_test : public library_fixture {
protected:
  lines_t add(vdc_id_t vdc, const char *path = "/cfg", const char *tag = "") {
    std::string text(tag);
    return traced([&] {
      status =
          sysmgr_add_tag_startup(path, SRVUUID_KPS, reinterpret_cast<uint8 *>(text.data()), vdc);
    });
  }

  std::string running(vdc_id_t vdc) {
    const tlv_array_t *standing = sysmgr_info_tbl[vdc].srv_tag_info_tbl;
    return standing == nullptr ? ""
                               : std::string(reinterpret_cast<const char *>(standing),
                                             tlv_array_size_get(standing, 1));
  }

  std::optional<std::string> saved() { return platform.value(k_store, key()); }

  syserr_t status = 0xdead;
};

TEST_F(tag_table_test, a_configuration_without_a_table_gets_one) {
  platform.set_store(k_store, {{"other", "record"}});
  const trace_facility facility(k_all);
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: PSS_KEY_TAG_INFO not found in sysmgr's config. "
                     "Created successfully\n",
                     "sysmgr_add_tag_startup: vdc 1: saved tag info  for service 0x21e to sysmgr "
                     "startup config\n"}),
            add(1));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(lines_t({"<2048> sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr "
                     "startup config\n",
                     "<2048> sysmgr_add_tag_startup: PSS_KEY_TAG_INFO not found in sysmgr's "
                     "config. Created successfully\n",
                     "<1> sysmgr_add_tag_startup: vdc 1: modified tag info  for service 0x21e, \n",
                     "<1> sysmgr_add_tag_startup: vdc 1: saved tag info  for service 0x21e to "
                     "sysmgr startup config\n"}),
            facility.lines());
  EXPECT_EQ(table({k_kps}), saved());
  EXPECT_EQ("record", platform.value(k_store, "other"));
  EXPECT_EQ(
      lines_t({"pss_open(\"nonvolatile:/cfg/bin/sysmgr_config\")",
               "pss_fetch(1, 090000000000000000000000)", "sysmgr_srv_tag_info_table_prepare(0, 1)",
               "sysmgr_srv_tag_info_add(542, \"\", 1)",
               "pss_store(1, 1, 090000000000000000000000, "
               "11000000010001000100050"
               "01e02000000)",
               "pss_close(1)"}),
      platform.calls());
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(tag_table_test, the_saved_table_replaces_the_running_one) {
  platform.set_store(k_store, {{key(), table({k_other})}});
  ASSERT_EQ(0u, sysmgr_srv_tag_info_table_prepare(0, 1));
  uint8 tag[] = "only in memory";
  ASSERT_EQ(0u, sysmgr_srv_tag_info_add(SRVUUID_IKE, tag, 1));
  platform.clear();
  const trace_facility facility(k_all);
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag new in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: vdc 1: saved tag info new for service 0x21e to "
                     "sysmgr startup config\n"}),
            add(1, "/cfg", "new"));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(lines_t({"<2048> sysmgr_add_tag_startup: Adding uuid 0x21e tag new in vdc 1 to sysmgr "
                     "startup config\n",
                     "<1> sysmgr_add_tag_startup: vdc 1: size of tag table in startup cfg: 20\n",
                     "<1> sysmgr_add_tag_startup: vdc 1: modified tag info new for service 0x21e, "
                     "\n",
                     "<1> sysmgr_add_tag_startup: vdc 1: saved tag info new for service 0x21e to "
                     "sysmgr startup config\n"}),
            facility.lines());
  const std::string expected = table({k_other, entry("1e 02 00 00", "new")});
  EXPECT_EQ(expected, saved());
  EXPECT_EQ(expected, running(1)); // what was only in memory is gone
  EXPECT_TRUE(platform.calls("sysmgr_srv_tag_info_table_prepare").empty());
}

TEST_F(tag_table_test, a_saved_table_and_no_running_one) {
  platform.set_store(k_store, {{key(), table({k_other})}});
  const trace_facility facility(k_all);
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: tag table for vdc 1 does not exist. Created the "
                     "table\n",
                     "sysmgr_add_tag_startup: vdc 1: saved tag info  for service 0x21e to sysmgr "
                     "startup config\n"}),
            add(1));
  EXPECT_EQ("<2048> sysmgr_add_tag_startup: tag table for vdc 1 does not exist. Created the "
            "table\n",
            facility.lines().at(1));
  EXPECT_EQ(table({k_other, k_kps}), saved());
  EXPECT_EQ(1u, platform.calls("sysmgr_srv_tag_info_table_prepare").size());
}

TEST_F(tag_table_test, no_saved_table_empties_the_running_one) {
  platform.set_store(k_store);
  ASSERT_EQ(0u, sysmgr_srv_tag_info_table_prepare(0, 1));
  uint8 tag[] = "gone";
  ASSERT_EQ(0u, sysmgr_srv_tag_info_add(SRVUUID_IKE, tag, 1));
  add(1);
  EXPECT_EQ(table({k_kps}), saved());
  EXPECT_EQ(table({k_kps}), running(1));
}

TEST_F(tag_table_test, twice_is_the_same_as_once) {
  platform.set_store(k_store, {{key(), table({k_other})}});
  add(1);
  const auto once = saved();
  add(1);
  EXPECT_EQ(once, saved());
  EXPECT_EQ(0u, status);
}

TEST_F(tag_table_test, a_record_longer_than_its_table_loses_the_rest) {
  const std::string expected = table({k_other, k_kps});
  for (const size_t rest :
       {size_t{64}, size_t{70000}}) { // also more than the running one has room for
    platform.set_store(k_store, {{key(), table({k_other}) + std::string(rest, 'x')}});
    const trace_facility facility(1);
    add(1);
    EXPECT_EQ(0u, status);
    EXPECT_EQ("<1> sysmgr_add_tag_startup: vdc 1: size of tag table in startup cfg: 20\n",
              facility.lines().at(0));
    EXPECT_EQ(expected, saved());
    // and nothing of it lies behind the running one
    const char *standing = reinterpret_cast<const char *>(sysmgr_info_tbl[1].srv_tag_info_tbl);
    EXPECT_EQ(std::string(64, '\0'), std::string(standing + expected.size(), 64));
    platform.reset();
  }
}

TEST_F(tag_table_test, a_saved_table_that_is_none_ends_the_update) {
  const std::string good = table({k_other});
  const std::string values[] = {
      "",
      good.substr(0, 4),
      good.substr(0, 7),                                           // not even a head
      good.substr(0, good.size() - 1),                             // one byte short
      bytes("15 00 00 00") + good.substr(4),                       // claims one byte more
      bytes("ff ff ff ff") + good.substr(4),                       // claims all there is
      bytes("07 00 00 00") + good.substr(4),                       // smaller than its head
      bytes("00 00 00 00") + good.substr(4),                       // nothing
      bytes("01 00 01 00 00 00 01 00") + std::string(65529, '\0'), // one byte too large to work on
  };
  for (const std::string &value : values) {
    platform.set_store(k_store, {{key(), value}});
    platform.clear();
    EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                       "config\n"}),
              add(1));
    EXPECT_EQ(0x40480009u, status) << hex(value.substr(0, 32));
    EXPECT_EQ(value, saved());
    EXPECT_EQ("", running(1));
    ASSERT_EQ(3u, platform.calls().size()); // open, fetch, close
    EXPECT_EQ(0u, platform.calls()[2].find("pss_close("));
  }
}

TEST_F(tag_table_test, the_largest_table_and_the_smallest) {
  const std::string smallest = table({});
  platform.set_store(k_store, {{key(), smallest}});
  add(1);
  EXPECT_EQ(0u, status);
  EXPECT_EQ(table({k_kps}), saved());

  std::string largest = table({{2, std::string(65524, 'x')}});
  ASSERT_EQ(65536u, largest.size());
  platform.set_store(k_store, {{key(), largest}});
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: Error 0x401E0077 while adding to sysmgr startup "
                     "config\n"}),
            add(1));
  EXPECT_EQ(0x401E0077u, status); // there is no room for one more
  EXPECT_EQ(largest, saved());
}

TEST_F(tag_table_test, a_table_damaged_inside_is_found_by_the_addition) {
  const std::string value = table({k_other}).substr(0, 10) + bytes("ff 7f") + std::string(8, 'x');
  platform.set_store(k_store, {{key(), value}});
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: tag table for vdc 1 does not exist. Created the "
                     "table\n",
                     "sysmgr_add_tag_startup: Error 0x40490002 while adding to sysmgr startup "
                     "config\n"}),
            add(1));
  EXPECT_EQ(0x40490002u, status);
  EXPECT_EQ(value, saved());
}

TEST_F(tag_table_test, a_store_that_cannot_be_opened_is_success) {
  const trace_facility facility(k_all);
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: pss_open nonvolatile:/cfg/bin/sysmgr_config failed "
                     "with error 0x40480002\n"}),
            add(1));
  EXPECT_EQ(0u, status);
  EXPECT_EQ("<2048> sysmgr_add_tag_startup: pss_open nonvolatile:/cfg/bin/sysmgr_config failed "
            "with error 0x40480002\n",
            facility.lines().at(1));
  EXPECT_EQ(1u, platform.calls().size());
  EXPECT_EQ("", running(1));

  platform.set_store(k_store);
  platform.damage(k_store);
  add(1);
  EXPECT_EQ(0u, status);

  platform.fail("pss_open", 0x4048000C);
  EXPECT_EQ("sysmgr_add_tag_startup: pss_open nonvolatile:/cfg/bin/sysmgr_config failed with error "
            "0x4048000c\n",
            add(1).back());
  EXPECT_EQ(0u, status);
}

TEST_F(tag_table_test, a_failed_fetch_is_returned) {
  platform.set_store(k_store);
  platform.fail("pss_fetch", 0x4048000B);
  const trace_facility facility(k_all);
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: Error in fetching PSS_KEY_TAG_INFO from sysmgr "
                     "startup config (0x4048000B) for vdc 1\n"}),
            add(1));
  EXPECT_EQ(0x4048000Bu, status);
  EXPECT_EQ("<2048> sysmgr_add_tag_startup: Error in fetching PSS_KEY_TAG_INFO from sysmgr startup "
            "config (0x4048000B) for vdc 1\n",
            facility.lines().at(1));
  EXPECT_EQ("pss_close(1)", platform.calls().back());
  EXPECT_EQ(3u, platform.calls().size());
}

TEST_F(tag_table_test, a_fetch_that_gives_nothing_is_no_table) {
  platform.set_store(k_store, {{key(), table({})}});
  platform.answer_null("pss_fetch");
  add(1);
  EXPECT_EQ(0x40480009u, status);
  EXPECT_EQ(table({}), saved());
}

TEST_F(tag_table_test, a_fetch_without_bytes_is_no_table) {
  platform.set_store(k_store, {{key(), table({})}});
  platform.answer_without_bytes("pss_fetch", 8);
  add(1);
  EXPECT_EQ(0x40480009u, status);
  EXPECT_EQ(table({}), saved());
}

TEST_F(tag_table_test, less_than_a_header_is_no_table_and_not_looked_into) {
  platform.set_store(k_store, {{key(), bytes("08 00 00 00 01 00 01")}});
  platform.watch_tlvs();
  add(1);
  EXPECT_EQ(0x40480009u, status);
  EXPECT_EQ(lines_t(), platform.calls("tlv_array_size_get"));
}

TEST_F(tag_table_test, the_tlv_calls_of_an_addition) {
  platform.set_store(k_store, {{key(), table({k_other})}});
  platform.watch_tlvs();
  add(1);
  const lines_t calls = platform.calls("tlv_array_size_get");
  ASSERT_EQ(2u, calls.size()); // of the saved table, and of what is to be saved
  for (const std::string &call : calls) {
    EXPECT_NE(std::string::npos, call.find(", 1)")) << call;
  }
}

TEST_F(tag_table_test, a_failed_addition_is_returned) {
  platform.set_store(k_store, {{key(), table({k_other})}});
  platform.fail("sysmgr_srv_tag_info_add", 0x401E0077);
  const trace_facility facility(k_all);
  EXPECT_EQ("sysmgr_add_tag_startup: Error 0x401E0077 while adding to sysmgr startup config\n",
            add(1).back());
  EXPECT_EQ(0x401E0077u, status);
  EXPECT_EQ("<2048> sysmgr_add_tag_startup: Error 0x401E0077 while adding to sysmgr startup "
            "config\n",
            facility.lines().back());
  EXPECT_EQ(table({k_other}), saved());
  EXPECT_EQ("pss_close(1)", platform.calls().back());
}

TEST_F(tag_table_test, a_failed_store_is_returned_and_has_two_texts) {
  platform.set_store(k_store, {{key(), table({k_other})}});
  platform.fail("pss_store", 0x4048000C);
  const trace_facility facility(k_all);
  EXPECT_EQ("sysmgr_add_tag_startup: Error in storing PSS_KEY_TAG_INFO to startup config "
            "(0x4048000C) for vdc 1\n",
            add(1).back());
  EXPECT_EQ(0x4048000Cu, status);
  const lines_t lines = facility.lines();
  ASSERT_EQ(5u, lines.size());
  EXPECT_EQ("<1> sysmgr_add_tag_startup: vdc 1: modified tag info  for service 0x21e, \n",
            lines[3]);
  EXPECT_EQ("<2048> sysmgr_add_tag_startup: Error in storing PSS_KEY_TAG_INFO to startup config "
            "(0x4048000C) for vdc 1.\n",
            lines[4]);
  EXPECT_EQ(table({k_other}), saved());
  EXPECT_EQ(table({k_other, k_kps}), running(1)); // is not taken back
  EXPECT_EQ("pss_close(1)", platform.calls().back());
}

TEST_F(tag_table_test, a_failed_close_changes_nothing) {
  platform.set_store(k_store);
  platform.fail("pss_close", 0x4048000B);
  EXPECT_EQ(3u, add(1).size());
  EXPECT_EQ(0u, status);
}

TEST_F(tag_table_test, a_table_that_cannot_be_made) {
  const lines_t only_adding = {
      "sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup config\n"};
  for (const bool found : {false, true}) {
    platform.set_store(k_store);
    if (found) {
      platform.put(k_store, key(), table({k_other}));
    }
    const auto before = saved();
    platform.fail("sysmgr_srv_tag_info_table_prepare", 0x4048000C);
    EXPECT_EQ(only_adding, add(1)) << found;
    EXPECT_EQ(0x4048000Cu, status);
    EXPECT_EQ(before, saved());
    // reported as made, but none stands
    platform.answer_null_from("sysmgr_srv_tag_info_table_prepare");
    platform.clear();
    EXPECT_EQ(found ? 1u : 2u, add(1).size());
    EXPECT_EQ(0x401E0076u, status);
    EXPECT_TRUE(platform.calls("sysmgr_srv_tag_info_add").empty());
    EXPECT_EQ(before, saved());
    EXPECT_EQ(found ? 1u : 2u, platform.calls("sysmgr_srv_tag_info_table_prepare").size());
    EXPECT_EQ(0u, platform.calls().back().find("pss_close("));
    EXPECT_TRUE(platform.open_handles().empty());
    platform.reset();
  }
}

TEST_F(tag_table_test, a_second_try_makes_the_table) {
  platform.set_store(k_store);
  platform.answer_null("sysmgr_srv_tag_info_table_prepare");
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: PSS_KEY_TAG_INFO not found in sysmgr's config. "
                     "Created successfully\n",
                     "sysmgr_add_tag_startup: tag table for vdc 1 does not exist. Created the "
                     "table\n",
                     "sysmgr_add_tag_startup: vdc 1: saved tag info  for service 0x21e to sysmgr "
                     "startup config\n"}),
            add(1));
  EXPECT_EQ(table({k_kps}), saved());
}

TEST_F(tag_table_test, another_vdcs_table_is_left_alone) {
  for (const bool found : {false, true}) {
    platform.set_vdcs({1, 2});
    ASSERT_EQ(0u, sysmgr_srv_tag_info_table_prepare(0, 1));
    platform.set_store(k_store);
    if (found) {
      platform.put(k_store, key(), table({k_other}));
    }
    platform.clear();
    const trace_facility facility(k_all);
    const lines_t lines = add(2);
    EXPECT_EQ(found ? table({k_other, k_kps}) : table({k_kps}), saved());
    EXPECT_EQ(saved(), running(2));
    EXPECT_EQ(table({}), running(1));
    EXPECT_EQ(lines_t({"sysmgr_srv_tag_info_table_prepare(0, 2)"}),
              platform.calls("sysmgr_srv_tag_info_table_prepare"));
    EXPECT_EQ(lines_t({"sysmgr_srv_tag_info_add(542, \"\", 2)"}),
              platform.calls("sysmgr_srv_tag_info_add"));
    EXPECT_EQ(3u, lines.size());
    EXPECT_EQ(found ? 5u : 4u, facility.lines().size());
    for (const std::string &line : facility.lines()) {
      EXPECT_EQ(std::string::npos, line.find("vdc 1")) << line;
    }
  }
}

// With the vdc in each message of a step that fails.
TEST_F(tag_table_test, failures_name_the_vdc) {
  platform.set_vdcs({1, 2});
  for (const char *function : {"pss_fetch", "pss_store"}) {
    platform.set_store(k_store);
    platform.fail(function, 0x4048000B);
    const trace_facility facility(2048);
    EXPECT_NE(std::string::npos, add(2).back().find("(0x4048000B) for vdc 2\n"));
    EXPECT_NE(std::string::npos, facility.lines().back().find("(0x4048000B) for vdc 2"));
  }
}

// Whoever lets the facility write to standard error finds each line there first, then the log's.
TEST_F(tag_table_test, the_facility_is_written_before_the_log) {
  platform.set_store(k_store);
  uint8 tag[] = "t";
  debug_trace_fac_SYSMGR = {stderr, 1};
  const std::string text =
      captured_stderr([&] { status = sysmgr_add_tag_startup("/cfg", SRVUUID_KPS, tag, 1); });
  debug_trace_fac_SYSMGR = {nullptr, 0};
  const std::string saved_line = "sysmgr_add_tag_startup: vdc 1: saved tag info t for service "
                                 "0x21e to sysmgr startup config\n";
  const size_t facility = text.find("> <1> " + saved_line);
  ASSERT_NE(std::string::npos, facility);
  EXPECT_EQ(facility + 6 + saved_line.size(), text.find("\n" + saved_line) + 1);
}

TEST_F(tag_table_test, a_failed_store_is_in_the_log_first) {
  platform.set_store(k_store);
  platform.fail("pss_store", 0x4048000C);
  uint8 tag[] = "t";
  debug_trace_fac_SYSMGR = {stderr, 2048};
  const std::string text =
      captured_stderr([&] { status = sysmgr_add_tag_startup("/cfg", SRVUUID_KPS, tag, 1); });
  debug_trace_fac_SYSMGR = {nullptr, 0};
  const std::string line = "sysmgr_add_tag_startup: Error in storing PSS_KEY_TAG_INFO to startup "
                           "config (0x4048000C) for vdc 1";
  const size_t log = text.find("\n" + line + "\n");
  const size_t facility = text.find("> <2048> " + line + ".\n");
  ASSERT_NE(std::string::npos, log);
  ASSERT_NE(std::string::npos, facility);
  EXPECT_LT(log, facility);
}

TEST_F(tag_table_test, vdcs_that_have_no_row_or_do_not_exist) {
  platform.set_vdcs({1, 16});
  platform.set_store(k_store);
  add(16);
  EXPECT_EQ(0u, status);
  EXPECT_EQ(table({k_kps}), running(16));
  for (const vdc_id_t vdc : std::vector<vdc_id_t>{17, 255, 65535}) { // no row: nothing is opened
    platform.clear();
    const lines_t lines = add(vdc);
    EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc " +
                       std::to_string(vdc) + " to sysmgr startup config\n"}),
              lines);
    EXPECT_EQ(0x401E0076u, status);
    EXPECT_TRUE(platform.calls().empty());
  }
  platform.set_store(k_store);
  for (const vdc_id_t vdc : std::vector<vdc_id_t>{0, 2}) { // a row, but no such VDC
    EXPECT_EQ(1u, add(vdc).size());
    EXPECT_EQ(0x401E0076u, status);
    EXPECT_FALSE(saved().has_value());
    EXPECT_EQ(0u, platform.calls().back().find("pss_close("));
  }
}

TEST_F(tag_table_test, each_class_needs_its_bit_and_a_stream) {
  const struct {
    uint32 mask;
    size_t lines;
  } rows[] = {{0, 0}, {1, 2}, {2048, 2}, {2049, 4}, {~2049u, 0}, {0xffffffff, 4}};
  for (const auto &row : rows) {
    platform.set_store(k_store);
    const trace_facility facility(row.mask);
    EXPECT_EQ(3u, add(1).size());
    EXPECT_EQ(row.lines, facility.lines().size()) << row.mask;
  }
  debug_trace_fac_SYSMGR = {nullptr, 0xffffffff};
  platform.set_store(k_store);
  EXPECT_EQ(3u, add(1).size());
  EXPECT_EQ(0u, status);
}

TEST_F(tag_table_test, the_uri_is_cut_at_254_characters) {
  const std::string path(4000, 'p');
  const std::string cut = "nonvolatile:" + std::string(242, 'p');
  EXPECT_EQ("sysmgr_add_tag_startup: pss_open " + cut + " failed with error 0x40480002\n",
            add(1, path.c_str()).back());
  EXPECT_EQ(lines_t({"pss_open(\"" + cut + "\")"}), platform.calls());
  EXPECT_EQ(0u, status);
}

TEST_F(tag_table_test, nulls_touch_nothing) {
  uint8 tag[] = "t";
  EXPECT_EQ(
      lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag (null) in vdc 1 to sysmgr startup "
               "config\n"}),
      traced([this] { status = sysmgr_add_tag_startup("/cfg", SRVUUID_KPS, nullptr, 1); }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  status = 0;
  EXPECT_EQ(lines_t({"sysmgr_add_tag_startup: Adding uuid 0x21e tag t in vdc 1 to sysmgr startup "
                     "config\n"}),
            traced([&] { status = sysmgr_add_tag_startup(nullptr, SRVUUID_KPS, tag, 1); }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(tag_table_test, every_failing_call) {
  // open, fetch, prepare, add, store, close
  const syserr_t statuses[] = {0, 0x4048000B, 0x4048000B, 0x4048000B, 0x4048000B, 0};
  const size_t calls[] = {1, 3, 4, 5, 6, 6};
  for (unsigned n = 0; n < 6; ++n) {
    platform.reset();
    platform.set_store(k_store);
    platform.fail_any(n + 1, 0x4048000B);
    add(1);
    EXPECT_EQ(statuses[n], status) << n;
    EXPECT_EQ(calls[n], platform.calls().size()) << n;
    EXPECT_EQ(1u, platform.scripted());
    EXPECT_TRUE(platform.open_handles().empty());
  }
}

} // namespace
