/// "libCounters.so": publishes all counters of the process as text for Prometheus. It asks for
/// their values when it is asked for the page, so that counting costs no more with it than without.

#include <fmt/format.h>

#include "CountersPage.h"
#include "Tarvo/Loco.h"

namespace {

Tarvo::String escaped(const Tarvo::String& help) {
  Tarvo::String text;
  for (const char c : help) {
    if (c == '\\' || c == '\n') text += '\\';
    text += c == '\n' ? 'n' : c;
  }
  return text;
}

class Page : public CountersPage {
 public:
  const char* name() override { return "Counters"; }
  Tarvo::CounterWatch* watch(const Tarvo::Metric& metric) override {
    metrics_.push_back(&metric);
    return nullptr;
  }

  Tarvo::String page() override {
    pages_.valueInc();
    const Tarvo::Platform::LocoGuard guard;  // as watch() is called
    Tarvo::String text;
    for (const auto* metric : metrics_) {
      const char* type = metric->kind() == Tarvo::MetricKind::counter ? "counter" : "gauge";
      text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{0}{{root=\"process\"}} {3}\n",
                          metric->name(), escaped(metric->help()), type, metric->value());
    }
    return text;
  }

 private:
  Tarvo::Counter pages_{"counter_pages_total", "pages that were asked for"};
  std::vector<const Tarvo::Metric*> metrics_;
};

const bool registered = (Tarvo::Platform::registerPlugin(new Page), true);

}  // namespace
