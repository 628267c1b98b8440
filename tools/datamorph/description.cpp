#include "description.h"

#include <algorithm>
#include <limits>
#include <set>

#include <arpa/inet.h>

#include "failure.h"
#include "lab/lab.h"
#include "layout.h"
#include "output.h"
#include "platform/tlv_array.h"
#include "services.h"
#include "strict_json.h"
#include "text.h"

namespace {

constexpr uint64_t last_access_point = 65535;
constexpr size_t longest_tag = 31;
constexpr uint64_t largest_zeros = 1 << 20; // bytes that one field may ask for

// What stands before the items of a TLV array.
struct tlv_array_head {
  uint32 size; // of all of it
  uint16 count;
  uint16 version;
};
static_assert(sizeof(tlv_array_head) == TLV_ARRAY_HEADER_SIZE, "stored as it lies");
constexpr uint16 tlv_array_version = 1;

// A value of the document with the place it stands at.
class node {
public:
  node(const nlohmann::json &value, std::string place, const std::string &origin)
      : value_(&value), place_(std::move(place)), origin_(&origin) {}

  const nlohmann::json &value() const { return *value_; }

  [[noreturn]] void wrong(const std::string &what) const {
    throw failure(exit_refused,
                  in_quotes(*origin_) + ": " + (place_.empty() ? "/" : place_) + ": " + what);
  }

  // Only these members may stand.
  void expect_object(std::initializer_list<const char *> members) const {
    if (!value_->is_object()) {
      wrong("an object is wanted here");
    }
    for (const auto &[name, value] : value_->items()) {
      if (std::find(members.begin(), members.end(), name) == members.end()) {
        std::string known;
        for (const char *member : members) {
          append_word(known, member, ", ");
        }
        wrong("unknown member " + in_quotes(name) + " (known: " + known + ")");
      }
    }
  }

  bool has(const char *name) const { return value_->contains(name); }

  node member(const char *name) const {
    const auto found = value_->find(name);
    if (found == value_->end()) {
      wrong(std::string("the member '") + name + "' is missing");
    }
    return {*found, place_ + "/" + name, *origin_};
  }

  std::vector<node> items() const {
    if (!value_->is_array()) {
      wrong("a list is wanted here");
    }
    std::vector<node> result;
    for (size_t at = 0; at < value_->size(); ++at) {
      result.emplace_back((*value_)[at], place_ + "/" + std::to_string(at), *origin_);
    }
    return result;
  }

  // The items of a list that may be missing.
  std::vector<node> items_of(const char *name) const {
    return has(name) ? member(name).items() : std::vector<node>();
  }

  std::string text() const {
    if (!value_->is_string()) {
      wrong("a text is wanted here");
    }
    return value_->get<std::string>();
  }

  uint64_t number(uint64_t least, uint64_t most) const {
    if (!value_->is_number_unsigned() || value_->get<uint64_t>() < least ||
        value_->get<uint64_t>() > most) {
      wrong("a number from " + std::to_string(least) + " to " + std::to_string(most) +
            " is wanted here");
    }
    return value_->get<uint64_t>();
  }

  std::string path() const {
    std::string path = text();
    if (!is_contained_path(path)) {
      wrong("an absolute path inside the switch is wanted here, without '..'");
    }
    return path;
  }

  std::string release() const {
    std::string release = text();
    if (!is_release_name(release)) {
      wrong("a release such as 4.2(1) is wanted here");
    }
    return release;
  }

private:
  const nlohmann::json *value_;
  std::string place_;
  const std::string *origin_;
};

// ---- Bytes of keys and values ------------------------------------------------------------------

struct number_field {
  const char *name;
  size_t bytes;
  bool big_endian;
};

constexpr number_field number_fields[] = {
    {"u8", 1, true},     {"u16be", 2, true}, {"u16le", 2, false}, {"u32be", 4, true},
    {"u32le", 4, false}, {"u64be", 8, true}, {"u64le", 8, false},
};

std::string number_bytes(const number_field &field, uint64_t number) {
  std::string bytes;
  for (size_t at = 0; at < field.bytes; ++at) {
    const size_t shift = 8 * (field.big_endian ? field.bytes - 1 - at : at);
    bytes += static_cast<char>(number >> shift);
  }
  return bytes;
}

std::string hex_bytes(const node &at) {
  const std::optional<std::string> bytes = from_hex(at.text());
  if (!bytes) {
    at.wrong("pairs of hex digits are wanted here");
  }
  return *bytes;
}

// {"text": "Ethernet1/1", "size": 16}: filled with zeros up to the size.
std::string text_bytes(const node &at) {
  at.expect_object({"text", "size"});
  std::string bytes = at.member("text").text();
  if (at.has("size")) {
    const uint64_t size = at.member("size").number(0, largest_zeros);
    if (bytes.size() > size) {
      at.wrong("the text is longer than its size");
    }
    bytes.resize(size, '\0');
  }
  return bytes;
}

struct address_field {
  const char *name;
  int family;
  const char *wanted;
};

constexpr size_t address_size = 16; // as records hold them, whatever the family

constexpr address_field address_fields[] = {
    {"ipv4", AF_INET, "an IPv4 address such as 10.1.1.1 is wanted here"},
    {"ipv6", AF_INET6, "an IPv6 address such as fe80::1 is wanted here"},
};

// {"ipv4": "10.1.1.1"}: filled with zeros behind it.
std::string address_bytes(const address_field &field, const node &at) {
  const std::string text = at.text();
  std::string bytes(address_size, '\0');
  if (text.find('\0') != std::string::npos ||
      inet_pton(field.family, text.c_str(), bytes.data()) != 1) {
    at.wrong(field.wanted);
  }
  return bytes;
}

// A service by its name, or by its number when it has none here.
uint32 service_of(const node &at) {
  if (!at.value().is_string()) {
    return static_cast<uint32>(at.number(1, std::numeric_limits<uint32>::max()));
  }
  const std::optional<uint32> number = service_number(at.text());
  if (!number) {
    at.wrong("unknown service " + in_quotes(at.text()) + "; services: " + service_names());
  }
  return *number;
}

lab::tag_entry tag_entry_of(const node &at) {
  at.expect_object({"service", "tag"});
  lab::tag_entry entry = {service_of(at.member("service")), at.member("tag").text()};
  if (entry.tag.size() > longest_tag || entry.tag.find('\0') != std::string::npos) {
    at.member("tag").wrong("a tag is a text of at most 31 bytes, none of them zero");
  }
  return entry;
}

// [{"service": "DOT1X", "tag": ""}]: a tag table of the system manager.
std::string tag_table_bytes(const node &at) {
  std::vector<lab::tag_entry> entries;
  std::set<uint32> services;
  for (const node &item : at.items()) {
    entries.push_back(tag_entry_of(item));
    if (!services.insert(entries.back().uuid).second) {
      item.wrong("this service is in the table already");
    }
  }
  std::string bytes = lab::tag_table_encode(entries);
  if (bytes.size() > SYSMGR_TAG_TABLE_MAX) {
    at.wrong("the table is larger than " + counted(SYSMGR_TAG_TABLE_MAX, "byte"));
  }
  return bytes;
}

// Any field but a TLV array.
std::string plain_field_bytes(const node &at) {
  if (at.value().is_string()) {
    return hex_bytes(at);
  }
  at.expect_object({"hex", "text", "size", "zeros", "u8", "u16be", "u16le", "u32be", "u32le",
                    "u64be", "u64le", "ipv4", "ipv6", "tag_table", "tlv_array"});
  if (at.has("text")) {
    return text_bytes(at);
  }
  if (at.value().size() != 1 || at.has("size")) {
    at.wrong("one of hex, text, zeros, u8, u16be, u16le, u32be, u32le, u64be, u64le, ipv4, ipv6, "
             "tag_table, tlv_array is wanted here");
  }
  if (at.has("hex")) {
    return hex_bytes(at.member("hex"));
  }
  if (at.has("zeros")) {
    return std::string(at.member("zeros").number(0, largest_zeros), '\0');
  }
  if (at.has("tag_table")) {
    return tag_table_bytes(at.member("tag_table"));
  }
  if (at.has("tlv_array")) {
    at.wrong("a TLV array does not stand within another");
  }
  for (const address_field &field : address_fields) {
    if (at.has(field.name)) {
      return address_bytes(field, at.member(field.name));
    }
  }
  for (const number_field &field : number_fields) {
    if (at.has(field.name)) {
      const uint64_t most = std::numeric_limits<uint64_t>::max() >> (64 - 8 * field.bytes);
      return number_bytes(field, at.member(field.name).number(0, most));
    }
  }
  at.wrong("a field is wanted here");
}

// Hex digits, one field, or a list of fields one after the other.
std::string bytes_of(const node &at, std::string (*field)(const node &)) {
  if (!at.value().is_array()) {
    return field(at);
  }
  std::string bytes;
  for (const node &item : at.items()) {
    bytes += field(item);
  }
  return bytes;
}

// [{"type": 2, "value": "00"}]: items with a head each, behind a head of their own.
std::string tlv_array_bytes(const node &at) {
  constexpr uint64_t most = std::numeric_limits<uint16>::max();
  const std::vector<node> items = at.items();
  if (items.size() > most) {
    at.wrong("an array holds at most " + std::to_string(most) + " items");
  }
  std::string body;
  for (const node &item : items) {
    item.expect_object({"type", "value"});
    const std::string value = bytes_of(item.member("value"), plain_field_bytes);
    if (value.size() > most) {
      item.member("value").wrong("a value has at most " + std::to_string(most) + " bytes");
    }
    const tlv_t head = {static_cast<uint16>(item.member("type").number(0, most)),
                        static_cast<uint16>(value.size())};
    body.append(reinterpret_cast<const char *>(&head), sizeof(head)).append(value);
  }
  const tlv_array_head head = {static_cast<uint32>(sizeof(head) + body.size()),
                               static_cast<uint16>(items.size()), tlv_array_version};
  return std::string(reinterpret_cast<const char *>(&head), sizeof(head)) + body;
}

std::string field_bytes(const node &at) {
  const bool is_array = at.value().is_object() && at.value().size() == 1 && at.has("tlv_array");
  return is_array ? tlv_array_bytes(at.member("tlv_array")) : plain_field_bytes(at);
}

// ---- The parts of a description ----------------------------------------------------------------

pss2_nonvol_params params_of(const node &at) {
  constexpr uint64_t most = std::numeric_limits<uint32>::max();
  at.expect_object({"max_key_size", "max_value_size", "max_node_keys", "version"});
  pss2_nonvol_params params = lab::default_store_params;
  const auto take = [&](const char *name, uint64_t least, uint32 *into) {
    if (at.has(name)) {
      *into = static_cast<uint32>(at.member(name).number(least, most));
    }
  };
  take("max_key_size", 1, &params.max_key_size);
  take("max_value_size", 0, &params.max_value_size);
  take("max_node_keys", 0, &params.max_node_keys);
  take("version", 0, &params.version);
  return params;
}

record_description record_of(const node &at, const pss2_nonvol_params &params) {
  at.expect_object({"key", "value"});
  record_description record = {bytes_of(at.member("key"), field_bytes),
                               bytes_of(at.member("value"), field_bytes)};
  if (record.key.size() > params.max_key_size) {
    at.wrong("the key has " + counted(record.key.size(), "byte") + "; at most " +
             std::to_string(params.max_key_size) + " are allowed");
  }
  if (record.value.size() > params.max_value_size) {
    at.wrong("the value has " + counted(record.value.size(), "byte") + "; at most " +
             std::to_string(params.max_value_size) + " are allowed");
  }
  return record;
}

std::string uri_of(const node &at) {
  std::string uri = at.text();
  if (!is_described_uri(uri)) {
    at.wrong("a store such as nonvolatile:/cfg/0/name or volatile:/cfg/0/name is wanted here");
  }
  return uri;
}

store_description store_of(const node &at) {
  at.expect_object({"uri", "params", "records"});
  store_description store;
  store.uri = uri_of(at.member("uri"));
  store.has_params = at.has("params");
  store.params = store.has_params ? params_of(at.member("params")) : lab::default_store_params;
  std::set<std::string> keys;
  for (const node &record : at.items_of("records")) {
    store.records.push_back(record_of(record, store.params));
    if (!keys.insert(store.records.back().key).second) {
      record.wrong("the store has this key already");
    }
  }
  if (store.params.max_node_keys != 0 && keys.size() > store.params.max_node_keys) {
    at.wrong("more records than max_node_keys allows");
  }
  return store;
}

mode_t mode_of(const node &at) {
  const std::string text = at.text();
  const bool octal =
      !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
  const unsigned long mode = octal ? std::stoul(text, nullptr, 8) : 0;
  if (!octal || mode > 0777) {
    at.wrong("a mode such as \"0644\" is wanted here");
  }
  return static_cast<mode_t>(mode);
}

bool is_reserved(const std::string &path) {
  return path == std::string("/") + switch_file || path.starts_with("/var/run/mts/") ||
         (path.starts_with("/images/") && path.ends_with("/version"));
}

file_description file_of(const node &at) {
  at.expect_object({"path", "mode", "text", "hex"});
  file_description file;
  file.path = at.member("path").path();
  if (is_reserved(file.path)) {
    at.member("path").wrong("this file is the lab's own");
  }
  if (at.has("mode")) {
    file.mode = mode_of(at.member("mode"));
  }
  if (at.has("text") && at.has("hex")) {
    at.wrong("either text or hex is wanted here, not both");
  }
  if (at.has("text")) {
    file.content = at.member("text").text();
  } else if (at.has("hex")) {
    file.content = hex_bytes(at.member("hex"));
  }
  return file;
}

access_point_description access_point_of(const node &at) {
  at.expect_object({"sap", "owner"});
  access_point_description point;
  point.sap = static_cast<uint32>(at.member("sap").number(1, last_access_point));
  point.owner = at.has("owner") ? at.member("owner").text() : "";
  if (point.owner.size() > 100 || point.owner.find('\n') != std::string::npos) {
    at.member("owner").wrong("an owner is one line of at most 100 bytes");
  }
  return point;
}

void read_releases(const node &top, description *result) {
  result->state.release = top.member("release").release();
  for (const node &item : top.member("releases").items()) {
    const std::string release = item.release();
    if (std::count(result->releases.begin(), result->releases.end(), release) != 0) {
      item.wrong("this release is in the list already");
    }
    result->releases.push_back(release);
  }
  const auto &known = result->releases;
  if (std::find(known.begin(), known.end(), result->state.release) == known.end()) {
    top.member("release").wrong("the running release has to be one of 'releases'");
  }
}

void read_state(const node &top, switch_state *state) {
  state->name = top.has("name") ? top.member("name").text() : "switch";
  state->package = top.has("package") ? top.member("package").text() : "system";
  if (top.has("vdcs")) {
    for (const node &item : top.member("vdcs").items()) {
      const auto vdc = static_cast<vdc_id_t>(item.number(1, 16));
      if (!state->vdcs.empty() && state->vdcs.back() >= vdc) {
        item.wrong("the VDCs are wanted in rising order");
      }
      state->vdcs.push_back(vdc);
    }
    if (state->vdcs.empty() || state->vdcs.front() != 1) {
      top.member("vdcs").wrong("VDC 1 is missing: every switch has it");
    }
  } else {
    state->vdcs = {1};
  }
  state->running_cfg_dir = top.member("running_cfg_dir").path();
  const node paths = top.member("paths");
  paths.expect_object({"gsync", "running-fs", "startup"});
  for (const moment which : all_moments) {
    const node path = paths.member(moment_name(which));
    state->paths[static_cast<size_t>(which)] = path.path();
    // The converters of these moments read the VDC from the path, behind this.
    if (which != moment::gsync && path.text().find("/vdc_") != std::string::npos) {
      path.wrong("'/vdc_' in it would name a VDC: the switch adds that itself");
    }
  }
}

// ---- What stands where -------------------------------------------------------------------------

void expect_free(const node &at, const std::string &trouble) {
  if (!trouble.empty()) {
    at.wrong(trouble);
  }
}

void claim_state(const node &top, const description &found, layout *all) {
  all->claim_file(std::string("/") + switch_file);
  for (const std::string &release : found.releases) {
    all->claim_file("/images/" + release + "/version");
  }
  expect_free(top.member("running_cfg_dir"), all->claim_folder(found.state.running_cfg_dir));
  for (const moment which : all_moments) {
    expect_free(top.member("paths").member(moment_name(which)),
                all->claim_folder(found.state.paths[static_cast<size_t>(which)]));
  }
}

bool describes(const description &found, const char *uri) {
  return std::any_of(found.stores.begin(), found.stores.end(), [&](const auto &store) {
    return lab::store_file(store.uri) == lab::store_file(uri);
  });
}

// With the names that the engine uses beside it. What is in the way.
std::string claim_store(const std::string &uri, layout *all) {
  std::string trouble;
  for (const char *ending : {"", "-journal", "-new"}) {
    const std::string one = all->claim_file(lab::store_file(uri) + ending);
    trouble = trouble.empty() ? one : trouble;
  }
  return trouble;
}

// Every part of the switch has its own place, and nothing is below a file. The first one that has
// not is named.
void check_layout(const node &top, const description &found) {
  layout all;
  // A boot or a conversion may make it.
  if (!describes(found, lab::running_tag_tables)) {
    claim_store(lab::running_tag_tables, &all);
  }
  claim_state(top, found, &all);
  size_t at = 0;
  for (const node &item : top.items_of("stores")) {
    expect_free(item.member("uri"), claim_store(found.stores[at++].uri, &all));
  }
  at = 0;
  for (const node &item : top.items_of("files")) {
    expect_free(item.member("path"), all.claim_file(found.files[at++].path));
  }
}

// Each name once: `take` makes a part of an item and gives what names it.
template <typename take_t>
void read_list(const node &top, const char *name, const char *twice, take_t take) {
  std::set<std::string> seen;
  for (const node &item : top.items_of(name)) {
    if (!seen.insert(take(item)).second) {
      item.wrong(twice);
    }
  }
}

} // namespace

bool is_described_uri(const std::string &uri) {
  const size_t colon = uri.find(':');
  std::string path = colon == std::string::npos ? "" : uri.substr(colon + 1);
  if (path.size() > 1 && path.back() == '/') {
    path.pop_back(); // the store's name may be empty
  }
  return !lab::store_file(uri).empty() && is_contained_path(path) && is_utf8(uri);
}

std::vector<store_description> parse_stores(const std::string &text, const std::string &origin) {
  const nlohmann::json document = output::result_in(parse_json(text, origin), origin);
  const node top(document, "", origin);
  top.expect_object({"stores"});
  top.member("stores");
  std::vector<store_description> stores;
  read_list(top, "stores", "this store is described already", [&](const node &item) {
    stores.push_back(store_of(item));
    return lab::store_file(stores.back().uri);
  });
  return stores;
}

description parse_description(const std::string &text, const std::string &origin) {
  const nlohmann::json document = parse_json(text, origin);
  const node top(document, "", origin);
  top.expect_object({"name", "release", "releases", "vdcs", "running_cfg_dir", "paths", "package",
                     "stores", "files", "access_points"});
  description result;
  read_releases(top, &result);
  read_state(top, &result.state);
  read_list(top, "stores", "this store is described already", [&](const node &item) {
    result.stores.push_back(store_of(item));
    return lab::store_file(result.stores.back().uri);
  });
  read_list(top, "files", "this file is described already", [&](const node &item) {
    result.files.push_back(file_of(item));
    return result.files.back().path;
  });
  read_list(top, "access_points", "this access point is described already", [&](const node &item) {
    result.access_points.push_back(access_point_of(item));
    return std::to_string(result.access_points.back().sap);
  });
  check_layout(top, result);
  return result;
}
