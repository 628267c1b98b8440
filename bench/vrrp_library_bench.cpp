// What the VRRP conversion costs in the library itself: on the recording platform double, beside a
// loop that copies the same bytes through the same platform calls in the same order.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "figure.h"
#include "support/platform_double.h"
#include "support/switch_root.h"
#include "vrrp_stores.h"

namespace {

constexpr unsigned k_groups = 10'000;
constexpr unsigned k_records = 2 * k_groups; // that are converted
constexpr int k_rounds = 15;
constexpr double k_limit = 1.3;

using bench::engine_uri;
using bench::manager_uri;
using bench::temporary_uri;
using work_t = void (*)();

// ---- The floor ---------------------------------------------------------------------------------

pss_service_t open_store(const char *uri) {
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(uri, &status);
  if (status != SYSERR_SUCCESS) {
    bench::fail(uri, status);
  }
  return store;
}

const uint8 *move(pss_service_t store, uint8 key_type, bool first) {
  syserr_t status = SYSERR_SUCCESS;
  const pss_datum_t key = {&key_type, 1};
  const pss_datum_t *at =
      first ? pss_move2key(store, &key, &status) : pss_move2location(store, PSS_NEXT_KEY, &status);
  return at == nullptr ? nullptr : static_cast<const uint8 *>(at->ptr);
}

// Counts the values of a key type, then copies them, `size` bytes apart.
std::vector<uint8> read_all(pss_service_t store, uint8 key_type, size_t size) {
  size_t count = 0;
  for (const uint8 *key = move(store, key_type, true); key != nullptr && *key == key_type;
       key = move(store, key_type, false)) {
    ++count;
  }
  std::vector<uint8> values(count * size);
  uint8 *to = values.data();
  for (const uint8 *key = move(store, key_type, true); key != nullptr;
       key = move(store, key_type, false)) {
    if (*key == key_type) {
      syserr_t status = SYSERR_SUCCESS;
      const pss_datum_t *const value = pss_getvalue(store, &status);
      std::memcpy(to, value->ptr, std::min<size_t>(value->siz, size));
      to += size;
    }
  }
  return values;
}

// The bytes of a key lie in its record, in other orders.
struct made_key {
  uint8 bytes[26];
  pss_datum_t datum;
};

void make_key(const uint8 *value, uint8 key_type, made_key *key) {
  key->bytes[0] = key_type;
  for (int i = 0; i < 4; ++i) {
    key->bytes[1 + i] = value[8 - i];
    key->bytes[6 + i] = value[3 - i];
  }
  key->bytes[5] = value[4];
  if (key_type == 2) {
    std::memcpy(key->bytes + 10, value + 9, 16);
  }
  key->datum = {key->bytes, key_type == 2 ? 26u : 10u};
}

const pss_datum_t k_global_key = {const_cast<char *>("\4\0\0\0"), 4};

void give_away(pss_service_t store, size_t vr_size) {
  pss_delete(store, &k_global_key);
  for (const uint8 key_type : {uint8{1}, uint8{2}}) {
    const size_t size = key_type == 1 ? vr_size : 53;
    const std::vector<uint8> values = read_all(store, key_type, size);
    for (size_t at = 0; at < values.size(); at += size) {
      made_key key;
      make_key(values.data() + at, key_type, &key);
      pss_delete(store, &key.datum);
    }
  }
}

void take_over(pss_service_t from, pss_service_t to, uint32 flag, size_t old_size,
               size_t new_size) {
  uint8 info[21] = {1};
  const pss_datum_t info_datum = {info, sizeof(info)};
  pss_store(to, flag, &k_global_key, &info_datum);
  for (const uint8 key_type : {uint8{1}, uint8{2}}) {
    const size_t size = key_type == 1 ? old_size : 53;
    const size_t stored = key_type == 1 ? new_size : bench::vip_size;
    const std::vector<uint8> values = read_all(from, key_type, size);
    uint8 made[bench::new_vr_size] = {};
    for (size_t at = 0; at < values.size(); at += size) {
      std::memcpy(made, values.data() + at, std::min(size, stored));
      made_key key;
      make_key(made, key_type, &key);
      const pss_datum_t value = {made, static_cast<uint32>(stored)};
      pss_store(to, flag, &key.datum, &value);
    }
  }
}

void floor_up() {
  const pss_service_t manager = open_store(manager_uri);
  pss_snapshot(manager, 0, temporary_uri);
  give_away(manager, bench::old_vr_size);
  pss_close(manager);
  const pss_service_t temporary = open_store(temporary_uri);
  pss_snapshot(temporary, 0, engine_uri);
  const pss_service_t engine = open_store(engine_uri);
  take_over(temporary, engine, 1, bench::old_vr_size, bench::new_vr_size);
  pss_close(temporary);
  pss_destroy(temporary_uri);
  pss_close(engine);
}

void floor_down() {
  const pss_service_t engine = open_store(engine_uri);
  pss_snapshot(engine, 0, temporary_uri);
  give_away(engine, bench::new_vr_size);
  pss_close(engine);
  const pss_service_t temporary = open_store(temporary_uri);
  const pss_service_t manager = open_store(manager_uri);
  take_over(temporary, manager, 0, bench::new_vr_size, bench::old_vr_size);
  pss_close(temporary);
  pss_destroy(temporary_uri);
  pss_close(manager);
}

// ---- Comparing ---------------------------------------------------------------------------------

struct switch_stores {
  platform_double::records_t manager;
  platform_double::records_t engine;
};

switch_stores stores_now() {
  return {double_platform().records(manager_uri), double_platform().records(engine_uri)};
}

void start_from(const switch_stores &stores) {
  double_platform().reset();
  double_platform().set_store(manager_uri, stores.manager);
  double_platform().set_store(engine_uri, stores.engine);
}

// The same calls with the same bytes, and the same end.
void check_same(const switch_stores &start, work_t convert, work_t floor) {
  start_from(start);
  convert();
  const std::vector<std::string> calls = double_platform().calls();
  const switch_stores end = stores_now();
  start_from(start);
  floor();
  const switch_stores floor_end = stores_now();
  if (calls != double_platform().calls() || end.manager != floor_end.manager ||
      end.engine != floor_end.engine) {
    bench::fail("the floor does not make the library's calls", 0);
  }
}

double time_per_record(const switch_stores &start, work_t work) {
  start_from(start);
  return bench::time_of(work) * 1e9 / k_records;
}

bool compare(const char *name, const switch_stores &start, work_t convert, work_t floor) {
  check_same(start, convert, floor);
  std::vector<double> converting;
  std::vector<double> copying;
  for (int round = 0; round < k_rounds; ++round) {
    converting.push_back(time_per_record(start, convert));
    copying.push_back(time_per_record(start, floor));
  }
  return bench::print_ratio(name, bench::median(converting), bench::median(copying), "ns", k_limit);
}

int run(int /*argc*/, char ** /*argv*/) {
  switch_stores before;
  for (const bench::vrrp_record &one : bench::make_groups(k_groups)) {
    before.manager[one.key] = one.value;
  }
  start_from(before);
  bench::convert_up();
  const switch_stores after = stores_now();
  bench::print_header();
  bool holds = compare("VRRP upgrade on the double, a record / the same calls", before,
                       bench::convert_up, floor_up);
  holds &= compare("VRRP downgrade on the double, a record / the same calls", after,
                   bench::convert_down, floor_down);
  return holds ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  return switch_root::run_inside(argc, argv, run);
}
