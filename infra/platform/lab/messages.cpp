// The platform's message functions: queues and message references by number, on top of
// message_queue and the registered access points.
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <exception>
#include <limits>
#include <new>

#include "lab/access_points.h"
#include "lab/journal.h"
#include "lab/lab.h"
#include "lab/message_queue.h"
#include "lab/signals_off.h"

namespace lab {
namespace {

constexpr uint32 k_this_supervisor = 0xFE000000;
constexpr uint32 k_longest_payload = 64 * 1024 * 1024;

struct referred {
  mts_q_handle_t queue = 0; // it goes with this queue
  bool received = false;
  message content;
};

struct mts_state {
  std::mutex mutex;
  void *context = nullptr;
  std::map<mts_q_handle_t, std::shared_ptr<message_queue>> queues;
  std::map<mts_ref_t, referred> references;
  uint32 next_queue = 1;
  uint32 next_reference = 1;
  uint32 next_token = 1;
};

mts_state &state() {
  // Never destroyed: message threads may outlive main().
  static mts_state &one = *new mts_state;
  return one;
}

uint32 take_number(uint32 *next) {
  const uint32 number = *next;
  *next = number == std::numeric_limits<uint32>::max() ? 1 : number + 1;
  return number;
}

// Runs a function's body, which gives 0 or an errno. No exception reaches a caller written in C.
template <typename body> int guarded(const body &act) noexcept {
  int error = 0;
  try {
    error = act();
  } catch (const std::bad_alloc &) {
    error = ENOMEM;
  } catch (const std::exception &) {
    error = EIO;
  }
  if (error == 0) {
    return 0;
  }
  errno = error;
  return -1;
}

std::shared_ptr<message_queue> queue_of(mts_q_handle_t number) {
  mts_state &all = state();
  const std::lock_guard<std::mutex> lock(all.mutex);
  const auto found = all.queues.find(number);
  return found == all.queues.end() ? nullptr : found->second;
}

mts_ref_t refer(mts_q_handle_t queue, bool received, message content) {
  mts_state &all = state();
  const std::lock_guard<std::mutex> lock(all.mutex);
  mts_ref_t reference = take_number(&all.next_reference);
  while (all.references.count(reference) != 0) {
    reference = take_number(&all.next_reference);
  }
  all.references.emplace(reference, referred{queue, received, std::move(content)});
  return reference;
}

mts_rr_token_t new_token() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return take_number(&state().next_token);
}

int check_payload(const void *payload, uint32 length) {
  if (payload == nullptr && length > 0) {
    return EINVAL;
  }
  return length > k_longest_payload ? EMSGSIZE : 0;
}

std::vector<uint8> copy_of(const void *payload, uint32 length) {
  const auto *const bytes = static_cast<const uint8 *>(payload);
  return length == 0 ? std::vector<uint8>() : std::vector<uint8>(bytes, bytes + length);
}

// Where an access point is answered.
int find_endpoint(uint32 destination, uint32 sap, std::string *endpoint) {
  if (destination != k_this_supervisor || !is_sap(sap)) {
    return EHOSTUNREACH;
  }
  sap_entry entry;
  const int error = sap_read(sap, &entry);
  if (error != 0) {
    return error == ENOENT ? EHOSTUNREACH : error;
  }
  *endpoint = entry.endpoint;
  return 0;
}

int drop(mts_q_handle_t queue, mts_ref_t reference) {
  mts_state &all = state();
  const std::lock_guard<std::mutex> lock(all.mutex);
  if (all.queues.count(queue) == 0) {
    return EBADF;
  }
  const auto found = all.references.find(reference);
  if (found == all.references.end() || found->second.queue != queue) {
    return EINVAL;
  }
  all.references.erase(found);
  return 0;
}

int open_queue(mts_q_handle_t *number) {
  mts_state &all = state();
  const std::lock_guard<std::mutex> lock(all.mutex);
  if (all.context == nullptr) {
    all.context = zmq_ctx_new();
    if (all.context == nullptr) {
      return errno;
    }
  }
  // The first queue starts the message library's threads, which turn signals off too late: one that
  // came meanwhile would not interrupt whoever waits.
  const signals_off guard;
  const auto queue = std::make_shared<message_queue>(all.context, take_number(&all.next_queue));
  const int error = queue->open();
  if (error == 0) {
    all.queues.emplace(queue->number(), queue);
    *number = queue->number();
  }
  return error;
}

int close_queue(mts_q_handle_t number) {
  mts_state &all = state();
  std::shared_ptr<message_queue> queue;
  {
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.queues.find(number);
    if (found == all.queues.end()) {
      return EBADF;
    }
    queue = std::move(found->second);
    all.queues.erase(found);
    std::erase_if(all.references, [number](const auto &one) { return one.second.queue == number; });
  }
  queue->close(); // waits for whoever is in it, so not under the lock
  return 0;
}

} // namespace

// ---- The lab's own -----------------------------------------------------------------------------

mts_q_handle_t mts_queue_open() {
  mts_q_handle_t number = 0;
  guarded([&number] { return open_queue(&number); });
  return number;
}

int mts_queue_close(mts_q_handle_t queue) {
  return guarded([queue] { return close_queue(queue); });
}

int mts_sap_register(mts_q_handle_t queue, uint32 sap, const std::string &owner) {
  return guarded([&] {
    const std::shared_ptr<message_queue> answering = queue_of(queue);
    if (queue != 0 && answering == nullptr) {
      return EBADF;
    }
    if (!is_sap(sap)) {
      return EINVAL;
    }
    const int error = sap_write(sap, {owner, answering == nullptr ? "" : answering->endpoint()});
    if (error == 0 && answering != nullptr) {
      uint32 none = 0;
      answering->source_sap.compare_exchange_strong(none, sap);
    }
    return error;
  });
}

bool mts_message_info(mts_ref_t reference, message_info *info) {
  mts_state &all = state();
  const std::lock_guard<std::mutex> lock(all.mutex);
  const auto found = all.references.find(reference);
  if (found == all.references.end() || info == nullptr) {
    return false;
  }
  const message_head &head = found->second.content.head;
  *info = {head.opcode,
           head.source_sap,
           head.destination_sap,
           head.token,
           static_cast<uint32>(found->second.content.payload.size()),
           head.response != 0};
  return true;
}

int mts_reply(mts_q_handle_t queue, mts_ref_t request, const void *payload, uint32 length) {
  return guarded([&] {
    const std::shared_ptr<message_queue> from = queue_of(queue);
    if (from == nullptr) {
      return EBADF;
    }
    const int bad = check_payload(payload, length);
    if (bad != 0) {
      return bad;
    }
    message response;
    std::string endpoint;
    {
      const std::lock_guard<std::mutex> lock(state().mutex);
      const auto found = state().references.find(request);
      if (found == state().references.end() || !found->second.received ||
          found->second.content.head.response != 0) {
        return EINVAL;
      }
      const message_head &asked = found->second.content.head;
      response.head = asked;
      response.head.source_sap = asked.destination_sap;
      response.head.destination_sap = asked.source_sap;
      response.head.response = 1;
      endpoint = queue_endpoint(asked.reply_process, asked.reply_queue);
    }
    response.payload = copy_of(payload, length);
    return from->send(endpoint, response);
  });
}

void mts_shutdown() {
  sysmgr_stop();
  mts_state &all = state();
  while (true) {
    mts_q_handle_t number = 0;
    {
      const std::lock_guard<std::mutex> lock(all.mutex);
      number = all.queues.empty() ? 0 : all.queues.begin()->first;
    }
    if (number == 0) {
      break;
    }
    mts_queue_close(number);
  }
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.references.clear();
  if (all.context != nullptr) {
    while (zmq_ctx_term(all.context) != 0 && errno == EINTR) {
    }
    all.context = nullptr;
  }
}

} // namespace lab

// ---- The platform's ----------------------------------------------------------------------------

int mts_send(mts_q_handle_t queue, uint32 destination, uint32 destination_sap, uint32 opcode,
             const void *payload, uint32 length, mts_ref_t *reference, uint32 /*flags*/,
             uint32 /*reserved*/) {
  if (reference != nullptr) {
    *reference = 0;
  }
  return lab::guarded([&] {
    const std::shared_ptr<lab::message_queue> from = lab::queue_of(queue);
    if (from == nullptr) {
      return EBADF;
    }
    const int bad = reference == nullptr ? EINVAL : lab::check_payload(payload, length);
    if (bad != 0) {
      return bad;
    }
    std::string endpoint;
    const int unknown = lab::find_endpoint(destination, destination_sap, &endpoint);
    if (unknown != 0) {
      return unknown;
    }
    lab::message request;
    request.head.opcode = opcode;
    request.head.source_sap = from->source_sap;
    request.head.destination_sap = destination_sap;
    request.head.token = lab::new_token();
    request.head.reply_process = static_cast<uint32>(getpid());
    request.head.reply_queue = queue;
    request.payload = lab::copy_of(payload, length);
    const int error = from->send(endpoint, request);
    if (error == 0) {
      *reference = lab::refer(queue, false, std::move(request));
    }
    return error;
  });
}

mts_rr_token_t mts_rr_token_get(mts_ref_t reference) {
  lab::message_info info;
  return lab::mts_message_info(reference, &info) ? info.token : 0;
}

int mts_recv(mts_q_handle_t queue, mts_ref_t *reference, const mts_recv_options_t *options) {
  if (reference != nullptr) {
    *reference = 0;
  }
  return lab::guarded([&] {
    const std::shared_ptr<lab::message_queue> to = lab::queue_of(queue);
    if (to == nullptr) {
      return EBADF;
    }
    if (reference == nullptr || options == nullptr) {
      return EINVAL;
    }
    lab::message found;
    const int error = to->receive(*options, &found);
    if (error == 0) {
      *reference = lab::refer(queue, true, std::move(found));
    }
    return error;
  });
}

void *mts_payload_get(mts_ref_t reference) {
  constexpr size_t least = 4;
  lab::mts_state &all = lab::state();
  const std::lock_guard<std::mutex> lock(all.mutex);
  const auto found = all.references.find(reference);
  if (found == all.references.end() || found->second.content.payload.size() < least) {
    return nullptr;
  }
  return found->second.content.payload.data();
}

int mts_drop(mts_q_handle_t queue, mts_ref_t reference) {
  return lab::guarded([&] { return lab::drop(queue, reference); });
}

int mts_sap_destroy(mts_q_handle_t queue, uint32 sap) {
  const int result = lab::guarded([&] {
    if (lab::queue_of(queue) == nullptr) {
      return EBADF;
    }
    return lab::is_sap(sap) ? lab::sap_remove(sap) : ENOENT;
  });
  const int error = result == 0 ? 0 : errno;
  lab::journal_entry entry;
  entry.call = __func__;
  entry.sap = sap;
  entry.status = static_cast<uint32>(error);
  entry.expected = ENOENT;
  lab::journal_write(entry);
  errno = error != 0 ? error : errno;
  return result;
}
