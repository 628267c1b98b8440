// Options that a verb does not have, and the one that may have been meant.
#ifndef DATAMORPH_UNKNOWN_OPTION_H
#define DATAMORPH_UNKNOWN_OPTION_H

#include <string>
#include <vector>

#include "command_tree.h"

// The first of the words behind a verb that stands where an option may, looks like one and is none
// of the verb's, without a value that is joined to it; "" when there is none.
std::string unknown_option(const command &verb, const std::vector<std::string> &typed);

// The verb's option that is written most like this one; "" when none is near.
std::string nearest_option(const command &verb, const std::string &option);

#endif
