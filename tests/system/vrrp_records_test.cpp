// What store show says of VRRP records: each kind in each layout, whatever their bytes are.
#include "command.h"

namespace {

constexpr char manager[] = "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav";
constexpr char engine[] = "nonvolatile:/cfg/startup/bin/vrrp-eng_runtime_config";

constexpr char vr_key[] = "01"                                             // type
                          "00000001"                                       // addr_type
                          "0a"                                             // vr_id
                          "1a000000";                                      // ifindex
constexpr char old_vr[] = "0000001a"                                       // ifindex
                          "0a"                                             // vr_id
                          "01000000"                                       // addr_type
                          "01000000"                                       // admin
                          "64000000"                                       // prio
                          "01000000"                                       // primary_ip: type
                          "0a010101000000000000000000000000"               // primary_ip: address
                          "02000000"                                       // auth
                          "73656372657400000000000000000000"               // key
                          "03000000"                                       // adv
                          "01000000"                                       // preempt
                          "05000000"                                       // track_prio
                          "0010001a"                                       // track_intf
                          "07000000"                                       // spi
                          "08000000"                                       // row_status
                          "00000000";                                      // owner
constexpr char engine_part[] = "11000000"                                  // lower_threshold_prio
                               "22000000"                                  // upper_threshold_prio
                               "01000000"                                  // forwarding_state
                               "a0a1a2a3a4a5a6a7a8a9b0b1b2b3b4b5b6b7b8b9"; // reserved

constexpr char vip_key[] = "02"                                // type
                           "00000002"                          // addr_type
                           "14"                                // vr_id
                           "1a001000"                          // ifindex
                           "fe800000000000000000000000000001"; // address
constexpr char old_vip[] = "0010001a"                          // ifindex
                           "14"                                // vr_id
                           "02000000"                          // inet_addr: type
                           "fe800000000000000000000000000001"  // inet_addr: address
                           "01000000"                          // virtual
                           "04000000";                         // row_status
constexpr char vip_reserved[] = "c0c1c2c3c4c5c6c7c8c9d0d1d2d3d4d5d6d7d8d9";

constexpr char global_key[] = "04000000";
constexpr char global_value[] = "01"
                                "0000000000000000000000000000000000000000";

struct shown_record {
  std::string text; // below "MEANING" in the table; empty without that column
  nlohmann::json decoded;
};

class vrrp_records : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    write("d.json",
          R"json({"release": "4.1(5)", "releases": ["4.1(5)"], "running_cfg_dir": "/cfg/0",
      "paths": {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/cfg/startup"}})json");
    create("sw", {"--from", "d.json"});
  }
  // One record alone in the store, as it is shown.
  shown_record shown(const std::string &key, const std::string &value,
                     const std::string &uri = manager) {
    const result put = run({"store", "put", "sw", uri, key, value, "--create"});
    EXPECT_EQ(put.status, 0) << put.err;
    const std::string table = run({"store", "show", "sw", uri}).out;
    const nlohmann::json document = run({"store", "show", "sw", uri, "--format", "json"}).json();
    EXPECT_EQ(run({"store", "delete", "sw", uri, "--all"}).status, 0);
    EXPECT_EQ(document["records"].size(), 1u);
    const size_t column = table.find("MEANING");
    return {column == std::string::npos ? "" : table.substr(table.find('\n') + 1 + column),
            document["records"][0].value("decoded", nlohmann::json())};
  }
};

const nlohmann::json vr_record_key = {
    {"type", 1}, {"ifindex", "0x1a000000"}, {"vr_id", 10}, {"addr_type", "INET_ADDR_TYPE_IPV4"}};

nlohmann::json decoded_vr() {
  return {{"kind", "VR record"},
          {"record_key", vr_record_key},
          {"layout", "before 4.2(1)"},
          {"ifindex", "0x1a000000"},
          {"vr_id", 10},
          {"addr_type", "INET_ADDR_TYPE_IPV4"},
          {"admin", "STATE_UP"},
          {"prio", 100},
          {"primary_ip", {{"addr_type", "INET_ADDR_TYPE_IPV4"}, {"address", "10.1.1.1"}}},
          {"auth", "AUTH_TEXT"},
          {"key", "secret"},
          {"adv", 3},
          {"preempt", true},
          {"track_prio", 5},
          {"track_intf", "0x1a001000"},
          {"spi", 7},
          {"row_status", 8},
          {"owner", false}};
}

// ---- Each kind in each layout ------------------------------------------------------------------

TEST_F(vrrp_records, a_virtual_router_before_4_2) {
  const shown_record found = shown(vr_key, old_vr);

  EXPECT_EQ(found.text,
            "VR record: layout before 4.2(1), ifindex 0x1a000000, vr_id 10, addr_type "
            "INET_ADDR_TYPE_IPV4, admin STATE_UP, prio 100, primary_ip 10.1.1.1, auth AUTH_TEXT, "
            "key \"secret\", adv 3, preempt yes, track_prio 5, track_intf 0x1a001000, spi 7, "
            "row_status 8, owner no\n");
  EXPECT_EQ(found.decoded, decoded_vr());
}

TEST_F(vrrp_records, a_virtual_router_of_4_2) {
  const shown_record found = shown(vr_key, std::string(old_vr) + engine_part, engine);

  EXPECT_EQ(found.text,
            "VR record: layout 4.2(1), ifindex 0x1a000000, vr_id 10, addr_type "
            "INET_ADDR_TYPE_IPV4, admin STATE_UP, prio 100, primary_ip 10.1.1.1, auth AUTH_TEXT, "
            "key \"secret\", adv 3, preempt yes, track_prio 5, track_intf 0x1a001000, spi 7, "
            "row_status 8, owner no, lower_threshold_prio 17, upper_threshold_prio 34, "
            "forwarding_state yes, reserved a0a1a2a3a4a5a6a7a8a9b0b1b2b3b4b5b6b7b8b9\n");
  nlohmann::json expected = decoded_vr();
  expected["layout"] = "4.2(1)";
  expected["lower_threshold_prio"] = 17;
  expected["upper_threshold_prio"] = 34;
  expected["forwarding_state"] = true;
  expected["reserved"] = "a0a1a2a3a4a5a6a7a8a9b0b1b2b3b4b5b6b7b8b9";
  EXPECT_EQ(found.decoded, expected);
}

TEST_F(vrrp_records, an_address_in_either_layout) {
  const nlohmann::json address = {{"addr_type", "INET_ADDR_TYPE_IPV6"}, {"address", "fe80::1"}};
  nlohmann::json expected = {
      {"kind", "VIP record"},
      {"record_key",
       {{"type", 2}, {"ifindex", "0x1a001000"}, {"vr_id", 20}, {"inet_addr", address}}},
      {"layout", "every release"},
      {"ifindex", "0x1a001000"},
      {"vr_id", 20},
      {"inet_addr", address},
      {"virtual", true},
      {"row_status", 4}};

  const shown_record narrow = shown(vip_key, old_vip);
  EXPECT_EQ(narrow.text, "VIP record: layout of every release, ifindex 0x1a001000, vr_id 20, "
                         "inet_addr fe80::1, virtual yes, row_status 4\n");
  EXPECT_EQ(narrow.decoded, expected);

  const shown_record wide = shown(vip_key, std::string(old_vip) + vip_reserved);
  EXPECT_EQ(wide.text, "VIP record: layout 4.2(1), ifindex 0x1a001000, vr_id 20, inet_addr "
                       "fe80::1, virtual yes, row_status 4, reserved "
                       "c0c1c2c3c4c5c6c7c8c9d0d1d2d3d4d5d6d7d8d9\n");
  expected["layout"] = "4.2(1)";
  expected["reserved"] = "c0c1c2c3c4c5c6c7c8c9d0d1d2d3d4d5d6d7d8d9";
  EXPECT_EQ(wide.decoded, expected);
}

TEST_F(vrrp_records, the_global_info) {
  const shown_record found = shown(global_key, global_value);

  EXPECT_EQ(found.text, "VRRP global info: vrrp_enabled yes, reserved "
                        "0000000000000000000000000000000000000000\n");
  EXPECT_EQ(found.decoded,
            nlohmann::json({{"kind", "VRRP global info"},
                            {"record_key", {{"type", 4}}},
                            {"vrrp_enabled", true},
                            {"reserved", "0000000000000000000000000000000000000000"}}));
}

TEST_F(vrrp_records, the_stores_that_hold_them) {
  for (const char *uri :
       {"nonvolatile:/vrrp-cfg_config_sav", "nonvolatile:/a/b/vrrp-eng_runtime_config",
        "nonvolatile:/tmp/vrrp-startup-pss", "nonvolatile:/tmp/vrrp-startup-pss2/bin",
        "nonvolatile:/tmp/vrrp-pss", "nonvolatile:/tmp/vrrp-pss3/bin"}) {
    EXPECT_EQ(shown(vr_key, old_vr, uri).decoded, decoded_vr()) << uri;
  }
  for (const char *uri : {"volatile:/a/vrrp-cfg_config_sav", "nonvolatile:/a/vrrp-cfg_config",
                          "nonvolatile:/vrrp-cfg_config_sav/x", "volatile:/tmp/vrrp-pss",
                          "nonvolatile:/a/tmp/vrrp-pss", "nonvolatile:/tmp/vrrp"}) {
    EXPECT_EQ(shown(vr_key, old_vr, uri).decoded, nlohmann::json()) << uri;
  }
}

// ---- Fields ------------------------------------------------------------------------------------

class vrrp_fields : public vrrp_records {
protected:
  // One field of the virtual router with other bytes at this offset, as JSON and as text.
  void expect_field(const char *name, size_t offset, const std::string &bytes,
                    const nlohmann::json &value, const std::string &text) {
    std::string changed = std::string(old_vr) + engine_part;
    changed.replace(2 * offset, bytes.size(), bytes);
    const shown_record found = shown(vr_key, changed, engine);
    EXPECT_EQ(found.decoded[name], value) << name;
    EXPECT_NE((", " + found.text).find(std::string(", ") + name + " " + text), std::string::npos)
        << found.text;
  }
};

TEST_F(vrrp_fields, numbers_and_names) {
  expect_field("admin", 9, "02000000", "STATE_DOWN", "STATE_DOWN, ");
  expect_field("admin", 9, "00000000", 0, "0, ");
  expect_field("admin", 9, "03000000", 3, "3, ");
  expect_field("prio", 13, "ffffffff", 4294967295, "4294967295, ");
  expect_field("auth", 37, "01000000", "AUTH_NO", "AUTH_NO, ");
  expect_field("auth", 37, "03000000", "AUTH_IP", "AUTH_IP, ");
  expect_field("auth", 37, "04000000", 4, "4, ");
  expect_field("preempt", 61, "00000000", false, "no, ");
  expect_field("preempt", 61, "02000000", 2, "2, ");
  expect_field("track_intf", 69, "01000000", "0x00000001", "0x00000001, ");
  expect_field("owner", 81, "01000000", true, "yes, ");
  expect_field("forwarding_state", 93, "00000000", false, "no, ");
}

TEST_F(vrrp_fields, keys_of_an_authentication) {
  expect_field("key", 41, "00000000000000000000000000000000", "", "\"\", ");
  expect_field("key", 41, "30313233343536373839616263646566", "0123456789abcdef",
               "\"0123456789abcdef\", ");
  expect_field("key", 41, "61205c62000000000000000000000000", "a \\b", "\"a \\\\b\", ");
  // A zero in the middle, a byte that is none of a text, a byte behind the text.
  expect_field("key", 41, "61006200000000000000000000000000", "61006200000000000000000000000000",
               "61006200000000000000000000000000, ");
  expect_field("key", 41, "61800000000000000000000000000000", "61800000000000000000000000000000",
               "61800000000000000000000000000000, ");
  expect_field("key", 41, "736563726574000000000000000000ff", "736563726574000000000000000000ff",
               "736563726574000000000000000000ff, ");
}

TEST_F(vrrp_fields, addresses) {
  const auto address = [](const nlohmann::json &type, const char *text) {
    return nlohmann::json({{"addr_type", type}, {"address", text}});
  };
  expect_field("primary_ip", 17, "0200000020010db8000000000000000000000001",
               address("INET_ADDR_TYPE_IPV6", "2001:db8::1"), "2001:db8::1, ");
  expect_field("primary_ip", 17, "0200000000000000000000000000ffff0a010101",
               address("INET_ADDR_TYPE_IPV6", "::ffff:10.1.1.1"), "::ffff:10.1.1.1, ");
  expect_field("primary_ip", 17, "01000000ffffffff000000000000000000000000",
               address("INET_ADDR_TYPE_IPV4", "255.255.255.255"), "255.255.255.255, ");
  // An IPv4 address with bytes behind it, which are part of the keys.
  expect_field("primary_ip", 17, "010000000a010101000000000000000000000001",
               address("INET_ADDR_TYPE_IPV4", "10.1.1.1 and 000000000000000000000001"),
               "10.1.1.1 and 000000000000000000000001, ");
  expect_field("primary_ip", 17, "000000000a010101000000000000000000000000",
               address("INET_ADDR_TYPE_UNKNOWN", "0a010101000000000000000000000000"),
               "0a010101000000000000000000000000 (INET_ADDR_TYPE_UNKNOWN), ");
  expect_field("primary_ip", 17, "030000000a010101000000000000000000000000",
               address(3, "0a010101000000000000000000000000"),
               "0a010101000000000000000000000000 (3), ");
}

// ---- What is wrong -----------------------------------------------------------------------------

TEST_F(vrrp_records, values_of_no_layout) {
  const std::string whole = std::string(old_vr) + engine_part;
  const std::string key = ", key (type 1, ifindex 0x1a000000, vr_id 10, addr_type "
                          "INET_ADDR_TYPE_IPV4), damaged\n";
  const std::pair<size_t, const char *> rows[] = {
      {0, "0 bytes, neither 85 nor 117"},     {1, "1 byte, neither 85 nor 117"},
      {50, "50 bytes, neither 85 nor 117"},   {84, "84 bytes, neither 85 nor 117"},
      {86, "86 bytes, neither 85 nor 117"},   {116, "116 bytes, neither 85 nor 117"},
      {118, "118 bytes, neither 85 nor 117"},
  };
  for (const auto &[size, problem] : rows) {
    const shown_record found = shown(vr_key, (whole + "00").substr(0, 2 * size));
    EXPECT_EQ(found.text, "VR record: " + std::string(problem) + key);
    EXPECT_EQ(found.decoded, nlohmann::json({{"kind", "VR record"},
                                             {"problems", nlohmann::json::array({problem})},
                                             {"record_key", vr_record_key},
                                             {"damaged", true}}));
  }
  EXPECT_EQ(shown(vip_key, std::string(old_vip) + "00").text,
            "VIP record: 34 bytes, neither 33 nor 53, key (type 2, ifindex 0x1a001000, vr_id 20, "
            "inet_addr fe80::1), damaged\n");
  EXPECT_EQ(shown(global_key, "01").text,
            "VRRP global info: 1 byte, not 21, key (type 4), damaged\n");
}

TEST_F(vrrp_records, keys_that_disagree_with_the_value) {
  const std::string rest = ", layout before 4.2(1), ifindex 0x1a000000, vr_id 10, addr_type "
                           "INET_ADDR_TYPE_IPV4, admin STATE_UP, prio 100, primary_ip 10.1.1.1, "
                           "auth AUTH_TEXT, key \"secret\", adv 3, preempt yes, track_prio 5, "
                           "track_intf 0x1a001000, spi 7, row_status 8, owner no\n";
  const std::pair<const char *, const char *> rows[] = {
      {"01000000010b1a000000",
       "type 1, ifindex 0x1a000000, vr_id 11, addr_type INET_ADDR_TYPE_IPV4"},
      {"01000000020a1a000000",
       "type 1, ifindex 0x1a000000, vr_id 10, addr_type INET_ADDR_TYPE_IPV6"},
      {"01000000010a1a001000",
       "type 1, ifindex 0x1a001000, vr_id 10, addr_type INET_ADDR_TYPE_IPV4"},
      {"01010000000a0000001a", "type 1, ifindex 0x0000001a, vr_id 10, addr_type 16777216"},
  };
  for (const auto &[key, fields] : rows) {
    const shown_record found = shown(key, old_vr);
    EXPECT_EQ(found.text, "VR record: key disagrees, key (" + std::string(fields) + ")" + rest);
    EXPECT_EQ(found.decoded["problems"], nlohmann::json::array({"key disagrees"}));
    EXPECT_FALSE(found.decoded.contains("damaged"));
    EXPECT_EQ(found.decoded["prio"], 100);
  }
}

TEST_F(vrrp_records, keys_of_addresses_that_disagree) {
  const std::pair<const char *, const char *> rows[] = {
      {"0200000002141a001000fe800000000000000000000000000002",
       "type 2, ifindex 0x1a001000, vr_id 20, inet_addr fe80::2"},
      {"0200000001141a001000fe800000000000000000000000000001",
       "type 2, ifindex 0x1a001000, vr_id 20, inet_addr 254.128.0.0 and 000000000000000000000001"},
      {"0200000002151a001000fe800000000000000000000000000001",
       "type 2, ifindex 0x1a001000, vr_id 21, inet_addr fe80::1"},
  };
  for (const auto &[key, fields] : rows) {
    EXPECT_EQ(shown(key, old_vip).text,
              "VIP record: key disagrees, key (" + std::string(fields) +
                  "), layout of every release, ifindex 0x1a001000, vr_id 20, inet_addr fe80::1, "
                  "virtual yes, row_status 4\n");
  }
  EXPECT_EQ(shown("04010000", global_value).text,
            "VRRP global info: key disagrees, key (type 260), vrrp_enabled yes, reserved "
            "0000000000000000000000000000000000000000\n");
}

TEST_F(vrrp_records, keys_of_another_length) {
  const shown_record found = shown("01000000", old_vr);
  EXPECT_EQ(found.decoded["problems"], nlohmann::json::array({"key of 4 bytes, not 10"}));
  EXPECT_FALSE(found.decoded.contains("record_key"));
  EXPECT_EQ(found.decoded["vr_id"], 10);
  EXPECT_EQ(shown("02", "").text,
            "VIP record: 0 bytes, neither 33 nor 53, key of 1 byte, not 26, damaged\n");
  EXPECT_EQ(shown("0400000000", global_value)
                .text.find("VRRP global info: key of 5 bytes, not 4, vrrp_enabled yes, "),
            0u);
}

TEST_F(vrrp_records, records_of_other_key_types_are_left_alone) {
  for (const char *key : {"", "00", "0300000001", "05000000010a1a000000", "ff"}) {
    EXPECT_EQ(shown(key, old_vr).decoded, nlohmann::json()) << key;
  }
}

// ---- Addresses in a description ----------------------------------------------------------------

class described_addresses : public command_test {
protected:
  result create_with(const std::string &value) {
    write("d.json",
          R"json({"release": "4.1(5)", "releases": ["4.1(5)"], "running_cfg_dir": "/cfg/0",
      "paths": {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/cfg/startup"},
      "stores": [{"uri": "nonvolatile:/x", "records": [{"key": "01", "value": )json" +
              value + "}]}]}");
    return run({"lab", "create", "sw", "--from", "d.json"});
  }
};

TEST_F(described_addresses, take_16_bytes) {
  ASSERT_EQ(
      create_with(R"([{"ipv4": "10.1.1.254"}, {"ipv6": "2001:DB8::1"}, {"ipv6": "::"}])").status,
      0);

  EXPECT_EQ(run({"store", "get", "sw", "nonvolatile:/x", "01"}).out,
            "0a0101fe000000000000000000000000"
            "20010db8000000000000000000000001"
            "00000000000000000000000000000000\n");
}

TEST_F(described_addresses, are_refused_when_malformed) {
  const std::string value = "datamorph: 'd.json': /stores/0/records/0/value";
  for (const char *text : {"", "10.1.1", "10.1.1.256", "10.1.1.1 ", "10.1.1.1/24", "010.1.1.1",
                           "0x0a.1.1.1", "::1", "10.1.1.1\\u0000", "host"}) {
    const result made = create_with(R"({"ipv4": ")" + std::string(text) + "\"}");
    EXPECT_EQ(made.status, 3) << text;
    EXPECT_EQ(made.err, value + "/ipv4: an IPv4 address such as 10.1.1.1 is wanted here\n");
    EXPECT_FALSE(exists("sw"));
  }
  for (const char *text : {"", ":", "1::2::3", "fe80::1%eth0", "fe80::1/64", "10.1.1.1",
                           "12345::", "1:2:3:4:5:6:7", "[::1]", "::1\\u0000"}) {
    const result made = create_with(R"({"ipv6": ")" + std::string(text) + "\"}");
    EXPECT_EQ(made.status, 3) << text;
    EXPECT_EQ(made.err, value + "/ipv6: an IPv6 address such as fe80::1 is wanted here\n");
  }
  EXPECT_EQ(create_with(R"({"ipv4": 1})").err, value + "/ipv4: a text is wanted here\n");
  EXPECT_EQ(create_with(R"({"ipv4": "10.1.1.1", "size": 16})").err,
            value + ": one of hex, text, zeros, u8, u16be, u16le, u32be, u32le, u64be, u64le, "
                    "ipv4, ipv6, tag_table, tlv_array is wanted here\n");
}

} // namespace
