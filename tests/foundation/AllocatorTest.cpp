#include "Tarvo/Allocator.h"

#include <gtest/gtest.h>

#include <list>
#include <thread>

namespace {

struct Counted {
  explicit Counted(bool fail = false) {
    if (fail) throw 1;
  }
};

TEST(AllocatorTest, CountsForTheTypeThatItWasMadeForOverAllThreads) {
  std::vector<std::shared_ptr<Counted>> shared(100);
  {
    std::vector<std::jthread> threads;
    for (size_t t = 0; t < 4; ++t) {
      threads.emplace_back([&shared, t] {
        for (size_t i = t; i < shared.size(); i += 4) {
          shared[i] = std::allocate_shared<Counted>(Tarvo::Allocator<Counted>());
        }
      });
    }
  }
  const std::list<Counted, Tarvo::Allocator<Counted>> nodes(3);
  EXPECT_THROW(std::allocate_shared<Counted>(Tarvo::Allocator<Counted>(), true), int);
  const auto count = Tarvo::allocationCount<Counted>();
  EXPECT_EQ(count.objects, 100 + 3);
  EXPECT_GT(count.bytes, static_cast<std::int64_t>(103 * sizeof(Counted)));  // with their nodes
  EXPECT_EQ(Tarvo::allocationCounts().front().typeName, "(anonymous namespace)::Counted");
  shared.clear();
  EXPECT_EQ(Tarvo::allocationCount<Counted>().objects, 3);
}

}  // namespace
