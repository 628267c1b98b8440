#include "lab/store_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

#include "lab/files.h"
#include "lab/flat_file.h"
#include "lab/signals_off.h"

namespace lab {
namespace {

// Calls `act(key, value)` for each record that the connection sees, until one fails.
template <typename action> syserr_t for_each_record(store_db &db, const action &act) {
  syserr_t done = SYSERR_SUCCESS;
  bool ended = false;
  const syserr_t status = db.visit(
      nullptr,
      [&](std::string_view key, std::string_view value) {
        done = act(key, value);
        return done == SYSERR_SUCCESS;
      },
      &ended);
  return status == SYSERR_SUCCESS ? done : status;
}

// What stands under a key against what is about to be put there.
syserr_t count_put(store_db &db, std::string_view key, std::string_view value,
                   journal_entry *entry) {
  run reading(db.fetch);
  const int stepped = reading.bind(1, key).step();
  if (stepped == SQLITE_DONE) {
    ++entry->added;
    return SYSERR_SUCCESS;
  }
  std::string_view old;
  if (stepped != SQLITE_ROW) {
    return db.last_status();
  }
  entry->changed += reading.value_of(key, &old) && old == value ? 0 : 1;
  return SYSERR_SUCCESS;
}

// The counts of replacing all that stands in `to` by what `from` holds.
syserr_t count_replacement(store_db &from, store_db &to, journal_entry *entry) {
  uint64_t stood = 0;
  uint64_t copied = 0;
  syserr_t status = to.count(&stood);
  if (status == SYSERR_SUCCESS) {
    status = for_each_record(from, [&](std::string_view key, std::string_view value) {
      ++copied;
      return count_put(to, key, value, entry);
    });
  }
  entry->removed = stood - (copied - entry->added);
  return status;
}

syserr_t replace_records(store_db &from, store_db &to, journal_entry *entry) {
  syserr_t status = to.begin();
  if (status == SYSERR_SUCCESS && journal_on()) {
    status = count_replacement(from, to, entry);
  }
  status = status == SYSERR_SUCCESS ? to.execute("DELETE FROM records") : status;
  status = status == SYSERR_SUCCESS ? to.write_params(from.params()) : status;
  if (status == SYSERR_SUCCESS) {
    status = for_each_record(
        from, [&to](std::string_view key, std::string_view value) { return to.put(key, value); });
  }
  if (status != SYSERR_SUCCESS) {
    to.rollback();
    return status;
  }
  return to.commit();
}

// Brings a file to disk while its maker writes it and then does other work. Where no thread is to
// be had it is done in the end.
class sync_meanwhile {
public:
  explicit sync_meanwhile(int fd) : fd_(fd) {
    const signals_off guard;
    try {
      thread_ = std::thread([this] { work(); });
    } catch (const std::system_error &) {
    }
  }
  ~sync_meanwhile() { wait(); }
  sync_meanwhile(const sync_meanwhile &) = delete;
  sync_meanwhile &operator=(const sync_meanwhile &) = delete;

  void written() {
    const std::lock_guard<std::mutex> lock(mutex_);
    whole_ = true;
    changed_.notify_one();
  }
  // After written().
  syserr_t finish() {
    if (!wait()) {
      sync();
    }
    return error_ == 0 ? SYSERR_SUCCESS : status_of_errno(error_);
  }

private:
  static constexpr std::chrono::milliseconds k_look{2};

  void work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, k_look, [this] { return whole_; })) {
      lock.unlock();
      sync_file_range(fd_, 0, 0, SYNC_FILE_RANGE_WRITE); // only a hint
      lock.lock();
    }
    lock.unlock();
    sync();
  }
  void sync() { error_ = TEMP_FAILURE_RETRY(fsync(fd_)) == 0 ? 0 : errno; }
  bool wait() {
    const bool running = thread_.joinable();
    if (running) {
      written();
      thread_.join();
    }
    return running;
  }

  int fd_;
  int error_ = 0;
  bool whole_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

syserr_t check_copied(store_db &from, journal_entry *entry) {
  pss2_nonvol_params params = {};
  const syserr_t status = from.read_params(&params);
  return status == SYSERR_SUCCESS ? from.check_records(&entry->added) : status;
}

// The bytes of the store's file; the records are checked while the disk takes them.
syserr_t copy_bytes(store_db &from, const store_path &path, const std::string &scratch,
                    journal_entry *entry) {
  unique_fd fd(
      static_cast<int>(TEMP_FAILURE_RETRY(open(scratch.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC))));
  if (!fd.good()) {
    return status_of_errno(errno);
  }
  std::optional<sync_meanwhile> syncing;
  if (path.durable) {
    syncing.emplace(fd.get());
  }
  syserr_t status = from.copy_file_to(fd.get());
  if (syncing) {
    syncing->written();
  }
  status = status == SYSERR_SUCCESS ? check_copied(from, entry) : status;
  const syserr_t synced = syncing ? syncing->finish() : SYSERR_SUCCESS;
  status = status == SYSERR_SUCCESS ? synced : status;
  return status == SYSERR_SUCCESS && !fd.close_now() ? status_of_errno(errno) : status;
}

// The whole file, when that can be done: bytes and records are those of one state of the store.
syserr_t copy_file(store_db &from, const store_path &path, const std::string &scratch, bool *copied,
                   journal_entry *entry) {
  if (from.in_transaction()) { // its file does not hold yet what it sees
    return SYSERR_SUCCESS;
  }
  syserr_t status = from.execute("BEGIN");
  status = status == SYSERR_SUCCESS ? from.worth_copying_file(copied) : status; // reads: locked
  if (status == SYSERR_SUCCESS && *copied) {
    status = copy_bytes(from, path, scratch, entry);
  }
  from.rollback();
  return status;
}

syserr_t copy_records(store_db &from, const std::string &scratch, journal_entry *entry) {
  store_db to;
  const syserr_t status = to.open_scratch(scratch);
  return status == SYSERR_SUCCESS ? replace_records(from, to, entry) : status;
}

syserr_t copy_to_new_store(store_db &from, const store_path &path, journal_entry *entry) {
  store_in_making making(path);
  bool copied = false;
  syserr_t status = making.start(from.params());
  status =
      status == SYSERR_SUCCESS ? copy_file(from, path, making.scratch(), &copied, entry) : status;
  if (status == SYSERR_SUCCESS && !copied) {
    status = copy_records(from, making.scratch(), entry);
  }
  return status == SYSERR_SUCCESS ? making.place() : status;
}

} // namespace

syserr_t copy_to_store(store_handle &from, const char *uri, journal_entry *entry) {
  store_path path;
  if (!parse_uri(uri, &path)) {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  file_id id;
  syserr_t status = probe_store(path.file, &id);
  if (status == SYSERR_PSS_NO_STORE) {
    status = copy_to_new_store(from.db(), path, entry);
  } else if (status == SYSERR_SUCCESS && id != from.db().id()) {
    store_db target;
    status = target.open(path, true);
    status = status == SYSERR_SUCCESS ? replace_records(from.db(), target, entry) : status;
  }
  if (status != SYSERR_SUCCESS) {
    entry->added = entry->changed = entry->removed = 0;
  }
  return from.after_read(status);
}

syserr_t copy_to_flat_file(store_handle &from, const char *file) {
  if (file == nullptr || *file == '\0') {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  // The number of records and the records are read from one state of the store.
  const bool own = !from.db().in_transaction();
  syserr_t status = own ? from.db().execute("BEGIN") : SYSERR_SUCCESS;
  uint64_t records = 0;
  status = status == SYSERR_SUCCESS ? from.db().count(&records) : status;
  if (status == SYSERR_SUCCESS) {
    flat_writer writer(file);
    status = writer.start(records);
    if (status == SYSERR_SUCCESS) {
      status = for_each_record(from.db(), [&writer](std::string_view key, std::string_view value) {
        return writer.add(key, value);
      });
    }
    status = status == SYSERR_SUCCESS ? writer.finish() : status;
  }
  if (own) {
    from.db().rollback();
  }
  return from.after_read(status);
}

namespace {

syserr_t put_all(store_handle &to, flat_reader &reader, journal_entry *entry) {
  std::string key;
  std::string value;
  syserr_t status = to.db().execute("SAVEPOINT load");
  for (uint64_t i = 0; status == SYSERR_SUCCESS && i < reader.records(); ++i) {
    status = reader.next(&key, &value);
    // The file may have changed since it was checked.
    status = status == SYSERR_SUCCESS ? to.db().check_limits(key.size(), value.size()) : status;
    if (status == SYSERR_SUCCESS && journal_on()) {
      status = count_put(to.db(), key, value, entry);
    }
    status = status == SYSERR_SUCCESS ? to.db().put(key, value) : status;
  }
  status = status == SYSERR_SUCCESS ? reader.end() : status;
  return status == SYSERR_SUCCESS ? to.db().execute("RELEASE load") : status;
}

} // namespace

syserr_t copy_from_flat_file(store_handle &to, const char *file, journal_entry *entry) {
  if (file == nullptr || *file == '\0') {
    return SYSERR_PSS_BAD_ARGUMENT;
  }
  syserr_t status = to.usable_for_writing();
  status = status == SYSERR_SUCCESS ? to.settle() : status; // the limits are those of today
  flat_reader reader;
  status = status == SYSERR_SUCCESS ? reader.open(file) : status;
  const pss2_nonvol_params &limits = to.db().params();
  status =
      status == SYSERR_SUCCESS ? reader.check(limits.max_key_size, limits.max_value_size) : status;
  bool began = false;
  status = status == SYSERR_SUCCESS ? to.begin_writing_many(&began) : status;
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  try {
    status = put_all(to, reader, entry);
  } catch (const std::bad_alloc &) {
    status = SYSERR_PSS_NO_ROOM;
  }
  if (status != SYSERR_SUCCESS) {
    entry->added = entry->changed = 0;
    to.failed_write(status);
    if (began) {
      to.take_back();
    } else if (to.db().in_transaction() &&
               to.db().execute("ROLLBACK TO load; RELEASE load") != SYSERR_SUCCESS) {
      to.db().rollback(); // better nothing than half of it
      to.failed_write(status);
    }
    return status;
  }
  to.wrote_many();
  return SYSERR_SUCCESS;
}

} // namespace lab
