// A version change on a copy of a state, to look at what it does.
#ifndef DATAMORPH_REHEARSAL_H
#define DATAMORPH_REHEARSAL_H

#include <memory>
#include <string>
#include <vector>

#include "conversion.h"
#include "journal_authors.h"
#include "scratch_folder.h"
#include "verbs.h"

class rehearsal {
public:
  // Converts a copy of `root`, the folder of a state whose switch.json holds `state`; nothing is
  // written there. The scratch folder, in which `name` is this rehearsal's own, outlives it. Throws
  // failure(3) for what convert would refuse before it begins, and no_room.
  rehearsal(const common_options &common, const convert_options &options,
            const scratch_folder &scratch, const std::string &name, int root,
            const switch_state &state);
  // The copy goes with it.
  ~rehearsal();
  rehearsal(const rehearsal &) = delete;
  rehearsal &operator=(const rehearsal &) = delete;

  // The exit status that convert would have, and its reason; "" when it would convert. A copy's
  // disk that became full tells nothing of the switch: that is thrown.
  int status() const { return status_; }
  const std::string &trouble() const { return trouble_; }
  const conversion &done() const { return conversion_; }
  int root() const { return copy_.get(); }
  const switch_state &state() const { return state_; }
  journal_authors &authors() const { return *authors_; }
  // What the library wrote at a step, at most so many lines of it and 256 KiB, of each line 4096
  // bytes; the number of the others.
  std::vector<std::string> trace_of(size_t step, size_t most, size_t *more) const;

private:
  void convert_copy(int root);
  void judge();

  convert_options options_;
  const scratch_folder &scratch_;
  std::string name_;
  conversion conversion_;
  unique_fd copy_;
  unique_fd trace_;
  std::unique_ptr<journal_authors> authors_;
  switch_state state_; // that the copy is then
  int status_ = 0;
  std::string trouble_;
};

#endif
