#include "lab/lab_fixture.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>

void lab_test::SetUp() {
  switch_root::reset();
  lab::sysmgr_set_vdcs({1});
}

void lab_test::TearDown() {
  lab::journal_stop();
  lab::close_all_stores(nullptr);
  lab::mts_shutdown();
  lab::sysmgr_set_vdcs({});
}

pss_datum_t datum(const std::string &bytes) {
  return {const_cast<char *>(bytes.data()), static_cast<uint32>(bytes.size())};
}

std::string text(const pss_datum_t *returned) {
  return returned == nullptr ? "(none)"
                             : std::string(static_cast<const char *>(returned->ptr), returned->siz);
}

syserr_t put(pss_service_t service, const std::string &key, const std::string &value) {
  const pss_datum_t key_datum = datum(key);
  const pss_datum_t value_datum = datum(value);
  return pss_store(service, 0, &key_datum, &value_datum);
}

syserr_t remove(pss_service_t service, const std::string &key) {
  const pss_datum_t key_datum = datum(key);
  return pss_delete(service, &key_datum);
}

std::string move(pss_service_t service, pss_location_t location) {
  syserr_t status = 1;
  const pss_datum_t *const key = pss_move2location(service, location, &status);
  EXPECT_EQ(key == nullptr, status != 0);
  return text(key);
}

pss_service_t open(const std::string &uri) {
  syserr_t status = 1;
  const pss_service_t service = pss_open(uri.c_str(), &status);
  EXPECT_EQ(status, 0U) << uri;
  return service;
}

void make(const std::string &uri, const contents &records) {
  const syserr_t made = pss_create(uri.c_str());
  ASSERT_TRUE(made == 0U || made == 0x40480001U) << made;
  const pss_service_t service = open(uri);
  for (std::string key = move(service, PSS_FIRST_KEY); key != "(none)";
       key = move(service, PSS_NEXT_KEY)) {
    ASSERT_EQ(remove(service, key), 0U);
  }
  for (const auto &[key, value] : records) {
    ASSERT_EQ(put(service, key, value), 0U);
  }
  ASSERT_EQ(pss_close(service), 0U);
}

contents no_store(const char *status) {
  return {{"status", status}};
}

contents read(const std::string &uri) {
  syserr_t status = 0;
  const pss_service_t service = pss_open(uri.c_str(), &status);
  if (service == 0) {
    char number[16];
    std::snprintf(number, sizeof(number), "%08X", status);
    return no_store(number);
  }
  contents records;
  for (pss_datum_t *key = pss_move2location(service, PSS_FIRST_KEY, &status); key != nullptr;
       key = pss_move2location(service, PSS_NEXT_KEY, &status)) {
    const std::string name = text(key);
    records[name] = text(pss_getvalue(service, &status));
  }
  EXPECT_EQ(status, 0x40480003U) << uri;
  EXPECT_EQ(pss_close(service), 0U);
  return records;
}

int in_child(const std::function<int()> &act) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    _exit(act());
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void drop_file_capabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2] = {};
  if (syscall(SYS_capset, &header, none) != 0) {
    _exit(98);
  }
}

std::string list(const std::string &folder) {
  std::set<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  std::string all;
  for (const std::string &name : names) {
    all += (all.empty() ? "" : " ") + name;
  }
  return all;
}
