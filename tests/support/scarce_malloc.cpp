#include "support/scarce_malloc.h"

#include <cstdint>

extern "C" {
void *__real_malloc(size_t size);
void *__real_realloc(void *block, size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *block);
void *__wrap_malloc(size_t size);
void *__wrap_realloc(void *block, size_t size);
void *__wrap_calloc(size_t count, size_t size);
void __wrap_free(void *block);
}

namespace {

unsigned g_countdown = 0; // 0: none is refused by its number
bool g_forever = false;
size_t g_size = SIZE_MAX;
bool g_refused = false;
long g_live = 0;

void *counted(void *block) {
  g_live += block != nullptr ? 1 : 0;
  return block;
}

bool is_refused(size_t size) {
  const bool by_number = g_countdown > 0 && --g_countdown == 0;
  g_countdown += by_number && g_forever ? 1U : 0U;
  const bool refused = by_number || size == g_size;
  g_refused = g_refused || refused;
  return refused;
}

} // namespace

void scarce_malloc::refuse_nth(unsigned n) {
  g_countdown = n;
  g_forever = false;
}

void scarce_malloc::refuse_from(unsigned n) {
  g_countdown = n;
  g_forever = true;
}

void *scarce_malloc::always(size_t size) {
  return counted(__real_malloc(size));
}

long scarce_malloc::live_blocks() {
  return g_live;
}

void scarce_malloc::refuse_size(size_t size) {
  g_size = size;
}

bool scarce_malloc::relieve() {
  const bool refused = g_refused;
  g_countdown = 0;
  g_size = SIZE_MAX;
  g_refused = false;
  return refused;
}

void *__wrap_malloc(size_t size) {
  return is_refused(size) ? nullptr : counted(__real_malloc(size));
}

void *__wrap_realloc(void *block, size_t size) {
  if (is_refused(size)) {
    return nullptr;
  }
  void *larger = __real_realloc(block, size);
  return block == nullptr ? counted(larger) : larger;
}

void *__wrap_calloc(size_t count, size_t size) {
  return is_refused(count * size) ? nullptr : counted(__real_calloc(count, size));
}

void __wrap_free(void *block) {
  g_live -= block != nullptr ? 1 : 0;
  __real_free(block);
}
