// The converters of the features that became optional services, at both moments.

#include "libdatamorph_private.h"

#include <cerrno>

#include "support/library_fixture.h"

namespace {

using converter_t = decltype(&dot1x_data_morph_startup);

struct feature_row {
  converter_t running_fs;
  converter_t startup;
  std::string running_fs_name;
  std::string startup_name;
  std::string null_running_fs; // messages for null arguments
  std::string null_startup;
  std::string store;
  std::string key;
  std::string uuid;    // hexadecimal, as the messages have it
  std::string sent;    // as it is sent
  std::string added;   // the first arguments of the addition to the table
  std::string decided; // what the decision traces for a feature that is enabled
};

const feature_row k_features[] = {
    {dot1x_data_morph_running_fs_upg, dot1x_data_morph_startup, "dot1x_data_morph_running_fs_upg",
     "dot1x_data_morph_startup",
     "dot1x service: NULL arguments in (dot1x_data_morph_running_fs_upg)\n",
     "dot1x service: NULL arguments in (dot1x_data_morph_startup)\n", "/dot1x_saved_config",
     "64 0a 00 00 00 00 00 00 00 00 00 00", "17D", "0000017d",
     "sysmgr_srv_tag_info_add(381, \"\", ", "uuid 381"},
    {kps_data_morph_running_fs_upg, kps_data_morph_startup, "kps_data_morph_running_fs_upg",
     "kps_data_morph_startup", "kps service: NULL arguments in (kps_data_morph_running_fs_upg)\n",
     "kps service: NULL arguments in (kps_data_morph_startup)\n", "/kps_saved_config",
     "f0 00 00 00", "21E", "0000021e", "sysmgr_srv_tag_info_add(542, \"\", ", "uuid 542"},
    {psec_data_morph_running_fs_upg, psec_data_morph_startup, "psec_data_morph_running_fs_upg",
     "psec_data_morph_startup",
     "port security service: NULL arguments in (psec_data_morph_running_fs_upg)\n",
     "port security service: NULL arguments in (psec_data_morph_startup)\n",
     "/eth_port_sec_saved_config", "00 00 00 00 00 00 00 00", "16F", "0000016f",
     "sysmgr_srv_tag_info_add(367, \"\", ", "uuid 367"},
};

class feature_converter_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    set_up();
  }

  // A switch whose system manager answers 0.
  void set_up() {
    platform.reset();
    platform.set_vdcs({1, 2, 16});
    platform.add_queue(7);
    platform.reply_always(3, bytes("00 00 00 00"));
    traced([] { libdatamorph_init(7); });
    platform.clear();
  }

  // A feature that is enabled in that directory.
  void enable(const feature_row &feature, const std::string &directory) {
    platform.put("nonvolatile:" + directory + feature.store, bytes(feature.key),
                 bytes("01 00 00 00"));
  }

  lines_t convert(converter_t converter, const std::string &path, const char *to = "4.2(1)",
                  const char *from = "4.1(5)") {
    return traced([&] { status = converter(path.c_str(), "system", to, from); });
  }

  lines_t requests() { return platform.calls("mts_send"); }

  static std::string request(const feature_row &feature, const std::string &vdc) {
    return "mts_send(7, 0xfe000000, 3, 2690, " + feature.sent + vdc + std::string(64, '0') +
           ", 40, 0, 0)";
  }

  static std::string arguments(const std::string &name, const std::string &path) {
    return name + ": path = " + path + ", pkg_name = system, to_ver = 4.2(1), from_ver = 4.1(5)\n";
  }

  syserr_t status = 0xdead;
};

// ---- Running filesystem

TEST_F(feature_converter_test, running_fs_tells_the_system_manager) {
  enable(k_features[0], "/cfg/0");
  EXPECT_EQ(lines_t({"dot1x_data_morph_running_fs_upg: path = /cfg/0, pkg_name = system, to_ver = "
                     "4.2(1), from_ver = 4.1(5)\n",
                     "was_running_compulsory_conditional: ENTER with path: /cfg/0, uuid 381 and "
                     "from_ver: 4.1(5)\n",
                     "was_dot1x_running: TOTOAL URI nonvolatile:/cfg/0/dot1x_saved_config ",
                     "was_dot1x_running: Dot1x is enabled and running",
                     "was_running_compulsory_conditional: Moving from compulsory to optional "
                     "service\n",
                     "sysmgr_add_tag_info_req: Return status 0x0\n",
                     "dot1x_data_morph_running_fs_upg: Return status SUCCESS\n"}),
            convert(dot1x_data_morph_running_fs_upg, "/cfg/0"));
  EXPECT_EQ(0u, status);
  for (const feature_row &feature : k_features) {
    set_up();
    enable(feature, "/cfg/0");
    const lines_t lines = convert(feature.running_fs, "/cfg/0");
    EXPECT_EQ(arguments(feature.running_fs_name, "/cfg/0"), lines.front());
    EXPECT_EQ(feature.running_fs_name + ": Return status SUCCESS\n", lines.back());
    EXPECT_EQ(0u, status);
    EXPECT_EQ(lines_t({request(feature, "00000001")}), requests());
    EXPECT_TRUE(platform.calls("sysmgr_srv_tag_info_add").empty());
    EXPECT_EQ(1u, platform.calls("pss_open").size());
  }
}

TEST_F(feature_converter_test, running_fs_always_speaks_of_vdc_1) {
  for (const feature_row &feature : k_features) {
    for (const char *path : {"/cfg/vdc_2", "/cfg/vdc_0", "/cfg/vdc_x"}) {
      set_up();
      enable(feature, path);
      convert(feature.running_fs, path);
      EXPECT_EQ(0u, status);
      EXPECT_EQ(lines_t({request(feature, "00000001")}), requests());
    }
  }
}

TEST_F(feature_converter_test, a_failed_request_fails_running_fs) {
  for (const feature_row &feature : k_features) {
    enable(feature, "/cfg/0");
    platform.reply(bytes("40 48 00 0c"));
    EXPECT_EQ(feature.running_fs_name + ": Failed to add service with uuid 0x" + feature.uuid +
                  " in vdc 1 to tag table. error 0x4048000C\n",
              convert(feature.running_fs, "/cfg/0").back());
    EXPECT_EQ(0x4048000Cu, status);
  }
}

// ---- Startup

TEST_F(feature_converter_test, startup_saves_the_tag_and_tells_the_system_manager) {
  platform.set_store("nonvolatile:/cfg/startup/bin/sysmgr_config");
  enable(k_features[1], "/cfg/startup/bin");
  EXPECT_EQ(lines_t({"kps_data_morph_startup: path = /cfg/startup, pkg_name = system, to_ver = "
                     "4.2(1), from_ver = 4.1(5)\n",
                     "was_running_compulsory_conditional: ENTER with path: /cfg/startup/bin, uuid "
                     "542 and from_ver: 4.1(5)\n",
                     "was_kps_running: TOTOAL URI nonvolatile:/cfg/startup/bin/kps_saved_config ",
                     "was_kps_running: KPS is enabled and running",
                     "was_running_compulsory_conditional: Moving from compulsory to optional "
                     "service\n",
                     "sysmgr_add_tag_startup: Adding uuid 0x21e tag  in vdc 1 to sysmgr startup "
                     "config\n",
                     "sysmgr_add_tag_startup: PSS_KEY_TAG_INFO not found in sysmgr's config. "
                     "Created successfully\n",
                     "sysmgr_add_tag_startup: vdc 1: saved tag info  for service 0x21e to sysmgr "
                     "startup config\n",
                     "sysmgr_add_tag_info_req: Return status 0x0\n",
                     "kps_data_morph_startup: Return status SUCCESS\n"}),
            convert(kps_data_morph_startup, "/cfg/startup"));
  EXPECT_EQ(0u, status);
  for (const feature_row &feature : k_features) {
    set_up();
    platform.set_store("nonvolatile:/cfg/startup/vdc_2/bin/sysmgr_config");
    enable(feature, "/cfg/startup/vdc_2/bin");
    const lines_t lines = convert(feature.startup, "/cfg/startup/vdc_2");
    EXPECT_EQ(arguments(feature.startup_name, "/cfg/startup/vdc_2"), lines.front());
    EXPECT_EQ(feature.startup_name + ": Return status SUCCESS\n", lines.back());
    EXPECT_EQ(0u, status);
    EXPECT_EQ(lines_t({feature.added + "2)"}), platform.calls("sysmgr_srv_tag_info_add"));
    EXPECT_EQ(lines_t({request(feature, "00000002")}), requests());
    EXPECT_TRUE(platform.open_handles().empty());
    EXPECT_TRUE(platform.open_messages().empty());
  }
}

TEST_F(feature_converter_test, the_two_moments_differ_in_directory_and_vdc) {
  for (const feature_row &feature : k_features) {
    set_up();
    enable(feature, "/cfg/vdc_2"); // not in bin below
    convert(feature.startup, "/cfg/vdc_2");
    EXPECT_EQ(0u, status);
    EXPECT_EQ(lines_t(), requests());
    convert(feature.running_fs, "/cfg/vdc_2");
    EXPECT_EQ(lines_t({request(feature, "00000001")}), requests());

    set_up();
    enable(feature, "/cfg/vdc_2/bin"); // not in the directory itself
    convert(feature.running_fs, "/cfg/vdc_2");
    EXPECT_EQ(lines_t(), requests());
    convert(feature.startup, "/cfg/vdc_2");
    EXPECT_EQ(lines_t({request(feature, "00000002")}), requests());
  }
}

TEST_F(feature_converter_test, a_missing_configuration_of_the_system_manager_still_tells_it) {
  for (const feature_row &feature : k_features) {
    set_up();
    enable(feature, "/cfg/startup/bin");
    convert(feature.startup, "/cfg/startup");
    EXPECT_EQ(0u, status);
    EXPECT_EQ(lines_t({request(feature, "00000001")}), requests());
  }
}

TEST_F(feature_converter_test, a_failed_update_sends_no_request) {
  for (const feature_row &feature : k_features) {
    set_up();
    platform.set_store("nonvolatile:/cfg/startup/bin/sysmgr_config");
    enable(feature, "/cfg/startup/bin");
    platform.fail("pss_store", 0x4048000C);
    EXPECT_EQ(feature.startup_name +
                  ": Failed to add tag to sysmgr startup config. Error 0x4048000c\n",
              convert(feature.startup, "/cfg/startup").back());
    EXPECT_EQ(0x4048000Cu, status);
    EXPECT_EQ(lines_t(), requests());
  }
}

TEST_F(feature_converter_test, a_failed_request_fails_startup) {
  for (const feature_row &feature : k_features) {
    set_up();
    enable(feature, "/cfg/vdc_16/bin");
    platform.fail("mts_send", ECONNREFUSED);
    EXPECT_EQ(feature.startup_name + ": Failed to add service with uuid 0x" + feature.uuid +
                  " in vdc 16 to tag table. error 0x801E006F\n",
              convert(feature.startup, "/cfg/vdc_16").back());
    EXPECT_EQ(0x801E006Fu, status);
  }
}

TEST_F(feature_converter_test, the_vdc_of_a_path) {
  const struct {
    const char *path;
    int vdc; // 0: it fails
  } rows[] = {
      {"/cfg", 1},
      {"/cfg/vdc", 1},
      {"/cfg/vdc2", 1},
      {"cfg/xvdc_2", 1},
      {"/cfg/vdc_1", 1},
      {"/cfg/vdc_2", 2},
      {"/cfg/vdc_16", 16},
      {"/cfg/vdc_17", 17},
      {"/cfg/vdc_2/", 2},
      {"/cfg/vdc_2x", 2},
      {"/cfg/vdc_002", 2},
      {"/cfg/vdc_010", 10}, // decimal, whatever is in front
      {"/cfg/vdc_0x2", 0},
      {"/cfg/vdc_ 2", 2},
      {"/cfg/vdc_+2", 2},
      {"/cfg/vdc_2/vdc_3", 2}, // the first one counts
      {"/vdc_x/vdc_3", 0},
      {"/cfg/vdc_-1", 65535},
      {"/cfg/vdc_-65535", 1},
      {"/cfg/vdc_65535", 65535},
      {"/cfg/vdc_65537", 1},
      {"/cfg/vdc_2147483647", 65535},
      {"/cfg/vdc_2147483648", 65535}, // as large as a number gets
      {"/cfg/vdc_4294967298", 65535},
      {"/cfg/vdc_99999999999999999999", 65535},
      {"/cfg/vdc_-2147483647", 1},
      {"/cfg/vdc_-2147483649", 0}, // as small as a number gets
      {"/cfg/vdc_-99999999999999999999", 0},
      {"/cfg/vdc_65536", 0},
      {"/cfg/vdc_131072", 0},
      {"/cfg/vdc_0", 0},
      {"/cfg/vdc_", 0},
      {"/cfg/vdc_-", 0},
      {"/cfg/vdc_abc", 0},
      {"/cfg/vdc_x2", 0},
  };
  for (const auto &row : rows) {
    set_up();
    enable(k_features[0], std::string(row.path) + "/bin");
    const lines_t lines = convert(dot1x_data_morph_startup, row.path);
    if (row.vdc == 0) {
      EXPECT_EQ(lines_t({arguments("dot1x_data_morph_startup", row.path),
                         "dot1x_data_morph_startup: Could not get vdc from path\n"}),
                lines);
      EXPECT_EQ(0x401E0076u, status) << row.path;
      EXPECT_TRUE(platform.calls().empty());
      continue;
    }
    EXPECT_EQ("sysmgr_add_tag_startup: Adding uuid 0x17d tag  in vdc " + std::to_string(row.vdc) +
                  " to sysmgr startup config\n",
              lines.at(5))
        << row.path;
    const bool has_row = row.vdc < 17; // among the system manager's tables
    EXPECT_EQ(has_row ? 0u : 0x401E0076u, status) << row.path;
    EXPECT_EQ(has_row ? 1u : 0u, requests().size()) << row.path;
  }
}

TEST_F(feature_converter_test, a_vdc_without_a_table_of_its_own) {
  // No row for it: the update fails once it is wanted, not before.
  for (const feature_row &feature : k_features) {
    set_up();
    platform.set_store("nonvolatile:/cfg/vdc_17/bin/sysmgr_config");
    convert(feature.startup, "/cfg/vdc_17");
    EXPECT_EQ(0u, status);
    enable(feature, "/cfg/vdc_17/bin");
    EXPECT_EQ(feature.startup_name +
                  ": Failed to add tag to sysmgr startup config. Error 0x401e0076\n",
              convert(feature.startup, "/cfg/vdc_17").back());
    EXPECT_EQ(0x401E0076u, status);
    EXPECT_EQ(lines_t(), requests());
  }
}

TEST_F(feature_converter_test, the_configuration_path_is_cut_at_254_characters) {
  const std::string path(4000, 'p');
  for (const feature_row &feature : k_features) {
    const lines_t lines = convert(feature.startup, path);
    EXPECT_EQ("was_running_compulsory_conditional: ENTER with path: " + std::string(254, 'p') +
                  ", " + feature.decided + " and from_ver: 4.1(5)\n",
              lines.at(1));
    EXPECT_EQ(0u, status);
    convert(feature.running_fs, path);
    EXPECT_EQ(0u, status);
  }
  EXPECT_EQ(lines_t(), requests());
}

// ---- Both

TEST_F(feature_converter_test, the_same_release_opens_nothing) {
  for (const feature_row &feature : k_features) {
    for (const auto &[converter, name] : {std::pair(feature.running_fs, feature.running_fs_name),
                                          std::pair(feature.startup, feature.startup_name)}) {
      enable(feature, "/cfg");
      enable(feature, "/cfg/bin");
      EXPECT_EQ(lines_t({name + ": path = /cfg, pkg_name = system, to_ver = 4.2(1a), from_ver = "
                                "4.2(1)\n"}),
                convert(converter, "/cfg", "4.2(1a)", "4.2(1)"));
      EXPECT_EQ(0u, status);
      EXPECT_EQ(1u, convert(converter, "/cfg", "4.1(5)", "4.1(5)").size());
      EXPECT_EQ(0u, status);
      EXPECT_EQ(1u,
                convert(converter, "/cfg/vdc_x", "4.1(5)", "4.1(5)").size()); // nor is it parsed
      EXPECT_EQ(0u, status);
      EXPECT_TRUE(platform.calls().empty());
    }
  }
}

TEST_F(feature_converter_test, what_the_releases_decide) {
  const struct {
    const char *to;
    const char *from;
    bool looks; // at the feature's store
    bool moves;
  } rows[] = {
      {"4.2(1)", "4.1(5)", true, true},   {"5.0(2)", "4.2(0)", true, true},
      {"4.2(0)", "4.1(5)", true, false},  {"4.1(5)", "4.1(2)", true, false},
      {"4.1(2)", "4.1(5)", true, false},  {"4.1(5)", "4.2(1)", false, false},
      {"4.2(2)", "4.2(1)", false, false}, {"4.1(5)", "5.0(2)", false, false},
  };
  for (const feature_row &feature : k_features) {
    for (const auto &row : rows) {
      for (const converter_t converter : {feature.running_fs, feature.startup}) {
        set_up();
        enable(feature, "/cfg");
        enable(feature, "/cfg/bin");
        EXPECT_NE(std::string::npos,
                  convert(converter, "/cfg", row.to, row.from).back().find("SUCCESS"));
        EXPECT_EQ(0u, status);
        EXPECT_EQ(row.moves, requests().size() == 1) << row.to << " " << row.from;
        EXPECT_EQ(row.looks, platform.calls("pss_fetch").size() == 1) << row.to << " " << row.from;
      }
    }
  }
}

TEST_F(feature_converter_test, a_feature_that_was_not_enabled_changes_nothing) {
  for (const feature_row &feature : k_features) {
    set_up();
    platform.set_store("nonvolatile:/cfg/bin/sysmgr_config");
    for (const auto &[converter, name] : {std::pair(feature.running_fs, feature.running_fs_name),
                                          std::pair(feature.startup, feature.startup_name)}) {
      EXPECT_EQ(name + ": Return status SUCCESS\n", convert(converter, "/cfg").back());
      EXPECT_EQ(0u, status);
    }
    EXPECT_TRUE(requests().empty());
    EXPECT_TRUE(platform.calls("sysmgr_srv_tag_info_add").empty());
    EXPECT_TRUE(platform.records("nonvolatile:/cfg/bin/sysmgr_config").empty());
  }
}

TEST_F(feature_converter_test, any_null_argument_fails) {
  for (const feature_row &feature : k_features) {
    for (int null = 0; null < 4; ++null) {
      const char *given[] = {"/cfg", "system", "4.2(1)", "4.1(5)"};
      given[null] = nullptr;
      const char *shown[] = {"/cfg", "system", "4.2(1)", "4.1(5)"};
      shown[null] = "(null)";
      const std::string tail = std::string(": path = ") + shown[0] + ", pkg_name = " + shown[1] +
                               ", to_ver = " + shown[2] + ", from_ver = " + shown[3] + "\n";
      EXPECT_EQ(lines_t({feature.running_fs_name + tail, feature.null_running_fs}), traced([&] {
                  status = feature.running_fs(given[0], given[1], given[2], given[3]);
                }));
      EXPECT_EQ(0x401E00A3u, status);
      EXPECT_EQ(lines_t({feature.startup_name + tail, feature.null_startup}),
                traced([&] { status = feature.startup(given[0], given[1], given[2], given[3]); }));
      EXPECT_EQ(0x401E00A3u, status);
    }
  }
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(feature_converter_test, every_failing_call_of_a_startup_conversion) {
  // The flag: open, fetch, close. The table: open, fetch, prepare, add, store, close. The request:
  // send, token, receive, payload, two drops. A flag that cannot be read is a feature that was not
  // enabled; mts functions fail with EIO.
  const syserr_t failed = 0x4048000B;
  const struct {
    syserr_t status;
    size_t calls;
  } rows[] = {{0, 1},      {0, 3},           {0, 15},          {0, 10}, {failed, 6},
              {failed, 7}, {failed, 8},      {failed, 9},      {0, 15}, {0x801E0005, 10},
              {0, 15},     {0x801E0005, 13}, {0x801E0047, 15}, {0, 15}, {0, 15}};
  for (const feature_row &feature : k_features) {
    unsigned nth = 0;
    for (const auto &row : rows) {
      set_up();
      platform.set_store("nonvolatile:/cfg/bin/sysmgr_config");
      enable(feature, "/cfg/bin");
      platform.fail_any(++nth, failed);
      convert(feature.startup, "/cfg");
      EXPECT_EQ(row.status, status) << feature.startup_name << ", call " << nth;
      EXPECT_EQ(row.calls, platform.calls().size()) << feature.startup_name << ", call " << nth;
      EXPECT_EQ(1u, platform.scripted());
      EXPECT_TRUE(platform.open_handles().empty());
    }
  }
}

// ---- Through the tables

TEST_F(feature_converter_test, the_entry_points_reach_the_registered_ones) {
  datamorph_args_t args = {"/cfg", "system", "4.2(1)", "4.1(5)"};
  convert_ret_value_t result = {};
  for (const feature_row &feature : k_features) {
    enable(feature, "/cfg");
    enable(feature, "/cfg/bin");
  }
  for (const uuid_t uuid : {SRVUUID_KPS, SRVUUID_DOT1X}) {
    platform.clear();
    traced([&] { EXPECT_EQ(0u, datamorph_running_fs_upg(uuid, &result, &args)); });
    traced([&] { EXPECT_EQ(0u, datamorph_startup(uuid, &result, &args)); });
    EXPECT_EQ(2u, requests().size());
  }
  platform.clear();
  EXPECT_EQ(lines_t(), traced([&] {
              EXPECT_EQ(0u, datamorph_running_fs_upg(SRVUUID_ETH_PORT_SEC, &result, &args));
              EXPECT_EQ(0u, datamorph_startup(SRVUUID_ETH_PORT_SEC, &result, &args));
            }));
  EXPECT_TRUE(platform.calls().empty());

  platform.reply(bytes("40 48 00 0c"));
  EXPECT_EQ("datamorph_running_fs_upg: err convert function for uuid = 0x17d\n",
            traced([&] {
              EXPECT_EQ(0x4048000Cu, datamorph_running_fs_upg(SRVUUID_DOT1X, &result, &args));
            }).back());
  EXPECT_EQ(381u, result.uuid);
  EXPECT_EQ(0x4048000Cu, result.syserr);
}

} // namespace
