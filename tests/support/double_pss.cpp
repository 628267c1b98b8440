// The double's first generation of stores.
#include "support/double_state.h"

using namespace double_stores;

namespace {

constexpr generation k_first = generation::first;

syserr_t remove_key(uint32 service, double_handle &at, const pss_datum_t *key) {
  std::string ignored;
  if (const syserr_t status = fetch(at, key, ignored)) {
    return status;
  }
  if (const syserr_t status = begin_write(service, at)) {
    return status;
  }
  at.written->erase(copy(key));
  return SYSERR_SUCCESS;
}

syserr_t seek(double_handle &at, const pss_datum_t *key, std::string &found) {
  if (!good_datum(key)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  const auto record = at.seen().lower_bound(copy(key));
  if (record == at.seen().end()) {
    at.where = place::past_end;
    return SYSERR_PSS_NOT_FOUND;
  }
  at.where = place::on_key;
  at.cursor = found = record->first;
  return SYSERR_SUCCESS;
}

syserr_t snapshot(uint32 service, double_handle &at, const char *uri) {
  if (!good_uri(uri)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  if (!double_platform().has_store(uri)) {
    double_platform().set_store(uri);
  }
  const std::shared_ptr<double_store> target = double_platform().internals().stores[uri];
  if (target->damaged) {
    return SYSERR_PSS_DAMAGED;
  }
  if (target->writer != 0 && target->writer != service) {
    return SYSERR_PSS_BUSY;
  }
  if (target != at.store) {
    target->records = at.seen();
    target->params = at.store->params;
  }
  return SYSERR_SUCCESS;
}

} // namespace

pss_service_t pss_open(const char *uri, syserr_t *error) {
  const auto answer = double_platform().internals().enter("pss_open", {log_text::string(uri)});
  double_handle *opened = nullptr;
  uint32 service = 0;
  put_status(error, answer ? answer->status : open(k_first, uri, false, &opened, &service));
  return service;
}

syserr_t pss_close(pss_service_t service) {
  return close(k_first, "pss_close", service);
}

syserr_t pss_create(const char *uri) {
  if (const auto answer =
          double_platform().internals().enter("pss_create", {log_text::string(uri)})) {
    return answer->status;
  }
  if (!good_uri(uri)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  if (double_platform().has_store(uri)) {
    return SYSERR_PSS_EXISTS;
  }
  double_platform().set_store(uri);
  return SYSERR_SUCCESS;
}

syserr_t pss_destroy(const char *uri) {
  return destroy("pss_destroy", uri);
}

pss_datum_t *pss_fetch(pss_service_t service, const pss_datum_t *key, syserr_t *error) {
  return read(k_first, "pss_fetch", service, {log_text::number(service), log_text::datum(key)},
              error, [&](double_handle &at, std::string &found) { return fetch(at, key, found); });
}

syserr_t pss_store(pss_service_t service, uint32 flag, const pss_datum_t *key,
                   const pss_datum_t *value) {
  return act(k_first, "pss_store", service,
             {log_text::number(service), log_text::number(flag), log_text::datum(key),
              log_text::datum(value)},
             [&](double_handle &at) {
               return flag > 1 ? SYSERR_PSS_BAD_ARGUMENT : insert(service, at, key, value);
             });
}

syserr_t pss_delete(pss_service_t service, const pss_datum_t *key) {
  return act(k_first, "pss_delete", service, {log_text::number(service), log_text::datum(key)},
             [&](double_handle &at) { return remove_key(service, at, key); });
}

pss_datum_t *pss_move2key(pss_service_t service, const pss_datum_t *key, syserr_t *error) {
  return read(k_first, "pss_move2key", service, {log_text::number(service), log_text::datum(key)},
              error, [&](double_handle &at, std::string &found) { return seek(at, key, found); });
}

pss_datum_t *pss_move2location(pss_service_t service, pss_location_t location, syserr_t *error) {
  return read(k_first, "pss_move2location", service,
              {log_text::number(service), log_text::location(location)}, error,
              [&](double_handle &at, std::string &found) {
                const syserr_t status = move(at, location);
                found = at.cursor;
                return status;
              });
}

pss_datum_t *pss_getvalue(pss_service_t service, syserr_t *error) {
  return read(k_first, "pss_getvalue", service, {log_text::number(service)}, error,
              [](double_handle &at, std::string &found) { return value_at_cursor(at, found); });
}

syserr_t pss_snapshot(pss_service_t service, uint32 flags, const char *uri) {
  return act(k_first, "pss_snapshot", service,
             {log_text::number(service), log_text::number(flags), log_text::string(uri)},
             [&](double_handle &at) { return snapshot(service, at, uri); });
}
