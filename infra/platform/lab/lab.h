// The lab platform: what an ordinary Linux process needs to stand in for the switch's platform.
//
// The functions of platform/*.h are implemented beside this header; the ones below are what the
// program around them (the command line, a test) uses to set a switch up and to look at it. Every
// path is taken from the root of the process, which has usually been moved into a switch's state.
#ifndef LAB_H
#define LAB_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mts.h"
#include "platform/pss2.h"
#include "platform/sysmgr.h"

namespace lab {

// ---- Stores ------------------------------------------------------------------------------------

// What a store gets that is created without parameters of its own. Sizes in bytes; a max_node_keys
// of 0 is no limit.
inline constexpr pss2_nonvol_params default_store_params = {4096, 1048576, 0, 1};

// The file of a store: "nonvolatile:P" is P plus ".pss", "volatile:P" is the same below
// /dev/shm/volatile. Empty for anything else.
std::string store_file(const std::string &uri);

// The URIs of all stores below the process's root, sorted, nonvolatile ones first. What
// cannot be read is left out. `error`, where it is wanted: 0, or why there may be more of them.
std::vector<std::string> store_uris(int *error = nullptr);

// Creates an empty store with these parameters; SYSERR_PSS_EXISTS when one stands there.
syserr_t store_create(const std::string &uri, const pss2_nonvol_params &params);

struct store_info {
  uint64_t records = 0;
  uint64_t bytes = 0; // of the store's file
  pss2_nonvol_params params = {};
};

// Reads the whole store through the engine's integrity check. A status when it is missing, damaged
// or of another program; the store is not changed.
syserr_t store_inspect(const std::string &uri, store_info *info);

// How many records a store has; quick, for they are not looked at. A status when it is missing or
// of another program.
syserr_t store_count(const std::string &uri, uint64_t *records);

// From now on this process opens every store's file for reading only. One that waits for what a
// killed writer left to be taken back gives SYSERR_PSS_NO_ACCESS then.
void stores_for_reading_only();

// Closes every handle that is still open, which makes its writes durable. The first status that is
// not 0; *closed (may be null) gets how many were open.
syserr_t close_all_stores(size_t *closed);

// Gives each record of a flat file, as pss2_kernel2file writes them, in the file's order; none
// before all of the file was checked. SYSERR_PSS_NO_STORE when there is no such file,
// SYSERR_PSS_DAMAGED when it is no flat file, or is cut or changed.
syserr_t
flat_file_read(const std::string &file,
               const std::function<void(std::string_view key, std::string_view value)> &take);

// ---- Messages ----------------------------------------------------------------------------------

// A live queue with its endpoint under /var/run/mts. 0 and errno on failure.
mts_q_handle_t mts_queue_open();
// 0, or -1 and EBADF.
int mts_queue_close(mts_q_handle_t queue);

// Registers a service access point that this queue answers (queue 0: one that nobody answers, as a
// description of a switch has them). `owner` is a free text. 0, or -1 and errno.
int mts_sap_register(mts_q_handle_t queue, uint32 sap, const std::string &owner);

struct access_point {
  uint32 sap = 0;
  std::string owner;
};

// All registered access points, by number. `error` as for store_uris().
std::vector<access_point> mts_saps(int *error = nullptr);

// For whoever answers: what a received message is, and the response to it (0, or -1 and errno).
struct message_info {
  uint32 opcode = 0;
  uint32 source_sap = 0;
  uint32 destination_sap = 0;
  mts_rr_token_t token = 0;
  uint32 length = 0; // bytes of payload
  bool response = false;
};
bool mts_message_info(mts_ref_t reference, message_info *info);
int mts_reply(mts_q_handle_t queue, mts_ref_t request, const void *payload, uint32 length);

// Ends the system manager's service, closes all queues and ends the message threads. To be called
// before the process forks or ends.
void mts_shutdown();

// ---- System manager ----------------------------------------------------------------------------

// The VDCs that the switch has (1 to 16); a tag table can be made for these only. Frees all tables.
void sysmgr_set_vdcs(const std::vector<vdc_id_t> &vdcs);

// The system manager's service: queues and a thread that answer access point MTS_SAP_SYSMGR, until
// sysmgr_stop() or mts_shutdown(). It edits sysmgr_info_tbl while it answers a request, and no
// signal is delivered to its thread. It must not run over a fork. 0, or -1 and errno: EALREADY when
// it runs already.
int sysmgr_start();
// Requests that had arrived are entered first, without an answer; those of one second at most. The
// access point is again whoever's it was before, or gone, unless somebody removed it or registered
// it anew meanwhile. 0, also when the service does not run; -1 and errno when the access
// point could not be given back (it is gone then, or cannot be written): the service has ended
// nevertheless.
int sysmgr_stop();

// The bytes of a VDC's running table, as they lie between two answers of the service; empty when it
// has none, or one that states a size that no table has.
std::string sysmgr_running_table(vdc_id_t vdc);

// One service's entry in a tag table.
struct tag_entry {
  uint32 uuid = 0;
  std::string tag;
};

// The entries of a table in its order; bytes behind its stated size are left alone. TLVs of other
// types, and those without room for a service's number, are skipped, as they are by
// sysmgr_srv_tag_info_add. False, and *entries as it was, for bytes that are no tag table.
bool tag_table_decode(std::string_view bytes, std::vector<tag_entry> *entries);
// The table that holds these entries in this order, of each tag the first 31 characters. The caller
// sees to it that a service stands there once, and that a table to be run has SYSMGR_TAG_TABLE_MAX
// bytes at most.
std::string tag_table_encode(const std::vector<tag_entry> &entries);

// Writes a line of the journal for each running table that is other than it was when the journal
// last told of it, or began: the library writes into them without a call. Calls that edit a table
// look first by themselves; this one is for the end of a request. The first look after
// journal_start, by whichever of them, only takes note.
void sysmgr_journal_edits();

// Where the running tag tables are between two processes that play the system manager. A record
// per VDC that has one: key = the VDC as 2 bytes, big-endian, value = the table.
inline constexpr char running_tag_tables[] = "volatile:/sysmgr/tag_tables";

// Makes the tables of that store the running ones; a store that is not there holds none.
// SYSERR_PSS_DAMAGED for a table that is none or of a VDC that the switch does not have, else the
// status of the store; the running tables are as they were then.
syserr_t sysmgr_load_tables();
// Makes the store hold the running tables and no others; writes what differs, and does not touch or
// make the store when nothing does. SYSERR_PSS_DAMAGED for a running table that could not be loaded
// again, one of a VDC that the switch does not have too. After a failure the store's records are
// what they were.
syserr_t sysmgr_save_tables();

// ---- Journal -----------------------------------------------------------------------------------
//
// While a journal is on, each platform call that changes something is written to it as one line of
// JSON: n, moment, vdc, service (the request that was running), routine (whose call it is, where
// somebody knows), call, and where they apply uri, file (a flat file), key (hex), old and new
// (bytes of the value, null when absent), added, changed, removed (records of that store), sap,
// table_vdc, uuid, tag, old_tag (an entry of a tag table; hex), old_sum and new_sum (checksums of a
// tag table), status, and unexpected (true for a
// write that failed for another reason than that the thing was not there).

// Writes to `fd` (owned by the caller, who closes it after journal_stop). `fd` -1: counts only.
void journal_start(int fd);
void journal_stop();

// The request that the following calls belong to.
void journal_request(const std::string &moment, vdc_id_t vdc, const std::string &service);

// Asked at each line, on the thread of the call, for the routine that makes the call: its name, or
// null. Null for `caller`: nobody is asked.
using journal_caller = const char *(*)();
void journal_routine(journal_caller caller);

// Writes that failed unexpectedly since journal_start, and the line of the first one.
size_t journal_unexpected(std::string *first);

} // namespace lab

#endif
