// The tested platform is the lab.
#include <sys/time.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include "contract/contract_platform.h"
#include "lab/lab.h"

namespace contract_platform {

const bool k_waits = true;

namespace {

// One service: a queue of its own, and a thread that answers what comes in.
class responder {
public:
  responder(uint32 sap, std::string payload)
      : payload_(std::move(payload)), queue_(lab::mts_queue_open()) {
    EXPECT_NE(queue_, 0U);
    EXPECT_EQ(lab::mts_sap_register(queue_, sap, "responder"), 0);
    thread_ = std::thread([this] { serve(); });
  }

  // Closing the queue ends the wait.
  ~responder() {
    ended_ = true;
    lab::mts_queue_close(queue_);
    thread_.join();
  }

  responder(const responder &) = delete;
  responder &operator=(const responder &) = delete;

private:
  void serve() {
    while (!ended_) {
      mts_recv_options_t options = {};
      options.version = 1;
      options.timeout = 1;
      mts_ref_t request = 0;
      if (mts_recv(queue_, &request, &options) == 0) {
        lab::mts_reply(queue_, request, payload_.data(), static_cast<uint32>(payload_.size()));
        mts_drop(queue_, request);
      }
    }
  }

  std::string payload_;
  mts_q_handle_t queue_;
  std::atomic<bool> ended_ = false;
  std::thread thread_;
};

std::vector<std::unique_ptr<responder>> responders;

} // namespace

void start() {
  switch_root::reset();
  lab::sysmgr_set_vdcs({1});
}

void stop() {
  responders.clear();
  size_t closed = 0;
  lab::close_all_stores(&closed);
  lab::mts_shutdown();
  lab::sysmgr_set_vdcs({});
}

mts_q_handle_t open_queue() {
  return lab::mts_queue_open();
}

void close_queue(mts_q_handle_t queue) {
  EXPECT_EQ(lab::mts_queue_close(queue), 0);
}

void register_sap(uint32 sap) {
  EXPECT_EQ(lab::mts_sap_register(0, sap, "contract"), 0);
}

std::vector<uint32> saps() {
  std::vector<uint32> numbers;
  for (const lab::access_point &point : lab::mts_saps()) {
    numbers.push_back(point.sap);
  }
  return numbers;
}

void respond(uint32 sap, const std::string &payload) {
  responders.push_back(std::make_unique<responder>(sap, payload));
}

void interrupt_next_recv() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval soon = {{0, 0}, {0, 50000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
}

syserr_t create_store(const std::string &uri, const pss2_nonvol_params &params) {
  return lab::store_create(uri, params);
}

void damage_store(const std::string &uri) {
  switch_root::write_file(lab::store_file(uri), std::string(8192, 'x'));
}

void set_vdcs(const std::vector<vdc_id_t> &vdcs) {
  lab::sysmgr_set_vdcs(vdcs);
}

void set_image(const std::string &srg_path, const std::string &version) {
  switch_root::write_file(srg_path + "/version", version + "\n");
}

} // namespace contract_platform
