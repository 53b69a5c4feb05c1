#include "platform/TimingWheel.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using Tarvo::Impl::TimeoutRecord;
using Tarvo::Impl::TimingWheel;
using Tick = TimingWheel::Tick;

/// The wheel beside a sorted map that is told the same.
class WheelModel {
 public:
  explicit WheelModel(Tick now, std::size_t size) : wheel_(now), records_(size) {}

  void toggle(std::size_t i, Tick expires) {
    if (records_[i].pending_ != nullptr) {
      wheel_.remove(records_[i]);
      std::erase_if(model_, [&](const auto& entry) { return entry.second == &records_[i]; });
    } else {
      wheel_.add(records_[i], expires);
      model_.emplace(expires, &records_[i]);
    }
  }

  /// Advances and takes out what is due; both must agree on the timers and on the order within each
  /// tick.
  void advance(Tick now) {
    wheel_.advance(now);
    const auto end = model_.upper_bound(wheel_.now());
    std::multimap<Tick, TimeoutRecord*> taken;
    while (TimeoutRecord* record = wheel_.takeExpired()) taken.emplace(record->expires_, record);
    const std::multimap<Tick, TimeoutRecord*> expected(model_.begin(), end);
    ASSERT_EQ(taken, expected);
    model_.erase(model_.begin(), end);
    ASSERT_EQ(wheel_.hasPending(), !model_.empty());
    if (!model_.empty()) {
      ASSERT_GT(wheel_.ticksToNext(), 0U);
      ASSERT_LE(wheel_.ticksToNext(), model_.begin()->first - wheel_.now());
    }
  }

  Tick now() const { return wheel_.now(); }

 private:
  TimingWheel wheel_;
  std::vector<TimeoutRecord> records_;
  std::multimap<Tick, TimeoutRecord*> model_;
};

Tick saturatingAdd(Tick a, Tick b) { return a + b < a ? ~Tick{0} : a + b; }

TEST(TimingWheelTest, AgreesWithASortedMap) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    // Steps of every size: 0, 1, around the wrap of each level, and far beyond the present.
    const auto step = [&]() -> Tick {
      const Tick width = Tick{1} << (random() % (seed % 2 == 0 ? 14 : 64));
      switch (random() % 4) {
        case 0:
          return random() % 3;
        case 1:
          return width + random() % 3 - 1;
        default:
          return random() % width;
      }
    };
    WheelModel model(seed % 3 == 0 ? step() : 0, 40);
    for (int i = 0; i < 1500; ++i) {
      if (random() % 5 != 0) {
        const Tick ahead = saturatingAdd(model.now(), step());
        const Tick past = model.now() - std::min(model.now(), step());
        model.toggle(random() % 40, random() % 8 == 0 ? past : ahead);
      } else {
        const Tick limit = seed % 2 == 0 ? ~Tick{0} : ~Tick{0} / 2;  // room for a long run
        const Tick next = saturatingAdd(model.now(), step());
        ASSERT_NO_FATAL_FAILURE(model.advance(next < limit ? next : model.now() + 1));
      }
    }
    ASSERT_NO_FATAL_FAILURE(model.advance(~Tick{0}));
  }
}

TEST(TimingWheelTest, KnowsTheNextExpiryToTheTick) {
  TimingWheel wheel(12345);
  TimeoutRecord near, far;
  wheel.add(far, 12345 + 1000000);
  EXPECT_EQ(wheel.ticksToNext(), 1000000U);
  wheel.add(near, 12345 + 777);
  EXPECT_EQ(wheel.ticksToNext(), 777U);
  wheel.remove(near);
  wheel.advance(12345 + 999999);
  EXPECT_EQ(wheel.ticksToNext(), 1U);
}

}  // namespace
