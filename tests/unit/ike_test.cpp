// The IKE converters.

#include "libdatamorph_private.h"

#include "support/library_fixture.h"

namespace {

class ike_test : public library_fixture {};

TEST_F(ike_test, each_routine_traces_the_plain_text) {
  for (const auto convert :
       {ike_data_morph_gsync, ike_data_morph_startup, ike_data_morph_running_fs_upg}) {
    EXPECT_EQ(lines_t({"Returning Success\n"}),
              traced([&] { EXPECT_EQ(0u, convert("/cfg/0", "system", "4.2(1)", "4.1(5)")); }));
    EXPECT_EQ(lines_t({"Returning Success\n"}),
              traced([&] { EXPECT_EQ(0u, convert(nullptr, nullptr, nullptr, nullptr)); }));
  }
  EXPECT_TRUE(platform.calls().empty());
}

} // namespace
