#include "report_page.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "failure.h"
#include "lab/files.h"
#include "report_page_source.h"
#include "text.h"

namespace {

using nlohmann::json;
using parts = std::map<std::string_view, std::string>; // what goes where the page has {{name}}

constexpr size_t kept_of_each = 1000; // changes of a thing, lines of a trace, losses
constexpr size_t written_at_once = size_t(1) << 16;

// The place of the changes' data, which are written between the constructor and finish().
constexpr std::string_view data_place = "{{data}}";

// ---- Text --------------------------------------------------------------------------------------

void replace_all(std::string &text, std::string_view what, std::string_view with) {
  for (size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
}

// As text or as an attribute's value.
std::string escaped(std::string text) {
  constexpr std::pair<const char *, const char *> rows[] = {
      {"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}, {"'", "&#39;"}};
  for (const auto &[what, with] : rows) {
    replace_all(text, what, with);
  }
  return text;
}

// As one line; bytes that are no UTF-8 are replaced.
std::string line_text(const json &document) {
  return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

// A document that nothing in it can end the script block of. Outside of strings JSON has none of
// these characters.
std::string block_text(const json &document) {
  constexpr std::pair<const char *, const char *> rows[] = {{"<", "\\u003c"},
                                                            {">", "\\u003e"},
                                                            {"&", "\\u0026"},
                                                            {"\xe2\x80\xa8", "\\u2028"},
                                                            {"\xe2\x80\xa9", "\\u2029"}};
  std::string text = line_text(document);
  for (const auto &[what, with] : rows) {
    replace_all(text, what, with);
  }
  return text;
}

// The same document, all of it UTF-8.
json clean(const json &document) {
  return json::parse(line_text(document));
}

// A value for people: "10.1.1.1", "uuid 542, tag """. The script's textOf() does the same.
std::string value_text(const json &value) {
  if (value.is_string()) {
    const std::string text = value.get<std::string>();
    return text.empty() ? "\"\"" : text;
  }
  if (!value.is_structured()) {
    return value.is_null() ? "none" : value.dump();
  }
  std::string text;
  for (const auto &[name, member] : value.items()) {
    append_word(text, value.is_array() ? value_text(member) : name + " " + value_text(member),
                value.is_array() ? "; " : ", ");
  }
  return text.empty() ? "none" : text;
}

// An element with text in it; `attributes` with a blank before each.
std::string element(const std::string &tag, const std::string &text,
                    const std::string &attributes = "") {
  return "<" + tag + attributes + ">" + escaped(text) + "</" + tag + ">";
}

std::string number(const json &value) {
  return std::to_string(value.get<uint64_t>());
}

// "1 record", "2 records".
std::string counted_of(const json &count, const char *noun) {
  return counted(count.get<size_t>(), noun);
}

// A relative link to a file, which is never taken for a scheme.
std::string link_to(const std::string &path) {
  std::string link;
  for (const char c : path) {
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                       std::strchr("/._~-", c) != nullptr;
    char digits[4];
    std::snprintf(digits, sizeof digits, "%%%02X", static_cast<unsigned char>(c));
    link += plain && c != '\0' ? std::string(1, c) : digits;
  }
  return link;
}

// "12 more are in the complete list." with a link where there is one; nothing when there is no
// more.
std::string more_text(size_t more, const json &complete) {
  if (more == 0) {
    return "";
  }
  const std::string place =
      complete.is_string()
          ? " in " + element("a", "the complete list",
                             " href=\"" + link_to(complete.get<std::string>()) + "\"")
          : " not listed here";
  return "<p class=\"note\">" + std::to_string(more) + " more" + place + ".</p>\n";
}

// ---- Parts: summary and losses -----------------------------------------------------------------

std::string step_label(const json &step) {
  return step["moment"].get<std::string>() + ", VDC " + value_text(step["vdc"]) + ": " +
         step["service"].get<std::string>();
}

// "gsync, VDC 1: KPS", linked to its place in the timeline.
std::string step_link(const json &steps, const json &index) {
  if (!index.is_number_unsigned() || index.get<size_t>() >= steps.size()) {
    return "a step that is not known";
  }
  return element("a", step_label(steps[index.get<size_t>()]),
                 " href=\"#step-" + number(index) + "\"");
}

std::string count_item(const std::string &name, const std::string &value, bool bad = false) {
  return "<div" + std::string(bad ? " class=\"bad\"" : "") + ">" + element("dt", name) +
         element("dd", value) + "</div>\n";
}

std::string three_counts(const json &of) {
  return number(of["added"]) + " added, " + number(of["removed"]) + " removed, " +
         number(of["changed"]) + " changed";
}

std::string summary_part(const json &tail) {
  const json &summary = tail["summary"];
  const json &losses = tail["losses"];
  const bool unaccounted = summary["unaccounted"] != 0;
  const bool converted = tail["converted"].get<bool>();
  std::string text = element("p", tail["result"].get<std::string>(),
                             converted ? " class=\"result good\"" : " class=\"result bad\"") +
                     "\n<p class=\"account\">" + number(summary["records_in"]) + " records in, " +
                     number(summary["converted"]) + " converted, " +
                     number(summary["removed_by_rule"]) + " removed by rule, " +
                     element("strong", number(summary["unaccounted"]) + " unaccounted",
                             unaccounted ? " class=\"bad\"" : "") +
                     "</p>\n";
  if (unaccounted) {
    text += element("p",
                    "Warning: records are gone that no rule removes and no conversion took "
                    "elsewhere. Look at them before anything is converted.",
                    " class=\"warning\"") +
            "\n";
  }
  return text + "<dl class=\"counts\">\n" +
         count_item("Stores, files and the like", three_counts(summary["things"])) +
         count_item("Records", three_counts(summary["records"])) +
         count_item("Lost", counted_of(losses["records_total"], "record") + ", " +
                                counted_of(losses["fields_total"], "field")) +
         count_item("Undecoded", number(summary["undecoded"])) +
         count_item("Do not fit their release",
                    number(summary["misfits"]) + " changed, " +
                        number(summary["unchanged_misfits"]) + " unchanged",
                    summary["misfits"] != 0 || summary["unchanged_misfits"] != 0) +
         count_item("Unreadable", number(summary["unreadable"]), summary["unreadable"] != 0) +
         "</dl>\n";
}

std::string field_item(const std::string &name, const json &value) {
  return "<div>" + element("dt", name) + element("dd", value_text(value)) + "</div>";
}

// What a lost record was: its decoded fields, its bytes where they are told.
std::string record_fields(const json &loss) {
  std::string text = "<dl class=\"fields\">";
  if (loss.contains("decoded")) {
    for (const auto &[name, value] : loss["decoded"].items()) {
      text += name == "kind" ? "" : field_item(name, value);
    }
  }
  return text + (loss.contains("value") ? field_item("bytes", loss["value"]) : "") + "</dl>";
}

// Why something is lost: "" where there is nothing to say.
std::string why_text(const json &loss) {
  if (!loss.contains("why")) {
    return "";
  }
  return loss["why"].is_null() ? "unaccounted for" : loss["why"].get<std::string>();
}

std::string loss_item(const json &loss, const std::string &kind, const std::string &fields,
                      const json &steps) {
  const std::string why = why_text(loss);
  const bool bad = loss.contains("why") && loss["why"].is_null();
  return "<li class=\"loss\"><p>" + element("b", kind.empty() ? "record" : kind) + " " +
         element("code", loss["key"].get<std::string>()) + " of " +
         element("code", loss["store"].get<std::string>()) + "</p>" + fields + "<p class=\"by\">" +
         (why.empty() ? ""
                      : (bad ? element("strong", why, " class=\"bad\"") : escaped(why)) + "; ") +
         "by " + step_link(steps, loss["step"]) + "</p></li>\n";
}

template <typename item_t>
std::string loss_list(const json &list, const json &total, const char *noun, const json &complete,
                      item_t item) {
  if (total == 0) {
    return "";
  }
  const size_t shown = std::min(list.size(), kept_of_each);
  std::string text = "<details class=\"group\"" + std::string(shown <= 20 ? " open" : "") +
                     "><summary><h3>" + counted_of(total, noun) + "</h3></summary>\n<ul>\n";
  for (size_t at = 0; at < shown; ++at) {
    text += item(list[at]);
  }
  return text + "</ul>\n" + more_text(total.get<size_t>() - shown, complete) + "</details>\n";
}

std::string losses_part(const json &tail) {
  const json &losses = tail["losses"];
  const json &steps = tail["steps"];
  const std::string text =
      loss_list(losses["records"], losses["records_total"], "record", tail["complete"],
                [&](const json &loss) {
                  const json decoded = loss.value("decoded", json::object());
                  return loss_item(loss, decoded.value("kind", std::string()), record_fields(loss),
                                   steps);
                }) +
      loss_list(losses["fields"], losses["fields_total"], "field", tail["complete"],
                [&](const json &loss) {
                  return loss_item(loss, loss["kind"].get<std::string>(),
                                   "<dl class=\"fields\">" +
                                       field_item(loss["field"].get<std::string>(), loss["value"]) +
                                       "</dl>",
                                   steps);
                });
  return text.empty() ? element("p", "Nothing is lost.", " class=\"good\"") + "\n" : text;
}

// ---- Parts: timeline ---------------------------------------------------------------------------

// "2 added, 1 removed"; those that are none are left out.
std::string some_counts(const json &of) {
  std::string text;
  for (const char *word : {"added", "changed", "removed"}) {
    if (of[word] != 0) {
      append_word(text, number(of[word]) + " " + word, ", ");
    }
  }
  return text.empty() ? "no record" : text;
}

std::string trace_text(const json &lines) {
  if (lines.empty()) {
    return element("p", "No line.", " class=\"note\"");
  }
  std::string text = "<pre tabindex=\"0\" aria-label=\"Trace\">";
  const size_t shown = std::min(lines.size(), kept_of_each);
  for (size_t at = 0; at < shown; ++at) {
    text += escaped(lines[at].get<std::string>()) + "\n";
  }
  return text + "</pre>" +
         (shown == lines.size()
              ? ""
              : element("p", std::to_string(lines.size() - shown) + " more lines.",
                        " class=\"note\""));
}

std::string step_item(const json &step, size_t index) {
  const std::string trouble = step["trouble"].get<std::string>();
  const bool bad = step["status"] != "0x00000000" || !trouble.empty();
  std::string routines;
  for (const json &routine : step["routines"]) {
    append_word(routines, routine.get<std::string>(), ", ");
  }
  char time[32];
  std::snprintf(time, sizeof time, "%.1f ms", step["milliseconds"].get<double>());
  const bool answered = step["status"].is_string();
  const std::string status =
      answered ? "status " + step["status"].get<std::string>() : std::string("no status");
  return "<details class=\"step\" id=\"step-" + std::to_string(index) + "\"><summary>" +
         element("h4", step["service"].get<std::string>()) +
         element("span", answered ? step["status_text"].get<std::string>() : status,
                 bad ? " class=\"status bad\"" : " class=\"status good\"") +
         element("span", some_counts(step["records"]), " class=\"records\"") +
         element("span", time, " class=\"time\"") + "</summary>\n" +
         (trouble.empty() ? "" : element("p", trouble, " class=\"warning\"") + "\n") +
         "<p class=\"by\">" + escaped(status) +
         (routines.empty() ? "" : ", by " + element("code", routines)) +
         "</p>\n<div class=\"beside\"><div><h5>Trace</h5>" + trace_text(step["trace"]) +
         "</div>\n<div class=\"made\" data-step=\"" + std::to_string(index) +
         "\"><h5>Changes</h5></div></div></details>\n";
}

std::string timeline_part(const json &steps) {
  std::string text;
  std::string group;
  for (size_t at = 0; at < steps.size(); ++at) {
    const json &step = steps[at];
    const std::string head = step["moment"].get<std::string>() + ", VDC " + value_text(step["vdc"]);
    if (head != group) {
      text += element("h3", head) + "\n";
      group = head;
    }
    text += step_item(step, at);
  }
  return text.empty() ? element("p", "No service was called.") + "\n" : text;
}

// ---- Parts: what is not in every report --------------------------------------------------------

std::string section(const std::string &id, const std::string &head, const std::string &body) {
  return "<section id=\"" + id + "\" aria-labelledby=\"" + id + "-head\">\n" +
         element("h2", head, " id=\"" + id + "-head\"") + "\n" + body + "</section>\n";
}

// Changes that are listed by the script, from a block of their own. No other list has them.
std::string changes_section(const std::string &id, const std::string &head, const json &part,
                            const std::string &none, const std::string &some) {
  const std::string trouble = part.value("trouble", std::string());
  if (!trouble.empty()) {
    return section(id, head, element("p", "This way fails: " + trouble, " class=\"bad\"") + "\n");
  }
  if (part["total"] == 0) {
    return section(id, head, element("p", none, " class=\"good\"") + "\n");
  }
  const json &changes = part["changes"];
  const size_t kept = std::min(changes.size(), kept_of_each);
  return section(id, head,
                 element("p", counted_of(part["total"], "change") + " " + some) +
                     "\n<div class=\"list\"></div>\n" +
                     more_text(part["total"].get<size_t>() - kept, nullptr) +
                     "<script type=\"application/json\">" +
                     block_text(json(changes.begin(), changes.begin() + static_cast<long>(kept))) +
                     "</script>\n");
}

std::string matrix_cell(const json &cell, size_t most) {
  std::string services;
  for (const json &service : cell["services"]) {
    append_word(services, service.get<std::string>(), ", ");
  }
  const std::string outcome = cell["outcome"].get<std::string>();
  const size_t count = cell["services"].size();
  // Four shades: the more services act, the darker.
  const size_t shade = most == 0 ? 1 : std::max<size_t>(1, (count * 4 + most - 1) / most);
  const std::string kind = outcome == "acts"    ? "acts shade-" + std::to_string(shade)
                           : outcome == "fails" ? "fails"
                                                : "nothing";
  const std::string note = cell["text"].get<std::string>();
  return "<td class=\"" + kind + "\">" + element("b", outcome) +
         (services.empty() ? "" : " " + element("span", services)) +
         (note.empty() ? "" : " " + element("small", note)) + "</td>";
}

std::string matrix_part(const json &matrix) {
  std::map<std::pair<std::string, std::string>, const json *> cells;
  size_t most = 0;
  for (const json &cell : matrix["cells"]) {
    cells[{cell["from"].get<std::string>(), cell["to"].get<std::string>()}] = &cell;
    most = std::max(most, cell["services"].size());
  }
  std::string text =
      "<div class=\"wide\" role=\"region\" aria-labelledby=\"matrix-head\" "
      "tabindex=\"0\"><table class=\"matrix\">\n<caption>From the release of the row "
      "to that of the column: what acts, does nothing, or fails</caption>\n"
      "<thead><tr><th scope=\"col\">From</th>";
  for (const json &to : matrix["releases"]) {
    text += element("th", to.get<std::string>(), " scope=\"col\"");
  }
  text += "</tr></thead>\n<tbody>\n";
  for (const json &from : matrix["releases"]) {
    text += "<tr>" + element("th", from.get<std::string>(), " scope=\"row\"");
    for (const json &to : matrix["releases"]) {
      const auto found = cells.find({from.get<std::string>(), to.get<std::string>()});
      text += found == cells.end() ? "<td class=\"none\">\xe2\x80\x93</td>"
                                   : matrix_cell(*found->second, most);
    }
    text += "</tr>\n";
  }
  return section("matrix", "Every pair of releases", text + "</tbody></table></div>\n");
}

// The sections behind the changes, and the links to them.
void add_more(parts &page, const json &tail) {
  const auto add = [&](const char *id, const char *name, const std::string &text) {
    page["links"] += "<li>" + element("a", name, " href=\"#" + std::string(id) + "\"") + "</li>\n";
    page["more"] += text;
  };
  page["links"] = page["more"] = "";
  if (tail["round_trip"].is_object()) {
    add("round-trip", "Round trip",
        changes_section("round-trip", "Round trip", tail["round_trip"],
                        "There and back, all is as it was.", "did not return, there and back."));
  }
  if (tail["via"].is_object()) {
    const std::string release = tail["via"]["release"].get<std::string>();
    add("via", "Another way",
        changes_section("via", "By way of " + release, tail["via"],
                        "The way over " + release + " ends as the direct way does.",
                        "between the direct way and the way over " + release + "."));
  }
  if (tail["matrix"].is_object()) {
    add("matrix", "Matrix", matrix_part(tail["matrix"]));
  }
}

// ---- What the script reads ---------------------------------------------------------------------

// Store, key and what is lost of it, of each loss.
json lost_places(const json &losses) {
  json places = json::array();
  for (const json &loss : losses["records"]) {
    places.push_back({loss["store"], loss["key"], why_text(loss)});
  }
  for (const json &loss : losses["fields"]) {
    places.push_back({loss["store"], loss["key"],
                      loss["field"].get<std::string>() + " " + value_text(loss["value"])});
  }
  return places;
}

json script_facts(const json &tail, const std::vector<json> &things) {
  json steps = json::array();
  for (const json &step : tail["steps"]) {
    steps.push_back({{"service", step["service"]}, {"label", step_label(step)}});
  }
  const json &complete = tail["complete"];
  return {{"things", things},
          {"steps", steps},
          {"lost", lost_places(tail["losses"])},
          {"complete", complete.is_string() ? json(link_to(complete.get<std::string>())) : json()}};
}

// Part of the page's source with its places filled.
std::string filled(std::string_view source, const parts &page) {
  std::string text;
  for (size_t at = source.find("{{"); at != std::string_view::npos; at = source.find("{{")) {
    const size_t end = source.find("}}", at);
    text += source.substr(0, at);
    text += page.at(source.substr(at + 2, end - at - 2));
    source.remove_prefix(end + 2);
  }
  return text.append(source);
}

std::pair<std::string_view, std::string_view> source_around_data() {
  const std::string_view source = report_page_source;
  const size_t at = source.find(data_place);
  return {source.substr(0, at), source.substr(at + data_place.size())};
}

std::string title_of(const json &head) {
  return value_text(head["switch"]) + ": " + value_text(head["from"]) + " to " +
         value_text(head["to"]);
}

parts head_parts(const json &head) {
  return {{"title", escaped(title_of(head))}, {"version", escaped(value_text(head["version"]))}};
}

parts body_parts(const json &head, const json &tail, const std::vector<json> &things) {
  parts page = {
      {"title", escaped(title_of(head))},
      {"about", escaped("Rehearsed " + value_text(head["time"]) + " by datamorph " +
                        value_text(head["version"]) + " with " + value_text(head["library"]))},
      {"summary", summary_part(tail)},
      {"losses", losses_part(tail)},
      {"timeline", timeline_part(tail["steps"])},
      {"facts", block_text(script_facts(tail, things))}};
  add_more(page, tail);
  return page;
}

} // namespace

report_page::report_page(int fd, const json &head) : fd_(fd), head_(clean(head)) {
  write(filled(source_around_data().first, head_parts(head_)));
}

void report_page::write(std::string_view text) {
  waiting_ += text;
  if (waiting_.size() >= written_at_once) {
    flush();
  }
}

void report_page::flush() {
  if (error_ == 0 && !lab::write_all(fd_, waiting_.data(), waiting_.size())) {
    error_ = errno;
  }
  waiting_.clear();
}

void report_page::open_thing(const json &change) {
  const auto name =
      std::make_pair(change["kind"].get<std::string>(), change["name"].get<std::string>());
  const auto [found, is_new] = places_.emplace(name, things_.size());
  if (is_new) {
    things_.push_back({{"kind", name.first},
                       {"name", name.second},
                       {"total", 0},
                       {"kept", 0},
                       {"added", 0},
                       {"removed", 0},
                       {"changed", 0},
                       {"unreadable", 0}});
  }
  if (found->second == open_) {
    return;
  }
  close_thing();
  open_ = found->second;
  write("<script type=\"application/json\" class=\"changes\" data-thing=\"" +
        std::to_string(open_) + "\">\n");
}

void report_page::close_thing() {
  if (open_ != no_thing) {
    write("</script>\n");
  }
  open_ = no_thing;
}

void report_page::change(const json &change) {
  open_thing(change);
  json &thing = things_[open_];
  const bool kept = thing["kept"] < kept_of_each;
  for (const std::string &count : {std::string("total"), change["change"].get<std::string>()}) {
    thing[count] = thing[count].get<size_t>() + 1;
  }
  if (kept) {
    thing["kept"] = thing["kept"].get<size_t>() + 1;
    write(block_text(change) + "\n");
  }
}

void report_page::finish(const json &tail) {
  close_thing();
  write(filled(source_around_data().second, body_parts(head_, clean(tail), things_)));
  flush();
  if (error_ != 0) {
    throw failure(exit_failed, "cannot write the report's page: " + error_text(error_) +
                                   "; nothing was put in place");
  }
}
