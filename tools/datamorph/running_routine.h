// Which routine of the library's dispatch tables the code that runs was called by.
#ifndef DATAMORPH_RUNNING_ROUTINE_H
#define DATAMORPH_RUNNING_ROUTINE_H

#include "conversion_child.h"

namespace running_routine {

// The request that is made next. The library stays the caller's and outlives the requests.
void expect(const library &loaded, const conversion_request &request);

// The name of the routine, by the calls that are open on this thread; when the request has one
// routine only, that one, on any thread. Null when nobody knows.
const char *name();

} // namespace running_routine

#endif
