#include "lab/scarce_memory.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

size_t refused_size = SIZE_MAX;
long refused_in = -1;

bool is_refused(size_t size) {
  return size >= refused_size || (refused_in >= 0 && refused_in-- == 0);
}

} // namespace

void scarce_memory::refuse_from(size_t size) {
  refused_size = size;
}

void scarce_memory::refuse_nth(long n) {
  refused_in = n;
}

void scarce_memory::relieve() {
  refused_size = SIZE_MAX;
  refused_in = -1;
}

void *operator new(size_t size) {
  void *const memory = is_refused(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void *operator new(size_t size, const std::nothrow_t &) noexcept {
  return is_refused(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void operator delete(void *memory, const std::nothrow_t &) noexcept {
  std::free(memory);
}

void operator delete(void *memory) noexcept {
  std::free(memory);
}

void operator delete(void *memory, size_t) noexcept {
  std::free(memory);
}
