// One's own code, tested in virtual time: an hour of retries takes no time.

#include <Tarvo/TaskScheduler.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <utility>
#include <vector>

/// Tries something until it succeeds, after 1, 2, 4, ... seconds, but at least once in five
/// minutes.
class Retry : public Tarvo::TimerTask {
 public:
  Retry(std::shared_ptr<Tarvo::TaskScheduler> scheduler, std::function<bool()> attempt)
      : TimerTask(std::move(scheduler), Tarvo::TaskPriority::normal, "retry"),
        attempt_(std::move(attempt)) {}
  void taskExecute() override {
    if (attempt_()) return;
    scheduleTaskDelay(delay_);
    delay_ = std::min(2 * delay_, 300.0);
  }

 private:
  std::function<bool()> attempt_;
  double delay_ = 1.0;
};

void check(bool condition, const char* what) {
  if (condition) return;
  std::printf("failed: %s\n", what);
  std::exit(1);
}

int main() {
  Tarvo::Platform::setFastForward(true);
  std::vector<double> times;
  const auto retry = std::make_shared<Retry>(Tarvo::schedulerRootTarvo(), [&] {
    times.push_back(Tarvo::time());
    return times.size() == 20;
  });
  retry->scheduleTask();
  Tarvo::Platform::doEventLoop(3600.0);

  check(times.size() == 20, "it goes on until it succeeds");
  check(!retry->taskScheduled(), "and then stops");
  check(times[1] - times[0] >= 1.0 && times[5] - times[4] >= 16.0, "the pauses double");
  const double last = times[19] - times[18];
  check(last >= 300.0 && last < 301.0, "up to five minutes");
  std::printf("20 attempts in %.0f virtual seconds\n", times.back() - times.front());
}
