/* Second-generation stores. What pss.h says of statuses, handles and returned data holds here. */
#ifndef PLATFORM_PSS2_H
#define PLATFORM_PSS2_H

#include "platform/pss.h"

PLATFORM_BEGIN_DECLS

typedef uint32 pss2_service_t; /* an open store; 0 is none */

/* Sizes in bytes. */
typedef struct pss2_nonvol_params {
  uint32 max_key_size;
  uint32 max_value_size;
  uint32 max_node_keys;
  version_id_t version;
} pss2_nonvol_params;

#define PSS2_MODE_READ   0x1u
#define PSS2_MODE_WRITE  0x2u
#define PSS2_MODE_CREATE 0x10u /* create when missing */

/* Status in *status, result 0 on failure. */
pss2_service_t pss2_open(const char *uri, uint32 mode, uuid_t owner, uint32 reserved1,
                         uint32 reserved2, syserr_t *status);

/* As pss_close and pss_destroy. */
syserr_t pss2_close(pss2_service_t service);
syserr_t pss2_destroy(const char *uri);

/* The store's parameters. */
syserr_t pss2_get_params(pss2_service_t service, pss2_nonvol_params *params);

/* As pss_fetch. */
pss_datum_t *pss2_fetch(pss2_service_t service, const pss_datum_t *key, syserr_t *status);

/* Inserts or replaces; the cursor stays where it is. */
syserr_t pss2_store(pss2_service_t service, const pss_datum_t *key, const pss_datum_t *value);

/* Deleting the record under the cursor moves the cursor onto the following record; deleting
 * another leaves the cursor alone. SYSERR_PSS_NOT_FOUND when absent. */
syserr_t pss2_delete(pss2_service_t service, const pss_datum_t *key, uint32 flag);

/* Moves the cursor of each of `count` handles; per-handle status in errlist
 * (SYSERR_PSS_NOT_FOUND: no such record). The result is 0 unless the call itself fails. */
syserr_t pss2_move2location(pss2_service_t *services, uint32 count, pss_location_t location,
                            syserr_t *errlist);

/* The key, the value at the cursor; null and SYSERR_PSS_NOT_FOUND when it is past the end. */
pss_datum_t *pss2_getkey(pss2_service_t service, syserr_t *status);
pss_datum_t *pss2_getvalue(pss2_service_t service, syserr_t *status);

/* Writes the store's records to a flat file, replacing it; complete or not at all. */
syserr_t pss2_kernel2file(pss2_service_t service, const char *file, uint32 flags);

/* Loads a flat file's records into the store; a status when the file is missing or damaged, the
 * store then unchanged. */
syserr_t pss2_file2kernel(const char *file, pss2_service_t service, uint32 flags);

PLATFORM_END_DECLS

#endif
