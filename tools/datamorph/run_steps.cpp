#include "run_steps.h"

#include <cstdint>
#include <optional>
#include <sstream>

#include "failure.h"
#include "text.h"
#include "tree.h"

namespace {

constexpr char steps_file[] = "steps.jsonl";
constexpr size_t longest_steps = 64 << 20;

// What the lines tell that are whole; the last one may be cut.
struct told_steps {
  std::optional<uint64_t> requests;
  uint64_t done = 0;
  std::string at; // the request that was begun last and has no end; "" when there is none

  // Throws nlohmann::json::exception.
  void take(const nlohmann::json &line) {
    const auto all = line.find("requests");
    if (all != line.end() && all->is_number_unsigned()) {
      requests = all->get<uint64_t>();
    } else if (line.contains("start")) {
      at = line.at("service").get<std::string>() + " (" + line.at("moment").get<std::string>() +
           ", VDC " + std::to_string(line.at("vdc").get<unsigned>()) + ")";
    } else if (line.contains("result")) {
      ++done;
      at.clear();
    }
  }

  std::string to_text() const {
    const std::string where = !at.empty()         ? "in " + ::to_text(at)
                              : done == 0         ? "before its first service"
                              : done == *requests ? "after its last service"
                                                  : "between two services";
    return where + ", " + std::to_string(done) + " of " + counted(*requests, "service call") +
           " done";
  }
};

} // namespace

step_log::step_log(const run_folder &folder, const std::vector<conversion_request> &requests)
    : file_(folder.create(steps_file)), requests_(requests) {
  put({{"requests", requests.size()}});
}

void step_log::take(const nlohmann::json &message) {
  if (message.contains("start")) {
    const conversion_request &request = requests_.at(message["start"].get<size_t>());
    put({{"start", message["start"]},
         {"moment", moment_name(request.which)},
         {"vdc", request.vdc},
         {"service", request.service()}});
  } else if (message.contains("result")) {
    put({{"result", message["result"]}, {"status", message.at("status")}});
  }
}

void step_log::put(const nlohmann::json &line) {
  file_.append(line.dump() + "\n");
}

std::string how_far(int folder) {
  told_steps found;
  try {
    if (!tree::exists(folder, steps_file)) {
      return "";
    }
    std::istringstream lines(tree::read_file(folder, steps_file, longest_steps));
    for (std::string text; std::getline(lines, text);) {
      const nlohmann::json line = nlohmann::json::parse(text, nullptr, false);
      if (line.is_object()) {
        found.take(line);
      }
    }
  } catch (const failure &) {
    return "";
  } catch (const nlohmann::json::exception &) {
    return "";
  }
  return found.requests ? found.to_text() : "";
}
