// store list, show, get, put, delete, export, import.
#include "command.h"

#include <unistd.h>

namespace {

class store_verbs : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  static constexpr char vlan[] = "nonvolatile:/cfg/0/vlan_cfg";
};

TEST_F(store_verbs, list_tells_all_stores) {
  const nlohmann::json stores = run({"store", "list", "sw", "--format", "json"}).json()["stores"];

  ASSERT_EQ(stores.size(), 37u);
  EXPECT_EQ(stores[7]["uri"], vlan);
  EXPECT_EQ(stores[7]["records"], 3);
  EXPECT_EQ(stores[7]["status"], 0);
}

TEST_F(store_verbs, show_prints_hex_and_text) {
  EXPECT_EQ(run({"store", "show", "sw", "volatile:/cfg/0/epp_debug"}).out,
            "KEY        VALUE\n6c6576656c 03\n");
  EXPECT_EQ(run({"store", "show", "sw", "volatile:/cfg/0/epp_debug", "--text"}).out,
            "KEY   VALUE\nlevel \\x03\n");
}

TEST_F(store_verbs, put_get_delete) {
  EXPECT_EQ(run({"store", "put", "sw", vlan, "AAbb", "0102"}).out,
            std::string(vlan) + ": record added\n");
  EXPECT_EQ(run({"store", "put", "sw", vlan, "aabb", ""}).out,
            std::string(vlan) + ": record replaced\n");
  EXPECT_EQ(run({"store", "get", "sw", vlan, "aabb"}).out, "\n");
  EXPECT_EQ(run({"store", "delete", "sw", vlan, "aabb"}).status, 0);

  const result gone = run({"store", "get", "sw", vlan, "aabb"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_NE(gone.err.find("no record with the key aabb"), std::string::npos);
}

TEST_F(store_verbs, text_is_read_as_it_is_written) {
  ASSERT_EQ(run({"store", "put", "sw", vlan, "a\\x00\\\\b", "v\\xff", "--text"}).status, 0);

  EXPECT_EQ(run({"store", "get", "sw", vlan, "61005c62"}).out, "76ff\n");
  EXPECT_EQ(run({"store", "get", "sw", vlan, "a\\x00\\\\b", "--text"}).out, "v\\xff\n");
  EXPECT_EQ(run({"store", "put", "sw", vlan, "bad\\q", "v", "--text"}).status, 64);
}

TEST_F(store_verbs, columns_of_text_stand_below_each_other) {
  const std::string uri = "nonvolatile:/cfg/t";
  ASSERT_EQ(run({"store", "put", "sw", uri, "\\x00\\\\", "v`", "--text", "--create"}).status, 0);
  ASSERT_EQ(run({"store", "put", "sw", uri, "plain", "\\xff", "--text"}).status, 0);

  EXPECT_EQ(run({"store", "show", "sw", uri, "--text"}).out, "KEY    VALUE\n"
                                                             "\\x00\\\\ v`\n"
                                                             "plain  \\xff\n");
}

TEST_F(store_verbs, put_makes_a_store_only_when_asked) {
  EXPECT_EQ(run({"store", "put", "sw", "nonvolatile:/cfg/new", "00", "01"}).status, 3);
  EXPECT_EQ(run({"store", "put", "sw", "nonvolatile:/cfg/new", "00", "01", "--create"}).status, 0);
  EXPECT_EQ(run({"store", "get", "sw", "nonvolatile:/cfg/new", "00"}).out, "01\n");
}

TEST_F(store_verbs, names_that_lead_out_are_refused) {
  for (const char *uri : {"nonvolatile:/../x", "nonvolatile:", "nonvolatile:x", "x", "",
                          "volatile:/a/../../b", "floppy:/a"}) {
    const result put = run({"store", "put", "sw", uri, "00", "01", "--create"});
    EXPECT_EQ(put.status, 3) << uri;
    EXPECT_NE(put.err.find("nonvolatile:/PATH/NAME"), std::string::npos) << put.err;
  }
}

TEST_F(store_verbs, too_large_a_record_leaves_the_store_as_it_was) {
  const files before = state("sw");

  const result put = run(
      {"store", "put", "sw", "nonvolatile:/cfg/startup/interface_cfg", std::string(34, 'a'), "01"});

  EXPECT_EQ(put.status, 3);
  EXPECT_NE(put.err.find("0x40480006"), std::string::npos) << put.err;
  EXPECT_EQ(state("sw"), before);
}

TEST_F(store_verbs, delete_all_removes_a_damaged_store) {
  write("sw/current/cfg/0/vlan_cfg.pss", "no store at all");

  EXPECT_EQ(run({"store", "show", "sw", vlan}).status, 3);
  EXPECT_EQ(run({"store", "delete", "sw", vlan}).status, 64);
  EXPECT_EQ(run({"store", "delete", "sw", vlan, "00", "--all"}).status, 64);
  EXPECT_EQ(run({"store", "delete", "sw", vlan, "--all"}).status, 0);
  EXPECT_EQ(run({"store", "delete", "sw", vlan, "--all"}).status, 3);
  EXPECT_EQ(uris(show("sw")).size(), 36u);
}

TEST_F(store_verbs, export_and_import_carry_stores_over) {
  ASSERT_EQ(run({"store", "export", "sw", "--file", "all.json"}).status, 0);
  create("other", {"--from", examples + "/npv-switch.json"});

  const result imported = run({"store", "import", "other", "--file", "all.json"});

  EXPECT_EQ(imported.out, "other: imported 37 stores, 95 records\n");
  const result a = run({"store", "export", "sw"});
  const result b = run({"store", "export", "other"});
  EXPECT_EQ(a.json(), b.json());
  EXPECT_EQ(a.json()["stores"].size(), 37u);
  EXPECT_EQ(a.out, read("all.json"));
}

TEST_F(store_verbs, export_touches_no_other_file) {
  write("all.json.new/mine", "untouched");
  write("target", "mine");
  ASSERT_EQ(symlink(path("target").c_str(), path("link.json").c_str()), 0);

  EXPECT_EQ(run({"store", "export", "sw", "--file", "all.json"}).status, 0);
  EXPECT_EQ(run({"store", "export", "sw", "--file", "link.json"}).status, 3);
  EXPECT_EQ(run({"store", "export", "sw", "--file", "no/such/folder.json"}).status, 1);

  EXPECT_EQ(read("all.json.new/mine"), "untouched");
  EXPECT_EQ(read("target"), "mine");
}

TEST_F(store_verbs, import_replaces_and_merges) {
  const std::string document = R"({"stores": [{"uri": "nonvolatile:/cfg/0/vlan_cfg",
    "records": [{"key": "0001", "value": "aa"}, {"key": "0002", "value": "bb"}]}]})";

  ASSERT_EQ(run({"store", "import", "sw", "--merge"}, document).status, 0);
  EXPECT_EQ(run({"store", "show", "sw", vlan, "--format", "json"}).json()["records"].size(), 4u);
  ASSERT_EQ(run({"store", "import", "sw"}, document).status, 0);

  EXPECT_EQ(run({"store", "show", "sw", vlan}).out, "KEY  VALUE\n0001 aa\n0002 bb\n");
}

TEST_F(store_verbs, import_checks_everything_first) {
  const files before = state("sw");
  const std::string fits = R"({"uri": "nonvolatile:/cfg/new", "records": []})";
  const std::string large = R"({"uri": "nonvolatile:/cfg/startup/interface_cfg",
    "records": [{"key": ")" +
                            std::string(34, 'a') + R"(", "value": ""}]})";

  EXPECT_EQ(run({"store", "import", "sw"}, "{\"stores\": [" + fits + "," + large + "]}").status, 3);
  EXPECT_EQ(run({"store", "import", "sw"}, "").status, 3);
  EXPECT_EQ(run({"store", "import", "sw"}, "{}").status, 3);
  EXPECT_EQ(run({"store", "import", "sw"}, "{\"stores\": [{}]}").status, 3);
  EXPECT_EQ(run({"store", "import", "sw", "volatile:/x"}, "{\"stores\": []}").status, 3);
  EXPECT_EQ(state("sw"), before);
}

TEST_F(store_verbs, an_empty_store_is_exported_and_shown) {
  ASSERT_EQ(run({"store", "put", "sw", "nonvolatile:/cfg/e", "00", "", "--create"}).status, 0);
  ASSERT_EQ(run({"store", "delete", "sw", "nonvolatile:/cfg/e", "00"}).status, 0);

  const result exported = run({"store", "export", "sw", "nonvolatile:/cfg/e"});

  EXPECT_EQ(exported.json()["stores"][0]["records"], nlohmann::json::array());
  EXPECT_EQ(run({"store", "show", "sw", "nonvolatile:/cfg/e"}).out, "KEY VALUE\n");
}

} // namespace
