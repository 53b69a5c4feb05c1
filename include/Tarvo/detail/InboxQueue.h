#ifndef TARVO_DETAIL_INBOXQUEUE_H
#define TARVO_DETAIL_INBOXQUEUE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class TaskImpl;

namespace Impl {

/// What an inbox knows of its items.
struct InboxItemKind {
  std::size_t size;
  std::size_t alignment;
  void (*destroy)(void* item) noexcept;
};

/// The items on their way to an inbox. Any thread posts; the inbox takes. Items stand in numbered
/// places that are used again and again; there are as many as were ever taken at once. Two words
/// change without a lock: one has the free places, with a count of its changes; the other the
/// posted items, the newest in front, with how many they are.
class TARVO_EXPORT InboxQueue {
 public:
  /// For the inbox, on its thread. A capacity of 0 is no limit.
  InboxQueue(TaskImpl& inbox, const InboxItemKind& kind, std::size_t capacity);
  InboxQueue(const InboxQueue&) = delete;
  InboxQueue& operator=(const InboxQueue&) = delete;
  ~InboxQueue();

  // Any thread.

  enum class Posted : std::uint8_t { accepted, full, ended };

  /// A place to put an item into; null when it would not be accepted now. With `limited` the
  /// capacity counts. Throws std::bad_alloc.
  void* takePlace(bool limited);
  /// For a place without an item.
  void giveBack(void* place) noexcept;
  /// Posts the item at the place. When it is not accepted, both stay the caller's.
  Posted post(void* place, bool limited) noexcept;
  /// Nothing is accepted any more; what was is still served.
  void end() noexcept;
  bool onOwnThread() const noexcept { return std::this_thread::get_id() == thread_; }
  const String& name() const noexcept { return name_; }

  // The inbox.

  /// While it serves nobody wakes it. Each item that it takes it gives back, empty, by served().
  void serves() noexcept;
  /// The next item, or null when there is none.
  void* next() noexcept;
  void served(void* item) noexcept;
  /// From now on posts wake it. False, and it goes on, when there are items.
  bool rests() noexcept;
  /// The same with items that wait; the inbox has to schedule itself for them.
  void restsAnyway() noexcept;
  std::size_t waiting() const noexcept;
  bool ended() const noexcept;
  /// The loop need not wait for posts any more.
  void letLoopGo() noexcept;
  /// Ends, forgets the inbox and destroys what is left.
  void close() noexcept;

 private:
  class Waker;
  class Keeping;
  struct Place {
    std::atomic<std::uint32_t> next;  // its number, 0 for none
    std::uint32_t number;
  };
  static constexpr std::size_t firstSlab = 64;
  static constexpr unsigned slabsMax = 24;

  Place& place(std::uint32_t number) const noexcept;
  Place& placeOf(void* item) const noexcept;
  void* item(Place& place) const noexcept;
  Place* freePlace() noexcept;
  void addSlab();
  std::size_t slabAlignment() const noexcept;
  void giveBackServed() noexcept;
  void giveBack(const Place& first, Place& last) noexcept;
  Posted acceptance(std::uint64_t word, bool limited) const noexcept;
  void takePosted() noexcept;

  const InboxItemKind kind_;
  const std::size_t capacity_;
  const std::size_t itemOffset_;
  const std::size_t stride_;
  const std::thread::id thread_;
  const String name_;
  const std::shared_ptr<Waker> waker_;
  std::unique_ptr<Keeping> keeping_;
  std::array<std::atomic<std::byte*>, slabsMax> slabs_{};

  alignas(64) std::atomic<std::uint64_t> free_{0};    // number and changes
  alignas(64) std::atomic<std::uint64_t> posted_{0};  // number, count and flags
  // The inbox's own: what it has taken, the oldest first, and what it gives back together.
  alignas(64) std::atomic<std::uint32_t> taken_{0};
  std::uint32_t firstTaken_ = 0;
  Place* firstServed_ = nullptr;
  Place* lastServed_ = nullptr;
  unsigned servedCount_ = 0;
};

}  // namespace Impl

}  // namespace Tarvo

#endif
