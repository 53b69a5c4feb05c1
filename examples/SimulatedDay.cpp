/// A day in the life of a service, in virtual time: timers on a wheel run as they would on a real
/// day, in the right order and at the right hour, within a moment.
///
///     SimulatedDay          prints the schedule of the day

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "Tarvo/Platform.h"
#include "Tarvo/TimerWheel.h"

namespace {

constexpr double minute = 60;
constexpr double hour = 60 * minute;
constexpr double day = 24 * hour;

/// Something that happens again and again, from a first time on.
struct Job : Tarvo::TimerWheelEvent {
  Job(std::shared_ptr<Tarvo::TimerWheel> itsWheel, std::string itsName, double first, double again)
      : wheel(std::move(itsWheel)), name(std::move(itsName)), every(again) {
    setTimeout(wheel, first);
  }
  ~Job() override { delTimeout(wheel); }

  void timeout() override {
    times.push_back(Tarvo::time() - midnight);
    setTimeout(wheel, every);
  }

  const std::shared_ptr<Tarvo::TimerWheel> wheel;
  const std::string name;
  const double every;
  const double midnight = Tarvo::time();
  std::vector<double> times;  // when it ran, in seconds since the start
};

std::string clockText(double seconds) {
  const int whole = static_cast<int>(seconds);
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", whole / 3600 % 100, whole / 60 % 60,
                whole % 60);
  return text;
}

}  // namespace

int main() {
  const auto realBegin = std::chrono::steady_clock::now();
  Tarvo::Platform::setFastForward(true);
  const auto wheel = Tarvo::getTimerWheel();

  Job backup(wheel, "backup", 3 * hour, day);
  Job report(wheel, "report", 6 * hour + 30 * minute, 8 * hour);
  Job rotate(wheel, "rotate logs", 0.5 * hour, 6 * hour);
  Job heartbeat(wheel, "heartbeat", 10, 10);

  Tarvo::Platform::doEventLoop(day);

  std::multimap<double, std::string> schedule;
  for (const Job* job : {&backup, &report, &rotate}) {
    for (const double when : job->times) schedule.emplace(when, job->name);
  }
  for (const auto& [when, name] : schedule) {
    std::printf("%s  %s\n", clockText(when).c_str(), name.c_str());
  }
  std::printf("%zu heartbeats, the last at %s\n", heartbeat.times.size(),
              clockText(heartbeat.times.back()).c_str());
  const std::chrono::duration<double> real = std::chrono::steady_clock::now() - realBegin;
  std::printf("a day in %.3f s\n", real.count());
}
