#ifndef TARVO_EXAMPLES_KV_MEASUREMENT_H
#define TARVO_EXAMPLES_KV_MEASUREMENT_H

#include <vector>

#include "Tarvo/TaskTime.h"

namespace kv {

/// How fast a service answered for some time.
class Measurement {
 public:
  void begin(Tarvo::Time now) { begin_ = now; }
  void end(Tarvo::Time now) { end_ = now; }
  void answered(double latency) { latencies_.push_back(static_cast<float>(latency)); }

  static void printHeading(const char* title);
  void print(const char* title) const;

 private:
  Tarvo::Time begin_ = 0;
  Tarvo::Time end_ = 0;
  std::vector<float> latencies_;  // seconds
};

}  // namespace kv

#endif
