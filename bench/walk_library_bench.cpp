// What the port manager's walk costs in the library itself: on the recording platform double,
// beside a loop that copies the same bytes through the same platform calls in the same order.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "figure.h"
#include "libdatamorph_ethpm.h"
#include "port_records.h"
#include "support/platform_double.h"
#include "support/switch_root.h"

namespace {

constexpr unsigned k_records = 100'000;
constexpr int k_rounds = 7;
constexpr double k_limit = 1.3;

constexpr char k_runtime_uri[] = "nonvolatile:/cfg/0/ethpm_runtime_info";
constexpr char k_configuration_uri[] = "nonvolatile:/cfg/0/ethpm_runtime_cfg";

using records_t = platform_double::records_t;

struct kind {
  const char *name;
  const char *uri;
  ethpm_pss_type_t *list;
  bench::port_record (*make)(unsigned n);
  void (*floor)();
};

// ---- The floors --------------------------------------------------------------------------------

pss2_service_t open_store(const char *uri) {
  syserr_t status = SYSERR_SUCCESS;
  const pss2_service_t store = pss2_open(uri, 3, SRVUUID_NONE, 0, 0, &status);
  if (status != SYSERR_SUCCESS) {
    bench::fail(uri, status);
  }
  return store;
}

bool move(pss2_service_t *store, pss_location_t location) {
  syserr_t status = SYSERR_SUCCESS;
  return pss2_move2location(store, 1, location, &status) == SYSERR_SUCCESS &&
         status == SYSERR_SUCCESS;
}

struct copied {
  uint8 bytes[32];
  pss_datum_t datum;
};

void copy(const pss_datum_t *from, copied *to) {
  std::memcpy(to->bytes, from->ptr, from->siz);
  to->datum = {to->bytes, from->siz};
}

void floor_rewrite() {
  pss2_service_t store = open_store(k_runtime_uri);
  for (bool stands = move(&store, PSS_FIRST_KEY); stands; stands = move(&store, PSS_NEXT_KEY)) {
    syserr_t status = SYSERR_SUCCESS;
    copied key;
    copied value;
    copy(pss2_getkey(store, &status), &key);
    copy(pss2_getvalue(store, &status), &value);
    uint8 &reason = value.bytes[bench::reason_at];
    reason = static_cast<uint8>(upgrade_port_state_reason_table[reason]);
    pss2_store(store, &key.datum, &value.datum);
  }
  pss2_close(store);
}

void floor_delete() {
  pss2_service_t store = open_store(k_configuration_uri);
  syserr_t status = SYSERR_SUCCESS;
  move(&store, PSS_FIRST_KEY);
  const pss_datum_t *key = pss2_getkey(store, &status);
  while (key != nullptr) {
    copied doomed;
    copy(key, &doomed);
    pss2_getvalue(store, &status);
    pss2_delete(store, &doomed.datum, 1);
    key = pss2_getkey(store, &status);
  }
  pss2_close(store);
}

const kind k_kinds[] = {
    {"runtime record rewritten on the double / the same calls", k_runtime_uri,
     ethpm_convert_runtime_pss_list, bench::make_runtime, floor_rewrite},
    {"configuration record deleted on the double / the same calls", k_configuration_uri,
     ethpm_convert_config_tlv_pss_list, bench::make_configuration, floor_delete},
};

// ---- Comparing ---------------------------------------------------------------------------------

void start_from(const kind &which, const records_t &records) {
  double_platform().reset();
  double_platform().set_store(which.uri, records);
}

void convert(const kind &which) {
  ethpm_update_pss_list("4.2(1)", "4.1(5)", which.uri, which.list, 1);
}

// The same calls with the same bytes, and the same end.
void check_same(const kind &which, const records_t &start) {
  start_from(which, start);
  convert(which);
  const std::vector<std::string> calls = double_platform().calls();
  const records_t end = double_platform().records(which.uri);
  start_from(which, start);
  which.floor();
  if (calls != double_platform().calls() || end != double_platform().records(which.uri) ||
      end == start) {
    bench::fail("the floor does not make the library's calls", 0);
  }
}

bool show(const kind &which) {
  records_t start;
  for (unsigned n = 0; n < k_records; ++n) {
    const bench::port_record made = which.make(n);
    start[made.key] = made.value;
  }
  check_same(which, start);
  std::vector<double> converting;
  std::vector<double> copying;
  for (int round = 0; round < k_rounds; ++round) {
    start_from(which, start);
    converting.push_back(bench::time_of([&] { convert(which); }) * 1e9 / k_records);
    start_from(which, start);
    copying.push_back(bench::time_of([&] { which.floor(); }) * 1e9 / k_records);
  }
  return bench::print_ratio(which.name, bench::median(converting), bench::median(copying), "ns",
                            k_limit);
}

int run(int /*argc*/, char ** /*argv*/) {
  ethpm_init_port_state_reason_tables();
  bench::print_header();
  bool holds = true;
  for (const kind &which : k_kinds) {
    holds &= show(which);
  }
  return holds ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDERR_FILENO); // the conversion's lines
  return switch_root::run_inside(argc, argv, run);
}
