#include "tests/load/heap.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace lumso_test {

bool HasOwnHeap() {
  // How valgrind puts its heap in front.
  const char* preloaded = std::getenv("LD_PRELOAD");
  return !kSanitized && (preloaded == nullptr ||
                         std::strstr(preloaded, "vgpreload") == nullptr);
}

}  // namespace lumso_test

#ifdef LUMSO_SANITIZER

// Of the sanitizer's own heap.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);

namespace lumso_test {

HeapUse HeapInUse() { return {0, __sanitizer_get_current_allocated_bytes()}; }

}  // namespace lumso_test

#else

// mallinfo2() would not do: it takes the blocks that wait in a thread's cache
// for blocks in use. So the program defines malloc() and its like ahead of
// libc, counts, and leaves the work to libc.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<size_t> blocks{0};
std::atomic<size_t> bytes{0};

void* Given(void* block) {
  if (block == nullptr) return nullptr;
  blocks.fetch_add(1, std::memory_order_relaxed);
  bytes.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
  return block;
}

void Returned(void* block) {
  if (block == nullptr) return;
  blocks.fetch_sub(1, std::memory_order_relaxed);
  bytes.fetch_sub(malloc_usable_size(block), std::memory_order_relaxed);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void* malloc(size_t size) noexcept {
  return Given(__libc_malloc(size));
}

__attribute__((visibility("default"))) void* calloc(size_t count,
                                                    size_t size) noexcept {
  return Given(__libc_calloc(count, size));
}

__attribute__((visibility("default"))) void* realloc(void* block,
                                                     size_t size) noexcept {
  const size_t before = block == nullptr ? 0 : malloc_usable_size(block);
  void* const moved = __libc_realloc(block, size);
  // A block of no size is freed; one that cannot grow stays.
  if (moved == nullptr && size != 0) return nullptr;
  if (block != nullptr) blocks.fetch_sub(1, std::memory_order_relaxed);
  bytes.fetch_sub(before, std::memory_order_relaxed);
  return Given(moved);
}

__attribute__((visibility("default"))) void* memalign(size_t alignment,
                                                      size_t size) noexcept {
  return Given(__libc_memalign(alignment, size));
}

__attribute__((visibility("default"))) void* aligned_alloc(
    size_t alignment, size_t size) noexcept {
  return Given(__libc_memalign(alignment, size));
}

__attribute__((visibility("default"))) int posix_memalign(
    void** block, size_t alignment, size_t size) noexcept {
  void* const made = Given(__libc_memalign(alignment, size));
  if (made == nullptr) return ENOMEM;
  *block = made;
  return 0;
}

__attribute__((visibility("default"))) void free(void* block) noexcept {
  Returned(block);
  __libc_free(block);
}

}  // extern "C"

namespace lumso_test {

HeapUse HeapInUse() {
  return {blocks.load(std::memory_order_relaxed),
          bytes.load(std::memory_order_relaxed)};
}

}  // namespace lumso_test

#endif  // LUMSO_SANITIZER
