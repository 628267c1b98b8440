// VRRP records by their fields. Both layouts of a kind share one table of fields: the one of 4.2(1)
// is the older one with more behind it. Records are packed, with integers in host byte order.
#include "vrrp_records.h"

#include <algorithm>
#include <cstring>
#include <span>

#include <arpa/inet.h>

#include "platform/types.h"
#include "text.h"

namespace {

uint32 number_of(std::string_view bytes) {
  if (bytes.size() == 1) {
    return static_cast<unsigned char>(bytes[0]);
  }
  uint32 number = 0;
  std::memcpy(&number, bytes.data(), sizeof(number));
  return number;
}

// ---- Kinds of fields ---------------------------------------------------------------------------

struct shown {
  nlohmann::json value;
  std::string text;
};
using field_kind = shown (*)(std::string_view bytes);

shown number(std::string_view bytes) {
  const uint32 found = number_of(bytes);
  return {found, std::to_string(found)};
}

shown interface(std::string_view bytes) {
  const uint32 found = number_of(bytes);
  std::string text = "0x";
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += to_hex(std::string(1, static_cast<char>(found >> shift)));
  }
  return {text, text};
}

// What is neither stays a number.
shown truth(std::string_view bytes) {
  const uint32 found = number_of(bytes);
  return found > 1 ? number(bytes) : shown{found == 1, found == 1 ? "yes" : "no"};
}

struct named_number {
  uint32 number;
  const char *name;
};
constexpr named_number address_types[] = {
    {0, "INET_ADDR_TYPE_UNKNOWN"},
    {1, "INET_ADDR_TYPE_IPV4"},
    {2, "INET_ADDR_TYPE_IPV6"},
};
constexpr named_number admin_states[] = {{1, "STATE_UP"}, {2, "STATE_DOWN"}};
constexpr named_number authentications[] = {{1, "AUTH_NO"}, {2, "AUTH_TEXT"}, {3, "AUTH_IP"}};

// A number without a name stays a number.
template <const auto &names> shown named(std::string_view bytes) {
  const auto found = std::find_if(
      std::begin(names), std::end(names),
      [number = number_of(bytes)](const named_number &row) { return row.number == number; });
  return found == std::end(names) ? number(bytes) : shown{found->name, found->name};
}

shown hex(std::string_view bytes) {
  return {to_hex(bytes), to_hex(bytes)};
}

// Text filled up with zeros, or the hex of all of it: twice as many characters as there are bytes,
// so that no text looks like it.
shown padded_text(std::string_view bytes) {
  const std::string_view text = bytes.substr(0, bytes.find_last_not_of('\0') + 1);
  const bool printable =
      std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
  return printable ? shown{text, "\"" + to_text(text) + "\""} : hex(bytes);
}

struct address_form {
  uint32 type;
  int family;
  size_t bytes;
};
constexpr address_form address_forms[] = {{1, AF_INET, 4}, {2, AF_INET6, 16}};

// An address of a type that has a form, else hex. What follows a shorter one is told when it is
// there: it belongs to the key.
std::string address_text(uint32 type, std::string_view bytes) {
  for (const address_form &form : address_forms) {
    if (form.type == type) {
      char text[INET6_ADDRSTRLEN] = "";
      inet_ntop(form.family, bytes.data(), text, sizeof text);
      const std::string_view rest = bytes.substr(form.bytes);
      const bool plain = rest.find_first_not_of('\0') == std::string_view::npos;
      return plain ? text : std::string(text) + " and " + to_hex(rest);
    }
  }
  return to_hex(bytes);
}

// 4 bytes of type, 16 of address. Known types show in the address itself.
shown internet_address(std::string_view bytes) {
  const shown type = named<address_types>(bytes.substr(0, 4));
  const uint32 type_number = number_of(bytes.substr(0, 4));
  const std::string address = address_text(type_number, bytes.substr(4));
  const bool told = type_number == 1 || type_number == 2;
  return {{{"addr_type", type.value}, {"address", address}},
          told ? address : address + " (" + type.text + ")"};
}

// ---- The records -------------------------------------------------------------------------------

struct field {
  const char *name;
  size_t offset;
  size_t width;
  field_kind kind;
};

// clang-format off
constexpr field vr_fields[] = {
    {"ifindex",              0,   4,  interface},
    {"vr_id",                4,   1,  number},
    {"addr_type",            5,   4,  named<address_types>},
    {"admin",                9,   4,  named<admin_states>},
    {"prio",                 13,  4,  number},
    {"primary_ip",           17,  20, internet_address},
    {"auth",                 37,  4,  named<authentications>},
    {"key",                  41,  16, padded_text},
    {"adv",                  57,  4,  number},
    {"preempt",              61,  4,  truth},
    {"track_prio",           65,  4,  number},
    {"track_intf",           69,  4,  interface},
    {"spi",                  73,  4,  number},
    {"row_status",           77,  4,  number},
    {"owner",                81,  4,  truth},
    // from 4.2(1) on
    {"lower_threshold_prio", 85,  4,  number},
    {"upper_threshold_prio", 89,  4,  number},
    {"forwarding_state",     93,  4,  truth},
    {"reserved",             97,  20, hex},
};
constexpr field vip_fields[] = {
    {"ifindex",              0,   4,  interface},
    {"vr_id",                4,   1,  number},
    {"inet_addr",            5,   20, internet_address},
    {"virtual",              25,  4,  truth},
    {"row_status",           29,  4,  number},
    // from 4.2(1) on
    {"reserved",             33,  20, hex},
};
constexpr field global_fields[] = {
    {"vrrp_enabled",         0,   1,  truth},
    {"reserved",             1,   20, hex},
};
// clang-format on

// A key holds its type and then fields of its value again: where these bytes stand in both.
struct key_part {
  size_t in_key;
  size_t in_value;
  size_t width;
  bool network; // in the byte order of the network there
};

constexpr key_part vr_key[] = {
    {1, 5, 4, true},  // addr_type
    {5, 4, 1, false}, // vr_id
    {6, 0, 4, true},  // ifindex
};
constexpr key_part vip_key[] = {
    {1, 5, 4, true},   // the type of inet_addr
    {5, 4, 1, false},  // vr_id
    {6, 0, 4, true},   // ifindex
    {10, 9, 16, false} // the address of inet_addr
};

struct record_form {
  const char *kind;
  uint32 type;       // of the key
  size_t type_width; // in host byte order, at the key's start
  std::span<const key_part> key;
  size_t key_size;
  size_t key_fields; // so many bytes at the value's start stand in the key too
  std::span<const field> fields;
  size_t size;     // before 4.2(1)
  size_t new_size; // from then on
  size_t stored;   // which of the two is stored from 4.2(1) on
};

constexpr record_form forms[] = {
    {"VR record", 1, 1, vr_key, 10, 9, vr_fields, 85, 117, 117},
    {"VIP record", 2, 1, vip_key, 26, 25, vip_fields, 33, 53, 33},
    {"VRRP global info", 4, 4, {}, 4, 0, global_fields, 21, 21, 21},
};

// The fields follow each other without a gap, and each layout ends where one of them does.
constexpr bool fields_fill_layouts(const record_form &form) {
  size_t at = 0;
  bool met = false;
  for (const field &row : form.fields) {
    if (row.offset != at) {
      return false;
    }
    at += row.width;
    met = met || at == form.size;
  }
  return met && at == form.new_size;
}

// The same of a key, whose parts are the first fields of the value.
constexpr bool parts_fill_key(const record_form &form) {
  size_t at = form.type_width;
  for (const key_part &part : form.key) {
    if (part.in_key != at || part.in_value + part.width > form.key_fields) {
      return false;
    }
    at += part.width;
  }
  return at == form.key_size && at - form.type_width == form.key_fields;
}
static_assert(std::all_of(std::begin(forms), std::end(forms), [](const record_form &form) {
  return form.stored == form.size || form.stored == form.new_size;
}));
static_assert(std::all_of(std::begin(forms), std::end(forms), fields_fill_layouts));
static_assert(std::all_of(std::begin(forms), std::end(forms), parts_fill_key));

// ---- Decoding ----------------------------------------------------------------------------------

// The fields that end within these bytes, which are a value or its start.
std::vector<decoded_field> fields_of(const record_form &form, std::string_view bytes) {
  std::vector<decoded_field> found;
  for (const field &row : form.fields) {
    if (row.offset + row.width <= bytes.size()) {
      shown what = row.kind(bytes.substr(row.offset, row.width));
      found.push_back({row.name, std::move(what.value), row.name + (" " + what.text)});
    }
  }
  return found;
}

// The start of the value that a key of the right size promises.
std::string promised_by(const record_form &form, std::string_view key) {
  std::string start(form.key_fields, '\0');
  for (const key_part &part : form.key) {
    std::string bytes(key.substr(part.in_key, part.width));
    if (part.network) {
      const uint32 number = ntohl(number_of(bytes));
      std::memcpy(bytes.data(), &number, sizeof(number));
    }
    start.replace(part.in_value, part.width, bytes);
  }
  return start;
}

// The key's fields under a name of their own: the value has the same ones. In a text they stand
// only beside a problem, since otherwise the value's tell the same.
decoded_field key_field(const record_form &form, std::string_view key, bool in_text) {
  const uint32 type = number_of(key.substr(0, form.type_width));
  nlohmann::json document = {{"type", type}};
  std::string text = "type " + std::to_string(type);
  for (const decoded_field &field : fields_of(form, promised_by(form, key))) {
    document[field.name] = field.value;
    append_word(text, field.text, ", ");
  }
  return {"record_key", document, in_text ? "key (" + text + ")" : ""};
}

bool key_agrees(const record_form &form, std::string_view key, std::string_view value) {
  return number_of(key.substr(0, form.type_width)) == form.type &&
         value.starts_with(promised_by(form, key));
}

// What is wrong with the record, in words.
std::vector<std::string> problems_of(const record_form &form, std::string_view key,
                                     std::string_view value, bool sound,
                                     const std::string &misfit) {
  std::vector<std::string> problems;
  if (!misfit.empty()) {
    problems.push_back(misfit);
  } else if (!sound) {
    const std::string size = std::to_string(form.size);
    problems.push_back(counted(value.size(), "byte") +
                       (form.size == form.new_size
                            ? ", not " + size
                            : ", neither " + size + " nor " + std::to_string(form.new_size)));
  }
  if (key.size() != form.key_size) {
    problems.push_back("key of " + counted(key.size(), "byte") + ", not " +
                       std::to_string(form.key_size));
  } else if (sound && !key_agrees(form, key, value)) {
    problems.push_back("key disagrees");
  }
  return problems;
}

// What tells the layout of a value that has one.
decoded_field layout_field(const record_form &form, size_t size) {
  if (size == form.size && form.stored == form.size) {
    return {"layout", "every release", "layout of every release"};
  }
  const char *const layout = size == form.size ? "before 4.2(1)" : "4.2(1)";
  return {"layout", layout, std::string("layout ") + layout};
}

decoded_record decode(const record_form &form, std::string_view key, std::string_view value,
                      const std::string &misfit) {
  const bool has_layout = value.size() == form.size || value.size() == form.new_size;
  const bool sound = has_layout && misfit.empty();
  const std::vector<std::string> problems = problems_of(form, key, value, sound, misfit);
  decoded_record record = {form.kind, !has_layout, {}, !misfit.empty()};
  if (!problems.empty()) {
    std::string text;
    for (const std::string &problem : problems) {
      append_word(text, problem, ", ");
    }
    record.fields.push_back({"problems", problems, text});
  }
  if (key.size() == form.key_size) {
    record.fields.push_back(key_field(form, key, !problems.empty()));
  }
  if (sound) {
    if (form.size != form.new_size) {
      record.fields.push_back(layout_field(form, value.size()));
    }
    const std::vector<decoded_field> fields = fields_of(form, value);
    record.fields.insert(record.fields.end(), fields.begin(), fields.end());
  }
  return record;
}

const record_form *form_of(std::string_view key) {
  const auto found = std::find_if(std::begin(forms), std::end(forms), [&](const record_form &form) {
    return !key.empty() && number_of(key.substr(0, 1)) == form.type;
  });
  return found == std::end(forms) ? nullptr : found;
}

} // namespace

std::optional<decoded_record> decode_vrrp_record(std::string_view key, std::string_view value,
                                                 const std::string &misfit) {
  const record_form *const form = form_of(key);
  return form == nullptr ? std::nullopt : std::optional(decode(*form, key, value, misfit));
}

std::string vrrp_layout_trouble(std::string_view key, std::string_view value,
                                std::optional<layout_side> side) {
  const record_form *const form = form_of(key);
  if (form == nullptr || (value.size() != form->size && value.size() != form->new_size)) {
    return "";
  }
  const bool changes = form->stored != form->size;
  if (changes && !side) {
    return "";
  }
  const bool before = side == layout_side::before;
  const size_t stored = before ? form->size : form->stored;
  return value.size() == stored ? ""
                                : counted(value.size(), "byte") + ", but " +
                                      (!changes ? "in every release"
                                       : before ? "before 4.2(1)"
                                                : "from 4.2(1) on") +
                                      " it has " + std::to_string(stored);
}
