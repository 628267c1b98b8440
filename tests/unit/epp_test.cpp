// The EPP converter of the running-filesystem moment.

#include "libdatamorph_private.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/library_fixture.h"

namespace {

constexpr char k_entering[] = "epp_in_npv_mode_data_morph_running_fs_upg: Entering \n";

class epp_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    platform.add_queue(7);
    traced([] { libdatamorph_init(7); });
    switch_root::reset();
    platform.clear();
  }

  // The conversion on a switch in NPV mode.
  lines_t convert(const char *path, const char *to, const char *from) {
    switch_root::write_file("/tmp/fc_nport_mux", "");
    return traced([&] {
      EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg(path, "system", to, from));
    });
  }

  static std::string args_line(const char *to, const char *from) {
    return std::string("epp_in_npv_mode_data_morph_running_fs_upg: args: to_pkg_version ") + to +
           " from_pkg_version " + from + "\n";
  }
};

const std::vector<std::string> k_removals = {"mts_sap_destroy(7, 109)",
                                             "pss_destroy(\"volatile:/cfg/0/epp_runtime_config\")",
                                             "pss_destroy(\"volatile:/cfg/0/epp_runtime_ha\")",
                                             "pss_destroy(\"volatile:/cfg/0/epp_debug\")"};

TEST_F(epp_test, outside_npv_mode_nothing_is_touched) {
  const lines_t lines = traced([] {
    EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg/0", "s", "4.0(4)", "4.2(1)"));
  });
  EXPECT_EQ(lines_t({k_entering, "epp_in_npv_mode_data_morph_running_fs_upg: Not in NPV, so "
                                 "ignoring the conversion \n"}),
            lines);
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(epp_test, downgrade_in_npv_mode_removes_stores_and_access_point) {
  for (const std::string store : {"epp_runtime_config", "epp_runtime_ha", "epp_debug", "other"}) {
    platform.set_store("volatile:/cfg/0/" + store, {{"key", "value"}});
  }
  platform.add_sap(109);
  platform.add_sap(110);
  const lines_t lines = convert("/cfg/0", "4.0(4)", "4.2(1)");
  EXPECT_EQ(
      lines_t({k_entering, args_line("4.0(4)", "4.2(1)"),
               "epp_in_npv_mode_data_morph_running_fs_upg: Attempting conversion\n",
               "epp_convert_4_0: Entering \n", "epp_destroy_mts_sap: Entering \n",
               "epp_destroy_pss: Entering \n",
               "epp_in_npv_mode_data_morph_running_fs_upg: EPP mts, pss deleted successfully \n"}),
      lines);
  EXPECT_EQ(k_removals, platform.calls());
  EXPECT_EQ(std::vector<std::string>({"volatile:/cfg/0/other"}), platform.store_uris());
  EXPECT_EQ(std::vector<uint32>({110}), platform.saps());
}

TEST_F(epp_test, either_marker_counts) {
  switch_root::write_file("/mnt/pss/fc_nport_mux", "");
  traced([] {
    EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg/0", "s", "4.0(4)", "4.2(1)"));
  });
  EXPECT_EQ(k_removals, platform.calls());
}

TEST_F(epp_test, a_fifo_as_marker_does_not_block) {
  ASSERT_EQ(0, mkfifo("/tmp/fc_nport_mux", 0600));
  traced([] {
    EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg/0", "s", "4.0(4)", "4.2(1)"));
  });
  EXPECT_EQ(k_removals, platform.calls());
}

TEST_F(epp_test, an_upgrade_or_the_same_release_has_nothing_to_do) {
  const std::pair<const char *, const char *> pairs[] = {{"4.2(1)", "4.0(4)"}, // to, from
                                                         {"4.0(4)", "4.0(4)"},
                                                         {"", ""},
                                                         {"x", ""}};
  for (const auto &[to, from] : pairs) {
    EXPECT_EQ(lines_t({k_entering, args_line(to, from),
                       "epp_in_npv_mode_data_morph_running_fs_upg: Upgrade : nothing to do"}),
              convert("/cfg/0", to, from));
  }
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(epp_test, a_target_at_or_above_the_minimum_needs_no_conversion) {
  for (const char *to : {"4.1(2)", "4.1(3)", "4.1(2)a"}) {
    EXPECT_EQ(lines_t({k_entering, args_line(to, "4.2(1)"),
                       std::string("epp_in_npv_mode_data_morph_running_fs_upg: Target version ") +
                           to + " does not need conversion"}),
              convert("/cfg/0", to, "4.2(1)"));
  }
  EXPECT_EQ(lines_t({k_entering, args_line("4.1(2)", "4.1(3)"),
                     "epp_in_npv_mode_data_morph_running_fs_upg: Target version 4.1(2) does not "
                     "need conversion"}),
            convert("/cfg/0", "4.1(2)", "4.1(3)"));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(epp_test, versions_are_compared_as_text) {
  // 4.10(1) sorts below 4.2(1), so this counts as a downgrade; but above "4.1(2)".
  EXPECT_EQ("epp_in_npv_mode_data_morph_running_fs_upg: Target version 4.10(1) does not need "
            "conversion",
            convert("/cfg/0", "4.10(1)", "4.2(1)").back());
  EXPECT_TRUE(platform.calls().empty());
  // 10.0(1) sorts below 4.2(1) and below "4.1(2)": removed.
  convert("/cfg/0", "10.0(1)", "4.2(1)");
  EXPECT_EQ(k_removals, platform.calls());
  // 10.0(1) sorts below 4.0(1), so this counts as an upgrade.
  EXPECT_EQ("epp_in_npv_mode_data_morph_running_fs_upg: Upgrade : nothing to do",
            convert("/cfg/0", "4.0(1)", "10.0(1)").back());
}

TEST_F(epp_test, failed_removals_are_only_traced) {
  platform.fail("mts_sap_destroy", EPERM);
  platform.fail_from("pss_destroy", 0x4048000B);
  EXPECT_EQ(
      lines_t({k_entering, args_line("4.0(4)", "4.2(1)"),
               "epp_in_npv_mode_data_morph_running_fs_upg: Attempting conversion\n",
               "epp_convert_4_0: Entering \n", "epp_destroy_mts_sap: Entering \n",
               "epp_destroy_mts_sap: failed destroying EPP sap Operation not permitted\n",
               "epp_destroy_pss: Entering \n",
               "epp_destroy_pss: Failed to destroy epp_runtime_config_url\n",
               "epp_destroy_pss: Failed to destroy epp_runtime_ha_url\n",
               "epp_destroy_pss: Failed to destroy epp_debug_url\n",
               "epp_in_npv_mode_data_morph_running_fs_upg: EPP mts, pss deleted successfully \n"}),
      convert("/cfg/0", "4.0(4)", "4.2(1)"));
  EXPECT_EQ(k_removals, platform.calls());
}

TEST_F(epp_test, each_failing_store_is_named_and_the_next_is_still_destroyed) {
  const char *const messages[] = {"epp_destroy_pss: Failed to destroy epp_runtime_config_url\n",
                                  "epp_destroy_pss: Failed to destroy epp_runtime_ha_url\n",
                                  "epp_destroy_pss: Failed to destroy epp_debug_url\n"};
  for (unsigned n = 1; n <= 3; ++n) {
    for (const std::string store : {"epp_runtime_config", "epp_runtime_ha", "epp_debug"}) {
      platform.set_store("volatile:/cfg/0/" + store);
    }
    platform.clear();
    platform.fail("pss_destroy", 0x40480002, n);
    EXPECT_EQ(lines_t({"epp_destroy_pss: Entering \n", messages[n - 1]}),
              traced([] { epp_destroy_pss("/cfg/0"); }));
    EXPECT_EQ(3u, platform.calls("pss_destroy").size());
  }
}

TEST_F(epp_test, nulls_remove_nothing) {
  EXPECT_EQ(lines_t({k_entering, args_line("(null)", "4.2(1)")}),
            convert("/cfg/0", nullptr, "4.2(1)"));
  EXPECT_EQ(lines_t({k_entering, args_line("4.0(4)", "(null)")}),
            convert("/cfg/0", "4.0(4)", nullptr));
  EXPECT_EQ(lines_t({k_entering, args_line("4.0(4)", "4.2(1)")}),
            convert(nullptr, "4.0(4)", "4.2(1)"));
  EXPECT_EQ(lines_t({k_entering, args_line("(null)", "(null)")}),
            convert(nullptr, nullptr, nullptr));
  EXPECT_EQ(lines_t({"epp_destroy_pss: Entering \n"}), traced([] { epp_destroy_pss(nullptr); }));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(epp_test, the_package_name_is_not_used) {
  switch_root::write_file("/tmp/fc_nport_mux", "");
  traced([] {
    EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg/0", nullptr, "4.0(4)", "4.2(1)"));
  });
  EXPECT_EQ(k_removals, platform.calls());
}

TEST_F(epp_test, uris_are_cut_at_255_characters) {
  const std::string path(4000, 'p');
  traced([&] { epp_destroy_pss(path.c_str()); });
  const std::string cut = "pss_destroy(\"volatile:" + std::string(246, 'p') + "\")";
  EXPECT_EQ(lines_t({cut, cut, cut}), platform.calls());
}

TEST_F(epp_test, the_marker_is_closed_at_once_and_may_be_descriptor_0) {
  switch_root::write_file("/tmp/fc_nport_mux", "");
  bool taken = true;
  traced([&] {
    const int saved = dup(0);
    close(0);
    epp_in_npv_mode_data_morph_running_fs_upg("/cfg/0", "s", "4.0(4)", "4.2(1)");
    taken = fcntl(0, F_GETFD) != -1;
    if (saved >= 0) {
      dup2(saved, 0);
      close(saved);
    }
  });
  EXPECT_FALSE(taken);
  EXPECT_EQ(k_removals, platform.calls());
}

TEST_F(epp_test, a_folder_as_marker_counts) {
  ASSERT_EQ(0, mkdir("/tmp/fc_nport_mux", 0755)); // opens for reading only
  traced([] {
    EXPECT_EQ(0u, epp_in_npv_mode_data_morph_running_fs_upg("/cfg/0", "s", "4.0(4)", "4.2(1)"));
  });
  EXPECT_EQ(k_removals, platform.calls());
}

TEST_F(epp_test, over_long_versions_in_npv_mode) {
  const std::string nines(4000, '9');
  const std::string ones(4000, '1');
  EXPECT_EQ(lines_t({k_entering, args_line(ones.c_str(), nines.c_str()),
                     "epp_in_npv_mode_data_morph_running_fs_upg: Attempting conversion\n"}),
            [&] {
              lines_t l = convert("/cfg/0", ones.c_str(), nines.c_str());
              l.resize(3);
              return l;
            }());
  EXPECT_EQ(k_removals, platform.calls());
}

} // namespace
