/* C linkage for the platform's declarations, from C11 and from C++20. */
#ifndef PLATFORM_DECLS_H
#define PLATFORM_DECLS_H

#ifdef __cplusplus
#define PLATFORM_BEGIN_DECLS extern "C" {
#define PLATFORM_END_DECLS   }
#else
#define PLATFORM_BEGIN_DECLS
#define PLATFORM_END_DECLS
#endif

#endif
