// Entry points, dispatch tables, membership queries, store locations.

#include "libdatamorph_private.h"

#include <climits>
#include <cstdlib>
#include <iterator>

#include "support/library_fixture.h"

// Linked with --wrap: what the tables' IKE rows call, so that an entry point's own row can fail.
extern "C" syserr_t __real_ike_data_morph_gsync(const char *, const char *, const char *,
                                                const char *);
extern "C" syserr_t __real_ike_data_morph_startup(const char *, const char *, const char *,
                                                  const char *);

namespace {

const mts_q_handle_t g_queue_at_start = datamorph_mts_q;

std::vector<std::string> g_ike_calls;
syserr_t g_ike_status = 0;

// What the rows of a test's own table were called with, and what they answer.
std::vector<std::string> g_row_calls;
syserr_t g_first_status = 0;
syserr_t g_second_status = 0;

std::string text(const char *value) {
  return value != nullptr ? value : "(null)";
}

syserr_t note(const std::string &row, const char *path, const char *pkg_name, const char *to_ver,
              const char *from_ver, syserr_t status) {
  g_row_calls.push_back(row + " " + text(path) + " " + text(pkg_name) + " " + text(to_ver) + " " +
                        text(from_ver));
  return status;
}

syserr_t first_row(const char *path, const char *pkg_name, const char *to_ver,
                   const char *from_ver) {
  return note("first", path, pkg_name, to_ver, from_ver, g_first_status);
}

syserr_t other_row(const char *path, const char *pkg_name, const char *to_ver,
                   const char *from_ver) {
  return note("other", path, pkg_name, to_ver, from_ver, 0);
}

syserr_t second_row(const char *path, const char *pkg_name, const char *to_ver,
                    const char *from_ver) {
  return note("second", path, pkg_name, to_ver, from_ver, g_second_status);
}

// A nested table: two rows of one service around one of another.
template <typename row_t>
constexpr row_t k_nested[] = {
    {11, first_row}, {68, other_row}, {11, second_row}, {SRVUUID_NONE, nullptr}};
template <typename row_t> constexpr row_t k_empty[] = {{SRVUUID_NONE, nullptr}};

syserr_t nested_running_fs_upg(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return datamorph_walk_service("datamorph_running_fs_upg", k_nested<data_morph_running_fs_upg>,
                                uuid, a, args, datamorph_failure::traced);
}

} // namespace

extern "C" syserr_t __wrap_ike_data_morph_gsync(const char *path, const char *pkg_name,
                                                const char *to_ver, const char *from_ver) {
  g_ike_calls.push_back("gsync " + text(path) + " " + text(pkg_name) + " " + text(to_ver) + " " +
                        text(from_ver));
  const syserr_t status = __real_ike_data_morph_gsync(path, pkg_name, to_ver, from_ver);
  return g_ike_status != 0 ? g_ike_status : status;
}

extern "C" syserr_t __wrap_ike_data_morph_startup(const char *path, const char *pkg_name,
                                                  const char *to_ver, const char *from_ver) {
  g_ike_calls.push_back("startup " + text(path) + " " + text(pkg_name) + " " + text(to_ver) + " " +
                        text(from_ver));
  const syserr_t status = __real_ike_data_morph_startup(path, pkg_name, to_ver, from_ver);
  return g_ike_status != 0 ? g_ike_status : status;
}

namespace {

class main_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    g_row_calls.clear();
    g_ike_calls.clear();
    g_ike_status = 0;
    g_first_status = 0;
    g_second_status = 0;
    platform.set_image("/images/to", "4.2(1)");
    setenv("SYSMGR_TO_SRG_PATH", "/images/to", 1);
  }

  datamorph_args_t args = {"/cfg/0", "system", "4.2(1)", "4.1(5)"};
  syserr_t status = 0xdead;
  convert_ret_value_t result = {1, 2};
};

template <typename row_t>
std::vector<std::pair<uint32, decltype(row_t::fn)>> rows(const row_t *table) {
  std::vector<std::pair<uint32, decltype(row_t::fn)>> found;
  for (; table->uuid != 0; ++table) {
    found.emplace_back(table->uuid, table->fn);
  }
  EXPECT_EQ(nullptr, table->fn);
  return found;
}

// ---- Tables

TEST_F(main_test, there_is_no_queue_before_the_initialization) {
  EXPECT_EQ(0, g_queue_at_start);
}

TEST_F(main_test, gsync_table) {
  const decltype(rows(data_morph_gsync_table)) expected = {
      {390, psshlpr_data_morph_gsync},   {219, ike_data_morph_gsync},
      {501, cond_srv1_data_morph_gsync}, {307, pixm_data_morph_gsync},
      {306, ethpm_data_morph_gsync},
  };
  EXPECT_EQ(expected, rows(data_morph_gsync_table));
}

TEST_F(main_test, startup_table) {
  const decltype(rows(data_morph_startup_table)) expected = {
      {219, ike_data_morph_startup},
      {542, kps_data_morph_startup},
      {381, dot1x_data_morph_startup},
      {306, ethpm_data_morph_startup},
      {11, vrrp_mgr_data_morph_startup_for_upgrade},
      {68, vrrp_eng_data_morph_startup_for_upgrade},
      {68, vrrp_eng_data_morph_startup_for_downgrade},
      {11, vrrp_mgr_data_morph_startup_for_downgrade},
  };
  EXPECT_EQ(expected, rows(data_morph_startup_table));
}

TEST_F(main_test, running_fs_upg_table) {
  const decltype(rows(data_morph_running_fs_upg_table)) expected = {
      {297, sksd_data_morph_running_fs_upg}, {327, plugin_data_morph_running_fs_upg},
      {411, evms_data_morph_running_fs_upg}, {413, evmc_data_morph_running_fs_upg},
      {564, mvsh_data_morph_running_fs_upg}, {260, smm_data_morph_running_fs_upg},
      {261, clis_data_morph_running_fs_upg}, {166, epp_in_npv_mode_data_morph_running_fs_upg},
      {542, kps_data_morph_running_fs_upg},  {381, dot1x_data_morph_running_fs_upg},
  };
  EXPECT_EQ(expected, rows(data_morph_running_fs_upg_table));
}

TEST_F(main_test, psshlpr_upg_table) {
  const decltype(rows(data_morph_psshlpr_upg_table)) expected = {{380, svi_data_morph_psshlpr_upg}};
  EXPECT_EQ(expected, rows(data_morph_psshlpr_upg_table));
}

TEST_F(main_test, unregistered_routines_stand_in_no_table) {
  for (const auto &row : rows(data_morph_running_fs_upg_table)) {
    EXPECT_NE(ike_data_morph_running_fs_upg, row.second);
    EXPECT_NE(cond_srv1_data_morph_running_fs_upg, row.second);
    EXPECT_NE(psec_data_morph_running_fs_upg, row.second);
  }
  for (const auto &row : rows(data_morph_startup_table)) {
    EXPECT_NE(psec_data_morph_startup, row.second);
  }
}

// ---- Initialisation

TEST_F(main_test, init_keeps_the_queue_and_the_last_value_wins) {
  EXPECT_EQ(lines_t({"libdatamorph_init: datamorph_mts_q = 7\n"}),
            traced([] { libdatamorph_init(7); }));
  EXPECT_EQ(7u, datamorph_mts_q);
  EXPECT_EQ(lines_t({"libdatamorph_init: datamorph_mts_q = -2\n"}),
            traced([] { libdatamorph_init(0xfffffffe); }));
  EXPECT_EQ(0xfffffffeu, datamorph_mts_q);
  traced([] { libdatamorph_init(0); });
  EXPECT_EQ(0u, datamorph_mts_q);
  EXPECT_TRUE(platform.calls().empty());
}

// ---- One service

TEST_F(main_test, gsync_calls_the_routine_of_the_service) {
  const lines_t lines = traced([this] { status = datamorph_gsync(SRVUUID_IKE, &result, &args); });
  EXPECT_EQ(lines_t({"datamorph_gsync: calling convert function for uuid = 0xdb\n",
                     "Returning Success\n"}),
            lines);
  EXPECT_EQ(0u, status);
  EXPECT_EQ(1u, result.uuid); // untouched
  EXPECT_EQ(2u, result.syserr);
}

TEST_F(main_test, startup_calls_the_routine_of_the_service) {
  const lines_t lines = traced([this] { status = datamorph_startup(SRVUUID_IKE, &result, &args); });
  EXPECT_EQ(lines_t({"datamorph_startup: calling convert function for uuid = 0xdb\n",
                     "Returning Success\n"}),
            lines);
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, running_fs_upg_calls_the_routine_of_the_service) {
  const lines_t lines =
      traced([this] { status = datamorph_running_fs_upg(SRVUUID_SKSD, &result, &args); });
  EXPECT_EQ(lines_t({"datamorph_running_fs_upg: calling convert function for uuid = 0x129\n",
                     "SKSD service in function(sksd_data_morph_running_fs_upg) Args: path = "
                     "/cfg/0,pkg_name = system, to_ver = 4.2(1), from_ver = 4.1(5)\n"}),
            lines);
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, a_service_without_a_row_yields_0_and_no_trace) {
  for (const uuid_t uuid : {SRVUUID_NONE, SRVUUID_SVI, static_cast<uuid_t>(0xffffffff)}) {
    EXPECT_EQ(lines_t(), traced([&] { status = datamorph_gsync(uuid, &result, &args); }));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(lines_t(), traced([&] { status = datamorph_startup(uuid, &result, &args); }));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(lines_t(), traced([&] { status = datamorph_running_fs_upg(uuid, &result, &args); }));
    EXPECT_EQ(0u, status);
  }
  EXPECT_EQ(1u, result.uuid);
}

TEST_F(main_test, every_row_of_the_service_is_called_in_table_order) {
  const lines_t lines = traced([this] {
    status = datamorph_walk_service("datamorph_startup", k_nested<data_morph_startup>,
                                    SRVUUID_VRRP_MGR, &result, &args, datamorph_failure::silent);
  });
  EXPECT_EQ(lines_t({"datamorph_startup: calling convert function for uuid = 0xb\n",
                     "datamorph_startup: calling convert function for uuid = 0xb\n"}),
            lines);
  EXPECT_EQ(lines_t({"first /cfg/0 system 4.2(1) 4.1(5)", "second /cfg/0 system 4.2(1) 4.1(5)"}),
            g_row_calls);
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, a_failure_with_a_result_record_stops_and_fills_it) {
  g_first_status = 0x401E0076;
  const lines_t lines = traced([this] {
    status = datamorph_walk_service("datamorph_startup", k_nested<data_morph_startup>,
                                    SRVUUID_VRRP_MGR, &result, &args, datamorph_failure::silent);
  });
  EXPECT_EQ(lines_t({"datamorph_startup: calling convert function for uuid = 0xb\n"}), lines);
  EXPECT_EQ(1u, g_row_calls.size());
  EXPECT_EQ(0x401E0076u, status);
  EXPECT_EQ(11u, result.uuid);
  EXPECT_EQ(0x401E0076u, result.syserr);
}

TEST_F(main_test, failure_without_result_record_is_dropped) {
  g_first_status = 5;
  g_second_status = 6;
  const lines_t lines = traced([this] {
    status = datamorph_walk_service("datamorph_startup", k_nested<data_morph_startup>,
                                    SRVUUID_VRRP_MGR, nullptr, &args, datamorph_failure::silent);
  });
  EXPECT_EQ(lines_t({"datamorph_startup: calling convert function for uuid = 0xb\n",
                     "datamorph_startup: calling convert function for uuid = 0xb\n"}),
            lines);
  EXPECT_EQ(2u, g_row_calls.size());
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, the_running_fs_entry_point_traces_each_failure) {
  const datamorph_args_t none = {};
  datamorph_args_t nulls = none;
  lines_t lines = traced([&] { status = datamorph_running_fs_upg(SRVUUID_CLIS, &result, &nulls); });
  EXPECT_EQ(lines_t({"datamorph_running_fs_upg: calling convert function for uuid = 0x105\n",
                     "CLIS service: NULL arguments in (clis_data_morph_running_fs_upg)\n",
                     "datamorph_running_fs_upg: err convert function for uuid = 0x105\n"}),
            lines);
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_EQ(261u, result.uuid);
  EXPECT_EQ(0xFFFFFFFFu, result.syserr);

  lines = traced([&] { status = datamorph_running_fs_upg(SRVUUID_CLIS, nullptr, &nulls); });
  EXPECT_EQ(3u, lines.size());
  EXPECT_EQ("datamorph_running_fs_upg: err convert function for uuid = 0x105\n", lines.back());
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, the_running_fs_walk_goes_on_without_a_result_record) {
  g_first_status = 1;
  const lines_t lines =
      traced([this] { status = nested_running_fs_upg(SRVUUID_VRRP_MGR, nullptr, &args); });
  EXPECT_EQ(lines_t({"datamorph_running_fs_upg: calling convert function for uuid = 0xb\n",
                     "datamorph_running_fs_upg: err convert function for uuid = 0xb\n",
                     "datamorph_running_fs_upg: calling convert function for uuid = 0xb\n"}),
            lines);
  EXPECT_EQ(2u, g_row_calls.size());
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, null_args_stand_for_four_nulls) {
  traced([this] {
    status = datamorph_walk_service("datamorph_gsync", k_nested<data_morph_gsync>, SRVUUID_VRRP_ENG,
                                    &result, nullptr, datamorph_failure::silent);
  });
  EXPECT_EQ(lines_t({"other (null) (null) (null) (null)"}), g_row_calls);

  traced([this] { status = datamorph_running_fs_upg(SRVUUID_EVMS, &result, nullptr); });
  EXPECT_EQ(0xFFFFFFFFu, status);
  traced([this] { status = datamorph_gsync(SRVUUID_PSS_HELPER, &result, nullptr); });
  EXPECT_EQ(0u, status);
  traced([this] { status = datamorph_startup(SRVUUID_IKE, nullptr, nullptr); });
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, an_empty_table_yields_0) {
  const lines_t lines = traced([this] {
    EXPECT_EQ(0u, datamorph_walk_service("x", k_empty<data_morph_gsync>, SRVUUID_IKE, &result,
                                         &args, datamorph_failure::traced));
    EXPECT_EQ(0u, datamorph_walk_service("x", k_empty<data_morph_gsync>, SRVUUID_NONE, &result,
                                         &args, datamorph_failure::traced));
    EXPECT_EQ(0u, datamorph_walk_startup_all("x", k_empty<data_morph_startup>, &args));
    EXPECT_EQ(0u, datamorph_walk_running_fs_upg_all("x", k_empty<data_morph_running_fs_upg>,
                                                    nested_running_fs_upg, &args));
    datamorph_walk_psshlpr("x", k_empty<data_morph_psshlpr_upg>, &args);
  });
  EXPECT_EQ(lines_t(), lines);
}

// ---- Whole tables

TEST_F(main_test, startup_all_walks_the_table) {
  args.from_pkg_version = args.to_pkg_version;
  const lines_t lines = traced([this] { status = datamorph_startup_all(&args); });
  EXPECT_EQ(
      lines_t({"datamorph_startup_all: calling convert function for uuid = 0xdb\n",
               "Returning Success\n",
               "datamorph_startup_all: calling convert function for uuid = 0x21e\n",
               "kps_data_morph_startup: path = /cfg/0, pkg_name = system, to_ver = 4.2(1), "
               "from_ver = 4.2(1)\n",
               "datamorph_startup_all: calling convert function for uuid = 0x17d\n",
               "dot1x_data_morph_startup: path = /cfg/0, pkg_name = system, to_ver = 4.2(1), "
               "from_ver = 4.2(1)\n",
               "datamorph_startup_all: calling convert function for uuid = 0x132\n",
               "Ethpm - Path - /cfg/0 \n",
               "Ethpm pss uri: nonvolatile:/cfg/0/bin/ethpm_saved_config\n",
               "pss uri: nonvolatile:/cfg/0/bin/ethpm_saved_config does not exist 0x40480002\n",
               "datamorph_startup_all: calling convert function for uuid = 0xb\n",
               "datamorph_startup_all: calling convert function for uuid = 0x44\n",
               "datamorph_startup_all: calling convert function for uuid = 0x44\n",
               "datamorph_startup_all: calling convert function for uuid = 0xb\n"}),
      lines);
  EXPECT_EQ(0u, status);
  EXPECT_EQ(lines_t({"pss2_open(\"nonvolatile:/cfg/0/bin/ethpm_saved_config\", 0x3, 0, 0, 0)"}),
            platform.calls());
}

TEST_F(main_test, startup_all_without_arguments_passes_ike_and_stops_at_kps) {
  const lines_t lines = traced([this] { status = datamorph_startup_all(nullptr); });
  EXPECT_EQ(lines_t({"datamorph_startup_all: calling convert function for uuid = 0xdb\n",
                     "Returning Success\n",
                     "datamorph_startup_all: calling convert function for uuid = 0x21e\n",
                     "kps_data_morph_startup: path = (null), pkg_name = (null), to_ver = (null), "
                     "from_ver = (null)\n",
                     "kps service: NULL arguments in (kps_data_morph_startup)\n",
                     "datamorph_startup_all: convert function # 1 for uuid = 0x21e returned error "
                     "0x401e00a3\n"}),
            lines);
  EXPECT_EQ(0x401E00A3u, status);
}

TEST_F(main_test, startup_all_stops_at_the_first_failure_and_counts_rows_from_0) {
  g_first_status = 0x1234abcd;
  lines_t lines = traced([this] {
    status =
        datamorph_walk_startup_all("datamorph_startup_all", k_nested<data_morph_startup>, &args);
  });
  EXPECT_EQ(lines_t({"datamorph_startup_all: calling convert function for uuid = 0xb\n",
                     "datamorph_startup_all: convert function # 0 for uuid = 0xb returned error "
                     "0x1234abcd\n"}),
            lines);
  EXPECT_EQ(0x1234abcdu, status);
  EXPECT_EQ(1u, g_row_calls.size());

  g_first_status = 0;
  g_second_status = 9;
  lines = traced([this] {
    status =
        datamorph_walk_startup_all("datamorph_startup_all", k_nested<data_morph_startup>, &args);
  });
  EXPECT_EQ(lines_t({"datamorph_startup_all: calling convert function for uuid = 0xb\n",
                     "datamorph_startup_all: calling convert function for uuid = 0x44\n",
                     "datamorph_startup_all: calling convert function for uuid = 0xb\n",
                     "datamorph_startup_all: convert function # 2 for uuid = 0xb returned error "
                     "0x9\n"}),
            lines);
  EXPECT_EQ(9u, status);
}

TEST_F(main_test, running_fs_upg_all_traces_each_routine_under_both_names) {
  const lines_t lines = traced([this] { status = datamorph_running_fs_upg_all(&args); });
  const uint32 order[] = {297, 327, 411, 413, 564, 260, 261, 166, 542, 381};
  const char *const numbers[] = {"0x129", "0x147", "0x19b", "0x19d", "0x234",
                                 "0x104", "0x105", "0xa6",  "0x21e", "0x17d"};
  lines_t calls;
  for (const std::string &line : lines) {
    if (line.find("calling convert function") != std::string::npos) {
      calls.push_back(line);
    }
  }
  ASSERT_EQ(2 * std::size(order), calls.size());
  for (size_t i = 0; i < std::size(order); ++i) {
    EXPECT_EQ(std::string("datamorph_running_fs_upg_all: calling convert function for uuid = ") +
                  numbers[i] + "\n",
              calls[2 * i]);
    EXPECT_EQ(std::string("datamorph_running_fs_upg: calling convert function for uuid = ") +
                  numbers[i] + "\n",
              calls[2 * i + 1]);
  }
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, running_fs_upg_all_stops_at_the_first_failure) {
  datamorph_args_t nulls = {};
  const lines_t lines = traced([&] { status = datamorph_running_fs_upg_all(&nulls); });
  EXPECT_EQ(
      lines_t({"datamorph_running_fs_upg_all: calling convert function for uuid = 0x129\n",
               "datamorph_running_fs_upg: calling convert function for uuid = 0x129\n",
               "SKSD service: NULL arguments in (sksd_data_morph_running_fs_upg)\n",
               "datamorph_running_fs_upg: err convert function for uuid = 0x129\n",
               "datamorph_running_fs_upg_all: convert function for uuid = 0x129 returned error "
               "0xffffffff\n"}),
      lines);
  EXPECT_EQ(0xFFFFFFFFu, status);
}

TEST_F(main_test, running_fs_upg_all_has_run_the_rows_before_the_failing_one) {
  g_second_status = 0x104;
  const lines_t lines = traced([this] {
    status = datamorph_walk_running_fs_upg_all("datamorph_running_fs_upg_all",
                                               k_nested<data_morph_running_fs_upg>,
                                               nested_running_fs_upg, &args);
  });
  // The inner call walks the whole table for the service, so the failing second row of service 11
  // is met under its first one.
  EXPECT_EQ(lines_t({"datamorph_running_fs_upg_all: calling convert function for uuid = 0xb\n",
                     "datamorph_running_fs_upg: calling convert function for uuid = 0xb\n",
                     "datamorph_running_fs_upg: calling convert function for uuid = 0xb\n",
                     "datamorph_running_fs_upg: err convert function for uuid = 0xb\n",
                     "datamorph_running_fs_upg_all: convert function for uuid = 0xb returned error "
                     "0x104\n"}),
            lines);
  EXPECT_EQ(0x104u, status);
}

// ---- PSS helper

TEST_F(main_test, psshlpr_gsync_message_has_no_line_end) {
  args.from_pkg_version = args.to_pkg_version; // nothing for its row to do
  lines_t lines = traced([this] {
    status = psshlpr_data_morph_gsync(args.path, args.pkg_name, args.to_pkg_version,
                                      args.from_pkg_version);
  });
  EXPECT_EQ(lines_t({"psshlpr_data_morph_gsync: calling psshlpr convert functions",
                     "psshlpr_data_morph_gsync: calling convert function for uuid = 0x17c\n",
                     "Verifying up/down grade versions\n",
                     "from_ver 4.2(1):from_comp 0, to_ver 4.2(1):to_comp 0\n",
                     "No issu conversion reqd from 4.2(1) to 4.2(1)\n"}),
            lines);
  EXPECT_EQ(0u, status);
  lines = traced([this] { status = psshlpr_data_morph_gsync(nullptr, nullptr, nullptr, nullptr); });
  EXPECT_EQ(lines_t({"psshlpr_data_morph_gsync: calling psshlpr convert functions",
                     "psshlpr_data_morph_gsync: calling convert function for uuid = 0x17c\n",
                     "Invalid arguments\n",
                     "psshlpr_data_morph_gsync: err convert function for uuid = 0x17c\n"}),
            lines);
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, gsync_reaches_the_psshlpr_routine) {
  const lines_t lines =
      traced([this] { status = datamorph_gsync(SRVUUID_PSS_HELPER, &result, nullptr); });
  EXPECT_EQ(lines_t({"datamorph_gsync: calling convert function for uuid = 0x186\n",
                     "psshlpr_data_morph_gsync: calling psshlpr convert functions",
                     "psshlpr_data_morph_gsync: calling convert function for uuid = 0x17c\n",
                     "Invalid arguments\n",
                     "psshlpr_data_morph_gsync: err convert function for uuid = 0x17c\n"}),
            lines);
  EXPECT_EQ(0u, status);
}

TEST_F(main_test, psshlpr_walk_runs_every_row_whatever_fails) {
  g_first_status = 3;
  const lines_t lines = traced([this] {
    datamorph_walk_psshlpr("psshlpr_data_morph_gsync", k_nested<data_morph_psshlpr_upg>, &args);
  });
  EXPECT_EQ(lines_t({"psshlpr_data_morph_gsync: calling convert function for uuid = 0xb\n",
                     "psshlpr_data_morph_gsync: err convert function for uuid = 0xb\n",
                     "psshlpr_data_morph_gsync: calling convert function for uuid = 0x44\n",
                     "psshlpr_data_morph_gsync: calling convert function for uuid = 0xb\n"}),
            lines);
  EXPECT_EQ(lines_t({"first /cfg/0 system 4.2(1) 4.1(5)", "other /cfg/0 system 4.2(1) 4.1(5)",
                     "second /cfg/0 system 4.2(1) 4.1(5)"}),
            g_row_calls);
}

// ---- Membership

TEST_F(main_test, membership_of_each_table) {
  struct {
    uint32 uuid;
    bool gsync;
    bool startup;
    bool running_fs_upg;
  } const expected[] = {
      {0, false, false, false},     {390, true, false, false},         {219, true, true, false},
      {297, false, false, true},    {327, false, false, true},         {411, false, false, true},
      {413, false, false, true},    {564, false, false, true},         {260, false, false, true},
      {261, false, false, true},    {166, false, false, true},         {380, false, false, false},
      {12345, false, false, false}, {0xffffffff, false, false, false},
  };
  for (const auto &row : expected) {
    const uuid_t uuid = static_cast<uuid_t>(row.uuid);
    EXPECT_EQ(row.gsync, is_uuid_in_convert_gsync_table(uuid)) << row.uuid;
    EXPECT_EQ(row.startup, is_uuid_in_convert_startup_table(uuid)) << row.uuid;
    EXPECT_EQ(row.running_fs_upg, is_uuid_in_convert_running_fs_upg_table(uuid)) << row.uuid;
  }
}

// ---- Where stores are

struct uri_row {
  const char *vdc;       // SYSMGR_VDC_ID; null: not set
  const char *directory; // SYSMGR_RUNNING_CFG_DIR; null: not set
  const char *traced;
  const char *uri;
};

TEST_F(main_test, uri_complete) {
  const uri_row rows[] = {
      {"1", "/run/cfg", "vdcid is 1 and conversion to decimal is 1", "/run/cfg"},
      {"2", "/run/cfg", "vdcid is 2 and conversion to decimal is 2", "/run/cfg/2"},
      {"01", "/run/cfg", "vdcid is 01 and conversion to decimal is 1", "/run/cfg"},
      {"1x", "/run/cfg", "vdcid is 1x and conversion to decimal is 1", "/run/cfg"},
      {"12345678", "/run/cfg", "vdcid is 12345678 and conversion to decimal is 123456",
       "/run/cfg/123456"},
      {"0000001", "/run/cfg", "vdcid is 0000001 and conversion to decimal is 0", "/run/cfg/000000"},
      {"123456", "/d", "vdcid is 123456 and conversion to decimal is 123456", "/d/123456"},
      {"-1", "/d", "vdcid is -1 and conversion to decimal is 0", "/d/-1"},
      {"+1", "/d", "vdcid is +1 and conversion to decimal is 0", "/d/+1"},
      {" 1", "/d", "vdcid is  1 and conversion to decimal is 0", "/d/ 1"},
      {"abc", "/d", "vdcid is abc and conversion to decimal is 0", "/d/abc"},
      {"", "/d", "vdcid is  and conversion to decimal is 0", "/d/"},
      {"1", "", "vdcid is 1 and conversion to decimal is 1", ""},
      {nullptr, "/d", "vdcid is (null) and conversion to decimal is 0", "/d/(null)"},
      {"1", nullptr, "vdcid is 1 and conversion to decimal is 1", "(null)"},
      {nullptr, nullptr, "vdcid is (null) and conversion to decimal is 0", "(null)/(null)"},
  };
  for (const uri_row &row : rows) {
    row.vdc != nullptr ? setenv("SYSMGR_VDC_ID", row.vdc, 1) : unsetenv("SYSMGR_VDC_ID");
    row.directory != nullptr ? setenv("SYSMGR_RUNNING_CFG_DIR", row.directory, 1)
                             : unsetenv("SYSMGR_RUNNING_CFG_DIR");
    const char *uri = nullptr;
    const lines_t lines = traced([&] { uri = datamorph_uri_complete(); });
    EXPECT_EQ(lines_t({std::string("datamorph_uri_complete: ") + row.traced + "\n"}), lines);
    EXPECT_STREQ(row.uri, uri);
  }
}

TEST_F(main_test, uri_complete_cuts_and_shares_its_buffer) {
  const std::string directory(4000, 'd');
  setenv("SYSMGR_RUNNING_CFG_DIR", directory.c_str(), 1);
  setenv("SYSMGR_VDC_ID", "1", 1);
  const char *first = nullptr;
  traced([&] { first = datamorph_uri_complete(); });
  EXPECT_EQ(std::string(254, 'd'), first);
  setenv("SYSMGR_VDC_ID", std::string(4000, '7').c_str(), 1);
  const char *second = nullptr;
  traced([&] { second = datamorph_uri_complete(); });
  EXPECT_EQ(first, second);
  EXPECT_EQ(std::string(254, 'd'), second);
  setenv("SYSMGR_RUNNING_CFG_DIR", std::string(250, 'd').c_str(), 1);
  traced([&] { second = datamorph_uri_complete(); });
  EXPECT_EQ(std::string(250, 'd') + "/777", second);
}

TEST_F(main_test, destroy_pss_gives_the_platforms_status) {
  platform.set_store("volatile:/cfg/0/a", {{"k", "v"}});
  platform.set_store("nonvolatile:/cfg/0/a", {{"k", "v"}});
  char path[] = "/cfg/0";
  char name[] = "a";
  EXPECT_EQ(lines_t(), traced([&] {
              EXPECT_EQ(0u, datamorph_destroy_volatile_pss(path, name));
              EXPECT_EQ(0x40480002u, datamorph_destroy_volatile_pss(path, name));
              EXPECT_EQ(0u, datamorph_destroy_nonvolatile_pss(path, name));
              platform.fail("pss2_destroy", 0x4048000C);
              EXPECT_EQ(0x4048000Cu, datamorph_destroy_nonvolatile_pss(path, name));
            }));
  EXPECT_EQ(
      lines_t({"pss2_destroy(\"volatile:/cfg/0/a\")", "pss2_destroy(\"volatile:/cfg/0/a\")",
               "pss2_destroy(\"nonvolatile:/cfg/0/a\")", "pss2_destroy(\"nonvolatile:/cfg/0/a\")"}),
      platform.calls());
}

TEST_F(main_test, destroy_pss_refuses_nulls_without_a_platform_call) {
  char path[] = "/cfg/0";
  EXPECT_EQ(0xFFFFFFFFu, datamorph_destroy_volatile_pss(nullptr, path));
  EXPECT_EQ(0xFFFFFFFFu, datamorph_destroy_volatile_pss(path, nullptr));
  EXPECT_EQ(0xFFFFFFFFu, datamorph_destroy_nonvolatile_pss(nullptr, path));
  EXPECT_EQ(0xFFFFFFFFu, datamorph_destroy_nonvolatile_pss(path, nullptr));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(main_test, destroy_pss_cuts_the_uri_at_255_characters) {
  std::string path(4000, 'p');
  std::string name(4000, 'n');
  datamorph_destroy_volatile_pss(path.data(), name.data());
  datamorph_destroy_nonvolatile_pss(path.data(), name.data());
  EXPECT_EQ(lines_t({"pss2_destroy(\"volatile:" + std::string(246, 'p') + "\")",
                     "pss2_destroy(\"nonvolatile:" + std::string(243, 'p') + "\")"}),
            platform.calls());
}

// ---- Bad input

TEST_F(main_test, over_long_and_non_version_strings_never_hurt) {
  std::string longest(4000, 'x');
  for (const char *odd : {"", "x", "()", "....", "999999999999999999999", "-1", "%s%n",
                          static_cast<const char *>(longest.c_str())}) {
    datamorph_args_t odd_args = {odd, odd, odd, odd};
    traced([&] {
      for (const data_morph_running_fs_upg *row = data_morph_running_fs_upg_table; row->uuid != 0;
           ++row) {
        EXPECT_EQ(0u, datamorph_running_fs_upg(static_cast<uuid_t>(row->uuid), &result, &odd_args));
      }
      EXPECT_EQ(0u, datamorph_running_fs_upg_all(&odd_args));
      EXPECT_EQ(0u, datamorph_startup_all(&odd_args));
      EXPECT_EQ(0u, datamorph_gsync(SRVUUID_PSS_HELPER, &result, &odd_args));
    });
  }
}

// ---- The entry points on their own tables

TEST_F(main_test, gsync_and_startup_report_a_failing_row_without_a_trace) {
  g_ike_status = 0x401E0076;
  EXPECT_EQ(lines_t({"datamorph_gsync: calling convert function for uuid = 0xdb\n",
                     "Returning Success\n"}),
            traced([this] { status = datamorph_gsync(SRVUUID_IKE, &result, &args); }));
  EXPECT_EQ(0x401E0076u, status);
  EXPECT_EQ(219u, result.uuid);
  EXPECT_EQ(0x401E0076u, result.syserr);
  result = {1, 2};
  EXPECT_EQ(lines_t({"datamorph_startup: calling convert function for uuid = 0xdb\n",
                     "Returning Success\n"}),
            traced([this] { status = datamorph_startup(SRVUUID_IKE, &result, &args); }));
  EXPECT_EQ(0x401E0076u, status);
  EXPECT_EQ(219u, result.uuid);
  EXPECT_EQ(0x401E0076u, result.syserr);
  traced([this] {
    EXPECT_EQ(0u, datamorph_gsync(SRVUUID_IKE, nullptr, &args));
    EXPECT_EQ(0u, datamorph_startup(SRVUUID_IKE, nullptr, &args));
  });
  EXPECT_EQ(lines_t({"gsync /cfg/0 system 4.2(1) 4.1(5)", "startup /cfg/0 system 4.2(1) 4.1(5)",
                     "gsync /cfg/0 system 4.2(1) 4.1(5)", "startup /cfg/0 system 4.2(1) 4.1(5)"}),
            g_ike_calls);
}

TEST_F(main_test, startup_all_failing_at_the_ike_row_reports_function_number_0) {
  g_ike_status = 7;
  EXPECT_EQ(lines_t({"datamorph_startup_all: calling convert function for uuid = 0xdb\n",
                     "Returning Success\n",
                     "datamorph_startup_all: convert function # 0 for uuid = 0xdb returned error "
                     "0x7\n"}),
            traced([this] { status = datamorph_startup_all(&args); }));
  EXPECT_EQ(7u, status);
  EXPECT_EQ(lines_t({"startup /cfg/0 system 4.2(1) 4.1(5)"}), g_ike_calls);
}

constexpr data_morph_running_fs_upg k_failing_smm[] = {
    {297, other_row}, {327, other_row}, {411, other_row},  {413, other_row},
    {564, other_row}, {260, first_row}, {261, second_row}, {0, nullptr}};

syserr_t failing_smm_running_fs_upg(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return datamorph_walk_service("datamorph_running_fs_upg", k_failing_smm, uuid, a, args,
                                datamorph_failure::traced);
}

TEST_F(main_test, running_fs_upg_all_names_the_failing_smm) {
  g_first_status = 0x40480009;
  const lines_t lines = traced([this] {
    status = datamorph_walk_running_fs_upg_all("datamorph_running_fs_upg_all", k_failing_smm,
                                               failing_smm_running_fs_upg, &args);
  });
  EXPECT_EQ(6u, g_row_calls.size()); // SKSD, PLUGIN, EVMS, EVMC, MVSH, SMM
  EXPECT_EQ("first /cfg/0 system 4.2(1) 4.1(5)", g_row_calls.back());
  EXPECT_EQ("datamorph_running_fs_upg_all: convert function for uuid = 0x104 returned error "
            "0x40480009\n",
            lines.back());
  EXPECT_EQ(0x40480009u, status);
}

} // namespace
