// What the functions for names and numbers do.
#include "contract/contract_platform.h"

#include <cstring>
#include <set>

namespace {

class texts_contract : public contract_test {};

TEST_F(texts_contract, every_status_has_a_text) {
  for (const syserr_t status : {0U, 1U, 0x401E0056U, 0x401E0076U, 0x401E00A3U, 0x801E0000U,
                                0x801E0071U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
    ASSERT_NE(syserr2str(status), nullptr) << status;
    EXPECT_NE(std::strlen(syserr2str(status)), 0U) << status;
  }
}

TEST_F(texts_contract, the_statuses_of_stores_have_texts_of_their_own) {
  std::set<std::string> texts;
  const std::vector<syserr_t> statuses = {
      0U,          0x40480001U, 0x40480002U, 0x40480003U, 0x40480005U, 0x40480006U, 0x40480008U,
      0x40480009U, 0x4048000AU, 0x4048000BU, 0x4048000CU, 0x4048000DU, 0x12345678U};

  for (const syserr_t status : statuses) {
    texts.insert(syserr2str(status));
  }

  EXPECT_EQ(texts.size(), statuses.size());
}

TEST_F(texts_contract, a_text_stays_when_others_are_asked_for) {
  const char *text = syserr2str(0x40480003U);
  const std::string before = text;

  syserr2str(0x40480008U);
  syserr2str(0x99999999U);

  EXPECT_EQ(text, before);
}

TEST_F(texts_contract, an_interface_index_is_stored_with_its_highest_byte_first) {
  const uint32 stored = hton_if_index(0x1A2B3C4D);

  EXPECT_EQ(hex(&stored, sizeof(stored)), "1a 2b 3c 4d");
  EXPECT_EQ(hton_if_index(0), 0U);
  EXPECT_EQ(hton_if_index(0xFFFFFFFF), 0xFFFFFFFFU);
}

TEST_F(texts_contract, key_type_9_has_its_name_and_any_other_one_a_text) {
  EXPECT_STREQ(__pss_key_type_enum_t_find(9), "PSS_KEY_TAG_INFO");
  for (const uint32 type : {0U, 8U, 10U, 0xFFFFFFFFU}) {
    ASSERT_NE(__pss_key_type_enum_t_find(type), nullptr);
    EXPECT_STRNE(__pss_key_type_enum_t_find(type), "PSS_KEY_TAG_INFO");
  }
}

} // namespace
