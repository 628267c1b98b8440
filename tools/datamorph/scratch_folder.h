// A folder for copies of states that nobody keeps: in TMPDIR, or in /tmp.
#ifndef DATAMORPH_SCRATCH_FOLDER_H
#define DATAMORPH_SCRATCH_FOLDER_H

#include <string>

#include "unique_fd.h"

// It goes with its owner. What a killed command left is removed by the next one.
class scratch_folder {
public:
  // Throws failure(3) when no folder can be made, and when its place lies in the switch `dir`, of
  // which nothing is written.
  explicit scratch_folder(const std::string &dir);
  ~scratch_folder();
  scratch_folder(const scratch_folder &) = delete;
  scratch_folder &operator=(const scratch_folder &) = delete;

  // A copy of the state's folder under a new name, opened. Throws failure(3) when there is no room
  // for it, saying how much it wants.
  unique_fd copy(int state, const std::string &name) const;
  // Removes a copy or a file; says so when it cannot.
  void drop(const std::string &name) const;
  // A new file for writing and reading. Throws failure(1).
  unique_fd file(const std::string &name) const;

private:
  std::string path_;
  unique_fd folder_; // locked while it is used
};

#endif
