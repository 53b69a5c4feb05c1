#include "Tarvo/detail/InboxQueue.h"

#include <algorithm>
#include <bit>
#include <new>
#include <utility>

#include "Tarvo/Task.h"
#include "platform/libevent/LoopWakes.h"

namespace Tarvo::Impl {

namespace {

// Both words have the number of a place in their upper half, 0 for none. In the lower half of the
// free places is a count, so that a word that has changed looks different even when it has the same
// place in front again. The posted items have these there:
constexpr std::uint64_t countMask = (1U << 30) - 1;
constexpr std::uint64_t endedFlag = 1U << 30;    // nothing is accepted any more
constexpr std::uint64_t servingFlag = 1U << 31;  // the inbox looks again before it rests

constexpr std::uint32_t numberOf(std::uint64_t word) {
  return static_cast<std::uint32_t>(word >> 32);
}
constexpr std::uint64_t withNumber(std::uint32_t number, std::uint64_t rest) {
  return std::uint64_t{number} << 32 | (rest & 0xffffffffU);
}

constexpr std::size_t roundUp(std::size_t size, std::size_t step) {
  return (size + step - 1) / step * step;
}

}  // namespace

/// Schedules the inbox as long as it is there.
class InboxQueue::Waker final : public LoopWake {
 public:
  explicit Waker(TaskImpl& inbox) : inbox_(&inbox) {}
  void forgetInbox() { inbox_ = nullptr; }

 private:
  void woken() override {
    if (inbox_ != nullptr) inbox_->scheduleTask();
  }

  TaskImpl* inbox_;
};

class InboxQueue::Keeping final : public LoopKeeping {
 public:
  explicit Keeping(InboxQueue& queue) : queue_(queue) {}

 private:
  void loopEnds() noexcept override { queue_.close(); }

  InboxQueue& queue_;
};

InboxQueue::InboxQueue(TaskImpl& inbox, const InboxItemKind& kind, std::size_t capacity)
    : kind_(kind),
      capacity_(capacity),
      itemOffset_(roundUp(sizeof(Place), kind.alignment)),
      stride_(roundUp(itemOffset_ + kind.size, std::max(kind.alignment, alignof(Place)))),
      thread_(std::this_thread::get_id()),
      name_(inbox.taskName()),
      waker_(std::make_shared<Waker>(inbox)),
      keeping_(std::make_unique<Keeping>(*this)) {}

InboxQueue::~InboxQueue() {
  for (auto& slab : slabs_) {
    ::operator delete(slab.load(std::memory_order_relaxed), std::align_val_t(slabAlignment()));
  }
}

void InboxQueue::letLoopGo() noexcept { keeping_.reset(); }

// Places.

std::size_t InboxQueue::slabAlignment() const noexcept {
  return std::max(kind_.alignment, alignof(Place));
}

InboxQueue::Place& InboxQueue::place(std::uint32_t number) const noexcept {
  const std::size_t index = number - 1;
  const auto slab = static_cast<unsigned>(std::bit_width(index / firstSlab + 1)) - 1;
  const std::size_t within = index - firstSlab * ((std::size_t{1} << slab) - 1);
  std::byte* begin = slabs_[slab].load(std::memory_order_relaxed);
  return *reinterpret_cast<Place*>(begin + within * stride_);
}

void* InboxQueue::item(Place& place) const noexcept {
  return reinterpret_cast<std::byte*>(&place) + itemOffset_;
}

InboxQueue::Place& InboxQueue::placeOf(void* item) const noexcept {
  return *reinterpret_cast<Place*>(static_cast<std::byte*>(item) - itemOffset_);
}

void* InboxQueue::takePlace(bool limited) {
  if (waker_->ofParentProcess()) return nullptr;
  if (acceptance(posted_.load(std::memory_order_relaxed), limited) != Posted::accepted) {
    return nullptr;
  }
  Place* place = freePlace();
  while (place == nullptr) {
    addSlab();
    place = freePlace();
  }
  return item(*place);
}

InboxQueue::Place* InboxQueue::freePlace() noexcept {
  std::uint64_t word = free_.load(std::memory_order_acquire);
  while (numberOf(word) != 0) {
    // Another may take it meanwhile and put it back, with another next; but then the word differs.
    Place& first = place(numberOf(word));
    const std::uint32_t next = first.next.load(std::memory_order_relaxed);
    if (free_.compare_exchange_weak(word, withNumber(next, word + 1), std::memory_order_acquire)) {
      return &first;
    }
  }
  return nullptr;
}

void InboxQueue::addSlab() {
  unsigned slab = 0;
  while (slab < slabsMax && slabs_[slab].load(std::memory_order_relaxed) != nullptr) ++slab;
  if (slab == slabsMax) throw std::bad_alloc();
  const std::size_t count = firstSlab << slab;
  auto number = static_cast<std::uint32_t>(firstSlab * ((std::size_t{1} << slab) - 1));
  const auto alignment = std::align_val_t{slabAlignment()};
  auto* memory = static_cast<std::byte*>(::operator new(count* stride_, alignment));
  Place* last = nullptr;
  for (std::size_t i = 0; i < count; ++i) {
    last = new (memory + i * stride_) Place{number + 2, number + 1};
    ++number;
  }
  std::byte* none = nullptr;
  if (slabs_[slab].compare_exchange_strong(none, memory, std::memory_order_relaxed)) {
    giveBack(*reinterpret_cast<Place*>(memory), *last);
  } else {
    ::operator delete(memory, alignment);  // another poster was quicker, and gives us of its own
  }
}

void InboxQueue::giveBack(const Place& first, Place& last) noexcept {
  std::uint64_t word = free_.load(std::memory_order_relaxed);
  do {
    last.next.store(numberOf(word), std::memory_order_relaxed);
  } while (!free_.compare_exchange_weak(word, withNumber(first.number, word + 1),
                                        std::memory_order_release, std::memory_order_relaxed));
}

void InboxQueue::giveBack(void* item) noexcept { giveBack(placeOf(item), placeOf(item)); }

// Posting.

InboxQueue::Posted InboxQueue::acceptance(std::uint64_t word, bool limited) const noexcept {
  if ((word & endedFlag) != 0) return Posted::ended;
  const bool full = limited && capacity_ != 0 &&
                    (word & countMask) + taken_.load(std::memory_order_relaxed) >= capacity_;
  return full ? Posted::full : Posted::accepted;
}

InboxQueue::Posted InboxQueue::post(void* item, bool limited) noexcept {
  Place& place = placeOf(item);
  std::uint64_t word = posted_.load(std::memory_order_relaxed);
  do {
    const Posted how = acceptance(word, limited);
    if (how != Posted::accepted) return how;
    place.next.store(numberOf(word), std::memory_order_relaxed);
  } while (!posted_.compare_exchange_weak(word, withNumber(place.number, word + 1),
                                          std::memory_order_acq_rel, std::memory_order_relaxed));
  if ((word & servingFlag) == 0) waker_->wake();
  return Posted::accepted;
}

void InboxQueue::end() noexcept {
  const std::uint64_t before = posted_.fetch_or(endedFlag, std::memory_order_acq_rel);
  if ((before & (endedFlag | servingFlag)) == 0) waker_->wake();
}

// Serving.

void InboxQueue::serves() noexcept { posted_.fetch_or(servingFlag, std::memory_order_acq_rel); }

bool InboxQueue::rests() noexcept {
  giveBackServed();
  std::uint64_t word = posted_.load(std::memory_order_relaxed);
  do {
    if (numberOf(word) != 0) return false;
  } while (!posted_.compare_exchange_weak(word, word & ~servingFlag, std::memory_order_acq_rel,
                                          std::memory_order_relaxed));
  return true;
}

void InboxQueue::restsAnyway() noexcept {
  giveBackServed();
  posted_.fetch_and(~servingFlag, std::memory_order_acq_rel);
}

void InboxQueue::takePosted() noexcept {
  std::uint64_t word = posted_.load(std::memory_order_relaxed);
  do {
    // Before they leave the word, so that nobody sees room that there is not.
    taken_.store(static_cast<std::uint32_t>(word & countMask), std::memory_order_relaxed);
    if (numberOf(word) == 0) return;
  } while (!posted_.compare_exchange_weak(word, word & (endedFlag | servingFlag),
                                          std::memory_order_acq_rel, std::memory_order_relaxed));
  for (std::uint32_t number = numberOf(word); number != 0;) {
    Place& each = place(number);
    number = each.next.load(std::memory_order_relaxed);
    each.next.store(firstTaken_, std::memory_order_relaxed);
    firstTaken_ = each.number;
  }
}

void* InboxQueue::next() noexcept {
  if (firstTaken_ == 0) takePosted();
  if (firstTaken_ == 0) return nullptr;
  Place& first = place(firstTaken_);
  firstTaken_ = first.next.load(std::memory_order_relaxed);
  taken_.store(taken_.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
  return item(first);
}

void InboxQueue::served(void* item) noexcept {
  Place& place = placeOf(item);
  // In the order in which they were posted: neighbours stay neighbours, which caches like.
  if (firstServed_ == nullptr) {
    firstServed_ = &place;
  } else {
    lastServed_->next.store(place.number, std::memory_order_relaxed);
  }
  lastServed_ = &place;
  if (++servedCount_ == firstSlab / 2) giveBackServed();
}

void InboxQueue::giveBackServed() noexcept {
  if (firstServed_ == nullptr) return;
  giveBack(*firstServed_, *lastServed_);
  firstServed_ = lastServed_ = nullptr;
  servedCount_ = 0;
}

std::size_t InboxQueue::waiting() const noexcept {
  return (posted_.load(std::memory_order_relaxed) & countMask) +
         taken_.load(std::memory_order_relaxed);
}

bool InboxQueue::ended() const noexcept {
  return (posted_.load(std::memory_order_acquire) & endedFlag) != 0;
}

void InboxQueue::close() noexcept {
  posted_.fetch_or(endedFlag, std::memory_order_acq_rel);
  waker_->forgetInbox();
  while (void* left = next()) {
    kind_.destroy(left);
    served(left);
  }
  giveBackServed();
}

}  // namespace Tarvo::Impl
