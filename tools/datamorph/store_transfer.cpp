// store export and store import: whole stores as JSON, in the form that a switch's description has.
#include "verbs.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "description.h"
#include "failure.h"
#include "jail.h"
#include "lab/lab.h"
#include "progress.h"
#include "statuses.h"
#include "stop_signal.h"
#include "store_access.h"
#include "switch_dir.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr size_t largest_document = size_t(1) << 30;

bool is_wanted(const store_options &options, const std::string &uri) {
  return options.uris.empty() ||
         std::find(options.uris.begin(), options.uris.end(), uri) != options.uris.end();
}

// Writes the document record by record, so that a large store does not have to fit in memory twice.
class export_writer {
public:
  explicit export_writer(std::function<void(const std::string &)> put) : put_(std::move(put)) {}
  void take(const nlohmann::json &message) {
    if (message.contains("uri")) {
      end_store();
      put_(stores_++ == 0 ? "{\n \"stores\": [\n" : ",\n");
      std::string head = output::json_text(message, -1);
      head.pop_back();
      put_("  " + head + ",\"records\": [");
      records_ = 0;
      return;
    }
    put_(records_++ == 0 ? "\n   " : ",\n   ");
    put_(output::json_text(message, -1));
  }
  bool has_begun() const { return stores_ > 0; }
  size_t stores() const { return stores_; }
  void end() {
    end_store();
    put_(stores_ == 0 ? "{\n \"stores\": []\n}\n" : "\n ]\n}\n");
  }

private:
  void end_store() {
    if (stores_ > 0) {
      put_(records_ == 0 ? "]}" : "\n  ]}");
    }
  }

  std::function<void(const std::string &)> put_;
  size_t stores_ = 0;
  size_t records_ = 0;
};

std::string read_stdin() {
  std::string text;
  char buffer[65536];
  ssize_t got = 0;
  while ((got = read(STDIN_FILENO, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<size_t>(got));
    if (text.size() > largest_document) {
      throw failure(exit_refused, "the document on standard input is larger than 1 GiB");
    }
  }
  if (got < 0) {
    throw failure(exit_refused, "cannot read standard input: " + error_text(errno));
  }
  return text;
}

std::string params_text(const pss2_nonvol_params &params) {
  return "max_key_size " + std::to_string(params.max_key_size) + ", max_value_size " +
         std::to_string(params.max_value_size) + ", max_node_keys " +
         std::to_string(params.max_node_keys) + ", version " + std::to_string(params.version);
}

// The platform gives a store its parameters when it makes it and never again. Making it anew would
// leave a moment without the store, so a store keeps them, and a document may not say otherwise.
void check_params(const store_description &wanted, const pss2_nonvol_params &stand) {
  const std::string here = params_text(stand);
  const std::string there = params_text(wanted.params);
  if (wanted.has_params && here != there) {
    throw failure(exit_refused,
                  "store " + in_quotes(wanted.uri) + ": it has " + here + ", the document wants " +
                      there,
                  "keep its own with --merge, or remove the store with 'datamorph store delete "
                  "--all' and import again");
  }
  if (stand.max_node_keys != 0 && wanted.records.size() > stand.max_node_keys) {
    throw failure(exit_refused, "store " + in_quotes(wanted.uri) + ": the document has " +
                                    counted(wanted.records.size(), "record") +
                                    ", the store allows " + std::to_string(stand.max_node_keys));
  }
}

// Everything is checked before the first store is touched.
void check_fit(const store_description &wanted, bool merge) {
  lab::store_info info;
  const syserr_t status = lab::store_inspect(wanted.uri, &info);
  if (status == SYSERR_PSS_NO_STORE) {
    return;
  }
  check_store(status, wanted.uri);
  if (!merge) {
    check_params(wanted, info.params);
  }
  for (const record_description &record : wanted.records) {
    if (record.key.size() > info.params.max_key_size ||
        record.value.size() > info.params.max_value_size) {
      throw failure(exit_refused,
                    "store " + in_quotes(wanted.uri) + ": the record with the key " +
                        to_hex(record.key.substr(0, 100)) + " is larger than the store allows",
                    "'datamorph store list' tells the limits");
    }
  }
}

// Of records that were stored, told to whoever counts them.
constexpr size_t told_at_once = 1000;

// One handle, one transaction.
void fill_store(const jail::channel &channel, const store_description &wanted, bool merge) {
  store_handle store(wanted.uri, PSS2_MODE_READ | PSS2_MODE_WRITE);
  if (!merge) {
    std::vector<std::string> keys;
    store.for_each([&](std::string_view key, std::string_view) { keys.emplace_back(key); });
    for (const std::string &key : keys) {
      store.remove(key);
    }
  }
  size_t stored = 0;
  for (const record_description &record : wanted.records) {
    store.put(record.key, record.value);
    if (++stored % told_at_once == 0) {
      channel.send({{"stored", told_at_once}});
    }
  }
  store.close();
}

void import_store(const jail::channel &channel, const store_description &wanted, bool merge) {
  const syserr_t created = lab::store_create(wanted.uri, wanted.params);
  if (created != SYSERR_PSS_EXISTS) {
    check_store(created, wanted.uri);
  }
  fill_store(channel, wanted, merge);
}

size_t records_of(const std::vector<store_description> &stores) {
  size_t records = 0;
  for (const store_description &store : stores) {
    records += store.records.size();
  }
  return records;
}

// Into a copy of the state, which takes its place in one step: all stores are replaced, or none.
void import_stores(switch_dir *target, const std::vector<store_description> &stores, bool merge) {
  in_switch(*target, [&](const jail::channel &) {
    for (const store_description &store : stores) {
      check_fit(store, merge);
    }
  });
  target->check_exchange();
  target->check_room();
  unique_fd next = target->make_next();
  progress shown;
  shown.begin("importing", records_of(stores), "records");
  shown.advance(0);
  in_state(
      *target, next.get(),
      [&](const jail::channel &channel) {
        for (const store_description &store : stores) {
          import_store(channel, store, merge);
        }
      },
      [&](const nlohmann::json &message) { shown.advance(message["stored"].get<size_t>()); });
  stop_signal::check();
  target->replace(std::move(next));
}

void import_all_or_none(switch_dir *target, const std::vector<store_description> &stores,
                        bool merge) {
  try {
    import_stores(target, stores, merge);
  } catch (const failure &error) {
    const std::string left = target->drop_next();
    const std::string place = in_quotes(target->path());
    const bool placed = error.message().starts_with(place);
    throw failure(error.status(),
                  (placed ? "" : place + ": ") + error.message() +
                      "; none of its stores was replaced" + (left.empty() ? "" : "; " + left),
                  error.next_action());
  }
}

// The stores that were asked for, each once, all of them readable: once the document is begun
// nothing can be refused. How many records they have in *records.
std::vector<std::string> exported_uris(const store_options &options, uint64_t *records) {
  std::vector<std::string> uris;
  std::set<std::string> files;
  for (const std::string &uri : options.uris.empty() ? all_store_uris() : options.uris) {
    lab::store_info info;
    check_store(lab::store_inspect(uri, &info), uri);
    if (!is_described_uri(uri)) {
      throw failure(exit_refused,
                    "store " + in_quotes(uri) + ": its name cannot stand in a document",
                    "name the stores to export");
    }
    if (files.insert(lab::store_file(uri)).second) {
      uris.push_back(uri);
      *records += info.records;
    }
  }
  return uris;
}

// What stands there is replaced: that may be a file only, not a device or a link to one.
void check_target(const std::string &file) {
  struct stat about = {};
  if (lstat(file.c_str(), &about) == 0 && !S_ISREG(about.st_mode)) {
    throw failure(exit_refused, in_quotes(file) + ": stands there and is no regular file",
                  "without --file the document goes to standard output");
  }
}

} // namespace

int store_export(const common_options &common, const store_options &options) {
  const bool to_file = !options.file.empty() && options.file != "-";
  if (to_file) {
    check_target(options.file);
  }
  const switch_dir target(options.dir, switch_dir::access::read);
  std::string document;
  export_writer writer([&](const std::string &text) {
    if (to_file) {
      document += text;
    } else {
      output::text(text);
    }
  });
  progress shown;
  try {
    in_switch(
        target,
        [&](const jail::channel &channel) {
          uint64_t records = 0;
          const std::vector<std::string> uris = exported_uris(options, &records);
          channel.send({{"total", records}});
          for (const std::string &uri : uris) {
            send_records(channel, uri);
          }
        },
        [&](const nlohmann::json &message) {
          if (message.contains("total")) {
            shown.begin("exporting", message["total"].get<uint64_t>(), "records");
            return;
          }
          shown.advance(message.contains("key") ? 1 : 0);
          writer.take(message);
        });
  } catch (const failure &) {
    // What was cut is to be no document, but an envelope, which tells of the failure, whole JSON.
    if (common.format == output::format::json && writer.has_begun()) {
      writer.end();
    }
    throw;
  }
  writer.end();
  if (to_file) {
    tree::replace_file(AT_FDCWD, options.file, document);
    if (common.format == output::format::json) {
      output::json({{"switch", options.dir}, {"file", options.file}, {"stores", writer.stores()}});
    }
  }
  return exit_done;
}

int store_import(const common_options &common, const store_options &options) {
  const bool from_stdin = options.file.empty() || options.file == "-";
  const std::string text =
      from_stdin ? read_stdin() : tree::read_file(AT_FDCWD, options.file, largest_document);
  std::vector<store_description> stores =
      parse_stores(text, from_stdin ? "standard input" : options.file);
  for (const std::string &uri : options.uris) {
    if (std::none_of(stores.begin(), stores.end(),
                     [&](const store_description &store) { return store.uri == uri; })) {
      throw failure(exit_refused, "the document has no store " + in_quotes(uri));
    }
  }
  std::erase_if(stores,
                [&](const store_description &store) { return !is_wanted(options, store.uri); });
  const stop_signal::guard guard;
  switch_dir target(options.dir, switch_dir::access::write);
  import_all_or_none(&target, stores, options.merge);
  const size_t records = records_of(stores);
  if (common.format == output::format::json) {
    output::json({{"switch", options.dir}, {"stores", stores.size()}, {"records", records}});
  } else {
    output::text(options.dir + ": imported " + counted(stores.size(), "store") + ", " +
                 counted(records, "record") + "\n");
  }
  return exit_done;
}
