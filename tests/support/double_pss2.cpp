// The double's second generation of stores.
#include "support/double_state.h"

using namespace double_stores;

namespace {

constexpr generation k_second = generation::second;

syserr_t open_with(const char *uri, uint32 mode, uint32 *service) {
  if ((mode & (PSS2_MODE_READ | PSS2_MODE_WRITE)) == 0) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  double_handle *opened = nullptr;
  const syserr_t status = open(k_second, uri, (mode & PSS2_MODE_CREATE) != 0, &opened, service);
  if (status == SYSERR_SUCCESS) {
    opened->readable = (mode & PSS2_MODE_READ) != 0;
    opened->writable = (mode & PSS2_MODE_WRITE) != 0;
  }
  return status;
}

syserr_t remove_key(uint32 service, double_handle &at, const pss_datum_t *key) {
  if (!good_datum(key)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  if (!at.writable) {
    return SYSERR_PSS_NO_ACCESS;
  }
  if (key->siz > at.store->params.max_key_size) {
    return SYSERR_PSS_NOT_FOUND;
  }
  const std::string gone = copy(key);
  if (at.seen().count(gone) == 0) {
    return SYSERR_PSS_NOT_FOUND;
  }
  if (const syserr_t status = begin_write(service, at)) {
    return status;
  }
  const auto following = at.written->erase(at.written->find(gone));
  if (at.where == place::on_key && at.cursor == gone) {
    at.where = following == at.written->end() ? place::past_end : place::on_key;
    at.cursor = following == at.written->end() ? "" : following->first;
  }
  return SYSERR_SUCCESS;
}

syserr_t load(uint32 service, double_handle &at, const char *file) {
  platform_double::records_t loaded;
  if (file == nullptr) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  if (!at.writable) {
    return SYSERR_PSS_NO_ACCESS;
  }
  if (const syserr_t status = read_flat_file(file, &loaded)) {
    return status;
  }
  const pss2_nonvol_params &limits = at.store->params;
  for (const auto &[key, value] : loaded) {
    if (key.size() > limits.max_key_size || value.size() > limits.max_value_size) {
      return SYSERR_PSS_TOO_LARGE;
    }
  }
  if (const syserr_t status = begin_write(service, at)) {
    return status;
  }
  for (const auto &[key, value] : loaded) {
    (*at.written)[key] = value;
  }
  return SYSERR_SUCCESS;
}

std::string listed(const pss2_service_t *services, uint32 count) {
  if (services == nullptr) {
    return "null";
  }
  std::string text;
  for (uint32 i = 0; i < count; ++i) {
    text += (i == 0 ? "" : ", ") + log_text::number(services[i]);
  }
  return "[" + text + "]";
}

} // namespace

pss2_service_t pss2_open(const char *uri, uint32 mode, uuid_t owner, uint32 reserved1,
                         uint32 reserved2, syserr_t *status) {
  const auto answer = double_platform().internals().enter(
      "pss2_open",
      {log_text::string(uri), log_text::flags(mode), log_text::number(static_cast<uint32>(owner)),
       log_text::number(reserved1), log_text::number(reserved2)});
  uint32 service = 0;
  put_status(status, answer ? answer->status : open_with(uri, mode, &service));
  return service;
}

syserr_t pss2_close(pss2_service_t service) {
  return close(k_second, "pss2_close", service);
}

syserr_t pss2_destroy(const char *uri) {
  return destroy("pss2_destroy", uri);
}

syserr_t pss2_get_params(pss2_service_t service, pss2_nonvol_params *params) {
  return act(k_second, "pss2_get_params", service, {log_text::number(service)},
             [&](double_handle &at) {
               if (params == nullptr) {
                 return SYSERR_PSS_BAD_ARGUMENT;
               }
               *params = at.store->params;
               return SYSERR_SUCCESS;
             });
}

pss_datum_t *pss2_fetch(pss2_service_t service, const pss_datum_t *key, syserr_t *status) {
  return read(k_second, "pss2_fetch", service, {log_text::number(service), log_text::datum(key)},
              status, [&](double_handle &at, std::string &found) { return fetch(at, key, found); });
}

syserr_t pss2_store(pss2_service_t service, const pss_datum_t *key, const pss_datum_t *value) {
  return act(k_second, "pss2_store", service,
             {log_text::number(service), log_text::datum(key), log_text::datum(value)},
             [&](double_handle &at) { return insert(service, at, key, value); });
}

syserr_t pss2_delete(pss2_service_t service, const pss_datum_t *key, uint32 flag) {
  return act(k_second, "pss2_delete", service,
             {log_text::number(service), log_text::datum(key), log_text::number(flag)},
             [&](double_handle &at) { return remove_key(service, at, key); });
}

syserr_t pss2_move2location(pss2_service_t *services, uint32 count, pss_location_t location,
                            syserr_t *errlist) {
  platform_double::state &state = double_platform().internals();
  const auto answer =
      state.enter("pss2_move2location", {listed(services, count), log_text::location(location)});
  if (answer) {
    for (uint32 i = 0; i < count && errlist != nullptr; ++i) {
      errlist[i] = answer->handles.value_or(answer->status);
    }
    return answer->status;
  }
  if (services == nullptr || errlist == nullptr) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  const bool good_location = static_cast<uint32>(location) <= PSS_PREVIOUS_KEY;
  for (uint32 i = 0; i < count; ++i) {
    double_handle *at = state.find(k_second, services[i]);
    errlist[i] = at == nullptr ? SYSERR_PSS_BAD_HANDLE : move(*at, location);
  }
  return good_location ? SYSERR_SUCCESS : SYSERR_PSS_BAD_ARGUMENT;
}

pss_datum_t *pss2_getkey(pss2_service_t service, syserr_t *status) {
  return read(k_second, "pss2_getkey", service, {log_text::number(service)}, status,
              [](double_handle &at, std::string &found) { return key_at_cursor(at, found); });
}

pss_datum_t *pss2_getvalue(pss2_service_t service, syserr_t *status) {
  return read(k_second, "pss2_getvalue", service, {log_text::number(service)}, status,
              [](double_handle &at, std::string &found) { return value_at_cursor(at, found); });
}

syserr_t pss2_kernel2file(pss2_service_t service, const char *file, uint32 flags) {
  return act(k_second, "pss2_kernel2file", service,
             {log_text::number(service), log_text::string(file), log_text::number(flags)},
             [&](double_handle &at) {
               if (file == nullptr) {
                 return SYSERR_PSS_BAD_ARGUMENT;
               }
               return at.readable ? write_flat_file(file, at.seen()) : SYSERR_PSS_NO_ACCESS;
             });
}

syserr_t pss2_file2kernel(const char *file, pss2_service_t service, uint32 flags) {
  return act(k_second, "pss2_file2kernel", service,
             {log_text::string(file), log_text::number(service), log_text::number(flags)},
             [&](double_handle &at) { return load(service, at, file); });
}
