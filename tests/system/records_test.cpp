// store show tells what the records mean whose form is known, whatever their bytes are.
#include "command.h"

namespace {

class known_records : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  // What is said of one record that is put into the store.
  nlohmann::json decoded(const std::string &uri, const std::string &key, const std::string &value) {
    const result put = run({"store", "put", "sw", uri, key, value, "--create"});
    EXPECT_EQ(put.status, 0) << put.err;
    const nlohmann::json shown = run({"store", "show", "sw", uri, "--format", "json"}).json();
    for (const nlohmann::json &record : shown["records"]) {
      if (record["key"] == key) {
        return record.value("decoded", nlohmann::json());
      }
    }
    return "no such record";
  }
};

constexpr char dot1x_key[] = "640a00000000000000000000";
constexpr char table_key[] = "090000000000000000000000";

TEST_F(known_records, feature_flags) {
  const std::string dot1x = "nonvolatile:/cfg/0/dot1x_saved_config";
  const std::string security = "nonvolatile:/cfg/0/eth_port_sec_saved_config";
  const std::string kps = "nonvolatile:/a/b/kps_saved_config";
  const auto flag = [](const char *kind, bool enabled) {
    return nlohmann::json({{"kind", kind}, {"enabled", enabled}});
  };

  EXPECT_EQ(decoded(dot1x, dot1x_key, "01000000"), flag("DOT1X feature flag", true));
  EXPECT_EQ(decoded(dot1x, dot1x_key, "00000000ff"), flag("DOT1X feature flag", false));
  EXPECT_EQ(decoded(dot1x, dot1x_key, "00000080"), flag("DOT1X feature flag", true));
  EXPECT_EQ(decoded(security, "0000000000000000", "00000001"),
            flag("ETH_PORT_SEC feature flag", true));
  EXPECT_EQ(decoded(security, "0000000000000000", "00000000"),
            flag("ETH_PORT_SEC feature flag", false));
  EXPECT_EQ(decoded(kps, "f0000000", "00000000"), flag("KPS feature flag", true));
  EXPECT_EQ(decoded(kps, "f0000000", ""), flag("KPS feature flag", true));
  EXPECT_EQ(decoded("volatile:/cfg/0/cond_srv_config", "0f000000", "01000000"),
            flag("conditional service", true));
  EXPECT_EQ(decoded("volatile:/cfg/0/cond_srv_config", "0f000000", "00000000"),
            flag("conditional service", false));
}

TEST_F(known_records, values_that_are_none_of_theirs) {
  const auto damaged = [](const char *kind) {
    return nlohmann::json({{"kind", kind}, {"damaged", true}});
  };
  for (const char *value : {"", "01", "010000"}) {
    EXPECT_EQ(decoded("nonvolatile:/cfg/0/dot1x_saved_config", dot1x_key, value),
              damaged("DOT1X feature flag"));
    EXPECT_EQ(decoded("nonvolatile:/x/eth_port_sec_saved_config", "0000000000000000", value),
              damaged("ETH_PORT_SEC feature flag"));
  }
  for (const char *value : {"", "010000", "0100000000"}) {
    EXPECT_EQ(decoded("volatile:/cfg/0/cond_srv_config", "0f000000", value),
              damaged("conditional service"));
  }
  for (const char *value :
       {"", "0800000000000100ff000000ffffffffffffff", "08000000000001",
        /* less than its head */ "0700000000000100", /* more than there is */ "0900000000000100",
        /* cut in an entry's head */ "0b00000001000100010005",
        /* in its value */
        "10000000010001000100050"
        "07d010000",
        "ffffffff01000100010005007d01000000"}) {
    const bool whole = std::string(value).starts_with("0800000000000100");
    const nlohmann::json entries = {{"kind", "tag table"}, {"entries", nlohmann::json::array()}};
    EXPECT_EQ(decoded("nonvolatile:/x/sysmgr_config", table_key, value),
              whole ? entries : damaged("tag table"))
        << value;
    EXPECT_EQ(decoded("volatile:/sysmgr/tag_tables", "0102", value),
              (nlohmann::json({{"kind", "tag table"}, {"vdc", 258}, {"damaged", true}})))
        << value;
  }
  EXPECT_NE(run({"store", "show", "sw", "nonvolatile:/x/sysmgr_config"})
                .out.find(" tag table: damaged\n"),
            std::string::npos);
  EXPECT_NE(
      run({"store", "show", "sw", "volatile:/sysmgr/tag_tables"})
          .out.find(
              " tag table: vdc 258, damaged; convert refuses it: the switch has no VDC 258\n"),
      std::string::npos);
}

TEST_F(known_records, keys_and_stores_that_are_others) {
  const std::string table = "0800000000000100";
  const nlohmann::json nothing;
  // A key that differs in one byte, is shorter or longer.
  for (const char *key : {"", "08", "080000000000000000000000", "090000000000000000000001",
                          "0900000000000000000000", "09000000000000000000000000"}) {
    EXPECT_EQ(decoded("nonvolatile:/cfg/startup/bin/sysmgr_config", key, table), nothing) << key;
  }
  for (const char *key : {"", "00", "000001"}) {
    EXPECT_EQ(decoded("volatile:/sysmgr/tag_tables", key, table), nothing) << key;
  }
  EXPECT_EQ(
      decoded("nonvolatile:/cfg/0/dot1x_saved_config", "00000000000a640000000000", "01000000"),
      nothing);
  EXPECT_EQ(decoded("nonvolatile:/cfg/0/kps_saved_config", "000000f0", "01000000"), nothing);
  EXPECT_EQ(decoded("volatile:/cfg/0/kps_saved_config", "f0000000", "01000000"), nothing);
  EXPECT_EQ(decoded("volatile:/cfg/0/sysmgr_config", table_key, table), nothing);
  EXPECT_EQ(decoded("nonvolatile:/cfg/0/my_sysmgr_config", table_key, table), nothing);
  EXPECT_EQ(decoded("nonvolatile:/cfg/0/sysmgr_config/x", table_key, table), nothing);
  EXPECT_EQ(decoded("nonvolatile:/sysmgr/tag_tables", "0001", table), nothing);
  EXPECT_EQ(decoded("volatile:/x/sysmgr/tag_tables", "0001", table), nothing);
}

TEST_F(known_records, the_column_stands_when_one_of_them_is_known) {
  const char *uri = "nonvolatile:/cfg/0/kps_saved_config";
  ASSERT_EQ(run({"store", "put", "sw", uri, "ff", "01"}).status, 0);

  EXPECT_EQ(run({"store", "show", "sw", uri}).out, "KEY      VALUE  MEANING\n"
                                                   "f0000000 6b7073 KPS feature flag: enabled yes\n"
                                                   "ff       01     \n");
  EXPECT_EQ(run({"store", "show", "sw", uri, "--text"}).out,
            "KEY              VALUE MEANING\n"
            "\\xf0\\x00\\x00\\x00 kps   KPS feature flag: enabled yes\n"
            "\\xff             \\x01  \n");
  ASSERT_EQ(run({"store", "delete", "sw", uri, "f0000000"}).status, 0);
  EXPECT_EQ(run({"store", "show", "sw", uri}).out, "KEY VALUE\nff  01\n");
}

TEST_F(known_records, tags_of_any_bytes) {
  // 0xff, a quote, a backslash.
  EXPECT_EQ(
      decoded("nonvolatile:/x/sysmgr_config", table_key,
              "1400000001000100010008001e020000ff225c00"),
      (nlohmann::json(
          {{"kind", "tag table"},
           {"entries", nlohmann::json::array(
                           {{{"service", "KPS"}, {"uuid", 542}, {"tag", "\\xff\"\\\\"}}})}})));
}

// ---- The port index manager and the port manager -----------------------------------------------

constexpr char index_store[] = "nonvolatile:/cfg/0/pixm_runtime_info";

TEST_F(known_records, forwarding_indices) {
  const auto index = [](bool q8, const std::vector<nlohmann::json> &items) {
    return nlohmann::json(
        {{"kind", "LTL record"}, {"ltl", 4097}, {"vdc", 258}, {"q8", q8}, {"tlvs", items}});
  };
  const auto item = [](unsigned type, unsigned length) {
    return nlohmann::json({{"type", type}, {"length", length}});
  };
  const char *key = "36000010010102";

  EXPECT_EQ(decoded(index_store, key,
                    "1100000001000100"
                    "02000500"
                    "00000000fd"),
            index(true, {item(2, 5)}));
  EXPECT_EQ(decoded(index_store, key,
                    "1100000001000100"
                    "02000500"
                    "00000000fc"),
            index(false, {item(2, 5)}));
  EXPECT_EQ(decoded(index_store, key,
                    "1100000001000100"
                    "03000500"
                    "00000000fd"),
            index(false, {item(3, 5)}));
  // Too short for the kind of LTL; one more behind it has it; bytes behind the array do not count.
  EXPECT_EQ(decoded(index_store, key,
                    "1000000001000100"
                    "02000400"
                    "00000000"
                    "fd"),
            index(false, {item(2, 4)}));
  EXPECT_EQ(decoded(index_store, key,
                    "1900000002000100"
                    "02000400"
                    "00000000"
                    "02000500"
                    "00000000fd"),
            index(true, {item(2, 4), item(2, 5)}));
  EXPECT_EQ(decoded(index_store, key, "0800000000000100"), index(false, {}));
}

TEST_F(known_records, forwarding_indices_that_are_cut) {
  nlohmann::json damaged = {{"kind", "LTL record"}, {"ltl", 4097}, {"vdc", 258}, {"damaged", true}};
  const char *key = "36000010010102";

  for (const char *value : {"", "08000000000001", /* states more than there is */
                            "1200000001000100"
                            "02000500"
                            "00000000fd"}) {
    EXPECT_EQ(decoded(index_store, key, value), damaged) << value;
  }
  damaged["q8"] = false;
  damaged["tlvs"] = nlohmann::json::array();
  for (const char *value :
       {"0000000000000000", /* an item that is not counted */ "11000000000001000200050000000000fd",
        "1100000001000100"
        "02000600"
        "00000000fd",
        "0a00000001000100"
        "0200"}) {
    EXPECT_EQ(decoded(index_store, key, value), damaged) << value;
  }
  // What stands before the cut counts, here and for its conversion.
  damaged["q8"] = true;
  damaged["tlvs"] = nlohmann::json::array({{{"type", 2}, {"length", 5}}});
  EXPECT_EQ(decoded(index_store, key,
                    "1300000002000100"
                    "02000500"
                    "00000000fd"
                    "0200"),
            damaged);
}

TEST_F(known_records, cached_keys_have_any_value) {
  const nlohmann::json known = {{"kind", "DUAG cache record"}, {"cache_key", "0001000000ff"}};

  EXPECT_EQ(decoded(index_store, "3a0001000000ff", "da100000"), known);
  EXPECT_EQ(decoded(index_store, "3a0001000000ff", ""), known);
  for (const char *key : {"", "3a", "3a0001000000", "3a000100000000ff", "36", "360000100101",
                          "3600001001010200", "3b000100000001"}) {
    EXPECT_EQ(decoded(index_store, key, "0800000000000100"), nlohmann::json()) << key;
  }
  EXPECT_EQ(decoded("volatile:/cfg/0/pixm_runtime_info", "3a000100000001", ""), nlohmann::json());
}

TEST_F(known_records, runtime_records_of_ports) {
  const std::string ports = "nonvolatile:/cfg/0/ethpm_runtime_info";
  nlohmann::json known = {
      {"kind", "interface runtime info"}, {"interface", "0x1a00100f"}, {"reason", 254}};

  EXPECT_EQ(decoded(ports, "33061a00100f", "01001000000000000000000000fe000000000000"), known);
  EXPECT_EQ(decoded(ports, "33061a00100f", "01001000000000000000000000fe"), known);
  EXPECT_EQ(decoded(ports, "33061a00100fff", "01001000000000000000000000fe"), known);
  known.erase("reason");
  known["damaged"] = true;
  EXPECT_EQ(decoded(ports, "33061a00100f", "01001000000000000000000000"), known);
  EXPECT_EQ(decoded(ports, "33061a00100f", ""), known);
  for (const char *key : {"33", "33061a0010", "33071a00100f", "65061a00100f", "65141a00100f"}) {
    EXPECT_EQ(decoded(ports, key, "01001000000000000000000000fe"), nlohmann::json()) << key;
  }
}

TEST_F(known_records, configuration_of_ports) {
  const auto known = [](const char *kind) {
    return nlohmann::json({{"kind", kind}, {"interface", "0x1a001000"}});
  };
  for (const char *uri : {"nonvolatile:/cfg/0/ethpm_runtime_cfg",
                          "nonvolatile:/cfg/startup/bin/ethpm_saved_config"}) {
    EXPECT_EQ(decoded(uri, "65141a001000", "00"), known("interface config TLV"));
    EXPECT_EQ(decoded(uri, "65151a001000", ""), known("interface SI config TLV"));
    for (const char *key : {"65", "65141a0010", "65161a001000", "33141a001000", "33061a001000"}) {
      EXPECT_EQ(decoded(uri, key, "00"), nlohmann::json()) << key;
    }
  }
}

TEST_F(known_records, ports_and_indices_in_words) {
  const auto text = [this](const std::string &uri) {
    return run({"store", "show", "sw", uri}).out;
  };

  const std::string all = text(index_store);
  EXPECT_NE(all.find(" LTL record: ltl 0x000010da, vdc 1, Q8 yes, TLV 1 of 4 bytes, TLV 2 of 52 "
                     "bytes\n"),
            std::string::npos)
      << all;
  EXPECT_NE(all.find(" LTL record: ltl 0x000010de, vdc 1, Q8 no, TLV 1 of 4 bytes, TLV 2 of 52 "
                     "bytes\n"),
            std::string::npos);
  EXPECT_NE(all.find(" DUAG cache record: cache key 000100000002\n"), std::string::npos);
  EXPECT_NE(text("nonvolatile:/cfg/0/ethpm_runtime_info")
                .find(" interface runtime info: interface 0x1a001000, reason 145\n"),
            std::string::npos);
  EXPECT_NE(text("nonvolatile:/cfg/startup/bin/ethpm_saved_config")
                .find(" interface SI config TLV: interface 0x1a001000\n"),
            std::string::npos);
}

} // namespace
