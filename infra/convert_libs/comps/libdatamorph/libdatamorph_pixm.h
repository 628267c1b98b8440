// Steps of the port index manager's conversion that its tests call by themselves.
#ifndef LIBDATAMORPH_PIXM_H
#define LIBDATAMORPH_PIXM_H

#include "platform/types.h"

// Where a change of release stands to a leg's references: *from_comp is 0 or above when from_ver is
// from_ref or newer, *to_comp is 1 when to_ver is older than to_ref. The status of the second
// comparison; an error of the first is only traced.
syserr_t pixm_compare_img_ver(const char *to_ver, const char *from_ver, const char *to_ref,
                              const char *from_ref, int *to_comp, int *from_comp);

// Traces a key of 7 bytes with a label. 0; all bits set for a null argument.
syserr_t pixm_print_pss_key(const char *str, const uint8 *key_data);

// The LTL number that a Q8 one of 4.1 has before 4.1(2): the four of a slot fold onto the first of
// the slot. Traced. A number outside the range stays as it is.
uint32 pixm_q8_ltl_for_4_0(uint32 ltl);

#endif
