// What a request and its answer cost over the lab's mts_send and mts_recv, beside the same sizes
// sent over bare ZeroMQ sockets of the same kinds: a pulling one and a pushing one on either side,
// over ipc, one context, the answering side a thread.
#include <sched.h>
#include <zmq.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "figure.h"
#include "lab/lab.h"
#include "support/switch_root.h"

namespace {

constexpr int k_rounds = 50'000;
constexpr int k_first_rounds = 1000; // not counted: connections are made, caches are filled
constexpr double k_limit = 1.5;
constexpr size_t k_request_size = 40;
constexpr size_t k_answer_size = 4;
constexpr uint32 k_here = 0xFE000000;
constexpr uint32 k_opcode = 2690;

[[noreturn]] void fail(const char *what) {
  std::perror(what);
  std::_Exit(97);
}

void need(const char *what, bool holds) {
  if (!holds) {
    fail(what);
  }
}

// ---- The lab -----------------------------------------------------------------------------------

class lab_pair {
public:
  lab_pair() : client_(lab::mts_queue_open()), server_(lab::mts_queue_open()) {
    need("mts_queue_open", client_ != 0 && server_ != 0);
    need("mts_sap_register", lab::mts_sap_register(server_, MTS_SAP_SYSMGR, "bench") == 0);
    answering_ = std::thread([this] { answer(); });
  }
  ~lab_pair() {
    lab::mts_queue_close(server_);
    answering_.join();
    lab::mts_shutdown();
  }
  lab_pair(const lab_pair &) = delete;
  lab_pair &operator=(const lab_pair &) = delete;

  void exchange() const {
    const char request[k_request_size] = {1};
    mts_ref_t sent = 0;
    need("mts_send", mts_send(client_, k_here, MTS_SAP_SYSMGR, k_opcode, request, sizeof(request),
                              &sent, 0, 0) == 0);
    mts_recv_options_t options = {};
    options.version = 1;
    options.timeout = 30;
    options.rr_token = mts_rr_token_get(sent);
    mts_ref_t response = 0;
    need("mts_recv", mts_recv(client_, &response, &options) == 0);
    need("mts_payload_get", std::memcmp(mts_payload_get(response), "\0\0\0\2", 4) == 0);
    need("mts_drop", mts_drop(client_, sent) == 0 && mts_drop(client_, response) == 0);
  }

private:
  // As the system manager's service does it.
  void answer() const {
    const mts_recv_options_t anything = {1, 0, 0, 0, 0, 0, 0};
    mts_ref_t message = 0;
    while (mts_recv(server_, &message, &anything) == 0) {
      lab::message_info info;
      need("mts_message_info", lab::mts_message_info(message, &info));
      need("request", info.opcode == k_opcode && info.length == k_request_size &&
                          *static_cast<const char *>(mts_payload_get(message)) == 1);
      need("mts_reply", lab::mts_reply(server_, message, "\0\0\0\2", k_answer_size) == 0);
      mts_drop(server_, message);
    }
  }

  mts_q_handle_t client_;
  mts_q_handle_t server_;
  std::thread answering_;
};

// ---- The floor ---------------------------------------------------------------------------------

class bare_pair {
public:
  bare_pair()
      : context_(zmq_ctx_new()), client_in_(bound("client")), server_in_(bound("server")),
        client_out_(connected("server")), server_out_(connected("client")) {
    answering_ = std::thread([this] { answer(); });
  }
  ~bare_pair() {
    need("zmq_send", zmq_send(client_out_, "", 0, 0) == 0); // the end
    answering_.join();
    for (void *const socket : {client_in_, server_in_, client_out_, server_out_}) {
      zmq_close(socket);
    }
    zmq_ctx_term(context_);
  }
  bare_pair(const bare_pair &) = delete;
  bare_pair &operator=(const bare_pair &) = delete;

  void exchange() const {
    const char request[k_request_size] = {1};
    need("zmq_send", zmq_send(client_out_, request, sizeof(request), 0) == k_request_size);
    char answer[k_answer_size];
    need("zmq_recv", zmq_recv(client_in_, answer, sizeof(answer), 0) == k_answer_size);
    need("answer", std::memcmp(answer, "\0\0\0\2", sizeof(answer)) == 0);
  }

private:
  static std::string address(const char *name) { return std::string("ipc:///tmp/bare-") + name; }
  void *bound(const char *name) {
    void *const made = zmq_socket(context_, ZMQ_PULL);
    need("zmq_bind", made != nullptr && zmq_bind(made, address(name).c_str()) == 0);
    return made;
  }
  void *connected(const char *name) {
    void *const made = zmq_socket(context_, ZMQ_PUSH);
    need("zmq_connect", made != nullptr && zmq_connect(made, address(name).c_str()) == 0);
    return made;
  }
  void answer() const {
    char request[k_request_size];
    int size = 0;
    while ((size = zmq_recv(server_in_, request, sizeof(request), 0)) != 0) {
      need("zmq_recv", size == k_request_size && request[0] == 1);
      need("zmq_send", zmq_send(server_out_, "\0\0\0\2", k_answer_size, 0) == k_answer_size);
    }
  }

  void *context_;
  void *client_in_;
  void *server_in_;
  void *client_out_;
  void *server_out_;
  std::thread answering_;
};

// ---- Comparing ---------------------------------------------------------------------------------

// All threads on one processor: on several, an exchange takes one of two times, half as much again
// apart, by where the scheduler happens to put which pair's threads.
void stay_on_one_processor() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  need("sched_getaffinity", sched_getaffinity(0, sizeof(allowed), &allowed) == 0);
  for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
    if (CPU_ISSET(cpu, &allowed)) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(cpu, &one);
      need("sched_setaffinity", sched_setaffinity(0, sizeof(one), &one) == 0);
      return;
    }
  }
}

// Alternates after each exchange, so that the machine's moods meet both alike.
int run(int /*argc*/, char ** /*argv*/) {
  stay_on_one_processor(); // before there are threads, which inherit it
  const lab_pair lab;
  const bare_pair bare;
  std::vector<double> measured;
  std::vector<double> floor;
  for (int round = -k_first_rounds; round < k_rounds; ++round) {
    const double over_lab = bench::time_of([&lab] { lab.exchange(); }) * 1e6;
    const double over_bare = bench::time_of([&bare] { bare.exchange(); }) * 1e6;
    if (round >= 0) {
      measured.push_back(over_lab);
      floor.push_back(over_bare);
    }
  }
  bench::print_header();
  bool holds = bench::print_ratio("request and answer, median / over bare ZeroMQ",
                                  bench::median(measured), bench::median(floor), "us", k_limit);
  holds &= bench::print_ratio("request and answer, 99th percentile / over bare ZeroMQ",
                              bench::percentile(measured, 99), bench::percentile(floor, 99), "us",
                              k_limit);
  return holds ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  return switch_root::run_inside(argc, argv, run);
}
