// What only the second generation of stores does.
#include "contract/contract_platform.h"

namespace {

constexpr const char *k_uri = "volatile:/cfg/0/bin/store";
constexpr const char *k_file = "/mnt/pss/folder/store.snp";
constexpr uint32 k_all_modes = PSS2_MODE_READ | PSS2_MODE_WRITE | PSS2_MODE_CREATE;

class pss2_contract : public contract_test {
protected:
  static pss2_service_t open(const char *uri = k_uri, uint32 mode = k_all_modes) {
    syserr_t status = k_unwritten;
    const pss2_service_t service = pss2_open(uri, mode, SRVUUID_PSS_HELPER, 0, 0, &status);
    EXPECT_EQ(status, 0U) << uri;
    EXPECT_NE(service, 0U) << uri;
    return service;
  }

  static pss2_service_t open_with(const std::vector<std::string> &keys, const char *uri = k_uri) {
    const pss2_service_t service = open(uri);
    for (const std::string &key : keys) {
      EXPECT_EQ(pss2_store(service, in(key), in("value of " + key)), 0U);
    }
    return service;
  }

  static syserr_t move(pss2_service_t service, pss_location_t location) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(pss2_move2location(&service, 1, location, &status), 0U);
    return status;
  }

  static std::string key_of(pss2_service_t service) {
    syserr_t status = k_unwritten;
    const pss_datum_t *key = pss2_getkey(service, &status);
    EXPECT_EQ(status, key == nullptr ? 0x40480003U : 0U);
    return out(key);
  }

  static std::string value_of(pss2_service_t service) {
    syserr_t status = k_unwritten;
    const pss_datum_t *value = pss2_getvalue(service, &status);
    EXPECT_EQ(status, value == nullptr ? 0x40480003U : 0U);
    return out(value);
  }

  static std::vector<std::string> keys_of(pss2_service_t service) {
    std::vector<std::string> keys;
    for (syserr_t status = move(service, PSS_FIRST_KEY); status == 0;
         status = move(service, PSS_NEXT_KEY)) {
      keys.push_back(key_of(service));
    }
    return keys;
  }
};

// ---- Opening ------------------------------------------------------------------------------------

TEST_F(pss2_contract, open_makes_a_missing_store_only_when_asked_to) {
  syserr_t status = k_unwritten;
  EXPECT_EQ(pss2_open(k_uri, 0x3, SRVUUID_PIXM, 0, 0, &status), 0U);
  EXPECT_EQ(status, 0x40480002U);

  status = k_unwritten;
  const pss2_service_t service = pss2_open(k_uri, 0x13, SRVUUID_PIXM, 0, 0, &status);

  EXPECT_EQ(status, 0U);
  EXPECT_NE(service, 0U);
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss2_close(open(k_uri, 0x3)), 0U);
}

TEST_F(pss2_contract, open_with_create_keeps_the_records_of_a_store_that_stands) {
  ASSERT_EQ(pss2_close(open_with({"a"})), 0U);

  const pss2_service_t service = open(k_uri, 0x13);

  EXPECT_EQ(keys_of(service), std::vector<std::string>{"a"});
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, a_handle_without_the_write_bit_writes_nothing) {
  ASSERT_EQ(pss2_close(open_with({"a"})), 0U);
  const pss2_service_t service = open(k_uri, 0x1);

  EXPECT_EQ(pss2_store(service, in("b"), in("1")), 0x4048000AU);
  EXPECT_EQ(pss2_delete(service, in("a"), 0), 0x4048000AU);

  EXPECT_EQ(keys_of(service), std::vector<std::string>{"a"});
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, open_needs_one_of_the_read_and_the_write_bit) {
  ASSERT_EQ(pss2_close(open()), 0U);

  for (const uint32 mode : {0U, 0x10U}) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(pss2_open(k_uri, mode, SRVUUID_PIXM, 0, 0, &status), 0U);
    EXPECT_EQ(status, 0x40480005U);
  }
}

TEST_F(pss2_contract, open_with_create_refuses_a_bad_uri) {
  std::vector<std::string> uris = bad_uris();

  for (const std::string &uri : uris) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(pss2_open(uri.c_str(), 0x13, SRVUUID_PIXM, 0, 0, &status), 0U) << uri;
    EXPECT_EQ(status, 0x40480005U) << uri;
  }
  syserr_t status = 0;
  EXPECT_EQ(pss2_open(nullptr, 0x13, SRVUUID_PIXM, 0, 0, &status), 0U);
  EXPECT_EQ(status, 0x40480005U);
  EXPECT_EQ(pss2_open(long_uri().c_str(), 0x13, SRVUUID_PIXM, 0, 0, &status), 0U);
  EXPECT_NE(status, 0U);
  EXPECT_EQ(pss2_open(nullptr, 0x13, SRVUUID_PIXM, 0, 0, nullptr), 0U);
}

TEST_F(pss2_contract, get_params_gives_the_stores_parameters) {
  ASSERT_EQ(contract_platform::create_store(k_uri, {12, 345, 67, 8}), 0U);
  const pss2_service_t service = open();
  pss2_nonvol_params params = {};

  EXPECT_EQ(pss2_get_params(service, &params), 0U);

  EXPECT_EQ(params.max_key_size, 12U);
  EXPECT_EQ(params.max_value_size, 345U);
  EXPECT_EQ(params.max_node_keys, 67U);
  EXPECT_EQ(params.version, 8U);
  EXPECT_EQ(pss2_get_params(service, nullptr), 0x40480005U);
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss2_get_params(service, &params), 0x40480008U);
  EXPECT_EQ(pss2_get_params(0, &params), 0x40480008U);
}

TEST_F(pss2_contract, a_store_made_by_open_has_the_usual_parameters) {
  const pss2_service_t service = open();
  pss2_nonvol_params params = {};

  EXPECT_EQ(pss2_get_params(service, &params), 0U);

  EXPECT_EQ(params.max_key_size, 4096U);
  EXPECT_EQ(params.max_value_size, 1048576U);
  EXPECT_EQ(params.max_node_keys, 0U);
  EXPECT_EQ(params.version, 1U);
  EXPECT_EQ(pss2_close(service), 0U);
}

// ---- The cursor ---------------------------------------------------------------------------------

TEST_F(pss2_contract, move2location_moves_each_handle_and_tells_for_each) {
  const pss2_service_t full = open_with({"a", "b"}, "volatile:/full");
  const pss2_service_t empty = open("volatile:/empty");
  const pss2_service_t closed = open("volatile:/closed");
  ASSERT_EQ(pss2_close(closed), 0U);
  const pss2_service_t one = open_with({"c"}, "volatile:/one");
  pss2_service_t services[] = {full, empty, closed, 0, one};
  syserr_t statuses[] = {k_unwritten, k_unwritten, k_unwritten, k_unwritten, k_unwritten};

  EXPECT_EQ(pss2_move2location(services, 5, PSS_LAST_KEY, statuses), 0U);

  EXPECT_EQ(statuses[0], 0U);
  EXPECT_EQ(statuses[1], 0x40480003U);
  EXPECT_EQ(statuses[2], 0x40480008U);
  EXPECT_EQ(statuses[3], 0x40480008U);
  EXPECT_EQ(statuses[4], 0U);
  EXPECT_EQ(key_of(full), "b");
  EXPECT_EQ(key_of(one), "c");
  for (const pss2_service_t service : {full, empty, one}) {
    EXPECT_EQ(pss2_close(service), 0U);
  }
}

TEST_F(pss2_contract, move2location_moves_only_as_many_as_it_is_told) {
  pss2_service_t services[] = {open_with({"a"}, "volatile:/1"), open_with({"a"}, "volatile:/2")};
  syserr_t statuses[] = {k_unwritten, k_unwritten};

  EXPECT_EQ(pss2_move2location(services, 0, PSS_FIRST_KEY, statuses), 0U);
  EXPECT_EQ(key_of(services[0]), "(none)");
  EXPECT_EQ(pss2_move2location(services, 1, PSS_FIRST_KEY, statuses), 0U);

  EXPECT_EQ(key_of(services[0]), "a");
  EXPECT_EQ(key_of(services[1]), "(none)");
  EXPECT_EQ(statuses[1], k_unwritten);
  EXPECT_EQ(pss2_close(services[0]), 0U);
  EXPECT_EQ(pss2_close(services[1]), 0U);
}

TEST_F(pss2_contract, move2location_refuses_null_lists_and_unknown_locations) {
  pss2_service_t service = open_with({"a"});
  syserr_t status = k_unwritten;

  EXPECT_EQ(pss2_move2location(nullptr, 1, PSS_FIRST_KEY, &status), 0x40480005U);
  EXPECT_EQ(pss2_move2location(&service, 1, PSS_FIRST_KEY, nullptr), 0x40480005U);
  EXPECT_EQ(pss2_move2location(&service, 1, static_cast<pss_location_t>(5), &status), 0x40480005U);

  EXPECT_EQ(key_of(service), "(none)");
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, getkey_and_getvalue_need_a_good_handle) {
  const pss2_service_t closed = open();
  ASSERT_EQ(pss2_close(closed), 0U);

  for (const pss2_service_t service : {0U, closed}) {
    syserr_t status = k_unwritten;
    EXPECT_EQ(pss2_getkey(service, &status), nullptr);
    EXPECT_EQ(status, 0x40480008U);
    EXPECT_EQ(pss2_getkey(service, nullptr), nullptr);
    status = k_unwritten;
    EXPECT_EQ(pss2_getvalue(service, &status), nullptr);
    EXPECT_EQ(status, 0x40480008U);
  }
}

TEST_F(pss2_contract, a_key_stays_until_the_next_getkey_on_the_handle) {
  const pss2_service_t service = open_with({"a", "b"});
  ASSERT_EQ(move(service, PSS_FIRST_KEY), 0U);
  syserr_t status = k_unwritten;
  const pss_datum_t *kept = pss2_getkey(service, &status);
  const void *kept_bytes = kept->ptr;

  EXPECT_EQ(move(service, PSS_NEXT_KEY), 0U);
  EXPECT_EQ(value_of(service), "value of b");
  EXPECT_EQ(out(pss2_fetch(service, kept, &status)), "value of a");
  EXPECT_EQ(pss2_delete(service, kept, 0), 0U);

  EXPECT_EQ(kept->ptr, kept_bytes);
  EXPECT_EQ(out(kept), "a");
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, deleting_under_the_cursor_moves_it_onto_the_following_record) {
  const pss2_service_t service = open_with({"a", "b", "c"});
  ASSERT_EQ(move(service, PSS_FIRST_KEY), 0U);
  syserr_t status = k_unwritten;

  EXPECT_EQ(pss2_delete(service, pss2_getkey(service, &status), 0), 0U);

  EXPECT_EQ(key_of(service), "b");
  EXPECT_EQ(value_of(service), "value of b");
  EXPECT_EQ(move(service, PSS_NEXT_KEY), 0U);
  EXPECT_EQ(key_of(service), "c");
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, deleting_the_last_record_under_the_cursor_moves_it_past_the_end) {
  const pss2_service_t service = open_with({"a", "b"});
  ASSERT_EQ(move(service, PSS_LAST_KEY), 0U);

  EXPECT_EQ(pss2_delete(service, in("b"), 0), 0U);

  EXPECT_EQ(key_of(service), "(none)");
  EXPECT_EQ(value_of(service), "(none)");
  EXPECT_EQ(move(service, PSS_NEXT_KEY), 0x40480003U);
  EXPECT_EQ(move(service, PSS_PREVIOUS_KEY), 0U);
  EXPECT_EQ(key_of(service), "a");
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, deleting_until_nothing_is_under_the_cursor_empties_the_store) {
  const pss2_service_t service = open_with({"a", "b", "c", "d"});
  ASSERT_EQ(move(service, PSS_FIRST_KEY), 0U);
  syserr_t status = 0;
  std::string met;

  while (const pss_datum_t *key = pss2_getkey(service, &status)) {
    met += out(key);
    ASSERT_EQ(pss2_delete(service, key, 0), 0U);
  }

  EXPECT_EQ(met, "abcd");
  EXPECT_EQ(status, 0x40480003U);
  EXPECT_EQ(pss2_close(service), 0U);
  const pss2_service_t again = open();
  EXPECT_EQ(keys_of(again), std::vector<std::string>{});
  EXPECT_EQ(pss2_close(again), 0U);
}

// ---- Flat files ---------------------------------------------------------------------------------

TEST_F(pss2_contract, a_flat_file_takes_all_records_to_another_store) {
  const pss2_service_t service = open_with({"a", std::string("\0\xff", 2), ""});
  ASSERT_EQ(pss2_store(service, in("large"), in(std::string(100000, 'v'))), 0U);
  ASSERT_EQ(pss2_store(service, in("no value"), in("")), 0U);

  EXPECT_EQ(pss2_kernel2file(service, k_file, 0), 0U);
  const pss2_service_t another = open("nonvolatile:/another");
  EXPECT_EQ(pss2_file2kernel(k_file, another, 0), 0U);

  EXPECT_EQ(keys_of(another), keys_of(service));
  EXPECT_EQ(keys_of(another).size(), 5U);
  syserr_t status = k_unwritten;
  EXPECT_EQ(out(pss2_fetch(another, in("large"), &status)), std::string(100000, 'v'));
  EXPECT_EQ(out(pss2_fetch(another, in("no value"), &status)), "");
  EXPECT_EQ(pss2_close(another), 0U);
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, a_flat_file_of_an_empty_store_is_a_file) {
  const pss2_service_t service = open();

  EXPECT_EQ(pss2_kernel2file(service, k_file, 0), 0U);

  EXPECT_TRUE(switch_root::exists(k_file));
  EXPECT_EQ(pss2_file2kernel(k_file, service, 0), 0U);
  EXPECT_EQ(keys_of(service), std::vector<std::string>{});
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, kernel2file_replaces_what_stands_there) {
  switch_root::write_file(k_file, std::string(100000, 'x'));
  const pss2_service_t service = open_with({"a"});

  EXPECT_EQ(pss2_kernel2file(service, k_file, 0), 0U);

  const pss2_service_t another = open("volatile:/another");
  EXPECT_EQ(pss2_file2kernel(k_file, another, 0), 0U);
  EXPECT_EQ(keys_of(another), std::vector<std::string>{"a"});
  EXPECT_EQ(pss2_close(another), 0U);
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, loaded_records_are_durable_after_close) {
  const pss2_service_t source = open_with({"a", "b"});
  ASSERT_EQ(pss2_kernel2file(source, k_file, 0), 0U);
  ASSERT_EQ(pss2_close(source), 0U);
  const pss2_service_t target = open("nonvolatile:/target");
  ASSERT_EQ(pss2_file2kernel(k_file, target, 0), 0U);

  ASSERT_EQ(pss2_close(target), 0U);

  const pss2_service_t again = open("nonvolatile:/target", 0x1);
  EXPECT_EQ(keys_of(again), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(pss2_close(again), 0U);
}

TEST_F(pss2_contract, loading_replaces_records_of_the_same_key) {
  const pss2_service_t service = open_with({"a"});
  ASSERT_EQ(pss2_kernel2file(service, k_file, 0), 0U);
  ASSERT_EQ(pss2_store(service, in("a"), in("newer")), 0U);

  EXPECT_EQ(pss2_file2kernel(k_file, service, 0), 0U);

  syserr_t status = k_unwritten;
  EXPECT_EQ(out(pss2_fetch(service, in("a"), &status)), "value of a");
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, loading_leaves_other_records_and_the_cursor) {
  const pss2_service_t source = open_with({"b"}, "volatile:/source");
  ASSERT_EQ(pss2_kernel2file(source, k_file, 0), 0U);
  const pss2_service_t service = open_with({"a", "c"});
  ASSERT_EQ(move(service, PSS_FIRST_KEY), 0U);

  EXPECT_EQ(pss2_file2kernel(k_file, service, 0), 0U);

  EXPECT_EQ(key_of(service), "a");
  EXPECT_EQ(move(service, PSS_NEXT_KEY), 0U);
  EXPECT_EQ(key_of(service), "b");
  EXPECT_EQ(keys_of(service), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss2_close(source), 0U);
}

TEST_F(pss2_contract, a_flat_file_holds_what_the_handle_sees_and_leaves_its_cursor) {
  const pss2_service_t service = open_with({"a", "b", "c"});
  ASSERT_EQ(pss2_close(service), 0U);
  const pss2_service_t writer = open();
  ASSERT_EQ(pss2_delete(writer, in("a"), 0), 0U);
  ASSERT_EQ(move(writer, PSS_FIRST_KEY), 0U);

  EXPECT_EQ(pss2_kernel2file(writer, k_file, 0), 0U);

  EXPECT_EQ(key_of(writer), "b");
  const pss2_service_t another = open("volatile:/another");
  EXPECT_EQ(pss2_file2kernel(k_file, another, 0), 0U);
  EXPECT_EQ(keys_of(another), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(pss2_close(another), 0U);
  EXPECT_EQ(pss2_close(writer), 0U);
}

TEST_F(pss2_contract, a_missing_flat_file_is_a_status) {
  const pss2_service_t service = open_with({"kept"});

  EXPECT_EQ(pss2_file2kernel("/mnt/pss/none.snp", service, 0), 0x40480002U);

  EXPECT_EQ(keys_of(service), std::vector<std::string>{"kept"});
  EXPECT_EQ(pss2_close(service), 0U);
}

TEST_F(pss2_contract, a_flat_file_with_any_byte_changed_is_damaged) {
  const pss2_service_t source = open_with({"a", "bc"}, "volatile:/source");
  ASSERT_EQ(pss2_kernel2file(source, k_file, 0), 0U);
  const std::string good = switch_root::read_file(k_file);
  const pss2_service_t service = open_with({"kept"});

  for (size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x40);
    switch_root::write_file(k_file, bad);
    ASSERT_EQ(pss2_file2kernel(k_file, service, 0), 0x40480009U) << "byte " << i;
    ASSERT_EQ(keys_of(service), std::vector<std::string>{"kept"}) << "byte " << i;
  }

  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss2_close(source), 0U);
}

TEST_F(pss2_contract, a_flat_file_that_is_cut_or_too_long_is_damaged) {
  const pss2_service_t source = open_with({"a", "bc"}, "volatile:/source");
  ASSERT_EQ(pss2_kernel2file(source, k_file, 0), 0U);
  const std::string good = switch_root::read_file(k_file);
  const pss2_service_t service = open_with({"kept"});

  for (size_t size = 0; size < good.size(); ++size) {
    switch_root::write_file(k_file, good.substr(0, size));
    ASSERT_EQ(pss2_file2kernel(k_file, service, 0), 0x40480009U) << size << " bytes";
  }
  for (const std::string &bad : {good + "x", good + good, std::string("no records at all")}) {
    switch_root::write_file(k_file, bad);
    ASSERT_EQ(pss2_file2kernel(k_file, service, 0), 0x40480009U) << hex(bad);
  }

  EXPECT_EQ(keys_of(service), std::vector<std::string>{"kept"});
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss2_close(source), 0U);
}

TEST_F(pss2_contract, a_flat_file_with_a_record_over_the_limit_changes_nothing) {
  const pss2_service_t source = open_with({"a"}, "volatile:/source");
  ASSERT_EQ(pss2_store(source, in("b"), in(std::string(101, 'v'))), 0U);
  ASSERT_EQ(pss2_kernel2file(source, k_file, 0), 0U);
  ASSERT_EQ(contract_platform::create_store("volatile:/limited", {8, 100, 0, 1}), 0U);
  const pss2_service_t service = open("volatile:/limited");

  EXPECT_EQ(pss2_file2kernel(k_file, service, 0), 0x40480006U);

  EXPECT_EQ(keys_of(service), std::vector<std::string>{});
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss2_close(source), 0U);
}

TEST_F(pss2_contract, flat_files_refuse_bad_arguments) {
  const pss2_service_t service = open_with({"a"});
  const std::string long_file = "/" + std::string(4000, 'a');

  EXPECT_EQ(pss2_kernel2file(service, nullptr, 0), 0x40480005U);
  EXPECT_EQ(pss2_file2kernel(nullptr, service, 0), 0x40480005U);
  EXPECT_NE(pss2_kernel2file(service, long_file.c_str(), 0), 0U);
  EXPECT_NE(pss2_file2kernel(long_file.c_str(), service, 0), 0U);
  EXPECT_NE(pss2_kernel2file(service, "/mnt/pss", 0), 0U);
  EXPECT_NE(pss2_file2kernel("/mnt/pss", service, 0), 0U);
  EXPECT_NE(pss2_file2kernel("", service, 0), 0U);
  EXPECT_NE(pss2_kernel2file(service, "", 0), 0U);
  EXPECT_EQ(pss2_kernel2file(0, k_file, 0), 0x40480008U);
  EXPECT_EQ(pss2_file2kernel(k_file, 0, 0), 0x40480008U);
  EXPECT_EQ(keys_of(service), std::vector<std::string>{"a"});
  EXPECT_EQ(pss2_close(service), 0U);
  EXPECT_EQ(pss2_kernel2file(service, k_file, 0), 0x40480008U);
  EXPECT_EQ(pss2_file2kernel(k_file, service, 0), 0x40480008U);
  EXPECT_FALSE(switch_root::exists(k_file));
}

TEST_F(pss2_contract, a_handle_without_the_write_bit_loads_nothing) {
  ASSERT_EQ(pss2_close(open_with({"a"})), 0U);
  const pss2_service_t service = open(k_uri, 0x1);
  ASSERT_EQ(pss2_kernel2file(service, k_file, 0), 0U);

  EXPECT_EQ(pss2_file2kernel(k_file, service, 0), 0x4048000AU);

  EXPECT_EQ(pss2_close(service), 0U);
}

} // namespace
