// The cursor of stores of both generations.
#include "contract/contract_generations.h"

namespace {

template <typename Generation> class cursor_contract : public generations_test<Generation> {};
TYPED_TEST_SUITE(cursor_contract, generations);

TYPED_TEST(cursor_contract, keys_come_in_byte_order_a_prefix_before_its_extensions) {
  const uint32 service = this->open_with(
      {"\xff", "b", "ab", "a", std::string("a\0", 2), "\x7f", "\x80", "aa", "B", "\x01\x01"});

  EXPECT_EQ(this->walked(service),
            (std::vector<std::string>{"\x01\x01", "B", "a", std::string("a\0", 2), "aa", "ab", "b",
                                      "\x7f", "\x80", "\xff"}));
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, it_goes_to_the_first_and_the_last_record_from_anywhere) {
  const uint32 service = this->open_with({"a", "b", "c"});

  EXPECT_EQ(this->moved(service, PSS_LAST_KEY), "c");
  EXPECT_EQ(this->value(service), "value of c");
  EXPECT_EQ(this->moved(service, PSS_FIRST_KEY), "a");
  EXPECT_EQ(this->value(service), "value of a");
  EXPECT_EQ(this->moved(service, PSS_LAST_KEY), "c");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, it_goes_both_ways_over_both_ends) {
  const uint32 service = this->open_with({"a", "b"});

  EXPECT_EQ(this->moved(service, PSS_FIRST_KEY), "a");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "b");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "[40480003]");
  EXPECT_EQ(this->value(service), "[40480003]");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "[40480003]");
  EXPECT_EQ(this->moved(service, PSS_PREVIOUS_KEY), "b");
  EXPECT_EQ(this->moved(service, PSS_PREVIOUS_KEY), "a");
  EXPECT_EQ(this->moved(service, PSS_PREVIOUS_KEY), "[40480003]");
  EXPECT_EQ(this->value(service), "[40480003]");
  EXPECT_EQ(this->moved(service, PSS_PREVIOUS_KEY), "[40480003]");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "a");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, a_fresh_one_stands_nowhere) {
  const uint32 forward = this->open_with({"a", "b"});
  const uint32 backward = this->open();

  EXPECT_EQ(this->value(forward), "[40480003]");
  EXPECT_EQ(this->moved(forward, PSS_NEXT_KEY), "a");
  EXPECT_EQ(this->moved(backward, PSS_PREVIOUS_KEY), "b");

  EXPECT_EQ(TypeParam::close(backward), 0U);
  EXPECT_EQ(TypeParam::close(forward), 0U);
}

TYPED_TEST(cursor_contract, the_null_key_takes_it_off) {
  const uint32 service = this->open_with({"a", "b", "c"});
  ASSERT_EQ(this->moved(service, PSS_FIRST_KEY), "a");
  ASSERT_EQ(this->moved(service, PSS_NEXT_KEY), "b");

  EXPECT_EQ(this->moved(service, PSS_NULL_KEY), "[40480003]");

  EXPECT_EQ(this->value(service), "[40480003]");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "a");
  EXPECT_EQ(this->moved(service, PSS_NULL_KEY), "[40480003]");
  EXPECT_EQ(this->moved(service, PSS_PREVIOUS_KEY), "c");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, an_empty_store_has_no_record_anywhere) {
  for (const pss_location_t location :
       {PSS_NULL_KEY, PSS_FIRST_KEY, PSS_LAST_KEY, PSS_NEXT_KEY, PSS_PREVIOUS_KEY, PSS_NEXT_KEY}) {
    const uint32 service = this->open();
    EXPECT_EQ(this->moved(service, location), "[40480003]") << location;
    EXPECT_EQ(this->value(service), "[40480003]") << location;
    EXPECT_EQ(TypeParam::close(service), 0U);
  }
}

TYPED_TEST(cursor_contract, every_handle_has_its_own) {
  const uint32 one = this->open_with({"a", "b"});
  const uint32 two = this->open();

  EXPECT_EQ(this->moved(one, PSS_LAST_KEY), "b");
  EXPECT_EQ(this->moved(two, PSS_FIRST_KEY), "a");
  EXPECT_EQ(this->value(one), "value of b");
  EXPECT_EQ(this->value(two), "value of a");

  EXPECT_EQ(TypeParam::close(one), 0U);
  EXPECT_EQ(TypeParam::close(two), 0U);
}

TYPED_TEST(cursor_contract, it_stays_where_it_is_when_records_are_stored) {
  const uint32 service = this->open_with({"b", "d"});
  ASSERT_EQ(this->moved(service, PSS_FIRST_KEY), "b");

  ASSERT_EQ(TypeParam::store(service, in("a"), in("1")), 0U);
  ASSERT_EQ(TypeParam::store(service, in("c"), in("2")), 0U);
  ASSERT_EQ(TypeParam::store(service, in("b"), in("3")), 0U);

  EXPECT_EQ(this->value(service), "3");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "c");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "d");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, deleting_another_record_leaves_it_alone) {
  const uint32 service = this->open_with({"a", "b", "c", "d"});
  ASSERT_EQ(this->moved(service, PSS_FIRST_KEY), "a");
  ASSERT_EQ(this->moved(service, PSS_NEXT_KEY), "b");

  ASSERT_EQ(TypeParam::remove(service, in("a")), 0U);
  ASSERT_EQ(TypeParam::remove(service, in("c")), 0U);

  EXPECT_EQ(this->value(service), "value of b");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "d");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, fetching_leaves_it_alone) {
  const uint32 service = this->open_with({"a", "b", "c"});
  ASSERT_EQ(this->moved(service, PSS_FIRST_KEY), "a");

  EXPECT_EQ(this->fetched(service, "c"), "value of c");
  EXPECT_EQ(this->fetched(service, "none"), "[40480003]");

  EXPECT_EQ(this->value(service), "value of a");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "b");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, a_record_that_another_handle_deleted_has_no_value_but_a_place) {
  const uint32 service = this->open_with({"a", "b", "c"});
  ASSERT_EQ(this->moved(service, PSS_FIRST_KEY), "a");
  ASSERT_EQ(this->moved(service, PSS_NEXT_KEY), "b");
  const uint32 another = this->open();
  ASSERT_EQ(TypeParam::remove(another, in("b")), 0U);
  ASSERT_EQ(TypeParam::close(another), 0U);

  EXPECT_EQ(this->value(service), "[40480003]");
  EXPECT_EQ(this->moved(service, PSS_NEXT_KEY), "c");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

TYPED_TEST(cursor_contract, a_walk_over_all_records_may_rewrite_each) {
  std::vector<std::string> keys;
  for (int i = 0; i < 200; ++i) {
    keys.push_back("key " + std::to_string(1000 + i));
  }
  const uint32 service = this->open_with(keys);

  size_t count = 0;
  for (std::string key = this->moved(service, PSS_FIRST_KEY); key != "[40480003]";
       key = this->moved(service, PSS_NEXT_KEY)) {
    ASSERT_LT(count, keys.size());
    EXPECT_EQ(key, keys[count]);
    EXPECT_EQ(this->value(service), "value of " + key);
    EXPECT_EQ(TypeParam::store(service, in(key), in("new " + key)), 0U);
    ++count;
  }

  EXPECT_EQ(count, keys.size());
  EXPECT_EQ(this->fetched(service, "key 1199"), "new key 1199");
  EXPECT_EQ(TypeParam::close(service), 0U);
}

} // namespace
