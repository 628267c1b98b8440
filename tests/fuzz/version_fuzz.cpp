// Version strings: compared with each other and with the releases at which data changed, held
// against a second reading of them; cut to buffers of every size; VDCs read from paths.
#include <array>
#include <climits>
#include <cstring>
#include <memory>

#include "fuzz/fuzz_switch.h"
#include "fuzz/release_model.h"
#include "libdatamorph_pixm.h"

namespace {

void compare(const std::string &a, const std::string &b) {
  const int wanted = release_model::order(a, b);
  syserr_t error = 1;
  expect(datamorph_compare_versions(a.c_str(), b.c_str(), &error) == wanted && error == 0,
         "two versions compare otherwise than their numbers");
  expect(datamorph_compare_versions(b.c_str(), a.c_str(), nullptr) == -wanted,
         "the other way round they compare otherwise");
  expect(datamorph_compare_versions(a.c_str(), a.c_str(), &error) == 0, "a version is not itself");
  expect(datamorph_is_srv_not_supported_target_ver(a.c_str(), b.c_str(), &error) == (wanted < 0),
         "what is supported is not the order");
  int to = 5;
  int from = 5;
  expect(pixm_compare_img_ver(a.c_str(), b.c_str(), "4.1(2)", "4.1(3)", &to, &from) == 0 &&
             to == release_model::order("4.1(2)", a) && from == release_model::order(b, "4.1(3)"),
         "the port index manager compares otherwise");
  expect(is_optional_conditional(SRVUUID_KPS, a.c_str()) ==
             (release_model::order(a, "4.2(1)") >= 0 ? 1 : 0),
         "a feature is optional from 4.2(1) on");
}

// A buffer of exactly its size: whoever writes behind it is found.
void read_image(const std::string &version, int size) {
  platform_double &platform = double_platform();
  platform.set_image("/image", version);
  char path[] = "/image";
  const std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(size)]);
  const int status = datamorph_get_version(path, buffer.get(), size);
  expect(status == (size < 1 ? -1 : 0), "an image's version is not read");
  if (size > 0) {
    expect(buffer.get() == version.substr(0, static_cast<size_t>(size) - 1),
           "an image's version is not what stands there, cut to the buffer");
  }
}

void read_path(const std::string &text) {
  const std::string path = "/cfg/vdc_" + text;
  const char *suffix = nullptr;
  const vdc_id_t vdc = datamorph_path_vdc(path.c_str(), &suffix);
  expect(vdc == release_model::vdc_of(text), "another VDC than the path's number");
  expect(suffix == path.c_str() + 9, "what follows the mark is elsewhere");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool once = (fuzz_switch::reset(), true);
  static_cast<void>(once);
  bytes_source source(data, size);
  const int room = source.byte();
  const std::string a = source.text();
  const std::string b = source.rest().c_str();
  compare(a, b);
  read_image(a, room);
  read_path(b);
  return 0;
}
