// The heap of the test program, counted block by block.

#ifndef LUMSO_BLUETOOTH_TESTS_LOAD_HEAP_H_
#define LUMSO_BLUETOOTH_TESTS_LOAD_HEAP_H_

#include <cstddef>

namespace lumso_test {

#ifdef __has_feature
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define LUMSO_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define LUMSO_SANITIZER
#endif

// A sanitizer has a heap of its own, and keeps much beside what it gives out.
// So does valgrind's memcheck, which one sees only when the program runs.
#ifdef LUMSO_SANITIZER
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Whether the heap is the program's own, so that what the process holds tells
// something about it.
bool HasOwnHeap();

struct HeapUse {
  size_t blocks = 0;  // always 0 with a heap of another kind
  size_t bytes = 0;
};

// What the whole process has been given and has not freed. Any thread.
HeapUse HeapInUse();

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_LOAD_HEAP_H_
