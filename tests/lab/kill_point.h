// Ends the process at its n-th system call that changes files. The calls of the C library that do
// so are replaced in this program, for the store engine too.
#ifndef TESTS_LAB_KILL_POINT_H
#define TESTS_LAB_KILL_POINT_H

namespace kill_point {

// SIGKILL in place of the n-th change from here on; `torn`: a write gets half its bytes out first.
void arm(int n, bool torn);

} // namespace kill_point

#endif
