#ifndef TARVO_SRC_PLATFORM_WAKELIST_H
#define TARVO_SRC_PLATFORM_WAKELIST_H

#include <atomic>
#include <cstdint>

namespace Tarvo::Impl {

/// The list of those who ask one thread to serve them. Any thread and any signal handler may join
/// it; only its owner takes them out. One word holds the list and whether the owner sleeps, so a
/// joiner learns in the same step that it has to wake the owner up, and the owner cannot fall
/// asleep beside somebody who joins.
///
/// The word is one of these: "awake", and nobody waits; "asleep", and nobody waits; "closed"; or
/// the one that joined last, on which the others hang.
///
/// The atomic type is a parameter for the test that tries all interleavings.
template <template <typename> typename Atomic = std::atomic>
class WakeList {
 public:
  struct Link {
    Atomic<unsigned> joined{0};  // the era in which it joined; 0 when it may join
    Link* next = nullptr;
  };
  enum class Joined : std::uint8_t { ownerLooks, ownerSleeps, ownerIsGone };

  /// First step of joining: false when it waits already, and is served after this. The era is the
  /// number of forks that made this process: who waited for a thread of the parent may join again.
  static bool claim(Link& link, unsigned era) {
    // Read and written in one step also when it is joined: what the caller did before is then seen
    // by the service that comes.
    return link.joined.exchange(era, std::memory_order_acq_rel) != era;
  }
  /// Second step. One who has joined a closed list stays claimed.
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
  /// From now on nobody needs to wake the owner up, which looks before it sleeps.
  void wakeUp() {
    Word head = asleep;
    head_.compare_exchange_strong(head, awake, std::memory_order_relaxed);
  }
  /// False, and the owner is awake, when somebody waits.
  bool fallAsleep() {
    Word head = awake;
    return head_.compare_exchange_strong(head, asleep, std::memory_order_relaxed) || head <= closed;
  }
  /// Takes all out, who joined first in front. The owner is awake then, or asleep.
  /// REQUIRES: any().
  Link* takeAndLook() { return take(awake); }
  Link* takeAndSleep() { return take(asleep); }
  Link* takeAndClose() { return take(closed); }
  /// Lets one that was taken out join again. What was done before its last attempt is seen.
  static void release(Link& link) { link.joined.exchange(0, std::memory_order_acq_rel); }
  /// All who wait have joined in this era. REQUIRES: nobody joins meanwhile.
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
