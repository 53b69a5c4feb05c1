#ifndef TARVO_SRC_PLATFORM_VIRTUALTIMERS_H
#define TARVO_SRC_PLATFORM_VIRTUALTIMERS_H

#include <event2/event_struct.h>

#include <boost/intrusive/set.hpp>

#include "Tarvo/LibeventControls.h"
#include "platform/libevent/EventTime.h"

namespace Tarvo::Impl {

/// The timers of this library that were set on one thread under fast forward. A jump shifts every
/// timeout in the base, so with many timers in the base each jump would cost time for each of them.
/// These timers are kept here instead, sorted by their expiry on a clock of their own: a jump only
/// adds to `jumped_`. In the base one event, first_, is pending for the earliest. Due timers are
/// made active in the base, which then runs their callbacks.
class VirtualTimers {
 public:
  explicit VirtualTimers(event_base* base);
  VirtualTimers(const VirtualTimers&) = delete;
  VirtualTimers& operator=(const VirtualTimers&) = delete;
  /// Drops the pending timers.
  ~VirtualTimers();

  void add(VirtualTimer& timer, const timeval& delay);
  /// REQUIRES: the timer is pending here.
  void remove(VirtualTimer& timer);
  double remaining(const VirtualTimer& timer) const;

  void jumpBy(const timeval& delta) { jumped_ = sum(jumped_, delta); }
  /// Makes the events of all due timers active, in the order of their expiries.
  void activateDue();

  /// How many pending timers the base does not count: all but the one that first_ stands for.
  int uncounted() const;

 private:
  struct EarlierDue {
    bool operator()(const VirtualTimer& a, const VirtualTimer& b) const {
      return isEarlier(a.due, b.due);
    }
  };

  static void firstIsDue(int fd, short what, void* arg);
  timeval now() const;
  // Whether first_ is armed; arming it for a timer, or for the earliest one.
  bool expecting() const;
  void expect(const VirtualTimer& timer);
  void expectFirst();
  void unlink(VirtualTimer& timer);

  event_base* base_;
  event first_;
  timeval jumped_{0, 0};  // the sum of all jumps: our clock is the base's plus this
  boost::intrusive::multiset<VirtualTimer, boost::intrusive::compare<EarlierDue>> timers_;
};

}  // namespace Tarvo::Impl

#endif
