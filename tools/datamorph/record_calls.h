// What calls did to records, by record: any number of calls, of which a bounded part is held.
#ifndef DATAMORPH_RECORD_CALLS_H
#define DATAMORPH_RECORD_CALLS_H

#include <cstdint>
#include <functional>
#include <vector>

#include "unique_fd.h"

struct record_call {
  enum class what : uint32_t { added, changed, removed };

  uint64_t record = 0; // a hash of its store and key
  uint64_t line = 0;   // of the journal
  uint32_t author = 0;
  what did = what::added;
};

// Held are a few thousand calls. When more come, they go to a file in sorted runs, each as long as
// all before it, of 12 MiB at most; these are merged into another file, through 8 MiB of buffers in
// all, and 4 KiB per run beyond 2048 of them. Of that file one number per 512 calls is held: a
// thousand million calls take 28 MiB so.
class record_calls {
public:
  // Makes an empty file for writing and reading, which goes when it is closed.
  using file_maker = std::function<unique_fd()>;
  explicit record_calls(file_maker make_file) : make_file_(std::move(make_file)) {}

  // In the order of the journal's lines, all of them before the first question. Throws failure(3)
  // where there is no room for them.
  void add(const record_call &call);

  // The calls on a record, in their order. Throws failure(1) or (3).
  void for_each(uint64_t record, const std::function<void(const record_call &)> &take);

private:
  void write_run();
  void settle();
  void merge();

  file_maker make_file_;
  std::vector<record_call> held_; // what is not on disk yet; or, then, a part that was read
  std::vector<uint64_t> runs_;    // where each ends, in calls
  unique_fd file_;
  bool settled_ = false;
  std::vector<uint64_t> index_; // the record of every 512th call on disk
};

#endif
