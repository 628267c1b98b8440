// A new folder that is the process's root while this lives; it goes with all that is in it. Needs
// the right to change the root. Relative paths lead where they did.
#ifndef TESTS_FUZZ_SWITCH_FOLDER_H
#define TESTS_FUZZ_SWITCH_FOLDER_H

class switch_folder {
public:
  switch_folder();
  ~switch_folder();
  switch_folder(const switch_folder &) = delete;
  switch_folder &operator=(const switch_folder &) = delete;

private:
  char folder_[32] = "/tmp/switch-XXXXXX";
};

#endif
