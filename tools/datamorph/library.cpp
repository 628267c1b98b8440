#include "library.h"

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>
#include <unistd.h>

#include "failure.h"
#include "text.h"

#ifndef DATAMORPH_LIBDIR
#error "the build says where libraries are installed, relative to the program's parent folder"
#endif

namespace {

constexpr char soname[] = "libdatamorph.so.1";
constexpr size_t most_rows = 1000; // a table without its end row is not read for ever

std::string program_folder() {
  std::string path(4096, '\0');
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) {
    return "";
  }
  path.resize(static_cast<size_t>(length));
  return path.substr(0, path.rfind('/'));
}

class symbols {
public:
  symbols(void *handle, std::string file) : handle_(handle), file_(std::move(file)) {}

  template <typename pointer_t> void get(const char *name, pointer_t *pointer) const {
    *pointer = reinterpret_cast<pointer_t>(address(name));
  }

  void *address(const char *name) const {
    void *found = dlsym(handle_, name);
    if (found == nullptr) {
      throw failure(exit_refused, in_quotes(file_) + " is no conversion library: it has no " + name,
                    "name another one with --library");
    }
    return found;
  }

  template <typename row_t> std::vector<table_row> table(const char *name) const {
    const auto *row = static_cast<const row_t *>(address(name));
    std::vector<table_row> rows;
    for (; row->uuid != SRVUUID_NONE; ++row) {
      if (rows.size() == most_rows) {
        throw failure(exit_refused, in_quotes(file_) + ": " + name + " has no end row");
      }
      void *const routine = reinterpret_cast<void *>(row->fn);
      rows.push_back({row->uuid, routine_name(routine), routine});
    }
    return rows;
  }

private:
  static std::string routine_name(void *routine) {
    Dl_info info = {};
    if (dladdr(routine, &info) != 0 && info.dli_sname != nullptr && info.dli_saddr == routine) {
      return info.dli_sname;
    }
    char address[32];
    std::snprintf(address, sizeof address, "%p", routine);
    return address;
  }

  void *handle_;
  std::string file_;
};

} // namespace

// The first file that stands counts. What is asked for by name is not replaced by anything else.
std::string find_library(const std::string &wanted) {
  if (!wanted.empty()) {
    return wanted.find('/') == std::string::npos ? "./" + wanted : wanted;
  }
  const char *environment = std::getenv("DATAMORPH_LIBRARY");
  if (environment != nullptr && *environment != '\0') {
    return environment;
  }
  const std::string folder = program_folder();
  for (const char *beside : {"/", "/../lib/", "/../" DATAMORPH_LIBDIR "/"}) {
    std::string file = folder + beside + soname;
    if (!folder.empty() && access(file.c_str(), F_OK) == 0) {
      return file;
    }
  }
  return soname; // wherever the system keeps its libraries
}

library load_library(const std::string &wanted) {
  library result;
  result.file = find_library(wanted);
  void *handle = dlopen(result.file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char *why = dlerror();
    throw failure(exit_refused,
                  std::string("cannot load the conversion library: ") +
                      (why == nullptr ? "unknown error" : why),
                  "name it with --library or DATAMORPH_LIBRARY");
  }
  const symbols symbols(handle, result.file);
  symbols.get("libdatamorph_init", &result.init);
  symbols.get("datamorph_gsync", &result.gsync);
  symbols.get("datamorph_startup", &result.startup);
  symbols.get("datamorph_startup_all", &result.startup_all);
  symbols.get("datamorph_running_fs_upg", &result.running_fs);
  symbols.get("datamorph_running_fs_upg_all", &result.running_fs_all);
  symbols.get("datamorph_compare_versions", &result.compare_versions);
  result.tables = {symbols.table<data_morph_gsync>("data_morph_gsync_table"),
                   symbols.table<data_morph_running_fs_upg>("data_morph_running_fs_upg_table"),
                   symbols.table<data_morph_startup>("data_morph_startup_table")};
  result.helper_table = symbols.table<data_morph_psshlpr_upg>("data_morph_psshlpr_upg_table");
  return result;
}

syserr_t library::call(moment which, uint32 uuid, convert_ret_value_t *failed,
                       datamorph_args_t *args) const {
  const auto service = static_cast<uuid_t>(uuid);
  switch (which) {
  case moment::gsync:
    return gsync(service, failed, args);
  case moment::running_fs:
    return running_fs(service, failed, args);
  case moment::startup:
    break;
  }
  return startup(service, failed, args);
}

syserr_t library::call_all(moment which, datamorph_args_t *args) const {
  return which == moment::startup ? startup_all(args) : running_fs_all(args);
}
