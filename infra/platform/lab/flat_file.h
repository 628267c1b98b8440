// A store's records in a flat file. The layout, little-endian:
//
//   "LABFLAT\n"          8 bytes
//   version              uint32, 2
//   number of records    uint64
//   each record          uint32 key size, uint32 value size, key, value
//   XXH3                 uint64, over everything before it
//
// The layout is on disks: it changes with a new version number only.
#ifndef LAB_FLAT_FILE_H
#define LAB_FLAT_FILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lab/checksum.h"
#include "lab/files.h"
#include "platform/types.h"

namespace lab {

// Writes a flat file beside its place and puts it there, on disk, when complete.
class flat_writer {
public:
  explicit flat_writer(std::string file);
  ~flat_writer();
  flat_writer(const flat_writer &) = delete;
  flat_writer &operator=(const flat_writer &) = delete;

  syserr_t start(uint64_t records);
  syserr_t add(std::string_view key, std::string_view value);
  syserr_t finish();

private:
  syserr_t put(std::string_view bytes);
  syserr_t flush();

  std::string file_;
  std::string scratch_;
  std::unique_ptr<folder_lock> lock_;
  std::unique_ptr<unique_fd> fd_;
  std::vector<char> buffer_;
  running_sum sum_;
};

// Reads a flat file twice: check() believes nothing and says whether it is whole, next() then gives
// the records. Never holds more than one record in memory.
class flat_reader {
public:
  // SYSERR_PSS_NO_STORE for a missing file, SYSERR_PSS_DAMAGED for what is not a file.
  syserr_t open(const std::string &file);
  // SYSERR_PSS_DAMAGED, or SYSERR_PSS_TOO_LARGE for a whole file with a record over these sizes.
  syserr_t check(uint32 max_key_size, uint32 max_value_size);

  uint64_t records() const { return records_; }
  // The next record, after check(); what it gives is valid until the next call.
  syserr_t next(std::string *key, std::string *value);
  // After the last record: whether the file was read as it was checked.
  syserr_t end();

private:
  syserr_t rewind();
  syserr_t refill();
  syserr_t get(char *bytes, uint64_t size); // null: skips them
  syserr_t get_sizes(uint32 *key_size, uint32 *value_size);

  std::unique_ptr<unique_fd> fd_;
  std::vector<char> buffer_;
  size_t used_ = 0;
  size_t filled_ = 0;
  uint64_t left_ = 0; // bytes before the checksum that were not taken yet
  uint64_t size_ = 0;
  uint64_t records_ = 0;
  running_sum sum_;
};

} // namespace lab

#endif
