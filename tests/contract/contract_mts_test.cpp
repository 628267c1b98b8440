// What messages and access points do.
#include "contract/contract_platform.h"

#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

constexpr uint32 k_supervisor = 0xFE000000;
constexpr uint32 k_unknown_queue = 12345;

class mts_contract : public contract_test {
protected:
  void SetUp() override {
    contract_test::SetUp();
    queue_ = contract_platform::open_queue();
    ASSERT_NE(queue_, 0U);
  }

  mts_ref_t send(uint32 sap, uint32 opcode, const std::string &payload) const {
    mts_ref_t request = 0;
    EXPECT_EQ(mts_send(queue_, k_supervisor, sap, opcode, payload.data(),
                       static_cast<uint32>(payload.size()), &request, 0, 0),
              0)
        << std::strerror(errno);
    EXPECT_NE(request, 0U);
    return request;
  }

  // Waits for the response to `request`; a few seconds are plenty and a failure does not hang.
  mts_ref_t receive(mts_ref_t request) const {
    mts_recv_options_t options = {};
    options.version = 1;
    options.timeout = 20;
    options.rr_token = mts_rr_token_get(request);
    mts_ref_t response = 0;
    int result = -1;
    do {
      result = mts_recv(queue_, &response, &options);
    } while (result == -1 && errno == EINTR);
    EXPECT_EQ(result, 0) << std::strerror(errno);
    EXPECT_NE(response, 0U);
    return response;
  }

  static std::string payload_of(mts_ref_t message, size_t size) {
    const void *payload = mts_payload_get(message);
    return payload == nullptr ? "(none)" : std::string(static_cast<const char *>(payload), size);
  }

  mts_q_handle_t queue_ = 0;
};

// ---- Requests and responses ---------------------------------------------------------------------

TEST_F(mts_contract, a_request_gets_its_response) {
  contract_platform::respond(MTS_SAP_SYSMGR, "answer");

  const mts_ref_t request = send(MTS_SAP_SYSMGR, 2690, std::string(40, '\x01'));
  const mts_ref_t response = receive(request);

  EXPECT_NE(response, request);
  EXPECT_EQ(payload_of(response, 6), "answer");
  EXPECT_EQ(mts_drop(queue_, request), 0);
  EXPECT_EQ(mts_drop(queue_, response), 0);
}

TEST_F(mts_contract, responses_are_paired_with_their_requests_by_token) {
  contract_platform::respond(3, "from three");
  contract_platform::respond(11, "eleven has it");

  const mts_ref_t to_three = send(3, 1, "one");
  const mts_ref_t to_eleven = send(11, 1, "two");
  EXPECT_NE(mts_rr_token_get(to_three), 0U);
  EXPECT_NE(mts_rr_token_get(to_three), mts_rr_token_get(to_eleven));
  const mts_ref_t from_eleven = receive(to_eleven);
  const mts_ref_t from_three = receive(to_three);

  EXPECT_EQ(payload_of(from_eleven, 13), "eleven has it");
  EXPECT_EQ(payload_of(from_three, 10), "from three");
  for (const mts_ref_t message : {to_three, to_eleven, from_eleven, from_three}) {
    EXPECT_EQ(mts_drop(queue_, message), 0);
  }
}

TEST_F(mts_contract, a_response_carries_its_requests_opcode) {
  contract_platform::respond(3, "answer");
  const mts_ref_t request = send(3, 2690, "ping");
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = 1;
  options.opcode = 2691;
  mts_ref_t response = 0;
  EXPECT_EQ(mts_recv(queue_, &response, &options), -1);
  EXPECT_EQ(errno, ETIMEDOUT);

  options.timeout = 20;
  options.opcode = 2690;
  ASSERT_EQ(mts_recv(queue_, &response, &options), 0);
  EXPECT_EQ(payload_of(response, 6), "answer");
  EXPECT_EQ(mts_rr_token_get(response), mts_rr_token_get(request));
}

TEST_F(mts_contract, a_message_belongs_to_its_queue) {
  contract_platform::respond(3, "answer");
  const mts_q_handle_t another = contract_platform::open_queue();
  const mts_ref_t request = send(3, 7, "ping");
  const mts_ref_t response = receive(request);
  for (const mts_ref_t message : {request, response}) {
    errno = 0;
    EXPECT_EQ(mts_drop(another, message), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mts_drop(queue_, message), 0);
  }
}

TEST_F(mts_contract, a_response_goes_to_the_queue_that_asked) {
  contract_platform::respond(3, "answer");
  const mts_q_handle_t another = contract_platform::open_queue();
  const mts_ref_t request = send(3, 7, "ping");
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = 1;
  mts_ref_t message = 0;
  EXPECT_EQ(mts_recv(another, &message, &options), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(payload_of(receive(request), 6), "answer");
}

TEST_F(mts_contract, many_requests_in_a_row_are_answered) {
  contract_platform::respond(3, "pong");

  for (int i = 0; i < 100; ++i) {
    const mts_ref_t request = send(3, 7, "ping");
    const mts_ref_t response = receive(request);
    EXPECT_EQ(payload_of(response, 4), "pong");
    EXPECT_EQ(mts_drop(queue_, request), 0);
    EXPECT_EQ(mts_drop(queue_, response), 0);
  }
}

TEST_F(mts_contract, a_request_may_have_no_payload) {
  contract_platform::respond(3, "pong");
  mts_ref_t request = 0;

  EXPECT_EQ(mts_send(queue_, k_supervisor, 3, 7, nullptr, 0, &request, 0, 0), 0);

  const mts_ref_t response = receive(request);
  EXPECT_EQ(payload_of(response, 4), "pong");
  EXPECT_EQ(mts_drop(queue_, request), 0);
  EXPECT_EQ(mts_drop(queue_, response), 0);
}

TEST_F(mts_contract, a_message_below_4_bytes_has_no_payload) {
  for (const std::string &reply : {std::string(""), std::string("a"), std::string("abc")}) {
    contract_platform::respond(3, reply);
    const mts_ref_t request = send(3, 7, "ping");
    const mts_ref_t response = receive(request);

    EXPECT_EQ(mts_payload_get(response), nullptr) << reply.size();

    EXPECT_EQ(mts_drop(queue_, request), 0);
    EXPECT_EQ(mts_drop(queue_, response), 0);
    contract_platform::stop();
    contract_platform::start();
    queue_ = contract_platform::open_queue();
  }
}

TEST_F(mts_contract, a_payload_of_4_bytes_and_one_of_many_are_whole) {
  contract_platform::respond(3, std::string("\0\0\0\0", 4));
  contract_platform::respond(11, std::string(100000, 'x'));

  const mts_ref_t small = send(3, 7, "ping");
  const mts_ref_t small_reply = receive(small);
  const mts_ref_t large = send(11, 7, std::string(100000, 'y'));
  const mts_ref_t large_reply = receive(large);

  EXPECT_EQ(payload_of(small_reply, 4), std::string("\0\0\0\0", 4));
  EXPECT_TRUE(payload_of(large_reply, 100000) == std::string(100000, 'x'));
  for (const mts_ref_t message : {small, small_reply, large, large_reply}) {
    EXPECT_EQ(mts_drop(queue_, message), 0);
  }
}

TEST_F(mts_contract, a_payload_stays_where_it_is_until_the_message_is_dropped) {
  contract_platform::respond(3, "answer");
  const mts_ref_t request = send(3, 7, "ping");
  const mts_ref_t response = receive(request);
  const void *payload = mts_payload_get(response);

  const mts_ref_t another = send(3, 7, "ping");
  const mts_ref_t another_response = receive(another);
  mts_payload_get(another_response);

  EXPECT_EQ(mts_drop(queue_, request), 0);
  EXPECT_EQ(mts_drop(queue_, another), 0);
  EXPECT_EQ(mts_drop(queue_, another_response), 0);
  EXPECT_EQ(mts_payload_get(response), payload);
  EXPECT_EQ(payload_of(response, 6), "answer");
  EXPECT_EQ(mts_drop(queue_, response), 0);
}

TEST_F(mts_contract, a_dropped_message_is_gone) {
  contract_platform::respond(3, "answer");
  const mts_ref_t request = send(3, 7, "ping");
  const mts_ref_t response = receive(request);
  ASSERT_EQ(mts_drop(queue_, request), 0);
  ASSERT_EQ(mts_drop(queue_, response), 0);

  for (const mts_ref_t message : {request, response, mts_ref_t{0}, mts_ref_t{0xFFFFFFFF}}) {
    errno = 0;
    EXPECT_EQ(mts_drop(queue_, message), -1);
    EXPECT_NE(errno, 0);
    EXPECT_EQ(mts_payload_get(message), nullptr);
    EXPECT_EQ(mts_rr_token_get(message), 0U);
  }
}

// ---- Nothing comes ------------------------------------------------------------------------------

TEST_F(mts_contract, nothing_came_is_a_time_out) {
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = 1;
  mts_ref_t message = 0;
  errno = 0;
  const auto start = std::chrono::steady_clock::now();

  EXPECT_EQ(mts_recv(queue_, &message, &options), -1);

  EXPECT_EQ(errno, ETIMEDOUT);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took.count(), contract_platform::k_waits ? 0.9 : 0.0);
  EXPECT_LT(took.count(), 30.0);
}

TEST_F(mts_contract, a_receive_that_may_not_block_says_when_nothing_is_there) {
  mts_recv_options_t options = {};
  options.version = 1;
  options.non_blocking = 1;
  options.timeout = 30;
  mts_ref_t message = 0;
  errno = 0;

  EXPECT_EQ(mts_recv(queue_, &message, &options), -1);

  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(mts_contract, a_signal_interrupts_a_receive) {
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = 20;
  mts_ref_t message = 0;
  contract_platform::interrupt_next_recv();
  errno = 0;

  EXPECT_EQ(mts_recv(queue_, &message, &options), -1);

  EXPECT_EQ(errno, EINTR);
}

TEST_F(mts_contract, a_request_survives_an_interrupted_receive) {
  contract_platform::register_sap(11);
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = 20;
  mts_ref_t message = 0;
  for (int times = 0; times < 2; ++times) {
    contract_platform::interrupt_next_recv();
    errno = 0;
    EXPECT_EQ(mts_recv(queue_, &message, &options), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(message, 0U);
  }

  contract_platform::respond(3, "answer");
  const mts_ref_t request = send(3, 7, "ping");
  const mts_ref_t response = receive(request);

  EXPECT_EQ(payload_of(response, 6), "answer");
}

TEST_F(mts_contract, a_request_that_nobody_answers_fails_or_times_out) {
  contract_platform::register_sap(11);
  for (const uint32 sap : {11U, 4711U}) {
    mts_ref_t request = 0;
    errno = 0;
    if (mts_send(queue_, k_supervisor, sap, 7, "ping", 4, &request, 0, 0) != 0) {
      EXPECT_NE(errno, 0) << sap;
      continue;
    }
    mts_recv_options_t options = {};
    options.version = 1;
    options.timeout = 1;
    options.rr_token = mts_rr_token_get(request);
    mts_ref_t response = 0;
    EXPECT_EQ(mts_recv(queue_, &response, &options), -1) << sap;
    EXPECT_EQ(errno, ETIMEDOUT) << sap;
    EXPECT_EQ(mts_drop(queue_, request), 0) << sap;
  }
}

// ---- Bad arguments ------------------------------------------------------------------------------

TEST_F(mts_contract, queue_0_and_unknown_queues_are_bad) {
  contract_platform::register_sap(341);
  const mts_q_handle_t closed = contract_platform::open_queue();
  contract_platform::close_queue(closed);

  for (const mts_q_handle_t queue : {0U, k_unknown_queue, closed}) {
    mts_ref_t message = 0;
    const mts_recv_options_t options = {1, 0, 1, 0, 0, 0, 0};
    errno = 0;
    EXPECT_EQ(mts_send(queue, k_supervisor, 3, 7, "ping", 4, &message, 0, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(message, 0U);
    errno = 0;
    EXPECT_EQ(mts_recv(queue, &message, &options), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(mts_drop(queue, 1), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(mts_sap_destroy(queue, 341), -1);
    EXPECT_EQ(errno, EBADF);
  }

  EXPECT_EQ(contract_platform::saps(), std::vector<uint32>{341});
}

TEST_F(mts_contract, null_arguments_are_refused) {
  contract_platform::respond(3, "answer");
  mts_ref_t message = 0;
  const mts_recv_options_t options = {1, 0, 1, 0, 0, 0, 0};

  errno = 0;
  EXPECT_EQ(mts_send(queue_, k_supervisor, 3, 7, nullptr, 4, &message, 0, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(mts_send(queue_, k_supervisor, 3, 7, "ping", 4, nullptr, 0, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(mts_recv(queue_, nullptr, &options), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(mts_recv(queue_, &message, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
}

// ---- Access points ------------------------------------------------------------------------------

TEST_F(mts_contract, sap_destroy_removes_that_access_point_only) {
  contract_platform::register_sap(341);
  contract_platform::register_sap(342);
  contract_platform::register_sap(364);

  EXPECT_EQ(mts_sap_destroy(queue_, 342), 0);

  EXPECT_EQ(contract_platform::saps(), (std::vector<uint32>{341, 364}));
}

TEST_F(mts_contract, sap_destroy_says_when_there_is_none) {
  contract_platform::register_sap(341);
  ASSERT_EQ(mts_sap_destroy(queue_, 341), 0);

  for (const uint32 sap : {341U, 0U, 0xFFFFFFFFU}) {
    errno = 0;
    EXPECT_EQ(mts_sap_destroy(queue_, sap), -1);
    EXPECT_EQ(errno, ENOENT);
  }
}

} // namespace
