#include "check_findings.h"

#include <utility>

#include "store_access.h"
#include "text.h"

nlohmann::json finding::to_json() const {
  nlohmann::json document = {
      {"level", word()}, {"check", name()}, {"text", text}, {"remedy", remedy}};
  if (!store.empty()) {
    document["store"] = shown_uri(store);
  }
  if (key) {
    document["key"] = *key;
  }
  return document;
}

nlohmann::json finding::to_message() const {
  nlohmann::json message = {
      {"what", what}, {"how", how}, {"store", to_hex(store)}, {"text", text}, {"remedy", remedy}};
  if (key) {
    message["key"] = *key;
  }
  return message;
}

finding finding::from_message(const nlohmann::json &message) {
  finding found;
  found.what = message.at("what").get<topic>();
  found.how = message.at("how").get<level>();
  found.store = from_hex(message.at("store").get<std::string>()).value_or("");
  found.text = message.at("text").get<std::string>();
  found.remedy = message.at("remedy").get<std::string>();
  if (message.contains("key")) {
    found.key = message["key"].get<std::string>();
  }
  return found;
}

void survey::add(finding found) {
  tally &all = at(found.what);
  ++(found.how == level::error ? all.errors : all.warnings);
  if (all.kept.size() < most_findings) {
    all.kept.push_back(std::move(found));
  }
}

void survey::count(topic what, uint64_t errors, uint64_t warnings) {
  at(what).errors += errors;
  at(what).warnings += warnings;
}

uint64_t survey::errors() const {
  uint64_t sum = 0;
  for (const tally &one : tallies_) {
    sum += one.errors;
  }
  return sum;
}

uint64_t survey::warnings() const {
  uint64_t sum = 0;
  for (const tally &one : tallies_) {
    sum += one.warnings;
  }
  return sum;
}
