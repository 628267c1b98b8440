// The global snapshot database of SVI across 4.2(1): registered going up, unregistered going down,
// in each VDC below its own path. The databases are gone again, their snapshots are files.
#include "command.h"

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char table_1[] = "/cfg/0/globalpss_table.snp";
constexpr char table_2[] = "/cfg/0/vdc_2/globalpss_table.snp";
constexpr char database_1[] = "/cfg/0/svi_gldb.snp";
constexpr char database_2[] = "/cfg/0/vdc_2/svi_gldb.snp";

// What stands before the checksum of a flat file that holds no record.
constexpr char empty[] = "4c4142464c41540a" // LABFLAT
                         "02000000"         // layout
                         "0000000000000000";
// The same of one with the record of the database of VDC 1.
constexpr char with_svi_1[] = "4c4142464c41540a"
                              "02000000"
                              "0100000000000000"
                              "10000000"                         // bytes of the key
                              "0c000000"                         // bytes of the value
                              "2f6366672f302f7376695f676c646200" // /cfg/0/svi_gldb
                              "0c0000ff"                         // mcast_info 0xff00000c
                              "7c010000"                         // uuid 380
                              "00000000";                        // vdcid
// In another VDC its number is a folder of the database's name.
constexpr char with_svi_2[] = "4c4142464c41540a"
                              "02000000"
                              "0100000000000000"
                              "12000000"
                              "0c000000"
                              "2f6366672f302f322f7376695f676c646200" // /cfg/0/2/svi_gldb
                              "0c0000ff"
                              "7c010000"
                              "00000000";

class gsdb : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  result convert(const words &more) {
    words arguments = {"convert", "sw"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const result converted = run(arguments);
    EXPECT_EQ(converted.status, 0) << converted.err;
    return converted;
  }
  // A snapshot without its checksum, in hex.
  std::string snapshot(const std::string &file) const {
    constexpr char digits[] = "0123456789abcdef";
    const std::string bytes = read("sw/current" + file);
    EXPECT_GE(bytes.size(), 28u) << file;
    std::string hex;
    for (size_t at = 0; at + 8 < bytes.size(); ++at) {
      const auto byte = static_cast<unsigned char>(bytes[at]);
      hex.append({digits[byte >> 4], digits[byte & 15]});
    }
    return hex;
  }
  void expect_registered() {
    EXPECT_EQ(snapshot(table_1), with_svi_1);
    EXPECT_EQ(snapshot(table_2), with_svi_2);
    EXPECT_EQ(snapshot(database_1), empty);
    EXPECT_EQ(snapshot(database_2), empty);
  }
  // Nothing of it stands as a store.
  void expect_no_stores() {
    for (const std::string &uri : uris(show("sw"))) {
      EXPECT_EQ(uri.find("globalpss_table"), std::string::npos) << uri;
      EXPECT_EQ(uri.find("svi_gldb"), std::string::npos) << uri;
    }
  }
};

TEST_F(gsdb, going_up_writes_its_snapshots_and_nothing_else) {
  files expected = state("sw");

  convert({"--to", "4.2(1)", "--moment", "gsync", "--service", "PSS_HELPER"});

  files after = state("sw");
  for (const char *file : {table_1, table_2, database_1, database_2}) {
    EXPECT_EQ(after.erase(file), 1u) << file;
  }
  EXPECT_EQ(after.erase("/cfg/0/vdc_2"), 1u); // their folder, which only volatile stores had
  for (files *all : {&expected, &after}) {
    all->erase("/mnt/pss/data_morph.log");
    all->erase("/tmp/datamorphcheck");
    all->erase("/switch.json");
  }
  EXPECT_EQ(after, expected);
  expect_registered();
  expect_no_stores();
}

TEST_F(gsdb, going_down_unregisters_it_and_keeps_its_snapshot) {
  convert({"--to", "5.0(2)"});
  expect_registered();

  convert({"--to", "4.1(5)"});

  EXPECT_EQ(snapshot(table_1), empty);
  EXPECT_EQ(snapshot(table_2), empty);
  EXPECT_EQ(snapshot(database_1), empty);
  EXPECT_EQ(snapshot(database_2), empty);
  expect_no_stores();

  convert({"--to", "4.2(1)"});
  expect_registered();
}

TEST_F(gsdb, is_registered_once) {
  convert({"--to", "4.2(1)"});
  convert({"--from", "4.1(5)", "--to", "4.2(1)", "--moment", "gsync"});
  expect_registered();
}

TEST_F(gsdb, is_left_alone_on_either_side) {
  convert({"--to", "3.3(1)"});
  convert({"--to", "4.1(5)"});
  for (const char *file : {table_1, table_2, database_1, database_2}) {
    EXPECT_FALSE(exists(std::string("sw/current") + file)) << file;
  }

  convert({"--to", "4.2(1)"});
  const files before = state("sw");
  convert({"--to", "5.0(2)"});
  const files after = state("sw");
  for (const char *file : {table_1, table_2, database_1, database_2}) {
    EXPECT_EQ(after.at(file), before.at(file)) << file;
  }
}

// A table that never was is made, without a record.
TEST_F(gsdb, going_down_without_one) {
  convert({"--from", "4.2(1)", "--to", "4.1(5)", "--moment", "gsync"});

  EXPECT_EQ(snapshot(table_1), empty);
  EXPECT_EQ(snapshot(table_2), empty);
  EXPECT_FALSE(exists(std::string("sw/current") + database_1));
  EXPECT_FALSE(exists(std::string("sw/current") + database_2));
}

// The library would go on from an empty table. The lab's journal has the failed read, and the
// switch keeps what it has.
TEST_F(gsdb, a_table_that_cannot_be_read_refuses_the_conversion) {
  convert({"--to", "4.2(1)"});
  const std::string whole = read(std::string("sw/current") + table_2);
  std::string flipped = whole;
  flipped[30] = static_cast<char>(flipped[30] ^ 1);
  for (const std::string &bytes : {std::string(), whole.substr(0, whole.size() - 1), flipped,
                                   std::string("a text that is longer than a header\n")}) {
    write(std::string("sw/current") + table_2, bytes);
    const files before = state("sw");

    const result refused = run({"convert", "sw", "--to", "4.1(5)", "--moment", "gsync"});

    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("datamorph: 'sw': not converted: a write in the switch failed: "
                               "pss2_file2kernel on the store 'volatile:/cfg/0/vdc_2/"
                               "globalpss_table' by PSS_HELPER gave 0x40480009 (store or record "
                               "damaged); the switch is as it was, still at 4.2(1)\n"),
              std::string::npos)
        << refused.err;
    EXPECT_EQ(state("sw"), before);
  }
  write(std::string("sw/current") + table_2, whole);
  convert({"--to", "4.1(5)", "--moment", "gsync"});
  EXPECT_EQ(snapshot(table_2), empty);
}

TEST_F(gsdb, a_snapshot_that_cannot_be_written_refuses_the_conversion) {
  ASSERT_EQ(mkdir(path(std::string("sw/current") + database_1).c_str(), 0755), 0);
  const files before = state("sw");

  const result refused = run({"convert", "sw", "--to", "4.2(1)", "--moment", "gsync"});

  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("pss2_kernel2file"), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find("gave 0x40480009 (store or record damaged); the switch is as it was, "
                             "still at 4.1(5)\n"),
            std::string::npos)
      << refused.err;
  EXPECT_EQ(state("sw"), before);
}

TEST_F(gsdb, the_report_tells_its_stores_as_temporary) {
  const nlohmann::json report =
      convert({"--to", "4.2(1)", "--moment", "gsync", "--format", "json"}).json();

  std::map<std::string, nlohmann::json> found;
  for (const nlohmann::json &store : report["stores"]) {
    if (store["services"] == nlohmann::json({"PSS_HELPER"})) {
      EXPECT_EQ(store["what"], "temporary") << store;
      found[store["uri"]] = store["records"];
    }
  }
  const nlohmann::json one = {{"added", 1}, {"changed", 0}, {"removed", 1}};
  const nlohmann::json none = {{"added", 0}, {"changed", 0}, {"removed", 0}};
  EXPECT_EQ(found,
            (std::map<std::string, nlohmann::json>{{"volatile:/cfg/0/globalpss_table", one},
                                                   {"volatile:/cfg/0/svi_gldb", none},
                                                   {"volatile:/cfg/0/vdc_2/globalpss_table", one},
                                                   {"volatile:/cfg/0/vdc_2/svi_gldb", none}}));
}

TEST_F(gsdb, every_step_stands_in_the_log_in_order) {
  convert({"--to", "4.2(1)", "--moment", "gsync"});

  const std::string log = read("sw/current/mnt/pss/data_morph.log");
  const std::string source = "infra/convert_libs/comps/libdatamorph/libdatamorph_psshlpr.cpp";
  size_t at = 0;
  for (const std::string &line :
       {std::string("issu upgrade conversion required from 4.1(5) to 4.2(1)\n"),
        std::string("svi_create_gsdb: uri is [/cfg/0/svi_gldb]\n"),
        std::string("datamorph_gsdb_add: GSDB table pss uri is volatile:/cfg/0/globalpss_table\n"),
        std::string("datamorph_read_from_snapshot: snapshot uri is /cfg/0/globalpss_table.snp\n"),
        std::string("datamorph_gsdb_add: GSDB uri is volatile:/cfg/0/globalpss_table\n"),
        source + ".add_gsdb: info about uri /cfg/0/svi_gldb saved\n",
        std::string("datamorph_write_to_snapshot: GSDB name is globalpss_table\n"),
        std::string("datamorph_write_to_snapshot: snapshot uri is /cfg/0/globalpss_table.snp\n"),
        std::string("> GSDB name is svi_gldb\n"),
        std::string("datamorph_write_to_snapshot: snapshot uri is /cfg/0/svi_gldb.snp\n"),
        std::string("svi_create_gsdb: return value is [success]\n"),
        std::string("svi_create_gsdb: uri is [/cfg/0/2/svi_gldb]\n"),
        std::string("svi_create_gsdb: return value is [success]\n")}) {
    const size_t found = log.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "not found in order in\n" << log;
    at = found + line.size();
  }
}

// ---- What is in a snapshot's file ---------------------------------------------------------------

class snapshot_files : public gsdb {
protected:
  void SetUp() override {
    gsdb::SetUp();
    convert({"--to", "4.2(1)", "--moment", "gsync"});
  }
  void expect_refused(const std::string &file, const std::string &message) {
    const files before = state("sw");
    const result shown = run({"store", "show", "sw", file});
    EXPECT_EQ(shown.status, 3) << shown.out;
    EXPECT_EQ(shown.out, "");
    EXPECT_EQ(shown.err, "datamorph: 'sw': file '" + file + "': " + message + "\n");
    EXPECT_EQ(state("sw"), before);
  }
  static constexpr char damaged[] = "it is no flat file of records, or is damaged: cut or changed";
};

TEST_F(snapshot_files, are_shown_with_what_they_mean) {
  EXPECT_EQ(run({"store", "show", "sw", table_1}).out,
            "KEY                              VALUE                    MEANING\n"
            "2f6366672f302f7376695f676c646200 0c0000ff7c01000000000000 snapshot database: database "
            "\"/cfg/0/svi_gldb\", multicast 0xff00000c, owner SVI, vdc 0\n");
  EXPECT_EQ(run({"store", "show", "sw", database_2}).out, "KEY VALUE\n");
  const nlohmann::json expected = {{"switch", "sw"},
                                   {"file", table_2},
                                   {"encoding", "hex"},
                                   {"records",
                                    {{{"key", "2f6366672f302f322f7376695f676c646200"},
                                      {"value", "0c0000ff7c01000000000000"},
                                      {"decoded",
                                       {{"kind", "snapshot database"},
                                        {"database", "/cfg/0/2/svi_gldb"},
                                        {"mcast_info", "0xff00000c"},
                                        {"owner", "SVI"},
                                        {"vdc", 0}}}}}}};
  EXPECT_EQ(run({"store", "show", "sw", table_2, "--format", "json"}).json(), expected);
  EXPECT_EQ(run({"store", "show", "sw", table_1, "--text", "--format", "json"})
                .json()["records"][0]["key"],
            "/cfg/0/svi_gldb\\x00");
}

TEST_F(snapshot_files, a_record_of_another_owner) {
  const std::string uri = "volatile:/cfg/0/globalpss_table";
  ASSERT_EQ(
      run({"store", "put", "sw", uri, "ff5c00", "010000005e1a000010000000", "--create"}).status, 0);
  ASSERT_EQ(run({"store", "put", "sw", uri, "6100", "0100000002000000030000"}).status, 0);
  for (const char *key : {"", "00", "61", "610062", "610000"}) {
    ASSERT_EQ(run({"store", "put", "sw", uri, key, "010000000200000003000000"}).status, 0);
  }

  const nlohmann::json shown = run({"store", "show", "sw", uri, "--format", "json"}).json();

  std::map<std::string, nlohmann::json> decoded;
  for (const nlohmann::json &record : shown["records"]) {
    if (record.contains("decoded")) {
      decoded[record["key"]] = record["decoded"];
    }
  }
  const std::map<std::string, nlohmann::json> expected = {
      {"6100", {{"kind", "snapshot database"}, {"database", "a"}, {"damaged", true}}},
      {"ff5c00",
       {{"kind", "snapshot database"},
        {"database", "\\xff\\\\"},
        {"mcast_info", "0x00000001"},
        {"owner", "6750"},
        {"vdc", 16}}}};
  EXPECT_EQ(decoded, expected);
}

TEST_F(snapshot_files, one_that_is_cut_is_refused) {
  const std::string whole = read(std::string("sw/current") + table_1);
  for (size_t size = 0; size < whole.size(); ++size) {
    write(std::string("sw/current") + table_1, whole.substr(0, size));
    expect_refused(table_1, damaged);
  }
  write(std::string("sw/current") + table_1, whole + '\0');
  expect_refused(table_1, damaged);
}

TEST_F(snapshot_files, any_flipped_bit_is_found) {
  const std::string whole = read(std::string("sw/current") + table_1);
  for (size_t at = 0; at < whole.size(); ++at) {
    std::string flipped = whole;
    flipped[at] = static_cast<char>(flipped[at] ^ (1 << at % 8));
    write(std::string("sw/current") + table_1, flipped);
    expect_refused(table_1, damaged);
  }
}

TEST_F(snapshot_files, what_is_none_is_refused) {
  write("sw/current/cfg/0/text.snp", "a text that is longer than a header\n");
  ASSERT_EQ(mkfifo(path("sw/current/cfg/0/fifo.snp").c_str(), 0644), 0);
  expect_refused("/cfg/0/text.snp", damaged);
  expect_refused("/cfg/0/fifo.snp", damaged);
  expect_refused("/cfg/0/vlan_cfg.pss", damaged);
  expect_refused("/cfg/0", damaged);
  expect_refused("/cfg/0/none.snp",
                 "the switch has none; 'datamorph lab show' tells what files there are");
  for (const char *name : {"/", "//cfg", "/cfg/0/../0/globalpss_table.snp", "/cfg/"}) {
    expect_refused(name, "a file is named by its path in the switch, /PATH/NAME, without '..', '.' "
                         "and empty parts");
  }
}

// A link of the switch leads to a place in the switch.
TEST_F(snapshot_files, a_link_does_not_lead_out) {
  ASSERT_EQ(symlink("/cfg/0/globalpss_table.snp", path("sw/current/tmp/link").c_str()), 0);
  EXPECT_NE(run({"store", "show", "sw", "/tmp/link"}).out.find("0c0000ff"), std::string::npos);
  write("outside.snp", read(std::string("sw/current") + table_1));
  ASSERT_EQ(symlink(path("outside.snp").c_str(), path("sw/current/tmp/out").c_str()), 0);
  expect_refused("/tmp/out",
                 "the switch has none; 'datamorph lab show' tells what files there are");
}

// ---- All requests of a version change ----------------------------------------------------------

TEST_F(gsdb, requests_come_in_the_order_of_the_tables) {
  const nlohmann::json report = convert({"--to", "4.2(1)", "--format", "json"}).json();

  std::vector<std::string> order;
  for (const nlohmann::json &request : report["requests"]) {
    EXPECT_EQ(request["status"], 0) << request;
    order.push_back(request["moment"].get<std::string>() + " " + request["vdc"].dump() + " " +
                    request["service"].get<std::string>());
  }
  EXPECT_EQ(order,
            (std::vector<std::string>{
                "gsync 1 PSS_HELPER", "gsync 1 IKE",        "gsync 1 AIC_DBG",
                "gsync 1 PIXM",       "gsync 1 TEST_ETHPM", "gsync 2 PSS_HELPER",
                "gsync 2 IKE",        "gsync 2 AIC_DBG",    "gsync 2 PIXM",
                "gsync 2 TEST_ETHPM", "running-fs 1 SKSD",  "running-fs 1 PLUGIN",
                "running-fs 1 EVMS",  "running-fs 1 EVMC",  "running-fs 1 MVSH",
                "running-fs 1 SMM",   "running-fs 1 CLIS",  "running-fs 1 EXCHANGE_PEER_PARAMS",
                "running-fs 1 KPS",   "running-fs 1 DOT1X", "startup 1 IKE",
                "startup 1 KPS",      "startup 1 DOT1X",    "startup 1 TEST_ETHPM",
                "startup 1 VRRP_MGR", "startup 1 VRRP_ENG", "startup 2 IKE",
                "startup 2 KPS",      "startup 2 DOT1X",    "startup 2 TEST_ETHPM",
                "startup 2 VRRP_MGR", "startup 2 VRRP_ENG"}));
}

} // namespace
