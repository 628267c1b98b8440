// The services' names as people type them: SRVUUID_ constants without the prefix.
#ifndef DATAMORPH_SERVICES_H
#define DATAMORPH_SERVICES_H

#include <optional>
#include <string>

#include "platform/types.h"

// "SKSD"; the number as text for a service that has no name.
std::string service_name(uint32 uuid);

// In any case, with or without SRVUUID_.
std::optional<uint32> service_number(const std::string &name);

// All names, separated by blanks.
std::string service_names();

#endif
