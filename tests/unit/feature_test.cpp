// Whether a feature was running: its flag in the saved configuration.

#include "libdatamorph_private.h"

#include "support/library_fixture.h"
#include "support/trace_facility.h"

namespace {

struct feature_row {
  boolean (*was_running)(const char *path);
  uuid_t uuid;
  const char *name;
  const char *store;
  const char *key;
  const char *fetch; // as the log has it
  const char *enabled;
  const char *not_enabled;
  const char *enter; // of the second decision, up to the release
};

const feature_row k_features[] = {
    {was_dot1x_running, SRVUUID_DOT1X, "was_dot1x_running",
     "nonvolatile:/cfg/startup/bin/dot1x_saved_config", "64 0a 00 00 00 00 00 00 00 00 00 00",
     "pss_fetch(1, 640a00000000000000000000)", "was_dot1x_running: Dot1x is enabled and running",
     "was_dot1x_running: Dot1x is not enabled",
     "was_running_compulsory_conditional: ENTER with path: /cfg/startup/bin, uuid 381 and "
     "from_ver: "},
    {was_psec_running, SRVUUID_ETH_PORT_SEC, "was_psec_running",
     "nonvolatile:/cfg/startup/bin/eth_port_sec_saved_config", "00 00 00 00 00 00 00 00",
     "pss_fetch(1, 0000000000000000)", "was_psec_running: Port Security is enabled and running",
     "was_psec_running: Port Security is not enabled",
     "was_running_compulsory_conditional: ENTER with path: /cfg/startup/bin, uuid 367 and "
     "from_ver: "},
    {was_kps_running, SRVUUID_KPS, "was_kps_running",
     "nonvolatile:/cfg/startup/bin/kps_saved_config", "f0 00 00 00", "pss_fetch(1, f0000000)",
     "was_kps_running: KPS is enabled and running", "was_kps_running: KPS is not enabled",
     "was_running_compulsory_conditional: ENTER with path: /cfg/startup/bin, uuid 542 and "
     "from_ver: "},
};

class feature_test : public library_fixture {
protected:
  // Whether it was running, by what it says and by what it traces.
  lines_t ask(const feature_row &feature, const char *path = "/cfg/startup/bin") {
    return traced([&] { running = feature.was_running(path); });
  }

  void enable(const feature_row &feature, const std::string &value) {
    platform.reset();
    platform.set_store(feature.store, {{bytes(feature.key), bytes(value)}, {"other", "record"}});
  }

  static std::string uri_line(const feature_row &feature) {
    return std::string(feature.name) + ": TOTOAL URI " + feature.store + " ";
  }

  boolean running = -1;
};

TEST_F(feature_test, an_enabled_feature) {
  for (const feature_row &feature : k_features) {
    enable(feature, "01 00 00 00");
    EXPECT_EQ(lines_t({uri_line(feature), feature.enabled}), ask(feature));
    EXPECT_EQ(1, running);
    EXPECT_EQ(lines_t({"pss_open(\"" + std::string(feature.store) + "\")", feature.fetch,
                       "pss_close(1)"}),
              platform.calls());
  }
}

TEST_F(feature_test, any_bit_of_the_first_word_counts) {
  for (const char *value :
       {"80 00 00 00", "00 00 00 01", "00 00 00 80", "00 00 01 00 00 00 00 00"}) {
    for (const feature_row &feature : k_features) {
      enable(feature, value);
      EXPECT_EQ(feature.enabled, ask(feature).back()) << value;
      EXPECT_EQ(1, running);
    }
  }
}

TEST_F(feature_test, a_first_word_of_zero_or_none_is_not_enabled) {
  for (const char *value : {"00 00 00 00", "00 00 00 00 01", "", "01", "ff ff ff"}) {
    for (const feature_row &feature : {k_features[0], k_features[1]}) {
      enable(feature, value);
      EXPECT_EQ(lines_t({uri_line(feature), feature.not_enabled}), ask(feature)) << value;
      EXPECT_EQ(0, running);
      EXPECT_TRUE(platform.open_handles().empty());
    }
  }
}

TEST_F(feature_test, any_value_enables_kps) {
  for (const char *value : {"00 00 00 00", "", "00", "01 00 00 00"}) {
    enable(k_features[2], value);
    EXPECT_EQ(lines_t({uri_line(k_features[2]), k_features[2].enabled}), ask(k_features[2]));
    EXPECT_EQ(1, running);
  }
}

TEST_F(feature_test, a_fetch_that_gives_nothing_is_not_enabled) {
  for (const feature_row &feature : k_features) {
    enable(feature, "01 00 00 00");
    platform.answer_null("pss_fetch");
    EXPECT_EQ(lines_t({uri_line(feature), feature.not_enabled}), ask(feature));
    EXPECT_EQ(0, running);
    EXPECT_EQ("pss_close(1)", platform.calls().back());
  }
}

TEST_F(feature_test, a_fetch_without_bytes_is_not_enabled) {
  for (const feature_row &feature : k_features) {
    enable(feature, "01 00 00 00");
    platform.answer_without_bytes("pss_fetch", 4);
    EXPECT_EQ(lines_t({uri_line(feature), feature.not_enabled}), ask(feature));
    EXPECT_EQ(0, running);
  }
}

TEST_F(feature_test, a_store_without_the_key) {
  for (const feature_row &feature : k_features) {
    platform.reset();
    platform.set_store(feature.store, {{"other", "record"}});
    EXPECT_EQ(lines_t({uri_line(feature), std::string(feature.name) + ": Key not found: success"}),
              ask(feature));
    EXPECT_EQ(0, running);
    EXPECT_EQ("pss_close(1)", platform.calls().back());
  }
}

TEST_F(feature_test, a_failed_fetch_reports_the_status_of_the_open) {
  for (const feature_row &feature : k_features) {
    enable(feature, "01 00 00 00");
    platform.fail("pss_fetch", 0x40480009);
    EXPECT_EQ(lines_t({uri_line(feature),
                       std::string(feature.name) + ": Not able to fetch the key: success"}),
              ask(feature));
    EXPECT_EQ(0, running);
    EXPECT_EQ("pss_close(1)", platform.calls().back());
  }
}

TEST_F(feature_test, a_store_that_cannot_be_opened) {
  for (const feature_row &feature : k_features) {
    platform.reset();
    EXPECT_EQ(lines_t({uri_line(feature),
                       std::string(feature.name) + ": pss_open error: no such store\n"}),
              ask(feature));
    EXPECT_EQ(0, running);
    EXPECT_EQ(1u, platform.calls().size());

    enable(feature, "01 00 00 00");
    platform.damage(feature.store);
    EXPECT_EQ(std::string(feature.name) + ": pss_open error: store or record damaged\n",
              ask(feature).back());
    EXPECT_EQ(0, running);
  }
}

TEST_F(feature_test, a_failed_close_is_told_with_the_message_of_the_open) {
  for (const feature_row &feature : k_features) {
    const std::string line =
        std::string(feature.name) + ": pss_open error: input or output error in a store\n";
    enable(feature, "01 00 00 00");
    platform.fail("pss_close", 0x4048000B);
    EXPECT_EQ(lines_t({uri_line(feature), feature.enabled, line}), ask(feature));
    EXPECT_EQ(1, running);

    platform.set_store(feature.store);
    platform.fail("pss_close", 0x4048000B);
    EXPECT_EQ(
        lines_t({uri_line(feature), std::string(feature.name) + ": Key not found: success", line}),
        ask(feature));
    EXPECT_EQ(0, running);
  }
}

TEST_F(feature_test, the_uri_is_cut_at_119_characters) {
  for (const feature_row &feature : k_features) {
    platform.clear();
    const std::string cut = "nonvolatile:" + std::string(107, 'p');
    EXPECT_EQ(lines_t({std::string(feature.name) + ": TOTOAL URI " + cut + " ",
                       std::string(feature.name) + ": pss_open error: no such store\n"}),
              ask(feature, std::string(4000, 'p').c_str()));
    EXPECT_EQ(lines_t({"pss_open(\"" + cut + "\")"}), platform.calls());
  }
}

TEST_F(feature_test, a_null_path_is_no_running_feature) {
  for (const feature_row &feature : k_features) {
    EXPECT_EQ(lines_t(), ask(feature, nullptr));
    EXPECT_EQ(0, running);
  }
  EXPECT_TRUE(platform.calls().empty());
}

// ---- From compulsory to optional

class compulsory_test : public feature_test {
protected:
  lines_t decide(const feature_row &feature, const char *from_ver) {
    return traced([&] {
      moves = was_running_compulsory_conditional("/cfg/startup/bin", feature.uuid, from_ver);
    });
  }

  int moves = -1;
};

TEST_F(compulsory_test, an_enabled_feature_of_an_older_release_moves) {
  for (const feature_row &feature : k_features) {
    for (const char *from_ver : {"4.1(5)", "4.2(0)", "3.3(1)", ""}) {
      enable(feature, "01 00 00 00");
      const trace_facility facility(0xffffffff);
      EXPECT_EQ(
          lines_t({std::string(feature.enter) + from_ver + "\n", uri_line(feature), feature.enabled,
                   "was_running_compulsory_conditional: Moving from compulsory to optional "
                   "service\n"}),
          decide(feature, from_ver));
      EXPECT_EQ(1, moves);
      EXPECT_EQ(lines_t({"<1> was_running_compulsory_conditional: ret_val 1\n"}), facility.lines());
    }
  }
}

TEST_F(compulsory_test, from_4_2_1_on_no_store_is_opened) {
  const struct {
    const char *from_ver;
    const char *line;
  } rows[] = {{"4.2(1)", "<1> was_running_compulsory_conditional: ret_val 0\n"},
              {"4.2(1).S3", "<1> was_running_compulsory_conditional: ret_val 0\n"},
              {"4.2(2)", "<1> was_running_compulsory_conditional: ret_val -1\n"},
              {"5.0(2)", "<1> was_running_compulsory_conditional: ret_val -1\n"}};
  for (const feature_row &feature : k_features) {
    for (const auto &row : rows) {
      enable(feature, "01 00 00 00");
      const trace_facility facility(1);
      EXPECT_EQ(lines_t({std::string(feature.enter) + row.from_ver + "\n"}),
                decide(feature, row.from_ver));
      EXPECT_EQ(0, moves);
      EXPECT_EQ(lines_t({row.line}), facility.lines());
      EXPECT_TRUE(platform.calls().empty());
    }
  }
}

TEST_F(compulsory_test, a_feature_that_was_not_running_stays) {
  for (const feature_row &feature : k_features) {
    platform.reset();
    const lines_t lines = decide(feature, "4.1(5)");
    EXPECT_EQ(0, moves);
    EXPECT_EQ(std::string(feature.name) + ": pss_open error: no such store\n", lines.back());
  }
}

TEST_F(compulsory_test, other_services_are_not_looked_at) {
  const trace_facility facility(0xffffffff);
  EXPECT_EQ(lines_t({"was_running_compulsory_conditional: ENTER with path: /cfg, uuid 11 and "
                     "from_ver: 4.1(5)\n"}),
            traced([this] {
              moves = was_running_compulsory_conditional("/cfg", SRVUUID_VRRP_MGR, "4.1(5)");
            }));
  EXPECT_EQ(0, moves);
  EXPECT_EQ(lines_t({"was_running_compulsory_conditional: ENTER with path: /cfg, uuid 70000 and "
                     "from_ver: 4.1(5)\n"}),
            traced([&] {
              moves =
                  was_running_compulsory_conditional("/cfg", static_cast<uuid_t>(70000), "4.1(5)");
            }));
  EXPECT_EQ(0, moves);
  EXPECT_EQ(lines_t(), facility.lines());
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(compulsory_test, nulls) {
  EXPECT_EQ(lines_t({std::string(k_features[2].enter) + "(null)\n",
                     "datamorph_compare_versions: Invalid or NULL argument passed\n",
                     "was_running_compulsory_conditional: datamorph_compare_versions returned "
                     "-1\n"}),
            decide(k_features[2], nullptr));
  EXPECT_EQ(0, moves);
  EXPECT_EQ(lines_t({"was_running_compulsory_conditional: ENTER with path: (null), uuid 542 and "
                     "from_ver: 4.1(5)\n"}),
            traced([this] {
              moves = was_running_compulsory_conditional(nullptr, SRVUUID_KPS, "4.1(5)");
            }));
  EXPECT_EQ(0, moves);
  EXPECT_EQ(lines_t({"was_running_compulsory_conditional: ENTER with path: (null), uuid 0 and "
                     "from_ver: (null)\n"}),
            traced([this] {
              moves = was_running_compulsory_conditional(nullptr, SRVUUID_NONE, nullptr);
            }));
  EXPECT_EQ(0, moves);
  EXPECT_TRUE(platform.calls().empty());
}

} // namespace
