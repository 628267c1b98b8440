#include "crash/call_watch.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "crash/platform_points.h"

namespace {

namespace fs = std::filesystem;

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "call_watch: %s: %s\n", what, std::strerror(errno));
  std::abort();
}

// ---- Which system calls ------------------------------------------------------------------------

// Where a call has what it needs; -1 for nowhere.
struct call_row {
  long number;
  call_kind kind;
  int folder; // the argument with the folder's descriptor, for `path`
  int path;
  int other_folder;
  int other;
  int flags;
  int mode;
};

// clang-format off
constexpr call_row path_rows[] = {
    // number         kind                      folder path  other          flags mode
    {SYS_open,        call_kind::open,          -1,    0,    -1, -1,        1,    2},
    {SYS_openat,      call_kind::open,           0,    1,    -1, -1,        2,    3},
    {SYS_creat,       call_kind::open,          -1,    0,    -1, -1,       -1,    1},
    {SYS_truncate,    call_kind::resize,        -1,    0,    -1, -1,       -1,   -1},
    {SYS_mkdir,       call_kind::make_folder,   -1,    0,    -1, -1,       -1,    1},
    {SYS_mkdirat,     call_kind::make_folder,    0,    1,    -1, -1,       -1,    2},
    {SYS_mknod,       call_kind::make_node,     -1,    0,    -1, -1,       -1,    1},
    {SYS_mknodat,     call_kind::make_node,      0,    1,    -1, -1,       -1,    2},
    {SYS_rename,      call_kind::move,          -1,    0,    -1,  1,       -1,   -1},
    {SYS_renameat,    call_kind::move,           0,    1,     2,  3,       -1,   -1},
    {SYS_renameat2,   call_kind::move,           0,    1,     2,  3,        4,   -1},
    {SYS_link,        call_kind::give_name,     -1,    0,    -1,  1,       -1,   -1},
    {SYS_linkat,      call_kind::give_name,      0,    1,     2,  3,        4,   -1},
    {SYS_unlink,      call_kind::remove,        -1,    0,    -1, -1,       -1,   -1},
    {SYS_unlinkat,    call_kind::remove,         0,    1,    -1, -1,        2,   -1},
    {SYS_rmdir,       call_kind::remove_folder, -1,    0,    -1, -1,       -1,   -1},
    {SYS_chmod,       call_kind::set_mode,      -1,    0,    -1, -1,       -1,    1},
    {SYS_fchmodat,    call_kind::set_mode,       0,    1,    -1, -1,       -1,    2},
    {SYS_setxattr,    call_kind::set_mode,      -1,    0,    -1, -1,       -1,   -1},
    {SYS_lsetxattr,   call_kind::set_mode,      -1,    0,    -1, -1,       -1,   -1},
};
// clang-format on

// The path is the second argument, the target's text the first.
constexpr call_row symlink_row = {SYS_symlink, call_kind::make_link, -1, 1, -1, 0, -1, -1};
constexpr call_row symlinkat_row = {SYS_symlinkat, call_kind::make_link, 1, 2, -1, 0, -1, -1};

// What is looked at: the path may be empty, and the descriptor's file meant.
// clang-format off
constexpr call_row examining_rows[] = {
    {SYS_stat,        call_kind::examine,       -1,    0,    -1, -1,       -1,   -1},
    {SYS_lstat,       call_kind::examine,       -1,    0,    -1, -1,       -1,   -1},
    {SYS_newfstatat,  call_kind::examine,        0,    1,    -1, -1,       -1,   -1},
    {SYS_statx,       call_kind::examine,        0,    1,    -1, -1,       -1,   -1},
    {SYS_readlink,    call_kind::examine,       -1,    0,    -1, -1,       -1,   -1},
    {SYS_readlinkat,  call_kind::examine,        0,    1,    -1, -1,       -1,   -1},
};
// clang-format on

struct descriptor_row {
  long number;
  call_kind kind;
  int descriptor; // the argument
};

constexpr descriptor_row descriptor_rows[] = {
    {SYS_write, call_kind::write, 0},
    {SYS_writev, call_kind::write, 0},
    {SYS_pwrite64, call_kind::write, 0},
    {SYS_pwritev, call_kind::write, 0},
    {SYS_copy_file_range, call_kind::write, 2},
    {SYS_ftruncate, call_kind::resize, 0},
    {SYS_fchmod, call_kind::set_mode, 0},
    {SYS_fsetxattr, call_kind::set_mode, 0},
    {SYS_fsync, call_kind::sync, 0},
    {SYS_fdatasync, call_kind::sync_data, 0},
    {SYS_syncfs, call_kind::sync_all, 0},
    {SYS_mmap, call_kind::unknown, 4}, // shared and written
    {SYS_sendfile, call_kind::unknown, 0},
    {SYS_fallocate, call_kind::unknown, 0},
    {SYS_pwritev2, call_kind::unknown, 0},
    {SYS_splice, call_kind::unknown, 2},
};

constexpr descriptor_row reading_rows[] = {
    {SYS_read, call_kind::read, 0},     {SYS_readv, call_kind::read, 0},
    {SYS_pread64, call_kind::read, 0},  {SYS_getdents64, call_kind::list, 0},
    {SYS_fstat, call_kind::examine, 0}, {SYS_fstatfs, call_kind::examine, 0},
};

// Nobody is known to make these.
constexpr long strange_calls[] = {SYS_openat2, SYS_io_uring_setup, SYS_sync};

// The row of a call's number; null when there is none.
template <typename row_t, size_t size> const row_t *row_of(const row_t (&rows)[size], long number) {
  const auto *const row = std::find_if(std::begin(rows), std::end(rows),
                                       [&](const row_t &one) { return one.number == number; });
  return row == std::end(rows) ? nullptr : row;
}

using instructions = std::vector<sock_filter>;

constexpr uint32_t argument_offset(unsigned argument) {
  return static_cast<uint32_t>(offsetof(seccomp_data, args) + 8 * argument);
}

// A call of this number is told.
void tell(instructions *program, long number) {
  program->push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1));
  program->push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
}

// Ends the program for `number`: told when the argument is one of `values`.
void tell_values(instructions *program, long number, unsigned argument,
                 const std::vector<uint32_t> &values) {
  const auto length = static_cast<uint8_t>(2 + 2 * values.size());
  program->push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, length));
  program->push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument_offset(argument)));
  for (const uint32_t value : values) {
    program->push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1));
    program->push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  }
  program->push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
}

void tell_shared_mappings(instructions *program) {
  program->push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_mmap, 0, 6));
  program->push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument_offset(3)));
  program->push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, MAP_SHARED, 0, 3));
  program->push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument_offset(2)));
  program->push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, PROT_WRITE, 0, 1));
  program->push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  program->push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
}

void tell_reading(instructions *program) {
  for (const call_row &row : examining_rows) {
    tell(program, row.number);
  }
  for (const descriptor_row &row : reading_rows) {
    tell(program, row.number);
  }
}

instructions filter(call_watch::scope what) {
  instructions program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  tell_values(&program, SYS_ioctl, 1,
              {static_cast<uint32_t>(FICLONE), static_cast<uint32_t>(FICLONERANGE)});
  tell_shared_mappings(&program);
  for (const call_row &row : path_rows) {
    tell(&program, row.number);
  }
  tell(&program, SYS_symlink);
  tell(&program, SYS_symlinkat);
  tell(&program, SYS_bind);
  for (const descriptor_row &row : descriptor_rows) {
    if (row.number != SYS_mmap) {
      tell(&program, row.number);
    }
  }
  for (const long number : strange_calls) {
    tell(&program, number);
  }
  if (what == call_watch::scope::reading) {
    tell_reading(&program);
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return program;
}

// ---- What a process has ------------------------------------------------------------------------

std::string link_text(const std::string &path) {
  char text[4096];
  const ssize_t got = readlink(path.c_str(), text, sizeof text);
  return got < 0 ? "" : std::string(text, static_cast<size_t>(got));
}

std::string of_process(pid_t process, const std::string &what) {
  return link_text("/proc/" + std::to_string(process) + "/" + what);
}

std::string of_descriptor(pid_t process, int fd) {
  return of_process(process, "fd/" + std::to_string(fd));
}

std::string memory_of(pid_t process, uint64_t address, size_t size) {
  std::string bytes(size, '\0');
  iovec here = {bytes.data(), size};
  iovec there = {reinterpret_cast<void *>(address), size}; // NOLINT: an address over there
  const ssize_t got = process_vm_readv(process, &here, 1, &there, 1, 0);
  bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return bytes;
}

// Page by page, for what lies behind the text may not be mapped.
std::string text_of(pid_t process, uint64_t address) {
  constexpr uint64_t page = 4096;
  std::string text;
  while (text.size() < PATH_MAX) {
    const std::string piece = memory_of(process, address, page - address % page);
    const size_t end = piece.find('\0');
    text += piece.substr(0, end);
    if (piece.empty() || end != std::string::npos) {
      break;
    }
    address += piece.size();
  }
  return text;
}

struct position {
  uint64_t at = 0;
  unsigned flags = 0;
};

position position_of(pid_t process, int fd) {
  std::ifstream file("/proc/" + std::to_string(process) + "/fdinfo/" + std::to_string(fd));
  position found;
  std::string name;
  file >> name >> found.at >> name >> std::oct >> found.flags;
  return found;
}

std::string bytes_of_vector(pid_t process, uint64_t address, uint64_t count) {
  const std::string raw = memory_of(process, address, count * sizeof(iovec));
  std::string bytes;
  for (size_t at = 0; at + sizeof(iovec) <= raw.size(); at += sizeof(iovec)) {
    iovec piece;
    std::memcpy(&piece, raw.data() + at, sizeof piece);
    bytes += memory_of(process, reinterpret_cast<uint64_t>(piece.iov_base), piece.iov_len);
  }
  return bytes;
}

// An offset that is passed by address; the descriptor's own where there is none.
uint64_t offset_of(pid_t process, uint64_t address, int fd) {
  uint64_t at = 0;
  if (address == 0) {
    return position_of(process, fd).at;
  }
  const std::string raw = memory_of(process, address, sizeof at);
  std::memcpy(&at, raw.data(), std::min(raw.size(), sizeof at));
  return at;
}

// The mode that a list of access rights stands for, which is how files are copied with theirs;
// false for another attribute. Owners, times and attributes are not looked at.
bool mode_of_rights(pid_t process, uint64_t name, uint64_t value, uint64_t size, unsigned *mode) {
  if (text_of(process, name) != "system.posix_acl_access") {
    return false;
  }
  struct entry {
    uint16_t who;
    uint16_t rights;
    uint32_t id;
  };
  const std::string list = memory_of(process, value, size);
  for (size_t at = 4; at + sizeof(entry) <= list.size(); at += sizeof(entry)) {
    entry one;
    std::memcpy(&one, list.data() + at, sizeof one);
    const unsigned shift = one.who == 0x01 ? 6 : one.who == 0x04 ? 3 : 0; // owner, group, others
    *mode |= static_cast<unsigned>(one.rights) << shift;
  }
  return true;
}

std::string bytes_of_file(pid_t process, int fd, uint64_t at, uint64_t size) {
  std::ifstream file("/proc/" + std::to_string(process) + "/fd/" + std::to_string(fd),
                     std::ios::binary);
  file.seekg(0, std::ios::end);
  const auto end = static_cast<uint64_t>(file.tellg());
  std::string bytes(at < end ? std::min(size, end - at) : 0, '\0');
  file.seekg(static_cast<std::streamoff>(at));
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

// A descriptor of the process, with its place in the file; -1 for none.
int shared_descriptor(pid_t process, int fd) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  std::string word;
  while (file >> word && word != "Tgid:") {
  }
  pid_t whole = 0; // the caller may be a thread of it
  file >> whole;
  const auto handle = static_cast<int>(syscall(SYS_pidfd_open, whole, 0));
  const auto shared = static_cast<int>(syscall(SYS_pidfd_getfd, handle, fd, 0));
  close(handle);
  return shared;
}

// ---- Ending all of it --------------------------------------------------------------------------

// Children of this process but `except`, those that were handed over to it too.
std::vector<pid_t> children(pid_t except) {
  const std::string self = std::to_string(getpid());
  std::ifstream list("/proc/self/task/" + self + "/children");
  std::vector<pid_t> found;
  for (pid_t pid = 0; list >> pid;) {
    if (pid != except) {
      found.push_back(pid);
    }
  }
  return found;
}

void reap_others(pid_t except) {
  for (const pid_t pid : children(except)) {
    waitpid(pid, nullptr, WNOHANG);
  }
}

} // namespace

const char *name_of(call_kind kind) {
  constexpr const char *names[] = {
      "open",      "read_folder", "write",    "resize", "make_folder",   "make_link", "make_node",
      "give_name", "move",        "exchange", "remove", "remove_folder", "set_mode",  "sync",
      "sync_data", "sync_all",    "read",     "list",   "examine",       "platform",  "unknown"};
  return names[static_cast<size_t>(kind)];
}

// ---- The watch ---------------------------------------------------------------------------------

struct call_watch::raw_call {
  pid_t process;
  long number;
  const __u64 *arguments;
  uint64_t argument(int at) const { return at < 0 ? 0 : arguments[at]; }
  int descriptor(int at) const { return at < 0 ? AT_FDCWD : static_cast<int>(arguments[at]); }

  // The path that an argument names, from this process's root.
  std::string path(int folder, int text) const {
    const std::string name = text_of(process, argument(text));
    const int from = descriptor(folder);
    if (name.empty()) {
      return folder < 0 || from == AT_FDCWD ? "" : of_descriptor(process, from);
    }
    const std::string base = name.front() == '/' ? of_process(process, "root")
                             : from == AT_FDCWD  ? of_process(process, "cwd")
                                                 : of_descriptor(process, from);
    const fs::path path = fs::path(base + "/" + name).lexically_normal();
    // A link on the way is followed, the last name is not.
    std::error_code error;
    const bool slash = path.filename().empty();
    const fs::path whole = slash ? path.parent_path() : path;
    const fs::path above = fs::canonical(whole.parent_path(), error);
    return error ? whole.string() : (above / whole.filename()).string();
  }
};

call_watch::call_watch(std::string folder, scope what) : folder_(std::move(folder)), scope_(what) {
  if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sockets_) != 0) {
    give_up("socketpair");
  }
  prctl(PR_SET_CHILD_SUBREAPER, 1); // what outlives its parent comes to this process
}

call_watch::~call_watch() {
  for (const int fd : {sockets_[0], sockets_[1], listener_}) {
    if (fd >= 0) {
      close(fd);
    }
  }
}

namespace {

// A byte that a descriptor comes with.
struct descriptor_message {
  descriptor_message() {
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
  }
  descriptor_message(const descriptor_message &) = delete;
  descriptor_message &operator=(const descriptor_message &) = delete;

  char byte = 0;
  iovec content = {&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
};

} // namespace

void call_watch::enter() const {
  const instructions program = filter(scope_);
  const sock_fprog filters = {static_cast<unsigned short>(program.size()),
                              const_cast<sock_filter *>(program.data())};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  const auto listener = static_cast<int>(
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filters));
  descriptor_message sent;
  cmsghdr *const header = CMSG_FIRSTHDR(&sent.message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &listener, sizeof listener);
  if (listener < 0 || sendmsg(sockets_[1], &sent.message, 0) < 0) {
    _exit(125);
  }
  close(listener);
}

void call_watch::follow(pid_t pid, const decide_t &decide) {
  program_ = pid;
  close(sockets_[1]); // the child's alone: when it ends without a word, so does the wait for it
  sockets_[1] = -1;
  descriptor_message sent;
  if (recvmsg(sockets_[0], &sent.message, MSG_CMSG_CLOEXEC) <= 0 ||
      CMSG_FIRSTHDR(&sent.message) == nullptr) {
    give_up("no listener came");
  }
  std::memcpy(&listener_, CMSG_DATA(CMSG_FIRSTHDR(&sent.message)), sizeof listener_);
  const auto ending = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  bool running = true;
  while (running || !children(pid).empty()) {
    pollfd watched[] = {{listener_, POLLIN, 0}, {running ? ending : -1, POLLIN, 0}};
    poll(watched, 2, running && !ended_ ? -1 : 1);
    if (ended_) {
      for (const pid_t left : children(pid)) {
        kill(left, SIGKILL);
      }
    } else if ((watched[0].revents & POLLIN) != 0) {
      serve(decide);
    }
    running = running && (watched[1].revents & POLLIN) == 0;
    reap_others(pid);
  }
  close(ending);
}

void call_watch::serve(const decide_t &decide) {
  seccomp_notif request = {};
  if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
    return; // the caller died meanwhile
  }
  if (request.data.nr == SYS_ioctl) {
    // Sharing of blocks, which the file system in memory would refuse as well: copies are written.
    reply(request.id, {answer_kind::fail, EOPNOTSUPP});
    return;
  }
  const raw_call raw = {static_cast<pid_t>(request.pid), request.data.nr, request.data.args};
  file_call call;
  call.number = request.data.nr;
  call.process = raw.process;
  const bool told = take_apart(raw, &call);
  const answer what = told ? decide(call) : answer();
  if (what.kind == answer_kind::kill_all) {
    ended_ = true;
    kill(program_, SIGKILL);
    return;
  }
  if (what.kind == answer_kind::kill_process) {
    kill(raw.process, SIGKILL);
    return;
  }
  if (what.kind == answer_kind::halve && reply_halved(request.id, raw, call.data, call.at)) {
    return;
  }
  reply(request.id, what);
}

void call_watch::reply(uint64_t id, const answer &what) const {
  seccomp_notif_resp response = {};
  response.id = id;
  if (what.kind == answer_kind::fail) {
    response.error = -what.error;
  } else {
    response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
  }
  ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
}

// Writes in the caller's place; false when the call is none that can be halved.
bool call_watch::reply_halved(uint64_t id, const raw_call &raw, const std::string &data,
                              uint64_t at) const {
  const size_t half = data.size() / 2;
  const bool placed = raw.number == SYS_pwrite64 || raw.number == SYS_pwritev;
  const bool onward = raw.number == SYS_write || raw.number == SYS_writev;
  const bool copied =
      raw.number == SYS_copy_file_range && raw.argument(1) == 0 && raw.argument(3) == 0;
  if (half == 0 || !(placed || onward || copied)) {
    return false;
  }
  const int from = copied ? shared_descriptor(raw.process, raw.descriptor(0)) : -1;
  const int to = shared_descriptor(raw.process, raw.descriptor(copied ? 2 : 0));
  const ssize_t put = copied   ? copy_file_range(from, nullptr, to, nullptr, half, 0)
                      : placed ? pwrite(to, data.data(), half, static_cast<off_t>(at))
                               : ::write(to, data.data(), half);
  if (put < 0) {
    give_up("half of a write");
  }
  close(from);
  close(to);
  seccomp_notif_resp response = {};
  response.id = id;
  response.val = put;
  ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
  return true;
}

bool call_watch::in_scope(std::string *path) const {
  if (*path == folder_) {
    path->clear();
    return true;
  }
  if (path->compare(0, folder_.size() + 1, folder_ + "/") != 0) {
    return false;
  }
  path->erase(0, folder_.size() + 1);
  return true;
}

// False for one that does not concern the folder.
bool call_watch::take_apart(const raw_call &raw, file_call *call) const {
  if (std::find(std::begin(strange_calls), std::end(strange_calls), raw.number) !=
      std::end(strange_calls)) {
    return true;
  }
  for (const descriptor_row *row :
       {row_of(descriptor_rows, raw.number), row_of(reading_rows, raw.number)}) {
    if (row != nullptr) {
      return take_descriptor_call(raw, row->kind, raw.descriptor(row->descriptor), call);
    }
  }
  return take_path_call(raw, call);
}

bool call_watch::take_descriptor_call(const raw_call &raw, call_kind kind, int fd,
                                      file_call *call) const {
  call->kind = kind;
  call->path = of_descriptor(raw.process, fd);
  if (!in_scope(&call->path)) {
    return false; // a file that has no name any more neither
  }
  const position where = position_of(raw.process, fd);
  call->at = where.at;
  call->flags = where.flags;
  switch (raw.number) {
  case SYS_write:
    call->data = memory_of(raw.process, raw.argument(1), raw.argument(2));
    break;
  case SYS_pwrite64:
    call->data = memory_of(raw.process, raw.argument(1), raw.argument(2));
    call->at = raw.argument(3);
    break;
  case SYS_writev:
    call->data = bytes_of_vector(raw.process, raw.argument(1), raw.argument(2));
    break;
  case SYS_pwritev:
    call->data = bytes_of_vector(raw.process, raw.argument(1), raw.argument(2));
    call->at = raw.argument(3);
    break;
  case SYS_copy_file_range: {
    const int from = raw.descriptor(0);
    const uint64_t at = offset_of(raw.process, raw.argument(1), from);
    call->at = offset_of(raw.process, raw.argument(3), fd);
    call->data = bytes_of_file(raw.process, from, at, raw.argument(4));
    break;
  }
  case SYS_ftruncate:
    call->size = raw.argument(1);
    break;
  case SYS_fchmod:
    call->mode = static_cast<unsigned>(raw.argument(1));
    break;
  case SYS_fsetxattr:
    return mode_of_rights(raw.process, raw.argument(1), raw.argument(2), raw.argument(3),
                          &call->mode);
  default:
    break;
  }
  return true;
}

bool call_watch::take_path_call(const raw_call &raw, file_call *call) const {
  if (raw.number == SYS_bind) {
    const std::string address = memory_of(raw.process, raw.argument(1), raw.argument(2));
    const size_t head = offsetof(sockaddr_un, sun_path);
    if (address.size() <= head || address[0] != AF_UNIX || address[head] != '/') {
      return false;
    }
    call->kind = call_kind::make_node;
    call->mode = S_IFSOCK | 0755;
    call->path = of_process(raw.process, "root") + std::string(address.c_str() + head);
    call->path = fs::path(call->path).lexically_normal();
    return in_scope(&call->path);
  }
  const call_row *const looking = row_of(examining_rows, raw.number);
  const call_row *const row = raw.number == SYS_symlink     ? &symlink_row
                              : raw.number == SYS_symlinkat ? &symlinkat_row
                              : looking != nullptr          ? looking
                                                            : row_of(path_rows, raw.number);
  call->kind = row->kind;
  call->path = raw.path(row->folder, row->path);
  call->flags = static_cast<unsigned>(raw.argument(row->flags));
  call->mode = static_cast<unsigned>(raw.argument(row->mode));
  const bool here = in_scope(&call->path);
  bool other_here = here;
  if (row->other >= 0 && row->kind == call_kind::make_link) {
    call->other = text_of(raw.process, raw.argument(row->other));
  } else if (row->other >= 0) {
    call->other = raw.path(row->other_folder, row->other);
    other_here = in_scope(&call->other);
  }
  if (!here && !other_here) {
    return false;
  }
  if (here != other_here) {
    call->kind = call_kind::unknown; // into the folder, or out of it
    return true;
  }
  constexpr unsigned writing = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;
  switch (raw.number) {
  case SYS_creat:
    call->flags = O_WRONLY | O_CREAT | O_TRUNC;
    break;
  case SYS_truncate:
    call->size = raw.argument(1);
    break;
  case SYS_setxattr:
  case SYS_lsetxattr:
    return mode_of_rights(raw.process, raw.argument(1), raw.argument(2), raw.argument(3),
                          &call->mode);
  case SYS_unlinkat:
    call->kind = (call->flags & AT_REMOVEDIR) != 0 ? call_kind::remove_folder : call->kind;
    break;
  case SYS_renameat2:
    call->kind = (call->flags & RENAME_EXCHANGE) != 0 ? call_kind::exchange : call->kind;
    break;
  default:
    break;
  }
  if (call->kind == call_kind::open && (call->flags & writing) == 0) {
    call->kind =
        call->path.ends_with(platform_point_name) ? call_kind::platform : call_kind::read_folder;
  }
  return true;
}
