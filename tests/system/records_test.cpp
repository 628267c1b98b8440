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
  EXPECT_NE(run({"store", "show", "sw", "volatile:/sysmgr/tag_tables"})
                .out.find(" tag table: vdc 258, damaged\n"),
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

} // namespace
