/// Counts what it does, and shows the page of the plug-in "Counters" when the dynamic loader finds
/// one. Everything else works without.

#include <cstdio>
#include <thread>
#include <vector>

#include "CountersPage.h"
#include "Tarvo/PrometheusPages.h"
#include "Tarvo/TaskScheduler.h"

int main() {
  Tarvo::Counter lines("lines_total", "lines that were handled");
  Tarvo::Gauge open("open_files");
  open.valueInc(3);
  open.valueDec();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < 1000; ++line) lines.valueInc();
    });
  }
  for (auto& thread : threads) thread.join();
  std::printf("%llu lines\n", static_cast<unsigned long long>(lines.value()));
  auto* page = dynamic_cast<CountersPage*>(Tarvo::Platform::loadPlugin("Counters"));
  if (page == nullptr) return 0;  // the trace on standard error says why
  const std::vector<Tarvo::String> pages{Tarvo::schedulerRootTarvo()->statsRenderPrometheus(),
                                         page->page()};
  std::fputs(Tarvo::joinPrometheusPages(pages).c_str(), stdout);
}
