// The two generations of stores under common names, for what holds for both.
#ifndef TESTS_CONTRACT_CONTRACT_GENERATIONS_H
#define TESTS_CONTRACT_CONTRACT_GENERATIONS_H

#include "contract/contract_platform.h"

constexpr uint32 k_read_write = PSS2_MODE_READ | PSS2_MODE_WRITE;

struct first_generation {
  static uint32 open(const char *uri, syserr_t *status) { return pss_open(uri, status); }
  static syserr_t close(uint32 service) { return pss_close(service); }
  static syserr_t destroy(const char *uri) { return pss_destroy(uri); }
  static pss_datum_t *fetch(uint32 service, const pss_datum_t *key, syserr_t *status) {
    return pss_fetch(service, key, status);
  }
  static syserr_t store(uint32 service, const pss_datum_t *key, const pss_datum_t *value) {
    return pss_store(service, 1, key, value);
  }
  static syserr_t remove(uint32 service, const pss_datum_t *key) {
    return pss_delete(service, key);
  }
  // The key that the cursor comes to stand on.
  static pss_datum_t *move(uint32 service, pss_location_t location, syserr_t *status) {
    return pss_move2location(service, location, status);
  }
  static pss_datum_t *getvalue(uint32 service, syserr_t *status) {
    return pss_getvalue(service, status);
  }
};

struct second_generation {
  static uint32 open(const char *uri, syserr_t *status) {
    return pss2_open(uri, k_read_write, SRVUUID_PIXM, 0, 0, status);
  }
  static syserr_t close(uint32 service) { return pss2_close(service); }
  static syserr_t destroy(const char *uri) { return pss2_destroy(uri); }
  static pss_datum_t *fetch(uint32 service, const pss_datum_t *key, syserr_t *status) {
    return pss2_fetch(service, key, status);
  }
  static syserr_t store(uint32 service, const pss_datum_t *key, const pss_datum_t *value) {
    return pss2_store(service, key, value);
  }
  static syserr_t remove(uint32 service, const pss_datum_t *key) {
    return pss2_delete(service, key, 0);
  }
  static pss_datum_t *move(uint32 service, pss_location_t location, syserr_t *status) {
    syserr_t moved = k_unwritten;
    const syserr_t call = pss2_move2location(&service, 1, location, &moved);
    EXPECT_EQ(call, 0U);
    if (moved != 0) {
      *status = moved;
      return nullptr;
    }
    return pss2_getkey(service, status);
  }
  static pss_datum_t *getvalue(uint32 service, syserr_t *status) {
    return pss2_getvalue(service, status);
  }
};

template <typename Generation> class generations_test : public contract_test {
protected:
  static constexpr const char *k_uri = "nonvolatile:/cfg/0/bin/store";

  void SetUp() override {
    contract_test::SetUp();
    ASSERT_EQ(pss_create(k_uri), 0U);
  }

  static uint32 open(const char *uri = k_uri) {
    syserr_t status = k_unwritten;
    const uint32 service = Generation::open(uri, &status);
    EXPECT_EQ(status, 0U);
    EXPECT_NE(service, 0U);
    return service;
  }

  // A store with these keys, each with the value "value of KEY", and an open handle on it.
  static uint32 open_with(const std::vector<std::string> &keys) {
    const uint32 service = open();
    for (const std::string &key : keys) {
      EXPECT_EQ(Generation::store(service, in(key), in("value of " + key)), 0U);
    }
    EXPECT_EQ(Generation::close(service), 0U);
    return open();
  }

  // The value, or the status in brackets.
  static std::string fetched(uint32 service, const std::string &key) {
    syserr_t status = k_unwritten;
    const pss_datum_t *found = Generation::fetch(service, in(key), &status);
    return told(found, status);
  }
  static std::string moved(uint32 service, pss_location_t location) {
    syserr_t status = k_unwritten;
    const pss_datum_t *found = Generation::move(service, location, &status);
    return told(found, status);
  }
  static std::string value(uint32 service) {
    syserr_t status = k_unwritten;
    const pss_datum_t *found = Generation::getvalue(service, &status);
    return told(found, status);
  }
  static std::string told(const pss_datum_t *found, syserr_t status) {
    EXPECT_EQ(found == nullptr, status != 0);
    if (status == 0) {
      return out(found);
    }
    char text[16];
    std::snprintf(text, sizeof(text), "[%x]", status);
    return text;
  }

  static std::vector<std::string> walked(uint32 service) {
    std::vector<std::string> keys;
    std::string key = moved(service, PSS_FIRST_KEY);
    for (; key != "[40480003]" && keys.size() < 1000; key = moved(service, PSS_NEXT_KEY)) {
      keys.push_back(key);
    }
    return keys;
  }
};

using generations = testing::Types<first_generation, second_generation>;

#endif
