// VRRP configurations cross release 4.2(1) in both directions: random ones, held against a model of
// what must stand in the stores afterwards.

#include "libdatamorph.h"

#include <algorithm>
#include <random>

#include "property/draws.h"
#include "support/library_fixture.h"

namespace {

using records_t = platform_double::records_t;

constexpr char k_mgr[] = "nonvolatile:/cfg/vdc_2/bin/vrrp-cfg_config_sav";
constexpr char k_eng[] = "nonvolatile:/cfg/vdc_2/bin/vrrp-eng_runtime_config";

// ---- Configurations

std::string number(uint32 value) { // as it is stored
  return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string big_endian(uint32 value) {
  std::string text = number(value);
  std::reverse(text.begin(), text.end());
  return text;
}

// The seed makes the bytes, so that a failing configuration shrinks by its numbers.
class configuration {
public:
  configuration(uint32 seed, int groups, int most_addresses, int others) : random_(seed) {
    for (int i = 0; i < groups; ++i) {
      add_group(most_addresses);
    }
    for (int i = 0; i < others; ++i) {
      add_other();
    }
    if (random_() % 4 != 0) {
      records[number(4)] = text(random_() % 40);
    }
  }

  records_t records;

  // Gives values of VR and VIP records other lengths than they should have.
  void spoil() {
    for (auto &[key, value] : records) {
      if ((key[0] == 1 || key[0] == 2) && random_() % 2 == 0) {
        value = (value + text(200)).substr(0, random_() % 160);
      }
    }
  }

private:
  std::string text(size_t length) {
    std::string made(length, '\0');
    for (char &byte : made) {
      byte = static_cast<char>(random_());
    }
    return made;
  }

  void add_group(int most_addresses) {
    const auto number_of = static_cast<uint32>(random_());
    const uint32 interface = number_of % 3 == 0 ? number_of : 0x1a000000 + number_of % 8 * 0x1000;
    const std::string vr_id = text(1);
    const uint32 type = number_of & 1 ? 1 : 2;
    records["\1" + big_endian(type) + vr_id + big_endian(interface)] =
        number(interface) + vr_id + number(type) + text(76);
    const auto addresses = random_() % static_cast<unsigned>(most_addresses + 1);
    for (size_t i = 0; i < addresses; ++i) {
      const std::string address = text(16);
      records["\2" + big_endian(type) + vr_id + big_endian(interface) + address] =
          number(interface) + vr_id + number(type) + address + text(8);
    }
  }

  void add_other() {
    std::string key = text(1 + random_() % 12);
    if (key[0] == 1 || key[0] == 2 || key == number(4)) {
      key[0] = 3;
    }
    records[key] = text(random_() % 200);
  }

  std::mt19937 random_;
};

configuration any_configuration(int spare_groups) {
  const int groups =
      spare_groups > 0 ? draws::in_range(0, spare_groups) : draws::mostly_below(20, 501);
  const uint32 seed = draws::any_number();
  const int most_addresses = draws::in_range(0, 5);
  return {seed, groups, most_addresses, draws::in_range(0, 8)};
}

// ---- The model

bool is_moved(const std::string &key) {
  return key[0] == 1 || key[0] == 2 || key == number(4);
}

records_t without_moved(records_t records) {
  std::erase_if(records, [](const auto &record) { return is_moved(record.first); });
  return records;
}

std::string resized(std::string value, size_t size) {
  value.resize(size, '\0');
  return value;
}

std::string enabled() {
  return resized("\1", 21);
}

// The records that a side takes over: VR values of this size, VIP values of 33 bytes.
records_t taken_over(const records_t &records, size_t vr_size) {
  records_t taken;
  for (const auto &[key, value] : records) {
    if (key[0] == 1 && value.size() >= 9) {
      taken[key] = resized(value.substr(0, 85), vr_size);
    } else if (key[0] == 2 && value.size() >= 25) {
      taken[key] = resized(value.substr(0, 33), 33);
    }
  }
  taken[number(4)] = enabled();
  return taken;
}

// ---- Conversions

using converter_t = decltype(&vrrp_mgr_data_morph_startup_for_upgrade);

// What a request for that side runs: its rows of the startup table. Not through the entry point,
// which syncs a line of the log for each.
struct side_t {
  converter_t first;
  converter_t second;
};
constexpr side_t k_manager = {vrrp_mgr_data_morph_startup_for_upgrade,
                              vrrp_mgr_data_morph_startup_for_downgrade};
constexpr side_t k_engine = {vrrp_eng_data_morph_startup_for_upgrade,
                             vrrp_eng_data_morph_startup_for_downgrade};

void request(const side_t &side, const char *to, const char *from) {
  HOLDS(side.first("/cfg/vdc_2", "system", to, from) == 0u);
  HOLDS(side.second("/cfg/vdc_2", "system", to, from) == 0u);
}

void go_up() {
  request(k_manager, "4.2(1)", "4.1(5)");
  request(k_engine, "4.2(1)", "4.1(5)");
}

void go_down() {
  request(k_engine, "4.1(5)", "4.2(1)");
  request(k_manager, "4.1(5)", "4.2(1)");
}

class vrrp_property_test : public library_fixture {
protected:
  void start(const records_t &records) {
    platform.reset();
    platform.set_store(k_mgr, records);
  }

  void nothing_else_stands() {
    HOLDS(platform.store_uris() == (std::vector<std::string>{k_mgr, k_eng}));
    HOLDS(platform.open_handles().empty());
  }
};

TEST_F(vrrp_property_test, there_and_back_is_the_identity) {
  EXPECT_TRUE(draws::check("up and down give every field back", [this] {
    const records_t before = any_configuration(0).records;
    start(before);
    go_up();
    nothing_else_stands();
    HOLDS(platform.records(k_mgr) == without_moved(before));
    records_t engine = before;
    for (const auto &[key, value] : taken_over(before, 117)) {
      engine[key] = value;
    }
    HOLDS(platform.records(k_eng) == engine);
    go_down();
    nothing_else_stands();
    records_t expected = before;
    expected[number(4)] = enabled();
    HOLDS(platform.records(k_mgr) == expected);
    HOLDS(platform.records(k_eng) == without_moved(before));
  }));
}

TEST_F(vrrp_property_test, values_of_any_length_are_taken_over_or_left_alone) {
  EXPECT_TRUE(draws::check("no record is lost, none is made up", [this] {
    configuration made = any_configuration(40);
    made.spoil();
    const records_t &before = made.records;
    start(before);
    go_up();
    records_t manager = before;
    manager.erase(number(4));
    records_t engine = before;
    for (const auto &[key, value] : taken_over(before, 117)) {
      manager.erase(key);
      engine[key] = value;
    }
    HOLDS(platform.records(k_mgr) == manager);
    HOLDS(platform.records(k_eng) == engine);
    go_down();
    for (const auto &[key, value] : taken_over(engine, 85)) {
      manager[key] = value;
      engine.erase(key);
    }
    HOLDS(platform.records(k_mgr) == manager);
    HOLDS(platform.records(k_eng) == engine);
  }));
}

TEST_F(vrrp_property_test, a_repeated_upgrade_of_the_manager_hands_over_what_is_left) {
  EXPECT_TRUE(draws::check("the hand-over store is replaced by what is left", [this] {
    const records_t before = any_configuration(40).records;
    start(before);
    request(k_manager, "4.2(1)", "4.1(5)");
    const std::string hand_over = "nonvolatile:/tmp/vrrp-startup-pss2/bin";
    HOLDS(platform.records(hand_over) == before);
    go_up();
    HOLDS(platform.records(k_mgr) == without_moved(before));
    records_t engine = without_moved(before);
    engine[number(4)] = enabled();
    HOLDS(platform.records(k_eng) == engine);
  }));
}

TEST_F(vrrp_property_test, between_two_old_releases_the_records_end_where_they_were) {
  EXPECT_TRUE(draws::check("both directions run, and nothing is lost", [this] {
    const records_t before = any_configuration(40).records;
    start(before);
    request(k_manager, "4.1(5)", "4.1(2)");
    request(k_engine, "4.1(5)", "4.1(2)");
    records_t expected = before;
    expected[number(4)] = enabled();
    HOLDS(platform.records(k_mgr) == expected);
    HOLDS(platform.store_uris() == (std::vector<std::string>{k_mgr}));
  }));
}

TEST_F(vrrp_property_test, from_4_2_1_on_nothing_is_touched) {
  EXPECT_TRUE(draws::check("no store is opened", [this] {
    const records_t before = any_configuration(20).records;
    start(before);
    platform.clear();
    request(k_manager, "5.0(2)", "4.2(1)");
    request(k_engine, "4.2(1)", "5.0(2)");
    HOLDS(platform.calls().empty());
    HOLDS(platform.records(k_mgr) == before);
  }));
}

} // namespace
