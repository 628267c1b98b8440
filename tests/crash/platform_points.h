/* The real library with a mark before each of its calls of the platform, for who watches it. */
#ifndef TESTS_CRASH_PLATFORM_POINTS_H
#define TESTS_CRASH_PLATFORM_POINTS_H

/* A file that never is: opening it is the mark. */
static const char platform_point_name[] = "/.a-platform-call";

#endif
