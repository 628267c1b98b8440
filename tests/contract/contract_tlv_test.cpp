// What the TLV array functions do. The arrays are in blocks of exactly their size, so that a
// sanitizer finds any read behind them.
#include "contract/contract_platform.h"

#include <cstring>
#include <memory>

namespace {

class array {
public:
  explicit array(const std::string &content)
      : block_(std::make_unique<uint8[]>(content.size())), size_(content.size()) {
    std::memcpy(block_.get(), content.data(), content.size());
  }
  operator const tlv_array_t *() const {
    return reinterpret_cast<const tlv_array_t *>(block_.get());
  }
  const uint8 *begin() const { return block_.get(); }
  const uint8 *end() const { return block_.get() + size_; }

private:
  std::unique_ptr<uint8[]> block_;
  size_t size_;
};

// A header as stored on this machine, then `body`.
std::string array_bytes(uint32 size, uint16 count, const std::string &body) {
  const uint16 version = 1;
  std::string content(8, '\0');
  std::memcpy(content.data(), &size, 4);
  std::memcpy(content.data() + 4, &count, 2);
  std::memcpy(content.data() + 6, &version, 2);
  return content + body;
}

std::string item(uint16 type, uint16 length, const std::string &value) {
  std::string content(4, '\0');
  std::memcpy(content.data(), &type, 2);
  std::memcpy(content.data() + 2, &length, 2);
  return content + value;
}

// "TYPE:VALUE" for each TLV, then the status that ended the walk.
std::vector<std::string> walk(const array &tlvs) {
  std::vector<std::string> found;
  uint32 cursor = 0;
  while (found.size() < 100000) {
    uint16 type = 0;
    uint16 length = 0;
    uint8 *value = nullptr;
    const syserr_t status = tlv_array_get_next_tlv(tlvs, &type, &length, &value, 1, &cursor);
    if (status != 0) {
      found.push_back(status == 0x40490001U   ? "end"
                      : status == 0x40490002U ? "damaged"
                                              : "unknown status");
      return found;
    }
    EXPECT_GE(value, tlvs.begin());
    EXPECT_LE(value + length, tlvs.end());
    found.push_back(std::to_string(type) + ":" +
                    std::string(reinterpret_cast<const char *>(value), length));
  }
  return found;
}

class tlv_contract : public contract_test {};

TEST_F(tlv_contract, items_are_counted_and_walked_in_order) {
  const array tlvs(
      array_bytes(28, 3, item(7, 3, "abc") + item(2, 0, "") + item(65535, 5, "12345")));

  EXPECT_EQ(tlv_array_size_get(tlvs, 1), 28U);
  EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 3U);
  EXPECT_EQ(walk(tlvs), (std::vector<std::string>{"7:abc", "2:", "65535:12345", "end"}));
}

TEST_F(tlv_contract, an_array_without_items_is_its_header) {
  const array tlvs(array_bytes(8, 0, ""));

  EXPECT_EQ(tlv_array_size_get(tlvs, 1), 8U);
  EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 0U);
  EXPECT_EQ(walk(tlvs), std::vector<std::string>{"end"});
}

TEST_F(tlv_contract, the_size_is_read_from_the_header_alone) {
  const array header_only(array_bytes(0x12345678, 9, ""));

  EXPECT_EQ(tlv_array_size_get(header_only, 1), 0x12345678U);
}

TEST_F(tlv_contract, an_item_that_passes_the_stated_size_ends_the_walk) {
  const array tlvs(array_bytes(19, 2, item(1, 3, "abc") + item(2, 1, "")));

  EXPECT_EQ(walk(tlvs), (std::vector<std::string>{"1:abc", "damaged"}));
  EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 1U);
}

TEST_F(tlv_contract, a_length_of_65535_does_not_leave_the_array) {
  const array tlvs(array_bytes(15, 1, item(1, 65535, "abc")));

  EXPECT_EQ(walk(tlvs), std::vector<std::string>{"damaged"});
  EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 0U);
}

TEST_F(tlv_contract, an_item_cut_in_its_head_ends_the_walk) {
  for (uint32 left = 1; left < 4; ++left) {
    const array tlvs(array_bytes(8 + left, 1, item(1, 0, "").substr(0, left)));

    EXPECT_EQ(walk(tlvs), std::vector<std::string>{"damaged"}) << left;
    EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 0U) << left;
  }
}

TEST_F(tlv_contract, a_stated_size_below_the_header_holds_nothing) {
  for (uint32 size = 0; size < 8; ++size) {
    const array tlvs(array_bytes(size, 65535, ""));

    EXPECT_EQ(tlv_array_size_get(tlvs, 1), size);
    EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 0U) << size;
    EXPECT_EQ(walk(tlvs), std::vector<std::string>{"damaged"}) << size;
  }
}

TEST_F(tlv_contract, a_stated_count_that_is_too_high_sends_nobody_past_the_end) {
  const array tlvs(array_bytes(12, 65535, item(1, 0, "")));

  EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 1U);
  EXPECT_EQ(walk(tlvs), (std::vector<std::string>{"1:", "end"}));
}

TEST_F(tlv_contract, bytes_behind_the_stated_size_are_not_the_arrays) {
  const array tlvs(array_bytes(12, 1, item(1, 0, "") + item(2, 0, "")));

  EXPECT_EQ(walk(tlvs), (std::vector<std::string>{"1:", "end"}));
}

TEST_F(tlv_contract, a_cursor_that_stands_nowhere_is_a_status) {
  const array tlvs(array_bytes(12, 1, item(1, 0, "")));
  uint16 type = 0;
  uint16 length = 0;
  uint8 *value = nullptr;

  for (const uint32 wrong : {1U, 3U, 5U, 100U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    uint32 cursor = wrong;
    EXPECT_NE(tlv_array_get_next_tlv(tlvs, &type, &length, &value, 1, &cursor), 0U) << wrong;
  }
}

TEST_F(tlv_contract, null_arguments_are_no_crash) {
  const array tlvs(array_bytes(12, 1, item(1, 0, "")));
  uint16 type = 0;
  uint16 length = 0;
  uint8 *value = nullptr;
  uint32 cursor = 0;

  EXPECT_EQ(tlv_array_size_get(nullptr, 1), 0U);
  EXPECT_EQ(tlv_array_get_num_tlvs(nullptr, 1), 0U);
  EXPECT_NE(tlv_array_get_next_tlv(nullptr, &type, &length, &value, 1, &cursor), 0U);
  EXPECT_NE(tlv_array_get_next_tlv(tlvs, nullptr, &length, &value, 1, &cursor), 0U);
  EXPECT_NE(tlv_array_get_next_tlv(tlvs, &type, nullptr, &value, 1, &cursor), 0U);
  EXPECT_NE(tlv_array_get_next_tlv(tlvs, &type, &length, nullptr, 1, &cursor), 0U);
  EXPECT_NE(tlv_array_get_next_tlv(tlvs, &type, &length, &value, 1, nullptr), 0U);
  EXPECT_EQ(cursor, 0U);
}

TEST_F(tlv_contract, an_array_may_lie_anywhere_in_memory) {
  const std::string content = array_bytes(15, 1, item(9, 3, "abc"));
  for (size_t offset = 0; offset < 4; ++offset) {
    const auto block = std::make_unique<uint8[]>(offset + content.size());
    std::memcpy(block.get() + offset, content.data(), content.size());
    const auto *tlvs = reinterpret_cast<const tlv_array_t *>(block.get() + offset);
    uint16 type = 0;
    uint16 length = 0;
    uint8 *value = nullptr;
    uint32 cursor = 0;

    EXPECT_EQ(tlv_array_size_get(tlvs, 1), 15U);
    EXPECT_EQ(tlv_array_get_num_tlvs(tlvs, 1), 1U);
    EXPECT_EQ(tlv_array_get_next_tlv(tlvs, &type, &length, &value, 1, &cursor), 0U);
    EXPECT_EQ(type, 9U);
  }
}

} // namespace
