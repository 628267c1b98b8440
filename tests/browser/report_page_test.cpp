// What the report's page shows and how it is used, in a browser: pages of literal documents.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "browser/browser.h"
#include "failure.h"
#include "report_page.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using texts = std::vector<std::string>;

const char *const vrrp_store = "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav";
const char *const markup =
    "</script x></script><script>harmed=1</script><img src=x onerror=harmed=2><!--<script>&lt;";

// ---- Documents ---------------------------------------------------------------------------------

json head() {
  return {{"switch", "datacenter-1"}, {"from", "4.1(5)"}, {"to", "4.2(1)"},
          {"library", "lib.so.1"},    {"time", "now"},    {"version", "1.0.0"}};
}

json step(const char *moment, const char *service) {
  return {{"moment", moment},
          {"vdc", 1},
          {"service", service},
          {"routines", {std::string(service) + "_routine"}},
          {"status", "0x00000000"},
          {"status_text", "success"},
          {"trouble", ""},
          {"milliseconds", 1.25},
          {"records", {{"added", 0}, {"changed", 1}, {"removed", 2}}},
          {"trace", {"line of " + std::string(service)}}};
}

json empty_tail() {
  const json none = {{"added", 0}, {"removed", 0}, {"changed", 0}};
  return {{"steps", json::array()},
          {"losses",
           {{"records", json::array()},
            {"fields", json::array()},
            {"records_total", 0},
            {"fields_total", 0}}},
          {"summary",
           {{"records_in", 0},
            {"converted", 0},
            {"removed_by_rule", 0},
            {"unaccounted", 0},
            {"things", none},
            {"records", none},
            {"undecoded", 0},
            {"misfits", 0},
            {"unchanged_misfits", 0},
            {"unreadable", 0}}},
          {"round_trip", nullptr},
          {"via", nullptr},
          {"matrix", nullptr},
          {"complete", nullptr},
          {"result", "would be converted"},
          {"converted", true}};
}

json record(const char *change, const std::string &store, const std::string &key) {
  json document = {
      {"change", change}, {"kind", "store"}, {"name", store}, {"key", key}, {"step", nullptr}};
  if (std::string(change) != "added") {
    document["a"] = {{"value", "0a0b"}};
  }
  if (std::string(change) != "removed") {
    document["b"] = {{"value", "0c0d"}};
  }
  return document;
}

// Four changes of three things, two steps, a record and a field that are lost.
std::vector<json> some_changes() {
  json release = {{"change", "changed"},
                  {"kind", "switch"},
                  {"name", "switch.json"},
                  {"a", {{"release", "4.1(5)"}}},
                  {"b", {{"release", "4.2(1)"}}},
                  {"fields", {{"release", {{"a", "4.1(5)"}, {"b", "4.2(1)"}}}}},
                  {"step", nullptr}};
  json reason = record("changed", "nonvolatile:/cfg/0/ethpm_runtime_info", "33061a000000");
  reason["a"]["decoded"] = {{"kind", "interface runtime info"}, {"reason", 124}, {"unit", 7}};
  reason["b"]["decoded"] = {{"kind", "interface runtime info"}, {"reason", 143}, {"unit", 7}};
  reason["fields"]["reason"] = {{"a", 124}, {"b", 143}};
  reason["step"] = 0;
  reason["routine"] = "TEST_ETHPM_routine";
  json router = record("removed", vrrp_store, "0a01");
  router["a"]["decoded"] = {
      {"kind", "VR record"}, {"prio", 120}, {"primary_ip", {{"address", "10.1.1.2"}}}};
  router["step"] = 1;
  json unknown = record("added", vrrp_store, "0a02");
  unknown["step"] = 1;
  return {release, reason, router, unknown};
}

json some_tail() {
  json tail = empty_tail();
  tail["steps"] = {step("gsync", "TEST_ETHPM"), step("startup", "VRRP_MGR")};
  tail["steps"][1]["status"] = "0x40480004";
  tail["steps"][1]["status_text"] = "no such store";
  tail["steps"][1]["trouble"] = "it did not come back";
  tail["losses"] = {{"records",
                     {{{"store", vrrp_store},
                       {"key", "0a01"},
                       {"decoded", {{"kind", "VR record"}, {"prio", 120}}},
                       {"value", "0a0b"},
                       {"step", 1},
                       {"why", "removed by rule"}}}},
                    {"fields",
                     {{{"store", "nonvolatile:/cfg/0/ethpm_runtime_info"},
                       {"key", "33061a000000"},
                       {"kind", "interface runtime info"},
                       {"field", "speed"},
                       {"value", 10000},
                       {"step", 0}}}},
                    {"records_total", 1},
                    {"fields_total", 1}};
  tail["summary"]["records_in"] = 98;
  tail["summary"]["converted"] = 95;
  tail["summary"]["removed_by_rule"] = 2;
  tail["summary"]["unaccounted"] = 1;
  return tail;
}

// ---- The fixture -------------------------------------------------------------------------------

class report_page_test : public testing::Test {
protected:
  static void SetUpTestSuite() {
    std::string name = (fs::temp_directory_path() / "report_page_test.XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = new std::string(name);
    browser_ = std::make_unique<browser>(name);
  }
  static void TearDownTestSuite() {
    browser_.reset();
    // What was killed with the browser may write its last file just now.
    std::error_code error;
    for (int at = 0; at < 100 && fs::exists(*folder_); ++at) {
      fs::remove_all(*folder_, error);
      usleep(10000);
    }
    EXPECT_FALSE(fs::exists(*folder_));
    delete folder_;
  }

  static std::string address(const std::string &fragment = "") {
    return "file://" + *folder_ + "/page.html" + fragment;
  }
  static void write(const std::vector<json> &changes, const json &tail, const json &top = head()) {
    const int fd = open((*folder_ + "/page.html").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    report_page page(fd, top);
    for (const json &change : changes) {
      page.change(change);
    }
    page.finish(tail);
    close(fd);
  }
  // Writes a page and opens it. No page ever complains, or asks for anything but itself.
  static void show(const std::vector<json> &changes, const json &tail,
                   const std::string &fragment = "") {
    write(changes, tail);
    at().open(address(fragment));
  }
  void TearDown() override {
    EXPECT_EQ(at().complaints(), texts());
    for (const std::string &request : at().requests()) {
      EXPECT_EQ(request.substr(0, request.find('#')), address());
    }
  }

  static browser &at() { return *browser_; }
  static json value(const std::string &expression) { return at().value(expression); }
  // The text of the first element that a selector finds, its blanks as one.
  static std::string text(const std::string &selector) {
    return value("document.querySelector('" + selector +
                 "').textContent.replace(/\\s+/g, ' ').trim()");
  }
  // Those of all.
  static texts all(const std::string &selector) {
    return value("[...document.querySelectorAll('" + selector +
                 "')].map((one) => one.textContent.replace(/\\s+/g, ' ').trim())");
  }
  static bool eventually(const std::string &expression) {
    return value("new Promise((done) => { let n = 0; const look = () => (" + expression +
                 ") ? done(true) : ++n > 500 ? done(false) : setTimeout(look, 10); look(); })");
  }

  static inline std::string *folder_ = nullptr;
  static inline std::unique_ptr<browser> browser_;
};

// ---- What it shows -----------------------------------------------------------------------------

TEST_F(report_page_test, summary_losses_and_steps_can_be_read) {
  show(some_changes(), some_tail());
  EXPECT_EQ(value("document.title"), "datacenter-1: 4.1(5) to 4.2(1)");
  EXPECT_EQ(text(".about"), "Rehearsed now by datamorph 1.0.0 with lib.so.1");
  EXPECT_EQ(text(".account"), "98 records in, 95 converted, 2 removed by rule, 1 unaccounted");
  EXPECT_EQ(text(".account .bad"), "1 unaccounted");
  EXPECT_EQ(text("#summary .warning").substr(0, 26), "Warning: records are gone ");
  EXPECT_EQ(all("#losses summary"), texts({"1 record", "1 field"}));
  EXPECT_EQ(
      all(".loss"),
      texts({"VR record 0a01 of nonvolatile:/cfg/startup/bin/vrrp-cfg_config_savprio120bytes0a0b"
             "removed by rule; by startup, VDC 1: VRRP_MGR",
             "interface runtime info 33061a000000 of nonvolatile:/cfg/0/ethpm_runtime_info"
             "speed10000by gsync, VDC 1: TEST_ETHPM"}));
  EXPECT_EQ(all("#timeline h3"), texts({"gsync, VDC 1", "startup, VDC 1"}));
  EXPECT_EQ(all("#timeline summary"), texts({"TEST_ETHPMsuccess1 changed, 2 removed1.2 ms",
                                             "VRRP_MGRno such store1 changed, 2 removed1.2 ms"}));
  EXPECT_EQ(all("#timeline .bad"), texts({"no such store"}));
  EXPECT_EQ(all("#timeline .warning"), texts({"it did not come back"}));
}

TEST_F(report_page_test, nothing_lost_nothing_changed) {
  show({}, empty_tail());
  EXPECT_EQ(text("#losses .good"), "Nothing is lost.");
  EXPECT_EQ(text("#timeline p"), "No service was called.");
  EXPECT_EQ(text("#shown"), "Nothing changes.");
  EXPECT_EQ(all(".account .bad, .warning"), texts());
  EXPECT_EQ(all("nav a"), texts({"Summary", "Losses", "Timeline", "Changes"}));
  EXPECT_EQ(value("document.getElementById('filters').hidden"), true);
}

TEST_F(report_page_test, changes_stand_by_thing_field_by_field) {
  show(some_changes(), some_tail());
  EXPECT_EQ(text("#shown"), "4 changes of 3 things.");
  EXPECT_EQ(all("#things summary h3"),
            texts({"switch.json", "nonvolatile:/cfg/0/ethpm_runtime_info",
                   "nonvolatile:/cfg/startup/bin/vrrp-cfg_config_sav"}));
  EXPECT_EQ(all("#things .change h4"),
            texts({"changed switch", "changed interface runtime info 33061a000000",
                   "removed VR record 0a01", "added record 0a02"}));
  EXPECT_EQ(all("#things .change > table tr"),
            texts({"FieldBeforeAfter", "release4.1(5)4.2(1)", "FieldBeforeAfter", "reason124143"}));
  EXPECT_EQ(all("#things .fields > div"),
            texts({"primary_ipaddress 10.1.1.2", "prio120", "bytes0c0d"}));
  EXPECT_EQ(all("#things .word.lost"), texts({"lost: speed 10000", "lost: removed by rule"}));
  EXPECT_EQ(
      all("#things .by"),
      texts({"by the version change itself", "by gsync, VDC 1: TEST_ETHPM, TEST_ETHPM_routine",
             "by startup, VDC 1: VRRP_MGR", "by startup, VDC 1: VRRP_MGR"}));
  value("document.querySelector('.change details').open = true");
  EXPECT_TRUE(eventually("document.querySelectorAll('.change details tbody tr').length === 3"));
  EXPECT_EQ(all(".change details tbody tr"), texts({"reason124143", "unit77", "bytes0a0b0c0d"}));
  value("document.querySelector('.change.removed details').open = true");
  EXPECT_TRUE(eventually("document.querySelector('.change.removed details code') !== null"));
  EXPECT_EQ(text(".change.removed details"), "Bytes0a0b");
}

TEST_F(report_page_test, what_could_not_be_read_is_told) {
  show({{{"change", "unreadable"},
         {"kind", "store"},
         {"name", "nonvolatile:/x"},
         {"b", {{"trouble", "it is damaged"}}},
         {"step", nullptr}}},
       empty_tail());
  EXPECT_EQ(text(".change"), "unreadable storeAfter: it is damagedby a step that is not known");
}

TEST_F(report_page_test, what_does_not_fit_its_release_is_told) {
  json change = record("changed", "nonvolatile:/x", "0a01");
  change["a"]["decoded"] = {{"kind", "VR record"}, {"prio", 120}};
  change["b"]["decoded"] = {
      {"kind", "VR record"}, {"misfit", true}, {"problems", {"2 bytes, but it has 117"}}};
  json tail = empty_tail();
  tail["summary"]["misfits"] = 1;
  show({change}, tail);
  EXPECT_EQ(all("#things .word.misfit"), texts({"does not fit its release"}));
  EXPECT_EQ(all("#things .change > table tbody tr"),
            texts({"problemsnone2 bytes, but it has 117", "bytes0a0b0c0d"}));
  EXPECT_EQ(all("#summary .bad"), texts({"Do not fit their release1 changed, 0 unchanged"}));
}

TEST_F(report_page_test, what_is_not_known_is_told) {
  json tail = some_tail();
  tail["losses"]["records"][0]["why"] = nullptr;
  tail["steps"][1]["status"] = nullptr;
  tail["steps"][1]["status_text"] = "";
  tail["steps"][1]["trouble"] = "it crashed";
  tail["round_trip"] = {{"trouble", "no way"}, {"changes", json::array()}, {"total", 0}};
  tail["via"] = tail["round_trip"];
  tail["via"]["release"] = "4.1(1)";
  show(some_changes(), tail);
  EXPECT_EQ(text("#losses .by"), "unaccounted for; by startup, VDC 1: VRRP_MGR");
  EXPECT_EQ(text("#losses .by .bad"), "unaccounted for");
  EXPECT_EQ(all("#things .word.lost"), texts({"lost: speed 10000", "lost: unaccounted for"}));
  EXPECT_EQ(text("#step-1 summary"), "VRRP_MGRno status1 changed, 2 removed1.2 ms");
  EXPECT_EQ(all("#step-1 > p"), texts({"it crashed", "no status, by VRRP_MGR_routine"}));
  EXPECT_EQ(text("#round-trip > .bad"), "This way fails: no way");
  EXPECT_EQ(text("#via > .bad"), "This way fails: no way");
}

TEST_F(report_page_test, a_change_by_two_steps_is_of_both) {
  std::vector<json> changes = some_changes();
  changes[3]["earlier_steps"] = {0};
  show(changes, some_tail(), "#step=0&change=added");
  EXPECT_EQ(all("#things .by"),
            texts({"by gsync, VDC 1: TEST_ETHPM, then by startup, VDC 1: VRRP_MGR"}));
  at().open(address("#service=TEST_ETHPM&change=added"));
  EXPECT_EQ(text("#shown"), "1 of 4 changes, in 1 of 3 things.");
  at().open(address("#step-0"));
  EXPECT_TRUE(eventually("document.querySelectorAll('#step-0 .change').length === 2"));
}

TEST_F(report_page_test, a_step_shows_its_changes_beside_its_trace) {
  show(some_changes(), some_tail(), "#step-1");
  EXPECT_EQ(value("document.getElementById('step-1').open"), true);
  EXPECT_TRUE(eventually("document.querySelectorAll('#step-1 .change').length === 2"));
  EXPECT_EQ(text("#step-1 pre"), "line of VRRP_MGR");
  EXPECT_EQ(text("#step-1 .made a"), "2 changes in the list of changes");
  value("document.querySelector('#step-1 .made a').click()");
  EXPECT_TRUE(eventually("document.getElementById('shown').textContent.startsWith('2 of 4')"));
  EXPECT_EQ(value("document.getElementById('filters').elements.step.value"), "1");
}

TEST_F(report_page_test, other_ways_and_the_matrix) {
  json tail = some_tail();
  tail["round_trip"] = {{"changes", {some_changes()[2]}}, {"total", 5}};
  tail["via"] = {{"release", "4.1(1)"}, {"changes", json::array()}, {"total", 0}};
  tail["losses"]["records_total"] = 2;
  tail["complete"] = "all of it.jsonl";
  tail["matrix"] = {{"releases", {"4.1(5)", "4.2(1)"}},
                    {"cells",
                     {{{"from", "4.1(5)"},
                       {"to", "4.2(1)"},
                       {"outcome", "acts"},
                       {"services", {"KPS", "SVI"}},
                       {"text", ""}},
                      {{"from", "4.2(1)"},
                       {"to", "4.1(5)"},
                       {"outcome", "fails"},
                       {"services", {"SVI"}},
                       {"text", "no image"}}}}};
  show(some_changes(), tail);
  EXPECT_EQ(text("#round-trip > p"), "5 changes did not return, there and back.");
  EXPECT_EQ(text("#round-trip .note"), "4 more not listed here."); // nor in the complete list
  EXPECT_EQ(text("#losses .note"), "1 more in the complete list.");
  EXPECT_EQ(value("document.querySelector('#losses .note a').getAttribute('href')"),
            "all%20of%20it.jsonl");
  EXPECT_EQ(all("#round-trip .change h4"), texts({"removed VR record 0a01"}));
  EXPECT_EQ(all("#round-trip .by, #round-trip .lost"), texts()); // not of these steps and losses
  EXPECT_EQ(text("#via > p"), "The way over 4.1(1) ends as the direct way does.");
  EXPECT_EQ(all("#matrix th"), texts({"From", "4.1(5)", "4.2(1)", "4.1(5)", "4.2(1)"}));
  EXPECT_EQ(all("#matrix td"),
            texts({"\xe2\x80\x93", "acts KPS, SVI", "fails SVI no image", "\xe2\x80\x93"}));
  EXPECT_EQ(value("document.querySelectorAll('#matrix td')[1].className"), "acts shade-4");
}

// ---- Filters -----------------------------------------------------------------------------------

TEST_F(report_page_test, filters_can_be_linked) {
  constexpr std::pair<const char *, const char *> rows[] = {
      {"#change=removed", "removed VR record 0a01"},
      {"#kind=switch", "changed switch"},
      {"#step=0", "changed interface runtime info 33061a000000"},
      {"#step=none", "changed switch"},
      {"#service=TEST_ETHPM", "changed interface runtime info 33061a000000"},
      {"#store=nonvolatile%3A%2Fcfg%2Fstartup%2Fbin%2Fvrrp-cfg_config_sav&change=added",
       "added record 0a02"},
      {"#lost=1&change=removed", "removed VR record 0a01"},
      {"#q=PRIO+10.1.1", "removed VR record 0a01"},
      {"#q=0c0d&service=VRRP_MGR", "added record 0a02"}};
  write(some_changes(), some_tail());
  for (const auto &[fragment, shown] : rows) {
    at().open(address(fragment));
    EXPECT_EQ(all("#things .change h4"), texts({shown})) << fragment;
    EXPECT_EQ(text("#shown"), "1 of 4 changes, in 1 of 3 things.") << fragment;
  }
  at().open(address("#q=decoded"));
  EXPECT_EQ(text("#shown"), "0 of 4 changes, in 0 of 3 things.");
  at().open(address("#change=nonsense&other=1"));
  EXPECT_EQ(text("#shown"), "4 changes of 3 things.");
}

TEST_F(report_page_test, typing_filters_and_is_told) {
  show(some_changes(), some_tail());
  value("document.querySelector('[type=search]').focus()");
  at().call("Input.insertText", {{"text", "10.1.1.2"}});
  EXPECT_TRUE(eventually("document.getElementById('shown').textContent === "
                         "'1 of 4 changes, in 1 of 3 things.'"));
  EXPECT_EQ(value("location.hash"), "#q=10.1.1.2");
  EXPECT_EQ(value("document.getElementById('shown').getAttribute('aria-live')"), "polite");
  value("document.querySelector('[type=reset]').click()");
  EXPECT_TRUE(
      eventually("document.getElementById('shown').textContent === '4 changes of 3 things.'"));
  EXPECT_EQ(value("location.hash"), "");
}

TEST_F(report_page_test, a_thing_keeps_a_thousand_changes) {
  std::vector<json> changes;
  for (int at = 0; at < 1003; ++at) {
    changes.push_back(record("added", "nonvolatile:/large", std::to_string(1000000 + at)));
  }
  changes.push_back(record("added", "nonvolatile:/small", "00"));
  json tail = empty_tail();
  tail["complete"] = "all.jsonl";
  show(changes, tail);
  EXPECT_EQ(text("#shown"), "1004 changes of 2 things.");
  EXPECT_EQ(all("#things .change"), texts()); // nothing is made before it is looked at
  value("document.querySelector('#things details').open = true");
  EXPECT_TRUE(eventually("document.querySelectorAll('.change').length === 100"));
  EXPECT_EQ(text("#things button"), "Show 100 more of 900");
  value("for (let at = 0; at < 9; ++at) document.querySelector('#things button').click()");
  EXPECT_EQ(value("document.querySelectorAll('.change').length"), 1000);
  EXPECT_EQ(value("document.querySelector('#things button').hidden"), true);
  EXPECT_EQ(text("#things .note"), "3 more in the complete list.");
  at().open(address("#q=1000999"));
  EXPECT_EQ(text("#shown"), "1 of 1004 changes, in 1 of 2 things. 3 that only the complete list "
                            "holds were not looked at.");
}

// ---- Text that is not what it seems ------------------------------------------------------------

TEST_F(report_page_test, markup_stays_text) {
  json change = record("removed", markup, "0a01");
  change["a"]["decoded"] = {{"kind", markup}, {markup, markup}};
  change["routine"] = markup;
  change["step"] = 0;
  json lost = {{"store", markup}, {"key", "0a01"}, {"step", 0}, {"why", markup}};
  json tail = some_tail();
  tail["steps"] = {step("gsync", markup)};
  tail["steps"][0]["trouble"] = markup;
  tail["steps"][0]["trace"] = {markup, "\xff\xfe bytes", "\xe2\x80\xa8"};
  tail["losses"]["records"] = {lost};
  lost["decoded"] = change["a"]["decoded"];
  tail["losses"]["records"].push_back(lost);
  tail["losses"]["fields"][0]["field"] = markup;
  tail["losses"]["fields"][0]["value"] = {markup};
  tail["result"] = markup;
  tail["complete"] = "javascript:harmed=3//\"><img src=x onerror=harmed=4>";
  tail["round_trip"] = {{"changes", {change}}, {"total", 2}};
  tail["matrix"] = {{"releases", {markup}},
                    {"cells",
                     {{{"from", markup},
                       {"to", markup},
                       {"outcome", markup},
                       {"services", {markup}},
                       {"text", markup}}}}};
  json top = head();
  top["switch"] = markup;
  write({change}, tail, top);
  at().open(address("#step-0"));
  EXPECT_TRUE(eventually("document.querySelectorAll('#step-0 .change').length === 1"));
  EXPECT_EQ(value("typeof harmed"), "undefined");
  EXPECT_EQ(value("document.images.length"), 0);
  EXPECT_EQ(value("document.scripts.length"), 4); // a thing's, the round trip's, facts, the script
  EXPECT_EQ(text("h1"), std::string(markup) + ": 4.1(5) to 4.2(1)");
  EXPECT_EQ(text("#summary .result"), markup);
  EXPECT_EQ(text("#things summary h3"), markup);
  EXPECT_EQ(text("#things dd"), markup);
  EXPECT_EQ(text("#things .by code"), markup);
  EXPECT_EQ(text("#things .word.lost"), "lost: " + std::string(markup) + ", " + markup);
  EXPECT_EQ(text("#step-0 pre"), std::string(markup) + " \xef\xbf\xbd\xef\xbf\xbd bytes");
  EXPECT_EQ(value("document.querySelector('.note a').protocol"), "file:");
}

TEST_F(report_page_test, the_policy_lets_nothing_in) {
  show(some_changes(), some_tail());
  value("{ const bad = document.createElement('script'); bad.textContent = 'harmed = 1'; "
        "document.body.append(bad); }");
  EXPECT_EQ(value("typeof harmed"), "undefined");
  EXPECT_EQ(value("fetch('data:text/plain,x').then(() => 'came', () => 'kept out')"), "kept out");
  EXPECT_GE(at().complaints().size(), 2U);
  for (const std::string &complaint : at().complaints()) {
    EXPECT_NE(complaint.find("Content Security Policy"), std::string::npos) << complaint;
  }
  at().open(address()); // without complaints
  std::ifstream file(*folder_ + "/page.html");
  std::ostringstream source;
  source << file.rdbuf();
  EXPECT_EQ(source.str().find("http:"), std::string::npos);
  EXPECT_EQ(source.str().find("https:"), std::string::npos);
}

// ---- Who reads it, and where -------------------------------------------------------------------

TEST_F(report_page_test, without_the_script_all_but_the_changes_can_be_read) {
  at().call("Emulation.setScriptExecutionDisabled", {{"value", true}});
  show(some_changes(), some_tail());
  EXPECT_EQ(text(".account"), "98 records in, 95 converted, 2 removed by rule, 1 unaccounted");
  EXPECT_EQ(all("#losses summary"), texts({"1 record", "1 field"}));
  EXPECT_EQ(all("#timeline pre"), texts({"line of TEST_ETHPM", "line of VRRP_MGR"}));
  EXPECT_EQ(text("noscript").substr(0, 47), "The changes are listed by this page's script, w");
  EXPECT_EQ(value("getComputedStyle(document.getElementById('filters')).display"), "none");
  at().call("Emulation.setScriptExecutionDisabled", {{"value", false}});
}

TEST_F(report_page_test, a_phone_never_scrolls_sideways) {
  at().call("Emulation.setDeviceMetricsOverride",
            {{"width", 360}, {"height", 740}, {"deviceScaleFactor", 1}, {"mobile", true}});
  json tail = some_tail();
  tail["steps"][0]["trace"] = {std::string(500, 'x')};
  tail["steps"][0]["service"] = std::string(200, 'S');
  tail["steps"][0]["status_text"] = std::string(200, 'T');
  tail["matrix"] = {{"releases", json::array()}, {"cells", json::array()}};
  for (int at = 0; at < 12; ++at) {
    tail["matrix"]["releases"].push_back("4." + std::to_string(at) + "(1)");
  }
  std::vector<json> changes = some_changes();
  changes[3]["b"]["value"] = std::string(800, '0');
  changes[3]["name"] = "nonvolatile:/" + std::string(200, 'n');
  show(changes, tail);
  value("for (const one of document.querySelectorAll('details')) one.open = true");
  EXPECT_TRUE(eventually("document.querySelectorAll('.change details table').length === 1"));
  EXPECT_EQ(value("innerWidth"), 360);
  EXPECT_EQ(value("document.documentElement.scrollWidth"), 360);
  at().call("Emulation.clearDeviceMetricsOverride");
}

TEST_F(report_page_test, on_paper_all_is_open_and_nothing_asks) {
  show(some_changes(), some_tail());
  value("addEventListener('beforeprint', () => window.seen = "
        "[document.querySelectorAll('details:not([open], .whole)').length, "
        "document.querySelectorAll('#step-1 .change').length])");
  const json printed = at().call("Page.printToPDF");
  EXPECT_EQ(printed["data"].get<std::string>().substr(0, 6), "JVBERi"); // "%PDF"
  EXPECT_EQ(value("seen"), json({0, 2}));
  EXPECT_TRUE(eventually("document.querySelectorAll('details.step:not([open])').length === 2"));
  at().call("Emulation.setEmulatedMedia", {{"media", "print"}});
  for (const char *hidden : {"form", "nav", ".whole"}) {
    EXPECT_EQ(
        value(std::string("getComputedStyle(document.querySelector('") + hidden + "')).display"),
        "none");
  }
  at().call("Emulation.setEmulatedMedia", {{"media", ""}});
}

// The least contrast of any text in the page with what is behind it.
const char *const least_contrast = R"js((() => {
  const canvas = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
  const colour = (text) => {
    canvas.clearRect(0, 0, 1, 1);
    canvas.fillStyle = text;
    canvas.fillRect(0, 0, 1, 1);
    return [...canvas.getImageData(0, 0, 1, 1).data];
  };
  const light = (rgb) => rgb.slice(0, 3).map((c) => c / 255).map((c) =>
    c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4).reduce((sum, c, at) =>
    sum + c * [0.2126, 0.7152, 0.0722][at], 0);
  const behind = (one) => {
    for (; one; one = one.parentElement) {
      const back = colour(getComputedStyle(one).backgroundColor);
      if (back[3] === 255) return back;
    }
    return null;
  };
  let least = 21;
  for (const one of document.querySelectorAll('body *')) {
    if (![...one.childNodes].some((node) => node.nodeType === 3 && node.data.trim())) continue;
    if (one.tagName === 'SCRIPT' || !one.checkVisibility()) continue;
    const [a, b] = [light(colour(getComputedStyle(one).color)), light(behind(one))].sort();
    least = Math.min(least, (b + 0.05) / (a + 0.05));
  }
  return least;
})())js";

TEST_F(report_page_test, light_and_dark_can_be_read) {
  json tail = some_tail();
  tail["matrix"] = {{"releases", {"4.1(5)"}},
                    {"cells",
                     {{{"from", "4.1(5)"},
                       {"to", "4.1(5)"},
                       {"outcome", "acts"},
                       {"services", {"KPS"}},
                       {"text", "text"}}}}};
  show(some_changes(), tail, "#step-1");
  constexpr std::pair<const char *, const char *> rows[] = {{"light", "rgb(255, 255, 255)"},
                                                            {"dark", "rgb(21, 24, 28)"}};
  for (const auto &[scheme, back] : rows) {
    at().call("Emulation.setEmulatedMedia",
              {{"features", {{{"name", "prefers-color-scheme"}, {"value", scheme}}}}});
    EXPECT_EQ(value("getComputedStyle(document.body).backgroundColor"), back);
    EXPECT_GE(value(least_contrast).get<double>(), 4.5) << scheme;
  }
}

TEST_F(report_page_test, keys_are_enough) {
  show(some_changes(), some_tail());
  const auto focused = [] {
    return value("document.activeElement.textContent + '|' + (document.activeElement.name ?? '')")
        .get<std::string>();
  };
  at().press("Tab");
  EXPECT_EQ(focused(), "Skip to the summary|");
  EXPECT_GT(value("document.activeElement.getBoundingClientRect().right").get<double>(), 0);
  EXPECT_EQ(value("getComputedStyle(document.activeElement).outlineStyle"), "solid");
  at().press("Enter");
  EXPECT_TRUE(eventually("document.activeElement.id === 'main'"));
  // On from there: the losses and steps, then every filter in its order.
  std::string seen;
  for (int keys = 0; keys < 40 && !seen.ends_with("lost "); ++keys) {
    at().press("Tab");
    const std::string name = value("document.activeElement.name ?? ''");
    seen += name.empty() ? "" : name + " ";
  }
  EXPECT_EQ(seen, "q change kind store service step lost ");
  value("document.querySelector('#step-0 summary').focus()");
  at().press("Enter");
  EXPECT_TRUE(eventually("document.getElementById('step-0').open"));
}

TEST_F(report_page_test, screen_readers_find_their_way) {
  json tail = some_tail();
  tail["matrix"] = {{"releases", {"4.1(5)"}}, {"cells", json::array()}};
  show(some_changes(), tail, "#step-1");
  EXPECT_EQ(value("document.documentElement.lang"), "en");
  EXPECT_EQ(value("['header', 'nav', 'main', '[role=search]', '[role=status]'].map((one) => "
                  "document.querySelectorAll(one).length)"),
            json({1, 1, 1, 1, 1}));
  // No heading is more than one level below the one before it.
  EXPECT_EQ(value("[...document.querySelectorAll('h1,h2,h3,h4,h5,h6')].map((one) => "
                  "+one.tagName[1]).filter((level, at, all) => level > (all[at - 1] ?? 0) + 1)"),
            json::array());
  EXPECT_EQ(value("[...document.querySelectorAll('input, select')].filter((one) => "
                  "one.labels.length !== 1).length"),
            0);
  EXPECT_EQ(value("document.querySelectorAll('th:not([scope])').length"), 0);
  EXPECT_EQ(value("[...document.querySelectorAll('table')].filter((one) => !one.caption && "
                  "!one.ariaLabel).length"),
            0);
  EXPECT_EQ(value("[...document.querySelectorAll('[id]')].map((one) => one.id).filter((id, at, "
                  "all) => all.indexOf(id) !== at)"),
            json::array());
}

// ---- A page of the program ---------------------------------------------------------------------

TEST_F(report_page_test, the_page_that_rehearse_writes_works) {
  const std::string program = std::string("exec env TMPDIR='") + *folder_ + "' " DATAMORPH_PROGRAM;
  const std::string at_switch = " '" + *folder_ + "/sw' ";
  const std::string quiet = " >/dev/null 2>&1";
  std::ifstream example(EXAMPLES "/datacenter-switch.json");
  json description = json::parse(example);
  description["releases"] = {"4.1(5)", "4.2(1)"}; // a matrix of two pairs is soon made
  std::ofstream(*folder_ + "/switch.json") << description;
  ASSERT_EQ(std::system((program + " lab create" + at_switch + "--from '" + *folder_ +
                         "/switch.json'" + quiet)
                            .c_str()),
            0);
  ASSERT_EQ(std::system((program + " rehearse" + at_switch +
                         "--to '4.2(1)' --round-trip --matrix --report '" + *folder_ +
                         "/page.html'" + quiet)
                            .c_str()),
            0);
  at().open(address());
  EXPECT_EQ(text("#shown"), "54 changes of 17 things.");
  EXPECT_EQ(all("nav a"),
            texts({"Summary", "Losses", "Timeline", "Changes", "Round trip", "Matrix"}));
  EXPECT_EQ(text("#round-trip > p"), "22 changes did not return, there and back.");
  EXPECT_EQ(all("#matrix td b"), texts({"acts", "acts"}));
  at().open(address("#service=KPS"));
  EXPECT_EQ(text("#shown"), "2 of 54 changes, in 2 of 17 things.");
  EXPECT_EQ(text("#things .by"),
            "by startup, VDC 1: KPS, then by startup, VDC 1: DOT1X, dot1x_data_morph_startup");
  at().open(address("#lost=1"));
  EXPECT_EQ(text("#shown"), "5 of 54 changes, in 2 of 17 things.");
}

// ---- The file ----------------------------------------------------------------------------------

TEST(report_page_file, a_write_that_fails_is_told) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  report_page page(full, head());
  page.change(some_changes()[0]);
  try {
    page.finish(empty_tail());
    ADD_FAILURE() << "it did not fail";
  } catch (const failure &error) {
    EXPECT_EQ(error.status(), 1);
    EXPECT_STREQ(error.what(),
                 "cannot write the report's page: No space left on device; nothing was put in "
                 "place");
  }
  close(full);
}

} // namespace
