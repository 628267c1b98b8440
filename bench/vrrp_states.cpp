// The states on the lab: vrrp_stores.h.

#include <filesystem>

#include "durable_copy.h"
#include "lab/lab.h"
#include "vrrp_stores.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

void need(const char *what, syserr_t status) {
  if (status != SYSERR_SUCCESS) {
    fail(what, status);
  }
}

fs::path folder_of(unsigned groups) {
  return "/aside-" + std::to_string(groups);
}

fs::path aside(unsigned groups, state which, const char *file) {
  const char *folder = which == state::before_4_2_1 ? "before" : "from";
  return folder_of(groups) / folder / fs::path(file).filename();
}

void put_aside(unsigned groups, state which) {
  for (const char *file : {manager_file, engine_file}) {
    const fs::path stands = fs::path("/") / file;
    if (fs::exists(stands)) {
      copy_durably(stands, aside(groups, which, file));
    }
  }
}

void store_all(const char *uri, std::vector<vrrp_record> records) {
  need("pss_create", pss_create(uri));
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(uri, &status);
  need("pss_open", status);
  for (vrrp_record &one : records) {
    const pss_datum_t key = {one.key.data(), static_cast<uint32>(one.key.size())};
    const pss_datum_t value = {one.value.data(), static_cast<uint32>(one.value.size())};
    need("pss_store", pss_store(store, 0, &key, &value));
  }
  need("pss_close", pss_close(store));
}

void append_contents(const char *uri, std::string *text) {
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(uri, &status);
  need("pss_open", status);
  text->append(uri).append("\n");
  const pss_datum_t *key = pss_move2location(store, PSS_FIRST_KEY, &status);
  while (status == SYSERR_SUCCESS) {
    text->append(static_cast<const char *>(key->ptr), key->siz).append("=");
    const pss_datum_t *const value = pss_getvalue(store, &status);
    need("pss_getvalue", status);
    text->append(static_cast<const char *>(value->ptr), value->siz).append("\n");
    key = pss_move2location(store, PSS_NEXT_KEY, &status);
  }
  need("the end of a walk", status == SYSERR_PSS_NOT_FOUND ? SYSERR_SUCCESS : status);
  need("pss_close", pss_close(store));
}

} // namespace

void prepare_states(unsigned groups) {
  for (const char *uri : {manager_uri, engine_uri}) {
    const syserr_t status = pss_destroy(uri);
    need("pss_destroy", status == SYSERR_PSS_NO_STORE ? SYSERR_SUCCESS : status);
  }
  fs::remove_all(folder_of(groups));
  store_all(manager_uri, make_groups(groups));
  put_aside(groups, state::before_4_2_1);
  convert_up();
  put_aside(groups, state::from_4_2_1);
}

void place_state(unsigned groups, state which) {
  for (const char *file : {manager_file, engine_file}) {
    const fs::path place = fs::path("/") / file;
    fs::remove(place);
    if (fs::exists(aside(groups, which, file))) {
      copy_durably(aside(groups, which, file), place);
    }
  }
}

std::string contents() {
  if (fs::exists(fs::path("/") / temporary_file)) {
    fail("the temporary store is left", 0);
  }
  std::string text;
  append_contents(manager_uri, &text);
  append_contents(engine_uri, &text);
  return text;
}

} // namespace bench
