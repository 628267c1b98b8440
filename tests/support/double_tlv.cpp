// The double's TLV array functions: the lab's pure ones, which the build gives other names here,
// behind the log and the scripts. Their own calls of each other go past these.
#include "platform/tlv_array.h"

#include "support/double_state.h"

namespace {

std::optional<scripted_answer> enter_tlv(const char *function, const tlv_array_t *array,
                                         std::vector<std::string> arguments) {
  platform_double::state &state = double_platform().internals();
  if (!state.tlvs_are_watched) {
    return std::nullopt;
  }
  arguments.insert(arguments.begin(), log_text::data(array, TLV_ARRAY_HEADER_SIZE));
  return state.enter(function, arguments);
}

} // namespace

uint32 tlv_array_size_get(const tlv_array_t *array, uint32 version) {
  const auto answer = enter_tlv("tlv_array_size_get", array, {log_text::number(version)});
  return answer ? answer->status : pure_tlv_array_size_get(array, version);
}

uint32 tlv_array_get_num_tlvs(const tlv_array_t *array, uint32 version) {
  const auto answer = enter_tlv("tlv_array_get_num_tlvs", array, {log_text::number(version)});
  return answer ? answer->status : pure_tlv_array_get_num_tlvs(array, version);
}

syserr_t tlv_array_get_next_tlv(const tlv_array_t *array, uint16 *type, uint16 *length,
                                uint8 **value, uint32 version, uint32 *cursor) {
  const auto answer = enter_tlv(
      "tlv_array_get_next_tlv", array,
      {log_text::number(version), cursor == nullptr ? "null" : log_text::number(*cursor)});
  return answer ? answer->status
                : pure_tlv_array_get_next_tlv(array, type, length, value, version, cursor);
}

void platform_double::watch_tlvs() {
  state_->tlvs_are_watched = true;
}
