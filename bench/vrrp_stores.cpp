#include "vrrp_stores.h"

#include <arpa/inet.h>

#include <cstring>

namespace bench {
namespace {

constexpr char k_path[] = "/cfg/0";
constexpr char k_old_release[] = "4.1(5)";
constexpr char k_new_release[] = "4.2(1)";

void need(const char *what, syserr_t status) {
  if (status != SYSERR_SUCCESS) {
    fail(what, status);
  }
}

template <typename integer> void put(std::string *bytes, size_t at, integer value) {
  std::memcpy(bytes->data() + at, &value, sizeof(value));
}

vrrp_record make_vr(uint32_t ifindex, uint8_t vr_id) {
  vrrp_record made = {std::string(10, '\0'), std::string(old_vr_size, '\0')};
  datamorph_vrrp_mgr_make_vr_key(reinterpret_cast<uint8 *>(made.key.data()), 1, ifindex, vr_id,
                                 INET_ADDR_TYPE_IPV4);
  put(&made.value, 0, ifindex);
  put(&made.value, 4, vr_id);
  put(&made.value, 5, uint32_t{1});    // IPv4
  put(&made.value, 9, uint32_t{1});    // up
  put(&made.value, 13, uint32_t{100}); // priority
  put(&made.value, 17, uint32_t{1});   // primary address: IPv4
  put(&made.value, 21, htonl(0x0a000001u + ifindex));
  put(&made.value, 37, uint32_t{1}); // no authentication
  put(&made.value, 57, uint32_t{1}); // advertisement interval
  put(&made.value, 61, uint32_t{1}); // preempts
  return made;
}

vrrp_record make_vip(uint32_t ifindex, uint8_t vr_id) {
  vrrp_record made = {std::string(26, '\0'), std::string(vip_size, '\0')};
  inet_addr_t address = {};
  address.addr_type = INET_ADDR_TYPE_IPV4;
  const uint32_t number = htonl(0x0a000002u + ifindex);
  std::memcpy(address.a.ipv4_addr, &number, sizeof(number));
  datamorph_vrrp_mgr_make_assoc_key(reinterpret_cast<uint8 *>(made.key.data()), ifindex, vr_id,
                                    address);
  put(&made.value, 0, ifindex);
  put(&made.value, 4, vr_id);
  std::memcpy(made.value.data() + 5, &address, sizeof(address));
  put(&made.value, 25, uint32_t{1}); // virtual
  return made;
}

} // namespace

std::vector<vrrp_record> make_groups(unsigned groups) {
  std::vector<vrrp_record> records;
  records.reserve(size_t{2} * groups + 1);
  for (unsigned n = 0; n < groups; ++n) {
    const uint32_t ifindex = 0x09000000u + n / 4; // four groups on an interface
    const auto vr_id = static_cast<uint8_t>(1 + n % 255);
    records.push_back(make_vr(ifindex, vr_id));
    records.push_back(make_vip(ifindex, vr_id));
  }
  records.push_back({std::string("\4\0\0\0", 4), std::string(21, '\0')});
  records.back().value[0] = '\1'; // VRRP is enabled
  return records;
}

void convert_up() {
  need("upgrade of the manager",
       vrrp_mgr_data_morph_startup_for_upgrade(k_path, "system", k_new_release, k_old_release));
  need("upgrade of the engine",
       vrrp_eng_data_morph_startup_for_upgrade(k_path, "system", k_new_release, k_old_release));
}

void convert_down() {
  need("downgrade of the engine",
       vrrp_eng_data_morph_startup_for_downgrade(k_path, "system", k_old_release, k_new_release));
  need("downgrade of the manager",
       vrrp_mgr_data_morph_startup_for_downgrade(k_path, "system", k_old_release, k_new_release));
}

} // namespace bench
