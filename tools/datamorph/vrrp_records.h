// The stored records of VRRP: its virtual routers (VR), their addresses (VIP), and the global info.
#ifndef DATAMORPH_VRRP_RECORDS_H
#define DATAMORPH_VRRP_RECORDS_H

#include "records.h"

// What a record of a VRRP store is, in either layout; nothing for other key types. A value of no
// layout is damaged; what else is wrong with a record is told in "problems".
std::optional<decoded_record> decode_vrrp_record(std::string_view key, std::string_view value);

// As layout_trouble, of a record of a VRRP store.
std::string vrrp_layout_trouble(std::string_view key, std::string_view value, layout_side side);

#endif
