// The double's messages.
#include <cerrno>

#include "support/double_state.h"

namespace {

// Not the reference itself: whoever takes the one for the other is found out.
constexpr mts_rr_token_t k_first_token = 1000;
constexpr uint32 k_smallest_payload = 4;

int failure(int error) {
  errno = error;
  return -1;
}

platform_double::state &internals() {
  return double_platform().internals();
}

// A scripted answer of a function that gives 0 or -1 and errno.
int scripted_result(const scripted_answer &answer) {
  return answer.status == 0 ? 0 : failure(static_cast<int>(answer.status));
}

mts_ref_t keep(mts_q_handle_t queue, mts_rr_token_t token, const std::string &payload) {
  double_message &made = internals().messages[++internals().last_reference];
  made.queue = queue;
  made.token = token;
  made.payload = payload;
  return internals().last_reference;
}

void answer_request(mts_q_handle_t queue, uint32 sap, uint32 opcode, mts_rr_token_t token) {
  platform_double::state &state = internals();
  if (!state.replies.empty()) {
    state.arrived.push_back({queue, token, opcode, state.replies.front()});
    state.replies.pop_front();
  } else if (state.standing_replies.count(sap) == 1) {
    state.arrived.push_back({queue, token, opcode, state.standing_replies[sap]});
  }
}

bool matches(const arrived_message &message, mts_q_handle_t queue,
             const mts_recv_options_t &wanted) {
  return message.queue == queue && (wanted.rr_token == 0 || wanted.rr_token == message.token) &&
         (wanted.opcode == 0 || wanted.opcode == message.opcode);
}

std::vector<std::string> recv_arguments(mts_q_handle_t queue, const mts_recv_options_t *options) {
  using log_text::number;
  if (options == nullptr) {
    return {number(queue), "null"};
  }
  return {number(queue),
          "version " + number(options->version),
          "non_blocking " + number(options->non_blocking),
          "timeout " + number(options->timeout),
          "token " + number(options->rr_token),
          "opcode " + number(options->opcode),
          "sap " + number(options->source_sap),
          "flags " + number(options->flags)};
}

} // namespace

int mts_send(mts_q_handle_t queue, uint32 destination, uint32 destination_sap, uint32 opcode,
             const void *payload, uint32 length, mts_ref_t *reference, uint32 flags,
             uint32 reserved) {
  using log_text::number;
  platform_double::state &state = internals();
  const auto answer =
      state.enter("mts_send", {number(queue), log_text::flags(destination), number(destination_sap),
                               number(opcode), length == 0 ? "-" : log_text::data(payload, length),
                               number(length), number(flags), number(reserved)});
  if (reference != nullptr) {
    *reference = 0;
  }
  if (answer) {
    return scripted_result(*answer);
  }
  if (state.queues.count(queue) == 0) {
    return failure(EBADF);
  }
  if (reference == nullptr || (payload == nullptr && length > 0)) {
    return failure(EINVAL);
  }
  const mts_rr_token_t token = k_first_token + state.last_reference;
  *reference =
      keep(queue, token,
           length == 0 ? std::string() : std::string(static_cast<const char *>(payload), length));
  answer_request(queue, destination_sap, opcode, token);
  return 0;
}

mts_rr_token_t mts_rr_token_get(mts_ref_t reference) {
  platform_double::state &state = internals();
  if (state.enter("mts_rr_token_get", {log_text::number(reference)})) {
    return 0;
  }
  const auto found = state.messages.find(reference);
  return found == state.messages.end() ? 0 : found->second.token;
}

int mts_recv(mts_q_handle_t queue, mts_ref_t *reference, const mts_recv_options_t *options) {
  platform_double::state &state = internals();
  const auto answer = state.enter("mts_recv", recv_arguments(queue, options));
  if (reference != nullptr) {
    *reference = 0;
  }
  if (answer) {
    return scripted_result(*answer);
  }
  if (state.queues.count(queue) == 0) {
    return failure(EBADF);
  }
  if (reference == nullptr || options == nullptr) {
    return failure(EINVAL);
  }
  if (state.interruptions > 0) {
    --state.interruptions;
    return failure(EINTR);
  }
  for (auto it = state.arrived.begin(); it != state.arrived.end(); ++it) {
    if (matches(*it, queue, *options)) {
      *reference = keep(queue, it->token, it->payload);
      state.arrived.erase(it);
      return 0;
    }
  }
  return failure(options->non_blocking != 0 ? EAGAIN : ETIMEDOUT);
}

void *mts_payload_get(mts_ref_t reference) {
  platform_double::state &state = internals();
  const auto answer = state.enter("mts_payload_get", {log_text::number(reference)});
  const auto found = state.messages.find(reference);
  if (found == state.messages.end() || (answer && !answer->bytes)) {
    return nullptr;
  }
  double_message &message = found->second;
  if (answer) {
    message.payload = *answer->bytes;
    message.bytes = nullptr;
  } else if (message.payload.size() < k_smallest_payload) {
    return nullptr;
  }
  if (message.bytes == nullptr) {
    message.bytes = message.handed_out.give_bytes(message.payload);
  }
  return message.bytes;
}

int mts_drop(mts_q_handle_t queue, mts_ref_t reference) {
  platform_double::state &state = internals();
  if (const auto answer =
          state.enter("mts_drop", {log_text::number(queue), log_text::number(reference)})) {
    return scripted_result(*answer);
  }
  if (state.queues.count(queue) == 0) {
    return failure(EBADF);
  }
  const auto found = state.messages.find(reference);
  if (found == state.messages.end() || found->second.queue != queue) {
    return failure(EINVAL);
  }
  state.messages.erase(found);
  return 0;
}

int mts_sap_destroy(mts_q_handle_t queue, uint32 sap) {
  platform_double::state &state = internals();
  if (const auto answer =
          state.enter("mts_sap_destroy", {log_text::number(queue), log_text::number(sap)})) {
    return scripted_result(*answer);
  }
  if (state.queues.count(queue) == 0) {
    return failure(EBADF);
  }
  return state.saps.erase(sap) == 1 ? 0 : failure(ENOENT);
}

// ---- The test's side ----------------------------------------------------------------------------

void platform_double::add_queue(mts_q_handle_t queue) {
  state_->queues.insert(queue);
}

void platform_double::remove_queue(mts_q_handle_t queue) {
  state_->queues.erase(queue);
}

void platform_double::add_sap(uint32 sap) {
  state_->saps.insert(sap);
}

std::vector<uint32> platform_double::saps() const {
  return {state_->saps.begin(), state_->saps.end()};
}

void platform_double::reply(const std::string &payload) {
  state_->replies.push_back(payload);
}

void platform_double::reply_always(uint32 sap, const std::string &payload) {
  state_->standing_replies[sap] = payload;
}

void platform_double::deliver(mts_q_handle_t queue, const std::string &payload) {
  state_->arrived.push_back({queue, 0, 0, payload});
}

void platform_double::interrupt_recv(unsigned times) {
  state_->interruptions = times;
}

std::vector<mts_ref_t> platform_double::open_messages() const {
  std::vector<mts_ref_t> open;
  for (const auto &[reference, message] : state_->messages) {
    open.push_back(reference);
  }
  return open;
}
