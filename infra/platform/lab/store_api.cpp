// The platform's store functions, both generations, and the lab's own around them: arguments are
// checked, the lock is taken, the engine does the work, the journal gets its line.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>

#include "lab/files.h"
#include "lab/lab.h"
#include "lab/store_copy.h"
#include "lab/store_handle.h"

namespace lab {
namespace {

// Runs a store function's body under the lock. No exception reaches a caller written in C.
template <typename body> syserr_t guarded(const body &act) noexcept {
  try {
    const std::lock_guard<std::mutex> lock(store_mutex());
    return act();
  } catch (const std::bad_alloc &) {
    return SYSERR_PSS_NO_ROOM;
  } catch (const std::exception &) {
    return SYSERR_PSS_IO;
  }
}

void report(syserr_t status, syserr_t *out) {
  if (out != nullptr) {
    *out = status;
  }
}

// A call that reads, and that the machine failed: who goes on by its answer knows nothing of the
// store, so it has a line in the journal as a write has that failed.
void note_failed_read(const char *call, const std::string &uri, syserr_t status) noexcept {
  if (status == SYSERR_PSS_IO || status == SYSERR_PSS_NO_ROOM) {
    journal_entry entry;
    entry.call = call;
    entry.uri = uri;
    entry.status = status;
    journal_write(entry);
  }
}

bool is_datum(const pss_datum_t *datum) {
  return datum != nullptr && (datum->ptr != nullptr || datum->siz == 0);
}

// ---- Handles -----------------------------------------------------------------------------------

uint32 open_store(const char *call, const char *uri, bool writable, bool create,
                  syserr_t *out) noexcept {
  uint32 number = 0;
  journal_entry entry;
  entry.call = call;
  bool made = false;
  const syserr_t status = guarded([&] {
    store_path path;
    if (!parse_uri(uri, &path)) {
      return SYSERR_PSS_BAD_ARGUMENT;
    }
    auto handle = std::make_unique<store_handle>(uri, path, writable);
    syserr_t opened = handle->open();
    if (opened == SYSERR_PSS_NO_STORE && create) {
      made = true;
      opened = create_store(path, default_store_params);
      // Whoever was quicker made the store that was wanted.
      opened = opened == SYSERR_SUCCESS || opened == SYSERR_PSS_EXISTS ? handle->open() : opened;
    }
    if (opened == SYSERR_SUCCESS) {
      number = handle_add(std::move(handle));
    }
    return opened;
  });
  if (made) {
    entry.uri = uri;
    entry.status = status;
    journal_write(entry);
  } else {
    note_failed_read(call, uri == nullptr ? "" : uri, status);
  }
  report(status, out);
  return number;
}

syserr_t close_store(const char *call, uint32 number) noexcept {
  return guarded([&] {
    journal_entry entry;
    entry.call = call;
    const std::unique_ptr<store_handle> handle = handle_take(number);
    if (handle == nullptr) {
      entry.status = SYSERR_PSS_BAD_HANDLE;
      journal_write(entry);
      return SYSERR_PSS_BAD_HANDLE;
    }
    bool wrote = false;
    entry.status = handle->close(&wrote);
    entry.uri = handle->uri();
    if (wrote) {
      journal_write(entry);
    }
    return entry.status;
  });
}

// A call that changes records through a handle; its line is written whatever becomes of it.
template <typename body>
syserr_t change(journal_entry entry, uint32 number, const body &act) noexcept {
  std::string uri; // the handle may be closed by the time the line is written
  const syserr_t status = guarded([&] {
    store_handle *const handle = handle_find(number);
    // A size that lies is refused below; the journal must not read by it.
    const pss2_nonvol_params &limits =
        handle == nullptr ? default_store_params : handle->db().params();
    if (entry.key && entry.key->size() > limits.max_key_size) {
      entry.key.reset();
    }
    if (handle == nullptr) {
      return SYSERR_PSS_BAD_HANDLE;
    }
    if (journal_on()) {
      uri = handle->uri();
      entry.uri = uri;
    }
    return act(*handle, &entry);
  });
  if (journal_on()) {
    entry.status = status;
    journal_write(entry);
  }
  return status;
}

journal_entry record_entry(const char *call, const pss_datum_t *key) {
  journal_entry entry;
  entry.call = call;
  entry.has_sizes = entry.has_counts = true;
  if (is_datum(key)) {
    entry.key = bytes_of(*key);
  }
  return entry;
}

syserr_t store_record(const char *call, uint32 number, const pss_datum_t *key,
                      const pss_datum_t *value) noexcept {
  journal_entry entry = record_entry(call, key);
  if (is_datum(value)) {
    entry.new_size = value->siz;
  }
  return change(entry, number, [&](store_handle &handle, journal_entry *line) {
    return is_datum(key) && is_datum(value) ? handle.store(bytes_of(*key), bytes_of(*value), line)
                                            : SYSERR_PSS_BAD_ARGUMENT;
  });
}

syserr_t delete_record(const char *call, uint32 number, const pss_datum_t *key,
                       bool follow) noexcept {
  journal_entry entry = record_entry(call, key);
  entry.expected = SYSERR_PSS_NOT_FOUND;
  return change(entry, number, [&](store_handle &handle, journal_entry *line) {
    return is_datum(key) ? handle.erase(bytes_of(*key), follow, line) : SYSERR_PSS_BAD_ARGUMENT;
  });
}

constexpr const char *slot_names[] = {"pss_fetch",    "pss_move2key", "pss_move2location",
                                      "pss_getvalue", "pss2_fetch",   "pss2_getkey",
                                      "pss2_getvalue"};
static_assert(std::size(slot_names) == static_cast<size_t>(slot::count));

// A call that returns data: `act` fills the function's slot of the handle.
template <typename body>
pss_datum_t *answer(uint32 number, slot which, syserr_t *out, const body &act) noexcept {
  pss_datum_t *datum = nullptr;
  std::string uri;
  const syserr_t status = guarded([&] {
    store_handle *const handle = handle_find(number);
    if (handle == nullptr) {
      return SYSERR_PSS_BAD_HANDLE;
    }
    store_handle::answer &place = handle->slot_of(which);
    const syserr_t done = act(*handle, &place);
    if (done == SYSERR_SUCCESS) {
      place.datum = {place.bytes.data(), static_cast<uint32>(place.bytes.size())};
      datum = &place.datum;
    } else {
      uri = handle->uri(); // no copy of it for each record that is read
    }
    return done;
  });
  note_failed_read(slot_names[static_cast<size_t>(which)], uri, status);
  report(status, out);
  return datum;
}

pss_datum_t *fetch_value(uint32 number, slot which, const pss_datum_t *key, syserr_t *out) {
  return answer(number, which, out, [&](store_handle &handle, store_handle::answer *place) {
    return is_datum(key) ? handle.fetch(bytes_of(*key), place) : SYSERR_PSS_BAD_ARGUMENT;
  });
}

syserr_t copy_key(store_handle &handle, store_handle::answer *place) {
  const read_ahead::record *record = nullptr;
  const syserr_t status = handle.here(&record);
  if (status == SYSERR_SUCCESS) {
    place->bytes = record->key;
  }
  return status;
}

syserr_t copy_value(store_handle &handle, store_handle::answer *place) {
  const read_ahead::record *record = nullptr;
  const syserr_t status = handle.here(&record);
  if (status == SYSERR_SUCCESS) {
    place->bytes = record->value;
  }
  return status;
}

// ---- Whole stores ------------------------------------------------------------------------------

syserr_t make_store(const char *call, const char *uri, const pss2_nonvol_params &params) noexcept {
  journal_entry entry;
  entry.call = call;
  entry.status = guarded([&] {
    store_path path;
    const bool good = parse_uri(uri, &path) && params.max_key_size > 0 && params.max_value_size > 0;
    return good ? create_store(path, params) : SYSERR_PSS_BAD_ARGUMENT;
  });
  if (uri != nullptr) {
    entry.uri = uri;
  }
  journal_write(entry);
  return entry.status;
}

// What stands at a store's place and is none of ours, or not to be read, needs no lock to go. After
// any other failure nobody knows whether the store is in use.
bool can_go(syserr_t status) {
  return status == SYSERR_SUCCESS || status == SYSERR_PSS_DAMAGED ||
         status == SYSERR_PSS_NO_ACCESS || status == SYSERR_PSS_NO_STORE;
}

// Keeps other processes off a store while its files are removed. A handle of this process that is
// writing it keeps them off already.
syserr_t lock_out_others(const store_path &path, store_db *guard, journal_entry *entry) {
  syserr_t status = guard->open(path, false);
  if (status == SYSERR_SUCCESS && journal_on()) {
    status = guard->count(&entry->removed);
  }
  if (status == SYSERR_SUCCESS) {
    status = guard->begin_exclusive();
  }
  return can_go(status) ? SYSERR_SUCCESS : status;
}

syserr_t remove_store(const store_path &path, journal_entry *entry) {
  // First of all: what stands here may be made or removed until the lock is ours.
  const folder_lock lock(parent_of(path.file));
  if (lock.status() != SYSERR_SUCCESS) {
    return lock.status();
  }
  struct stat what = {};
  const bool stands = lstat(path.file.c_str(), &what) == 0;
  if (!stands && errno != ENOENT && errno != ENOTDIR) {
    return status_of_errno(errno);
  }
  if (stands && S_ISDIR(what.st_mode)) {
    return SYSERR_PSS_DAMAGED;
  }
  // Of a link only the link goes; the store that it leads to stays, with its handles.
  file_id id;
  const syserr_t found =
      stands && !S_ISLNK(what.st_mode) ? probe_store(path.file, &id) : SYSERR_PSS_NO_STORE;
  if (!stands) {
    remove_leftovers(path.file);
    return SYSERR_PSS_NO_STORE;
  }
  if (!can_go(found)) {
    return found;
  }
  const std::vector<store_handle *> ours =
      found == SYSERR_SUCCESS ? handles_on(id) : std::vector<store_handle *>();
  store_db guard;
  const auto writer = std::find_if(
      ours.begin(), ours.end(), [](store_handle *handle) { return handle->db().in_transaction(); });
  syserr_t status = SYSERR_SUCCESS;
  if (writer != ours.end()) {
    status = journal_on() ? (*writer)->count(&entry->removed) : SYSERR_SUCCESS;
  } else if (found == SYSERR_SUCCESS) {
    status = lock_out_others(path, &guard, entry);
  }
  // The store itself goes first: a journal without it is nothing, it without its journal damaged.
  if (status == SYSERR_SUCCESS && unlink(path.file.c_str()) != 0) {
    status = status_of_errno(errno);
  }
  if (status != SYSERR_SUCCESS) {
    entry->removed = 0;
    return status;
  }
  for (store_handle *handle : ours) {
    handle->detach();
  }
  guard.close();
  remove_leftovers(path.file);
  return path.durable ? sync_folder(parent_of(path.file)) : SYSERR_SUCCESS;
}

syserr_t destroy_store(const char *call, const char *uri) noexcept {
  journal_entry entry;
  entry.call = call;
  entry.has_counts = true;
  entry.expected = SYSERR_PSS_NO_STORE;
  entry.status = guarded([&] {
    store_path path;
    return parse_uri(uri, &path) ? remove_store(path, &entry) : SYSERR_PSS_BAD_ARGUMENT;
  });
  if (uri != nullptr) {
    entry.uri = uri;
  }
  journal_write(entry);
  return entry.status;
}

} // namespace

// ---- The lab's own -----------------------------------------------------------------------------

std::string store_file(const std::string &uri) {
  store_path path;
  const bool whole = uri.find('\0') == std::string::npos;
  return whole && parse_uri(uri.c_str(), &path) ? path.file : std::string();
}

syserr_t store_create(const std::string &uri, const pss2_nonvol_params &params) {
  return make_store("store_create", uri.c_str(), params);
}

syserr_t store_inspect(const std::string &uri, store_info *info) {
  return guarded([&] {
    store_path path;
    if (!parse_uri(uri.c_str(), &path)) {
      return SYSERR_PSS_BAD_ARGUMENT;
    }
    store_db db;
    syserr_t status = db.open(path, false);
    status = status == SYSERR_SUCCESS ? db.check_all(&info->records) : status;
    struct stat found = {};
    if (status == SYSERR_SUCCESS && stat(path.file.c_str(), &found) != 0) {
      status = status_of_errno(errno);
    }
    if (status == SYSERR_SUCCESS) {
      info->bytes = static_cast<uint64_t>(found.st_size);
      info->params = db.params();
    }
    return status;
  });
}

syserr_t store_count(const std::string &uri, uint64_t *records) {
  return guarded([&] {
    store_path path;
    if (!parse_uri(uri.c_str(), &path)) {
      return SYSERR_PSS_BAD_ARGUMENT;
    }
    store_db db;
    const syserr_t status = db.open(path, false);
    return status == SYSERR_SUCCESS ? db.count(records) : status;
  });
}

syserr_t close_all_stores(size_t *closed) {
  std::vector<uint32> open;
  syserr_t first = guarded([&] {
    open = handle_numbers();
    return SYSERR_SUCCESS;
  });
  for (const uint32 number : open) {
    const syserr_t status = close_store("close_all_stores", number);
    first = first == SYSERR_SUCCESS ? status : first;
  }
  if (closed != nullptr) {
    *closed = open.size();
  }
  return first;
}

} // namespace lab

// ---- First generation --------------------------------------------------------------------------

using lab::slot;
using lab::store_handle;

pss_service_t pss_open(const char *uri, syserr_t *error) {
  return lab::open_store(__func__, uri, true, false, error);
}

syserr_t pss_close(pss_service_t service) {
  return lab::close_store(__func__, service);
}

syserr_t pss_create(const char *uri) {
  return lab::make_store(__func__, uri, lab::default_store_params);
}

syserr_t pss_destroy(const char *uri) {
  return lab::destroy_store(__func__, uri);
}

pss_datum_t *pss_fetch(pss_service_t service, const pss_datum_t *key, syserr_t *error) {
  return lab::fetch_value(service, slot::pss_fetch, key, error);
}

syserr_t pss_store(pss_service_t service, uint32 /*flag*/, const pss_datum_t *key,
                   const pss_datum_t *value) {
  return lab::store_record(__func__, service, key, value);
}

syserr_t pss_delete(pss_service_t service, const pss_datum_t *key) {
  return lab::delete_record(__func__, service, key, false);
}

pss_datum_t *pss_move2key(pss_service_t service, const pss_datum_t *key, syserr_t *error) {
  return lab::answer(service, slot::pss_move2key, error,
                     [key](store_handle &handle, store_handle::answer *place) {
                       if (!lab::is_datum(key)) {
                         return SYSERR_PSS_BAD_ARGUMENT;
                       }
                       const syserr_t moved = handle.move_to_key(lab::bytes_of(*key));
                       return moved == SYSERR_SUCCESS ? lab::copy_key(handle, place) : moved;
                     });
}

pss_datum_t *pss_move2location(pss_service_t service, pss_location_t location, syserr_t *error) {
  return lab::answer(service, slot::pss_move2location, error,
                     [location](store_handle &handle, store_handle::answer *place) {
                       const syserr_t moved = handle.move(static_cast<int>(location));
                       return moved == SYSERR_SUCCESS ? lab::copy_key(handle, place) : moved;
                     });
}

pss_datum_t *pss_getvalue(pss_service_t service, syserr_t *error) {
  return lab::answer(service, slot::pss_getvalue, error, lab::copy_value);
}

syserr_t pss_snapshot(pss_service_t service, uint32 /*flags*/, const char *uri) {
  lab::journal_entry entry;
  entry.call = __func__;
  entry.has_counts = true;
  return lab::change(entry, service, [uri](store_handle &handle, lab::journal_entry *line) {
    const syserr_t status = handle.usable_for_copying();
    line->uri = uri == nullptr ? "" : uri;
    return status == SYSERR_SUCCESS ? lab::copy_to_store(handle, uri, line) : status;
  });
}

// ---- Second generation -------------------------------------------------------------------------

pss2_service_t pss2_open(const char *uri, uint32 mode, uuid_t /*owner*/, uint32 /*reserved1*/,
                         uint32 /*reserved2*/, syserr_t *status) {
  if ((mode & (PSS2_MODE_READ | PSS2_MODE_WRITE)) == 0) {
    lab::report(SYSERR_PSS_BAD_ARGUMENT, status);
    return 0;
  }
  return lab::open_store(__func__, uri, (mode & PSS2_MODE_WRITE) != 0,
                         (mode & PSS2_MODE_CREATE) != 0, status);
}

syserr_t pss2_close(pss2_service_t service) {
  return lab::close_store(__func__, service);
}

syserr_t pss2_destroy(const char *uri) {
  return lab::destroy_store(__func__, uri);
}

syserr_t pss2_get_params(pss2_service_t service, pss2_nonvol_params *params) {
  return lab::guarded([&] {
    store_handle *const handle = lab::handle_find(service);
    if (handle == nullptr) {
      return SYSERR_PSS_BAD_HANDLE;
    }
    if (params == nullptr) {
      return SYSERR_PSS_BAD_ARGUMENT;
    }
    const syserr_t status = handle->settle();
    if (status == SYSERR_SUCCESS) {
      *params = handle->db().params();
    }
    return status;
  });
}

pss_datum_t *pss2_fetch(pss2_service_t service, const pss_datum_t *key, syserr_t *status) {
  return lab::fetch_value(service, slot::pss2_fetch, key, status);
}

syserr_t pss2_store(pss2_service_t service, const pss_datum_t *key, const pss_datum_t *value) {
  return lab::store_record(__func__, service, key, value);
}

syserr_t pss2_delete(pss2_service_t service, const pss_datum_t *key, uint32 /*flag*/) {
  return lab::delete_record(__func__, service, key, true);
}

syserr_t pss2_move2location(pss2_service_t *services, uint32 count, pss_location_t location,
                            syserr_t *errlist) {
  if (services == nullptr || errlist == nullptr) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  const int to = static_cast<int>(location);
  for (uint32 i = 0; i < count; ++i) {
    std::string uri;
    errlist[i] = lab::guarded([&] {
      store_handle *const handle = lab::handle_find(services[i]);
      if (handle == nullptr) {
        return SYSERR_PSS_BAD_HANDLE;
      }
      const syserr_t moved = handle->move(to);
      if (moved != SYSERR_SUCCESS) {
        uri = handle->uri();
      }
      return moved;
    });
    lab::note_failed_read(__func__, uri, errlist[i]);
  }
  return to >= PSS_NULL_KEY && to <= PSS_PREVIOUS_KEY ? SYSERR_SUCCESS : SYSERR_PSS_BAD_ARGUMENT;
}

pss_datum_t *pss2_getkey(pss2_service_t service, syserr_t *status) {
  return lab::answer(service, slot::pss2_getkey, status, lab::copy_key);
}

pss_datum_t *pss2_getvalue(pss2_service_t service, syserr_t *status) {
  return lab::answer(service, slot::pss2_getvalue, status, lab::copy_value);
}

syserr_t pss2_kernel2file(pss2_service_t service, const char *file, uint32 /*flags*/) {
  lab::journal_entry entry;
  entry.call = __func__;
  entry.file = file == nullptr ? "" : file;
  return lab::change(entry, service, [file](store_handle &handle, lab::journal_entry * /*line*/) {
    const syserr_t status = handle.usable_for_copying();
    return status == SYSERR_SUCCESS ? lab::copy_to_flat_file(handle, file) : status;
  });
}

syserr_t pss2_file2kernel(const char *file, pss2_service_t service, uint32 /*flags*/) {
  lab::journal_entry entry;
  entry.call = __func__;
  entry.file = file == nullptr ? "" : file;
  entry.has_counts = true;
  return lab::change(entry, service, [file](store_handle &handle, lab::journal_entry *line) {
    const syserr_t status = lab::copy_from_flat_file(handle, file, line);
    // Only the file may be missing; a handle whose store is gone is a failed write.
    line->expected = handle.usable() == SYSERR_SUCCESS ? SYSERR_PSS_NO_STORE : SYSERR_SUCCESS;
    return status;
  });
}
