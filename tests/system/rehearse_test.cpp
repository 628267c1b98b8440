// rehearse tells what a conversion would do, writes nothing of the switch, and a plan that it saved
// is carried out as it was seen or not at all.
#include "command.h"

#include <filesystem>
#include <fstream>
#include <regex>

#include <signal.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char manager[] = "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav";
constexpr char engine[] = "nonvolatile:/cfg/startup/bin/vrrp-eng_runtime_config";
constexpr char runtime[] = "nonvolatile:/cfg/0/ethpm_runtime_info";

// Size, mode and times of everything below a folder; when it was read does not count.
std::map<std::string, std::string> traces_of(const std::string &folder) {
  std::map<std::string, std::string> found;
  const auto note = [&](const std::string &path) {
    struct stat about = {};
    EXPECT_EQ(lstat(path.c_str(), &about), 0);
    found[path] = std::to_string(about.st_ino) + " " + std::to_string(about.st_mode) + " " +
                  std::to_string(about.st_size) + " " + std::to_string(about.st_mtim.tv_sec) + "." +
                  std::to_string(about.st_mtim.tv_nsec) + " " +
                  std::to_string(about.st_ctim.tv_sec) + "." +
                  std::to_string(about.st_ctim.tv_nsec);
  };
  note(folder);
  for (const auto &entry : fs::recursive_directory_iterator(folder)) {
    note(entry.path());
  }
  return found;
}

class rehearsals : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
    fs::create_directory(path("scratch"));
    set("TMPDIR", path("scratch"));
  }
  void TearDown() override {
    EXPECT_TRUE(fs::is_empty(path("scratch")));
    command_test::TearDown();
  }
  // Lets a traced command work until it is about to lock the folder that it made for its copies.
  static bool stops_before_lock(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    bool made = false;
    while (ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr) == 0 && waitpid(pid, &status, 0) == pid &&
           WIFSTOPPED(status)) {
      __ptrace_syscall_info info = {};
      const long got = ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
      const bool begins = got > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY;
      made |= begins && (info.entry.nr == SYS_mkdir || info.entry.nr == SYS_mkdirat);
      if (made && begins && info.entry.nr == SYS_flock) {
        return true;
      }
    }
    return false;
  }
  // A file system of this test's process, in a user namespace when that is needed.
  void mount_small(const std::string &name, const char *size) {
    ASSERT_NO_FATAL_FAILURE(enter_private_mounts());
    fs::create_directory(path(name));
    ASSERT_EQ(mount("tmpfs", path(name).c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()),
              0);
  }
  nlohmann::json rehearse(const words &more, int status = 0) {
    words all = {"rehearse", "sw", "--format", "json"};
    all.insert(all.end(), more.begin(), more.end());
    const result done = run(all);
    EXPECT_EQ(done.status, status) << done.err;
    return done.json();
  }
  // Whether a rehearsal has begun to fill its folder.
  static bool has_copy(const std::string &scratch) {
    const fs::directory_iterator folder(scratch);
    return folder != fs::end(folder) && !fs::is_empty(folder->path());
  }
  static const nlohmann::json &find(const nlohmann::json &changes, const std::string &name,
                                    const std::string &key) {
    static const nlohmann::json none;
    for (const nlohmann::json &change : changes) {
      if (change["name"] == name && change.value("key", "-") == key) {
        return change;
      }
    }
    ADD_FAILURE() << name << " " << key;
    return none;
  }
  // "startup 1 VRRP_MGR routine"
  static std::string author(const nlohmann::json &change) {
    if (change["step"].is_null()) {
      return "nobody";
    }
    return change["moment"].get<std::string>() + " " + change["vdc"].dump() + " " +
           change["service"].get<std::string>() + " " + change.value("routine", "-");
  }
  // The same without the routine, of which those of the fake converters have no name.
  static std::string step_of(const nlohmann::json &change) {
    const std::string all = author(change);
    return all.substr(0, all.rfind(' '));
  }
  static nlohmann::json balance(const nlohmann::json &shown) {
    const nlohmann::json &all = shown["summary"];
    return {all["records_in"], all["converted"], all["removed_by_rule"], all["unaccounted"]};
  }
};

TEST_F(rehearsals, every_change_names_who_made_it) {
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});
  const nlohmann::json &changes = shown["changes"];
  const auto made_by = [&](const char *name, const char *key) {
    return author(find(changes, name, key));
  };

  EXPECT_EQ(shown["switch"], "sw");
  EXPECT_EQ(shown["from"], "4.1(5)");
  EXPECT_EQ(shown["to"], "4.2(1)");
  EXPECT_EQ(shown["steps"].size(), 32u);
  EXPECT_EQ(made_by("switch.json", "-"), "nobody");
  EXPECT_EQ(made_by(runtime, "33061a000000"), "gsync 1 TEST_ETHPM ethpm_data_morph_gsync");
  EXPECT_EQ(made_by("nonvolatile:/cfg/startup/bin/ethpm_saved_config", "65141a000000"),
            "startup 1 TEST_ETHPM ethpm_data_morph_startup");
  EXPECT_EQ(made_by(manager, "04000000"),
            "startup 1 VRRP_MGR vrrp_mgr_data_morph_startup_for_upgrade");
  EXPECT_EQ(made_by(engine, "-"), "startup 1 VRRP_ENG vrrp_eng_data_morph_startup_for_upgrade");
  EXPECT_EQ(made_by(engine, "01000000010a1a000000"),
            "startup 1 VRRP_ENG vrrp_eng_data_morph_startup_for_upgrade");
  EXPECT_EQ(made_by("volatile:/cfg/0/vdc_2/cond_srv_config", "0f000000"),
            "gsync 2 AIC_DBG cond_srv1_data_morph_gsync");
  EXPECT_EQ(made_by("/cfg/0/svi_gldb.snp", "-"), "gsync 1 PSS_HELPER svi_data_morph_psshlpr_upg");
  EXPECT_EQ(made_by("volatile:/sysmgr/tag_tables", "0002"),
            "startup 2 DOT1X dot1x_data_morph_startup");
  // Both features entered themselves into this one.
  const nlohmann::json &saved =
      find(changes, "nonvolatile:/cfg/startup/bin/sysmgr_config", "090000000000000000000000");
  EXPECT_EQ(author(saved), "startup 1 DOT1X dot1x_data_morph_startup");
  EXPECT_EQ(saved["earlier_steps"].dump(), "[21]");
  EXPECT_EQ(saved["earlier_routines"].dump(), R"(["kps_data_morph_startup"])");
  EXPECT_EQ(shown["steps"][21]["routines"].dump(), R"(["kps_data_morph_startup"])");
}

// VRRP going down: one service, two rows, of which one acts.
TEST_F(rehearsals, the_row_of_a_service_with_two_is_told) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  const nlohmann::json shown = rehearse({"--to", "4.1(5)"});

  EXPECT_EQ(author(find(shown["changes"], manager, "01000000010a1a000000")),
            "startup 1 VRRP_MGR vrrp_mgr_data_morph_startup_for_downgrade");
}

constexpr char vlans[] = "nonvolatile:/cfg/0/vlan_cfg";

// SKSD destroys the store, PLUGIN makes it again: what is gone went with SKSD.
TEST_F(rehearsals, whoever_destroyed_a_store_removed_its_records) {
  fake("destroy-and-make-again");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"}, 1);

  EXPECT_EQ(step_of(find(shown["changes"], vlans, "0001")), "running-fs 1 SKSD");
  EXPECT_EQ(step_of(find(shown["changes"], vlans, "6d6164652d616761696e")), "running-fs 1 PLUGIN");
  EXPECT_EQ(shown["losses"]["records"][0]["step"], 2);
}

// The one who sets what stands there already is no author.
TEST_F(rehearsals, the_last_one_who_changed_a_record_is_its_author) {
  fake("set-one-after-the-other");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});

  const nlohmann::json &same = find(shown["changes"], vlans, "7468652d73616d65");
  EXPECT_EQ(step_of(same), "running-fs 1 SKSD");
  EXPECT_EQ(same["earlier_steps"].dump(), "[]");
  const nlohmann::json &both = find(shown["changes"], vlans, "6f662d626f7468");
  EXPECT_EQ(step_of(both), "running-fs 1 PLUGIN");
  EXPECT_EQ(both["earlier_steps"].dump(), "[2]");
}

TEST_F(rehearsals, whoever_fills_a_store_with_what_stood_there_is_no_author) {
  fake("change-and-snapshot");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});

  const nlohmann::json &changed = find(shown["changes"], vlans, "6368616e676564");
  EXPECT_EQ(step_of(changed), "running-fs 1 SKSD");
  EXPECT_EQ(changed["earlier_steps"].dump(), "[]");
  EXPECT_EQ(step_of(find(shown["changes"], "volatile:/cfg/0/vlan_cfg_copy", "6368616e676564")),
            "running-fs 1 PLUGIN");
}

TEST_F(rehearsals, whoever_leaves_a_tag_table_as_it_was_is_no_author) {
  fake("exchange-tags");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});

  const nlohmann::json &table = find(shown["changes"], "volatile:/sysmgr/tag_tables", "0001");
  EXPECT_EQ(step_of(table), "running-fs 1 SKSD");
  EXPECT_EQ(table["earlier_steps"].dump(), "[]");
}

TEST_F(rehearsals, a_tag_table_that_was_written_over_has_its_author) {
  fake("write-over-tags");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});

  EXPECT_EQ(step_of(find(shown["changes"], "volatile:/sysmgr/tag_tables", "0001")),
            "running-fs 1 PLUGIN");
}

// More calls than are held in memory.
TEST_F(rehearsals, the_authors_of_many_records_are_told) {
  fake("many-in-turn");
  set("FAKE_CONVERTERS_RECORDS", "4500");
  const result shown = run({"rehearse", "sw", "--to", "4.2(1)", "--format", "jsonl"});

  ASSERT_EQ(shown.status, 0) << shown.err;
  size_t by_plugin = 0;
  for (size_t at = 0; (at = shown.out.find(R"("earlier_steps":[2],)", at)) != std::string::npos;
       ++at) {
    by_plugin += 1;
  }
  EXPECT_EQ(by_plugin, 4500u);
}

TEST_F(rehearsals, fields_are_decoded_on_each_side) {
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});
  const nlohmann::json &reason = find(shown["changes"], runtime, "33061a000000");
  EXPECT_EQ(reason["change"], "changed");
  EXPECT_EQ(reason["fields"].dump(), R"({"reason":{"a":124,"b":143}})");
  EXPECT_EQ(find(shown["changes"], manager, "01000000010a1a000000")["a"]["decoded"]["layout"],
            "before 4.2(1)");
  EXPECT_EQ(find(shown["changes"], engine, "01000000010a1a000000")["b"]["decoded"]["layout"],
            "4.2(1)");
}

TEST_F(rehearsals, records_that_change_stores_are_not_lost) {
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});

  EXPECT_EQ(balance(shown).dump(), "[95,90,5,0]");
  EXPECT_EQ(shown["losses"]["records_total"], 5);
  EXPECT_EQ(shown["losses"]["fields_total"], 0);
  EXPECT_EQ(shown["losses"]["records"][0]["key"], "65141a000000");
  EXPECT_EQ(shown["losses"]["records"][0]["step"], 4);
  EXPECT_EQ(shown["losses"]["records"][0]["why"], "the other release keeps no such configuration");
  EXPECT_EQ(shown["losses"]["records"][0]["decoded"].dump(),
            R"({"interface":"0x1a000000","kind":"interface config TLV"})");
}

TEST_F(rehearsals, fields_that_the_older_layout_lacks_are_lost) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  const nlohmann::json shown = rehearse({"--to", "4.1(5)"});

  EXPECT_EQ(balance(shown).dump(), "[98,96,2,0]");
  EXPECT_EQ(shown["losses"]["fields_total"], 20); // five VR records of four fields
  const nlohmann::json &first = shown["losses"]["fields"][0];
  EXPECT_EQ(first["store"], engine);
  EXPECT_EQ(first["key"], "01000000010a1a000000");
  EXPECT_EQ(first["field"], "lower_threshold_prio");
  EXPECT_EQ(first["value"], 0);
  EXPECT_EQ(first["step"], 24);
}

// From every release to every other, all that goes has its rule.
TEST_F(rehearsals, the_shipped_converters_account_for_every_record) {
  const words releases = {"3.3(1)", "4.1(2)", "4.2(1)", "5.0(2)"};
  for (const std::string &from : releases) {
    fs::remove_all(path("sw"));
    create("sw");
    ASSERT_EQ(run({"convert", "sw", "--to", from}).status, 0);
    for (const std::string &to : releases) {
      const nlohmann::json shown = rehearse({"--to", to});
      EXPECT_EQ(shown["summary"]["unaccounted"], 0) << from << " " << to;
      EXPECT_EQ(shown["losses"]["records_total"], shown["summary"]["removed_by_rule"]);
    }
  }
}

TEST_F(rehearsals, a_record_that_goes_without_a_rule_is_unaccounted_for) {
  fake("remove");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)", "--save", "plan.json"}, 1);

  EXPECT_EQ(balance(shown).dump(), "[95,94,0,1]");
  EXPECT_EQ(shown["losses"]["records"].size(), 1u);
  EXPECT_EQ(shown["losses"]["records"][0]["store"], "nonvolatile:/cfg/0/vlan_cfg");
  EXPECT_EQ(shown["losses"]["records"][0]["why"], nullptr);
  EXPECT_FALSE(exists("plan.json"));

  const result table = run({"rehearse", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(table.status, 1);
  EXPECT_NE(table.out.find("UNACCOUNTED"), std::string::npos) << table.out;
  EXPECT_NE(table.out.find("\n95 records in, 94 converted, 0 removed by rule, 1 unaccounted\n"),
            std::string::npos);
  EXPECT_EQ(table.err, "datamorph: 'sw': 1 record would be lost for no known reason\n");
}

// ---- Where a rule says that the record is ------------------------------------------------------

TEST_F(rehearsals, what_a_rule_promises_is_looked_for) {
  const auto lost = [&](const char *what, const char *key, int status) {
    fake(what);
    const nlohmann::json shown = rehearse({"--to", "4.2(1)"}, status);
    EXPECT_EQ(shown["losses"]["records_total"], 1) << what;
    const nlohmann::json &first = shown["losses"]["records"].at(0);
    EXPECT_EQ(first["key"], key) << what;
    EXPECT_EQ(first["why"].is_null(), status != 0) << what;
    return balance(shown).dump();
  };
  EXPECT_EQ(lost("fold", "36000010da0001", 0), "[95,94,1,0]");
  EXPECT_EQ(lost("fold-nowhere", "36000010da0001", 1), "[95,94,0,1]");
  EXPECT_EQ(lost("fold-badly", "36000010da0001", 1), "[95,94,0,1]");

  ASSERT_EQ(run({"store", "put", "sw", engine, "03", "01", "--create"}).status, 0);
  EXPECT_EQ(lost("replace", "03", 1), "[96,95,0,1]");
  set("DATAMORPH_LIBRARY", "");
  const nlohmann::json replaced = rehearse({"--to", "4.2(1)"});
  EXPECT_EQ(balance(replaced).dump(), "[96,90,6,0]");
  EXPECT_EQ(replaced["losses"]["records"].at(5)["why"],
            "the manager's store takes the place of the engine's");
  ASSERT_EQ(run({"store", "delete", "sw", engine, "--all"}).status, 0);

  ASSERT_EQ(
      run({"store", "put", "sw", "volatile:/cfg/0/cond_srv_config", "10000000", "01", "--create"})
          .status,
      0);
  EXPECT_EQ(lost("plant", "10000000", 1), "[96,95,0,1]");
  set("DATAMORPH_LIBRARY", "");
  EXPECT_EQ(balance(rehearse({"--to", "4.2(1)"})).dump(), "[96,90,6,0]");
}

// ---- What is lost without a record that goes ---------------------------------------------------

TEST_F(rehearsals, entries_of_a_tag_table_that_go_are_lost) {
  fake("empty-a-tag-table");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});
  EXPECT_EQ(balance(shown).dump(), "[95,95,0,0]");
  ASSERT_EQ(shown["losses"]["fields_total"], 1) << shown["losses"].dump(1);
  const nlohmann::json &lost = shown["losses"]["fields"][0];
  EXPECT_EQ(lost["store"], "volatile:/sysmgr/tag_tables");
  EXPECT_EQ(lost["key"], "0001");
  EXPECT_EQ(lost["field"], "entries");
  EXPECT_EQ(lost["value"]["service"], "AIC_DBG");
  EXPECT_EQ(lost["value"]["tag"], "lab");
  EXPECT_EQ(lost["text"], "AIC_DBG \"lab\"");
  EXPECT_EQ(lost["why"], "the list does not have it any more");
  EXPECT_EQ(shown["steps"].at(lost["step"].get<size_t>())["service"], "SKSD");
  // Another tag of the same service is a change.
  fake("set-another-tag");
  EXPECT_EQ(rehearse({"--to", "4.2(1)"})["losses"]["fields_total"], 0);
}

constexpr char address_key[] = "02000000010a1a0000000a010101000000000000000000000000";
constexpr char other_address[] =
    "0000001a0a010000000a0101010000000000000000000000000100000007000000"; // row_status 7

// Going up, the manager's record takes the place of the one that the engine has under its key.
TEST_F(rehearsals, a_value_that_gives_way_is_lost) {
  ASSERT_EQ(run({"store", "put", "sw", engine, address_key, other_address, "--create"}).status, 0);
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});
  EXPECT_EQ(balance(shown).dump(), "[96,90,6,0]");
  const nlohmann::json &lost = shown["losses"]["records"].at(5);
  EXPECT_EQ(lost["store"], engine);
  EXPECT_EQ(lost["key"], address_key);
  EXPECT_EQ(lost["decoded"]["row_status"], 7);
  EXPECT_EQ(lost["why"], "the record of its key in another of VRRP's stores took its place");
  EXPECT_EQ(shown["steps"].at(lost["step"].get<size_t>())["service"], "VRRP_ENG");
  EXPECT_EQ(shown["losses"]["fields_total"], 0);

  // A wider record whose older part is the same: what only it has, is lost with it.
  const char *router = "01000000010a1a000000";
  const std::string narrow = run({"store", "get", "sw", manager, router}).out.substr(0, 2 * 85);
  const std::string wide = narrow + "05" + std::string(62, '0');
  ASSERT_EQ(run({"store", "put", "sw", engine, router, wide}).status, 0);
  const nlohmann::json wider = rehearse({"--to", "4.2(1)"});
  EXPECT_EQ(balance(wider).dump(), "[97,90,7,0]");
  EXPECT_EQ(wider["losses"]["fields_total"], 0);
  EXPECT_EQ(wider["losses"]["records"].at(5)["key"], router);
  EXPECT_EQ(wider["losses"]["records"].at(5)["value"], wide);
}

// Going down it is the other way round. One of the same value loses nothing.
TEST_F(rehearsals, a_value_that_gives_way_going_down) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  ASSERT_EQ(run({"store", "put", "sw", manager, address_key, other_address}).status, 0);
  const nlohmann::json shown = rehearse({"--to", "4.1(5)"});
  EXPECT_EQ(balance(shown).dump(), "[99,96,3,0]");
  const nlohmann::json &lost = shown["losses"]["records"].at(2);
  EXPECT_EQ(lost["store"], manager);
  EXPECT_EQ(lost["decoded"]["row_status"], 7);
  EXPECT_EQ(shown["steps"].at(lost["step"].get<size_t>())["service"], "VRRP_MGR");

  const std::string same = run({"store", "get", "sw", engine, address_key}).out;
  ASSERT_EQ(
      run({"store", "put", "sw", manager, address_key, same.substr(0, same.size() - 1)}).status, 0);
  EXPECT_EQ(balance(rehearse({"--to", "4.1(5)"})).dump(), "[99,97,2,0]");
}

// ---- Layouts by release ------------------------------------------------------------------------

// Nothing changes it, so that nothing but a count tells of it.
TEST_F(rehearsals, an_unchanged_layout_that_does_not_fit_is_counted) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  ASSERT_EQ(rehearse({"--to", "4.2(3)"})["summary"]["unchanged_misfits"], 0);
  const std::string key = "01000000010a1a000000";
  const std::string wide = run({"store", "get", "sw", engine, key}).out;
  ASSERT_EQ(run({"store", "put", "sw", engine, key, wide.substr(0, 2 * 85)}).status, 0);

  EXPECT_EQ(rehearse({"--to", "4.2(3)"})["summary"]["unchanged_misfits"], 1);
}

// Lists of losses hold no more of them, however long they are.
TEST_F(rehearsals, long_values_are_cut_among_the_losses) {
  const std::string store = "nonvolatile:/cfg/0/ethpm_runtime_cfg";
  const std::string value(60000, 'a');
  ASSERT_EQ(run({"store", "put", "sw", store, "6514ff000000", value}).status, 0);

  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});

  const nlohmann::json &records = shown["losses"]["records"];
  const auto lost = std::find_if(records.begin(), records.end(), [](const nlohmann::json &record) {
    return record["key"] == "6514ff000000";
  });
  ASSERT_NE(lost, records.end());
  EXPECT_EQ((*lost)["value"], std::string(2048, 'a'));
  EXPECT_EQ((*lost)["bytes"], 30000);
  EXPECT_EQ(find(shown["changes"], store, "6514ff000000")["a"]["value"], value);
}

// One that is refused for its losses was not asked to accept any.
TEST_F(rehearsals, losses_that_are_refused_are_not_told_as_accepted) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  const words again = {"rehearse", "sw",     "--to",     "4.2(1)",
                       "--from",   "4.1(5)", "--moment", "startup"};
  const result refused = run(again);
  EXPECT_EQ(refused.status, 3);
  EXPECT_NE(refused.err.find(" would be lost"), std::string::npos) << refused.err;
  EXPECT_EQ(refused.err.find("accepted"), std::string::npos) << refused.err;
}

TEST_F(rehearsals, via_is_another_release_than_the_one_to_come_from) {
  const words command = {"rehearse", "sw", "--from", "4.0(4)", "--to", "4.2(1)", "--via"};
  words same = command;
  same.push_back("4.0(4)");
  EXPECT_EQ(run(same).status, 64);
  words between = command;
  between.push_back("4.1(5)");
  EXPECT_EQ(run(between).status, 0);
}

// What a part of a change has left at the engine is of a later release than the switch's.
TEST_F(rehearsals, a_layout_that_does_not_fit_the_release) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)", "--moment", "startup"}).status, 0);
  const words back = {"--to",    "4.1(5)",    "--from",   "4.2(1)",    "--moment",
                      "startup", "--service", "VRRP_MGR", "--service", "VRRP_ENG"};
  const nlohmann::json shown = rehearse(back);
  EXPECT_EQ(shown["summary"]["misfits"], 5);
  const nlohmann::json &change = find(shown["changes"], engine, "01000000010a1a000000");
  EXPECT_EQ(change["a"]["decoded"]["misfit"], true);
  EXPECT_EQ(change["a"]["decoded"]["problems"].dump(),
            R"(["117 bytes, but before 4.2(1) it has 85"])");
  EXPECT_FALSE(change["a"]["decoded"].contains("prio"));
  EXPECT_EQ(find(shown["changes"], manager, "01000000010a1a000000")["b"]["decoded"]["layout"],
            "before 4.2(1)");
  // Which fields the older layout lacks is not guessed: the value is told.
  EXPECT_EQ(shown["losses"]["fields_total"], 5);
  const nlohmann::json &lost = shown["losses"]["fields"][0];
  EXPECT_EQ(lost["field"], "value");
  EXPECT_EQ(lost["value"].get<std::string>().size(), 2u * 117);
  EXPECT_EQ(lost["why"], "nobody knows which of its fields are kept");

  words all = {"rehearse", "sw", "--report", "r.html"};
  all.insert(all.end(), back.begin(), back.end());
  const result table = run(all);
  EXPECT_EQ(table.status, 0) << table.err;
  EXPECT_NE(table.out.find("\n5 records do not fit the layout of their release\n"),
            std::string::npos)
      << table.out;
  EXPECT_NE(table.out.find(", does not fit its release, 0000001a0a"), std::string::npos);
  EXPECT_NE(
      read("r.html").find("<div class=\"bad\"><dt>Do not fit their release</dt><dd>5 changed, 0 "
                          "unchanged</dd></div>"),
      std::string::npos);
}

// Records that nobody could compare do not count as converted.
TEST_F(rehearsals, what_cannot_be_read_afterwards_is_unaccounted_for) {
  fake("spoil-store");
  const nlohmann::json store = rehearse({"--to", "4.2(1)", "--save", "plan.json"}, 1);
  EXPECT_EQ(store["summary"]["unaccounted"], 3);
  EXPECT_EQ(store["summary"]["unreadable"], 1);
  EXPECT_FALSE(exists("plan.json"));
  EXPECT_NE(run({"rehearse", "sw", "--to", "4.2(1)"}).err.find("'sw': 1 thing could not be read\n"),
            std::string::npos);

  set("DATAMORPH_LIBRARY", "");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  fake("spoil-snapshot");
  const nlohmann::json snapshot = rehearse({"--to", "4.2(3)"}, 1);
  EXPECT_EQ(balance(snapshot).dump(), "[98,97,0,1]");
}

TEST_F(rehearsals, losses_that_are_accepted_are_told_as_such) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  const nlohmann::json shown =
      rehearse({"--to", "4.2(1)", "--from", "4.1(5)", "--accept-losses", "--save", "plan.json"});
  EXPECT_EQ(shown["summary"]["unaccounted"], 0);
  EXPECT_EQ(shown["losses"]["records"][0]["why"], "accepted with --accept-losses");
  EXPECT_EQ(run({"convert", "sw", "--plan", "plan.json"}).status, 0);
}

// What convert refuses: the records are in no store any more, and no rule covers them.
TEST_F(rehearsals, a_repeated_upgrade_would_lose_records) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  const nlohmann::json shown = rehearse({"--to", "4.2(1)", "--from", "4.1(5)"}, 3);

  EXPECT_EQ(shown["summary"]["unaccounted"], 12); // eight of VDC 1, four of VDC 2
  EXPECT_NE(shown["trouble"].get<std::string>().find("8 VRRP records of"), std::string::npos);
}

TEST_F(rehearsals, the_table) {
  const result shown = run({"rehearse", "sw", "--to", "4.2(1)"});

  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.err, "datamorph: nothing was converted; to do it: datamorph convert sw --to "
                       "'4.2(1)'; --save FILE makes a plan first\n");
  EXPECT_TRUE(shown.out.starts_with("sw: from 4.1(5) to 4.2(1), rehearsed on a copy; the switch is "
                                    "as it was\n\nSTEP MOMENT"));
  for (const char *line : {
           "\n#24  startup      1 VRRP_MGR   success    10       0       9 "
           "vrrp_mgr_data_morph_startup_for_upgrade\n",
           "\n17 steps of 32 wrote nothing\n",
           "\nstore nonvolatile:/cfg/0/ethpm_runtime_info\nCHANGE  KEY          BY WHAT\n"
           "changed 33061a000000 #4 reason 124 -> reason 143\n",
           "\nchanged 090000000000000000000000 #21 #22 AIC_DBG \"lab\" -> AIC_DBG \"lab\", KPS "
           "\"\", DOT1X \"\"\n",
           "\nLost: 5 records, 0 fields\n",
           "\nstores, files and the like: 8 added, 0 removed, 1 changed; records: 22 added, 19 "
           "removed, 4 changed, 2 undecoded; 0 unreadable\n95 records in, 90 converted, 5 "
           "removed by rule, 0 unaccounted\n",
       }) {
    EXPECT_NE(shown.out.find(line), std::string::npos) << line << shown.out;
  }
}

TEST_F(rehearsals, a_thing_shows_its_first_20_changes) {
  for (int at = 0; at < 25; ++at) {
    char key[16];
    std::snprintf(key, sizeof key, "33061b%06x", at);
    ASSERT_EQ(run({"store", "put", "sw", runtime, key,
                   "00000000000000000000000000"
                   "7c"})
                  .status,
              0);
  }
  const result shown = run({"rehearse", "sw", "--to", "4.2(1)"});
  const size_t begin = shown.out.find("store nonvolatile:/cfg/0/ethpm_runtime_info\n");
  const size_t end = shown.out.find("7 more\n", begin);
  ASSERT_NE(end, std::string::npos) << shown.out;
  EXPECT_EQ(std::count(shown.out.begin() + static_cast<long>(begin),
                       shown.out.begin() + static_cast<long>(end), '\n'),
            22); // with its two lines of head
}

TEST_F(rehearsals, a_value_that_does_not_fit_is_shown_in_hex_and_counted) {
  ASSERT_EQ(run({"store", "put", "sw", manager, "01000000010a1a000000", "0102"}).status, 0);
  const nlohmann::json shown = rehearse({"--to", "4.2(1)"});
  const nlohmann::json &change = find(shown["changes"], engine, "01000000010a1a000000");
  EXPECT_EQ(change["b"]["value"], "0102");
  EXPECT_EQ(change["b"]["decoded"]["damaged"], true);
  EXPECT_EQ(shown["summary"]["undecoded"], 3);
}

// ---- The switch stays as it is -----------------------------------------------------------------

TEST_F(rehearsals, nothing_is_written) {
  const files before = state("sw");
  const auto traces = traces_of(path("sw"));
  EXPECT_EQ(run({"rehearse", "sw", "--to", "4.2(1)", "--round-trip", "--via", "4.1(2)"}).status, 0);
  EXPECT_EQ(state("sw"), before);
  EXPECT_EQ(traces_of(path("sw")), traces);
  if (geteuid() != 0) {
    return; // mounting is root's
  }
  ASSERT_NO_FATAL_FAILURE(enter_private_mounts());
  const std::string at = path("sw");
  ASSERT_EQ(mount(at.c_str(), at.c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, at.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const nlohmann::json shown = rehearse({"--to", "4.2(1)", "--save", "plan.json"});
  umount2(at.c_str(), MNT_DETACH);
  EXPECT_EQ(balance(shown).dump(), "[95,90,5,0]");
  EXPECT_EQ(traces_of(path("sw")), traces);
}

// A command that was killed left a copy: it is told, and stays.
TEST_F(rehearsals, what_a_stopped_command_left_stays) {
  fs::create_directory(path("sw/next"));
  write("sw/.copy", "");
  const result shown = run({"rehearse", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_TRUE(
      shown.err.starts_with("datamorph: 'sw': a command was cut short and left next, .copy; "
                            "'datamorph lab show sw' tidies up\n"))
      << shown.err;
  EXPECT_TRUE(exists("sw/next"));
}

// ---- When it goes wrong ------------------------------------------------------------------------

TEST_F(rehearsals, what_convert_refuses_is_refused) {
  const files before = state("sw");
  const result unknown = run({"rehearse", "sw", "--to", "9.9(9)"});
  EXPECT_EQ(unknown.status, 3);
  EXPECT_EQ(unknown.err,
            "datamorph: 'sw': the release '9.9(9)' is unknown: the switch has no image "
            "of it; images: 3.3(1) 4.0(4) 4.1(1) 4.1(2) 4.1(5) 4.2(1) 4.2(3) 5.0(2)\n");
  EXPECT_EQ(unknown.out, "");
  EXPECT_EQ(run({"rehearse", "sw", "--to", "4.2(1)", "--service", "nobody"}).status, 64);
  EXPECT_EQ(run({"rehearse", "none", "--to", "4.2(1)"}).status, 3);
  EXPECT_EQ(run({"rehearse", "sw", "--to", "4.2(1)", "--via", "9.9(9)"}).status, 3);
  for (const char *release : {"4.2(1)", "4.1(5)"}) {
    const result same = run({"rehearse", "sw", "--to", "4.2(1)", "--via", release});
    EXPECT_EQ(same.status, 64);
    EXPECT_EQ(same.out, "");
    EXPECT_EQ(same.err,
              "datamorph: 'sw': --via is one of the two releases; name another one between them\n");
  }
  const result unwritable = run({"rehearse", "sw", "--to", "4.2(1)", "--save", "none/plan.json"});
  EXPECT_EQ(unwritable.status, 3);
  EXPECT_EQ(unwritable.out, "");
  EXPECT_EQ(unwritable.err,
            "datamorph: 'sw': cannot write 'none/plan.json': No such file or directory; "
            "name another place\n");
  write("sw/current/cfg/0/vlan_cfg.pss", "rubbish");
  const result damaged = run({"rehearse", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(damaged.status, 3);
  EXPECT_NE(damaged.err.find("the store 'nonvolatile:/cfg/0/vlan_cfg' cannot be read"),
            std::string::npos)
      << damaged.err;
}

TEST_F(rehearsals, a_conversion_that_fails) {
  for (const auto &[what, text] :
       {std::pair<const char *, const char *>{
            "fail", "1 service failed (--accept-failures keeps the result all the same)"},
        {"crash", "SKSD (running-fs, VDC 1): crashed: Segmentation fault (signal 11)"},
        {"bad-write", "a write in the switch failed: pss_store on the store "}}) {
    fake(what);
    const result shown = run({"rehearse", "sw", "--to", "4.2(1)", "--save", "plan.json"});
    EXPECT_EQ(shown.status, 1) << what;
    EXPECT_NE(shown.err.find(std::string("datamorph: 'sw': it would not be converted: ") + text),
              std::string::npos)
        << shown.err;
    EXPECT_FALSE(exists("plan.json"));
  }
}

TEST_F(rehearsals, one_that_hangs_ends_with_the_step) {
  fake("hang");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)", "--timeout", "1"}, 1);
  EXPECT_EQ(shown["trouble"], "SKSD (running-fs, VDC 1): no answer within 1 second");
}

TEST_F(rehearsals, stopped_or_killed) {
  fake("hang");
  const std::unique_ptr<background> stopped = start({"rehearse", "sw", "--to", "4.2(1)"});
  ASSERT_TRUE(eventually([&] { return !fs::is_empty(path("scratch")); }));
  stopped->signal(SIGTERM);
  EXPECT_EQ(stopped->wait().status, 128 + SIGTERM);
  EXPECT_TRUE(fs::is_empty(path("scratch")));

  const std::unique_ptr<background> killed = start({"rehearse", "sw", "--to", "4.2(1)"});
  ASSERT_TRUE(eventually([&] { return has_copy(path("scratch")); }));
  killed->signal(SIGKILL);
  EXPECT_EQ(killed->wait().status, 1000 + SIGKILL);
  fake("");
  ASSERT_TRUE(eventually([&] {
    const result next = run({"rehearse", "sw", "--to", "4.2(1)"});
    EXPECT_EQ(next.status, 0) << next.err;
    return next.err.starts_with(
        "datamorph: removed what a rehearsal that was stopped had left in ");
  }));
}

// The first one has just made its folder and has not locked it yet: the second one sees a folder
// that nobody holds.
TEST_F(rehearsals, two_that_begin_at_one_moment) {
  in_child = [] { ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); };
  const std::unique_ptr<background> first = start({"rehearse", "sw", "--to", "4.2(1)"});
  in_child = [] {};
  ASSERT_TRUE(stops_before_lock(first->pid()));
  ASSERT_FALSE(fs::is_empty(path("scratch")));

  const result second = run({"rehearse", "sw", "--to", "4.2(1)"});
  ptrace(PTRACE_DETACH, first->pid(), nullptr, nullptr);
  const result done = first->wait();

  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(second.err, done.err); // nothing is told of the other one
}

TEST_F(rehearsals, the_disk_of_the_copy_becomes_full) {
  mount_small("small", "3m");
  set("TMPDIR", path("small"));
  fake("put-much");

  const result full = run({"rehearse", "sw", "--to", "4.2(1)"});

  EXPECT_EQ(full.status, 3);
  EXPECT_EQ(full.out, "");
  unsigned wanted = 0;
  ASSERT_EQ(std::sscanf(full.err.c_str(),
                        "datamorph: 'sw': the disk of the copy became full while it was converted: "
                        "more than %u KiB are wanted there",
                        &wanted),
            1)
      << full.err;
  EXPECT_TRUE(full.err.ends_with(" KiB are wanted there; make room in " + path("small") +
                                 ", or name another place in TMPDIR\n"))
      << full.err;
  EXPECT_EQ(run({"rehearse", "sw", "--to", "4.2(1)", "--via", "4.1(2)"}).status, 3);
  EXPECT_EQ(run({"matrix", "sw", "--release", "4.1(5)", "--release", "4.2(1)"}).status, 3);
  EXPECT_TRUE(fs::is_empty(path("small")));

  EXPECT_GT(wanted, 2048u); // the copies that stood there, and what was free beside them
  EXPECT_LE(wanted, 3072u);
  const std::string size = "size=" + std::to_string(3 * wanted) + "k";
  ASSERT_EQ(mount("none", path("small").c_str(), nullptr, MS_REMOUNT, size.c_str()), 0);
  const result enough = run({"rehearse", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(enough.status, 0) << enough.err;
  umount2(path("small").c_str(), MNT_DETACH);
}

TEST_F(rehearsals, one_at_a_time_with_a_conversion) {
  fake("hang");
  const std::unique_ptr<background> converting =
      start({"convert", "sw", "--to", "4.2(1)", "--timeout", "100"});
  ASSERT_TRUE(eventually([&] { return exists("sw/next/bootflash/calls"); }));
  const result refused = run({"rehearse", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_EQ(refused.err, "datamorph: 'sw': in use by another command (process " +
                             std::to_string(converting->pid()) + "); wait until it is done\n");
  converting->signal(SIGTERM);
  converting->wait();

  const std::unique_ptr<background> rehearsing =
      start({"rehearse", "sw", "--to", "4.2(1)", "--timeout", "100"});
  ASSERT_TRUE(eventually([&] { return !fs::is_empty(path("scratch")); }));
  const result waiting = run({"convert", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(waiting.status, 5);
  EXPECT_EQ(waiting.err, "datamorph: 'sw': in use by another command (process " +
                             std::to_string(rehearsing->pid()) + "); wait until it is done\n");
  rehearsing->signal(SIGTERM);
  rehearsing->wait();
}

TEST_F(rehearsals, no_place_for_the_copy) {
  set("TMPDIR", path("none"));
  const result shown = run({"rehearse", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(shown.status, 3);
  EXPECT_EQ(shown.err, "datamorph: 'sw': cannot make a folder for the copy in '" + path("none") +
                           "': No such file or directory; name another place in TMPDIR\n");
}

// ---- Other ways --------------------------------------------------------------------------------

TEST_F(rehearsals, there_and_back) {
  const nlohmann::json shown = rehearse({"--to", "4.2(1)", "--round-trip"});
  const nlohmann::json &back = shown["round_trip"];
  EXPECT_EQ(back["title"], "There and back to 4.1(5)");
  EXPECT_EQ(back["trouble"], "");
  EXPECT_EQ(back["total"], 22);
  EXPECT_EQ(find(back["changes"], "nonvolatile:/cfg/0/ethpm_runtime_cfg", "65141a000000")["change"],
            "removed");
  EXPECT_FALSE(shown.contains("via"));
  const result table = run({"rehearse", "sw", "--to", "4.2(1)", "--round-trip"});
  EXPECT_NE(table.out.find("\nThere and back to 4.1(5): 22 differences\n"), std::string::npos);
}

// The way there is fine, and the way back is not.
TEST_F(rehearsals, a_way_back_that_fails_is_told) {
  fake("back-fail");
  const auto before = traces_of(path("sw"));
  const words command = {"rehearse", "sw", "--to", "4.2(1)", "--round-trip", "--save", "plan.json"};
  const std::string trouble =
      "from 4.2(1) to 4.1(5): 1 service failed (--accept-failures keeps the result all the same): "
      "SKSD (running-fs, VDC 1) gave 0x40480009 ";

  const result table = run(command);
  EXPECT_EQ(table.status, 1);
  EXPECT_NE(table.out.find("\nThere and back to 4.1(5): " + trouble), std::string::npos)
      << table.out;
  EXPECT_TRUE(table.err.starts_with("datamorph: 'sw': the way back fails: " + trouble))
      << table.err;
  EXPECT_FALSE(exists("plan.json"));
  words more(command.begin() + 2, command.end());
  const nlohmann::json shown = rehearse(more, 1);
  EXPECT_EQ(shown["trouble"], ""); // of the way there
  EXPECT_EQ(shown["summary"]["unaccounted"], 0);
  EXPECT_TRUE(shown["round_trip"]["trouble"].get<std::string>().starts_with(trouble));
  EXPECT_EQ(shown["round_trip"]["total"], 0);
  EXPECT_EQ(traces_of(path("sw")), before);
  EXPECT_EQ(rehearse({"--to", "4.2(1)"})["trouble"], "");
}

TEST_F(rehearsals, a_way_back_that_loses_a_record_lists_it) {
  fake("back-remove");
  const nlohmann::json shown = rehearse({"--to", "4.2(1)", "--round-trip"});

  EXPECT_EQ(balance(shown)[3], 0); // the way there loses nothing
  EXPECT_EQ(shown["round_trip"]["trouble"], "");
  EXPECT_EQ(find(shown["round_trip"]["changes"], vlans, "0001")["change"], "removed");
}

TEST_F(rehearsals, over_another_release) {
  const nlohmann::json same = rehearse({"--to", "4.2(1)", "--via", "4.1(2)"});
  EXPECT_EQ(same["via"]["title"], "Over 4.1(2) instead");
  EXPECT_EQ(same["via"]["release"], "4.1(2)");
  EXPECT_EQ(same["via"]["total"], 0);
  // The oldest one has no room for much of it.
  const nlohmann::json other = rehearse({"--to", "4.2(1)", "--via", "3.3(1)"});
  EXPECT_EQ(find(other["via"]["changes"], "volatile:/cfg/0/evms_runtime_cfg", "-")["change"],
            "removed");
}

// ---- Plans -------------------------------------------------------------------------------------

class plans : public rehearsals {
protected:
  void SetUp() override {
    rehearsals::SetUp();
    const result done = run({"rehearse", "sw", "--to", "4.2(1)", "--save", "plan.json"});
    ASSERT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(
        done.err,
        "datamorph: plan: plan.json; to carry it out: datamorph convert sw --plan plan.json\n");
  }
  void change_plan(const char *member, const nlohmann::json &value) const {
    nlohmann::json plan = nlohmann::json::parse(read("plan.json"));
    plan[member] = value;
    write("plan.json", plan.dump());
  }
};

TEST_F(plans, are_carried_out) {
  const result done = run({"convert", "sw", "--plan", "plan.json"});
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(show("sw")["release"], "4.2(1)");
  EXPECT_NE(
      done.out.find("\nsw: converted from 4.1(5) to 4.2(1), to the state that the plan tells of\n"),
      std::string::npos)
      << done.out;
  const result again = run({"convert", "sw", "--plan", "plan.json"});
  EXPECT_EQ(again.status, 3);
  EXPECT_EQ(again.err,
            "datamorph: 'sw': the plan has been carried out: the switch is in the state that "
            "it leads to; nothing is left to do\n");
}

TEST_F(plans, of_a_switch_that_has_changed_are_refused) {
  ASSERT_EQ(run({"store", "put", "sw", "nonvolatile:/cfg/0/vlan_cfg", "0009", "00"}).status, 0);
  const files before = state("sw");
  const result done = run({"convert", "sw", "--plan", "plan.json"});
  EXPECT_EQ(done.status, 3);
  EXPECT_EQ(done.err, "datamorph: 'sw': the switch has changed since the plan was made; rehearse "
                      "again; 'datamorph history' may tell what was done\n");
  EXPECT_EQ(state("sw"), before);
  EXPECT_FALSE(exists("sw/runs/0001"));
  ASSERT_EQ(run({"store", "delete", "sw", "nonvolatile:/cfg/0/vlan_cfg", "0009"}).status, 0);
  EXPECT_EQ(run({"convert", "sw", "--plan", "plan.json"}).status, 0); // it is the same again
}

TEST_F(plans, logs_and_the_boot_marker_do_not_count) {
  write("sw/current/mnt/pss/data_morph.log", "something else\n");
  write("sw/current/mnt/pss/data_morph.last", "");
  write("sw/current/tmp/datamorphcheck", "");
  EXPECT_EQ(run({"convert", "sw", "--plan", "plan.json"}).status, 0);
}

TEST_F(plans, files_and_access_points_count) {
  write("sw/current/bootflash/new", "x");
  EXPECT_EQ(run({"convert", "sw", "--plan", "plan.json"}).status, 3);
  fs::remove(path("sw/current/bootflash/new"));
  fs::remove(path("sw/current/var/run/mts/sap-341"));
  EXPECT_EQ(run({"convert", "sw", "--plan", "plan.json"}).status, 3);
}

TEST_F(plans, that_are_not_reached_change_nothing) {
  change_plan("after", "0000000000000000");
  const files before = state("sw");
  const result done = run({"convert", "sw", "--plan", "plan.json"});
  EXPECT_EQ(done.status, 1);
  EXPECT_NE(done.err.find("it did not reach the state that the plan tells of; rehearse again; the "
                          "switch is as it was, still at 4.1(5)\n"),
            std::string::npos)
      << done.err;
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
}

TEST_F(plans, and_copies_do_not_lie_in_the_switch) {
  fs::create_directory(path("sw/current/place"));
  set("TMPDIR", path("sw/current/place"));
  const result done = run({"rehearse", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(done.status, 3);
  EXPECT_EQ(done.err,
            "datamorph: 'sw': '" + path("sw/current/place") +
                "' lies in the switch, of which nothing is written; name another place in "
                "TMPDIR\n");
  EXPECT_TRUE(fs::is_empty(path("sw/current/place")));
  const result matrix = run({"matrix", "sw"});
  EXPECT_EQ(matrix.status, 3);
}

TEST_F(plans, and_reports_have_files_of_their_own) {
  write("mine.json", "mine");
  for (const char *report : {"both.jsonl", "both.html"}) {
    const result done =
        run({"rehearse", "sw", "--to", "4.2(1)", "--save", "both.jsonl", "--report", report});
    EXPECT_EQ(done.status, 64);
    EXPECT_EQ(done.err,
              "datamorph: 'sw': 'both.jsonl' is to hold the plan and the report; name another "
              "place for one of them\n");
    EXPECT_EQ(done.out, "");
  }
  fs::create_directory(path("folder.html"));
  const result folder = run({"rehearse", "sw", "--to", "4.2(1)", "--report", "folder.html"});
  EXPECT_EQ(folder.status, 3);
  EXPECT_EQ(folder.out, "");
  EXPECT_EQ(folder.err,
            "datamorph: 'sw': cannot write 'folder.html': Is a directory; name another place\n");
}

TEST_F(plans, nested_without_end_are_refused) {
  write("plan.json", "{\"plan\":" + std::string(200000, '[') + std::string(200000, ']') + "}");
  const result done = run({"convert", "sw", "--plan", "plan.json"});
  EXPECT_EQ(done.status, 3);
  EXPECT_EQ(done.err, "datamorph: 'plan.json': nested deeper than 64 levels\n");
}

TEST_F(plans, are_not_written_into_the_switch) {
  for (const char *option : {"--save", "--report"}) {
    const result done = run({"rehearse", "sw", "--to", "4.2(1)", option, "sw/current/cfg/x"});
    EXPECT_EQ(done.status, 64);
    EXPECT_EQ(done.err,
              "datamorph: 'sw': 'sw/current/cfg/x' lies in the switch, of which nothing is "
              "written; name a place beside it\n");
  }
}

// The next step is told only where the option --to says all of it.
TEST_F(rehearsals, a_part_of_it_proposes_nothing) {
  EXPECT_EQ(
      run({"rehearse", "sw", "--to", "4.2(1)", "--service", "VRRP_MGR", "--service", "VRRP_ENG"})
          .err,
      "");
}

TEST_F(plans, keep_what_was_chosen) {
  ASSERT_EQ(run({"rehearse", "sw", "--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_MGR",
                 "--service", "VRRP_ENG", "--save", "plan.json"})
                .status,
            0);
  const result done = run({"convert", "sw", "--plan", "plan.json"});
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.err.find("gsync"), std::string::npos);
  EXPECT_EQ(show("sw")["release"], "4.1(5)"); // a part of it only
}

TEST_F(plans, that_make_no_sense_are_refused) {
  const std::string advice = "; make one with 'datamorph rehearse --save'\n";
  const auto refused = [&](const std::string &what) {
    const result done = run({"convert", "sw", "--plan", "plan.json"});
    EXPECT_EQ(done.status, 3);
    EXPECT_EQ(done.err, "datamorph: 'plan.json': " + what + advice);
  };
  change_plan("before", nullptr);
  refused("a part of the plan is missing or makes no sense");
  change_plan("before", "");
  change_plan("services", nlohmann::json::array({"NOBODY"}));
  refused("it names the service 'NOBODY', which is unknown");
  change_plan("moments", nlohmann::json::array({"never"}));
  refused("it names the moment 'never', which is unknown");
  change_plan("moments", nlohmann::json::array());
  change_plan("services", nlohmann::json::array({"VRRP_MGR"}));
  change_plan("whole_table", true);
  refused("it chooses services and whole tables, which exclude each other");
  change_plan("plan", 2);
  refused("it is a plan of another version than 1");
  write("plan.json", "[]");
  refused("it is no plan");
  write("plan.json", "{");
  EXPECT_EQ(run({"convert", "sw", "--plan", "plan.json"}).status, 3);
  const result none = run({"convert", "sw", "--plan", "none.json"});
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.err, "datamorph: there is no plan 'none.json'" + advice);
  EXPECT_EQ(run({"convert", "sw", "--plan", "plan.json", "--to", "4.2(1)"}).status, 64);
  EXPECT_EQ(run({"convert", "sw"}).status, 64);
}

// ---- The same again ----------------------------------------------------------------------------

// Without what tells when: a clock's time, a process's number.
std::string timeless(const std::string &text) {
  static const std::regex times(
      "[0-9]+:[0-9]+:[0-9]+(\\.[0-9]+)?|[A-Z][a-z]{2} +[A-Z][a-z]{2} +[0-9]+");
  return std::regex_replace(text, times, "T");
}

TEST_F(rehearsals, the_same_input_gives_the_same_bytes_and_trace) {
  for (const char *name : {"one", "two"}) {
    fs::copy(path("sw"), path(name), fs::copy_options::recursive);
    ASSERT_EQ(run({"convert", name, "--to", "4.2(1)"}).status, 0);
  }
  files one = state("one");
  files two = state("two");
  for (files *all : {&one, &two}) {
    std::erase_if(
        *all, [](const auto &file) { return file.first.find("data_morph") != std::string::npos; });
  }
  EXPECT_EQ(one, two);
  EXPECT_EQ(timeless(read("one/runs/0001/trace.log")), timeless(read("two/runs/0001/trace.log")));
  EXPECT_EQ(read("one/runs/0001/journal.jsonl"), read("two/runs/0001/journal.jsonl"));
  EXPECT_EQ(timeless(read("one/current/mnt/pss/data_morph.log")),
            timeless(read("two/current/mnt/pss/data_morph.log")));
}

} // namespace
