#include "statuses.h"

#include <cstdio>

std::string status_number(syserr_t status) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", status);
  return text;
}

std::string status_text(syserr_t status) {
  return status_number(status) + " (" + syserr2str(status) + ")";
}

pss_datum_t datum_of(std::string_view bytes) {
  static char nothing = '\0';
  if (bytes.empty()) {
    return {&nothing, 0};
  }
  return {const_cast<char *>(bytes.data()), static_cast<uint32>(bytes.size())};
}

std::string_view bytes_of(const pss_datum_t &datum) {
  return {static_cast<const char *>(datum.ptr), datum.siz};
}
