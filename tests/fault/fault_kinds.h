// How calls of the platform fail, and what they give that cannot be right, by function.
#ifndef TESTS_FAULT_FAULT_KINDS_H
#define TESTS_FAULT_FAULT_KINDS_H

#include <set>
#include <string>
#include <vector>

#include "fault/fault_rules.h"

// With a status, or, where it is a call of messages, with an errno.
struct failure {
  syserr_t status;
  int error = EIO;
};
using failures_t = std::vector<failure>;

const failures_t &failures_of(const std::string &function);

// Data that is short, empty, long or none; and calls that say that all went well, and have done
// nothing: a cursor that stays, a record that is not deleted, a table that is not there.
std::vector<fault> spoilt_answers(const lines_t &calls, size_t at);

// The exported names that stand in the texts of routines.
std::set<std::string> exported_names_in(const std::vector<std::string> &texts);

#endif
