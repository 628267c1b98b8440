#include "fault/fault_kinds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <map>

#include "exported_symbols.h"
#include "platform/sysmgr.h"

namespace {

// ---- Failures

// What each function can give, one of somebody else's, and all bits.
const failures_t k_of_stores = {{SYSERR_PSS_EXISTS},    {SYSERR_PSS_NO_STORE},
                                {SYSERR_PSS_NOT_FOUND}, {SYSERR_PSS_BAD_ARGUMENT},
                                {SYSERR_PSS_TOO_LARGE}, {SYSERR_PSS_BAD_HANDLE},
                                {SYSERR_PSS_DAMAGED},   {SYSERR_PSS_NO_ACCESS},
                                {SYSERR_PSS_IO},        {SYSERR_PSS_NO_ROOM},
                                {SYSERR_PSS_BUSY},      {1},
                                {SYSERR_FAILED}};
const failures_t k_of_tag_tables = {
    {SYSERR_TLV_END},        {SYSERR_TLV_DAMAGED},   {SYSERR_IMAGE_VERSION}, {SYSERR_NO_SUCH_VDC},
    {SYSERR_TAG_TABLE_FULL}, {SYSERR_NULL_ARGUMENT}, {SYSERR_PSS_NO_ROOM},   {1},
    {SYSERR_FAILED}};
const failures_t k_of_arrays = {
    {SYSERR_TLV_END}, {SYSERR_TLV_DAMAGED}, {SYSERR_NULL_ARGUMENT}, {1}, {SYSERR_FAILED}};
const failures_t k_of_messages = {{SYSERR_PSS_IO, EBADF},  {SYSERR_PSS_IO, EINTR},
                                  {SYSERR_PSS_IO, EIO},    {SYSERR_PSS_IO, ENOENT},
                                  {SYSERR_PSS_IO, EINVAL}, {SYSERR_PSS_IO, ETIMEDOUT}};
// For those that give a pointer or a token: none. What follows fails with this.
const failures_t k_without_status = {{SYSERR_PSS_IO}};
// These give a number, and have none that says that they failed: see their data.
const failures_t k_none = {};

const struct {
  const char *function; // how its name begins
  const failures_t &failures;
} k_failures[] = {{"mts_payload_get", k_without_status},     {"mts_rr_token_get", k_without_status},
                  {"srg_sw_ver_file_get", k_without_status}, {"mts_", k_of_messages},
                  {"tlv_array_get_next_tlv", k_of_arrays},   {"tlv_", k_none},
                  {"sysmgr_srv_tag_info_", k_of_tag_tables}, {"pss", k_of_stores}};

// ---- Answers

// The functions whose data, or whose claim that all went well, cannot be right: the ways in which
// they are not.
enum spoilt_as { as_bytes, as_datum, as_claim, as_move, as_number };
const std::map<std::string, spoilt_as> k_spoilt = {{"pss_fetch", as_datum},
                                                   {"pss_getvalue", as_datum},
                                                   {"pss_move2key", as_datum},
                                                   {"pss_move2location", as_datum},
                                                   {"pss2_fetch", as_datum},
                                                   {"pss2_getkey", as_datum},
                                                   {"pss2_getvalue", as_datum},
                                                   {"mts_payload_get", as_bytes},
                                                   {"srg_sw_ver_file_get", as_bytes},
                                                   {"pss2_move2location", as_move},
                                                   {"tlv_array_size_get", as_number},
                                                   {"tlv_array_get_num_tlvs", as_number},
                                                   {"tlv_array_get_next_tlv", as_claim},
                                                   {"pss_store", as_claim},
                                                   {"pss_delete", as_claim},
                                                   {"pss2_store", as_claim},
                                                   {"pss2_delete", as_claim},
                                                   {"pss_destroy", as_claim},
                                                   {"pss2_destroy", as_claim},
                                                   {"pss_create", as_claim},
                                                   {"pss_snapshot", as_claim},
                                                   {"pss2_kernel2file", as_claim},
                                                   {"pss2_file2kernel", as_claim},
                                                   {"pss2_get_params", as_claim},
                                                   {"pss_close", as_claim},
                                                   {"pss2_close", as_claim},
                                                   {"mts_drop", as_claim},
                                                   {"mts_sap_destroy", as_claim},
                                                   {"sysmgr_srv_tag_info_add", as_claim},
                                                   {"sysmgr_srv_tag_info_table_prepare", as_claim}};

fault nothing() {
  return {true, 0};
}

// A payload has 4 bytes, or there is none.
std::vector<fault> spoilt_bytes(const std::string &function) {
  std::vector<fault> faults;
  for (const std::string &data :
       {std::string(), std::string(1, '\x01'), std::string(3, '\0'), std::string(64, '\xff'),
        std::string(4096, '\0'), std::string(70000, '\xff')}) {
    if (function != "mts_payload_get" || data.size() >= 4) {
      faults.push_back(nothing());
      faults.back().data = data;
    }
  }
  return faults;
}

// Of a saved array: less than its header, and more than there is. The system manager's own table
// has no more than its room, and that much is saved of it when it says so.
std::vector<fault> spoilt_numbers(const lines_t &calls, size_t at) {
  const bool running = tells(subject_of(calls, at), "sysmgr_srv_tag_info_");
  const std::vector<uint32> numbers =
      running ? std::vector<uint32>{SYSMGR_TAG_TABLE_MAX}
              : std::vector<uint32>{0, 7, SYSMGR_TAG_TABLE_MAX + 1, 0xFFFFFFFF};
  std::vector<fault> faults;
  for (const uint32 number : numbers) {
    faults.push_back(nothing());
    faults.back().number = number;
  }
  return faults;
}

std::set<std::string> words_of(const std::string &text) {
  std::set<std::string> words;
  std::string word;
  for (const char letter : text + ' ') {
    if (std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_') {
      word += letter;
    } else {
      words.insert(word);
      word.clear();
    }
  }
  return words;
}

} // namespace

const failures_t &failures_of(const std::string &function) {
  for (const auto &row : k_failures) {
    if (function.compare(0, std::strlen(row.function), row.function) == 0) {
      return row.failures;
    }
  }
  ADD_FAILURE() << function;
  return k_none;
}

std::vector<fault> spoilt_answers(const lines_t &calls, size_t at) {
  const std::string function = function_of(calls[at]);
  const auto found = k_spoilt.find(function);
  if (found == k_spoilt.end()) {
    return {};
  }
  if (found->second == as_number) {
    return spoilt_numbers(calls, at);
  }
  std::vector<fault> faults = {nothing()};
  if (found->second == as_bytes || found->second == as_datum) {
    const std::vector<fault> bytes = spoilt_bytes(function);
    faults.insert(faults.end(), bytes.begin(), bytes.end());
  }
  if (found->second == as_datum) {
    faults.push_back(nothing());
    faults.back().without_bytes = true;
  }
  if (found->second == as_move) {
    for (const syserr_t status : {SYSERR_PSS_NOT_FOUND, SYSERR_PSS_BAD_HANDLE, SYSERR_PSS_IO}) {
      faults.push_back(nothing());
      faults.back().handles = status;
    }
  }
  return faults;
}

std::set<std::string> exported_names_in(const std::vector<std::string> &texts) {
  const std::set<std::string> exported = {EXPORTED_SYMBOLS};
  std::set<std::string> found;
  for (const std::string &text : texts) {
    const std::set<std::string> words = words_of(text);
    std::set_intersection(words.begin(), words.end(), exported.begin(), exported.end(),
                          std::inserter(found, found.end()));
  }
  return found;
}
