// What answers the request for a tag: payloads of any content, errors of the platform, interrupts.
#include <cerrno>

#include "fuzz/fuzz_switch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  bytes_source source(data, size);
  fuzz_switch::reset();
  platform_double &platform = double_platform();
  const uint8_t how = source.byte();
  platform.interrupt_recv(how & 7U);
  static const char *const calls[] = {"mts_send", "mts_rr_token_get", "mts_recv", "mts_payload_get",
                                      "mts_drop"};
  if ((how & 8U) != 0) {
    platform.fail(calls[source.byte() % 5], source.byte(), 1U + source.byte() % 3U);
  }
  if ((how & 16U) != 0) {
    platform.deliver(fuzz_switch::queue, source.text());
  }
  std::string tag = source.text();
  const auto uuid = static_cast<uuid_t>(source.byte() << 8 | source.byte());
  platform.reply(source.rest());
  static_cast<void>(sysmgr_add_tag_info_req(uuid, reinterpret_cast<uint8 *>(tag.data()), how));
  fuzz_switch::expect_tidy();
  return 0;
}
