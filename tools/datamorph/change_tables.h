// Changes of a state for people: one table per thing.
#ifndef DATAMORPH_CHANGE_TABLES_H
#define DATAMORPH_CHANGE_TABLES_H

#include <cstdint>
#include <string>
#include <vector>

#include "output.h"
#include "state_diff.h"

// "2 records do not fit the layout of their release", as a line, and another one for those that are
// the same on both sides; empty when there is none.
std::string misfits_text(uint64_t count, uint64_t unchanged);

// Written when a thing's last change has come. They are to come thing by thing.
class change_tables {
public:
  static constexpr size_t shown = 20; // of each thing; the others are counted

  // With a column for who made the change, or without.
  explicit change_tables(bool with_author) : with_author_(with_author) {}
  void take(const state_change &change, const std::string &author = "");
  void end();

private:
  bool with_author_;
  std::string kind_;
  std::string name_;
  std::vector<std::vector<output::cell>> rows_;
  size_t more_ = 0;
};

#endif
