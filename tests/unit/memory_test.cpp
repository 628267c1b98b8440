// Conversions leave no memory behind: a leak is found without a sanitizer, too.

#include <map>

#include "libdatamorph_private.h"
#include "support/scarce_malloc.h"
#include "vrrp_fixture.h"

namespace {

class memory_test : public vrrp_fixture {
protected:
  static constexpr unsigned k_records = 100;

  static std::string number(unsigned value) { return hex(&value, 1); }

  // Both port managers' records, every other one with nothing to change; the index manager's; and
  // keys that need memory.
  void fill_port_managers() {
    for (unsigned i = 0; i < k_records; ++i) {
      platform.put("nonvolatile:/cfg/ethpm_runtime_info", bytes("33 06 1a 00 00" + number(i)),
                   bytes("01 00 10 00") + "ninebytes" + bytes(i % 2 == 0 ? "7c" : "01"));
    }
    const std::string callback = bytes("11 00 00 00 fd 00 00 00") + std::string(48, 'v');
    for (const char *ltl : {"da", "db", "de"}) {
      platform.put("nonvolatile:/cfg/pixm_runtime_info",
                   bytes("36 00 00 10") + bytes(ltl) + bytes("00 01"),
                   tlv_array_bytes({{2, callback}}));
    }
    platform.put("nonvolatile:/cfg/pixm_runtime_info", bytes("3a 00 00 00 00 00 01"), "cache");
    for (const size_t size : {100U, 2000U, 4000U}) {
      platform.put("nonvolatile:/cfg/ethpm_runtime_cfg",
                   bytes("65 14 1a 00 00 01") + std::string(size, 'k'), "v");
      platform.put("nonvolatile:/cfg/pixm_runtime_info", std::string(size, 'k'), "v");
    }
  }

  void fill_vrrp(const char *store,
                 std::string (*layout)(const std::string &, const std::string &)) {
    for (unsigned i = 0; i < k_records; ++i) {
      platform.put(store, vr_key(number(i), "00 00 00 01"), layout(number(i), "01 00 00 00"));
      platform.put(store, vip_key(number(i), "00 00 00 01", k_ipv4),
                   vip(number(i), "01 00 00 00", k_ipv4));
    }
    platform.put(store, bytes("ff") + std::string(4000, 'k'), "v");
  }

  // `acts`: how often the conversion calls some of the platform's functions.
  void expect_none_left(const std::function<void()> &fill, const std::function<void()> &convert,
                        const std::map<std::string, size_t> &acts) {
    platform.reset();
    const long before = scarce_malloc::live_blocks();
    fill();
    captured_stderr(convert);
    for (const auto &[function, times] : acts) {
      EXPECT_EQ(times, platform.calls(function).size()) << function;
    }
    platform.reset(); // what the double has handed out is its own
    EXPECT_EQ(before, scarce_malloc::live_blocks());
  }
};

TEST_F(memory_test, port_managers) {
  const auto fill = [this] { fill_port_managers(); };
  expect_none_left(fill, [] { ethpm_data_morph_gsync("/cfg", "system", "4.2(1)", "4.1(5)"); },
                   {{"pss2_store", 50}, {"pss2_delete", 3}});
  expect_none_left(fill, [] { ethpm_data_morph_gsync("/cfg", "system", "4.1(5)", "4.2(1)"); },
                   {{"pss2_store", 50}, {"pss2_delete", 3}});
  expect_none_left(fill, [] { pixm_data_morph_gsync("/cfg", "system", "4.1(1)", "4.2(3)"); },
                   {{"pss2_store", 3}, {"pss2_delete", 4}});
}

TEST_F(memory_test, port_managers_that_get_none) {
  const std::function<void()> conversions[] = {
      [] { ethpm_data_morph_gsync("/cfg", "system", "4.2(1)", "4.1(5)"); },
      [] { pixm_data_morph_gsync("/cfg", "system", "4.1(1)", "4.2(3)"); }};
  for (const auto &convert : conversions) {
    unsigned refused = 0;
    for (unsigned nth = 1; nth <= 3; ++nth) {
      expect_none_left([this] { fill_port_managers(); },
                       [&] {
                         scarce_malloc::refuse_nth(nth);
                         convert();
                         refused += scarce_malloc::relieve() ? 1 : 0;
                       },
                       {});
    }
    EXPECT_LE(1U, refused);
  }
}

TEST_F(memory_test, vrrp) {
  expect_none_left([this] { fill_vrrp(k_mgr, old_vr); },
                   [] {
                     vrrp_mgr_data_morph_startup_for_upgrade("/cfg", "s", "4.2(1)", "4.1(5)");
                     vrrp_eng_data_morph_startup_for_upgrade("/cfg", "s", "4.2(1)", "4.1(5)");
                   },
                   {{"pss_delete", 201}, {"pss_store", 201}, {"pss_snapshot", 2}});
  expect_none_left(
      [this] {
        fill_vrrp(k_eng, full_vr);
        platform.set_store(k_mgr);
      },
      [] {
        vrrp_eng_data_morph_startup_for_downgrade("/cfg", "s", "4.1(5)", "4.2(1)");
        vrrp_mgr_data_morph_startup_for_downgrade("/cfg", "s", "4.1(5)", "4.2(1)");
      },
      {{"pss_delete", 201}, {"pss_store", 201}, {"pss_snapshot", 1}});
}

TEST_F(memory_test, vrrp_whose_values_cannot_be_read) {
  expect_none_left(
      [this] {
        fill_vrrp(k_mgr, old_vr);
        platform.fail_from("pss_getvalue", 0x4048000B);
      },
      [] { vrrp_mgr_data_morph_startup_for_upgrade("/cfg", "s", "4.2(1)", "4.1(5)"); },
      {{"pss_getvalue", 1}, {"pss_delete", 1}});
}

} // namespace
