// store list, show, get, put, delete: single stores and records, by hand.
#include "verbs.h"

#include <algorithm>

#include "confirm.h"
#include "failure.h"
#include "jail.h"
#include "lab/lab.h"
#include "records.h"
#include "statuses.h"
#include "store_access.h"
#include "switch_dir.h"
#include "tag_tables.h"
#include "text.h"

namespace {

// Bytes as the user asked to see them.
std::string shown(const store_options &options, const std::string &hex) {
  return options.text ? to_text(from_hex(hex).value_or("")) : hex;
}

// Why a switch with these VDCs does not run a record of the running tag tables; empty otherwise.
std::string trouble_of(const std::string &uri, const std::vector<vdc_id_t> &vdcs,
                       const nlohmann::json &sent) {
  if (lab::store_file(uri) != lab::store_file(lab::running_tag_tables)) {
    return "";
  }
  return running_record_trouble(vdcs, from_hex(sent["key"].get<std::string>()).value_or(""),
                                from_hex(sent["value"].get<std::string>()).value_or(""));
}

// A record as it is sent, for the user: with what it means where that is known, in *meaning too.
nlohmann::json shown_record(const store_options &options, const std::vector<vdc_id_t> &vdcs,
                            const nlohmann::json &sent, std::string *meaning) {
  const std::string key = sent["key"].get<std::string>();
  const std::string value = sent["value"].get<std::string>();
  nlohmann::json record = {{"key", shown(options, key)}, {"value", shown(options, value)}};
  const std::optional<decoded_record> decoded =
      decode_record(options.uri, from_hex(key).value_or(""), from_hex(value).value_or(""));
  if (decoded) {
    record["decoded"] = decoded->to_json();
    *meaning = decoded->to_text();
  }
  const std::string trouble = trouble_of(options.uri, vdcs, sent);
  if (!trouble.empty()) {
    record["trouble"] = trouble;
    append_word(*meaning, "convert refuses it: " + trouble, "; ");
  }
  return record;
}

// The column of meanings stands when there is one.
void print_records(const nlohmann::json &records, const std::vector<std::string> &meanings) {
  const bool decoded = std::any_of(meanings.begin(), meanings.end(),
                                   [](const std::string &text) { return !text.empty(); });
  std::vector<std::vector<output::cell>> rows;
  for (const nlohmann::json &record : records) {
    rows.push_back({record["key"].get<std::string>(), record["value"].get<std::string>()});
    if (decoded) {
      rows.back().emplace_back(meanings[rows.size() - 1]);
    }
  }
  std::vector<output::column> columns = {{"KEY"}, {"VALUE"}};
  if (decoded) {
    columns.push_back({"MEANING"});
  }
  output::table(columns, rows);
}

} // namespace

int store_list(const common_options &common, const store_options &options) {
  const switch_dir target(options.dir, switch_dir::access::read);
  nlohmann::json stores = nlohmann::json::array();
  std::vector<std::string> names; // of the same stores, for people
  in_switch(
      target,
      [](const jail::channel &channel) {
        for (const std::string &uri : all_store_uris()) {
          lab::store_info info;
          const syserr_t status = lab::store_inspect(uri, &info);
          channel.send({{"uri", shown_uri(uri)},
                        {"name", is_utf8(uri) ? to_text(uri) : shown_uri(uri)},
                        {"records", info.records},
                        {"bytes", info.bytes},
                        {"max_key_size", info.params.max_key_size},
                        {"max_value_size", info.params.max_value_size},
                        {"status", status},
                        {"text", syserr2str(status)}});
        }
      },
      [&](const nlohmann::json &message) {
        names.push_back(message["name"].get<std::string>());
        stores.push_back(message);
        stores.back().erase("name");
      });
  if (common.format == output::format::json) {
    output::json({{"switch", options.dir}, {"stores", stores}}, "stores");
    return exit_done;
  }
  using output::align;
  std::vector<std::vector<output::cell>> rows;
  for (const nlohmann::json &store : stores) {
    const auto status = store["status"].get<syserr_t>();
    rows.push_back({names[rows.size()], store["records"].dump(), store["bytes"].dump(),
                    store["max_key_size"].dump(), store["max_value_size"].dump(),
                    status == 0 ? output::cell("ok") : output::cell::bad(status_text(status))});
  }
  output::table({{"STORE"},
                 {"RECORDS", align::right},
                 {"BYTES", align::right},
                 {"KEY MAX", align::right},
                 {"VALUE MAX", align::right},
                 {"STATUS"}},
                rows);
  return exit_done;
}

int store_show(const common_options &common, const store_options &options) {
  const switch_dir target(options.dir, switch_dir::access::read);
  nlohmann::json records = nlohmann::json::array();
  std::vector<std::string> meanings; // of the same records, for people
  in_switch(
      target,
      [&](const jail::channel &channel) {
        is_file_path(options.uri) ? send_file_records(channel, options.uri)
                                  : send_records(channel, options.uri);
      },
      [&](const nlohmann::json &message) {
        if (message.contains("key")) {
          records.push_back(
              shown_record(options, target.state().vdcs, message, &meanings.emplace_back()));
        }
      });
  if (common.format == output::format::json) {
    output::json({{"switch", options.dir},
                  {is_file_path(options.uri) ? "file" : "uri", shown_uri(options.uri)},
                  {"encoding", options.text ? "text" : "hex"},
                  {"records", records}},
                 "records");
    return exit_done;
  }
  print_records(records, meanings);
  return exit_done;
}

int store_get(const common_options &common, const store_options &options) {
  const std::string key = typed_bytes(options.key, options.text, "key");
  const switch_dir target(options.dir, switch_dir::access::read);
  std::string value;
  in_switch(
      target,
      [&](const jail::channel &channel) {
        store_handle store(options.uri, PSS2_MODE_READ);
        channel.send({{"value", to_hex(store.fetch(key))}});
      },
      [&](const nlohmann::json &message) { value = shown(options, message["value"]); });
  if (common.format == output::format::json) {
    output::json({{"switch", options.dir},
                  {"uri", shown_uri(options.uri)},
                  {"encoding", options.text ? "text" : "hex"},
                  {"key", options.key},
                  {"value", value}});
  } else {
    output::text(value + "\n");
  }
  return exit_done;
}

int store_put(const common_options &common, const store_options &options) {
  const std::string key = typed_bytes(options.key, options.text, "key");
  const std::string value = typed_bytes(options.value, options.text, "value");
  const switch_dir target(options.dir, switch_dir::access::write);
  bool replaced = false;
  in_switch(
      target,
      [&](const jail::channel &channel) {
        const uint32 mode =
            PSS2_MODE_READ | PSS2_MODE_WRITE | (options.create ? PSS2_MODE_CREATE : 0u);
        store_handle store(options.uri, mode);
        const bool stood = store.has(key);
        store.put(key, value);
        store.close();
        channel.send({{"replaced", stood}});
      },
      [&](const nlohmann::json &message) { replaced = message["replaced"].get<bool>(); });
  if (common.format == output::format::json) {
    output::json(
        {{"switch", options.dir}, {"uri", shown_uri(options.uri)}, {"replaced", replaced}});
  } else {
    output::text(options.uri + ": record " + (replaced ? "replaced" : "added") + "\n");
  }
  return exit_done;
}

int store_delete(const common_options &common, const store_options &options) {
  if (options.all == options.has_key) {
    throw failure(exit_usage, "store delete wants either a key or --all, which is the whole store");
  }
  const std::string key = options.all ? "" : typed_bytes(options.key, options.text, "key");
  if (options.all) {
    confirm(in_quotes(options.dir) + ": delete the whole store " + in_quotes(options.uri) + "?",
            common.yes);
  }
  const switch_dir target(options.dir, switch_dir::access::write);
  in_switch(target, [&](const jail::channel &) {
    if (options.all) {
      check_store(pss_destroy(options.uri.c_str()), options.uri);
      return;
    }
    store_handle store(options.uri, PSS2_MODE_READ | PSS2_MODE_WRITE);
    store.remove(key);
    store.close();
  });
  const char *what = options.all ? "store" : "record";
  if (common.format == output::format::json) {
    output::json({{"switch", options.dir}, {"uri", shown_uri(options.uri)}, {"deleted", what}});
  } else {
    output::text(options.uri + ": " + what + " deleted\n");
  }
  return exit_done;
}
