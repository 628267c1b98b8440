// The journal: one line for each call that changes something, with exact counts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>

#include "lab/lab_fixture.h"

namespace {

constexpr char k_uri[] = "volatile:/x";

class journal : public lab_test {
protected:
  void TearDown() override {
    stop();
    lab_test::TearDown();
  }

  void start() {
    fd_ = ::open("/tmp/journal", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd_, 0);
    lab::journal_start(fd_);
    lab::journal_request("startup", 2, "EVMS");
  }

  // What was written since start().
  std::string stop() {
    lab::journal_stop();
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
    }
    return switch_root::read_file("/tmp/journal");
  }

  int fd_ = -1;
};

TEST_F(journal, has_a_line_for_each_change_of_a_record) {
  make(k_uri, {{"a", "1"}, {"b", "22"}});
  start();
  const pss_service_t service = open(k_uri);
  put(service, "a", "111");
  put(service, "b", "22");
  put(service, std::string("\x00\xff", 2), "");
  remove(service, "a");
  remove(service, "none");
  EXPECT_EQ(pss_close(service), 0U);

  EXPECT_EQ(
      stop(),
      R"({"n":1,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_store","uri":"volatile:/x","key":"61","old":1,"new":3,"added":0,"changed":1,"removed":0,"status":0,"unexpected":false}
{"n":2,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_store","uri":"volatile:/x","key":"62","old":2,"new":2,"added":0,"changed":0,"removed":0,"status":0,"unexpected":false}
{"n":3,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_store","uri":"volatile:/x","key":"00ff","old":null,"new":0,"added":1,"changed":0,"removed":0,"status":0,"unexpected":false}
{"n":4,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_delete","uri":"volatile:/x","key":"61","old":3,"new":null,"added":0,"changed":0,"removed":1,"status":0,"unexpected":false}
{"n":5,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_delete","uri":"volatile:/x","key":"6e6f6e65","old":null,"new":null,"added":0,"changed":0,"removed":0,"status":1078460419,"unexpected":false}
{"n":6,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_close","uri":"volatile:/x","status":0,"unexpected":false}
)");
  EXPECT_EQ(lab::journal_unexpected(nullptr), 0U);
}

TEST_F(journal, has_a_line_for_each_change_of_a_store) {
  make(k_uri, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
  make("volatile:/y", {{"a", "1"}, {"b", "other"}, {"d", "4"}, {"e", "5"}});
  start();
  const pss_service_t service = open(k_uri);
  EXPECT_EQ(pss_snapshot(service, 0, "volatile:/y"), 0U);
  EXPECT_EQ(pss_snapshot(service, 0, "volatile:/new"), 0U);
  EXPECT_EQ(pss2_kernel2file(service, "/tmp/flat", 0), 0U);
  EXPECT_EQ(pss_close(service), 0U);
  EXPECT_EQ(pss_destroy(k_uri), 0U);
  EXPECT_EQ(pss2_destroy(k_uri), 0x40480002U);
  EXPECT_EQ(pss_create(k_uri), 0U);

  EXPECT_EQ(
      stop(),
      R"({"n":1,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_snapshot","uri":"volatile:/y","added":1,"changed":1,"removed":2,"status":0,"unexpected":false}
{"n":2,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_snapshot","uri":"volatile:/new","added":3,"changed":0,"removed":0,"status":0,"unexpected":false}
{"n":3,"moment":"startup","vdc":2,"service":"EVMS","call":"pss2_kernel2file","uri":"volatile:/x","file":"/tmp/flat","status":0,"unexpected":false}
{"n":4,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_destroy","uri":"volatile:/x","added":0,"changed":0,"removed":3,"status":0,"unexpected":false}
{"n":5,"moment":"startup","vdc":2,"service":"EVMS","call":"pss2_destroy","uri":"volatile:/x","added":0,"changed":0,"removed":0,"status":1078460418,"unexpected":false}
{"n":6,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_create","uri":"volatile:/x","status":0,"unexpected":false}
)");
}

TEST_F(journal, counts_what_a_flat_file_brought) {
  make(k_uri, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
  const pss2_service_t source = open(k_uri);
  ASSERT_EQ(pss2_kernel2file(source, "/tmp/flat", 0), 0U);
  make("volatile:/y", {{"a", "1"}, {"b", "other"}, {"z", "own"}});
  start();
  const pss2_service_t target = open("volatile:/y");
  EXPECT_EQ(pss2_file2kernel("/tmp/flat", target, 0), 0U);
  EXPECT_EQ(pss2_file2kernel("/tmp/none", target, 0), 0x40480002U);

  EXPECT_EQ(
      stop(),
      R"({"n":1,"moment":"startup","vdc":2,"service":"EVMS","call":"pss2_file2kernel","uri":"volatile:/y","file":"/tmp/flat","added":1,"changed":1,"removed":0,"status":0,"unexpected":false}
{"n":2,"moment":"startup","vdc":2,"service":"EVMS","call":"pss2_file2kernel","uri":"volatile:/y","file":"/tmp/none","added":0,"changed":0,"removed":0,"status":1078460418,"unexpected":false}
)");
}

TEST_F(journal, says_which_access_points_went) {
  ASSERT_EQ(lab::mts_sap_register(0, 341, "EVMS"), 0);
  const mts_q_handle_t queue = lab::mts_queue_open();
  start();
  EXPECT_EQ(mts_sap_destroy(queue, 341), 0);
  EXPECT_EQ(mts_sap_destroy(queue, 341), -1);
  EXPECT_EQ(mts_sap_destroy(0, 342), -1);
  EXPECT_EQ(errno, EBADF);

  EXPECT_EQ(
      stop(),
      R"({"n":1,"moment":"startup","vdc":2,"service":"EVMS","call":"mts_sap_destroy","sap":341,"status":0,"unexpected":false}
{"n":2,"moment":"startup","vdc":2,"service":"EVMS","call":"mts_sap_destroy","sap":341,"status":2,"unexpected":false}
{"n":3,"moment":"startup","vdc":2,"service":"EVMS","call":"mts_sap_destroy","sap":342,"status":9,"unexpected":true}
)");
}

TEST_F(journal, has_a_line_for_each_change_of_a_tag_table) {
  uint8 tag[] = "\"on\"\xff";
  uint8 long_tag[] = "1234567890123456789012345678901234567890";
  lab::sysmgr_set_vdcs({1, 4});
  start();
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag, 4), 0x401E0076U);
  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 4), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag, 4), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, long_tag, 4), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, nullptr, 4), 0x401E00A3U);
  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 4), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 2), 0x401E0076U);
  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 65535), 0x401E0076U);
  const uint32 none = 0;
  std::memcpy(sysmgr_info_tbl[4].srv_tag_info_tbl, &none, sizeof(none));
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag, 4), 0x40490002U);

  EXPECT_EQ(
      stop(),
      R"({"n":1,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_add","table_vdc":4,"uuid":381,"tag":"226f6e22ff","old_tag":null,"old":null,"new":null,"old_sum":null,"new_sum":null,"status":1075708022,"unexpected":false}
{"n":2,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_table_prepare","table_vdc":4,"old":null,"new":8,"old_sum":null,"new_sum":"cf8b74902d6648e2","status":0,"unexpected":false}
{"n":3,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_add","table_vdc":4,"uuid":381,"tag":"226f6e22ff","old_tag":null,"old":8,"new":22,"old_sum":"cf8b74902d6648e2","new_sum":"751a51b9a4d6b56b","status":0,"unexpected":false}
{"n":4,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_add","table_vdc":4,"uuid":381,"tag":"31323334353637383930313233343536373839303132333435363738393031","old_tag":"226f6e22ff","old":22,"new":48,"old_sum":"751a51b9a4d6b56b","new_sum":"8cf05b6650bf5d94","status":0,"unexpected":false}
{"n":5,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_add","table_vdc":4,"uuid":381,"old_tag":"31323334353637383930313233343536373839303132333435363738393031","old":48,"new":48,"old_sum":"8cf05b6650bf5d94","new_sum":"8cf05b6650bf5d94","status":1075708067,"unexpected":true}
{"n":6,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_table_prepare","table_vdc":4,"old":48,"new":8,"old_sum":"8cf05b6650bf5d94","new_sum":"cf8b74902d6648e2","status":0,"unexpected":false}
{"n":7,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_table_prepare","table_vdc":2,"old":null,"new":null,"old_sum":null,"new_sum":null,"status":1075708022,"unexpected":false}
{"n":8,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_table_prepare","table_vdc":65535,"old":null,"new":null,"old_sum":null,"new_sum":null,"status":1075708022,"unexpected":false}
{"n":9,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_info_tbl","table_vdc":4,"old":8,"new":0,"old_sum":"cf8b74902d6648e2","new_sum":null,"status":0,"unexpected":false}
{"n":10,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_add","table_vdc":4,"uuid":542,"tag":"226f6e22ff","old_tag":null,"old":0,"new":0,"old_sum":null,"new_sum":null,"status":1078525954,"unexpected":true}
)");
  EXPECT_EQ(lab::journal_unexpected(nullptr), 2U);
}

// The library copies a saved table over the running one: no call, but a line before that of the
// call that follows, or at the request's end.
TEST_F(journal, has_a_line_for_a_tag_table_that_was_written_over) {
  uint8 tag[] = "on";
  lab::sysmgr_set_vdcs({1, 2});
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 2), 0U);
  const std::string one = lab::tag_table_encode({{SRVUUID_KPS, "a"}});
  const std::string other = lab::tag_table_encode({{SRVUUID_KPS, "b"}});
  const auto write_over = [](vdc_id_t vdc, const std::string &table) {
    std::memcpy(static_cast<void *>(sysmgr_info_tbl[vdc].srv_tag_info_tbl), table.data(),
                table.size());
  };
  write_over(1, one);
  start();
  lab::sysmgr_journal_edits();
  write_over(1, one); // as it stands
  lab::sysmgr_journal_edits();
  write_over(1, other);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag, 1), 0U);
  write_over(2, one);
  lab::sysmgr_journal_edits();
  lab::sysmgr_journal_edits();

  EXPECT_EQ(
      stop(),
      R"({"n":1,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_info_tbl","table_vdc":1,"old":18,"new":18,"old_sum":"dcca27b11fc03f55","new_sum":"58a39b53035dc37f","status":0,"unexpected":false}
{"n":2,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_srv_tag_info_add","table_vdc":1,"uuid":381,"tag":"6f6e","old_tag":null,"old":18,"new":29,"old_sum":"58a39b53035dc37f","new_sum":"0d8556063cc5a955","status":0,"unexpected":false}
{"n":3,"moment":"startup","vdc":2,"service":"EVMS","call":"sysmgr_info_tbl","table_vdc":2,"old":8,"new":18,"old_sum":"cf8b74902d6648e2","new_sum":"dcca27b11fc03f55","status":0,"unexpected":false}
)");
}

// What was written between two journals belongs to neither.
TEST_F(journal, begins_with_the_tag_tables_as_they_stand) {
  lab::sysmgr_set_vdcs({1});
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  start();
  lab::sysmgr_journal_edits();
  stop();
  const std::string other = lab::tag_table_encode({{SRVUUID_KPS, "b"}});
  std::memcpy(static_cast<void *>(sysmgr_info_tbl[1].srv_tag_info_tbl), other.data(), other.size());
  start();
  lab::sysmgr_journal_edits();

  EXPECT_EQ(stop(), "");
}

// A tag that is set as it was, and one that is set to as many other bytes, differ in it.
TEST_F(journal, tells_the_tag_that_an_entry_had) {
  uint8 empty[] = "";
  uint8 one[] = "a";
  uint8 other[] = "\xfe";
  lab::sysmgr_set_vdcs({1});
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  start();
  for (uint8 *const tag : {empty, one, other, other}) {
    EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag, 1), 0U);
  }

  std::istringstream lines(stop());
  const char *const expected[] = {
      R"("tag":"","old_tag":null,"old":8,"new":17)",
      R"("tag":"61","old_tag":"","old":17,"new":18)",
      R"("tag":"fe","old_tag":"61","old":18,"new":18)",
      R"("tag":"fe","old_tag":"fe","old":18,"new":18)",
  };
  for (const char *part : expected) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_NE(line.find(part), std::string::npos) << line;
  }
}

// The lines of the system manager's thread and of this one do not mix, and none is lost.
TEST_F(journal, takes_lines_from_several_threads) {
  ASSERT_EQ(lab::sysmgr_start(), 0);
  const mts_q_handle_t queue = lab::mts_queue_open();
  start();
  const char request[40] = {0, 0, 0, 1, 0, 0, 0, 1};
  for (int n = 0; n < 200; ++n) {
    mts_ref_t sent = 0;
    ASSERT_EQ(mts_send(queue, 0xFE000000, 3, 2690, request, 40, &sent, 0, 0), 0);
    pss_destroy("volatile:/none");
    mts_ref_t response = 0;
    const mts_recv_options_t options = {1, 0, 20, mts_rr_token_get(sent), 0, 0, 0};
    ASSERT_EQ(mts_recv(queue, &response, &options), 0);
    mts_drop(queue, sent);
    mts_drop(queue, response);
  }
  EXPECT_EQ(lab::sysmgr_stop(), 0);

  std::istringstream lines(stop());
  int number = 0;
  int of_tables = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    EXPECT_TRUE(line.starts_with("{\"n\":" + std::to_string(number) + ",\"moment\":")) << line;
    EXPECT_TRUE(line.ends_with("\"unexpected\":false}")) << line;
    of_tables += line.find("sysmgr_srv_tag_info") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(of_tables, 201); // the first request had to make the table
  EXPECT_EQ(number, 401);
}

TEST_F(journal, keeps_the_first_write_that_failed) {
  start();
  EXPECT_EQ(pss_create("nonvolatile:/proc/store"), 0x40480002U);
  EXPECT_EQ(put(77, "k", "v"), 0x40480008U);

  std::string first;
  EXPECT_EQ(lab::journal_unexpected(&first), 2U);
  EXPECT_EQ(
      first,
      R"({"n":1,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_create","uri":"nonvolatile:/proc/store","status":1078460418,"unexpected":true})");
  EXPECT_EQ(stop(), first +
                        R"(
{"n":2,"moment":"startup","vdc":2,"service":"EVMS","call":"pss_store","key":"6b","old":null,"new":1,"added":0,"changed":0,"removed":0,"status":1078460424,"unexpected":true}
)");
}

TEST_F(journal, without_a_file_only_counts) {
  lab::journal_start(-1);
  EXPECT_EQ(pss_create("nonsense"), 0x40480005U);
  std::string first;
  EXPECT_EQ(lab::journal_unexpected(&first), 1U);
  EXPECT_NE(first.find(R"("uri":"nonsense")"), std::string::npos);
  lab::journal_start(-1);
  EXPECT_EQ(lab::journal_unexpected(&first), 0U);
  EXPECT_EQ(first, "");
}

TEST_F(journal, writes_any_uri_as_json) {
  start();
  lab::journal_request("gsync", 1, "a \"b\" \\ \n");
  pss_destroy("volatile:/gr\xc3\xbc\xc3\x9f");
  pss_destroy("volatile:/\xff\xc3\x01");

  EXPECT_EQ(
      stop(),
      R"({"n":1,"moment":"gsync","vdc":1,"service":"a \"b\" \\ \u000a","call":"pss_destroy","uri":"volatile:/grüß","added":0,"changed":0,"removed":0,"status":1078460418,"unexpected":false}
{"n":2,"moment":"gsync","vdc":1,"service":"a \"b\" \\ \u000a","call":"pss_destroy","uri":"volatile:/\u00ff\u00c3\u0001","added":0,"changed":0,"removed":0,"status":1078460418,"unexpected":false}
)");
}

// Bytes that look like a letter's and are none are written one by one.
TEST_F(journal, writes_no_letters_that_are_none) {
  const struct {
    const char *bytes;
    const char *written;
  } rows[] = {{"\xe2\x82\xac", "€"},
              {"\xf0\x9f\x98\x80", "😀"},
              {"\xed\x9f\xbf", "\xed\x9f\xbf"},
              {"\xc0\xaf", R"(\u00c0\u00af)"},
              {"\xe0\x80\xaf", R"(\u00e0\u0080\u00af)"},
              {"\xed\xa0\x80", R"(\u00ed\u00a0\u0080)"},
              {"\xf0\x8f\xbf\xbf", R"(\u00f0\u008f\u00bf\u00bf)"},
              {"\xf4\x90\x80\x80", R"(\u00f4\u0090\u0080\u0080)"},
              {"\xf5\x80\x80\x80", R"(\u00f5\u0080\u0080\u0080)"},
              {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
              {"\xe2\x82", R"(\u00e2\u0082)"}};
  for (const auto &row : rows) {
    start();
    pss_destroy((std::string("volatile:/") + row.bytes).c_str());
    EXPECT_NE(stop().find(std::string(R"("uri":"volatile:/)") + row.written + "\""),
              std::string::npos)
        << row.written;
  }
}

TEST_F(journal, that_cannot_be_written_counts_as_failed) {
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  lab::journal_start(full);
  EXPECT_EQ(pss_create(k_uri), 0U);
  EXPECT_EQ(lab::journal_unexpected(nullptr), 1U);
  lab::journal_stop();
  ::close(full);
}

TEST_F(journal, is_silent_when_off) {
  start();
  stop();
  EXPECT_EQ(pss_create(k_uri), 0U);
  EXPECT_EQ(pss_create("nonsense"), 0x40480005U);
  EXPECT_EQ(stop(), "");
}

} // namespace
