// store export and store import: what goes out comes in again, and what cannot is said beforehand.
#include "command.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

class store_transfer : public command_test {
protected:
  void SetUp() override {
    command_test::SetUp();
    create("sw");
  }
  static constexpr char vlan[] = "nonvolatile:/cfg/0/vlan_cfg";

  static std::string document(const std::string &stores) {
    return R"({"stores": [)" + stores + "]}";
  }
  static std::string store(const std::string &uri, const std::string &records,
                           const std::string &more = "") {
    return R"({"uri": ")" + uri + R"(", "records": [)" + records + "]" + more + "}";
  }
  std::string records(const std::string &uri) { return run({"store", "show", "sw", uri}).out; }

  void expect_refused(const result &refused, const std::string &message) {
    EXPECT_EQ(refused.status, 3);
    EXPECT_EQ(refused.out, "");
    EXPECT_NE(refused.err.find(message), std::string::npos) << refused.err;
  }
};

TEST_F(store_transfer, an_empty_key_is_a_key_like_others) {
  ASSERT_EQ(run({"store", "put", "sw", vlan, "", "02"}).status, 0);
  const std::string shown = records(vlan);
  ASSERT_EQ(run({"store", "export", "sw", vlan, "--file", "d.json"}).status, 0);

  const result removed = run({"store", "delete", "sw", vlan, ""});
  EXPECT_EQ(removed.status, 0) << removed.err;
  EXPECT_EQ(run({"store", "get", "sw", vlan, ""}).status, 3);
  const result imported = run({"store", "import", "sw", "--file", "d.json"});

  EXPECT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(run({"store", "get", "sw", vlan, ""}).out, "02\n");
  EXPECT_EQ(records(vlan), shown);
  EXPECT_EQ(run({"store", "delete", "sw", vlan, "", "--all"}).status, 64);
}

TEST_F(store_transfer, a_name_that_json_cannot_carry_is_not_changed_into_another) {
  for (const char *name :
       {"a\xff", "a\xfe", "surrogate\xed\xa0\x80", "long\xc0\xaf", "cut\xe2\x82"}) {
    expect_refused(
        run({"store", "put", "sw", std::string("nonvolatile:/cfg/") + name, "00", "", "--create"}),
        "a name that is no UTF-8");
  }
  const std::string cfg = path("sw/current/cfg/");
  std::filesystem::copy_file(cfg + "0/vlan_cfg.pss", cfg + "a\xff.pss");
  std::filesystem::copy_file(cfg + "0/vlan_cfg.pss", cfg + "a\xfe.pss");

  const nlohmann::json stores = run({"store", "list", "sw", "--format", "json"}).json()["stores"];
  const result all = run({"store", "export", "sw"});

  ASSERT_EQ(stores.size(), 39u);
  EXPECT_EQ(stores[8]["uri"], "nonvolatile:/cfg/a\\xfe");
  EXPECT_EQ(stores[9]["uri"], "nonvolatile:/cfg/a\\xff");
  EXPECT_NE(run({"store", "list", "sw"}).out.find("nonvolatile:/cfg/a\\xff "), std::string::npos);
  expect_refused(all, "'nonvolatile:/cfg/a\\xfe': its name cannot stand in a document");
  EXPECT_EQ(run({"store", "export", "sw", vlan}).json()["stores"].size(), 1u);
  EXPECT_EQ(run({"store", "delete", "sw", "nonvolatile:/cfg/a\xfe", "--all"}).status, 0);
  EXPECT_EQ(run({"store", "delete", "sw", "nonvolatile:/cfg/a\xff", "--all"}).status, 0);
  EXPECT_EQ(run({"store", "export", "sw"}).json()["stores"].size(), 37u);
}

TEST_F(store_transfer, names_in_utf8_are_carried) {
  const std::string uri = "nonvolatile:/cfg/gr\xc3\xbc\xc3\x9f-\xe2\x82\xac-\xf0\x9f\x94\x80";
  ASSERT_EQ(run({"store", "put", "sw", uri, "00", "01", "--create"}).status, 0);
  ASSERT_EQ(run({"store", "export", "sw", uri, "--file", "d.json"}).status, 0);
  ASSERT_EQ(run({"store", "delete", "sw", uri, "--all"}).status, 0);

  ASSERT_EQ(run({"store", "import", "sw", "--file", "d.json"}).status, 0);

  EXPECT_EQ(run({"store", "get", "sw", uri, "00"}).out, "01\n");
}

TEST_F(store_transfer, other_parameters_are_refused_and_not_passed_over) {
  const std::string one = R"({"key": "01", "value": "02"})";
  const auto with_limit = [&](int limit) {
    return document(store("nonvolatile:/cfg/p", one,
                          R"(, "params": {"max_node_keys": )" + std::to_string(limit) + "}"));
  };
  ASSERT_EQ(run({"store", "import", "sw"}, with_limit(2)).status, 0);
  const files before = state("sw");

  expect_refused(
      run({"store", "import", "sw"}, with_limit(50)),
      "store 'nonvolatile:/cfg/p': it has max_key_size 4096, max_value_size 1048576, "
      "max_node_keys 2, version 1, the document wants max_key_size 4096, "
      "max_value_size 1048576, max_node_keys 50, version 1; none of its stores was replaced; "
      "keep its own with --merge");
  expect_refused(run({"store", "import", "sw"},
                     document(store("nonvolatile:/cfg/p", one + R"(, {"key": "02", "value": ""},
                                    {"key": "03", "value": ""})"))),
                 "the document has 3 records, the store allows 2");
  EXPECT_EQ(state("sw"), before);

  EXPECT_EQ(run({"store", "import", "sw"}, with_limit(2)).status, 0);
  EXPECT_EQ(run({"store", "import", "sw"}, document(store("nonvolatile:/cfg/p", one))).status, 0);
  EXPECT_EQ(run({"store", "import", "sw", "--merge"}, with_limit(50)).status, 0);
  ASSERT_EQ(run({"store", "delete", "sw", "nonvolatile:/cfg/p", "--all"}).status, 0);
  EXPECT_EQ(run({"store", "import", "sw"}, with_limit(50)).status, 0);
  EXPECT_EQ(run({"store", "export", "sw", "nonvolatile:/cfg/p"})
                .json()["stores"][0]["params"]["max_node_keys"],
            50);
}

TEST_F(store_transfer, an_export_that_is_refused_writes_nothing) {
  write("sw/current/cfg/0/evms_runtime_cfg.pss", "no store at all");

  expect_refused(run({"store", "export", "sw", vlan, "volatile:/nope"}), "'volatile:/nope'");
  expect_refused(run({"store", "export", "sw", vlan, "nonvolatile:/cfg/0/evms_runtime_cfg"}),
                 "'nonvolatile:/cfg/0/evms_runtime_cfg'");
  expect_refused(run({"store", "export", "sw"}), "'nonvolatile:/cfg/0/evms_runtime_cfg'");
  EXPECT_EQ(run({"store", "export", "sw", vlan, vlan}).json()["stores"].size(), 1u);
}

TEST_F(store_transfer, an_import_that_fails_midway_replaces_none) {
  const std::string first = store(vlan, R"({"key": "01", "value": "aa"})");
  const std::string second =
      store("nonvolatile:/cfg/new", R"({"key": "01", "value": {"zeros": 900000}})");
  in_child = [] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {400000, 400000};
    setrlimit(RLIMIT_FSIZE, &limit);
  };

  const files before = state("sw");

  const result imported = run({"store", "import", "sw"}, document(first + "," + second));

  EXPECT_EQ(imported.status, 1);
  EXPECT_NE(imported.err.find("'nonvolatile:/cfg/new'"), std::string::npos) << imported.err;
  EXPECT_NE(imported.err.find("; none of its stores was replaced\n"), std::string::npos)
      << imported.err;
  EXPECT_EQ(state("sw"), before);
  expect_tidy("sw");
}

// Whoever imports as root takes nobody's switch away.
TEST_F(store_transfer, an_import_keeps_the_owner_of_the_description) {
  const std::string file = path("sw/current/switch.json");
  ASSERT_EQ(chown(file.c_str(), 65534, 65533), 0);
  ASSERT_EQ(chmod(file.c_str(), 0664), 0);

  EXPECT_EQ(run({"store", "import", "sw"}, document(store(vlan, ""))).status, 0);

  struct stat about = {};
  ASSERT_EQ(stat(file.c_str(), &about), 0);
  EXPECT_EQ(about.st_uid, 65534U);
  EXPECT_EQ(about.st_gid, 65533U);
  EXPECT_EQ(about.st_mode & 07777, 0664U);
}

TEST_F(store_transfer, an_import_that_is_refused_says_that_nothing_was_replaced) {
  write("sw/current/cfg/0/evms_runtime_cfg.pss", "no store at all");
  const std::string both = store(vlan, "") + "," + store("nonvolatile:/cfg/0/evms_runtime_cfg", "");

  expect_refused(run({"store", "import", "sw"}, document(both)),
                 "; none of its stores was replaced");
}

TEST_F(store_transfer, an_import_that_is_stopped_replaces_none) {
  std::string stores = store("nonvolatile:/cfg/n/0", "");
  for (int at = 1; at < 3000; ++at) {
    stores +=
        "," + store("nonvolatile:/cfg/n/" + std::to_string(at), R"({"key": "", "value": ""})");
  }
  write("d.json", document(stores));
  const std::unique_ptr<background> running = start({"store", "import", "sw", "--file", "d.json"});
  for (int at = 0; at < 2000 && !exists("sw/next/cfg/n/0.pss"); ++at) {
    std::this_thread::sleep_for(5ms);
  }
  ASSERT_TRUE(exists("sw/next/cfg/n/0.pss"));

  running->signal(SIGINT);
  const result stopped = running->wait();

  EXPECT_EQ(stopped.status, 130);
  EXPECT_NE(stopped.err.find("; none of its stores was replaced\n"), std::string::npos)
      << stopped.err;
  EXPECT_FALSE(exists("sw/current/cfg/n/0.pss"));
  expect_tidy("sw");
}

// Time in proportion to the document: a parser that looks at every earlier record at each one takes
// minutes for this.
TEST_F(store_transfer, a_document_of_300000_records_is_read_in_seconds) {
  std::string list;
  for (int at = 100000; at < 400000; ++at) {
    list += (list.empty() ? "" : ",") + (R"({"key": ")" + std::to_string(at)) +
            R"(", "value": {"text": "a value of a length that is usual"}})";
  }
  list += R"(, {"key": "00", "value": "", "value": ""})";
  write("d.json", document(store("nonvolatile:/cfg/large", list)));
  const auto begin = std::chrono::steady_clock::now();

  const result imported = run({"store", "import", "sw", "--file", "d.json"});

  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
  expect_refused(imported, "'d.json': the member 'value' stands twice in one object");
}

} // namespace
