/* The public header from C, and the shared library as a program that brings the platform sees it.
 * Only calls that trace nothing, since this program runs in the host's own root. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "c_platform.h"
#include "libdatamorph.h"

static int failures;

static void expect(int holds, const char *what) {
  if (!holds) {
    fprintf(stderr, "failed: %s\n", what);
    ++failures;
  }
}

int main(void) {
  syserr_t error = 1;
  char path[] = "/image";
  char name[] = "store";
  char version[16];
  convert_ret_value_t result = {1, 2};

  expect(sizeof(uuid_t) == 4 && sizeof(boolean) == 4 && sizeof(bool) == 1, "widths");
  expect(sizeof(data_morph_gsync) == 2 * sizeof(void *), "rows are a service and a routine");
  expect(offsetof(data_morph_gsync, uuid) == 0 &&
             offsetof(data_morph_gsync, fn) == sizeof(void *) &&
             sizeof(data_morph_startup) == sizeof(data_morph_gsync) &&
             sizeof(data_morph_running_fs_upg) == sizeof(data_morph_gsync) &&
             sizeof(data_morph_psshlpr_upg) == sizeof(data_morph_gsync),
         "layout of the rows");
  expect(sizeof(datamorph_args_t) == 4 * sizeof(char *) && offsetof(datamorph_args_t, path) == 0 &&
             offsetof(datamorph_args_t, pkg_name) == sizeof(char *) &&
             offsetof(datamorph_args_t, to_pkg_version) == 2 * sizeof(char *) &&
             offsetof(datamorph_args_t, from_pkg_version) == 3 * sizeof(char *),
         "layout of the arguments");
  expect(sizeof(convert_ret_value_t) == 8 && offsetof(convert_ret_value_t, uuid) == 0 &&
             offsetof(convert_ret_value_t, syserr) == 4,
         "layout of the result");
  expect(datamorph_compare_versions("4.2(10)", "4.2(9)", &error) == 1 && error == 0, "compare");
  expect(!datamorph_is_srv_not_supported_target_ver("4.1(2)", "4.1(2)", NULL), "minimum");
  expect(datamorph_get_version(path, version, sizeof version) == 0, "image version");
  expect(strcmp(version, "4.2(1)") == 0, "text of the image version");
  expect(is_uuid_in_convert_gsync_table(SRVUUID_PSS_HELPER), "gsync table");
  expect(!is_uuid_in_convert_startup_table(SRVUUID_SVI), "startup table");
  expect(is_uuid_in_convert_running_fs_upg_table(SRVUUID_EVMS), "running-fs table");
  expect(data_morph_gsync_table[0].uuid == 390, "first gsync row");
  expect(data_morph_gsync_table[0].fn == psshlpr_data_morph_gsync, "first gsync routine");
  expect(data_morph_psshlpr_upg_table[0].uuid == SRVUUID_SVI, "helper table");
  expect(datamorph_mts_q == 0, "no queue before the initialisation");
  expect(datamorph_destroy_volatile_pss(path, name) == 0x40480002, "destroy");
  expect(strcmp(destroyed, "volatile:/image/store") == 0, "destroyed store");
  expect(datamorph_gsync(SRVUUID_SVI, &result, NULL) == 0 && result.uuid == 1, "no row");
  return failures == 0 ? 0 : 1;
}
