#ifndef TARVO_ALLOCATOR_H
#define TARVO_ALLOCATOR_H

/// A standard allocator that knows how much of each type is alive. The library makes its controls,
/// handlers and tasks with it:
///
///     auto control = std::allocate_shared<Control>(Tarvo::Allocator<Control>(), handler);
///     Tarvo::allocationCount<Control>().objects;   // 1
///
/// A container or a shared pointer also allocates nodes and reference counts; these are counted
/// under the type that the allocator was made for. An allocation changes one atomic counter; the
/// reader adds up the sums. Any thread may allocate and read.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <typeinfo>
#include <vector>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// What is alive of one type.
struct AllocationCount {
  String typeName;           // readable
  std::int64_t objects = 0;  // elements allocated and not yet freed
  std::int64_t bytes = 0;    // with nodes and reference counts
};

/// Every type that was ever allocated, sorted by name.
TARVO_EXPORT std::vector<AllocationCount> allocationCounts();

namespace Impl {

/// Counts the blocks of one size that were allocated for one type. Never destroyed; all records are
/// in one list.
class TARVO_EXPORT AllocationRecord {
 public:
  AllocationRecord(const std::type_info& counted, std::size_t unitSize);
  AllocationRecord(const AllocationRecord&) = delete;
  AllocationRecord& operator=(const AllocationRecord&) = delete;

  void add(std::int64_t objects) { objects_.fetch_add(objects, std::memory_order_relaxed); }
  std::int64_t objects() const { return objects_.load(std::memory_order_relaxed); }
  std::int64_t bytes() const { return objects() * static_cast<std::int64_t>(unitSize_); }
  /// The mangled name of the type; a copy, since the type may be unloaded.
  const String& counted() const { return counted_; }
  const AllocationRecord* next() const { return next_; }

  /// The newest record; the rest hang on next().
  static const AllocationRecord* first();

 private:
  String counted_;
  std::size_t unitSize_;
  std::atomic<std::int64_t> objects_{0};
  const AllocationRecord* next_ = nullptr;
};

TARVO_EXPORT AllocationCount allocationCountOf(const std::type_info& counted);

}  // namespace Impl

/// What is alive of `T`.
template <typename T>
AllocationCount allocationCount() {
  return Impl::allocationCountOf(typeid(T));
}

/// Allocations are counted under `Counted`; rebind() changes T and keeps Counted.
template <typename T, typename Counted = T>
class Allocator {
 public:
  using value_type = T;
  template <typename U>
  struct rebind {
    using other = Allocator<U, Counted>;
  };

  Allocator() noexcept = default;
  template <typename U>
  Allocator(const Allocator<U, Counted>&) noexcept {}

  /// Throws std::bad_alloc as std::allocator does.
  T* allocate(std::size_t n) {
    Impl::AllocationRecord& counted = record();  // first, as making the record may throw too
    T* memory = std::allocator<T>().allocate(n);
    counted.add(static_cast<std::int64_t>(n));
    return memory;
  }
  void deallocate(T* memory, std::size_t n) noexcept {
    record().add(-static_cast<std::int64_t>(n));
    std::allocator<T>().deallocate(memory, n);
  }

  template <typename U>
  bool operator==(const Allocator<U, Counted>&) const noexcept {
    return true;
  }

 private:
  // Never destroyed: objects may be freed while the process exits.
  static Impl::AllocationRecord& record() {
    static auto& instance = *new Impl::AllocationRecord(typeid(Counted), sizeof(T));
    return instance;
  }
};

}  // namespace Tarvo

#endif
