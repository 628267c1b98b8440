// matrix tells what every change of release would do, and writes nothing of the switch.
#include "command.h"
#include "small_switch.h"

namespace {

class matrices : public small_switch_test {
protected:
  nlohmann::json matrix(const words &more = {}) {
    words all = {"matrix", "sw", "--format", "json"};
    all.insert(all.end(), more.begin(), more.end());
    const result done = run(all);
    EXPECT_EQ(done.status, 0) << done.err;
    return done.json();
  }
  // "4.1(5) 4.2(1) acts 53" of each.
  static words outcomes(const nlohmann::json &cells) {
    words lines;
    for (const nlohmann::json &cell : cells) {
      lines.push_back(cell["from"].get<std::string>() + " " + cell["to"].get<std::string>() + " " +
                      cell["outcome"].get<std::string>() + " " + cell["changes"].dump());
    }
    return lines;
  }
};

const words every_pair = {"3.3(1) 4.1(5) nothing 0", "3.3(1) 4.2(1) acts 49",
                          "4.1(5) 3.3(1) acts 61",   "4.1(5) 4.2(1) acts 53",
                          "4.2(1) 3.3(1) acts 90",   "4.2(1) 4.1(5) acts 33"};

TEST_F(matrices, every_pair_is_rehearsed_from_its_own_release) {
  const nlohmann::json shown = matrix();

  EXPECT_EQ(shown["switch"], "sw");
  EXPECT_EQ(shown["releases"], (words{"3.3(1)", "4.1(5)", "4.2(1)"}));
  EXPECT_EQ(outcomes(shown["cells"]), every_pair);
  EXPECT_EQ(shown["cells"][0]["text"], "");
  EXPECT_EQ(shown["cells"][0]["services"], words());
  EXPECT_EQ(shown["cells"][0]["routines"], words());
  const nlohmann::json &down = shown["cells"][5];
  EXPECT_EQ(down["text"], "33 changes");
  EXPECT_EQ(down["services"], (words{"PSS_HELPER", "TEST_ETHPM", "VRRP_ENG", "VRRP_MGR"}));
  EXPECT_EQ(down["routines"], (words{"svi_data_morph_psshlpr_upg", "ethpm_data_morph_gsync",
                                     "vrrp_eng_data_morph_startup_for_downgrade",
                                     "vrrp_mgr_data_morph_startup_for_downgrade"}));
}

TEST_F(matrices, a_pair_is_what_rehearse_and_convert_do) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);

  const nlohmann::json pair = matrix({"--release", "4.2(1)", "--release", "4.1(5)"});
  const result alone = run({"rehearse", "sw", "--to", "4.1(5)", "--format", "json"});

  EXPECT_EQ(outcomes(pair["cells"])[0], "4.2(1) 4.1(5) acts 33");
  EXPECT_EQ(alone.json()["changes"].size(), 34u); // and the release
}

TEST_F(matrices, lines_of_json_are_the_cells) {
  const result shown = run({"matrix", "sw", "--format", "jsonl"});
  EXPECT_EQ(shown.status, 0);
  nlohmann::json cells = nlohmann::json::array();
  for (const nlohmann::json &item : shown.items()) {
    cells.push_back(item);
  }
  EXPECT_EQ(outcomes(cells), every_pair);
  EXPECT_EQ(shown.json()["releases"], (words{"3.3(1)", "4.1(5)", "4.2(1)"}));
}

TEST_F(matrices, the_table) {
  const result shown = run({"matrix", "sw"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.err, "");
  EXPECT_TRUE(shown.out.starts_with("FROM   TO 3.3(1) TO 4.1(5) TO 4.2(1)\n"
                                    "3.3(1) -         nothing   acts (49)\n"
                                    "4.1(5) acts (61) -         acts (53)\n"
                                    "4.2(1) acts (90) acts (33) -\n"
                                    "\n"
                                    "FROM   TO     WHAT       BY\n"
                                    "3.3(1) 4.2(1) 49 changes svi_data_morph_psshlpr_upg "))
      << shown.out;
  EXPECT_EQ(shown.out.find("\n3.3(1) 4.1(5) "), std::string::npos); // it does nothing
  EXPECT_TRUE(shown.out.ends_with("\n\n6 pairs: 5 act, 1 do nothing, 0 fail\n")) << shown.out;
}

TEST_F(matrices, only_the_releases_that_are_named) {
  EXPECT_EQ(outcomes(matrix({"--release", "4.2(1)", "--release", "3.3(1)"})["cells"]),
            (words{"4.2(1) 3.3(1) acts 90", "3.3(1) 4.2(1) acts 49"}));
  const result alone = run({"matrix", "sw", "--release", "4.2(1)", "--release", "4.2(1)"});
  EXPECT_EQ(alone.status, 64);
  EXPECT_EQ(alone.out, "");
  EXPECT_EQ(alone.err, "datamorph: 'sw': a change of release wants two of them; name at least two "
                       "with --release\n");
}

TEST_F(matrices, unknown_releases_are_refused) {
  const result shown = run({"matrix", "sw", "--release", "4.2(1)", "--release", "9.9(9)"});
  EXPECT_EQ(shown.status, 3);
  EXPECT_EQ(shown.out, "");
  EXPECT_EQ(shown.err, "datamorph: 'sw': the release '9.9(9)' is unknown: the switch has no image "
                       "of it; images: 3.3(1) 4.1(5) 4.2(1)\n");
  EXPECT_EQ(run({"matrix", "none"}).status, 3);
  EXPECT_EQ(run({"matrix"}).status, 64);
}

// The rows of the releases that the switch cannot be brought to fail as well.
TEST_F(matrices, what_fails_says_why) {
  fake("fail");
  const nlohmann::json cells = matrix({"--release", "4.1(5)", "--release", "4.2(1)"})["cells"];
  const std::string why = "1 service failed (--accept-failures keeps the result all the same)";
  EXPECT_EQ(outcomes(cells), (words{"4.1(5) 4.2(1) fails 0", "4.2(1) 4.1(5) fails 0"}));
  EXPECT_EQ(cells[0]["text"], why);
  EXPECT_EQ(cells[1]["text"], "the switch cannot be brought to 4.2(1): " + why);

  const result table = run({"matrix", "sw", "--release", "4.1(5)", "--release", "4.2(1)"});
  EXPECT_EQ(table.status, 0);
  EXPECT_TRUE(table.out.starts_with("FROM   TO 4.1(5) TO 4.2(1)\n"
                                    "4.1(5) -         fails\n"
                                    "4.2(1) fails     -\n"
                                    "\n"
                                    "FROM   TO     WHAT"))
      << table.out;
  EXPECT_NE(table.out.find("\n4.1(5) 4.2(1) " + why), std::string::npos) << table.out;
}

TEST_F(matrices, a_crash_or_a_hang_is_of_its_pair) {
  const words pair = {"--release", "4.1(5)", "--release", "4.2(1)", "--timeout", "1"};
  fake("crash");
  EXPECT_EQ(matrix(pair)["cells"][0]["text"],
            "SKSD (running-fs, VDC 1): crashed: Segmentation fault (signal 11)");
  fake("hang");
  EXPECT_EQ(matrix(pair)["cells"][0]["text"],
            "SKSD (running-fs, VDC 1): no answer within 1 second");
}

TEST_F(matrices, nothing_is_written) {
  const files before = state("sw");
  const auto traces = traces_of(path("sw"));
  EXPECT_EQ(run({"matrix", "sw"}).status, 0);
  EXPECT_EQ(state("sw"), before);
  EXPECT_EQ(traces_of(path("sw")), traces);
  expect_tidy("sw");
}

} // namespace
