// The platform's statuses and stored bytes, as the command line handles them.
#ifndef DATAMORPH_STATUSES_H
#define DATAMORPH_STATUSES_H

#include <string>
#include <string_view>

#include "platform/pss_datum.h"
#include "platform/types.h"

// "0x40480003".
std::string status_number(syserr_t status);
// "0x40480003 (no such record)".
std::string status_text(syserr_t status);

// A datum that refers to these bytes, for a call that only reads it.
pss_datum_t datum_of(std::string_view bytes);
std::string_view bytes_of(const pss_datum_t &datum);

#endif
