// Messages between live queues, and what the lab adds to them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lab/lab_fixture.h"

namespace {

constexpr uint32 k_here = 0xFE000000;

double seconds_of(const std::function<void()> &act) {
  const auto start = std::chrono::steady_clock::now();
  act();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// What was received, and its release.
std::string receive(mts_q_handle_t queue, mts_recv_options_t options) {
  mts_ref_t message = 1;
  errno = 0;
  if (mts_recv(queue, &message, &options) != 0) {
    EXPECT_EQ(message, 0U);
    return "errno " + std::to_string(errno);
  }
  lab::message_info info;
  EXPECT_TRUE(lab::mts_message_info(message, &info));
  const void *const payload = mts_payload_get(message);
  std::string bytes =
      payload == nullptr ? "(short)" : std::string(static_cast<const char *>(payload), info.length);
  EXPECT_EQ(mts_drop(queue, message), 0);
  return bytes;
}

mts_recv_options_t within(uint32 seconds) {
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = seconds;
  return options;
}

mts_recv_options_t at_once() {
  mts_recv_options_t options = {};
  options.non_blocking = 1;
  return options;
}

mts_ref_t request(mts_q_handle_t queue, uint32 sap, uint32 opcode, const std::string &payload) {
  mts_ref_t reference = 0;
  EXPECT_EQ(mts_send(queue, k_here, sap, opcode, payload.data(),
                     static_cast<uint32>(payload.size()), &reference, 0, 0),
            0)
      << strerror(errno);
  return reference;
}

class messages : public lab_test {
protected:
  void SetUp() override {
    lab_test::SetUp();
    queue_ = lab::mts_queue_open();
    ASSERT_NE(queue_, 0U);
  }
  mts_q_handle_t queue_ = 0;
};

TEST_F(messages, go_from_one_queue_to_another_and_back) {
  const mts_q_handle_t server = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(server, 3, "System manager"), 0);
  ASSERT_EQ(lab::mts_sap_register(queue_, 500, "client"), 0);
  const mts_ref_t sent = request(queue_, 3, 2690, "forty bytes or so");

  mts_ref_t received = 0;
  const mts_recv_options_t options = within(5);
  ASSERT_EQ(mts_recv(server, &received, &options), 0);
  lab::message_info info;
  ASSERT_TRUE(lab::mts_message_info(received, &info));
  EXPECT_EQ(info.opcode, 2690U);
  EXPECT_EQ(info.source_sap, 500U);
  EXPECT_EQ(info.destination_sap, 3U);
  EXPECT_EQ(info.token, mts_rr_token_get(sent));
  EXPECT_EQ(info.length, 17U);
  EXPECT_FALSE(info.response);
  ASSERT_EQ(lab::mts_reply(server, received, "answer", 6), 0);

  mts_recv_options_t by_token = within(5);
  by_token.rr_token = mts_rr_token_get(sent);
  mts_ref_t response = 0;
  ASSERT_EQ(mts_recv(queue_, &response, &by_token), 0);
  ASSERT_TRUE(lab::mts_message_info(response, &info));
  EXPECT_TRUE(info.response);
  EXPECT_EQ(info.source_sap, 3U);
  EXPECT_EQ(info.destination_sap, 500U);
  EXPECT_EQ(std::string(static_cast<const char *>(mts_payload_get(response)), 6), "answer");
  EXPECT_EQ(lab::mts_reply(queue_, response, "x", 1), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(mts_drop(queue_, response), 0);
  EXPECT_EQ(mts_drop(queue_, response), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(messages, are_answered_by_a_thread_of_its_own) {
  const mts_q_handle_t server = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(server, 3, "echo"), 0);
  std::thread responder([server] {
    const mts_recv_options_t options = {}; // no time limit: ends with the queue
    mts_ref_t message = 0;
    while (mts_recv(server, &message, &options) == 0) {
      lab::message_info info;
      lab::mts_message_info(message, &info);
      lab::mts_reply(server, message, mts_payload_get(message), info.length);
      mts_drop(server, message);
    }
    EXPECT_EQ(errno, EBADF);
  });

  for (int i = 0; i < 500; ++i) {
    const std::string payload = "request " + std::to_string(i);
    const mts_ref_t sent = request(queue_, 3, 1, payload);
    mts_recv_options_t by_token = within(10);
    by_token.rr_token = mts_rr_token_get(sent);
    ASSERT_EQ(receive(queue_, by_token), payload);
    ASSERT_EQ(mts_drop(queue_, sent), 0);
  }
  lab::mts_shutdown();
  responder.join();
}

TEST_F(messages, that_do_not_fit_wait_for_the_one_who_wants_them) {
  ASSERT_EQ(lab::mts_sap_register(queue_, 7, "own"), 0);
  request(queue_, 7, 11, "first");
  request(queue_, 7, 12, "second");
  request(queue_, 7, 11, "third");

  mts_recv_options_t options = within(5);
  options.opcode = 12;
  EXPECT_EQ(receive(queue_, options), "second");
  EXPECT_EQ(receive(queue_, within(5)), "first");
  EXPECT_EQ(receive(queue_, within(5)), "third");
  EXPECT_EQ(receive(queue_, at_once()), "errno 11");
}

// A request is no response, even when it carries the number that is waited for.
TEST_F(messages, a_token_is_met_by_the_response_only) {
  ASSERT_EQ(lab::mts_sap_register(queue_, 7, "own"), 0);
  const mts_ref_t sent = request(queue_, 7, 1, "request");
  mts_recv_options_t options = within(1);
  options.rr_token = mts_rr_token_get(sent);
  EXPECT_EQ(receive(queue_, options), "errno 110");
  EXPECT_EQ(receive(queue_, at_once()), "request");
}

TEST_F(messages, of_less_than_four_bytes_have_no_payload) {
  ASSERT_EQ(lab::mts_sap_register(queue_, 7, "own"), 0);
  for (const char *payload : {"", "1", "123"}) {
    request(queue_, 7, 1, payload);
    EXPECT_EQ(receive(queue_, within(5)), "(short)");
  }
  request(queue_, 7, 1, "1234");
  EXPECT_EQ(receive(queue_, within(5)), "1234");
}

TEST_F(messages, time_runs_out) {
  std::string got;
  const double took = seconds_of([&] { got = receive(queue_, within(1)); });
  EXPECT_EQ(got, "errno 110");
  EXPECT_GE(took, 0.99);
  EXPECT_LT(took, 10.0);
}

void on_signal(int) {}

TEST_F(messages, a_signal_ends_the_waiting) {
  struct sigaction action = {};
  action.sa_handler = on_signal;
  action.sa_flags = SA_RESTART;
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
  for (const uint32 timeout : {30U, 0U}) {
    const itimerval soon = {{0, 0}, {0, 100'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
    std::string got;
    EXPECT_LT(seconds_of([&] { got = receive(queue_, within(timeout)); }), 20.0);
    EXPECT_EQ(got, "errno 4");
  }
}

TEST_F(messages, nobody_there_is_said_at_once) {
  ASSERT_EQ(lab::mts_sap_register(0, 341, "EVMS"), 0);
  const mts_q_handle_t gone = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(gone, 342, "gone"), 0);
  ASSERT_EQ(lab::mts_queue_close(gone), 0);
  const auto error_of = [this](uint32 destination, uint32 sap) {
    mts_ref_t reference = 1;
    errno = 0;
    EXPECT_EQ(mts_send(queue_, destination, sap, 1, "1234", 4, &reference, 0, 0), -1);
    EXPECT_EQ(reference, 0U);
    return errno;
  };

  EXPECT_EQ(error_of(k_here, 341), ECONNREFUSED);
  EXPECT_EQ(error_of(k_here, 342), ECONNREFUSED);
  EXPECT_EQ(error_of(k_here, 3), EHOSTUNREACH);
  EXPECT_EQ(error_of(k_here, 0), EHOSTUNREACH);
  EXPECT_EQ(error_of(0xFE000001, 341), EHOSTUNREACH);
}

// A process that answers, until it is killed.
TEST_F(lab_test, a_peer_that_died_is_noticed) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t peer = fork();
  if (peer == 0) {
    const mts_q_handle_t server = lab::mts_queue_open();
    lab::mts_sap_register(server, 3, "peer");
    const bool told = write(ready[1], "r", 1) == 1;
    const mts_recv_options_t options = {};
    mts_ref_t message = 0;
    while (told && mts_recv(server, &message, &options) == 0) {
      lab::mts_reply(server, message, "answer", 6);
      mts_drop(server, message);
    }
    _exit(1);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const mts_q_handle_t queue = lab::mts_queue_open();
  request(queue, 3, 1, "1234");
  EXPECT_EQ(receive(queue, within(10)), "answer");

  ASSERT_EQ(kill(peer, SIGKILL), 0);
  ASSERT_EQ(waitpid(peer, nullptr, 0), peer);

  // The first ones may still be taken for a peer that is about to read them.
  int error = 0;
  const double took = seconds_of([&] {
    for (int i = 0; i < 100 && error == 0; ++i) {
      mts_ref_t reference = 0;
      error = mts_send(queue, k_here, 3, 1, "1234", 4, &reference, 0, 0) == 0 ? 0 : errno;
      usleep(20'000);
    }
  });
  EXPECT_EQ(error, ECONNREFUSED);
  EXPECT_LT(took, 20.0);
  EXPECT_EQ(receive(queue, at_once()), "errno 11");
}

TEST_F(messages, access_points_are_registered_and_listed) {
  ASSERT_EQ(lab::mts_sap_register(queue_, 485, "MVSH"), 0);
  ASSERT_EQ(lab::mts_sap_register(0, 3, "System\nmanager"), 0);
  ASSERT_EQ(lab::mts_sap_register(0, 3, "System manager"), 0);
  switch_root::write_file("/var/run/mts/sap-x", "none");
  switch_root::write_file("/var/run/mts/sap-07", "none");
  switch_root::write_file("/var/run/mts/sap-70000", "none");
  EXPECT_EQ(lab::mts_sap_register(queue_, 0, "none"), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(lab::mts_sap_register(99, 5, "none"), -1);
  EXPECT_EQ(errno, EBADF);

  std::string all;
  for (const lab::access_point &point : lab::mts_saps()) {
    all += std::to_string(point.sap) + " " + point.owner + "\n";
  }
  EXPECT_EQ(all, "3 System manager\n485 MVSH\n");

  EXPECT_EQ(mts_sap_destroy(queue_, 485), 0);
  EXPECT_FALSE(switch_root::exists("/var/run/mts/sap-485"));
}

// They keep nobody from listing the others.
TEST_F(messages, what_is_no_access_points_file_is_none) {
  ASSERT_EQ(lab::mts_sap_register(queue_, 485, "MVSH"), 0);
  ASSERT_EQ(mkdir("/var/run/mts/sap-7", 0755), 0);
  ASSERT_EQ(symlink("sap-8", "/var/run/mts/sap-8"), 0);
  ASSERT_EQ(symlink("gone", "/var/run/mts/sap-9"), 0);

  int error = -1;
  const std::vector<lab::access_point> found = lab::mts_saps(&error);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].owner, "MVSH");
  EXPECT_EQ(error, 0);
}

TEST_F(messages, a_closed_queue_knows_nothing) {
  ASSERT_EQ(lab::mts_sap_register(queue_, 7, "own"), 0);
  const mts_ref_t sent = request(queue_, 7, 1, "1234");
  ASSERT_EQ(lab::mts_queue_close(queue_), 0);

  EXPECT_EQ(lab::mts_queue_close(queue_), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(mts_payload_get(sent), nullptr);
  EXPECT_EQ(mts_rr_token_get(sent), 0U);
  EXPECT_EQ(receive(queue_, at_once()), "errno 9");
  EXPECT_EQ(list("/var/run/mts"), "sap-7");
}

TEST_F(messages, a_reply_to_one_that_went_away_fails) {
  const mts_q_handle_t server = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(server, 3, "server"), 0);
  request(queue_, 3, 1, "1234");
  mts_ref_t received = 0;
  const mts_recv_options_t options = within(5);
  ASSERT_EQ(mts_recv(server, &received, &options), 0);
  ASSERT_EQ(lab::mts_queue_close(queue_), 0);

  EXPECT_EQ(lab::mts_reply(server, received, "answer", 6), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(lab::mts_reply(server, 12345, "answer", 6), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(lab::mts_reply(99, received, "answer", 6), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(messages, sizes_that_cannot_be_are_refused) {
  ASSERT_EQ(lab::mts_sap_register(queue_, 7, "own"), 0);
  mts_ref_t reference = 0;
  EXPECT_EQ(mts_send(queue_, k_here, 7, 1, nullptr, 4, &reference, 0, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(mts_send(queue_, k_here, 7, 1, "1234", 0xFFFFFFFF, &reference, 0, 0), -1);
  EXPECT_EQ(errno, EMSGSIZE);
}

} // namespace
