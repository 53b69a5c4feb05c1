#ifndef TARVO_SRC_PLATFORM_VIRTUALTIMERS_H
#define TARVO_SRC_PLATFORM_VIRTUALTIMERS_H

#include <event2/event_struct.h>

#include <boost/intrusive/set.hpp>

#include "Tarvo/LibeventControls.h"
#include "platform/libevent/EventTime.h"

namespace Tarvo::Impl {

/// The timers that the library has set on one thread under fast forward. A jump moves every timeout
/// of the base, so with many timers there each jump would take as long as there are timers. These
/// wait beside the base, in their order and on a clock that jumps too. In the base one event
/// stands for the first of them. Those that are due are handed to the base, which serves them.
class VirtualTimers {
 public:
  explicit VirtualTimers(event_base* base);
  VirtualTimers(const VirtualTimers&) = delete;
  VirtualTimers& operator=(const VirtualTimers&) = delete;
  /// Forgets those that wait.
  ~VirtualTimers();

  void add(VirtualTimer& timer, const timeval& delay);
  /// REQUIRES: it waits here.
  void remove(VirtualTimer& timer);
  double remaining(const VirtualTimer& timer) const;

  void jumpBy(const timeval& delta) { jumped_ = sum(jumped_, delta); }
  /// Gives the base those that are due, to be served in their order.
  void activateDue();

  /// How many timers wait that the base does not count.
  int uncounted() const;

 private:
  struct EarlierDue {
    bool operator()(const VirtualTimer& a, const VirtualTimer& b) const {
      return isEarlier(a.due, b.due);
    }
  };

  static void firstIsDue(int fd, short what, void* arg);
  timeval now() const;
  bool expecting() const;
  void expect(const VirtualTimer& timer);
  void expectFirst();
  void unlink(VirtualTimer& timer);

  event_base* base_;
  event first_;
  timeval jumped_{0, 0};
  boost::intrusive::multiset<VirtualTimer, boost::intrusive::compare<EarlierDue>> timers_;
};

}  // namespace Tarvo::Impl

#endif
