/// Every order in which the steps of wakers and of the thread that they wake can come. The list is
/// the library's own; each step on one of its atomic words hands over to another fiber.

#include <gtest/gtest.h>
#include <ucontext.h>

#include <array>
#include <functional>
#include <vector>

#include "platform/libevent/WakeList.h"

namespace {

/// Runs three fibers step by step: first as the choices say, then the first that can run.
struct Explorer {
  struct Fiber {
    std::function<void()> body;
    bool ended = false, waits = false;
    ucontext_t context{};
    std::vector<char> stack = std::vector<char>(1 << 16);
  };
  static void enter() {
    running->body();
    running->ended = true;
  }
  /// False when somebody waits for ever.
  bool run() {
    for (Fiber& fiber : fibers) {
      fiber.ended = fiber.waits = false;
      getcontext(&fiber.context);
      fiber.context.uc_stack = {fiber.stack.data(), 0, fiber.stack.size()};
      fiber.context.uc_link = &main;
      makecontext(&fiber.context, enter, 0);
    }
    for (std::size_t step = 0;; ++step) {
      std::vector<Fiber*> able;
      for (Fiber& fiber : fibers) {
        if (!fiber.ended && (!fiber.waits || signalled)) able.push_back(&fiber);
      }
      if (able.empty()) return fibers[0].ended && fibers[1].ended && fibers[2].ended;
      if (step == choices.size()) choices.push_back({0, 0});
      choices[step].second = able.size();
      running = able[choices[step].first];
      running->waits = false;
      swapcontext(&main, &running->context);
    }
  }
  /// Turns to the next order; false after the last.
  bool next() {
    while (!choices.empty() && choices.back().first + 1 == choices.back().second) {
      choices.pop_back();
    }
    if (choices.empty()) return false;
    return ++choices.back().first, true;
  }
  static void step(bool waits = false) {
    running->waits = waits;
    swapcontext(&running->context, &main);
  }

  std::array<Fiber, 3> fibers;
  std::vector<std::pair<std::size_t, std::size_t>> choices;  // and among how many
  static inline Fiber* running = nullptr;
  static inline ucontext_t main{};
  bool signalled = false;  // what the kernel would wake the thread for
};

template <typename T>
struct Stepped {
  T load(std::memory_order) const { return Explorer::step(), value; }
  void store(T now, std::memory_order) { Explorer::step(), value = now; }
  T exchange(T now, std::memory_order) { return Explorer::step(), std::exchange(value, now); }
  bool compare_exchange_strong(T& expected, T now, std::memory_order, std::memory_order = {}) {
    Explorer::step();
    if (value == expected) return value = now, true;
    return expected = value, false;
  }
  bool compare_exchange_weak(T& expected, T now, std::memory_order a, std::memory_order b) {
    return compare_exchange_strong(expected, now, a, b);
  }
  T value;
};
using List = Tarvo::Impl::WakeList<Stepped>;

/// Two wakers, of one or of two things, and the thread: it serves in a slice, goes to sleep, and
/// serves what it was woken up for. Each thing that was written before a wake must be seen.
void explore(std::size_t things, bool inSlice) {
  Explorer explorer;
  long orders = 0;
  do {
    List list;
    std::array<List::Link, 2> links;
    std::array<int, 2> written{}, seen{};
    explorer.signalled = false;
    const auto waker = [&](std::size_t thing) {
      ++written[thing];
      if (!List::claim(links[thing], 1)) return;
      if (list.join(links[thing]) == List::Joined::ownerSleeps) explorer.signalled = true;
    };
    const auto serve = [&](List::Link* first) {
      while (first != nullptr) {
        List::Link& link = *std::exchange(first, first->next);
        List::release(link);
        const auto thing = static_cast<std::size_t>(&link - links.data());
        seen[thing] = written[thing];
      }
    };
    explorer.fibers[0].body = [&] { waker(0); };
    explorer.fibers[1].body = [&] { waker(things - 1); };
    explorer.fibers[2].body = [&] {
      if (inSlice) {
        list.wakeUp();
        while (!list.fallAsleep()) serve(list.takeAndLook());
      }
      while (seen[0] + seen[1] < 2) {
        Explorer::step(true);
        explorer.signalled = false;
        if (list.any()) serve(list.takeAndSleep());
      }
    };
    ASSERT_TRUE(explorer.run()) << "asleep beside a wake, in order " << orders;
    ++orders;
  } while (explorer.next());
  EXPECT_GT(orders, 100);
}

TEST(Interleavings, OfWakersAndASleeperLoseNoWake) {
  explore(1, true);
  explore(2, false);
}

}  // namespace
