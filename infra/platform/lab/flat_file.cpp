#include "lab/flat_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

#include "lab/lab.h"
#include "lab/store_file.h"

namespace lab {
namespace {

constexpr std::string_view k_magic = "LABFLAT\n";
constexpr uint32 k_layout_version = 2;
constexpr size_t k_header_size = 8 + 4 + 8;
constexpr size_t k_sum_size = 8;
constexpr size_t k_record_head = 4 + 4;
constexpr size_t k_buffer_size = 65536;

template <typename number> void append_le(std::string *bytes, number value) {
  for (size_t i = 0; i < sizeof(number); ++i) {
    *bytes += static_cast<char>(value >> (8 * i) & 0xff);
  }
}

template <typename number> number from_le(const char *bytes) {
  number value = 0;
  for (size_t i = 0; i < sizeof(number); ++i) {
    value |= static_cast<number>(static_cast<unsigned char>(bytes[i])) << (8 * i);
  }
  return value;
}

} // namespace

// ---- Writing -----------------------------------------------------------------------------------

flat_writer::flat_writer(std::string file) : file_(std::move(file)), scratch_(file_ + ".pss-new") {}

flat_writer::~flat_writer() {
  if (fd_ != nullptr) {
    unlink(scratch_.c_str());
  }
}

syserr_t flat_writer::start(uint64_t records) {
  const syserr_t status = make_parents(file_, true);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  struct stat found = {};
  if (lstat(file_.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
    return SYSERR_PSS_DAMAGED;
  }
  if (is_open_here({found.st_dev, found.st_ino})) {
    return SYSERR_PSS_BUSY;
  }
  lock_ = std::make_unique<folder_lock>(parent_of(file_));
  if (lock_->status() != SYSERR_SUCCESS) {
    return lock_->status();
  }
  // Under the lock, a scratch file can only be left from a writer that was killed.
  const int fd = replace_scratch(scratch_);
  if (fd < 0) {
    return status_of_errno(errno);
  }
  fd_ = std::make_unique<unique_fd>(fd);
  buffer_.reserve(k_buffer_size);
  std::string header(k_magic);
  append_le(&header, k_layout_version);
  append_le(&header, records);
  return put(header);
}

syserr_t flat_writer::flush() {
  if (!write_all(fd_->get(), buffer_.data(), buffer_.size())) {
    return status_of_errno(errno);
  }
  buffer_.clear();
  return SYSERR_SUCCESS;
}

syserr_t flat_writer::put(std::string_view bytes) {
  // cppcheck-suppress invalidLifetime // the caller's string lives until this returns
  sum_.add(bytes.data(), bytes.size());
  while (!bytes.empty()) {
    const size_t part = std::min(bytes.size(), k_buffer_size - buffer_.size());
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.begin() + part);
    bytes.remove_prefix(part);
    const syserr_t status = buffer_.size() == k_buffer_size ? flush() : SYSERR_SUCCESS;
    if (status != SYSERR_SUCCESS) {
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

syserr_t flat_writer::add(std::string_view key, std::string_view value) {
  std::string sizes;
  append_le(&sizes, static_cast<uint32>(key.size()));
  append_le(&sizes, static_cast<uint32>(value.size()));
  syserr_t status = put(sizes);
  status = status == SYSERR_SUCCESS ? put(key) : status;
  return status == SYSERR_SUCCESS ? put(value) : status;
}

syserr_t flat_writer::finish() {
  std::string sum;
  append_le(&sum, sum_.digest());
  syserr_t status = put(sum);
  status = status == SYSERR_SUCCESS ? flush() : status;
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  if (TEMP_FAILURE_RETRY(fsync(fd_->get())) != 0 || !fd_->close_now() ||
      rename(scratch_.c_str(), file_.c_str()) != 0) {
    return status_of_errno(errno);
  }
  fd_.reset();
  return sync_folder(parent_of(file_));
}

// ---- Reading -----------------------------------------------------------------------------------

syserr_t flat_reader::open(const std::string &file) {
  // Closing a descriptor of a store that is open here would drop its locks.
  struct stat which = {};
  if (stat(file.c_str(), &which) == 0 && is_open_here({which.st_dev, which.st_ino})) {
    return SYSERR_PSS_DAMAGED;
  }
  const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    return status_of_errno(errno);
  }
  fd_ = std::make_unique<unique_fd>(fd);
  struct stat found = {};
  if (fstat(fd, &found) != 0) {
    return status_of_errno(errno);
  }
  const bool possible =
      S_ISREG(found.st_mode) && static_cast<uint64_t>(found.st_size) >= k_header_size + k_sum_size;
  if (!possible) {
    return SYSERR_PSS_DAMAGED;
  }
  size_ = static_cast<uint64_t>(found.st_size);
  buffer_.resize(k_buffer_size);
  return SYSERR_SUCCESS;
}

syserr_t flat_reader::refill() {
  ssize_t got = 0;
  do {
    got = read(fd_->get(), buffer_.data(), buffer_.size());
  } while (got < 0 && errno == EINTR);
  if (got <= 0) {
    return got == 0 ? SYSERR_PSS_DAMAGED : status_of_errno(errno);
  }
  used_ = 0;
  filled_ = static_cast<size_t>(got);
  return SYSERR_SUCCESS;
}

// Takes bytes that lie before the checksum.
syserr_t flat_reader::get(char *bytes, uint64_t size) {
  if (size > left_) {
    return SYSERR_PSS_DAMAGED;
  }
  left_ -= size;
  while (size > 0) {
    const syserr_t status = used_ == filled_ ? refill() : SYSERR_SUCCESS;
    if (status != SYSERR_SUCCESS) {
      return status;
    }
    const size_t part = static_cast<size_t>(std::min<uint64_t>(size, filled_ - used_));
    sum_.add(buffer_.data() + used_, part);
    if (bytes != nullptr) {
      std::memcpy(bytes, buffer_.data() + used_, part);
      bytes += part;
    }
    used_ += part;
    size -= part;
  }
  return SYSERR_SUCCESS;
}

syserr_t flat_reader::get_sizes(uint32 *key_size, uint32 *value_size) {
  char head[k_record_head];
  const syserr_t status = get(head, sizeof(head));
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  *key_size = from_le<uint32>(head);
  *value_size = from_le<uint32>(head + 4);
  return uint64_t{*key_size} + *value_size <= left_ ? SYSERR_SUCCESS : SYSERR_PSS_DAMAGED;
}

// To the first record, past a header that must be right.
syserr_t flat_reader::rewind() {
  if (lseek(fd_->get(), 0, SEEK_SET) != 0) {
    return status_of_errno(errno);
  }
  used_ = filled_ = 0;
  sum_.restart();
  left_ = size_ - k_sum_size;
  char header[k_header_size];
  const syserr_t status = get(header, sizeof(header));
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  records_ = from_le<uint64_t>(header + 12);
  const bool good = std::string_view(header, k_magic.size()) == k_magic &&
                    from_le<uint32>(header + 8) == k_layout_version &&
                    records_ <= left_ / k_record_head;
  return good ? SYSERR_SUCCESS : SYSERR_PSS_DAMAGED;
}

syserr_t flat_reader::end() {
  if (left_ != 0) {
    return SYSERR_PSS_DAMAGED;
  }
  const uint64_t sum = sum_.digest();
  char stored[k_sum_size];
  left_ = sizeof(stored);
  const syserr_t status = get(stored, sizeof(stored));
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  return from_le<uint64_t>(stored) == sum ? SYSERR_SUCCESS : SYSERR_PSS_DAMAGED;
}

syserr_t flat_reader::check(uint32 max_key_size, uint32 max_value_size) {
  syserr_t status = rewind();
  bool too_large = false;
  for (uint64_t i = 0; status == SYSERR_SUCCESS && i < records_; ++i) {
    uint32 key_size = 0;
    uint32 value_size = 0;
    status = get_sizes(&key_size, &value_size);
    if (status == SYSERR_SUCCESS) {
      too_large = too_large || key_size > max_key_size || value_size > max_value_size;
      status = get(nullptr, uint64_t{key_size} + value_size);
    }
  }
  status = status == SYSERR_SUCCESS ? end() : status;
  status = status == SYSERR_SUCCESS && too_large ? SYSERR_PSS_TOO_LARGE : status;
  return status == SYSERR_SUCCESS ? rewind() : status;
}

syserr_t flat_reader::next(std::string *key, std::string *value) {
  uint32 key_size = 0;
  uint32 value_size = 0;
  syserr_t status = get_sizes(&key_size, &value_size);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  key->resize(key_size);
  value->resize(value_size);
  status = get(key->data(), key_size);
  return status == SYSERR_SUCCESS ? get(value->data(), value_size) : status;
}

syserr_t
flat_file_read(const std::string &file,
               const std::function<void(std::string_view key, std::string_view value)> &take) {
  constexpr uint32 any_size = std::numeric_limits<uint32>::max();
  flat_reader reader;
  syserr_t status = reader.open(file);
  status = status == SYSERR_SUCCESS ? reader.check(any_size, any_size) : status;
  const uint64_t records = status == SYSERR_SUCCESS ? reader.records() : 0;
  std::string key;
  std::string value;
  for (uint64_t i = 0; status == SYSERR_SUCCESS && i < records; ++i) {
    status = reader.next(&key, &value);
    if (status == SYSERR_SUCCESS) {
      take(key, value);
    }
  }
  return status == SYSERR_SUCCESS ? reader.end() : status;
}

} // namespace lab
