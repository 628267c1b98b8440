// The port index manager and the port manager through version changes: forwarding indices of Q8 and
// cached keys that older releases do not know, the reasons of port states, and configuration that
// does not cross 4.2(0). The real library on the example switch.
#include "command.h"
#include "support/port_tables.h"

namespace {

constexpr char indices[] = "nonvolatile:/cfg/0/pixm_runtime_info";
constexpr char ports[] = "nonvolatile:/cfg/0/ethpm_runtime_info";
constexpr char running[] = "nonvolatile:/cfg/0/ethpm_runtime_cfg";
constexpr char saved[] = "nonvolatile:/cfg/startup/bin/ethpm_saved_config";

using records = std::map<std::string, std::string>;

// A forwarding index: an item of type 1, then the callback record with its rid and kind of LTL.
std::string index_of(const char *rid, const char *ltl_type) {
  return std::string("48000000" // bytes of the array
                     "0200"     // items
                     "0100"     // version
                     "0100"     // type 1
                     "0400"     // its length
                     "0000001a"
                     "0200"  // type 2
                     "3400") // its length
         + rid + ltl_type +
         "000000"
         "0000000000000000000000000000000000000000000000000000000000000000" // vqi_mi
         "0100"                                                             // vdc_id
         "01"                                                               // pss_key_set
         "00"
         "00000000"  // espan_flag
         "00000000"; // p_ifidx_bmp
}

// The runtime record of a port, with the reason of its state.
std::string port(const char *reason) {
  return std::string("0100"
                     "1000"
                     "000000000000000000") +
         reason + "000000000000";
}

// Those that no change touches: outside the range, and in it but of another kind.
const records other_indices = {{"36000004000001", index_of("09000000", "fd")},
                               {"36000010de0001", index_of("04000000", "01")}};
const records q8_of_4_1 = {{"36000010da0001", index_of("01000000", "fd")},
                           {"36000010db0001", index_of("02000000", "fd")},
                           {"36000011210001", index_of("03000000", "fd")}};
// Both of the first slot become its first number, and the later one stays.
const records q8_of_4_0 = {{"36000011620001", index_of("02000000", "fd")},
                           {"36000011a60001", index_of("03000000", "fd")}};
const records cache = {{"3a000100000001", "da100000"}, {"3a000100000002", "21110000"}};

// By the reasons of the four ports; the record of another subtype holds none.
records ports_with(const std::vector<const char *> &reasons) {
  return {{"33061a000000", port(reasons.at(0))},
          {"33061a001000", port(reasons.at(1))},
          {"33061a002000", port(reasons.at(2))},
          {"33061a003000", port(reasons.at(3))},
          {"33071a000000", port("7c")}};
}
const records ports_of_4_1 = ports_with({"7c", "91", "a6", "00"}); // 124, 145, 166, 0
const records ports_of_4_2 = ports_with({"8f", "91", "dc", "00"}); // 143, 145, 220, 0

const records running_tlvs = {{"65141a000000", "6d74752039323136"},
                              {"65141a001000", "6d74752031353030"},
                              {"65151a000000", "7370656564203130303030"}};
const records saved_tlvs = {{"65141a000000", "6d74752039323136"},
                            {"65151a001000", "73706565642031303030"}};
const records no_tlvs = {{"65161a000000", "6c696e6b207570"}}; // of another subtype

records joined(const std::vector<records> &parts) {
  records all;
  for (const records &part : parts) {
    all.insert(part.begin(), part.end());
  }
  return all;
}

class port_managers : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  records stored(const std::string &uri) {
    const result shown = run({"store", "show", "sw", uri, "--format", "json"});
    EXPECT_EQ(shown.status, 0) << shown.err;
    records found;
    const nlohmann::json document = shown.json();
    for (const nlohmann::json &record : document["records"]) {
      found[record["key"]] = record["value"];
    }
    return found;
  }
  void put(const char *uri, const records &all) {
    for (const auto &[key, value] : all) {
      ASSERT_EQ(run({"store", "put", "sw", uri, key, value}).status, 0);
    }
  }
  nlohmann::json convert(const words &more) {
    words arguments = {"convert", "sw", "--format", "json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const result converted = run(arguments);
    EXPECT_EQ(converted.status, 0) << converted.err;
    return converted.json();
  }
  // What the report says of a store: what became of it, by which services, how many records.
  static nlohmann::json told(const nlohmann::json &report, const std::string &uri) {
    for (const nlohmann::json &store : report["stores"]) {
      if (store["uri"] == uri) {
        return {store["what"], store["services"], store["records"]["added"],
                store["records"]["changed"], store["records"]["removed"]};
      }
    }
    return nullptr;
  }
  void expect_indices(const std::vector<records> &parts) {
    EXPECT_EQ(stored(indices), joined(parts));
  }
  void expect_as_created() {
    expect_indices({other_indices, q8_of_4_1, cache});
    EXPECT_EQ(stored(ports), ports_of_4_1);
    EXPECT_EQ(stored(running), joined({running_tlvs, no_tlvs}));
    EXPECT_EQ(stored(saved), joined({saved_tlvs, no_tlvs}));
  }
};

TEST_F(port_managers, the_example_holds_their_records) {
  expect_as_created();
}

// ---- Across 4.2(0) -----------------------------------------------------------------------------

TEST_F(port_managers, going_up_across_4_2) {
  const nlohmann::json report = convert({"--to", "4.2(1)"});

  EXPECT_EQ(stored(ports), ports_of_4_2);
  EXPECT_EQ(stored(running), no_tlvs);
  EXPECT_EQ(stored(saved), no_tlvs);
  expect_indices({other_indices, q8_of_4_1, cache});
  const nlohmann::json service = nlohmann::json::array({"TEST_ETHPM"});
  EXPECT_EQ(told(report, ports), nlohmann::json({"changed", service, 0, 2, 0}));
  EXPECT_EQ(told(report, running), nlohmann::json({"changed", service, 0, 0, 3}));
  EXPECT_EQ(told(report, saved), nlohmann::json({"changed", service, 0, 0, 2}));
  EXPECT_EQ(told(report, indices), nlohmann::json());
}

// 145 went up as it is and comes down as 126; what was configured in the meantime goes again.
TEST_F(port_managers, and_back_down) {
  convert({"--to", "4.2(1)"});
  put(running, running_tlvs);
  put(saved, saved_tlvs);

  convert({"--to", "4.1(5)"});

  EXPECT_EQ(stored(ports), ports_with({"7c", "7e", "a6", "00"}));
  EXPECT_EQ(stored(running), no_tlvs);
  EXPECT_EQ(stored(saved), no_tlvs);
  expect_indices({other_indices, q8_of_4_1, cache});
}

TEST_F(port_managers, on_either_side_of_it_nothing_changes) {
  convert({"--to", "4.1(5)"});
  convert({"--to", "4.1(2)"});
  expect_as_created();

  convert({"--from", "4.2(1)", "--to", "5.0(2)"});
  expect_as_created();
}

TEST_F(port_managers, each_moment_converts_its_own_stores) {
  convert({"--to", "4.2(1)", "--moment", "startup"});
  EXPECT_EQ(stored(ports), ports_of_4_1);
  EXPECT_EQ(stored(running), joined({running_tlvs, no_tlvs}));
  EXPECT_EQ(stored(saved), no_tlvs);

  convert({"--to", "4.2(1)", "--moment", "gsync"});
  EXPECT_EQ(stored(ports), ports_of_4_2);
  EXPECT_EQ(stored(running), no_tlvs);
}

// ---- Forwarding indices and cached keys --------------------------------------------------------

TEST_F(port_managers, from_4_2_3_to_before_4_1_2_takes_both_legs) {
  convert({"--to", "4.2(3)"});

  const nlohmann::json report = convert({"--to", "4.1(1)"});

  expect_indices({other_indices, q8_of_4_0});
  EXPECT_EQ(told(report, indices),
            nlohmann::json({"changed", nlohmann::json::array({"PIXM"}), 2, 1, 5}));
  EXPECT_EQ(stored(ports), ports_with({"7c", "7e", "a6", "00"}));
  const std::string log = read("sw/runs/0002/conversion.log");
  size_t at = 0;
  for (const char *line :
       {"ISSU Leg Q8_Downgrades From: =>4.1.3 --> To: <=4.1.2: issu conversion required from "
        "4.2(3) to 4.1(1)\n",
        "q8_current_ltl/slot in 4.1: 0x10da:0\n", "q8_ltl_for_4_0_rel 0x1162\n",
        "new pss-key = 0x 36 0 0 11 62 0 1", "q8_current_ltl/slot in 4.1: 0x10db:0\n",
        "q8_ltl_for_4_0_rel 0x1162\n", "Error ltl-key  is NOT QORN\n",
        "q8_current_ltl/slot in 4.1: 0x1121:17\n", "q8_ltl_for_4_0_rel 0x11a6\n",
        "ISSU Leg DUAG Cache Cleanup From: =>4.2.3 --> To: <=4.2.2: issu conversion required from "
        "4.2(3) to 4.1(1)\n",
        "Delete MCT-DUAG Cache pss-key = 0x 3a 0 1 0 0 0 1",
        "Delete MCT-DUAG Cache pss-key = 0x 3a 0 1 0 0 0 2"}) {
    const size_t found = log.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "\nnot found in order in\n" << log;
    at = found + std::string(line).size();
  }
}

TEST_F(port_managers, each_leg_alone) {
  convert({"--to", "4.1(1)"});
  expect_indices({other_indices, q8_of_4_0, cache});

  create("other");
  ASSERT_EQ(run({"store", "export", "other", indices, "--file", "indices.json"}).status, 0);
  ASSERT_EQ(run({"store", "import", "sw", "--file", "indices.json"}).status, 0);
  // A target that is 4.1(2) itself keeps the numbers.
  convert({"--from", "4.2(3)", "--to", "4.1(2)", "--service", "PIXM"});
  expect_indices({other_indices, q8_of_4_1});
}

TEST_F(port_managers, going_up_changes_no_index) {
  convert({"--from", "4.1(1)", "--to", "4.2(3)"});
  expect_indices({other_indices, q8_of_4_1, cache});
}

// ---- Whole tables, and runs of records ---------------------------------------------------------

std::string hex(unsigned number, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "%0*x", digits, number);
  return text;
}

class port_tables : public port_managers {
protected:
  // Adds the records to the store.
  void import(const char *uri, const records &all) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto &[key, value] : all) {
      list.push_back({{"key", key}, {"value", value}});
    }
    const nlohmann::json store = {{"uri", uri}, {"records", list}};
    write("records.json", nlohmann::json({{"stores", {store}}}).dump());
    const result done = run({"store", "import", "sw", "--file", "records.json"});
    ASSERT_EQ(done.status, 0) << done.err;
  }
};

TEST_F(port_tables, every_reason) {
  records before;
  records after_up;
  records after_down;
  for (unsigned reason = 0; reason < 256; ++reason) {
    const std::string key = "33061a0" + hex(reason, 2) + "000";
    before[key] = port(hex(reason, 2).c_str());
    after_up[key] = port(hex(k_up[reason], 2).c_str());
    after_down[key] = port(hex(k_down[reason], 2).c_str());
  }
  import(ports, before);
  convert({"--to", "4.2(1)"});
  EXPECT_EQ(stored(ports), after_up);

  import(ports, before);
  convert({"--to", "4.1(5)"});
  EXPECT_EQ(stored(ports), after_down);
}

TEST_F(port_tables, every_ltl) {
  records before = {{"36000010d90001", index_of("ffff0000", "fd")},
                    {"36000011220001", index_of("fefe0000", "fd")}};
  records after = before;
  for (const ltl_row &row : k_ltls) { // ascending: the last one of a slot stays
    const std::string value = index_of((hex(row.ltl, 4) + "0000").c_str(), "fd");
    before["360000" + hex(row.ltl, 4) + "0001"] = value;
    after["360000" + hex(row.becomes, 4) + "0001"] = value;
  }
  ASSERT_EQ(before.size(), 74U);
  import(indices, before);
  convert({"--from", "4.2(3)", "--to", "4.1(2)", "--service", "PIXM"});
  EXPECT_EQ(stored(indices), before); // a target that is 4.1(2) itself keeps the numbers

  convert({"--from", "4.2(3)", "--to", "4.1(1)", "--service", "PIXM"});
  EXPECT_EQ(stored(indices), after);
}

// More records than are read ahead at once.
TEST_F(port_tables, whichever_records_go_the_others_stay) {
  constexpr unsigned count = 3'000;
  const struct {
    const char *which;
    bool (*goes)(unsigned n);
  } patterns[] = {
      {"all", [](unsigned) { return true; }},
      {"none", [](unsigned) { return false; }},
      {"the first", [](unsigned n) { return n == 0; }},
      {"the last", [](unsigned n) { return n == count - 1; }},
      {"both ends", [](unsigned n) { return n == 0 || n == count - 1; }},
      {"alternate", [](unsigned n) { return n % 2 == 1; }},
      {"runs", [](unsigned n) { return n / 700 % 2 == 0; }},
      {"all but one in the middle", [](unsigned n) { return n != 1'500; }},
  };
  for (const auto &pattern : patterns) {
    SCOPED_TRACE(pattern.which);
    records before;
    records after;
    for (unsigned n = 0; n < count; ++n) {
      // A key that is a byte too short stays, and stands where the whole one would.
      const std::string key = "6514" + hex(n, 6) + (pattern.goes(n) ? "00" : "");
      (pattern.goes(n) ? before : after)[key] = "6d7475";
    }
    before.insert(after.begin(), after.end());
    import(running, before);
    convert({"--from", "4.1(5)", "--to", "4.2(1)", "--service", "TEST_ETHPM"});
    EXPECT_EQ(stored(running), after);
  }
}

} // namespace
