#include "platform/libevent/EventTime.h"

#include <algorithm>
#include <cmath>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/Assert.h"

namespace Tarvo {

timeval Impl::secondsToTimeval(double seconds) {
  TARVO_ASSERT(!std::isnan(seconds), "a time of NaN seconds");
  seconds = std::clamp(seconds, -longestDelay, longestDelay);
  timeval tv;
  tv.tv_sec = static_cast<time_t>(seconds);
  tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1e6);
  return tv;
}

}  // namespace Tarvo
