// What only the first generation of stores does.
#include "contract/contract_platform.h"

namespace {

constexpr const char *k_uri = "nonvolatile:/cfg/0/bin/store";
constexpr const char *k_copy = "nonvolatile:/mnt/pss/copies/copy";

class pss_contract : public contract_test {
protected:
  static pss_service_t open(const char *uri) {
    syserr_t status = k_unwritten;
    const pss_service_t service = pss_open(uri, &status);
    EXPECT_EQ(status, 0U) << uri;
    return service;
  }

  static pss_service_t open_with(const std::vector<std::string> &keys) {
    EXPECT_EQ(pss_create(k_uri), 0U);
    const pss_service_t service = open(k_uri);
    for (const std::string &key : keys) {
      EXPECT_EQ(pss_store(service, 0, in(key), in("value of " + key)), 0U);
    }
    EXPECT_EQ(pss_close(service), 0U);
    return open(k_uri);
  }

  static std::vector<std::string> keys_of(const char *uri) {
    std::vector<std::string> keys;
    syserr_t status = 0;
    const pss_service_t service = open(uri);
    for (const pss_datum_t *key = pss_move2location(service, PSS_FIRST_KEY, &status);
         key != nullptr; key = pss_move2location(service, PSS_NEXT_KEY, &status)) {
      keys.push_back(out(key));
    }
    EXPECT_EQ(status, 0x40480003U);
    EXPECT_EQ(pss_close(service), 0U);
    return keys;
  }
};

TEST_F(pss_contract, create_makes_an_empty_store_and_its_parents) {
  EXPECT_EQ(pss_create("nonvolatile:/deep/down/in/folders/store"), 0U);

  EXPECT_EQ(keys_of("nonvolatile:/deep/down/in/folders/store"), std::vector<std::string>{});
}

TEST_F(pss_contract, create_fails_where_a_store_stands_and_leaves_it) {
  EXPECT_EQ(pss_close(open_with({"a"})), 0U);

  EXPECT_EQ(pss_create(k_uri), 0x40480001U);

  EXPECT_EQ(keys_of(k_uri), std::vector<std::string>{"a"});
}

TEST_F(pss_contract, create_refuses_a_bad_uri) {
  for (const std::string &uri : bad_uris()) {
    EXPECT_EQ(pss_create(uri.c_str()), 0x40480005U) << uri;
  }
  EXPECT_EQ(pss_create(nullptr), 0x40480005U);
  EXPECT_NE(pss_create(long_uri().c_str()), 0U);
}

TEST_F(pss_contract, a_store_works_the_same_with_either_flag) {
  const pss_service_t service = open_with({});

  EXPECT_EQ(pss_store(service, 0, in("0"), in("zero")), 0U);
  EXPECT_EQ(pss_store(service, 1, in("1"), in("one")), 0U);
  EXPECT_EQ(pss_store(service, 0, in("1"), in("new one")), 0U);
  EXPECT_EQ(pss_store(service, 1, in("0"), in("new zero")), 0U);

  syserr_t status = k_unwritten;
  EXPECT_EQ(out(pss_fetch(service, in("0"), &status)), "new zero");
  EXPECT_EQ(out(pss_fetch(service, in("1"), &status)), "new one");
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, move2key_goes_to_the_first_key_at_or_after) {
  const pss_service_t service = open_with({"b", "bb", "d"});
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "b"}, {"a", "b"}, {"b", "b"}, {"b!", "bb"}, {"ba", "bb"}, {"bbb", "d"}, {"d", "d"}};

  for (const auto &[key, found] : cases) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(out(pss_move2key(service, in(key), &status)), found) << key;
    EXPECT_EQ(status, 0U) << key;
    EXPECT_EQ(out(pss_getvalue(service, &status)), "value of " + found) << key;
  }

  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, steps_go_on_from_where_move2key_went) {
  const pss_service_t service = open_with({"a", "c", "e"});
  syserr_t status = k_unwritten;

  EXPECT_EQ(out(pss_move2key(service, in("b"), &status)), "c");
  EXPECT_EQ(out(pss_move2location(service, PSS_NEXT_KEY, &status)), "e");
  EXPECT_EQ(out(pss_move2key(service, in("b"), &status)), "c");
  EXPECT_EQ(out(pss_move2location(service, PSS_PREVIOUS_KEY, &status)), "a");

  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, move2key_behind_the_last_key_is_past_the_end) {
  const pss_service_t service = open_with({"a", "b"});
  syserr_t status = k_unwritten;
  EXPECT_EQ(out(pss_move2key(service, in("a"), &status)), "a");

  EXPECT_EQ(pss_move2key(service, in("b\x01"), &status), nullptr);

  EXPECT_EQ(status, 0x40480003U);
  EXPECT_EQ(pss_getvalue(service, &status), nullptr);
  EXPECT_EQ(status, 0x40480003U);
  EXPECT_EQ(pss_move2location(service, PSS_NEXT_KEY, &status), nullptr);
  EXPECT_EQ(out(pss_move2location(service, PSS_PREVIOUS_KEY, &status)), "b");
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, move2key_refuses_what_it_cannot_use) {
  const pss_service_t service = open_with({"a"});
  const pss_datum_t no_bytes = {nullptr, 3};
  syserr_t status = k_unwritten;

  EXPECT_EQ(pss_move2key(service, nullptr, &status), nullptr);
  EXPECT_EQ(status, 0x40480005U);
  EXPECT_EQ(pss_move2key(service, &no_bytes, &status), nullptr);
  EXPECT_EQ(status, 0x40480005U);
  EXPECT_EQ(pss_move2key(0, in("a"), &status), nullptr);
  EXPECT_EQ(status, 0x40480008U);
  EXPECT_EQ(out(pss_move2key(service, in("a"), nullptr)), "a");
  EXPECT_EQ(pss_close(service), 0U);
  EXPECT_EQ(pss_move2key(service, in("a"), &status), nullptr);
  EXPECT_EQ(status, 0x40480008U);
}

TEST_F(pss_contract, move2key_takes_keys_longer_than_any_that_is_stored) {
  const pss_service_t service = open_with({"a", "b"});
  syserr_t status = k_unwritten;

  EXPECT_EQ(out(pss_move2key(service, in(std::string(5000, 'a')), &status)), "b");
  EXPECT_EQ(pss_move2key(service, in(std::string(5000, 'b')), &status), nullptr);
  EXPECT_EQ(status, 0x40480003U);

  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, move2key_takes_a_key_that_it_returned) {
  const pss_service_t service = open_with({"a", "b"});
  syserr_t status = k_unwritten;

  const pss_datum_t *key = pss_move2key(service, in("aa"), &status);
  EXPECT_EQ(out(pss_move2key(service, key, &status)), "b");
  key = pss_move2location(service, PSS_FIRST_KEY, &status);
  EXPECT_EQ(out(pss_move2key(service, key, &status)), "a");

  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_key_stays_until_the_next_move_of_the_same_kind) {
  const pss_service_t service = open_with({"a", "b", "c"});
  syserr_t status = k_unwritten;
  const pss_datum_t *sought = pss_move2key(service, in("b"), &status);
  const pss_datum_t *moved = pss_move2location(service, PSS_NEXT_KEY, &status);

  EXPECT_EQ(out(pss_getvalue(service, &status)), "value of c");
  EXPECT_EQ(out(pss_fetch(service, in("a"), &status)), "value of a");
  EXPECT_EQ(pss_delete(service, moved), 0U);

  EXPECT_EQ(out(sought), "b");
  EXPECT_EQ(out(moved), "c");
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_location_that_there_is_not_is_refused) {
  const pss_service_t service = open_with({"a"});

  for (const int location : {5, 7}) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(pss_move2location(service, static_cast<pss_location_t>(location), &status), nullptr);
    EXPECT_EQ(status, 0x40480005U);
  }

  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, the_cursor_keeps_its_place_when_its_record_is_deleted) {
  const pss_service_t service = open_with({"a", "b", "c"});
  syserr_t status = k_unwritten;
  ASSERT_EQ(out(pss_move2key(service, in("b"), &status)), "b");

  ASSERT_EQ(pss_delete(service, in("b")), 0U);

  EXPECT_EQ(pss_getvalue(service, &status), nullptr);
  EXPECT_EQ(status, 0x40480003U);
  EXPECT_EQ(out(pss_move2location(service, PSS_NEXT_KEY, &status)), "c");
  EXPECT_EQ(out(pss_move2location(service, PSS_PREVIOUS_KEY, &status)), "a");
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_walk_may_delete_every_record_that_it_meets) {
  const pss_service_t service = open_with({"a", "b", "c", "d"});
  syserr_t status = k_unwritten;
  std::string met;

  for (const pss_datum_t *key = pss_move2location(service, PSS_FIRST_KEY, &status); key != nullptr;
       key = pss_move2location(service, PSS_NEXT_KEY, &status)) {
    met += out(key);
    ASSERT_EQ(pss_delete(service, key), 0U);
  }

  EXPECT_EQ(met, "abcd");
  EXPECT_EQ(status, 0x40480003U);
  EXPECT_EQ(pss_close(service), 0U);
  EXPECT_EQ(keys_of(k_uri), std::vector<std::string>{});
}

TEST_F(pss_contract, a_snapshot_holds_what_the_handle_sees) {
  const pss_service_t service = open_with({"a", "b"});
  ASSERT_EQ(pss_store(service, 1, in("c"), in("not yet closed")), 0U);
  ASSERT_EQ(pss_delete(service, in("a")), 0U);

  EXPECT_EQ(pss_snapshot(service, 0, k_copy), 0U);

  EXPECT_EQ(keys_of(k_copy), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_snapshot_is_a_store_of_its_own) {
  const pss_service_t service = open_with({"a"});
  ASSERT_EQ(pss_snapshot(service, 0, k_copy), 0U);

  ASSERT_EQ(pss_store(service, 1, in("b"), in("1")), 0U);
  ASSERT_EQ(pss_close(service), 0U);
  const pss_service_t copy = open(k_copy);
  ASSERT_EQ(pss_store(copy, 1, in("c"), in("1")), 0U);
  ASSERT_EQ(pss_close(copy), 0U);

  EXPECT_EQ(keys_of(k_uri), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(keys_of(k_copy), (std::vector<std::string>{"a", "c"}));
}

TEST_F(pss_contract, a_snapshot_replaces_what_stands_there) {
  ASSERT_EQ(pss_create(k_copy), 0U);
  const pss_service_t old = open(k_copy);
  ASSERT_EQ(pss_store(old, 1, in("old"), in("1")), 0U);
  ASSERT_EQ(pss_close(old), 0U);
  const pss_service_t service = open_with({"a"});

  EXPECT_EQ(pss_snapshot(service, 0, k_copy), 0U);

  EXPECT_EQ(keys_of(k_copy), std::vector<std::string>{"a"});
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_snapshot_does_not_replace_what_is_damaged) {
  ASSERT_EQ(pss_create(k_copy), 0U);
  contract_platform::damage_store(k_copy);
  const pss_service_t service = open_with({"a"});

  EXPECT_EQ(pss_snapshot(service, 0, k_copy), 0x40480009U);

  syserr_t status = k_unwritten;
  EXPECT_EQ(pss_open(k_copy, &status), 0U);
  EXPECT_EQ(status, 0x40480009U);
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_snapshot_onto_the_store_itself_loses_nothing) {
  const pss_service_t service = open_with({"a"});
  ASSERT_EQ(pss_store(service, 1, in("b"), in("1")), 0U);

  EXPECT_EQ(pss_snapshot(service, 0, k_uri), 0U);
  EXPECT_EQ(pss_close(service), 0U);

  EXPECT_EQ(keys_of(k_uri), (std::vector<std::string>{"a", "b"}));
}

TEST_F(pss_contract, a_snapshot_leaves_the_handle_and_its_cursor) {
  const pss_service_t service = open_with({"a", "b"});
  syserr_t status = k_unwritten;
  ASSERT_EQ(out(pss_move2location(service, PSS_FIRST_KEY, &status)), "a");

  EXPECT_EQ(pss_snapshot(service, 0, k_copy), 0U);

  EXPECT_EQ(out(pss_getvalue(service, &status)), "value of a");
  EXPECT_EQ(out(pss_move2location(service, PSS_NEXT_KEY, &status)), "b");
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_snapshot_takes_the_limits_along) {
  ASSERT_EQ(contract_platform::create_store(k_uri, {8, 100, 0, 5}), 0U);
  const pss_service_t service = open(k_uri);

  EXPECT_EQ(pss_snapshot(service, 0, k_copy), 0U);

  const pss_service_t copy = open(k_copy);
  EXPECT_EQ(pss_store(copy, 1, in("123456789"), in("v")), 0x40480006U);
  EXPECT_EQ(pss_close(copy), 0U);
  EXPECT_EQ(pss_close(service), 0U);
}

TEST_F(pss_contract, a_snapshot_goes_from_volatile_to_nonvolatile) {
  ASSERT_EQ(pss_create("volatile:/run/"), 0U);
  const pss_service_t service = open("volatile:/run/");
  ASSERT_EQ(pss_store(service, 1, in("a"), in("")), 0U);

  EXPECT_EQ(pss_snapshot(service, 0, "nonvolatile:/mnt/pss/run"), 0U);

  EXPECT_EQ(pss_close(service), 0U);
  EXPECT_EQ(keys_of("nonvolatile:/mnt/pss/run"), std::vector<std::string>{"a"});
}

TEST_F(pss_contract, a_snapshot_refuses_bad_targets_and_handles) {
  const pss_service_t service = open_with({"a"});

  for (const std::string &uri : bad_uris()) {
    EXPECT_EQ(pss_snapshot(service, 0, uri.c_str()), 0x40480005U) << uri;
  }
  EXPECT_EQ(pss_snapshot(service, 0, nullptr), 0x40480005U);
  EXPECT_NE(pss_snapshot(service, 0, long_uri().c_str()), 0U);
  EXPECT_EQ(pss_snapshot(0, 0, k_copy), 0x40480008U);
  EXPECT_EQ(pss_close(service), 0U);
  EXPECT_EQ(pss_snapshot(service, 0, k_copy), 0x40480008U);

  syserr_t status = k_unwritten;
  EXPECT_EQ(pss_open(k_copy, &status), 0U);
  EXPECT_EQ(status, 0x40480002U);
}

TEST_F(pss_contract, statuses_are_written_on_success_too) {
  const pss_service_t service = open_with({"a"});
  syserr_t status = k_unwritten;

  pss_fetch(service, in("a"), &status);
  EXPECT_EQ(status, 0U);
  status = k_unwritten;
  pss_move2key(service, in("a"), &status);
  EXPECT_EQ(status, 0U);
  status = k_unwritten;
  pss_move2location(service, PSS_FIRST_KEY, &status);
  EXPECT_EQ(status, 0U);
  status = k_unwritten;
  pss_getvalue(service, &status);
  EXPECT_EQ(status, 0U);
  EXPECT_EQ(pss_move2location(service, PSS_FIRST_KEY, nullptr) == nullptr, false);
  EXPECT_EQ(pss_close(service), 0U);
}

} // namespace
