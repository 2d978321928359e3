// Counts heap allocations made by this process, through every route glibc
// offers (malloc and friends; operator new ends in malloc). Include it in
// exactly one translation unit of a test program.
#pragma once
#include <cstddef>
#include <cstdint>

namespace alloc_counter {
inline std::uint64_t& Count() {
  static std::uint64_t count = 0;
  return count;
}
}  // namespace alloc_counter

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Under a sanitizer its runtime owns malloc and operator new, and replacing
// malloc here would hand its blocks to glibc's free: count through the
// runtime's allocation hook instead.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*on_allocate)(const volatile void*, std::size_t),
                                                         void (*on_free)(const volatile void*));

namespace alloc_counter {
inline void OnAllocate(const volatile void*, std::size_t) { ++Count(); }
inline void OnFree(const volatile void*) {}
inline const int kHooked = __sanitizer_install_malloc_and_free_hooks(OnAllocate, OnFree);
}  // namespace alloc_counter

#else
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size) {
  ++alloc_counter::Count();
  return __libc_malloc(size);
}
void* calloc(std::size_t n, std::size_t size) {
  ++alloc_counter::Count();
  return __libc_calloc(n, size);
}
void* realloc(void* p, std::size_t size) {
  ++alloc_counter::Count();
  return __libc_realloc(p, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
  ++alloc_counter::Count();
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  ++alloc_counter::Count();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
  ++alloc_counter::Count();
  *out = __libc_memalign(alignment, size);
  return *out ? 0 : 12;
}
void free(void* p) { __libc_free(p); }
}
#endif
