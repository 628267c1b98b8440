#include "switch_state.h"

#include <algorithm>

#include "failure.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr const char *moment_names[] = {"gsync", "running-fs", "startup"};
constexpr int format_number = 1;

[[noreturn]] void wrong(const std::string &member, const std::string &what) {
  throw failure(exit_refused, std::string(switch_file) + ": " + member + " " + what);
}

std::string text_member(const nlohmann::json &document, const char *name) {
  const auto found = document.find(name);
  if (found == document.end() || !found->is_string()) {
    wrong(name, "is missing or no text");
  }
  return found->get<std::string>();
}

std::string path_member(const nlohmann::json &document, const char *name) {
  std::string path = text_member(document, name);
  if (!is_contained_path(path)) {
    wrong(name, "is no absolute path inside the switch");
  }
  return path;
}

std::vector<vdc_id_t> vdcs_of(const nlohmann::json &document) {
  const auto found = document.find("vdcs");
  if (found == document.end() || !found->is_array() || found->empty()) {
    wrong("vdcs", "is missing or no list");
  }
  std::vector<vdc_id_t> vdcs;
  for (const nlohmann::json &vdc : *found) {
    if (!vdc.is_number_unsigned() || vdc.get<uint64_t>() < 1 || vdc.get<uint64_t>() > 16) {
      wrong("vdcs", "holds something else than a number from 1 to 16");
    }
    vdcs.push_back(vdc.get<vdc_id_t>());
  }
  if (!std::is_sorted(vdcs.begin(), vdcs.end()) ||
      std::adjacent_find(vdcs.begin(), vdcs.end()) != vdcs.end()) {
    wrong("vdcs", "is not in rising order");
  }
  return vdcs;
}

} // namespace

const char *moment_name(moment which) {
  return moment_names[static_cast<size_t>(which)];
}

std::string switch_state::path_of(moment which, vdc_id_t vdc) const {
  const std::string &path = paths[static_cast<size_t>(which)];
  return vdc > 1 ? path + "/vdc_" + std::to_string(vdc) : path;
}

nlohmann::json switch_state::to_json() const {
  nlohmann::json by_moment = nlohmann::json::object();
  for (const moment which : all_moments) {
    by_moment[moment_name(which)] = paths[static_cast<size_t>(which)];
  }
  return {{"format", format_number},  {"name", name},      {"release", release},
          {"generation", generation}, {"vdcs", vdcs},      {"running_cfg_dir", running_cfg_dir},
          {"paths", by_moment},       {"package", package}};
}

void switch_state::save(int folder) const {
  tree::replace_file(folder, switch_file, to_json().dump(2) + "\n");
}

switch_state switch_state::from_json(const nlohmann::json &document) {
  if (!document.is_object()) {
    throw failure(exit_refused, std::string(switch_file) + " is no JSON object");
  }
  if (document.value("format", nlohmann::json()) != format_number) {
    wrong("format", "is not 1");
  }
  switch_state state;
  state.name = text_member(document, "name");
  state.release = text_member(document, "release");
  if (!is_release_name(state.release)) {
    wrong("release", "is no release");
  }
  const auto generation = document.find("generation");
  if (generation == document.end() || !generation->is_number_unsigned()) {
    wrong("generation", "is missing or no number");
  }
  state.generation = generation->get<uint64_t>();
  state.vdcs = vdcs_of(document);
  state.running_cfg_dir = path_member(document, "running_cfg_dir");
  const auto paths = document.find("paths");
  if (paths == document.end() || !paths->is_object()) {
    wrong("paths", "is missing or no object");
  }
  for (const moment which : all_moments) {
    state.paths[static_cast<size_t>(which)] = path_member(*paths, moment_name(which));
  }
  state.package = text_member(document, "package");
  return state;
}
