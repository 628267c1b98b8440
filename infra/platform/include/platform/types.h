/* The platform's basic types and the two helpers that go with them. */
#ifndef PLATFORM_TYPES_H
#define PLATFORM_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "platform/decls.h"
#include "platform/srv_uuid.h"

typedef uint8_t uint8;
typedef uint16_t uint16;
typedef uint32_t uint32;
typedef uint64_t uint64;
typedef int32_t int32;

/* The platform's truth value, as wide as an int32. Not C's bool, which is one byte. */
typedef int32 boolean;
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* A status: 0 is success, the rest is in syserr.h. */
typedef uint32 syserr_t;

/* A virtual device context; 1 is the default one. */
typedef uint16 vdc_id_t;

typedef uint32 if_index_t;
typedef uint32 version_id_t;

#include "platform/syserr.h"

PLATFORM_BEGIN_DECLS

/* The text of a status. Never null, for any number; static storage, not to be freed. */
const char *syserr2str(syserr_t status);

/* An interface index in its stored key form: big-endian bytes when the result is stored as it
 * lies in memory. */
uint32 hton_if_index(if_index_t if_index);

PLATFORM_END_DECLS

#endif
