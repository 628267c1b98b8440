// Switch descriptions: any text is either refused with one line that names it, or a switch that
// keeps to what is promised of descriptions. The same of documents that hold stores only.
#include <algorithm>
#include <set>

#include "description.h"
#include "failure.h"
#include "fuzz/finding.h"
#include "lab/lab.h"
#include "strict_json.h"

namespace {

const std::string k_origin = "the input";

// Runs a parser. Whether the text was accepted.
template <typename parser> bool accepts(const parser &parse) {
  try {
    parse();
    return true;
  } catch (const failure &error) {
    const std::string what = error.what();
    expect(error.status() == exit_refused, "refused with another status");
    expect(what.find(k_origin) == 1, "a message that does not begin with the input's name");
    expect(what.find('\n') == std::string::npos && what.find('\0') == std::string::npos,
           "a message of several lines");
    return false;
  }
}

bool is_absolute(const std::string &path) {
  return path.size() > 1 && path[0] == '/' && path.find('\0') == std::string::npos &&
         path.find("//") == std::string::npos && (path + "/").find("/../") == std::string::npos &&
         (path + "/").find("/./") == std::string::npos;
}

void check_stores(const std::vector<store_description> &stores) {
  std::set<std::string> files;
  for (const store_description &store : stores) {
    expect(files.insert(lab::store_file(store.uri)).second, "two stores at one place");
    expect(store.params.max_key_size > 0, "keys without room");
    std::set<std::string> keys;
    for (const record_description &record : store.records) {
      expect(keys.insert(record.key).second, "a key twice");
      expect(record.key.size() <= store.params.max_key_size &&
                 record.value.size() <= store.params.max_value_size,
             "a record over the limits");
    }
    expect(store.params.max_node_keys == 0 || keys.size() <= store.params.max_node_keys,
           "more records than the limit");
  }
}

void check_state(const description &found) {
  const auto &releases = found.releases;
  expect(std::count(releases.begin(), releases.end(), found.state.release) == 1,
         "the running release is not one of the list's");
  expect(std::set<std::string>(releases.begin(), releases.end()).size() == releases.size(),
         "a release twice");
  const auto &vdcs = found.state.vdcs;
  expect(!vdcs.empty() && vdcs.front() == 1 && vdcs.back() <= 16 &&
             std::adjacent_find(vdcs.begin(), vdcs.end(), std::greater_equal<>()) == vdcs.end(),
         "the VDCs do not rise from 1");
  expect(is_absolute(found.state.running_cfg_dir), "a path that leads out");
  for (const std::string &path : found.state.paths) {
    expect(is_absolute(path), "a path that leads out");
  }
}

void check(const description &found) {
  check_state(found);
  check_stores(found.stores);
  std::set<std::string> files;
  for (const file_description &file : found.files) {
    expect(is_absolute(file.path) && files.insert(file.path).second, "a file twice, or outside");
    expect(file.mode <= 0777, "a mode of more than rights");
  }
  for (const store_description &store : found.stores) {
    expect(files.count(lab::store_file(store.uri)) == 0, "a file in the place of a store");
  }
  std::set<uint32> saps;
  for (const access_point_description &point : found.access_points) {
    expect(point.sap >= 1 && point.sap <= 65535 && saps.insert(point.sap).second,
           "an access point twice, or of no number");
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const bool is_described = accepts([&] { check(parse_description(text, k_origin)); });
  const bool are_stores = accepts([&] { check_stores(parse_stores(text, k_origin)); });
  expect(!is_described || !are_stores, "a switch and stores alone at once");
  if (is_described || are_stores) {
    expect(!parse_shallow(text).is_discarded(), "what is accepted is no JSON");
  }
  return 0;
}
