// Watches a program and all that it starts: each system call that changes files below one folder is
// told before it happens, and can be let go on, made to fail, or be the last thing that anybody
// does. The kernel holds the caller until this process has answered, whatever code it came from.
#ifndef TESTS_CRASH_CALL_WATCH_H
#define TESTS_CRASH_CALL_WATCH_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

enum class call_kind : uint8_t {
  open,        // may make or empty the file: `flags`
  read_folder, // opens a folder or a file for reading; changes nothing
  write,       // `data` at `at`
  resize,      // to `size`
  make_folder,
  make_link, // symbolic, to `other`
  make_node, // a socket or FIFO
  give_name, // a hard link `other` of `path`
  move,      // to `other`
  exchange,  // with `other`
  remove,
  remove_folder,
  set_mode,
  sync, // of a file or a folder
  sync_data,
  sync_all,
  read,     // of a file that lies there; these three only when reading is watched
  list,     // of a folder
  examine,  // what stands under a name, or behind a descriptor
  platform, // a mark: the library is about to call the platform
  unknown   // changes files in a way that nobody here understands
};

const char *name_of(call_kind kind);

struct file_call {
  call_kind kind = call_kind::unknown;
  std::string path; // below the watched folder, "" being the folder itself
  std::string other;
  uint64_t at = 0;
  uint64_t size = 0;
  unsigned flags = 0;
  unsigned mode = 0;
  std::string data;
  int number = 0; // of the system call
  pid_t process = 0;
};

enum class answer_kind : uint8_t {
  go_on,
  fail,
  halve, // a write does half of what it was asked; anything else goes on
  kill_process,
  kill_all
};

struct answer {
  answer_kind kind = answer_kind::go_on;
  int error = 0;
};

class call_watch {
public:
  using decide_t = std::function<answer(const file_call &)>;

  // Which calls are told: those that change files, or those that read them as well.
  enum class scope : uint8_t { changes, reading };

  // All paths that are told lie below `folder`, which may not exist yet.
  explicit call_watch(std::string folder, scope what = scope::changes);
  ~call_watch();
  call_watch(const call_watch &) = delete;
  call_watch &operator=(const call_watch &) = delete;

  // In the child, before it starts the program.
  void enter() const;
  // In the parent: answers until the program `pid` has ended, and all that it left behind has. The
  // program itself is not waited for.
  void follow(pid_t pid, const decide_t &decide);

private:
  struct raw_call;
  void serve(const decide_t &decide);
  bool in_scope(std::string *path) const;
  bool take_apart(const raw_call &raw, file_call *call) const;
  bool take_descriptor_call(const raw_call &raw, call_kind kind, int fd, file_call *call) const;
  bool take_path_call(const raw_call &raw, file_call *call) const;
  void reply(uint64_t id, const answer &what) const;
  bool reply_halved(uint64_t id, const raw_call &raw, const std::string &data, uint64_t at) const;

  std::string folder_;
  scope scope_;
  int sockets_[2] = {-1, -1};
  int listener_ = -1;
  bool ended_ = false; // everything is killed: nobody is answered any more
  pid_t program_ = -1;
};

#endif
