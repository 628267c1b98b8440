// Whole stores at once: snapshots into another store, and flat files. All or nothing.
#ifndef LAB_STORE_COPY_H
#define LAB_STORE_COPY_H

#include "lab/journal.h"
#include "lab/store_handle.h"

namespace lab {

// Each fills in the journal's record counts when the journal is on.
syserr_t copy_to_store(store_handle &from, const char *uri, journal_entry *entry);
syserr_t copy_to_flat_file(store_handle &from, const char *file);
syserr_t copy_from_flat_file(store_handle &to, const char *file, journal_entry *entry);

} // namespace lab

#endif
