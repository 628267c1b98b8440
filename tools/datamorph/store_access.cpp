#include "store_access.h"

#include <cerrno>

#include "failure.h"
#include "statuses.h"
#include "text.h"

namespace {

int status_of_failure(syserr_t status) {
  return status == SYSERR_PSS_IO || status == SYSERR_PSS_NO_ROOM ? exit_failed : exit_refused;
}

std::string advice(syserr_t status) {
  switch (status) {
  case SYSERR_PSS_NO_STORE:
    return "'datamorph store list' tells what stores there are";
  case SYSERR_PSS_DAMAGED:
    return "remove it with 'datamorph store delete --all' and bring it back with 'datamorph "
           "store import'";
  case SYSERR_PSS_BAD_ARGUMENT:
    return "a store is named nonvolatile:/PATH/NAME or volatile:/PATH/NAME";
  case SYSERR_PSS_TOO_LARGE:
    return "'datamorph store list' tells the store's limits";
  case SYSERR_PSS_NO_ACCESS:
    return "run as the user that the switch belongs to";
  default:
    return "";
  }
}

void check_list(const std::string &what, int error, bool leave_out_closed) {
  const bool closed = error == EACCES;
  if (error != 0 && !(closed && leave_out_closed)) {
    throw failure(closed ? exit_refused : exit_failed,
                  "not all " + what + " of the switch can be read: " + error_text(error),
                  closed ? advice(SYSERR_PSS_NO_ACCESS) : "");
  }
}

} // namespace

void in_switch(const switch_dir &target, std::function<void(const jail::channel &)> body,
               std::function<void(const nlohmann::json &)> take) {
  in_state(target, target.current(), std::move(body), std::move(take));
}

void in_state(const switch_dir &target, int state, std::function<void(const jail::channel &)> body,
              std::function<void(const nlohmann::json &)> take) {
  jail::request request;
  request.root = state;
  request.body = std::move(body);
  request.on_message = std::move(take);
  jail::outcome outcome;
  try {
    outcome = jail::run(request);
  } catch (const failure &error) {
    throw error.placed(in_quotes(target.path()));
  }
  if (!outcome.finished()) {
    throw failure(exit_failed,
                  in_quotes(target.path()) + ": the work on its stores " + outcome.text());
  }
}

void check_store(syserr_t status, const std::string &uri) {
  if (status != SYSERR_SUCCESS) {
    throw failure(status_of_failure(status), "store " + in_quotes(uri) + ": " + status_text(status),
                  advice(status));
  }
}

store_handle::store_handle(const std::string &uri, uint32 mode) : uri_(uri) {
  // Parents of a store are made with it: a name that leads anywhere else is a slip of the pen.
  const size_t colon = uri.find(':');
  std::string path = colon == std::string::npos ? "" : uri.substr(colon + 1);
  if (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  if (!is_contained_path(path)) {
    check_store(SYSERR_PSS_BAD_ARGUMENT, uri);
  }
  if ((mode & PSS2_MODE_CREATE) != 0 && !is_utf8(uri)) {
    throw failure(exit_refused, "store " + in_quotes(uri) +
                                    ": no store is made with a name that is no UTF-8: no document "
                                    "could carry it");
  }
  syserr_t status = SYSERR_SUCCESS;
  handle_ = pss2_open(uri.c_str(), mode, SRVUUID_NONE, 0, 0, &status);
  check_store(status, uri);
}

void store_handle::no_record(const std::string &key) const {
  throw failure(exit_refused,
                "store " + in_quotes(uri_) + ": no record with the key " +
                    to_hex(key.substr(0, 100)),
                "'datamorph store show' tells what records there are");
}

pss2_nonvol_params store_handle::params() {
  pss2_nonvol_params params = {};
  check_store(pss2_get_params(handle_, &params), uri_);
  return params;
}

std::string store_handle::fetch(const std::string &key) {
  const pss_datum_t datum = datum_of(key);
  syserr_t status = SYSERR_SUCCESS;
  const pss_datum_t *value = pss2_fetch(handle_, &datum, &status);
  if (status == SYSERR_PSS_NOT_FOUND) {
    no_record(key);
  }
  check_store(status, uri_);
  return std::string(bytes_of(*value));
}

bool store_handle::has(const std::string &key) {
  const pss_datum_t datum = datum_of(key);
  syserr_t status = SYSERR_SUCCESS;
  pss2_fetch(handle_, &datum, &status);
  if (status != SYSERR_PSS_NOT_FOUND) {
    check_store(status, uri_);
  }
  return status == SYSERR_SUCCESS;
}

void store_handle::put(const std::string &key, const std::string &value) {
  const pss_datum_t key_datum = datum_of(key);
  const pss_datum_t value_datum = datum_of(value);
  check_store(pss2_store(handle_, &key_datum, &value_datum), uri_);
}

void store_handle::remove(const std::string &key) {
  const pss_datum_t datum = datum_of(key);
  const syserr_t status = pss2_delete(handle_, &datum, 0);
  if (status == SYSERR_PSS_NOT_FOUND) {
    no_record(key);
  }
  check_store(status, uri_);
}

void store_handle::close() {
  check_store(pss2_close(handle_), uri_);
}

void store_handle::for_each(
    const std::function<void(std::string_view key, std::string_view value)> &take) {
  pss_location_t location = PSS_FIRST_KEY;
  for (;;) {
    syserr_t status = SYSERR_SUCCESS;
    check_store(pss2_move2location(&handle_, 1, location, &status), uri_);
    if (status == SYSERR_PSS_NOT_FOUND) {
      return;
    }
    check_store(status, uri_);
    const pss_datum_t *key = pss2_getkey(handle_, &status);
    check_store(status, uri_);
    const pss_datum_t *value = pss2_getvalue(handle_, &status);
    check_store(status, uri_);
    take(bytes_of(*key), bytes_of(*value));
    location = PSS_NEXT_KEY;
  }
}

std::string typed_bytes(const std::string &typed, bool is_text, const char *what) {
  const std::optional<std::string> bytes = is_text ? from_text(typed) : from_hex(typed);
  if (!bytes) {
    throw failure(exit_usage, std::string("the ") + what + " " + in_quotes(typed) +
                                  (is_text ? ": a backslash is written \\\\, a byte \\xNN"
                                           : ": pairs of hex digits are wanted; use --text for "
                                             "text"));
  }
  return *bytes;
}

std::vector<std::string> all_store_uris(bool leave_out_closed) {
  int error = 0;
  std::vector<std::string> uris = lab::store_uris(&error);
  check_list("stores", error, leave_out_closed);
  return uris;
}

std::vector<lab::access_point> all_access_points() {
  int error = 0;
  std::vector<lab::access_point> points = lab::mts_saps(&error);
  check_list("access points", error, false);
  return points;
}

std::string shown_uri(const std::string &uri) {
  return is_utf8(uri) ? uri : to_text(uri);
}

void send_records(const jail::channel &channel, const std::string &uri) {
  store_handle store(uri, PSS2_MODE_READ);
  const pss2_nonvol_params params = store.params();
  channel.send({{"uri", shown_uri(uri)},
                {"params",
                 {{"max_key_size", params.max_key_size},
                  {"max_value_size", params.max_value_size},
                  {"max_node_keys", params.max_node_keys},
                  {"version", params.version}}}});
  store.for_each([&](std::string_view key, std::string_view value) {
    channel.send({{"key", to_hex(key)}, {"value", to_hex(value)}});
  });
  store.close();
}

bool is_file_path(const std::string &uri) {
  return uri.starts_with('/');
}

void send_file_records(const jail::channel &channel, const std::string &file) {
  const auto fail = [&](syserr_t status, const std::string &what, const char *next = "") {
    throw failure(status_of_failure(status), "file " + in_quotes(file) + ": " + what, next);
  };
  if (!is_contained_path(file)) {
    fail(SYSERR_PSS_BAD_ARGUMENT, "a file is named by its path in the switch, /PATH/NAME, without "
                                  "'..', '.' and empty parts");
  }
  const syserr_t status =
      lab::flat_file_read(file, [&](std::string_view key, std::string_view value) {
        channel.send({{"key", to_hex(key)}, {"value", to_hex(value)}});
      });
  if (status == SYSERR_PSS_NO_STORE) {
    fail(status, "the switch has none", "'datamorph lab show' tells what files there are");
  }
  if (status == SYSERR_PSS_DAMAGED) {
    fail(status, "it is no flat file of records, or is damaged: cut or changed");
  }
  if (status != SYSERR_SUCCESS) {
    fail(status, status_text(status));
  }
}
