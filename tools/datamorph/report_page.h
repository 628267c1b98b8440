// A rehearsal's report as one HTML page that needs nothing else: no network, no other file.
#ifndef DATAMORPH_REPORT_PAGE_H
#define DATAMORPH_REPORT_PAGE_H

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

// Written change by change: no more is held than one change and a few counts per thing. Any bytes
// may come as text; they stay text in the page.
class report_page {
public:
  // "switch", "from", "to", "library", "time" and "version". The file stays the caller's, who puts
  // it in place.
  report_page(int fd, const nlohmann::json &head);
  report_page(const report_page &) = delete;
  report_page &operator=(const report_page &) = delete;

  // As state_change::to_json tells it, with "step" (an index into "steps", or null) and, where it
  // is known, "routine". The page keeps 1000 changes of a thing and counts the rest.
  void change(const nlohmann::json &change);

  // What is known at the end: "steps", "losses", "summary", "round_trip", "via", "matrix",
  // "complete", "result" and "converted"; docs/report-page.md tells their members. Throws
  // failure(1) when something of the page could not be written.
  void finish(const nlohmann::json &tail);

private:
  void write(std::string_view text);
  void flush();
  void open_thing(const nlohmann::json &change);
  void close_thing();

  static constexpr size_t no_thing = static_cast<size_t>(-1);

  int fd_;
  int error_ = 0;       // of the first write that failed
  std::string waiting_; // to be written
  nlohmann::json head_;
  std::vector<nlohmann::json> things_; // "kind", "name" and counts
  std::map<std::pair<std::string, std::string>, size_t> places_;
  size_t open_ = no_thing; // the thing whose block of lines is being written
};

#endif
