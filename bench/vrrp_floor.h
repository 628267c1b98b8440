// The floor of the VRRP figures: the end states of both conversions, reached by direct calls of the
// engine that the lab's stores stand on.
#ifndef BENCH_VRRP_FLOOR_H
#define BENCH_VRRP_FLOOR_H

namespace bench {

void floor_up();
void floor_down();

// The same in the language of the engine's command line, but for the checksums of the VR records,
// which it cannot work out. To be run on the manager's store, in the root's folder.
extern const char sql_up[];
extern const char sql_down[];

} // namespace bench

#endif
