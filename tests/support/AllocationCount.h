#ifndef TARVO_TESTS_SUPPORT_ALLOCATIONCOUNT_H
#define TARVO_TESTS_SUPPORT_ALLOCATIONCOUNT_H

/// Replaces the global operators by ones that count, and refuse one allocation where a test wants
/// that. For one file of a test binary.

#include <cstdlib>
#include <new>

namespace testsupport {
/// By the calling thread.
static thread_local unsigned long allocations = 0;
/// Which of the next allocations is refused; 0 for none.
static thread_local unsigned long refusedAllocation = 0;
}  // namespace testsupport

[[gnu::noinline]] void* operator new(std::size_t size) {
  ++testsupport::allocations;
  const bool refused = testsupport::refusedAllocation > 0 && --testsupport::refusedAllocation == 0;
  if (void* memory = refused ? nullptr : std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++testsupport::allocations;
  return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

#endif
