#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <thread>

#include "Tarvo/Allocator.h"

namespace {

struct Counted {
  std::int64_t payload = 0;
};
struct Throwing {
  Throwing() { throw 1; }
};

TEST(AllocatorTest, CountsForTheTypeThatItWasMadeFor) {
  {
    const auto shared = std::allocate_shared<Counted>(Tarvo::Allocator<Counted>());
    const std::list<Counted, Tarvo::Allocator<Counted>> nodes(3);
    std::vector<Counted, Tarvo::Allocator<Counted>> block;
    block.reserve(5);

    const auto count = Tarvo::allocationCount<Counted>();
    EXPECT_EQ(count.objects, 1 + 3 + 5);
    EXPECT_GT(count.bytes, static_cast<std::int64_t>(9 * sizeof(Counted)));  // with their nodes
  }
  EXPECT_EQ(Tarvo::allocationCount<Counted>().objects, 0);
  EXPECT_EQ(Tarvo::allocationCount<Counted>().bytes, 0);
}

TEST(AllocatorTest, AThrowingConstructorLeavesNothingBehind) {
  EXPECT_THROW(std::allocate_shared<Throwing>(Tarvo::Allocator<Throwing>()), int);
  EXPECT_EQ(Tarvo::allocationCount<Throwing>().objects, 0);
}

TEST(AllocatorTest, SumsOverThreadsAndListsByReadableName) {
  struct Local {};
  std::vector<std::shared_ptr<Local>> kept(100);
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&kept, t] {
        for (int i = t; i < 100; i += 4) {
          kept[static_cast<size_t>(i)] = std::allocate_shared<Local>(Tarvo::Allocator<Local>());
        }
      });
    }
  }
  bool listed = false;
  for (const auto& count : Tarvo::allocationCounts()) {
    if (count.typeName.find("::Local") == Tarvo::String::npos) continue;
    listed = true;
    EXPECT_EQ(count.objects, 100);
  }
  EXPECT_TRUE(listed);
}

}  // namespace
