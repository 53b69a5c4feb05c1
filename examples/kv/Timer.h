#ifndef TARVO_EXAMPLES_KV_TIMER_H
#define TARVO_EXAMPLES_KV_TIMER_H

#include <functional>
#include <memory>
#include <utility>

#include "Tarvo/TaskScheduler.h"

namespace kv {

/// A timer task that calls a function.
class Timer : public Tarvo::TimerTask {
 public:
  Timer(std::shared_ptr<Tarvo::TaskScheduler> scheduler, const char* name,
        std::function<void()> act, Tarvo::TaskPriority priority = Tarvo::TaskPriority::normal)
      : TimerTask(std::move(scheduler), priority, name), act_(std::move(act)) {}

 private:
  void taskExecute() override { act_(); }

  std::function<void()> act_;
};

}  // namespace kv

#endif
