// Global snapshot databases: the meta table and the snapshot files, SVI's database, the sample.

#include "libdatamorph.h"

#include <cstdlib>

#include "support/library_fixture.h"

namespace {

constexpr char k_meta_file[] = "/conv/globalpss_table.snp";

class psshlpr_test : public library_fixture {
protected:
  using records_t = platform_double::records_t;

  void SetUp() override {
    library_fixture::SetUp();
    switch_root::write_file("/conv/keep", ""); // the conversion directory
  }

  lines_t add(const char *uri, uint32 mcast = 0xFF00000C, uuid_t uuid = SRVUUID_SVI,
              uint32 vdc = 0) {
    return traced([&] { status = datamorph_gsdb_add("/conv", uri, mcast, uuid, vdc); });
  }
  lines_t remove(const char *uri) {
    return traced([&] { status = datamorph_gsdb_delete("/conv", uri); });
  }

  static std::string key(const std::string &uri) { return uri + std::string(1, '\0'); }
  static std::string svi_record() { return bytes("0c 00 00 ff  7c 01 00 00  00 00 00 00"); }
  // The file that a store of these records is dumped to.
  static std::string file(const records_t &records) { return platform_double::flat_file(records); }
  static void write_meta(const records_t &records) {
    switch_root::write_file(k_meta_file, file(records));
  }
  static std::string meta() { return switch_root::read_file(k_meta_file); }

  syserr_t status = 0xdead;
};

// ---- Adding

TEST_F(psshlpr_test, the_first_database) {
  platform.set_store("volatile:/conv/svi_gldb", {{"vlan 1", "up"}});
  EXPECT_EQ(
      lines_t({"datamorph_gsdb_add: GSDB table pss uri is volatile:/conv/globalpss_table\n",
               "datamorph_read_from_snapshot: snapshot uri is /conv/globalpss_table.snp\n",
               "datamorph_read_from_snapshot: /conv/globalpss_table.snp pss2_file2kernel failed. "
               "err no such store\n",
               "datamorph_gsdb_add: GSDB uri is volatile:/conv/globalpss_table\n",
               "infra/convert_libs/comps/libdatamorph/libdatamorph_psshlpr.cpp.add_gsdb: info "
               "about uri /cfg/svi_gldb saved\n",
               "datamorph_write_to_snapshot: GSDB name is globalpss_table\n",
               "datamorph_write_to_snapshot: snapshot uri is /conv/globalpss_table.snp\n",
               "GSDB name is svi_gldb\n", "datamorph_write_to_snapshot: GSDB name is svi_gldb\n",
               "datamorph_write_to_snapshot: snapshot uri is /conv/svi_gldb.snp\n"}),
      add("/cfg/svi_gldb"));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(file({{key("/cfg/svi_gldb"), svi_record()}}), meta());
  EXPECT_EQ(file({{"vlan 1", "up"}}), switch_root::read_file("/conv/svi_gldb.snp"));
  EXPECT_TRUE(platform.store_uris().empty()); // both are destroyed again
  EXPECT_TRUE(platform.open_handles().empty());
  EXPECT_EQ(lines_t({"pss2_open(\"volatile:/conv/globalpss_table\", 0x13, 390, 0, 0)",
                     "pss2_file2kernel(\"/conv/globalpss_table.snp\", 1, 0)",
                     "pss2_store(1, 2f6366672f7376695f676c646200, 0c0000ff7c01000000000000)",
                     "pss2_kernel2file(1, \"/conv/globalpss_table.snp\", 0)", "pss2_close(1)",
                     "pss2_destroy(\"volatile:/conv/globalpss_table\")",
                     "pss2_open(\"volatile:/conv/svi_gldb\", 0x13, 390, 0, 0)",
                     "pss2_kernel2file(2, \"/conv/svi_gldb.snp\", 0)", "pss2_close(2)",
                     "pss2_destroy(\"volatile:/conv/svi_gldb\")"}),
            platform.calls());
}

TEST_F(psshlpr_test, the_same_database_twice_and_another) {
  add("/cfg/svi_gldb", 1, SRVUUID_IKE, 2);
  add("/cfg/svi_gldb");
  EXPECT_EQ(file({{key("/cfg/svi_gldb"), svi_record()}}), meta());
  add("/cfg/other", 0xFFFFFFFF, static_cast<uuid_t>(0x01020304), 0x05060708);
  EXPECT_EQ(0u, status);
  EXPECT_EQ(file({{key("/cfg/other"), bytes("ff ff ff ff 04 03 02 01 08 07 06 05")},
                  {key("/cfg/svi_gldb"), svi_record()}}),
            meta());
  EXPECT_EQ(file({}), switch_root::read_file("/conv/other.snp")); // a store that was not there
}

TEST_F(psshlpr_test, names_of_databases) {
  const struct {
    const char *uri;
    const char *name;
  } rows[] = {{"/", ""}, {"/cfg/", ""}, {"x/y", "y"}, {"a:b/c:d", "c:d"}, {"//z", "z"}};
  for (const auto &row : rows) {
    platform.clear();
    add(row.uri);
    EXPECT_EQ(0u, status) << row.uri;
    const std::string name = row.name;
    EXPECT_EQ("pss2_open(\"volatile:/conv/" + name + "\", 0x13, 390, 0, 0)",
              platform.calls("pss2_open").back());
    EXPECT_TRUE(switch_root::exists("/conv/" + name + ".snp")) << row.uri;
  }
}

TEST_F(psshlpr_test, uris_without_a_slash_and_nulls) {
  for (const char *uri : {"svi_gldb", "", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(lines_t(), add(uri));
    EXPECT_EQ(0xFFFFFFFFu, status);
  }
  EXPECT_EQ(lines_t(),
            traced([this] { status = datamorph_gsdb_add(nullptr, "/cfg/x", 0, SRVUUID_NONE, 0); }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_EQ(lines_t(), remove(nullptr));
  EXPECT_EQ(0xFFFFFFFFu, status);
  EXPECT_EQ(lines_t(), traced([this] { status = datamorph_gsdb_delete(nullptr, "/x"); }));
  EXPECT_EQ(0xFFFFFFFFu, status);
  traced([] {
    EXPECT_EQ(0xFFFFFFFFu, add_gsdb(1, nullptr, 0, SRVUUID_NONE, 0));
    EXPECT_EQ(0xFFFFFFFFu, delete_gsdb_table_entry(1, nullptr));
    EXPECT_EQ(0x40480008u, delete_gsdb_table_entry(0, nullptr));
    EXPECT_EQ(0xFFFFFFFFu, datamorph_read_from_snapshot(1, nullptr, "x"));
    EXPECT_EQ(0xFFFFFFFFu, datamorph_read_from_snapshot(1, "/conv", nullptr));
  });
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(psshlpr_test, a_meta_snapshot_that_cannot_be_read_is_gone_on_from) {
  const std::string good = file({{key("/cfg/old"), svi_record()}});
  for (const std::string &damaged :
       {std::string(), good.substr(0, good.size() - 1), std::string("of another program")}) {
    switch_root::write_file(k_meta_file, damaged);
    const lines_t lines = add("/cfg/svi_gldb");
    EXPECT_EQ("datamorph_read_from_snapshot: /conv/globalpss_table.snp pss2_file2kernel failed. "
              "err store or record damaged\n",
              lines.at(2));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(file({{key("/cfg/svi_gldb"), svi_record()}}), meta()); // only the new one
  }
}

TEST_F(psshlpr_test, any_flipped_bit_of_the_meta_snapshot_is_gone_on_from) {
  const std::string good = file({{key("/cfg/old"), svi_record()}});
  for (size_t bit = 0; bit < 8 * good.size(); bit += 3) {
    std::string flipped = good;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
    switch_root::write_file(k_meta_file, flipped);
    add("/cfg/svi_gldb");
    EXPECT_EQ(0u, status) << bit;
    EXPECT_EQ(file({{key("/cfg/svi_gldb"), svi_record()}}), meta()) << bit;
  }
}

TEST_F(psshlpr_test, a_failed_dump_is_only_traced) {
  platform.fail_from("pss2_kernel2file", 0x4048000C);
  const lines_t lines = add("/cfg/svi_gldb");
  EXPECT_EQ(
      "datamorph_write_to_snapshot: /conv/globalpss_table.snp pss2_kernel2file failed. err no "
      "room left for a store\n",
      lines.at(7));
  EXPECT_EQ("datamorph_write_to_snapshot: /conv/svi_gldb.snp pss2_kernel2file failed. err no room "
            "left for a store\n",
            lines.back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(10u, platform.calls().size());
  EXPECT_FALSE(switch_root::exists(k_meta_file));
}

TEST_F(psshlpr_test, a_failed_store_of_the_record_is_gone_on_from) {
  platform.fail("pss2_store", 0x4048000C);
  EXPECT_EQ("add_gsdb: failed to store '/cfg/svi_gldb' to globalpss_table\n",
            add("/cfg/svi_gldb").at(4));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(file({}), meta());
}

TEST_F(psshlpr_test, a_failed_close_is_told_with_the_message_of_the_destroy) {
  const std::string line =
      ": pss2_destroy failed with error code 0x4048000b [input or output error "
      "in a store]\n";
  platform.fail("pss2_close", 0x4048000B);
  EXPECT_EQ("datamorph_gsdb_add" + line, add("/cfg/svi_gldb").back());
  EXPECT_EQ(0x4048000Bu, status);
  EXPECT_TRUE(platform.calls("pss2_destroy").empty());
  EXPECT_EQ(5u, platform.calls().size());

  platform.reset();
  platform.fail("pss2_close", 0x4048000B, 2);
  EXPECT_EQ("datamorph_gsdb_add" + line, add("/cfg/svi_gldb").back());
  EXPECT_EQ(0x4048000Bu, status);
  EXPECT_EQ(9u, platform.calls().size());
  EXPECT_EQ(std::vector<std::string>({"volatile:/conv/svi_gldb"}), platform.store_uris());

  platform.reset();
  platform.fail("pss2_close", 0x4048000B);
  EXPECT_EQ("datamorph_gsdb_delete" + line, remove("/cfg/svi_gldb").back());
  EXPECT_EQ(0x4048000Bu, status);
  EXPECT_TRUE(platform.calls("pss2_destroy").empty());
}

TEST_F(psshlpr_test, every_failing_call_of_an_addition) {
  // open, read, store, dump, close, destroy; open, dump, close, destroy
  const syserr_t failed = 0x4048000B;
  const lines_t meta_stays = {"volatile:/conv/globalpss_table"};
  const lines_t database_stays = {"volatile:/conv/svi_gldb"};
  const struct {
    syserr_t status;
    size_t calls;
    lines_t stores; // left in memory
  } rows[] = {{failed, 1, {}},
              {0, 10, {}},
              {0, 10, {}},
              {0, 10, {}},
              {failed, 5, meta_stays},
              {failed, 6, meta_stays},
              {failed, 7, {}},
              {0, 10, {}},
              {failed, 9, database_stays},
              {failed, 10, database_stays}};
  unsigned nth = 0;
  for (const auto &row : rows) {
    platform.reset();
    platform.fail_any(++nth, failed);
    const lines_t lines = add("/cfg/svi_gldb");
    EXPECT_EQ(row.status, status) << nth;
    EXPECT_EQ(row.calls, platform.calls().size()) << nth;
    EXPECT_EQ(row.stores, platform.store_uris()) << nth;
    EXPECT_TRUE(platform.open_handles().empty()) << nth;
    if (nth == 1 || nth == 7) {
      EXPECT_EQ("datamorph_gsdb_add: pss2_open failed with error code 0x4048000b [input or output "
                "error in a store] \n",
                lines.back());
    }
    if (nth == 6 || nth == 10) {
      EXPECT_EQ("datamorph_gsdb_add: pss2_destroy failed with error code 0x4048000b [input or "
                "output error in a store]\n",
                lines.back());
    }
  }
}

TEST_F(psshlpr_test, a_handle_of_0_is_only_traced) {
  platform.answer_null("pss2_open");
  lines_t lines = add("/cfg/svi_gldb");
  EXPECT_EQ("datamorph_gsdb_add: Reading pss snapshot failed\n", lines.at(1));
  EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(),
                                   "datamorph_write_to_snapshot: Service handle is 0\n"));
  EXPECT_EQ(0x40480008u, status); // of the close
  platform.answer_null("pss2_open");
  lines = remove("/cfg/svi_gldb");
  EXPECT_EQ("datamorph_gsdb_delete: Reading pss snapshot failed\n", lines.at(1));
  EXPECT_EQ("datamorph_gsdb_delete: Deleting entry failed with error code 0x40480008 [bad store "
            "handle]\n",
            lines.at(4));
  EXPECT_EQ(0x40480008u, status);
}

// ---- Deleting

TEST_F(psshlpr_test, a_registered_database_is_unregistered) {
  write_meta({{key("/cfg/other"), "record"}, {key("/cfg/svi_gldb"), svi_record()}});
  switch_root::write_file("/conv/svi_gldb.snp", "its own");
  platform.set_store("volatile:/conv/svi_gldb", {{"vlan 1", "up"}});
  EXPECT_EQ(
      lines_t({"datamorph_gsdb_delete: snapshot pss name is volatile:/conv/globalpss_table\n",
               "datamorph_read_from_snapshot: snapshot uri is /conv/globalpss_table.snp\n",
               "delete_gsdb_table_entry: delete [/cfg/svi_gldb] from gsdb meta table. ec 0x0\n",
               "datamorph_write_to_snapshot: GSDB name is globalpss_table\n",
               "datamorph_write_to_snapshot: snapshot uri is /conv/globalpss_table.snp\n"}),
      remove("/cfg/svi_gldb"));
  EXPECT_EQ(0u, status);
  EXPECT_EQ(file({{key("/cfg/other"), "record"}}), meta());
  EXPECT_EQ("its own", switch_root::read_file("/conv/svi_gldb.snp")); // are not touched
  EXPECT_EQ(std::vector<std::string>({"volatile:/conv/svi_gldb"}), platform.store_uris());
  EXPECT_EQ(lines_t({"pss2_open(\"volatile:/conv/globalpss_table\", 0x13, 390, 0, 0)",
                     "pss2_file2kernel(\"/conv/globalpss_table.snp\", 1, 0)",
                     "pss2_delete(1, 2f6366672f7376695f676c646200, 1)",
                     "pss2_kernel2file(1, \"/conv/globalpss_table.snp\", 0)", "pss2_close(1)",
                     "pss2_destroy(\"volatile:/conv/globalpss_table\")"}),
            platform.calls());
}

TEST_F(psshlpr_test, a_database_that_is_not_registered) {
  write_meta({{key("/cfg/other"), "record"}});
  for (const char *uri : {"/cfg/svi_gldb", "no slash", "/cfg/othe", "/cfg/other/"}) {
    const lines_t lines = remove(uri);
    EXPECT_EQ(std::string("delete_gsdb_table_entry: delete [") + uri +
                  "] from gsdb meta table. ec 0x40480003\n",
              lines.at(2));
    EXPECT_EQ("datamorph_gsdb_delete: Deleting entry failed with error code 0x40480003 [no such "
              "record]\n",
              lines.at(3));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(file({{key("/cfg/other"), "record"}}), meta());
  }
}

TEST_F(psshlpr_test, every_failing_call_of_a_deletion) {
  // open, read, delete, dump, close, destroy
  const syserr_t failed = 0x4048000B;
  const std::string code = " failed with error code 0x4048000b [input or output error in a store]";
  const std::string opening = "datamorph_gsdb_delete: pss2_open" + code + " \n";
  const std::string destroying = "datamorph_gsdb_delete: pss2_destroy" + code + "\n";
  const std::string last =
      "datamorph_write_to_snapshot: snapshot uri is /conv/globalpss_table.snp\n";
  const std::string dumping = "datamorph_write_to_snapshot: /conv/globalpss_table.snp "
                              "pss2_kernel2file failed. err input or output error in a store\n";
  const lines_t meta_stays = {"volatile:/conv/globalpss_table"};
  const struct {
    syserr_t status;
    size_t calls;
    lines_t stores;   // left in memory
    std::string line; // traced last
  } rows[] = {{failed, 1, {}, opening},
              {0, 6, {}, last},
              {0, 6, {}, last},
              {0, 6, {}, dumping},
              {failed, 5, meta_stays, destroying},
              {failed, 6, meta_stays, destroying}};
  unsigned nth = 0;
  for (const auto &row : rows) {
    platform.reset();
    write_meta({{key("/cfg/svi_gldb"), svi_record()}});
    platform.fail_any(++nth, failed);
    EXPECT_EQ(row.line, remove("/cfg/svi_gldb").back()) << nth;
    EXPECT_EQ(row.status, status) << nth;
    EXPECT_EQ(row.calls, platform.calls().size()) << nth;
    EXPECT_EQ(row.stores, platform.store_uris()) << nth;
    EXPECT_TRUE(platform.open_handles().empty()) << nth;
  }
}

// ---- The steps on an open store

TEST_F(psshlpr_test, steps_give_the_platforms_status) {
  syserr_t error = 0;
  platform.set_store("volatile:/x");
  const pss2_service_t store = pss2_open("volatile:/x", 3, SRVUUID_NONE, 0, 0, &error);
  platform.fail("pss2_store", 0x4048000C);
  platform.fail("pss2_delete", 0x4048000B);
  traced([&] {
    EXPECT_EQ(0x4048000Cu, add_gsdb(store, "/cfg/x", 0, SRVUUID_NONE, 0));
    EXPECT_EQ(0x4048000Bu, delete_gsdb_table_entry(store, "/cfg/x"));
    EXPECT_EQ(0x40480002u, datamorph_read_from_snapshot(store, "/conv", "none"));
    EXPECT_EQ(0u, add_gsdb(store, "/cfg/x", 0, SRVUUID_NONE, 0));
    EXPECT_EQ(0u, delete_gsdb_table_entry(store, "/cfg/x"));
    write_meta({});
    EXPECT_EQ(0u, datamorph_read_from_snapshot(store, "/conv", "globalpss_table"));
  });
}

TEST_F(psshlpr_test, a_handle_of_0_reaches_the_platform_but_for_the_deletion) {
  platform.clear();
  EXPECT_EQ(lines_t(),
            traced([] { EXPECT_EQ(0x40480008u, delete_gsdb_table_entry(0, "/cfg/x")); }));
  EXPECT_EQ(
      lines_t({"add_gsdb: failed to store '/cfg/x' to globalpss_table\n",
               "datamorph_read_from_snapshot: snapshot uri is /conv/x.snp\n",
               "datamorph_read_from_snapshot: /conv/x.snp pss2_file2kernel failed. err bad store "
               "handle\n"}),
      traced([] {
        EXPECT_EQ(0x40480008u, add_gsdb(0, "/cfg/x", 0, SRVUUID_NONE, 0));
        EXPECT_EQ(0x40480008u, datamorph_read_from_snapshot(0, "/conv", "x"));
      }));
  EXPECT_EQ(lines_t({"pss2_store(0, 2f6366672f7800, 000000000000000000000000)",
                     "pss2_file2kernel(\"/conv/x.snp\", 0, 0)"}),
            platform.calls());
}

// ---- Long names

// The store's URI is cut, but the file is named after the database's own.
TEST_F(psshlpr_test, a_long_name_is_told_whole_and_cut_in_uri_and_file) {
  const std::string name(300, 'n');
  const lines_t lines = add(("/cfg/" + name).c_str());
  EXPECT_EQ(0u, status);
  const lines_t last(lines.end() - 3, lines.end());
  EXPECT_EQ("GSDB name is " + name + "\n", last.at(0));
  EXPECT_EQ("datamorph_write_to_snapshot: GSDB name is " + name + "\n", last.at(1));
  EXPECT_EQ("datamorph_write_to_snapshot: snapshot uri is /conv/" + std::string(248, 'n') + "\n",
            last.at(2));
  EXPECT_EQ("pss2_open(\"volatile:/conv/" + std::string(239, 'n') + "\", 0x13, 390, 0, 0)",
            platform.calls("pss2_open").back());
}

TEST_F(psshlpr_test, names_are_cut) {
  const std::string path(4000, 'p');
  const lines_t lines =
      traced([&] { status = datamorph_gsdb_add(path.c_str(), "/x", 0, SRVUUID_NONE, 0); });
  // The meta table's URI has lost its last '/'.
  EXPECT_EQ("datamorph_write_to_snapshot: GSDB name is (null)\n", lines.at(5));
  EXPECT_EQ("pss2_open(\"volatile:" + std::string(245, 'p') + "\", 0x13, 390, 0, 0)",
            platform.calls().front());
  platform.clear();
  syserr_t error = 0;
  platform.set_store("volatile:/x");
  const pss2_service_t store = pss2_open("volatile:/x", 3, SRVUUID_NONE, 0, 0, &error);
  traced([&] { datamorph_read_from_snapshot(store, path.c_str(), "n"); });
  EXPECT_EQ("pss2_file2kernel(\"" + std::string(254, 'p') + "\", " + std::to_string(store) + ", 0)",
            platform.calls().back());
}

TEST_F(psshlpr_test, a_directory_that_is_not_there) {
  traced([this] { status = datamorph_gsdb_add("/nowhere", "/cfg/svi_gldb", 0, SRVUUID_SVI, 0); });
  EXPECT_EQ(0u, status); // failed dumps are only traced
}

// ---- SVI and the sample

class svi_test : public psshlpr_test {
protected:
  void SetUp() override {
    psshlpr_test::SetUp();
    setenv("SYSMGR_VDC_ID", "1", 1);
    setenv("SYSMGR_RUNNING_CFG_DIR", "/cfg/0", 1);
  }

  lines_t convert(const char *to, const char *from) {
    return traced([&] { status = svi_data_morph_psshlpr_upg("/conv", "system", to, from); });
  }
};

TEST_F(svi_test, going_up_registers_the_database) {
  lines_t lines = convert("4.2(1)", "4.1(2)");
  EXPECT_EQ(lines_t({"Verifying up/down grade versions\n",
                     "from_ver 4.1(2):from_comp -1, to_ver 4.2(1):to_comp 0\n",
                     "issu upgrade conversion required from 4.1(2) to 4.2(1)\n",
                     "datamorph_uri_complete: vdcid is 1 and conversion to decimal is 1\n",
                     "svi_create_gsdb: uri is [/cfg/0/svi_gldb]\n",
                     "datamorph_gsdb_add: GSDB table pss uri is volatile:/conv/globalpss_table\n"}),
            lines_t(lines.begin(), lines.begin() + 6));
  EXPECT_EQ("svi_create_gsdb: return value is [success]\n", lines.back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(file({{key("/cfg/0/svi_gldb"), svi_record()}}), meta());
  EXPECT_TRUE(switch_root::exists("/conv/svi_gldb.snp"));
}

TEST_F(svi_test, going_down_unregisters_it) {
  write_meta({{key("/cfg/0/svi_gldb"), svi_record()}});
  lines_t lines = convert("4.1(3)", "4.2(2)");
  EXPECT_EQ(lines_t({"Verifying up/down grade versions\n",
                     "from_ver 4.2(2):from_comp 1, to_ver 4.1(3):to_comp 1\n",
                     "issu downgrade conversion required from 4.2(2) to 4.1(3)\n",
                     "datamorph_uri_complete: vdcid is 1 and conversion to decimal is 1\n",
                     "svi_delete_gsdb: uri is [/cfg/0/svi_gldb]\n"}),
            lines_t(lines.begin(), lines.begin() + 5));
  EXPECT_EQ("svi_delete_gsdb: return value is [success]\n", lines.back());
  EXPECT_EQ(file({}), meta());
}

TEST_F(svi_test, which_changes_convert) {
  const struct {
    const char *from;
    const char *to;
    const char *does; // the third line
  } rows[] = {
      {"4.1(2)", "4.2(1)", "issu upgrade conversion required from 4.1(2) to 4.2(1)\n"},
      {"4.2(0)", "5.0(1)", "issu upgrade conversion required from 4.2(0) to 5.0(1)\n"},
      {"4.2(1)", "4.2(1)", "No issu conversion reqd from 4.2(1) to 4.2(1)\n"},
      {"4.2(1)", "4.2(2)", "No issu conversion reqd from 4.2(1) to 4.2(2)\n"},
      {"4.1(2)", "4.1(3)", "No issu conversion reqd from 4.1(2) to 4.1(3)\n"},
      {"4.2(1)", "4.2(0)", "issu downgrade conversion required from 4.2(1) to 4.2(0)\n"},
      {"5.0(2)", "", "issu downgrade conversion required from 5.0(2) to \n"},
  };
  for (const auto &row : rows) {
    platform.clear();
    const lines_t lines = convert(row.to, row.from);
    EXPECT_EQ(row.does, lines.at(2));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(row.does[0] == 'N', platform.calls().empty()) << row.does;
  }
}

TEST_F(svi_test, failures_are_only_traced) {
  platform.fail("pss2_open", 0x4048000A);
  EXPECT_EQ("svi_create_gsdb: return value is [no access to the store]\n",
            convert("4.2(1)", "4.1(2)").back());
  EXPECT_EQ(0u, status);
  platform.fail("pss2_open", 0x4048000A);
  EXPECT_EQ("svi_delete_gsdb: return value is [no access to the store]\n",
            convert("4.1(2)", "4.2(1)").back());
  EXPECT_EQ(0u, status);
}

TEST_F(svi_test, no_failing_call_fails_it) {
  for (const char *from : {"4.1(2)", "4.2(1)"}) {
    const char *to = from[2] == '1' ? "4.2(1)" : "4.1(2)";
    for (unsigned nth = 1; nth <= 10; ++nth) {
      platform.reset();
      platform.fail_any(nth, 0x4048000B);
      convert(to, from);
      EXPECT_EQ(0u, status) << nth;
      EXPECT_EQ(nth <= platform.calls().size() ? 1u : 0u, platform.scripted()) << nth;
      EXPECT_TRUE(platform.open_handles().empty()) << nth;
    }
  }
}

TEST_F(svi_test, the_database_of_another_vdc_or_of_none) {
  setenv("SYSMGR_VDC_ID", "2", 1);
  traced([] { EXPECT_EQ(0u, svi_create_gsdb("/conv")); });
  EXPECT_EQ(file({{key("/cfg/0/2/svi_gldb"), svi_record()}}), meta());
  unsetenv("SYSMGR_VDC_ID");
  unsetenv("SYSMGR_RUNNING_CFG_DIR");
  EXPECT_EQ("svi_delete_gsdb: uri is [(null)/(null)/svi_gldb]\n",
            traced([] { EXPECT_EQ(0u, svi_delete_gsdb("/conv")); }).at(1));
  setenv("SYSMGR_RUNNING_CFG_DIR", std::string(4000, 'd').c_str(), 1);
  setenv("SYSMGR_VDC_ID", "1", 1);
  const lines_t lines = traced([] { EXPECT_EQ(0u, svi_create_gsdb("/conv")); });
  EXPECT_EQ("svi_create_gsdb: uri is [" + std::string(254, 'd') + "/]\n", lines.at(1));
}

TEST_F(svi_test, nulls) {
  for (int null = 0; null < 4; ++null) {
    const char *given[] = {"/conv", "system", "4.2(1)", "4.1(2)"};
    given[null] = nullptr;
    EXPECT_EQ(lines_t({"Invalid arguments\n"}), traced([&] {
                status = svi_data_morph_psshlpr_upg(given[0], given[1], given[2], given[3]);
              }));
    EXPECT_EQ(0xFFFFFFFFu, status);
  }
  EXPECT_EQ(lines_t(), traced([] {
              EXPECT_EQ(0u, svi_create_gsdb(nullptr));
              EXPECT_EQ(0u, svi_delete_gsdb(nullptr));
              EXPECT_EQ(0u, foo_data_morph_psshlpr_upg(nullptr, "p", "t", "f"));
            }));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(svi_test, the_sample) {
  lines_t lines =
      traced([this] { status = foo_data_morph_psshlpr_upg("/conv", nullptr, nullptr, nullptr); });
  EXPECT_EQ(0u, status);
  EXPECT_EQ("foo_data_morph_psshlpr_upg: uri is [/cfg/0/foo_gsdb]\n", lines.at(1));
  EXPECT_EQ("foo_data_morph_psshlpr_upg: return value is [success]\n", lines.back());
  EXPECT_EQ(file({{key("/cfg/0/foo_gsdb"), std::string(12, '\0')}}), meta());
  EXPECT_TRUE(switch_root::exists("/conv/foo_gsdb.snp"));
  platform.fail("pss2_open", 0x4048000A);
  lines = traced([this] { status = foo_data_morph_psshlpr_upg("/conv", "p", "t", "f"); });
  EXPECT_EQ("foo_data_morph_psshlpr_upg: return value is [no access to the store]\n", lines.back());
  EXPECT_EQ(0u, status);
  setenv("SYSMGR_RUNNING_CFG_DIR", std::string(250, 'd').c_str(), 1);
  lines = traced([this] { status = foo_data_morph_psshlpr_upg("/conv", "p", "t", "f"); });
  EXPECT_EQ("foo_data_morph_psshlpr_upg: uri is [" + std::string(250, 'd') + "/foo_]\n",
            lines.at(1));
}

TEST_F(svi_test, the_helpers_gsync_runs_it_and_never_fails) {
  datamorph_args_t args = {"/conv", "system", "4.2(1)", "4.1(2)"};
  convert_ret_value_t result = {1, 2};
  lines_t lines = traced([&] { status = datamorph_gsync(SRVUUID_PSS_HELPER, &result, &args); });
  EXPECT_EQ("psshlpr_data_morph_gsync: calling convert function for uuid = 0x17c\n", lines.at(2));
  EXPECT_EQ(0u, status);
  EXPECT_TRUE(switch_root::exists("/conv/svi_gldb.snp"));
  args.pkg_name = nullptr;
  lines = traced([&] { status = datamorph_gsync(SRVUUID_PSS_HELPER, &result, &args); });
  EXPECT_EQ("psshlpr_data_morph_gsync: err convert function for uuid = 0x17c\n", lines.back());
  EXPECT_EQ(0u, status);
  EXPECT_EQ(1u, result.uuid);
}

} // namespace
