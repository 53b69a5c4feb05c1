#ifndef TARVO_EXAMPLES_KV_PHASE_H
#define TARVO_EXAMPLES_KV_PHASE_H

#include <cstdint>
#include <vector>

namespace kv {

/// What the workers are doing. Whoever has finished its part of a phase goes on reading its keys
/// until the others have too.
enum class Phase : std::uint8_t {
  load,       // each file once
  switchOff,  // the background work
  quiet,      // a mix of requests, for some time, without background work
  switchOn,
  busy,    // the same mix, with it
  verify,  // each key once
  odd,     // until the odd clients are through
  count,   // what the service says it has
  over,
};

/// What was measured in one phase.
struct Measurement {
  double begin = 0;
  double end = 0;
  std::vector<float> latencies;  // seconds
};

}  // namespace kv

#endif
