#ifndef TARVO_SRC_PLATFORM_WAKELIST_H
#define TARVO_SRC_PLATFORM_WAKELIST_H

#include <atomic>
#include <cstdint>

namespace Tarvo::Impl {

/// A lock-free list of requests to one thread, its owner. Any thread and any signal handler may add
/// an entry; only the owner removes entries. One atomic word holds both the list and whether the
/// owner sleeps in the kernel. So whoever adds an entry learns in the same step whether it must
/// wake the owner, and the owner cannot fall asleep while an entry is being added.
///
/// The word is "awake" or "asleep" (both with an empty list), "closed", or a pointer to the entry
/// added last, which is linked to the others.
///
/// The atomic type is a parameter for the test, which tries all interleavings.
template <template <typename> typename Atomic = std::atomic>
class WakeList {
 public:
  struct Link {
    Atomic<unsigned> joined{0};  // the era in which the entry was added; 0 while it is in no list
    Link* next = nullptr;
  };
  enum class Joined : std::uint8_t { ownerLooks, ownerSleeps, ownerIsGone };

  /// First step of adding an entry. False when it is in the list already and will be served after
  /// this call. The era counts the forks that led to this process: an entry that was added before a
  /// fork, to a list whose owner does not exist in the child, may be added again in the child.
  static bool claim(Link& link, unsigned era) {
    // An exchange, also when the entry is in the list: it orders the caller's writes before
    // release(), so that the service that follows sees them.
    return link.joined.exchange(era, std::memory_order_acq_rel) != era;
  }
  /// Second step. When the list is closed the entry stays claimed, so that it is not tried again.
  Joined join(Link& link) {
    Word head = head_.load(std::memory_order_relaxed);
    do {
      if (head == closed) return Joined::ownerIsGone;
      link.next = head == asleep ? nullptr : at(head);
    } while (!head_.compare_exchange_weak(head, reinterpret_cast<Word>(&link),
                                          std::memory_order_release, std::memory_order_relaxed));
    return head == asleep ? Joined::ownerSleeps : Joined::ownerLooks;
  }

  // The owner's side.

  bool any() const { return head_.load(std::memory_order_relaxed) > closed; }
  /// The owner is awake: it looks at the list before it sleeps again, so others need not wake it.
  void wakeUp() {
    Word head = asleep;
    head_.compare_exchange_strong(head, awake, std::memory_order_relaxed);
  }
  /// The owner wants to sleep. False when the list has entries; then it stays awake.
  bool fallAsleep() {
    Word head = awake;
    return head_.compare_exchange_strong(head, asleep, std::memory_order_relaxed) || head <= closed;
  }
  /// Remove all entries and return them, the oldest first. The owner is awake, asleep or gone
  /// afterwards. REQUIRES: any(), except for takeAndClose().
  Link* takeAndLook() { return take(awake); }
  Link* takeAndSleep() { return take(asleep); }
  Link* takeAndClose() { return take(closed); }
  /// Allows a removed entry to be added again. The caller sees what was written before any earlier
  /// claim() of the entry.
  static void release(Link& link) { link.joined.exchange(0, std::memory_order_acq_rel); }
  /// Sets the era of all entries in the list. REQUIRES: no other thread uses the list.
  void eraIs(unsigned era) {
    for (Link* link = at(head_.load(std::memory_order_relaxed)); link != nullptr;
         link = link->next) {
      link->joined.store(era, std::memory_order_relaxed);
    }
  }

 private:
  using Word = std::uintptr_t;
  static constexpr Word awake = 0, asleep = 1, closed = 2;

  static Link* at(Word head) { return head > closed ? reinterpret_cast<Link*>(head) : nullptr; }
  Link* take(Word then) {
    Link* first = nullptr;
    for (Link* link = at(head_.exchange(then, std::memory_order_acquire)); link != nullptr;) {
      Link* next = link->next;
      link->next = first;
      first = link;
      link = next;
    }
    return first;
  }

  Atomic<Word> head_{asleep};
};

}  // namespace Tarvo::Impl

#endif
