// Bounded allocation: sizes above 2^31 - 1 never reach the allocator, so a
// size computed from hostile input fails cleanly instead of succeeding.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include "moxvos.h"

namespace {

bool tooLarge(uint64_t size) { return size > MOXVOS_MAX_ALLOCATION; }

}  // namespace

extern "C" {

MOXVOS_API void* moxvos_malloc(uint64_t size) {
  if (size == 0 || tooLarge(size)) return nullptr;
  return malloc(size);
}

MOXVOS_API void* moxvos_calloc(uint64_t count, uint64_t size) {
  if (count == 0 || size == 0 || tooLarge(count) || tooLarge(size)) {
    return nullptr;
  }
  if (tooLarge(count * size)) return nullptr;  // both < 2^31: no overflow
  return calloc(count, size);
}

MOXVOS_API void* moxvos_realloc(void* pointer, uint64_t size) {
  if (tooLarge(size)) return nullptr;
  if (pointer == nullptr) return malloc(size);
  return realloc(pointer, size);
}

MOXVOS_API void* moxvos_Saferealloc(void* pointer, uint64_t size) {
  if (tooLarge(size) || (size == 0 && pointer != nullptr)) {
    free(pointer);  // the only release: realloc is not called
    return nullptr;
  }
  return realloc(pointer, size);
}

// No limit of its own, but a size past PTRDIFF_MAX is one no allocator can
// give, so it is not asked for.
MOXVOS_API void* moxvos_valloc(uint64_t size) {
  if (size > static_cast<uint64_t>(PTRDIFF_MAX)) {
    errno = ENOMEM;
    return nullptr;
  }
  return malloc(size);
}

MOXVOS_API void moxvos_free(void* pointer) {
  if (pointer != nullptr) free(pointer);
}

}  // extern "C"
