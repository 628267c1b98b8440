// The double's log and scripts, and what it hands out.
#include "support/platform_double.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/double_state.h"
#include "support/scarce_malloc.h"

namespace {

constexpr size_t k_logged_bytes = 4096;

void add_script(std::list<script> &scripts, const std::string &function, unsigned nth, bool forever,
                const scripted_answer &answer) {
  script made;
  made.function = function;
  made.countdown = nth;
  made.forever = forever;
  made.answer = answer;
  scripts.push_back(std::move(made));
}

scripted_answer with_status(syserr_t status, int error = 0) {
  scripted_answer made;
  made.status = status;
  made.error = error;
  return made;
}

scripted_answer with_bytes(const std::string &bytes) {
  scripted_answer made;
  made.bytes = bytes;
  return made;
}

scripted_answer with_missing(uint32 size) {
  scripted_answer made;
  made.missing = size;
  return made;
}

scripted_answer with_handles(syserr_t status) {
  scripted_answer made;
  made.handles = status;
  return made;
}

bool is_mts(const char *function) {
  return std::strncmp(function, "mts_", 4) == 0;
}

} // namespace

// ---- Bytes for a limited time -------------------------------------------------------------------

void *loan::give_bytes(const std::string &bytes) {
  take_back();
  size_ = bytes.size();
  bytes_ = scarce_malloc::always(size_);
  if (bytes_ == nullptr) {
    std::perror("platform_double");
    std::abort();
  }
  if (size_ > 0) {
    std::memcpy(bytes_, bytes.data(), size_);
  }
  return bytes_;
}

pss_datum_t *loan::give_datum(const std::string &bytes) {
  return make_datum(give_bytes(bytes), bytes.size());
}

pss_datum_t *loan::give_datum_without_bytes(uint32 size) {
  take_back();
  return make_datum(nullptr, size);
}

pss_datum_t *loan::make_datum(void *bytes, size_t size) {
  datum_ = static_cast<pss_datum_t *>(scarce_malloc::always(sizeof(*datum_)));
  if (datum_ == nullptr) {
    std::perror("platform_double");
    std::abort();
  }
  *datum_ = {bytes, static_cast<uint32>(size)};
  return datum_;
}

void loan::take_back() {
  if (bytes_ != nullptr && size_ > 0) {
    explicit_bzero(bytes_, size_);
  }
  std::free(bytes_);
  if (datum_ != nullptr) {
    explicit_bzero(datum_, sizeof(*datum_));
  }
  std::free(datum_);
  bytes_ = nullptr;
  datum_ = nullptr;
  size_ = 0;
}

// ---- Log ----------------------------------------------------------------------------------------

namespace log_text {

namespace {

bool is_wanted() {
  return double_platform().internals().logs;
}

} // namespace

std::string number(uint32 value) {
  return is_wanted() ? std::to_string(value) : std::string();
}

std::string flags(uint32 value) {
  if (!is_wanted()) {
    return {};
  }
  char text[16];
  std::snprintf(text, sizeof(text), "0x%x", value);
  return text;
}

std::string string(const char *text) {
  if (!is_wanted()) {
    return {};
  }
  return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

std::string data(const void *bytes, size_t size) {
  if (!is_wanted()) {
    return {};
  }
  if (bytes == nullptr) {
    return "null";
  }
  if (size > k_logged_bytes) {
    return "(" + std::to_string(size) + " bytes)";
  }
  std::string text = size == 0 ? "-" : "";
  for (size_t i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", static_cast<const uint8 *>(bytes)[i]);
    text += digits;
  }
  return text;
}

std::string datum(const pss_datum_t *datum) {
  if (datum == nullptr) {
    return "null";
  }
  return datum->siz == 0 ? "-" : data(datum->ptr, datum->siz);
}

std::string location(pss_location_t location) {
  static const char *const names[] = {"PSS_NULL_KEY", "PSS_FIRST_KEY", "PSS_LAST_KEY",
                                      "PSS_NEXT_KEY", "PSS_PREVIOUS_KEY"};
  const auto index = static_cast<uint32>(location);
  return index < std::size(names) ? names[index] : number(index);
}

} // namespace log_text

std::optional<scripted_answer>
platform_double::state::enter(const char *function, const std::vector<std::string> &arguments) {
  if (logs) {
    std::string text = std::string(function) + "(";
    for (size_t i = 0; i < arguments.size(); ++i) {
      text += (i == 0 ? "" : ", ") + arguments[i];
    }
    log.push_back({function, text + ")"});
  }

  std::optional<scripted_answer> answer;
  std::vector<std::function<void()>> actions;
  for (auto it = scripts.begin(); it != scripts.end();) {
    if (!it->function.empty() && it->function != function) {
      ++it;
      continue;
    }
    if (it->countdown > 1) {
      --it->countdown;
      ++it;
      continue;
    }
    if (it->action) {
      actions.push_back(it->action);
    } else if (!answer) {
      answer = it->answer;
      if (it->function.empty() && is_mts(function)) {
        answer->status = static_cast<syserr_t>(answer->error);
      }
    }
    it = it->forever ? std::next(it) : scripts.erase(it);
  }
  for (const std::function<void()> &action : actions) {
    action();
  }
  scripted += answer.has_value() ? 1U : 0U;
  return answer;
}

std::vector<std::string> platform_double::calls() const {
  std::vector<std::string> texts;
  for (const state::entry &entry : state_->log) {
    texts.push_back(entry.text);
  }
  return texts;
}

std::vector<std::string> platform_double::calls(const std::string &function) const {
  std::vector<std::string> texts;
  for (const state::entry &entry : state_->log) {
    if (entry.function == function) {
      texts.push_back(entry.text);
    }
  }
  return texts;
}

void platform_double::clear() {
  state_->log.clear();
}

// ---- Scripts ------------------------------------------------------------------------------------

void platform_double::fail(const std::string &function, syserr_t status, unsigned nth) {
  add_script(state_->scripts, function, nth, false, with_status(status));
}

void platform_double::keep_no_log() {
  state_->logs = false;
}

void platform_double::fail_from(const std::string &function, syserr_t status, unsigned nth) {
  add_script(state_->scripts, function, nth, true, with_status(status));
}

void platform_double::fail_any(unsigned nth, syserr_t status, int error) {
  add_script(state_->scripts, "", nth, false, with_status(status, error));
}

void platform_double::fail_any_from(unsigned nth, syserr_t status, int error) {
  add_script(state_->scripts, "", nth, true, with_status(status, error));
}

unsigned platform_double::scripted() const {
  return state_->scripted;
}

void platform_double::answer(const std::string &function, const std::string &bytes, unsigned nth) {
  add_script(state_->scripts, function, nth, false, with_bytes(bytes));
}

void platform_double::answer_from(const std::string &function, const std::string &bytes,
                                  unsigned nth) {
  add_script(state_->scripts, function, nth, true, with_bytes(bytes));
}

void platform_double::answer_without_bytes(const std::string &function, uint32 size, unsigned nth) {
  add_script(state_->scripts, function, nth, false, with_missing(size));
}

void platform_double::answer_without_bytes_from(const std::string &function, uint32 size,
                                                unsigned nth) {
  add_script(state_->scripts, function, nth, true, with_missing(size));
}

void platform_double::answer_null(const std::string &function, unsigned nth) {
  add_script(state_->scripts, function, nth, false, {});
}

void platform_double::answer_null_from(const std::string &function, unsigned nth) {
  add_script(state_->scripts, function, nth, true, {});
}

void platform_double::answer_handles(syserr_t status, unsigned nth) {
  add_script(state_->scripts, "pss2_move2location", nth, false, with_handles(status));
}

void platform_double::answer_handles_from(syserr_t status, unsigned nth) {
  add_script(state_->scripts, "pss2_move2location", nth, true, with_handles(status));
}

void platform_double::before(const std::string &function, std::function<void()> action,
                             unsigned nth) {
  script made;
  made.function = function;
  made.countdown = nth;
  made.action = std::move(action);
  state_->scripts.push_back(std::move(made));
}

// ---- The double itself --------------------------------------------------------------------------

platform_double::platform_double() : state_(std::make_unique<state>()) {}

platform_double::~platform_double() {
  set_vdcs({});
}

void platform_double::reset() {
  set_vdcs({});
  debug_trace_fac_SYSMGR = {};
  state_ = std::make_unique<state>();
}

platform_double &double_platform() {
  static platform_double the_double;
  return the_double;
}
