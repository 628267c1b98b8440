// services and compare: what the library says by itself, without a switch.
#include "verbs.h"

#include "failure.h"
#include "library.h"
#include "services.h"
#include "text.h"

namespace {

struct table_view {
  const char *name;
  const std::vector<table_row> *rows;
};

std::vector<table_view> tables_of(const library &library) {
  std::vector<table_view> tables;
  tables.reserve(all_moments.size() + 1);
  for (const moment which : all_moments) {
    tables.push_back({moment_name(which), &library.tables[static_cast<size_t>(which)]});
  }
  tables.push_back({"psshlpr", &library.helper_table});
  return tables;
}

} // namespace

int services(const common_options &common) {
  const library library = load_library(common.library);
  nlohmann::json document = nlohmann::json::array();
  std::vector<std::vector<output::cell>> rows;
  for (const table_view &table : tables_of(library)) {
    for (size_t at = 0; at < table.rows->size(); ++at) {
      const table_row &row = (*table.rows)[at];
      const std::string name = service_name(row.uuid);
      document.push_back({{"moment", table.name},
                          {"order", at},
                          {"service", name},
                          {"uuid", row.uuid},
                          {"routine", row.routine}});
      rows.push_back({table.name, at, name, row.uuid, row.routine});
    }
  }
  if (common.format == output::format::json) {
    output::json({{"library", library.file}, {"rows", document}});
    return exit_done;
  }
  using output::align;
  output::table(
      {{"MOMENT"}, {"ORDER", align::right}, {"SERVICE"}, {"NUMBER", align::right}, {"ROUTINE"}},
      rows);
  return exit_done;
}

int compare(const common_options &common, const std::string &a, const std::string &b) {
  const library library = load_library(common.library);
  syserr_t error = SYSERR_SUCCESS;
  const int order = library.compare_versions(a.c_str(), b.c_str(), &error);
  if (error != SYSERR_SUCCESS) {
    throw failure(exit_failed,
                  "the library refuses to compare " + in_quotes(a) + " with " + in_quotes(b));
  }
  const char *word = order > 0 ? "newer" : order < 0 ? "older" : "equal";
  if (common.format == output::format::json) {
    output::json({{"a", a}, {"b", b}, {"result", order}, {"order", word}});
  } else {
    output::text(order == 0 ? a + " and " + b + " are equal\n"
                            : a + " is " + word + " than " + b + "\n");
  }
  return order == 0 ? exit_done : exit_different;
}
