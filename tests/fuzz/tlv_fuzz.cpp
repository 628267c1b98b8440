// TLV arrays: walked by the platform's functions, and as a saved tag table that gets an entry.
#include <cstdlib>
#include <cstring>

#include "fuzz/fuzz_switch.h"

namespace {

void walk(const std::string &bytes) {
  if (bytes.size() < 8) {
    return;
  }
  // A block of exactly its size: whoever reads behind it is found.
  void *block = std::malloc(bytes.size());
  std::memcpy(block, bytes.data(), bytes.size());
  auto *array = static_cast<tlv_array_t *>(block);
  uint32 stated = 0;
  std::memcpy(&stated, block, sizeof stated);
  if (stated <= bytes.size()) {
    static_cast<void>(tlv_array_get_num_tlvs(array, 1));
  }
  std::free(block);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  bytes_source source(data, size);
  fuzz_switch::reset();
  const std::string table = source.rest();
  walk(table);
  double_platform().set_store(
      "nonvolatile:/cfg/bin/sysmgr_config",
      {{std::string("\x09\0\0\0\0\0\0\0\0\0\0\0", 12), table}});
  uint8 tag[] = "tag";
  static_cast<void>(sysmgr_add_tag_startup("/cfg", SRVUUID_KPS, tag, 1));
  fuzz_switch::expect_tidy();
  return 0;
}
