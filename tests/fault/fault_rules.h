// What a call that fails, or that gives data that cannot be right, does to the routine that made
// it, as the routine is described. The calls of a run are told with the name of a store in the
// place of its handle.
#ifndef TESTS_FAULT_FAULT_RULES_H
#define TESTS_FAULT_FAULT_RULES_H

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fault/busy_switch.h"

using lines_t = std::vector<std::string>;

// What happens to a call.
struct fault {
  bool gives_data = false; // else it fails
  syserr_t status = 0;     // with this, where the function gives a status
  int error = EIO;         // with this errno, where it is one of messages
  bool forever = false;    // and all later calls; of this function, where they give data
  // What is given though the status is 0: these bytes, or no datum.
  std::optional<std::string> data = std::nullopt;
  bool without_bytes = false;                     // a datum that has a size and is nowhere
  std::optional<syserr_t> handles = std::nullopt; // each handle's own status
  std::optional<uint32> number = std::nullopt;    // of a function that gives one
};

// What a rule has for a status.
constexpr int64_t k_as_ever = -1; // the routine goes on; what it gives when all goes well
constexpr int64_t k_its_own = -2; // that of the call
constexpr int64_t k_errno = -3;   // 0x801E0000 with the errno

// What may not be written any more, or may be though it is not when all goes well.
extern const char k_anything[];
extern const char k_its_store[];
extern const char k_its_key[];
extern const char k_other_records[]; // in stores, and by functions, that are used anyway

struct rule {
  const char *routines; // how their names begin, between blanks; "": any
  const char *function; // how its name begins
  const char *text;     // what the call tells somewhere
  const char *step;     // what the last step of the cursor tells, this call among them; of a TLV
                        // call, what the call tells that gave the array
  bool (*when)(const fault &happens);
  int64_t status;                // with any but k_as_ever the routine ends
  const char *no_more = nullptr; // what is not written after it, but `spared` times
  int spared = 0;                // a deletion that is pending
  const char *instead = nullptr; // what may be written instead
  int64_t or_else = k_as_ever;   // where the description leaves open what is given
};

// The first rule for a call; there is one for each.
const rule &rule_for(const std::string &routine_name, const fault &happens, const lines_t &calls,
                     size_t at);

// Whether a routine that goes on after this failure writes this no more, since the failed call was
// part of it. Both are numbers of calls of the run in which all goes well.
bool is_lost(const std::string &routine_name, const fault &happens, const lines_t &calls, size_t at,
             size_t write);
// Whether a later row's write depends on what this one left.
bool depends_on_row(const std::string &routine_name, const std::string &write);
std::string losses_without_use();

// Whether a row of an entry point writes this when another row has left something else to it.
bool comes_of_another_row(const std::string &routine_name, const std::string &write);

// The rules, for failures or for data, that were the first one for no call so far.
std::string rules_without_use(bool give_data);

// What happens when the n-th allocation of a routine fails.
struct allocation_rule {
  const char *routines;
  unsigned nth; // 0: any
  int64_t status;
  const char *not_written[3] = {}; // what no write tells
};
const allocation_rule &allocation_rule_for(const std::string &routine_name, unsigned nth);

std::string function_of(const std::string &call);
bool is_one_of(const std::string &name, std::string_view beginnings);
// The call itself; for one that looks into a TLV array, the one that gave the array.
const std::string &subject_of(const lines_t &calls, size_t at);
// What a rule forbids after this call: what a write must not tell.
std::string forbidden_by(const rule &its, const lines_t &calls, size_t at);
bool is_write(const std::string &call);
// "pss_store("nonvolatile:/x"" of a call that writes to an open store.
std::string function_and_store(const std::string &call);
std::string store_in(const std::string &call);
std::string key_in(const std::string &call);
bool tells(const std::string &text, const char *part);

#endif
