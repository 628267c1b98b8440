#include "rehearsal.h"

#include <algorithm>
#include <sstream>

#include <unistd.h>

#include "failure.h"
#include "stop_signal.h"

namespace {

constexpr uint64_t longest_trace = uint64_t(64) << 20; // of one step, read for its lines
constexpr size_t longest_line = 4096;
constexpr char journal_end[] = ".journal";
constexpr char trace_end[] = ".trace";

std::string read_span(int file, const trace_span &span) {
  std::string text(std::min(span.to - span.from, longest_trace), '\0');
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t got =
        pread(file, text.data() + done, text.size() - done, static_cast<off_t>(span.from + done));
    if (got <= 0) {
      break;
    }
    done += static_cast<size_t>(got);
  }
  text.resize(done);
  return text;
}

// What does not fit is not kept; the lines that are shown are the first ones.
void append(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = write(file, text.data(), text.size());
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
  unique_fd journal = scratch_.file(name_ + journal_end);
  trace_ = scratch_.file(name_ + trace_end);
  conversion_.run(copy_.get(), journal.get(),
                  [&](std::string_view text) { append(trace_.get(), text); });
  const int lines = journal.get();
  authors_ = std::make_unique<journal_authors>(std::move(journal), conversion_.plan().requests);
  conversion_.take_journal(
      lines, [&](uint64_t number, const nlohmann::json &line) { authors_->take(number, line); });
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
  if (!trouble_.empty()) {
    status_ = exit_refused;
  }
  conversion_.note_remainders();
  state_ = conversion_.state_after();
  state_.save(copy_.get());
}

std::vector<std::string> rehearsal::trace_of(size_t step, size_t most, size_t *more) const {
  std::istringstream text(read_span(trace_.get(), conversion_.spans().at(step)));
  std::vector<std::string> lines;
  *more = 0;
  for (std::string line; std::getline(text, line);) {
    if (lines.size() == most) {
      ++*more;
    } else {
      lines.push_back(line.substr(0, longest_line));
    }
  }
  return lines;
}
