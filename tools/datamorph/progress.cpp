#include "progress.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <sys/ioctl.h>
#include <unistd.h>

#include "jail.h"

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds usual_delay = 1s;
constexpr std::chrono::milliseconds between_lines = 100ms;
constexpr size_t usual_width = 80;

bool allowed = false;
std::chrono::milliseconds delay = usual_delay; // until the first line
bool shown = false;                            // the line stands on the terminal
const progress *outermost = nullptr;           // whose line it is

// A terminal that stands still keeps nothing waiting.
void put(const std::string &text) {
  if (jail::stderr_takes(0ms)) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  }
}

size_t width() {
  winsize size = {};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                         : usual_width;
}

std::string time_text(std::chrono::seconds time) {
  const auto minutes = time.count() / 60;
  return (minutes > 0 ? std::to_string(minutes) + " min " : "") +
         std::to_string(time.count() % 60) + " s";
}

// What is no number of milliseconds is as if it were not there.
std::chrono::milliseconds wanted_delay() {
  const char *wanted = std::getenv("DATAMORPH_PROGRESS_DELAY");
  const std::string_view text = wanted == nullptr ? "" : wanted;
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = !text.empty() && error == std::errc() && end == text.data() + text.size();
  return whole ? std::chrono::milliseconds(number) : usual_delay;
}

} // namespace

void progress::allow(bool wanted) {
  const char *terminal = std::getenv("TERM");
  allowed = wanted && isatty(STDERR_FILENO) == 1 && terminal != nullptr &&
            std::string_view(terminal) != "dumb";
  delay = wanted_delay();
}

bool progress::is_allowed() {
  return allowed;
}

void progress::clear() {
  if (shown) {
    put("\r\033[K");
    shown = false;
  }
}

void progress::begin(const std::string &what, uint64_t total, const std::string &unit) {
  outermost = outermost == nullptr ? this : outermost;
  what_ = what;
  unit_ = unit;
  total_ = total;
  done_ = 0;
  begun_ = clock::now();
  next_ = begun_ + delay;
}

void progress::reach(uint64_t units) {
  done_ = units;
  if (allowed && outermost == this) {
    show();
  }
}

void progress::show() {
  const clock::time_point now = clock::now();
  if (now < next_) {
    return;
  }
  next_ = now + std::min(delay, between_lines);
  std::fflush(stdout); // what stands there stays above
  put("\r" + line(now - begun_).substr(0, width() - 1) + "\033[K");
  shown = true;
}

void progress::end() {
  if (outermost == this) {
    outermost = nullptr;
    clear();
  }
}

// The rest takes as long for each unit as what is done, which is worth telling when a part is done.
std::string progress::line(clock::duration passed) const {
  std::string text = what_ + ": " + std::to_string(done_);
  if (total_ == 0) {
    return text + " " + unit_;
  }
  text += " of " + std::to_string(total_) + " " + unit_;
  if (done_ >= total_ || done_ < total_ / 20 || done_ == 0) {
    return text;
  }
  const double each = std::chrono::duration<double>(passed).count() / static_cast<double>(done_);
  const auto left =
      std::chrono::seconds(static_cast<int64_t>(each * static_cast<double>(total_ - done_) + 1));
  return text + ", about " + time_text(left) + " left";
}
