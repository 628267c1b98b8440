// Converters where the comparison of releases fails, which no release makes it do by itself.

#include "libdatamorph.h"

#include "support/library_fixture.h"

// Linked with --wrap: the comparison as the converter calls it.
extern "C" int __real_datamorph_compare_versions(const char *from_ver, const char *to_ver,
                                                 syserr_t *errcode);

namespace {

int g_good_comparisons = -1; // before the failing one; none fails when negative

} // namespace

extern "C" int __wrap_datamorph_compare_versions(const char *from_ver, const char *to_ver,
                                                 syserr_t *errcode) {
  if (g_good_comparisons-- == 0) {
    *errcode = 0x80ABCDEF;
    return -2;
  }
  return __real_datamorph_compare_versions(from_ver, to_ver, errcode);
}

namespace {

class svi_version_test : public library_fixture {
protected:
  lines_t convert(int good_comparisons) {
    return traced([&] {
      g_good_comparisons = good_comparisons;
      EXPECT_EQ(0u, svi_data_morph_psshlpr_upg("/conv", "system", "4.2(1)", "4.1(2)"));
      g_good_comparisons = -1;
    });
  }
};

TEST_F(svi_version_test, an_error_of_the_first_comparison_ends_it_with_0) {
  EXPECT_EQ(lines_t({"Verifying up/down grade versions\n", "Error: 0x80abcdef from_comp\n"}),
            convert(0));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(svi_version_test, an_error_of_the_second_comparison_ends_it_with_0) {
  EXPECT_EQ(lines_t({"Verifying up/down grade versions\n", "Error: 0x80abcdef to_comp\n"}),
            convert(1));
  EXPECT_TRUE(platform.calls().empty());
}

TEST_F(svi_version_test, there_are_two_comparisons) {
  EXPECT_LT(3u, convert(2).size());
  EXPECT_FALSE(platform.calls().empty());
}

// The port index manager's goes on with its next leg.
TEST_F(svi_version_test, a_leg_whose_releases_cannot_be_compared_is_left_out) {
  const lines_t lines = traced([] {
    g_good_comparisons = 1; // the leg's first one is
    EXPECT_EQ(0u, pixm_data_morph_gsync("/cfg", "system", "4.2(3)", "4.2(3)"));
    g_good_comparisons = -1;
  });
  ASSERT_EQ(10u, lines.size());
  EXPECT_EQ("Error: 0x80abcdef to_comp:-2 to_ver:4.2(3) to_ref:4.1(2)\n", lines[2]);
  EXPECT_EQ("Error: 0x80abcdef in pixm_compare_img_ver\n", lines[5]);
  EXPECT_EQ("ISSU Leg DUAG Cache Cleanup From: =>4.2.3 --> To: <=4.2.2: No issu conversion reqd "
            "from 4.2(3) to 4.2(3)\n",
            lines[9]);
  EXPECT_TRUE(platform.calls().empty());
}

} // namespace
