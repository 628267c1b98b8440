#include "fuzz/quick_engine.h"

#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "fuzz/finding.h"

namespace {

// ---- Memory -------------------------------------------------------------------------------------
//
// The engine asks for some thousand small blocks for each file that it opens, which is most of a
// run when the sanitizer keeps the books of each. Here a block comes from a list of its size. To
// the address sanitizer what lies behind a block, and one that was given back, is as foreign as
// ever.

struct block {
  block *next;
  uint32_t size; // as it was asked for
  uint32_t kind;
};
static_assert(sizeof(block) == 16, "what follows is aligned for anything");

// Kinds are powers of two; what is larger than all of them is refused, as where memory has run out.
// What is given back is not used again before so many others are.
constexpr int k_smallest = 6;
constexpr int k_kinds = 25;
constexpr int k_kept_back = 8;
constexpr size_t k_at_once = 1 << 20;
constexpr uint32_t k_free = UINT32_MAX; // no size

struct waiting {
  block *first = nullptr;
  block *last = nullptr;
  int count = 0;
};

waiting g_waiting[k_kinds];
size_t g_blocks = 0;

#define WITHOUT_SANITIZER __attribute__((no_sanitize("address")))

char *bytes_of(block *one) {
  return reinterpret_cast<char *>(one + 1);
}

block *block_of(void *bytes) {
  return static_cast<block *>(bytes) - 1;
}

// New memory is never given back to the system.
char *new_memory(size_t size) {
  static char *rest = nullptr;
  static size_t left = 0;
  if (size > left) {
    left = size > k_at_once ? size : k_at_once;
    void *const mapped =
        mmap(nullptr, left, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
      left = 0;
      return nullptr;
    }
    rest = static_cast<char *>(mapped);
    ASAN_POISON_MEMORY_REGION(rest, left);
  }
  char *const taken = rest;
  rest += size;
  left -= size;
  return taken;
}

WITHOUT_SANITIZER block *take(int kind) {
  waiting &list = g_waiting[kind];
  if (list.count <= k_kept_back) {
    return reinterpret_cast<block *>(new_memory(size_t{1} << kind));
  }
  block *const taken = list.first;
  list.first = taken->next;
  --list.count;
  return taken;
}

WITHOUT_SANITIZER void *allocate(int wanted) {
  const auto size = static_cast<uint32_t>(wanted);
  const int kind = std::max(k_smallest, static_cast<int>(std::bit_width(size + sizeof(block) - 1)));
  block *const taken = kind < k_kinds ? take(kind) : nullptr;
  if (taken == nullptr) {
    return nullptr;
  }
  taken->size = size;
  taken->kind = static_cast<uint32_t>(kind);
  ASAN_UNPOISON_MEMORY_REGION(bytes_of(taken), size);
  ++g_blocks;
  return bytes_of(taken);
}

WITHOUT_SANITIZER void release(void *bytes) {
  if (bytes == nullptr) {
    return;
  }
  block *const given = block_of(bytes);
  expect(given->size != k_free, "the engine's memory is given back twice");
  ASAN_POISON_MEMORY_REGION(bytes, given->size);
  given->size = k_free;
  given->next = nullptr;
  waiting &list = g_waiting[given->kind];
  (list.count == 0 ? list.first : list.last->next) = given;
  list.last = given;
  ++list.count;
  --g_blocks;
}

WITHOUT_SANITIZER int size_of(void *bytes) {
  return bytes == nullptr ? 0 : static_cast<int>(block_of(bytes)->size);
}

void *resize(void *bytes, int size) {
  void *const moved = allocate(size);
  if (moved != nullptr) {
    std::memcpy(moved, bytes, static_cast<size_t>(std::min(size, size_of(bytes))));
    release(bytes);
  }
  return moved;
}

int round_up(int size) {
  return (size + 7) & ~7;
}

int start(void * /*data*/) {
  return SQLITE_OK;
}

void stop(void * /*data*/) {}

// ---- System calls -------------------------------------------------------------------------------

// Locks are those of processes against each other, and here is one.
int control(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  auto *const argument = va_arg(rest, struct flock *);
  va_end(rest);
  if (command == F_GETLK) {
    argument->l_type = F_UNLCK;
  }
  return command == F_GETLK || command == F_SETLK ? 0 : fcntl(fd, command, argument);
}

// Nobody makes a log of the engine's other kind of journal.
int status_of(const char *path, struct stat *status) {
  if (std::string_view(path).ends_with("-wal")) {
    errno = ENOENT;
    return -1;
  }
  return stat(path, status);
}

template <typename function> void replace(const char *name, function *call) {
  sqlite3_vfs *const files = sqlite3_vfs_find(nullptr);
  expect(files->xSetSystemCall(files, name, reinterpret_cast<sqlite3_syscall_ptr>(call)) ==
             SQLITE_OK,
         "a system call of the engine that is no more");
}

} // namespace

namespace quick_engine {

void set_up() {
  static const sqlite3_mem_methods memory = {allocate, release, resize, size_of,
                                             round_up, start,   stop,   nullptr};
  expect(sqlite3_config(SQLITE_CONFIG_MALLOC, &memory) == SQLITE_OK &&
             sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) == SQLITE_OK &&
             sqlite3_config(SQLITE_CONFIG_SINGLETHREAD) == SQLITE_OK &&
             sqlite3_initialize() == SQLITE_OK,
         "the engine takes no orders");
  replace("fcntl", control);
  replace("stat", status_of);
}

size_t blocks() {
  return g_blocks;
}

} // namespace quick_engine
