// Service access points as files: /var/run/mts/sap-N holds the owner's name and, on the second
// line, the endpoint that answers (nothing for one that nobody answers).
#ifndef LAB_ACCESS_POINTS_H
#define LAB_ACCESS_POINTS_H

#include <string>

#include "platform/types.h"

namespace lab {

inline constexpr char mts_folder[] = "/var/run/mts";

bool is_sap(uint32 sap);

struct sap_entry {
  std::string owner;
  std::string endpoint; // the path of a socket
};

// 0, or an errno: ENOENT for an access point that is not registered.
int sap_read(uint32 sap, sap_entry *entry);
int sap_write(uint32 sap, const sap_entry &entry);
int sap_remove(uint32 sap);

} // namespace lab

#endif
