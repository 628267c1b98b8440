// Descriptions whose parts cannot stand beside each other: refused with the file and the place.
#include "command.h"

#include <algorithm>

namespace {

class layout_of_a_description : public command_test {
protected:
  static constexpr char head[] =
      R"json({"release": "4.1(5)", "releases": ["4.1(5)", "4.2(1)"], )json";
  static constexpr char folders[] = R"json("running_cfg_dir": "/cfg/0", "paths":
    {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/cfg/startup"})json";

  void expect_refused(const std::string &description, const std::string &message) {
    write("d.json", description);
    const result made = run({"lab", "create", "sw", "--from", "d.json"});
    EXPECT_EQ(made.status, 3) << description;
    EXPECT_EQ(made.err.find("datamorph: 'd.json': " + message), 0u) << made.err << description;
    EXPECT_EQ(std::count(made.err.begin(), made.err.end(), '\n'), 1) << made.err;
    EXPECT_FALSE(exists("sw"));
  }
  void expect_files_refused(const std::string &files, const std::string &message) {
    expect_refused(std::string(head) + folders + R"(, "files": [)" + files + "]}", message);
  }
};

TEST_F(layout_of_a_description, files_where_folders_are) {
  expect_files_refused(R"({"path": "/a"}, {"path": "/cfg/0"})",
                       "/files/1/path: '/cfg/0' is a folder already");
  expect_files_refused(R"({"path": "/cfg"})", "/files/0/path: '/cfg' is a folder already");
  expect_files_refused(R"json({"path": "/images/4.2(1)"})json",
                       "/files/0/path: '/images/4.2(1)' is a folder already");
  expect_files_refused(R"({"path": "/var/run/mts"})",
                       "/files/0/path: '/var/run/mts' is a folder already");
  expect_files_refused(R"({"path": "/a/b/c"}, {"path": "/a/b"})",
                       "/files/1/path: '/a/b' is a folder already");
}

TEST_F(layout_of_a_description, files_below_files) {
  expect_files_refused(R"({"path": "/a/b"}, {"path": "/a/b/c/d"})",
                       "/files/1/path: '/a/b' is a file, so nothing can be below it");
  expect_files_refused(R"({"path": "/switch.json/x"})",
                       "/files/0/path: '/switch.json' is a file, so nothing can be below it");
}

TEST_F(layout_of_a_description, names_that_are_too_long) {
  const std::string name(256, 'n');
  expect_files_refused(R"({"path": "/a/)" + name + "\"}", "/files/0/path: the name 'nnn");
  expect_files_refused(R"({"path": "/)" + name + "/a\"}", "/files/0/path: the name 'nnn");
  expect_refused(std::string(head) + folders + R"(, "stores": [{"uri": "volatile:/)" + name +
                     "/a\"}]}",
                 "/stores/0/uri: the name 'nnn");
}

TEST_F(layout_of_a_description, folders_that_are_files) {
  const std::string paths = R"("paths": {"gsync": "/g", "running-fs": "/r", "startup": "/s"})";
  expect_refused(std::string(head) + R"("running_cfg_dir": "/switch.json", )" + paths + "}",
                 "/running_cfg_dir: '/switch.json' is a file already");
  expect_refused(std::string(head) + R"("running_cfg_dir": "/var/run/mts/sap-5", )" + paths + "}",
                 "/running_cfg_dir: what is below /var/run/mts is the lab's own");
  expect_refused(std::string(head) + R"json("running_cfg_dir": "/cfg/0", "paths": {"gsync": "/g",
                   "running-fs": "/images/4.1(5)/version/x", "startup": "/s"}})json",
                 "/paths/running-fs: '/images/4.1(5)/version' is a file, so nothing");
}

TEST_F(layout_of_a_description, files_beside_stores) {
  const std::string store = std::string(head) + folders +
                            R"(, "stores": [{"uri": "nonvolatile:/cfg/x"}], "files": [{"path": ")";
  expect_refused(store + R"(/cfg/x.pss"}]})", "/files/0/path: '/cfg/x.pss' is a file already");
  expect_refused(store + R"(/cfg/x.pss-new"}]})",
                 "/files/0/path: '/cfg/x.pss-new' is a file already");
  expect_refused(store + R"(/cfg/x.pss/y"}]})", "/files/0/path: '/cfg/x.pss' is a file, so");
  expect_refused(std::string(head) + folders + R"(, "stores": [{"uri": "nonvolatile:/a/b"},
                   {"uri": "nonvolatile:/a/b.pss/c"}]})",
                 "/stores/1/uri: '/a/b.pss' is a file, so nothing can be below it");
}

// Its store comes to be at a boot or in a conversion.
TEST_F(layout_of_a_description, what_is_in_the_place_of_the_running_tag_tables) {
  const std::string folder = "/dev/shm/volatile/sysmgr";
  expect_files_refused(R"({"path": ")" + folder + R"(/tag_tables.pss"})",
                       "/files/0/path: '" + folder + "/tag_tables.pss' is a file already");
  expect_files_refused(R"({"path": ")" + folder + R"(/tag_tables.pss-journal"})",
                       "/files/0/path: '" + folder + "/tag_tables.pss-journal' is a file already");
  expect_files_refused(R"({"path": ")" + folder + R"("})",
                       "/files/0/path: '" + folder + "' is a folder already");
  expect_files_refused(R"({"path": "/dev/shm/volatile"})",
                       "/files/0/path: '/dev/shm/volatile' is a folder already");
  const std::string paths = R"("paths": {"gsync": "/g", "running-fs": "/r", "startup": "/s"})";
  expect_refused(std::string(head) + R"("running_cfg_dir": ")" + folder +
                     R"(/tag_tables.pss/x", )" + paths + "}",
                 "/running_cfg_dir: '" + folder + "/tag_tables.pss' is a file, so nothing");
  write("d.json", std::string(head) + folders +
                      R"(, "stores": [{"uri": "nonvolatile:/dev/shm/volatile/sysmgr/tag_tables"},
                      {"uri": "volatile:/sysmgr/other"}]})");
  create("sw", {"--from", "d.json"});
}

// Behind that a converter reads the VDC.
TEST_F(layout_of_a_description, paths_that_name_a_vdc) {
  const std::pair<const char *, const char *> rows[] = {
      {R"("running-fs": "/cfg/vdc_2", "startup": "/s")", "running-fs"},
      {R"("running-fs": "/r", "startup": "/cfg/vdc_/x")", "startup"},
      {R"("running-fs": "/r", "startup": "/vdc_x/startup")", "startup"},
  };
  for (const auto &[paths, name] : rows) {
    expect_refused(std::string(head) + R"("running_cfg_dir": "/c", "paths": {"gsync": "/g", )" +
                       paths + "}}",
                   std::string("/paths/") + name +
                       ": '/vdc_' in it would name a VDC: the switch adds that itself");
  }
  write("d.json", std::string(head) + R"("running_cfg_dir": "/vdc_c", "paths": {"gsync": "/vdc_2",
    "running-fs": "/r/my_vdc_2", "startup": "/s/vdc"}})");
  create("sw", {"--from", "d.json"});
}

TEST_F(layout_of_a_description, access_points_that_no_switch_has) {
  expect_refused(std::string(head) + folders + R"(, "access_points": [{"sap": 65536}]})",
                 "/access_points/0/sap: a number from 1 to 65535 is wanted here");
  write("d.json", std::string(head) + folders + R"(, "access_points": [{"sap": 65535}]})");

  create("sw", {"--from", "d.json"});

  EXPECT_EQ(saps(show("sw")), (std::vector<unsigned>{65535}));
}

// ---- Releases ----------------------------------------------------------------------------------

TEST_F(layout_of_a_description, releases_that_nobody_can_order) {
  for (const char *release :
       {"banana", "4", "4.2", "4.2()", "4.2(1", "4.2(1))", ".2(1)", "4.(1)", "4.2(a)", "4.2(1a2)",
        "4.2(1).", "4.2(1)S3", "v4.2(1)", "4.2(1)/x", "..", "", "4.2(1).S3(2)", "4.2(1) "}) {
    expect_refused(std::string(R"({"release": ")") + release + R"(", "releases": [")" + release +
                       R"("], )" + folders + "}",
                   "/release: a release such as 4.2(1) is wanted here");
  }
}

TEST_F(layout_of_a_description, releases_with_letters_and_tails) {
  write("d.json", std::string(R"json({"release": "4.2(1)", "releases": ["4.2(1)", "10.20(30abc)",
    "4.2(1).S3", "4.2(1a).S3.x-1_y"], )json") +
                      folders + "}");

  create("sw", {"--from", "d.json"});

  EXPECT_EQ(show("sw")["images"].size(), 4u);
}

TEST_F(layout_of_a_description, no_conversion_to_a_release_that_nobody_can_order) {
  create("sw");
  write("sw/current/images/kiwi/version", "kiwi\n");

  EXPECT_EQ(run({"convert", "sw", "--to", "kiwi"}).status, 3);
  EXPECT_EQ(run({"convert", "sw", "--from", "kiwi", "--to", "4.2(1)"}).status, 3);
  EXPECT_EQ(show("sw")["release"], "4.1(5)");
}

// ---- What can be built -------------------------------------------------------------------------

TEST_F(layout_of_a_description, what_can_stand_side_by_side_is_made) {
  const std::string name(255, 'n');
  write("d.json", std::string(head) + folders + R"(, "stores": [{"uri": "nonvolatile:/cfg/"},
    {"uri": "nonvolatile:/cfg/0/x"}, {"uri": "volatile:/cfg/0/x"}], "files": [{"path": "/cfg/0/x"},
    {"path": "/cfg/0/x.psx"}, {"path": "/)" +
                      name + R"("}]})");

  create("sw", {"--from", "d.json"});

  EXPECT_EQ(uris(show("sw")).size(), 3u);
  EXPECT_TRUE(exists("sw/current/cfg/0/x"));
  EXPECT_TRUE(exists("sw/current/" + name));
}

// ---- TLV arrays --------------------------------------------------------------------------------

class described_tlv_arrays : public command_test {
protected:
  result create_with(const std::string &array) {
    write("d.json", R"json({"release": "4.1(5)", "releases": ["4.1(5)"], "running_cfg_dir": "/c",
      "paths": {"gsync": "/c", "running-fs": "/c", "startup": "/s"},
      "stores": [{"uri": "nonvolatile:/c/x", "records": [
        {"key": "00", "value": {"tlv_array": )json" +
                        array + "}}]}]}");
    return run({"lab", "create", "sw", "--from", "d.json"});
  }
};

TEST_F(described_tlv_arrays, hold_items_of_any_bytes) {
  ASSERT_EQ(create_with(R"([{"type": 2, "value": [{"u32le": 1}, {"u8": 253}]},
    {"type": 65535, "value": ""}, {"type": 0, "value": {"zeros": 8}}])")
                .status,
            0);

  EXPECT_EQ(run({"store", "get", "sw", "nonvolatile:/c/x", "00"}).out,
            std::string("21000000" // all its bytes
                        "0300"     // items
                        "0100") +  // version
                "0200"
                "0500"
                "01000000fd" +
                "ffff"
                "0000" +
                "0000"
                "0800"
                "0000000000000000\n");
}

TEST_F(described_tlv_arrays, may_be_empty) {
  ASSERT_EQ(create_with("[]").status, 0);

  EXPECT_EQ(run({"store", "get", "sw", "nonvolatile:/c/x", "00"}).out, "0800000000000100\n");
}

TEST_F(described_tlv_arrays, are_refused_when_wrong) {
  const std::string value = "/stores/0/records/0/value/tlv_array";
  const std::pair<std::string, std::string> rows[] = {
      {"{}", value + ": a list is wanted here"},
      {"[[]]", value + "/0: an object is wanted here"},
      {R"([{"value": ""}])", value + "/0: the member 'type' is missing"},
      {R"([{"type": 1}])", value + "/0: the member 'value' is missing"},
      {R"([{"type": 65536, "value": ""}])",
       value + "/0/type: a number from 0 to 65535 is wanted here"},
      {R"([{"type": 1, "value": "0"}])", value + "/0/value: pairs of hex digits are wanted here"},
      {R"([{"type": 1, "value": {"zeros": 65536}}])",
       value + "/0/value: a value has at most 65535 bytes"},
      {R"([{"type": 1, "value": {"tlv_array": []}}])",
       value + "/0/value: a TLV array does not stand within another"},
      {R"([{"type": 1, "value": "", "length": 0}])", value + "/0: unknown member 'length'"},
  };
  for (const auto &[array, message] : rows) {
    const result made = create_with(array);
    EXPECT_EQ(made.status, 3) << array;
    EXPECT_EQ(made.err.find("datamorph: 'd.json': " + message), 0u) << made.err;
    EXPECT_FALSE(exists("sw"));
  }
  std::string many = R"({"type": 1, "value": ""})";
  for (int at = 0; at < 65535; ++at) {
    many += R"(,{"type": 1, "value": ""})";
  }
  EXPECT_EQ(create_with("[" + many + "]").err,
            "datamorph: 'd.json': " + value + ": an array holds at most 65535 items\n");
}

} // namespace
