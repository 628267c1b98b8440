#include "rehearsal.h"

#include <algorithm>

#include <unistd.h>

#include "failure.h"
#include "stop_signal.h"

namespace {

constexpr size_t read_at_once = size_t(1) << 16;
constexpr size_t longest_line = 4096;            // what is more is cut off
constexpr size_t kept_trace = size_t(256) << 10; // of one step: a switch has hundreds of steps
constexpr char journal_end[] = ".journal";
constexpr char trace_end[] = ".trace";
constexpr char calls_end[] = ".calls";

// The first lines of a text that comes in parts; the others are counted.
class first_lines {
public:
  explicit first_lines(size_t most) : most_(most) {}

  void take(std::string_view text) {
    while (!text.empty()) {
      const size_t end = text.find('\n');
      const std::string_view part = text.substr(0, end);
      open_ = true;
      line_ += part.substr(0, longest_line - line_.size());
      if (end == text.npos) {
        return;
      }
      end_line();
      text.remove_prefix(end + 1);
    }
  }

  std::vector<std::string> end(size_t *more) {
    if (open_) {
      end_line();
    }
    *more = more_;
    return std::move(lines_);
  }

private:
  void end_line() {
    open_ = false;
    const bool fits = more_ == 0 && lines_.size() < most_ && line_.size() <= kept_trace - kept_;
    kept_ += fits ? line_.size() : 0;
    more_ += fits ? 0 : 1;
    if (fits) {
      lines_.push_back(line_);
    }
    line_.clear();
  }

  size_t most_;
  size_t kept_ = 0; // bytes
  size_t more_ = 0;
  bool open_ = false; // a line has begun
  std::string line_;
  std::vector<std::string> lines_;
};

// What does not fit is not kept; the lines that are shown are the first ones.
void append(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = TEMP_FAILURE_RETRY(write(file, text.data(), text.size()));
    if (put <= 0) {
      return;
    }
    text.remove_prefix(static_cast<size_t>(put));
  }
}

} // namespace

rehearsal::rehearsal(const common_options &common, const convert_options &options,
                     const scratch_folder &scratch, const std::string &name, int root,
                     const switch_state &state)
    : options_(options), scratch_(scratch), name_(name), conversion_(common, options_, state),
      state_(state) {
  if (!common.verbose) {
    conversion_.be_quiet();
  }
  conversion_.prepare(root);
  try {
    convert_copy(root);
    stop_signal::check();
    judge();
  } catch (const failure &error) {
    if (error.status() == exit_failed && scratch_.is_full()) {
      scratch_.throw_full();
    }
    throw;
  }
}

rehearsal::~rehearsal() {
  for (const char *what : {"", journal_end, trace_end}) {
    scratch_.drop(name_ + what);
  }
}

void rehearsal::convert_copy(int root) {
  copy_ = scratch_.copy(root, name_);
  const unique_fd journal = scratch_.file(name_ + journal_end);
  trace_ = scratch_.file(name_ + trace_end);
  conversion_.run(copy_.get(), journal.get(),
                  [&](std::string_view text) { append(trace_.get(), text); });
  authors_ = std::make_unique<journal_authors>(conversion_.plan().requests, [this] {
    unique_fd made = scratch_.file(name_ + calls_end);
    scratch_.drop(name_ + calls_end);
    return made;
  });
  conversion_.take_journal(journal.get(), [&](uint64_t number, const nlohmann::json &line) {
    authors_->take(number, line);
  });
}

// As convert does.
void rehearsal::judge() {
  trouble_ = conversion_.verdict();
  if (!trouble_.empty() && (conversion_.met_full_disk() || scratch_.is_full())) {
    scratch_.throw_full();
  }
  if (!trouble_.empty()) {
    status_ = exit_failed;
    return;
  }
  trouble_ = conversion_.unwanted_losses();
  if (trouble_.empty()) {
    conversion_.note_remainders();
  } else {
    status_ = exit_refused;
  }
  state_ = conversion_.state_after();
  state_.save(copy_.get());
}

std::vector<std::string> rehearsal::trace_of(size_t step, size_t most, size_t *more) const {
  const trace_span &span = conversion_.spans().at(step);
  first_lines lines(most);
  std::string part(read_at_once, '\0');
  for (uint64_t at = span.from; at < span.to;) {
    const ssize_t got =
        pread(trace_.get(), part.data(), std::min<uint64_t>(part.size(), span.to - at),
              static_cast<off_t>(at));
    if (got <= 0) {
      break;
    }
    lines.take({part.data(), static_cast<size_t>(got)});
    at += static_cast<uint64_t>(got);
  }
  return lines.end(more);
}
