// Tag tables, TLV arrays from hostile hands, image versions.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "lab/lab_fixture.h"
#include "support/bytes.h"

namespace {

syserr_t add(uint32 uuid, const std::string &tag, vdc_id_t vdc = 1) {
  std::string copy = tag;
  return sysmgr_srv_tag_info_add(static_cast<uuid_t>(uuid), reinterpret_cast<uint8 *>(copy.data()),
                                 vdc);
}

tlv_array_t *table(vdc_id_t vdc = 1) {
  return sysmgr_info_tbl[vdc].srv_tag_info_tbl;
}

std::string table_bytes() {
  return hex(table(), tlv_array_size_get(table(), 1));
}

void put_table(const std::string &content) {
  std::memcpy(table(), content.data(), content.size());
}

TEST_F(lab_test, a_fresh_tag_table_is_empty) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  EXPECT_EQ(table_bytes(), "08 00 00 00 00 00 01 00");
}

TEST_F(lab_test, a_tag_is_added_replaced_and_keeps_its_place) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  EXPECT_EQ(add(381, "on"), 0U);
  EXPECT_EQ(add(542, "x"), 0U);
  EXPECT_EQ(add(381, "longer"), 0U);
  EXPECT_EQ(table_bytes(), "21 00 00 00 02 00 01 00 "
                           "01 00 0b 00 7d 01 00 00 6c 6f 6e 67 65 72 00 "
                           "01 00 06 00 1e 02 00 00 78 00");
  EXPECT_EQ(add(381, ""), 0U);
  EXPECT_EQ(table_bytes(), "1b 00 00 00 02 00 01 00 "
                           "01 00 05 00 7d 01 00 00 00 "
                           "01 00 06 00 1e 02 00 00 78 00");
}

TEST_F(lab_test, a_tag_has_31_characters_at_most) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  EXPECT_EQ(add(1, std::string(40, 'a')), 0U);
  EXPECT_EQ(tlv_array_size_get(table(), 1), 8U + 4 + 4 + 32);
}

TEST_F(lab_test, only_vdcs_of_the_switch_have_tables) {
  lab::sysmgr_set_vdcs({1, 3, 16});
  for (const vdc_id_t vdc : std::vector<vdc_id_t>{1, 3, 16}) {
    EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, vdc), 0U);
    EXPECT_NE(table(vdc), nullptr);
  }
  for (const vdc_id_t vdc : std::vector<vdc_id_t>{0, 2, 17, 65535}) {
    EXPECT_EQ(sysmgr_srv_tag_info_table_prepare(0, vdc), 0x401E0076U);
    EXPECT_EQ(add(1, "tag", vdc), 0x401E0076U);
  }
  lab::sysmgr_set_vdcs({1});
  EXPECT_EQ(table(3), nullptr);
}

TEST_F(lab_test, a_table_that_is_full_stays_as_it_was) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  uint32 uuid = 1;
  while (add(uuid, std::string(31, 't')) == 0U) {
    ++uuid;
    ASSERT_LT(uuid, 70000U);
  }
  EXPECT_EQ(uuid - 1, (65536U - 8) / 40);
  EXPECT_EQ(add(uuid, std::string(31, 't')), 0x401E0077U);
  EXPECT_EQ(tlv_array_get_num_tlvs(table(), 1), uuid - 1);
  EXPECT_EQ(add(1, std::string(31, 'u')), 0U);
  EXPECT_EQ(add(2, ""), 0U); // gives 31 bytes back
  EXPECT_EQ(add(uuid, ""), 0U);
}

TEST_F(lab_test, a_damaged_table_takes_nothing) {
  for (const char *content : {
           "00 00 00 00 00 00 01 00",             // no size
           "07 00 00 00 00 00 01 00",             // smaller than its header
           "01 00 01 00 00 00 01 00",             // larger than its room
           "ff ff ff ff ff ff ff ff",             //
           "0a 00 00 00 01 00 01 00 01 00",       // half a TLV
           "0c 00 00 00 01 00 01 00 01 00 01 00", // a value past the end
       }) {
    ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
    put_table(bytes(content));
    EXPECT_EQ(add(1, "tag"), 0x40490002U) << content;
  }
}

// Foreign TLVs in a table are kept, and an owner is read only where the value has room for one.
TEST_F(lab_test, other_tlvs_of_a_table_stay) {
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  put_table(bytes("16 00 00 00 02 00 01 00"
                  "01 00 02 00 7d 01"
                  "09 00 04 00 7d 01 00 00"));
  EXPECT_EQ(add(381, ""), 0U);
  EXPECT_EQ(table_bytes(), "1f 00 00 00 03 00 01 00 "
                           "01 00 02 00 7d 01 "
                           "09 00 04 00 7d 01 00 00 "
                           "01 00 05 00 7d 01 00 00 00");
}

// Arrays in memory of exactly their stated size, so that a read past it is found out.
class exact_array {
public:
  explicit exact_array(const std::string &content)
      : bytes_(new uint8[content.size()]), size_(content.size()) {
    std::memcpy(bytes_.get(), content.data(), size_);
  }
  const tlv_array_t *get() const { return reinterpret_cast<const tlv_array_t *>(bytes_.get()); }
  const uint8 *end() const { return bytes_.get() + size_; }

private:
  std::unique_ptr<uint8[]> bytes_;
  size_t size_;
};

TEST_F(lab_test, a_tlv_array_is_never_read_past_its_size) {
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    const auto size = static_cast<uint32>(8 + random() % 40);
    std::string content(size, '\0');
    for (char &byte : content) {
      byte = static_cast<char>(random() % 4 == 0 ? random() : random() % 6);
    }
    std::memcpy(content.data(), &size, sizeof(size));
    const exact_array array(content);
    ASSERT_EQ(tlv_array_size_get(array.get(), 1), size);
    uint32 cursor = 0;
    uint16 type = 0;
    uint16 length = 0;
    uint8 *value = nullptr;
    uint32 steps = 0;
    while (tlv_array_get_next_tlv(array.get(), &type, &length, &value, 1, &cursor) == 0U) {
      ASSERT_LE(value + length, array.end());
      ++steps;
    }
    ASSERT_LE(steps, 10U);
    ASSERT_LE(tlv_array_get_num_tlvs(array.get(), 1), steps);
  }
}

TEST_F(lab_test, a_tlv_cursor_past_the_array_is_a_status) {
  const exact_array array(bytes("0e 00 00 00 01 00 01 00 05 00 02 00 aa bb"));
  for (const uint32 wrong : {7U, 100U, 0x7FFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFFFU}) {
    uint32 cursor = wrong;
    uint16 type = 0;
    uint16 length = 0;
    uint8 *value = nullptr;
    EXPECT_EQ(tlv_array_get_next_tlv(array.get(), &type, &length, &value, 1, &cursor), 0x40490002U);
  }
  EXPECT_EQ(tlv_array_get_num_tlvs(array.get(), 1), 1U);
  EXPECT_EQ(tlv_array_get_num_tlvs(nullptr, 1), 0U);
  EXPECT_EQ(tlv_array_size_get(nullptr, 1), 0U);
}

std::string version_of(const char *path) {
  const char *const found = srg_sw_ver_file_get(path);
  return found == nullptr ? "(null)" : found;
}

TEST_F(lab_test, the_version_is_the_first_line) {
  for (const auto &[content, version] : std::vector<std::pair<std::string, std::string>>{
           {"4.2(1)", "4.2(1)"},
           {"  4.2(1) \r\nmore", "4.2(1)"},
           {std::string("4.2\0(1)", 7), "4.2"},
           {std::string(300, '4'), std::string(255, '4')},
           {"", "(null)"},
           {" \t\n4.2(1)\n", "(null)"}}) {
    switch_root::write_file("/images/4.2(1)/version", content);
    EXPECT_EQ(version_of("/images/4.2(1)"), version);
  }
}

TEST_F(lab_test, what_is_no_image_has_no_version) {
  EXPECT_EQ(version_of(nullptr), "(null)");
  EXPECT_EQ(version_of(""), "(null)");
  EXPECT_EQ(version_of("/images/none"), "(null)");
  EXPECT_EQ(version_of(("/" + std::string(4000, 'a')).c_str()), "(null)");
  std::filesystem::create_directories("/images/folder/version");
  EXPECT_EQ(version_of("/images/folder"), "(null)");
  std::filesystem::create_directories("/images/fifo");
  ASSERT_EQ(mkfifo("/images/fifo/version", 0600), 0);
  EXPECT_EQ(version_of("/images/fifo"), "(null)");
}

} // namespace
