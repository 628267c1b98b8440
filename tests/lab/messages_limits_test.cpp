// Queues at their limits: full ones, many peers, no descriptors, long names.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "lab/lab_fixture.h"

namespace {

constexpr uint32 k_here = 0xFE000000;

mts_recv_options_t within(uint32 seconds) {
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = seconds;
  return options;
}

// 0 or errno.
int send_to(mts_q_handle_t queue, uint32 sap, const std::string &payload) {
  mts_ref_t reference = 0;
  if (mts_send(queue, k_here, sap, 1, payload.data(), static_cast<uint32>(payload.size()),
               &reference, 0, 0) != 0) {
    return errno;
  }
  return mts_drop(queue, reference);
}

// Fetches everything that a queue holds or gets within a second.
int received_by(mts_q_handle_t queue) {
  int received = 0;
  mts_ref_t reference = 0;
  const mts_recv_options_t options = within(1);
  while (mts_recv(queue, &reference, &options) == 0) {
    ++received;
    mts_drop(queue, reference);
  }
  return received;
}

TEST_F(lab_test, a_full_queue_refuses_messages_and_loses_none) {
  const mts_q_handle_t sender = lab::mts_queue_open();
  const mts_q_handle_t slow = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(slow, 100, "slow"), 0);
  int sent = 0;
  int error = 0;
  while (error == 0 && sent < 100'000) {
    error = send_to(sender, 100, std::string(4000, 'x'));
    sent += error == 0 ? 1 : 0;
  }
  EXPECT_EQ(error, EAGAIN);

  EXPECT_EQ(received_by(slow), sent);
}

size_t open_descriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

TEST_F(lab_test, peers_that_went_keep_no_descriptors) {
  const mts_q_handle_t server = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(server, 100, "server"), 0);
  const size_t before = open_descriptors();
  for (int n = 0; n < 400; ++n) {
    const mts_q_handle_t client = lab::mts_queue_open();
    ASSERT_NE(client, 0U) << n << " " << strerror(errno);
    ASSERT_EQ(send_to(client, 100, "request"), 0) << n;
    mts_ref_t request = 0;
    const mts_recv_options_t options = within(5);
    ASSERT_EQ(mts_recv(server, &request, &options), 0);
    ASSERT_EQ(lab::mts_reply(server, request, "answer", 6), 0) << n;
    ASSERT_EQ(mts_drop(server, request), 0);
    ASSERT_EQ(lab::mts_queue_close(client), 0);
  }
  EXPECT_LT(open_descriptors(), before + 300);
}

// In place of an end by the message library.
TEST_F(lab_test, without_descriptors_there_is_no_queue_and_no_crash) {
  for (rlim_t limit = 8; limit < 40; ++limit) { // sanitizers need a few of their own
    const int end = in_child([limit] {
      const rlimit few = {limit, limit};
      setrlimit(RLIMIT_NOFILE, &few);
      errno = 0;
      const mts_q_handle_t queue = lab::mts_queue_open();
      return queue != 0 || errno == EMFILE ? 0 : 1;
    });
    EXPECT_EQ(end, 0) << limit;
  }
}

TEST_F(lab_test, without_descriptors_a_message_is_refused_and_nothing_crashes) {
  for (rlim_t spare = 0; spare < 24; ++spare) {
    const int end = in_child([spare] {
      const mts_q_handle_t from = lab::mts_queue_open();
      const mts_q_handle_t to = lab::mts_queue_open();
      lab::mts_sap_register(to, 100, "to");
      const int next = dup(0);
      const rlimit few = {static_cast<rlim_t>(next) + spare, static_cast<rlim_t>(next) + spare};
      close(next);
      setrlimit(RLIMIT_NOFILE, &few);
      const int error = send_to(from, 100, "1234");
      return error == 0 || error == EMFILE ? 0 : 1;
    });
    EXPECT_EQ(end, 0) << spare;
  }
}

TEST_F(lab_test, an_owner_of_any_length_is_answered) {
  const mts_q_handle_t queue = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(queue, 100, std::string(5000, 'o')), 0);
  EXPECT_EQ(send_to(queue, 100, "1234"), 0);
  EXPECT_EQ(lab::mts_saps().at(0).owner, std::string(255, 'o'));
}

// What stands where a file of an access point is made is replaced, never written to or waited for.
TEST_F(lab_test, a_planted_name_is_replaced) {
  namespace fs = std::filesystem;
  const std::string scratch = "/var/run/mts/sap-100.new";
  const mts_q_handle_t queue = lab::mts_queue_open();
  ASSERT_EQ(lab::mts_sap_register(queue, 99, "neighbour"), 0); // makes the folder
  std::ofstream("/tmp/mine") << "mine";
  fs::create_symlink("/tmp/mine", scratch);
  ASSERT_EQ(lab::mts_sap_register(queue, 100, "one"), 0);
  fs::create_symlink("/tmp/none", scratch);
  ASSERT_EQ(lab::mts_sap_register(queue, 100, "two"), 0);
  ASSERT_EQ(mkfifo(scratch.c_str(), 0600), 0);
  ASSERT_EQ(lab::mts_sap_register(queue, 100, "three"), 0);
  EXPECT_EQ(lab::mts_saps().at(1).owner, "three");
  EXPECT_EQ(fs::file_size("/tmp/mine"), 4u);
  EXPECT_FALSE(fs::exists("/tmp/none"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(scratch)));
}

} // namespace
