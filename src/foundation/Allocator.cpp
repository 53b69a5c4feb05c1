#include "Tarvo/Allocator.h"

#include <map>

#include "Tarvo/TypeName.h"

namespace Tarvo {

namespace {
std::atomic<const Impl::AllocationRecord*> newest{nullptr};
}

namespace Impl {

AllocationRecord::AllocationRecord(const std::type_info& counted, std::size_t unitSize)
    : counted_(counted.name()), unitSize_(unitSize) {
  next_ = newest.load(std::memory_order_relaxed);
  while (!newest.compare_exchange_weak(next_, this, std::memory_order_release,
                                       std::memory_order_relaxed)) {
  }
}

const AllocationRecord* AllocationRecord::first() { return newest.load(std::memory_order_acquire); }

AllocationCount allocationCountOf(const std::type_info& counted) {
  AllocationCount sum{typeName(counted.name())};
  for (auto record = AllocationRecord::first(); record != nullptr; record = record->next()) {
    if (record->counted() != counted.name()) continue;
    sum.objects += record->objects();
    sum.bytes += record->bytes();
  }
  return sum;
}

}  // namespace Impl

std::vector<AllocationCount> allocationCounts() {
  std::map<String, AllocationCount> byName;
  for (auto record = Impl::AllocationRecord::first(); record != nullptr; record = record->next()) {
    const String name = typeName(record->counted().c_str());
    AllocationCount& sum = byName.try_emplace(name, AllocationCount{name}).first->second;
    sum.objects += record->objects();
    sum.bytes += record->bytes();
  }
  std::vector<AllocationCount> counts;
  counts.reserve(byName.size());
  for (auto& entry : byName) counts.push_back(std::move(entry.second));
  return counts;
}

}  // namespace Tarvo
