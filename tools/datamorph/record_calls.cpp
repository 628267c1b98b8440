#include "record_calls.h"

#include <algorithm>
#include <cerrno>
#include <queue>
#include <tuple>

#include "failure.h"
#include "lab/files.h"
#include "scratch_folder.h"
#include "text.h"

namespace {

constexpr uint64_t first_run = uint64_t(1) << 13;
constexpr uint64_t longest_run = uint64_t(1) << 19;
constexpr size_t indexed_calls = 512;
constexpr size_t merge_calls = (size_t(8) << 20) / sizeof(record_call); // in all buffers
constexpr size_t least_buffer = 4096 / sizeof(record_call);

bool comes_before(const record_call &one, const record_call &other) {
  return std::tie(one.record, one.line) < std::tie(other.record, other.line);
}

void write_calls(int file, const std::vector<record_call> &calls) {
  if (!lab::write_all(file, calls.data(), calls.size() * sizeof(record_call))) {
    throw no_room("cannot keep what was done to the records in the scratch folder: " +
                      error_text(errno),
                  "make room there, or name another place in TMPDIR");
  }
}

// Fills *calls as far as the file goes.
void read_calls(int file, uint64_t first, std::vector<record_call> *calls) {
  size_t done = 0; // bytes
  const size_t wanted = calls->size() * sizeof(record_call);
  while (done < wanted) {
    const ssize_t got = pread(file, reinterpret_cast<char *>(calls->data()) + done, wanted - done,
                              static_cast<off_t>(first * sizeof(record_call) + done));
    if (got < 0 && errno != EINTR) {
      throw failure(exit_failed, "cannot read what was done to the records: " + error_text(errno));
    }
    if (got == 0) {
      break;
    }
    done += got > 0 ? static_cast<size_t>(got) : 0;
  }
  calls->resize(done / sizeof(record_call));
}

// A sorted run on disk, read through a buffer.
class run_reader {
public:
  run_reader(int file, uint64_t first, uint64_t behind, size_t buffer)
      : file_(file), next_(first), behind_(behind), buffer_(buffer) {}

  // Null at its end.
  const record_call *here() {
    if (at_ == calls_.size() && next_ < behind_) {
      calls_.resize(std::min<uint64_t>(buffer_, behind_ - next_));
      read_calls(file_, next_, &calls_);
      next_ = calls_.empty() ? behind_ : next_ + calls_.size();
      at_ = 0;
    }
    return at_ < calls_.size() ? &calls_[at_] : nullptr;
  }
  void step() { ++at_; }

private:
  int file_;
  uint64_t next_;
  uint64_t behind_;
  size_t buffer_;
  std::vector<record_call> calls_;
  size_t at_ = 0;
};

} // namespace

void record_calls::add(const record_call &call) {
  const uint64_t on_disk = runs_.empty() ? 0 : runs_.back();
  if (held_.size() == std::clamp(on_disk, first_run, longest_run)) {
    write_run();
  }
  held_.push_back(call);
}

void record_calls::write_run() {
  if (!file_.is_open()) {
    file_ = make_file_();
  }
  std::sort(held_.begin(), held_.end(), comes_before);
  write_calls(file_.get(), held_);
  runs_.push_back((runs_.empty() ? 0 : runs_.back()) + held_.size());
  held_.clear();
}

void record_calls::settle() {
  if (settled_) {
    return;
  }
  settled_ = true;
  if (runs_.empty()) {
    std::sort(held_.begin(), held_.end(), comes_before);
    return;
  }
  write_run();
  merge();
}

void record_calls::merge() {
  const unique_fd from = std::exchange(file_, make_file_());
  const size_t buffer = std::max(least_buffer, merge_calls / runs_.size());
  std::vector<run_reader> readers;
  uint64_t first = 0;
  for (const uint64_t behind : runs_) {
    readers.emplace_back(from.get(), std::exchange(first, behind), behind, buffer);
  }
  const auto later = [&](size_t one, size_t other) {
    return comes_before(*readers[other].here(), *readers[one].here());
  };
  std::priority_queue<size_t, std::vector<size_t>, decltype(later)> queue(later);
  for (size_t run = 0; run < readers.size(); ++run) {
    if (readers[run].here() != nullptr) {
      queue.push(run);
    }
  }
  while (!queue.empty()) {
    const size_t run = queue.top();
    queue.pop();
    held_.push_back(*readers[run].here());
    readers[run].step();
    if (readers[run].here() != nullptr) {
      queue.push(run);
    }
    if (held_.size() == indexed_calls || queue.empty()) {
      index_.push_back(held_.front().record);
      write_calls(file_.get(), held_);
      held_.clear();
    }
  }
  held_.shrink_to_fit();
}

void record_calls::for_each(uint64_t record, const std::function<void(const record_call &)> &take) {
  settle();
  // The last indexed part that begins before the record: it may begin in there.
  const auto part = std::lower_bound(index_.begin(), index_.end(), record);
  uint64_t first =
      part == index_.begin() ? 0 : static_cast<uint64_t>(part - index_.begin() - 1) * indexed_calls;
  while (true) {
    if (!index_.empty()) {
      held_.resize(indexed_calls);
      read_calls(file_.get(), first, &held_);
      first += held_.size();
    }
    const auto from = std::lower_bound(
        held_.begin(), held_.end(), record,
        [](const record_call &one, uint64_t wanted) { return one.record < wanted; });
    auto at = from;
    for (; at != held_.end() && at->record == record; ++at) {
      take(*at);
    }
    if (at != held_.end() || index_.empty() || held_.empty()) {
      return;
    }
  }
}
