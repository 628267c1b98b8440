// A folder as it may stand on a disk after the power went: what was synced stands, of the rest any
// part, in any order, torn within a write at 512 bytes.
#ifndef TESTS_CRASH_DISK_MODEL_H
#define TESTS_CRASH_DISK_MODEL_H

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "crash/call_watch.h"

// One file, folder, link or socket. Numbers stand for names' targets; 0 is none.
struct disk_node {
  unsigned mode = 0;                  // with the type
  std::string content;                // of a link its target
  std::map<std::string, int> entries; // of a folder
};

class disk_tree {
public:
  // What stands there; an empty folder when there is none.
  static disk_tree read(const std::string &folder);
  // Makes it there, where nothing stands yet.
  void write(const std::string &folder) const;
  // Tells trees apart by all that is in them; of what lies below `path`.
  std::string digest(const std::string &path = "") const;
  bool exists(const std::string &path) const { return find(path) != 0; }
  std::string content(const std::string &path) const;
  // Every path with its type, mode and content, for messages and comparisons.
  std::map<std::string, std::string> listing(const std::string &path = "") const;

private:
  friend class disk_record;

  int find(const std::string &path) const;
  int add(unsigned mode);
  void read_folder(const std::string &folder, int number);
  void write_folder(const std::string &folder, int number) const;
  void list(const std::string &path, int number, std::map<std::string, std::string> *into) const;

  std::vector<disk_node> nodes_ = std::vector<disk_node>(2); // none, and the folder itself
};

// How much of what was not synced is kept.
enum class survival : uint8_t { nothing, everything, names, contents, some };

// The changes of a run, in their order.
class disk_record {
public:
  explicit disk_record(disk_tree before);
  // Notes a call that goes on.
  void take(const file_call &call);
  size_t calls() const { return ends_.size(); }
  // As it stands for the running system.
  const disk_tree &now() const { return now_; }
  // Calls that nobody understands.
  const std::vector<std::string> &strange() const { return strange_; }
  // What stands after the power went when `calls` calls were done.
  disk_tree after_power_loss(size_t calls, survival how, std::mt19937_64 *random) const;

private:
  struct entry_change {
    int folder;
    std::string name;
    int was; // the entry's node before, which must still be there for the change to be made
    int is;
  };
  struct operation {
    enum class kind_t : uint8_t { entries, bytes, size, mode } kind;
    std::vector<entry_change> entries; // made together
    int node = 0;
    uint64_t at = 0;
    std::string bytes;
    unsigned mode = 0;
    std::vector<int> waits_for;  // nodes whose sync makes it last
    size_t synced_at = SIZE_MAX; // calls that are done then
  };
  struct place {
    int folder = 0;
    std::string name;
    int node = 0;
  };

  place find(const std::string &path) const;
  void change_entries(std::vector<entry_change> entries);
  void change_node(operation::kind_t kind, int node, uint64_t at, std::string bytes, unsigned mode);
  void take_open(const file_call &call);
  void take_make(const file_call &call, unsigned type);
  void take_move(const file_call &call);
  void take_remove(const file_call &call, bool folder);
  void synced(int node, bool contents_only);
  static bool apply(const operation &one, bool on_disk, disk_tree *tree);
  static void apply_torn(const operation &one, disk_tree *tree, std::mt19937_64 *random);
  void add(operation one);

  disk_tree before_;
  disk_tree now_;
  std::vector<operation> operations_;
  std::vector<size_t> waiting_; // operations that are not synced
  std::vector<size_t> ends_;    // per call, how many operations there are then
  std::vector<std::string> strange_;
};

#endif
