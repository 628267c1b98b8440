// What answers the request for a tag: payloads of any content, errors of the platform, interrupts,
// messages of others.
#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "fuzz/fuzz_switch.h"

namespace {

constexpr uint8_t k_fails = 8;
constexpr uint8_t k_other_message = 16;
constexpr uint8_t k_no_answer = 32;

struct failing_call {
  const char *name;
  bool matters; // to the status
};
constexpr failing_call k_calls[] = {
    {"mts_send", true}, {"mts_recv", true}, {"mts_payload_get", true}, {"mts_drop", false}};

syserr_t mts_status(int error) {
  return 0x801E0000U | (static_cast<syserr_t>(error) & 0xFFFU);
}

// What the routine gives when nothing fails but what answers.
syserr_t answered(const std::string &payload, bool has_answer) {
  if (!has_answer) {
    return mts_status(ETIMEDOUT);
  }
  if (payload.size() < 4) { // a message without a payload
    return mts_status(EPROTO);
  }
  uint32 status = 0;
  std::memcpy(&status, payload.data(), sizeof status);
  status = ntohl(status);
  return status == 0x401E0076 ? 0 : status;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  bytes_source source(data, size);
  fuzz_switch::reset();
  platform_double &platform = double_platform();
  const uint8_t how = source.byte();
  platform.interrupt_recv(how & 7U);
  const failing_call *failing = nullptr;
  int error = 0;
  if ((how & k_fails) != 0) {
    failing = &k_calls[source.byte() % std::size(k_calls)];
    error = 1 + source.byte();
    error += error == EINTR ? 1 : 0; // a receive that is interrupted is done again
    platform.fail(failing->name, static_cast<syserr_t>(error));
  }
  if ((how & k_other_message) != 0) {
    platform.deliver(fuzz_switch::queue, source.text());
  }
  std::string tag = source.text();
  const auto uuid = static_cast<uuid_t>(source.byte() << 8 | source.byte());
  const auto vdc = static_cast<vdc_id_t>(source.byte());
  const std::string payload = source.rest();
  const bool has_answer = (how & k_no_answer) == 0;
  if (has_answer) {
    platform.reply(payload);
  }
  const syserr_t status = sysmgr_add_tag_info_req(uuid, reinterpret_cast<uint8 *>(tag.data()), vdc);
  if (failing == nullptr || !failing->matters) {
    expect(status == answered(payload, has_answer), "another status than the answer's");
  } else if (failing->name == std::string("mts_payload_get")) {
    expect(status == (has_answer ? mts_status(EPROTO) : mts_status(ETIMEDOUT)),
           "another status than that of an answer without a payload");
  } else {
    expect(status == mts_status(error), "another status than the failed call's");
  }
  if (failing == nullptr || failing->matters) {
    fuzz_switch::expect_tidy();
  }
  return 0;
}
