// The platform's headers from C and from C++: they hold their checks while they are compiled; here
// the two objects are linked with a platform and called.
#include <gtest/gtest.h>

#include "platform/types.h"

extern "C" int headers_c_signatures(void);
extern "C" const char *headers_c_text(syserr_t status);
int headers_cpp_signatures();
const char *headers_cpp_text(syserr_t status);

namespace {

TEST(headers, c_and_cpp_see_the_same_38_functions) {
  EXPECT_EQ(headers_c_signatures(), 38);
  EXPECT_EQ(headers_cpp_signatures(), 38);
}

TEST(headers, c_and_cpp_call_the_same_platform) {
  EXPECT_STREQ(headers_c_text(0x40480003U), "no such record");
  EXPECT_EQ(headers_c_text(0x40480003U), headers_cpp_text(0x40480003U));
}

} // namespace
