// The recording platform double: the functions of platform/*.h for unit tests, in memory, in the
// test's own process. It logs every call, fails where a script says so, and hands out data that is
// gone as soon as the interface allows, so that a sanitizer finds whoever keeps a pointer.
//
// The TLV and text functions are pure; the lab platform's own sources serve here too. The text
// functions are neither logged nor scripted, those of the TLV arrays once a test asks for it.
#ifndef TESTS_SUPPORT_PLATFORM_DOUBLE_H
#define TESTS_SUPPORT_PLATFORM_DOUBLE_H

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/mts.h"
#include "platform/pss2.h"
#include "platform/sysmgr.h"

class platform_double {
public:
  platform_double();
  ~platform_double();
  platform_double(const platform_double &) = delete;
  platform_double &operator=(const platform_double &) = delete;

  // A switch with no stores, queues, access points or images, with VDC 1 only, an empty log and no
  // scripts. Handles, messages and queues count from 1 again; all that was handed out is freed.
  void reset();

  // ---- Log -------------------------------------------------------------------------------------
  //
  // One entry for each call in call order, failed ones included:
  //   pss_open("nonvolatile:/cfg/0/bin/sysmgr_config")
  //   pss_store(1, 1, 0f000000, 01000000)            handle, flag, key, value
  //   pss_move2location(1, PSS_NEXT_KEY)
  //   pss_snapshot(1, 0, "nonvolatile:/x")
  //   pss2_open("volatile:/x/y", 0x3, 390, 0, 0)     mode, owner, reserved
  //   pss2_delete(1, 0a0b, 0)                        handle, key, flag
  //   pss2_move2location([1], PSS_FIRST_KEY)
  //   pss2_kernel2file(1, "/mnt/pss/x.snp", 0)
  //   mts_send(7, 0xfe000000, 3, 2690, 00000185…, 40, 0, 0)
  //   mts_recv(7, version 1, non_blocking 0, timeout 30, token 1, opcode 0, sap 0, flags 0)
  //   mts_sap_destroy(7, 341)
  //   sysmgr_srv_tag_info_add(381, "", 1)
  //   tlv_array_size_get(0800000000000100, 1)         the array's header, version
  //   tlv_array_get_num_tlvs(0800000000000100, 1)
  //   tlv_array_get_next_tlv(0800000000000100, 1, 0)  the array's header, version, cursor
  // Out-pointers are left out, null is `null`, an empty datum `-`, one above 4096 bytes its size
  // in parentheses, as "(5000 bytes)".

  std::vector<std::string> calls() const;
  std::vector<std::string> calls(const std::string &function) const;
  // Forgets the log only.
  void clear();
  // From now on (until reset()) calls are not logged: a log that nobody reads is most of the time
  // of a run of some thousand a second.
  void keep_no_log();

  // From now on (until reset()) the TLV array functions are logged and scripted like the others.
  // Not before, since tests and the double itself look at tag tables through them.
  void watch_tlvs();

  // ---- Scripts ---------------------------------------------------------------------------------
  //
  // `nth` counts the calls of that function from the setting of the script on: 1 is the next one. A
  // scripted call does nothing else than answer; a scripted pss_close or pss2_close also gives up
  // the handle and what was written through it. For the mts_ functions `status` is the errno.
  // Functions with a pointer result then give null, mts_rr_token_get 0; the result of
  // tlv_array_size_get and tlv_array_get_num_tlvs is `status` itself.

  void fail(const std::string &function, syserr_t status, unsigned nth = 1);
  // That call and all later ones.
  void fail_from(const std::string &function, syserr_t status, unsigned nth = 1);
  // The n-th call of any function, from now on; `error` is the errno of the mts_ functions.
  void fail_any(unsigned nth, syserr_t status, int error = EIO);
  // That one and all later calls of any function.
  void fail_any_from(unsigned nth, syserr_t status, int error = EIO);
  // How many scripted answers have been given since reset(): a loop over `fail_any(n)` ends when
  // this stays 0.
  unsigned scripted() const;

  // Status 0 with these bytes as the result's (pss_fetch, pss_move2key, pss_move2location,
  // pss_getvalue, pss2_fetch, pss2_getkey, pss2_getvalue, mts_payload_get, srg_sw_ver_file_get).
  void answer(const std::string &function, const std::string &bytes, unsigned nth = 1);
  void answer_from(const std::string &function, const std::string &bytes, unsigned nth = 1);
  // Status 0 and a datum of that size with a null pointer, from the functions that give a datum.
  void answer_without_bytes(const std::string &function, uint32 size, unsigned nth = 1);
  void answer_without_bytes_from(const std::string &function, uint32 size, unsigned nth = 1);
  // Status 0 and nothing: a null result, or a write that is reported as done but is not.
  void answer_null(const std::string &function, unsigned nth = 1);
  void answer_null_from(const std::string &function, unsigned nth = 1);
  // pss2_move2location: result 0, this status for each handle, no cursor moved.
  void answer_handles(syserr_t status, unsigned nth = 1);
  void answer_handles_from(syserr_t status, unsigned nth = 1);
  // Runs `action` when the n-th call comes, before it is served or answered.
  void before(const std::string &function, std::function<void()> action, unsigned nth = 1);

  // ---- Stores, without a trace in the log
  // --------------------------------------------------------

  using records_t = std::map<std::string, std::string>;
  static constexpr pss2_nonvol_params default_params = {4096, 1048576, 0, 1};

  // Makes or replaces a store.
  void set_store(const std::string &uri, const records_t &records = {},
                 const pss2_nonvol_params &params = default_params);
  // Inserts or replaces one record; makes the store when it is missing.
  void put(const std::string &uri, const std::string &key, const std::string &value);
  bool has_store(const std::string &uri) const;
  // What is durable: writes through handles that are still open are not in it. Empty when missing.
  records_t records(const std::string &uri) const;
  std::optional<std::string> value(const std::string &uri, const std::string &key) const;
  std::vector<std::string> store_uris() const; // sorted
  // Opening the store gives SYSERR_PSS_DAMAGED from now on.
  void damage(const std::string &uri);

  // Handles of both generations that are open, in the order of opening, and their stores.
  std::vector<uint32> open_handles() const;
  std::vector<std::string> open_stores() const;
  // The store that a handle is of, or was of when it was open; "" for a number that was none.
  std::string store_of(uint32 handle) const;

  // The bytes of a flat file as pss2_kernel2file writes it, to be put down by a test.
  static std::string flat_file(const records_t &records);

  // ---- Messages
  // ----------------------------------------------------------------------------------

  void add_queue(mts_q_handle_t queue);
  void remove_queue(mts_q_handle_t queue);
  // Registers an access point; mts_sap_destroy of one that is not there fails with ENOENT.
  void add_sap(uint32 sap);
  std::vector<uint32> saps() const;
  // The response to the next request that is sent and has none yet: first set, first used. Without
  // one, mts_recv fails with ETIMEDOUT. Fewer than 4 bytes: a message without payload.
  void reply(const std::string &payload);
  // From now on every request without a scripted reply that goes to `sap` gets this response.
  void reply_always(uint32 sap, const std::string &payload);
  // A message that is no response arrives in the queue.
  void deliver(mts_q_handle_t queue, const std::string &payload);
  // mts_recv fails this many times with EINTR, then goes on.
  void interrupt_recv(unsigned times);
  // Messages (sent or received) that were not dropped.
  std::vector<mts_ref_t> open_messages() const;

  // ---- System manager
  // ----------------------------------------------------------------------------

  // The VDCs that exist (1 to 16). Frees all tag tables.
  void set_vdcs(const std::vector<vdc_id_t> &vdcs);
  // The version text of the image at that path; unknown images have none. The buffer that
  // srg_sw_ver_file_get returns is written anew by every call of it.
  void set_image(const std::string &srg_path, const std::string &version);

  // The double's own side; only its sources know what it is.
  struct state;
  state &internals() { return *state_; }

private:
  std::unique_ptr<state> state_;
};

// The one double of the process.
platform_double &double_platform();

// The bytes of a TLV array that holds these items.
std::string tlv_array_bytes(const std::vector<std::pair<uint16, std::string>> &items);

#endif
