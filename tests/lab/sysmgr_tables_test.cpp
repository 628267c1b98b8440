// Tag tables outside the running ones: taken apart, built, and at rest in their store.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "lab/lab_fixture.h"
#include "support/bytes.h"

namespace {

constexpr char k_store[] = "volatile:/sysmgr/tag_tables";
constexpr char k_store_file[] = "/dev/shm/volatile/sysmgr/tag_tables.pss";

// "381=tag 542=" for a table; "(no table)" for bytes that are none.
std::string entries_of(const std::string &table) {
  std::vector<lab::tag_entry> entries = {{7, "as it was"}};
  if (!lab::tag_table_decode(table, &entries)) {
    EXPECT_EQ(entries.size(), 1U);
    return "(no table)";
  }
  std::string all;
  for (const lab::tag_entry &entry : entries) {
    all += (all.empty() ? "" : " ") + std::to_string(entry.uuid) + "=" + entry.tag;
  }
  return all;
}

TEST(tag_table, is_taken_apart_in_its_order) {
  EXPECT_EQ(entries_of(bytes("08 00 00 00 00 00 01 00")), "");
  EXPECT_EQ(entries_of(bytes("1b 00 00 00 02 00 01 00"
                             "01 00 05 00 1e 02 00 00 00"
                             "01 00 06 00 7d 01 00 00 78 00")),
            "542= 381=x");
}

TEST(tag_table, ends_where_it_says) {
  EXPECT_EQ(entries_of(bytes("08 00 00 00 00 00 01 00 01 00 05 00 1e 02 00 00 00")), "");
  EXPECT_EQ(entries_of(bytes("08 00 00 00 00 00 01 00 ff")), "");
}

TEST(tag_table, keeps_a_tag_without_a_terminator_and_what_comes_before_one) {
  EXPECT_EQ(entries_of(bytes("12 00 00 00 01 00 01 00 01 00 06 00 7d 01 00 00 61 62")), "381=ab");
  EXPECT_EQ(entries_of(bytes("12 00 00 00 01 00 01 00 01 00 06 00 7d 01 00 00 00 62")), "381=");
  EXPECT_EQ(entries_of(bytes("10 00 00 00 01 00 01 00 01 00 04 00 7d 01 00 00")), "381=");
}

TEST(tag_table, skips_items_that_are_no_entries) {
  EXPECT_EQ(entries_of(bytes("1f 00 00 00 03 00 01 00"
                             "09 00 04 00 7d 01 00 00"       // another type
                             "01 00 02 00 7d 01"             // no room for a service's number
                             "01 00 05 00 1e 02 00 00 00")), // an entry
            "542=");
}

TEST(tag_table, is_none_with_sizes_that_lie) {
  for (const char *table : {
           "",                                        // nothing
           "07 00 00 00 00 00 01",                    // no whole header
           "00 00 00 00 00 00 01 00",                 // no size
           "07 00 00 00 00 00 01 00",                 // smaller than its header
           "09 00 00 00 00 00 01 00",                 // larger than what there is
           "ff ff ff ff ff ff ff ff",                 //
           "0a 00 00 00 01 00 01 00 01 00",           // half a TLV
           "0c 00 00 00 01 00 01 00 01 00 01 00",     // a value past the end
           "0d 00 00 00 01 00 01 00 01 00 02 00 aa",  // the same
           "0e 00 00 00 01 00 01 00 09 00 03 00 aaaa" // of a TLV that is skipped
       }) {
    EXPECT_EQ(entries_of(bytes(table)), "(no table)") << table;
  }
}

TEST(tag_table, is_never_read_past_its_bytes) {
  std::mt19937 random(11);
  for (int round = 0; round < 20000; ++round) {
    std::vector<char> content(random() % 40); // on the heap, of just that size
    for (char &byte : content) {
      byte = static_cast<char>(random() % 8 == 0 ? random() : random() % 6);
    }
    if (content.size() >= 4 && random() % 4 != 0) {
      const auto size = static_cast<uint32>(content.size());
      std::memcpy(content.data(), &size, sizeof(size));
    }
    std::vector<lab::tag_entry> entries;
    lab::tag_table_decode({content.data(), content.size()}, &entries);
    ASSERT_LE(entries.size(), 8U);
  }
}

TEST(tag_table, is_built_from_entries) {
  EXPECT_EQ(hex(lab::tag_table_encode({})), "08 00 00 00 00 00 01 00");
  EXPECT_EQ(hex(lab::tag_table_encode({{542, ""}, {381, "x"}})), "1b 00 00 00 02 00 01 00 "
                                                                 "01 00 05 00 1e 02 00 00 00 "
                                                                 "01 00 06 00 7d 01 00 00 78 00");
  EXPECT_EQ(entries_of(lab::tag_table_encode({{1, std::string(40, 'a')}})),
            "1=" + std::string(31, 'a'));
}

// ---- At rest -----------------------------------------------------------------------------------

const std::string k_vdc1("\0\x01", 2);
const std::string k_vdc2("\0\x02", 2);

class tag_tables : public lab_test {
protected:
  void SetUp() override {
    lab_test::SetUp();
    lab::sysmgr_set_vdcs({1, 2, 16});
  }
};

void add(vdc_id_t vdc, uint32 uuid, const std::string &tag) {
  if (sysmgr_info_tbl[vdc].srv_tag_info_tbl == nullptr) {
    ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, vdc), 0U);
  }
  std::string copy = tag;
  ASSERT_EQ(sysmgr_srv_tag_info_add(static_cast<uuid_t>(uuid),
                                    reinterpret_cast<uint8 *>(copy.data()), vdc),
            0U);
}

std::string running(vdc_id_t vdc) {
  const tlv_array_t *const table = sysmgr_info_tbl[vdc].srv_tag_info_tbl;
  return table == nullptr ? "(none)" : hex(table, tlv_array_size_get(table, 1));
}

void forget_running_tables() {
  lab::sysmgr_set_vdcs({1, 2, 16});
}

// Differs once a file was written, or another one stands there.
std::string state_of_file() {
  struct stat found = {};
  EXPECT_EQ(stat(k_store_file, &found), 0);
  return std::to_string(found.st_ino) + " " + std::to_string(found.st_mtim.tv_sec) + "." +
         std::to_string(found.st_mtim.tv_nsec);
}

TEST_F(tag_tables, are_saved_as_they_lie) {
  add(1, 381, "on");
  add(16, 542, "");

  EXPECT_EQ(lab::sysmgr_save_tables(), 0U);

  EXPECT_EQ(read(k_store),
            (contents{{k_vdc1, bytes("13 00 00 00 01 00 01 00 01 00 07 00 7d 01 00 00 6f 6e 00")},
                      {std::string("\0\x10", 2),
                       bytes("11 00 00 00 01 00 01 00 01 00 05 00 1e 02 00 00 00")}}));
  EXPECT_EQ(lab::store_uris(), std::vector<std::string>{k_store});
}

TEST_F(tag_tables, are_the_same_when_loaded) {
  add(1, 381, "on");
  add(16, 542, "");
  const std::string first = running(1);
  const std::string last = running(16);
  ASSERT_EQ(lab::sysmgr_save_tables(), 0U);
  forget_running_tables();
  add(2, 1, "not saved");

  EXPECT_EQ(lab::sysmgr_load_tables(), 0U);

  EXPECT_EQ(running(1), first);
  EXPECT_EQ(running(2), "(none)");
  EXPECT_EQ(running(16), last);
  add(1, 542, std::string(31, 'x')); // there is room as in any table
  const std::string state = state_of_file();
  forget_running_tables();
  ASSERT_EQ(lab::sysmgr_load_tables(), 0U);
  EXPECT_EQ(running(1), first);
  EXPECT_EQ(state_of_file(), state);
}

TEST_F(tag_tables, of_the_largest_size_are_kept) {
  const std::string full = lab::tag_table_encode(
      std::vector<lab::tag_entry>(1638, {1, std::string(31, 't')})); // 8 + 1638 * 40 = 65528
  ASSERT_EQ(full.size(), 65528U);
  ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 1), 0U);
  std::memcpy(sysmgr_info_tbl[1].srv_tag_info_tbl, full.data(), full.size());
  EXPECT_EQ(lab::sysmgr_save_tables(), 0U);
  forget_running_tables();
  EXPECT_EQ(lab::sysmgr_load_tables(), 0U);
  EXPECT_TRUE(running(1) == hex(full));
}

TEST_F(tag_tables, that_do_not_stand_make_no_store) {
  EXPECT_EQ(lab::sysmgr_load_tables(), 0U);
  EXPECT_EQ(lab::sysmgr_save_tables(), 0U);
  EXPECT_FALSE(switch_root::exists("/dev/shm/volatile"));
  add(1, 381, "on");
  EXPECT_EQ(lab::sysmgr_load_tables(), 0U);
  EXPECT_EQ(running(1), "(none)");
}

TEST_F(tag_tables, that_did_not_change_are_not_written) {
  add(1, 381, "on");
  ASSERT_EQ(lab::sysmgr_save_tables(), 0U);
  const std::string state = state_of_file();
  const pss_service_t writer = open(k_store);
  ASSERT_EQ(put(writer, "other", "uncommitted"), 0U);

  EXPECT_EQ(lab::sysmgr_save_tables(), 0U); // although somebody is writing

  EXPECT_EQ(state_of_file(), state);
  add(1, 381, "off");
  EXPECT_EQ(lab::sysmgr_save_tables(), 0x4048000DU);
  EXPECT_EQ(pss_close(writer), 0U);
}

TEST_F(tag_tables, that_changed_are_written_alone) {
  add(1, 381, "on");
  add(2, 542, "");
  add(16, 1, "");
  ASSERT_EQ(lab::sysmgr_save_tables(), 0U);
  forget_running_tables();
  ASSERT_EQ(lab::sysmgr_load_tables(), 0U);
  add(2, 542, "x");
  const int journal = ::open("/tmp/journal", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  lab::journal_start(journal);
  lab::journal_request("closing", 0, "");

  EXPECT_EQ(lab::sysmgr_save_tables(), 0U);

  lab::journal_stop();
  ::close(journal);
  EXPECT_EQ(
      switch_root::read_file("/tmp/journal"),
      R"({"n":1,"moment":"closing","vdc":0,"service":"","call":"pss2_store","uri":"volatile:/sysmgr/tag_tables","key":"0002","old":17,"new":18,"added":0,"changed":1,"removed":0,"status":0,"unexpected":false}
{"n":2,"moment":"closing","vdc":0,"service":"","call":"pss2_close","uri":"volatile:/sysmgr/tag_tables","status":0,"unexpected":false}
)");
}

TEST_F(tag_tables, that_went_leave_the_store) {
  add(1, 381, "on");
  add(2, 542, "");
  ASSERT_EQ(lab::sysmgr_save_tables(), 0U);
  forget_running_tables();
  add(2, 542, "");

  EXPECT_EQ(lab::sysmgr_save_tables(), 0U);

  EXPECT_EQ(read(k_store),
            (contents{{k_vdc2, bytes("11 00 00 00 01 00 01 00 01 00 05 00 1e 02 00 00 00")}}));
  forget_running_tables();
  EXPECT_EQ(lab::sysmgr_save_tables(), 0U);
  EXPECT_EQ(read(k_store), contents());
}

// Nothing of the others is loaded, and what ran runs on.
TEST_F(tag_tables, that_are_damaged_are_not_loaded) {
  const std::string good = bytes("08 00 00 00 00 00 01 00");
  const std::string too_large = lab::tag_table_encode(
      std::vector<lab::tag_entry>(1639, {1, std::string(31, 't')})); // 65568 bytes
  const std::vector<std::pair<std::string, std::string>> damaged = {
      {k_vdc2, ""},
      {k_vdc2, good.substr(0, 7)},
      {k_vdc2, bytes("07 00 00 00 00 00 01 00")},
      {k_vdc2, bytes("09 00 00 00 00 00 01 00")},
      {k_vdc2, good + "x"},
      {k_vdc2, bytes("0a 00 00 00 01 00 01 00 01 00")},
      {k_vdc2, bytes("0c 00 00 00 01 00 01 00 01 00 01 00")},
      {k_vdc2, too_large},
      {std::string("\0\x03", 2), good},   // no VDC of this switch
      {std::string("\0\0", 2), good},     //
      {std::string("\0\x11", 2), good},   //
      {std::string("\x01\x01", 2), good}, //
      {std::string("\x01\0", 2), good},   // in the other byte order
      {std::string("\x02", 1), good},
      {std::string("\0\0\x02", 3), good},
  };
  for (const auto &[key, value] : damaged) {
    forget_running_tables();
    add(16, 381, "runs");
    make(k_store, {{k_vdc1, good}, {key, value}});

    EXPECT_EQ(lab::sysmgr_load_tables(), 0x40480009U) << hex(key) << ": " << hex(value);

    EXPECT_EQ(running(1), "(none)");
    EXPECT_EQ(running(16), "15 00 00 00 01 00 01 00 01 00 09 00 7d 01 00 00 72 75 6e 73 00");
  }
}

TEST_F(tag_tables, in_a_store_that_is_damaged_are_not_loaded_and_not_saved) {
  switch_root::write_file(k_store_file, std::string(8192, 'x'));
  add(1, 381, "on");
  EXPECT_EQ(lab::sysmgr_load_tables(), 0x40480009U);
  EXPECT_EQ(lab::sysmgr_save_tables(), 0x40480009U);
  EXPECT_EQ(running(1), "13 00 00 00 01 00 01 00 01 00 07 00 7d 01 00 00 6f 6e 00");
  EXPECT_EQ(switch_root::read_file(k_store_file), std::string(8192, 'x'));
}

TEST_F(tag_tables, that_could_not_be_loaded_again_are_not_saved) {
  add(1, 381, "on");
  ASSERT_EQ(lab::sysmgr_save_tables(), 0U);
  const contents saved = read(k_store);
  add(1, 542, "");
  for (const char *damage : {
           "00 00 00 00 00 00 01 00",             // no size
           "07 00 00 00 00 00 01 00",             // smaller than its header
           "01 00 01 00 00 00 01 00",             // larger than its room
           "0c 00 00 00 01 00 01 00 01 00 01 00", // a value past the end
       }) {
    ASSERT_EQ(sysmgr_srv_tag_info_table_prepare(0, 2), 0U);
    const std::string content = bytes(damage);
    std::memcpy(sysmgr_info_tbl[2].srv_tag_info_tbl, content.data(), content.size());
    EXPECT_EQ(lab::sysmgr_save_tables(), 0x40480009U) << damage;
    EXPECT_EQ(read(k_store), saved);
  }
}

// The first table fits into the store, the second does not: neither is in it.
TEST_F(tag_tables, are_saved_all_or_none) {
  ASSERT_EQ(lab::store_create(k_store, {16, 20, 0, 1}), 0U);
  add(1, 381, "");
  add(2, 381, "a longer one");

  EXPECT_EQ(lab::sysmgr_save_tables(), 0x40480006U);

  EXPECT_EQ(read(k_store), contents());
  add(2, 381, "");
  EXPECT_EQ(lab::sysmgr_save_tables(), 0U);
  EXPECT_EQ(read(k_store).size(), 2U);
}

} // namespace
