// What the tests of the two VRRP sides share: records as annotated bytes, and the trace files.
#ifndef TESTS_UNIT_VRRP_FIXTURE_H
#define TESTS_UNIT_VRRP_FIXTURE_H

#include "libdatamorph_vrrp.h"

#include <regex>

#include "support/library_fixture.h"
#include "support/library_state.h"

class vrrp_fixture : public library_fixture {
protected:
  using records_t = platform_double::records_t;

  static constexpr char k_mgr[] = "nonvolatile:/cfg/bin/vrrp-cfg_config_sav";
  static constexpr char k_eng[] = "nonvolatile:/cfg/bin/vrrp-eng_runtime_config";
  static constexpr char k_temp[] = "nonvolatile:/tmp/vrrp-startup-pss";

  void SetUp() override {
    library_fixture::SetUp();
    forget_traces();
  }
  void TearDown() override {
    forget_traces();
    library_fixture::TearDown();
  }

  // What a call adds to a side's trace file, which exists: "routine: message", without time and
  // line number, which are checked. The first message, with the routine's name in it, is like the
  // others.
  lines_t side_lines(const std::string &file, const std::function<void()> &call) {
    switch_root::write_file(file, "");
    forget_traces();
    traced(call);
    static const std::regex prefix("<[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] "
                                   "[0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}> ([a-z0-9_]+):[0-9]+ ");
    lines_t found;
    const std::string text = switch_root::read_file(file);
    for (size_t start = 0; start < text.size();) {
      const size_t end = std::min(text.find('\n', start), text.size() - 1) + 1;
      const std::string line = text.substr(start, end - start);
      std::smatch parts;
      EXPECT_TRUE(std::regex_search(line, parts, prefix) && parts.position() == 0) << line;
      found.push_back(parts.empty() ? line : parts[1].str() + ": " + parts.suffix().str());
      start = end;
    }
    return found;
  }

  lines_t mgr_lines(const std::function<void()> &call) {
    return side_lines("/bootflash/data_morph_vrrp_mgr.log", call);
  }
  lines_t eng_lines(const std::function<void()> &call) {
    return side_lines("/bootflash/data_morph_vrrp_eng.log", call);
  }

  // A VR record of the old layout: interface 0x1a000000, this number, this address type.
  static std::string old_vr(const std::string &vr_id, const std::string &addr_type) {
    return bytes("00 00 00 1a"                                                 // ifindex
                 + vr_id +                                                     // vr_id
                 addr_type +                                                   // addr_type
                 "01 00 00 00"                                                 // admin: up
                 "64 00 00 00"                                                 // prio
                 "01 00 00 00 0a 01 01 01 00 00 00 00 00 00 00 00 00 00 00 00" // primary_ip
                 "02 00 00 00"                                                 // auth: text
                 "73 65 63 72 65 74 00 00 00 00 00 00 00 00 00 ff"             // key
                 "03 00 00 00"                                                 // adv
                 "01 00 00 00"                                                 // preempt
                 "05 00 00 00"                                                 // track_prio
                 "00 10 00 1a"                                                 // track_intf
                 "07 00 00 00"                                                 // spi
                 "08 00 00 00"                                                 // row_status
                 "01 00 00 00");                                               // owner
  }
  // The same as the upgrade writes it.
  static std::string new_vr(const std::string &vr_id, const std::string &addr_type) {
    return old_vr(vr_id, addr_type) + std::string(32, '\0');
  }
  // The same as a 4.2(1) engine may hold it.
  static std::string full_vr(const std::string &vr_id, const std::string &addr_type) {
    return old_vr(vr_id, addr_type) + bytes("11 00 00 00"                   // lower_threshold_prio
                                            "22 00 00 00"                   // upper_threshold_prio
                                            "01 00 00 00"                   // forwarding_state
                                            "a0 a1 a2 a3 a4 a5 a6 a7 a8 a9" // reserved
                                            "b0 b1 b2 b3 b4 b5 b6 b7 b8 b9");
  }
  static std::string vr_key(const std::string &vr_id, const std::string &addr_type) {
    return bytes("01" + addr_type + vr_id + "1a 00 00 00");
  }
  // A VIP record; `address` has 16 bytes.
  static std::string vip(const std::string &vr_id, const std::string &addr_type,
                         const std::string &address) {
    return bytes("00 00 00 1a"   // ifindex
                 + vr_id +       // vr_id
                 addr_type +     // inet_addr: type
                 address +       // inet_addr: a
                 "01 00 00 00"   // virtual
                 "04 00 00 00"); // row_status
  }
  static std::string vip_key(const std::string &vr_id, const std::string &addr_type,
                             const std::string &address) {
    return bytes("02" + addr_type + vr_id + "1a 00 00 00" + address);
  }

  static constexpr char k_ipv4[] = "0a 01 01 fe 00 00 00 00 00 00 00 00 00 00 00 00";
  static constexpr char k_ipv6[] = "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01";

  static std::string global_key() { return bytes("04 00 00 00"); }
  static std::string global_info() { return bytes("01") + std::string(20, '\0'); }

  // One group with one address, without global info.
  static records_t one_group(const std::string &vr) {
    return {{vr_key("0a", "00 00 00 01"), vr},
            {vip_key("0a", "00 00 00 01", k_ipv4), vip("0a", "01 00 00 00", k_ipv4)}};
  }
  // Two groups in one layout, an address each, and this global info.
  static records_t two_groups(std::string (*layout)(const std::string &vr_id,
                                                    const std::string &addr_type),
                              const std::string &global) {
    records_t all = one_group(layout("0a", "01 00 00 00"));
    all[global_key()] = global;
    all[vr_key("0b", "00 00 00 02")] = layout("0b", "02 00 00 00");
    all[vip_key("0b", "00 00 00 02", k_ipv6)] = vip("0b", "02 00 00 00", k_ipv6);
    return all;
  }
  static records_t with_others(records_t all) {
    all.merge(others());
    return all;
  }
  // What stands in a store up to 4.1: the groups, and others' records.
  static records_t old_records() {
    return with_others(two_groups(old_vr, bytes("00") + std::string(20, '\x55')));
  }
  // Records of other key types.
  static records_t others() {
    return {{bytes("00"), "zero"},
            {bytes("03 01"), "three"},
            {bytes("05 00 00 00 01 0a 1a 00 00 00"), "five"},
            {bytes("ff"), "last"}};
  }

  // What a routine traces while it deletes two groups and their addresses.
  static lines_t deletions(const std::string &self) {
    return {self + "Deleted global info\n",
            self + "Number of VR records = 2\n",
            self + "Retrieved PSS record for VR 10 on interface 0x1a000000 and addr type 1\n",
            self + "Deleting PSS VR record : VR 10 , intf 0x1a000000\n",
            self + "Deleted PSS VR record : VR 10, interface 0x1a000000\n",
            self + "Retrieved PSS record for VR 11 on interface 0x1a000000 and addr type 2\n",
            self + "Deleting PSS VR record : VR 11 , intf 0x1a000000\n",
            self + "Deleted PSS VR record : VR 11, interface 0x1a000000\n",
            self + "Number of VIP records = 2\n",
            self + "Deleted PSS VIP record : VR 10, interface 0x1a000000\n",
            self + "Deleted PSS VIP record : VR 11, interface 0x1a000000\n"};
  }
  // The platform calls of a side that gives one group away.
  static lines_t calls_giving_away(const std::string &store) {
    return {"pss_open(\"" + store + "\")",
            "pss_snapshot(1, 0, \"nonvolatile:/tmp/vrrp-startup-pss\")",
            "pss_delete(1, 04000000)",
            "pss_move2key(1, 01)",
            "pss_move2location(1, PSS_NEXT_KEY)",
            "pss_move2key(1, 01)",
            "pss_getvalue(1)",
            "pss_move2location(1, PSS_NEXT_KEY)",
            "pss_move2location(1, PSS_NEXT_KEY)",
            "pss_delete(1, 01000000010a1a000000)",
            "pss_move2key(1, 02)",
            "pss_move2location(1, PSS_NEXT_KEY)",
            "pss_move2key(1, 02)",
            "pss_getvalue(1)",
            "pss_move2location(1, PSS_NEXT_KEY)",
            "pss_delete(1, 02000000010a1a0000000a0101fe000000000000000000000000)",
            "pss_close(1)"};
  }
  // The calls of a side that takes one address over with that flag; `before` come first.
  static lines_t calls_taking_over(const lines_t &before, const std::string &flag) {
    return joined(
        {before,
         {"pss_store(2, " + flag + ", 04000000, 010000000000000000000000000000000000000000)",
          "pss_move2key(1, 01)", "pss_move2key(1, 02)", "pss_move2location(1, PSS_NEXT_KEY)",
          "pss_move2key(1, 02)", "pss_getvalue(1)", "pss_move2location(1, PSS_NEXT_KEY)",
          "pss_store(2, " + flag +
              ", 02000000010a1a0000000a0101fe000000000000000000000000, "
              "0000001a0a010000000a0101fe0000000000000000000000000100000004000000)",
          "pss_close(1)", "pss_destroy(\"nonvolatile:/tmp/vrrp-startup-pss\")", "pss_close(2)"}});
  }
  static lines_t joined(const std::vector<lines_t> &parts) {
    lines_t all;
    for (const lines_t &part : parts) {
      all.insert(all.end(), part.begin(), part.end());
    }
    return all;
  }
  // Every record of two groups was stored through the second handle with that flag.
  void expect_flag_of_every_store(const std::string &flag) {
    const lines_t stores = platform.calls("pss_store");
    EXPECT_EQ(5u, stores.size());
    const std::string start = "pss_store(2, " + flag + ", ";
    for (const std::string &call : stores) {
      EXPECT_EQ(start, call.substr(0, start.size()));
    }
  }

  syserr_t status = 0xdead;
};

#endif
