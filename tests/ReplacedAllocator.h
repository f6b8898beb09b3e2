#ifndef OSTRELLED_TESTS_REPLACEDALLOCATOR_H
#define OSTRELLED_TESTS_REPLACEDALLOCATOR_H

// The thread's allocations fail once gAllowedAllocations reaches 0 (-1: never).

#include <cstdlib>
#include <new>

// The replacement pairs malloc and free itself, which the compiler cannot see.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

inline thread_local long gAllowedAllocations = -1;

void* operator new(size_t size) {
  if (gAllowedAllocations == 0) throw std::bad_alloc();
  if (gAllowedAllocations > 0) --gAllowedAllocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

#endif
