// Whole switches: what a description says is made, in the process's own root, and stands there as
// it was described. The input is a description's text, or changes one of the seeds.
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "description.h"
#include "failure.h"
#include "fuzz/finding.h"
#include "fuzz/switch_folder.h"
#include "lab/lab.h"
#include "populate.h"

namespace {

void expect_store(const store_description &store) {
  lab::store_info info;
  expect(lab::store_inspect(store.uri, &info) == 0, "a store that cannot be read");
  expect(info.records == store.records.size(), "another number of records");
  expect(info.params.max_key_size == store.params.max_key_size &&
             info.params.max_value_size == store.params.max_value_size &&
             info.params.max_node_keys == store.params.max_node_keys &&
             info.params.version == store.params.version,
         "other parameters");
  syserr_t status = 0;
  const pss2_service_t handle =
      pss2_open(store.uri.c_str(), PSS2_MODE_READ, SRVUUID_NONE, 0, 0, &status);
  for (const record_description &record : store.records) {
    const pss_datum_t key = {const_cast<char *>(record.key.data()),
                             static_cast<uint32>(record.key.size())};
    const pss_datum_t *value = pss2_fetch(handle, &key, &status);
    expect(value != nullptr &&
               std::string(static_cast<const char *>(value->ptr), value->siz) == record.value,
           "another value");
  }
  expect(pss2_close(handle) == 0, "a store that cannot be closed");
}

void expect_file(const file_description &file) {
  struct stat found = {};
  expect(lstat(file.path.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
             (found.st_mode & 07777) == file.mode,
         "no such file, or of another mode");
  std::ifstream in(file.path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(in), {}};
  expect(content == file.content, "another content");
}

void expect_switch(const description &wanted) {
  for (const store_description &store : wanted.stores) {
    expect_store(store);
  }
  expect(lab::store_uris().size() == wanted.stores.size(), "stores that nobody described");
  for (const file_description &file : wanted.files) {
    expect_file(file);
  }
  expect(lab::mts_saps().size() == wanted.access_points.size(), "other access points");
  for (const std::string &release : wanted.releases) {
    expect_file({"/images/" + release + "/version", 0644, release + "\n"});
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  description wanted;
  try {
    wanted = parse_description(std::string(reinterpret_cast<const char *>(data), size), "input");
  } catch (const failure &) {
    return -1; // not kept in the corpus: description_fuzz looks at those
  }
  const switch_folder root;
  try {
    populate(wanted);
  } catch (const failure &error) {
    finding(std::string("an accepted description cannot be made: ") + error.what());
  }
  expect_switch(wanted);
  return 0;
}
