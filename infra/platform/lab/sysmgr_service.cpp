// The system manager's service: answers, from a thread of its own, the requests of other services
// for an entry in the running tag tables.
//
//   request   uint32 uuid, uint32 vdc, char tag[32] (31 characters at most; the last byte counts
//             for nothing), all integers in network byte order
//   response  uint32 status, in network byte order
#include <arpa/inet.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "lab/access_points.h"
#include "lab/lab.h"
#include "lab/message_queue.h"
#include "lab/signals_off.h"
#include "lab/sysmgr.h"
#include "lab/tag_table.h"

namespace lab {
namespace {

constexpr uint32 k_add_tag_info = 2690; // the opcode
constexpr uint32 k_request_size = 40;

struct tag_request {
  uint32 uuid = 0;
  uint32 vdc = 0;
  std::array<char, longest_tag + 1> tag = {}; // with a terminator, whatever was sent
};
static_assert(sizeof(tag_request) == k_request_size, "the request's fields, and nothing between");

tag_request request_of(const void *payload) {
  tag_request request;
  std::memcpy(&request, payload, sizeof(request));
  request.uuid = ntohl(request.uuid);
  request.vdc = ntohl(request.vdc);
  request.tag.back() = '\0';
  return request;
}

syserr_t add_tag(tag_request request) {
  if (!sysmgr_has_vdc(request.vdc)) {
    return SYSERR_NO_SUCH_VDC;
  }
  const auto vdc = static_cast<vdc_id_t>(request.vdc);
  if (sysmgr_info_tbl[vdc].srv_tag_info_tbl == nullptr) {
    const syserr_t made = sysmgr_srv_tag_info_table_prepare(0, vdc);
    if (made != SYSERR_SUCCESS) {
      return made;
    }
  }
  return sysmgr_srv_tag_info_add(static_cast<uuid_t>(request.uuid),
                                 reinterpret_cast<uint8 *>(request.tag.data()), vdc);
}

void answer(mts_q_handle_t queue, mts_ref_t message) {
  message_info info;
  if (!mts_message_info(message, &info) || info.response || info.opcode != k_add_tag_info) {
    return;
  }
  const uint32 status =
      htonl(info.length == k_request_size ? add_tag(request_of(mts_payload_get(message)))
                                          : SYSERR_FAILED);
  mts_reply(queue, message, &status, sizeof(status)); // one that went away needs no answer
}

// Until the queue is closed.
void serve(mts_q_handle_t queue) {
  const mts_recv_options_t anything = {1, 0, 0, 0, 0, 0, 0};
  mts_ref_t message = 0;
  while (mts_recv(queue, &message, &anything) == 0 || errno == EINTR || errno == ENOMEM) {
    if (message != 0) {
      answer(queue, message);
      mts_drop(queue, message);
    }
  }
}

// One that cannot be joined when there was no thread to be had.
std::thread serving_thread(mts_q_handle_t queue) {
  const signals_off guard;
  try {
    return std::thread(serve, queue);
  } catch (const std::system_error &) {
    return {};
  }
}

// Who answered the access point before; nobody when it was not registered.
int read_owner(std::optional<sap_entry> *owner) {
  sap_entry found;
  const int error = sap_read(MTS_SAP_SYSMGR, &found);
  if (error == 0) {
    *owner = found;
  }
  return error == ENOENT ? 0 : error;
}

class service {
public:
  int start() {
    if (queue_ != 0) {
      return EALREADY;
    }
    std::optional<sap_entry> owner;
    const int unknown = read_owner(&owner);
    if (unknown != 0) {
      return unknown;
    }
    const mts_q_handle_t queue = mts_queue_open();
    if (queue == 0) {
      return errno;
    }
    std::thread thread = serving_thread(queue);
    const int error = !thread.joinable()                                          ? EAGAIN
                      : mts_sap_register(queue, MTS_SAP_SYSMGR, "system manager") ? errno
                                                                                  : 0;
    if (error != 0) {
      end(queue, &thread);
      return error;
    }
    queue_ = queue;
    endpoint_ = queue_endpoint(static_cast<uint32>(getpid()), queue);
    owner_ = std::move(owner);
    thread_ = std::move(thread);
    return 0;
  }

  int stop() {
    if (queue_ == 0) {
      return 0;
    }
    const int error = give_access_point_back();
    end(queue_, &thread_);
    queue_ = 0;
    return error;
  }

  std::mutex mutex; // for the two above

private:
  static void end(mts_q_handle_t queue, std::thread *thread) {
    mts_queue_close(queue); // wakes the thread
    if (thread->joinable()) {
      thread->join();
    }
  }

  // What somebody removed or registered anew meanwhile stays so.
  int give_access_point_back() const {
    std::optional<sap_entry> now;
    const int unknown = read_owner(&now);
    if (unknown != 0 || !now || now->endpoint != endpoint_) {
      return unknown;
    }
    const bool died =
        owner_ && !owner_->endpoint.empty() && probe_endpoint(owner_->endpoint) == ECONNREFUSED;
    if (!owner_ || died) {
      return sap_remove(MTS_SAP_SYSMGR);
    }
    const int error = sap_write(MTS_SAP_SYSMGR, *owner_);
    if (error != 0) {
      sap_remove(MTS_SAP_SYSMGR); // rather none than one that nobody answers any more
    }
    return error;
  }

  mts_q_handle_t queue_ = 0; // 0 while there is no service
  std::string endpoint_;
  std::optional<sap_entry> owner_;
  std::thread thread_;
};

service &the_service() {
  // Never destroyed: a thread that was not stopped must not end the process.
  static service &one = *new service;
  return one;
}

template <typename body> int guarded(const body &act) noexcept {
  int error = 0;
  try {
    const std::lock_guard<std::mutex> lock(the_service().mutex);
    error = act(&the_service());
  } catch (const std::exception &) {
    error = ENOMEM;
  }
  if (error == 0) {
    return 0;
  }
  errno = error;
  return -1;
}

} // namespace

int sysmgr_start() {
  return guarded([](service *one) { return one->start(); });
}

int sysmgr_stop() {
  return guarded([](service *one) { return one->stop(); });
}

} // namespace lab
