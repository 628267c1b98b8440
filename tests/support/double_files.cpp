// The double's flat files: a magic word, the records in key order, each with its two sizes, and a
// check sum over all of it.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/double_state.h"

namespace fs = std::filesystem;

namespace {

const std::string k_magic = "FLATRECS";

std::string number_bytes(uint32 value) {
  return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}

uint32 check_sum(const std::string &text) {
  uint32 sum = 2166136261U;
  for (const char c : text) {
    sum = (sum ^ static_cast<uint8>(c)) * 16777619U;
  }
  return sum;
}

class parser {
public:
  explicit parser(const std::string &text) : text_(text) {}

  bool number(uint32 *value) {
    std::string raw;
    if (!take(sizeof(*value), &raw)) {
      return false;
    }
    std::memcpy(value, raw.data(), sizeof(*value));
    return true;
  }

  bool take(size_t size, std::string *part) {
    if (size > text_.size() - at_) {
      return false;
    }
    *part = text_.substr(at_, size);
    at_ += size;
    return true;
  }

  bool at_end() const { return at_ == text_.size(); }

private:
  const std::string &text_;
  size_t at_ = 0;
};

bool parse(const std::string &text, platform_double::records_t *records) {
  if (text.size() < k_magic.size() + sizeof(uint32)) {
    return false;
  }
  const std::string body = text.substr(0, text.size() - sizeof(uint32));
  if (body + number_bytes(check_sum(body)) != text) {
    return false;
  }
  parser rest(body);
  std::string magic;
  if (!rest.take(k_magic.size(), &magic) || magic != k_magic) {
    return false;
  }
  while (!rest.at_end()) {
    uint32 key_size = 0;
    uint32 value_size = 0;
    std::string key;
    std::string value;
    if (!rest.number(&key_size) || !rest.number(&value_size) || !rest.take(key_size, &key) ||
        !rest.take(value_size, &value)) {
      return false;
    }
    (*records)[key] = value;
  }
  return true;
}

} // namespace

std::string platform_double::flat_file(const records_t &records) {
  std::string text = k_magic;
  for (const auto &[key, value] : records) {
    text += number_bytes(static_cast<uint32>(key.size()));
    text += number_bytes(static_cast<uint32>(value.size()));
    text += key + value;
  }
  return text + number_bytes(check_sum(text));
}

syserr_t read_flat_file(const std::string &file, platform_double::records_t *records) {
  std::error_code error;
  if (!fs::exists(file, error)) {
    return SYSERR_PSS_NO_STORE;
  }
  if (!fs::is_regular_file(file, error)) {
    return SYSERR_PSS_DAMAGED;
  }
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  platform_double::records_t found;
  if (!in || !parse(text.str(), &found)) {
    return SYSERR_PSS_DAMAGED;
  }
  *records = std::move(found);
  return SYSERR_SUCCESS;
}

syserr_t write_flat_file(const std::string &file, const platform_double::records_t &records) {
  std::error_code error;
  fs::create_directories(fs::path(file).parent_path(), error);
  const std::string beside = file + ".new";
  std::ofstream out(beside, std::ios::binary | std::ios::trunc);
  if (!out) {
    return SYSERR_PSS_NO_ACCESS;
  }
  out << platform_double::flat_file(records);
  out.close();
  if (out.fail() || rename(beside.c_str(), file.c_str()) != 0) {
    unlink(beside.c_str());
    return SYSERR_PSS_IO;
  }
  return SYSERR_SUCCESS;
}
