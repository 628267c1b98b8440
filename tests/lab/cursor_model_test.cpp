// A long run of random calls on two handles of one store, held against an ordered map that is
// stepped through the same calls: the cursor's records that are read ahead must never show.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "lab/lab_fixture.h"

namespace {

constexpr char k_uri[] = "volatile:/cfg/model";

// A handle as the interface describes it.
class model_handle {
public:
  explicit model_handle(contents *records) : records_(records) {}

  std::string move(pss_location_t to) {
    switch (to) {
    case PSS_FIRST_KEY:
      return stand(records_->begin(), place::past);
    case PSS_LAST_KEY:
      return to_last();
    case PSS_NEXT_KEY:
      return next();
    case PSS_PREVIOUS_KEY:
      return previous();
    default:
      place_ = place::nowhere;
      return "(none)";
    }
  }

  std::string move_to_key(const std::string &key) {
    return stand(records_->lower_bound(key), place::past);
  }

  std::string key() const { return stands() ? key_ : "(none)"; }
  std::string value() const { return stands() ? records_->at(key_) : "(none)"; }

  syserr_t erase(const std::string &key, bool follow) {
    const bool under = place_ == place::on && key_ == key;
    if (records_->erase(key) == 0) {
      return 0x40480003;
    }
    if (under && follow) {
      stand(records_->lower_bound(key), place::past);
    }
    return 0;
  }

private:
  enum class place { nowhere, before, on, past };

  bool stands() const { return place_ == place::on && records_->count(key_) != 0; }

  std::string stand(contents::const_iterator at, place none) {
    if (at == records_->end()) {
      place_ = none;
      return "(none)";
    }
    place_ = place::on;
    key_ = at->first;
    return key_;
  }

  std::string to_last() {
    return records_->empty() ? stand(records_->end(), place::before)
                             : stand(std::prev(records_->end()), place::before);
  }

  std::string next() {
    if (place_ == place::past) {
      return "(none)";
    }
    return place_ == place::on ? stand(records_->upper_bound(key_), place::past)
                               : stand(records_->begin(), place::past);
  }

  std::string previous() {
    if (place_ == place::before) {
      return "(none)";
    }
    if (place_ != place::on) {
      return to_last();
    }
    const auto at = records_->lower_bound(key_);
    return at == records_->begin() ? stand(records_->end(), place::before)
                                   : stand(std::prev(at), place::before);
  }

  contents *records_;
  place place_ = place::nowhere;
  std::string key_;
};

class walker {
public:
  walker(unsigned seed, unsigned keys, unsigned write_share)
      : random_(seed), keys_(keys), write_share_(write_share), model_(&records_) {}

  void run(int calls) {
    ASSERT_EQ(pss_create(k_uri), 0U);
    service_ = open(k_uri);
    for (int i = 0; i < calls && !testing::Test::HasFailure(); ++i) {
      one_call();
    }
    EXPECT_EQ(pss_close(service_), 0U);
    EXPECT_EQ(read(k_uri), records_);
  }

private:
  std::string some_key() {
    std::string key = std::to_string(random_() % keys_);
    return key == "0" ? "" : key;
  }

  void one_call() {
    const auto kind = random_() % 100;
    if (kind < write_share_) {
      write();
    } else if (kind < write_share_ + 35) {
      const auto to = static_cast<pss_location_t>(PSS_NEXT_KEY);
      EXPECT_EQ(move(service_, to), model_.move(to));
    } else if (kind < write_share_ + 45) {
      const auto to = static_cast<pss_location_t>(random_() % 5);
      EXPECT_EQ(move(service_, to), model_.move(to));
    } else if (kind < write_share_ + 50) {
      seek();
    } else {
      syserr_t status = 0;
      EXPECT_EQ(text(pss2_getkey(service_, &status)), model_.key());
      EXPECT_EQ(text(pss2_getvalue(service_, &status)), model_.value());
    }
  }

  void write() {
    if (random_() % 20 == 0) {
      write_in_order();
      return;
    }
    const std::string key =
        random_() % 3 == 0 && model_.key() != "(none)" ? model_.key() : some_key();
    const pss_datum_t key_datum = datum(key);
    switch (random_() % 4) {
    case 0:
      EXPECT_EQ(pss_delete(service_, &key_datum), model_.erase(key, false));
      break;
    case 1:
      EXPECT_EQ(pss2_delete(service_, &key_datum, 1), model_.erase(key, true));
      break;
    default:
      const std::string value(random_() % 40, static_cast<char>('a' + random_() % 26));
      EXPECT_EQ(put(service_, key, value), 0U);
      records_[key] = value;
    }
  }

  // Long runs of writes from one key on, mostly of one kind, as a conversion does them.
  void write_in_order() {
    const auto deletes = random_() % 101; // percent; of the other writes half change nothing
    std::string key = some_key();
    for (auto n = random_() % 200; n > 0 && key.size() < 60; --n) {
      const auto stands = records_.lower_bound(key);
      const bool there = stands != records_.end() && random_() % 16 != 0;
      if (there) {
        key = stands->first;
      } else {
        key += "1";
      }
      if (random_() % 100 < deletes) {
        EXPECT_EQ(remove(service_, key), model_.erase(key, false));
      } else {
        const bool same = there && random_() % 2 == 0;
        const std::string value = same ? stands->second : std::string(random_() % 40, 'w');
        EXPECT_EQ(put(service_, key, value), 0U);
        records_[key] = value;
      }
      key += '\0';
    }
  }

  void seek() {
    const std::string key = some_key();
    const pss_datum_t key_datum = datum(key);
    syserr_t status = 0;
    EXPECT_EQ(text(pss_move2key(service_, &key_datum, &status)), model_.move_to_key(key));
  }

  std::mt19937 random_;
  unsigned keys_;
  unsigned write_share_;
  contents records_;
  model_handle model_;
  pss_service_t service_ = 0;
};

class cursor_model : public lab_test,
                     public testing::WithParamInterface<std::tuple<unsigned, unsigned>> {};

TEST_P(cursor_model, random_calls_do_what_an_ordered_map_does) {
  const auto [keys, write_share] = GetParam();
  for (unsigned seed = 1; seed <= 5; ++seed) {
    walker(seed, keys, write_share).run(20000);
    ASSERT_EQ(pss_destroy(k_uri), 0U);
  }
}

INSTANTIATE_TEST_SUITE_P(sizes, cursor_model,
                         testing::Combine(testing::Values(3U, 40U, 3000U),
                                          testing::Values(5U, 20U, 45U)));

// Keys that are each other's beginnings, with the bytes that sort first and last.
TEST_F(lab_test, keys_are_walked_in_the_order_of_their_bytes) {
  const std::string zero(1, '\0');
  const contents records = {
      {"", "empty"},        {zero, "00"}, {zero + zero, "0000"},    {"a", "a"},
      {"a" + zero, "a 00"}, {"aa", "aa"}, {"\x7f", "last of text"}, {"\x80", "80"},
      {"\xff\xff", "ff ff"}};
  make(k_uri, records);
  const pss_service_t service = open(k_uri);

  std::vector<std::string> keys;
  for (std::string key = move(service, PSS_FIRST_KEY); key != "(none)";
       key = move(service, PSS_NEXT_KEY)) {
    keys.push_back(key);
  }

  EXPECT_EQ(keys, (std::vector<std::string>{"", zero, zero + zero, "a", "a" + zero, "aa", "\x7f",
                                            "\x80", "\xff\xff"}));
}

TEST_F(lab_test, a_walk_sees_what_another_handle_committed_meanwhile) {
  contents records;
  for (int i = 100; i < 200; ++i) {
    records["k" + std::to_string(i)] = "old";
  }
  make(k_uri, records);
  const pss_service_t walking = open(k_uri);
  for (int i = 0; i < 20; ++i) {
    move(walking, i == 0 ? PSS_FIRST_KEY : PSS_NEXT_KEY);
  }

  const pss_service_t writing = open(k_uri);
  ASSERT_EQ(remove(writing, "k119"), 0U);
  ASSERT_EQ(remove(writing, "k120"), 0U);
  ASSERT_EQ(put(writing, "k121", "new"), 0U);
  ASSERT_EQ(pss_close(writing), 0U);

  syserr_t status = 0;
  EXPECT_EQ(text(pss2_getvalue(walking, &status)), "(none)");
  EXPECT_EQ(move(walking, PSS_NEXT_KEY), "k121");
  EXPECT_EQ(text(pss2_getvalue(walking, &status)), "new");
  EXPECT_EQ(move(walking, PSS_PREVIOUS_KEY), "k118");
}

// Large values make the runs short; the cursor's own record may be pushed out of one.
TEST_F(lab_test, large_values_are_walked_like_others) {
  contents records;
  for (int i = 0; i < 12; ++i) {
    records["k" + std::to_string(10 + i)] = std::string(200'000, static_cast<char>('a' + i));
  }
  make(k_uri, records);
  const pss_service_t service = open(k_uri);

  for (int i = 0; i < 12; ++i) {
    const std::string key = "k" + std::to_string(10 + i);
    ASSERT_EQ(move(service, i == 0 ? PSS_FIRST_KEY : PSS_NEXT_KEY), key);
    records[key + "x"] = std::string(300'000, 'x');
    ASSERT_EQ(put(service, key + "x", records[key + "x"]), 0U);
    ASSERT_EQ(move(service, PSS_NEXT_KEY), key + "x");
    syserr_t status = 0;
    ASSERT_EQ(text(pss2_getvalue(service, &status)), records[key + "x"]);
  }
  ASSERT_EQ(pss_close(service), 0U);
  EXPECT_EQ(read(k_uri), records);
}

} // namespace
