#include "run_folder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"
#include "jail.h"
#include "output.h"
#include "statuses.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr char conversion_log[] = "/mnt/pss/data_morph.log";
constexpr auto log_patience = std::chrono::seconds(60);

} // namespace

unique_fd run_folder::create(const char *name) const {
  unique_fd file = tree::make_file(folder_.get(), name, 0644);
  if (!file.is_open()) {
    throw failure(exit_failed, "cannot create " + std::string(name) +
                                   " in the run's folder: " + error_text(errno));
  }
  return file;
}

bool limited_file::put(std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = TEMP_FAILURE_RETRY(write(file_.get(), text.data(), text.size()));
    if (put <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<size_t>(put));
  }
  return true;
}

void limited_file::append(std::string_view text) {
  if (full_) {
    return;
  }
  const size_t size = std::min(text.size(), left_);
  left_ -= size;
  full_ = !put(text.substr(0, size));
  if (!full_ && size < text.size()) {
    full_ = true;
    put("\n[the rest is left out: this file has reached its limit of 64 MiB]\n");
  }
}

std::string run_folder::read(const char *name, size_t limit) const {
  return tree::exists(folder_.get(), name) ? tree::read_file(folder_.get(), name, limit) : "";
}

void run_folder::replace(const char *name, const std::string &content) const {
  tree::replace_file(folder_.get(), name, content);
  if (TEMP_FAILURE_RETRY(fsync(folder_.get())) != 0) {
    throw failure(exit_failed, "cannot sync the run's folder: " + error_text(errno));
  }
}

void run_folder::write_report(const nlohmann::json &report) const {
  try {
    replace("report.json", output::json_text(report) + "\n");
  } catch (const failure &error) {
    output::message(std::string("the run's report could not be kept: ") + error.what());
  }
}

void run_folder::keep_conversion_log(int state) const {
  limited_file target(create("conversion.log"));
  jail::request request;
  request.root = state;
  request.silence = log_patience;
  request.body = [&](const jail::channel &) {
    const unique_fd log(open(conversion_log, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat about = {};
    if (!log.is_open() || fstat(log.get(), &about) != 0 || !S_ISREG(about.st_mode)) {
      return;
    }
    char buffer[65536];
    ssize_t got = 0;
    while ((got = ::read(log.get(), buffer, sizeof buffer)) > 0) {
      target.append({buffer, static_cast<size_t>(got)});
    }
  };
  const jail::outcome outcome = jail::run(request);
  if (!outcome.finished()) {
    output::message("the conversion log could not be kept: the copying " + outcome.text());
  }
}

std::string first_failed_write(const nlohmann::json &closing) {
  const nlohmann::json line =
      nlohmann::json::parse(closing.value("first_unexpected", ""), nullptr, false);
  if (!line.is_object()) {
    return "a write in the switch failed: see the run's journal";
  }
  const std::string uri = line.value("uri", "");
  const unsigned vdc = line.value("table_vdc", 0u);
  const std::string what = line.value("call", "a call") +
                           (uri.empty() ? "" : " on the store " + in_quotes(uri)) +
                           (vdc == 0 ? "" : " on the tag table of VDC " + std::to_string(vdc)) +
                           " by " + line.value("service", "?");
  // A call that went well is named when its line could not be written.
  if (!line.value("unexpected", true)) {
    return "the run's journal could not be written, from " + what +
           " on; is there room for it in runs/?";
  }
  return "a write in the switch failed: " + what + " gave " +
         status_text(line.value("status", SYSERR_FAILED));
}
