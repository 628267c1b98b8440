// The question before something is discarded for good.
#ifndef DATAMORPH_CONFIRM_H
#define DATAMORPH_CONFIRM_H

#include <string>

// Asks on the terminal, and returns when the answer is yes; throws failure(3) when it is not. Asks
// nothing with `yes` (the option --yes), and where nobody is there to answer: a script's standard
// input or error is no terminal. To be called before a switch is opened, which locks it.
void confirm(const std::string &question, bool yes);

#endif
