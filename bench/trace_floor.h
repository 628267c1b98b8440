/* The system calls that one line of the conversion log needs, and nothing else. */
#ifndef BENCH_TRACE_FLOOR_H
#define BENCH_TRACE_FLOOR_H

#ifdef __cplusplus
extern "C" {
#endif

/* Writes a line, as long as the library's with its time prefix, to standard error and to the log
 * of this root, syncs it and looks whether the log must be rotated. The marker must be there. */
void trace_floor(const char *line);

#ifdef __cplusplus
}
#endif

#endif
