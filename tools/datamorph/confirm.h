// The question before something is discarded for good.
#ifndef DATAMORPH_CONFIRM_H
#define DATAMORPH_CONFIRM_H

#include <string>

// Whether somebody is there to answer: standard input and error are a terminal.
bool can_ask();

// Asks on the terminal, and returns when the answer is yes; throws failure(3) when it is not, and
// 128 and the number for a signal that asks the program to stop. Asks nothing with `yes` (the
// option
// --yes), and where nobody is there to answer: a script's standard input or error is no terminal.
// An open switch is locked: this is called before it is opened, unless the question is about what
// stands there.
void confirm(const std::string &question, bool yes);

#endif
