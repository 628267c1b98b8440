// lab create, lab show, lab reboot.
#include "command.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

class lab_verbs : public command_test {};

constexpr char smallest[] = R"json({
  "release": "4.1(5)", "releases": ["4.1(5)", "4.2(1)"], "running_cfg_dir": "/cfg/0",
  "paths": {"gsync": "/cfg/0", "running-fs": "/cfg/0", "startup": "/cfg/startup"})json";

TEST_F(lab_verbs, create_builds_the_shipped_example) {
  const result made = run({"lab", "create", "sw"});

  EXPECT_EQ(made.status, 0);
  EXPECT_EQ(made.out, "sw: switch datacenter-1 at release 4.1(5), 37 stores, 4 files, 15 access "
                      "points\n");
  EXPECT_EQ(made.err, "");
  const nlohmann::json shown = show("sw");
  EXPECT_EQ(shown["release"], "4.1(5)");
  EXPECT_EQ(shown["vdcs"], nlohmann::json({1, 2}));
  EXPECT_EQ(shown["stores"].size(), 37u);
  EXPECT_EQ(saps(shown), (std::vector<unsigned>{11, 28, 109, 175, 187, 245, 295, 296, 297, 341, 342,
                                                364, 422, 485, 500}));
  std::vector<std::string> images;
  for (const nlohmann::json &image : shown["images"]) {
    EXPECT_EQ(image["release"], image["version"]);
    images.push_back(image["release"]);
  }
  EXPECT_EQ(images, (std::vector<std::string>{"3.3(1)", "4.0(4)", "4.1(1)", "4.1(2)", "4.1(5)",
                                              "4.2(1)", "4.2(3)", "5.0(2)"}));
  for (const nlohmann::json &store : shown["stores"]) {
    EXPECT_EQ(store["status"], 0) << store;
    EXPECT_GE(store["records"], 1) << store;
  }
}

TEST_F(lab_verbs, the_shipped_example_is_the_one_in_the_folder) {
  create("built-in");
  create("from-file", {"--from", examples + "/datacenter-switch.json"});

  EXPECT_EQ(state("built-in"), state("from-file"));
}

TEST_F(lab_verbs, show_prints_tables) {
  create("sw");

  const result shown = run({"lab", "show", "sw"});

  EXPECT_EQ(shown.status, 0);
  EXPECT_NE(shown.out.find("release               4.1(5)\n"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("volatile:/dev/shm/smm_smm_data "), std::string::npos);
  EXPECT_NE(shown.out.find("/bootflash/boot.cfg         0644    19\n"), std::string::npos);
  EXPECT_NE(shown.out.find("         341 EVMS\n"), std::string::npos);
  EXPECT_EQ(shown.out.find('\x1b'), std::string::npos);
}

TEST_F(lab_verbs, create_writes_files_as_described) {
  write("d.json", std::string(smallest) + R"(, "files": [
    {"path": "/bootflash/a/b", "mode": "0751", "hex": "00ff0a"}, {"path": "/mnt/pss/empty"}]})");

  create("sw", {"--from", "d.json"});

  EXPECT_EQ(read("sw/current/bootflash/a/b"), std::string("\x00\xff\x0a", 3));
  struct stat about = {};
  ASSERT_EQ(stat(path("sw/current/bootflash/a/b").c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 07777, 0751u);
  EXPECT_TRUE(exists("sw/current/mnt/pss/empty"));
}

TEST_F(lab_verbs, create_makes_records_from_fields) {
  write("d.json", std::string(smallest) + R"(, "stores": [{"uri": "nonvolatile:/cfg/x",
    "params": {"max_key_size": 8, "max_value_size": 40},
    "records": [{"key": {"u16be": 258}, "value": [{"u8": 255}, {"u16le": 258}, {"u32be": 1},
      {"u32le": 1}, {"text": "ab", "size": 4}, {"text": "c"}, {"hex": "DEad"}, {"zeros": 2}]},
      {"key": "01", "value": [{"u64be": 258}, {"u64le": 18446744073709551614}]}]}]})");

  create("sw", {"--from", "d.json"});

  const result got = run({"store", "get", "sw", "nonvolatile:/cfg/x", "0102"});
  EXPECT_EQ(got.out, "ff0201000000010100000061620000"
                     "63dead0000\n");
  EXPECT_EQ(run({"store", "get", "sw", "nonvolatile:/cfg/x", "01"}).out,
            "0000000000000102feffffffffffffff\n");
}

TEST_F(lab_verbs, create_takes_an_empty_directory) {
  ASSERT_EQ(mkdir(path("sw").c_str(), 0755), 0);

  EXPECT_EQ(run({"lab", "create", "sw/"}).status, 0);
  EXPECT_EQ(show("sw")["release"], "4.1(5)");
}

TEST_F(lab_verbs, create_refuses_a_directory_that_is_not_empty) {
  write("sw/mine", "untouched");

  const result made = run({"lab", "create", "sw"});

  EXPECT_EQ(made.status, 3);
  EXPECT_EQ(made.out, "");
  EXPECT_EQ(made.err, "datamorph: 'sw': stands already and is not empty; remove it or name another "
                      "directory\n");
  EXPECT_EQ(read("sw/mine"), "untouched");
  EXPECT_FALSE(exists(".sw.creating"));
}

TEST_F(lab_verbs, create_refuses_a_file_and_a_missing_parent) {
  write("file", "x");

  EXPECT_EQ(run({"lab", "create", "file"}).status, 3);
  EXPECT_EQ(run({"lab", "create", "no/such/parent"}).status, 3);
  EXPECT_EQ(run({"lab", "create", "/"}).status, 3);
  EXPECT_EQ(run({"lab", "create", std::string(4000, 'x')}).status, 3);
}

TEST_F(lab_verbs, create_tidies_up_after_one_that_was_stopped) {
  write(".sw.creating/current/half", "x");

  const result made = run({"lab", "create", "sw"});

  EXPECT_EQ(made.status, 0);
  EXPECT_EQ(made.err, "datamorph: 'sw': removed what a stopped command had built so far\n");
  EXPECT_FALSE(exists("sw/current/half"));
  EXPECT_FALSE(exists(".sw.creating"));
}

struct bad_description {
  const char *more;    // appended to the smallest description
  const char *message; // what the error says, after the file's name
};

TEST_F(lab_verbs, create_refuses_what_it_does_not_understand) {
  const bad_description rows[] = {
      {R"(, "colour": "red"})", "/: unknown member 'colour'"},
      {R"(, "vdcs": [2]})", "/vdcs: VDC 1 is missing"},
      {R"(, "vdcs": [1, 17]})", "/vdcs/1: a number from 1 to 16 is wanted here"},
      {R"(, "vdcs": [1, 1]})", "/vdcs/1: the VDCs are wanted in rising order"},
      {R"(, "stores": [{"uri": "nonvolatile:/a/../b"}]})", "/stores/0/uri: a store such as"},
      {R"(, "stores": [{"uri": "floppy:/a/b"}]})", "/stores/0/uri: a store such as"},
      {R"(, "stores": [{"uri": "volatile:/a"}, {"uri": "volatile:/a"}]})",
       "/stores/1: this store is described already"},
      {R"(, "stores": [{"uri": "volatile:/a", "records": [{"key": "0", "value": ""}]}]})",
       "/stores/0/records/0/key: pairs of hex digits are wanted here"},
      {R"(, "stores": [{"uri": "volatile:/a", "records": [{"key": "00"}]}]})",
       "/stores/0/records/0: the member 'value' is missing"},
      {R"(, "stores": [{"uri": "volatile:/a", "params": {"max_key_size": 1},
           "records": [{"key": "0000", "value": ""}]}]})",
       "/stores/0/records/0: the key has 2 bytes; at most 1 are allowed"},
      {R"(, "stores": [{"uri": "volatile:/a", "records": [{"key": {"u8": 256}, "value": ""}]}]})",
       "/stores/0/records/0/key/u8: a number from 0 to 255 is wanted here"},
      {R"(, "stores": [{"uri": "volatile:/a", "params": {"max_value_size": 1},
           "records": [{"key": "00", "value": "0000"}]}]})",
       "/stores/0/records/0: the value has 2 bytes; at most 1 are allowed"},
      {R"(, "files": [{"path": "/../etc/passwd"}]})", "/files/0/path: an absolute path inside"},
      {R"(, "files": [{"path": "relative"}]})", "/files/0/path: an absolute path inside"},
      {R"(, "files": [{"path": "/switch.json"}]})", "/files/0/path: this file is the lab's own"},
      {R"(, "files": [{"path": "/a", "mode": "9"}]})", "/files/0/mode: a mode such as"},
      {R"(, "files": [{"path": "/a", "text": "", "hex": ""}]})", "/files/0: either text or hex"},
      {R"(, "access_points": [{"sap": 0}]})", "/access_points/0/sap: a number from 1 to 65535"},
      {R"(, "access_points": [{"sap": 5}, {"sap": 5}]})",
       "/access_points/1: this access point is described already"},
      {R"json(, "release": "4.2(1)"})json", "the member 'release' stands twice in one object"},
      {R"(, )", "no JSON: parse error"},
  };
  for (const bad_description &row : rows) {
    write("d.json", std::string(smallest) + row.more);

    const result made = run({"lab", "create", "sw", "--from", "d.json"});

    EXPECT_EQ(made.status, 3) << row.more;
    EXPECT_EQ(made.err.find("datamorph: 'd.json': " + std::string(row.message)), 0u) << made.err;
    EXPECT_EQ(std::count(made.err.begin(), made.err.end(), '\n'), 1) << made.err;
    EXPECT_FALSE(exists("sw"));
    EXPECT_FALSE(exists(".sw.creating"));
  }
}

TEST_F(lab_verbs, create_refuses_hostile_documents) {
  write("deep.json", std::string(200000, '['));
  write("empty.json", "");
  write("list.json", "[]");
  write("bytes.json", "\xff\xfe\x00");

  for (const char *name : {"deep.json", "empty.json", "list.json", "bytes.json", "missing.json"}) {
    const result made = run({"lab", "create", "sw", "--from", name});
    EXPECT_EQ(made.status, 3) << name << made.err;
    EXPECT_FALSE(exists("sw"));
  }
}

TEST_F(lab_verbs, a_store_that_cannot_be_made_leaves_nothing) {
  write("d.json", std::string(smallest) + R"(, "stores": [{"uri": "nonvolatile:/cfg/a/b"}]})");
  in_child = [] { deny_system_calls({SYS_renameat2}, ENOSPC); };

  const result made = run({"lab", "create", "sw", "--from", "d.json"});

  EXPECT_EQ(made.status, 1);
  EXPECT_NE(made.err.find("the store 'nonvolatile:/cfg/a/b'"), std::string::npos) << made.err;
  EXPECT_NE(made.err.find("; make room there"), std::string::npos) << made.err;
  EXPECT_FALSE(exists("sw"));
  EXPECT_FALSE(exists(".sw.creating"));
}

TEST_F(lab_verbs, reboot_empties_tmp_and_the_volatile_stores) {
  create("sw");

  const result rebooted = run({"lab", "reboot", "sw"});

  EXPECT_EQ(rebooted.status, 0);
  EXPECT_EQ(rebooted.out, "sw: rebooted; 18 volatile stores and 1 file of /tmp are gone\n");
  EXPECT_EQ(
      uris(show("sw")),
      (std::vector<std::string>{
          "nonvolatile:/cfg/0/dot1x_saved_config", "nonvolatile:/cfg/0/eth_port_sec_saved_config",
          "nonvolatile:/cfg/0/ethpm_runtime_cfg", "nonvolatile:/cfg/0/ethpm_runtime_info",
          "nonvolatile:/cfg/0/evms_runtime_cfg", "nonvolatile:/cfg/0/kps_saved_config",
          "nonvolatile:/cfg/0/pixm_runtime_info", "nonvolatile:/cfg/0/vlan_cfg",
          "nonvolatile:/cfg/startup/bin/dot1x_saved_config",
          "nonvolatile:/cfg/startup/bin/eth_port_sec_saved_config",
          "nonvolatile:/cfg/startup/bin/ethpm_saved_config",
          "nonvolatile:/cfg/startup/bin/kps_saved_config",
          "nonvolatile:/cfg/startup/bin/sysmgr_config",
          "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav",
          "nonvolatile:/cfg/startup/interface_cfg",
          "nonvolatile:/cfg/startup/vdc_2/bin/dot1x_saved_config",
          "nonvolatile:/cfg/startup/vdc_2/bin/sysmgr_config",
          "nonvolatile:/cfg/startup/vdc_2/bin/vrrp-cfg_config_sav",
          "volatile:/sysmgr/tag_tables"}));
  EXPECT_FALSE(exists("sw/current/tmp/session.txt"));
  EXPECT_TRUE(exists("sw/current/tmp"));
  EXPECT_TRUE(exists("sw/current/mnt/pss/inventory.bin"));
}

// The running tag tables are made anew, where there are saved ones: then their store is not gone.
TEST_F(lab_verbs, reboot_tells_what_is_gone) {
  create("sw");
  const nlohmann::json first = run({"lab", "reboot", "sw", "--format", "json"}).json();
  EXPECT_EQ(first, nlohmann::json({{"switch", "sw"},
                                   {"volatile_stores", 18},
                                   {"temporary_files", 1},
                                   {"troubles", nlohmann::json::array()}}));
  EXPECT_EQ(run({"lab", "reboot", "sw"}).out,
            "sw: rebooted; 0 volatile stores and 0 files of /tmp are gone\n");

  ASSERT_EQ(
      run({"store", "delete", "sw", "nonvolatile:/cfg/startup/bin/sysmgr_config", "--all"}).status,
      0);
  EXPECT_EQ(run({"lab", "reboot", "sw"}).out,
            "sw: rebooted; 1 volatile store and 0 files of /tmp are gone\n");
}

TEST_F(lab_verbs, a_reboot_that_fails_changes_nothing) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  const std::string previous = read("sw/previous/switch.json");
  std::filesystem::remove_all(path("sw/current/dev/shm/volatile"));
  write("sw/current/dev/shm/volatile", "in the way");
  const files before = state("sw");

  const result rebooted = run({"lab", "reboot", "sw"});

  EXPECT_EQ(rebooted.status, 1);
  EXPECT_EQ(rebooted.out, "");
  EXPECT_EQ(rebooted.err, "datamorph: 'sw': not rebooted: cannot empty /dev/shm/volatile: Not a "
                          "directory; the switch is as it was\n");
  EXPECT_EQ(state("sw"), before);
  EXPECT_EQ(read("sw/previous/switch.json"), previous);
  expect_tidy("sw");
  EXPECT_FALSE(exists("sw/.copy"));
}

TEST_F(lab_verbs, a_reboot_keeps_the_state_before_the_last_conversion) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);

  EXPECT_EQ(show("sw")["release"], "4.2(1)");
  EXPECT_EQ(nlohmann::json::parse(read("sw/previous/switch.json"))["release"], "4.1(5)");
  EXPECT_TRUE(exists("sw/previous/tmp/session.txt"));
  EXPECT_FALSE(exists("sw/current/tmp/session.txt"));
  expect_tidy("sw");
}

TEST_F(lab_verbs, a_link_out_of_the_switch_is_followed_nowhere) {
  create("sw");
  write("outside/file", "mine");
  ASSERT_EQ(symlink(path("outside").c_str(), path("sw/current/tmp/link").c_str()), 0);

  EXPECT_EQ(run({"lab", "reboot", "sw"}).status, 0);

  EXPECT_FALSE(exists("sw/current/tmp/link"));
  EXPECT_EQ(read("outside/file"), "mine");
}

TEST_F(lab_verbs, a_damaged_store_is_shown_as_such) {
  create("sw");
  write("sw/current/cfg/0/vlan_cfg.pss", "this is no store");

  const nlohmann::json shown = show("sw");
  ASSERT_EQ(shown["stores"].size(), 37u);
  for (const nlohmann::json &store : shown["stores"]) {
    const bool damaged = store["uri"] == "nonvolatile:/cfg/0/vlan_cfg";
    EXPECT_EQ(store["status"] != 0, damaged) << store;
  }
}

TEST_F(lab_verbs, a_switch_file_that_is_wrong_is_refused) {
  create("sw");
  const std::string good = read("sw/current/switch.json");
  const std::pair<std::string, const char *> rows[] = {
      {"", "switch.json is no JSON"},
      {"[]", "switch.json is no JSON object"},
      {"{}", "switch.json: format is not 1"},
      {R"({"format": 1, "name": 5})", "switch.json: name is missing or no text"},
      {std::string(2 << 20, ' '), "larger than 1048576 bytes"},
  };
  for (const auto &[content, message] : rows) {
    write("sw/current/switch.json", content);
    const result shown = run({"lab", "show", "sw"});
    EXPECT_EQ(shown.status, 3);
    EXPECT_NE(shown.err.find(message), std::string::npos) << shown.err;
    EXPECT_TRUE(shown.err.ends_with("; mend sw/current/switch.json\n")) << shown.err;
  }
  std::filesystem::create_directory(path("sw/previous"));
  write("sw/previous/switch.json", good);
  EXPECT_TRUE(run({"lab", "show", "sw"})
                  .err.ends_with("; mend sw/current/switch.json; sw/previous/switch.json has its "
                                 "members as they were before the last conversion\n"));
  write("sw/current/switch.json", good);
  EXPECT_EQ(run({"lab", "show", "sw"}).status, 0);
}

} // namespace
