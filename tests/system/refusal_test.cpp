// What is refused, and in which words: members of a description and of switch.json, places for a
// new switch, folders of others. Nothing is made or changed then.
#include "command.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class refusals : public command_test {
protected:
  static json description() {
    return {{"release", "4.1(5)"},
            {"releases", {"4.1(5)", "4.2(1)"}},
            {"vdcs", {1}},
            {"running_cfg_dir", "/cfg/0"},
            {"paths", {{"gsync", "/cfg/0"}, {"running-fs", "/cfg/0"}, {"startup", "/cfg/s"}}}};
  }
  static json store(const json &params, const json &records) {
    return {{{"uri", "volatile:/cfg/0/a"}, {"params", params}, {"records", records}}};
  }
  void expect_refused(const words &arguments, const std::string &message, int status = 3) {
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, status) << message;
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err, "datamorph: " + message + "\n");
  }
};

TEST_F(refusals, members_of_a_description) {
  const json record = {{"key", "01"}, {"value", "02"}};
  const json limits = {{"max_key_size", 8}, {"max_value_size", 8}, {"max_node_keys", 1}};
  const struct {
    const char *member;
    json value;
    const char *message;
  } rows[] = {
      {"stores", store(limits, {{{"key", {{"text", "long"}, {"size", 2}}}, {"value", ""}}}),
       "/stores/0/records/0/key: the text is longer than its size"},
      {"stores", store(limits, {{{"key", "01"}, {"value", json::object()}}}),
       "/stores/0/records/0/value: "},
      {"stores", store(limits, {record, record}),
       "/stores/0/records/1: the store has this key already"},
      {"stores", store(limits, {record, {{"key", "02"}, {"value", ""}}}),
       "/stores/0: more records than max_node_keys allows"},
      {"access_points",
       {{{"sap", 5}, {"owner", std::string(101, 'o')}}},
       "/access_points/0/owner: an owner is one line of at most 100 bytes"},
      {"access_points",
       {{{"sap", 5}, {"owner", "two\nlines"}}},
       "/access_points/0/owner: an owner is one line of at most 100 bytes"},
      {"releases", {"4.1(5)", "4.1(5)"}, "/releases/1: this release is in the list already"},
      {"releases", {"4.2(1)"}, "/release: the running release has to be one of 'releases'"},
  };
  for (const auto &row : rows) {
    json wanted = description();
    wanted[row.member] = row.value;
    write("d.json", wanted.dump());
    const result refused = run({"lab", "create", "sw", "--from", "d.json"});
    EXPECT_EQ(refused.status, 3) << row.message;
    EXPECT_TRUE(refused.err.starts_with(std::string("datamorph: 'd.json': ") + row.message))
        << refused.err;
    EXPECT_FALSE(exists("sw"));
  }
}

TEST_F(refusals, members_of_switch_json) {
  write("d.json", description().dump());
  create("sw", {"--from", "d.json"});
  const json whole = json::parse(read("sw/current/switch.json"));
  const struct {
    const char *member;
    json value;
    const char *message;
  } rows[] = {
      {"name", 5, "name is missing or no text"},
      {"release", "new", "release is no release"},
      {"generation", "1", "generation is missing or no number"},
      {"vdcs", json::array(), "vdcs is missing or no list"},
      {"vdcs", 1, "vdcs is missing or no list"},
      {"vdcs", {17}, "vdcs holds something else than a number from 1 to 16"},
      {"vdcs", {0}, "vdcs holds something else than a number from 1 to 16"},
      {"vdcs", {"1"}, "vdcs holds something else than a number from 1 to 16"},
      {"vdcs", {2, 1}, "vdcs is not in rising order"},
      {"vdcs", {1, 1}, "vdcs is not in rising order"},
      {"running_cfg_dir", "cfg", "running_cfg_dir is no absolute path inside the switch"},
      {"running_cfg_dir", "/../cfg", "running_cfg_dir is no absolute path inside the switch"},
      {"paths", "/cfg", "paths is missing or no object"},
      {"format", 2, "format is not 1"},
  };
  for (const auto &row : rows) {
    json wanted = whole;
    wanted[row.member] = row.value;
    write("sw/current/switch.json", wanted.dump());
    expect_refused({"store", "list", "sw"}, std::string("'sw': switch.json: ") + row.message +
                                                "; mend sw/current/switch.json");
    wanted.erase(row.member);
    write("sw/current/switch.json", wanted.dump());
    EXPECT_EQ(run({"store", "list", "sw"}).status, 3) << row.member;
  }
  write("sw/current/switch.json", "[]");
  fs::create_directory(path("sw/previous"));
  write("sw/previous/switch.json", whole.dump());
  const std::string remedy =
      "mend sw/current/switch.json; "
      "sw/previous/switch.json has its members as they were before the last conversion";
  for (const words &verb : std::vector<words>{
           {"store", "list", "sw"}, {"rehearse", "sw", "--to", "4.2(3)"}, {"matrix", "sw"}}) {
    expect_refused(verb, "'sw': switch.json is no JSON object; " + remedy);
  }
  fs::remove(path("sw/current/switch.json"));
  expect_refused({"store", "list", "sw"}, "'sw': current/switch.json is missing; " + remedy);
}

// ---- Where a switch is to be -------------------------------------------------------------------

TEST_F(refusals, places_without_a_name) {
  expect_refused({"lab", "create", "none/.."}, "'none/..': no name for a new directory");
  expect_refused({"lab", "create", "none/.//"}, "'none/.//': no name for a new directory");
  expect_refused({"lab", "create", "none/sw"},
                 "'none/sw': cannot open the directory that it would be in: No such file or "
                 "directory; make that one first");
  const std::string name(256, 'n');
  const result too_long = run({"lab", "create", name});
  EXPECT_EQ(too_long.status, 3);
  EXPECT_TRUE(too_long.err.ends_with("': File name too long\n")) << too_long.err;
  write("file", "");
  expect_refused({"lab", "create", "file"},
                 "'file': stands already and is no directory; name another");
}

TEST_F(refusals, a_slash_at_the_end_is_no_name) {
  write("d.json", description().dump());

  EXPECT_EQ(run({"lab", "create", "sw//", "--from", "d.json"}).status, 0);

  EXPECT_TRUE(exists("sw/current/switch.json"));
}

TEST_F(refusals, a_place_where_another_command_builds) {
  const struct {
    const char *folder;
    const char *name;
  } rows[] = {{".new.creating", "new"}, {"empty", "empty"}};
  for (const auto &row : rows) {
    fs::create_directory(path(row.folder));
    const int fd = open(path(row.folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);

    expect_refused({"lab", "create", row.name},
                   std::string("'") + row.name + "': another command is building it", 5);

    close(fd);
    EXPECT_TRUE(fs::is_empty(path(row.folder)));
  }
}

// ---- What belongs to somebody else -------------------------------------------------------------

class refusals_to_others : public refusals {
protected:
  static void become_nobody() {
    constexpr uid_t nobody = 65534;
    if (geteuid() == 0 &&
        (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)) {
      _exit(125);
    }
  }
  void SetUp() override {
    refusals::SetUp();
    fs::copy_file(datamorph_program, path("datamorph"));
    program = path("datamorph");
    fs::permissions(path(""), fs::perms::all);
    write("d.json", description().dump());
    fs::create_directory(path("mine"));
    create("mine/sw", {"--from", "d.json"});
    in_child = become_nobody;
  }
};

TEST_F(refusals_to_others, a_folder_that_is_closed) {
  fs::create_directory(path("mine/empty"));
  fs::permissions(path("mine/empty"), fs::perms::none);
  fs::permissions(path("mine/sw"), fs::perms::owner_read);
  expect_refused({"store", "list", "mine/sw"},
                 "'mine/sw': cannot open the switch's directory: Permission denied; run as the "
                 "user that it belongs to");
  fs::permissions(path("mine"), fs::perms::owner_read | fs::perms::owner_exec |
                                    fs::perms::others_read | fs::perms::others_exec |
                                    fs::perms::group_read | fs::perms::group_exec);

  expect_refused({"lab", "create", "mine/empty"}, "'mine/empty': Permission denied");
  expect_refused({"lab", "create", "mine/new"},
                 "'mine/new': cannot write beside it: Permission denied; run as a user who may");
  fs::permissions(path("mine/sw"), fs::perms::owner_all | fs::perms::others_read);
  expect_refused({"store", "list", "mine/sw"},
                 "'mine/sw': no right to read the switch; run as the user that it belongs to");
  fs::permissions(path("mine"), fs::perms::owner_all);
  fs::permissions(path("mine/empty"), fs::perms::owner_all);
}

TEST_F(refusals, a_lock_that_is_no_file) {
  write("d.json", description().dump());
  create("sw", {"--from", "d.json"});
  fs::remove(path("sw/.lock"));
  fs::create_directory(path("sw/.lock"));

  expect_refused({"convert", "sw", "--to", "4.2(1)"},
                 "'sw': cannot open its lock file .lock: Is a directory; run as the user that the "
                 "switch belongs to");
  expect_refused({"store", "list", "sw"},
                 "'sw': cannot open its lock file .lock: not a regular file; run as the user that "
                 "the switch belongs to");
}

// Where only a part is closed, what is shown of it would pass for all.
TEST_F(refusals_to_others, a_list_of_stores_with_some_left_out) {
  json wanted = description();
  wanted["stores"] = {{{"uri", "nonvolatile:/cfg/0/a"}, {"records", json::array()}}};
  write("d.json", wanted.dump());
  in_child = [] {};
  fs::remove_all(path("mine/sw"));
  create("mine/sw", {"--from", "d.json"});
  fs::permissions(path("mine/sw/current/cfg/0"), fs::perms::owner_all);
  in_child = become_nobody;

  for (const words &arguments :
       {words{"store", "list", "mine/sw"}, words{"store", "export", "mine/sw"}}) {
    const result refused = run(arguments);
    EXPECT_EQ(refused.status, 3) << refused.err;
    EXPECT_EQ(refused.out, "");
    // Where ordinary users have no root of their own, that is told first.
    EXPECT_TRUE(refused.err.find("not all stores of the switch can be read: Permission denied; run "
                                 "as the user that the switch belongs to") != std::string::npos ||
                refused.err.find("no rights to work inside the switch") != std::string::npos)
        << refused.err;
  }
}

} // namespace
