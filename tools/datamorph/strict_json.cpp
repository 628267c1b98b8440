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

// Told by the parser of each part of a document, with its depth; what it says false to is left out.
class item_taker {
public:
  using taker = std::function<void(list_place, const nlohmann::json &)>;
  item_taker(std::string list, taker take) : list_(std::move(list)), take_(std::move(take)) {}

  bool operator()(int depth, nlohmann::json::parse_event_t event, const nlohmann::json &part) {
    using what = nlohmann::json::parse_event_t;
    const auto at = static_cast<size_t>(depth);
    if (event == what::key && at <= deepest_list) {
      names_[at] = part.get<std::string>();
    } else if (event == what::array_start || event == what::object_start) {
      open_list(at, event == what::array_start);
    } else if (event != what::key && at > 0 && at - 1 <= deepest_list && lists_[at - 1]) {
      if (names_[at - 1] == list_) {
        take_(at == 2 ? list_place::document : list_place::result, part);
      }
      return false;
    }
    return true;
  }

private:
  static constexpr size_t deepest_list = 2;

  void open_list(size_t at, bool is_list) {
    if (at > 0 && at <= deepest_list) {
      lists_[at] = is_list && (at == 1 || (names_[1] == "result" && !lists_[1]));
    }
  }

  std::string list_;
  taker take_;
  std::string names_[deepest_list + 1]; // of the members that are read, by their depth
  bool lists_[deepest_list + 1] = {};   // whether what stands there is a list that is left empty
};

nlohmann::json parse_strictly(const std::string &text, const std::string &origin,
                              const nlohmann::json::parser_callback_t &of_each) {
  duplicate_finder finder(origin);
  nlohmann::json::sax_parse(text, &finder);
  try {
    return nlohmann::json::parse(text, of_each);
  } catch (const nlohmann::json::exception &error) {
    const std::string what = error.what();
    const size_t after = what.find("] ");
    throw failure(exit_refused,
                  in_quotes(origin) + ": no JSON: " +
                      (after == std::string::npos ? what : to_text(what.substr(after + 2))));
  }
}

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
  return parse_strictly(text, origin, nullptr);
}

nlohmann::json
parse_json_items(const std::string &text, const std::string &origin, const std::string &list,
                 const std::function<void(list_place, const nlohmann::json &)> &take) {
  return parse_strictly(text, origin, item_taker(list, take));
}
