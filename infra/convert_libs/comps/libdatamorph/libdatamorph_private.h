// What the library's sources share: the trace operation, version numbers, the tables' walks.
#ifndef LIBDATAMORPH_PRIVATE_H
#define LIBDATAMORPH_PRIVATE_H

#include <fcntl.h>

#include "libdatamorph.h"

// ---- Trace ------------------------------------------------------------------------------------

// Writes one message to standard error and appends it, time-stamped and synced, to the conversion
// log. The first "%s" of a message is the routine's name as the log's reader knows it. Arguments
// are evaluated once; errno is left as it was.
#define DATAMORPH_TRACE(...) datamorph_trace(__VA_ARGS__)

void datamorph_trace(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The same for a text that gets a line end on standard error, and none in the log.
void datamorph_trace_line_apart(const char *text);

// Opens a log for reading and writing; `flags` (O_APPEND, O_CREAT, O_TRUNC, O_CLOEXEC) and `mode`
// as for open. -1 for what is no regular file or is not the library's alone: a link is not
// followed, a file that has a second name is somebody else's too, and nothing else is ever written
// to or waited for. Only a file that passes is emptied.
int datamorph_open_own_file(const char *path, int flags, mode_t mode);

// A string for a message: null reads "(null)".
inline const char *datamorph_text(const char *text) {
  return text != nullptr ? text : "(null)";
}

// ---- Versions ---------------------------------------------------------------------------------

// At most this many characters of a version count.
inline constexpr size_t datamorph_version_chars = 16;

// The oldest release whose data the library still converts.
inline constexpr char min_supported_ver[7] = "4.1(2)";

// The leading decimal digits of at most `limit` characters of `text`; 0 if there are none,
// 2147483647 when the number is larger than that.
int32 datamorph_leading_number(const char *text, size_t limit);

// ---- VDCs -------------------------------------------------------------------------------------

// The VDC that a path belongs to: the low 16 bits of the number behind its first "/vdc_", as strtol
// gives it where a long has 32 bits; VDC 1 without it. *suffix (may be null) is then the text that
// follows "/vdc_", and left alone otherwise.
vdc_id_t datamorph_path_vdc(const char *path, const char **suffix);

// ---- Walks over the dispatch tables -----------------------------------------------------------
//
// The entry points are these walks on the tables of libdatamorph_main.cpp. Each takes the name it
// traces under, so that the log names the entry point.

template <typename row_t>
syserr_t datamorph_call_row(const row_t &row, const datamorph_args_t *args) {
  if (args == nullptr) {
    return row.fn(nullptr, nullptr, nullptr, nullptr);
  }
  return row.fn(args->path, args->pkg_name, args->to_pkg_version, args->from_pkg_version);
}

enum class datamorph_failure { silent, traced };

template <typename row_t>
syserr_t datamorph_walk_service(const char *self, const row_t *table, uuid_t uuid,
                                convert_ret_value_t *a, const datamorph_args_t *args,
                                datamorph_failure failure) {
  for (const row_t *row = table; row->uuid != SRVUUID_NONE; ++row) {
    if (row->uuid != uuid) {
      continue;
    }
    DATAMORPH_TRACE("%s: calling convert function for uuid = 0x%x\n", self, row->uuid);
    const syserr_t status = datamorph_call_row(*row, args);
    if (status == SYSERR_SUCCESS) {
      continue;
    }
    if (failure == datamorph_failure::traced) {
      DATAMORPH_TRACE("%s: err convert function for uuid = 0x%x\n", self, row->uuid);
    }
    // QUIRK: without a result record a failure is dropped and the walk goes on. Callers that give
    // none do not want to be stopped.
    // Pinned by main_test, failure_without_result_record_is_dropped.
    if (a != nullptr) {
      a->uuid = row->uuid;
      a->syserr = status;
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

template <typename row_t>
syserr_t datamorph_walk_startup_all(const char *self, const row_t *table,
                                    const datamorph_args_t *args) {
  for (int i = 0; table[i].uuid != SRVUUID_NONE; ++i) {
    DATAMORPH_TRACE("%s: calling convert function for uuid = 0x%x\n", self, table[i].uuid);
    const syserr_t status = datamorph_call_row(table[i], args);
    if (status != SYSERR_SUCCESS) {
      DATAMORPH_TRACE("%s: convert function # %d for uuid = 0x%x returned error 0x%x\n", self, i,
                      table[i].uuid, status);
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

// `by_service` is the per-service entry point of the same table: each routine is traced twice, once
// under each name.
template <typename row_t>
syserr_t datamorph_walk_running_fs_upg_all(const char *self, const row_t *table,
                                           decltype(&datamorph_running_fs_upg) by_service,
                                           datamorph_args_t *args) {
  for (const row_t *row = table; row->uuid != SRVUUID_NONE; ++row) {
    DATAMORPH_TRACE("%s: calling convert function for uuid = 0x%x\n", self, row->uuid);
    convert_ret_value_t local = {};
    const syserr_t status = by_service(static_cast<uuid_t>(row->uuid), &local, args);
    if (status != SYSERR_SUCCESS) {
      // QUIRK: no row number here, unlike the startup walk. The log's wording is a contract.
      // Pinned by main_test, running_fs_upg_all_stops_at_the_first_failure.
      DATAMORPH_TRACE("%s: convert function for uuid = 0x%x returned error 0x%x\n", self, row->uuid,
                      status);
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

template <typename row_t>
void datamorph_walk_psshlpr(const char *self, const row_t *table, const datamorph_args_t *args) {
  for (const row_t *row = table; row->uuid != SRVUUID_NONE; ++row) {
    DATAMORPH_TRACE("%s: calling convert function for uuid = 0x%x\n", self, row->uuid);
    if (datamorph_call_row(*row, args) != SYSERR_SUCCESS) {
      DATAMORPH_TRACE("%s: err convert function for uuid = 0x%x\n", self, row->uuid);
    }
  }
}

template <typename row_t> bool datamorph_has_row(const row_t *table, uuid_t uuid) {
  for (const row_t *row = table; row->uuid != SRVUUID_NONE; ++row) {
    if (row->uuid == uuid) {
      return true;
    }
  }
  return false;
}

#endif
