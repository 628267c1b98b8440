// A lab switch on the host: its folders, its lock, the step that changes its state, and what is
// done about a step that was cut short.
//
//   current/    the state; the root of everything that works inside the switch
//   next/       while a conversion or a reboot runs: the copy that it works on
//   previous/   the state before the last conversion or rollback
//   discard/    while the step is tidied up: the state that previous/ held before
//   runs/       one folder per run
//   .lock       who works on the switch; the lock itself is on the switch's folder
//   .copy       next/ is a copy that a command works on
//   discard.N   what of the above could not be removed, put out of the way
//
// The step is one exchange of current/ and next/. While .copy stands, next/ is a copy that nobody
// needs, whatever the converters wrote into it. It goes just before the step, and from then on a
// state's generation, which this program alone wrote, tells on which side of the step it was
// stopped: next/ is a copy when it is of current's generation or a later one, and the state before
// the conversion when it is of an earlier one. A reboot leaves the generation alone: next/ without
// .copy and of current's own is a state that nobody needs, on either side of its step.
// A rollback is one exchange of current/ and previous/, each with the generation that it has.
#ifndef DATAMORPH_SWITCH_DIR_H
#define DATAMORPH_SWITCH_DIR_H

#include <cstdint>
#include <string>
#include <vector>

#include "switch_state.h"
#include "unique_fd.h"

class switch_dir {
public:
  // `look` opens nothing for writing: what a command that was cut short has left stays where it is.
  enum class access { read, write, look };
  struct room {
    uint64_t wanted = 0; // bytes
    uint64_t free = 0;
  };

  // Opens, locks and, where a command was cut short, recovers the switch, saying so on standard
  // error; with `read` and no right to write it says so only, with `look` unfinished() does. Throws
  // failure: 3 when there is no switch or no right to it, 5 when it is in use. With `look` a
  // switch.json that is wrong is no failure, and state() empty.
  switch_dir(const std::string &path, access how);
  ~switch_dir();
  switch_dir(const switch_dir &) = delete;
  switch_dir &operator=(const switch_dir &) = delete;

  const std::string &path() const { return path_; }
  const switch_state &state() const { return state_; }
  // With `look`: what is wrong with switch.json, else empty.
  const std::string &state_trouble() const { return state_trouble_; }
  // What to do about a state that cannot be read.
  std::string state_remedy() const;
  // What of a command that was cut short lies in the switch's folder.
  std::vector<std::string> leftovers() const;
  // What is known of a command that was cut short and that nobody has tidied up behind, for a
  // message: "" when there is none.
  std::string unfinished() const;
  // The same with what is to be done about it, as a message on standard error.
  void tell_unfinished() const;
  int folder() const { return folder_.get(); }
  // The current state's folder, as a root for jail::run.
  int current() const { return current_.get(); }

  // Throws failure(3) when the file system cannot exchange two folders, or has no room for a copy
  // of current/.
  void check_exchange() const;
  void check_room() const;
  // For a copy of current/. Throws failure(1).
  room room_for_copy() const;

  // Makes next/ a copy of current/ and opens it. Throws failure.
  unique_fd make_next() const;
  // Removes it. What of it could not be removed and where that is now, for a message; else "".
  std::string drop_next() const;

  // Puts next/, which make_next gave, with this state in the place of current/, and the old state
  // into previous/. All is on disk when it returns. Throws failure(1): the switch is as it was.
  void commit(unique_fd next, const switch_state &state);
  // The same for what is no conversion: the state keeps its generation, the old one goes, and
  // previous/ stays as it is.
  void replace(unique_fd next);

  // The state in previous/. Throws failure(3) when there is none, or none that can be read.
  switch_state previous_state() const;
  // Lets current/ and previous/ change places. Throws failure(1): the switch is as it was.
  void exchange_previous();

  // A new folder for a run; its number in *number.
  unique_fd make_run(std::string *number) const;

private:
  void open_folder();
  void lock(access how);
  void open_lock_file(access how);
  void wait_for_lock(int operation) const;
  void note_holder();
  bool may_recover() const;
  void share_lock() const;
  void recover(access how);
  std::string tidy_up();
  std::string recover_next();
  void drop_mark() const;
  std::string put_away(const char *name) const;
  void put_away_or_say(const char *name) const;
  void keep_previous() const;
  void exchange(unique_fd next, const switch_state &state);
  std::string holder() const;
  std::string locking_process() const;
  [[noreturn]] void in_use() const;
  void open_current(access how);

  std::string path_;
  unique_fd folder_;   // carries the lock
  unique_fd lock_;     // the lock file, where this user may open it
  bool named_ = false; // this process's number stands in it
  unique_fd current_;
  switch_state state_;
  std::string state_trouble_;
};

#endif
