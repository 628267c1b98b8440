// The store-removing converters of the running-filesystem moment.

#include "libdatamorph_private.h"

#include <cerrno>
#include <cstdlib>

#include "support/library_fixture.h"

namespace {

using converter_t = decltype(&sksd_data_morph_running_fs_upg);

struct member {
  converter_t convert;
  const char *null_message;
  const char *args_message; // null: the member has none and reads the image's version
  std::vector<std::string> removals;
};

const member k_members[] = {
    {sksd_data_morph_running_fs_upg,
     "SKSD service: NULL arguments in (sksd_data_morph_running_fs_upg)\n",
     "SKSD service in function(sksd_data_morph_running_fs_upg) Args: path = /cfg/0,pkg_name = "
     "system, to_ver = 3.2(1), from_ver = 4.1(5)\n",
     {"mts_sap_destroy(7, 11)"}},
    {plugin_data_morph_running_fs_upg,
     "PLUGIN service: NULL arguments in (plugin_data_morph_running_fs_upg)\n",
     "PLUGIN service in function(plugin_data_morph_running_fs_upg) Args: path = /cfg/0,pkg_name = "
     "system, to_ver = 3.2(1), from_ver = 4.1(5)\n",
     {"mts_sap_destroy(7, 187)", "pss_destroy(\"volatile:/cfg/0/plugin_runtime_cfg\")",
      "pss_destroy(\"volatile:/cfg/0/plugin_runtime_info\")",
      "pss_destroy(\"volatile:/cfg/0/plugin_debug\")"}},
    {evms_data_morph_running_fs_upg,
     "EVMS service: NULL arguments in (evms_data_morph_running_fs_upg)\n",
     "EVMS service in function(evms_data_morph_running_fs_upg) Args: path = /cfg/0,pkg_name = "
     "system, to_ver = 3.2(1), from_ver = 4.1(5)\n",
     {"mts_sap_destroy(7, 341)", "pss_destroy(\"volatile:/cfg/0/evms_runtime_cfg\")",
      "pss_destroy(\"volatile:/cfg/0/evms_runtime_info\")"}},
    {evmc_data_morph_running_fs_upg,
     "EVMC service: NULL arguments in (evmc_data_morph_running_fs_upg)\n",
     "EVMC service in function(evmc_data_morph_running_fs_upg) Args: path = /cfg/0,pkg_name = "
     "system, to_ver = 3.2(1), from_ver = 4.1(5)\n",
     {"mts_sap_destroy(7, 342)", "mts_sap_destroy(7, 364)",
      "pss_destroy(\"volatile:/cfg/0/evmc_runtime_cfg\")",
      "pss_destroy(\"volatile:/cfg/0/evmc_runtime_info\")"}},
    {mvsh_data_morph_running_fs_upg,
     "MVSH service: NULL arguments in (mvsh_data_morph_running_fs_upg)\n",
     "MVSH service in function(mvsh_data_morph_running_fs_upg) Args: path = /cfg/0,pkg_name = "
     "system, to_ver = 3.2(1), from_ver = 4.1(5)\n",
     {"mts_sap_destroy(7, 422)", "mts_sap_destroy(7, 485)",
      "pss_destroy(\"volatile:/cfg/0/mvsh_runtime_cfg\")",
      "pss_destroy(\"volatile:/cfg/0/mvsh_runtime_info\")"}},
    {smm_data_morph_running_fs_upg,
     "SMM service: NULL arguments in (smm_data_morph_running_fs_upg)\n",
     nullptr,
     {"srg_sw_ver_file_get(\"/images/to\")", "pss_destroy(\"volatile:/dev/shm/smm_smm_data\")",
      "mts_sap_destroy(7, 245)"}},
    {clis_data_morph_running_fs_upg,
     "CLIS service: NULL arguments in (clis_data_morph_running_fs_upg)\n",
     nullptr,
     {"srg_sw_ver_file_get(\"/images/to\")", "pss_destroy(\"volatile:/cfg/0/clis_runtime_config\")",
      "pss_destroy(\"volatile:/cfg/0/clis_runtime_info\")", "mts_sap_destroy(7, 295)",
      "mts_sap_destroy(7, 296)", "mts_sap_destroy(7, 297)"}},
};

class removal_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    platform.add_queue(7);
    traced([] { libdatamorph_init(7); });
    setenv("SYSMGR_TO_SRG_PATH", "/images/to", 1);
    platform.set_image("/images/to", "3.2(1)");
    switch_root::reset();
    platform.clear();
  }

  syserr_t convert(const member &service, const char *to_ver) {
    return service.convert("/cfg/0", "system", to_ver, "4.1(5)");
  }
};

TEST_F(removal_test, args_message_of_each_member) {
  for (const member &service : k_members) {
    syserr_t status = 1;
    const lines_t lines = traced([&] { status = convert(service, "3.2(1)"); });
    EXPECT_EQ(service.args_message != nullptr ? lines_t({service.args_message}) : lines_t(), lines);
    EXPECT_EQ(0u, status);
  }
}

TEST_F(removal_test, each_member_removes_its_own_in_its_own_order) {
  for (const member &service : k_members) {
    platform.clear();
    traced([&] { EXPECT_EQ(0u, convert(service, "3.2(1)")); });
    EXPECT_EQ(service.removals, platform.calls()) << service.null_message;
  }
}

TEST_F(removal_test, what_is_removed_is_gone_and_nothing_else) {
  const std::vector<std::string> own = {
      "volatile:/cfg/0/clis_runtime_config", "volatile:/cfg/0/clis_runtime_info",
      "volatile:/cfg/0/evmc_runtime_cfg",    "volatile:/cfg/0/evmc_runtime_info",
      "volatile:/cfg/0/evms_runtime_cfg",    "volatile:/cfg/0/evms_runtime_info",
      "volatile:/cfg/0/mvsh_runtime_cfg",    "volatile:/cfg/0/mvsh_runtime_info",
      "volatile:/cfg/0/plugin_debug",        "volatile:/cfg/0/plugin_runtime_cfg",
      "volatile:/cfg/0/plugin_runtime_info", "volatile:/dev/shm/smm_smm_data"};
  for (const std::string &uri : own) {
    platform.set_store(uri, {{"key", "value"}});
  }
  platform.set_store("nonvolatile:/cfg/0/evms_runtime_cfg", {{"key", "value"}});
  platform.set_store("volatile:/cfg/0/other", {{"key", "value"}});
  for (const uint32 sap :
       {3u, 11u, 187u, 245u, 295u, 296u, 297u, 298u, 341u, 342u, 364u, 422u, 485u}) {
    platform.add_sap(sap);
  }
  traced([this] {
    for (const member &service : k_members) {
      EXPECT_EQ(0u, convert(service, "3.2(1)"));
    }
  });
  EXPECT_EQ(
      std::vector<std::string>({"nonvolatile:/cfg/0/evms_runtime_cfg", "volatile:/cfg/0/other"}),
      platform.store_uris());
  EXPECT_EQ(std::vector<uint32>({3, 298}), platform.saps());
}

TEST_F(removal_test, only_a_major_of_exactly_3_counts) {
  const char *const three[] = {"3", "3.2(1)", "3x", "03.0", "3(1)", "0000000000000003"};
  const char *const other[] = {"4.2(1)",
                               "30.1(1)",
                               "13.1",
                               "2.3(3)",
                               "",
                               "x3",
                               "-3",
                               "+3",
                               " 3",
                               ".3",
                               "(3)",
                               "0",
                               "0x3",
                               "4294967299.0(1)",
                               "00000000000000003"};
  for (const member &service : k_members) {
    const size_t reads = service.args_message == nullptr ? 1 : 0;
    for (const char *version : three) {
      platform.set_image("/images/to", version);
      platform.clear();
      traced([&] { EXPECT_EQ(0u, convert(service, version)); });
      EXPECT_EQ(service.removals, platform.calls()) << version;
    }
    for (const char *version : other) {
      platform.set_image("/images/to", version);
      platform.clear();
      traced([&] { EXPECT_EQ(0u, convert(service, version)); });
      EXPECT_EQ(reads, platform.calls().size()) << version;
    }
  }
}

TEST_F(removal_test, smm_and_clis_believe_the_image_not_the_argument) {
  for (const member &service : k_members) {
    if (service.args_message == nullptr) {
      platform.set_image("/images/to", "4.2(1)");
      platform.clear();
      traced([&] { EXPECT_EQ(0u, convert(service, "3.2(1)")); });
      EXPECT_EQ(lines_t({"srg_sw_ver_file_get(\"/images/to\")"}), platform.calls());

      platform.set_image("/images/to", "3.3(1)");
      platform.clear();
      traced([&] { EXPECT_EQ(0u, convert(service, "4.2(1)")); });
      EXPECT_EQ(service.removals, platform.calls());
    }
  }
}

TEST_F(removal_test, an_unreadable_image_version_removes_nothing) {
  struct {
    converter_t convert;
    const char *message;
  } const rows[] = {{smm_data_morph_running_fs_upg,
                     "smm_data_morph_running_fs_upg: datamorph_get_to_version returned -1 \n"},
                    {clis_data_morph_running_fs_upg,
                     "clis_data_morph_running_fs_upg: datamorph_get_to_version returned -1 \n"}};
  for (const auto &row : rows) {
    // no such variable
    unsetenv("SYSMGR_TO_SRG_PATH");
    platform.clear();
    EXPECT_EQ(lines_t({row.message}),
              traced([&] { EXPECT_EQ(0u, row.convert("/cfg/0", "p", "3.2(1)", "4.1(5)")); }));
    EXPECT_EQ(lines_t(), platform.calls());
    // no version text
    setenv("SYSMGR_TO_SRG_PATH", "/images/none", 1);
    EXPECT_EQ(lines_t({row.message}),
              traced([&] { EXPECT_EQ(0u, row.convert("/cfg/0", "p", "3.2(1)", "4.1(5)")); }));
    EXPECT_EQ(lines_t({"srg_sw_ver_file_get(\"/images/none\")"}), platform.calls());
  }
}

TEST_F(removal_test, an_image_version_longer_than_its_room) {
  platform.set_image("/images/to", "3." + std::string(4000, '1'));
  for (const member &service : k_members) {
    platform.clear();
    traced([&] { EXPECT_EQ(0u, convert(service, "3.2(1)")); });
    EXPECT_EQ(service.removals, platform.calls());
  }
}

TEST_F(removal_test, any_null_argument_fails_without_removing) {
  for (const member &service : k_members) {
    for (int null = 0; null < 4; ++null) {
      const char *arguments[] = {"/cfg/0", "system", "3.2(1)", "4.1(5)"};
      arguments[null] = nullptr;
      platform.clear();
      syserr_t status = 0;
      EXPECT_EQ(lines_t({service.null_message}), traced([&] {
                  status = service.convert(arguments[0], arguments[1], arguments[2], arguments[3]);
                }));
      EXPECT_EQ(0xFFFFFFFFu, status);
      EXPECT_EQ(lines_t(), platform.calls());
    }
  }
}

TEST_F(removal_test, every_failing_removal_is_ignored) {
  for (const member &service : k_members) {
    for (unsigned n = 1; n <= service.removals.size(); ++n) {
      const bool is_version = service.args_message == nullptr && n == 1;
      if (is_version) {
        continue; // told by an_unreadable_image_version_removes_nothing
      }
      platform.clear();
      platform.fail_any(n, 0x4048000B);
      traced([&] { EXPECT_EQ(0u, convert(service, "3.2(1)")); });
      EXPECT_EQ(service.removals, platform.calls());
    }
    platform.fail_from("pss_destroy", 0x40480009);
    platform.fail_from("mts_sap_destroy", EBADF);
    platform.clear();
    traced([&] { EXPECT_EQ(0u, convert(service, "3.2(1)")); });
    EXPECT_EQ(service.removals, platform.calls());
    platform.reset();
    platform.add_queue(7);
    platform.set_image("/images/to", "3.2(1)");
  }
}

TEST_F(removal_test, uris_are_cut_at_254_characters) {
  const std::string path(4000, 'p');
  traced([&] {
    EXPECT_EQ(0u, evms_data_morph_running_fs_upg(path.c_str(), "s", "3.2(1)", "4.1(5)"));
    EXPECT_EQ(0u, smm_data_morph_running_fs_upg(path.c_str(), "s", "3.2(1)", "4.1(5)"));
  });
  const std::string cut = "pss_destroy(\"volatile:" + std::string(245, 'p') + "\")";
  EXPECT_EQ(lines_t({cut, cut, "pss_destroy(\"volatile:/dev/shm/smm_smm_data\")"}),
            platform.calls("pss_destroy"));
}

TEST_F(removal_test, an_uninitialised_queue_is_passed_on) {
  traced([] { libdatamorph_init(0); });
  traced([] { EXPECT_EQ(0u, sksd_data_morph_running_fs_upg("/c", "s", "3", "4")); });
  EXPECT_EQ(lines_t({"mts_sap_destroy(0, 11)"}), platform.calls());
}

} // namespace
