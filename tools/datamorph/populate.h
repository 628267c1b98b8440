// Inside a new switch's state: everything that its description holds.
#ifndef DATAMORPH_POPULATE_H
#define DATAMORPH_POPULATE_H

#include "description.h"

// Runs in the child whose root the empty state is. Throws failure(1) naming what could not be made.
void populate(const description &wanted);

#endif
