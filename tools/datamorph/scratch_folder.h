// A folder for copies of states that nobody keeps: in TMPDIR, or in /tmp.
#ifndef DATAMORPH_SCRATCH_FOLDER_H
#define DATAMORPH_SCRATCH_FOLDER_H

#include <string>

#include "failure.h"
#include "unique_fd.h"

// The disk of the copies is too small. Nothing is wrong with the switch or with what was to be
// done.
class no_room : public failure {
public:
  no_room(const std::string &message, const std::string &next_action)
      : failure(exit_refused, message, next_action) {}
};

// It goes with its owner. What a killed command left is removed by the next one.
class scratch_folder {
public:
  // Throws failure(3) when no folder can be made, and when its place lies in the switch `dir`, of
  // which nothing is written.
  explicit scratch_folder(const std::string &dir);
  ~scratch_folder();
  scratch_folder(const scratch_folder &) = delete;
  scratch_folder &operator=(const scratch_folder &) = delete;

  // A copy of the state's folder under a new name, opened. Throws no_room when there is none for
  // it, saying how much it wants.
  unique_fd copy(int state, const std::string &name) const;
  // Removes a copy or a file; says so when it cannot.
  void drop(const std::string &name) const;
  // A new file for writing and reading. Throws failure(1), or no_room.
  unique_fd file(const std::string &name) const;
  // Whether nothing more fits there.
  bool is_full() const;
  // For a conversion that found it full: with the room that it had, which is not enough.
  [[noreturn]] void throw_full() const;

private:
  void make(const std::string &parent);
  bool lock();
  std::string advice() const;

  std::string path_;
  unique_fd folder_; // locked while it is used
};

#endif
