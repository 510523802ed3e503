// The global allocation functions of a test program, for one of its files: they ask the file's
// mayAllocate() first, which must be declared before this is included. They are not inlined, since
// GCC takes a pair of which it sees but one half for a mismatch.

#ifndef ZELTA_TESTS_SUPPORT_REPLACED_NEW_H
#define ZELTA_TESTS_SUPPORT_REPLACED_NEW_H

#include <cstdlib>
#include <new>

[[gnu::noinline]] void* operator new(std::size_t size) {
  if (!mayAllocate()) throw std::bad_alloc();
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

#endif  // ZELTA_TESTS_SUPPORT_REPLACED_NEW_H
