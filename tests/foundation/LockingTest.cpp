#include "Tarvo/Locking.h"

#include <gmock/gmock.h>

#include <thread>

#include "support/Failure.h"

namespace {

using Tarvo::Locking::ConditionalGuard;
using Tarvo::Locking::Lock;
using Tarvo::Locking::RecursiveLock;
using testing::HasSubstr;
using testsupport::failureOf;

const std::string notHeld =
    "unlock() attempting to release a lock that is not currently held, owner:";

TEST(LockingTest, OnlyTheOwnerMayRelease) {
  Lock lock;
  lock.lock();
  const auto owner = std::to_string(pthread_self());
  std::jthread([&] {
    EXPECT_FALSE(lock.owns_lock() || lock.try_lock());
    EXPECT_THAT(
        failureOf([&] { lock.unlock(); }),
        HasSubstr("Lock::" + notHeld + owner + " me:" + std::to_string(pthread_self()) + "\""));
  }).join();
  lock.unlock();
  EXPECT_THAT(failureOf([&] { lock.unlock(); }), HasSubstr(notHeld + "0 me:" + owner));
}

TEST(LockingTest, ARecursiveLockIsFreeAfterAsManyReleases) {
  RecursiveLock lock;
  lock.lock();
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
  EXPECT_TRUE(lock.owns_lock());
  std::jthread([&] {
    EXPECT_THAT(failureOf([&] { lock.unlock(); }), HasSubstr(" lockCount:1"));
  }).join();
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_THAT(failureOf([&] { lock.unlock(); }),
              HasSubstr("RecursiveLock::" + notHeld + "0 me:" + std::to_string(pthread_self()) +
                        " lockCount:0"));
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
