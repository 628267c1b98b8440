// The double's stores: what both generations have in common, and the test's side of them.
#include <cstring>

#include "support/double_state.h"

namespace {

// As a file system has them: a store's file takes four more characters.
constexpr size_t k_component_limit = 251;
constexpr size_t k_uri_limit = 4000;

bool good_path(const std::string &path) {
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (end - start > k_component_limit) {
      return false;
    }
    start = end + 1;
  }
  return path.size() < k_uri_limit;
}

bool fits(const pss_datum_t *datum, uint32 limit) {
  return datum->siz <= limit;
}

} // namespace

double_handle *platform_double::state::find(generation made_by, uint32 service) {
  const auto found = handles.find(service);
  return found != handles.end() && found->second.made_by == made_by ? &found->second : nullptr;
}

void platform_double::state::forget(uint32 service) {
  const auto found = handles.find(service);
  if (found == handles.end()) {
    return;
  }
  if (found->second.store->writer == service) {
    found->second.store->writer = 0;
  }
  handles.erase(found);
  loans.erase(loans.lower_bound({service, ""}), loans.lower_bound({service + 1, ""}));
}

namespace double_stores {

bool good_uri(const char *uri) {
  if (uri == nullptr) {
    return false;
  }
  for (const char *kind : {"nonvolatile:", "volatile:"}) {
    if (std::strncmp(uri, kind, std::strlen(kind)) == 0) {
      return good_path(uri + std::strlen(kind));
    }
  }
  return false;
}

bool good_datum(const pss_datum_t *datum) {
  return datum != nullptr && (datum->ptr != nullptr || datum->siz == 0);
}

std::string copy(const pss_datum_t *datum) {
  return datum->siz == 0 ? std::string() : std::string(static_cast<char *>(datum->ptr), datum->siz);
}

pss_datum_t *read(generation made_by, const char *function, uint32 service,
                  const std::vector<std::string> &arguments, syserr_t *status,
                  const reader &read_it) {
  platform_double::state &state = double_platform().internals();
  const std::optional<scripted_answer> answer = state.enter(function, arguments);
  double_handle *at = state.find(made_by, service);
  syserr_t result = SYSERR_SUCCESS;
  std::optional<std::string> found;
  if (answer) {
    result = answer->status;
    found = answer->bytes;
  } else if (at == nullptr) {
    result = SYSERR_PSS_BAD_HANDLE;
  } else {
    result = read_it(*at, found.emplace());
  }
  put_status(status, result);
  loan &last = state.loans[{service, function}];
  last.take_back();
  if (answer && answer->missing) {
    return last.give_datum_without_bytes(*answer->missing);
  }
  return result == SYSERR_SUCCESS && found ? last.give_datum(*found) : nullptr;
}

syserr_t act(generation made_by, const char *function, uint32 service,
             const std::vector<std::string> &arguments, const writer &write) {
  platform_double::state &state = double_platform().internals();
  if (const auto answer = state.enter(function, arguments)) {
    return answer->status;
  }
  double_handle *at = state.find(made_by, service);
  return at == nullptr ? SYSERR_PSS_BAD_HANDLE : write(*at);
}

syserr_t open(generation made_by, const char *uri, bool create, double_handle **opened,
              uint32 *service) {
  if (!good_uri(uri)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  platform_double::state &state = double_platform().internals();
  auto found = state.stores.find(uri);
  if (found == state.stores.end() && !create) {
    return SYSERR_PSS_NO_STORE;
  }
  if (found == state.stores.end()) {
    found = state.stores.emplace(uri, std::make_shared<double_store>()).first;
  }
  if (found->second->damaged) {
    return SYSERR_PSS_DAMAGED;
  }
  double_handle made;
  made.made_by = made_by;
  made.uri = uri;
  made.store = found->second;
  state.opened.emplace_back(uri);
  *service = static_cast<uint32>(state.opened.size());
  *opened = &state.handles.emplace(*service, std::move(made)).first->second;
  return SYSERR_SUCCESS;
}

syserr_t close(generation made_by, const char *function, uint32 service) {
  platform_double::state &state = double_platform().internals();
  const auto answer = state.enter(function, {log_text::number(service)});
  double_handle *at = state.find(made_by, service);
  if (at != nullptr && !answer && at->written) {
    at->store->records = std::move(*at->written);
  }
  if (at != nullptr) {
    state.forget(service);
  }
  if (answer) {
    return answer->status;
  }
  return at != nullptr ? SYSERR_SUCCESS : SYSERR_PSS_BAD_HANDLE;
}

syserr_t destroy(const char *function, const char *uri) {
  platform_double::state &state = double_platform().internals();
  if (const auto answer = state.enter(function, {log_text::string(uri)})) {
    return answer->status;
  }
  if (!good_uri(uri)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  return state.stores.erase(uri) == 1 ? SYSERR_SUCCESS : SYSERR_PSS_NO_STORE;
}

syserr_t fetch(double_handle &at, const pss_datum_t *key, std::string &found) {
  if (!good_datum(key)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  if (!at.readable) {
    return SYSERR_PSS_NO_ACCESS;
  }
  if (!fits(key, at.store->params.max_key_size)) {
    return SYSERR_PSS_NOT_FOUND;
  }
  const auto record = at.seen().find(copy(key));
  if (record == at.seen().end()) {
    return SYSERR_PSS_NOT_FOUND;
  }
  found = record->second;
  return SYSERR_SUCCESS;
}

syserr_t begin_write(uint32 service, double_handle &at) {
  if (!at.writable) {
    return SYSERR_PSS_NO_ACCESS;
  }
  if (at.store->writer != 0 && at.store->writer != service) {
    return SYSERR_PSS_BUSY;
  }
  at.store->writer = service;
  if (!at.written) {
    at.written = at.store->records;
  }
  return SYSERR_SUCCESS;
}

syserr_t insert(uint32 service, double_handle &at, const pss_datum_t *key,
                const pss_datum_t *value) {
  if (!good_datum(key) || !good_datum(value)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  if (!at.writable) {
    return SYSERR_PSS_NO_ACCESS;
  }
  const pss2_nonvol_params &limits = at.store->params;
  if (!fits(key, limits.max_key_size) || !fits(value, limits.max_value_size)) {
    return SYSERR_PSS_TOO_LARGE;
  }
  if (const syserr_t status = begin_write(service, at)) {
    return status;
  }
  (*at.written)[copy(key)] = copy(value);
  return SYSERR_SUCCESS;
}

syserr_t move(double_handle &at, pss_location_t location) {
  if (static_cast<uint32>(location) > PSS_PREVIOUS_KEY) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  if (!at.readable) {
    return SYSERR_PSS_NO_ACCESS;
  }
  const platform_double::records_t &records = at.seen();
  auto after = records.begin(); // the record to stand on, for a step forward
  auto bound = records.end();   // the record behind it, for a step backward
  if (at.where == place::on_key) {
    after = records.upper_bound(at.cursor);
    bound = records.lower_bound(at.cursor);
  } else if (at.where == place::past_end) {
    after = records.end();
  } else if (at.where == place::before_first) {
    bound = records.begin();
  }
  const bool forward = location == PSS_FIRST_KEY || location == PSS_NEXT_KEY;
  if (location == PSS_FIRST_KEY || location == PSS_LAST_KEY) {
    after = records.begin();
    bound = records.end();
  }
  if (location == PSS_NULL_KEY) {
    at.where = place::nowhere;
    return SYSERR_PSS_NOT_FOUND;
  }
  if (forward ? after == records.end() : bound == records.begin()) {
    at.where = forward ? place::past_end : place::before_first;
    return SYSERR_PSS_NOT_FOUND;
  }
  at.where = place::on_key;
  at.cursor = forward ? after->first : std::prev(bound)->first;
  return SYSERR_SUCCESS;
}

syserr_t key_at_cursor(const double_handle &at, std::string &found) {
  if (!at.readable) {
    return SYSERR_PSS_NO_ACCESS;
  }
  if (at.where != place::on_key || at.seen().count(at.cursor) == 0) {
    return SYSERR_PSS_NOT_FOUND;
  }
  found = at.cursor;
  return SYSERR_SUCCESS;
}

syserr_t value_at_cursor(const double_handle &at, std::string &found) {
  if (const syserr_t status = key_at_cursor(at, found)) {
    return status;
  }
  found = at.seen().at(at.cursor);
  return SYSERR_SUCCESS;
}

} // namespace double_stores

// ---- The test's side ----------------------------------------------------------------------------

void platform_double::set_store(const std::string &uri, const records_t &records,
                                const pss2_nonvol_params &params) {
  auto made = std::make_shared<double_store>();
  made->records = records;
  made->params = params;
  state_->stores[uri] = made;
}

void platform_double::put(const std::string &uri, const std::string &key,
                          const std::string &value) {
  if (!has_store(uri)) {
    set_store(uri);
  }
  state_->stores[uri]->records[key] = value;
}

bool platform_double::has_store(const std::string &uri) const {
  return state_->stores.count(uri) == 1;
}

platform_double::records_t platform_double::records(const std::string &uri) const {
  return has_store(uri) ? state_->stores.at(uri)->records : records_t();
}

std::optional<std::string> platform_double::value(const std::string &uri,
                                                  const std::string &key) const {
  const records_t all = records(uri);
  const auto found = all.find(key);
  return found == all.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::string> platform_double::store_uris() const {
  std::vector<std::string> uris;
  for (const auto &[uri, store] : state_->stores) {
    uris.push_back(uri);
  }
  return uris;
}

void platform_double::damage(const std::string &uri) {
  if (!has_store(uri)) {
    set_store(uri);
  }
  state_->stores[uri]->damaged = true;
}

std::vector<uint32> platform_double::open_handles() const {
  std::vector<uint32> open;
  for (const auto &[service, handle] : state_->handles) {
    open.push_back(service);
  }
  return open;
}

std::string platform_double::store_of(uint32 handle) const {
  return handle - 1 < state_->opened.size() ? state_->opened[handle - 1] : std::string();
}

std::vector<std::string> platform_double::open_stores() const {
  std::vector<std::string> open;
  for (const auto &[service, handle] : state_->handles) {
    open.push_back(handle.uri);
  }
  return open;
}
