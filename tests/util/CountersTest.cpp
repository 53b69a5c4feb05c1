#include "Tarvo/Counters.h"

#include "Tarvo/Loco.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Counter;
using Tarvo::Gauge;

struct Plugin : Tarvo::CountersPlugin, Tarvo::CounterWatch {
  const char* name() override { return "Counters"; }
  Tarvo::CounterWatch* watch(const Tarvo::Metric& metric) override {
    if (!Tarvo::Platform::loco().owns_lock()) log += "unlocked ";
    log += fmt::format("watch:{} ", metric.name());
    if (metric.name() == "first") const Counter nested("nested", "by the plug-in");
    if (metric.name() == "refused") throw std::runtime_error("no room");
    return metric.name() == "quiet" ? nullptr : this;
  }
  void changed(const Tarvo::Metric& metric, std::int64_t by) override {
    log += fmt::format("{}{}={} ", metric.name(), by, metric.value());
    if (by == 13) throw 13;
  }
  std::string log;
};

/// Runs in a child, which has no plug-in yet, and returns what it prints and traces.
std::string inChild(const std::function<void()>& body) {
  Tarvo::throwOnAssertFailIs(true);
  const auto child = runForked([&] { return body(), 0; });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  return child.out + child.err;
}

TEST(CountersTest, CallsWhatThePluginRegisteredAndLeavesItWhenItThrows) {
  const auto text = inChild([] {
    static Plugin plugin;
    Tarvo::Platform::registerPlugin(&plugin);
    Counter("first").valueInc(2);
    Gauge gauge("gauge");
    gauge.valueInc(5);
    gauge.valueDec(7);
    gauge.valueIs(9);
    Counter("quiet").valueInc();
    Counter("refused").valueInc();
    Counter thrown("thrown");
    for (const unsigned by : {1U, 13U, 2U}) thrown.valueInc(by);
    std::cout << plugin.log << thrown.value();
  });
  EXPECT_THAT(text, HasSubstr("watch:first watch:nested first2=2 watch:gauge gauge5=5 gauge-7=-2 "
                              "gauge11=9 watch:quiet watch:refused watch:thrown thrown1=1 "
                              "thrown13=14 16"));
  EXPECT_THAT(text, HasSubstr("hears no more of refused, because it threw: no room\n"));
  EXPECT_THAT(text, HasSubstr("hears no more of thrown, because it threw: something"));
}

TEST(CountersTest, AddsUpThreadsThatRunHaveEndedOrAreEndingAndAForkGoesOn) {
  const auto text = inChild([] {
    static Counter counter("many");
    struct AtEnd {
      ~AtEnd() { counter.valueInc(1000); }
    };
    const auto count = [] {
      static thread_local const AtEnd before;  // destroyed after what counting itself needs
      (void)&before;
      for (int i = 0; i < 100000; ++i) counter.valueInc();
    };
    std::thread(count).join();
    std::jthread one(count);
    std::jthread two(count);
    std::vector<std::uint64_t> seen(10000);
    std::ranges::generate(seen, [] { return counter.value(); });
    if (!std::ranges::is_sorted(seen)) std::abort();  // nothing is missing while a thread ends
    one.join();
    two.join();
    counter.valueInc(7);
    const auto child = runForked([] {
      Counter("many").valueInc();
      return counter.value() == 303008 ? 0 : 1;
    });
    std::cout << child.exitCode << ' ' << counter.value();
  });
  EXPECT_THAT(text, HasSubstr("0 303007"));
}

TEST(CountersTest, NamesAreOneKindAndBounded) {
  const auto text = inChild([] {
    const auto failure = [](auto body) { std::puts(failureOf(body).c_str()); };
    failure([] { const Counter bad("9a"); });
    const Counter same("same");
    failure([] { const Gauge bad("same"); });
    for (std::size_t i = 1; i < Tarvo::Impl::mostMetrics; ++i) Gauge(fmt::format("g{}", i));
    failure([] { const Gauge bad("last"); });
  });
  EXPECT_THAT(text, HasSubstr("same is both a counter and a gauge"));
  EXPECT_THAT(text, HasSubstr("no room for the metric last beside 4096 others"));
}

TEST(CountersTest, WorksWithoutAPluginAndRefusesWhatIsNone) {
  const auto none = runProgram("-u LD_LIBRARY_PATH " COUNTERS_HOST);
  EXPECT_EQ(none.out, "4000 lines\n");
  EXPECT_THAT(none.err, HasSubstr(" TarvoPlugin 0 "));
  const auto broken = inChild([] {
    static struct : Tarvo::Platform::Plugin {
      const char* name() override { return "Counters"; }
    } plugin;
    Tarvo::Platform::registerPlugin(&plugin);
    std::puts(failureOf([] { Counter("any"); }).c_str());
  });
  EXPECT_THAT(broken, HasSubstr("the plug-in Counters is no Tarvo::CountersPlugin"));
}

}  // namespace
