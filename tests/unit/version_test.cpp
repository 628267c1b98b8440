// Version strings: comparison, minimum, the version of an image.

#include "libdatamorph_private.h"

#include <climits>

#include "support/library_fixture.h"

namespace {

class version_test : public library_fixture {
protected:
  int order(const char *from, const char *to) {
    syserr_t error = 0xdead;
    const int result = datamorph_compare_versions(from, to, &error);
    EXPECT_EQ(0u, error);
    return result;
  }
};

struct order_row {
  const char *from;
  const char *to;
  int result;
};

TEST_F(version_test, compare) {
  const order_row rows[] = {
      {"4.2(1)", "4.2(1)", 0},
      {"4.1(2)", "4.2(1)", -1},
      {"5.0(1)", "4.2(1)", 1},
      {"4.2(10)", "4.2(9)", 1},
      {"4.2(1a)", "4.2(1)", 0},
      {"4.2(1).S3", "4.2(1)", 0},
      {"4.2(1).3", "4.2(1).2", 0},
      {"4.2(1)3", "4.2(1)", 0},
      {"4.0(4)", "4.2(1)", -1},
      {"10.0(0)", "9.9(9)", 1},
      {"4.2(2)", "4.2(1)", 1},
      // separators: any of ".()", runs count as one, leading ones are skipped
      {"..4..2((1))", "4.2(1)", 0},
      {"(4)2.1", "4.2(1)", 0},
      {"4)2(1", "4.2(1)", 0},
      {"4.2.1", "4.2(1)", 0},
      // a missing field is 0
      {"", "", 0},
      {"", "0.0(0)", 0},
      {"4", "4.0(0)", 0},
      {"4.2", "4.2(1)", -1},
      {"...", "0", 0},
      {"4.2()", "4.2(0)", 0},
      // leading digits only; a sign or a blank gives 0
      {"a.b(c)", "0.0(0)", 0},
      {"4a.2b(1c)", "4.2(1)", 0},
      {"-4.2(1)", "0.2(1)", 0},
      {"+4.2(1)", "0.2(1)", 0},
      {" 4.2(1)", "0.2(1)", 0},
      {"4 .2(1)", "4.2(1)", 0},
      {"4,2(1)", "4.1", 0}, // "4,2" is 4, then 1
      {"04.02(01)", "4.2(1)", 0},
      // what is too large is 2147483647
      {"4294967299.0(0)", "3.0(0)", 1},
      {"4294967299.0(0)", "2147483647.0(0)", 0},
      {"2147483648", "2147483647", 0},
      {"2147483647", "2147483646", 1},
      {"99999999999999999", "2147483647", 0},
      // at most 16 characters count, and all 16 can
      {"4.2(000000000001", "4.2(000000000000", 1},
      {"4.2(0000000000012", "4.2(000000000001", 0},
      {"0000000000000004.", "4", 0},
      {"00000000000000004", "0", 0},
      {"4.2(1))))))))))))))9", "4.2(1)", 0},
      {"................5", "0", 0},
      {"...............5", "5", 0},
  };
  for (const order_row &row : rows) {
    EXPECT_EQ(row.result, order(row.from, row.to)) << row.from << " and " << row.to;
    EXPECT_EQ(-row.result, order(row.to, row.from)) << row.to << " and " << row.from;
  }
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(version_test, compare_reads_no_further_than_16_characters) {
  // Exactly 16 bytes without a terminator, at the end of an allocation.
  const std::string text = "4.2(000000000001";
  ASSERT_EQ(16u, text.size());
  char *exact = static_cast<char *>(malloc(16));
  memcpy(exact, text.data(), 16);
  EXPECT_EQ(0, order(exact, exact));
  EXPECT_EQ(1, order(exact, "4.2(0)"));
  free(exact);
}

TEST_F(version_test, compare_traces_nothing_for_good_arguments) {
  EXPECT_EQ(lines_t(), traced([this] { order("4.2(1)", "4.1(2)"); }));
}

TEST_F(version_test, compare_refuses_nulls) {
  const std::pair<const char *, const char *> pairs[] = {
      {nullptr, "4.2(1)"}, {"4.2(1)", nullptr}, {nullptr, nullptr}};
  for (const auto &[from, to] : pairs) {
    syserr_t error = 0;
    int result = 0;
    EXPECT_EQ(lines_t({"datamorph_compare_versions: Invalid or NULL argument passed\n"}),
              traced([&, from = from, to = to] {
                result = datamorph_compare_versions(from, to, &error);
              }));
    EXPECT_EQ(-2, result);
    EXPECT_EQ(0xFFFFFFFFu, error);
  }
}

TEST_F(version_test, a_null_error_code_is_not_written) {
  EXPECT_EQ(1, datamorph_compare_versions("4.2(1)", "4.1(2)", nullptr));
  traced([] { EXPECT_EQ(-2, datamorph_compare_versions(nullptr, "4.1(2)", nullptr)); });
}

TEST_F(version_test, long_and_odd_strings) {
  const std::string digits(4000, '9');
  const std::string dots(4000, '.');
  EXPECT_EQ(0, order(digits.c_str(), digits.c_str()));
  EXPECT_EQ(1, order(digits.c_str(), dots.c_str()));
  EXPECT_EQ(0, order(dots.c_str(), ""));
  EXPECT_EQ(0, order("\xff\xfe", "\x80"));
}

TEST_F(version_test, minimum_supported_version) {
  EXPECT_STREQ("4.1(2)", min_supported_ver);
  EXPECT_EQ(7u, sizeof min_supported_ver);
  syserr_t error = 0;
  EXPECT_TRUE(datamorph_is_srv_not_supported_target_ver("4.1(1)", "4.1(2)", &error));
  EXPECT_FALSE(datamorph_is_srv_not_supported_target_ver("4.1(2)", "4.1(2)", &error));
  EXPECT_FALSE(datamorph_is_srv_not_supported_target_ver("4.2(1)", "4.1(2)", &error));
  EXPECT_EQ(lines_t({"datamorph_compare_versions: Invalid or NULL argument passed\n",
                     "datamorph_compare_versions: Invalid or NULL argument passed\n"}),
            traced([&] {
              EXPECT_TRUE(datamorph_is_srv_not_supported_target_ver(nullptr, "4.1(2)", &error));
              EXPECT_TRUE(datamorph_is_srv_not_supported_target_ver("4.1(2)", nullptr, &error));
            }));
}

TEST_F(version_test, not_supported_leaves_the_error_code_alone) {
  syserr_t error = 0x5555;
  traced([&] {
    datamorph_is_srv_not_supported_target_ver(nullptr, "4.1(2)", &error);
    datamorph_is_srv_not_supported_target_ver("4.1(1)", "4.1(2)", &error);
    datamorph_is_srv_not_supported_target_ver("4.1(1)", "4.1(2)", nullptr);
  });
  EXPECT_EQ(0x5555u, error);
}

TEST_F(version_test, version_of_an_image) {
  platform.set_image("/images/x", "4.2(1)");
  char path[] = "/images/x";
  char version[10];
  memset(version, 'z', sizeof version);
  EXPECT_EQ(0, datamorph_get_version(path, version, sizeof version));
  EXPECT_EQ(std::string("4.2(1)\0\0\0\0", 10), std::string(version, sizeof version));
  EXPECT_EQ(lines_t({"srg_sw_ver_file_get(\"/images/x\")"}), platform.calls());
}

TEST_F(version_test, version_of_an_image_is_cut_to_the_buffer) {
  platform.set_image("/images/x", "4.2(1)");
  char path[] = "/images/x";
  struct {
    int size;
    const char *expected;
  } const rows[] = {{7, "4.2(1)"}, {6, "4.2(1"}, {2, "4"}, {1, ""}};
  for (const auto &row : rows) {
    // An allocation of just that size, so that a sanitizer sees a byte too many.
    char *version = static_cast<char *>(malloc(static_cast<size_t>(row.size)));
    EXPECT_EQ(0, datamorph_get_version(path, version, row.size));
    EXPECT_STREQ(row.expected, version);
    free(version);
  }
}

TEST_F(version_test, version_of_an_image_refuses_nulls_and_sizes_below_1) {
  char path[] = "/images/x";
  char version[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(-1, datamorph_get_version(nullptr, version, sizeof version));
  EXPECT_EQ(-1, datamorph_get_version(path, nullptr, sizeof version));
  EXPECT_EQ(-1, datamorph_get_version(path, version, 0));
  EXPECT_EQ(-1, datamorph_get_version(path, version, -1));
  EXPECT_EQ(-1, datamorph_get_version(path, version, INT_MIN));
  EXPECT_EQ("abcd", std::string(version, 4));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(version_test, an_image_without_version_text) {
  char path[] = "/images/none";
  char version[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(-1, datamorph_get_version(path, version, sizeof version));
  EXPECT_EQ(std::string(4, '\0'), std::string(version, 4));
}

TEST_F(version_test, leading_number) {
  EXPECT_EQ(0, datamorph_leading_number("", 16));
  EXPECT_EQ(3, datamorph_leading_number("3", 16));
  EXPECT_EQ(12, datamorph_leading_number("123", 2));
  EXPECT_EQ(0, datamorph_leading_number("123", 0));
  EXPECT_EQ(4, datamorph_leading_number("4:", 16)); // what comes behind 9 and before 0 is no digit
  EXPECT_EQ(4, datamorph_leading_number("4/", 16));
  EXPECT_EQ(INT_MAX, datamorph_leading_number("2147483647", 16));
  EXPECT_EQ(INT_MAX, datamorph_leading_number("2147483648", 16));
  EXPECT_EQ(INT_MAX, datamorph_leading_number("18446744073709551619", 64));
}

} // namespace
