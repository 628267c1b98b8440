// Trees of files, handled from outside: links are never followed.
#ifndef DATAMORPH_TREE_H
#define DATAMORPH_TREE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "unique_fd.h"

namespace tree {

// Removes `name` in the folder and all that is below it; nothing to do when it is not there. Throws
// failure(1).
void remove(int folder, const std::string &name);

// What cannot be examined is there: whoever reads it then says why not.
bool exists(int folder, const std::string &name);
// For those who act on the answer: throws failure(1) when it cannot be examined.
bool is_there(int folder, const std::string &name);

// The names in a folder but "." and "..", in no order; nothing, and errno, when it cannot be read.
std::optional<std::vector<std::string>> names_in(int folder);

// Bytes that the tree takes on disk, and those that are free there for this user.
uint64_t bytes_used(int folder, const std::string &name);
uint64_t bytes_free(int folder);

// Bytes that a copy of the tree wants, with what a conversion may add.
uint64_t copy_wants(int folder, const std::string &name);

// Throws failure(3) when the file system of the folder `where` has no room for a copy of the tree;
// `advice` is its next action.
void check_room(int folder, const std::string &name, int where, const std::string &advice);

// Copies the tree `from` to `to` (not there yet; absolute or below `folder`), sharing blocks where
// the file system can. Throws failure, 3 when the disk is full (`advice` is its next action then)
// and else 1, the copy then as far as it came.
void copy(int folder, const std::string &from, const std::string &to, const std::string &advice);

// A new file for reading and writing; not open, and errno says why, when it cannot be made.
unique_fd make_file(int folder, const std::string &name, mode_t mode);

// Writes a file beside its place, syncs it and puts it there, all or nothing. Throws failure(1).
void replace_file(int folder, const std::string &name, const std::string &content);

// Whether a path is the folder or something below it, links followed as far as they lead.
bool lies_in(const std::string &path, const std::string &folder);

// A file that is written beside its place, piece by piece, and put there at the end, or goes.
class placed_file {
public:
  // Throws failure(3) when it cannot be made there.
  explicit placed_file(const std::string &path);
  ~placed_file();
  placed_file(const placed_file &) = delete;
  placed_file &operator=(const placed_file &) = delete;

  int fd() const { return file_.get(); }
  // Both throw failure(1). What is written comes to the file at the latest with put().
  void write(std::string_view text);
  void put();

private:
  void flush();

  std::string path_;
  std::string beside_;
  unique_fd file_;
  std::string waiting_; // to be written
};

// A regular file's content, at most `limit` bytes. Throws failure(3) naming the file.
std::string read_file(int folder, const std::string &name, size_t limit);

} // namespace tree

#endif
