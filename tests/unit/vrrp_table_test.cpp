// VRRP: keys, the bulk get, and the trace files.

#include "vrrp_fixture.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support/scarce_malloc.h"

// The address sanitizer's calloc gives null for what it cannot give, as the C library's does.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

constexpr char k_store[] = "nonvolatile:/cfg/vrrp";

class vrrp_table_test : public vrrp_fixture {
protected:
  using get_table_t = decltype(&datamorph_vrrp_mgr_pss_mgr_get_table);
  static constexpr get_table_t k_both[] = {datamorph_vrrp_mgr_pss_mgr_get_table,
                                           datamorph_vrrp_eng_pss_mgr_get_table};

  // Reads a store that holds these records; the slots one after the other.
  std::string get(get_table_t get_table, uint8 key_type, int32 value_size) {
    syserr_t error = 0;
    const pss_service_t table = pss_open(k_store, &error);
    EXPECT_EQ(0u, error);
    platform.clear();
    array = &array;
    count = -1;
    result = get_table(table, key_type, &array, &count, value_size);
    std::string slots;
    if (array != nullptr) {
      slots.assign(static_cast<const char *>(array),
                   static_cast<size_t>(count) * static_cast<size_t>(value_size));
    }
    free(array);
    calls = platform.calls();
    pss_close(table);
    return slots;
  }

  void *array = nullptr;
  int32 count = 0;
  int32 result = 0;
  lines_t calls;
};

// ---- Keys

TEST_F(vrrp_table_test, vr_keys) {
  for (const auto make : {datamorph_vrrp_mgr_make_vr_key, datamorph_vrrp_eng_make_vr_key}) {
    for (const uint8 type : std::vector<uint8>{1, 2, 5}) {
      uint8 key[12] = {0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee};
      make(key, type, 0x1a2b3c4d, 0xfe, INET_ADDR_TYPE_IPV6);
      EXPECT_EQ("0" + std::to_string(type) + " 00 00 00 02 fe 1a 2b 3c 4d ee ee", hex(key, 12));
    }
    for (const uint8 type : std::vector<uint8>{0, 3, 4, 6, 255}) {
      uint8 key[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
      make(key, type, 0x1a2b3c4d, 0xfe, INET_ADDR_TYPE_IPV4);
      EXPECT_EQ("01 02 03 04 05 06 07 08 09 0a", hex(key, 10));
    }
    make(nullptr, 1, 1, 1, INET_ADDR_TYPE_IPV4);
  }
}

TEST_F(vrrp_table_test, vip_keys) {
  inet_addr_t address = {};
  address.addr_type = static_cast<inet_addr_type_t>(0x01020304);
  for (uint8 i = 0; i < 16; ++i) {
    address.a.ipv6_addr[i] = static_cast<uint8>(0xa0 + i);
  }
  for (const auto make : {datamorph_vrrp_mgr_make_assoc_key, datamorph_vrrp_eng_make_assoc_key}) {
    uint8 key[27] = {};
    key[26] = 0xee;
    make(key, 0x1a2b3c4d, 0xfe, address);
    EXPECT_EQ("02 01 02 03 04 fe 1a 2b 3c 4d a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab ac ad ae af ee",
              hex(key, 27));
    make(nullptr, 1, 1, address);
  }
}

// ---- Bulk get

TEST_F(vrrp_table_test, an_empty_store) {
  platform.set_store(k_store);
  for (const get_table_t get_table : k_both) {
    EXPECT_EQ("", get(get_table, 1, 85));
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, array);
    EXPECT_EQ(lines_t({"pss_move2key(" + std::to_string(get_table == k_both[0] ? 1 : 2) + ", 01)"}),
              calls);
  }
}

TEST_F(vrrp_table_test, both_passes) {
  platform.set_store(
      k_store,
      {{bytes("00"), "z"}, {bytes("01 01"), "abc"}, {bytes("01 02"), "def"}, {bytes("02"), "x"}});
  EXPECT_EQ("abcdef", get(k_both[0], 1, 3));
  EXPECT_EQ(0, result);
  EXPECT_EQ(2, count);
  EXPECT_EQ(lines_t({"pss_move2key(1, 01)", "pss_move2location(1, PSS_NEXT_KEY)",
                     "pss_move2location(1, PSS_NEXT_KEY)", "pss_move2key(1, 01)", "pss_getvalue(1)",
                     "pss_move2location(1, PSS_NEXT_KEY)", "pss_getvalue(1)",
                     "pss_move2location(1, PSS_NEXT_KEY)", "pss_move2location(1, PSS_NEXT_KEY)"}),
            calls);
  EXPECT_EQ("abcdef", get(k_both[1], 1, 3));
}

TEST_F(vrrp_table_test, the_copying_pass_walks_to_the_end) {
  platform.set_store(k_store, {{bytes("03"), "a"}, {bytes("04"), "b"}, {bytes("05"), "c"}});
  EXPECT_EQ("a", get(k_both[0], 3, 1));
  EXPECT_EQ(lines_t({"pss_move2key(1, 03)", "pss_move2location(1, PSS_NEXT_KEY)",
                     "pss_move2key(1, 03)", "pss_getvalue(1)", "pss_move2location(1, PSS_NEXT_KEY)",
                     "pss_move2location(1, PSS_NEXT_KEY)", "pss_move2location(1, PSS_NEXT_KEY)"}),
            calls);
}

TEST_F(vrrp_table_test, slots_are_value_size_apart_and_zero_filled) {
  platform.set_store(k_store, {{bytes("07 01"), "long value"},
                               {bytes("07 02"), ""},
                               {bytes("07 03"), "abc"},
                               {bytes("07 04"), "four"}});
  EXPECT_EQ(std::string("long\0\0\0\0abc\0four", 16), get(k_both[0], 7, 4));
  EXPECT_EQ(4, count);
  EXPECT_EQ("l" + std::string(1, '\0') + "af", get(k_both[1], 7, 1));
}

TEST_F(vrrp_table_test, key_types_of_any_number) {
  for (const uint8 type : std::vector<uint8>{0, 3, 4, 5, 254, 255}) {
    platform.set_store(k_store, {{std::string(1, static_cast<char>(type)), "v"},
                                 {std::string(1, static_cast<char>(type)) + "k", "w"}});
    EXPECT_EQ("vw", get(k_both[0], type, 1)) << int{type};
  }
}

TEST_F(vrrp_table_test, a_key_type_that_is_not_there) {
  platform.set_store(k_store, {{bytes("00 01"), "a"}, {bytes("02 01"), "b"}});
  for (const uint8 type : std::vector<uint8>{1, 3, 255}) {
    EXPECT_EQ("", get(k_both[0], type, 85));
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, array);
  }
}

TEST_F(vrrp_table_test, values_without_their_key_fields_are_left_out) {
  const std::string eight(8, '8');
  const std::string nine(9, '9');
  platform.set_store(k_store, {{bytes("01 01"), eight},
                               {bytes("01 02"), nine},
                               {bytes("01 03"), ""},
                               {bytes("01 04"), nine + "x"},
                               {bytes("02 01"), std::string(24, 'a')},
                               {bytes("02 02"), std::string(25, 'b')},
                               {bytes("03 01"), ""}});
  EXPECT_EQ(nine + std::string(76, '\0') + nine + "x" + std::string(75, '\0'),
            get(k_both[0], 1, 85));
  EXPECT_EQ(2, count);
  EXPECT_EQ(std::string(25, 'b') + std::string(28, '\0'), get(k_both[0], 2, 53));
  EXPECT_EQ(1, count);
  EXPECT_EQ(nine + nine, get(k_both[1], 1, 9));
  EXPECT_EQ(2, count);
  // slots that do not cover the key fields take every value
  EXPECT_EQ("8888888899999999" + std::string(8, '\0') + "99999999", get(k_both[1], 1, 8));
  EXPECT_EQ(4, count);
  EXPECT_EQ(std::string(24, 'a') + std::string(24, 'b'), get(k_both[1], 2, 24));
  EXPECT_EQ(std::string(1, '\0'), get(k_both[1], 3, 1)); // other types have no such fields
}

TEST_F(vrrp_table_test, only_values_without_their_key_fields) {
  platform.set_store(k_store, {{bytes("01"), "short"}});
  EXPECT_EQ("", get(k_both[0], 1, 85));
  EXPECT_EQ(0, result);
  EXPECT_EQ(0, count);
  EXPECT_EQ(nullptr, array);
}

TEST_F(vrrp_table_test, bad_arguments) {
  for (const get_table_t get_table : k_both) {
    for (const int32 size : {0, -1, INT_MIN}) {
      count = 7;
      array = &array;
      EXPECT_EQ(3, get_table(1, 1, &array, &count, size));
      EXPECT_EQ(0, count);
      EXPECT_EQ(nullptr, array);
    }
    EXPECT_EQ(-1, get_table(1, 1, nullptr, &count, 85));
    EXPECT_EQ(-1, get_table(1, 1, &array, nullptr, 85));
    EXPECT_TRUE(platform.calls().empty());
    EXPECT_EQ(0x40480008, get_table(0, 1, &array, &count, 85)); // no such handle
    EXPECT_EQ(nullptr, array);
    platform.clear();
  }
}

TEST_F(vrrp_table_test, more_than_there_is_memory_for) {
  // More slots of the largest size than there are addresses, in either width.
  constexpr uint32 many = 66000;
  records_t records;
  for (uint32 i = 0; i < many; ++i) {
    const char number[] = {static_cast<char>(i >> 16), static_cast<char>(i >> 8),
                           static_cast<char>(i)};
    records["\1" + std::string(number, sizeof number)] = "v";
  }
  platform.set_store(k_store, records);
  EXPECT_EQ("", get(k_both[0], 1, INT_MAX));
  EXPECT_EQ(3, result);
  EXPECT_EQ(66000, count); // as counted
  EXPECT_EQ(nullptr, array);
  EXPECT_EQ(many + 1, calls.size()); // the counting pass only
}

TEST_F(vrrp_table_test, every_failing_call) {
  const records_t records = {{bytes("01 01"), std::string(85, 'a')},
                             {bytes("01 02"), std::string(85, 'b')},
                             {bytes("02"), "x"}};
  // key, next, next; key, value, next, value, next, next
  for (unsigned nth = 1; nth <= 9; ++nth) {
    for (const syserr_t error : {0x40480009u, 0x4048000Bu}) {
      platform.reset();
      platform.set_store(k_store, records);
      syserr_t opened = 0;
      const pss_service_t table = pss_open(k_store, &opened);
      platform.fail_any(nth, error);
      EXPECT_EQ(static_cast<int32>(error),
                datamorph_vrrp_mgr_pss_mgr_get_table(table, 1, &array, &count, 85))
          << nth;
      EXPECT_EQ(nullptr, array);
      EXPECT_EQ(1u, platform.scripted());
      EXPECT_EQ(nth + 1, platform.calls().size()); // the open, and nothing after the failure
    }
  }
}

TEST_F(vrrp_table_test, absent_is_the_end_but_not_for_a_value) {
  const records_t records = {{bytes("01 01"), std::string(9, 'a')},
                             {bytes("01 02"), std::string(9, 'b')}};
  const struct {
    unsigned nth;
    int32 result;
    int32 count;
  } rows[] = {{1, 0, 0}, {2, 0, 1}, {3, 0, 2}, {4, 0, 0},
              {5, 2, 2}, {6, 0, 1}, {7, 2, 2}, {8, 0, 2}};
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(k_store, records);
    syserr_t opened = 0;
    const pss_service_t table = pss_open(k_store, &opened);
    platform.fail_any(row.nth, 0x40480003);
    EXPECT_EQ(row.result, datamorph_vrrp_mgr_pss_mgr_get_table(table, 1, &array, &count, 9))
        << row.nth;
    EXPECT_EQ(row.count, count) << row.nth;
    EXPECT_EQ(row.result == 0 && row.count > 0, array != nullptr) << row.nth;
    free(array);
    array = nullptr;
  }
}

// Only the values of groups and addresses must hold their key fields.
TEST_F(vrrp_table_test, short_values_of_another_key_type) {
  platform.set_store(k_store, {{bytes("04 00 00 00"), "a"}, {bytes("04 00 00 01"), ""}});
  EXPECT_EQ("a" + std::string(399, '\0'), get(k_both[0], 4, 200));
  EXPECT_EQ(0, result);
  EXPECT_EQ(2, count);
}

TEST_F(vrrp_table_test, a_cursor_that_stands_still_ends_the_walk) {
  const records_t records = {{bytes("01 02"), std::string(9, 'a')}};
  for (const char *key : {"01 02", "01 01", "01", "00"}) { // the same key again, or one before
    platform.reset();
    platform.set_store(k_store, records);
    platform.answer_from("pss_move2location", bytes(key));
    EXPECT_EQ(std::string(9, 'a'), get(k_both[0], 1, 9)) << key;
    EXPECT_EQ(1, count);
  }
}

TEST_F(vrrp_table_test, a_key_type_whose_records_stand_apart) {
  // The count covers the first of them only; nothing is written beyond.
  platform.set_store(k_store, {{bytes("01 01"), std::string(9, 'a')}});
  syserr_t opened = 0;
  const pss_service_t table = pss_open(k_store, &opened);
  platform.answer("pss_move2location", bytes("02"), 1); // the counting pass
  platform.answer("pss_move2location", bytes("02"), 2); // the copying pass
  platform.answer("pss_move2location", bytes("02 01"), 3);
  // a store that is not in order ends the walk; one that is may still hold the type later
  EXPECT_EQ(0, datamorph_vrrp_mgr_pss_mgr_get_table(table, 1, &array, &count, 9));
  EXPECT_EQ(1, count);
  free(array);
  platform.reset();
  platform.set_store(k_store, {{bytes("01 01"), std::string(9, 'a')},
                               {bytes("01 02"), std::string(9, 'b')},
                               {bytes("01 03"), std::string(9, 'c')}});
  const pss_service_t again = pss_open(k_store, &opened);
  platform.answer("pss_move2location", bytes("02"), 1); // seen between them while counting
  EXPECT_EQ(0, datamorph_vrrp_mgr_pss_mgr_get_table(again, 1, &array, &count, 9));
  ASSERT_EQ(1, count);
  EXPECT_EQ(std::string(9, 'a'), std::string(static_cast<const char *>(array), 9));
  EXPECT_EQ(3u, platform.calls("pss_getvalue").size());
  free(array);
}

TEST_F(vrrp_table_test, keys_of_any_length) {
  records_t records;
  std::string expected;
  for (const size_t length : {1, 2, 63, 64, 65, 200, 4096}) {
    records[bytes("01") + std::string(length - 1, 'k')] = std::string(9, 'v');
    expected += std::string(9, 'v');
  }
  platform.set_store(k_store, records);
  EXPECT_EQ(expected, get(k_both[0], 1, 9));
  EXPECT_EQ(7, count);
}

TEST_F(vrrp_table_test, a_key_without_bytes_is_the_end) {
  platform.set_store(k_store, {{bytes("01 01"), "abc"}, {bytes("01 02"), "def"}});
  platform.answer_without_bytes("pss_move2location", 2);
  EXPECT_EQ("abc", get(k_both[0], 1, 3)); // not counted, so not copied
  EXPECT_EQ(0, result);
  EXPECT_EQ(1, count);
}

TEST_F(vrrp_table_test, a_value_without_bytes_is_none) {
  platform.set_store(k_store, {{bytes("01 01"), "abc"}});
  platform.answer_without_bytes("pss_getvalue", 3);
  EXPECT_EQ("", get(k_both[0], 1, 3));
  EXPECT_EQ(2, result);
  EXPECT_EQ(nullptr, array);
}

TEST_F(vrrp_table_test, a_large_key_that_there_is_no_memory_for) {
  platform.set_store(k_store, {{bytes("01") + std::string(64, 'k'), "abc"}});
  for (const unsigned pass : {1U, 2U}) {
    platform.before(
        "pss_move2key", [] { scarce_malloc::refuse_nth(1); }, pass);
    EXPECT_EQ("", get(k_both[0], 1, 3));
    EXPECT_TRUE(scarce_malloc::relieve());
    EXPECT_EQ(3, result) << pass;
    EXPECT_EQ(nullptr, array);
    EXPECT_EQ(pass, calls.size() - (pass - 1)) << pass;
  }
}

TEST_F(vrrp_table_test, an_empty_key_is_of_no_type) {
  platform.set_store(k_store, {{"", "v"}, {bytes("00"), "w"}});
  // the cursor starts behind it
  EXPECT_EQ("w", get(k_both[0], 0, 1));
  for (int type = 0; type < 256; ++type) { // whatever stands behind its end
    platform.answer("pss_move2key", "", 1);
    EXPECT_EQ("", get(k_both[0], static_cast<uint8>(type), 1));
    EXPECT_EQ(0, count) << type;
    EXPECT_EQ(1u, calls.size()) << type; // nor counted at first
  }
}

// ---- Trace files

class vrrp_trace_test : public vrrp_fixture {
protected:
  static constexpr char k_file[] = "/bootflash/data_morph_vrrp_mgr.log";
};

// As the library is loaded, before a fixture has made the sides forget their files.
const int k_loaded_mgr_fd = vrrp_mgr_side.trace_fd;
const int k_loaded_eng_fd = vrrp_eng_side.trace_fd;

TEST_F(vrrp_trace_test, no_file_is_open_at_first) {
  EXPECT_EQ(-1, k_loaded_mgr_fd);
  EXPECT_EQ(-1, k_loaded_eng_fd);
}

TEST_F(vrrp_trace_test, a_file_is_never_created) {
  vrrp_open_trace(vrrp_mgr_side);
  EXPECT_EQ(-1, vrrp_mgr_side.trace_fd);
  vrrp_mgr_side.debug_str[0] = '\0';
  vrrp_mgr_side.tstamp = 7;
  vrrp_trace(vrrp_mgr_side, "routine", 7, "message\n");
  EXPECT_FALSE(switch_root::exists(k_file));
  EXPECT_STREQ("", vrrp_mgr_side.debug_str); // nothing was made of it
  EXPECT_EQ(7, vrrp_mgr_side.tstamp);
}

TEST_F(vrrp_trace_test, a_file_is_appended_to_and_stays_open) {
  switch_root::write_file(k_file, "before\n");
  vrrp_open_trace(vrrp_mgr_side);
  const int fd = vrrp_mgr_side.trace_fd;
  ASSERT_NE(-1, fd);
  EXPECT_NE(0, fcntl(fd, F_GETFL) & O_APPEND);
  EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL) & O_ACCMODE);
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  const time_t before = time(nullptr);
  vrrp_trace(vrrp_mgr_side, "routine", 7, "message %d of %s\n", 1, "two");
  EXPECT_LE(before, vrrp_mgr_side.tstamp);
  const std::string text = switch_root::read_file(k_file);
  EXPECT_EQ("before\n<", text.substr(0, 8));
  EXPECT_EQ("> routine:7 message 1 of two\n", text.substr(32));
  EXPECT_EQ(text.substr(7), vrrp_mgr_side.debug_str);
  const char *now = ctime(&vrrp_mgr_side.tstamp);
  EXPECT_EQ(std::string(now, 24), text.substr(8, 24));

  vrrp_open_trace(vrrp_mgr_side); // is open already
  EXPECT_EQ(fd, vrrp_mgr_side.trace_fd);
  EXPECT_EQ(-1, vrrp_eng_side.trace_fd); // each side has its own
}

// How long the file was at each sync. The kernel reports the calls: the program's fsync is already
// the log's tests' own.
int g_synced_fd = -1;
off_t g_synced_sizes[4];
size_t g_syncs = 0;

void note_sync(int /*signal*/) {
  struct stat status = {};
  if (g_syncs < 4 && fstat(g_synced_fd, &status) == 0) {
    g_synced_sizes[g_syncs] = status.st_size;
  }
  ++g_syncs;
}

// From now on this process's syncs of files are signals instead.
bool signal_at_syncs() {
  struct sigaction action = {};
  action.sa_handler = note_sync;
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fsync, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {sizeof code / sizeof *code, code};
  return sigaction(SIGSYS, &action, nullptr) == 0 && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(vrrp_trace_test, each_line_is_synced_once_it_is_written) {
  switch_root::write_file(k_file, "");
  const auto two_lines = [] {
    vrrp_open_trace(vrrp_mgr_side);
    g_synced_fd = vrrp_mgr_side.trace_fd;
    if (!signal_at_syncs()) {
      _exit(1);
    }
    vrrp_trace(vrrp_mgr_side, "routine", 7, "message\n");
    vrrp_trace(vrrp_mgr_side, "routine", 7, "another\n");
    const bool whole = g_synced_sizes[0] == 45 && g_synced_sizes[1] == 90;
    _exit(g_syncs == 2 && whole ? 0 : 2);
  };
  EXPECT_EXIT(two_lines(), testing::ExitedWithCode(0), "");
}

TEST_F(vrrp_trace_test, a_message_longer_than_the_buffer_is_cut) {
  switch_root::write_file(k_file, "");
  vrrp_open_trace(vrrp_mgr_side);
  vrrp_trace(vrrp_mgr_side, "routine", 7, "%s\n", std::string(5000, 'm').c_str());
  const std::string text = switch_root::read_file(k_file);
  EXPECT_EQ(999u, text.size());
  EXPECT_EQ('m', text.back());
  const std::string name(5000, 'r');
  vrrp_trace(vrrp_mgr_side, name.c_str(), 7, "lost\n");
  EXPECT_EQ(2 * 999u, switch_root::read_file(k_file).size());
}

TEST_F(vrrp_trace_test, a_failed_write_is_ignored_and_errno_is_kept) {
  switch_root::write_file(k_file, "");
  vrrp_open_trace(vrrp_mgr_side);
  close(vrrp_mgr_side.trace_fd);
  vrrp_mgr_side.trace_fd = open("/dev/full", O_WRONLY);
  errno = 1234;
  vrrp_trace(vrrp_mgr_side, "routine", 7, "message\n");
  EXPECT_EQ(1234, errno);
  vrrp_mgr_side.trace_fd = -1;
  errno = 77;
  vrrp_trace(vrrp_mgr_side, "routine", 7, "message\n");
  EXPECT_EQ(77, errno);
}

TEST_F(vrrp_trace_test, a_fifo_does_not_block) {
  ASSERT_EQ(0, mkfifo(k_file, 0600));
  vrrp_open_trace(vrrp_mgr_side);
  vrrp_trace(vrrp_mgr_side, "routine", 7, "message\n");
}

} // namespace
