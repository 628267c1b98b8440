#include "fault/fault_rules.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include "platform/sysmgr.h"

const char k_anything[] = "";
const char k_its_store[] = "<store>";
const char k_its_key[] = "<key>";
const char k_other_records[] = "<records>";

namespace {

const std::set<std::string> k_writes = {"pss_create",       "pss_store",
                                        "pss_delete",       "pss_destroy",
                                        "pss_snapshot",     "pss2_store",
                                        "pss2_delete",      "pss2_destroy",
                                        "pss2_kernel2file", "mts_sap_destroy",
                                        "mts_send",         "sysmgr_srv_tag_info_add",
                                        "pss2_file2kernel", "sysmgr_srv_tag_info_table_prepare"};

bool begins_with(const std::string &text, std::string_view beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

bool is_tlv(const std::string &call) {
  return begins_with(call, "tlv_");
}

// ---- When a rule holds

bool always(const fault &) {
  return true;
}

// The status of a key or record that is not there.
bool absent(const fault &happens) {
  return happens.status == SYSERR_PSS_NOT_FOUND;
}

bool interrupted(const fault &happens) {
  return happens.error == EINTR;
}

bool null(const fault &happens) {
  return !happens.data;
}

// What the one handle of a moved cursor is told: there is no such record.
bool no_record(const fault &happens) {
  return happens.handles == SYSERR_PSS_NOT_FOUND;
}

// The number of bytes, or of items, of a TLV array.
bool none(const fault &happens) {
  return happens.number == 0u;
}
bool too_many_bytes(const fault &happens) {
  return *happens.number > SYSMGR_TAG_TABLE_MAX;
}
// A table that is as large as its room is one, where that much was saved.
bool no_table(const fault &happens) {
  return *happens.number < TLV_ARRAY_HEADER_SIZE || too_many_bytes(happens);
}

// As a number that stands first, and as one that is asked whether it is zero.
bool no_number(const fault &happens) {
  return !happens.data || happens.data->size() < 4;
}
bool no_or_zero(const fault &happens) {
  return no_number(happens) || happens.data->compare(0, 4, std::string(4, '\0')) == 0;
}
bool all_bits(const fault &happens) {
  return happens.data && happens.data->compare(0, 4, "\xff\xff\xff\xff") == 0;
}

// A key of a VR record.
bool key_of_router(const fault &happens) {
  return happens.data && happens.data->compare(0, 1, "\x01") == 0;
}

bool key_fields(const fault &happens) {
  return happens.data && happens.data->size() >= 9;
}

// ---- Families

// The steps of VRRP that end with the status of a bulk read, and those that do so with that of the
// second one of two only.
constexpr char k_one_read[] = "bulk_read vrrp_copy_and_convert_rc_pss_recs_for_downgrade";
constexpr char k_two_reads[] = "datamorph_vrrp_mgr_delete_rc_pss_recs_for_upgrade "
                               "vrrp_eng_copy_and_convert_rc_pss_recs_for_upgrade "
                               "vrrp_eng_delete_pss_records_for_downgrade";
constexpr char k_vrrp[] = "vrrp_ datamorph_vrrp_";
constexpr char k_feature[] = "was_ dot1x_ kps_ psec_";
constexpr char k_two_removals[] = "smm_ clis_"; // those that ask the image
constexpr char k_gsdb[] = "datamorph_gsdb_";
constexpr char k_svi[] = "svi_ psshlpr_ foo_";
constexpr char k_ports[] = "ethpm_ pixm_";
constexpr char k_version_asked[] = "cond_srv1_ datamorph_gsync";
constexpr char k_version_alone[] = "datamorph_get_version";

constexpr char k_any[] = "";
constexpr char k_saved_table[] = "sysmgr_config";
constexpr char k_routers[] = ", 01)";
constexpr char k_addresses[] = ", 02)";
constexpr char k_records_of_vrrp[] = "/bin/vrrp-"; // in the stores of its two sides
constexpr char k_first[] = "PSS_FIRST_KEY";

// The first table of tags, and the one that was saved.
#define TABLE "pss_store(\"nonvolatile:/cfg/bin/sysmgr_config\", 1, 090000000000000000000000, "
constexpr char k_some_table[] = TABLE;
constexpr char k_new_table[] = TABLE "11000000010001000100050";
constexpr char k_old_table[] = TABLE "140000000100010001000800f50100006f6c6400)";

constexpr char k_fetched[] = "pss_fetch";             // a table of tags: the saved one
constexpr char k_added_to[] = "sysmgr_srv_tag_info_"; // and the running one

constexpr int64_t k_no_payload = 0x801E0047; // EPROTO
constexpr int64_t k_unreadable = SYSERR_IMAGE_VERSION;
constexpr int64_t k_damaged = SYSERR_PSS_DAMAGED;
constexpr int64_t k_no_table = SYSERR_NO_SUCH_VDC;
constexpr int64_t k_no_value = 2;            // the bulk read's own
constexpr int64_t k_refused = 0xFFFFFFFF;    // what the system manager says
constexpr int64_t k_no_version = 0xFFFFFFFF; // of an image

// The first one that fits is taken; where nothing else is described, a failure is traced and the
// conversion goes on.
// clang-format off
const rule k_failing[] = {
    // The tag-info request. A token that is 0 is passed on as any other; the double takes it for any
    // message's. A wait that a signal ends is waited anew.
    {k_any, "mts_send", k_any, k_any, always, k_errno, k_anything},
    {k_any, "mts_recv", k_any, k_any, interrupted, k_as_ever},
    {k_any, "mts_recv", k_any, k_any, always, k_errno, k_anything},
    {k_any, "mts_payload_get", k_any, k_any, always, k_no_payload, k_anything},
    // The startup tag table. One that cannot be made ends its update.
    {k_any, "pss_fetch", k_saved_table, k_any, absent, k_as_ever, nullptr, 0, k_new_table},
    {k_any, "pss_fetch", k_saved_table, k_any, always, k_its_own, k_anything},
    {k_any, "sysmgr_srv_tag_info_", k_any, k_any, always, k_its_own, k_anything},
    {k_any, "pss_store", k_saved_table, k_any, always, k_its_own, k_anything},
    // Features: one that cannot be looked at is not running.
    {k_feature, "pss_open", "_saved_config", k_any, always, 0, k_anything},
    {k_feature, "pss_fetch", "_saved_config", k_any, always, 0, k_anything},
    // Versions of images.
    {k_version_asked, "srg_sw_ver_file_get", k_any, k_any, always, k_unreadable, k_anything},
    {k_two_removals, "srg_sw_ver_file_get", k_any, k_any, always, 0, k_anything},
    {k_version_alone, "srg_sw_ver_file_get", k_any, k_any, always, k_no_version, k_anything},
    {"cond_srv1_", "pss_create", k_any, k_any, always, 0, k_anything},
    {"cond_srv1_", "pss_open", k_any, k_any, always, 0, k_anything},
    // Stores that are removed by name.
    {"datamorph_destroy_", "pss2_destroy", k_any, k_any, always, k_its_own, k_anything},
    // Global databases; their upgrades give 0 whatever comes.
    {k_gsdb, "pss2_open", k_any, k_any, always, k_its_own, k_anything},
    {k_gsdb, "pss2_close", k_any, k_any, always, k_its_own, k_anything},
    {k_gsdb, "pss2_destroy", k_any, k_any, always, k_its_own, k_anything},
    {k_svi, "pss2_open", k_any, k_any, always, 0, k_anything},
    {k_svi, "pss2_close", k_any, k_any, always, 0, k_anything},
    {k_svi, "pss2_destroy", k_any, k_any, always, 0, k_anything},
    {"datamorph_read_from_snapshot", "pss2_file2kernel", k_any, k_any, always, k_its_own, k_anything},
    {"add_gsdb", "pss2_store", k_any, k_any, always, k_its_own, k_anything},
    {"delete_gsdb_table_entry", "pss2_delete", k_any, k_any, always, k_its_own, k_anything},
    // The port managers: a walk ends; in the cache cleanup, once the pending deletion is made.
    {"pixm_", "pss2_get_params", k_any, k_any, always, k_as_ever, ", 36"},
    {"pixm_", "pss2_fetch", k_any, k_any, always, k_as_ever, k_its_key},
    {"pixm_", "tlv_array_get_next_tlv", k_any, k_any, always, k_as_ever, k_its_key},
    {k_ports, "pss2_move2location", k_first, k_any, always, k_as_ever, k_its_store},
    {k_ports, "pss2_getkey", k_any, k_first, always, k_as_ever, k_its_store},
    {"pixm_", "pss2_move2location", k_any, k_any, always, k_as_ever, k_its_store, 1},
    {"pixm_", "pss2_getkey", k_any, k_any, always, k_as_ever, k_its_store, 1},
    {"ethpm_", "pss2_move2location", k_any, k_any, always, k_as_ever, k_its_store},
    {"ethpm_", "pss2_getkey", k_any, k_any, always, k_as_ever, k_its_store},
    // VRRP's bulk reads: a key that is not there ends a pass, a value that is not there is none.
    {k_any, "pss_move2", k_any, k_any, absent, k_as_ever},
    {k_one_read, "pss_getvalue", k_any, k_any, absent, k_no_value, k_anything},
    {k_one_read, "pss_move2", k_any, k_any, always, k_its_own, k_anything},
    {k_one_read, "pss_getvalue", k_any, k_any, always, k_its_own, k_anything},
    {k_two_reads, "pss_move2", k_any, k_routers, always, 0, k_anything},
    {k_two_reads, "pss_getvalue", k_any, k_routers, always, 0, k_anything},
    {k_two_reads, "pss_getvalue", k_any, k_addresses, absent, k_no_value, k_anything},
    {k_two_reads, "pss_move2", k_any, k_addresses, always, k_its_own, k_anything},
    {k_two_reads, "pss_getvalue", k_any, k_addresses, always, k_its_own, k_anything},
    {k_vrrp, "pss_move2", k_any, k_any, always, k_as_ever, k_records_of_vrrp},
    {k_vrrp, "pss_getvalue", k_any, k_any, always, k_as_ever, k_records_of_vrrp},
    // VRRP's stores: nothing is converted without one of them; the engine's hand-over is needed, the
    // manager's is not.
    {k_vrrp, "pss_open", k_any, k_any, always, 0, k_anything},
    {"vrrp_eng_", "pss_snapshot", k_any, k_any, always, 0, k_anything},
    {k_any, k_any, k_any, k_any, always, k_as_ever},
};

const rule k_giving[] = {
    // The tag-info request.
    {k_any, "mts_payload_get", k_any, k_any, null, k_no_payload, k_anything},
    {k_any, "mts_payload_get", k_any, k_any, all_bits, k_refused, k_anything},
    // The startup tag table: none of these is one.
    {k_any, "pss_fetch", k_saved_table, k_any, always, k_damaged, k_anything},
    {k_any, "tlv_array_size_get", k_any, k_fetched, no_table, k_damaged, k_anything},
    {k_any, "tlv_array_size_get", k_any, k_added_to, always, k_as_ever, nullptr, 0, k_some_table},
    {k_any, "sysmgr_srv_tag_info_table_prepare", k_any, k_any, always, k_no_table, k_anything},
    {k_any, "sysmgr_srv_tag_info_add", k_any, k_any, always, k_as_ever, nullptr, 0, k_old_table},
    // Features: two look at a number, one asks whether there is anything.
    {"was_running_ was_kps_ kps_", "pss_fetch", "/kps_saved_config", k_any, null, 0, k_anything},
    {"was_dot1x_ dot1x_", "pss_fetch", "/dot1x_saved_config", k_any, no_or_zero, 0, k_anything},
    {"was_psec_ psec_", "pss_fetch", "/eth_port_sec_saved_config", k_any, no_or_zero, 0, k_anything},
    // Versions of images: none of these is of major 3.
    {k_version_asked, "srg_sw_ver_file_get", k_any, k_any, null, k_unreadable, k_anything},
    {k_two_removals, "srg_sw_ver_file_get", k_any, k_any, always, 0, k_anything},
    {k_version_alone, "srg_sw_ver_file_get", k_any, k_any, null, k_no_version, k_anything},
    {"delete_gsdb_table_entry", "pss2_delete", k_any, k_any, always, k_its_own, k_anything},
    // The port managers.
    {"pixm_", "pss2_get_params", k_any, k_any, always, k_as_ever, ", 36"}, // all is too large
    {"pixm_", "pss2_fetch", k_any, k_any, always, k_as_ever, k_its_key},
    {"pixm_", "tlv_array_size_get", k_any, k_any, too_many_bytes, k_as_ever, k_its_key},
    {"pixm_", "tlv_array_get_num_tlvs", k_any, k_any, none, k_as_ever, k_its_key},
    {"pixm_", "tlv_array_get_next_tlv", k_any, k_any, always, k_as_ever, k_its_key},
    {k_ports, "pss2_move2location", k_first, k_any, no_record, k_as_ever, k_its_store},
    {"pixm_", "pss2_move2location", k_any, k_any, no_record, k_as_ever, k_its_store, 1},
    {"ethpm_", "pss2_move2location", k_any, k_any, no_record, k_as_ever, k_its_store},
    {k_ports, "pss2_getkey", k_any, k_first, null, k_as_ever, k_its_store},
    {"pixm_", "pss2_getkey", k_any, k_any, null, k_as_ever, k_its_store, 1},
    {"ethpm_", "pss2_getkey", k_any, k_any, null, k_as_ever, k_its_store},
    // VRRP's bulk reads. A cursor that gives a key and stands on none is not described: there may be
    // a value or none.
    {k_one_read, "pss_getvalue", k_any, k_any, null, k_no_value, k_anything},
    {k_two_reads, "pss_getvalue", k_any, k_routers, null, 0, k_anything},
    {k_two_reads, "pss_getvalue", k_any, k_addresses, null, k_no_value, k_anything},
    {k_vrrp, "pss_getvalue", k_any, k_any, null, k_as_ever, k_records_of_vrrp},
    {k_any, "pss_getvalue", k_any, k_any, key_fields, k_as_ever, nullptr, 0, k_other_records},
    {k_one_read, "pss_move2", k_any, k_any, key_of_router, k_as_ever, nullptr, 0, k_other_records, k_no_value},
    {k_any, "pss_move2", k_any, k_any, key_of_router, k_as_ever, nullptr, 0, k_other_records},
    {k_any, k_any, k_any, k_any, always, k_as_ever},
};
// clang-format on

// What a routine that goes on writes no more, though no rule forbids it: what the failed call was
// for. All else that it writes when all goes well it writes after a single failure, too.
struct loss {
  const char *routines;
  const char *function;
  const char *text;
  const char *step;
  bool (*when)(const fault &happens);
  const char *until;   // up to the next call of one of these; "": to the end
  const char *lost[3]; // what a write tells
  const char *why;
};
constexpr char k_to_the_end[] = "";
constexpr char k_router[] = ", 0100000001";
constexpr char k_router_v6[] = ", 0100000002";
constexpr char k_address[] = ", 02000000";
// clang-format off
const loss k_losses[] = {
    {k_any, "pss_open", k_saved_table, k_any, always, k_to_the_end, {"sysmgr_srv_tag_info_", TABLE},
     "a switch without a saved table converts, too"},
    {k_any, "pss_fetch", k_saved_table, k_any, absent, k_to_the_end, {TABLE},
     "a table with the service alone is saved instead"},
    {k_ports, "pss2_open", k_any, k_any, always, "pss2_open", {k_any},
     "a store that cannot be opened is not converted; the next one is"},
    {"pixm_", "pss2_fetch", k_any, k_any, always, "pss2_fetch pss2_close", {k_any},
     "a record that cannot be fetched keeps its number"},
    {"pixm_", "tlv_array_get_next_tlv", k_any, k_any, always, "pss2_fetch pss2_close", {k_any},
     "a record whose items cannot be read is not known as one of those to be renumbered"},
    {"ethpm_", "pss2_getvalue", k_any, k_any, always, "pss2_getkey pss2_move2location", {k_any},
     "a value that cannot be read skips the request for its record"},
    {k_any, "pss_move2", k_any, k_routers, absent, k_to_the_end, {k_router, k_router_v6},
     "a key that is not there ends a pass over the routers"},
    {k_any, "pss_move2", k_any, k_addresses, absent, k_to_the_end, {k_address},
     "and one over the addresses"},
};
// clang-format on

// What a later row may not write since it comes of what an earlier one left.
const struct {
  const char *routines;
  const char *lost[2];
} k_handed_over[] = {
    {"vrrp_", {"/vrrp-", "/vrrp-"}},
    {"kps_ dot1x_", {TABLE, "sysmgr_srv_tag_info_table_prepare"}},
};

// VRRP's bulk reads have an array each, that of the routers before that of the addresses; the
// renumbering has a buffer.
constexpr int64_t k_no_memory = 3; // the bulk read's own
const allocation_rule k_allocations[] = {
    {k_one_read, 1, k_no_memory, {k_router, k_router_v6, k_address}},
    {k_one_read, 2, k_no_memory, {k_address}},
    {k_two_reads, 1, 0, {k_router, k_router_v6, k_address}},
    {k_two_reads, 2, k_no_memory, {k_address}},
    {k_vrrp, 1, k_as_ever, {k_router, k_router_v6, k_address}},
    {k_vrrp, 2, k_as_ever, {k_address}},
    {"pixm_", 1, k_as_ever, {", 36"}},
    {k_any, 0, k_as_ever},
};

// What a row of an entry point writes when another one has left something else to it than when all
// goes well: VRRP's hand-over, and the table of tags.
constexpr char k_startup[] = "datamorph_startup";
const struct {
  const char *routines;
  const char *text;
} k_left_by_another_row[] = {
    {k_startup, "vrrp-"},
    {k_startup, "sysmgr_srv_tag_info_table_prepare(0, 1)"},
    {k_startup, TABLE "1d0000000200010001000800f50100006f6c6400010005001e02000000)"},
    {k_startup, TABLE "1d0000000200010001000800f50100006f6c6400010005007d01000000)"},
    // A table that one row does not find is made anew, and the next row adds its service to that.
    {k_startup, TABLE "1a00000002000100010005007d01000000010005001e02000000)"},
    {k_startup, TABLE "1a00000002000100010005001e02000000010005007d01000000)"},
};

std::set<const void *> &used_rules() {
  static std::set<const void *> used;
  return used;
}

std::string last_step(const lines_t &calls, size_t at) {
  if (is_tlv(calls[at])) {
    return subject_of(calls, at);
  }
  for (size_t i = at + 1; i-- > 0;) {
    const std::string function = function_of(calls[i]);
    if (function == "pss_move2key" || function == "pss2_move2location") {
      return calls[i];
    }
  }
  return {};
}

// An open that creates what is missing. Its second argument is the mode.
bool makes_a_store(const std::string &call) {
  return begins_with(call, "pss2_open(") &&
         (std::strtoul(key_in(call).c_str(), nullptr, 16) & PSS2_MODE_CREATE) != 0;
}

// What stands between the nth and the next ", " of a call.
std::string argument(const std::string &call, unsigned nth) {
  size_t start = call.find('(') + 1;
  for (unsigned i = 1; i < nth && start != 0; ++i) {
    start = call.find(", ", start) + 1;
    start += start != 0 ? 1 : 0;
  }
  return start == 0 ? std::string() : call.substr(start, call.find_first_of(",)", start) - start);
}

// Whether a rule, or a loss, is one for a call.
template <typename row_t>
bool is_for(const row_t &one, const std::string &routine_name, const fault &happens,
            const lines_t &calls, size_t at) {
  return begins_with(calls[at], one.function) && is_one_of(routine_name, one.routines) &&
         tells(calls[at], one.text) &&
         (*one.step == '\0' || tells(last_step(calls, at), one.step)) && one.when(happens);
}

template <size_t count>
const rule &first_rule(const rule (&rules)[count], const std::string &routine_name,
                       const fault &happens, const lines_t &calls, size_t at) {
  const rule *found = std::find_if(std::begin(rules), std::end(rules), [&](const rule &one) {
    return is_for(one, routine_name, happens, calls, at);
  });
  used_rules().insert(found);
  return *found;
}

template <typename row_t, size_t count> std::string unused(const row_t (&rules)[count]) {
  std::string told;
  for (const row_t &one : rules) {
    if (used_rules().count(&one) == 0) {
      told += std::string(one.routines) + ", " + one.function + ", " + one.text + "\n";
    }
  }
  return told;
}

} // namespace

const rule &rule_for(const std::string &routine_name, const fault &happens, const lines_t &calls,
                     size_t at) {
  return happens.gives_data ? first_rule(k_giving, routine_name, happens, calls, at)
                            : first_rule(k_failing, routine_name, happens, calls, at);
}

std::string rules_without_use(bool give_data) {
  return give_data ? unused(k_giving) : unused(k_failing);
}

const allocation_rule &allocation_rule_for(const std::string &routine_name, unsigned nth) {
  return *std::find_if(
      std::begin(k_allocations), std::end(k_allocations), [&](const allocation_rule &one) {
        return is_one_of(routine_name, one.routines) && (one.nth == 0 || one.nth == nth);
      });
}

bool is_lost(const std::string &routine_name, const fault &happens, const lines_t &calls, size_t at,
             size_t write) {
  for (const loss &one : k_losses) {
    if (!is_for(one, routine_name, happens, calls, at)) {
      continue;
    }
    used_rules().insert(&one);
    const bool tells_one =
        std::any_of(std::begin(one.lost), std::end(one.lost),
                    [&](const char *text) { return text != nullptr && tells(calls[write], text); });
    const auto end = calls.begin() + static_cast<std::ptrdiff_t>(write);
    const bool is_over =
        *one.until != '\0' &&
        std::any_of(calls.begin() + static_cast<std::ptrdiff_t>(at) + 1, end + 1,
                    [&](const std::string &call) { return is_one_of(call, one.until); });
    return tells_one && !is_over;
  }
  return false;
}

bool depends_on_row(const std::string &routine_name, const std::string &write) {
  return std::any_of(std::begin(k_handed_over), std::end(k_handed_over), [&](const auto &one) {
    return is_one_of(routine_name, one.routines) &&
           (tells(write, one.lost[0]) || tells(write, one.lost[1]));
  });
}

std::string losses_without_use() {
  return unused(k_losses);
}

bool comes_of_another_row(const std::string &routine_name, const std::string &write) {
  return std::any_of(std::begin(k_left_by_another_row), std::end(k_left_by_another_row),
                     [&](const auto &one) {
                       return is_one_of(routine_name, one.routines) && tells(write, one.text);
                     });
}

bool is_one_of(const std::string &name, std::string_view beginnings) {
  for (;;) {
    const size_t end = beginnings.find(' ');
    if (begins_with(name, beginnings.substr(0, end))) {
      return true;
    }
    if (end == std::string_view::npos) {
      return false;
    }
    beginnings.remove_prefix(end + 1);
  }
}

std::string function_of(const std::string &call) {
  return call.substr(0, call.find('('));
}

const std::string &subject_of(const lines_t &calls, size_t at) {
  while (at > 0 && is_tlv(calls[at])) {
    --at;
  }
  return calls[at];
}

std::string forbidden_by(const rule &its, const lines_t &calls, size_t at) {
  const std::string &subject = subject_of(calls, at);
  if (its.no_more == k_its_store) {
    return store_in(subject);
  }
  if (its.no_more == k_its_key) {
    return "(" + store_in(subject) + ", " + key_in(subject);
  }
  return its.no_more;
}

bool is_write(const std::string &call) {
  return k_writes.count(function_of(call)) == 1 || makes_a_store(call);
}

std::string function_and_store(const std::string &call) {
  return call.substr(0, call.find_first_of(",)"));
}

std::string store_in(const std::string &call) {
  return argument(call, 1);
}

std::string key_in(const std::string &call) {
  return argument(call, 2);
}

bool tells(const std::string &text, const char *part) {
  return text.find(part) != std::string::npos;
}
