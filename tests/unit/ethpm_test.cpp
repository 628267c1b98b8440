// The port manager: tables of port-state reasons, converters, hooks, and the walk over a store.

#include "libdatamorph_ethpm.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "libdatamorph_private.h"
#include "libdatamorph_walk.h"
#include "support/library_fixture.h"
#include "support/library_state.h"
#include "support/port_tables.h"
#include "support/scarce_malloc.h"

namespace {

// What the exports take and give, as a caller that knows only the numbers has it.
using converter_t = syserr_t (*)(const char *, const char *, const char *, const char *);
static_assert(std::is_same_v<decltype(&ethpm_data_morph_gsync), converter_t> &&
              std::is_same_v<decltype(&ethpm_data_morph_startup), converter_t>);
static_assert(std::is_same_v<decltype(upgrade_port_state_reason_table), uint32[256]> &&
              std::is_same_v<decltype(downgrade_port_state_reason_table), uint32[256]>);
static_assert(std::is_same_v<decltype(ethpm_convert_runtime_pss_list), ethpm_pss_type_t[1]> &&
              std::is_same_v<decltype(ethpm_convert_config_tlv_pss_list), ethpm_pss_type_t[1]>);
static_assert(sizeof(ethpm_issu_transition_t) == 4 && sizeof(ethpm_pss_action_t) == 4);
static_assert(offsetof(ethpm_pss_type_t, b_version_chk) == 255 &&
              sizeof(ethpm_pss_type_t::b_version_chk) == 1 &&
              offsetof(ethpm_pss_type_t, transition) == 256 &&
              offsetof(ethpm_pss_type_t, pss_action) == 260 &&
              offsetof(ethpm_pss_type_t, ethpm_fn_ver_chk) == 264 &&
              sizeof(ethpm_pss_type_t) == 264 + 4 * sizeof(void *));
static_assert(offsetof(ethpm_pss_change_list_info_t, pss_list_type) == 64 &&
              sizeof(ethpm_pss_change_list_info_t) == 64 + 2 * sizeof(void *));

constexpr char k_info[] = "nonvolatile:/cfg/ethpm_runtime_info";
constexpr char k_cfg[] = "nonvolatile:/cfg/ethpm_runtime_cfg";
constexpr char k_saved[] = "nonvolatile:/cfg/bin/ethpm_saved_config";

// The lists and a table as the process had them before any test ran.
const ethpm_pss_type_t g_lists_at_start[] = {ethpm_convert_runtime_pss_list[0],
                                             ethpm_convert_config_tlv_pss_list[0]};
const auto g_set_reasons_at_start =
    std::count_if(upgrade_port_state_reason_table, upgrade_port_state_reason_table + 256,
                  [](uint32 reason) { return reason != 0; });

const auto g_transition_at_start = ethpm_get_issu_transition();
const auto g_action_at_start = ethpm_get_pss_action();

class ethpm_test : public library_fixture {
protected:
  using records_t = platform_double::records_t;

  void SetUp() override {
    library_fixture::SetUp();
    forget_process();
  }

  lines_t gsync(const char *to, const char *from) {
    return traced([&] { EXPECT_EQ(0u, ethpm_data_morph_gsync("/cfg", "system", to, from)); });
  }
  lines_t startup(const char *to, const char *from) {
    return traced([&] { EXPECT_EQ(0u, ethpm_data_morph_startup("/cfg", "system", to, from)); });
  }

  static std::string runtime_key(uint8 interface) {
    return bytes("33 06 1a 00 00") + std::string(1, static_cast<char>(interface));
  }
  static std::string config_key(uint8 interface, const std::string &subtype = "14") {
    return bytes("65 " + subtype + " 1a 00 00") + std::string(1, static_cast<char>(interface));
  }
  // A runtime record: a TLV head, nine bytes, the reason, and more.
  static std::string runtime(uint32 reason) {
    return bytes("01 00 10 00") + "ninebytes" + std::string(1, static_cast<char>(reason)) + "rest";
  }
};

// ---- Tables

TEST_F(ethpm_test, tables_are_filled_when_they_are_asked_for) {
  for (const uint32 *table : {upgrade_port_state_reason_table, downgrade_port_state_reason_table}) {
    EXPECT_EQ(256, std::count(table, table + 256, 0u));
  }
  std::memset(upgrade_port_state_reason_table, 0xee, sizeof upgrade_port_state_reason_table);
  std::memset(downgrade_port_state_reason_table, 0xee, sizeof downgrade_port_state_reason_table);
  ethpm_init_port_state_reason_tables();
  for (int reason = 0; reason < 256; ++reason) {
    EXPECT_EQ(k_up[reason], upgrade_port_state_reason_table[reason]) << reason;
    EXPECT_EQ(k_down[reason], downgrade_port_state_reason_table[reason]) << reason;
  }
  ethpm_init_port_state_reason_tables(); // again: the same
  EXPECT_TRUE(std::equal(k_up, k_up + 256, upgrade_port_state_reason_table));
}

TEST_F(ethpm_test, the_tables_are_no_exact_inverses) {
  ethpm_init_port_state_reason_tables();
  EXPECT_EQ(145u, upgrade_port_state_reason_table[145]);
  EXPECT_EQ(126u, downgrade_port_state_reason_table[145]);
  EXPECT_EQ(220u, upgrade_port_state_reason_table[220]);
  EXPECT_EQ(166u, downgrade_port_state_reason_table[220]);
  EXPECT_EQ(142u, downgrade_port_state_reason_table[142]);
  EXPECT_EQ(150u, downgrade_port_state_reason_table[150]);
}

TEST_F(ethpm_test, every_reason_through_a_store) {
  for (const bool up : {true, false}) {
    records_t before;
    records_t after;
    for (uint32 reason = 0; reason < 256; ++reason) {
      const auto interface = static_cast<uint8>(reason);
      before[runtime_key(interface)] = runtime(reason);
      after[runtime_key(interface)] = runtime(up ? k_up[reason] : k_down[reason]);
    }
    platform.set_store(k_info, before);
    platform.clear();
    up ? gsync("4.2(2)", "4.1(3)") : gsync("4.1(3)", "4.2(2)");
    EXPECT_EQ(after, platform.records(k_info));
    const auto same = [](const records_t &records) {
      return std::count_if(records.begin(), records.end(),
                           [](const auto &record) { return record.first[5] == record.second[13]; });
    };
    // what does not change is not written
    EXPECT_EQ(256u - static_cast<size_t>(same(after)), platform.calls("pss2_store").size());
    forget_process();
  }
}

// ---- Converters

TEST_F(ethpm_test, an_upgrade_of_both_stores) {
  platform.set_store(k_info, {{runtime_key(1), runtime(124)}, {bytes("33 07 1a 00 00 01"), "x"}});
  platform.set_store(k_cfg, {{config_key(1), "a"}, {config_key(2, "15"), "b"}, {"other", "c"}});
  EXPECT_EQ(
      lines_t(
          {"Ethpm pss uri: nonvolatile:/cfg/ethpm_runtime_info\n", "Ethpm: Begin PSS conversion \n",
           "Fixing port state reasons for versions (from:4.1(3), to;4.2(2))\n",
           "Change Request :Port state reason modification,  b_version_chk:1, transition:2 "
           "pss_action : 1 (from:4.1(3), to;4.2(2))\n",
           "Ethpm: End PSS conversion \n", "Ethpm pss uri: nonvolatile:/cfg/ethpm_runtime_cfg\n",
           "Ethpm: Begin PSS conversion \n", "ETHPM:From version - 1 and To version - -1 \n",
           "Change Request :Delete config tlv pss key,  b_version_chk:1, transition:2 "
           "pss_action : 2 (from:4.1(3), to;4.2(2))\n",
           "Ethpm: End PSS conversion \n"}),
      gsync("4.2(2)", "4.1(3)"));
  EXPECT_EQ(records_t({{runtime_key(1), runtime(143)}, {bytes("33 07 1a 00 00 01"), "x"}}),
            platform.records(k_info));
  EXPECT_EQ(records_t({{"other", "c"}}), platform.records(k_cfg));
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(ethpm_test, the_calls_of_a_renumbering_and_of_a_deletion) {
  platform.set_store(k_info, {{bytes("33 06 1a 00 00 01"), runtime(124)}, {"other", "x"}});
  platform.set_store(k_cfg, {{config_key(1), "a"}, {config_key(2), "b"}});
  gsync("4.2(2)", "4.1(3)");
  EXPECT_EQ(lines_t({"pss2_open(\"nonvolatile:/cfg/ethpm_runtime_info\", 0x3, 0, 0, 0)",
                     "pss2_move2location([1], PSS_FIRST_KEY)", "pss2_getkey(1)", "pss2_getvalue(1)",
                     "pss2_store(1, 33061a000001, 010010006e696e6562797465738f72657374)",
                     "pss2_move2location([1], PSS_NEXT_KEY)", "pss2_getkey(1)",
                     "pss2_move2location([1], PSS_NEXT_KEY)", "pss2_close(1)",
                     "pss2_open(\"nonvolatile:/cfg/ethpm_runtime_cfg\", 0x3, 0, 0, 0)",
                     "pss2_move2location([2], PSS_FIRST_KEY)", "pss2_getkey(2)", "pss2_getvalue(2)",
                     "pss2_delete(2, 65141a000001, 1)", "pss2_getkey(2)", "pss2_getvalue(2)",
                     "pss2_delete(2, 65141a000002, 1)", "pss2_getkey(2)", "pss2_close(2)"}),
            platform.calls());
}

TEST_F(ethpm_test, a_startup_conversion) {
  platform.set_store(k_saved, {{config_key(1), "a"}, {runtime_key(1), runtime(124)}});
  EXPECT_EQ(
      lines_t({"Ethpm - Path - /cfg \n", "Ethpm pss uri: nonvolatile:/cfg/bin/ethpm_saved_config\n",
               "ETHPM:From version - -1 and To version - 1 \n",
               "Change Request :Delete config tlv pss key,  b_version_chk:1, transition:1 "
               "pss_action : 2 (from:5.0(2), to;4.1(5))\n"}),
      startup("4.1(5)", "5.0(2)"));
  EXPECT_EQ(records_t({{runtime_key(1), runtime(124)}}), platform.records(k_saved));
  EXPECT_EQ(0u, upgrade_port_state_reason_table[255]); // the tables are not filled
}

TEST_F(ethpm_test, the_same_release) {
  platform.set_store(k_info, {{runtime_key(1), runtime(124)}});
  platform.set_store(k_cfg, {{config_key(1), "a"}});
  EXPECT_EQ(
      lines_t(
          {"Ethpm pss uri: nonvolatile:/cfg/ethpm_runtime_info\n", "Ethpm: Begin PSS conversion \n",
           "Change Request :Port state reason modification,  b_version_chk:0, transition:0 "
           "pss_action : 0 (from:4.2(2), to;4.2(2))\n",
           "Nothing to fix for versions (from:4.2(2), to;4.2(2))\n", "Ethpm: End PSS conversion \n",
           "Ethpm pss uri: nonvolatile:/cfg/ethpm_runtime_cfg\n", "Ethpm: Begin PSS conversion \n",
           "Change Request :Delete config tlv pss key,  b_version_chk:0, transition:0 "
           "pss_action : 0 (from:4.2(2), to;4.2(2))\n",
           "Nothing to fix for versions (from:4.2(2), to;4.2(2))\n",
           "Ethpm: End PSS conversion \n"}),
      gsync("4.2(2)", "4.2(2)"));
  EXPECT_EQ(
      lines_t({"pss2_open(\"nonvolatile:/cfg/ethpm_runtime_info\", 0x3, 0, 0, 0)", "pss2_close(1)",
               "pss2_open(\"nonvolatile:/cfg/ethpm_runtime_cfg\", 0x3, 0, 0, 0)", "pss2_close(2)"}),
      platform.calls());
}

TEST_F(ethpm_test, which_changes_are_accepted) {
  const struct {
    const char *from;
    const char *to;
    const char *reasons; // transition and action
    const char *config;
  } rows[] = {
      {"4.1(3)", "4.2(2)", "2 pss_action : 1", "2 pss_action : 2"},
      {"4.1(3)", "4.2(0)", "2 pss_action : 1", "2 pss_action : 2"},
      {"4.2(0)", "4.1(3)", "1 pss_action : 1", "1 pss_action : 2"},
      {"5.0(1)", "4.1(9)", "1 pss_action : 1", "1 pss_action : 2"},
      {"4.2(2)", "4.2(3)", "0 pss_action : 0", "0 pss_action : 0"},
      {"4.2(3)", "4.2(0)", "0 pss_action : 0", "0 pss_action : 0"},
      {"4.1(2)", "4.1(5)", "0 pss_action : 0", "0 pss_action : 0"},
      {"4.1(5)", "4.0(1)", "0 pss_action : 0", "0 pss_action : 0"},
      {"", "4.2(0)", "2 pss_action : 1", "2 pss_action : 2"},
  };
  for (const auto &row : rows) {
    forget_process();
    platform.set_store(k_info);
    platform.set_store(k_cfg);
    std::string all;
    for (const std::string &line : gsync(row.to, row.from)) {
      all += line;
    }
    EXPECT_NE(std::string::npos,
              all.find(std::string("modification,  b_version_chk:") +
                       (row.reasons[0] == '0' ? "0" : "1") + ", transition:" + row.reasons))
        << all;
    EXPECT_NE(std::string::npos,
              all.find(std::string("tlv pss key,  b_version_chk:") +
                       (row.config[0] == '0' ? "0" : "1") + ", transition:" + row.config))
        << all;
  }
}

TEST_F(ethpm_test, missing_and_empty_stores) {
  lines_t lines = gsync("4.2(2)", "4.1(3)");
  EXPECT_EQ(lines_t({"Ethpm pss uri: nonvolatile:/cfg/ethpm_runtime_info\n",
                     "Ethpm: Begin PSS conversion \n",
                     "pss uri: nonvolatile:/cfg/ethpm_runtime_info does not exist 0x40480002\n",
                     "Ethpm: End PSS conversion \n",
                     "Ethpm pss uri: nonvolatile:/cfg/ethpm_runtime_cfg\n",
                     "Ethpm: Begin PSS conversion \n",
                     "pss uri: nonvolatile:/cfg/ethpm_runtime_cfg does not exist 0x40480002\n",
                     "Ethpm: End PSS conversion \n"}),
            lines);
  platform.set_store(k_saved);
  lines = startup("4.2(2)", "4.1(3)");
  EXPECT_EQ("Could not find the first key in the runtime info pss:0x0, 0x40480003\n", lines.back());
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(ethpm_test, null_arguments) {
  for (int null = 0; null < 4; ++null) {
    const char *given[] = {"/cfg", "system", "4.2(2)", "4.1(3)"};
    given[null] = nullptr;
    for (const auto converter : {ethpm_data_morph_gsync, ethpm_data_morph_startup}) {
      EXPECT_EQ(lines_t({"Invalid arguments\n"}), traced([&] {
                  EXPECT_EQ(0xFFFFFFFFu, converter(given[0], given[1], given[2], given[3]));
                }));
    }
  }
  EXPECT_TRUE(platform.calls().empty());
  EXPECT_EQ(0u, upgrade_port_state_reason_table[255]);
}

TEST_F(ethpm_test, uris_are_cut_at_255_characters) {
  const std::string path(4000, 'p');
  traced([&] {
    EXPECT_EQ(0u, ethpm_data_morph_gsync(path.c_str(), "s", "4.2(2)", "4.1(3)"));
    EXPECT_EQ(0u, ethpm_data_morph_startup(path.c_str(), "s", "4.2(2)", "4.1(3)"));
  });
  const std::string open = "pss2_open(\"nonvolatile:" + std::string(243, 'p') + "\", 0x3, 0, 0, 0)";
  EXPECT_EQ(lines_t({open, open, open}), platform.calls());
}

// ---- Records

TEST_F(ethpm_test, runs_of_records_to_delete) {
  const std::string other = bytes("65 16 1a 00 00 09"); // of another subtype
  for (unsigned which = 0; which < 64; ++which) {
    forget_process();
    platform.reset();
    records_t before;
    records_t after;
    for (uint8 i = 0; i < 6; ++i) {
      const bool goes = (which >> i & 1) != 0;
      const std::string key = goes ? config_key(i, i % 2 == 0 ? "14" : "15")
                                   : bytes("64 14 1a 00 00") + std::string(1, static_cast<char>(i));
      before[key] = "v";
      if (!goes) {
        after[key] = "v";
      }
    }
    before[other] = after[other] = "stays";
    platform.set_store(k_cfg, before);
    gsync("4.2(2)", "4.1(3)");
    EXPECT_EQ(after, platform.records(k_cfg)) << which;
  }
}

TEST_F(ethpm_test, runtime_values_and_keys_of_other_lengths) {
  const std::string good = runtime(124);
  const records_t before = {
      {bytes("33 06 1a 00 00 01"), good.substr(0, 13)}, // one byte short of the reason
      {bytes("33 06 1a 00 00 02"), ""},
      {bytes("33 06 1a 00 00 03"), good.substr(0, 14)}, // just the reason
      {bytes("33 06 1a 00 00"), good},                  // a key one byte short
      {bytes("33"), good},
      {bytes("33 06"), good},
      {bytes("33 06 1a 00 00 04 05"), good}, // a longer key counts
      {"", good},
      {bytes("65 14 1a 00 00 01"), good}, // another type
  };
  platform.set_store(k_info, before);
  gsync("4.2(2)", "4.1(3)");
  records_t after = before;
  after[bytes("33 06 1a 00 00 03")] = runtime(143).substr(0, 14);
  after[bytes("33 06 1a 00 00 04 05")] = runtime(143);
  EXPECT_EQ(after, platform.records(k_info));
  EXPECT_EQ(2u, platform.calls("pss2_store").size());
}

TEST_F(ethpm_test, config_keys_that_are_too_short_stay) {
  const records_t before = {{bytes("65 14 1a 00 00"), "a"}, {bytes("65"), "b"}, {"", "c"}};
  platform.set_store(k_cfg, before);
  gsync("4.2(2)", "4.1(3)");
  EXPECT_EQ(before, platform.records(k_cfg));
}

// ---- Hooks

TEST_F(ethpm_test, key_matchers) {
  const struct {
    const char *key;
    bool runtime;
    bool config;
    uint32 interface; // 7: left alone
  } rows[] = {
      {"33 06 1a 2b 3c 4d", true, false, 0x1a2b3c4d},
      {"33 05 1a 2b 3c 4d", false, false, 0x1a2b3c4d},
      {"33 07 00 00 00 01", false, false, 1},
      {"65 14 1a 2b 3c 4d", false, true, 0x1a2b3c4d},
      {"65 15 1a 2b 3c 4d", false, true, 0x1a2b3c4d},
      {"65 16 1a 2b 3c 4d", false, false, 0x1a2b3c4d},
      {"65 13 1a 2b 3c 4d", false, false, 0x1a2b3c4d},
      {"34 06 1a 2b 3c 4d", false, false, 7},
      {"65 14 1a 2b 3c", false, false, 7},
      {"", false, false, 7},
  };
  for (const auto &row : rows) {
    std::string text = bytes(row.key);
    const pss_datum_t key = {text.data(), static_cast<uint32>(text.size())};
    uint32 interface = 7;
    uint32 length = 9;
    const bool of_runtime = row.key[0] == '3';
    for (const auto &[list, accepts] : {std::pair(ethpm_convert_runtime_pss_list, row.runtime),
                                        std::pair(ethpm_convert_config_tlv_pss_list, row.config)}) {
      interface = 7;
      length = 9;
      EXPECT_EQ(accepts, list->ethpm_is_pss_key_found(&key, &interface, &length)) << row.key;
      EXPECT_EQ(accepts ? 4u : 9u, length);
      const bool its_type = (list == ethpm_convert_runtime_pss_list) == of_runtime;
      EXPECT_EQ(its_type ? row.interface : 7u, interface) << row.key;
    }
  }
}

TEST_F(ethpm_test, the_lists_as_they_start) {
  for (const ethpm_pss_type_t &request : g_lists_at_start) {
    EXPECT_FALSE(request.b_version_chk) << request.change_request_name;
    EXPECT_EQ(0, static_cast<int>(request.transition)) << request.change_request_name;
    EXPECT_EQ(0, static_cast<int>(request.pss_action)) << request.change_request_name;
  }
  EXPECT_EQ(0, g_set_reasons_at_start);
  EXPECT_STREQ("Port state reason modification",
               ethpm_convert_runtime_pss_list[0].change_request_name);
  EXPECT_STREQ("Delete config tlv pss key",
               ethpm_convert_config_tlv_pss_list[0].change_request_name);
  EXPECT_EQ(255u, sizeof ethpm_convert_runtime_pss_list[0].change_request_name);
  EXPECT_EQ(64u, sizeof(ethpm_pss_change_list_info_t::pss_name));
  EXPECT_EQ(0, ETHPM_TR_NOCHANGE);
  EXPECT_EQ(1, ETHPM_TR_DOWNGRADE);
  EXPECT_EQ(2, ETHPM_TR_UPGRADE);
  EXPECT_EQ(0, ETHPM_PSS_NOCHANGE);
  EXPECT_EQ(1, ETHPM_PSS_UPDATE);
  EXPECT_EQ(2, ETHPM_PSS_DELETE);
}

TEST_F(ethpm_test, hooks_called_with_nulls) {
  const pss_datum_t datum = {nullptr, 6};
  uint32 number = 0;
  pss_datum_t *out = nullptr;
  ethpm_issu_transition_t transition = ETHPM_TR_NOCHANGE;
  ethpm_pss_action_t action = ETHPM_PSS_NOCHANGE;
  char bytes_of_key[] = "3\6abcd";
  const pss_datum_t key = {bytes_of_key, 6};
  for (const ethpm_pss_type_t *list :
       {ethpm_convert_runtime_pss_list, ethpm_convert_config_tlv_pss_list}) {
    EXPECT_EQ(lines_t(), traced([&] {
                EXPECT_FALSE(list->ethpm_fn_ver_chk(nullptr, "4.1(1)", &transition, &action));
                EXPECT_FALSE(list->ethpm_fn_ver_chk("4.2(1)", nullptr, &transition, &action));
                EXPECT_FALSE(list->ethpm_fn_ver_chk("4.2(1)", "4.1(1)", nullptr, &action));
                EXPECT_FALSE(list->ethpm_fn_ver_chk("4.2(1)", "4.1(1)", &transition, nullptr));
              }));
    EXPECT_FALSE(list->ethpm_is_pss_key_found(nullptr, &number, &number));
    EXPECT_FALSE(list->ethpm_is_pss_key_found(&datum, &number, &number));
    EXPECT_FALSE(list->ethpm_is_pss_key_found(&key, nullptr, &number));
    EXPECT_FALSE(list->ethpm_is_pss_key_found(&key, &number, nullptr));
    EXPECT_FALSE(list->ethpm_change_pss_value(nullptr, &key, &out, &out));
    EXPECT_FALSE(list->ethpm_change_pss_value(&key, nullptr, &out, &out));
    EXPECT_FALSE(list->ethpm_change_pss_value(&key, &key, nullptr, &out));
    EXPECT_FALSE(list->ethpm_change_pss_value(&key, &key, &out, nullptr));
    list->ethpm_write_pss_value(nullptr, nullptr);
  }
  ethpm_convert_runtime_pss_list[0].ethpm_write_pss_value(&key, nullptr);
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(ethpm_test, without_a_transition_the_copies_are_as_they_were) {
  std::string key_text = runtime_key(1);
  for (std::string text : {runtime(124), std::string("short"), std::string()}) {
    const pss_datum_t key = {key_text.data(), 6};
    const pss_datum_t value = {text.data(), static_cast<uint32>(text.size())};
    pss_datum_t *wkey = nullptr;
    pss_datum_t *wvalue = nullptr;
    ASSERT_TRUE(
        ethpm_convert_runtime_pss_list[0].ethpm_change_pss_value(&key, &value, &wkey, &wvalue));
    EXPECT_NE(&key, wkey);
    EXPECT_NE(key.ptr, wkey->ptr);
    EXPECT_EQ(key_text, std::string(static_cast<char *>(wkey->ptr), wkey->siz));
    EXPECT_EQ(text, std::string(static_cast<char *>(wvalue->ptr), wvalue->siz));
    for (pss_datum_t *copy : {wkey, wvalue}) {
      std::free(copy->ptr);
      std::free(copy);
    }
  }
}

// Bytes as a datum of exactly their size, so that a sanitizer finds a read behind them.
struct exact {
  explicit exact(const std::string &text)
      : datum{std::malloc(std::max<size_t>(text.size(), 1)), static_cast<uint32>(text.size())} {
    std::memcpy(datum.ptr, text.data(), text.size());
  }
  ~exact() { std::free(datum.ptr); }
  exact(const exact &) = delete;
  exact &operator=(const exact &) = delete;
  pss_datum_t datum;
};

TEST_F(ethpm_test, copies_that_there_is_no_memory_for) {
  const exact key(runtime_key(1));
  const exact value(runtime(124));
  for (unsigned nth = 1; nth <= 5; ++nth) { // datum and bytes of the key, and of the value
    pss_datum_t *wkey = nullptr;
    pss_datum_t *wvalue = nullptr;
    scarce_malloc::refuse_nth(nth);
    const bool changed = ethpm_convert_runtime_pss_list[0].ethpm_change_pss_value(
        &key.datum, &value.datum, &wkey, &wvalue);
    EXPECT_EQ(nth <= 4, scarce_malloc::relieve());
    EXPECT_EQ(nth == 5, changed) << nth;
    for (pss_datum_t *copy : {wkey, wvalue}) {
      EXPECT_EQ(nth == 5, copy != nullptr);
      std::free(copy != nullptr ? copy->ptr : nullptr);
      std::free(copy);
    }
  }
}

TEST_F(ethpm_test, version_checks_tell_transition_and_action) {
  const struct {
    const char *to;
    const char *from;
    int reasons[3]; // accepted, transition, action
    int config[3];
  } rows[] = {
      {"4.2(0)", "4.1(9)", {1, 2, 1}, {1, 2, 2}}, {"4.1(9)", "4.2(0)", {1, 1, 1}, {1, 1, 2}},
      {"4.2(1)", "4.2(0)", {0, 0, 0}, {0, 0, 0}}, {"4.2(0)", "4.2(1)", {0, 0, 0}, {0, 0, 0}},
      {"4.1(2)", "4.1(1)", {0, 0, 0}, {0, 0, 0}}, {"4.2(0)", "4.2(0)", {0, 0, 0}, {0, 0, 0}},
      {"4.1(1)", "5.0(0)", {1, 1, 1}, {1, 1, 2}}, {"4.2(0)a", "4.2", {0, 0, 0}, {0, 0, 0}},
  };
  for (const auto &row : rows) {
    for (const auto &[list, expected] :
         {std::pair(ethpm_convert_runtime_pss_list, row.reasons),
          std::pair(ethpm_convert_config_tlv_pss_list, row.config)}) {
      ethpm_issu_transition_t transition = ETHPM_TR_NOCHANGE;
      ethpm_pss_action_t action = ETHPM_PSS_NOCHANGE;
      bool accepted = false;
      traced([&, list = list] {
        accepted = list->ethpm_fn_ver_chk(row.to, row.from, &transition, &action);
      });
      EXPECT_EQ(expected[0] != 0, accepted) << row.to << row.from;
      EXPECT_EQ(expected[1], static_cast<int>(transition)) << row.to << row.from;
      EXPECT_EQ(expected[2], static_cast<int>(action)) << row.to << row.from;
    }
  }
}

TEST_F(ethpm_test, the_dummy_hands_on_what_it_was_given) {
  std::string text = "k";
  const pss_datum_t key = {text.data(), 1};
  const pss_datum_t value = {text.data(), 0};
  pss_datum_t *wkey = nullptr;
  pss_datum_t *wvalue = nullptr;
  EXPECT_TRUE(
      ethpm_convert_config_tlv_pss_list[0].ethpm_change_pss_value(&key, &value, &wkey, &wvalue));
  EXPECT_EQ(&key, wkey);
  EXPECT_EQ(&value, wvalue);
}

// ---- One process, several conversions

TEST_F(ethpm_test, up_and_down_again_in_one_process) {
  platform.set_store(k_info, {{runtime_key(1), runtime(124)}, {runtime_key(2), runtime(145)}});
  platform.set_store(k_cfg);
  gsync("4.2(2)", "4.1(3)");
  EXPECT_EQ(records_t({{runtime_key(1), runtime(143)}, {runtime_key(2), runtime(145)}}),
            platform.records(k_info));
  platform.put(k_cfg, config_key(1), "a");
  EXPECT_EQ("Change Request :Port state reason modification,  b_version_chk:1, transition:1 "
            "pss_action : 1 (from:4.2(2), to;4.1(3))\n",
            gsync("4.1(3)", "4.2(2)").at(3));
  EXPECT_EQ(records_t({{runtime_key(1), runtime(124)}, {runtime_key(2), runtime(126)}}),
            platform.records(k_info));
  EXPECT_TRUE(platform.records(k_cfg).empty());
}

// The startup converter's list is one of gsync's: what was accepted there is marked here.
TEST_F(ethpm_test, a_mark_of_one_converter_is_seen_by_the_other) {
  platform.set_store(k_cfg);
  platform.set_store(k_saved, {{config_key(1), "a"}});
  gsync("4.2(2)", "4.1(3)");
  EXPECT_EQ(
      lines_t({"Ethpm - Path - /cfg \n", "Ethpm pss uri: nonvolatile:/cfg/bin/ethpm_saved_config\n",
               "ETHPM:From version - 1 and To version - 1 \n",
               "Change Request :Delete config tlv pss key,  b_version_chk:1, transition:2 "
               "pss_action : 2 (from:4.1(3), to;4.1(4))\n",
               "Nothing to fix for versions (from:4.1(3), to;4.1(4))\n"}),
      startup("4.1(4)", "4.1(3)"));
  EXPECT_EQ(1u, platform.records(k_saved).size());
}

// ---- The walk

class ethpm_walk_test : public ethpm_test {
protected:
  void TearDown() override {
    platform.reset();
    platform.set_store(k_info);
    gsync("4.2(2)", "4.2(2)"); // the list in hand is one that outlives the test
    ethpm_test::TearDown();
  }

  lines_t walk(ethpm_pss_type_t *list, size_t length, const char *to = "4.2(2)",
               const char *from = "4.1(3)") {
    return traced([&] { ethpm_update_pss_list(to, from, k_cfg, list, length); });
  }
};

// Hooks of a test's own requests.
bool accept_update(const char *, const char *, ethpm_issu_transition_t *transition,
                   ethpm_pss_action_t *action) {
  EXPECT_EQ(ETHPM_TR_NOCHANGE, *transition);
  EXPECT_EQ(ETHPM_PSS_NOCHANGE, *action);
  *transition = ETHPM_TR_UPGRADE;
  *action = ETHPM_PSS_UPDATE;
  return true;
}
bool g_accepts = true;
bool accept_sometimes(const char *, const char *, ethpm_issu_transition_t *transition,
                      ethpm_pss_action_t *action) {
  *transition = ETHPM_TR_DOWNGRADE;
  *action = ETHPM_PSS_UPDATE;
  return g_accepts;
}
std::vector<std::string> g_handled;
std::string request_now() {
  return std::to_string(ethpm_get_issu_transition()) + std::to_string(ethpm_get_pss_action());
}
bool every_key(const pss_datum_t *, void *, uint32 *) {
  return true;
}
bool note_value(const pss_datum_t *key, const pss_datum_t *value, pss_datum_t **, pss_datum_t **) {
  g_handled.push_back(request_now() + " " + std::string(static_cast<char *>(key->ptr), key->siz) +
                      "=" + std::string(static_cast<char *>(value->ptr), value->siz));
  return false;
}
ethpm_pss_type_t request_of(const char *name, ethpm_fn_is_ver_chk check) {
  ethpm_pss_type_t request = {};
  std::snprintf(request.change_request_name, sizeof request.change_request_name, "%s", name);
  request.ethpm_fn_ver_chk = check;
  request.ethpm_is_pss_key_found = every_key;
  request.ethpm_change_pss_value = note_value;
  request.ethpm_write_pss_value = ethpm_convert_runtime_pss_list[0].ethpm_write_pss_value;
  return request;
}

TEST_F(ethpm_walk_test, several_requests_share_a_value_that_is_read_once) {
  platform.set_store(k_cfg, {{"k1", "v1"}, {"k2", "v2"}});
  ethpm_pss_type_t list[] = {request_of("one", accept_update), request_of("two", accept_sometimes)};
  g_accepts = true;
  g_handled.clear();
  EXPECT_EQ(lines_t({"Change Request :one,  b_version_chk:1, transition:2 pss_action : 1 "
                     "(from:4.1(3), to;4.2(2))\n",
                     "Change Request :two,  b_version_chk:1, transition:1 pss_action : 1 "
                     "(from:4.1(3), to;4.2(2))\n"}),
            walk(list, 2));
  EXPECT_EQ(lines_t({"21 k1=v1", "11 k1=v1", "21 k2=v2", "11 k2=v2"}), g_handled);
  EXPECT_EQ(2u, platform.calls("pss2_getvalue").size());
}

// A value that cannot be read skips the request only: the next one reads it again.
TEST_F(ethpm_walk_test, a_value_that_cannot_be_read_is_read_again_by_the_next_request) {
  const std::function<void()> failures[] = {
      [this] { platform.fail("pss2_getvalue", 0x4048000B); },
      [this] { platform.answer_null("pss2_getvalue"); },
      [this] { platform.answer_without_bytes("pss2_getvalue", 2); },
  };
  for (const auto &fail : failures) {
    platform.reset();
    platform.set_store(k_cfg, {{"k1", "v1"}, {"k2", "v2"}});
    ethpm_pss_type_t list[] = {request_of("one", accept_update),
                               request_of("two", accept_sometimes)};
    g_accepts = true;
    g_handled.clear();
    fail();
    walk(list, 2);
    EXPECT_EQ(lines_t({"11 k1=v1", "21 k2=v2", "11 k2=v2"}), g_handled);
    EXPECT_EQ(3u, platform.calls("pss2_getvalue").size());
  }
}

// A deletion whose value change refuses still ends its key: the next one is reached by a step.
TEST_F(ethpm_walk_test, a_refused_deletion_ends_the_handling_of_its_key) {
  platform.set_store(k_cfg, {{config_key(1), "a"}, {config_key(2), "b"}});
  ethpm_pss_type_t list[] = {ethpm_convert_config_tlv_pss_list[0],
                             request_of("two", accept_update)};
  list[0].ethpm_change_pss_value = note_value;
  g_handled.clear();
  walk(list, 2);
  EXPECT_EQ(lines_t({"22 " + config_key(1) + "=a", "22 " + config_key(2) + "=b"}), g_handled);
  EXPECT_EQ(2u, platform.records(k_cfg).size());
  EXPECT_EQ(4u, platform.calls("pss2_getkey").size()); // each, and again after its handling
}

// A version check sees its own request through the getters, as it was before.
bool note_request(const char *to, const char *from, ethpm_issu_transition_t *,
                  ethpm_pss_action_t *) {
  g_handled.push_back(request_now() + " " + from + " " + to);
  return false;
}

TEST_F(ethpm_walk_test, getters_follow_the_version_checks) {
  platform.set_store(k_cfg);
  ethpm_pss_type_t list[] = {request_of("one", note_request), request_of("two", note_request)};
  list[0].transition = ETHPM_TR_DOWNGRADE;
  list[0].pss_action = ETHPM_PSS_UPDATE;
  list[1].transition = ETHPM_TR_UPGRADE;
  list[1].pss_action = ETHPM_PSS_DELETE;
  g_handled.clear();
  walk(list, 2);
  EXPECT_EQ(lines_t({"11 4.1(3) 4.2(2)", "22 4.1(3) 4.2(2)"}), g_handled);
}

TEST_F(ethpm_walk_test, an_accepted_request_stays_marked) {
  platform.set_store(k_cfg, {{"k1", "v1"}});
  ethpm_pss_type_t list[] = {request_of("one", accept_sometimes), request_of("two", accept_update)};
  g_accepts = true;
  walk(list, 2);
  g_accepts = false; // not accepted for these releases, but still marked, with what it was
  g_handled.clear();
  EXPECT_EQ("Change Request :one,  b_version_chk:1, transition:1 pss_action : 1 (from:4.1(3), "
            "to;4.2(2))\n",
            walk(list, 2).front());
  EXPECT_EQ(lines_t({"11 k1=v1", "21 k1=v1"}), g_handled);
  // alone, it does not make a walk
  g_handled.clear();
  EXPECT_EQ("Nothing to fix for versions (from:4.1(3), to;4.2(2))\n", walk(list, 1).back());
  EXPECT_TRUE(g_handled.empty());
}

TEST_F(ethpm_walk_test, the_shipped_lists_stay_marked_too) {
  platform.set_store(k_info, {{runtime_key(1), runtime(124)}});
  gsync("4.2(2)", "4.1(3)");
  const lines_t lines = gsync("4.2(3)", "4.2(2)");
  EXPECT_EQ("Change Request :Port state reason modification,  b_version_chk:1, transition:2 "
            "pss_action : 1 (from:4.2(2), to;4.2(3))\n",
            lines.at(3));
  EXPECT_EQ("Nothing to fix for versions (from:4.2(2), to;4.2(3))\n", lines.at(4));
  EXPECT_EQ(runtime(143), platform.value(k_info, runtime_key(1))); // not mapped again
}

TEST_F(ethpm_walk_test, a_request_that_was_never_accepted_is_not_applied) {
  platform.set_store(k_cfg, {{"k1", "v1"}});
  ethpm_pss_type_t list[] = {request_of("one", accept_sometimes), request_of("two", accept_update)};
  g_accepts = false;
  g_handled.clear();
  walk(list, 2);
  EXPECT_EQ(lines_t({"21 k1=v1"}), g_handled);
}

TEST_F(ethpm_walk_test, a_deletion_ends_the_handling_of_its_key_only) {
  platform.set_store(k_cfg, {{config_key(1), "gone"}, {"k1", "v1"}});
  ethpm_pss_type_t list[] = {ethpm_convert_config_tlv_pss_list[0],
                             request_of("two", accept_update)};
  g_handled.clear();
  walk(list, 2);
  EXPECT_EQ(lines_t({"21 k1=v1"}), g_handled);
  EXPECT_EQ(records_t({{"k1", "v1"}}), platform.records(k_cfg));
}

TEST_F(ethpm_walk_test, what_stands_behind_a_list_is_not_its_own) {
  platform.set_store(k_cfg, {{"k1", "v1"}});
  ethpm_pss_type_t list[] = {request_of("one", accept_update), request_of("two", accept_update)};
  list[1].b_version_chk = true;
  g_handled.clear();
  EXPECT_EQ(1u, walk(list, 1).size());
  EXPECT_EQ(lines_t({"21 k1=v1"}), g_handled);
}

TEST_F(ethpm_walk_test, an_empty_list_fixes_nothing) {
  platform.set_store(k_cfg, {{"k1", "v1"}});
  EXPECT_EQ(lines_t({"Nothing to fix for versions (from:4.1(3), to;4.2(2))\n"}), walk(nullptr, 0));
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(ethpm_walk_test, every_failing_call) {
  // open, first, key, value, delete, key, value, delete, key, close
  const struct {
    unsigned nth;
    size_t calls;
    size_t left; // records
    const char *line;
  } rows[] = {
      {1, 1, 2, "pss uri: nonvolatile:/cfg/ethpm_runtime_cfg does not exist 0x4048000b\n"},
      {2, 3, 2, nullptr},
      {3, 4, 2, "Could not get the first key in the runtime info pss:0x4048000b\n"},
      {4, 10, 1, nullptr}, // a value that cannot be read skips the request
      {5, 12, 1, nullptr}, // a deletion that fails: on to the next key
      {6, 7, 1, nullptr},
      {7, 9, 1, nullptr},
      {8, 11, 1, nullptr},
      {9, 10, 0, nullptr},
      {10, 10, 2, nullptr}, // a failed close loses what was written
  };
  for (const auto &row : rows) {
    forget_process();
    platform.reset();
    platform.set_store(k_cfg, {{config_key(1), "a"}, {config_key(2), "b"}});
    platform.fail_any(row.nth, 0x4048000B);
    const lines_t lines = walk(ethpm_convert_config_tlv_pss_list, 1);
    if (row.line != nullptr) {
      EXPECT_EQ(row.line, lines.back());
    }
    EXPECT_EQ(row.calls, platform.calls().size()) << row.nth;
    EXPECT_EQ(row.left, platform.records(k_cfg).size()) << row.nth;
    EXPECT_TRUE(platform.open_handles().empty()) << row.nth;
    EXPECT_EQ(1u, platform.scripted());
  }
}

TEST_F(ethpm_walk_test, every_failing_call_of_a_rewrite) {
  // open, first, key, value, store, next, key, value, store, next, close
  const struct {
    unsigned nth;
    size_t calls;
    uint32 first; // reasons
    uint32 second;
  } rows[] = {
      {1, 1, 124, 125},  {2, 3, 124, 125},   {3, 4, 124, 125},   {4, 10, 124, 144},
      {5, 11, 124, 144}, {6, 7, 143, 125},   {7, 8, 143, 125},   {8, 10, 143, 125},
      {9, 11, 143, 125}, {10, 11, 143, 144}, {11, 11, 124, 125}, // a failed close loses all
  };
  for (const auto &row : rows) {
    forget_process();
    platform.reset();
    platform.set_store(k_info, {{runtime_key(1), runtime(124)}, {runtime_key(2), runtime(125)}});
    platform.fail_any(row.nth, 0x4048000B);
    gsync("4.2(2)", "4.1(3)");
    // the second store is missing: its opening is the last call
    EXPECT_EQ(row.calls + 1, platform.calls().size()) << row.nth;
    EXPECT_EQ(
        records_t({{runtime_key(1), runtime(row.first)}, {runtime_key(2), runtime(row.second)}}),
        platform.records(k_info))
        << row.nth;
    EXPECT_TRUE(platform.open_handles().empty()) << row.nth;
    EXPECT_EQ(1u, platform.scripted()) << row.nth;
  }
}

TEST_F(ethpm_walk_test, records_of_any_size_are_rewritten_whole) {
  for (const size_t size : {0, 1, 7, 30, 79, 80, 1000, 500000}) {
    forget_process();
    const std::string rest(size, 'r');
    platform.set_store(k_info, {{runtime_key(1), runtime(124) + rest}});
    gsync("4.2(2)", "4.1(3)");
    EXPECT_EQ(records_t({{runtime_key(1), runtime(143) + rest}}), platform.records(k_info)) << size;
  }
}

// A record that no copy can be made of stays, and the walk goes on.
TEST_F(ethpm_walk_test, a_rewrite_without_memory) {
  for (unsigned nth = 1; nth <= 4; ++nth) { // the copies of a key and a value
    forget_process();
    platform.reset();
    platform.set_store(k_info, {{runtime_key(1), runtime(124)}, {runtime_key(2), runtime(124)}});
    platform.before("pss2_getvalue", [nth] { scarce_malloc::refuse_nth(nth); });
    gsync("4.2(2)", "4.1(3)");
    EXPECT_TRUE(scarce_malloc::relieve());
    EXPECT_EQ(records_t({{runtime_key(1), runtime(124)}, {runtime_key(2), runtime(143)}}),
              platform.records(k_info))
        << nth;
    EXPECT_TRUE(platform.open_handles().empty());
  }
}

// Keys above 64 bytes, which the walk needs memory for.
TEST_F(ethpm_walk_test, large_keys) {
  const std::string large[] = {config_key(1) + std::string(58, 'k'),
                               config_key(1) + std::string(59, 'k'),
                               config_key(1) + std::string(500, 'k'), config_key(2)};
  records_t records;
  for (const std::string &key : large) {
    records[key] = "v";
  }
  platform.set_store(k_cfg, records);
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_TRUE(platform.records(k_cfg).empty());

  platform.set_store(k_cfg, records);
  platform.answer_null_from("pss2_delete"); // each is found again under the cursor, and passed
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_EQ(8u, platform.calls("pss2_delete").size());
  EXPECT_EQ(records, platform.records(k_cfg));
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(ethpm_walk_test, a_large_key_that_there_is_no_memory_for) {
  const std::string large = config_key(3) + std::string(194, 'k');
  const records_t records = {
      {config_key(1), "a"}, {config_key(2), "b"}, {large, "c"}, {config_key(4), "d"}};
  const struct {
    unsigned nth;
    records_t left;
  } rows[] = {
      {1, {}},                                   // the guard's: it goes on without it
      {2, {{large, "c"}, {config_key(4), "d"}}}, // the walk's own: it ends
  };
  for (const auto &row : rows) {
    forget_process();
    platform.reset();
    platform.set_store(k_cfg, records);
    platform.before(
        "pss2_getkey", [&row] { scarce_malloc::refuse_nth(row.nth); }, 3);
    walk(ethpm_convert_config_tlv_pss_list, 1);
    scarce_malloc::relieve();
    EXPECT_EQ(row.left, platform.records(k_cfg)) << row.nth;
    EXPECT_TRUE(platform.open_handles().empty());
  }
}

// A key that neither goes nor gives way to another one ends the walk at once. It is the fourth,
// which the guard against circles does not hold yet when it comes again.
TEST_F(ethpm_walk_test, a_key_that_stays_under_the_cursor_ends_the_walk) {
  platform.set_store(k_cfg, {{config_key(1), "a"},
                             {config_key(2), "b"},
                             {config_key(3), "c"},
                             {config_key(4), "d"},
                             {config_key(5), "e"}});
  platform.answer_null_from("pss2_delete", 4);
  platform.answer_from("pss2_getkey", config_key(4), 4);
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_EQ(6u, platform.calls("pss2_getkey").size()); // four, after the deletion, after the step
  EXPECT_EQ(4u, platform.calls("pss2_delete").size());
  EXPECT_TRUE(platform.open_handles().empty());
}

// A step that is reported as done, but is not: the second record's reason, 143, becomes 124, which
// would become 162 if it were renumbered again.
TEST_F(ethpm_walk_test, a_cursor_that_stays_has_no_record_changed_twice) {
  platform.set_store(k_info, {{runtime_key(1), runtime(1)},
                              {runtime_key(2), runtime(143)},
                              {runtime_key(3), runtime(143)}});
  platform.answer_null_from("pss2_move2location", 3);
  gsync("4.1(3)", "4.2(2)");
  EXPECT_EQ((records_t{{runtime_key(1), runtime(1)},
                       {runtime_key(2), runtime(124)},
                       {runtime_key(3), runtime(143)}}),
            platform.records(k_info));
  EXPECT_EQ(1u, platform.calls("pss2_store").size());
  EXPECT_TRUE(platform.open_handles().empty());
}

// Only one status of a location means that there is no such record.
TEST_F(ethpm_walk_test, other_statuses_of_a_location_do_not_end_the_walk) {
  const records_t records = {{"k1", "v1"}, {config_key(1), "a"}};
  platform.set_store(k_cfg, records);
  platform.answer_handles(0x4048000B);
  EXPECT_EQ("Could not get the first key in the runtime info pss:0x40480003\n",
            walk(ethpm_convert_config_tlv_pss_list, 1).back());

  platform.set_store(k_cfg, {{bytes("64"), "a"}, {config_key(1), "b"}});
  platform.clear();
  platform.answer_handles(0x4048000B, 2); // the cursor stays where it is, once
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_EQ(lines_t({"pss2_open(\"nonvolatile:/cfg/ethpm_runtime_cfg\", 0x3, 0, 0, 0)",
                     "pss2_move2location([2], PSS_FIRST_KEY)", "pss2_getkey(2)",
                     "pss2_move2location([2], PSS_NEXT_KEY)", "pss2_getkey(2)", "pss2_close(2)"}),
            platform.calls()); // the same key again: a circle

  platform.answer_handles(0x40480003);
  EXPECT_EQ("Could not find the first key in the runtime info pss:0x0, 0x40480003\n",
            walk(ethpm_convert_config_tlv_pss_list, 1).back());
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(ethpm_walk_test, a_first_key_that_cannot_be_reached) {
  platform.set_store(k_cfg, {{config_key(1), "a"}});
  platform.fail("pss2_move2location", 0x4048000B);
  const std::string line = walk(ethpm_convert_config_tlv_pss_list, 1).back();
  EXPECT_EQ(0u, line.find("Could not find the first key in the runtime info pss:0x4048000b, 0x"))
      << line;
  platform.answer_null("pss2_getkey");
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_TRUE(platform.open_handles().empty());
  EXPECT_EQ(1u, platform.records(k_cfg).size());
  platform.fail("pss2_getkey", 0x4048000B);
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_TRUE(platform.open_handles().empty());
  EXPECT_EQ(1u, platform.records(k_cfg).size());
}

TEST_F(ethpm_walk_test, a_next_key_that_cannot_be_read_ends_the_walk) {
  const records_t records = {{bytes("64"), "a"}, {bytes("65"), "b"}, {bytes("66"), "c"}};
  const std::function<void()> failures[] = {
      [this] { platform.fail("pss2_getkey", 0x4048000B, 2); },
      [this] { platform.answer_null("pss2_getkey", 2); },
      [this] { platform.answer_without_bytes("pss2_getkey", 4, 2); }};
  for (const auto &fail : failures) {
    platform.reset();
    platform.set_store(k_cfg, records);
    fail();
    walk(ethpm_convert_config_tlv_pss_list, 1);
    EXPECT_EQ(2u, platform.calls("pss2_getkey").size());
    EXPECT_TRUE(platform.open_handles().empty());
    EXPECT_EQ(records, platform.records(k_cfg));
  }
}

TEST_F(ethpm_walk_test, deletions_that_do_nothing_end) {
  const records_t records = {{config_key(1), "a"}, {config_key(2), "b"}, {config_key(3), "c"}};
  platform.set_store(k_cfg, records);
  platform.answer_null_from("pss2_delete"); // reported as done
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_EQ(3u, platform.calls("pss2_delete").size()); // each was tried once
  EXPECT_EQ(records, platform.records(k_cfg));

  platform.reset();
  platform.set_store(k_cfg, records);
  platform.fail_from("pss2_delete", 0x4048000A);
  platform.answer_handles_from(0); // and the cursor stands still
  walk(ethpm_convert_config_tlv_pss_list, 1);
  EXPECT_LE(platform.calls("pss2_delete").size(), 2u);
  EXPECT_TRUE(platform.open_handles().empty());
}

TEST_F(ethpm_walk_test, a_cursor_that_goes_in_circles_ends_the_walk) {
  platform.set_store(k_info, {{runtime_key(1), runtime(1)}, {runtime_key(2), runtime(1)}});
  unsigned calls = 0;
  for (unsigned nth = 1; nth <= 400; ++nth) { // six keys, round and round
    platform.answer("pss2_getkey", runtime_key(static_cast<uint8>(nth % 6)), nth);
  }
  platform.answer_handles_from(0);
  gsync("4.2(2)", "4.1(3)");
  calls = static_cast<unsigned>(platform.calls("pss2_getkey").size());
  EXPECT_LT(calls, 40u);
  EXPECT_TRUE(platform.open_handles().empty());
}

// ---- Keys that are kept

TEST(kept_key_test, a_key_that_there_is_no_memory_for_leaves_the_former_one) {
  for (const size_t size : {0, 1, 64, 65, 300}) {
    datamorph_kept_key kept;
    const exact former(std::string(size, 'f'));
    ASSERT_TRUE(kept.keep(former.datum));
    const exact larger(std::string(301, 'l'));
    scarce_malloc::refuse_nth(1);
    EXPECT_FALSE(kept.keep(larger.datum));
    EXPECT_TRUE(scarce_malloc::relieve());
    EXPECT_TRUE(kept.equals(former.datum)) << size;
    EXPECT_TRUE(kept.keep(larger.datum));
    EXPECT_FALSE(kept.equals(former.datum));
    EXPECT_TRUE(kept.equals(larger.datum));
    EXPECT_TRUE(kept.keep(former.datum)); // in the room of the larger one
    EXPECT_TRUE(kept.equals(former.datum));
  }
}

TEST(kept_key_test, keys_of_the_usual_sizes_need_no_memory) {
  datamorph_kept_key kept;
  const exact usual(std::string(64, 'u'));
  scarce_malloc::refuse_nth(1);
  EXPECT_TRUE(kept.keep(usual.datum));
  EXPECT_FALSE(scarce_malloc::relieve());
}

TEST(kept_key_test, keys_differ_in_bytes_and_in_size) {
  datamorph_kept_key kept;
  const exact key("abc");
  ASSERT_TRUE(kept.keep(key.datum));
  for (const char *other : {"", "ab", "abd", "bbc", "abcd"}) {
    const exact differs(other);
    EXPECT_FALSE(kept.equals(differs.datum)) << other;
  }
  const exact same("abc");
  EXPECT_TRUE(kept.equals(same.datum));
}

TEST(kept_key_test, keys_are_in_the_order_of_their_bytes_a_prefix_first) {
  datamorph_kept_key kept;
  const exact key("bcd");
  ASSERT_TRUE(kept.keep(key.datum));
  const struct {
    const char *other;
    bool is_before;
  } rows[] = {{"", false},     {"bc", false}, {"bcd", false}, {"bcda", true},
              {"bce", true},   {"c", true},   {"bcc", false}, {"a", false},
              {"azzz", false}, {"bd", true},  {"\xff", true}};
  for (const auto &row : rows) {
    const exact other(row.other);
    EXPECT_EQ(row.is_before, kept.is_before(other.datum)) << row.other;
  }
  const datamorph_kept_key none;
  const exact empty("");
  EXPECT_TRUE(none.equals(empty.datum)); // as it begins
  EXPECT_FALSE(none.is_before(empty.datum));
  EXPECT_TRUE(none.is_before(key.datum));
}

TEST(circle_guard_test, a_circle_of_any_length_is_noticed_and_a_line_is_none) {
  for (unsigned length = 1; length <= 40; ++length) {
    datamorph_circle_guard guard;
    unsigned steps = 0;
    for (bool met = false; !met && steps < 1000; ++steps) {
      const exact key(std::to_string(steps % length));
      met = guard.has_met(key.datum);
      EXPECT_TRUE(!met || steps >= length) << length;
    }
    EXPECT_LE(steps, 4 * length + 2) << length;
  }
  datamorph_circle_guard guard;
  for (unsigned step = 0; step < 1000; ++step) {
    const exact key(std::to_string(step));
    EXPECT_FALSE(guard.has_met(key.datum));
  }
}

TEST(circle_guard_test, without_memory_for_its_key_it_holds_none) {
  datamorph_circle_guard guard;
  const exact key(std::string(65, 'k'));
  scarce_malloc::refuse_nth(1);
  EXPECT_FALSE(guard.has_met(key.datum));
  EXPECT_TRUE(scarce_malloc::relieve());
  EXPECT_FALSE(guard.has_met(exact("").datum)); // what it would hold if it held nothing
}

TEST_F(ethpm_walk_test, getters_before_any_conversion) {
  EXPECT_EQ(0u, static_cast<uint32>(g_transition_at_start));
  EXPECT_EQ(0u, static_cast<uint32>(g_action_at_start));
}

TEST_F(ethpm_walk_test, getters_follow_the_request_in_hand) {
  platform.set_store(k_cfg, {{"k", "v"}});
  ethpm_pss_type_t list[] = {request_of("one", accept_update)};
  walk(list, 1);
  EXPECT_EQ(ETHPM_TR_UPGRADE, ethpm_get_issu_transition());
  EXPECT_EQ(ETHPM_PSS_UPDATE, ethpm_get_pss_action());
  platform.set_store(k_info);
  gsync("4.2(2)", "4.2(2)"); // back to a list that outlives the test
  EXPECT_EQ(ETHPM_TR_NOCHANGE, ethpm_get_issu_transition());
}

} // namespace
