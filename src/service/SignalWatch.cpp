#include "service/SignalWatch.h"

#include <signal.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

#include "Tarvo/Loco.h"
#include "foundation/AtFork.h"

namespace Tarvo::Impl {

/// What the handler finds of one watch. Slots stay for good and are used again, so that a handler
/// can walk along them while watches come and go.
struct SignalWatch::Slot {
  std::atomic<LoopWake*> wake{nullptr};  // null while the slot is free
  std::atomic<unsigned> count{0};
  std::atomic<unsigned> handlers{0};  // how many use `wake` at this moment
  Slot* next = nullptr;
};

namespace {

using Slot = SignalWatch::Slot;

struct Signal {
  std::atomic<Slot*> slots{nullptr};
  unsigned watches = 0;
  struct sigaction before;  // while there are watches
};

// Changed under the global lock, and as a whole for a forked child.
constinit std::array<Signal, NSIG> signals{};  // by number
Signal& signalOf(int number) { return signals[static_cast<std::size_t>(number)]; }
unsigned allWatches = 0;
// Of a thread that forks; fork hooks run one at a time.
bool held = false;
sigset_t maskBeforeFork;

static_assert(std::atomic<LoopWake*>::is_always_lock_free &&
              std::atomic<unsigned>::is_always_lock_free);

/// In a signal handler nothing is allocated, locked or waited for.
void handle(int number) {
  Slot* slot = signalOf(number).slots.load(std::memory_order_acquire);
  for (; slot != nullptr; slot = slot->next) {
    // Whoever takes the watch away either sees this handler or is seen by it.
    slot->handlers.fetch_add(1, std::memory_order_seq_cst);
    if (LoopWake* wake = slot->wake.load(std::memory_order_seq_cst)) {
      slot->count.fetch_add(1, std::memory_order_relaxed);
      wake->wake();
    }
    slot->handlers.fetch_sub(1, std::memory_order_release);
  }
}

void install(int number) {
  struct sigaction ours {};
  struct sigaction before {};
  ours.sa_handler = handle;
  sigfillset(&ours.sa_mask);  // so that nothing keeps it from its end
  ours.sa_flags = SA_RESTART | SA_ONSTACK;
  sigaction(number, &ours, &before);
  if (before.sa_handler != handle) signalOf(number).before = before;
}

/// What the program has set meanwhile stays.
void restore(int number) {
  struct sigaction now {};
  sigaction(number, nullptr, &now);
  if (now.sa_handler == handle) sigaction(number, &signalOf(number).before, nullptr);
}

Slot* freeSlot(int number) {
  Slot* slot = signalOf(number).slots.load(std::memory_order_relaxed);
  while (slot != nullptr && slot->wake.load(std::memory_order_relaxed) != nullptr)
    slot = slot->next;
  return slot;
}

}  // namespace

SignalWatch::SignalWatch(int signal, LoopWake& wake) : signal_(signal), wake_(wake) {
  const Platform::LocoGuard guard;
  Signal& own = signalOf(signal);
  slot_ = freeSlot(signal);
  std::unique_ptr<Slot> made;
  if (slot_ == nullptr) made = std::make_unique<Slot>();
  const WholeChange change;
  if (made != nullptr) {
    slot_ = made.release();
    slot_->next = own.slots.load(std::memory_order_relaxed);
    own.slots.store(slot_, std::memory_order_release);
  }
  slot_->count.store(0, std::memory_order_relaxed);
  slot_->wake.store(&wake, std::memory_order_seq_cst);
  ++own.watches;
  ++allWatches;
  install(signal);
}

SignalWatch::~SignalWatch() {
  const Platform::LocoGuard guard;
  {
    const WholeChange change;
    // In a forked child it was forgotten already, and the slot may be another's.
    if (slot_->wake.load(std::memory_order_relaxed) != &wake_) return;
    slot_->wake.store(nullptr, std::memory_order_seq_cst);
    --allWatches;
    if (--signalOf(signal_).watches == 0) restore(signal_);
  }
  while (slot_->handlers.load(std::memory_order_seq_cst) != 0) std::this_thread::yield();
}

bool SignalWatch::any() const noexcept {
  return slot_->wake.load(std::memory_order_relaxed) == &wake_ &&
         slot_->count.load(std::memory_order_relaxed) != 0;
}

unsigned SignalWatch::take() noexcept {
  return slot_->count.exchange(0, std::memory_order_acquire);
}

void holdSignals() {
  held = allWatches > 0;
  if (!held) return;
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &maskBeforeFork);
}

void releaseSignals() {
  if (held) pthread_sigmask(SIG_SETMASK, &maskBeforeFork, nullptr);
  held = false;
}

void forgetSignalsInChild() {
  for (int number = 1; number < NSIG; ++number) {
    Signal& each = signalOf(number);
    if (each.watches > 0) restore(number);
    each.watches = 0;
    Slot* slot = each.slots.load(std::memory_order_relaxed);
    for (; slot != nullptr; slot = slot->next) {
      slot->wake.store(nullptr, std::memory_order_relaxed);
      slot->handlers.store(0, std::memory_order_relaxed);  // of threads that are not here
    }
  }
  allWatches = 0;
  releaseSignals();
}

}  // namespace Tarvo::Impl
