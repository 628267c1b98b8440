// The system manager's service: answers, from a thread of its own, the requests of other services
// for an entry in the running tag tables.
//
//   request   uint32 uuid, uint32 vdc, char tag[32] (31 characters at most; the last byte counts
//             for nothing), all integers in network byte order
//   response  uint32 status, in network byte order
#include <arpa/inet.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
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
constexpr uint32 k_this_supervisor = 0xFE000000;
constexpr uint32 k_wake = 0;         // an opcode that nobody answers
constexpr int k_quiet_looks = 20;    // a millisecond apart
constexpr double k_longest_rest = 1; // seconds of the processor

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

// Held while the running tables are edited here.
std::mutex &tables_mutex() {
  static std::mutex &one = *new std::mutex; // outlives a thread that was not stopped
  return one;
}

// What the thread works with. The answers leave by a queue of their own: closing it ends the wait
// for a requester that reads none, and loses no request.
struct desk {
  mts_q_handle_t requests = 0;
  mts_q_handle_t answers = 0;
  std::atomic<bool> closing{false};
};

void answer(const desk &at, mts_ref_t message) {
  message_info info;
  if (!mts_message_info(message, &info) || info.response || info.opcode != k_add_tag_info) {
    return;
  }
  syserr_t status = SYSERR_FAILED;
  if (info.length == k_request_size) {
    const std::lock_guard<std::mutex> lock(tables_mutex());
    status = add_tag(request_of(mts_payload_get(message)));
  }
  const uint32 bytes = htonl(status);
  mts_reply(at.answers, message, &bytes, sizeof(bytes)); // one that went away needs no answer
}

// False when nothing came in the time that the options give.
bool serve_one(const desk &at, const mts_recv_options_t &options) {
  mts_ref_t message = 0;
  if (mts_recv(at.requests, &message, &options) != 0) {
    return errno == EINTR || errno == ENOMEM;
  }
  answer(at, message);
  mts_drop(at.requests, message);
  return true;
}

// By this thread.
double seconds_run() {
  timespec run = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &run);
  return static_cast<double>(run.tv_sec) + 1e-9 * static_cast<double>(run.tv_nsec);
}

// What was sent before the end may still be on its way through the message threads: it is waited
// for until a number of looks, not a time in which this thread may not have run, found nothing.
// Of those who never end, so much is served that a busy machine leaves nothing out that was sent.
void serve_the_rest(const desk &at) {
  const mts_recv_options_t at_once = {1, 1, 0, 0, 0, 0, 0};
  const double end = seconds_run() + k_longest_rest;
  for (int looks = 0; looks < k_quiet_looks && seconds_run() < end; ++looks) {
    if (serve_one(at, at_once)) {
      looks = 0;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
}

// Until it is to close. It looks up each second, for the message that wakes it may find no way.
void serve(const desk *at) {
  const mts_recv_options_t anything = {1, 0, 1, 0, 0, 0, 0};
  bool open = true;
  while (open && !at->closing) {
    open = serve_one(*at, anything) || errno != EBADF;
  }
  serve_the_rest(*at);
}

// One that cannot be joined when there was no thread to be had.
std::thread serving_thread(const desk *at) {
  const signals_off guard;
  try {
    return std::thread(serve, at);
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
    if (thread_.joinable()) {
      return EALREADY;
    }
    std::optional<sap_entry> owner;
    const int unknown = read_owner(&owner);
    if (unknown != 0) {
      return unknown;
    }
    const int error = open();
    if (error != 0) {
      desk_.closing = true;
      mts_queue_close(desk_.requests); // nobody knows of it: it wakes the thread
      close();
      return error;
    }
    owner_ = std::move(owner);
    return 0;
  }

  int stop() {
    if (!thread_.joinable()) {
      return 0;
    }
    desk_.closing = true;
    wake();
    const int error = give_access_point_back();
    mts_queue_close(desk_.answers);
    close();
    return error;
  }

  std::mutex mutex; // for the two above

private:
  int open() {
    desk_.closing = false;
    desk_.requests = mts_queue_open();
    desk_.answers = desk_.requests == 0 ? 0 : mts_queue_open();
    if (desk_.answers == 0) {
      return errno;
    }
    endpoint_ = queue_endpoint(static_cast<uint32>(getpid()), desk_.requests);
    thread_ = serving_thread(&desk_);
    if (!thread_.joinable()) {
      return EAGAIN;
    }
    const bool named = mts_sap_register(desk_.requests, MTS_SAP_SYSMGR, "system manager") == 0;
    return named ? 0 : errno;
  }

  void close() {
    if (thread_.joinable()) {
      thread_.join();
    }
    mts_queue_close(desk_.answers);
    mts_queue_close(desk_.requests);
  }

  // Whether the access point is still this service's; its owner now in *now.
  bool is_ours(std::optional<sap_entry> *now, int *unknown) const {
    *unknown = read_owner(now);
    return *unknown == 0 && *now && (*now)->endpoint == endpoint_;
  }

  void wake() const {
    std::optional<sap_entry> now;
    int unknown = 0;
    mts_ref_t sent = 0; // goes with the queue
    if (is_ours(&now, &unknown)) {
      mts_send(desk_.requests, k_this_supervisor, MTS_SAP_SYSMGR, k_wake, nullptr, 0, &sent, 0, 0);
    }
  }

  // What somebody removed or registered anew meanwhile stays so.
  int give_access_point_back() const {
    std::optional<sap_entry> now;
    int unknown = 0;
    if (!is_ours(&now, &unknown)) {
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

  desk desk_;
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

std::string sysmgr_running_table(vdc_id_t vdc) {
  const std::lock_guard<std::mutex> lock(tables_mutex());
  const tlv_array_t *const table =
      vdc < SYSMGR_VDC_ROWS ? sysmgr_info_tbl[vdc].srv_tag_info_tbl : nullptr;
  const uint32 size = table == nullptr ? 0 : tag_table_size(table);
  if (size == 0 || size > SYSMGR_TAG_TABLE_MAX) {
    return "";
  }
  return {reinterpret_cast<const char *>(table), size};
}

} // namespace lab
