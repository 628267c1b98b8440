// The port manager's records that its figures convert.
#ifndef BENCH_PORT_RECORDS_H
#define BENCH_PORT_RECORDS_H

#include <cstdint>
#include <string>

namespace bench {

struct port_record {
  std::string key;
  std::string value;
};

inline constexpr size_t reason_at = 13;

// Reasons of a port's state before 4.2(0), and their numbers from there on.
inline constexpr struct {
  char old_reason;
  char new_reason;
} reasons[] = {{124, '\x8f'}, {'\xa6', '\xdc'}, {'\x95', '\x9a'}};

inline std::string port_key(char type, char subtype, unsigned n) {
  const uint32_t ifindex = 0x01000000u + n;
  std::string key = {type, subtype};
  for (int shift = 24; shift >= 0; shift -= 8) {
    key += static_cast<char>(ifindex >> shift);
  }
  return key;
}

// A port's runtime record, whose reason changes its number at 4.2(0).
inline port_record make_runtime(unsigned n) {
  std::string value(20, '\0');
  value[0] = 1;
  value[2] = 16;
  value[reason_at] = reasons[n % 3].old_reason;
  return {port_key(0x33, 6, n), value};
}

// A port's configuration, which does not cross 4.2(0).
inline port_record make_configuration(unsigned n) {
  return {port_key(0x65, n % 2 == 0 ? 20 : 21, n), "mtu 9216 speed 100000"};
}

} // namespace bench

#endif
