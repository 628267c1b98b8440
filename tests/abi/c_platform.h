/* What the platform in C keeps for the test. */
#ifndef TESTS_ABI_C_PLATFORM_H
#define TESTS_ABI_C_PLATFORM_H

extern char destroyed[300]; /* the last URI that pss2_destroy got */

#endif
