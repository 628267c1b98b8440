// The stored records of VRRP: its virtual routers (VR), their addresses (VIP), and the global info.
#ifndef DATAMORPH_VRRP_RECORDS_H
#define DATAMORPH_VRRP_RECORDS_H

#include "records.h"

// What a record of a VRRP store is, in either layout; nothing for other key types. A value of no
// layout is damaged; one that does not fit its release comes with the reason, as layout_trouble
// tells it. What else is wrong with a record is told in "problems".
std::optional<decoded_record> decode_vrrp_record(std::string_view key, std::string_view value,
                                                 const std::string &misfit);

// As layout_trouble, of a record of a VRRP store; without a side what is stored on either one fits.
std::string vrrp_layout_trouble(std::string_view key, std::string_view value,
                                std::optional<layout_side> side);

#endif
