// The request that tells the running system manager of a service's tag.

#include "libdatamorph_private.h"

#include <cerrno>

#include "support/library_fixture.h"

namespace {

class tag_info_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    platform.add_queue(7);
    traced([] { libdatamorph_init(7); });
    platform.clear();
  }

  lines_t request(uuid_t uuid, const char *tag, vdc_id_t vdc) {
    std::string text(tag);
    return traced([&] {
      status = sysmgr_add_tag_info_req(uuid, reinterpret_cast<uint8 *>(text.data()), vdc);
    });
  }

  syserr_t status = 0xdead;
};

const std::string k_zeros(64, '0');

TEST_F(tag_info_test, every_call_and_every_byte) {
  platform.reply(bytes("00 00 00 00"));
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: Return status 0x0\n"}),
            request(SRVUUID_DOT1X, "", 1));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(lines_t({"mts_send(7, 0xfe000000, 3, 2690, 0000017d00000001" + k_zeros + ", 40, 0, 0)",
                     "mts_rr_token_get(1)",
                     "mts_recv(7, version 1, non_blocking 0, timeout 30, token 1000, opcode 0, sap "
                     "0, flags 0)",
                     "mts_payload_get(2)", "mts_drop(7, 1)", "mts_drop(7, 2)"}),
            platform.calls());
  EXPECT_TRUE(platform.open_messages().empty());
}

TEST_F(tag_info_test, services_vdcs_and_tags_as_they_are_sent) {
  const struct {
    uuid_t uuid;
    const char *tag;
    vdc_id_t vdc;
    const char *payload;
  } rows[] = {
      {SRVUUID_ETH_PORT_SEC, "t", 2,
       "0000016f"
       "00000002"
       "7400000000000000000000000000000000000000000000000000000000000000"},
      {SRVUUID_KPS, "abcdefghijklmnopqrstuvwxyz01234", 65535,
       "0000021e"
       "0000ffff"
       "6162636465666768696a6b6c6d6e6f707172737475767778797a303132333400"},
      // 32 and 40 characters: the last byte stays a terminator
      {SRVUUID_KPS, "abcdefghijklmnopqrstuvwxyz012345", 0,
       "0000021e"
       "00000000"
       "6162636465666768696a6b6c6d6e6f707172737475767778797a303132333400"},
      {SRVUUID_KPS, "abcdefghijklmnopqrstuvwxyz01234567890123", 0,
       "0000021e"
       "00000000"
       "6162636465666768696a6b6c6d6e6f707172737475767778797a303132333400"},
      {static_cast<uuid_t>(0xfedcba98), "", 0x1234,
       "fedcba98"
       "00001234"
       "0000000000000000000000000000000000000000000000000000000000000000"},
  };
  platform.reply_always(3, bytes("00 00 00 00"));
  for (const auto &row : rows) {
    platform.clear();
    request(row.uuid, row.tag, row.vdc);
    EXPECT_EQ(
        lines_t({"mts_send(7, 0xfe000000, 3, 2690, " + std::string(row.payload) + ", 40, 0, 0)"}),
        platform.calls("mts_send"));
  }
}

TEST_F(tag_info_test, a_tag_without_terminator_is_read_31_characters_far) {
  uint8 tag[31];
  std::fill(std::begin(tag), std::end(tag), uint8{'x'});
  platform.reply_always(3, bytes("00 00 00 00"));
  traced([&] { status = sysmgr_add_tag_info_req(SRVUUID_KPS, tag, 1); });
  EXPECT_EQ(0u, status);
  const std::string xs = "78787878787878787878787878787878787878787878787878787878787878";
  EXPECT_EQ(lines_t({"mts_send(7, 0xfe000000, 3, 2690, 0000021e00000001" + xs + "00, 40, 0, 0)"}),
            platform.calls("mts_send"));
}

TEST_F(tag_info_test, the_system_managers_status_is_returned) {
  platform.reply(bytes("40 48 00 0c"));
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: Return status 0x4048000C\n"}),
            request(SRVUUID_KPS, "", 2));
  EXPECT_EQ(0x4048000Cu, status);
  platform.reply(bytes("ff ff ff ff 00 00")); // more than a status
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: Return status 0xFFFFFFFF\n"}),
            request(SRVUUID_KPS, "", 2));
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_TRUE(platform.open_messages().empty());
}

TEST_F(tag_info_test, a_vdc_that_does_not_exist_is_success) {
  platform.reply(bytes("40 1e 00 76"));
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: Return status 0x401E0076\n",
                     "sysmgr_add_tag_info_req: VDC 65535 non-existent at this time. Returning "
                     "SUCCESS\n"}),
            request(SRVUUID_KPS, "", 65535));
  EXPECT_EQ(0u, status);
}

TEST_F(tag_info_test, a_failed_send) {
  const struct {
    int error;
    syserr_t status;
    const char *line;
  } rows[] = {
      {ECONNREFUSED, 0x801E006F, "sysmgr_add_tag_info_req: mts_send failed with error 111\n"},
      {EINTR, 0x801E0004, "sysmgr_add_tag_info_req: mts_send failed with error 4\n"},
      {0x1234, 0x801E0234, "sysmgr_add_tag_info_req: mts_send failed with error 4660\n"},
  };
  for (const auto &row : rows) {
    platform.clear();
    platform.fail("mts_send", static_cast<syserr_t>(row.error));
    EXPECT_EQ(lines_t({row.line}), request(SRVUUID_KPS, "", 1));
    EXPECT_EQ(row.status, status);
    EXPECT_EQ(1u, platform.calls().size());
  }
}

TEST_F(tag_info_test, an_uninitialised_queue_fails_the_send) {
  traced([] { libdatamorph_init(0); });
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: mts_send failed with error 9\n"}),
            request(SRVUUID_KPS, "", 1));
  EXPECT_EQ(0x801E0009u, status);
}

TEST_F(tag_info_test, the_last_queue_counts) {
  platform.add_queue(9);
  traced([] { libdatamorph_init(9); });
  platform.reply(bytes("00 00 00 00"));
  request(SRVUUID_KPS, "", 1);
  EXPECT_EQ(0u, status);
  request(SRVUUID_KPS, "", 1); // and without an answer
  EXPECT_EQ(0x801E006Eu, status);
  for (const char *function : {"mts_send(", "mts_recv(", "mts_drop("}) {
    for (const std::string &call : platform.calls(std::string(function, 8))) {
      EXPECT_EQ(0u, call.find(std::string(function) + "9, ")) << call;
    }
  }
  EXPECT_TRUE(platform.open_messages().empty());
}

TEST_F(tag_info_test, no_answer_in_time) {
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: mts_recv failed with error 110\n"}),
            request(SRVUUID_KPS, "", 1));
  EXPECT_EQ(0x801E006Eu, status);
  EXPECT_EQ("mts_drop(7, 1)", platform.calls().back());
  EXPECT_EQ(4u, platform.calls().size());
  EXPECT_TRUE(platform.open_messages().empty());
}

TEST_F(tag_info_test, the_error_of_the_receive_outlives_the_drop) {
  platform.fail("mts_recv", EIO);
  platform.fail("mts_drop", EINVAL);
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: mts_recv failed with error 5\n"}),
            request(SRVUUID_KPS, "", 1));
  EXPECT_EQ(0x801E0005u, status);
}

TEST_F(tag_info_test, interruptions_are_waited_out) {
  platform.interrupt_recv(2);
  platform.reply(bytes("00 00 00 2a"));
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: Return status 0x2A\n"}),
            request(SRVUUID_KPS, "", 1));
  EXPECT_EQ(42u, status);
  const lines_t receives = platform.calls("mts_recv");
  ASSERT_EQ(3u, receives.size());
  EXPECT_EQ(receives[0], receives[1]); // the same wait, anew
  EXPECT_EQ(receives[0], receives[2]);
  EXPECT_EQ(1u, platform.calls("mts_rr_token_get").size());

  platform.interrupt_recv(1); // and then no answer
  EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: mts_recv failed with error 110\n"}),
            request(SRVUUID_KPS, "", 1));
}

TEST_F(tag_info_test, a_response_without_payload) {
  for (const char *payload : {"", "00", "00 00 00"}) {
    platform.clear();
    platform.reply(bytes(payload));
    EXPECT_EQ(lines_t({"sysmgr_add_tag_info_req: Return status 0x801E0047\n"}),
              request(SRVUUID_KPS, "", 1));
    EXPECT_EQ(0x801E0047u, status);
    EXPECT_EQ(2u, platform.calls("mts_drop").size());
    EXPECT_TRUE(platform.open_messages().empty());
  }
}

TEST_F(tag_info_test, other_messages_are_left_in_the_queue) {
  platform.deliver(7, bytes("00 00 00 63"));
  platform.reply(bytes("00 00 00 01"));
  request(SRVUUID_KPS, "", 1);
  EXPECT_EQ(1u, status);
}

TEST_F(tag_info_test, every_failing_call) {
  // send, token, receive, payload, two drops
  const struct {
    unsigned nth;
    syserr_t status;
    size_t calls;
  } rows[] = {{1, 0x801E0005, 1}, {2, 0, 6}, {3, 0x801E0005, 4},
              {4, 0x801E0047, 6}, {5, 0, 6}, {6, 0, 6}};
  for (const auto &row : rows) {
    platform.reset();
    platform.add_queue(7);
    platform.reply_always(3, bytes("00 00 00 00"));
    platform.fail_any(row.nth, EIO);
    request(SRVUUID_KPS, "", 1);
    EXPECT_EQ(row.status, status) << row.nth;
    EXPECT_EQ(row.calls, platform.calls().size()) << row.nth;
    EXPECT_EQ(1u, platform.scripted());
  }
}

// What is held is given back before the outcome is told: a log that cannot be written holds
// nobody's message.
TEST_F(tag_info_test, messages_are_dropped_before_the_outcome_is_told) {
  size_t lines = 99;
  platform.before(
      "mts_drop", [&lines] { lines = log_lines().size(); }, 2);
  platform.reply(bytes("00 00 00 00"));
  request(SRVUUID_KPS, "", 1);
  EXPECT_EQ(1u, lines); // the set-up's own
  EXPECT_EQ(2u, log_lines().size());

  lines = 99;
  platform.before("mts_drop", [&lines] { lines = log_lines().size(); });
  platform.fail("mts_recv", EIO);
  request(SRVUUID_KPS, "", 1);
  EXPECT_EQ(2u, lines);
  EXPECT_EQ(3u, log_lines().size());
}

TEST_F(tag_info_test, a_null_tag_sends_nothing) {
  EXPECT_EQ(lines_t(),
            traced([this] { status = sysmgr_add_tag_info_req(SRVUUID_KPS, nullptr, 1); }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_TRUE(platform.calls().empty());
}

} // namespace
