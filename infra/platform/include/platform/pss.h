/* First-generation stores: key/value records named by a URI ("nonvolatile:PATH/NAME",
 * "volatile:PATH/NAME"; the name may be empty).
 *
 * Out-statuses are always written, 0 included. A pointer result is null whenever the status is not
 * 0. Handle 0 and a closed handle give SYSERR_PSS_BAD_HANDLE, a damaged record or file
 * SYSERR_PSS_DAMAGED, a missing store SYSERR_PSS_NO_STORE, no room SYSERR_PSS_NO_ROOM. Parent
 * directories are made as needed. */
#ifndef PLATFORM_PSS_H
#define PLATFORM_PSS_H

#include "platform/pss_datum.h"
#include "platform/types.h"

PLATFORM_BEGIN_DECLS

typedef uint32 pss_service_t; /* an open store; 0 is none */

typedef enum pss_location {
  PSS_NULL_KEY = 0,
  PSS_FIRST_KEY = 1,
  PSS_LAST_KEY = 2,
  PSS_NEXT_KEY = 3,
  PSS_PREVIOUS_KEY = 4
} pss_location_t;

/* The system manager's key type of the tag table. */
#define PSS_KEY_TAG_INFO 9

/* Opens an existing store; never creates one. On failure the status is in *error, the result 0. */
pss_service_t pss_open(const char *uri, syserr_t *error);

/* Everything written through the handle is durable once this returns 0. */
syserr_t pss_close(pss_service_t service);

/* Creates an empty store; fails when one stands there. */
syserr_t pss_create(const char *uri);

/* Removes the store and all its files; a status when there is none. */
syserr_t pss_destroy(const char *uri);

/* The value of a key; null and SYSERR_PSS_NOT_FOUND when absent. */
pss_datum_t *pss_fetch(pss_service_t service, const pss_datum_t *key, syserr_t *error);

/* Inserts or replaces. `flag` 0 or 1 is accepted and changes nothing that a caller can see. */
syserr_t pss_store(pss_service_t service, uint32 flag, const pss_datum_t *key,
                   const pss_datum_t *value);

/* SYSERR_PSS_NOT_FOUND when absent. */
syserr_t pss_delete(pss_service_t service, const pss_datum_t *key);

/* Cursor to the first key at or after `key` (byte order, a prefix before its extensions); that
 * key. Null and SYSERR_PSS_NOT_FOUND past the end. */
pss_datum_t *pss_move2key(pss_service_t service, const pss_datum_t *key, syserr_t *error);

/* Moves the cursor; the key there. Null and SYSERR_PSS_NOT_FOUND when there is none. */
pss_datum_t *pss_move2location(pss_service_t service, pss_location_t location, syserr_t *error);

/* The value at the cursor. */
pss_datum_t *pss_getvalue(pss_service_t service, syserr_t *error);

/* Writes all that the handle sees to a store at `uri`, replacing what stands there; complete or
 * not at all. */
syserr_t pss_snapshot(pss_service_t service, uint32 flags, const char *uri);

/* The printable name of a system-manager key type (9 is "PSS_KEY_TAG_INFO"). Never null; static
 * storage. */
const char *__pss_key_type_enum_t_find(uint32 key_type);

PLATFORM_END_DECLS

#endif
