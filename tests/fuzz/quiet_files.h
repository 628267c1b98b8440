// The library's fixed files, in memory. Each line that it traces takes a dozen system calls, which
// would be nearly all of a run; here the same code runs, and no call leaves the process. The
// linker puts these functions in the place of the C library's; other files are served as ever.
#ifndef TESTS_FUZZ_QUIET_FILES_H
#define TESTS_FUZZ_QUIET_FILES_H

namespace quiet_files {

// The switch as it was booted: no marker, no log.
void reset();
// Whether the switch is in NPV mode: its marker stands below /tmp.
void set_npv_mode(bool on);
// Whether the trace files of VRRP stand.
void set_vrrp_traces(bool on);
// From now on the trace on standard error is formatted and dropped. What is written to the
// descriptor, as by a sanitizer, stays.
void drop_trace();
// The library's own descriptors that are open.
int open_files();
// The bytes in its log.
long logged();

} // namespace quiet_files

#endif
