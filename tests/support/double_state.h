// What the sources of the platform double share. Tests include platform_double.h instead.
#ifndef TESTS_SUPPORT_DOUBLE_STATE_H
#define TESTS_SUPPORT_DOUBLE_STATE_H

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/tlv_array.h"
#include "support/platform_double.h"

// Bytes that are handed out for a limited time. They have a block of exactly their size, which is
// overwritten and freed when the time is over.
class loan {
public:
  loan() = default;
  ~loan() { take_back(); }
  loan(const loan &) = delete;
  loan &operator=(const loan &) = delete;

  void *give_bytes(const std::string &bytes);
  pss_datum_t *give_datum(const std::string &bytes);
  pss_datum_t *give_datum_without_bytes(uint32 size);
  void take_back();

private:
  pss_datum_t *make_datum(void *bytes, size_t size);

  pss_datum_t *datum_ = nullptr;
  void *bytes_ = nullptr;
  size_t size_ = 0;
};

struct scripted_answer {
  syserr_t status = 0;              // errno for the mts_ functions
  int error = 0;                    // that errno, where any function is answered
  std::optional<std::string> bytes; // of the result
  std::optional<uint32> missing;    // size of a result whose bytes are nowhere
  std::optional<syserr_t> handles;  // of pss2_move2location
};

struct script {
  std::string function; // empty: any
  unsigned countdown = 1;
  bool forever = false;
  std::optional<scripted_answer> answer;
  std::function<void()> action;
};

enum class generation { first, second };
enum class place { nowhere, before_first, on_key, past_end };

struct double_store {
  platform_double::records_t records; // durable
  pss2_nonvol_params params = platform_double::default_params;
  bool damaged = false;
  uint32 writer = 0; // the handle that has written and is still open
};

struct double_handle {
  generation made_by = generation::first;
  std::string uri;
  bool readable = true;
  bool writable = true;
  std::shared_ptr<double_store> store;
  std::optional<platform_double::records_t> written; // what this handle sees once it has written
  place where = place::nowhere;
  std::string cursor; // the key, when on_key

  const platform_double::records_t &seen() const { return written ? *written : store->records; }
};

struct double_message {
  mts_q_handle_t queue = 0;
  mts_rr_token_t token = 0;
  std::string payload;
  loan handed_out;
  void *bytes = nullptr; // handed out already
};

struct arrived_message {
  mts_q_handle_t queue = 0;
  mts_rr_token_t token = 0;
  uint32 opcode = 0;
  std::string payload;
};

struct platform_double::state {
  // ---- Log and scripts
  struct entry {
    std::string function;
    std::string text;
  };
  std::vector<entry> log;
  std::list<script> scripts;
  unsigned scripted = 0;
  bool tlvs_are_watched = false;
  bool logs = true;

  // Logs "function(arguments)", runs what is to be run before it, and gives the answer that a
  // script has for it, if one has.
  std::optional<scripted_answer> enter(const char *function,
                                       const std::vector<std::string> &arguments);

  // ---- Stores
  std::map<std::string, std::shared_ptr<double_store>> stores;
  std::map<uint32, double_handle> handles;
  std::vector<std::string> opened;                      // the stores of handles 1, 2, ...
  std::map<std::pair<uint32, std::string>, loan> loans; // by handle and function

  double_handle *find(generation made_by, uint32 service);
  void forget(uint32 service); // the handle, its unwritten records and all that it handed out

  // ---- Messages
  std::set<mts_q_handle_t> queues;
  std::set<uint32> saps;
  std::list<std::string> replies;
  std::map<uint32, std::string> standing_replies;
  std::list<arrived_message> arrived;
  std::map<mts_ref_t, double_message> messages;
  mts_ref_t last_reference = 0;
  unsigned interruptions = 0;

  // ---- System manager
  std::set<vdc_id_t> vdcs = {1};
  std::map<std::string, std::string> images;
};

// Arguments as the log has them; empty while the double keeps no log.
namespace log_text {
std::string number(uint32 value);
std::string flags(uint32 value); // 0x3
std::string string(const char *text);
std::string data(const void *bytes, size_t size);
std::string datum(const pss_datum_t *datum);
std::string location(pss_location_t location);
} // namespace log_text

// The TLV array functions themselves: what the double reads of its own is no call of anybody's.
extern "C" {
uint32 pure_tlv_array_size_get(const tlv_array_t *array, uint32 version);
uint32 pure_tlv_array_get_num_tlvs(const tlv_array_t *array, uint32 version);
syserr_t pure_tlv_array_get_next_tlv(const tlv_array_t *array, uint16 *type, uint16 *length,
                                     uint8 **value, uint32 version, uint32 *cursor);
}

// Reading a flat file: SYSERR_PSS_NO_STORE, SYSERR_PSS_DAMAGED or success.
syserr_t read_flat_file(const std::string &file, platform_double::records_t *records);
syserr_t write_flat_file(const std::string &file, const platform_double::records_t &records);

// What the two generations of stores have in common. The arguments of a call are in the log text
// already; a handle is looked at before they are.
namespace double_stores {

using reader = std::function<syserr_t(double_handle &, std::string &found)>;
using writer = std::function<syserr_t(double_handle &)>;

pss_datum_t *read(generation made_by, const char *function, uint32 service,
                  const std::vector<std::string> &arguments, syserr_t *status, const reader &read);
syserr_t act(generation made_by, const char *function, uint32 service,
             const std::vector<std::string> &arguments, const writer &write);
syserr_t close(generation made_by, const char *function, uint32 service);
syserr_t destroy(const char *function, const char *uri);
// A new handle on the store that stands at `uri`, or a status.
syserr_t open(generation made_by, const char *uri, bool create, double_handle **opened,
              uint32 *service);

bool good_uri(const char *uri);
bool good_datum(const pss_datum_t *datum);
std::string copy(const pss_datum_t *datum);

syserr_t fetch(double_handle &at, const pss_datum_t *key, std::string &found);
syserr_t insert(uint32 service, double_handle &at, const pss_datum_t *key,
                const pss_datum_t *value);
// Makes what `at` sees its own, so that it can be written.
syserr_t begin_write(uint32 service, double_handle &at);
// Checks the location, too.
syserr_t move(double_handle &at, pss_location_t location);
syserr_t key_at_cursor(const double_handle &at, std::string &found);
syserr_t value_at_cursor(const double_handle &at, std::string &found);

inline void put_status(syserr_t *status, syserr_t value) {
  if (status != nullptr) {
    *status = value;
  }
}

} // namespace double_stores

#endif
