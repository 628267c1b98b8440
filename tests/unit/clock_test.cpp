// Traces at a time that has no text: ctime gives none for years that it has no room for.

#include <ctime>

#include "vrrp_fixture.h"

// Linked with --wrap: the C library's as the library calls it.
extern "C" char *__real_ctime(const time_t *time);
extern "C" char *__wrap_ctime(const time_t *time);

namespace {

bool g_has_text = true;

class clock_test : public vrrp_fixture {
protected:
  static void traced_without_time(const std::function<void()> &call) {
    g_has_text = false;
    captured_stderr(call);
    g_has_text = true;
  }
};

} // namespace

extern "C" char *__wrap_ctime(const time_t *time) {
  return g_has_text ? __real_ctime(time) : nullptr;
}

namespace {

TEST_F(clock_test, the_log) {
  traced_without_time([] { datamorph_trace("%s\n", "message"); });
  EXPECT_EQ("<> message\n", switch_root::read_file("/mnt/pss/data_morph.log"));
}

TEST_F(clock_test, a_trace_file) {
  constexpr char file[] = "/bootflash/data_morph_vrrp_mgr.log";
  switch_root::write_file(file, "");
  vrrp_open_trace(vrrp_mgr_side);
  traced_without_time([] { vrrp_trace(vrrp_mgr_side, "routine", 7, "message\n"); });
  EXPECT_EQ("<> routine:7 message\n", switch_root::read_file(file));
}

} // namespace
