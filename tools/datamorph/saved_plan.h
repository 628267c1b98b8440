// A rehearsed version change, kept as a file: what was to be done, and the digests of the state
// that it began with and of the one that it reached.
#ifndef DATAMORPH_SAVED_PLAN_H
#define DATAMORPH_SAVED_PLAN_H

#include <string>

#include "tree.h"
#include "verbs.h"

struct saved_plan {
  convert_options options; // what chooses the work: no directory, no time limit
  std::string before;      // digests, see state_digest
  std::string after;

  // Puts what chooses the work into the options.
  void fill(convert_options *wanted) const;
  // Puts the file in its place. Throws failure(1).
  void write(tree::placed_file *file) const;
  // Throws failure(3) naming the file and what is wrong with it.
  static saved_plan read(const std::string &file);
};

#endif
