#include "Tarvo/Locking.h"

#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "Tarvo/Exception.h"
#include "Tarvo/Loco.h"
#include "support/Failure.h"

namespace {

using Tarvo::Locking::ConditionalGuard;
using Tarvo::Locking::Lock;
using Tarvo::Locking::RecursiveLock;
using testing::HasSubstr;
using testsupport::failureOf;

TEST(LockingTest, OnlyTheOwnerMayRelease) {
  Lock lock;
  lock.lock();
  const auto owner = std::to_string(pthread_self());
  std::jthread([&] {
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_FALSE(lock.try_lock());
    EXPECT_THAT(failureOf([&] { lock.unlock(); }),
                HasSubstr("Lock::unlock() attempting to release a lock that is not currently held, "
                          "owner:" +
                          owner + " me:" + std::to_string(pthread_self())));
  }).join();
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  EXPECT_THAT(failureOf([&] { lock.unlock(); }), HasSubstr("owner:0 me:" + owner));
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
  EXPECT_THAT(
      failureOf([&] { lock.unlock(); }),
      HasSubstr("RecursiveLock::unlock() attempting to release a lock that is not currently "
                "held, owner:0 me:" +
                std::to_string(pthread_self()) + " lockCount:0"));
}

TEST(LockingTest, LocksExcludeEachOther) {
  Lock lock;
  RecursiveLock recursive;
  long first = 0;
  long second = 0;
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 5000; ++i) {
          {
            std::lock_guard guard(lock);
            ++first;
          }
          {
            std::lock_guard outer(recursive);
            std::lock_guard inner(recursive);
            ++second;
          }
        }
      });
    }
  }
  EXPECT_EQ(first, 20000);
  EXPECT_EQ(second, 20000);
}

TEST(LockingTest, AConditionalGuardHandsItsLockOn) {
  Lock lock;
  { ConditionalGuard guard(lock); }
  EXPECT_FALSE(lock.owns_lock());
  {
    ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  {
    ConditionalGuard guard(lock);
    lock.unlock();  // already given up: the guard must not release again
  }
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

TEST(LockingTest, TheGlobalLockNests) {
  {
    Tarvo::Platform::LocoGuard outer;
    { Tarvo::Platform::LocoGuard inner; }
    EXPECT_TRUE(Tarvo::Platform::loco().owns_lock());
  }
  EXPECT_FALSE(Tarvo::Platform::loco().owns_lock());
}

}  // namespace
