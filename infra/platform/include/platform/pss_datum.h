/* A stored key or value, shared by both generations of stores.
 *
 * Returned by the platform: the datum and its bytes stay valid until the next call of the same
 * function on the same handle, or until the handle is closed; the caller copies what it keeps and
 * frees nothing. `ptr` is never null, not even for an empty value.
 * Handed in: read during the call only; may be one that a call returned. */
#ifndef PLATFORM_PSS_DATUM_H
#define PLATFORM_PSS_DATUM_H

#include "platform/types.h"

typedef struct pss_datum {
  void *ptr;
  uint32 siz; /* bytes */
} pss_datum_t;

#endif
