// TLV arrays: walked by the platform's functions, held against a second reading; edited as a
// running tag table; and as a saved tag table that gets an entry.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/fuzz_switch.h"
#include "lab/lab.h"
#include "lab/tag_table.h"

namespace {

constexpr size_t k_head = 8;
constexpr uint32 k_room = 65536;

struct item {
  uint16 type;
  std::string value;
};

template <typename number_t> number_t number_at(const std::string &bytes, size_t at) {
  number_t number = 0;
  std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

// The items that stand whole within the stated size; *damaged when there is more than they are.
std::vector<item> items_of(const std::string &array, bool *damaged) {
  std::vector<item> found;
  const size_t end = number_at<uint32>(array, 0);
  size_t at = k_head;
  while (at + 4 <= end && at + 4 + number_at<uint16>(array, at + 2) <= end) {
    const size_t length = number_at<uint16>(array, at + 2);
    found.push_back({number_at<uint16>(array, at), array.substr(at + 4, length)});
    at += 4 + length;
  }
  *damaged = at != end;
  return found;
}

// A block of exactly these bytes: whoever reads or writes behind it is found.
using block = std::unique_ptr<void, decltype(&std::free)>;
block block_of(const std::string &bytes, size_t size) {
  block made(std::malloc(size), std::free);
  std::memcpy(made.get(), bytes.data(), bytes.size());
  return made;
}

void walk(const std::string &array, const std::vector<item> &items, bool damaged) {
  const block bytes = block_of(array, array.size());
  const auto *table = static_cast<const tlv_array_t *>(bytes.get());
  const auto stated = static_cast<size_t>(number_at<uint16>(array, 4));
  expect(tlv_array_size_get(table, 1) == number_at<uint32>(array, 0), "another size");
  expect(tlv_array_get_num_tlvs(table, 1) == std::min(items.size(), stated),
         "another number of items");
  uint16 type = 0;
  uint16 length = 0;
  uint8 *value = nullptr;
  uint32 cursor = 0;
  for (const item &wanted : items) {
    expect(tlv_array_get_next_tlv(table, &type, &length, &value, 1, &cursor) == 0 &&
               type == wanted.type &&
               std::string(reinterpret_cast<char *>(value), length) == wanted.value,
           "another item");
  }
  expect(tlv_array_get_next_tlv(table, &type, &length, &value, 1, &cursor) ==
             (damaged ? 0x40490002U : 0x40490001U),
         "another end");
}

bool is_entry(const item &one) {
  return one.type == 1 && one.value.size() >= 4;
}

// The service of an entry, and its tag.
lab::tag_entry entry_of(const item &one) {
  return {number_at<uint32>(one.value, 0), one.value.c_str() + 4};
}

void expect_entries(const std::vector<lab::tag_entry> &found,
                    const std::vector<lab::tag_entry> &wanted) {
  expect(found.size() == wanted.size(), "entries were lost, or came from nowhere");
  for (size_t at = 0; at < wanted.size(); ++at) {
    expect(found[at].uuid == wanted[at].uuid && found[at].tag == wanted[at].tag,
           "an entry is another one");
  }
}

std::vector<lab::tag_entry> entries_of(const std::vector<item> &items) {
  std::vector<lab::tag_entry> entries;
  for (const item &one : items) {
    if (is_entry(one)) {
      entries.push_back(entry_of(one));
    }
  }
  return entries;
}

// An entry is put into a running table: the others stay, in their order.
void edit(const std::string &array, const std::vector<item> &items, bool damaged, uint32 uuid,
          const std::string &tag) {
  std::vector<lab::tag_entry> wanted = entries_of(items);
  std::vector<lab::tag_entry> decoded;
  expect(lab::tag_table_decode(array, &decoded) == !damaged, "damage is told otherwise");
  if (!damaged) {
    expect_entries(decoded, wanted);
    std::vector<lab::tag_entry> again;
    const std::string encoded = lab::tag_table_encode(decoded);
    expect(lab::tag_table_decode(encoded, &again), "what was encoded is no table");
  }
  const block bytes = block_of(array, k_room);
  auto *table = static_cast<tlv_array_t *>(bytes.get());
  const syserr_t status = lab::tag_table_put(table, uuid, tag.c_str());
  if (status != 0) {
    expect(status == (damaged ? 0x40490002U : 0x401E0077U), "another status of an edit");
    expect(std::memcmp(table, array.data(), array.size()) == 0, "a failed edit changed the table");
    return;
  }
  expect(!damaged, "a damaged table was edited");
  const std::string cut = tag.substr(0, 31);
  const auto old = std::find_if(wanted.begin(), wanted.end(),
                                [&](const lab::tag_entry &one) { return one.uuid == uuid; });
  if (old == wanted.end()) {
    wanted.push_back({uuid, cut});
  } else {
    old->tag = cut;
  }
  const std::string edited(static_cast<char *>(bytes.get()), lab::tag_table_size(table));
  expect(lab::tag_table_decode(edited, &decoded), "an edited table is none");
  expect_entries(decoded, wanted);
  expect(lab::tag_table_find(table, uuid) == cut, "the entry is not found");
}

// The same of a table that was saved, by the library; behind its stated size may stand more.
void save(const std::string &saved, bool damaged, uint32 uuid, const std::string &tag) {
  const std::string uri = "nonvolatile:/cfg/bin/sysmgr_config";
  const std::string key("\x09\0\0\0\0\0\0\0\0\0\0\0", 12);
  double_platform().set_store(uri, {{key, saved}, {"other", "record"}});
  std::string text = tag;
  const syserr_t status = sysmgr_add_tag_startup("/cfg", static_cast<uuid_t>(uuid),
                                                 reinterpret_cast<uint8 *>(text.data()), 1);
  const uint32 stated = saved.size() < k_head ? 0 : number_at<uint32>(saved, 0);
  const bool fits = stated >= k_head && stated <= saved.size() && stated <= k_room;
  const platform_double::records_t after = double_platform().records(uri);
  expect(after.size() == 2 && after.at("other") == "record", "another record was touched");
  if (!fits || damaged) {
    expect(status == (fits ? 0x40490002U : 0x40480009U), "another status for a damaged table");
    expect(after.at(key) == saved, "a damaged table was written");
  } else {
    expect(status == 0 || status == 0x401E0077, "another status for a table");
    expect(status == 0 || after.at(key) == saved, "a table without room was written");
    bool spoilt = false;
    const std::vector<item> items = items_of(after.at(key), &spoilt);
    expect(!spoilt, "the table that was written is damaged");
    expect(status != 0 ||
               lab::tag_table_find(reinterpret_cast<const tlv_array_t *>(after.at(key).data()),
                                   uuid) == tag.substr(0, 31),
           "the entry does not stand in the saved table");
  }
  fuzz_switch::expect_tidy();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  bytes_source source(data, size);
  fuzz_switch::reset();
  const auto uuid = static_cast<uint32>(source.byte() << 8 | source.byte());
  const std::string tag = source.text();
  const std::string table = source.rest();
  bool damaged = true;
  if (table.size() >= k_head && number_at<uint32>(table, 0) >= k_head &&
      number_at<uint32>(table, 0) <= table.size() && table.size() <= k_room) {
    const std::vector<item> items = items_of(table, &damaged);
    walk(table, items, damaged);
    edit(table, items, damaged, uuid, tag);
  } else {
    std::vector<lab::tag_entry> none;
    expect(!lab::tag_table_decode(table, &none), "bytes that are no table are one");
  }
  save(table, damaged, uuid, tag);
  return 0;
}
