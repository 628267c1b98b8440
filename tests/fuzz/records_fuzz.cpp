// Stored keys and values of every service, with the service, the pair of releases, the path and the
// stores mutated together. What stands in all stores afterwards is what the rules say.
#include <cstdlib>

#include "fault/busy_switch.h"
#include "fuzz/conversion_model.h"
#include "fuzz/fuzz_switch.h"
#include "fuzz/quiet_files.h"

namespace {

using conversion_model::outcome;
using conversion_model::request;
using conversion_model::row;

const char *const k_paths[] = {"/cfg",       "/cfg/vdc_2",     "/cfg/vdc_1",
                               "/cfg/vdc_0", "/cfg/vdc_65553", "/cfg/vdc_ 16x"};

// The stores that are looked at, with the path before those that begin with a slash.
struct store_name {
  const char *scheme;
  const char *name;
  bool below_path = true;
};
constexpr store_name k_stores[] = {
    {"nonvolatile:", "/pixm_runtime_info"},
    {"nonvolatile:", "/ethpm_runtime_info"},
    {"nonvolatile:", "/ethpm_runtime_cfg"},
    {"nonvolatile:", "/bin/ethpm_saved_config"},
    {"nonvolatile:", "/bin/vrrp-cfg_config_sav"},
    {"nonvolatile:", "/bin/vrrp-eng_runtime_config"},
    {"nonvolatile:", "/tmp/vrrp-startup-pss", false},
    {"nonvolatile:", "/tmp/vrrp-startup-pss2/bin", false},
    {"nonvolatile:", "/bin/sysmgr_config"},
    {"nonvolatile:", "/bin/kps_saved_config"},
    {"nonvolatile:", "/bin/dot1x_saved_config"},
    {"nonvolatile:", "/kps_saved_config"},
    {"nonvolatile:", "/dot1x_saved_config"},
    {"nonvolatile:", "/tmp/vrrp-startup-pss1/bin", false},
    {"volatile:", "/svi_gldb"},
    {"volatile:", "/globalpss_table"},
    {"volatile:", "/cond_srv_config"},
    {"volatile:", "/plugin_runtime_cfg"},
    {"volatile:", "/evms_runtime_info"},
    {"volatile:", "/evmc_runtime_cfg"},
    {"volatile:", "/mvsh_runtime_cfg"},
    {"volatile:", "/dev/shm/smm_smm_data", false},
    {"volatile:", "/clis_runtime_info"},
    {"volatile:", "/epp_runtime_ha"},
};

// A release of the list, or any text.
std::string release_of(bytes_source *source) {
  const uint8_t which = source->byte();
  return which < 240 ? k_releases[which % std::size(k_releases)] : source->text();
}

std::string reversed(const std::string &bytes) {
  return {bytes.rbegin(), bytes.rend()};
}

// The key that a VRRP value names.
std::string vrrp_key(char type, std::string value) {
  value.resize(25, '\0');
  return type + reversed(value.substr(5, 4)) + value[4] + reversed(value.substr(0, 4)) +
         (type == 2 ? value.substr(9) : "");
}

// Keys as the services make them, each with bytes of the input in it, or any key.
std::string key_of(bytes_source *source, const std::string &value) {
  const uint8_t kind = source->byte();
  switch (kind % 10) {
  case 0:
    return std::string("\x36\0\0", 3) + static_cast<char>(0x10 + (0xD8 + kind / 10 * 4 + 3) / 256) +
           static_cast<char>(0xD8 + kind / 10 * 4 + source->byte() % 4) + std::string("\0\1", 2);
  case 1:
    return '\x3a' + source->bytes(6);
  case 2:
    return "\x33\x06" + source->bytes(4);
  case 3:
    return '\x65' + std::string(1, static_cast<char>(20 + kind / 10 % 2)) + source->bytes(4);
  case 4:
    return vrrp_key(1, value);
  case 5:
    return vrrp_key(2, value);
  case 6:
    return std::string(kind < 128 ? "\x04\0\0\0" : "\xf0\0\0\0", 4);
  case 7:
    return std::string(kind < 128 ? "\x09\0\0\0\0\0\0\0\0\0\0\0" : "\x64\x0a\0\0\0\0\0\0\0\0\0\0",
                       12);
  default:
    return source->bytes(source->byte() % 80);
  }
}

void put_stores(bytes_source *source, const std::string &path) {
  platform_double &platform = double_platform();
  for (int records = 0; records < 48 && !source->is_empty(); ++records) {
    const store_name &store = k_stores[source->byte() % std::size(k_stores)];
    const std::string uri = store.scheme + (store.below_path ? path : "") + store.name;
    const std::string value = source->bytes(source->byte());
    platform.put(uri, key_of(source, value), value);
  }
}

conversion_model::stores_t stores_now() {
  conversion_model::stores_t all;
  for (const std::string &uri : double_platform().store_uris()) {
    all[uri] = double_platform().records(uri);
  }
  return all;
}

// Runs one moment for one service, or for all of them.
syserr_t convert(const row &first, bool all, const request &asked) {
  datamorph_args_t args = {asked.path.c_str(), "system", asked.to.c_str(), asked.from.c_str()};
  const std::string moment = first.moment;
  convert_ret_value_t failed = {};
  if (moment == "gsync") {
    return datamorph_gsync(static_cast<uuid_t>(first.uuid), &failed, &args);
  }
  if (moment == "startup") {
    return all ? datamorph_startup_all(&args)
               : datamorph_startup(static_cast<uuid_t>(first.uuid), &failed, &args);
  }
  return all ? datamorph_running_fs_upg_all(&args)
             : datamorph_running_fs_upg(static_cast<uuid_t>(first.uuid), &failed, &args);
}

outcome expected(const row &first, bool all, const request &asked) {
  outcome result;
  result.stores = stores_now();
  for (const row &each : conversion_model::rows) {
    const bool runs = std::string(each.moment) == first.moment &&
                      (each.uuid == first.uuid || (all && each.moment[0] != 'g'));
    if (runs && result.status == 0) {
      each.convert(asked, &result);
    }
  }
  return result;
}

request request_of(bytes_source *source) {
  request asked;
  asked.to = release_of(source);
  asked.from = release_of(source);
  asked.path = k_paths[source->byte() % std::size(k_paths)];
  const uint8_t options = source->byte();
  asked.npv_mode = (options & 1) != 0;
  asked.image_to = asked.to;
  asked.image_from = asked.from;
  if ((options & 6) == 6) {
    asked.image_from.reset();
  }
  if ((options & 24) == 24) {
    asked.image_to.reset();
  }
  asked.answer = (options & 96) == 96 ? source->bytes(4) + "none" : std::string(4, '\0');
  asked.largest_value = (options & 128) != 0 ? 40 : 1048576;
  quiet_files::set_vrrp_traces((options & 32) != 0);
  return asked;
}

void set_up(const request &asked) {
  platform_double &platform = double_platform();
  quiet_files::set_npv_mode(asked.npv_mode);
  platform.reply_always(3, asked.answer);
  if (asked.image_to) {
    platform.set_image("/images/to", *asked.image_to);
  }
  if (asked.image_from) {
    platform.set_image("/images/from", *asked.image_from);
  }
}

// The files that the snapshot databases leave.
void forget_snapshots(const std::string &path) {
  for (const char *file : {"/globalpss_table.snp", "/svi_gldb.snp"}) {
    std::remove((path + file).c_str());
  }
}

void expect_same(const outcome &wanted, const conversion_model::stores_t &found) {
  for (const auto &[uri, records] : wanted.stores) {
    if (found.count(uri) == 0) {
      finding("lost: " + uri);
    }
    if (found.at(uri) != records) {
      finding("other records than the rules say: " + uri);
    }
  }
  expect(found.size() == wanted.stores.size(), "a store that nobody asked for");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  setenv("SYSMGR_VDC_ID", "1", 1);
  setenv("SYSMGR_RUNNING_CFG_DIR", "/cfg", 1);
  setenv("SYSMGR_TO_SRG_PATH", "/images/to", 1);
  setenv("SYSMGR_FROM_SRG_PATH", "/images/from", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool once = (fuzz_switch::reset(), true);
  static_cast<void>(once);
  bytes_source source(data, size);
  const uint8_t which = source.byte();
  const row &first = conversion_model::rows[which % conversion_model::rows.size()];
  const bool all = which >= 10 * conversion_model::rows.size();
  request asked = request_of(&source);
  set_up(asked);
  put_stores(&source, asked.path);
  const std::string ports = "nonvolatile:" + asked.path + "/pixm_runtime_info";
  if (double_platform().has_store(ports)) {
    double_platform().set_store(ports, double_platform().records(ports),
                                {4096, asked.largest_value, 0, 1});
  }
  const outcome wanted = expected(first, all, asked);
  const syserr_t status = convert(first, all, asked);
  if (status != wanted.status) {
    finding("status " + std::to_string(status) + ", not " + std::to_string(wanted.status));
  }
  expect_same(wanted, stores_now());
  fuzz_switch::expect_tidy(wanted.left_open);
  forget_snapshots(asked.path);
  fuzz_switch::reset(); // now, so that memory that is left was lost by this input
  return 0;
}
