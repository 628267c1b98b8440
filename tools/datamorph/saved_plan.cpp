#include "saved_plan.h"

#include <fcntl.h>

#include "failure.h"
#include "services.h"
#include "strict_json.h"
#include "switch_state.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr int plan_version = 1;
constexpr size_t largest_plan = size_t(1) << 20;
constexpr char remedy[] = "make one with 'datamorph rehearse --save'";

struct choice {
  const char *name;
  bool convert_options::*chosen;
};
constexpr choice choices[] = {{"whole_table", &convert_options::whole_table},
                              {"accept_failures", &convert_options::accept_failures},
                              {"accept_losses", &convert_options::accept_losses}};

bool is_moment(const std::string &name) {
  for (const moment which : all_moments) {
    if (name == moment_name(which)) {
      return true;
    }
  }
  return false;
}

[[noreturn]] void refuse(const std::string &file, const std::string &what) {
  throw failure(exit_refused, in_quotes(file) + ": " + what, remedy);
}

// Throws nlohmann::json::exception for a member that is missing or of another type.
saved_plan from_json(const nlohmann::json &document) {
  saved_plan plan;
  plan.options.to = document.at("to").get<std::string>();
  plan.options.from = document.at("from").get<std::string>();
  plan.options.moments = document.at("moments").get<std::vector<std::string>>();
  plan.options.services = document.at("services").get<std::vector<std::string>>();
  for (const choice &one : choices) {
    plan.options.*one.chosen = document.at(one.name).get<bool>();
  }
  plan.before = document.at("before").get<std::string>();
  plan.after = document.at("after").get<std::string>();
  return plan;
}

void check(const saved_plan &plan, const std::string &file) {
  if (plan.options.whole_table && !plan.options.services.empty()) {
    refuse(file, "it chooses services and whole tables, which exclude each other");
  }
  for (const std::string &name : plan.options.moments) {
    if (!is_moment(name)) {
      refuse(file, "it names the moment " + in_quotes(name) + ", which is unknown");
    }
  }
  for (const std::string &name : plan.options.services) {
    if (!service_number(name)) {
      refuse(file, "it names the service " + in_quotes(name) + ", which is unknown");
    }
  }
}

} // namespace

void saved_plan::fill(convert_options *wanted) const {
  wanted->to = options.to;
  wanted->from = options.from;
  wanted->moments = options.moments;
  wanted->services = options.services;
  for (const choice &one : choices) {
    wanted->*one.chosen = options.*one.chosen;
  }
}

void saved_plan::write(tree::placed_file *file) const {
  nlohmann::json document = {{"plan", plan_version},
                             {"to", options.to},
                             {"from", options.from},
                             {"moments", options.moments},
                             {"services", options.services},
                             {"before", before},
                             {"after", after}};
  for (const choice &one : choices) {
    document[one.name] = options.*one.chosen;
  }
  file->write(document.dump(2) + "\n");
  file->put();
}

saved_plan saved_plan::read(const std::string &file) {
  if (!tree::exists(AT_FDCWD, file)) {
    throw failure(exit_refused, "there is no plan " + in_quotes(file), remedy);
  }
  const nlohmann::json document = parse_json(tree::read_file(AT_FDCWD, file, largest_plan), file);
  if (!document.is_object() || !document.contains("plan")) {
    refuse(file, "it is no plan");
  }
  if (document["plan"] != plan_version) {
    refuse(file, "it is a plan of another version than " + std::to_string(plan_version));
  }
  try {
    saved_plan plan = from_json(document);
    check(plan, file);
    return plan;
  } catch (const nlohmann::json::exception &) {
    refuse(file, "a part of the plan is missing or makes no sense");
  }
}
