// Something else planted at the names that the library and the lab open by themselves: a conversion
// writes nothing outside of the switch, waits for nobody and ends as it does without them.
#include "command.h"

#include <cerrno>
#include <filesystem>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class fixed_names : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
    write("outside/victim", "mine");
  }
  void TearDown() override {
    EXPECT_EQ(read("outside/victim"), "mine");
    EXPECT_EQ(std::distance(fs::directory_iterator(path("outside")), fs::directory_iterator()), 1);
    expect_tidy("sw");
    command_test::TearDown();
  }

  // In the places of all logs and of the boot's marker.
  template <typename plant_t> void plant_at_logs(plant_t plant) {
    for (const char *name :
         {"tmp/datamorphcheck", "mnt/pss/data_morph.log", "mnt/pss/data_morph.last",
          "bootflash/data_morph_vrrp_mgr.log", "bootflash/data_morph_vrrp_eng.log"}) {
      const std::string file = path(std::string("sw/current/") + name);
      fs::create_directories(fs::path(file).parent_path());
      fs::remove(file);
      plant(file);
    }
  }
  result convert() { return run({"convert", "sw", "--to", "4.2(1)"}); }

  void expect_converted_without_log() {
    const result converted = convert();
    EXPECT_EQ(converted.status, 0) << converted.err;
    EXPECT_EQ(show("sw")["release"], "4.2(1)");
    EXPECT_TRUE(exists("sw/runs/0001/conversion.log"));
    EXPECT_EQ(read("sw/runs/0001/conversion.log"), "");
  }

  // What stands there is no store, so the switch stays as it was.
  void expect_refused_hand_over(const char *why, int status = 1) {
    const files before = state("sw");
    const result converted = convert();
    EXPECT_EQ(converted.status, status);
    EXPECT_NE(converted.err.find(why), std::string::npos) << converted.err;
    EXPECT_EQ(state("sw"), before);
  }
  std::string hand_over() const { return path("sw/current/tmp/vrrp-startup-pss.pss"); }
};

constexpr char k_stands[] = "pss_snapshot on the store 'nonvolatile:/tmp/vrrp-startup-pss' by "
                            "VRRP_MGR gave 0x40480001 (a store stands there already)";
constexpr char k_damaged[] =
    "store 'nonvolatile:/tmp/vrrp-startup-pss': 0x40480009 (store or record damaged)";

TEST_F(fixed_names, links_in_the_places_of_logs) {
  plant_at_logs(
      [this](const std::string &file) { fs::create_symlink(path("outside/victim"), file); });
  expect_converted_without_log();
}

TEST_F(fixed_names, dangling_links_in_the_places_of_logs) {
  plant_at_logs(
      [this](const std::string &file) { fs::create_symlink(path("outside/absent"), file); });
  expect_converted_without_log();
}

TEST_F(fixed_names, links_to_a_file_of_the_switch_in_the_places_of_logs) {
  write("sw/current/etc/other", "of the switch");
  plant_at_logs([](const std::string &file) { fs::create_symlink("/etc/other", file); });
  expect_converted_without_log();
  EXPECT_EQ(read("sw/current/etc/other"), "of the switch");
}

TEST_F(fixed_names, fifos_in_the_places_of_logs) {
  plant_at_logs([](const std::string &file) { EXPECT_EQ(mkfifo(file.c_str(), 0666), 0); });
  expect_converted_without_log();
}

TEST_F(fixed_names, folders_in_the_places_of_logs) {
  plant_at_logs([](const std::string &file) { fs::create_directory(file); });
  expect_converted_without_log();
}

TEST_F(fixed_names, a_link_in_the_place_of_the_hand_over) {
  fs::create_symlink(path("outside/victim"), hand_over());
  expect_refused_hand_over(k_stands);
}

TEST_F(fixed_names, a_dangling_link_in_the_place_of_the_hand_over) {
  fs::create_symlink("../../../outside/absent", hand_over());
  expect_refused_hand_over(k_stands);
}

TEST_F(fixed_names, a_fifo_in_the_place_of_the_hand_over) {
  ASSERT_EQ(mkfifo(hand_over().c_str(), 0666), 0);
  expect_refused_hand_over(k_damaged);
}

TEST_F(fixed_names, a_folder_in_the_place_of_the_hand_over) {
  fs::create_directory(hand_over());
  expect_refused_hand_over(k_damaged);
}

// A store of somebody else's, by its second name: what stands there is replaced, not written to.
TEST_F(fixed_names, a_hard_link_to_a_store_in_the_place_of_the_hand_over) {
  create("other");
  const files others = state("other");
  fs::create_hard_link(path("other/current/cfg/startup/bin/vrrp-cfg_config_sav.pss"), hand_over());
  const result converted = convert();
  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_EQ(show("sw")["release"], "4.2(1)");
  EXPECT_EQ(state("other"), others);
  EXPECT_FALSE(fs::exists(hand_over()));
  EXPECT_EQ(run({"convert", "other", "--to", "4.2(1)"}).status, 0);
  EXPECT_EQ(run({"diff", "sw", "other"}).status, 0);
}

TEST_F(fixed_names, a_hard_link_to_what_is_no_store_in_the_place_of_the_hand_over) {
  fs::create_hard_link(path("outside/victim"), hand_over());
  expect_refused_hand_over("the store 'nonvolatile:/tmp/vrrp-startup-pss' cannot be read: "
                           "0x40480009 (store or record damaged)",
                           3);
}

// Not everybody may make a device: one that is there serves as well.
TEST_F(fixed_names, a_device_in_the_place_of_the_hand_over) {
  if (mknod(hand_over().c_str(), S_IFCHR | 0666, makedev(1, 7)) != 0) {
    ASSERT_NO_FATAL_FAILURE(enter_private_mounts());
    write("sw/current/tmp/vrrp-startup-pss.pss", "");
    ASSERT_EQ(mount("/dev/full", hand_over().c_str(), "none", MS_BIND, nullptr), 0);
  }
  expect_refused_hand_over(k_damaged);
  umount2(hand_over().c_str(), MNT_DETACH);
}

TEST_F(fixed_names, a_store_of_another_owner_in_the_place_of_the_hand_over) {
  create("other");
  fs::copy_file(path("other/current/cfg/startup/bin/vrrp-cfg_config_sav.pss"), hand_over());
  const int changed = chown(hand_over().c_str(), 65534, 65534);
  ASSERT_TRUE(changed == 0 || errno == EPERM); // only the superuser may give files away
  const result converted = convert();
  EXPECT_EQ(converted.status, 0) << converted.err;
  EXPECT_FALSE(fs::exists(hand_over()));
  EXPECT_EQ(run({"convert", "other", "--to", "4.2(1)"}).status, 0);
  EXPECT_EQ(run({"diff", "sw", "other"}).status, 0);
}

} // namespace
