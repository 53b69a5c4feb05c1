/// usage: RandomOperations SECONDS [SEED [OPERATIONS]]
///
/// World after world of random operations for so long; the first one has the given seed. What is
/// found shows the seed and the number of the operation, so that
/// `RandomOperations 0 SEED OPERATIONS` repeats it, and a smaller number of operations may too.

#include <event2/event.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

#include "Tarvo/Debug.h"
#include "random/World.h"

using randomtest::Allocations;
using randomtest::World;

namespace {

bool fails() {
  if (!Allocations::counted || Allocations::untilFailure == 0) return false;
  if (--Allocations::untilFailure != 0) return false;
  ++Allocations::failures;
  return Allocations::failed = true;
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* memory = fails() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return fails() ? nullptr : std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: RandomOperations SECONDS [SEED [OPERATIONS]]\n", stderr);
    return 2;
  }
  const double seconds = std::stod(argv[1]);
  std::uint64_t seed = argc > 2 ? std::stoull(argv[2]) : std::random_device{}();
  const unsigned long limit = argc > 3 ? std::stoul(argv[3]) : 2000;
  event_set_mem_functions(
      [](std::size_t size) { return fails() ? nullptr : std::malloc(size); },
      [](void* memory, std::size_t size) { return fails() ? nullptr : std::realloc(memory, size); },
      [](void* memory) { std::free(memory); });
  Tarvo::throwOnAssertFailIs(true);
  Tarvo::Platform::clearTarvoDebug("TaskScheduler/0");  // each body that throws
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);

  unsigned long operations = 0;
  unsigned long runs = 0;
  std::timespec start;
  std::timespec now;
  std::timespec_get(&start, TIME_UTC);
  do {
    World world(seed++, limit);
    world.run();
    operations += world.operations;
    runs += world.runs;
    std::timespec_get(&now, TIME_UTC);
  } while (static_cast<double>(now.tv_sec - start.tv_sec) < seconds);
  std::printf("%lu operations, %lu runs\n", operations, runs);
}
