#include "strict_json.h"

#include <set>
#include <vector>

#include "failure.h"
#include "text.h"

namespace {

constexpr int deepest = 64;

// Looks for members that stand twice, in a pass of its own: a parser that builds the document and
// asks about every member on the way takes time that grows with the square of a long list.
class duplicate_finder : public nlohmann::json_sax<nlohmann::json> {
public:
  explicit duplicate_finder(const std::string &origin) : origin_(origin) {}

  bool start_object(std::size_t) override {
    members_.emplace_back();
    return go_down();
  }
  bool end_object() override {
    members_.pop_back();
    --depth_;
    return true;
  }
  bool key(string_t &name) override {
    if (!members_.back().insert(name).second) {
      throw failure(exit_refused, in_quotes(origin_) + ": the member " + in_quotes(name) +
                                      " stands twice in one object");
    }
    return true;
  }
  // The document's own pass says what is wrong with the text.
  bool parse_error(std::size_t, const std::string &, const nlohmann::json::exception &) override {
    return false;
  }
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t &) override { return true; }
  bool string(string_t &) override { return true; }
  bool binary(binary_t &) override { return true; }
  bool start_array(std::size_t) override { return go_down(); }
  bool end_array() override {
    --depth_;
    return true;
  }

private:
  bool go_down() {
    if (++depth_ > deepest) {
      throw failure(exit_refused, in_quotes(origin_) + ": nested deeper than " +
                                      std::to_string(deepest) + " levels");
    }
    return true;
  }

  int depth_ = 0;
  const std::string &origin_;
  std::vector<std::set<std::string>> members_;
};

} // namespace

nlohmann::json parse_shallow(const std::string &text) {
  bool too_deep = false;
  nlohmann::json document = nlohmann::json::parse(
      text,
      [&](int depth, nlohmann::json::parse_event_t, const nlohmann::json &) {
        too_deep = too_deep || depth > deepest;
        return depth <= deepest;
      },
      false);
  return too_deep ? nlohmann::json(nlohmann::json::value_t::discarded) : document;
}

nlohmann::json parse_json(const std::string &text, const std::string &origin) {
  duplicate_finder finder(origin);
  nlohmann::json::sax_parse(text, &finder);
  try {
    return nlohmann::json::parse(text);
  } catch (const nlohmann::json::exception &error) {
    const std::string what = error.what();
    const size_t after = what.find("] ");
    throw failure(exit_refused,
                  in_quotes(origin) + ": no JSON: " +
                      (after == std::string::npos ? what : to_text(what.substr(after + 2))));
  }
}
