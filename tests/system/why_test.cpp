// why: every line of the journals that touched a record or its store, and whether that counts.
#include "command.h"

#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr char vlans[] = "nonvolatile:/cfg/0/vlan_cfg";

class why : public command_test {
protected:
  json ask(words arguments) {
    arguments.insert(arguments.begin(), "why");
    arguments.insert(arguments.end(), {"--format", "json"});
    const result told = run(arguments);
    EXPECT_EQ(told.status, 0) << told.err;
    return told.json();
  }
  std::string table(words arguments) {
    arguments.insert(arguments.begin(), "why");
    const result told = run(arguments);
    EXPECT_EQ(told.status, 0) << told.err;
    return told.out;
  }
  void convert_as(const std::string &what, int status, const std::string &to = "4.2(1)") {
    fake(what);
    ASSERT_EQ(run({"convert", "sw", "--to", to}).status, status);
  }
  void write_journal(const std::string &lines) { write("sw/runs/0001/journal.jsonl", lines); }

  // "run touched call status" of each.
  static words told(const json &answer) {
    words lines;
    for (const json &touch : answer["touches"]) {
      lines.push_back(touch["run"].get<std::string>() + " " + touch["touched"].get<std::string>() +
                      " " + touch["call"].get<std::string>() + " " + touch["status"].dump());
    }
    return lines;
  }
};

TEST_F(why, tells_each_call_that_touched_a_record_in_its_order) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  const std::string uri = "volatile:/cfg/0/globalpss_table";
  const std::string key = "2f6366672f302f7376695f676c646200";

  const json answer = ask({"sw", uri, key});

  EXPECT_EQ(told(answer), (words{"0001 store pss2_open 0", "0001 store pss2_file2kernel 1078460418",
                                 "0001 record pss2_store 0", "0001 store pss2_destroy 0"}));
  json expected = {{"run", "0001"},
                   {"verb", "convert"},
                   {"started", json::parse(read("sw/runs/0001/run.json"))["started"]},
                   {"from", "4.1(5)"},
                   {"to", "4.2(1)"},
                   {"result", "done"},
                   {"kept", true},
                   {"touched", "record"},
                   {"n", 3},
                   {"moment", "gsync"},
                   {"vdc", 1},
                   {"service", "PSS_HELPER"},
                   {"routine", "svi_data_morph_psshlpr_upg"},
                   {"call", "pss2_store"},
                   {"key", key},
                   {"old", nullptr},
                   {"new", 12},
                   {"added", 1},
                   {"changed", 0},
                   {"removed", 0},
                   {"status", 0},
                   {"text", answer["touches"][2]["text"]},
                   {"unexpected", false}};
  EXPECT_EQ(answer["touches"][2], expected);
  EXPECT_EQ(answer["switch"], "sw");
  EXPECT_EQ(answer["uri"], uri);
  EXPECT_EQ(answer["key"], key);
  EXPECT_EQ(answer["encoding"], "hex");
  EXPECT_EQ(answer["runs"], 1);
  EXPECT_EQ(answer["gaps"], json::array());
  EXPECT_EQ(answer["now"], (json{{"there", false}}));
  EXPECT_NE(table({"sw", uri, key})
                .find("the record '" + key + "' of the store '" + uri + "' is not there now\n"),
            std::string::npos);
}

TEST_F(why, of_a_whole_store_tells_its_records_too) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  const json answer = ask({"sw", "volatile:/cfg/0/cond_srv_config"});

  EXPECT_EQ(told(answer), (words{"0001 store pss_destroy 1078460418", "0001 store pss_create 0",
                                 "0001 record pss_store 0"}));
  EXPECT_EQ(answer["touches"][2]["key"], "0f000000");
  EXPECT_EQ(answer["key"], nullptr);
  EXPECT_EQ(answer["now"], (json{{"there", true}, {"records", 1}}));
}

TEST_F(why, runs_that_were_not_kept_and_rollbacks_are_told) {
  create("sw");
  convert_as("fail", 1);
  convert_as("change", 0);
  ASSERT_EQ(run({"rollback", "sw", "--yes"}).status, 0);
  fake("hang");
  const std::unique_ptr<background> running = start({"convert", "sw", "--to", "4.2(1)"});
  ASSERT_TRUE(eventually([&] {
    return read("sw/runs/0004/journal.jsonl").find("68616e67696e67") != std::string::npos;
  }));
  running->signal(SIGKILL);
  running->wait();

  const json changed = ask({"sw", vlans, "changed", "--text"});
  EXPECT_EQ(told(changed), (words{"0002 record pss_store 0", "0003 state rollback null"}));
  EXPECT_EQ(changed["touches"][0]["kept"], true);
  EXPECT_EQ(changed["touches"][0]["key"], "changed");
  EXPECT_EQ(changed["touches"][1]["from"], "4.2(1)");
  EXPECT_EQ(changed["touches"][1]["to"], "4.1(5)");
  EXPECT_EQ(changed["now"], (json{{"there", false}}));

  const json failing = ask({"sw", vlans, "6661696c696e67"});
  EXPECT_EQ(told(failing), (words{"0001 record pss_store 0", "0003 state rollback null"}));
  EXPECT_EQ(failing["touches"][0]["kept"], false);
  EXPECT_NE(table({"sw", vlans, "failing", "--text"}).find(" not kept: failed "),
            std::string::npos);

  const json hanging = ask({"sw", vlans, "hanging", "--text"});
  EXPECT_EQ(told(hanging), (words{"0003 state rollback null", "0004 record pss_store 0"}));
  EXPECT_EQ(hanging["touches"][1]["kept"], false);
  EXPECT_EQ(hanging["touches"][1]["result"], "killed");
  EXPECT_NE(table({"sw", vlans, "hanging", "--text"}).find(" not kept: killed "),
            std::string::npos);
}

TEST_F(why, a_reboot_is_told_where_it_empties_the_store) {
  create("sw");
  ASSERT_EQ(run({"lab", "reboot", "sw"}).status, 0);

  EXPECT_EQ(told(ask({"sw", "volatile:/cfg/0/evms_runtime_cfg"})), words{"0001 store reboot null"});
  EXPECT_EQ(told(ask({"sw", "nonvolatile:/tmp/vrrp-startup-pss", "00"})),
            words{"0001 store reboot null"});
  EXPECT_EQ(told(ask({"sw", vlans})), words{});
}

TEST_F(why, what_nothing_touched_is_said_so) {
  create("sw");
  EXPECT_EQ(table({"sw", "nonvolatile:/cfg/0/none"}),
            "nothing touched the store 'nonvolatile:/cfg/0/none': the switch has no runs yet\n"
            "the store 'nonvolatile:/cfg/0/none' is not there now\n");
  convert_as("change", 0);
  EXPECT_EQ(
      table({"sw", vlans, "0001"}),
      "nothing touched the record '0001' of the store 'nonvolatile:/cfg/0/vlan_cfg': it stands in "
      "no journal of 1 run; what was edited by hand or imported stands in none\nthe record '0001' "
      "of the store 'nonvolatile:/cfg/0/vlan_cfg' is there "
      "now, with "
      "34 bytes\n");
  EXPECT_EQ(told(ask({"sw", vlans, ""})), words{});
}

TEST_F(why, a_store_may_be_written_in_another_way) {
  create("sw");
  convert_as("change", 0);

  EXPECT_EQ(told(ask({"sw", "nonvolatile:cfg//0/./vlan_cfg", "changed", "--text"})),
            words{"0001 record pss_store 0"});
  EXPECT_EQ(told(ask({"sw", "volatile:/cfg/0/vlan_cfg", "changed", "--text"})), words{});
}

TEST_F(why, the_running_tag_tables_are_records_by_their_vdc) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)", "--moment", "running-fs"}).status, 0);

  const json answer = ask({"sw", "volatile:/sysmgr/tag_tables", "0001"});

  EXPECT_EQ(told(answer), (words{"0001 record sysmgr_srv_tag_info_add 0",
                                 "0001 record sysmgr_srv_tag_info_add 0"}));
  EXPECT_EQ(answer["touches"][0]["service"], "KPS");
  EXPECT_EQ(answer["touches"][0]["old"], 20);
  EXPECT_EQ(answer["touches"][0]["new"], 29);
  EXPECT_EQ(answer["now"], (json{{"there", true}, {"bytes", 38}}));
  EXPECT_EQ(told(ask({"sw", "volatile:/sysmgr/tag_tables", "0003"})), words{});
}

// ---- Journals of other kinds -------------------------------------------------------------------

constexpr char good_line[] =
    R"({"n":1,"moment":"startup","vdc":1,"service":"X\u001b[1m","routine":"x_up","call":"pss_store",)"
    R"("uri":"nonvolatile:/a/b","key":"ab","old":1,"new":2,"added":0,"changed":1,"removed":0,)"
    R"("status":0,"unexpected":false})"
    "\n";

TEST_F(why, the_routine_is_told_where_it_stands_and_bytes_stay_text) {
  create("sw");
  convert_as("nothing", 0);
  write_journal(good_line);

  EXPECT_EQ(ask({"sw", "nonvolatile:/a/b", "AB"})["touches"][0]["routine"], "x_up");
  const std::string shown = table({"sw", "nonvolatile:/a/b", "ab"});
  EXPECT_NE(shown.find("X\\x1b[1m x_up    pss_store record ab "), std::string::npos) << shown;
}

TEST_F(why, damaged_lines_are_counted_and_said) {
  create("sw");
  convert_as("nothing", 0);
  const std::string good = good_line;
  std::string no_status = good;
  no_status.replace(no_status.find("\"status\""), 8, "\"staten\"");
  std::string bad_key = good;
  bad_key.replace(bad_key.find("\"ab\""), 4, "12345678");
  write_journal("\n" + good + "rubbish\n" + no_status + bad_key + good +
                "{\"uri\":\"nonvolatile:/a/b\n" + good.substr(0, 90));

  const json answer = ask({"sw", "nonvolatile:/a/b", "ab"});

  EXPECT_EQ(told(answer), (words{"0001 record pss_store 0", "0001 record pss_store 0"}));
  EXPECT_EQ(answer["gaps"],
            json::array({{{"run", "0001"}, {"damaged_lines", 6}, {"trouble", nullptr}}}));
  EXPECT_NE(table({"sw", "nonvolatile:/a/b"}).find("run 0001: 6 damaged lines in its journal\n"),
            std::string::npos);
}

// One byte more than the longest line, and more than is read at once; what follows is told.
TEST_F(why, lines_that_are_too_long_are_damaged) {
  create("sw");
  convert_as("nothing", 0);
  const size_t longest = 1048576; // of a line, without its end
  const auto line_of = [](size_t size) {
    std::string line = good_line;
    line.pop_back();
    return line + std::string(size - line.size(), ' ') + "\n";
  };
  const std::string endless(5000000, 'x');
  write_journal(line_of(longest) + line_of(longest + 1) + good_line + endless + "\n" + good_line +
                endless);

  const json answer = ask({"sw", "nonvolatile:/a/b", "ab"});

  EXPECT_EQ(told(answer), (words{"0001 record pss_store 0", "0001 record pss_store 0",
                                 "0001 record pss_store 0"}));
  EXPECT_EQ(answer["gaps"][0]["damaged_lines"], 3);
}

// None of these is a line of a journal, also where it names another store or none.
TEST_F(why, lines_that_are_no_flat_objects_are_damaged) {
  create("sw");
  convert_as("nothing", 0);
  const words damaged = {"[]",
                         "1",
                         "{\"a\":{}}",
                         "{\"a\":[1]}",
                         "{\"a\":1,}",
                         "{\"a\" 1}",
                         "{\"a\":01}",
                         "{\"a\":\"\\q\"}",
                         "{\"a\":\"\t1,\"b\":1}",
                         "{\"a\":\"\\u12g4\"}",
                         "{\"a\":\"\xff\"}",
                         "{\"a\":1} x",
                         "{\"a\":nul}",
                         "{\"a\":\"x}"};
  const words whole = {"{}", " { \"a\" : -1 , \"b\":\"\\\"\\u00e9\xc3\xa9\",\"c\":null}\r",
                       "{\"a\":0,\"b\":true,\"c\":false}"};
  std::string lines;
  for (const words &all : {damaged, whole}) {
    for (const std::string &line : all) {
      lines += line + "\n";
    }
  }
  write_journal(lines);

  EXPECT_EQ(ask({"sw", "nonvolatile:/a/b"})["gaps"][0]["damaged_lines"], damaged.size());
}

TEST_F(why, a_journal_that_cannot_be_read_is_said) {
  create("sw");
  convert_as("nothing", 0);
  fs::remove(path("sw/runs/0001/journal.jsonl"));
  EXPECT_NE(
      table({"sw", vlans}).find("run 0001: its journal is not told: No such file or directory\n"),
      std::string::npos);
  fs::create_directory(path("sw/runs/0001/journal.jsonl"));
  write("sw/runs/0002", "a file");

  EXPECT_EQ(ask({"sw", vlans})["gaps"],
            json::array({{{"run", "0001"}, {"damaged_lines", 0}, {"trouble", "not a regular file"}},
                         {{"run", "0002"},
                          {"damaged_lines", 0},
                          {"trouble", "foreign: not the folder of a run"}}}));
}

TEST_F(why, a_table_shows_the_first_thousand_lines) {
  create("sw");
  convert_as("nothing", 0);
  std::string lines;
  for (int at = 0; at < 1003; ++at) {
    lines += good_line;
  }
  write_journal(lines);

  EXPECT_NE(table({"sw", "nonvolatile:/a/b"}).find("\n3 more; --format json has them all\n"),
            std::string::npos);
  EXPECT_EQ(ask({"sw", "nonvolatile:/a/b"})["touches"].size(), 1003u);
}

TEST_F(why, a_store_that_cannot_be_read_now_is_told_all_the_same) {
  create("sw");
  convert_as("change", 0);
  write("sw/current/cfg/0/vlan_cfg.pss", "rubbish");

  const json answer = ask({"sw", vlans, "changed", "--text"});

  EXPECT_EQ(told(answer), words{"0001 record pss_store 0"});
  EXPECT_EQ(answer["now"]["there"], nullptr);
  EXPECT_EQ(answer["now"]["trouble"].get<std::string>().find("0x40480009"), 0u);
}

TEST_F(why, what_is_no_store_or_key_is_refused) {
  create("sw");
  const struct {
    words arguments;
    int status;
    const char *message;
  } cases[] = {
      {{"sw", "vlan_cfg"}, 3, "datamorph: store 'vlan_cfg': 0x40480005 "},
      {{"sw", "/cfg/0/a.snp"}, 3, "datamorph: store '/cfg/0/a.snp': 0x40480005 "},
      {{"sw", "nonvolatile:/a\xff"}, 3, "datamorph: store 'nonvolatile:/a\\xff': journals "},
      {{"sw", vlans, "0"}, 64, "datamorph: the key '0': pairs of hex digits are wanted"},
      {{"sw", vlans, "\\", "--text"}, 64, "datamorph: the key '\\\\': a backslash is "},
      {{"none", vlans}, 3, "datamorph: 'none': cannot open the switch's directory"}};
  for (const auto &at : cases) {
    words arguments = at.arguments;
    arguments.insert(arguments.begin(), "why");
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, at.status) << refused.err;
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err.find(at.message), 0u) << refused.err;
    arguments.insert(arguments.end(), {"--format", "json"});
    EXPECT_EQ(run(arguments).envelope()["exit_code"], at.status);
  }
}

} // namespace
