// The conversion library, loaded as a system manager loads it: by dlopen, entry points and tables
// by name.
#ifndef DATAMORPH_LIBRARY_H
#define DATAMORPH_LIBRARY_H

#include <string>
#include <vector>

#include "libdatamorph.h"
#include "switch_state.h"

struct table_row {
  uint32 uuid = 0;
  std::string routine; // its name, or its address where it has none
  const void *address = nullptr;
};

struct library {
  std::string file;
  decltype(&libdatamorph_init) init = nullptr;
  decltype(&datamorph_gsync) gsync = nullptr;
  decltype(&datamorph_startup) startup = nullptr;
  decltype(&datamorph_startup_all) startup_all = nullptr;
  decltype(&datamorph_running_fs_upg) running_fs = nullptr;
  decltype(&datamorph_running_fs_upg_all) running_fs_all = nullptr;
  decltype(&datamorph_compare_versions) compare_versions = nullptr;
  std::array<std::vector<table_row>, 3> tables; // by moment
  std::vector<table_row> helper_table;          // what the PSS helper's gsync routine runs

  // One service of a moment; the status, and in *failed what the library filled in.
  syserr_t call(moment which, uint32 uuid, convert_ret_value_t *failed,
                datamorph_args_t *args) const;
  // The whole table of a moment that has such an entry point (all but gsync).
  syserr_t call_all(moment which, datamorph_args_t *args) const;
};

// Where the library is, or is looked for by the system; `wanted` as below.
std::string find_library(const std::string &wanted);

// Finds, loads and reads the library; `wanted` is the command line's choice or empty. Throws
// failure(3) naming the file and what is wrong with it. Never unloaded.
library load_library(const std::string &wanted);

#endif
