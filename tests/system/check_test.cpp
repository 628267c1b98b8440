// check finds all that stands in the way of a conversion, at once, and its remedies work; it
// changes nothing and opens nothing for writing.
#include "command.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char manager[] = "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav";
constexpr char engine[] = "nonvolatile:/cfg/startup/bin/vrrp-eng_runtime_config";
constexpr char waiting[] = "nonvolatile:/tmp/vrrp-startup-pss";
constexpr char pixm[] = "nonvolatile:/cfg/0/pixm_runtime_info";
constexpr char vr_key[] = "01000000010b1a000000";
constexpr uid_t nobody = 65534;

nlohmann::json parsed(const char *text) {
  return nlohmann::json::parse(text);
}

// A virtual router of group 11 for vr_key, of this many bytes.
std::string router(size_t bytes) {
  std::string hex = "0000001a0b0100000001000000";
  hex.resize(bytes * 2, '0');
  return hex;
}

void become_nobody() {
  if (geteuid() == 0 &&
      (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)) {
    _exit(125);
  }
}

// Rights to change the root, for a process that cannot get them any more.
void take_rights() {
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  if (geteuid() == 0 || unshare(CLONE_NEWUSER) != 0) {
    return;
  }
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
  std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
}

// Ends this process and what it starts when it opens anything for writing.
void die_of_opening_for_writing() {
  constexpr auto flags = static_cast<unsigned>(offsetof(seccomp_data, args) + 2 * sizeof(uint64_t));
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, flags),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_WRONLY | O_RDWR | O_CREAT | O_TRUNC, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filters = {static_cast<unsigned short>(std::size(filter)), filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filters) != 0) {
    _exit(125);
  }
}

class check_verb : public command_test {
protected:
  nlohmann::json check(int status, const words &more = {}) {
    words arguments = {"check", "sw", "--to", to, "--format", "json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const result done = run(arguments);
    EXPECT_EQ(done.status, status) << done.err << done.out;
    return done.json();
  }
  nlohmann::json findings(const words &more = {}) { return check(3, more)["findings"]; }
  nlohmann::json findings_to(const char *release, int status = 3) {
    to = release;
    const nlohmann::json found = check(status)["findings"];
    to = "4.2(1)";
    return found;
  }
  void expect_nothing(const words &more = {}) {
    EXPECT_EQ(check(0, more)["findings"], nlohmann::json::array());
  }
  // What a remedy says, typed into a shell.
  void follow(const std::string &command) {
    const std::string line = "cd '" + path("") + "' && export DATAMORPH_LIBRARY='" + real_library +
                             "' && datamorph() { '" + program + "' \"$@\"; } && " + command +
                             " >/dev/null 2>&1";
    EXPECT_EQ(std::system(line.c_str()), 0) << line;
  }
  // The one finding; after its remedy there is none.
  void expect_mended(const char *wanted, const std::string &command, const words &more = {}) {
    EXPECT_EQ(findings(more), nlohmann::json::array({parsed(wanted)}));
    follow(command);
    expect_nothing(more);
  }
  std::string to = "4.2(1)";
  void put(const std::string &uri, const std::string &key, const std::string &value) {
    const result done = run({"store", "put", "sw", uri, key, value, "--create"});
    ASSERT_EQ(done.status, 0) << done.err;
  }
  // When each file below the switch was changed, and what it is.
  std::map<std::string, std::string> times() {
    std::map<std::string, std::string> found;
    const auto note = [&](const fs::path &file) {
      struct stat about = {};
      lstat(file.c_str(), &about);
      found[file] = std::to_string(about.st_mtim.tv_sec) + "." +
                    std::to_string(about.st_mtim.tv_nsec) + " " +
                    std::to_string(about.st_ctim.tv_nsec) + " " + std::to_string(about.st_ino);
    };
    note(path("sw"));
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(path("sw"))) {
      note(entry.path());
    }
    return found;
  }
};

// ---- What is well ------------------------------------------------------------------------------

TEST_F(check_verb, the_shipped_example_is_ready) {
  create("sw");
  for (const char *release :
       {"3.3(1)", "4.0(4)", "4.1(1)", "4.1(2)", "4.1(5)", "4.2(1)", "5.0(2)"}) {
    const result done = run({"check", "sw", "--to", release});
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.err, "");
    EXPECT_EQ(done.out,
              std::string("sw: nothing stands in the way of a conversion from 4.1(5) to ") +
                  release + "; looked at 16 checks, 37 stores, 95 records\n");
  }
  // There and back, whole.
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  EXPECT_EQ(findings_to("5.0(2)", 0).size(), 0u);
  ASSERT_EQ(run({"convert", "sw", "--to", "4.1(1)"}).status, 0);
  expect_nothing();
}

TEST_F(check_verb, json_tells_what_was_looked_at) {
  create("sw");
  EXPECT_EQ(check(0), parsed(R"j({"switch": "sw", "from": "4.1(5)", "to": "4.2(1)", "checks": [
    {"check": "library", "looked_at": 1, "findings": 0},
    {"check": "image", "looked_at": 2, "findings": 0},
    {"check": "room", "looked_at": 1, "findings": 0},
    {"check": "rights", "looked_at": 99, "findings": 0},
    {"check": "exchange", "looked_at": 1, "findings": 0},
    {"check": "switch", "looked_at": 1, "findings": 0},
    {"check": "run", "looked_at": 1, "findings": 0},
    {"check": "store", "looked_at": 37, "findings": 0},
    {"check": "file", "looked_at": 0, "findings": 0},
    {"check": "record", "looked_at": 94, "findings": 0},
    {"check": "layout", "looked_at": 14, "findings": 0},
    {"check": "vdc", "looked_at": 10, "findings": 0},
    {"check": "tags", "looked_at": 1, "findings": 0},
    {"check": "handover", "looked_at": 0, "findings": 0},
    {"check": "marker", "looked_at": 3, "findings": 0},
    {"check": "log", "looked_at": 5, "findings": 0}], "findings": [],
    "summary": {"errors": 0, "warnings": 0, "shown": 0, "stores": 37, "records": 95}})j"));
}

TEST_F(check_verb, changes_nothing_and_opens_nothing_for_writing) {
  create("sw");
  write("sw/next/half", "x");
  write("sw/current/cfg/0/vlan_cfg.pss-journal", "left");
  const auto before = times();
  EXPECT_EQ(findings().size(), 2u);
  EXPECT_EQ(times(), before);
  // Neither root's rights nor a lock file that can be written are of use to it.
  fs::copy_file(datamorph_program, path("datamorph"));
  fs::copy_file(real_library, path("libdatamorph.so.1"));
  follow("chmod -R a+rX,a-w sw && chmod a+rwx .");
  const auto readable = times();
  program = path("datamorph");
  set("DATAMORPH_LIBRARY", path("libdatamorph.so.1"));
  in_child = [] {
    become_nobody();
    deny_system_calls({SYS_renameat2, SYS_mkdirat, SYS_unlinkat, SYS_ftruncate, SYS_pwrite64,
                       SYS_fsync, SYS_fdatasync, SYS_syncfs},
                      EPERM);
  };
  const nlohmann::json found = findings();
  in_child = [] {};
  ASSERT_EQ(found.size(), 4u) << found.dump(1);
  EXPECT_EQ(found[0], parsed(R"j({"level": "error", "check": "rights",
      "text": "the switch's folder cannot be written: Permission denied",
      "remedy": "run as the user that the switch belongs to"})j"));
  EXPECT_EQ(found.back()["check"], "log");
  EXPECT_EQ(found.back()["text"], "the folder of the conversion log cannot be written by its "
                                  "owner, so the log would be lost");
  EXPECT_EQ(found.back()["remedy"], "chmod u+rwx sw/current/mnt/pss");
  EXPECT_EQ(times(), readable);
  follow("chmod -R u+w sw");
}

TEST_F(check_verb, no_open_is_for_writing) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  in_child = [] {
    take_rights();
    die_of_opening_for_writing();
  };
  expect_nothing();
  EXPECT_NE(run({"store", "list", "sw"}).status, 0); // which opens stores for writing too
}

// ---- What may be wrong with the change itself --------------------------------------------------

TEST_F(check_verb, images) {
  create("sw");
  EXPECT_EQ(findings_to("9.9(9)"), parsed(R"j([{"level": "error", "check": "image",
      "text": "the switch has no image of the release 9.9(9); images: 3.3(1) 4.0(4) 4.1(1) 4.1(2) 4.1(5) 4.2(1) 4.2(3) 5.0(2)",
      "remedy": "name another one, or make the folder 'sw/current/images/9.9(9)' and put the release's text into 'sw/current/images/9.9(9)/version'"}])j"));
  write("sw/current/images/9.9(9)/version", "9.9(9)");
  EXPECT_EQ(findings_to("9.9(9)", 0).size(), 0u);
  EXPECT_EQ(findings_to("new one")[0]["text"],
            "the release 'new one' is no release: they are written as 4.2(1)");
  write("sw/current/images/4.1(5)/version", "\n");
  EXPECT_EQ(findings(), parsed(R"j([{"level": "error", "check": "image",
      "text": "the version of the image 4.1(5) cannot be read",
      "remedy": "put the release's text into 'sw/current/images/4.1(5)/version'"}])j"));
  write("sw/current/images/4.1(5)/version", "5.0(2)");
  EXPECT_EQ(findings(), parsed(R"j([{"level": "warning", "check": "image",
      "text": "the image 4.1(5) says that its version is '5.0(2)': some services go by that",
      "remedy": "put the release's text into 'sw/current/images/4.1(5)/version'"}])j"));
  write("sw/current/images/4.1(5)/version", "4.1(5)");
  expect_nothing();
  EXPECT_EQ(findings({"--from", "4.0(4)"}), parsed(R"j([{"level": "warning", "check": "image",
      "text": "--from names 4.0(4), the switch runs 4.1(5): converting once more what was converted already can lose records",
      "remedy": "leave --from away"}])j"));
}

TEST_F(check_verb, libraries) {
  create("sw");
  const nlohmann::json incomplete = findings({"--library", fake_incomplete})[0];
  EXPECT_EQ(incomplete["check"], "library");
  EXPECT_EQ(incomplete["text"],
            "'" + fake_incomplete + "' is no conversion library: it has no datamorph_gsync");
  EXPECT_EQ(incomplete["remedy"], "name another one with --library or DATAMORPH_LIBRARY");
  EXPECT_EQ(findings({"--library", fake_crashing})[0]["text"],
            "the conversion library crashed: Illegal instruction (signal 4)");
  fake("hang-in-compare");
  EXPECT_EQ(findings({"--timeout", "1"}), parsed(R"j([{"level": "error", "check": "library",
      "text": "the conversion library gave no answer within 1 second",
      "remedy": "raise --timeout, or name another one with --library or DATAMORPH_LIBRARY"}])j"));
}

TEST_F(check_verb, a_switch_in_use_and_directories_that_are_none) {
  create("sw");
  const int fd = open(path("sw").c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  const result used = run({"check", "sw", "--to", "4.2(1)"});
  close(fd);
  const std::string owner = std::to_string(getpid());
  EXPECT_EQ(used.status, 5);
  EXPECT_EQ(used.err, "datamorph: 'sw': in use by another command (process " + owner +
                          "); wait until it is done\n");
  EXPECT_EQ(run({"check", "missing", "--to", "4.2(1)"}).status, 3);
  EXPECT_EQ(run({"check", "sw"}).status, 64);
}

// ---- What stops the copy -----------------------------------------------------------------------

class check_of_disks : public check_verb {
protected:
  void mount_as(const char *type, const std::string &options) {
    ASSERT_NO_FATAL_FAILURE(enter_private_mounts());
    fs::create_directory(path("disk"));
    fs::create_directory_symlink("disk/sw", path("sw"));
    ASSERT_EQ(mount(type, path("disk").c_str(), type, 0, options.c_str()), 0);
    ASSERT_EQ(run({"lab", "create", "disk/sw"}).status, 0);
  }
  void TearDown() override {
    umount2(path("disk").c_str(), MNT_DETACH);
    check_verb::TearDown();
  }
};

TEST_F(check_of_disks, without_room) {
  mount_as("tmpfs", "size=1200k");
  const nlohmann::json found = findings();
  ASSERT_EQ(found.size(), 1u) << found.dump(1);
  EXPECT_EQ(found[0]["check"], "room");
  EXPECT_EQ(found[0]["level"], "error");
  unsigned long wanted = 0;
  unsigned long free = 0;
  unsigned long missing = 0;
  ASSERT_EQ(std::sscanf(found[0]["text"].get<std::string>().c_str(),
                        "no room for a copy of the state: %lu bytes are wanted, %lu are free",
                        &wanted, &free),
            2);
  ASSERT_EQ(std::sscanf(found[0]["remedy"].get<std::string>().c_str(),
                        "make room for %lu KiB more on the file system of sw", &missing),
            1);
  EXPECT_EQ(missing, ((wanted - free) >> 10) + 64);
  EXPECT_GT(wanted, 1200000u);
  const std::string size = "size=" + std::to_string((1200 + missing) << 10);
  ASSERT_EQ(mount("none", path("disk").c_str(), nullptr, MS_REMOUNT, size.c_str()), 0);
  expect_nothing();
  EXPECT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
}

TEST_F(check_of_disks, read_only) {
  mount_as("tmpfs", "size=8m");
  ASSERT_EQ(mount("none", path("disk").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const nlohmann::json found = findings();
  ASSERT_EQ(found.size(), 1u) << found.dump(1);
  EXPECT_EQ(found[0], parsed(R"j({"level": "error", "check": "rights",
      "text": "the switch's folder cannot be written: Read-only file system",
      "remedy": "copy the switch to a file system that can be written"})j"));
  follow("cp -a disk/sw copied && rm sw && mv copied sw");
  expect_nothing();
}

TEST_F(check_of_disks, of_an_unknown_kind) {
  mount_as("ramfs", "");
  const nlohmann::json found = findings();
  ASSERT_EQ(found.size(), 2u) << found.dump(1);
  EXPECT_EQ(found[0]["check"], "room"); // it does not tell what is free
  EXPECT_EQ(found[1], parsed(R"j({"level": "warning", "check": "exchange",
      "text": "its file system, of type 0x858458f6, is not known to exchange two folders in one step",
      "remedy": "'datamorph convert' tries it before it changes anything; if it refuses, move the switch to a file system such as ext4 or xfs"})j"));
}

// ---- What is wrong with the switch -------------------------------------------------------------

TEST_F(check_verb, switch_json) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.1(5)"}).status, 0);
  nlohmann::json document = nlohmann::json::parse(read("sw/current/switch.json"));
  document["vdcs"] = {1, 17};
  write("sw/current/switch.json", document.dump());
  // Without --from the release to come from is not known either; the stores are looked at.
  const nlohmann::json told = check(3);
  EXPECT_EQ(told["findings"], parsed(R"j([{"level": "error", "check": "switch",
      "text": "switch.json: vdcs holds something else than a number from 1 to 16; VDCs, tag tables and what depends on them were not looked at",
      "remedy": "mend sw/current/switch.json; sw/previous/switch.json has its members as they were before the last conversion"}])j"));
  EXPECT_EQ(told["summary"]["stores"], 39);
  EXPECT_EQ(told["from"], "");
  follow("cp sw/previous/switch.json sw/current/switch.json");
  expect_nothing();
}

TEST_F(check_verb, a_command_that_was_cut_short) {
  create("sw");
  fs::copy(path("sw/current"), path("sw/next"), fs::copy_options::recursive);
  write("sw/.copy", "");
  expect_mended(R"j({"level": "warning", "check": "run",
      "text": "a command was cut short and left next, .copy",
      "remedy": "datamorph lab show sw, which tidies up and says so"})j",
                "datamorph lab show sw");
  EXPECT_FALSE(exists("sw/next"));
  // What a killed writer left makes the next one who opens the store write.
  write("sw/current/cfg/0/vlan_cfg.pss-journal", "left");
  expect_mended(R"j({"level": "warning", "check": "run", "store": "nonvolatile:/cfg/0/vlan_cfg",
      "text": "a command that was writing it was stopped, and what it had not finished is still to be taken back; its records were not looked at",
      "remedy": "datamorph store list sw"})j",
                "datamorph store list sw");
}

TEST_F(check_verb, stores_and_flat_files) {
  create("sw");
  follow("datamorph store export sw nonvolatile:/cfg/0/kps_saved_config --file kept.json");
  write("sw/current/cfg/0/kps_saved_config.pss", "garbage");
  expect_mended(
      R"j({"level": "error", "check": "store", "store": "nonvolatile:/cfg/0/kps_saved_config",
      "text": "cannot be read: 0x40480009 (store or record damaged)",
      "remedy": "datamorph store delete sw nonvolatile:/cfg/0/kps_saved_config --all, and bring it back with 'datamorph store import'"})j",
      "datamorph store delete sw nonvolatile:/cfg/0/kps_saved_config --all && "
      "datamorph store import sw --file kept.json");
  write("sw/current/cfg/0/svi_gldb.snp", "cut");
  expect_mended(R"j({"level": "error", "check": "file", "store": "/cfg/0/svi_gldb.snp",
      "text": "the snapshot cannot be read: 0x40480009 (store or record damaged)",
      "remedy": "remove it, so that it is made anew: rm sw/current/cfg/0/svi_gldb.snp"})j",
                "rm sw/current/cfg/0/svi_gldb.snp");
}

TEST_F(check_verb, what_this_user_may_not_read) {
  create("sw");
  fs::copy_file(datamorph_program, path("datamorph"));
  fs::copy_file(real_library, path("libdatamorph.so.1"));
  program = path("datamorph");
  set("DATAMORPH_LIBRARY", path("libdatamorph.so.1"));
  follow("chmod -R a+rwX . && chmod 0 sw/current/bootflash/boot.cfg "
         "sw/current/cfg/0/vlan_cfg.pss");
  in_child = become_nobody;
  const nlohmann::json found = findings();
  in_child = [] {};
  EXPECT_EQ(found, parsed(R"j([{"level": "error", "check": "rights", "store": "/bootflash/boot.cfg",
      "text": "this user may not read it, so the state cannot be copied",
      "remedy": "run as the user that the switch belongs to"},
     {"level": "error", "check": "store", "store": "nonvolatile:/cfg/0/vlan_cfg",
      "text": "cannot be read: 0x4048000a (no access to the store)",
      "remedy": "run as the user that the switch belongs to"}])j"));
}

TEST_F(check_verb, records) {
  create("sw");
  put(manager, vr_key, router(84));
  EXPECT_EQ(findings(), nlohmann::json::array({parsed(R"j({"level": "error", "check": "record",
      "store": "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav", "key": "01000000010b1a000000",
      "text": "VR record: 84 bytes, neither 85 nor 117, key (type 1, ifindex 0x1a000000, vr_id 11, addr_type INET_ADDR_TYPE_IPV4), damaged, value 0000001a0b010000000100000000000000000000000000000000000000000000...",
      "remedy": "datamorph store delete sw nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav 01000000010b1a000000 (or 'datamorph store put' with the right value)"})j")}));
  put(manager, "01000000010c1a000000", router(85));
  const nlohmann::json disagrees = findings()[1];
  EXPECT_EQ(disagrees["text"].get<std::string>().find("VR record: key disagrees, key (type 1, "),
            0u);
  put(pixm, "36000010db0001", "0800000001");
  const nlohmann::json all = findings();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]["text"], "LTL record: ltl 0x000010db, vdc 1, damaged, value 0800000001");
  follow("datamorph store delete sw " + std::string(pixm) + " 36000010db0001");
  follow("datamorph store delete sw " + std::string(manager) + " 01000000010b1a000000");
  follow("datamorph store delete sw " + std::string(manager) + " 01000000010c1a000000");
  expect_nothing();
}

TEST_F(check_verb, layouts_of_the_other_side_of_a_release) {
  create("sw");
  put(manager, vr_key, router(117));
  const nlohmann::json wide = findings();
  ASSERT_EQ(wide.size(), 1u);
  EXPECT_EQ(wide[0]["check"], "layout");
  EXPECT_EQ(wide[0]["key"], vr_key);
  EXPECT_EQ(wide[0]["text"].get<std::string>().find(
                "117 bytes, but before 4.2(1) it has 85: VR record: layout 4.2(1), ifindex "
                "0x1a000000, vr_id 11, "),
            0u);
  follow("datamorph store delete sw " + std::string(manager) + " " + vr_key);
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  put(engine, vr_key, router(85));
  const nlohmann::json narrow = findings_to("4.1(5)");
  ASSERT_EQ(narrow.size(), 1u);
  EXPECT_EQ(narrow[0]["text"].get<std::string>().find("85 bytes, but from 4.2(1) on it has 117: "),
            0u);
  follow("datamorph store delete sw " + std::string(engine) + " " + vr_key);
  // A VIP record is of the older layout in every release.
  put(engine, "02000000010b1a0000000a010102000000000000000000000000",
      "0000001a0b010000000a010102000000000000000000000000010000000100000000000000000000000000000000"
      "00"
      "0000000000000000");
  EXPECT_EQ(findings_to("4.1(5)")[0]["check"], "record"); // 54 bytes are of no layout
  put(engine, "02000000010b1a0000000a010102000000000000000000000000",
      "0000001a0b010000000a0101020000000000000000000000000100000001000000" + std::string(40, '0'));
  const nlohmann::json address = findings_to("4.1(5)");
  ASSERT_EQ(address.size(), 1u) << address.dump(1);
  EXPECT_EQ(
      address[0]["text"].get<std::string>().find("53 bytes, but in every release it has 33: "), 0u);
}

TEST_F(check_verb, a_change_that_was_made_in_part_is_given_back) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)", "--moment", "startup"}).status, 0);
  const nlohmann::json found = findings();
  ASSERT_EQ(found.size(), 5u) << found.dump(1);
  const std::string remedy = "datamorph convert sw --from '5.0(2)' --to '4.1(5)' --moment startup "
                             "--service VRRP_MGR --service VRRP_ENG";
  for (const nlohmann::json &one : found) {
    EXPECT_EQ(one["check"], "layout");
    EXPECT_EQ(one["remedy"], remedy);
  }
  EXPECT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 3);
  follow(remedy);
  expect_nothing();
  EXPECT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
}

TEST_F(check_verb, what_waits_between_the_two_services) {
  create("sw");
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)", "--moment", "startup", "--service", "VRRP_MGR"})
                .status,
            0);
  const nlohmann::json found = findings();
  ASSERT_EQ(found.size(), 2u) << found.dump(1);
  EXPECT_EQ(found[0], parsed(R"j({"level": "error", "check": "handover",
      "store": "nonvolatile:/tmp/vrrp-startup-pss",
      "text": "8 VRRP records of VDC 1 wait in it for the other service, and a conversion would lose them",
      "remedy": "datamorph convert sw --from '5.0(2)' --to '4.1(5)' --moment startup --service VRRP_MGR"})j"));
  EXPECT_EQ(found[1]["store"], "nonvolatile:/tmp/vrrp-startup-pss2/bin");
  EXPECT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 3);
  follow(found[0]["remedy"]);
  expect_nothing();
  // What stands with a service too is not missed.
  put(waiting, vr_key, router(85));
  put(manager, vr_key, router(85));
  expect_mended(R"j({"level": "warning", "check": "handover",
      "store": "nonvolatile:/tmp/vrrp-startup-pss",
      "text": "left by a conversion; nothing waits in it, since what it holds stands with VRRP's services too",
      "remedy": "datamorph store delete sw nonvolatile:/tmp/vrrp-startup-pss --all ('datamorph store export' keeps a copy)"})j",
                "datamorph store delete sw nonvolatile:/tmp/vrrp-startup-pss --all");
  put("nonvolatile:/tmp/vrrp-pss", vr_key, router(85));
  expect_mended(R"j({"level": "warning", "check": "handover", "store": "nonvolatile:/tmp/vrrp-pss",
      "text": "VRRP's services hand nothing over in a store of this name",
      "remedy": "datamorph store delete sw nonvolatile:/tmp/vrrp-pss --all ('datamorph store export' keeps a copy)"})j",
                "datamorph store delete sw nonvolatile:/tmp/vrrp-pss --all");
}

TEST_F(check_verb, numbers_of_vdcs) {
  create("sw");
  put("volatile:/cfg/0/vdc_17/x", "01", "02");
  expect_mended(R"j({"level": "warning", "check": "vdc", "store": "volatile:/cfg/0/vdc_17/x",
      "text": "its path names no VDC of the switch: vdc_17, so no conversion reads it",
      "remedy": "datamorph store delete sw volatile:/cfg/0/vdc_17/x --all ('datamorph store export' keeps a copy)"})j",
                "datamorph store delete sw volatile:/cfg/0/vdc_17/x --all");
  for (const char *uri : {"volatile:/cfg/0/vdc_3/x", "volatile:/cfg/0/vdc_/x",
                          "volatile:/cfg/0/vdc_2x/x", "volatile:/vdc_1/x"}) {
    put(uri, "01", "02");
    const nlohmann::json found = findings();
    ASSERT_EQ(found.size(), 1u) << found.dump(1);
    EXPECT_EQ(found[0]["store"], uri);
    follow("datamorph store delete sw " + std::string(uri) + " --all");
  }
  put(pixm, "36000010db0063", "0800000000000100");
  expect_mended(R"j({"level": "warning", "check": "vdc", "key": "36000010db0063",
      "store": "nonvolatile:/cfg/0/pixm_runtime_info",
      "text": "LTL record: ltl 0x000010db, vdc 99, Q8 no: the switch has no VDC 99",
      "remedy": "datamorph store delete sw nonvolatile:/cfg/0/pixm_runtime_info 36000010db0063 (or 'datamorph store put' with the right value)"})j",
                "datamorph store delete sw nonvolatile:/cfg/0/pixm_runtime_info 36000010db0063");
}

TEST_F(check_verb, running_tag_tables) {
  create("sw");
  put("volatile:/sysmgr/tag_tables", "0002", "ff");
  expect_mended(R"j({"level": "error", "check": "tags", "store": "volatile:/sysmgr/tag_tables",
      "key": "0002", "text": "running tag table: its table is damaged, value ff",
      "remedy": "datamorph store delete sw volatile:/sysmgr/tag_tables 0002 (or 'datamorph store put' with the right value)"})j",
                "datamorph store delete sw volatile:/sysmgr/tag_tables 0002");
  put("volatile:/sysmgr/tag_tables", "", "ff");
  const nlohmann::json found = findings();
  EXPECT_EQ(found[0]["key"], "");
  EXPECT_EQ(found[0]["text"], "running tag table: its key is not the 2 bytes of a VDC, value ff");
  follow("datamorph store delete sw volatile:/sysmgr/tag_tables \"\"");
  expect_nothing();
}

TEST_F(check_verb, markers_and_logs) {
  create("sw");
  const struct {
    const char *file;
    const char *check;
    const char *harm;
  } places[] = {
      {"tmp/datamorphcheck", "marker", "each line would start the conversion log anew"},
      {"tmp/fc_nport_mux", "marker", "the switch would be taken for one in NPV mode"},
      {"mnt/pss/fc_nport_mux", "marker", "the switch would be taken for one in NPV mode"},
      {"mnt/pss/data_morph.log", "log", "the conversion log would be lost"},
      {"mnt/pss/data_morph.last", "log", "the conversion log's older part would be lost"},
      {"bootflash/data_morph_vrrp_mgr.log", "log", "the trace of VRRP's manager would be lost"},
      {"bootflash/data_morph_vrrp_eng.log", "log", "the trace of VRRP's engine would be lost"},
  };
  for (const auto &place : places) {
    const std::string file = std::string("sw/current/") + place.file;
    fs::create_directories(path(file));
    EXPECT_EQ(findings(),
              nlohmann::json::array(
                  {{{"level", "warning"},
                    {"check", place.check},
                    {"store", std::string("/") + place.file},
                    {"text", std::string("a folder stands where a file is wanted: ") + place.harm},
                    {"remedy", "rm -r " + file}}}));
    follow("rm -r " + file);
    write(file, "x"); // a file is well
  }
  expect_nothing();
  follow("rm sw/current/tmp/datamorphcheck && ln -s /x sw/current/tmp/datamorphcheck");
  EXPECT_EQ(findings()[0]["text"].get<std::string>().find("a link stands"), 0u);
  follow("rm sw/current/tmp/datamorphcheck && mkfifo sw/current/tmp/datamorphcheck");
  EXPECT_EQ(findings()[0]["text"].get<std::string>().find("a special file stands"), 0u);
  follow("rm -r sw/current/tmp/datamorphcheck sw/current/mnt/pss");
  expect_mended(R"j({"level": "warning", "check": "log", "store": "/mnt/pss",
      "text": "the folder of the conversion log is missing, so the log would be lost",
      "remedy": "mkdir -p sw/current/mnt/pss"})j",
                "mkdir -p sw/current/mnt/pss");
  follow("rmdir sw/current/mnt/pss && touch sw/current/mnt/pss");
  EXPECT_EQ(findings()[0]["text"], "where the folder of the conversion log should be stands a "
                                   "file, so the log would be lost");
}

// ---- How it is told ----------------------------------------------------------------------------

TEST_F(check_verb, many_findings_are_counted_and_the_first_shown) {
  create("sw");
  std::string records;
  for (unsigned at = 0; at < 1234; ++at) {
    char key[9];
    std::snprintf(key, sizeof key, "%08x", at);
    records +=
        (at == 0 ? "" : ",") + std::string(R"({"key": "36)") + key + R"(0001", "value": "00"})";
  }
  ASSERT_EQ(run({"store", "import", "sw", "--merge"},
                R"({"stores": [{"uri": "nonvolatile:/cfg/0/pixm_runtime_info", "records": [)" +
                    records + "]}]}")
                .status,
            0);
  const nlohmann::json told = check(3);
  EXPECT_EQ(told["findings"].size(), 1000u);
  EXPECT_EQ(told["checks"][9],
            parsed(R"j({"check": "record", "looked_at": 1327, "findings": 1234})j"));
  EXPECT_EQ(told["summary"]["errors"], 1234);
  EXPECT_EQ(told["summary"]["shown"], 1000);
  const result table = run({"check", "sw", "--to", "4.2(1)"});
  EXPECT_EQ(table.status, 3);
  EXPECT_EQ(
      table.out.find("error: record, nonvolatile:/cfg/0/pixm_runtime_info, key 36000000000001\n"
                     "  LTL record: ltl 0x00000000, vdc 1, damaged, value 00\n"
                     "  remedy: datamorph store delete sw nonvolatile:/cfg/0/pixm_runtime_info "
                     "36000000000001 (or 'datamorph store put' with the right value)\n\n"),
      0u)
      << table.out.substr(0, 500);
  EXPECT_NE(table.out.find("key 36000000130001\n"), std::string::npos);
  EXPECT_EQ(table.out.find("key 36000000140001\n"), std::string::npos);
  EXPECT_NE(table.out.find("\n1214 more of record\n\nsw: 1234 errors and 0 warnings before a "
                           "conversion from 4.1(5) to 4.2(1); looked at 16 checks, 37 stores, "
                           "1328 records\n"),
            std::string::npos)
      << table.out.substr(table.out.size() - 300);
}

TEST_F(check_verb, names_that_a_shell_would_take_apart) {
  const result made = run({"lab", "create", "my switch"});
  ASSERT_EQ(made.status, 0);
  write("my switch/current/cfg/it's \x01.pss", "garbage");
  const result done = run({"check", "my switch", "--to", "4.2(1)", "--format", "json"});
  EXPECT_EQ(done.status, 3);
  const nlohmann::json found = done.json()["findings"];
  ASSERT_EQ(found.size(), 1u) << found.dump(1);
  EXPECT_EQ(found[0]["store"], "nonvolatile:/cfg/it's \x01");
  EXPECT_EQ(found[0]["remedy"], "datamorph store delete 'my switch' "
                                "$'nonvolatile:/cfg/it\\'s \\x01' --all, and bring it back with "
                                "'datamorph store import'");
  const std::string out = run({"check", "my switch", "--to", "4.2(1)"}).out;
  EXPECT_EQ(out.find("error: store, nonvolatile:/cfg/it's \\x01\n"), 0u) << out;
}

} // namespace
