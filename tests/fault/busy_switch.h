// A switch on the platform double on which every routine of the library finds something to do, and
// those routines.
#ifndef TESTS_FAULT_BUSY_SWITCH_H
#define TESTS_FAULT_BUSY_SWITCH_H

#include <string>
#include <vector>

#include "libdatamorph.h"

// Stores that are open when a routine's steps run; what they are is what the step takes.
struct open_stores {
  pss_service_t mgr = 0;
  pss_service_t eng = 0;
  pss_service_t temp = 0;
  pss2_service_t meta = 0;
};

struct releases {
  const char *to;
  const char *from;
};

// A row of a dispatch table.
struct table_row {
  uuid_t uuid;
  convert_gsync_fn converter;
};

struct routine {
  const char *name;
  // Runs it on the busy switch; its status or answer, or 0 where it gives none.
  syserr_t (*run)(const open_stores &open, const releases &change);
  convert_gsync_fn converter = nullptr; // itself, where it may stand in a table
  // Of an entry point: what it runs, in this order. A later row sees what an earlier one left.
  std::vector<table_row> (*rows)() = nullptr;
  bool is_each = false;        // it is called for each service, one after the other
  bool takes_stores = false;   // it works on open ones, and leaves them open
  bool takes_a_release = true; // else one pair of releases is as good as any other
};

// What an entry point did for one service.
struct service_run {
  uuid_t uuid;
  syserr_t status;
  convert_ret_value_t failed; // the entry point's result record
  size_t calls;               // of the platform, by it and by all before it
};

// Of the last run, where it was one of an entry point that is called for each service.
const std::vector<service_run> &service_runs();

// Every exported routine that calls the platform.
extern const std::vector<routine> k_routines;
// The routine that is this converter; null for one that calls nothing of the platform.
const routine *routine_of(convert_gsync_fn converter);
// What a row gives on the switch as it is.
syserr_t run_row(const table_row &row, const releases &change);

// Releases on both sides of every boundary that a routine knows.
inline constexpr const char *k_releases[] = {"3.3(1)", "4.0(4)", "4.1(1)", "4.1(2)", "4.1(3)",
                                             "4.1(5)", "4.2(0)", "4.2(1)", "4.2(2)", "4.2(3)"};

// What the system manager gives its process, and NPV mode.
void set_busy_environment();

// The switch as it is before each run, the library's own state included.
void make_busy_switch(const releases &change);
// Opens the stores that steps take.
open_stores open_for_steps();

#endif
