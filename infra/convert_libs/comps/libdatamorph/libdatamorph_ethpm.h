// The port manager's walk, apart from the converters that run it on the stores of their tables.
#ifndef LIBDATAMORPH_ETHPM_H
#define LIBDATAMORPH_ETHPM_H

#include "libdatamorph.h"

// Decides which requests of the list apply to this change of release, then visits every record of
// the store once and lets each of them match, change and write back or delete it. What fails is
// traced and ends the walk.
void ethpm_update_pss_list(const char *to_ver, const char *from_ver, const char *full_pss_uri,
                           ethpm_pss_type_t *pss_change_list, size_t list_num);

#endif
