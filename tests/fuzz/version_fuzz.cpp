// Version strings: compared with each other and against the oldest supported one; a pair and its
// reverse agree.
#include <cstdlib>

#include "fuzz/bytes_source.h"
#include "libdatamorph_private.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  bytes_source source(data, size);
  const std::string a = source.text();
  const std::string b = source.rest().c_str();
  syserr_t error = 1;
  const int there = datamorph_compare_versions(a.c_str(), b.c_str(), &error);
  const int back = datamorph_compare_versions(b.c_str(), a.c_str(), nullptr);
  if (error != 0 || there < -1 || there > 1 || there != -back ||
      datamorph_compare_versions(a.c_str(), a.c_str(), &error) != 0) {
    std::abort();
  }
  if (datamorph_is_srv_not_supported_target_ver(a.c_str(), b.c_str(), &error) != (there == -1)) {
    std::abort();
  }
  return 0;
}
