// The report that rehearse writes: a page, and every change as a line of JSON beside it.
#include "command.h"
#include "small_switch.h"

#include <sstream>

namespace {

namespace fs = std::filesystem;

constexpr char policies[] = "volatile:/cfg/0/evms_runtime_cfg"; // 3.3(1) has no such store
constexpr char script[] = "<script>alert(1)</script>";
constexpr char script_hex[] = "3c7363726970743e616c6572742831293c2f7363726970743e";

class reports : public small_switch_test {
protected:
  result rehearse(const words &more, int status = 0, const std::string &page = "r.html") {
    words all = {"rehearse", "sw", "--report", page};
    all.insert(all.end(), more.begin(), more.end());
    const result done = run(all);
    EXPECT_EQ(done.status, status) << done.err;
    return done;
  }
  std::string page() const { return read("r.html"); }
  void expect_in_page(const std::string &text) const {
    EXPECT_NE(page().find(text), std::string::npos) << text;
  }
  void expect_not_in_page(const std::string &text) const {
    EXPECT_EQ(page().find(text), std::string::npos) << text;
  }
  std::vector<nlohmann::json> lines(const std::string &name = "r.jsonl") const {
    std::vector<nlohmann::json> all;
    std::istringstream text(read(name));
    for (std::string line; std::getline(text, line);) {
      all.push_back(nlohmann::json::parse(line));
    }
    return all;
  }
};

TEST_F(reports, every_change_is_a_line_with_its_step_and_routine) {
  const result shown = rehearse({"--to", "4.2(1)", "--format", "json"});

  EXPECT_TRUE(shown.err.starts_with("datamorph: report: r.html, all changes: r.jsonl\n"))
      << shown.err;
  const std::vector<nlohmann::json> all = lines();
  ASSERT_EQ(all.size(), 54u);
  EXPECT_EQ(nlohmann::json(all), shown.json()["changes"]);
  EXPECT_EQ(all[0]["kind"], "switch");
  EXPECT_EQ(all[0]["step"], nullptr);
  for (size_t at = 1; at < all.size(); ++at) {
    EXPECT_TRUE(all[at]["step"].is_number_unsigned()) << all[at];
    EXPECT_TRUE(all[at]["routine"].is_string()) << all[at];
  }
  expect_in_page("<p class=\"result good\">It would be converted from 4.1(5) to 4.2(1)</p>");
  expect_in_page("95 records in, 90 converted, 5 removed by rule, "
                 "<strong>0 unaccounted</strong>");
}

TEST_F(reports, lines_stand_beside_the_page_and_are_linked_from_there) {
  std::string records = R"({"stores": [{"uri": ")" + std::string(policies) + R"(", "records": [)";
  for (int at = 100; at < 1200; ++at) {
    char key[16];
    std::snprintf(key, sizeof key, "%08x", at);
    records += std::string(at == 100 ? "" : ",") + R"({"key": ")" + key + R"(", "value": "00"})";
  }
  ASSERT_EQ(run({"store", "import", "sw"}, records + "]}]}").status, 0);
  fs::create_directory(path("to mail"));

  rehearse({"--to", "3.3(1)"}, 0, "to mail/a report.html");

  size_t of_the_store = 0;
  for (const nlohmann::json &change : lines("to mail/a report.jsonl")) {
    of_the_store += change["name"] == policies && change.contains("key") ? 1 : 0;
  }
  EXPECT_EQ(of_the_store, 1100u);
  const std::string written = read("to mail/a report.html");
  EXPECT_NE(written.find("\"complete\":\"a%20report.jsonl\""), std::string::npos);
  EXPECT_NE(written.find(" more in <a href=\"a%20report.jsonl\">the complete list</a>."),
            std::string::npos); // of what is lost
  // What the page keeps of the store is said in its facts, and its rest counted.
  EXPECT_NE(written.find("\"kept\":1000,\"kind\":\"store\",\"name\":\"" + std::string(policies) +
                         "\",\"removed\":1101,\"total\":1101,"),
            std::string::npos);
}

TEST_F(reports, another_name_gets_its_ending_added) {
  rehearse({"--to", "4.2(1)"}, 0, "report");
  EXPECT_EQ(lines("report.jsonl").size(), 54u);
  EXPECT_NE(read("report").find("\"complete\":\"report.jsonl\""), std::string::npos);
}

TEST_F(reports, an_older_report_is_replaced) {
  write("r.html", "old");
  write("r.jsonl", "old");
  rehearse({"--to", "4.2(1)"});
  EXPECT_EQ(lines().size(), 54u);
  EXPECT_TRUE(page().starts_with("<!DOCTYPE html>") || page().starts_with("<!doctype html>"));
}

TEST_F(reports, other_ways_and_every_pair_are_in_it) {
  rehearse({"--to", "4.2(1)", "--matrix", "--round-trip", "--via", "3.3(1)"});
  expect_in_page("<h2 id=\"round-trip-head\">Round trip</h2>\n<p>22 changes did not return");
  expect_in_page("<h2 id=\"via-head\">By way of 3.3(1)</h2>\n<p>");
  expect_in_page("<th scope=\"row\">4.2(1)</th><td class=\"acts ");
  expect_in_page("<small>90 changes</small></td>"); // 4.2(1) to 3.3(1)
  EXPECT_EQ(lines().size(), 54u);                   // of the way that was asked for only

  rehearse({"--to", "4.2(1)"});
  expect_not_in_page("id=\"round-trip\"");
  expect_not_in_page("id=\"via\"");
  expect_not_in_page("id=\"matrix\"");
}

TEST_F(reports, what_is_lost_is_in_it) {
  ASSERT_EQ(run({"convert", "sw", "--to", "4.2(1)"}).status, 0);
  rehearse({"--to", "4.1(5)"});
  expect_in_page("98 records in, 96 converted, 2 removed by rule, ");
  expect_in_page("<h3>2 records</h3>");
  expect_in_page("<h3>20 fields</h3>");
  expect_in_page("<dt>lower_threshold_prio</dt><dd>0</dd>");
}

TEST_F(reports, what_is_unaccounted_for_stands_out) {
  fake("remove");
  rehearse({"--to", "4.2(1)"}, 1);
  expect_in_page("<strong class=\"bad\">1 unaccounted</strong>");
  expect_in_page("<p class=\"by\"><strong class=\"bad\">unaccounted for</strong>; by <a href=");
  EXPECT_NE(read("r.jsonl").find("\"name\":\"nonvolatile:/cfg/0/vlan_cfg\""), std::string::npos);
}

TEST_F(reports, of_a_conversion_that_fails) {
  const std::pair<const char *, const char *> rows[] = {
      {"fail", "1 service failed (--accept-failures keeps the result all the same)"},
      {"crash", "SKSD (running-fs, VDC 1): crashed: Segmentation fault (signal 11)"},
      {"hang", "SKSD (running-fs, VDC 1): no answer within 1 second"}};
  for (const auto &[what, text] : rows) {
    fake(what);
    const result shown =
        rehearse({"--to", "4.2(1)", "--timeout", "1", "--round-trip", "--matrix"}, 1);
    EXPECT_NE(shown.err.find("datamorph: report: r.html, "), std::string::npos) << shown.err;
    expect_in_page(std::string("<p class=\"result bad\">It would not be converted: ") + text);
    expect_in_page("class=\"status bad\">");
    expect_in_page("<td class=\"fails\"><b>fails</b> <small>");
    expect_not_in_page("id=\"round-trip\"");
  }
}

TEST_F(reports, markup_stays_text) {
  nlohmann::json description = example();
  nlohmann::json &stores = description["stores"];
  for (nlohmann::json &store : stores) {
    if (store["uri"] == policies) {
      store["records"].push_back({{"key", {{"text", script}}}, {"value", {{"text", script}}}});
    }
  }
  make("sw", description);
  const std::string name = "<img src=x onerror=alert(1)>&'\"";
  fs::rename(path("sw"), path(name));

  const result shown = run({"rehearse", name, "--to", "3.3(1)", "--report", "r.html"});

  EXPECT_EQ(shown.status, 0) << shown.err;
  expect_not_in_page(script);
  expect_not_in_page("<img");
  expect_in_page(std::string("<code>") + script_hex + "</code>"); // the key of what is lost
  expect_in_page(std::string("<dt>bytes</dt><dd>") + script_hex + "</dd>");
  expect_in_page("<title>&lt;img src=x onerror=alert(1)&gt;&amp;&#39;&quot;: 4.1(5) to 3.3(1)");
}

TEST_F(reports, a_place_that_cannot_be_written_is_refused) {
  write("file", "");
  fs::create_directory(path("folder.html"));
  fs::create_directory(path("lines.jsonl"));
  const std::pair<std::string, std::string> rows[] = {{"none/r.html", "No such file or directory"},
                                                      {"file/r.html", "Not a directory"},
                                                      {"folder.html", "Is a directory"},
                                                      {"lines.html", "Is a directory"}};
  for (const auto &[place, why] : rows) {
    const result shown = rehearse({"--to", "4.2(1)"}, 3, place);
    EXPECT_EQ(shown.out, "") << place;
    EXPECT_TRUE(shown.err.starts_with("datamorph: ")) << shown.err;
    EXPECT_NE(shown.err.find(why), std::string::npos) << shown.err;
    EXPECT_EQ(std::count(shown.err.begin(), shown.err.end(), '\n'), 1) << shown.err;
    EXPECT_FALSE(fs::is_regular_file(path(place)));
  }
  EXPECT_TRUE(fs::is_empty(path("folder.html")));
}

TEST_F(reports, nothing_of_the_switch_is_written) {
  const files before = state("sw");
  const auto traces = traces_of(path("sw"));
  rehearse({"--to", "4.2(1)", "--matrix"});
  EXPECT_EQ(state("sw"), before);
  EXPECT_EQ(traces_of(path("sw")), traces);
}

TEST_F(reports, the_matrix_is_in_the_document_too) {
  const nlohmann::json shown =
      run({"rehearse", "sw", "--to", "4.2(1)", "--matrix", "--format", "json"}).json();
  EXPECT_EQ(shown["matrix"]["releases"], (words{"3.3(1)", "4.1(5)", "4.2(1)"}));
  EXPECT_EQ(shown["matrix"]["cells"].size(), 6u);
  EXPECT_EQ(shown["matrix"]["cells"][3]["changes"], 53);
}

} // namespace
