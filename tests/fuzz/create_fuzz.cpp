// Whole switches: what a description says is made, in the process's own root, and stands there as
// it was described. The input says what parts the description has.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>

#include "description.h"
#include "failure.h"
#include "fuzz/bytes_source.h"
#include "fuzz/finding.h"
#include "fuzz/quick_engine.h"
#include "fuzz/switch_folder.h"
#include "lab/lab.h"
#include "layout.h"
#include "populate.h"

namespace {

std::string version_of(const std::string &release) {
  return "/images/" + release + "/version";
}

void expect_store(const store_description &store) {
  lab::store_info info;
  expect(lab::store_inspect(store.uri, &info) == 0, "a store that cannot be read");
  expect(info.records == store.records.size(), "another number of records");
  expect(info.params.max_key_size == store.params.max_key_size &&
             info.params.max_value_size == store.params.max_value_size &&
             info.params.max_node_keys == store.params.max_node_keys &&
             info.params.version == store.params.version,
         "other parameters");
  syserr_t status = 0;
  const pss2_service_t handle =
      pss2_open(store.uri.c_str(), PSS2_MODE_READ, SRVUUID_NONE, 0, 0, &status);
  for (const record_description &record : store.records) {
    const pss_datum_t key = {const_cast<char *>(record.key.data()),
                             static_cast<uint32>(record.key.size())};
    const pss_datum_t *value = pss2_fetch(handle, &key, &status);
    expect(value != nullptr &&
               std::string(static_cast<const char *>(value->ptr), value->siz) == record.value,
           "another value");
  }
  expect(pss2_close(handle) == 0, "a store that cannot be closed");
}

void expect_file(const file_description &file) {
  struct stat found = {};
  expect(lstat(file.path.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
             (found.st_mode & 07777) == file.mode,
         "no such file, or of another mode");
  std::ifstream in(file.path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(in), {}};
  expect(content == file.content, "another content");
}

void expect_switch(const description &wanted) {
  for (const store_description &store : wanted.stores) {
    expect_store(store);
  }
  // The search goes through all folders, which takes longer than making one store.
  expect(wanted.stores.size() < 2 || lab::store_uris().size() == wanted.stores.size(),
         "stores that nobody described");
  for (const file_description &file : wanted.files) {
    expect_file(file);
  }
  expect(lab::mts_saps().size() == wanted.access_points.size(), "other access points");
  for (const std::string &release : wanted.releases) {
    expect_file({version_of(release), 0644, release + "\n"});
  }
}

// ---- The switch goes again ---------------------------------------------------------------------

// What every description here has made, and so stays.
const std::set<std::string> &lasting_folders() {
  static const std::set<std::string> all = [] {
    std::set<std::string> found(std::begin(usual_folders), std::end(usual_folders));
    found.insert({"/cfg/0", "/cfg/startup", "/images/4.1(5)", "/images/4.2(1)"});
    return found;
  }();
  return all;
}

// With the folders above it that hold nothing else.
void remove_folder(std::string path) {
  while (lasting_folders().count(path) == 0 && rmdir(path.c_str()) == 0) {
    path.resize(path.rfind('/'));
  }
}

void remove_file(const std::string &path) {
  expect(unlink(path.c_str()) == 0, "what was made cannot be removed");
  remove_folder(path.substr(0, path.rfind('/')));
}

// The next description finds the switch as this one did: what stays of a path is in another's way,
// so that it would be found.
void remove_switch(const description &made) {
  for (const store_description &store : made.stores) {
    remove_file(lab::store_file(store.uri));
  }
  for (const file_description &file : made.files) {
    remove_file(file.path);
  }
  for (const access_point_description &point : made.access_points) {
    remove_file("/var/run/mts/sap-" + std::to_string(point.sap));
  }
  for (const std::string &release : made.releases) {
    remove_file(version_of(release));
  }
  remove_folder(made.state.running_cfg_dir);
}

// ---- Descriptions out of bytes -----------------------------------------------------------------

using json = nlohmann::json;

const char *const k_folders[] = {"/cfg/0", "/cfg/0/vdc_2", "/tmp",  "/mnt/pss",    "/bootflash",
                                 "/a",     "/a/b",         "/a/b.", "/cfg/startup"};

// One of a few names, or any bytes as far as JSON has them.
std::string name(bytes_source *source) {
  const uint8_t which = source->byte();
  if (which < 224) {
    return std::string(1, static_cast<char>('a' + which % 8));
  }
  std::string any = source->bytes(which % 32);
  for (char &c : any) {
    c = static_cast<char>(c & 0x7F); // so that it is UTF-8
  }
  return any;
}

// Mostly one of its own, by the number of the part that it names.
std::string path(bytes_source *source, size_t part) {
  const std::string folder = k_folders[source->byte() % std::size(k_folders)];
  const bool own = source->byte() < 224;
  return folder + "/" + name(source) + (own ? std::to_string(part) : "");
}

json field(bytes_source *source) {
  const uint8_t kind = source->byte();
  const uint8_t number = source->byte();
  switch (kind % 8) {
  case 0:
    return "00ff7f";
  case 1:
    return {{"text", name(source)}, {"size", number + 1}};
  case 2:
    return {{"zeros", kind == 250 ? 70000 : number * 16}};
  case 3:
    return {{"u32be", number}};
  case 4:
    return {{"u64le", number}};
  case 5:
    return {{"ipv6", "fe80::1"}};
  case 6:
    return {{"tag_table", json::array({{{"service", number + 1}, {"tag", "t"}}})}};
  default:
    return json::object({{"tlv_array", json::array({{{"type", number}, {"value", "fd"}}})}});
  }
}

json records(bytes_source *source) {
  json all = json::array();
  for (int left = source->byte() % 12; left > 0; --left) {
    // A number of its own makes the key another one than the others'.
    all.push_back(
        {{"key", json::array({field(source), {{"u8", left}}})}, {"value", field(source)}});
  }
  return all;
}

json store(bytes_source *source, size_t part) {
  const uint8_t how = source->byte();
  json made = {{"uri", (how % 2 == 0 ? "nonvolatile:" : "volatile:") + path(source, part)},
               {"records", records(source)}};
  if (how >= 128) {
    made["params"] = {{"max_key_size", 4096 + how},
                      {"max_value_size", how * 4096},
                      {"max_node_keys", how % 4 == 0 ? 0 : how},
                      {"version", how}};
  }
  return made;
}

json file(bytes_source *source, size_t part) {
  const uint8_t how = source->byte();
  json made = {{"path", path(source, part)},
               {how % 2 == 0 ? "text" : "hex", how % 2 == 0 ? "x" : "00"}};
  if (how >= 64) {
    made["mode"] = how >= 128 ? "0600" : "0777";
  }
  return made;
}

std::string description_of(bytes_source *source) {
  const uint8_t first = source->byte();
  // Mostly one store: each takes as long as all else, and several only matter to each other's
  // places.
  const size_t most_stores = first % 16 < 2 ? 3 : 1;
  json made = {
      {"release", "4.1(5)"},
      {"releases", {"4.1(5)", "4.2(1)"}},
      {"running_cfg_dir", k_folders[first % 2]},
      {"paths", {{"gsync", "/cfg/0"}, {"running-fs", "/cfg/0"}, {"startup", "/cfg/startup"}}},
      {"stores", json::array()},
      {"files", json::array()},
      {"access_points", json::array()}};
  for (size_t part = 0; part < 8 && !source->is_empty(); ++part) {
    const uint8_t kind = source->byte();
    if (kind % 8 < 4 && made["stores"].size() < most_stores) {
      made["stores"].push_back(store(source, part));
    } else if (kind % 8 < 7) {
      made["files"].push_back(file(source, part));
    } else {
      made["access_points"].push_back({{"sap", source->byte() * 257 + 1}, {"owner", name(source)}});
    }
  }
  return made.dump();
}

// Not before the first input: the fuzzer opens files of its own until then.
const switch_folder &enter_root() {
  static const switch_folder root;
  quick_engine::set_up();
  return root;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  bytes_source source(data, size);
  const std::string text = description_of(&source);
  description wanted;
  try {
    wanted = parse_description(text, "the input");
  } catch (const failure &) {
    return 0; // two parts at one place, or a name that is none
  }
  static const switch_folder &root = enter_root();
  static_cast<void>(root);
  const size_t blocks = quick_engine::blocks();
  try {
    populate(wanted);
  } catch (const failure &error) {
    finding(std::string("an accepted description cannot be made: ") + error.what());
  }
  expect_switch(wanted);
  expect(quick_engine::blocks() == blocks, "memory of a connection that is closed");
  remove_switch(wanted);
  return 0;
}
