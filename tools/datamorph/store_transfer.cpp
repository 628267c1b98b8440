// store export and store import: whole stores as JSON, in the form that a switch's description has.
#include "verbs.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "description.h"
#include "failure.h"
#include "jail.h"
#include "lab/lab.h"
#include "statuses.h"
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
  explicit export_writer(std::function<void(const std::string &)> put) : put_(std::move(put)) {
    put_("{\n \"stores\": [");
  }
  void take(const nlohmann::json &message) {
    if (message.contains("uri")) {
      end_store();
      put_(stores_++ == 0 ? "\n" : ",\n");
      std::string head = output::json_text(message, -1);
      head.pop_back();
      put_("  " + head + ",\"records\": [");
      records_ = 0;
      return;
    }
    put_(records_++ == 0 ? "\n   " : ",\n   ");
    put_(output::json_text(message, -1));
  }
  void end() {
    end_store();
    put_(stores_ == 0 ? "]\n}\n" : "\n ]\n}\n");
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

// Everything is checked before the first store is touched.
void check_fit(const store_description &wanted) {
  lab::store_info info;
  const syserr_t status = lab::store_inspect(wanted.uri, &info);
  if (status == SYSERR_PSS_NO_STORE) {
    return;
  }
  check_store(status, wanted.uri);
  for (const record_description &record : wanted.records) {
    if (record.key.size() > info.params.max_key_size ||
        record.value.size() > info.params.max_value_size) {
      throw failure(exit_refused, "store " + in_quotes(wanted.uri) + ": the record with the key " +
                                      to_hex(record.key.substr(0, 100)) +
                                      " is larger than the store allows; 'datamorph store list' "
                                      "tells the limits");
    }
  }
}

// One store: one handle, one transaction.
void import_store(const store_description &wanted, bool merge) {
  const syserr_t created = lab::store_create(wanted.uri, wanted.params);
  if (created != SYSERR_PSS_EXISTS) {
    check_store(created, wanted.uri);
  }
  store_handle store(wanted.uri, PSS2_MODE_READ | PSS2_MODE_WRITE);
  if (!merge) {
    std::vector<std::string> keys;
    store.for_each([&](std::string_view key, std::string_view) { keys.emplace_back(key); });
    for (const std::string &key : keys) {
      store.remove(key);
    }
  }
  for (const record_description &record : wanted.records) {
    store.put(record.key, record.value);
  }
  store.close();
}

// What stands there is replaced: that may be a file only, not a device or a link to one.
void check_target(const std::string &file) {
  struct stat about = {};
  if (lstat(file.c_str(), &about) == 0 && !S_ISREG(about.st_mode)) {
    throw failure(exit_refused, in_quotes(file) + ": stands there and is no regular file; without "
                                                  "--file the document goes to standard output");
  }
}

} // namespace

int store_export(const common_options &, const store_options &options) {
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
  in_switch(
      target,
      [&](const jail::channel &channel) {
        const std::vector<std::string> uris =
            options.uris.empty() ? lab::store_uris() : options.uris;
        for (const std::string &uri : uris) {
          send_records(channel, uri);
        }
      },
      [&](const nlohmann::json &message) { writer.take(message); });
  writer.end();
  if (to_file) {
    tree::replace_file(AT_FDCWD, options.file, document);
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
  const switch_dir target(options.dir, switch_dir::access::write);
  size_t records = 0;
  in_switch(target, [&](const jail::channel &) {
    for (const store_description &store : stores) {
      check_fit(store);
    }
    for (const store_description &store : stores) {
      import_store(store, options.merge);
    }
  });
  for (const store_description &store : stores) {
    records += store.records.size();
  }
  if (common.format == output::format::json) {
    output::json({{"switch", options.dir}, {"stores", stores.size()}, {"records", records}});
  } else {
    output::text(options.dir + ": imported " + counted(stores.size(), "store") + ", " +
                 counted(records, "record") + "\n");
  }
  return exit_done;
}
