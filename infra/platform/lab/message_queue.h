// One live queue: a bound socket that receives, and connected ones, kept, that send. What the
// platform's message functions stand on.
#ifndef LAB_MESSAGE_QUEUE_H
#define LAB_MESSAGE_QUEUE_H

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lab/files.h"
#include "platform/mts.h"

namespace lab {

// What stands before the payload of each message. Both ends are on one machine: host byte order.
struct message_head {
  uint32 magic = 0;
  uint32 opcode = 0;
  uint32 source_sap = 0;
  uint32 destination_sap = 0;
  mts_rr_token_t token = 0;
  uint32 reply_process = 0; // the queue that a response goes to
  uint32 reply_queue = 0;
  uint32 response = 0; // 1 for a response
  uint32 length = 0;   // bytes of payload
};
static_assert(sizeof(message_head) == 36, "sent as it lies");

struct message {
  message_head head;
  std::vector<uint8> payload;
};

// The socket of a queue.
std::string queue_endpoint(uint32 process, uint32 queue);

// Whether somebody listens at an endpoint: 0, ECONNREFUSED, or the errno of not having found out.
// ZeroMQ itself would wait for a peer to come.
int probe_endpoint(const std::string &endpoint);

class message_queue {
public:
  using clock = std::chrono::steady_clock;

  message_queue(void *context, uint32 number);
  ~message_queue();
  message_queue(const message_queue &) = delete;
  message_queue &operator=(const message_queue &) = delete;

  // All of these: 0, or an errno.
  int open();
  int send(const std::string &endpoint, const message &what);
  // Waits for a message that fits; others are kept for later calls. EBADF when the queue is closed
  // meanwhile.
  int receive(const mts_recv_options_t &options, message *found);
  // Wakes whoever waits in receive() or for room in send(), and lets nobody in again.
  void close();

  uint32 number() const { return number_; }
  const std::string &endpoint() const { return endpoint_; }
  std::atomic<uint32> source_sap{0}; // the first access point that this queue answers

private:
  struct socket_closer {
    void operator()(void *socket) const;
  };
  using socket = std::unique_ptr<void, socket_closer>;

  int connect(const std::string &endpoint, void **found);
  void drop_dead_peers();
  void wake_all();
  bool take_kept(const mts_recv_options_t &options, message *found);
  int next(const mts_recv_options_t &options, clock::time_point deadline, message *arrived);

  void *context_;
  uint32 number_;
  std::string endpoint_;
  unique_fd wake_; // whoever waits for room in send()
  std::atomic<bool> closed_{false};

  std::timed_mutex receiving_; // guards the next three
  socket receiver_;
  int receive_ms_ = -1; // how long the socket waits
  std::deque<message> pending_;

  socket waker_; // whoever waits in receive(): a message of no bytes; for the one close only

  std::mutex sending_;       // guards the next two
  size_t most_senders_ = 64; // from then on, those whose peer went are dropped
  std::map<std::string, socket> senders_;
};

} // namespace lab

#endif
