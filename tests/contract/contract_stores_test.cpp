// What stores of both generations do: records, handles, limits, durability.
#include "contract/contract_generations.h"

namespace {

template <typename Generation> class stores_contract : public generations_test<Generation> {};
TYPED_TEST_SUITE(stores_contract, generations);

TYPED_TEST(stores_contract, a_missing_store_is_not_opened_and_not_made) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    syserr_t status = k_unwritten;

    EXPECT_EQ(TypeParam::open("nonvolatile:/cfg/0/bin/none", &status), 0U);

    EXPECT_EQ(status, 0x40480002U);
  }
}

TYPED_TEST(stores_contract, records_are_inserted_replaced_fetched_and_deleted) {
  const uint32 service = this->open();

  EXPECT_EQ(this->fetched(service, "key"), "[40480003]");
  EXPECT_EQ(TypeParam::store(service, in("key"), in("old")), 0U);
  EXPECT_EQ(this->fetched(service, "key"), "old");
  EXPECT_EQ(TypeParam::store(service, in("key"), in("a longer new one")), 0U);
  EXPECT_EQ(this->fetched(service, "key"), "a longer new one");
  EXPECT_EQ(TypeParam::remove(service, in("key")), 0U);
  EXPECT_EQ(this->fetched(service, "key"), "[40480003]");
  EXPECT_EQ(TypeParam::remove(service, in("key")), 0x40480003U);
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, other_records_are_left_alone) {
  const uint32 service = this->open_with({"a", "b", "c"});

  EXPECT_EQ(TypeParam::store(service, in("b"), in("new")), 0U);
  EXPECT_EQ(TypeParam::remove(service, in("c")), 0U);

  EXPECT_EQ(this->fetched(service, "a"), "value of a");
  EXPECT_EQ(this->fetched(service, "b"), "new");
  EXPECT_EQ(this->walked(service), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, a_key_is_its_bytes_with_their_length) {
  const uint32 service = this->open();
  const std::string key("a\0b", 3);
  const std::string longer("a\0b\0", 4);
  const std::string content("\0\xff\0", 3);

  EXPECT_EQ(TypeParam::store(service, in(key), in(content)), 0U);

  EXPECT_EQ(this->fetched(service, key), content);
  EXPECT_EQ(this->fetched(service, "a"), "[40480003]");
  EXPECT_EQ(this->fetched(service, longer), "[40480003]");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, an_empty_value_has_bytes_to_point_to) {
  const uint32 service = this->open();
  ASSERT_EQ(TypeParam::store(service, in("key"), in("")), 0U);

  syserr_t status = k_unwritten;
  const pss_datum_t *found = TypeParam::fetch(service, in("key"), &status);

  EXPECT_EQ(status, 0U);
  ASSERT_NE(found, nullptr);
  EXPECT_NE(found->ptr, nullptr);
  EXPECT_EQ(found->siz, 0U);
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, an_empty_key_is_a_key_and_the_first_one) {
  const uint32 service = this->open_with({"a", ""});

  EXPECT_EQ(this->fetched(service, ""), "value of ");
  EXPECT_EQ(this->walked(service), (std::vector<std::string>{"", "a"}));
  syserr_t status = k_unwritten;
  const pss_datum_t *first = TypeParam::move(service, PSS_FIRST_KEY, &status);
  ASSERT_NE(first, nullptr);
  EXPECT_NE(first->ptr, nullptr);
  EXPECT_EQ(TypeParam::remove(service, in("")), 0U);
  EXPECT_EQ(this->fetched(service, ""), "[40480003]");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, an_empty_datum_needs_no_pointer) {
  const uint32 service = this->open();
  const pss_datum_t nothing = {nullptr, 0};

  EXPECT_EQ(TypeParam::store(service, &nothing, &nothing), 0U);

  EXPECT_EQ(this->fetched(service, ""), "");
  EXPECT_EQ(TypeParam::remove(service, &nothing), 0U);
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, a_null_datum_is_refused) {
  const uint32 service = this->open_with({"a"});
  const pss_datum_t no_bytes = {nullptr, 3};

  for (const pss_datum_t *bad : {static_cast<const pss_datum_t *>(nullptr), &no_bytes}) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(TypeParam::fetch(service, bad, &status), nullptr);
    EXPECT_EQ(status, 0x40480005U);
    EXPECT_EQ(TypeParam::store(service, bad, in("value")), 0x40480005U);
    EXPECT_EQ(TypeParam::store(service, in("key"), bad), 0x40480005U);
    EXPECT_EQ(TypeParam::remove(service, bad), 0x40480005U);
  }

  EXPECT_EQ(this->walked(service), std::vector<std::string>{"a"});
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, a_null_status_pointer_is_no_crash) {
  const uint32 service = this->open_with({"a"});

  const uint32 another = TypeParam::open(this->k_uri, nullptr);
  EXPECT_NE(another, 0U);
  EXPECT_EQ(TypeParam::open("nonvolatile:/none", nullptr), 0U);
  EXPECT_EQ(out(TypeParam::fetch(service, in("a"), nullptr)), "value of a");
  EXPECT_EQ(TypeParam::fetch(service, in("none"), nullptr), nullptr);
  EXPECT_EQ(TypeParam::getvalue(service, nullptr), nullptr);
  EXPECT_EQ(this->moved(service, PSS_FIRST_KEY), "a");
  EXPECT_EQ(out(TypeParam::getvalue(service, nullptr)), "value of a");

  EXPECT_EQ(TypeParam::close(another), 0U);
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, handle_0_and_a_closed_handle_are_bad) {
  const uint32 closed = this->open();
  ASSERT_EQ(TypeParam::close(closed), 0U);

  for (const uint32 service : {0U, closed, 0xFFFFFFFFU}) {
    EXPECT_EQ(this->fetched(service, "key"), "[40480008]");
    EXPECT_EQ(TypeParam::store(service, in("key"), in("value")), 0x40480008U);
    EXPECT_EQ(TypeParam::remove(service, in("key")), 0x40480008U);
    EXPECT_EQ(this->moved(service, PSS_FIRST_KEY), "[40480008]");
    EXPECT_EQ(this->value(service), "[40480008]");
    EXPECT_EQ(TypeParam::close(service), 0x40480008U);
  }
}

TYPED_TEST(stores_contract, a_closed_handle_does_not_come_back) {
  const uint32 first = this->open();
  ASSERT_EQ(TypeParam::close(first), 0U);

  for (int i = 0; i < 50; ++i) {
    const uint32 next = this->open();
    EXPECT_NE(next, first);
    EXPECT_EQ(TypeParam::close(next), 0U);
  }
}

TYPED_TEST(stores_contract, a_write_is_seen_by_its_handle_at_once_and_by_others_after_close) {
  const uint32 writer = this->open_with({"old"});

  ASSERT_EQ(TypeParam::store(writer, in("new"), in("1")), 0U);
  ASSERT_EQ(TypeParam::remove(writer, in("old")), 0U);
  EXPECT_EQ(this->walked(writer), std::vector<std::string>{"new"});
  ASSERT_EQ(TypeParam::close(writer), 0U);

  const uint32 reader = this->open();
  EXPECT_EQ(this->walked(reader), std::vector<std::string>{"new"});
  EXPECT_EQ(this->fetched(reader, "new"), "1");
  EXPECT_EQ(TypeParam::close(reader), 0U);
}

TYPED_TEST(stores_contract, a_handle_that_was_open_before_sees_what_another_has_closed) {
  const uint32 reader = this->open_with({"a"});
  EXPECT_EQ(this->walked(reader), std::vector<std::string>{"a"});
  const uint32 writer = this->open();
  ASSERT_EQ(TypeParam::store(writer, in("b"), in("1")), 0U);
  EXPECT_EQ(this->walked(reader), std::vector<std::string>{"a"});

  ASSERT_EQ(TypeParam::close(writer), 0U);

  EXPECT_EQ(this->walked(reader), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(TypeParam::close(reader), 0U);
}

TYPED_TEST(stores_contract, a_store_that_one_handle_writes_is_busy_for_another_writer) {
  const uint32 one = this->open_with({"a"});
  const uint32 two = this->open();
  ASSERT_EQ(TypeParam::store(one, in("b"), in("of one")), 0U);

  EXPECT_EQ(TypeParam::store(two, in("c"), in("of two")), 0x4048000DU);
  EXPECT_EQ(TypeParam::remove(two, in("a")), 0x4048000DU);
  EXPECT_EQ(this->fetched(two, "a"), "value of a");
  EXPECT_EQ(TypeParam::close(one), 0U);
  EXPECT_EQ(TypeParam::store(two, in("c"), in("of two")), 0U);
  EXPECT_EQ(TypeParam::close(two), 0U);

  const uint32 reader = this->open();
  EXPECT_EQ(this->walked(reader), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(TypeParam::close(reader), 0U);
}

TYPED_TEST(stores_contract, a_fetched_datum_stays_until_the_next_fetch_on_the_handle) {
  const uint32 service = this->open_with({"a", "b"});
  const uint32 another = this->open();
  syserr_t status = k_unwritten;
  const pss_datum_t *kept = TypeParam::fetch(service, in("a"), &status);
  const void *kept_bytes = kept->ptr;

  EXPECT_EQ(this->moved(service, PSS_LAST_KEY), "b");
  EXPECT_EQ(this->value(service), "value of b");
  EXPECT_EQ(this->fetched(another, "b"), "value of b");
  EXPECT_EQ(TypeParam::store(service, in("a"), in("another value")), 0U);
  EXPECT_EQ(TypeParam::remove(service, in("a")), 0U);
  EXPECT_EQ(TypeParam::close(another), 0U);

  EXPECT_EQ(kept->ptr, kept_bytes);
  EXPECT_EQ(out(kept), "value of a");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, a_value_at_the_cursor_stays_until_the_next_one_on_the_handle) {
  const uint32 service = this->open_with({"a", "b"});
  ASSERT_EQ(this->moved(service, PSS_FIRST_KEY), "a");
  syserr_t status = k_unwritten;
  const pss_datum_t *kept = TypeParam::getvalue(service, &status);

  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "b");
  EXPECT_EQ(this->fetched(service, "b"), "value of b");
  EXPECT_EQ(TypeParam::store(service, in("a"), in("x")), 0U);

  EXPECT_EQ(out(kept), "value of a");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, a_returned_datum_may_be_handed_in_again) {
  const uint32 service = this->open_with({"a"});
  ASSERT_EQ(TypeParam::store(service, in("value of a"), in("found by a value")), 0U);
  syserr_t status = k_unwritten;

  const pss_datum_t *value = TypeParam::fetch(service, in("a"), &status);
  EXPECT_EQ(TypeParam::store(service, value, value), 0U);
  EXPECT_EQ(this->fetched(service, "value of a"), "value of a");
  value = TypeParam::fetch(service, in("a"), &status);
  EXPECT_EQ(out(TypeParam::fetch(service, value, &status)), "value of a");
  const pss_datum_t *key = TypeParam::move(service, PSS_FIRST_KEY, &status);
  EXPECT_EQ(TypeParam::remove(service, key), 0U);

  EXPECT_EQ(this->walked(service), std::vector<std::string>{"value of a"});
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, keys_and_values_may_be_as_large_as_the_limits_and_no_larger) {
  const char *uri = "nonvolatile:/limited";
  ASSERT_EQ(contract_platform::create_store(uri, {8, 100, 0, 1}), 0U);
  const uint32 service = this->open(uri);

  EXPECT_EQ(TypeParam::store(service, in("12345678"), in(std::string(100, 'v'))), 0U);
  EXPECT_EQ(TypeParam::store(service, in("123456789"), in("v")), 0x40480006U);
  EXPECT_EQ(TypeParam::store(service, in("key"), in(std::string(101, 'v'))), 0x40480006U);

  EXPECT_EQ(this->fetched(service, "12345678"), std::string(100, 'v'));
  EXPECT_EQ(this->fetched(service, "123456789"), "[40480003]");
  EXPECT_EQ(this->walked(service), std::vector<std::string>{"12345678"});
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, a_store_made_without_limits_takes_4096_and_1048576_bytes) {
  const uint32 service = this->open();
  const std::string key(4096, 'k');
  const std::string content(1048576, 'v');

  EXPECT_EQ(TypeParam::store(service, in(key), in(content)), 0U);
  EXPECT_EQ(TypeParam::store(service, in(key + "k"), in("v")), 0x40480006U);
  EXPECT_EQ(TypeParam::store(service, in("key"), in(content + "v")), 0x40480006U);

  EXPECT_TRUE(this->fetched(service, key) == content);
  EXPECT_EQ(TypeParam::close(service), 0U);
}

// The size alone decides: the bytes behind a size that is no good may not be there.
TYPED_TEST(stores_contract, a_size_above_the_limit_is_refused_without_reading_the_bytes) {
  const uint32 service = this->open_with({"a"});
  char one = 'a';
  const pss_datum_t huge = {&one, 0xFFFFFFFF};

  EXPECT_EQ(TypeParam::store(service, &huge, in("v")), 0x40480006U);
  EXPECT_EQ(TypeParam::store(service, in("k"), &huge), 0x40480006U);
  syserr_t status = k_unwritten;
  EXPECT_EQ(TypeParam::fetch(service, &huge, &status), nullptr);
  EXPECT_TRUE(status == 0x40480003U || status == 0x40480006U) << status;
  const syserr_t removed = TypeParam::remove(service, &huge);
  EXPECT_TRUE(removed == 0x40480003U || removed == 0x40480006U) << removed;

  EXPECT_EQ(this->walked(service), std::vector<std::string>{"a"});
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(stores_contract, destroy_removes_the_store_and_says_when_there_is_none) {
  EXPECT_EQ(TypeParam::destroy(this->k_uri), 0U);

  syserr_t status = k_unwritten;
  EXPECT_EQ(TypeParam::open(this->k_uri, &status), 0U);
  EXPECT_EQ(status, 0x40480002U);
  EXPECT_EQ(TypeParam::destroy(this->k_uri), 0x40480002U);
}

TYPED_TEST(stores_contract, destroy_leaves_no_record_for_a_store_of_the_same_name) {
  const uint32 service = this->open_with({"a"});
  ASSERT_EQ(TypeParam::close(service), 0U);

  ASSERT_EQ(TypeParam::destroy(this->k_uri), 0U);
  ASSERT_EQ(pss_create(this->k_uri), 0U);

  const uint32 fresh = this->open();
  EXPECT_EQ(this->walked(fresh), std::vector<std::string>{});
  EXPECT_EQ(TypeParam::close(fresh), 0U);
}

TYPED_TEST(stores_contract, a_store_under_an_open_handle_may_be_destroyed) {
  const uint32 service = this->open_with({"a"});
  ASSERT_EQ(TypeParam::store(service, in("b"), in("1")), 0U);

  EXPECT_EQ(TypeParam::destroy(this->k_uri), 0U);

  this->fetched(service, "a");
  TypeParam::store(service, in("c"), in("1"));
  TypeParam::close(service);
  syserr_t status = k_unwritten;
  EXPECT_EQ(TypeParam::open(this->k_uri, &status), 0U);
  EXPECT_EQ(status, 0x40480002U);
}

TYPED_TEST(stores_contract, stores_with_different_names_are_different) {
  const std::vector<std::string> uris = {"volatile:/cfg/",      "volatile:/cfg",
                                         "volatile:/cfg/a",     "nonvolatile:/cfg/a",
                                         "nonvolatile:/cfg/a/", "nonvolatile:/cfg/a/b"};

  for (const std::string &uri : uris) {
    ASSERT_EQ(pss_create(uri.c_str()), 0U) << uri;
    const uint32 service = this->open(uri.c_str());
    ASSERT_EQ(TypeParam::store(service, in("uri"), in(uri)), 0U);
    ASSERT_EQ(TypeParam::close(service), 0U);
  }

  for (const std::string &uri : uris) {
    const uint32 service = this->open(uri.c_str());
    EXPECT_EQ(this->fetched(service, "uri"), uri);
    EXPECT_EQ(TypeParam::close(service), 0U);
    EXPECT_EQ(TypeParam::destroy(uri.c_str()), 0U);
  }
}

TYPED_TEST(stores_contract, a_bad_uri_is_refused) {
  for (const std::string &uri : bad_uris()) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(TypeParam::open(uri.c_str(), &status), 0U) << uri;
    EXPECT_EQ(status, 0x40480005U) << uri;
    EXPECT_EQ(TypeParam::destroy(uri.c_str()), 0x40480005U) << uri;
  }
  syserr_t status = k_unwritten;
  EXPECT_EQ(TypeParam::open(nullptr, &status), 0U);
  EXPECT_EQ(status, 0x40480005U);
  EXPECT_EQ(TypeParam::destroy(nullptr), 0x40480005U);
}

TYPED_TEST(stores_contract, a_uri_that_is_too_long_is_a_status) {
  syserr_t status = 0;

  EXPECT_EQ(TypeParam::open(long_uri().c_str(), &status), 0U);

  EXPECT_NE(status, 0U);
  EXPECT_NE(status, k_unwritten);
  EXPECT_NE(TypeParam::destroy(long_uri().c_str()), 0U);
}

TYPED_TEST(stores_contract, a_damaged_store_is_not_opened_but_can_be_destroyed) {
  contract_platform::damage_store(this->k_uri);
  syserr_t status = k_unwritten;

  EXPECT_EQ(TypeParam::open(this->k_uri, &status), 0U);

  EXPECT_EQ(status, 0x40480009U);
  EXPECT_EQ(TypeParam::destroy(this->k_uri), 0U);
  EXPECT_EQ(TypeParam::open(this->k_uri, &status), 0U);
  EXPECT_EQ(status, 0x40480002U);
}

} // namespace
