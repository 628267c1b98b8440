// The tests' own tools: the double's log, scripts and lent data, trace capture, hexadecimal text.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/tlv_array.h"
#include "support/library_fixture.h"
#include "support/scarce_malloc.h"

namespace {

using lines = std::vector<std::string>;

class double_test : public library_fixture {
protected:
  static pss_datum_t datum(const char *text) {
    return {const_cast<char *>(text), static_cast<uint32>(std::strlen(text))};
  }
};

// ---- Log ----------------------------------------------------------------------------------------

TEST_F(double_test, every_call_is_logged_with_its_arguments) {
  platform.set_store("nonvolatile:/a");
  syserr_t status = 0;
  const pss_datum_t key = datum("k");
  const pss_datum_t empty = {nullptr, 0};
  const std::string large(5000, 'v');
  const pss_datum_t value = datum(large.c_str());

  const pss_service_t service = pss_open("nonvolatile:/a", &status);
  pss_store(service, 1, &key, &empty);
  pss_store(service, 0, &key, &value);
  pss_fetch(service, nullptr, &status);
  pss_move2location(service, PSS_NEXT_KEY, &status);
  pss_close(service);
  pss_open(nullptr, &status);
  pss2_service_t services[] = {8, 9};
  syserr_t statuses[] = {0, 0};
  pss2_move2location(services, 2, PSS_FIRST_KEY, statuses);
  pss2_open("volatile:/b", 19, SRVUUID_PSS_HELPER, 0, 0, &status);
  mts_sap_destroy(7, 341);

  EXPECT_EQ(platform.calls(),
            (lines{"pss_open(\"nonvolatile:/a\")", "pss_store(1, 1, 6b, -)",
                   "pss_store(1, 0, 6b, (5000 bytes))", "pss_fetch(1, null)",
                   "pss_move2location(1, PSS_NEXT_KEY)", "pss_close(1)", "pss_open(null)",
                   "pss2_move2location([8, 9], PSS_FIRST_KEY)",
                   "pss2_open(\"volatile:/b\", 0x13, 390, 0, 0)", "mts_sap_destroy(7, 341)"}));
  EXPECT_EQ(platform.calls("pss_close"), lines{"pss_close(1)"});
  platform.clear();
  EXPECT_EQ(platform.calls(), lines{});
}

TEST_F(double_test, messages_are_logged_with_payload_and_options) {
  platform.add_queue(7);
  mts_ref_t request = 0;
  mts_ref_t response = 0;
  const mts_recv_options_t options = {1, 0, 30, 1000, 0, 0, 0};

  platform.reply(bytes("00 00 00 00"));
  EXPECT_EQ(mts_send(7, 0xFE000000, 3, 2690, "\x01\xff", 2, &request, 0, 0), 0);
  EXPECT_EQ(mts_rr_token_get(request), 1000U);
  EXPECT_EQ(mts_recv(7, &response, &options), 0);
  EXPECT_EQ(platform.open_messages(), (std::vector<mts_ref_t>{request, response}));
  mts_drop(7, request);

  EXPECT_EQ(platform.calls(),
            (lines{"mts_send(7, 0xfe000000, 3, 2690, 01ff, 2, 0, 0)", "mts_rr_token_get(1)",
                   "mts_recv(7, version 1, non_blocking 0, timeout 30, token 1000, opcode 0, "
                   "sap 0, flags 0)",
                   "mts_drop(7, 1)"}));
  EXPECT_EQ(platform.open_messages(), std::vector<mts_ref_t>{response});
}

TEST_F(double_test, without_a_log_calls_are_served_and_scripted_as_ever) {
  platform.add_sap(5);
  platform.add_queue(7);
  platform.keep_no_log();
  platform.fail("mts_sap_destroy", 13);

  EXPECT_EQ(mts_sap_destroy(7, 5), -1);
  EXPECT_EQ(mts_sap_destroy(7, 5), 0);

  EXPECT_EQ(platform.calls(), lines{});
  EXPECT_EQ(platform.scripted(), 1U);
  platform.reset();
  mts_sap_destroy(7, 5);
  EXPECT_EQ(platform.calls(), lines{"mts_sap_destroy(7, 5)"});
}

// A TLV array of a test, and what the platform says of it.
class tlv_double_test : public double_test {
protected:
  syserr_t next(const tlv_array_t *of, uint32 version = 1) {
    type = length = 0;
    value = nullptr;
    return tlv_array_get_next_tlv(of, &type, &length, &value, version, &cursor);
  }

  const std::string content = tlv_array_bytes({{7, "abc"}, {8, ""}});
  const tlv_array_t *array = reinterpret_cast<const tlv_array_t *>(content.data());
  uint16 type = 0;
  uint16 length = 0;
  uint8 *value = nullptr;
  uint32 cursor = 0;
};

TEST_F(tlv_double_test, tlv_calls_are_logged_with_header_version_and_cursor) {
  platform.watch_tlvs();

  EXPECT_EQ(tlv_array_size_get(array, 1), 19U);
  EXPECT_EQ(tlv_array_get_num_tlvs(array, 2), 2U);
  EXPECT_EQ(next(array), 0U);
  EXPECT_EQ(next(array, 3), 0U);
  EXPECT_EQ(next(array), 0x40490001U);
  EXPECT_EQ(tlv_array_size_get(nullptr, 0), 0U);
  EXPECT_NE(tlv_array_get_next_tlv(array, &type, &length, &value, 1, nullptr), 0U);

  EXPECT_EQ(platform.calls(),
            (lines{"tlv_array_size_get(1300000002000100, 1)",
                   "tlv_array_get_num_tlvs(1300000002000100, 2)",
                   "tlv_array_get_next_tlv(1300000002000100, 1, 0)",
                   "tlv_array_get_next_tlv(1300000002000100, 3, 7)",
                   "tlv_array_get_next_tlv(1300000002000100, 1, 11)", "tlv_array_size_get(null, 0)",
                   "tlv_array_get_next_tlv(1300000002000100, 1, null)"}));
}

TEST_F(tlv_double_test, tlv_calls_answer_what_their_scripts_say) {
  platform.watch_tlvs();
  platform.fail("tlv_array_size_get", 99);
  platform.fail("tlv_array_get_num_tlvs", 5, 2);
  platform.fail("tlv_array_get_next_tlv", 0x40490002, 2);
  platform.answer_null("tlv_array_get_next_tlv", 3);

  EXPECT_EQ(tlv_array_size_get(array, 1), 99U);
  EXPECT_EQ(tlv_array_size_get(array, 1), 19U);
  EXPECT_EQ(tlv_array_get_num_tlvs(array, 1), 2U);
  EXPECT_EQ(tlv_array_get_num_tlvs(array, 1), 5U);
  EXPECT_EQ(next(array), 0U);
  EXPECT_EQ(type, 7U);
  EXPECT_EQ(next(array), 0x40490002U);
  EXPECT_EQ(type, 0U);
  EXPECT_EQ(next(array), 0U); // and nothing
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(cursor, 7U);
  EXPECT_EQ(next(array), 0U);
  EXPECT_EQ(type, 8U);
  EXPECT_EQ(platform.scripted(), 4U);
}

TEST_F(tlv_double_test, what_the_double_reads_itself_is_no_call) {
  platform.watch_tlvs();
  platform.fail_from("tlv_array_size_get", 0x7FFFFFFF);
  platform.fail_from("tlv_array_get_next_tlv", 0x40490002);
  uint8 tag[] = {0};

  EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_KPS, tag, 1), 0U);
  EXPECT_EQ(sysmgr_srv_tag_info_add(SRVUUID_DOT1X, tag, 1), 0U);

  EXPECT_EQ(platform.scripted(), 0U);
  EXPECT_EQ(platform.calls().size(), 3U);
}

TEST_F(tlv_double_test, tlv_calls_count_among_all_once_they_are_watched) {
  platform.fail_any(1, 0x4048000B);
  EXPECT_EQ(tlv_array_size_get(array, 1), 19U);
  EXPECT_EQ(platform.calls(), lines{});

  platform.watch_tlvs();
  EXPECT_EQ(tlv_array_size_get(array, 1), 0x4048000BU);
  EXPECT_EQ(platform.calls("tlv_array_size_get").size(), 1U);

  platform.reset();
  EXPECT_EQ(tlv_array_size_get(array, 1), 19U);
  EXPECT_EQ(platform.calls(), lines{});
}

// ---- Scripts ------------------------------------------------------------------------------------

TEST_F(double_test, the_nth_call_of_a_function_fails_once) {
  platform.fail("pss_destroy", 0x40480009, 2);
  for (const char *uri : {"volatile:/1", "volatile:/2", "volatile:/3"}) {
    platform.set_store(uri);
  }

  EXPECT_EQ(pss_destroy("volatile:/1"), 0U);
  EXPECT_EQ(pss_destroy("volatile:/2"), 0x40480009U);
  EXPECT_EQ(pss_destroy("volatile:/3"), 0U);

  EXPECT_EQ(platform.store_uris(), lines{"volatile:/2"});
  EXPECT_EQ(platform.scripted(), 1U);
}

TEST_F(double_test, a_function_fails_from_a_call_on) {
  platform.fail_from("mts_sap_destroy", EACCES, 2);
  platform.add_queue(7);
  platform.add_sap(1);

  EXPECT_EQ(mts_sap_destroy(7, 1), 0);
  for (int i = 0; i < 3; ++i) {
    errno = 0;
    EXPECT_EQ(mts_sap_destroy(7, 1), -1);
    EXPECT_EQ(errno, EACCES);
  }
}

TEST_F(double_test, the_nth_call_of_any_function_fails) {
  platform.add_queue(7);
  platform.add_sap(1);
  platform.fail_any(3, 0x4048000B);
  syserr_t status = 0;

  EXPECT_EQ(pss_create("volatile:/a"), 0U);
  EXPECT_EQ(pss_close(pss_open("volatile:/a", &status)), 0x4048000BU);
  EXPECT_EQ(platform.open_handles(), std::vector<uint32>{});
  EXPECT_EQ(mts_sap_destroy(7, 1), 0);
  platform.fail_any(1, 0x4048000B);
  errno = 0;
  EXPECT_EQ(mts_sap_destroy(7, 1), -1);
  EXPECT_EQ(errno, EIO);
  platform.fail_any(2, 0x4048000B, ENOENT);
  EXPECT_EQ(pss_create("volatile:/b"), 0U);
  EXPECT_EQ(mts_sap_destroy(7, 1), -1);
  EXPECT_EQ(errno, ENOENT);
  platform.fail_any_from(1, 0x4048000B, EBADF);
  EXPECT_EQ(pss_create("volatile:/c"), 0x4048000BU);
  EXPECT_EQ(mts_sap_destroy(7, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(double_test, data_without_bytes_is_given_from_a_call_on) {
  platform.set_store("volatile:/a", {{"k", "value"}});
  syserr_t status = 0;
  const pss_service_t service = pss_open("volatile:/a", &status);
  const pss_datum_t key = datum("k");
  platform.answer_without_bytes_from("pss_fetch", 3, 2);

  const pss_datum_t *answer = pss_fetch(service, &key, &status);
  ASSERT_NE(answer, nullptr);
  EXPECT_NE(answer->ptr, nullptr);
  for (int i = 0; i < 2; ++i) {
    answer = pss_fetch(service, &key, &status);
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer->ptr, nullptr);
    EXPECT_EQ(answer->siz, 3U);
    EXPECT_EQ(status, 0U);
  }
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(double_test, calls_are_answered_with_bytes_and_with_nothing) {
  platform.set_store("volatile:/a", {{"k", "value"}});
  syserr_t status = 0;
  const pss_service_t service = pss_open("volatile:/a", &status);
  const pss_datum_t key = datum("k");
  platform.answer("pss_fetch", "x");
  platform.answer_null("pss_fetch", 2);

  const pss_datum_t *answer = pss_fetch(service, &key, &status);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(hex(answer->ptr, answer->siz), "78");
  EXPECT_EQ(pss_fetch(service, &key, &status), nullptr);
  EXPECT_EQ(status, 0U);
  answer = pss_fetch(service, &key, &status);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->siz, 5U);
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(double_test, move2location_is_answered_for_each_handle) {
  platform.answer_handles(0x4048000B);
  pss2_service_t services[] = {1, 2};
  syserr_t statuses[] = {0, 0};

  EXPECT_EQ(pss2_move2location(services, 2, PSS_NEXT_KEY, statuses), 0U);

  EXPECT_EQ(statuses[0], 0x4048000BU);
  EXPECT_EQ(statuses[1], 0x4048000BU);
}

TEST_F(double_test, an_action_runs_before_its_call_is_served) {
  platform.before(
      "pss_destroy", [this] { platform.set_store("volatile:/a"); }, 2);

  EXPECT_EQ(pss_destroy("volatile:/a"), 0x40480002U);
  EXPECT_EQ(pss_destroy("volatile:/a"), 0U);

  EXPECT_EQ(platform.scripted(), 0U);
}

TEST_F(double_test, receiving_is_interrupted_as_often_as_wanted) {
  platform.add_queue(7);
  platform.interrupt_recv(2);
  platform.deliver(7, "hello");
  const mts_recv_options_t options = {};
  mts_ref_t message = 0;

  for (int i = 0; i < 2; ++i) {
    errno = 0;
    EXPECT_EQ(mts_recv(7, &message, &options), -1);
    EXPECT_EQ(errno, EINTR);
  }
  EXPECT_EQ(mts_recv(7, &message, &options), 0);
}

TEST_F(double_test, a_scripted_close_gives_up_what_was_written) {
  platform.set_store("volatile:/a", {{"k", "old"}});
  syserr_t status = 0;
  const pss_service_t service = pss_open("volatile:/a", &status);
  const pss_datum_t key = datum("k");
  pss_store(service, 1, &key, &key);
  platform.fail("pss_close", 0x4048000C);

  EXPECT_EQ(pss_close(service), 0x4048000CU);

  EXPECT_EQ(platform.value("volatile:/a", "k"), "old");
  EXPECT_EQ(platform.open_handles(), std::vector<uint32>{});
}

// ---- State --------------------------------------------------------------------------------------

TEST_F(double_test, open_handles_and_their_stores_are_listed) {
  platform.set_store("volatile:/a");
  platform.set_store("volatile:/b");
  syserr_t status = 0;

  const pss_service_t a = pss_open("volatile:/a", &status);
  const pss2_service_t b = pss2_open("volatile:/b", 1, SRVUUID_PIXM, 0, 0, &status);

  EXPECT_EQ(platform.open_handles(), (std::vector<uint32>{a, b}));
  EXPECT_EQ(platform.open_stores(), (lines{"volatile:/a", "volatile:/b"}));
  EXPECT_EQ(pss_close(b), 0x40480008U) << "a handle is of one generation";
  EXPECT_EQ(pss2_close(b), 0U);
  EXPECT_EQ(platform.open_stores(), lines{"volatile:/a"});
}

TEST_F(double_test, two_handles_cannot_write_a_store_at_once) {
  platform.set_store("volatile:/a");
  syserr_t status = 0;
  const pss_service_t one = pss_open("volatile:/a", &status);
  const pss_service_t two = pss_open("volatile:/a", &status);
  const pss_datum_t key = datum("k");

  EXPECT_EQ(pss_store(one, 1, &key, &key), 0U);
  EXPECT_EQ(pss_store(two, 1, &key, &key), 0x4048000DU);
  EXPECT_EQ(platform.value("volatile:/a", "k"), std::nullopt);
  EXPECT_EQ(pss_close(one), 0U);
  EXPECT_EQ(platform.value("volatile:/a", "k"), "k");
  EXPECT_EQ(pss_store(two, 1, &key, &key), 0U);
}

TEST_F(double_test, reset_leaves_nothing) {
  platform.set_store("volatile:/a");
  platform.add_sap(3);
  platform.fail_from("pss_destroy", 1);
  platform.set_image("/images/1", "4.2(1)");
  syserr_t status = 0;
  pss_open("volatile:/a", &status);
  sysmgr_srv_tag_info_table_prepare(0, 1);
  debug_trace_fac_SYSMGR = {stderr, 1};

  platform.reset();

  EXPECT_EQ(platform.calls(), lines{});
  EXPECT_EQ(platform.store_uris(), lines{});
  EXPECT_EQ(platform.saps(), std::vector<uint32>{});
  EXPECT_EQ(platform.open_handles(), std::vector<uint32>{});
  EXPECT_EQ(sysmgr_info_tbl[1].srv_tag_info_tbl, nullptr);
  EXPECT_EQ(debug_trace_fac_SYSMGR.stream, nullptr);
  EXPECT_EQ(srg_sw_ver_file_get("/images/1"), nullptr);
  EXPECT_EQ(pss_destroy("volatile:/a"), 0x40480002U);
}

TEST_F(double_test, tlv_array_bytes_makes_what_the_platform_reads) {
  const std::string tlvs = tlv_array_bytes({{7, "abc"}, {8, ""}});

  EXPECT_EQ(hex(tlvs), "13 00 00 00 02 00 01 00 07 00 03 00 61 62 63 08 00 00 00");
  const auto *read = reinterpret_cast<const tlv_array_t *>(tlvs.data());
  EXPECT_EQ(tlv_array_get_num_tlvs(read, 1), 2U);
}

TEST_F(double_test, flat_files_of_a_test_are_loaded) {
  switch_root::write_file("/mnt/pss/a.snp", platform_double::flat_file({{"k", "v"}, {"", ""}}));
  syserr_t status = 0;
  const pss2_service_t service = pss2_open("volatile:/a", 0x13, SRVUUID_PIXM, 0, 0, &status);

  EXPECT_EQ(pss2_file2kernel("/mnt/pss/a.snp", service, 0), 0U);
  EXPECT_EQ(pss2_close(service), 0U);

  EXPECT_EQ(platform.records("volatile:/a"), (platform_double::records_t{{"", ""}, {"k", "v"}}));
}

// A datum's time is over at the next call of the same function; only a sanitizer can tell.
#if defined(__SANITIZE_ADDRESS__)
TEST_F(double_test, a_pointer_that_is_kept_too_long_is_found) {
  platform.set_store("volatile:/a", {{"k", "value"}});
  syserr_t status = 0;
  const pss_service_t service = pss_open("volatile:/a", &status);
  const pss_datum_t key = datum("k");
  const pss_datum_t *kept = pss_fetch(service, &key, &status);
  const auto *value = static_cast<const volatile uint8 *>(kept->ptr);
  EXPECT_EQ(value[4], 'e');
  EXPECT_DEATH(std::printf("%d", value[5]), "heap-buffer-overflow");

  pss_fetch(service, &key, &status);

  EXPECT_DEATH(std::printf("%d", value[0]), "heap-use-after-free");
}
#endif

// ---- Memory -------------------------------------------------------------------------------------

// Whether there was memory. The pointer goes through a volatile one, so that no compiler leaves the
// pair of calls out.
bool can_have(size_t size) {
  void *volatile block = std::malloc(size);
  const bool has = block != nullptr;
  std::free(block);
  return has;
}

TEST(scarce_malloc_test, the_nth_call_is_refused_once) {
  scarce_malloc::refuse_nth(2);
  EXPECT_TRUE(can_have(10));
  EXPECT_FALSE(can_have(10));
  EXPECT_TRUE(can_have(10));
  EXPECT_TRUE(scarce_malloc::relieve());
  scarce_malloc::refuse_nth(1);
  EXPECT_FALSE(scarce_malloc::relieve());
  EXPECT_TRUE(can_have(10));
}

TEST(scarce_malloc_test, blocks_of_a_size_are_refused_and_the_old_one_stays) {
  scarce_malloc::refuse_size(77);
  EXPECT_TRUE(can_have(76));
  EXPECT_FALSE(can_have(77));
  EXPECT_FALSE(can_have(77));
  char *const block = static_cast<char *>(std::malloc(1));
  block[0] = 'x';
  if (void *const grown = std::realloc(block, 77); grown != nullptr) {
    std::free(grown);
    FAIL() << "it grew";
  }
  EXPECT_EQ('x', block[0]);
  std::free(block);
  EXPECT_TRUE(scarce_malloc::relieve());
  EXPECT_TRUE(can_have(77));
}

// ---- Trace --------------------------------------------------------------------------------------

const char *const k_exists = "File check succeeded\nFile exists\n";
const char *const k_missing = "File check failed\nFile doesn't exist\n";

class trace_test : public library_fixture {
protected:
  // What a trace of the library does, as far as it can be seen from outside.
  static void trace(const std::string &message) {
    const bool started = switch_root::exists("/tmp/datamorphcheck");
    std::fprintf(stderr, "%s%s", message.c_str(), started ? k_exists : k_missing);
    switch_root::write_file("/tmp/datamorphcheck", "");
    log("<Thu Jan  1 00:00:00 1970> " + message);
  }
  static void log(const std::string &text) {
    const char *file = "/mnt/pss/data_morph.log";
    switch_root::write_file(file, switch_root::read_file(file) + text);
  }
};

TEST_F(trace_test, messages_are_given_as_they_were_traced) {
  trace("of another call\n");

  EXPECT_EQ(traced([] {
              trace("one: 1\n");
              trace("no line end");
              trace("two\nlines\n");
            }),
            (lines{"one: 1\n", "no line end", "two\nlines\n"}));

  EXPECT_EQ(log_lines(), (lines{"of another call\n", "one: 1\n", "no line end", "two\nlines\n"}));
}

TEST_F(trace_test, a_call_may_trace_nothing) {
  EXPECT_EQ(traced([] {}), lines{});
}

TEST_F(trace_test, output_of_any_size_is_captured) {
  const std::string much(3000000, 'x');

  const std::string text =
      captured_stderr([&much] { std::fwrite(much.data(), 1, much.size(), stderr); });

  EXPECT_TRUE(text == much);
}

TEST_F(trace_test, markers_are_told_apart) {
  const std::string text = std::string("a\n") + k_missing + "b\n" + k_exists + "c\n" + k_exists;

  EXPECT_EQ(trace_messages(text), (lines{"a\n", "b\n", "c\n"}));
  EXPECT_EQ(succeeded_markers(text), 2U);
  EXPECT_EQ(trace_messages(text + "rest"), (lines{"a\n", "b\n", "c\n", "rest"}));
}

TEST_F(trace_test, a_log_line_needs_its_time) {
  EXPECT_EQ(log_messages(""), lines{});
  EXPECT_EQ(log_messages("no time\n"), std::nullopt);
  EXPECT_EQ(log_messages("<Mon Feb 13 23:31:30 2023> a\n"), lines{"a\n"});
  EXPECT_EQ(log_messages("<Mon Feb 13 23:31:30 2023>a\n"), std::nullopt);
}

TEST_F(trace_test, the_log_before_a_rotation_counts) {
  EXPECT_EQ(traced([] {
              trace("first\n");
              std::rename("/mnt/pss/data_morph.log", "/mnt/pss/data_morph.last");
              trace("second\n");
            }),
            (lines{"first\n", "second\n"}));
}

// ---- Bytes --------------------------------------------------------------------------------------

TEST(bytes_test, hexadecimal_text_becomes_bytes_and_back) {
  EXPECT_EQ(bytes("0a 0B0c\n ff"), "\x0a\x0b\x0c\xff");
  EXPECT_EQ(bytes(""), "");
  EXPECT_EQ(bytes("00"), std::string(1, '\0'));
  EXPECT_EQ(hex(std::string("\x0a\x00\xff", 3)), "0a 00 ff");
}

} // namespace
