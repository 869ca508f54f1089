#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

// Counts every heap allocation of the program, so a benchmark can show that a path makes none.
// Include in exactly one translation unit of a benchmark program.
namespace bench {
inline std::atomic<std::size_t> allocations{0};
}

void* operator new(std::size_t size) {
  bench::allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
