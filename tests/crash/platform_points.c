/* Each of the platform's functions that the library calls, with a mark before it. The linker sends
 * the library's calls here (--wrap). All take whole numbers and addresses, up to nine. */
#include "crash/platform_points.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

static void mark(void) {
  const int error = errno;
  const int fd = open(platform_point_name, O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    close(fd);
  }
  errno = error;
}

#define POINT(name)                                                                                \
  long __real_##name(long, long, long, long, long, long, long, long, long);                        \
  long __wrap_##name(long, long, long, long, long, long, long, long, long);                        \
  long __wrap_##name(long a, long b, long c, long d, long e, long f, long g, long h, long i) {     \
    mark();                                                                                        \
    return __real_##name(a, b, c, d, e, f, g, h, i);                                               \
  }

#include "platform_point_rows.h"
