// The place in which `lab create` builds a switch, so that it stands there whole or not at all.
#ifndef DATAMORPH_WORKSHOP_H
#define DATAMORPH_WORKSHOP_H

#include <string>
#include <vector>

#include "unique_fd.h"

// Where nothing stands yet, a hidden folder beside the place, renamed at the end. In a directory
// that stands already and is empty, the directory itself, which stays what it is (its rights, a
// mount, somebody's working directory); its state gets its name at the end. The folder is locked
// meanwhile, so that one which a stopped command left can be told from one in use.
class workshop {
public:
  // Throws failure: 3 when the switch cannot be built there, 5 when another command is building it.
  explicit workshop(const std::string &dir);
  // What was built goes when it has not become the switch.
  ~workshop();
  workshop(const workshop &) = delete;
  workshop &operator=(const workshop &) = delete;

  int folder() const { return folder_.get(); }
  // The name in the folder under which the state is to be built.
  const char *state_name() const;

  // Throws failure(1).
  void become_switch();

private:
  void find_place();
  void open_standing();
  void open_beside();
  bool lock_folder();
  std::vector<std::string> contents() const;
  void check_contents(const std::string &where) const;
  void check_free() const;
  void clear() const;

  std::string dir_;
  unique_fd parent_; // not open when the switch is built where it stands
  std::string name_; // of the switch in the parent
  std::string building_;
  unique_fd folder_;
  bool done_ = false;
};

#endif
