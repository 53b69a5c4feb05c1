#include "platform/wheel/TimingWheel.h"

#include "support/Test.h"

namespace {

using Tarvo::Impl::TimeoutRecord;
using Tarvo::Impl::TimingWheel;
using Tick = TimingWheel::Tick;

/// The wheel beside a sorted map that is told the same.
struct WheelModel {
  void toggle(std::size_t i, Tick expires) {
    TimeoutRecord* const record = &records[i];
    const auto is = [=](const auto& entry) { return entry.second == record; };
    if (const auto place = std::ranges::find_if(model, is); place == model.end()) {
      wheel.add(*record, expires);
      model.emplace(expires, record);
    } else if (removes) {
      wheel.remove(*record);
      model.erase(place);
    }
  }

  /// Takes out what is due; both must agree on the timers and on the order within each tick.
  void advance(Tick now) {
    wheel.advance(now);
    const auto end = model.upper_bound(wheel.now());
    std::multimap<Tick, TimeoutRecord*> taken;
    while (TimeoutRecord* record = wheel.takeExpired()) taken.emplace(record->expires_, record);
    ASSERT_EQ(taken, (std::multimap<Tick, TimeoutRecord*>(model.begin(), end)));
    model.erase(model.begin(), end);
    ASSERT_EQ(wheel.hasPending(), !model.empty());
    if (model.empty()) return;
    ASSERT_GT(wheel.ticksToNext(), 0U);
    ASSERT_LE(wheel.ticksToNext(), model.begin()->first - wheel.now());
    ASSERT_TRUE(removes || wheel.ticksToNext() == model.begin()->first - wheel.now());
  }

  TimingWheel wheel;
  bool removes;  // then what is known of the next expiry is less exact
  std::vector<TimeoutRecord> records{40};
  std::multimap<Tick, TimeoutRecord*> model{};
};

Tick saturatingAdd(Tick a, Tick b) { return a + b < a ? ~Tick{0} : a + b; }

TEST(TimingWheelTest, AgreesWithASortedMap) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    // Steps of every size: 0, 1, around the wrap of each level, and far beyond the present.
    const auto step = [&]() -> Tick {
      const Tick width = Tick{1} << (random() % (seed % 2 == 0 ? 14 : 64));
      const Tick sizes[] = {random() % 3, width + random() % 3 - 1, random() % width};
      return sizes[std::min<Tick>(2, random() % 4)];
    };
    WheelModel model{TimingWheel(seed % 3 == 0 ? step() : 0), seed % 5 != 0};
    const Tick limit = seed % 2 == 0 ? ~Tick{0} : ~Tick{0} / 2;  // room for a long run
    for (int i = 0; i < 1500; ++i) {
      const Tick now = model.wheel.now();
      const Tick next = saturatingAdd(now, step());
      if (random() % 5 != 0) {
        model.toggle(random() % 40, random() % 8 == 0 ? now - std::min(now, step()) : next);
      } else {
        ASSERT_NO_FATAL_FAILURE(model.advance(next < limit ? next : now + 1));
      }
    }
    ASSERT_NO_FATAL_FAILURE(model.advance(~Tick{0}));
  }
}

}  // namespace
