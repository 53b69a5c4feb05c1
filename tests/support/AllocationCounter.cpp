#include "support/AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local unsigned long count = 0;
}

unsigned long testsupport::allocations() { return count; }

void* operator new(std::size_t size) {
  ++count;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
