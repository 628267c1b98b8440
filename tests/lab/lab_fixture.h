// What the tests of the lab share: stores by contents, and processes that are killed.
#ifndef TESTS_LAB_LAB_FIXTURE_H
#define TESTS_LAB_LAB_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>

#include "lab/lab.h"
#include "support/switch_root.h"

class lab_test : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;
};

using contents = std::map<std::string, std::string>;

pss_datum_t datum(const std::string &bytes);
// The bytes of a returned datum; "(none)" for null.
std::string text(const pss_datum_t *returned);

syserr_t put(pss_service_t service, const std::string &key, const std::string &value);
syserr_t remove(pss_service_t service, const std::string &key);
// The key there, or "(none)".
std::string move(pss_service_t service, pss_location_t location);

// A handle for reading and writing; a failure ends the test program's run of the test.
pss_service_t open(const std::string &uri);

// Makes a store that holds exactly these records.
void make(const std::string &uri, const contents &records);
// All records of a store by a walk; one record "status" with the number when it does not open.
contents read(const std::string &uri);
// What read() gives for a store that cannot be opened.
contents no_store(const char *status);

// Runs `act` in a child process and gives its exit status, or 128 plus its signal.
int in_child(const std::function<int()> &act);
// The child's rights over files are those of their owner only, as an ordinary user's.
void drop_file_capabilities();

// The names in a folder, sorted, separated by blanks.
std::string list(const std::string &folder);

#endif
