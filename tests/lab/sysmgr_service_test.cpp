// The system manager's service: requests as bytes, answers as bytes, the running tables behind
// them; and what becomes of it when it is stopped, interrupted, misused or dead.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "lab/lab_fixture.h"
#include "support/bytes.h"

namespace {

constexpr uint32 k_here = 0xFE000000;
constexpr char k_access_point[] = "/var/run/mts/sap-3";

double seconds_of(const std::function<void()> &act) {
  const auto start = std::chrono::steady_clock::now();
  act();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string number(uint32 value) {
  return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
          static_cast<char>(value >> 8), static_cast<char>(value)};
}

// 40 bytes, whatever the tag is.
std::string tag_request(uint32 uuid, uint32 vdc, std::string tag) {
  tag.resize(32);
  return number(uuid) + number(vdc) + tag;
}

// The message that was sent; 0 after "errno N" in *error.
mts_ref_t send(mts_q_handle_t queue, const std::string &payload, uint32 opcode,
               std::string *error) {
  mts_ref_t sent = 0;
  if (mts_send(queue, k_here, 3, opcode, payload.data(), static_cast<uint32>(payload.size()), &sent,
               0, 0) != 0) {
    *error = "send: errno " + std::to_string(errno);
  }
  return sent;
}

// The answer's bytes in hexadecimal, or which of the two calls failed with which errno.
std::string ask(mts_q_handle_t queue, const std::string &payload, uint32 opcode = 2690,
                uint32 seconds = 20) {
  std::string result;
  const mts_ref_t sent = send(queue, payload, opcode, &result);
  if (sent == 0) {
    return result;
  }
  mts_recv_options_t options = {1, 0, seconds, mts_rr_token_get(sent), 0, 0, 0};
  mts_ref_t response = 0;
  int received = -1;
  do {
    received = mts_recv(queue, &response, &options);
  } while (received != 0 && errno == EINTR);
  if (received != 0) {
    result = "recv: errno " + std::to_string(errno);
  } else {
    lab::message_info info;
    EXPECT_TRUE(lab::mts_message_info(response, &info));
    result = hex(mts_payload_get(response), info.length);
    EXPECT_EQ(mts_drop(queue, response), 0);
  }
  EXPECT_EQ(mts_drop(queue, sent), 0);
  return result;
}

std::string running_table(vdc_id_t vdc) {
  const tlv_array_t *const table = sysmgr_info_tbl[vdc].srv_tag_info_tbl;
  return table == nullptr ? "(none)" : hex(table, tlv_array_size_get(table, 1));
}

class sysmgr_service : public lab_test {
protected:
  void SetUp() override {
    lab_test::SetUp();
    lab::sysmgr_set_vdcs({1, 2, 16});
    queue_ = lab::mts_queue_open();
    ASSERT_NE(queue_, 0U);
    ASSERT_EQ(lab::sysmgr_start(), 0);
  }
  mts_q_handle_t queue_ = 0;
};

// ---- Requests and answers ----------------------------------------------------------------------

TEST_F(sysmgr_service, enters_the_tag_and_answers_four_bytes) {
  const std::string request = bytes(/* uuid 381 */ "00 00 01 7d" /* vdc */ "00 00 00 02"
                                                   /* tag */ "61 62 63 00 00 00 00 00"
                                                   "00 00 00 00 00 00 00 00 00 00 00 00"
                                                   "00 00 00 00 00 00 00 00 00 00 00 00");
  ASSERT_EQ(request.size(), 40U);

  EXPECT_EQ(ask(queue_, request), "00 00 00 00");

  EXPECT_EQ(running_table(2), "14 00 00 00 01 00 01 00 "
                              "01 00 08 00 7d 01 00 00 61 62 63 00");
  EXPECT_EQ(running_table(1), "(none)");
  EXPECT_EQ(running_table(16), "(none)");
}

TEST_F(sysmgr_service, keeps_the_table_that_stands) {
  EXPECT_EQ(ask(queue_, tag_request(381, 1, "on")), "00 00 00 00");
  EXPECT_EQ(ask(queue_, tag_request(542, 1, "")), "00 00 00 00");
  EXPECT_EQ(ask(queue_, tag_request(381, 1, "off")), "00 00 00 00");

  EXPECT_EQ(running_table(1), "1d 00 00 00 02 00 01 00 "
                              "01 00 08 00 7d 01 00 00 6f 66 66 00 "
                              "01 00 05 00 1e 02 00 00 00");
}

// The VDC has 32 bits: none is taken for another one with the same lower half.
TEST_F(sysmgr_service, knows_the_vdcs_of_the_switch_only) {
  for (const uint32 vdc : {1U, 2U, 16U}) {
    EXPECT_EQ(ask(queue_, tag_request(381, vdc, "")), "00 00 00 00") << vdc;
  }
  for (const uint32 vdc :
       {0U, 3U, 17U, 65535U, 65536U, 65537U, 65538U, 0x01000000U, 0x80000001U, 0xFFFFFFFFU}) {
    EXPECT_EQ(ask(queue_, tag_request(542, vdc, "")), "40 1e 00 76") << vdc;
  }
  for (vdc_id_t vdc = 0; vdc < 17; ++vdc) {
    const bool has = vdc == 1 || vdc == 2 || vdc == 16;
    EXPECT_EQ(running_table(vdc),
              has ? "11 00 00 00 01 00 01 00 01 00 05 00 7d 01 00 00 00" : "(none)");
  }
}

TEST_F(sysmgr_service, takes_31_characters_of_a_tag_and_none_behind_its_end) {
  const std::string tag31 = "1234567890123456789012345678901";
  for (const std::string &tag :
       {tag31, tag31 + "2", tag31 + "\xff", tag31 + "234567890"}) { // the last: 40 characters
    ASSERT_EQ(ask(queue_, tag_request(1, 1, tag)), "00 00 00 00");
    std::vector<lab::tag_entry> entries;
    const auto *const table = reinterpret_cast<const char *>(sysmgr_info_tbl[1].srv_tag_info_tbl);
    ASSERT_TRUE(lab::tag_table_decode({table, 8 + 4 + 4 + 32}, &entries));
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].tag, tag31);
  }
  EXPECT_EQ(ask(queue_, tag_request(1, 1, std::string("ab\0cd", 5))), "00 00 00 00");
  EXPECT_EQ(running_table(1), "13 00 00 00 01 00 01 00 "
                              "01 00 07 00 01 00 00 00 61 62 00");
}

TEST_F(sysmgr_service, takes_any_service) {
  for (const uint32 uuid : {0U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    EXPECT_EQ(ask(queue_, tag_request(uuid, 1, "")), "00 00 00 00") << uuid;
  }
  EXPECT_EQ(running_table(1), "23 00 00 00 03 00 01 00 "
                              "01 00 05 00 00 00 00 00 00 "
                              "01 00 05 00 ff ff ff 7f 00 "
                              "01 00 05 00 ff ff ff ff 00");
}

TEST_F(sysmgr_service, refuses_requests_of_another_length) {
  const std::string good = tag_request(381, 1, "tag");
  for (const size_t length : {0U, 1U, 3U, 4U, 8U, 39U}) {
    EXPECT_EQ(ask(queue_, good.substr(0, length)), "ff ff ff ff") << length;
  }
  for (const size_t more : {1U, 4U, 100'000U}) {
    EXPECT_EQ(ask(queue_, good + std::string(more, 'x')), "ff ff ff ff") << more;
  }
  EXPECT_EQ(running_table(1), "(none)");

  EXPECT_EQ(ask(queue_, good), "00 00 00 00");
}

TEST_F(sysmgr_service, does_not_answer_other_opcodes) {
  for (const uint32 opcode : {0U, 1U, 2689U, 2691U, 0xFFFFFFFFU}) {
    std::string error;
    EXPECT_NE(send(queue_, tag_request(381, 1, "tag"), opcode, &error), 0U) << error;
  }
  EXPECT_EQ(ask(queue_, tag_request(542, 1, ""), 2691, 1), "recv: errno 110");
  EXPECT_EQ(running_table(1), "(none)");

  EXPECT_EQ(ask(queue_, tag_request(542, 1, "")), "00 00 00 00");
  const mts_recv_options_t at_once = {1, 1, 0, 0, 0, 0, 0};
  mts_ref_t nothing = 0;
  EXPECT_EQ(mts_recv(queue_, &nothing, &at_once), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(sysmgr_service, passes_on_why_a_table_takes_nothing) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  const std::string damaged = bytes("0c 00 00 00 01 00 01 00 01 00 01 00");
  std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, damaged.data(), damaged.size());
  EXPECT_EQ(ask(queue_, tag_request(381, 1, "")), "40 49 00 02");

  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 2), 0U);
  uint8 tag[32] = "1234567890123456789012345678901";
  for (uint32 uuid = 1; sysmgr_srv_tag_info_add(static_cast<uuid_t>(uuid), tag, 2) == 0; ++uuid) {
    ASSERT_LT(uuid, 10000U);
  }
  EXPECT_EQ(ask(queue_, tag_request(0xFFFFFFFF, 2, std::string(31, 't'))), "40 1e 00 77");
}

TEST_F(sysmgr_service, outlives_strangers_at_its_socket) {
  const std::string entry = switch_root::read_file(k_access_point);
  const std::string socket_file = entry.substr(entry.find('\n') + 1);
  for (const size_t length : {0U, 1U, 64U, 5000U}) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socket_file.data(), socket_file.size() - 1);
    const int stranger = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(stranger, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    const std::string noise(length, '\xff');
    ::send(stranger, noise.data(), noise.size(), MSG_NOSIGNAL);
    ::close(stranger);
  }

  EXPECT_EQ(ask(queue_, tag_request(381, 1, "")), "00 00 00 00");
}

// ---- Many --------------------------------------------------------------------------------------

TEST_F(sysmgr_service, answers_two_clients_at_once) {
  const auto client = [](uint32 first, std::atomic<int> *good) {
    const mts_q_handle_t queue = lab::mts_queue_open();
    for (uint32 uuid = first; uuid < first + 200; ++uuid) {
      *good += ask(queue, tag_request(uuid, 1, "t")) == "00 00 00 00" ? 1 : 0;
    }
    lab::mts_queue_close(queue);
  };
  std::atomic<int> good{0};
  std::thread one(client, 1000, &good);
  std::thread two(client, 2000, &good);
  one.join();
  two.join();

  EXPECT_EQ(good, 400);
  EXPECT_EQ(tlv_array_get_num_tlvs(sysmgr_info_tbl[1].srv_tag_info_tbl, 1), 400U);
}

TEST_F(sysmgr_service, answers_clients_of_other_processes) {
  lab::sysmgr_stop();
  lab::mts_shutdown();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  std::vector<pid_t> clients;
  for (uint32 first : {1000U, 2000U}) {
    clients.push_back(fork());
    if (clients.back() == 0) {
      char byte = 0;
      bool good = read(ready[0], &byte, 1) == 1;
      const mts_q_handle_t queue = lab::mts_queue_open();
      for (uint32 uuid = first; uuid < first + 100 && good; ++uuid) {
        good = ask(queue, tag_request(uuid, 1, "")) == "00 00 00 00";
      }
      lab::mts_shutdown();
      _exit(good ? 0 : 1);
    }
  }
  ASSERT_EQ(lab::sysmgr_start(), 0);
  ASSERT_EQ(write(ready[1], "gg", 2), 2);
  for (const pid_t client : clients) {
    int status = -1;
    ASSERT_EQ(waitpid(client, &status, 0), client);
    EXPECT_EQ(status, 0);
  }
  ASSERT_EQ(lab::sysmgr_stop(), 0); // nobody in this process waited for the entries
  EXPECT_EQ(tlv_array_get_num_tlvs(sysmgr_info_tbl[1].srv_tag_info_tbl, 1), 200U);
}

// ---- Signals -----------------------------------------------------------------------------------

std::atomic<int> signals_seen{0};
std::atomic<pthread_t> interrupted{};

void on_signal(int) {
  ++signals_seen;
  interrupted = pthread_self();
}

void catch_signal(int which) {
  struct sigaction action = {};
  action.sa_handler = on_signal;
  ASSERT_EQ(sigaction(which, &action, nullptr), 0);
  signals_seen = 0;
}

TEST_F(sysmgr_service, answers_a_thousand_requests_among_signals) {
  catch_signal(SIGALRM);
  const itimerval often = {{0, 2000}, {0, 2000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
  int good = 0;
  for (uint32 n = 0; n < 1000; ++n) {
    good += ask(queue_, tag_request(n % 100, 2, std::to_string(n))) == "00 00 00 00" ? 1 : 0;
  }
  for (int waited = 0; signals_seen == 0 && waited < 1000; ++waited) {
    usleep(10'000);
  }
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);

  EXPECT_EQ(good, 1000);
  EXPECT_EQ(tlv_array_get_num_tlvs(sysmgr_info_tbl[2].srv_tag_info_tbl, 1), 100U);
  EXPECT_GT(signals_seen, 0);
  EXPECT_TRUE(pthread_equal(interrupted, pthread_self()) != 0);
}

// A signal of the process goes to any thread that does not block it: here there must be none.
TEST_F(sysmgr_service, gets_no_signals) {
  catch_signal(SIGUSR1);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, SIGUSR1);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &one, nullptr), 0);
  ASSERT_EQ(kill(getpid(), SIGUSR1), 0);
  EXPECT_EQ(ask(queue_, tag_request(1, 1, "")), "00 00 00 00");
  usleep(50'000);
  EXPECT_EQ(signals_seen, 0);
  ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &one, nullptr), 0);
  EXPECT_EQ(signals_seen, 1);
}

// The requester's own mask is as it was.
TEST_F(sysmgr_service, leaves_the_callers_signals_alone) {
  sigset_t mask;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
  for (const int which : {SIGALRM, SIGUSR1, SIGTERM}) {
    EXPECT_EQ(sigismember(&mask, which), 0) << which;
  }
}

// A system manager that takes its time: two signals come before its answer.
TEST_F(lab_test, a_receive_that_is_interrupted_twice_gets_its_answer) {
  catch_signal(SIGALRM);
  const mts_q_handle_t manager = lab::mts_queue_open();
  const mts_q_handle_t queue = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(manager, 3, "slow"), 0);
  std::string error;
  const mts_ref_t sent = send(queue, tag_request(381, 1, ""), 2690, &error);
  ASSERT_NE(sent, 0U) << error;
  const mts_recv_options_t options = {1, 0, 20, mts_rr_token_get(sent), 0, 0, 0};
  mts_ref_t response = 0;
  for (int times = 0; times < 2; ++times) {
    const itimerval soon = {{0, 0}, {0, 50'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
    ASSERT_EQ(mts_recv(queue, &response, &options), -1);
    ASSERT_EQ(errno, EINTR);
  }
  mts_ref_t request = 0;
  const mts_recv_options_t anything = {1, 0, 20, 0, 0, 0, 0};
  ASSERT_EQ(mts_recv(manager, &request, &anything), 0);
  ASSERT_EQ(lab::mts_reply(manager, request, "\x40\x1e\0\x76", 4), 0);

  ASSERT_EQ(mts_recv(queue, &response, &options), 0);
  EXPECT_EQ(hex(mts_payload_get(response), 4), "40 1e 00 76");
}

// ---- Starting and stopping ---------------------------------------------------------------------

TEST_F(sysmgr_service, answers_its_access_point_while_it_runs) {
  EXPECT_TRUE(switch_root::read_file(k_access_point).starts_with("system manager\n"));
  EXPECT_EQ(lab::sysmgr_start(), -1);
  EXPECT_EQ(errno, EALREADY);

  EXPECT_EQ(lab::sysmgr_stop(), 0);

  EXPECT_FALSE(switch_root::exists(k_access_point));
  EXPECT_EQ(ask(queue_, tag_request(381, 1, "")), "send: errno 113");
  EXPECT_EQ(lab::sysmgr_stop(), 0);
  ASSERT_EQ(lab::mts_queue_close(queue_), 0);
  EXPECT_EQ(list("/var/run/mts"), "");
}

TEST_F(sysmgr_service, can_be_started_again) {
  for (int times = 0; times < 20; ++times) {
    ASSERT_EQ(ask(queue_, tag_request(381, 1, std::to_string(times))), "00 00 00 00");
    ASSERT_EQ(lab::sysmgr_stop(), 0);
    ASSERT_EQ(lab::sysmgr_start(), 0);
  }
  EXPECT_EQ(running_table(1), "13 00 00 00 01 00 01 00 "
                              "01 00 07 00 7d 01 00 00 31 39 00");
}

TEST_F(sysmgr_service, stops_at_once) {
  double quickest = 10;
  for (int times = 0; times < 5; ++times) {
    ask(queue_, tag_request(381, 1, ""));
    usleep(20'000); // until it waits again
    quickest = std::min(quickest, seconds_of([] { EXPECT_EQ(lab::sysmgr_stop(), 0); }));
    ASSERT_EQ(lab::sysmgr_start(), 0);
  }
  EXPECT_LT(quickest, 0.1);
}

// A requester that reads no answers holds the service up for each of them, but not its end.
TEST_F(sysmgr_service, stops_at_once_while_an_answer_finds_no_room) {
  std::string error;
  for (int sent = 0; error.empty(); ++sent) {
    ASSERT_LT(sent, 200'000);
    const mts_ref_t message = send(queue_, "no request at all", 2690, &error);
    mts_drop(queue_, message);
  }
  ASSERT_EQ(error, "send: errno 11");

  EXPECT_LT(seconds_of([] { EXPECT_EQ(lab::sysmgr_stop(), 0); }), 0.3);
}

// Nobody waited for an answer; those that had been sent count all the same.
TEST_F(sysmgr_service, enters_what_was_sent_before_it_was_stopped) {
  for (const uint32 requests : {1U, 500U, 1500U}) {
    lab::sysmgr_set_vdcs({1, 2, 16});
    for (uint32 uuid = 1; uuid <= requests; ++uuid) {
      std::string error;
      const mts_ref_t sent = send(queue_, tag_request(uuid, 1, "t"), 2690, &error);
      ASSERT_NE(sent, 0U) << error;
      ASSERT_EQ(mts_drop(queue_, sent), 0);
    }

    ASSERT_EQ(lab::sysmgr_stop(), 0);

    ASSERT_NE(sysmgr_info_tbl[1].srv_tag_info_tbl, nullptr);
    EXPECT_EQ(tlv_array_get_num_tlvs(sysmgr_info_tbl[1].srv_tag_info_tbl, 1), requests);
    ASSERT_EQ(lab::sysmgr_start(), 0);
  }
}

// The service waits for room for its answers then, which nobody reads.
TEST_F(sysmgr_service, enters_what_was_sent_while_an_answer_finds_no_room) {
  std::string error;
  uint32 sent = 0;
  while (error.empty()) {
    ASSERT_LT(sent, 200'000U);
    const mts_ref_t message = send(queue_, tag_request(sent, 1, ""), 2690, &error);
    sent += message != 0 ? 1U : 0U;
    mts_drop(queue_, message);
  }
  ASSERT_EQ(error, "send: errno 11");

  EXPECT_LT(seconds_of([] { EXPECT_EQ(lab::sysmgr_stop(), 0); }), 1.5);

  EXPECT_EQ(tlv_array_get_num_tlvs(sysmgr_info_tbl[1].srv_tag_info_tbl, 1), sent);
}

// Somebody who goes on sending does not keep it from its end.
TEST_F(sysmgr_service, stops_under_requests_that_never_end) {
  std::atomic<bool> enough{false};
  const mts_q_handle_t queue = lab::mts_queue_open();
  std::thread sender([&] {
    const std::string request = tag_request(381, 1, "t");
    std::string error;
    while (!enough) {
      mts_drop(queue, send(queue, request, 2690, &error));
    }
  });
  usleep(50'000);

  EXPECT_LT(seconds_of([] { EXPECT_EQ(lab::sysmgr_stop(), 0); }), 3.0);

  enough = true;
  sender.join();
}

// Its access point went, so no message of its own finds it.
TEST_F(sysmgr_service, stops_soon_without_its_access_point) {
  std::string error;
  ASSERT_NE(send(queue_, tag_request(381, 2, "t"), 2690, &error), 0U) << error;
  ASSERT_EQ(mts_sap_destroy(queue_, 3), 0);

  EXPECT_LT(seconds_of([] { EXPECT_EQ(lab::sysmgr_stop(), 0); }), 2.0);

  EXPECT_EQ(running_table(2), "12 00 00 00 01 00 01 00 01 00 06 00 7d 01 00 00 74 00");
}

TEST_F(sysmgr_service, shows_a_running_table_between_two_answers) {
  EXPECT_EQ(lab::sysmgr_running_table(1), "");
  EXPECT_EQ(ask(queue_, tag_request(381, 1, "t")), "00 00 00 00");
  EXPECT_EQ(hex(lab::sysmgr_running_table(1)),
            "12 00 00 00 01 00 01 00 01 00 06 00 7d 01 00 00 74 00");
  EXPECT_EQ(lab::sysmgr_running_table(17), "");

  const uint32 lies = 0x00010001;
  std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, &lies, sizeof(lies));
  EXPECT_EQ(lab::sysmgr_running_table(1), "");
}

TEST_F(sysmgr_service, ends_with_the_message_threads) {
  lab::mts_shutdown();
  EXPECT_EQ(list("/var/run/mts"), "");
  EXPECT_EQ(lab::sysmgr_start(), 0);
  queue_ = lab::mts_queue_open();
  EXPECT_EQ(ask(queue_, tag_request(381, 1, "")), "00 00 00 00");
}

TEST_F(lab_test, stopping_the_system_manager_that_does_not_run_is_nothing) {
  EXPECT_EQ(lab::sysmgr_stop(), 0);
  EXPECT_EQ(lab::sysmgr_stop(), 0);
}

TEST_F(lab_test, the_access_point_that_stood_before_the_system_manager_comes_back) {
  switch_root::write_file(k_access_point, "System manager\n\n");
  ASSERT_EQ(lab::sysmgr_start(), 0);
  EXPECT_TRUE(switch_root::read_file(k_access_point).starts_with("system manager\n/"));
  ASSERT_EQ(lab::sysmgr_stop(), 0);
  EXPECT_EQ(switch_root::read_file(k_access_point), "System manager\n\n");
  EXPECT_EQ(list("/var/run/mts"), "sap-3");
}

// Rather none than one that nobody answers any more.
TEST_F(lab_test, an_access_point_that_cannot_be_given_back_is_gone) {
  switch_root::mount_small("/var/run/mts", "64k");
  ASSERT_EQ(lab::mts_sap_register(0, 3, "before"), 0);
  ASSERT_EQ(lab::sysmgr_start(), 0);
  std::FILE *const filler = std::fopen("/var/run/mts/filler", "w");
  ASSERT_NE(filler, nullptr);
  const std::string page(4096, 'f');
  while (std::fwrite(page.data(), page.size(), 1, filler) == 1 && std::fflush(filler) == 0) {
  }
  std::fclose(filler);

  EXPECT_EQ(lab::sysmgr_stop(), -1);
  EXPECT_EQ(errno, ENOSPC);

  EXPECT_EQ(list("/var/run/mts"), "filler");
  EXPECT_EQ(lab::sysmgr_stop(), 0);
}

// What a conversion did to the access point is the conversion's result.
TEST_F(sysmgr_service, leaves_an_access_point_that_others_changed) {
  ASSERT_EQ(mts_sap_destroy(queue_, 3), 0);
  ASSERT_EQ(lab::sysmgr_stop(), 0);
  EXPECT_FALSE(switch_root::exists(k_access_point));

  ASSERT_EQ(lab::sysmgr_start(), 0);
  ASSERT_EQ(lab::mts_sap_register(0, 3, "another"), 0);
  ASSERT_EQ(lab::sysmgr_stop(), 0);
  EXPECT_EQ(switch_root::read_file(k_access_point), "another\n\n");
}

TEST_F(lab_test, without_a_place_for_its_access_point_there_is_no_system_manager) {
  switch_root::write_file("/var/run/mts/sap-3/in-the-way", "");
  EXPECT_EQ(lab::sysmgr_start(), -1);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(list("/var/run/mts"), "sap-3");
}

TEST_F(lab_test, without_descriptors_there_is_no_system_manager) {
  EXPECT_EQ(in_child([] {
              const rlimit few = {8, 8};
              setrlimit(RLIMIT_NOFILE, &few);
              return lab::sysmgr_start() == -1 && errno == EMFILE && lab::sysmgr_stop() == 0 ? 0
                                                                                             : 1;
            }),
            0);
  EXPECT_FALSE(switch_root::exists(k_access_point));
}

// ---- A system manager that died ----------------------------------------------------------------

// A process that runs the service.
class manager_process {
public:
  manager_process() {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    process_ = fork();
    if (process_ == 0) {
      const bool good = lab::sysmgr_start() == 0 && write(ready[1], "r", 1) == 1;
      while (good) {
        pause();
      }
      _exit(1);
    }
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
  }
  ~manager_process() { end(); }
  manager_process(const manager_process &) = delete;
  manager_process &operator=(const manager_process &) = delete;
  void signal(int which) const { EXPECT_EQ(kill(process_, which), 0); }
  // Returns when none of its threads runs any more: kill() returns before.
  void stop() const {
    signal(SIGSTOP);
    int status = 0;
    EXPECT_EQ(waitpid(process_, &status, WUNTRACED), process_);
    EXPECT_TRUE(WIFSTOPPED(status)) << status;
  }
  void end() {
    if (process_ != 0) {
      signal(SIGKILL);
      EXPECT_EQ(waitpid(process_, nullptr, 0), process_);
      process_ = 0;
    }
  }

private:
  pid_t process_ = 0;
};

// Its access point stands, and its socket too, but nobody listens.
TEST_F(lab_test, a_system_manager_that_was_killed_refuses_the_request_at_once) {
  manager_process manager;
  manager.end();
  ASSERT_TRUE(switch_root::exists(k_access_point));
  const mts_q_handle_t queue = lab::mts_queue_open();

  std::string result;
  EXPECT_LT(seconds_of([&] { result = ask(queue, tag_request(381, 1, ""), 2690, 5); }), 2.0);

  EXPECT_EQ(result, "send: errno 111");
}

// One that had answered before: what is sent next may still be taken for it, and is lost.
TEST_F(lab_test, a_system_manager_that_is_killed_later_refuses_or_never_answers) {
  manager_process manager;
  const mts_q_handle_t queue = lab::mts_queue_open();
  ASSERT_EQ(ask(queue, tag_request(381, 1, "")), "00 00 00 00");
  manager.end();

  std::string last;
  for (int times = 0; times < 5 && last != "send: errno 111"; ++times) {
    last = ask(queue, tag_request(381, 1, ""), 2690, 1);
    EXPECT_TRUE(last == "send: errno 111" || last == "recv: errno 110") << last;
  }
  EXPECT_EQ(last, "send: errno 111");
}

// It takes no connection any more, but reads what comes over one that it took.
TEST_F(lab_test, a_system_manager_that_hangs_refuses_a_stranger_and_lets_the_time_run_out) {
  const manager_process manager;
  const mts_q_handle_t queue = lab::mts_queue_open();
  ASSERT_EQ(ask(queue, tag_request(381, 1, "")), "00 00 00 00");
  manager.stop();

  EXPECT_EQ(ask(queue, tag_request(381, 1, ""), 2690, 1), "recv: errno 110");
  EXPECT_EQ(ask(lab::mts_queue_open(), tag_request(381, 1, ""), 2690, 1), "send: errno 11");

  manager.signal(SIGCONT);
  EXPECT_EQ(ask(queue, tag_request(381, 1, "")), "00 00 00 00");
}

// What stood before is that dead one's: it does not come back.
TEST_F(lab_test, a_system_manager_takes_over_from_a_dead_one) {
  manager_process manager;
  manager.end();
  ASSERT_EQ(lab::sysmgr_start(), 0);
  const mts_q_handle_t queue = lab::mts_queue_open();
  EXPECT_EQ(ask(queue, tag_request(381, 1, "")), "00 00 00 00");

  EXPECT_EQ(lab::sysmgr_stop(), 0);
  EXPECT_FALSE(switch_root::exists(k_access_point));
}

TEST_F(lab_test, a_system_manager_that_lives_gets_its_access_point_back) {
  const manager_process manager;
  const mts_q_handle_t queue = lab::mts_queue_open();
  const std::string entry = switch_root::read_file(k_access_point);
  ASSERT_EQ(lab::sysmgr_start(), 0);
  EXPECT_NE(switch_root::read_file(k_access_point), entry);
  ASSERT_EQ(lab::sysmgr_stop(), 0);
  EXPECT_EQ(switch_root::read_file(k_access_point), entry);
  EXPECT_EQ(ask(queue, tag_request(381, 1, "")), "00 00 00 00");
}

} // namespace
