// diff tells how two states differ, exactly that, and leaves both as they are.
#include "command.h"

#include <filesystem>
#include <fstream>

#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char kps[] = "nonvolatile:/cfg/0/kps_saved_config";

class diff_of_states : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("a");
    fs::copy(path("a"), path("b"), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  }
  void put(const std::string &name, const std::string &uri, const std::string &key,
           const std::string &value) {
    const result done = run({"store", "put", name, uri, key, value, "--create"});
    ASSERT_EQ(done.status, 0) << done.err;
  }
  nlohmann::json diff(int status) {
    const result done = run({"diff", "a", "b", "--format", "json"});
    EXPECT_EQ(done.status, status) << done.err;
    return done.json();
  }
  // The only difference.
  nlohmann::json change() {
    const nlohmann::json changes = diff(2)["changes"];
    EXPECT_EQ(changes.size(), 1u) << changes.dump(1);
    return changes.empty() ? nlohmann::json() : changes[0];
  }
};

nlohmann::json parsed(const char *text) {
  return nlohmann::json::parse(text);
}

TEST_F(diff_of_states, none) {
  EXPECT_EQ(diff(0), parsed(R"j({"a": {"path": "a", "release": "4.1(5)"},
      "b": {"path": "b", "release": "4.1(5)"}, "changes": [], "missing": [],
      "summary": {
  "same" : true,
           "as_expected" : true,
                           "unreadable" : 0,
                           "undecoded" : 0,
                           "misfits" : 0,
                           "unchanged_misfits" : 0,
                           "expected" : 0,
                           "missing" : 0,
                           "things" : {"added" : 0, "removed" : 0, "changed" : 0},
                                      "records" : {
    "added" : 0, "removed" : 0, "changed" : 0
  }
}
})j"));
  EXPECT_EQ(run({"diff", "a", "a"}).out,
            "A: a at 4.1(5)\nB: a at 4.1(5)\n"
            "same: stores, files and the like: 0 added, 0 removed, 0 changed; records: 0 added, 0 "
            "removed, 0 changed, 0 undecoded; 0 unreadable; 0 as expected, 0 expected and "
            "missing\n");
}

TEST_F(diff_of_states, records) {
  put("b", kps, "f0000001", "00"); // behind the last one
  EXPECT_EQ(change(), parsed(R"j({"change": "added", "kind": "store",
      "name": "nonvolatile:/cfg/0/kps_saved_config", "key": "f0000001", "b": {"value": "00"}})j"));
  put("a", kps, "f0000001", "0001");
  EXPECT_EQ(change(), parsed(R"j({"change": "changed", "kind": "store",
      "name": "nonvolatile:/cfg/0/kps_saved_config", "key": "f0000001",
      "a": {"value": "0001"}, "b": {"value": "00"}})j"));
  put("a", kps, "f0000001", "00");
  put("a", kps, "", ""); // before the first one
  EXPECT_EQ(change(), parsed(R"j({"change": "removed", "kind": "store",
      "name": "nonvolatile:/cfg/0/kps_saved_config", "key": "", "a": {"value": ""}})j"));
  EXPECT_EQ(diff(2)["summary"]["undecoded"], 1);
  EXPECT_EQ(diff(2)["summary"]["records"]["removed"], 1);
}

TEST_F(diff_of_states, fields_of_known_records) {
  const char *uri = "nonvolatile:/cfg/0/ethpm_runtime_info";
  put("a", uri, "33061a00ffff", "01001000000000000000000000fe");
  put("b", uri, "33061a00ffff", "010010000000000000000000000101");

  EXPECT_EQ(change(), parsed(R"j({"change": "changed", "kind": "store",
      "name": "nonvolatile:/cfg/0/ethpm_runtime_info", "key": "33061a00ffff",
      "a": {"value": "01001000000000000000000000fe", "decoded": {
            "kind": "interface runtime info", "interface": "0x1a00ffff", "reason": 254}},
      "b": {"value": "010010000000000000000000000101", "decoded": {
            "kind": "interface runtime info", "interface": "0x1a00ffff", "reason": 1}},
      "fields": {"reason": {"a": 254, "b": 1}}})j"));
  EXPECT_EQ(diff(2)["summary"]["undecoded"], 0);
  EXPECT_NE(run({"diff", "a", "b"})
                .out.find("\nstore nonvolatile:/cfg/0/ethpm_runtime_info\n"
                          "CHANGE  KEY          WHAT\n"
                          "changed 33061a00ffff reason 254 -> reason 1\n\n"),
            std::string::npos);

  put("b", uri, "33061a00ffff", "01"); // too short for a reason
  const nlohmann::json damaged = change();
  EXPECT_EQ(damaged["fields"], parsed(R"j({"reason": {"a": 254, "b": null},
                                          "damaged": {"a": false, "b": true}})j"));
  EXPECT_EQ(damaged["b"]["value"], "01");
  EXPECT_EQ(diff(2)["summary"]["undecoded"], 1);
  EXPECT_NE(run({"diff", "a", "b"}).out.find(", 01001000000000000000000000fe -> 01\n"),
            std::string::npos);
  // Known, but what differs is not.
  put("a", uri, "33061a00ffff", "01001000000000000000000000fe");
  put("b", uri, "33061a00ffff", "02001000000000000000000000fe");
  EXPECT_FALSE(change().contains("fields"));
  EXPECT_NE(run({"diff", "a", "b"})
                .out.find(" 01001000000000000000000000fe -> 02001000000000000000000000fe\n"),
            std::string::npos);
}

// ---- Layouts by release ------------------------------------------------------------------------

constexpr char engine[] = "nonvolatile:/cfg/startup/bin/vrrp-eng_runtime_config";
constexpr char router_key[] = "01000000010b1a000000";

// A virtual router with this priority, as it is stored before 4.2(1).
std::string router(const std::string &prio) {
  return "0000001a0b0100000001000000" + prio + std::string(2 * 68, '0');
}

TEST_F(diff_of_states, each_side_is_decoded_by_the_layout_of_its_release) {
  const std::string wide = router("78000000") + std::string(2 * 32, '0');
  put("a", engine, router_key, router("64000000"));
  put("b", engine, router_key, wide);
  const nlohmann::json changed = change();
  EXPECT_EQ(changed["a"]["decoded"]["prio"], 100);
  EXPECT_FALSE(changed["a"]["decoded"].contains("misfit"));
  // A value that could be read by its length alone: 4.1(5) has no such layout.
  EXPECT_EQ(changed["b"]["value"], wide);
  EXPECT_EQ(changed["b"]["decoded"], parsed(R"j({"kind": "VR record", "misfit": true,
      "problems": ["117 bytes, but before 4.2(1) it has 85"],
      "record_key": {"type": 1, "ifindex": "0x1a000000", "vr_id": 11,
                     "addr_type": "INET_ADDR_TYPE_IPV4"}})j"));
  EXPECT_FALSE(changed.contains("fields"));
  EXPECT_EQ(diff(2)["summary"]["misfits"], 1);
  EXPECT_EQ(diff(2)["summary"]["undecoded"], 1);

  const result table = run({"diff", "a", "b"});
  EXPECT_EQ(table.err, "");
  EXPECT_NE(table.out.find(" -> VR record: 117 bytes, but before 4.2(1) it has 85, key (type 1, "
                           "ifindex 0x1a000000, vr_id 11, addr_type INET_ADDR_TYPE_IPV4), does not "
                           "fit its release, " +
                           wide + "\n"),
            std::string::npos)
      << table.out;
  EXPECT_TRUE(table.out.ends_with(" missing\n1 record does not fit the layout of its release\n"))
      << table.out;

  // The release stands in each state's switch.json, and the library orders it.
  std::string state = read("b/current/switch.json");
  state.replace(state.find("4.1(5)"), 6, "4.2(1)");
  write("b/current/switch.json", state);
  const nlohmann::json risen = diff(2);
  EXPECT_EQ(risen["summary"]["misfits"], 0);
  EXPECT_EQ(risen["changes"][1]["fields"]["prio"], parsed(R"j({"a": 100, "b": 120})j"));
}

TEST_F(diff_of_states, a_record_that_is_the_same_and_does_not_fit_is_counted) {
  for (const char *dir : {"a", "b"}) {
    put(dir, engine, router_key, router("64000000") + std::string(2 * 32, '0'));
  }
  const result table = run({"diff", "a", "b"});
  EXPECT_EQ(table.status, 0) << table.err;
  EXPECT_TRUE(table.out.ends_with("\n1 unchanged record does not fit the layout of its release; "
                                  "'datamorph check' names them\n"))
      << table.out;
  EXPECT_EQ(diff(0)["summary"]["unchanged_misfits"], 1);
  EXPECT_EQ(diff(0)["summary"]["misfits"], 0);
}

// All of it is in the document.
TEST_F(diff_of_states, a_long_value_is_cut_in_the_table) {
  const std::string uri = "nonvolatile:/cfg/0/vlan_cfg";
  put("b", uri, "6c6f6e67", std::string(2000, 'a'));
  const result table = run({"diff", "a", "b"});
  EXPECT_NE(table.out.find(std::string(512, 'a') + "... (1000 bytes)\n"), std::string::npos)
      << table.out;
  EXPECT_EQ(table.out.find(std::string(513, 'a')), std::string::npos);
  EXPECT_EQ(change()["b"]["value"], std::string(2000, 'a'));
}

// In the hand-over store records wait in the layout of the side that they come from.
TEST_F(diff_of_states, records_that_wait_fit_in_either_layout) {
  const std::string uri = "nonvolatile:/tmp/vrrp-startup-pss";
  put("a", uri, router_key, router("64000000"));
  put("b", uri, router_key, router("64000000") + std::string(2 * 32, '0'));
  const nlohmann::json found = diff(2);
  EXPECT_EQ(found["summary"]["misfits"], 0);
  EXPECT_EQ(found["changes"][0]["fields"]["layout"],
            parsed(R"j({"a": "before 4.2(1)", "b": "4.2(1)"})j"));
}

TEST_F(diff_of_states, without_a_library_the_length_chooses_the_layout) {
  set("DATAMORPH_LIBRARY", path("none.so"));
  put("b", kps, "01", "00");
  EXPECT_EQ(run({"diff", "a", "b"}).err, ""); // where it does not matter
  put("a", engine, router_key, router("64000000"));
  put("b", engine, router_key, router("64000000") + std::string(2 * 32, '0'));
  const result found = run({"diff", "a", "b", "--format", "json"});
  EXPECT_EQ(found.status, 2);
  EXPECT_TRUE(found.err.starts_with("datamorph: the layout that records of a release have is not "
                                    "known, so they were decoded by their length: "))
      << found.err;
  EXPECT_NE(found.err.find("none.so"), std::string::npos);
  EXPECT_EQ(std::count(found.err.begin(), found.err.end(), '\n'), 1);
  EXPECT_EQ(found.json()["summary"]["misfits"], 0);
}

TEST_F(diff_of_states, stores_of_one_side_come_with_their_records) {
  put("a", "volatile:/zz", "01", "02");
  const nlohmann::json changes = diff(2)["changes"];
  EXPECT_EQ(changes, parsed(R"j([
      {"change": "removed", "kind": "store", "name": "volatile:/zz", "a": {"max_key_size": 4096,
       "max_node_keys": 0, "max_value_size": 1048576, "version": 1}},
      {"change": "removed", "kind": "store", "name": "volatile:/zz", "key": "01",
       "a": {"value": "02"}}])j"));
  nlohmann::json turned = run({"diff", "b", "a", "--format", "json"}).json()["changes"];
  ASSERT_EQ(turned.size(), 2u);
  EXPECT_EQ(turned[1], parsed(R"j({"change": "added", "kind": "store", "name": "volatile:/zz",
                                  "key": "01", "b": {"value": "02"}})j"));
}

TEST_F(diff_of_states, files_links_and_access_points) {
  write("a/current/etc/x", "one");
  write("b/current/etc/x", "two");
  fs::permissions(path("a/current/etc/x"), fs::perms(0600));
  fs::permissions(path("b/current/etc/x"), fs::perms(0644));
  fs::create_symlink("/x", path("a/current/etc/y"));
  fs::create_symlink("/z", path("b/current/etc/y"));
  write("b/current/var/run/mts/sap-9999", "lab\n\n");
  // The journal of the conversions' side and folders do not count.
  write("a/current/mnt/pss/data_morph.log", "line");
  write("b/current/mnt/pss/data_morph.last", "line");
  write("b/current/tmp/datamorphcheck", "");
  fs::create_directories(path("b/current/tmp/empty"));

  nlohmann::json changes = diff(2)["changes"];
  ASSERT_EQ(changes.size(), 3u) << changes.dump(1);
  EXPECT_NE(changes[0]["fields"]["xxh3"]["a"], changes[0]["fields"]["xxh3"]["b"]);
  changes[0]["fields"].erase("xxh3");
  EXPECT_EQ(changes[0]["name"], "/etc/x");
  EXPECT_EQ(changes[0]["fields"], parsed(R"j({"mode": {"a": "0600", "b": "0644"}})j"));
  EXPECT_EQ(changes[1]["fields"], parsed(R"j({"target": {"a": "/x", "b": "/z"}})j"));
  EXPECT_EQ(changes[2], parsed(R"j({"change": "added", "kind": "access point", "name": "9999",
                                   "b": {"owner": "lab"}})j"));
}

TEST_F(diff_of_states, flat_files_by_record_and_the_release) {
  ASSERT_EQ(run({"convert", "b", "--to", "4.2(1)"}).status, 0);
  const result done = run({"diff", "b/previous", "b", "--format", "json"});
  EXPECT_EQ(done.status, 2) << done.err;
  const nlohmann::json changes = done.json()["changes"];

  ASSERT_FALSE(changes.empty());
  EXPECT_EQ(changes[0]["kind"], "switch");
  EXPECT_EQ(changes[0]["fields"], parsed(R"j({"release": {"a": "4.1(5)", "b": "4.2(1)"
}
})j"));
  size_t flat = 0;
  for (const nlohmann::json &one : changes) {
    if (one["name"] == "/cfg/0/globalpss_table.snp" && one.contains("key")) {
      ++flat;
      EXPECT_EQ(one["b"]["decoded"]["database"], "/cfg/0/svi_gldb");
    }
  }
  EXPECT_EQ(flat, 1u);
  EXPECT_EQ(run({"diff", "a/current", "b/previous"}).status, 0);
  // A flat file that was cut is a file of other bytes, not one with fewer records.
  fs::copy(path("b"), path("c"), fs::copy_options::recursive);
  fs::resize_file(path("c/current/cfg/0/globalpss_table.snp"), 30);
  const nlohmann::json cut = run({"diff", "b", "c", "--format", "json"}).json()["changes"];
  ASSERT_EQ(cut.size(), 1u) << cut.dump(1);
  EXPECT_EQ(cut[0]["fields"]["type"], parsed(R"j({"a": "flat file", "b": "file"})j"));
}

TEST_F(diff_of_states, what_cannot_be_read_is_told_and_not_guessed) {
  write("b/current/cfg/0/kps_saved_config.pss", "garbage");
  const nlohmann::json told = diff(3);
  ASSERT_EQ(told["changes"].size(), 1u) << told.dump(1);
  EXPECT_EQ(told["changes"][0]["change"], "unreadable");
  EXPECT_EQ(told["changes"][0]["name"], kps);
  EXPECT_TRUE(told["changes"][0]["b"].contains("trouble"));
  EXPECT_FALSE(told["changes"][0].contains("a"));
  EXPECT_EQ(told["summary"]["unreadable"], 1);
  EXPECT_EQ(told["summary"]["same"], false);
  const nlohmann::json turned = run({"diff", "b", "a", "--format", "json"}).json()["changes"];
  ASSERT_EQ(turned.size(), 1u);
  EXPECT_TRUE(turned[0]["a"].contains("trouble"));
  // Nobody can tell whether two damaged ones are the same.
  EXPECT_EQ(run({"diff", "b", "b"}).status, 3);
}

TEST_F(diff_of_states, a_store_that_ends_in_damage_loses_no_records_to_it) {
  const std::string value(60, '7');
  for (const char *name : {"a", "b"}) {
    for (const char *key : {"01", "02", "03"}) {
      put(name, "nonvolatile:/damaged", key, key == std::string("02") ? value : "00");
    }
  }
  put("a", "nonvolatile:/damaged", "0001", "00");
  const std::string file = "b/current/damaged.pss";
  std::string bytes = read(file);
  const size_t at = bytes.find(std::string(30, '\x77'));
  ASSERT_NE(at, std::string::npos);
  bytes[at] = 0;
  write(file, bytes);

  // What stands before the damage is compared, what comes behind it is no removed record.
  const nlohmann::json changes = diff(3)["changes"];
  ASSERT_GE(changes.size(), 1u);
  EXPECT_EQ(changes.back()["change"], "unreadable") << changes.dump(1);
  for (const nlohmann::json &one : changes) {
    EXPECT_TRUE(one["change"] == "unreadable" || one["key"] == "0001") << one;
  }
  const nlohmann::json turned = run({"diff", "b", "a", "--format", "json"}).json()["changes"];
  for (const nlohmann::json &one : turned) {
    EXPECT_TRUE(one["change"] == "unreadable" || one["key"] == "0001") << one;
  }
}

TEST_F(diff_of_states, side_that_cannot_be_entered) {
  in_child = [] { deny_system_calls({SYS_chroot, SYS_unshare}, EPERM); };
  const result done = run({"diff", "a", "b"});
  EXPECT_EQ(done.status, 3);
  EXPECT_NE(done.err.find("no rights to work inside the switch"), std::string::npos) << done.err;
  EXPECT_EQ(std::count(done.err.begin(), done.err.end(), '\n'), 1) << done.err;
}

TEST_F(diff_of_states, two_named_stores) {
  put("a", "volatile:/x/dot1x", "01", "01");
  put("b", "nonvolatile:/y/dot1x", "01", "02");
  const words named = {"diff", "a:volatile:/x/dot1x", "b:nonvolatile:/y/dot1x", "--format", "json"};
  const result done = run(named);
  EXPECT_EQ(done.status, 2) << done.err;
  EXPECT_EQ(done.json()["a"],
            parsed(R"j({"path": "a", "release": "4.1(5)", "uri": "volatile:/x/dot1x"
})j"));
  EXPECT_EQ(done.json()["changes"],
            parsed(R"j([{"change": "changed", "kind": "store", "name": "volatile:/x/dot1x",
                        "key": "01", "a": {"value": "01"}, "b": {"value": "02"}}])j"));
  put("b", "nonvolatile:/y/dot1x", "01", "01");
  EXPECT_EQ(run(named).status, 0);
}

TEST_F(diff_of_states, a_table_shows_twenty_changes_of_a_store) {
  std::string records;
  for (int at = 10; at < 35; ++at) {
    records += (at == 10 ? "" : ",") + std::string(R"({"key": ")") + std::to_string(at) +
               R"(", "value": "00"})";
  }
  const result loaded = run({"store", "import", "b", "--merge"},
                            R"({"stores": [{"uri": "nonvolatile:/cfg/0/kps_saved_config",
                                            "records": [)" +
                                records + "]}]}");
  ASSERT_EQ(loaded.status, 0) << loaded.err;

  const std::string out = run({"diff", "a", "b"}).out;

  EXPECT_NE(out.find("\nadded  29  00\n5 more\n\ndifferent: "), std::string::npos) << out;
  EXPECT_EQ(out.find("added  30 "), std::string::npos);
  EXPECT_NE(out.find("records: 25 added, 0 removed, 0 changed, 25 undecoded;"), std::string::npos);
  EXPECT_EQ(diff(2)["changes"].size(), 25u);
}

TEST_F(diff_of_states, expected_ones) {
  put("b", kps, "01", "00");
  put("b", kps, "02", "00");
  write("known.json", run({"diff", "a", "b", "--format", "json"}).out);
  const words expecting = {"diff", "a", "b", "--format", "json", "--expect", "known.json"};

  result done = run(expecting);
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.json()["changes"], nlohmann::json::array());
  EXPECT_EQ(done.json()["summary"]["expected"], 2);
  EXPECT_EQ(done.json()["summary"]["same"], false);
  EXPECT_EQ(done.json()["summary"]["as_expected"], true);
  EXPECT_NE(run({"diff", "a", "b", "--expect", "known.json"}).out.find("\nas expected: "),
            std::string::npos);
  put("b", kps, "02", "01"); // another one instead
  done = run(expecting);
  EXPECT_EQ(done.status, 2);
  ASSERT_EQ(done.json()["changes"].size(), 1u);
  EXPECT_EQ(done.json()["changes"][0]["b"]["value"], "01");
  ASSERT_EQ(done.json()["missing"].size(), 1u);
  EXPECT_EQ(done.json()["missing"][0]["b"]["value"], "00");
  ASSERT_EQ(run({"store", "delete", "b", kps, "02"}).status, 0);
  done = run({"diff", "a", "b", "--expect", "known.json"});
  EXPECT_EQ(done.status, 2);
  EXPECT_NE(done.out.find("\nexpected and missing\n"), std::string::npos) << done.out;

  for (const char *wrong : {"", "[]", "{}", R"({"changes": 1})"}) {
    write("known.json", wrong);
    EXPECT_EQ(run(expecting).status, 3) << wrong;
  }
  EXPECT_EQ(run({"diff", "a", "b", "--expect", "nothing"}).status, 3);
}

// One that is too long is passed over; lists elsewhere in the document are none of it.
TEST_F(diff_of_states, expected_ones_that_are_too_long_are_told) {
  put("b", kps, "01", "00");
  const nlohmann::json known = diff(2);
  nlohmann::json document = {{"missing", {{{"old", 1}}, {{"old", 2}}}},
                             {"result", {{"changes", {1}}}}};
  document["changes"] = {{{"change", std::string(9 << 20, 'x')}}, known["changes"][0]};
  write("known.json", document.dump());

  const result done = run({"diff", "a", "b", "--format", "json", "--expect", "known.json"});
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.json()["summary"]["expected"], 1);
  EXPECT_EQ(done.json()["missing"], nlohmann::json::array());
  EXPECT_EQ(done.err, "datamorph: 'known.json': 1 known difference of more than 8388608 bytes of "
                      "JSON: damaged, and passed over\n");
}

TEST_F(diff_of_states, refused) {
  fs::create_directories(path("empty"));
  write("broken/switch.json", "{}");
  for (const char *other :
       {"none", "empty", "broken", "none:volatile:/x", "a:volatile:/no", "a:volatile:/../x"}) {
    const bool store = std::string(other).find(':') != std::string::npos;
    const std::string good = store ? std::string("a:") + kps : "a";
    EXPECT_EQ(run({"diff", good, other}).status, 3) << other;
    const result turned = run({"diff", other, good});
    EXPECT_EQ(turned.status, 3) << other;
    EXPECT_EQ(std::count(turned.err.begin(), turned.err.end(), '\n'), 1) << turned.err;
  }
  EXPECT_EQ(run({"diff", "a", std::string("a:") + kps}).status, 64);
  EXPECT_EQ(run({"diff", "a"}).status, 64);
}

// What walks in a document calls itself: none that is nested without end is taken.
TEST_F(diff_of_states, documents_without_end_are_refused) {
  const std::string deep = std::string(200000, '[') + std::string(200000, ']');
  write("expected", "{\"changes\":" + deep + "}");
  const result expected = run({"diff", "a", "b", "--expect", "expected"});
  EXPECT_EQ(expected.status, 3);
  EXPECT_EQ(expected.err, "datamorph: 'expected': nested deeper than 64 levels; known differences "
                          "are what 'datamorph diff --format json' writes\n");
  fs::create_directories(path("a/runs/0001"));
  write("a/runs/0001/run.json", "{\"format\":" + deep + "}");
  EXPECT_EQ(run({"history", "a"}).status, 0);
  write("a/runs/0001/journal.jsonl", "{\"moment\":" + deep + ",\"uri\":\"" + kps + "\"}\n");
  EXPECT_EQ(run({"why", "a", kps}).status, 0);
  write("b/current/switch.json", "{\"format\":" + deep + "}");
  EXPECT_EQ(run({"lab", "show", "b"}).status, 3);
  EXPECT_EQ(run({"check", "b", "--to", "4.2(1)"}).status, 3);
  EXPECT_EQ(run({"rehearse", "b", "--to", "4.2(1)"}).status, 3);
}

TEST_F(diff_of_states, nothing_is_written) {
  put("b", kps, "01", "00");
  ASSERT_EQ(run({"convert", "b", "--to", "4.2(1)"}).status, 0);
  const files a = state("a");
  const files b = state("b");
  EXPECT_EQ(run({"diff", "a", "b"}).status, 2);
  EXPECT_EQ(run({"diff", "b/previous", "b"}).status, 2);
  EXPECT_EQ(state("a"), a);
  EXPECT_EQ(state("b"), b);
  expect_tidy("b");
  if (geteuid() != 0) {
    return; // mounting is root's
  }
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  for (const char *name : {"a", "b"}) {
    const std::string at = path(name);
    ASSERT_EQ(mount(at.c_str(), at.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, at.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  }
  const result done = run({"diff", "a", "b"});
  EXPECT_EQ(done.status, 2) << done.err;
  EXPECT_NE(done.out.find("\ndifferent: "), std::string::npos);
  EXPECT_NE(done.out.find("0 unreadable;"), std::string::npos) << done.out;
  for (const char *name : {"a", "b"}) {
    umount2(path(name).c_str(), MNT_DETACH);
  }
}

} // namespace
