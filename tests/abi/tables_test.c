/* Prints each dispatch table of the built library, a row per line with the name that the routine
 * has in the library, and holds it against the literal list. */
#include <dlfcn.h>
#include <link.h>
#include <stdio.h>
#include <string.h>

#include "libdatamorph.h"

static const char *const expected[] = {
    "gsync 390 psshlpr_data_morph_gsync",
    "gsync 219 ike_data_morph_gsync",
    "gsync 501 cond_srv1_data_morph_gsync",
    "gsync 307 pixm_data_morph_gsync",
    "gsync 306 ethpm_data_morph_gsync",
    "gsync 0 none",
    "startup 219 ike_data_morph_startup",
    "startup 542 kps_data_morph_startup",
    "startup 381 dot1x_data_morph_startup",
    "startup 306 ethpm_data_morph_startup",
    "startup 11 vrrp_mgr_data_morph_startup_for_upgrade",
    "startup 68 vrrp_eng_data_morph_startup_for_upgrade",
    "startup 68 vrrp_eng_data_morph_startup_for_downgrade",
    "startup 11 vrrp_mgr_data_morph_startup_for_downgrade",
    "startup 0 none",
    "running_fs_upg 297 sksd_data_morph_running_fs_upg",
    "running_fs_upg 327 plugin_data_morph_running_fs_upg",
    "running_fs_upg 411 evms_data_morph_running_fs_upg",
    "running_fs_upg 413 evmc_data_morph_running_fs_upg",
    "running_fs_upg 564 mvsh_data_morph_running_fs_upg",
    "running_fs_upg 260 smm_data_morph_running_fs_upg",
    "running_fs_upg 261 clis_data_morph_running_fs_upg",
    "running_fs_upg 166 epp_in_npv_mode_data_morph_running_fs_upg",
    "running_fs_upg 542 kps_data_morph_running_fs_upg",
    "running_fs_upg 381 dot1x_data_morph_running_fs_upg",
    "running_fs_upg 0 none",
    "psshlpr_upg 380 svi_data_morph_psshlpr_upg",
    "psshlpr_upg 0 none",
};

static const size_t expected_count = sizeof expected / sizeof expected[0];
static size_t count;
static int failures;

/* The four kinds of rows have one layout; abi_c_test holds them to it. */
static const char *routine_name(convert_gsync_fn fn) {
  void *address = NULL;
  Dl_info found;
  if (fn == NULL) {
    return "none";
  }
  memcpy(&address, &fn, sizeof address);
  return dladdr(address, &found) != 0 && found.dli_saddr == address ? found.dli_sname : "no symbol";
}

static void take_row(const char *table, uint32 uuid, convert_gsync_fn fn) {
  char row[200];
  snprintf(row, sizeof row, "%s %u %s", table, uuid, routine_name(fn));
  puts(row);
  const char *const wanted = count < expected_count ? expected[count] : "no more rows";
  ++count;
  if (strcmp(row, wanted) != 0) {
    fprintf(stderr, "row %zu: expected: %s\n", count, wanted);
    ++failures;
  }
}

/* Bytes of a table, as the library says, so that rows behind a terminator, or a missing one, are
 * found without reading past its end. */
static size_t table_size(const void *table) {
  Dl_info found;
  void *symbol = NULL;
  if (dladdr1(table, &found, &symbol, RTLD_DL_SYMENT) == 0 || found.dli_saddr != table) {
    return 0;
  }
  return (size_t)((const ElfW(Sym) *)symbol)->st_size;
}

#define TAKE_TABLE(name, table)                                                                    \
  for (size_t at = 0; at < table_size(table) / sizeof(table)[0]; ++at) {                           \
    take_row(name, (table)[at].uuid, (table)[at].fn);                                              \
  }

int main(void) {
  TAKE_TABLE("gsync", data_morph_gsync_table)
  TAKE_TABLE("startup", data_morph_startup_table)
  TAKE_TABLE("running_fs_upg", data_morph_running_fs_upg_table)
  TAKE_TABLE("psshlpr_upg", data_morph_psshlpr_upg_table)
  if (count != expected_count) {
    fprintf(stderr, "%zu rows, expected %zu\n", count, expected_count);
    ++failures;
  }
  return failures == 0 ? 0 : 1;
}
