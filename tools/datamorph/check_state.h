// The part of check that happens inside the switch's state. Nothing there is opened for writing.
#ifndef DATAMORPH_CHECK_STATE_H
#define DATAMORPH_CHECK_STATE_H

#include <optional>
#include <string>

#include "check_findings.h"
#include "jail.h"
#include "library.h"
#include "records.h"
#include "switch_state.h"

struct check_subject {
  std::string dir;                   // as the command line names the switch
  std::optional<switch_state> state; // none: its switch.json is wrong
  std::string from;
  std::string to;
  std::optional<layout_side> side;                  // of `from`; none: not known
  nlohmann::json images = nlohmann::json::object(); // the version of each release's, null without
  std::string newer;    // one of them from the release on at which layouts change; may be empty
  std::string older;    // one from before it
  bool as_root = false; // rights on files do not matter
};

// Asks the library about the releases. Sends one message: "differs" (of the two releases those
// whose image tells a version that the library orders otherwise), "side" (of `from`), "newer",
// "older".
void ask_library(const jail::channel &channel, const library &library,
                 const check_subject &subject);

// Looks at the state that the child's root is, step by step from this one on: each store is a step,
// then come the steps that have none. Sends "step", "of" and "store" (hex) before each; findings as
// finding::to_message; and "counts" (topic, looked at, further errors, further warnings) now and
// then, and at the end of each step.
void look_at_state(const jail::channel &channel, const check_subject &subject, size_t first_step);

#endif
