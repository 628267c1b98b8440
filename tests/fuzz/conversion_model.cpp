#include "fuzz/conversion_model.h"

#include <algorithm>
#include <cstring>

#include "fuzz/release_model.h"

namespace conversion_model {
namespace {

using records_t = platform_double::records_t;
using release_model::order;

uint32 number_at(const std::string &bytes, size_t at) {
  uint32 number = 0;
  if (at + sizeof number <= bytes.size()) {
    std::memcpy(&number, bytes.data() + at, sizeof number);
  }
  return number;
}

std::string number(uint32 value) { // as it is stored
  return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string reversed(std::string bytes) {
  std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

std::string big_endian(uint32 value) {
  return reversed(number(value));
}

std::string resized(std::string value, size_t size) {
  value.resize(size, '\0');
  return value;
}

// The VDC of a path.
uint16_t vdc_of(const std::string &path) {
  const size_t mark = path.find("/vdc_");
  return mark == std::string::npos ? 1 : release_model::vdc_of(path.substr(mark + 5));
}

// ---- Services that are removed before release 4 ------------------------------------------------

void remove(const request &asked, outcome *result, const std::string &release,
            std::initializer_list<const char *> stores) {
  if (release_model::leading_number(release.substr(0, 16)) != 3) {
    return;
  }
  for (const char *store : stores) {
    result->stores.erase("volatile:" + (store[0] == '/' ? store : asked.path + "/" + store));
  }
}

void sksd(const request &asked, outcome *result) {
  remove(asked, result, asked.to, {});
}
void plugin(const request &asked, outcome *result) {
  remove(asked, result, asked.to, {"plugin_runtime_cfg", "plugin_runtime_info", "plugin_debug"});
}
void evms(const request &asked, outcome *result) {
  remove(asked, result, asked.to, {"evms_runtime_cfg", "evms_runtime_info"});
}
void evmc(const request &asked, outcome *result) {
  remove(asked, result, asked.to, {"evmc_runtime_cfg", "evmc_runtime_info"});
}
void mvsh(const request &asked, outcome *result) {
  remove(asked, result, asked.to, {"mvsh_runtime_cfg", "mvsh_runtime_info"});
}
void smm(const request &asked, outcome *result) {
  remove(asked, result, asked.image_to.value_or(""), {"/dev/shm/smm_smm_data"});
}
void clis(const request &asked, outcome *result) {
  remove(asked, result, asked.image_to.value_or(""), {"clis_runtime_config", "clis_runtime_info"});
}

void epp(const request &asked, outcome *result) {
  if (asked.npv_mode && asked.from > asked.to && asked.to < "4.1(2)") {
    for (const char *store : {"epp_runtime_config", "epp_runtime_ha", "epp_debug"}) {
      result->stores.erase("volatile:" + asked.path + "/" + store);
    }
  }
}

// ---- Features that became optional -------------------------------------------------------------

bool is_enabled(const records_t *store, const std::string &key, bool any_value) {
  const auto found = store == nullptr ? records_t::const_iterator() : store->find(key);
  if (store == nullptr || found == store->end()) {
    return false;
  }
  return any_value || number_at(found->second, 0) != 0;
}

const records_t *find(const outcome &of, const std::string &uri) {
  const auto found = of.stores.find(uri);
  return found == of.stores.end() ? nullptr : &found->second;
}

struct feature {
  uint32 uuid;
  const char *store;
  std::string key;
  bool any_value;
};
const feature k_kps = {542, "kps_saved_config", number(240), true};
const feature k_dot1x = {381, "dot1x_saved_config", std::string("\x64\x0a\0\0\0\0\0\0\0\0\0\0", 12),
                         false};

bool becomes_optional(const feature &of, const request &asked, const outcome &now,
                      const std::string &folder) {
  return order(asked.to, asked.from) != 0 && order(asked.from, "4.2(1)") < 0 &&
         order(asked.to, "4.2(1)") >= 0 &&
         is_enabled(find(now, "nonvolatile:" + folder + "/" + of.store), of.key, of.any_value);
}

syserr_t told(const request &asked) {
  const uint32 status = number_at(reversed(asked.answer.substr(0, 4)), 0);
  return status == 0x401E0076 ? 0 : status;
}

// Puts the service's entry, whose tag is empty, into a TLV array. A status when it is none.
syserr_t put_tag(uint32 uuid, std::string *table) {
  const size_t stated = number_at(*table, 0);
  if (table->size() < 8 || stated < 8 || stated > table->size() || stated > 65536) {
    return 0x40480009;
  }
  const std::string entry = std::string("\1\0\5\0", 4) + number(uuid) + std::string(1, '\0');
  std::string items;
  uint16_t count = 0;
  bool put = false;
  size_t at = 8;
  while (at < stated) {
    const size_t left = stated - at;
    const size_t length = left < 4 ? 0 : number_at(*table + std::string(4, '\0'), at) >> 16;
    if (left < 4 || length > left - 4) {
      return 0x40490002;
    }
    const std::string item = table->substr(at, 4 + length);
    const bool same = !put && length >= 4 && item.substr(0, 2) == entry.substr(0, 2) &&
                      item.substr(4, 4) == entry.substr(4, 4);
    items += same ? entry : item;
    put = put || same;
    ++count;
    at += item.size();
  }
  items += put ? "" : entry;
  count = static_cast<uint16_t>(count + (put ? 0 : 1));
  if (8 + items.size() > 65536) {
    return 0x401E0077;
  }
  *table = number(static_cast<uint32>(8 + items.size())) +
           std::string(reinterpret_cast<const char *>(&count), 2) + std::string("\1\0", 2) + items;
  return 0;
}

void feature_at_running_fs(const feature &of, const request &asked, outcome *result) {
  if (becomes_optional(of, asked, *result, asked.path)) {
    result->status = told(asked);
  }
}

void feature_at_startup(const feature &of, const request &asked, outcome *result) {
  if (order(asked.to, asked.from) == 0) {
    return;
  }
  const uint16_t vdc = vdc_of(asked.path);
  if (vdc == 0) {
    result->status = 0x401E0076;
    return;
  }
  if (!becomes_optional(of, asked, *result, asked.path + "/bin")) {
    return;
  }
  const auto saved = result->stores.find("nonvolatile:" + asked.path + "/bin/sysmgr_config");
  if (vdc > 16) {
    result->status = 0x401E0076;
  } else if (saved != result->stores.end()) {
    const std::string key = number(9) + std::string(8, '\0');
    const auto record = saved->second.find(key);
    std::string table =
        record == saved->second.end() ? number(8) + std::string("\0\0\1\0", 4) : record->second;
    result->status = put_tag(of.uuid, &table);
    // A running table is needed, and VDC 1 only has one.
    if (result->status != 0x40480009 && vdc != 1) {
      result->status = 0x401E0076;
    }
    if (result->status == 0) {
      saved->second[key] = table;
    }
  }
  if (result->status == 0) {
    result->status = told(asked);
  }
}

void kps_running_fs(const request &asked, outcome *result) {
  feature_at_running_fs(k_kps, asked, result);
}
void dot1x_running_fs(const request &asked, outcome *result) {
  feature_at_running_fs(k_dot1x, asked, result);
}
void kps_startup(const request &asked, outcome *result) {
  feature_at_startup(k_kps, asked, result);
}
void dot1x_startup(const request &asked, outcome *result) {
  feature_at_startup(k_dot1x, asked, result);
}

void conditional(const request &asked, outcome *result) {
  if (!asked.image_to || !asked.image_from) {
    result->status = 0x401E0056;
    return;
  }
  result->stores["volatile:" + asked.path + "/cond_srv_config"] = {{number(15), number(1)}};
}

// ---- Snapshot databases ------------------------------------------------------------------------

// The stores are there during an operation only; what lasts is in flat files.
void psshlpr(const request &asked, outcome *result) {
  const bool old_from = order(asked.from, "4.2(1)") < 0;
  const bool old_to = order(asked.to, "4.2(1)") < 0;
  if (old_from != old_to) {
    result->stores.erase("volatile:" + asked.path + "/globalpss_table");
  }
  if (old_from && !old_to) {
    result->stores.erase("volatile:" + asked.path + "/svi_gldb");
  }
}

void nothing(const request & /*asked*/, outcome * /*result*/) {}

// ---- The port managers -------------------------------------------------------------------------

bool has_q8_callback(const std::string &value) {
  const size_t stated = number_at(value, 0);
  if (value.size() < 8 || stated > value.size()) {
    return false;
  }
  size_t count = number_at(value, 4) & 0xFFFF;
  for (size_t at = 8; count > 0 && at + 4 <= stated; --count) {
    const uint32 head = number_at(value, at);
    const size_t length = head >> 16;
    if (at + 4 + length > stated) {
      break;
    }
    if ((head & 0xFFFF) == 2 && length > 4 && value[at + 8] == '\xfd') {
      return true;
    }
    at += 4 + length;
  }
  return false;
}

std::string ltl_key(uint32 ltl) {
  return '\x36' + big_endian(ltl) + std::string("\0\1", 2);
}

void renumber(const request &asked, records_t *records) {
  for (uint32 ltl = 0x10DA; ltl <= 0x1121; ++ltl) {
    const auto found = records->find(ltl_key(ltl));
    if (found == records->end() || !has_q8_callback(found->second) ||
        found->second.size() > asked.largest_value) {
      continue;
    }
    const std::string value = found->second;
    records->erase(found);
    (*records)[ltl_key(0x1162 + (ltl - 0x10DA) / 4 * 4)] = value;
  }
}

void pixm(const request &asked, outcome *result) {
  const auto store = result->stores.find("nonvolatile:" + asked.path + "/pixm_runtime_info");
  if (store == result->stores.end()) {
    return;
  }
  if (order(asked.from, "4.1(3)") >= 0 && order(asked.to, "4.1(2)") < 0) {
    renumber(asked, &store->second);
  }
  if (order(asked.from, "4.2(3)") >= 0 && order(asked.to, "4.2(2)") < 0) {
    std::erase_if(store->second, [](const auto &record) {
      return record.first.size() == 7 && record.first[0] == '\x3a';
    });
  }
}

bool is_config_tlv(const std::string &key) {
  return key.size() >= 6 && key[0] == 0x65 && (key[1] == 20 || key[1] == 21);
}

void delete_config_tlvs(const request &asked, const std::string &uri, outcome *result) {
  const auto store = result->stores.find(uri);
  const bool crosses = (order(asked.from, "4.2(0)") < 0) != (order(asked.to, "4.2(0)") < 0);
  if (store != result->stores.end() && crosses) {
    std::erase_if(store->second, [](const auto &record) { return is_config_tlv(record.first); });
  }
}

// The reasons of a port's state: first and last old number, the first new one.
struct reasons {
  int first;
  int last;
  int becomes;
};
constexpr reasons k_up[] = {{124, 127, 143}, {128, 141, 125}, {142, 144, 147}, {146, 148, 151},
                            {149, 161, 154}, {162, 162, 124}, {163, 165, 139}, {166, 166, 220}};
constexpr reasons k_down[] = {{124, 124, 162}, {125, 138, 128}, {139, 141, 163}, {143, 143, 124},
                              {144, 146, 125}, {147, 149, 142}, {151, 166, 146}, {220, 220, 166}};

template <size_t count> char renumbered(char reason, const reasons (&table)[count]) {
  const int old = static_cast<unsigned char>(reason);
  for (const reasons &range : table) {
    if (old >= range.first && old <= range.last) {
      return static_cast<char>(range.becomes + (old - range.first));
    }
  }
  return reason;
}

void change_reasons(const request &asked, outcome *result) {
  const auto store = result->stores.find("nonvolatile:" + asked.path + "/ethpm_runtime_info");
  const bool up = order(asked.from, "4.2(0)") < 0;
  const bool crosses = up != (order(asked.to, "4.2(0)") < 0);
  if (store == result->stores.end() || !crosses) {
    return;
  }
  for (auto &[key, value] : store->second) {
    if (key.size() >= 6 && key[0] == 0x33 && key[1] == 6 && value.size() > 13) {
      value[13] = up ? renumbered(value[13], k_up) : renumbered(value[13], k_down);
    }
  }
}

void ethpm_gsync(const request &asked, outcome *result) {
  change_reasons(asked, result);
  delete_config_tlvs(asked, "nonvolatile:" + asked.path + "/ethpm_runtime_cfg", result);
}
void ethpm_startup(const request &asked, outcome *result) {
  delete_config_tlvs(asked, "nonvolatile:" + asked.path + "/bin/ethpm_saved_config", result);
}

// ---- VRRP --------------------------------------------------------------------------------------

const std::string k_global = number(4);

// The keys that the values of a store name, in the order of its own keys; values too short for that
// name none.
std::string vr_key(const std::string &value) {
  return '\1' + reversed(value.substr(5, 4)) + value[4] + reversed(value.substr(0, 4));
}
std::string vip_key(const std::string &value) {
  return '\2' + reversed(value.substr(5, 4)) + value[4] + reversed(value.substr(0, 4)) +
         value.substr(9, 16);
}

std::vector<std::string> values_of(const records_t &records, char type, size_t least) {
  std::vector<std::string> found;
  for (const auto &[key, value] : records) {
    if (!key.empty() && key[0] == type && value.size() >= least) {
      found.push_back(value);
    }
  }
  return found;
}

void give_away(records_t *records) {
  const std::vector<std::string> routers = values_of(*records, 1, 9);
  const std::vector<std::string> addresses = values_of(*records, 2, 25);
  records->erase(k_global);
  for (const std::string &value : routers) {
    records->erase(vr_key(value));
  }
  for (const std::string &value : addresses) {
    records->erase(vip_key(value));
  }
}

// VR values are cut or filled to what the giver's layout has, and then to the taker's.
void take_over(const records_t &from, size_t giver, size_t taker, records_t *into) {
  (*into)[k_global] = '\1' + std::string(20, '\0');
  const records_t given = from;
  for (const std::string &value : values_of(given, 1, 9)) {
    const std::string whole = resized(value.substr(0, giver), giver);
    (*into)[vr_key(value)] = resized(whole.substr(0, taker), taker);
  }
  for (const std::string &value : values_of(given, 2, 25)) {
    (*into)[vip_key(value)] = resized(value.substr(0, 33), 33);
  }
}

// What a startup conversion of VRRP knows of its request.
struct vrrp_request {
  bool wanted = false; // otherwise only the status counts
  bool up = false;
  bool down = false;
  std::string suffix; // of the temporary store, as the path has it
  uint16_t vdc = 1;
  std::string mgr;
  std::string eng;
};

vrrp_request vrrp(const request &asked) {
  vrrp_request found;
  const std::string path = asked.path + "/bin";
  found.up = order(asked.from, "4.2(1)") < 0;
  found.down = order(asked.to, "4.2(1)") < 0;
  found.wanted = found.up || found.down;
  found.vdc = vdc_of(path);
  const size_t mark = path.find("/vdc_");
  found.suffix = mark == std::string::npos ? "" : path.substr(mark + 5, 8);
  found.mgr = "nonvolatile:" + path + "/vrrp-cfg_config_sav";
  found.eng = "nonvolatile:" + path + "/vrrp-eng_runtime_config";
  return found;
}

const std::string k_temporary = "nonvolatile:/tmp/vrrp-startup-pss";

void mgr_up(const request &asked, outcome *result) {
  const vrrp_request vr = vrrp(asked);
  if (vr.wanted && vr.vdc == 0) {
    result->status = 0x401E0076;
  } else if (vr.up && result->stores.count(vr.mgr) == 1) {
    result->stores[k_temporary + vr.suffix] = result->stores[vr.mgr];
    give_away(&result->stores[vr.mgr]);
  }
}

void mgr_down(const request &asked, outcome *result) {
  const vrrp_request vr = vrrp(asked);
  const std::string temporary = k_temporary + (vr.vdc == 1 ? "" : vr.suffix);
  if (vr.wanted && vr.vdc == 0) {
    result->status = 0x401E0076;
  } else if (vr.down && result->stores.count(temporary) == 1) {
    if (result->stores.count(vr.mgr) == 0) {
      result->left_open.push_back(temporary); // an early end, on purpose
      return;
    }
    take_over(result->stores[temporary], 117, 85, &result->stores[vr.mgr]);
    result->stores.erase(temporary);
  }
}

void eng_up(const request &asked, outcome *result) {
  const vrrp_request vr = vrrp(asked);
  const std::string temporary = k_temporary + (vr.vdc == 1 ? "" : vr.suffix);
  if (vr.vdc == 0) {
    result->status = 0x401E0076;
  } else if (vr.up && result->stores.count(temporary) == 1) {
    result->stores[vr.eng] = result->stores[temporary];
    take_over(result->stores[temporary], 85, 117, &result->stores[vr.eng]);
    result->stores.erase(temporary);
  }
}

void eng_down(const request &asked, outcome *result) {
  const vrrp_request vr = vrrp(asked);
  const std::string temporary = k_temporary + (vr.vdc == 1 ? "" : vr.suffix);
  if (vr.vdc == 0) {
    result->status = 0x401E0076;
  } else if (vr.down && result->stores.count(vr.eng) == 1) {
    result->stores[temporary] = result->stores[vr.eng];
    give_away(&result->stores[vr.eng]);
  }
}

} // namespace

const std::vector<row> rows = {
    {"gsync", 390, psshlpr},
    {"gsync", 219, nothing},
    {"gsync", 501, conditional},
    {"gsync", 307, pixm},
    {"gsync", 306, ethpm_gsync},
    {"startup", 219, nothing},
    {"startup", 542, kps_startup},
    {"startup", 381, dot1x_startup},
    {"startup", 306, ethpm_startup},
    {"startup", 11, mgr_up},
    {"startup", 68, eng_up},
    {"startup", 68, eng_down},
    {"startup", 11, mgr_down},
    {"running-fs", 297, sksd},
    {"running-fs", 327, plugin},
    {"running-fs", 411, evms},
    {"running-fs", 413, evmc},
    {"running-fs", 564, mvsh},
    {"running-fs", 260, smm},
    {"running-fs", 261, clis},
    {"running-fs", 166, epp},
    {"running-fs", 542, kps_running_fs},
    {"running-fs", 381, dot1x_running_fs},
};

} // namespace conversion_model
