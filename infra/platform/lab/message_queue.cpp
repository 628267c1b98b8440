#include "lab/message_queue.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "lab/access_points.h"

namespace lab {
namespace {

constexpr uint32 k_magic = 0x444d7473;
constexpr size_t k_most_pending = 10000; // messages that nobody fetched
constexpr long k_connect_ms = 2000;      // a peer that listens but never gets ready
constexpr int64_t k_longest_frame = 1 << 27;
constexpr size_t k_spare_descriptors = 12;

std::string zmq_address(const std::string &endpoint) {
  return "ipc://" + endpoint;
}

// Whether the message library can open what a new socket, and with the first one its threads, take.
// It ends the process when it runs out of descriptors on the way.
bool has_free_descriptors() {
  std::deque<unique_fd> spare;
  while (spare.size() < k_spare_descriptors) {
    if (!spare.emplace_back(eventfd(0, EFD_CLOEXEC)).good()) {
      return false;
    }
  }
  return true;
}

bool fits(const mts_recv_options_t &options, const message_head &head) {
  return (options.rr_token == 0 || (head.response != 0 && head.token == options.rr_token)) &&
         (options.opcode == 0 || head.opcode == options.opcode) &&
         (options.source_sap == 0 || head.source_sap == options.source_sap);
}

// False for bytes that are no message of ours.
bool parse(zmq_msg_t *frame, message *found) {
  const size_t size = zmq_msg_size(frame);
  const auto *const bytes = static_cast<const uint8 *>(zmq_msg_data(frame));
  if (size < sizeof(message_head)) {
    return false;
  }
  std::memcpy(&found->head, bytes, sizeof(message_head));
  if (found->head.magic != k_magic || found->head.length != size - sizeof(message_head)) {
    return false;
  }
  found->payload.assign(bytes + sizeof(message_head), bytes + size);
  return true;
}

int set_option(void *socket, int option, int value) {
  return zmq_setsockopt(socket, option, &value, sizeof(value)) == 0 ? 0 : errno;
}

// A frame that goes with its scope.
class frame {
public:
  frame() { zmq_msg_init(&raw_); }
  ~frame() { zmq_msg_close(&raw_); }
  frame(const frame &) = delete;
  frame &operator=(const frame &) = delete;
  zmq_msg_t *raw() { return &raw_; }

private:
  zmq_msg_t raw_;
};

} // namespace

std::string queue_endpoint(uint32 process, uint32 queue) {
  return std::string(mts_folder) + "/queue-" + std::to_string(process) + "-" +
         std::to_string(queue);
}

int probe_endpoint(const std::string &endpoint) {
  sockaddr_un address = {};
  if (endpoint.empty() || endpoint.size() >= sizeof(address.sun_path)) {
    return ECONNREFUSED;
  }
  if (!has_free_descriptors()) {
    return EMFILE; // the listener may be of this process, and takes one for each who comes
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, endpoint.c_str(), endpoint.size());
  const unique_fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.good()) {
    return errno;
  }
  const bool listening =
      connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 ||
      errno == EAGAIN || errno == EINPROGRESS;
  return listening ? 0 : ECONNREFUSED;
}

void message_queue::socket_closer::operator()(void *socket) const {
  zmq_close(socket);
}

message_queue::message_queue(void *context, uint32 number)
    : context_(context), number_(number),
      endpoint_(queue_endpoint(static_cast<uint32>(getpid()), number)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

message_queue::~message_queue() {
  close();
}

int message_queue::open() {
  if (!wake_.good() || !has_free_descriptors()) {
    return EMFILE;
  }
  const syserr_t made = make_parents(endpoint_, false);
  if (made != SYSERR_SUCCESS) {
    return made == SYSERR_PSS_NO_ACCESS ? EACCES : ENOENT;
  }
  receiver_.reset(zmq_socket(context_, ZMQ_PULL));
  if (receiver_ == nullptr) {
    return errno;
  }
  set_option(receiver_.get(), ZMQ_LINGER, 0);
  zmq_setsockopt(receiver_.get(), ZMQ_MAXMSGSIZE, &k_longest_frame, sizeof(k_longest_frame));
  const std::string own_name = "inproc://" + endpoint_;
  waker_.reset(zmq_socket(context_, ZMQ_PUSH));
  if (waker_ == nullptr || zmq_bind(receiver_.get(), own_name.c_str()) != 0 ||
      zmq_connect(waker_.get(), own_name.c_str()) != 0) {
    return errno;
  }
  return zmq_bind(receiver_.get(), zmq_address(endpoint_).c_str()) == 0 ? 0 : errno;
}

void message_queue::wake_all() {
  const uint64_t one = 1;
  if (wake_.good() && write(wake_.get(), &one, sizeof(one)) < 0) {
    // The counter is full: nobody is left who sleeps.
  }
  if (waker_ != nullptr) {
    zmq_send(waker_.get(), "", 0, ZMQ_DONTWAIT);
    waker_.reset();
  }
}

void message_queue::close() {
  if (!closed_.exchange(true)) {
    wake_all();
  }
  {
    const std::lock_guard<std::timed_mutex> lock(receiving_);
    if (receiver_ != nullptr) {
      receiver_.reset();
      unlink(endpoint_.c_str());
    }
    pending_.clear();
  }
  const std::lock_guard<std::mutex> lock(sending_);
  senders_.clear();
}

// ---- Sending -----------------------------------------------------------------------------------

int message_queue::connect(const std::string &endpoint, void **found) {
  const auto kept = senders_.find(endpoint);
  if (kept != senders_.end()) {
    *found = kept->second.get();
    return 0;
  }
  const int absent = probe_endpoint(endpoint);
  if (absent != 0) {
    return absent;
  }
  if (senders_.size() >= most_senders_) {
    drop_dead_peers();
  }
  socket made(zmq_socket(context_, ZMQ_PUSH));
  if (made == nullptr) {
    return errno;
  }
  set_option(made.get(), ZMQ_LINGER, 0);
  // Nothing is queued for a peer that is not there: sending to it fails, and is told so.
  set_option(made.get(), ZMQ_IMMEDIATE, 1);
  if (zmq_connect(made.get(), zmq_address(endpoint).c_str()) != 0) {
    return errno;
  }
  *found = made.get();
  senders_.emplace(endpoint, std::move(made));
  return 0;
}

// A peer that went leaves a socket with a descriptor behind.
void message_queue::drop_dead_peers() {
  std::erase_if(senders_,
                [](const auto &one) { return probe_endpoint(one.first) == ECONNREFUSED; });
  most_senders_ = std::max(most_senders_, 2 * senders_.size());
}

int message_queue::send(const std::string &endpoint, const message &what) {
  std::vector<uint8> bytes(sizeof(message_head) + what.payload.size());
  message_head head = what.head;
  head.magic = k_magic;
  head.length = static_cast<uint32>(what.payload.size());
  std::memcpy(bytes.data(), &head, sizeof(head));
  std::copy(what.payload.begin(), what.payload.end(), bytes.begin() + sizeof(head));

  const std::lock_guard<std::mutex> lock(sending_);
  if (closed_) {
    return EBADF;
  }
  void *peer = nullptr;
  const int absent = connect(endpoint, &peer);
  if (absent != 0) {
    return absent;
  }
  const clock::time_point deadline = clock::now() + std::chrono::milliseconds(k_connect_ms);
  while (zmq_send(peer, bytes.data(), bytes.size(), ZMQ_DONTWAIT) < 0) {
    const bool waiting = errno == EAGAIN || errno == EINTR;
    const int error = !waiting                   ? errno
                      : closed_                  ? EBADF
                      : clock::now() >= deadline ? EAGAIN
                                                 : probe_endpoint(endpoint);
    if (error != 0) {
      if (error == ECONNREFUSED) { // a peer that is only slow keeps what it was sent
        senders_.erase(endpoint);
      }
      return error;
    }
    zmq_pollitem_t items[] = {{peer, 0, ZMQ_POLLOUT, 0}, {nullptr, wake_.get(), ZMQ_POLLIN, 0}};
    zmq_poll(items, 2, 100);
  }
  return 0;
}

// ---- Receiving ---------------------------------------------------------------------------------

bool message_queue::take_kept(const mts_recv_options_t &options, message *found) {
  const auto kept = std::find_if(pending_.begin(), pending_.end(), [&options](const message &one) {
    return fits(options, one.head);
  });
  if (kept == pending_.end()) {
    return false;
  }
  *found = std::move(*kept);
  pending_.erase(kept);
  return true;
}

// The next message from the socket; a head without `magic` for a frame that is none, as the one
// that wakes. The socket itself waits: a poll beside it costs as much again as all the rest.
int message_queue::next(const mts_recv_options_t &options, clock::time_point deadline,
                        message *arrived) {
  int wait_ms = -1;
  if (options.non_blocking != 0) {
    wait_ms = 0;
  } else if (options.timeout != 0) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now()).count();
    wait_ms = static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
  }
  if (wait_ms != receive_ms_) {
    set_option(receiver_.get(), ZMQ_RCVTIMEO, wait_ms);
    receive_ms_ = wait_ms;
  }
  frame arriving;
  if (zmq_msg_recv(arriving.raw(), receiver_.get(), 0) < 0) {
    const bool timed_out = errno == EAGAIN && options.non_blocking == 0;
    return timed_out ? ETIMEDOUT : errno;
  }
  if (!parse(arriving.raw(), arrived)) {
    arrived->head.magic = 0;
  }
  return 0;
}

int message_queue::receive(const mts_recv_options_t &options, message *found) {
  const clock::time_point deadline = clock::now() + std::chrono::seconds(options.timeout);
  std::unique_lock<std::timed_mutex> lock(receiving_, std::defer_lock);
  if (options.non_blocking != 0) {
    if (!lock.try_lock()) {
      return EAGAIN;
    }
  } else if (options.timeout == 0) {
    lock.lock();
  } else if (!lock.try_lock_until(deadline)) {
    return ETIMEDOUT;
  }
  if (!closed_ && take_kept(options, found)) {
    return 0;
  }
  while (!closed_) {
    message arrived;
    const int error = next(options, deadline, &arrived);
    if (error == EINTR && options.non_blocking != 0) {
      continue; // nothing was waited for
    }
    if (error != 0) {
      return error;
    }
    if (arrived.head.magic == k_magic && fits(options, arrived.head)) {
      *found = std::move(arrived);
      return 0;
    }
    if (arrived.head.magic == k_magic && pending_.size() < k_most_pending) {
      pending_.push_back(std::move(arrived));
    }
  }
  return EBADF;
}

} // namespace lab
