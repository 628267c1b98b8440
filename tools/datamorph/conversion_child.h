// The part of a conversion that happens inside the switch's state: playing the system manager.
#ifndef DATAMORPH_CONVERSION_CHILD_H
#define DATAMORPH_CONVERSION_CHILD_H

#include <string>
#include <vector>

#include "jail.h"
#include "library.h"
#include "switch_state.h"

// One call of an entry point.
struct conversion_request {
  moment which = moment::gsync;
  vdc_id_t vdc = 1;
  uint32 uuid = SRVUUID_NONE; // SRVUUID_NONE: the whole table
  std::string service() const;
  std::string text() const; // "SKSD (running-fs, VDC 1)"
};

struct conversion_plan {
  switch_state state; // before the conversion
  std::string to;
  std::string from;
  std::vector<conversion_request> requests;
};

// The version of each image by its release, null where it cannot be read. Looks into the root.
nlohmann::json images();

// Looks at the state that the child's root is, changing nothing. Sends one message: "images" (the
// version by release, null where it cannot be read), "tables" and "order" (the library's answer to
// comparing the plan's `from` with its `to`), and "damaged" (uri and status) for the first store
// that cannot be read, or whose tag tables cannot, then with the first such record ("key", "text").
void examine(const jail::channel &channel, const library &library, const conversion_plan &plan);

// Makes the requests of the plan in their order. Sends "start" (the request's index) before and
// "result" (index, status, milliseconds, "tags_gone": the entries that went from the running tag
// tables, with their tags in hex) after each, and at the end "closing": what is known of failed
// writes, open handles, the running tag tables, the stores before and after, and VRRP's records.
// All is on disk then.
void run_conversion(const jail::channel &channel, const library &library,
                    const conversion_plan &plan, int journal);

#endif
