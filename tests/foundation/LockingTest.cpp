#include "Tarvo/Locking.h"

#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Locking::ConditionalGuard;
using Tarvo::Locking::Lock;
using Tarvo::Locking::RecursiveLock;

/// Unlocks from outside; the report names the lock's owner and whoever it was that tried.
void expectRefusal(auto& lock, const std::string& kind, pthread_t owner) {
  const auto failure = failureOf([&] { lock.unlock(); });
  EXPECT_THAT(failure, HasSubstr(fmt::format("{}::unlock() attempting to release a lock that is "
                                             "not currently held, owner:{} me:{}",
                                             kind, owner, pthread_self())));
}

TEST(LockingTest, OnlyTheOwnerMayReleaseAsOftenAsItLocked) {
  Lock lock;
  RecursiveLock recursive;
  lock.lock();
  recursive.lock();
  EXPECT_TRUE(recursive.try_lock());
  recursive.unlock();
  EXPECT_TRUE(recursive.owns_lock());
  std::jthread([&, owner = pthread_self()] {
    EXPECT_FALSE(lock.owns_lock() || lock.try_lock());
    expectRefusal(lock, "Lock", owner);
    expectRefusal(recursive, "RecursiveLock", owner);
  }).join();
  lock.unlock();
  recursive.unlock();
  EXPECT_FALSE(recursive.owns_lock());
  expectRefusal(lock, "Lock", 0);
  expectRefusal(recursive, "RecursiveLock", 0);
}

TEST(LockingTest, AConditionalGuardHandsItsLockOn) {
  Lock lock;
  if (ConditionalGuard guard(lock); true) guard.releaseIs(false);
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  if (const ConditionalGuard guard(lock); true) lock.unlock();  // nothing is left to release
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

}  // namespace
