// Conditional services: the small store of the first one, and the rule that makes a service
// optional.

#include "libdatamorph_private.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "support/library_fixture.h"
#include "support/trace_facility.h"

namespace {

constexpr char k_store[] = "volatile:/cfg/0/cond_srv_config";

class conditional_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    platform.set_image("/images/to", "4.2(1)");
    platform.set_image("/images/from", "4.1(5)");
    setenv("SYSMGR_TO_SRG_PATH", "/images/to", 1);
    setenv("SYSMGR_FROM_SRG_PATH", "/images/from", 1);
  }

  lines_t plant(const char *path = "/cfg/0") {
    return traced([&] { status = cond_srv1_data_morph_gsync(path, "system", "t", "f"); });
  }

  syserr_t status = 0xdead;
};

const char *const k_args =
    "cond_srv1_data_morph_gsync: path = /cfg/0, pkg_name = system, to_ver = t, from_ver = f\n";
const char *const k_versions =
    "cond_srv1_data_morph_gsync: from_srg_ver_str = 4.1(5), to_srg_ver_str = 4.2(1)\n";
const char *const k_start = "cond_srv1_data_morph_gsync: Start creating dummy pss "
                            "volatile:/cfg/0/cond_srv_config\n";

TEST_F(conditional_test, the_start_is_told_before_the_store_goes) {
  std::string last;
  platform.before("pss_destroy", [&last] { last = log_lines().back(); });
  plant();
  EXPECT_EQ(k_start, last);
}

TEST_F(conditional_test, the_store_is_planted) {
  EXPECT_EQ(lines_t({k_args, k_versions, k_start,
                     "cond_srv1_data_morph_gsync: Done creating dummy pss "
                     "volatile:/cfg/0/cond_srv_config\n"}),
            plant());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(platform_double::records_t({{bytes("0f 00 00 00"), bytes("01 00 00 00")}}),
            platform.records(k_store));
  EXPECT_EQ(lines_t({"srg_sw_ver_file_get(\"/images/from\")", "srg_sw_ver_file_get(\"/images/to\")",
                     "pss_destroy(\"volatile:/cfg/0/cond_srv_config\")",
                     "pss_create(\"volatile:/cfg/0/cond_srv_config\")",
                     "pss_open(\"volatile:/cfg/0/cond_srv_config\")",
                     "pss_store(1, 1, 0f000000, 01000000)", "pss_close(1)"}),
            platform.calls());
}

TEST_F(conditional_test, twice_leaves_one_store_with_one_record) {
  plant();
  platform.put(k_store, "other", "record");
  plant();
  EXPECT_EQ(0u, status);
  EXPECT_EQ(std::vector<std::string>({k_store}), platform.store_uris());
  EXPECT_EQ(platform_double::records_t({{bytes("0f 00 00 00"), bytes("01 00 00 00")}}),
            platform.records(k_store));
}

TEST_F(conditional_test, an_unreadable_version_plants_nothing) {
  const lines_t from_lines = {
      k_args, "cond_srv1_data_morph_gsync: datamorph_get_from_version returned -1 \n"};
  const lines_t to_lines = {k_args,
                            "cond_srv1_data_morph_gsync: datamorph_get_to_version returned -1 \n"};
  unsetenv("SYSMGR_FROM_SRG_PATH");
  EXPECT_EQ(from_lines, plant());
  EXPECT_EQ(0x401E0056u, status);
  setenv("SYSMGR_FROM_SRG_PATH", "/images/none", 1);
  EXPECT_EQ(from_lines, plant());
  EXPECT_EQ(0x401E0056u, status);
  setenv("SYSMGR_FROM_SRG_PATH", "/images/from", 1);
  unsetenv("SYSMGR_TO_SRG_PATH");
  EXPECT_EQ(to_lines, plant());
  EXPECT_EQ(0x401E0056u, status);
  setenv("SYSMGR_TO_SRG_PATH", "/images/none", 1);
  EXPECT_EQ(to_lines, plant());
  EXPECT_EQ(0x401E0056u, status);
  EXPECT_TRUE(platform.store_uris().empty());
  EXPECT_TRUE(platform.calls("pss_destroy").empty());
}

TEST_F(conditional_test, the_store_is_closed_before_it_is_told) {
  std::string last;
  platform.before("pss_close", [&last] { last = log_lines().back(); });
  plant();
  EXPECT_EQ(k_start, last);
}

TEST_F(conditional_test, versions_are_cut_at_254_characters_and_do_not_matter) {
  platform.set_image("/images/to", std::string(4000, '9'));
  platform.set_image("/images/from", "");
  const lines_t lines = plant();
  EXPECT_EQ("cond_srv1_data_morph_gsync: from_srg_ver_str = , to_srg_ver_str = " +
                std::string(254, '9') + "\n",
            lines.at(1));
  EXPECT_TRUE(platform.has_store(k_store));
  platform.set_image("/images/from", std::string(255, '8'));
  EXPECT_EQ("cond_srv1_data_morph_gsync: from_srg_ver_str = " + std::string(254, '8') +
                ", to_srg_ver_str = " + std::string(254, '9') + "\n",
            plant().at(1));
}

TEST_F(conditional_test, store_failures_are_success) {
  platform.fail("pss_create", 0x4048000C);
  EXPECT_EQ(lines_t({k_args, k_versions, k_start,
                     "cond_srv1_data_morph_gsync: Error in pss_create, ret_val = 0x4048000c\n"}),
            plant());
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(platform.calls("pss_open").empty());

  platform.fail("pss_open", 0x4048000A);
  EXPECT_EQ(lines_t({k_args, k_versions, k_start,
                     "cond_srv1_data_morph_gsync: Error in pss_open, ret_val = 0x4048000a\n"}),
            plant());
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(platform.calls("pss_store").empty());
  EXPECT_TRUE(platform.calls("pss_close").empty());

  for (const char *function : {"pss_destroy", "pss_store", "pss_close"}) {
    traced([] { pss_destroy(k_store); });
    platform.fail(function, 0x4048000B);
    EXPECT_EQ(4u, plant().size()) << function;
    EXPECT_EQ(0u, status);
    EXPECT_TRUE(platform.open_handles().empty());
  }
}

TEST_F(conditional_test, a_store_that_cannot_be_destroyed_cannot_be_made) {
  platform.set_store(k_store, {{"key", "value"}});
  platform.fail("pss_destroy", 0x4048000B);
  EXPECT_EQ("cond_srv1_data_morph_gsync: Error in pss_create, ret_val = 0x40480001\n",
            plant().back());
  EXPECT_EQ("value", platform.value(k_store, "key"));
}

TEST_F(conditional_test, a_long_path_is_not_cut) {
  const std::string path = "/" + std::string(4000, 'p');
  plant(path.c_str());
  EXPECT_EQ(lines_t({"pss_create(\"volatile:" + path + "/cond_srv_config\")"}),
            platform.calls("pss_create"));

  platform.clear();
  const std::string longest(PATH_MAX, 'p');
  plant(longest.c_str());
  EXPECT_EQ(lines_t({"pss_create(\"volatile:" + longest + "/cond_srv_config\")"}),
            platform.calls("pss_create"));

  platform.clear(); // more than any path: cut, not written beyond
  plant(std::string(9000, 'p').c_str());
  EXPECT_EQ(1u, platform.calls("pss_create").size());
  EXPECT_EQ(0u, status);
}

TEST_F(conditional_test, nulls) {
  EXPECT_EQ(
      lines_t({"cond_srv1_data_morph_gsync: path = (null), pkg_name = (null), to_ver = (null), "
               "from_ver = (null)\n"}),
      traced([this] { status = cond_srv1_data_morph_gsync(nullptr, nullptr, nullptr, nullptr); }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_TRUE(platform.calls().empty());
  traced([this] { status = cond_srv1_data_morph_gsync("/cfg/0", nullptr, nullptr, nullptr); });
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(platform.has_store(k_store));
}

TEST_F(conditional_test, the_gsync_row_plants_it) {
  datamorph_args_t args = {"/cfg/0", "system", "t", "f"};
  convert_ret_value_t result = {1, 2};
  traced([&] { status = datamorph_gsync(SRVUUID_AIC_DBG, &result, &args); });
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(platform.has_store(k_store));
  unsetenv("SYSMGR_FROM_SRG_PATH");
  traced([&] { status = datamorph_gsync(SRVUUID_AIC_DBG, &result, &args); });
  EXPECT_EQ(0x401E0056u, status);
  EXPECT_EQ(501u, result.uuid);
  EXPECT_EQ(0x401E0056u, result.syserr);
}

TEST_F(conditional_test, the_running_fs_routine_only_traces) {
  EXPECT_EQ(lines_t({"cond_srv1_data_morph_running_fs_upg: path = /cfg/0, pkg_name = system, "
                     "to_ver = t, from_ver = f\n"}),
            traced([this] {
              status = cond_srv1_data_morph_running_fs_upg("/cfg/0", "system", "t", "f");
            }));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(lines_t({"cond_srv1_data_morph_running_fs_upg: path = (null), pkg_name = (null), "
                     "to_ver = (null), from_ver = (null)\n"}),
            traced([this] {
              status = cond_srv1_data_morph_running_fs_upg(nullptr, nullptr, nullptr, nullptr);
            }));
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(platform.calls().empty());
}

// ---- Optional services

TEST_F(conditional_test, optional_from_4_2_1_on) {
  const struct {
    const char *to_ver;
    int optional;
    const char *line;
  } rows[] = {
      {"4.2(1)", 1, "<1> is_optional_conditional: ret_val 0\n"},
      {"4.2(1a)", 1, "<1> is_optional_conditional: ret_val 0\n"},
      {"4.2(2)", 1, "<1> is_optional_conditional: ret_val 1\n"},
      {"5.0(2)", 1, "<1> is_optional_conditional: ret_val 1\n"},
      {"4.2(0)", 0, "<1> is_optional_conditional: ret_val -1\n"},
      {"4.1(5)", 0, "<1> is_optional_conditional: ret_val -1\n"},
      {"", 0, "<1> is_optional_conditional: ret_val -1\n"},
  };
  for (const uuid_t uuid : {SRVUUID_KPS, SRVUUID_DOT1X, SRVUUID_ETH_PORT_SEC}) {
    for (const auto &row : rows) {
      const trace_facility facility(0xffffffff);
      int optional = -1;
      EXPECT_EQ(lines_t(), traced([&] { optional = is_optional_conditional(uuid, row.to_ver); }));
      EXPECT_EQ(row.optional, optional) << row.to_ver;
      EXPECT_EQ(lines_t({row.line}), facility.lines());
    }
  }
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(conditional_test, other_services_are_never_optional) {
  const trace_facility facility(0xffffffff);
  for (const uuid_t uuid : {SRVUUID_NONE, SRVUUID_VRRP_MGR, SRVUUID_SVI, SRVUUID_AIC_DBG}) {
    for (const char *version : {"4.2(1)", "5.0(2)", static_cast<const char *>(nullptr)}) {
      EXPECT_EQ(lines_t(), traced([&] { EXPECT_EQ(0, is_optional_conditional(uuid, version)); }));
    }
  }
  EXPECT_EQ(lines_t(), facility.lines());
}

TEST_F(conditional_test, optional_needs_a_release) {
  const trace_facility facility(0xffffffff);
  EXPECT_EQ(lines_t({"datamorph_compare_versions: Invalid or NULL argument passed\n",
                     "is_optional_conditional: datamorph_compare_versions returned -1\n"}),
            traced([] { EXPECT_EQ(0, is_optional_conditional(SRVUUID_KPS, nullptr)); }));
  EXPECT_EQ(lines_t(), facility.lines());
}

TEST_F(conditional_test, a_facility_that_cannot_be_written_changes_nothing) {
  FILE *full = fopen("/dev/full", "w");
  ASSERT_NE(nullptr, full);
  setvbuf(full, nullptr, _IONBF, 0); // every write of a line fails
  debug_trace_fac_SYSMGR = {full, 1};
  errno = ECONNREFUSED;
  const int optional = is_optional_conditional(SRVUUID_KPS, "4.2(1)");
  const int error = errno;
  debug_trace_fac_SYSMGR = {nullptr, 0};
  fclose(full);
  EXPECT_EQ(1, optional);
  EXPECT_EQ(ECONNREFUSED, error); // as the caller had it
}

TEST_F(conditional_test, the_facility_wants_the_debug_class) {
  const trace_facility facility(~1u);
  traced([] { EXPECT_EQ(1, is_optional_conditional(SRVUUID_KPS, "4.2(1)")); });
  EXPECT_EQ(lines_t(), facility.lines());
}

} // namespace
