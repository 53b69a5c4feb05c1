#include "Tarvo/Allocator.h"

#include "support/Test.h"

namespace {

struct Counted {
  explicit Counted(bool fail = false) {
    if (fail) throw 1;
  }
};

TEST(AllocatorTest, CountsForTheTypeThatItWasMadeForOverAllThreads) {
  const auto make = [](bool fail) {
    return std::allocate_shared<Counted>(Tarvo::Allocator<Counted>(), fail);
  };
  auto shared = make(false);
  std::jthread([&] { shared = make(false); }).join();  // and the other's is given back there
  const std::list<Counted, Tarvo::Allocator<Counted>> nodes(3);
  EXPECT_THROW(make(true), int);
  const auto count = Tarvo::allocationCount<Counted>();
  EXPECT_EQ(count.objects, 1 + 3);
  EXPECT_GT(count.bytes, static_cast<std::int64_t>(4 * sizeof(Counted)));  // with their nodes
  EXPECT_EQ(Tarvo::allocationCounts().front().typeName, "(anonymous namespace)::Counted");
}

}  // namespace
