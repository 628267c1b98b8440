#include "running_routine.h"

#include <cstdint>
#include <map>

#include <unwind.h>

namespace {

// Of the request that runs.
struct {
  const char *only = nullptr;              // it has no other one
  std::map<uintptr_t, const char *> known; // by address
} running;

struct search {
  const char *found = nullptr;
};

_Unwind_Reason_Code look_at(_Unwind_Context *frame, void *argument) {
  const auto found = running.known.find(_Unwind_GetRegionStart(frame));
  if (found == running.known.end()) {
    return _URC_NO_REASON;
  }
  static_cast<search *>(argument)->found = found->second;
  return _URC_END_OF_STACK;
}

bool belongs(const table_row &row, const conversion_request &request) {
  return request.uuid == SRVUUID_NONE || row.uuid == request.uuid;
}

} // namespace

namespace running_routine {

void expect(const library &loaded, const conversion_request &request) {
  running.known.clear();
  for (const table_row &row : loaded.tables[static_cast<size_t>(request.which)]) {
    if (belongs(row, request)) {
      running.known[reinterpret_cast<uintptr_t>(row.address)] = row.routine.c_str();
    }
  }
  if (request.which == moment::gsync && running.known.size() == 1 &&
      request.uuid == SRVUUID_PSS_HELPER) {
    for (const table_row &row : loaded.helper_table) { // these are called by the helper's own
      running.known[reinterpret_cast<uintptr_t>(row.address)] = row.routine.c_str();
    }
  }
  running.only = running.known.size() == 1 ? running.known.begin()->second : nullptr;
}

const char *name() {
  if (running.only != nullptr || running.known.empty()) {
    return running.only;
  }
  search looked;
  _Unwind_Backtrace(look_at, &looked);
  return looked.found;
}

} // namespace running_routine
