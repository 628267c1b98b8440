#include "populate.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"
#include "lab/lab.h"
#include "layout.h"
#include "statuses.h"
#include "text.h"
#include "tree.h"
#include "unique_fd.h"

namespace {

const char *advice(bool no_room) {
  return no_room ? "make room there" : "";
}

[[noreturn]] void failed(const std::string &what, int error) {
  throw failure(exit_failed, "cannot make " + what + ": " + error_text(error),
                advice(error == ENOSPC || error == EDQUOT));
}

void make_folders(const std::string &path) {
  for (size_t at = 1; at != std::string::npos;) {
    at = path.find('/', at);
    const std::string folder = path.substr(0, at);
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
      failed("the folder " + in_quotes(folder), errno);
    }
    at = at == std::string::npos ? at : at + 1;
  }
}

void write_file(const std::string &path, const std::string &content, mode_t mode) {
  make_folders(path.substr(0, std::max<size_t>(path.rfind('/'), 1)));
  const unique_fd file = tree::make_file(AT_FDCWD, path, 0600);
  if (!file.is_open()) {
    failed("the file " + in_quotes(path), errno);
  }
  for (size_t done = 0; done < content.size();) {
    const ssize_t put =
        TEMP_FAILURE_RETRY(write(file.get(), content.data() + done, content.size() - done));
    if (put <= 0) {
      failed("the file " + in_quotes(path), errno);
    }
    done += static_cast<size_t>(put);
  }
  if (fchmod(file.get(), mode) != 0) {
    failed("the mode of the file " + in_quotes(path), errno);
  }
}

void check(syserr_t status, const std::string &uri) {
  if (status != SYSERR_SUCCESS) {
    throw failure(exit_failed,
                  "cannot make the store " + in_quotes(uri) + ": " + status_text(status),
                  advice(status == SYSERR_PSS_NO_ROOM));
  }
}

void make_store(const store_description &store) {
  check(lab::store_create(store.uri, store.params), store.uri);
  syserr_t status = SYSERR_SUCCESS;
  const pss2_service_t handle =
      pss2_open(store.uri.c_str(), PSS2_MODE_READ | PSS2_MODE_WRITE, SRVUUID_NONE, 0, 0, &status);
  check(status, store.uri);
  for (const record_description &record : store.records) {
    const pss_datum_t key = datum_of(record.key);
    const pss_datum_t value = datum_of(record.value);
    check(pss2_store(handle, &key, &value), store.uri);
  }
  check(pss2_close(handle), store.uri);
}

} // namespace

void populate(const description &wanted) {
  umask(022);
  for (const char *folder : usual_folders) {
    make_folders(folder);
  }
  make_folders(wanted.state.running_cfg_dir);
  for (const std::string &path : wanted.state.paths) {
    make_folders(path);
  }
  for (const std::string &release : wanted.releases) {
    write_file("/images/" + release + "/version", release + "\n", 0644);
  }
  for (const file_description &file : wanted.files) {
    write_file(file.path, file.content, file.mode);
  }
  for (const store_description &store : wanted.stores) {
    make_store(store);
  }
  for (const access_point_description &point : wanted.access_points) {
    if (lab::mts_sap_register(0, point.sap, point.owner) != 0) {
      failed("the access point " + std::to_string(point.sap), errno);
    }
  }
}
