// Stores of a switch as the store verbs use them: inside the child, through the platform's calls.
#ifndef DATAMORPH_STORE_ACCESS_H
#define DATAMORPH_STORE_ACCESS_H

#include <functional>
#include <string>
#include <vector>

#include "jail.h"
#include "lab/lab.h"
#include "platform/pss2.h"
#include "switch_dir.h"

// Runs `body` in the switch's state; `take` gets what it sends. Throws failure, naming the switch.
void in_switch(
    const switch_dir &target, std::function<void(const jail::channel &)> body,
    std::function<void(const nlohmann::json &)> take = [](const nlohmann::json &) {});
// The same in another state of the switch, such as a copy; `state` is its folder.
void in_state(const switch_dir &target, int state, std::function<void(const jail::channel &)> body,
              std::function<void(const nlohmann::json &)> take);

// Throws a failure that names the store: 3 for what is in the switch (no such store, damaged), 1
// for what failed on the way (no room, an input or output error).
void check_store(syserr_t status, const std::string &uri);

// An open store. One that is not closed loses what was written through it when the child ends,
// which is what a failure on the way wants.
class store_handle {
public:
  // `mode` as pss2_open takes it; a store that is made has a name in UTF-8. All of these throw
  // failure.
  store_handle(const std::string &uri, uint32 mode);
  pss2_nonvol_params params();
  std::string fetch(const std::string &key); // 3 when there is no such record
  bool has(const std::string &key);
  void put(const std::string &key, const std::string &value);
  void remove(const std::string &key); // 3 when there is no such record
  void close();
  // Every record in the order of keys.
  void for_each(const std::function<void(std::string_view key, std::string_view value)> &take);

private:
  [[noreturn]] void no_record(const std::string &key) const;

  std::string uri_;
  pss2_service_t handle_ = 0;
};

// The URIs of the switch's stores and its access points. A list with some left out would pass for
// the whole, so these throw failure when something cannot be read: 3 where this user may not,
// else 1. `leave_out_closed`: what this user may not read is left out all the same.
std::vector<std::string> all_store_uris(bool leave_out_closed = false);
std::vector<lab::access_point> all_access_points();

// A store's name for a document: as to_text writes it when JSON cannot carry its bytes.
std::string shown_uri(const std::string &uri);

// Bytes as a user typed them, as hex or text, for a `what` such as "key". Throws failure(64).
std::string typed_bytes(const std::string &typed, bool is_text, const char *what);

// Whether a store's name is meant as the path of a flat file in the switch.
bool is_file_path(const std::string &uri);
// Sends "key" and "value" in hex for each record of a flat file in the switch. Throws failure: 3
// for what is in the switch (no such file, none that is whole), else 1.
void send_file_records(const jail::channel &channel, const std::string &file);

// Sends "uri" with the parameters, then "key" and "value" in hex for each record.
void send_records(const jail::channel &channel, const std::string &uri);

#endif
