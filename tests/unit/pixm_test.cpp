// The port index manager's conversion: legs, renumbering of Q8, cleanup of the multichassis cache.

#include "libdatamorph_pixm.h"

#include "libdatamorph_private.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/library_fixture.h"
#include "support/port_tables.h"
#include "support/scarce_malloc.h"

namespace {

constexpr char k_store[] = "nonvolatile:/cfg/pixm_runtime_info";

class pixm_test : public library_fixture {
protected:
  using records_t = platform_double::records_t;

  // As the fixture's, but a key is traced with a line end on standard error and without in the log,
  // which is the form that counts here.
  static lines_t traced(const std::function<void()> &call) {
    lines_t messages = traced_without_log(call);
    for (std::string &message : messages) {
      if (message.find("pss-key = 0x ") != std::string::npos) {
        EXPECT_EQ('\n', message.back()) << message;
        message.pop_back();
      }
    }
    lines_t logged = log_lines(true);
    EXPECT_GE(logged.size(), messages.size());
    logged.erase(logged.begin(), logged.end() - static_cast<std::ptrdiff_t>(
                                                    std::min(logged.size(), messages.size())));
    EXPECT_EQ(logged, messages);
    return messages;
  }

  lines_t convert(const char *to, const char *from, const char *path = "/cfg") {
    return traced([&] { EXPECT_EQ(0u, pixm_data_morph_gsync(path, "system", to, from)); });
  }
  lines_t renumber() { return convert("4.1(1)", "4.2(2)"); }
  lines_t clean_up() { return convert("4.2(1)", "4.2(3)"); }

  static std::string ltl_key(uint32 ltl) {
    const std::string all = "36 00 00";
    char text[8];
    std::snprintf(text, sizeof text, " %02x %02x", ltl >> 8 & 0xff, ltl & 0xff);
    return bytes(all + text + " 00 01");
  }

  // The callback record of a forwarding index of Q8, with something to tell it by.
  static std::string callback(uint8 mark) {
    return std::string(1, static_cast<char>(mark)) +
           bytes("00 00 00"    // rid
                 "fd"          // ltl_type
                 "00 00 00") + // flags
           std::string(48, 'v');
  }
  static std::string q8(uint8 mark) { return tlv_array_bytes({{2, callback(mark)}}); }

  static bool has_line(const lines_t &lines, const std::string &line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
};

// ---- Comparison and keys

TEST_F(pixm_test, compare_img_ver) {
  int to_comp = 7;
  int from_comp = 7;
  EXPECT_EQ(lines_t({"To_ver: 4.1(1) From_ver: 4.1(3) To_ref: 4.1(2) From_ref:4.1(3)\n",
                     "Compare return from_ver:4.1(3) from_ref: 4.1(3) : from_comp: 0\n",
                     "Compare return to_ref:4.1(2) to_ver: 4.1(1) : to_comp: 1\n"}),
            traced([&] {
              EXPECT_EQ(0u, pixm_compare_img_ver("4.1(1)", "4.1(3)", "4.1(2)", "4.1(3)", &to_comp,
                                                 &from_comp));
            }));
  EXPECT_EQ(1, to_comp);
  EXPECT_EQ(0, from_comp);
  const struct {
    const char *to;
    const char *from;
    int to_comp;
    int from_comp;
  } rows[] = {{"4.1(2)", "4.1(4)", 0, 1}, {"4.1(3)", "4.1(2)", -1, -1}, {"", "", 1, -1}};
  for (const auto &row : rows) {
    traced([&] {
      EXPECT_EQ(0u,
                pixm_compare_img_ver(row.to, row.from, "4.1(2)", "4.1(3)", &to_comp, &from_comp));
    });
    EXPECT_EQ(row.to_comp, to_comp);
    EXPECT_EQ(row.from_comp, from_comp);
  }
}

TEST_F(pixm_test, an_error_of_the_first_comparison_is_only_traced) {
  int to_comp = 7;
  int from_comp = 7;
  EXPECT_EQ(lines_t({"To_ver: 4.1(1) From_ver: (null) To_ref: 4.1(2) From_ref:4.1(3)\n",
                     "datamorph_compare_versions: Invalid or NULL argument passed\n",
                     "Error: 0xffffffff from_comp:-2 from_ver:(null) from_ref:4.1(3)\n",
                     "Compare return from_ver:(null) from_ref: 4.1(3) : from_comp: -2\n",
                     "Compare return to_ref:4.1(2) to_ver: 4.1(1) : to_comp: 1\n"}),
            traced([&] {
              EXPECT_EQ(0u, pixm_compare_img_ver("4.1(1)", nullptr, "4.1(2)", "4.1(3)", &to_comp,
                                                 &from_comp));
            }));
  EXPECT_EQ(-2, from_comp);
  EXPECT_EQ(1, to_comp);
}

TEST_F(pixm_test, an_error_of_the_second_comparison_is_returned) {
  int to_comp = 7;
  int from_comp = 7;
  EXPECT_EQ(lines_t({"To_ver: (null) From_ver: 4.1(3) To_ref: 4.1(2) From_ref:4.1(3)\n",
                     "datamorph_compare_versions: Invalid or NULL argument passed\n",
                     "Error: 0xffffffff to_comp:-2 to_ver:(null) to_ref:4.1(2)\n",
                     "Compare return from_ver:4.1(3) from_ref: 4.1(3) : from_comp: 0\n",
                     "Compare return to_ref:4.1(2) to_ver: (null) : to_comp: -2\n"}),
            traced([&] {
              EXPECT_EQ(0xFFFFFFFFu, pixm_compare_img_ver(nullptr, "4.1(3)", "4.1(2)", "4.1(3)",
                                                          &to_comp, &from_comp));
            }));
  EXPECT_EQ(0, from_comp);
  EXPECT_EQ(-2, to_comp);
  traced([&] {
    EXPECT_EQ(0xFFFFFFFFu,
              pixm_compare_img_ver("4.1(1)", "4.1(3)", nullptr, nullptr, &to_comp, &from_comp));
    EXPECT_EQ(0xFFFFFFFFu, pixm_compare_img_ver("1", "1", "1", "1", nullptr, &from_comp));
    EXPECT_EQ(0xFFFFFFFFu, pixm_compare_img_ver("1", "1", "1", "1", &to_comp, nullptr));
  });
}

TEST_F(pixm_test, print_pss_key) {
  const uint8 key[] = {0x36, 0x00, 0x0f, 0xA0, 0xff, 0x01, 0x10};
  DATAMORPH_TRACE("first\n");
  const std::string text =
      captured_stderr([&] { EXPECT_EQ(0u, pixm_print_pss_key("label", key)); });
  EXPECT_EQ("label = 0x 36 0 f a0 ff 1 10\nFile check succeeded\nFile exists\n", text);
  EXPECT_EQ(lines_t({"first\n", "label = 0x 36 0 f a0 ff 1 10"}), log_lines());

  const std::string label(4000, 'l');
  captured_stderr([&] { pixm_print_pss_key(label.c_str(), key); });
  EXPECT_EQ(std::string(254, 'l'), log_lines().back());
  captured_stderr([&] {
    EXPECT_EQ(0xFFFFFFFFu, pixm_print_pss_key(nullptr, key));
    EXPECT_EQ(0xFFFFFFFFu, pixm_print_pss_key("label", nullptr));
  });
  EXPECT_EQ(3u, log_lines().size());
}

// ---- Legs

TEST_F(pixm_test, which_legs_are_taken) {
  const std::string q8 = "Q8_Downgrades From: =>4.1.3 --> To: <=4.1.2";
  const std::string duag = "DUAG Cache Cleanup From: =>4.2.3 --> To: <=4.2.2";
  const struct {
    const char *from;
    const char *to;
    bool first;
    bool second;
  } rows[] = {
      {"4.1(3)", "4.1(2)", false, false}, {"4.1(3)", "4.1(1)", true, false},
      {"4.1(2)", "4.1(1)", false, false}, {"4.2(2)", "4.0(4)", true, false},
      {"4.2(3)", "4.2(2)", false, false}, {"4.2(3)", "4.2(1)", false, true},
      {"4.2(2)", "4.2(1)", false, false}, {"4.2(3)", "4.1(1)", true, true},
      {"5.0(2)", "4.1(2)", false, true},  {"4.1(1)", "4.2(3)", false, false},
      {"4.2(3)", "4.2(3)", false, false}, {"4.2(3)", "", true, true},
  };
  for (const auto &row : rows) {
    const lines_t lines = convert(row.to, row.from);
    EXPECT_EQ(std::string("FROM ") + row.from + " TO " + row.to + " Num 2\n", lines.front());
    for (const auto &[taken, leg] : {std::pair(row.first, q8), std::pair(row.second, duag)}) {
      const std::string pair = std::string(row.from) + " to " + row.to + "\n";
      EXPECT_EQ(taken,
                has_line(lines, "ISSU Leg " + leg + ": issu conversion required from " + pair));
      EXPECT_EQ(!taken,
                has_line(lines, "ISSU Leg " + leg + ": No issu conversion reqd from " + pair));
    }
  }
}

TEST_F(pixm_test, every_line_of_a_change_without_conversion) {
  EXPECT_EQ(
      lines_t({"FROM 4.1(5) TO 4.2(1) Num 2\n",
               "To_ver: 4.2(1) From_ver: 4.1(5) To_ref: 4.1(2) From_ref:4.1(3)\n",
               "Compare return from_ver:4.1(5) from_ref: 4.1(3) : from_comp: 1\n",
               "Compare return to_ref:4.1(2) to_ver: 4.2(1) : to_comp: -1\n",
               "ISSU Leg Q8_Downgrades From: =>4.1.3 --> To: <=4.1.2: No issu conversion reqd from "
               "4.1(5) to 4.2(1)\n",
               "To_ver: 4.2(1) From_ver: 4.1(5) To_ref: 4.2(2) From_ref:4.2(3)\n",
               "Compare return from_ver:4.1(5) from_ref: 4.2(3) : from_comp: -1\n",
               "Compare return to_ref:4.2(2) to_ver: 4.2(1) : to_comp: 1\n",
               "ISSU Leg DUAG Cache Cleanup From: =>4.2.3 --> To: <=4.2.2: No issu conversion reqd "
               "from 4.1(5) to 4.2(1)\n"}),
      convert("4.2(1)", "4.1(5)"));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(pixm_test, any_null_argument_fails) {
  for (int null = 0; null < 4; ++null) {
    const char *given[] = {"/cfg", "system", "4.1(1)", "4.2(3)"};
    given[null] = nullptr;
    EXPECT_EQ(lines_t({"Invalid arguments\n"}), traced([&] {
                EXPECT_EQ(0xFFFFFFFFu,
                          pixm_data_morph_gsync(given[0], given[1], given[2], given[3]));
              }));
  }
  EXPECT_TRUE(platform.calls().empty());
}

// ---- Renumbering

TEST_F(pixm_test, the_number_of_each_ltl) {
  for (const ltl_row &row : k_ltls) {
    traced([&] { EXPECT_EQ(row.becomes, pixm_q8_ltl_for_4_0(row.ltl)) << row.ltl; });
  }
  EXPECT_EQ(lines_t({"q8_current_ltl 0x1121\n", "q8_current_ltl/slot in 4.1: 0x1121:17\n",
                     "q8_ltl_for_4_0_rel 0x11a6\n"}),
            traced([] { pixm_q8_ltl_for_4_0(0x1121); }));
  for (const uint32 outside : {0x10D9u, 0x1122u, 0u, 0xffffffffu}) {
    char line[64];
    std::snprintf(line, sizeof line, "q8_current_ltl is not in 4.1 Range: 0x%x\n", outside);
    lines_t lines;
    lines = traced([&] { EXPECT_EQ(outside, pixm_q8_ltl_for_4_0(outside)); });
    EXPECT_EQ(line, lines.back());
    EXPECT_EQ(2u, lines.size());
  }
}

TEST_F(pixm_test, every_ltl_of_a_store) {
  ASSERT_EQ(0, rmdir("/mnt/pss"));    // 10,000 lines need no log
  for (const ltl_row &row : k_ltls) { // one at a time, so that none hides another
    platform.reset();
    platform.set_store(
        k_store, {{ltl_key(row.ltl), q8(1)}, {ltl_key(0x10D9), q8(2)}, {ltl_key(0x1122), q8(3)}});
    captured_stderr([] { pixm_data_morph_gsync("/cfg", "s", "4.1(1)", "4.2(2)"); });
    EXPECT_EQ(
        records_t(
            {{ltl_key(row.becomes), q8(1)}, {ltl_key(0x10D9), q8(2)}, {ltl_key(0x1122), q8(3)}}),
        platform.records(k_store))
        << row.ltl;
  }
}

TEST_F(pixm_test, a_renumbered_record) {
  platform.set_store(k_store, {{ltl_key(0x10DD), q8(7)}}, {16, 300, 0, 1});
  const lines_t lines = renumber();
  EXPECT_EQ(5u + 2u + 72u + 71u + 7u + 4u, lines.size()); // leg, store, queries, absent, one, leg
  EXPECT_EQ("ltl 0x1121 fetch err 0x40480003\n", lines.at(156));
  EXPECT_EQ(0u, lines.at(157).find("To_ver: 4.1(1) From_ver: 4.2(2) To_ref: 4.2(2) "));
  EXPECT_EQ(lines_t({"pss uri: nonvolatile:/cfg/pixm_runtime_info\n",
                     "pss uri nonvolatile:/cfg/pixm_runtime_info: max val size 300\n",
                     "Query q8-pss-key = 0x 36 0 0 10 da 0 1", "ltl 0x10da fetch err 0x40480003\n",
                     "Query q8-pss-key = 0x 36 0 0 10 db 0 1", "ltl 0x10db fetch err 0x40480003\n",
                     "Query q8-pss-key = 0x 36 0 0 10 dc 0 1", "ltl 0x10dc fetch err 0x40480003\n",
                     "Query q8-pss-key = 0x 36 0 0 10 dd 0 1", "q8_current_ltl 0x10dd\n",
                     "q8_current_ltl/slot in 4.1: 0x10dd:0\n", "q8_ltl_for_4_0_rel 0x1162\n",
                     "new pss-key = 0x 36 0 0 11 62 0 1", "Init new-val key + data 68\n",
                     "Saving new Q8 key to PSS \n", "Deleting old key\n",
                     "Query q8-pss-key = 0x 36 0 0 10 de 0 1"}),
            lines_t(lines.begin() + 5, lines.begin() + 22));
}

TEST_F(pixm_test, the_calls_of_a_renumbering) {
  platform.set_store(k_store, {{ltl_key(0x1121), tlv_array_bytes({{2, bytes("00000000fd")}})}});
  renumber();
  const lines_t calls = platform.calls();
  ASSERT_EQ(77u, calls.size());
  EXPECT_EQ("pss2_open(\"nonvolatile:/cfg/pixm_runtime_info\", 0x3, 0, 0, 0)", calls[0]);
  EXPECT_EQ("pss2_get_params(1)", calls[1]);
  EXPECT_EQ("pss2_fetch(1, 36000010da0001)", calls[2]);
  EXPECT_EQ(lines_t({"pss2_fetch(1, 36000011210001)",
                     "pss2_store(1, 36000011a60001, 11000000010001000200050000000000"
                     "fd)",
                     "pss2_delete(1, 36000011210001, 1)", "pss2_close(1)"}),
            lines_t(calls.end() - 4, calls.end()));
}

TEST_F(pixm_test, all_ltls_of_a_store_at_once) {
  records_t before = {{ltl_key(0x10D9), "below"}, {ltl_key(0x1122), "above"}};
  records_t after = before;
  for (const ltl_row &row : k_ltls) { // ascending: the last one of a slot stays
    before[ltl_key(row.ltl)] = after[ltl_key(row.becomes)] = q8(static_cast<uint8>(row.ltl));
  }
  ASSERT_EQ(74u, before.size());
  ASSERT_EQ(20u, after.size());
  platform.set_store(k_store, before);
  ASSERT_EQ(0, rmdir("/mnt/pss"));
  captured_stderr([] { pixm_data_morph_gsync("/cfg", "s", "4.1(1)", "4.2(2)"); });
  EXPECT_EQ(after, platform.records(k_store));
}

// What stands under a new number is replaced, also by itself.
TEST_F(pixm_test, a_record_under_the_new_number_is_replaced) {
  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}, {ltl_key(0x1162), "old"}});
  renumber();
  EXPECT_EQ(records_t({{ltl_key(0x1162), q8(1)}}), platform.records(k_store));
  renumber(); // again: nothing is left to do
  EXPECT_EQ(records_t({{ltl_key(0x1162), q8(1)}}), platform.records(k_store));
}

TEST_F(pixm_test, the_highest_number_of_a_slot_wins) {
  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)},
                               {ltl_key(0x10DB), q8(2)},
                               {ltl_key(0x10DC), q8(3)},
                               {ltl_key(0x10DE), q8(4)}});
  renumber();
  EXPECT_EQ(records_t({{ltl_key(0x1162), q8(3)}, {ltl_key(0x1166), q8(4)}}),
            platform.records(k_store));
}

TEST_F(pixm_test, values_that_are_not_of_q8) {
  const std::string good = q8(1);
  const std::string values[] = {
      "",
      good.substr(0, 7),
      good.substr(0, good.size() - 1),                    // claims a byte more than is stored
      tlv_array_bytes({}),                                // no TLVs
      tlv_array_bytes({{1, callback(1)}}),                // of another type
      tlv_array_bytes({{2, bytes("00 00 00 00 fc")}}),    // another generation
      tlv_array_bytes({{2, bytes("fd fd fd fd 00 fd")}}), // at another place
      tlv_array_bytes({{2, bytes("00 00 00 00")}}),       // too short for it
      tlv_array_bytes({{2, "four"}, {0x00fd, "fifth"}}),  // the next one's head is not its own
      bytes("0d 00 00 00 01 00 01 00 02 00 50 00 fd"),    // a TLV passes the array's end
      bytes("ff ff ff ff 01 00 01 00") + good.substr(8),  // the array passes the value's end
      bytes("08 00 00 00 01 00 01 00") + good.substr(8),  // the array ends before its TLV
  };
  for (const std::string &value : values) {
    platform.set_store(k_store, {{ltl_key(0x1000), "other"}, {ltl_key(0x10E0), value}});
    platform.clear();
    const lines_t lines = renumber();
    EXPECT_TRUE(has_line(lines, "Error ltl-key  is NOT QORN\n")) << hex(value);
    EXPECT_EQ(value, platform.value(k_store, ltl_key(0x10E0)));
    EXPECT_TRUE(platform.calls("pss2_store").empty());
    EXPECT_TRUE(platform.calls("pss2_delete").empty());
  }
}

TEST_F(pixm_test, the_callback_record_may_stand_behind_others) {
  const std::string value = tlv_array_bytes({{1, "x"},
                                             {2, bytes("00 00 00 00 01")},
                                             {3, bytes("00 00 00 00 fd")},
                                             {2, bytes("00 00 00 00 fd")}});
  platform.set_store(k_store, {{ltl_key(0x10E0), value + "behind"}});
  renumber();
  EXPECT_EQ(records_t({{ltl_key(0x1166), value + "behind"}}), platform.records(k_store));
}

TEST_F(pixm_test, a_value_above_the_stores_limit_is_left_alone) {
  const std::string value = q8(1);
  for (const uint32 limit : {67u, 68u, 0u, 1u}) {
    platform.reset();
    platform.set_store(k_store, {{ltl_key(0x10DA), value}}, {16, limit, 0, 1});
    const lines_t lines = renumber();
    EXPECT_EQ(limit == 68, has_line(lines, "q8_current_ltl 0x10da\n")) << limit;
    EXPECT_FALSE(has_line(lines, "Error ltl-key  is NOT QORN\n")) << limit;
    const uint32 at = limit == 68 ? 0x1162 : 0x10DA;
    EXPECT_EQ(records_t({{ltl_key(at), value}}), platform.records(k_store)) << limit;
  }
}

// What it holds is looked at first.
TEST_F(pixm_test, a_value_above_the_stores_limit_may_be_of_another_generation) {
  platform.set_store(k_store, {{ltl_key(0x10DA), tlv_array_bytes({{1, callback(1)}})}},
                     {16, 20, 0, 1});
  EXPECT_TRUE(has_line(renumber(), "Error ltl-key  is NOT QORN\n"));
}

// What is about to be done is in the log before it is done.
TEST_F(pixm_test, a_step_is_traced_before_its_call) {
  platform.set_store(k_store, {{ltl_key(0x1121), q8(1)}, {bytes("3a 00 00 00 00 00 01"), "c"}});
  lines_t last;
  const auto note = [&last] { last.push_back(log_lines(true).back()); };
  platform.before("pss2_open", note);
  platform.before("pss2_fetch", note, 72);
  platform.before("pss2_store", note);
  platform.before("pss2_delete", note, 1);
  platform.before("pss2_delete", note, 2);
  convert("4.1(1)", "4.2(3)");
  EXPECT_EQ(lines_t({"pss uri: nonvolatile:/cfg/pixm_runtime_info\n",
                     "Query q8-pss-key = 0x 36 0 0 11 21 0 1", "Saving new Q8 key to PSS \n",
                     "Deleting old key\n", "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 1"}),
            last);
}

TEST_F(pixm_test, keys_of_other_lengths_and_vdcs_are_left_alone) {
  const records_t before = {{bytes("36 00 00 10 da 00 02"), q8(1)},
                            {bytes("36 00 00 10 da 00"), q8(1)},
                            {bytes("36 00 00 10 da 00 01 00"), q8(1)},
                            {bytes("35 00 00 10 da 00 01"), q8(1)},
                            {bytes("36 00 01 10 da 00 01"), q8(1)}};
  platform.set_store(k_store, before);
  renumber();
  EXPECT_EQ(before, platform.records(k_store));
}

TEST_F(pixm_test, a_renumbering_that_cannot_begin) {
  EXPECT_EQ(lines_t({"pss uri: nonvolatile:/cfg/pixm_runtime_info\n",
                     "pss uri: nonvolatile:/cfg/pixm_runtime_info does not exist 0x40480002\n",
                     "Error: status = 0x0\n"}),
            [this] {
              const lines_t lines = renumber();
              return lines_t(lines.begin() + 5, lines.begin() + 8);
            }());
  EXPECT_EQ(1u, platform.calls().size());

  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}});
  platform.clear();
  platform.fail("pss2_get_params", 0x4048000B);
  const lines_t lines = renumber();
  EXPECT_EQ("pss uri nonvolatile:/cfg/pixm_runtime_info: get_params err = 0x4048000b\n",
            lines.at(6));
  EXPECT_EQ("Error: status = 0x0\n", lines.at(7));
  EXPECT_EQ("pss2_close(1)", platform.calls().back());
  EXPECT_EQ(3u, platform.calls().size());
}

TEST_F(pixm_test, a_renumbering_without_memory) {
  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}}, {16, 7777, 0, 1});
  scarce_malloc::refuse_size(7777);
  const lines_t lines = renumber();
  EXPECT_TRUE(scarce_malloc::relieve());
  EXPECT_EQ(lines_t({"pss uri nonvolatile:/cfg/pixm_runtime_info: max val size 7777\n",
                     "pss uri nonvolatile:/cfg/pixm_runtime_info: malloc failure = 0x1\n",
                     "Error: status = 0x0\n"}),
            lines_t(lines.begin() + 6, lines.begin() + 9));
  EXPECT_EQ(lines_t({"pss2_open(\"nonvolatile:/cfg/pixm_runtime_info\", 0x3, 0, 0, 0)",
                     "pss2_get_params(1)", "pss2_close(1)"}),
            platform.calls());
  EXPECT_EQ(records_t({{ltl_key(0x10DA), q8(1)}}), platform.records(k_store));
}

// A size is traced as a signed number, and a buffer of a size that nobody has is not had.
TEST_F(pixm_test, a_maximum_value_size_of_32_bits) {
  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}}, {16, 0xFFFFFFFF, 0, 1});
  scarce_malloc::refuse_size(0xFFFFFFFF);
  const lines_t lines = renumber();
  EXPECT_TRUE(scarce_malloc::relieve());
  EXPECT_EQ("pss uri nonvolatile:/cfg/pixm_runtime_info: max val size -1\n", lines.at(6));
  EXPECT_EQ(13u, lines.size()); // and nothing is asked for
}

TEST_F(pixm_test, the_tlv_calls_of_a_record) {
  platform.set_store(k_store,
                     {{ltl_key(0x10DA), tlv_array_bytes({{1, "x"}, {2, bytes("00000000fd")}})},
                      {ltl_key(0x10DB), tlv_array_bytes({{3, ""}})},
                      {ltl_key(0x10DC), tlv_array_bytes({})},
                      {ltl_key(0x10DD), bytes("09 00 00 00 01 00 01 00")}}); // claims too much
  platform.watch_tlvs();
  renumber();
  const lines_t calls = platform.calls();
  EXPECT_EQ(lines_t({"pss2_fetch(1, 36000010da0001)", "tlv_array_size_get(1600000002000100, 1)",
                     "tlv_array_get_num_tlvs(1600000002000100, 1)",
                     "tlv_array_get_next_tlv(1600000002000100, 1, 0)",
                     "tlv_array_get_next_tlv(1600000002000100, 1, 5)",
                     "pss2_store(1, 36000011620001, 16000000020001000100010078020005000000"
                     "0000fd)",
                     "pss2_delete(1, 36000010da0001, 1)", "pss2_fetch(1, 36000010db0001)",
                     "tlv_array_size_get(0c00000001000100, 1)",
                     "tlv_array_get_num_tlvs(0c00000001000100, 1)",
                     "tlv_array_get_next_tlv(0c00000001000100, 1, 0)",
                     "pss2_fetch(1, 36000010dc0001)", "tlv_array_size_get(0800000000000100, 1)",
                     "tlv_array_get_num_tlvs(0800000000000100, 1)", "pss2_fetch(1, 36000010dd0001)",
                     "tlv_array_size_get(0900000001000100, 1)", "pss2_fetch(1, 36000010de0001)"}),
            lines_t(calls.begin() + 2, calls.begin() + 19));
}

// A value that has no room for a header is not even looked at.
TEST_F(pixm_test, no_tlv_call_reads_a_value_without_header) {
  platform.set_store(k_store,
                     {{ltl_key(0x10DA), ""}, {ltl_key(0x10DB), bytes("08 00 00 00 00 00 01")}});
  platform.watch_tlvs();
  const lines_t lines = renumber();
  EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "Error ltl-key  is NOT QORN\n"));
  EXPECT_EQ(75u, platform.calls().size()); // open, parameters, 72 times fetch, close
}

TEST_F(pixm_test, the_tlv_calls_answers) {
  const std::string value = tlv_array_bytes({{2, bytes("00 00 00 00 fd")}, {9, "x"}});
  const struct {
    const char *function;
    syserr_t answer; // status, or result
    bool of_q8;
  } rows[] = {
      {"tlv_array_size_get", 22, true},             // all that is stored
      {"tlv_array_size_get", 23, false},            // a byte more
      {"tlv_array_size_get", 0xFFFFFFFF, false},    //
      {"tlv_array_get_num_tlvs", 0, false},         //
      {"tlv_array_get_num_tlvs", 1, true},          //
      {"tlv_array_get_num_tlvs", 0xFFFFFFFF, true}, // found before the end
      {"tlv_array_get_next_tlv", 0x40490001, false},
      {"tlv_array_get_next_tlv", 0x40490002, false},
      {"tlv_array_get_next_tlv", 0, true}, // done, but nothing is told: the next call finds it
  };
  ASSERT_EQ(22u, value.size());
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(k_store, {{ltl_key(0x10DA), value}});
    platform.watch_tlvs();
    platform.fail(row.function, row.answer);
    const lines_t lines = renumber();
    EXPECT_EQ(1u, platform.scripted());
    EXPECT_EQ(!row.of_q8, has_line(lines, "Error ltl-key  is NOT QORN\n")) << row.function;
    EXPECT_EQ(records_t({{ltl_key(row.of_q8 ? 0x1162 : 0x10DA), value}}), platform.records(k_store))
        << row.function << row.answer;
    EXPECT_TRUE(platform.open_handles().empty());
  }
}

// A count that is too high ends where the array does.
TEST_F(pixm_test, a_count_of_tlvs_that_is_too_high_ends_with_the_array) {
  platform.set_store(k_store, {{ltl_key(0x10DA), tlv_array_bytes({{9, "x"}})}});
  platform.watch_tlvs();
  platform.fail("tlv_array_get_num_tlvs", 0xFFFFFFFF);
  EXPECT_TRUE(has_line(renumber(), "Error ltl-key  is NOT QORN\n"));
  EXPECT_EQ(2u, platform.calls("tlv_array_get_next_tlv").size());
}

TEST_F(pixm_test, every_failing_call_of_a_renumbering) {
  // open, parameters, fetch, size, number, next, store, delete, 71 times fetch, close
  const struct {
    unsigned nth;
    size_t calls;
    bool has_old;
    bool has_new;
    const char *line;
  } rows[] = {
      {1, 1, true, false,
       "pss uri: nonvolatile:/cfg/pixm_runtime_info does not exist 0x4048000b\n"},
      {2, 3, true, false,
       "pss uri nonvolatile:/cfg/pixm_runtime_info: get_params err = 0x4048000b\n"},
      {3, 75, true, false, "ltl 0x10da fetch err 0x4048000b\n"},
      {4, 76, true, false, "Error ltl-key  is NOT QORN\n"}, // a size above what is stored
      {5, 80, false, true, "Deleting old key\n"},           // a number of TLVs above theirs
      {6, 78, true, false, "Error ltl-key  is NOT QORN\n"},
      {7, 80, false, false, "Deleting old key\n"}, // what could not be stored is lost all the same
      {8, 80, true, true, "ltl 0x10db fetch err 0x40480003\n"},
      {9, 80, false, true, "ltl 0x10db fetch err 0x4048000b\n"},
      {79, 80, false, true, "ltl 0x1121 fetch err 0x4048000b\n"},
      {80, 80, true, false, "ltl 0x1121 fetch err 0x40480003\n"}, // a failed close loses all
  };
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}});
    platform.watch_tlvs();
    platform.fail_any(row.nth, 0x4048000B);
    EXPECT_TRUE(has_line(renumber(), row.line)) << row.nth;
    EXPECT_EQ(row.calls, platform.calls().size()) << row.nth;
    EXPECT_EQ(row.has_old, platform.value(k_store, ltl_key(0x10DA)).has_value()) << row.nth;
    EXPECT_EQ(row.has_new, platform.value(k_store, ltl_key(0x1162)).has_value()) << row.nth;
    EXPECT_TRUE(platform.open_handles().empty()) << row.nth;
    EXPECT_EQ(1u, platform.scripted()) << row.nth;
  }
}

TEST_F(pixm_test, failed_writes_are_not_looked_at) {
  for (const char *function : {"pss2_store", "pss2_delete", "pss2_close"}) {
    platform.reset();
    platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}, {ltl_key(0x10DB), q8(2)}});
    platform.fail_from(function, 0x4048000C);
    const lines_t lines = renumber();
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "Deleting old key\n"));
    EXPECT_TRUE(platform.open_handles().empty());
  }
}

TEST_F(pixm_test, failed_fetches_skip_the_key) {
  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}, {ltl_key(0x10DB), q8(2)}});
  platform.fail("pss2_fetch", 0x40480009);
  const lines_t lines = renumber();
  EXPECT_TRUE(has_line(lines, "ltl 0x10da fetch err 0x40480009\n"));
  EXPECT_EQ(records_t({{ltl_key(0x10DA), q8(1)}, {ltl_key(0x1162), q8(2)}}),
            platform.records(k_store));
  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}});
  platform.answer_null("pss2_fetch");
  EXPECT_TRUE(has_line(renumber(), "Error ltl-key  is NOT QORN\n"));
}

TEST_F(pixm_test, the_uri_is_cut_at_254_characters) {
  const std::string path(4000, 'p');
  const std::string cut = "nonvolatile:" + std::string(242, 'p');
  const lines_t lines = convert("4.1(1)", "4.2(3)", path.c_str());
  EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "pss uri: " + cut + "\n"));
}

// ---- Cleanup

TEST_F(pixm_test, cache_keys_go_and_others_stay) {
  const std::string cache[] = {bytes("3a 00 00 00 00 00 01"), bytes("3a 00 00 00 00 00 02"),
                               bytes("3a 00 00 00 00 00 03")};
  const records_t others = {{bytes("36 00 00 10 da 00 01"), "a"},
                            {bytes("3a"), "short"},
                            {bytes("3a 00 00 00 00 00"), "six"},
                            {bytes("3a 00 00 00 00 00 02 00"), "eight"},
                            {bytes("3b 00 00 00 00 00 01"), "b"}};
  for (unsigned which = 0; which < 8; ++which) { // all sets of them: alone, adjacent, all, none
    for (const bool with_others : {false, true}) {
      platform.reset();
      records_t records = with_others ? others : records_t();
      const records_t expected = records;
      for (unsigned i = 0; i < 3; ++i) {
        if (which >> i & 1) {
          records[cache[i]] = "cache";
        }
      }
      platform.set_store(k_store, records);
      clean_up();
      EXPECT_EQ(expected, platform.records(k_store)) << which << with_others;
      EXPECT_TRUE(platform.open_handles().empty());
    }
  }
}

TEST_F(pixm_test, a_key_goes_once_the_cursor_has_passed_it) {
  platform.set_store(k_store,
                     {{bytes("3a 00 00 00 00 00 01"), "a"}, {bytes("3a 00 00 00 00 00 02"), "b"}});
  const lines_t lines = clean_up();
  EXPECT_EQ(lines_t({"pss uri: nonvolatile:/cfg/pixm_runtime_info\n",
                     "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 1",
                     "Move to next location failed pss_fd:0x1, status: 0x0\n",
                     "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 2"}),
            lines_t(lines.end() - 4, lines.end()));
  EXPECT_EQ(lines_t({"pss2_open(\"nonvolatile:/cfg/pixm_runtime_info\", 0x3, 0, 0, 0)",
                     "pss2_move2location([1], PSS_FIRST_KEY)", "pss2_getkey(1)",
                     "pss2_move2location([1], PSS_NEXT_KEY)", "pss2_getkey(1)",
                     "pss2_delete(1, 3a000000000001, 1)", "pss2_move2location([1], PSS_NEXT_KEY)",
                     "pss2_delete(1, 3a000000000002, 1)", "pss2_close(1)"}),
            platform.calls());
}

TEST_F(pixm_test, a_cleanup_that_cannot_begin) {
  EXPECT_EQ("pss uri: nonvolatile:/cfg/pixm_runtime_info does not exist 0x40480002\n",
            clean_up().back());
  platform.set_store(k_store);
  EXPECT_EQ("First key not present pss_fd:0x1, status: 0x0, 0x40480003\n", clean_up().back());
  EXPECT_TRUE(platform.open_handles().empty());

  platform.reset();
  platform.set_store(k_store, {{bytes("3a 00 00 00 00 00 01"), "a"}});
  platform.fail("pss2_move2location", 0x4048000B);
  const std::string moved = clean_up().back();
  EXPECT_EQ(0u, moved.find("First key not present pss_fd:0x1, status: 0x4048000b, 0x")) << moved;
  EXPECT_TRUE(platform.open_handles().empty());

  platform.fail("pss2_getkey", 0x40480009);
  const lines_t lines = clean_up();
  EXPECT_EQ(lines_t({"Cannot get key pss_fd:0x2, status: 0x40480009\n",
                     "check and convert pss failure 0x40480009\n"}),
            lines_t(lines.end() - 2, lines.end()));
  EXPECT_TRUE(platform.open_handles().empty());

  platform.answer_null("pss2_getkey");
  EXPECT_EQ("pss uri: nonvolatile:/cfg/pixm_runtime_info\n", clean_up().back());
  EXPECT_TRUE(platform.open_handles().empty());
  EXPECT_EQ(1u, platform.records(k_store).size());
}

TEST_F(pixm_test, a_cleanup_that_fails_on_the_way) {
  const records_t records = {{bytes("3a 00 00 00 00 00 01"), "a"},
                             {bytes("3a 00 00 00 00 00 02"), "b"}};
  const struct {
    const char *function;
    unsigned nth;
    const char *line;
    size_t left;
  } rows[] = {
      // the first one is pending when the walk ends, and goes
      {"pss2_move2location", 2, "Move to next location failed pss_fd:0x1, status: 0x4048000b\n", 1},
      {"pss2_getkey", 2, "key not present pss_fd:0x1, status: 0x4048000b\n", 1},
      {"pss2_delete", 1, "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 1", 1},
      {"pss2_delete", 2, "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 2", 1},
  };
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(k_store, records);
    platform.fail(row.function, 0x4048000B, row.nth);
    EXPECT_TRUE(has_line(clean_up(), row.line));
    EXPECT_EQ(row.left, platform.records(k_store).size()) << row.line;
    EXPECT_TRUE(platform.open_handles().empty());
  }
}

TEST_F(pixm_test, every_failing_call_of_a_cleanup) {
  // open, first, key, next, key, delete, next, delete, close
  const struct {
    unsigned nth;
    size_t calls;
    const char *left; // the last digits of the keys
    const char *line;
  } rows[] = {
      {1, 1, "12", "pss uri: nonvolatile:/cfg/pixm_runtime_info does not exist 0x4048000b\n"},
      {2, 3, "12", "First key not present pss_fd:0x1, status: 0x4048000b, 0x4048000b\n"},
      {3, 4, "12", "Cannot get key pss_fd:0x1, status: 0x4048000b\n"},
      {4, 6, "2", "Move to next location failed pss_fd:0x1, status: 0x4048000b\n"},
      {5, 7, "2", "key not present pss_fd:0x1, status: 0x4048000b\n"},
      {6, 9, "1", "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 1"},
      {7, 9, "", "Move to next location failed pss_fd:0x1, status: 0x4048000b\n"},
      {8, 9, "2", "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 2"},
      {9, 9, "12", "Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 2"},
  };
  for (const auto &row : rows) {
    platform.reset();
    platform.set_store(
        k_store, {{bytes("3a 00 00 00 00 00 01"), "a"}, {bytes("3a 00 00 00 00 00 02"), "b"}});
    platform.fail_any(row.nth, 0x4048000B);
    const lines_t lines = clean_up();
    EXPECT_TRUE(has_line(lines, row.line)) << row.nth;
    EXPECT_EQ(row.nth == 3, has_line(lines, "check and convert pss failure 0x4048000b\n"));
    EXPECT_EQ(row.calls, platform.calls().size()) << row.nth;
    std::string left;
    for (const auto &[key, value] : platform.records(k_store)) {
      left += static_cast<char>('0' + key.back());
    }
    EXPECT_EQ(row.left, left) << row.nth;
    EXPECT_TRUE(platform.open_handles().empty()) << row.nth;
  }
}

// Only one status of a location means that there is no such key.
TEST_F(pixm_test, other_statuses_of_a_location_do_not_end_the_walk) {
  const records_t records = {{bytes("3a 00 00 00 00 00 01"), "a"}, {bytes("3b"), "b"}};
  platform.set_store(k_store, records);
  platform.answer_handles(0x4048000B, 2); // the cursor stays, and so does its key
  clean_up();
  EXPECT_EQ(2u, platform.calls("pss2_getkey").size());
  EXPECT_EQ(records_t({{bytes("3b"), "b"}}), platform.records(k_store));

  platform.reset();
  platform.set_store(k_store, records);
  platform.answer_handles(0x4048000B); // no key is under the cursor
  EXPECT_TRUE(has_line(clean_up(), "Cannot get key pss_fd:0x1, status: 0x40480003\n"));

  platform.reset();
  platform.set_store(k_store, records);
  platform.answer_handles(0x40480003, 2);
  EXPECT_TRUE(has_line(clean_up(), "Move to next location failed pss_fd:0x1, status: 0x0\n"));
  EXPECT_EQ(1u, platform.calls("pss2_getkey").size());
}

// Every line of a cleanup that finds nothing.
TEST_F(pixm_test, every_line_of_a_cleanup_of_other_keys) {
  platform.set_store(k_store, {{bytes("36"), "a"}, {bytes("39 00 00 00 00 00 01"), "b"}});
  EXPECT_EQ(
      lines_t({"FROM 4.2(3) TO 4.2(1) Num 2\n",
               "To_ver: 4.2(1) From_ver: 4.2(3) To_ref: 4.1(2) From_ref:4.1(3)\n",
               "Compare return from_ver:4.2(3) from_ref: 4.1(3) : from_comp: 1\n",
               "Compare return to_ref:4.1(2) to_ver: 4.2(1) : to_comp: -1\n",
               "ISSU Leg Q8_Downgrades From: =>4.1.3 --> To: <=4.1.2: No issu conversion reqd from "
               "4.2(3) to 4.2(1)\n",
               "To_ver: 4.2(1) From_ver: 4.2(3) To_ref: 4.2(2) From_ref:4.2(3)\n",
               "Compare return from_ver:4.2(3) from_ref: 4.2(3) : from_comp: 0\n",
               "Compare return to_ref:4.2(2) to_ver: 4.2(1) : to_comp: 1\n",
               "ISSU Leg DUAG Cache Cleanup From: =>4.2.3 --> To: <=4.2.2: issu conversion "
               "required from 4.2(3) to 4.2(1)\n",
               "pss uri: nonvolatile:/cfg/pixm_runtime_info\n",
               "Move to next location failed pss_fd:0x1, status: 0x0\n"}),
      clean_up());
  EXPECT_TRUE(platform.calls("pss2_delete").empty());
}

// A null key behind a cache key: the cache key goes, in the loop, and once.
TEST_F(pixm_test, a_pending_key_goes_before_a_null_one) {
  platform.set_store(k_store,
                     {{bytes("3a 00 00 00 00 00 01"), "a"}, {bytes("3a 00 00 00 00 00 02"), "b"}});
  platform.answer_null("pss2_getkey", 2);
  const lines_t lines = clean_up();
  EXPECT_EQ("Delete MCT-DUAG Cache pss-key = 0x 3a 0 0 0 0 0 1", lines.back());
  EXPECT_EQ(lines_t({"pss2_delete(1, 3a000000000001, 1)"}), platform.calls("pss2_delete"));
  EXPECT_EQ(1u, platform.records(k_store).size());
}

TEST_F(pixm_test, a_key_that_cannot_be_read_ends_the_walk) {
  platform.set_store(k_store, {{bytes("36"), "a"}, {bytes("37"), "b"}, {bytes("38"), "c"}});
  platform.answer_null("pss2_getkey", 2);
  clean_up();
  EXPECT_EQ(2u, platform.calls("pss2_getkey").size());
}

TEST_F(pixm_test, a_cursor_that_goes_in_circles_ends_the_walk) {
  platform.set_store(k_store, {{bytes("3a 00 00 00 00 00 01"), "a"}});
  platform.answer_handles_from(0);
  platform.answer_from("pss2_getkey", bytes("3a 00 00 00 00 00 01"));
  clean_up();
  EXPECT_LT(platform.calls("pss2_getkey").size(), 10u);
  EXPECT_TRUE(platform.records(k_store).empty());
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(pixm_test, both_legs_run_in_their_order) {
  platform.set_store(k_store, {{ltl_key(0x10DA), q8(1)}, {bytes("3a 00 00 00 00 00 01"), "cache"}});
  convert("4.1(1)", "4.2(3)");
  EXPECT_EQ(records_t({{ltl_key(0x1162), q8(1)}}), platform.records(k_store));
  EXPECT_EQ(2u, platform.calls("pss2_open").size());
  EXPECT_EQ("pss2_delete(2, 3a000000000001, 1)", platform.calls("pss2_delete").back());
}

TEST_F(pixm_test, a_failed_leg_does_not_stop_the_next) {
  platform.set_store(k_store, {{bytes("3a 00 00 00 00 00 01"), "cache"}});
  platform.fail("pss2_open", 0x40480009);
  const lines_t lines = convert("4.1(1)", "4.2(3)");
  EXPECT_TRUE(has_line(lines, "Error: status = 0x0\n"));
  EXPECT_TRUE(platform.records(k_store).empty());
}

TEST_F(pixm_test, a_traced_key_leaves_errno_alone) {
  ASSERT_EQ(0, mkdir("/mnt/pss/data_morph.log", 0700)); // the log's own failure shows in errno
  const uint8 key[7] = {};
  captured_stderr([&key] {
    errno = EXDEV;
    EXPECT_EQ(0u, pixm_print_pss_key("key", key));
    EXPECT_EQ(EXDEV, errno);
  });
}

} // namespace
