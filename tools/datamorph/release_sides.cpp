#include "release_sides.h"

#include "failure.h"
#include "jail.h"
#include "output.h"
#include "text.h"

std::optional<layout_side> side_of(const library &library, const std::string &release) {
  if (!is_release_name(release)) {
    return std::nullopt;
  }
  syserr_t error = SYSERR_SUCCESS;
  const int order = library.compare_versions(release.c_str(), layout_release, &error);
  if (error != SYSERR_SUCCESS) {
    return std::nullopt;
  }
  return order < 0 ? layout_side::before : layout_side::from_then_on;
}

release_sides::release_sides(const std::string &wanted, int root,
                             const std::vector<std::string> &releases, unsigned timeout) {
  library loaded;
  jail::request request;
  request.root = root;
  request.prepare = [&] { loaded = load_library(wanted); };
  request.body = [&](const jail::channel &channel) {
    for (const std::string &release : releases) {
      const std::optional<layout_side> side = side_of(loaded, release);
      if (side) {
        channel.send({{"release", release}, {"side", *side}});
      }
    }
  };
  request.on_message = [&](const nlohmann::json &message) {
    sides_[message.at("release").get<std::string>()] = message.at("side").get<layout_side>();
  };
  request.on_trace = [](std::string_view) {};
  request.silence = std::chrono::seconds(timeout);
  try {
    const jail::outcome outcome = jail::run(request);
    if (outcome.how == jail::outcome::kind::silent) {
      trouble_ = "the conversion library gave no answer within " + counted(timeout, "second");
    } else if (!outcome.finished()) {
      trouble_ = "the conversion library " + outcome.text();
    }
  } catch (const failure &error) {
    if (error.status() > 128) {
      throw;
    }
    trouble_ = error.what();
  } catch (const nlohmann::json::exception &) {
    trouble_ = "the conversion library's answer makes no sense";
  }
}

std::optional<layout_side> release_sides::of(const std::string &release) const {
  const auto found = sides_.find(release);
  return found == sides_.end() ? std::nullopt : std::optional(found->second);
}

void release_sides::explain_missing() const {
  output::message(
      "the layout that records of a release have is not known, so they were decoded by "
      "their length: " +
      (trouble_.empty() ? "the conversion library cannot order the release" : trouble_));
}
